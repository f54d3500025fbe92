// ICMP header (RFC 792; the next-hop MTU of "fragmentation needed": RFC 1191, 4).
#pragma once

#include "prot/bytes.h"

constexpr lb_u8_t LBICMP_TYPE_UNREACHABLE = 3;
constexpr lb_u8_t LBICMP_TYPE_SOURCEQUENCH = 4;
constexpr lb_u8_t LBICMP_TYPE_REDIRECT = 5;
constexpr lb_u8_t LBICMP_TYPE_ECHOREQUEST = 8;
constexpr lb_u8_t LBICMP_TYPE_TIMEEXCEEDED = 11;
constexpr int LBICMP_CODE_FRAGNEEDED = 4;

struct lbicmp_hdr_s {
    lb_u8_t type;
    lb_u8_t code;
    lb_be16_t csum;
    lb_be16_t unused;
    lb_be16_t nexthopmtu;
};
using lbicmp_hdr_t = lbicmp_hdr_s;
static_assert(sizeof(lbicmp_hdr_t) == 8 && alignof(lbicmp_hdr_t) == 1);
static_assert(offsetof(lbicmp_hdr_t, csum) == 2 && offsetof(lbicmp_hdr_t, nexthopmtu) == 6);
