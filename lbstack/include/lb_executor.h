// The executor: the root of the configuration tree, the one object that exists without an ADD. It
// holds the global settings and counters, and the lists and tables of the rest of the stack.
#pragma once

#include "lb_command.h"
#include "lb_ha.h"
#include "lb_interface.h"
#include "lb_neigh.h"

#include "prot/blocks.h"

struct lbexe_obj_s {
    lbcmd_objhdr_t cmdobj;
    lbll_list_t cfgcmdlist;
    lbll_list_t retaddrlist; // NAT return addresses
    alignas(8) lbexe_setable_t setable;
    alignas(8) lbexe_getable_t getable;
    lbll_list_t clusterlist;
    lbll_list_t memberships; // of lbmc_membership_t
    lbll_list_t ifacecmdlist;
    lbll_list_t cmdreaplist;
    lbifcol_collection_t ifcollection;
    lbneigh_table_t neightable;
    lbha_obj_t ha;
    lbneigh_obj_t *clientgw_neigh;      // lb_peekptr; null without an IPv4 client gateway
    lbneigh_obj_t *clientgw_neigh_ipv6; // lb_peekptr
};

extern lbexe_obj_t *lbexecutor; // null until lbexe_init()

[[nodiscard]] int lbexe_init(); // 0, or non-zero; refuses a second call
int lbexe_exit();
int lbexe_timer_entry();
void lbexe_protostats(const char *label, const lb_proto_stats_t *stats);
