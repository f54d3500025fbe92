// The IPv4 layer: validates what comes in, and rewrites and sums what goes out (RFC 791, RFC 1071).
#pragma once

#include "lb_entry.h"
#include "lb_pbuf.h"

extern const lbpbuf_ipfuncs_prv_s lbipv4_funcs;

// The checksum that a header should carry; the stored one is taken as zero and left as it is. The
// header's whole length must be there.
[[nodiscard]] lb_u16_t lbipv4_checksum(const unsigned char *iph);
// Unfolded sum of the TCP/UDP pseudo header.
[[nodiscard]] lb_u32_t lbipv4_pseudohdrsum(const unsigned char *iph);
// Unfolded sum of big-endian 16-bit words; an odd last byte is the high byte of a word.
[[nodiscard]] lb_u32_t lbipv4_primativesum(const unsigned char *buf, unsigned len);
// Folds a sum to 16 bits.
[[nodiscard]] lb_u16_t lbipv4_foldsum(lb_u32_t sum);

// Answers the packet's client with a TCP reset through the client gateway: 0, or -1.
int _lbipv4_pbuf_sendreset(lbpbuf_obj_t *pkt);
