// Builds packets for tests, and reads them: plain byte vectors with Ethernet in front. Knows
// nothing of the stack, so that the stack is checked against something else.
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
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

inline ip4 to_ip4(const std::string &text)
{
    ip4 out;
    if (inet_pton(AF_INET, text.c_str(), out.data()) != 1) {
        throw std::invalid_argument("not an IPv4 address: " + text);
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
    for (std::size_t i = 0; i < out.size(); i++) {
        out[i] = b.at(at + i);
    }
    return out;
}

inline std::string ip_at(const bytes &b, std::size_t at)
{
    return to_text({b.at(at), b.at(at + 1), b.at(at + 2), b.at(at + 3)});
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

// A TCP or UDP packet (or another protocol's), as a client sends it to a cluster.
struct packet {
    std::string src = "10.0.0.50";
    std::string dst = "10.0.0.100";
    std::uint16_t sport = 40000;
    std::uint16_t dport = 80;
    std::uint8_t proto = TCP;
    std::uint8_t ttl = 64;
    std::uint8_t flags = 0x02; // TCP
    std::uint32_t seq = 1000;  // TCP
    std::uint32_t ack = 0;     // TCP
    std::uint16_t id = 1;
    std::uint16_t fragoff = 0; // flags and offset as the header has them
    std::size_t options = 0;   // bytes of IP options, a multiple of 4
    std::size_t payload = 32;  // bytes behind the transport header
    mac ethdst = {2, 0, 0, 0, 0, 0xFF};
    mac ethsrc = {2, 0, 0, 0, 0, 0x50};
};

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
constexpr std::uint8_t DSTOPTS = 60;

inline bool is_ipv6(const bytes &frame, std::size_t ip = ETH)
{
    return frame.at(ip) >> 4 == 6;
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

// Adds the transport header that the packet asks for, and its payload, behind the headers.
template <class Packet> void add_transport(bytes &f, const Packet &p)
{
    const std::size_t l4 = f.size();
    const std::size_t l4len = p.proto == TCP ? 20 : p.proto == UDP ? 8 : 0;
    f.resize(l4 + l4len + p.payload);
    for (std::size_t i = 0; i < p.payload; i++) {
        f[l4 + l4len + i] = static_cast<std::uint8_t>('a' + i % 26);
    }
    if (l4len != 0) {
        put16(f, l4, p.sport);
        put16(f, l4 + 2, p.dport);
    }
    if (p.proto == TCP) {
        put32(f, l4 + 4, p.seq);
        put32(f, l4 + 8, p.ack);
        f[l4 + 12] = 0x50;
        f[l4 + 13] = p.flags;
        put16(f, l4 + 14, 64240);
    } else if (p.proto == UDP) {
        put16(f, l4 + 4, static_cast<std::uint16_t>(l4len + p.payload));
    }
}

inline bytes build(const packet &p)
{
    bytes f(ETH + 20 + p.options, 1); // options: no operation
    std::fill(f.begin(), f.begin() + ETH + 20, 0);
    set_at(f, 0, p.ethdst);
    set_at(f, 6, p.ethsrc);
    put16(f, 12, 0x0800);
    f[ETH] = static_cast<std::uint8_t>(0x40 | (20 + p.options) / 4);
    put16(f, ETH + 4, p.id);
    put16(f, ETH + 6, p.fragoff);
    f[ETH + 8] = p.ttl;
    f[ETH + 9] = p.proto;
    set_at(f, ETH + 12, to_ip4(p.src));
    set_at(f, ETH + 16, to_ip4(p.dst));
    add_transport(f, p);
    put16(f, ETH + 2, static_cast<std::uint16_t>(f.size() - ETH));
    mend_ip(f);
    if (p.proto == TCP || p.proto == UDP) {
        mend_transport(f);
    }
    return f;
}

// Cuts the IP packet of a frame to `len` bytes; `honest` makes its header say so.
inline bytes cut(bytes frame, std::size_t len, bool honest = true)
{
    frame.resize(ETH + len);
    if (honest && is_ipv6(frame)) {
        put16(frame, ETH + 4, static_cast<std::uint16_t>(len - 40));
    } else if (honest) {
        put16(frame, ETH + 2, static_cast<std::uint16_t>(len));
        mend_ip(frame);
    }
    return frame;
}

// Another byte, whatever checksum covers it.
inline bytes with(bytes frame, std::size_t at, std::uint8_t value)
{
    frame.at(at) = value;
    return frame;
}

// What an ICMP error quotes of a packet that a server sent: its header and `data` bytes behind it.
inline bytes quote(const packet &p, std::size_t data = 8)
{
    const bytes f = build(p);
    return {f.begin() + ETH, f.begin() + static_cast<long>(ETH + 20 + p.options + data)};
}

// An ICMP message: the outer packet's addresses and header fields are those of `outer`.
struct icmp {
    std::uint8_t type = 3;
    std::uint8_t code = 1;
    std::uint16_t mtu = 0; // the last two bytes of the header
    bytes body = {};
    packet outer = {};
};

// Makes an ICMP message of either version out of its packet, from the bytes behind the checksum on.
template <class Message> bytes build_icmp(const Message &m, std::uint8_t proto, std::uint32_t word)
{
    auto outer = m.outer;
    outer.proto = proto;
    outer.payload = 8 + m.body.size();
    bytes f = build(outer);
    const std::size_t at = upper_of(f).at;
    std::fill(f.begin() + static_cast<long>(at), f.end(), 0);
    f[at] = m.type;
    f[at + 1] = m.code;
    put32(f, at + 4, word);
    set_at(f, at + 8, m.body);
    mend_transport(f);
    return f;
}
inline bytes build(const icmp &m)
{
    return build_icmp(m, ICMP, m.mtu);
}

// Cuts a frame's IP packet as a sender does for a link of that MTU (RFC 791, 3.2).
inline std::vector<bytes> fragments(const bytes &frame, std::size_t mtu = 1500)
{
    const std::size_t body = ETH + 20;
    const std::size_t piece = (mtu - 20) / 8 * 8;
    std::vector<bytes> out;
    for (std::size_t at = body; at < frame.size(); at += piece) {
        const std::size_t end = std::min(frame.size(), at + piece);
        bytes f(frame.begin(), frame.begin() + static_cast<long>(body));
        f.insert(f.end(), frame.begin() + static_cast<long>(at),
                 frame.begin() + static_cast<long>(end));
        const std::size_t more = end < frame.size() ? 0x2000 : 0;
        put16(f, ETH + 2, static_cast<std::uint16_t>(f.size() - ETH));
        put16(f, ETH + 6, static_cast<std::uint16_t>(more | (at - body) / 8));
        mend_ip(f);
        out.push_back(std::move(f));
    }
    return out;
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
    set_at(f, ETH + 14, to_ip4(a.srcip));
    set_at(f, ETH + 18, a.tgthw);
    set_at(f, ETH + 24, to_ip4(a.tgtip));
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

// The other direction: false if the frame is no ARP message for IPv4 over Ethernet of the right
// length.
inline bool parse(const bytes &f, arp &out)
{
    const bytes fixed = {8, 6, 0, 1, 8, 0, 6, 4};
    if (f.size() != ETH + 28 || !std::equal(fixed.begin(), fixed.end(), f.begin() + 12)) {
        return false;
    }
    out.ethdst = mac_at(f, 0);
    out.op = get16(f, ETH + 6);
    out.srchw = mac_at(f, ETH + 8);
    out.srcip = ip_at(f, ETH + 14);
    out.tgthw = mac_at(f, ETH + 18);
    out.tgtip = ip_at(f, ETH + 24);
    return mac_at(f, 6) == out.srchw;
}

} // namespace packets
