// High availability. This node is SOLO: every role becomes SOLO.
#pragma once

#include "lb_linkedlist.h"
#include "lb_types.h"

#include "prot/blocks.h"
#include "prot/keys.h"

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

enum _lbha_repenq_rc : int {
    LBHA_REPENQ_SUCCESS = 1,
    LBHA_REPENQ_SOFTLIMIT = 2,
    LBHA_REPENQ_HARDLIMIT = 3,
    LBHA_REPENQ_FAILURE = 4,
};
// Whether there is a partner who wants records: who asks first, leaves them as they are.
[[nodiscard]] bool lbha_ispaired();
// Queues a record for the partner; a client port of 0 marks an affinity record.
int lbha_replication_enqueue(lbcfg_key_t *key, lbip_addr_t *cliip, lb_u16_t cliport, lb_u8_t state,
                             lb_u16_t natport);
// Asked for by a node that relinquishes, withdrawn by the cluster timer: send all records again.
int lbha_set_crrepall();
int lbha_unset_crrepall();
int lbha_set_arrepall();
int lbha_unset_arrepall();
[[nodiscard]] bool lbha_crrepall();
[[nodiscard]] bool lbha_arrepall();
