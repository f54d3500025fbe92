// IPv4 header (RFC 791, 3.1).
#pragma once

#include "prot/bytes.h"

constexpr lb_u8_t LBIP_PROTO_ICMP = 1;
constexpr lb_u8_t LBIP_PROTO_IPIP = 4;
constexpr lb_u8_t LBIP_PROTO_TCP = 6;
constexpr lb_u8_t LBIP_PROTO_UDP = 17;
constexpr lb_u8_t LBIP_PROTO_GRE = 47;
constexpr lb_u8_t LBIP_PROTO_ICMPV6 = 58;
constexpr lb_u8_t LBIP_PROTO_RAW = 255;

constexpr int LBIPV4_HDRLEN = 20; // without options
constexpr lb_u16_t LBIPV4_FLAG_DF = 0x4000;
constexpr lb_u16_t LBIPV4_FLAG_MF = 0x2000;
constexpr lb_u16_t LBIPV4_OFFSET_MASK = 0x1FFF; // in units of 8 bytes

struct lbipv4_hdr_s {
    lb_u8_t verihl; // version in the high nibble, header length in words in the low one
    lb_u8_t tos;
    lb_be16_t totlen;
    lb_be16_t id;
    lb_be16_t fragoff;
    lb_u8_t ttl;
    lb_u8_t proto;
    lb_be16_t csum;
    lb_u8_t src[4];
    lb_u8_t dst[4];
};
using lbipv4_hdr_t = lbipv4_hdr_s;
static_assert(sizeof(lbipv4_hdr_t) == 20 && alignof(lbipv4_hdr_t) == 1);
static_assert(offsetof(lbipv4_hdr_t, totlen) == 2 && offsetof(lbipv4_hdr_t, id) == 4);
static_assert(offsetof(lbipv4_hdr_t, fragoff) == 6 && offsetof(lbipv4_hdr_t, ttl) == 8);
static_assert(offsetof(lbipv4_hdr_t, proto) == 9 && offsetof(lbipv4_hdr_t, csum) == 10);
static_assert(offsetof(lbipv4_hdr_t, src) == 12 && offsetof(lbipv4_hdr_t, dst) == 16);
