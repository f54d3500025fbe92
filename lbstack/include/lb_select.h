// Server selection: the table of operations by algorithm, round robin over a server set, and the
// choosers that keep no state.
#pragma once

#include "lb_srvset.h"

#include "prot/blocks.h"

// One row per algorithm; any slot may be null. The init operations run on the command thread before
// the object is linked, with no lock held.
struct lbsel_funcs_s {
    int (*portinit)(lbport_obj_t *port);     // non-zero fails the port
    int (*srvinit)(lbsrv_obj_t *server);     // non-zero fails the server
    void (*portcleanup)(lbport_obj_t *port); // timer thread, when the port is reaped
    // Sweeps references to the server away, once it is unlinked. Command thread; the timer thread
    // where the removal had been refused.
    void (*srvrm)(lbsrv_obj_t *server);
    // Timer thread, when the server is to be reaped: whether references to it were found, and swept
    // away. Then the wait starts again; otherwise what the algorithm keeps for the server is freed.
    bool (*srvreap)(lbsrv_obj_t *server);
    // Packet path: the server, or null when the packet has been dropped, counted and freed.
    lbsrv_obj_t *(*choose)(lbpbuf_obj_t *pkt);
    void (*timer)(lbport_obj_t *port); // timer thread, every tick
};
using lbsel_funcs_t = lbsel_funcs_s;
extern lbsel_funcs_t selectfunc[LBSEL_ALGORIGHM_MAXIMUM + 1];

// Forwarders by encapsulation type: 0 when handed on, 1 when not sent.
using lbsel_encapforward_fn = int (*)(lbpbuf_obj_t *pkt);
extern lbsel_encapforward_fn encapforwardfunc[LBSRV_ENCAPTYPE_MAX + 1];

int lbsel_init();
void lbsel_cleanup();

// Rules first, then the port's server set; null when no server is to be had.
[[nodiscard]] lbsrv_obj_t *lbsel_chooseserver(lbpbuf_obj_t *pkt, lb_u32_t *seedptr);
// Round robin over one set: by weight, or strictly in turn when all weights are 0.
[[nodiscard]] lbsrv_obj_t *lbsel_srvset_chooseserver(lbsrvset_obj_t *srvset, lb_u32_t *seedptr);
[[nodiscard]] lb_u16_t lbsel_pbuf_getclientport(lbpbuf_obj_t *pkt); // host order
[[nodiscard]] lbip_addr_t *lbsel_pbuf_getclientaddr(lbpbuf_obj_t *pkt);
int _lbsel_llfilter_strictrr(void *vkey, void *vobj);   // key: lb_s32_t[2]
int _lbsel_llfilter_weightedrr(void *vkey, void *vobj); // key: lb_s32_t[2]
