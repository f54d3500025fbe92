// The parts of the TCP (RFC 9293, 3.1) and UDP (RFC 768) headers that are read or written.
#pragma once

#include "prot/bytes.h"

constexpr lb_u8_t LBTCP_FIN = 0x01;
constexpr lb_u8_t LBTCP_SYN = 0x02;
constexpr lb_u8_t LBTCP_RST = 0x04;
constexpr lb_u8_t LBTCP_ACK = 0x10;
constexpr lb_u8_t LBTCP_FLAGMASK = 0x3F;
constexpr int LBTCP_FLAGSEND = 14; // bytes of header that hold the flags

// What both begin with.
struct lbtcpudp_hdr_s {
    lb_be16_t sport;
    lb_be16_t dport;
};
using lbtcpudp_hdr_t = lbtcpudp_hdr_s;
static_assert(sizeof(lbtcpudp_hdr_t) == 4);

struct lbtcp_hdr_s {
    lb_be16_t sport;
    lb_be16_t dport;
    lb_be32_t seq;
    lb_be32_t ack;
    lb_u8_t dataoff; // header length in words, in the high nibble
    lb_u8_t flags;
    lb_be16_t window;
    lb_be16_t csum;
    lb_be16_t urgent;
};
using lbtcp_hdr_t = lbtcp_hdr_s;
static_assert(sizeof(lbtcp_hdr_t) == 20 && alignof(lbtcp_hdr_t) == 1);
static_assert(offsetof(lbtcp_hdr_t, seq) == 4 && offsetof(lbtcp_hdr_t, ack) == 8);
static_assert(offsetof(lbtcp_hdr_t, flags) == 13 && offsetof(lbtcp_hdr_t, csum) == 16);

struct lbudp_hdr_s {
    lb_be16_t sport;
    lb_be16_t dport;
    lb_be16_t len;
    lb_be16_t csum;
};
using lbudp_hdr_t = lbudp_hdr_s;
static_assert(sizeof(lbudp_hdr_t) == 8 && offsetof(lbudp_hdr_t, csum) == 6);
