// ICMP for IPv4 (RFC 792): takes errors about servers' answers to the servers, spreads echo
// requests over them, learns from errors about our own tunnels, and builds the errors that we send.
#pragma once

#include "lb_types.h"

#include "prot/icmp.h"
#include "prot/ipaddr.h"
#include "prot/tcpudp.h"

// An ICMP packet for a cluster (the packet's cluster is set), which is consumed, or for another
// destination, which is the host's whatever is learnt from it.
int lbicmp_pbuf_entry(lbpbuf_obj_t *pkt);
// An error for a cluster, which quotes a packet of `protocol` that a server sent to the client in
// sel_clientip; of either IP version. `tcpudphdr` may lie at the end of what was received.
// Consumed.
int _lbicmp_pbuf_tcpudp_entry(lbpbuf_obj_t *pkt, const lbtcpudp_hdr_t *tcpudphdr, lb_u8_t protocol);
// A message that goes nowhere: counted as a discard, traced under the label, consumed.
int _lbicmp_drop(lbpbuf_obj_t *pkt, const char *label);
// A message that can't be read, counted as an error: consumed if it is for a cluster; others are
// the host's.
int _lbicmp_badinput(lbpbuf_obj_t *pkt);
// An echo request of either IP version for a cluster: to the next server of its next port.
// Consumed.
int lbicmp_pbuf_fwdrr(lbpbuf_obj_t *pkt);

// The checksum that a message of `icmplen` bytes should carry; the stored one is taken as zero and
// left as it is. At least a header's bytes are there.
[[nodiscard]] lb_u16_t lbicmp_csum(const lbicmp_hdr_t *icmphdr, int icmplen);
// Destination unreachable and time exceeded, quoting `length` bytes of `data`. Both return 0; a
// message that can't be built or sent is logged.
int lbicmp_dstnotreach(lbip_addr_t *dstip, int code, lb_u32_t nexthopmtu, void *data,
                       lb_u32_t length);
int lbicmp_timeexceeded(lbip_addr_t *dstip, int code, void *data, lb_u32_t length);
