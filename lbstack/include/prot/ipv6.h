// IPv6 header (RFC 8200, 3) and fragment header (RFC 8200, 4.5).
#pragma once

#include "prot/bytes.h"

constexpr int LBIPV6_HDRLEN = 40;
constexpr int LBIPV6_EXTUNIT = 8; // extension headers are as long as a multiple of this

constexpr lb_u8_t LBIPV6_NEXT_HOPBYHOP = 0;
constexpr lb_u8_t LBIPV6_NEXT_ROUTING = 43;
constexpr lb_u8_t LBIPV6_NEXT_FRAGMENT = 44;
constexpr lb_u8_t LBIPV6_NEXT_DSTOPTIONS = 60;

struct lbipv6_hdr_s {
    lb_be32_t verclassflow; // version in the highest nibble
    lb_be16_t payloadlen;   // extension headers included
    lb_u8_t nexthdr;
    lb_u8_t hoplimit;
    lb_u8_t src[16];
    lb_u8_t dst[16];
};
using lbipv6_hdr_t = lbipv6_hdr_s;
static_assert(sizeof(lbipv6_hdr_t) == 40 && alignof(lbipv6_hdr_t) == 1);
static_assert(offsetof(lbipv6_hdr_t, payloadlen) == 4 && offsetof(lbipv6_hdr_t, nexthdr) == 6);
static_assert(offsetof(lbipv6_hdr_t, src) == 8 && offsetof(lbipv6_hdr_t, dst) == 24);

// What every extension header begins with.
struct lbipv6_ext_s {
    lb_u8_t nexthdr;
    lb_u8_t len; // in units of 8 bytes, the first one not counted
    lb_u8_t data[6];
};
using lbipv6_ext_t = lbipv6_ext_s;
static_assert(sizeof(lbipv6_ext_t) == LBIPV6_EXTUNIT);

struct lbipv6_frag_s {
    lb_u8_t nexthdr;
    lb_u8_t reserved;
    lb_be16_t offset; // bytes, but for the low 3 bits; the lowest says that more fragments follow
    lb_be32_t id;
};
using lbipv6_frag_t = lbipv6_frag_s;
static_assert(sizeof(lbipv6_frag_t) == LBIPV6_EXTUNIT && alignof(lbipv6_frag_t) == 1);
