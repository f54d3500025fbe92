// A server set: the references that round robin chooses from. A port has one, and each of its
// rules.
#pragma once

#include "lb_linkedlist.h"
#include "lb_types.h"

enum lbsrvset_seedtype_e : int {
    LBSRVSET_SEED_ATCT = 0,
    LBSRVSET_SEED_ICMP = 1,
    LBSRVSET_SEED_UDPRR = 2,
    LBSRVSET_SEED_ARRAYSIZE = 3,
};
using lbsrvset_seedtype_t = lbsrvset_seedtype_e;

struct lbsrv_ref_s {
    lbll_node_t refnode;
    lbsrv_obj_t *server;
};

struct lbsrvset_obj_s {
    lb_u32_t weightsum;                      // lb_peek, lb_poke
    lb_u32_t seeds[LBSRVSET_SEED_ARRAYSIZE]; // lb_peek, lb_take_next
    lb_u32_t numactive;                      // lb_peek, lb_poke
    lb_u32_t _pad;
    lbll_list_t srvreflist; // of lbsrv_ref_t
};

// At most this many members of a list get a timer's or a sum's attention.
constexpr int LB_SNAPSHOT_MAX = 128;

[[nodiscard]] int lbsrvset_init(lbsrvset_obj_t *srvset);    // 0, or 1
[[nodiscard]] int lbsrvset_cleanup(lbsrvset_obj_t *srvset); // 0, or 1
// Recomputes the sum of the weights. Command thread, no lock held.
void lbsrvset_weightsum(lbsrvset_obj_t *srvset);
void lbsrvset_timer_entry(lbsrvset_obj_t *srvset);
