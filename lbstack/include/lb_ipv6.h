// The IPv6 layer: validates what comes in, finds what lies behind extension headers, rewrites and
// sums what goes out (RFC 8200).
#pragma once

#include "lb_entry.h"
#include "lb_pbuf.h"

extern const lbpbuf_ipfuncs_prv_s lbipv6_funcs;

// Walks the extension headers of a packet, of which `len` bytes (a header at least) are there: the
// upper-layer protocol, and where its header begins, which may be the end of those bytes. 0 and
// null when the chain does not end within them, or in nothing that is forwarded. A fragment header
// is recorded in `pkt`, which may be null.
[[nodiscard]] lb_u8_t _lbipv6_getproto(lbipv6_hdr_t *iph, int len, lb_u8_t **protoh,
                                       lbpbuf_obj_t *pkt);
// The same for a packet that an error quotes: 0 and null also behind a later fragment's header,
// where no ports follow.
[[nodiscard]] lb_u8_t lbipv6_quotedproto(lbipv6_hdr_t *iph, int len, lb_u8_t **protoh);

// Unfolded sum of the pseudo header (RFC 8200, 8.1) of a packet of which `len` bytes (a header at
// least) are there. The upper-layer length is what the header declares, received or not.
[[nodiscard]] lb_u32_t lbipv6_pseudohdrsum(lbipv6_hdr_t *iph, int len);

// Answers the packet's client with a TCP reset through the client gateway: 0, or -1.
int _lbipv6_pbuf_sendreset(lbpbuf_obj_t *pkt);
