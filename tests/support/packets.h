// Builds packets of both IP versions for tests, and reads them: plain byte vectors with Ethernet in
// front. Knows nothing of the stack, so that the stack is checked against something else.
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace packets
{

using bytes = std::vector<std::uint8_t>;
using mac = std::array<std::uint8_t, 6>;
using ip4 = std::array<std::uint8_t, 4>;

constexpr int ETH = 14; // where the network header begins in a frame
constexpr mac BROADCAST = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr std::uint8_t TCP = 6;
constexpr std::uint8_t UDP = 17;

// The 4 or 16 bytes of an address.
inline bytes to_ip(const std::string &text)
{
    const bool isv6 = text.find(':') != std::string::npos;
    bytes out(isv6 ? 16 : 4);
    if (inet_pton(isv6 ? AF_INET6 : AF_INET, text.c_str(), out.data()) != 1) {
        throw std::invalid_argument("not an address: " + text);
    }
    return out;
}

inline std::string to_text(const ip4 &ip)
{
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, ip.data(), text, sizeof(text));
}

inline std::uint16_t get16(const bytes &b, std::size_t at)
{
    return static_cast<std::uint16_t>(b.at(at) << 8 | b.at(at + 1));
}

inline std::uint32_t get32(const bytes &b, std::size_t at)
{
    return static_cast<std::uint32_t>(get16(b, at)) << 16 | get16(b, at + 2);
}

inline void put16(bytes &b, std::size_t at, std::uint16_t v)
{
    b.at(at) = static_cast<std::uint8_t>(v >> 8);
    b.at(at + 1) = static_cast<std::uint8_t>(v);
}

inline void put32(bytes &b, std::size_t at, std::uint32_t v)
{
    put16(b, at, static_cast<std::uint16_t>(v >> 16));
    put16(b, at + 2, static_cast<std::uint16_t>(v));
}

inline mac mac_at(const bytes &b, std::size_t at)
{
    mac out;
    (void)b.at(at + out.size() - 1);
    std::copy_n(&b[at], out.size(), out.begin());
    return out;
}

inline std::string ip_at(const bytes &b, std::size_t at)
{
    return to_text({b.at(at), b.at(at + 1), b.at(at + 2), b.at(at + 3)});
}

inline std::string ip6_at(const bytes &b, std::size_t at)
{
    (void)b.at(at + 15);
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, &b[at], text, sizeof(text));
}

template <class Bytes> void set_at(bytes &b, std::size_t at, const Bytes &what)
{
    for (std::size_t i = 0; i < what.size(); i++) {
        b.at(at + i) = what[i];
    }
}

// RFC 1071 by the book: one word after the other, the carry added at once. A range that is valid
// with its checksum in place sums to 0.
inline std::uint16_t checksum(const bytes &b, std::size_t from, std::size_t to,
                              std::uint32_t start = 0)
{
    std::uint32_t sum = start;
    for (std::size_t i = from; i < to; i += 2) {
        sum += static_cast<std::uint32_t>(b.at(i)) << 8;
        sum += i + 1 < to ? b.at(i + 1) : 0;
        sum = sum > 0xFFFF ? sum - 0xFFFF : sum;
    }
    return static_cast<std::uint16_t>(0xFFFF - sum);
}

// The header checksum of the frame's IP header, computed and stored.
inline void mend_ip(bytes &frame, std::size_t ip = ETH)
{
    const std::size_t hdrlen = static_cast<std::size_t>(frame.at(ip) & 15) * 4;
    put16(frame, ip + 10, 0);
    put16(frame, ip + 10, checksum(frame, ip, ip + hdrlen));
}

constexpr std::uint8_t ICMP = 1;
constexpr std::uint8_t HOPOPTS = 0;
constexpr std::uint8_t ROUTING = 43;
constexpr std::uint8_t FRAGMENT = 44;
constexpr std::uint8_t ICMP6 = 58;
constexpr std::uint8_t NONEXT = 59;
constexpr std::uint8_t DSTOPTS = 60;
constexpr std::size_t IP6 = ETH + 40; // where what follows IPv6's fixed header begins in a frame

inline bool is_ipv6(const bytes &frame, std::size_t ip = ETH)
{
    return frame.at(ip) >> 4 == 6;
}

// The length in the IP header, of what the frame has; and the IPv4 header's checksum.
inline void mend_length(bytes &frame)
{
    if (is_ipv6(frame)) {
        put16(frame, ETH + 4, static_cast<std::uint16_t>(frame.size() - IP6));
    } else {
        put16(frame, ETH + 2, static_cast<std::uint16_t>(frame.size() - ETH));
        mend_ip(frame);
    }
}

inline std::string src_of(const bytes &frame)
{
    return is_ipv6(frame) ? ip6_at(frame, ETH + 8) : ip_at(frame, ETH + 12);
}
inline std::string dst_of(const bytes &frame)
{
    return is_ipv6(frame) ? ip6_at(frame, ETH + 24) : ip_at(frame, ETH + 16);
}

// Where the transport header of a frame begins, and its protocol; the IPv6 fragment header in front
// of it, or 0. Throws std::out_of_range where the frame ends before.
struct upper {
    std::size_t at;
    std::uint8_t proto;
    std::size_t fragment = 0;
};
inline upper upper_of(const bytes &frame, std::size_t ip = ETH)
{
    if (!is_ipv6(frame, ip)) {
        return {ip + (frame[ip] & 15U) * 4, frame.at(ip + 9)};
    }
    upper u = {ip + 40, frame.at(ip + 6)};
    while (u.proto == HOPOPTS || u.proto == ROUTING || u.proto == FRAGMENT || u.proto == DSTOPTS) {
        // The second byte of a fragment header, which is reserved, is a length all the same.
        const std::size_t len = (frame.at(u.at + 1) + std::size_t{1}) * 8;
        u.fragment = u.proto == FRAGMENT ? u.at : u.fragment;
        u.proto = frame.at(u.at);
        u.at += len;
    }
    return u;
}

// What the TCP, UDP or ICMP checksum of a frame adds up to: 0 when it is right.
inline std::uint16_t transport_residue(const bytes &frame, std::size_t ip = ETH)
{
    const upper u = upper_of(frame, ip);
    const bool isv6 = is_ipv6(frame, ip);
    const std::size_t end = ip + (isv6 ? 40U : 0U) + get16(frame, ip + (isv6 ? 4 : 2));
    bytes pseudo; // in whatever order: it is a sum
    for (std::size_t at = isv6 ? 8 : 12; at < (isv6 ? 40 : 20) && u.proto != ICMP; at++) {
        pseudo.push_back(frame.at(ip + at));
    }
    if (u.proto != ICMP) {
        pseudo.resize(pseudo.size() + 4);
        put16(pseudo, pseudo.size() - 4, u.proto);
        put16(pseudo, pseudo.size() - 2, static_cast<std::uint16_t>(end - u.at));
    }
    const auto start = static_cast<std::uint16_t>(0xFFFF - checksum(pseudo, 0, pseudo.size()));
    return checksum(frame, u.at, end, start);
}

inline void mend_transport(bytes &frame, std::size_t ip = ETH)
{
    const upper u = upper_of(frame, ip);
    const std::size_t at = u.at + (u.proto == TCP ? 16 : u.proto == UDP ? 6 : 2);
    put16(frame, at, 0);
    put16(frame, at, transport_residue(frame, ip));
}

// An extension header: its type, and all of it but the next-header byte, which the builder fills.
struct ext {
    std::uint8_t type;
    bytes whole;
};

// Options or a routing header of (units + 1) * 8 bytes, all of it Pad1 (RFC 8200, 4.2).
inline ext padding(std::uint8_t type, std::uint8_t units = 0)
{
    ext e = {type, bytes((units + std::size_t{1}) * 8)};
    e.whole[1] = units;
    return e;
}

// A fragment header; `offmf` is its third and fourth byte: offset in units of 8 bytes << 3, and 1
// for more fragments.
inline ext fragment(std::uint32_t id, std::uint16_t offmf)
{
    ext e = {FRAGMENT, bytes(8)};
    put16(e.whole, 2, offmf);
    put32(e.whole, 4, id);
    return e;
}

// A TCP or UDP packet (or another protocol's), as a client sends it to a cluster. It is IPv6's
// where `version` or an address says so; an address left empty is the client's or the cluster's.
struct packet {
    int version = 4;
    std::string src = "";
    std::string dst = "";
    std::uint16_t sport = 40000;
    std::uint16_t dport = 80;
    std::uint8_t proto = TCP;
    std::uint8_t ttl = 64;
    std::uint8_t flags = 0x02; // TCP
    std::uint32_t seq = 1000;  // TCP
    std::uint32_t ack = 0;     // TCP
    std::uint16_t id = 1;      // IPv4
    std::uint16_t fragoff = 0; // IPv4: flags and offset as the header has them
    std::size_t options = 0;   // IPv4: bytes of options, a multiple of 4
    std::vector<ext> exts = {};
    std::size_t payload = 32; // bytes behind the transport header
    mac ethdst = {2, 0, 0, 0, 0, 0xFF};
    mac ethsrc = {2, 0, 0, 0, 0, 0x50};
};

inline bool is_ipv6(const packet &p)
{
    return p.version == 6 || (p.src + p.dst).find(':') != std::string::npos;
}

inline void add_headers(bytes &f, const packet &p)
{
    f.resize(ETH + 20);
    f.resize(ETH + 20 + p.options, 1); // no operation
    put16(f, 12, 0x0800);
    f[ETH] = static_cast<std::uint8_t>(0x40 | (20 + p.options) / 4);
    put16(f, ETH + 4, p.id);
    put16(f, ETH + 6, p.fragoff);
    f[ETH + 8] = p.ttl;
    f[ETH + 9] = p.proto;
    set_at(f, ETH + 12, to_ip(p.src.empty() ? "10.0.0.50" : p.src));
    set_at(f, ETH + 16, to_ip(p.dst.empty() ? "10.0.0.100" : p.dst));
}
inline void add_headers6(bytes &f, const packet &p)
{
    f.resize(IP6);
    put16(f, 12, 0x86DD);
    f[ETH] = 0x60;
    f[ETH + 7] = p.ttl;
    set_at(f, ETH + 8, to_ip(p.src.empty() ? "2001:db8::50" : p.src));
    set_at(f, ETH + 24, to_ip(p.dst.empty() ? "2001:db8::100" : p.dst));
    std::size_t next = ETH + 6; // the byte that names what follows
    for (const ext &e : p.exts) {
        f[next] = e.type;
        next = f.size();
        f.insert(f.end(), e.whole.begin(), e.whole.end());
    }
    f[next] = p.proto;
}

inline bytes build(const packet &p)
{
    bytes f(ETH);
    set_at(f, 0, p.ethdst);
    set_at(f, 6, p.ethsrc);
    is_ipv6(p) ? add_headers6(f, p) : add_headers(f, p);
    const std::size_t l4 = f.size();
    const std::size_t l4len = p.proto == TCP ? 20 : p.proto == UDP ? 8 : 0;
    f.resize(l4 + l4len + p.payload);
    for (std::size_t i = 0; i < p.payload; i++) {
        f[l4 + l4len + i] = static_cast<std::uint8_t>('a' + i % 26);
    }
    mend_length(f);
    if (l4len == 0) {
        return f;
    }
    put16(f, l4, p.sport);
    put16(f, l4 + 2, p.dport);
    if (p.proto == TCP) {
        put32(f, l4 + 4, p.seq);
        put32(f, l4 + 8, p.ack);
        f[l4 + 12] = 0x50;
        f[l4 + 13] = p.flags;
        put16(f, l4 + 14, 64240);
    } else {
        put16(f, l4 + 4, static_cast<std::uint16_t>(l4len + p.payload));
    }
    mend_transport(f);
    return f;
}

// Cuts the IP packet of a frame to `len` bytes; `honest` makes its header say so.
inline bytes cut(bytes frame, std::size_t len, bool honest = true)
{
    frame.resize(ETH + len);
    if (honest) {
        mend_length(frame);
    }
    return frame;
}

// Another byte, whatever checksum covers it.
inline bytes with(bytes frame, std::size_t at, std::uint8_t value)
{
    frame.at(at) = value;
    return frame;
}

inline bytes with16(bytes frame, std::size_t at, std::uint16_t value)
{
    put16(frame, at, value);
    return frame;
}

// An IPv4 packet that says it has another length.
inline bytes with_total(const bytes &frame, std::uint16_t total)
{
    bytes out = with16(frame, ETH + 2, total);
    mend_ip(out);
    return out;
}

inline bytes part(const bytes &b, std::size_t from, std::size_t to)
{
    return {b.begin() + static_cast<long>(from), b.begin() + static_cast<long>(to)};
}

// What an ICMP error quotes of a packet that a server sent (RFC 792; RFC 4443, 2.4).
inline bytes quote(const packet &p)
{
    const bytes f = build(p);
    return part(f, ETH,
                is_ipv6(f) ? std::min<std::size_t>(f.size(), ETH + 1232) : upper_of(f).at + 8);
}

// An ICMP message of the version of the packet that carries it.
struct icmp {
    std::uint8_t type = 3;
    std::uint8_t code = 0;
    std::uint32_t word = 0; // bytes 4 to 7: an MTU, flags, or nothing
    bytes body = {};
    packet outer = {};
};

inline bytes build(const icmp &m)
{
    packet outer = m.outer;
    outer.proto = is_ipv6(outer) ? ICMP6 : ICMP;
    outer.payload = 8 + m.body.size();
    bytes f = build(outer);
    const std::size_t at = f.size() - outer.payload;
    std::fill(f.begin() + static_cast<long>(at), f.end(), 0);
    f[at] = m.type;
    f[at + 1] = m.code;
    put32(f, at + 4, m.word);
    set_at(f, at + 8, m.body);
    mend_transport(f);
    return f;
}

// Cuts a frame's IP packet as a sender does for a link of that MTU (RFC 791, 3.2; RFC 8200, 4.5).
// An IPv6 packet, which has no headers to cut behind, has its identification from `id`.
inline std::vector<bytes> fragments(const bytes &frame, std::size_t mtu = 1500,
                                    std::uint32_t id = 1)
{
    const bool isv6 = is_ipv6(frame);
    const std::size_t body = isv6 ? IP6 : ETH + 20;
    const std::size_t piece = (mtu - (isv6 ? 48 : 20)) / 8 * 8;
    std::vector<bytes> out;
    for (std::size_t at = body; at < frame.size(); at += piece) {
        const std::size_t end = std::min(frame.size(), at + piece);
        const std::size_t more = end < frame.size() ? 1 : 0;
        bytes f = part(frame, 0, body);
        if (isv6) {
            ext header = fragment(id, static_cast<std::uint16_t>((at - body) | more));
            header.whole[0] = std::exchange(f[ETH + 6], FRAGMENT);
            f.insert(f.end(), header.whole.begin(), header.whole.end());
        } else {
            put16(f, ETH + 6, static_cast<std::uint16_t>(more << 13 | (at - body) / 8));
        }
        const bytes data = part(frame, at, end);
        f.insert(f.end(), data.begin(), data.end());
        mend_length(f);
        out.push_back(std::move(f));
    }
    return out;
}

// Of a fragment: which datagram it is a piece of, where in that, and where in the frame it begins.
struct piece {
    std::uint32_t id;
    std::size_t offset;
    std::size_t begin;
};
inline piece piece_of(const bytes &f)
{
    if (is_ipv6(f)) {
        const std::size_t at = upper_of(f).fragment;
        return {get32(f, at + 4), get16(f, at + 2) & 0xFFF8U, at + 8};
    }
    return {get16(f, ETH + 4), (get16(f, ETH + 6) & 0x1FFFU) * 8, ETH + 20};
}

struct arp {
    std::uint16_t op = 1;
    mac srchw = {2, 0, 0, 0, 0, 0x50};
    std::string srcip = "10.0.0.50";
    mac tgthw = {};
    std::string tgtip = "10.0.0.100";
    mac ethdst = BROADCAST;
};

inline bytes build(const arp &a)
{
    bytes f(ETH + 28);
    set_at(f, 0, a.ethdst);
    set_at(f, 6, a.srchw);
    put16(f, 12, 0x0806);
    put16(f, ETH, 1);
    put16(f, ETH + 2, 0x0800);
    f[ETH + 4] = 6;
    f[ETH + 5] = 4;
    put16(f, ETH + 6, a.op);
    set_at(f, ETH + 8, a.srchw);
    set_at(f, ETH + 14, to_ip(a.srcip));
    set_at(f, ETH + 18, a.tgthw);
    set_at(f, ETH + 24, to_ip(a.tgtip));
    return f;
}

constexpr mac mac_of(std::uint8_t last)
{
    return {2, 0, 0, 0, 0, last};
}

// A reply by which a neighbour makes its hardware address known to 10.0.0.1.
inline bytes arp_reply(const std::string &ip, std::uint8_t last)
{
    return build(arp{.op = 2,
                     .srchw = mac_of(last),
                     .srcip = ip,
                     .tgthw = mac_of(1),
                     .tgtip = "10.0.0.1",
                     .ethdst = mac_of(1)});
}

// --- Neighbour discovery (RFC 4861, 4.3 and 4.4) -------------------------------------------------

constexpr std::uint8_t SOLICITATION = 135;
constexpr std::uint8_t ADVERTISEMENT = 136;

// A neighbour message; with an option of type 0, without option.
struct neighbour {
    std::uint8_t type = SOLICITATION;
    std::uint32_t flags = 0;
    std::string target = "2001:db8::100";
    std::uint8_t option = 1;
    mac hw = {2, 0, 0, 0, 0, 0x50};
    packet outer = {.version = 6, .dst = "ff02::1:ff00:100", .ttl = 255};
};

inline bytes build(const neighbour &n)
{
    icmp m = {.type = n.type, .word = n.flags, .body = to_ip(n.target), .outer = n.outer};
    if (n.option != 0) {
        m.body.insert(m.body.end(), {n.option, 1});
        m.body.insert(m.body.end(), n.hw.begin(), n.hw.end());
    }
    return build(m);
}

// An advertisement by which a neighbour makes its hardware address known to 2001:db8::1.
inline bytes advertisement(const std::string &ip, std::uint8_t last)
{
    return build(
        neighbour{.type = ADVERTISEMENT,
                  .flags = 0x60000000,
                  .target = ip,
                  .option = 2,
                  .hw = mac_of(last),
                  .outer = {.src = ip, .dst = "2001:db8::1", .ttl = 255, .ethsrc = mac_of(last)}});
}

} // namespace packets
