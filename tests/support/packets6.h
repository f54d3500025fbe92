// IPv6 packets for tests, as packets.h has them for IPv4. Knows nothing of the stack.
#pragma once

#include "packets.h"

namespace packets
{

using ip6 = std::array<std::uint8_t, 16>;

constexpr std::size_t IP6 = ETH + 40; // where what follows the fixed header begins in a frame
constexpr std::uint8_t NONEXT = 59;

inline ip6 to_ip6(const std::string &text)
{
    ip6 out;
    if (inet_pton(AF_INET6, text.c_str(), out.data()) != 1) {
        throw std::invalid_argument("not an IPv6 address: " + text);
    }
    return out;
}

inline std::string ip6_at(const bytes &b, std::size_t at)
{
    ip6 addr;
    for (std::size_t i = 0; i < addr.size(); i++) {
        addr[i] = b.at(at + i);
    }
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, addr.data(), text, sizeof(text));
}

// An extension header: its type, and all of it but the next-header byte, which the builder fills.
struct ext {
    std::uint8_t type;
    bytes whole;
};

// Options or a routing header of (units + 1) * 8 bytes, all padding.
inline ext padding(std::uint8_t type, std::uint8_t units = 0)
{
    ext e = {type, bytes((units + std::size_t{1}) * 8)};
    e.whole[1] = units;
    if (type != ROUTING) { // RFC 8200, 4.2: PadN over what is left
        for (std::size_t at = 2; at < e.whole.size();) {
            const std::size_t len = std::min<std::size_t>(e.whole.size() - at, 250);
            e.whole[at] = len == 1 ? 0 : 1;
            if (len > 1) {
                e.whole[at + 1] = static_cast<std::uint8_t>(len - 2);
            }
            at += len;
        }
    }
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

// A TCP or UDP packet (or another protocol's), as a client sends it to a cluster.
struct packet6 {
    std::string src = "2001:db8::50";
    std::string dst = "2001:db8::100";
    std::uint16_t sport = 40000;
    std::uint16_t dport = 80;
    std::uint8_t proto = TCP;
    std::uint8_t hops = 64;
    std::uint8_t flags = 0x02; // TCP
    std::uint32_t seq = 1000;  // TCP
    std::uint32_t ack = 0;     // TCP
    std::vector<ext> exts = {};
    std::size_t payload = 32; // bytes behind the transport header
    mac ethdst = {2, 0, 0, 0, 0, 0xFF};
    mac ethsrc = {2, 0, 0, 0, 0, 0x50};
};

inline bytes build(const packet6 &p)
{
    bytes f(IP6);
    set_at(f, 0, p.ethdst);
    set_at(f, 6, p.ethsrc);
    put16(f, 12, 0x86DD);
    f[ETH] = 0x60;
    f[ETH + 7] = p.hops;
    set_at(f, ETH + 8, to_ip6(p.src));
    set_at(f, ETH + 24, to_ip6(p.dst));
    std::size_t next = ETH + 6; // the byte that names what follows
    for (const ext &e : p.exts) {
        f[next] = e.type;
        next = f.size();
        f.insert(f.end(), e.whole.begin(), e.whole.end());
    }
    f[next] = p.proto;
    add_transport(f, p);
    put16(f, ETH + 4, static_cast<std::uint16_t>(f.size() - IP6));
    if (p.proto == TCP || p.proto == UDP) {
        mend_transport(f);
    }
    return f;
}

// What an ICMPv6 error quotes of a packet that a server sent: `len` bytes at most.
inline bytes quote(const packet6 &p, std::size_t len = 1232)
{
    const bytes f = build(p);
    return {f.begin() + ETH, f.begin() + static_cast<long>(std::min(f.size(), ETH + len))};
}

// An ICMPv6 message: the outer packet's addresses, extensions and hop limit are those of `outer`.
struct icmp6 {
    std::uint8_t type = 1;
    std::uint8_t code = 0;
    std::uint32_t word = 0; // bytes 4 to 7: an MTU, flags, or nothing
    bytes body = {};
    packet6 outer = {};
};

inline bytes build(const icmp6 &m)
{
    return build_icmp(m, ICMP6, m.word);
}

// Cuts a frame that has no extension headers as a sender does for a link of that MTU (RFC 8200,
// 4.5).
inline std::vector<bytes> fragments6(const packet6 &p, std::uint32_t id, std::size_t mtu = 1500)
{
    const bytes whole = build(p);
    const std::size_t piece = (mtu - 48) / 8 * 8;
    std::vector<bytes> out;
    for (std::size_t at = IP6; at < whole.size(); at += piece) {
        const std::size_t end = std::min(whole.size(), at + piece);
        const std::size_t more = end < whole.size() ? 1 : 0;
        ext header = fragment(id, static_cast<std::uint16_t>((at - IP6) | more));
        header.whole[0] = p.proto;
        bytes f(whole.begin(), whole.begin() + static_cast<long>(IP6));
        f[ETH + 6] = FRAGMENT;
        f.insert(f.end(), header.whole.begin(), header.whole.end());
        f.insert(f.end(), whole.begin() + static_cast<long>(at),
                 whole.begin() + static_cast<long>(end));
        put16(f, ETH + 4, static_cast<std::uint16_t>(f.size() - IP6));
        out.push_back(std::move(f));
    }
    return out;
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
    packet6 outer = {.dst = "ff02::1:ff00:100", .hops = 255};
};

inline bytes build(const neighbour &n)
{
    const ip6 target = to_ip6(n.target);
    icmp6 m = {.type = n.type,
               .word = n.flags,
               .body = bytes(target.begin(), target.end()),
               .outer = n.outer};
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
                  .outer = {.src = ip, .dst = "2001:db8::1", .hops = 255, .ethsrc = mac_of(last)}});
}

} // namespace packets
