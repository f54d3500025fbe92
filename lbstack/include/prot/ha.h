// What the partners of a pair tell each other: the UDP payload of a heartbeat, from the HA port to
// the HA port. A header, then as many records as it counts. Big-endian.
#pragma once

#include "prot/bytes.h"
#include "prot/ipaddr.h"

constexpr lb_u32_t LBHA_VERSION = 0x0805050B;
constexpr lb_u32_t LBHA_VERSION_MASK = 0xFFFFFF00; // what partners must have in common

// A moment by the clock of who wrote it; both are signed.
struct lbha_pktseq_s {
    lb_be32_t nbosecs;
    lb_be32_t nbousecs;
};
using lbha_pktseq_t = lbha_pktseq_s;
static_assert(sizeof(lbha_pktseq_t) == 8 && offsetof(lbha_pktseq_t, nbousecs) == 4);

struct lbha_pkthdr_s {
    lb_be32_t lbversion;
    lb_u8_t state; // _lbha_state_e
    lb_u8_t reachscore;
    lb_u8_t substate;   // _lbha_substate_e
    lb_u8_t numreprec;  // records behind the header
    lbha_pktseq_t seq;  // the sender's time
    lbha_pktseq_t ack;  // the latest `seq` that it has seen of the receiver
    lbha_pktseq_t rseq; // zero on the wire, like the next
    lbha_pktseq_t rack;
};
using lbha_pkthdr_t = lbha_pkthdr_s;
static_assert(sizeof(lbha_pkthdr_t) == 40 && alignof(lbha_pkthdr_t) == 1);
static_assert(offsetof(lbha_pkthdr_t, state) == 4 && offsetof(lbha_pkthdr_t, reachscore) == 5);
static_assert(offsetof(lbha_pkthdr_t, substate) == 6 && offsetof(lbha_pkthdr_t, numreprec) == 7);
static_assert(offsetof(lbha_pkthdr_t, seq) == 8 && offsetof(lbha_pkthdr_t, ack) == 16);
static_assert(offsetof(lbha_pkthdr_t, rseq) == 24 && offsetof(lbha_pkthdr_t, rack) == 32);

// A server's key (prot/keys.h); addresses as they are there.
struct lbha_cfgkey_s {
    lbip_addr_t cluster;
    lb_be16_t port;
    lb_be16_t rule;
    lb_u8_t _pad[4];
    lbip_addr_t server;
};
using lbha_cfgkey_t = lbha_cfgkey_s;
static_assert(sizeof(lbha_cfgkey_t) == 56 && alignof(lbha_cfgkey_t) == 1);
static_assert(offsetof(lbha_cfgkey_t, port) == 24 && offsetof(lbha_cfgkey_t, rule) == 26);
static_assert(offsetof(lbha_cfgkey_t, server) == 32);

// A client's connection, or with client port 0 its affinity, and the server that it belongs to.
struct lbha_replicationrec_s {
    lbha_cfgkey_t nbocfgkey;
    lbip_addr_t srcip;
    lb_be16_t nbosrcport;
    lb_u8_t connstate[2];  // lbsel_cr_state_e; zero
    lb_be32_t nbostaleout; // zero
    lb_be16_t natport;
    lb_u8_t _pad[6];
};
using lbha_replicationrec_t = lbha_replicationrec_s;
static_assert(sizeof(lbha_replicationrec_t) == 96 && alignof(lbha_replicationrec_t) == 1);
static_assert(offsetof(lbha_replicationrec_t, srcip) == 56);
static_assert(offsetof(lbha_replicationrec_t, nbosrcport) == 80);
static_assert(offsetof(lbha_replicationrec_t, connstate) == 82);
static_assert(offsetof(lbha_replicationrec_t, nbostaleout) == 84);
static_assert(offsetof(lbha_replicationrec_t, natport) == 88);
static_assert(offsetof(lbha_replicationrec_t, _pad) == 90);

constexpr int LBHA_REPRECS_MAX = 14; // what a frame of 1500 bytes has room for

struct lbha_reppkt_s {
    lbha_pkthdr_t pkthdr;
    lbha_replicationrec_t reprec[LBHA_REPRECS_MAX];
};
using lbha_reppkt_t = lbha_reppkt_s;
static_assert(sizeof(lbha_reppkt_t) == 1384 && offsetof(lbha_reppkt_t, reprec) == 40);
