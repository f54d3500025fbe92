// A cluster: one virtual address that the stack owns on behalf of its servers. Child of the
// executor, parent of its ports.
#pragma once

#include "lb_command.h"
#include "lb_fragment.h"
#include "lb_multicast.h"

#include "prot/blocks.h"

struct lbclu_obj_s {
    lbcmd_objhdr_t cmdobj;
    lbll_node_t clusternode;
    lbll_list_t portlist; // of lbport_obj_t
    alignas(8) lbclu_addable_t addable;
    alignas(8) lbclu_setable_t setable;
    alignas(8) lbclu_getable_t getable;
    lbexe_obj_t *parent;
    lbfrag_table_t fragtable;
    lbmc_membership_t membership;
};

// Fills a freshly allocated object: 0, or 1 (nothing is left behind then). Solicitations for an
// IPv6 cluster reach the stack from then on.
[[nodiscard]] int lbclu_init(lbcfg_key_t *key, lbclu_obj_t *cluster, void *addable, void *setable);
void lbclu_timer_entry(lbclu_obj_t *cluster);
int lbclu_ll_select(void *key, void *obj); // key: lbip_addr_t
void lbclu_ll_print(void *obj);
