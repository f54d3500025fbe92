// Forwarding: delivers a packet to the server that was chosen for it.
#pragma once

#include "lb_types.h"

// Sends the packet to pkt->server, or drops and counts it; the host's buffer is freed in every
// case. Returns LB_PACKETRC_CONSUMED.
int lbsel_send(lbpbuf_obj_t *pkt);
// Send an IPv4 packet to an IPv4 server inside IPv4 or GRE: 0 when handed to the host, 1 when not
// sent. The caller counts and frees. Packets that exceed the tunnel's MTU are answered with an ICMP
// error, and sent all the same unless they are marked don't-fragment.
[[nodiscard]] int lbsel_forwardipip(lbpbuf_obj_t *pkt);
[[nodiscard]] int lbsel_forwardgre(lbpbuf_obj_t *pkt);
