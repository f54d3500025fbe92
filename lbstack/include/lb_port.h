// A port of a cluster: which algorithm selects among which servers.
#pragma once

#include "lb_command.h"
#include "lb_srvset.h"

#include "prot/blocks.h"

struct lbport_obj_s {
    lbcmd_objhdr_t config;
    lbll_node_t llnode;
    lbll_list_t rulelist;   // of lbrul_obj_t, in ascending order of rule numbers
    lbll_list_t serverlist; // of lbsrv_obj_t
    lbsrvset_obj_t serverset;
    alignas(8) lbport_addable_t addable;
    alignas(8) lbport_setable_t setable;
    alignas(8) lbport_getable_t getable;
    lbclu_obj_t *parent;
    void *ct; // connection table; only the algorithm touches it
    void *at; // affinity table, perhaps shared with the cross-port partner
};

// Fills a freshly allocated object: 0, or 1 (what it took is given back then). Sets the defaults in
// the caller's blocks too.
[[nodiscard]] int lbport_init(lbcfg_key_t *key, lbclu_obj_t *parent, lbport_obj_t *port,
                              void *vaddable, void *vsetable);
void lbport_timer_entry(lbport_obj_t *port);
// Recomputes the weight sums of the port's server set and of up to 128 rules'. Command thread.
void lbport_weightsums(lbport_obj_t *port);
[[nodiscard]] lb_u16_t lbport_number(const lbport_obj_t *port); // host order
int lbport_ll_select(void *key, void *obj);                     // key: lb_u16_t
void lbport_ll_print(void *obj);
