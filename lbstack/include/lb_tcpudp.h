// A TCP or UDP packet for a cluster: find the port, choose a server, forward.
#pragma once

#include "lb_types.h"

#include "prot/tcpudp.h"

int lbtcpudp_pbuf_entry(lbpbuf_obj_t *pkt);
// The longest reset, from its IP header on.
constexpr int LBTCPUDP_RESETMAX = 60;
// Writes a reset that answers `pkt`, whose TCP header is `tcp`, from its IP header on: its length.
// `out` has room for LBTCPUDP_RESETMAX and no alignment.
using lbtcpudp_fillreset_fn = int (*)(const lbpbuf_obj_t *pkt, const lbtcp_hdr_t *tcp, void *out);
// Answers with a reset by way of the client gateway: 0, or -1 where none can be sent. Any thread.
int lbtcpudp_sendreset(lbpbuf_obj_t *pkt, lb_u16_t ethtype, lbtcpudp_fillreset_fn fill);
// The TCP header of a reset, but for its checksum (RFC 9293, 3.5.2).
void lbtcpudp_fillreset(lbtcp_hdr_t *reset, const lbtcp_hdr_t *tcp);
// The ports at `ulp` in host order, also stored in the packet; 0 where they were not received.
lb_u16_t lbtcpudp_pbuf_getdport(lbpbuf_obj_t *pkt);
lb_u16_t lbtcpudp_pbuf_getsport(lbpbuf_obj_t *pkt);
