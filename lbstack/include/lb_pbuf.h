// The packet object: one packet on its way through the stack. It points into the host's receive
// buffer and never copies from it. It belongs to one thread at a time.
#pragma once

#include "lb_log.h"
#include "lb_types.h"

#include "prot/arp.h"
#include "prot/blocks.h"
#include "prot/ether.h"
#include "prot/icmp.h"
#include "prot/icmpv6.h"
#include "prot/ipaddr.h"
#include "prot/ipv4.h"
#include "prot/ipv6.h"
#include "prot/tcpudp.h"

// What differs by IP version. Every slot is filled, runs on the packet's thread, and takes no lock.
struct lbpbuf_ipfuncs_prv_s {
    lbip_addr_t *(*getsaddr)(lbpbuf_obj_t *pkt); // fills ip.srcip and returns it
    lbip_addr_t *(*getdaddr)(lbpbuf_obj_t *pkt); // fills ip.dstip and returns it
    lb_u8_t (*getproto)(lbpbuf_obj_t *pkt);      // upper-layer protocol
    int (*decttl)(lbpbuf_obj_t *pkt);            // 0; -1 when it would expire (unchanged then)
    int (*gettotlen)(lbpbuf_obj_t *pkt);         // as the header says, not as received
    int (*gethdrlen)(lbpbuf_obj_t *pkt);         // without IPv6 extension headers
    int (*geticmpfraglen)(lbpbuf_obj_t *pkt);    // how much an ICMP error quotes, before bounds
    int (*setsaddr)(lbpbuf_obj_t *pkt, const lbip_addr_t *addr); // 0; -1 for another version
    int (*setdaddr)(lbpbuf_obj_t *pkt, const lbip_addr_t *addr);
    int (*tcpchksum)(lbpbuf_obj_t *pkt);                   // 0; -1 when the lengths are unusable
    lbneigh_obj_t *(*getclientgwneigh)(lbpbuf_obj_t *pkt); // null without a client gateway
    void (*hdrchksum)(lbpbuf_obj_t *pkt); // sums the IP header alone, where the version has a sum
};

// The ICMP errors of an IP version: data is what they quote. Both return 0.
struct lbpbuf_icmpfuncs_prv_s {
    int (*sendpkt2long)(lbip_addr_t *dstip, int code, lb_u32_t nexthopmtu, void *data,
                        lb_u32_t length);
    int (*sendtimeexceeded)(lbip_addr_t *dstip, int code, void *data, lb_u32_t length);
};

// How the neighbour table reads an ARP or neighbour-discovery message.
struct lbpbuf_neighfuncs_prv_s {
    lbip_addr_t *(*getsrcip)(lbpbuf_obj_t *pkt);
    lbip_addr_t *(*gettgtip)(lbpbuf_obj_t *pkt);
    // The sender's and the target's hardware address, 6 bytes. `neigh` is the entry of whose
    // address is asked for, or null; a message without an address means the entry's.
    unsigned char *(*getsrchw)(lbpbuf_obj_t *pkt, lbneigh_obj_t *neigh);
    unsigned char *(*gettgthw)(lbpbuf_obj_t *pkt, lbneigh_obj_t *neigh);
    int (*gettype)(lbpbuf_obj_t *pkt); // lbneigh_type_e: REQUEST, REPLY or UNDEF
};

// What the packet's record of selection is.
enum lbpbuf_selrecord_e : lb_u8_t {
    LBPBUF_SELRECORD_NONE = 0,
    LBPBUF_SELRECORD_CONNECTION = 1, // lbsel_cr_obj_t
    LBPBUF_SELRECORD_AFFINITY = 2,   // lbsel_ar_obj_t
};

struct lbpbuf_obj_s {
    const lbpbuf_ipfuncs_prv_s *ipfuncs;
    lbpbuf_icmpfuncs_prv_s icmpfuncs;
    int (*sendreset)(lbpbuf_obj_t *pkt); // 0, or -1 when it can't be sent
    lb_proto_stats_t *stats;
    lb_osopaque_t osopaque;
    const lbpbuf_neighfuncs_prv_s *neighfuncs;
    lb_s32_t buflen;        // bytes received from the network layer on
    lb_u8_t pseudotcpflags; // TCP flags as selection sees them
    lb_u8_t frag_mf;        // more fragments follow
    lb_u16_t frag_offset;   // bytes
    union {
        lbeth_hdr_t *eth;
        unsigned char *raw;
        void *vd;
    } hw; // the link header, or null
    union {
        lbipv4_hdr_t *v4;
        lbipv6_hdr_t *v6;
        lbarp_pkt_t *arp;
        unsigned char *raw;
        void *vd;
    } p; // the network header
    union {
        lbtcp_hdr_t *tcp;
        lbudp_hdr_t *udp;
        lbtcpudp_hdr_t *tcpudp;
        lbicmp_hdr_t *icmp;
        lbicmpv6_hdr_t *icmpv6;
        unsigned char *raw;
        void *vd;
    } ulp; // the upper-layer header; may lie at the end of what was received
    lbclu_obj_t *cluster;
    lbport_obj_t *port;
    lbsrv_obj_t *server;
    struct {
        lbip_addr_t srcip;
        lbip_addr_t dstip;
        lb_u16_t sport_hbo;
        lb_u16_t dport_hbo;
        lb_u16_t _pad[2];
    } ip;
    struct {
        lbip_addr_t srcip;
        lbip_addr_t tgtip;
        lbeth_addr_align_t hw; // a hardware address that the message doesn't hold
    } neigh;
    struct {
        lbip_addr_t sel_clientip;
        lb_u16_t sel_clientport_hbo;
        lb_u16_t natport; // the connection's towards a NAT server, host order; 0 without one
        lbpbuf_selrecord_e selrecordkind;
        lb_u8_t _pad[3];
        void *selrecord; // a record of that kind, or null; it may change hands once chosen
    } _select_prv;
    lb_u32_t frag_id;
    lb_u16_t frag_sport;
    lb_u16_t frag_dport;
};

// A cleared object, or null. Each thread keeps one to hand out again, so that a packet that is not
// held costs no allocation.
[[nodiscard]] lbpbuf_obj_t *lbpbuf_alloc();
// Frees the object, not the host's buffer.
void lbpbuf_free(lbpbuf_obj_t *pkt);
// Frees what this thread keeps; a thread's end does the same.
void lbpbuf_drain();
// 1 when `totlen` bytes are contiguous now, 0 when the host can't. `ulp` keeps its distance to `p`.
[[nodiscard]] int lbpbuf_pullup(lbpbuf_obj_t *pkt, int totlen);
// Keeps the packet and the host's buffer beyond the entry; before another thread can find it.
// LB_PACKETRC_HELD.
int lbpbuf_hold(lbpbuf_obj_t *pkt);

// The packet's length where it can be believed (headers <= total <= received), else -1.
[[nodiscard]] int lbpbuf_usablelen(lbpbuf_obj_t *pkt);
// Bytes from `ulp` on that were received and, where the total length can be believed, belong to the
// packet. Never negative.
[[nodiscard]] int lbpbuf_ulplen(lbpbuf_obj_t *pkt);

// The EtherType of the packet's IP version.
[[nodiscard]] inline lb_u16_t lbpbuf_ethtype(const lbpbuf_obj_t *pkt)
{
    return pkt->p.raw[0] >> 4 == 6 ? LBETH_TYPE_IPV6 : LBETH_TYPE_IPV4;
}

// The packet's trace line; the caller tests the mask.
void _lbpbuf_print(lb_u64_t mask, lbpbuf_obj_t *pkt, const char *label);
inline void lbpbuf_trace(lb_u64_t mask, lbpbuf_obj_t *pkt, const char *label)
{
    if (lb_log_enabled(mask)) {
        _lbpbuf_print(mask, pkt, label);
    }
}
