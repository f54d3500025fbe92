// A rule of a port: while it fires, a packet's server is chosen among the rule's own servers.
#pragma once

#include "lb_command.h"
#include "lb_srvset.h"

#include "prot/blocks.h"

// Whether the rule fires, from its type and what the last tick counted: 1, or 0. Runs on workers,
// under the lock of the port's rule list: it only looks.
using lbrul_evaluate_fn = int (*)(lbrul_obj_t *rul, lbpbuf_obj_t *pkt);

struct lbrul_obj_s {
    lbcmd_objhdr_t config;
    lbll_node_t llnode;
    alignas(8) lbrul_addable_t addable;
    alignas(8) lbrul_setable_t setable; // read by workers: lb_peek
    alignas(8) lbrul_getable_t getable;
    lbport_obj_t *parent;
    lbrul_evaluate_fn evaluatefp; // null until the first set: the rule doesn't fire; lb_peekptr
    lbsrvset_obj_t serverset;     // of the use-servers' references
};

// Fills a freshly allocated object and links it into the port's rule list, where it doesn't fire
// yet: 0, or 1. After a failure it may be freed unless it is linked all the same.
[[nodiscard]] int lbrul_init(lbcfg_key_t *key, lbport_obj_t *parent, lbrul_obj_t *rul,
                             void *vaddable, void *vsetable);
// Offers a packet to the port's rules: 1 when one fired and set the packet's server (null where it
// has none to give), else 0.
[[nodiscard]] int lbrul_pbuf_entry(lbpbuf_obj_t *pkt);
void lbrul_timer_entry(lbrul_obj_t *rul);
int lbrul_ll_select(void *key, void *obj); // key: lb_u16_t
void lbrul_ll_print(void *obj);
