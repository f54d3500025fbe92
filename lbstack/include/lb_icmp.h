// The ICMP errors that the forwarder sends about packets it can't forward (RFC 792, RFC 1191).
#pragma once

#include "lb_types.h"

#include "prot/icmp.h"
#include "prot/ipaddr.h"

int lbicmp_pbuf_entry(lbpbuf_obj_t *pkt);
// The checksum that a message of `icmplen` bytes should carry.
[[nodiscard]] lb_u16_t lbicmp_csum(lbicmp_hdr_t *icmphdr, int icmplen);
// Destination unreachable and time exceeded, quoting `length` bytes of `data`. Both return 0; a
// message that can't be built or sent is logged.
int lbicmp_dstnotreach(lbip_addr_t *dstip, int code, lb_u32_t nexthopmtu, void *data,
                       lb_u32_t length);
int lbicmp_timeexceeded(lbip_addr_t *dstip, int code, void *data, lb_u32_t length);
