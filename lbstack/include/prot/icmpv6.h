// ICMPv6 header (RFC 4443, 2.1), neighbour messages and their link-layer address option (RFC 4861,
// 4.3, 4.4 and 4.6.1).
#pragma once

#include "prot/bytes.h"
#include "prot/ether.h"

constexpr lb_u8_t LBICMPV6_TYPE_UNREACHABLE = 1;
constexpr lb_u8_t LBICMPV6_TYPE_PACKETTOOBIG = 2;
constexpr lb_u8_t LBICMPV6_TYPE_TIMEEXCEEDED = 3;
constexpr lb_u8_t LBICMPV6_TYPE_PARAMPROBLEM = 4;
constexpr lb_u8_t LBICMPV6_TYPE_ECHOREQUEST = 128;
constexpr lb_u8_t LBICMPV6_TYPE_SOLICITATION = 135;
constexpr lb_u8_t LBICMPV6_TYPE_ADVERTISEMENT = 136;

constexpr lb_u8_t LBICMPV6_FLAG_SOLICITED = 0x40; // in the first of the four bytes
constexpr lb_u8_t LBICMPV6_FLAG_OVERRIDE = 0x20;

constexpr lb_u8_t LBICMPV6_OPTION_SOURCE = 1;
constexpr lb_u8_t LBICMPV6_OPTION_TARGET = 2;

struct lbicmpv6_hdr_s {
    lb_u8_t type;
    lb_u8_t code;
    lb_be16_t csum;
    lb_be32_t word; // by type: the MTU, flags of a neighbour message, unused
};
using lbicmpv6_hdr_t = lbicmpv6_hdr_s;
static_assert(sizeof(lbicmpv6_hdr_t) == 8 && alignof(lbicmpv6_hdr_t) == 1);
static_assert(offsetof(lbicmpv6_hdr_t, csum) == 2 && offsetof(lbicmpv6_hdr_t, word) == 4);

// A solicitation or an advertisement without options.
struct lbicmpv6_neigh_s {
    lbicmpv6_hdr_t hdr;
    lb_u8_t target[16];
};
using lbicmpv6_neigh_t = lbicmpv6_neigh_s;
static_assert(sizeof(lbicmpv6_neigh_t) == 24 && offsetof(lbicmpv6_neigh_t, target) == 8);

struct lbicmpv6_option_s {
    lb_u8_t type;
    lb_u8_t len; // in units of 8 bytes
    lbeth_addr_t address;
};
using lbicmpv6_option_t = lbicmpv6_option_s;
static_assert(sizeof(lbicmpv6_option_t) == 8 && alignof(lbicmpv6_option_t) == 1);
