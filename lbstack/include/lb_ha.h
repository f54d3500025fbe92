// High availability. This node is SOLO: every role becomes SOLO.
#pragma once

#include "lb_linkedlist.h"
#include "lb_types.h"

#include "prot/blocks.h"

struct lbha_obj_s {
    lb_timeval_t seq;
    lb_timeval_t ack;
    lb_timeval_t partnerack;
    lb_timeval_t laststatechange;
    lb_u32_t maxhbpayload; // replication records that fit in one heartbeat
    lbll_list_t heartbeatlist;
    lbll_list_t reppktq;
    lbll_list_t reppktqbkp;
};
using lbha_obj_t = lbha_obj_s;

// Called while the executor is built: 0, or 1 if a list could not be made.
[[nodiscard]] int lbha_init();
int lbha_exit();
// Validates and applies the HA settings that are in the executor's settable block. Always 0.
int lbha_cmd_set(lbcmd_objhdr_t *obj);
void lbha_timer_entry();
// Whether this node is the silent one of a pair: it then answers no queries for its addresses.
[[nodiscard]] bool lbha_isstandby();
// Asked for by a node that relinquishes, withdrawn by the cluster timer: send all records again.
int lbha_set_crrepall();
int lbha_unset_crrepall();
int lbha_set_arrepall();
int lbha_unset_arrepall();
[[nodiscard]] bool lbha_crrepall();
[[nodiscard]] bool lbha_arrepall();
