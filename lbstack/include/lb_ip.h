// The version-neutral IP layer: sorts packets by destination and protocol, and helps everyone with
// addresses.
#pragma once

#include "lb_types.h"

#include "prot/ipaddr.h"

enum lbip_valid_e : int {
    LBIP_VALID_NO = 0,    // malformed
    LBIP_VALID_YES = 1,   // an address
    LBIP_VALID_EMPTY = 2, // none
};

// The demultiplexer. The caller frees the packet object unless the result is HELD.
int lbip_pbuf_entry(lbpbuf_obj_t *pkt);

// 1 when version and address bytes are equal; the prefix is ignored.
[[nodiscard]] int lbip_isaddrequal(const lbip_addr_t *a, const lbip_addr_t *b);
[[nodiscard]] int lbip_isaddrvalid(const lbip_addr_t *a); // lbip_valid_e
void lbip_printaddr(const char *prefix, const lbip_addr_t *a, const char *suffix);
// 1 for an address of neither version that is not all zeros, which people can't have meant.
[[nodiscard]] int lbip_isaddrodd(const lbip_addr_t *a);
// The IPv4 address, or the last 4 bytes of an IPv6 address, as the number that they mean on the
// wire.
[[nodiscard]] lb_u32_t lbip_hash(const lbip_addr_t *a);
int _lbip_maskaddr6(lbip_addr_t *out, const lbip_addr_t *in, const unsigned char *mask);
// 1 when `ip` lies in the subnet of `net` (its address and prefix).
[[nodiscard]] int lbip_onnetof(const lbip_addr_t *ip, const lbip_addr_t *net);
// An address from its bytes in network order; prefix 0.
[[nodiscard]] lbip_addr_t lbip_fromv4(const unsigned char *nbo);
[[nodiscard]] lbip_addr_t lbip_fromv6(const unsigned char *nbo);
