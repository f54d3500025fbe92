// ICMPv6 (RFC 4443) and the messages of neighbour discovery (RFC 4861): hands solicitations and
// advertisements to the neighbour table, takes errors about servers' answers to the servers,
// spreads echo requests over them, and builds what we send.
#pragma once

#include "lb_types.h"

#include "prot/icmpv6.h"
#include "prot/ipaddr.h"
#include "prot/ipv6.h"

// A message for a cluster (the packet's cluster is set) or for another destination. What is not
// consumed is the host's.
int lbicmpv6_pbuf_entry(lbpbuf_obj_t *pkt);

// The checksum that a message should carry; the stored one is taken as zero and left as it is.
// `len` bytes were received from the IPv6 header on, and the message's header is among them; what
// the packet declares beyond them is not summed, so that no such message is valid.
[[nodiscard]] lb_u16_t lbicmpv6_csum(lbipv6_hdr_t *ipv6h, int len, const lbicmpv6_hdr_t *icmpv6h);

// Sends a solicitation or an advertisement; `type` is an lbneigh_type_e. Hardware addresses are 6
// bytes, IP addresses 16. 1.
int lbicmpv6_send(int type, const unsigned char *eth_dhost, const unsigned char *eth_shost,
                  const unsigned char *ip_sender, const unsigned char *ip_target,
                  lb_xmithandle_t *xmithndl);

// Packet too big and time exceeded, quoting `length` bytes of `data`; their code is 0 whatever
// `code` says. Both return 0; a message that can't be built or sent is logged.
int lbicmpv6_packet2long(lbip_addr_t *dstip, int code, lb_u32_t nexthopmtu, void *data,
                         lb_u32_t length);
int lbicmpv6_timeexceeded(lbip_addr_t *dstip, int code, void *data, lb_u32_t length);
