// The host's receive buffer: what the stack knows as lb_osopaque_t.
#pragma once

#include "lb_types.h"

#include <linux/if_packet.h>

#include <atomic>

constexpr int LX_HEADROOM = 32;   // free bytes in front of a received frame
constexpr int LX_FRAMEMAX = 1568; // the longest frame that fits

// Who has a buffer. A packet that the stack holds can be found, sent and released by another thread
// before the worker has even heard that it is held; so worker and release each exchange the word
// for their own, and whoever comes second has the buffer:
//
//   OWNED -> MARKED     os_packethold(), by the worker itself, before the packet can be found
//   MARKED -> HELD      the entry returned first; the release that follows frees
//   MARKED -> RELEASED  the release came first; the worker has the buffer back for its next frame
//   OWNED -> RELEASED   the ordinary end of a frame that was never held
//   OWNED -> HELD       an entry that says held without having marked it
//
// Neither side touches the buffer after its exchange unless that told it that it came second.
enum lx_held_e : lb_u8_t {
    LX_OWNED = 0,    // the worker's, which reuses it
    LX_HELD = 1,     // the stack's, which frees it through os_packetfree()
    LX_RELEASED = 2, // the stack is done with it, and the worker hasn't let go of it yet
    LX_MARKED = 3,   // the stack's, and the worker hasn't let go of it yet
};

struct lx_pktbuf_s {
    int psfdin;           // the socket that the frame came from
    lb_u8_t *ethh;        // link header inside `buf`; NULL for a frame without one
    lb_u8_t *iph;         // network-layer header inside `buf`
    sockaddr_ll sain;     // where the frame came from
    unsigned int sainlen; // room for that
    int buflen;           // room for the frame
    int datalen;          // bytes received; -1 when the receive failed
    lb_u8_t heldflag;     // lx_held_e, an atomic word
    lb_u8_t buf[LX_HEADROOM + LX_FRAMEMAX];
};
using lx_pktbuf_t = lx_pktbuf_s;
static_assert(sizeof(lx_pktbuf_t::buf) == 1600);

inline std::atomic_ref<lb_u8_t> lx_heldword(lx_pktbuf_t *pkt)
{
    return std::atomic_ref<lb_u8_t>(pkt->heldflag);
}
