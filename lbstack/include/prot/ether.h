// Ethernet II (IEEE 802.3, clause 3).
#pragma once

#include "prot/bytes.h"

constexpr int LBETH_ADDRLEN = 6;
constexpr int LBETH_HDRLEN = 14;
constexpr lb_u16_t LBETH_TYPE_IPV4 = 0x0800;
constexpr lb_u16_t LBETH_TYPE_ARP = 0x0806;
constexpr lb_u16_t LBETH_TYPE_VLAN = 0x8100;
constexpr lb_u16_t LBETH_TYPE_IPV6 = 0x86DD;

struct lbeth_addr_s {
    lb_u8_t b[LBETH_ADDRLEN];
};
using lbeth_addr_t = lbeth_addr_s;

// A hardware address in an 8-byte slot, so that it can be read in one piece while it is learnt:
// objects place it on an 8-byte boundary.
struct lbeth_addr_align_s {
    lb_u8_t b[LBETH_ADDRLEN];
    lb_u8_t _pad[2];
};
using lbeth_addr_align_t = lbeth_addr_align_s;
static_assert(sizeof(lbeth_addr_align_t) == 8 && alignof(lbeth_addr_align_t) == 1);

struct lbeth_hdr_s {
    lbeth_addr_t dst;
    lbeth_addr_t src;
    lb_be16_t type;
};
using lbeth_hdr_t = lbeth_hdr_s;
static_assert(sizeof(lbeth_hdr_t) == LBETH_HDRLEN);
static_assert(offsetof(lbeth_hdr_t, src) == 6 && offsetof(lbeth_hdr_t, type) == 12);
