// A TCP or UDP packet for a cluster: find the port, choose a server, forward.
#pragma once

#include "lb_types.h"

int lbtcpudp_pbuf_entry(lbpbuf_obj_t *pkt);
// The ports at `ulp` in host order, also stored in the packet; 0 where they were not received.
lb_u16_t lbtcpudp_pbuf_getdport(lbpbuf_obj_t *pkt);
lb_u16_t lbtcpudp_pbuf_getsport(lbpbuf_obj_t *pkt);
