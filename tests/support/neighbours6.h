// Messages of neighbour discovery for tests (RFC 4861, 4.3 and 4.4). Knows nothing of the stack.
#pragma once

#include "packets6.h"

namespace packets
{

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
