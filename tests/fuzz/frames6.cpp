// See frames6.h. No state.
#include "frames6.h"

#include <algorithm>

#include "neighbours6.h"

namespace fuzz
{

namespace
{

constexpr std::size_t HEADER = 40;
constexpr std::size_t SRC = 8;
constexpr std::size_t DST = 24;
constexpr std::size_t QUOTE_MAX = 1232;

// What is behind the extension headers that were received; proto 0 where nothing can be told.
struct upper {
    std::uint8_t proto = 0;
    std::size_t at = HEADER;
    bool fragment = false;
    bool later = false; // a fragment that is not the first
};

upper upper_of(const bytes &ip)
{
    constexpr std::uint8_t EXTENSIONS[] = {packets::HOPOPTS, packets::ROUTING, packets::FRAGMENT,
                                           packets::DSTOPTS};
    constexpr std::uint8_t LAST[] = {packets::TCP, packets::UDP, 47, packets::ICMP6};
    upper u;
    u.proto = ip.at(6);
    while (std::count(std::begin(EXTENSIONS), std::end(EXTENSIONS), u.proto) != 0) {
        if (ip.size() < u.at + 8 || ip.size() < u.at + (ip[u.at + 1] + std::size_t{1}) * 8) {
            return {};
        }
        if (u.proto == packets::FRAGMENT) {
            u.fragment = true;
            u.later = (packets::get16(ip, u.at + 2) & 0xFFF0) != 0;
        }
        u.proto = ip[u.at];
        u.at += (ip[u.at + 1] + std::size_t{1}) * 8;
    }
    return std::count(std::begin(LAST), std::end(LAST), u.proto) != 0 ? u : upper{};
}

std::size_t total(const bytes &ip)
{
    return HEADER + packets::get16(ip, 4);
}

// What the upper layer's checksum adds up to (RFC 8200, 8.1); all of the packet is there.
std::uint16_t residue(const bytes &ip, const upper &u)
{
    bytes pseudo(ip.begin() + SRC, ip.begin() + HEADER);
    pseudo.resize(HEADER);
    packets::put32(pseudo, 32, static_cast<std::uint32_t>(total(ip) - u.at));
    pseudo[39] = u.proto;
    const auto start = static_cast<std::uint16_t>(0xFFFF - packets::checksum(pseudo, 0, HEADER));
    return packets::checksum(ip, u.at, total(ip), start);
}

bool is_prefix(const bytes &part, const bytes &whole)
{
    return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

void copy(bytes &to, const bytes &from, std::size_t at, std::size_t len)
{
    std::copy_n(from.begin() + static_cast<long>(at), len, to.begin() + static_cast<long>(at));
}

bool is_packet(const bytes &ip)
{
    return ip.size() >= HEADER && is_ipv6(ip);
}

} // namespace

bool is_ipv6(const bytes &ip)
{
    return !ip.empty() && ip[0] >> 4 == 6;
}

bool is_hop_of6(const bytes &out, const bytes &ip)
{
    if (!is_packet(out) || !is_packet(ip) || ip[7] <= 1) {
        return false;
    }
    bytes expected = ip;
    expected[7]--;
    return is_prefix(out, expected);
}

bool is_translation_of6(const bytes &out, const bytes &ip)
{
    if (!is_packet(out) || !is_packet(ip) ||
        (packets::ip6_at(out, SRC) != RETURN6 && packets::ip6_at(ip, DST) != RETURN6)) {
        return false;
    }
    const upper u = upper_of(ip);
    if (u.proto != packets::TCP) {
        return false;
    }
    bytes expected = ip;
    copy(expected, out, SRC, 32);
    if (!u.later && out.size() >= u.at + 20) {
        copy(expected, out, u.at, 4);
        copy(expected, out, u.at + 16, 2);
    }
    return is_prefix(out, expected) && (u.fragment || residue(out, u) == 0);
}

bool is_same_as6(const bytes &out, const bytes &ip)
{
    return is_packet(out) && is_packet(ip) && upper_of(ip).proto != packets::TCP &&
           is_prefix(out, ip);
}

bool is_error_about6(const fake::sent_frame &out, const bytes &ip)
{
    constexpr std::size_t ICMP_HEADER = 8;
    if (out.how != fake::via::raw6 || out.protocol != packets::ICMP6 ||
        out.bytes.size() <= ICMP_HEADER || out.bytes.size() > ICMP_HEADER + QUOTE_MAX ||
        !is_packet(ip)) {
        return false;
    }
    const bytes fixed = {0, 0, 0}; // the code, and the checksum that the host fills in
    const std::uint8_t type = out.bytes[0];
    return (type == 2 || type == 3) &&
           std::equal(fixed.begin(), fixed.end(), out.bytes.begin() + 1) &&
           is_prefix({out.bytes.begin() + ICMP_HEADER, out.bytes.end()}, ip) &&
           out.dest == bytes(ip.begin() + SRC, ip.begin() + DST);
}

bool is_advertisement_for(const fake::sent_frame &out, const bytes &ip)
{
    constexpr std::size_t ETH = packets::ETH;
    if (!out.has_eth || out.bytes.size() != 86 || !is_packet(ip)) {
        return false;
    }
    const upper u = upper_of(ip);
    if (u.proto != packets::ICMP6 || ip.size() < u.at + 24 || ip[u.at] != packets::SOLICITATION) {
        return false;
    }
    const std::string target = packets::ip6_at(ip, u.at + 8);
    const std::string asker = packets::ip6_at(ip, SRC);
    const packets::mac dst = packets::mac_at(out.bytes, 0);
    const bool toall = asker == "::";
    const packets::neighbour expected = {.type = packets::ADVERTISEMENT,
                                         .flags = toall ? 0x20000000U : 0x60000000U,
                                         .target = target,
                                         .option = 2,
                                         .hw = packets::mac_of(1),
                                         .outer = {.src = target,
                                                   .dst = toall ? "ff02::1" : asker,
                                                   .hops = 255,
                                                   .ethdst = dst,
                                                   .ethsrc = packets::mac_of(1)}};
    const bool group = (dst[0] & 1) != 0;
    return (target == CLUSTER6 || target == RETURN6) && group == toall &&
           out.bytes == packets::build(expected) && packets::get16(out.bytes, ETH - 2) == 0x86DD;
}

void mend_checksum6(bytes &ip)
{
    if (!is_packet(ip)) {
        return;
    }
    const upper u = upper_of(ip);
    const std::size_t field = u.proto == packets::TCP ? 16 : u.proto == packets::UDP ? 6 : 2;
    if (u.proto == 0 || u.proto == 47 || total(ip) > ip.size() || total(ip) < u.at + field + 2) {
        return;
    }
    packets::put16(ip, u.at + field, 0);
    packets::put16(ip, u.at + field, residue(ip, u));
}

} // namespace fuzz
