// ARP for IPv4 over Ethernet (RFC 826).
#pragma once

#include "prot/ether.h"

constexpr lb_u16_t LBARP_HW_ETHERNET = 1;
constexpr lb_u16_t LBARP_OP_REQUEST = 1;
constexpr lb_u16_t LBARP_OP_REPLY = 2;

struct lbarp_hdr_s {
    lb_be16_t hwtype;
    lb_be16_t prototype;
    lb_u8_t hwlen;
    lb_u8_t protolen;
    lb_be16_t op;
};
using lbarp_hdr_t = lbarp_hdr_s;
static_assert(sizeof(lbarp_hdr_t) == 8 && offsetof(lbarp_hdr_t, op) == 6);

struct lbarp_pkt_s {
    lbarp_hdr_t hdr;
    lbeth_addr_t srchw;
    lb_u8_t srcip[4];
    lbeth_addr_t tgthw;
    lb_u8_t tgtip[4];
};
using lbarp_pkt_t = lbarp_pkt_s;
static_assert(sizeof(lbarp_pkt_t) == 28);
static_assert(offsetof(lbarp_pkt_t, srchw) == 8 && offsetof(lbarp_pkt_t, srcip) == 14);
static_assert(offsetof(lbarp_pkt_t, tgthw) == 18 && offsetof(lbarp_pkt_t, tgtip) == 24);
