// High availability: of a pair of nodes one is active and owns the cluster addresses, the other
// stands by and takes them over. Here are the roles and the state machine; lb_heartbeat.h has what
// partners tell each other, lb_replication.h the records that they share.
#pragma once

#include "lb_linkedlist.h"
#include "lb_types.h"

#include "prot/blocks.h"
#include "prot/ha.h"

// Times and numbers are shared words.
struct lbha_obj_s {
    lb_timeval_t seq;             // of this node's current heartbeat
    lb_timeval_t ack;             // the latest `seq` that the partner has echoed
    lb_timeval_t partnerack;      // the partner's latest `seq`, to be echoed
    lb_timeval_t laststatechange; // also the last time that the role was set to SOLO
    lb_u32_t maxhbpayload;        // replication records that fit in one heartbeat
    lb_u16_t ipid;                // identification of the last IPv4 heartbeat
    lbll_list_t heartbeatlist;    // of lbha_heartbeatobj_t
    lbll_list_t reppktq;          // of lbha_repqobj_t, the newest on the left
    lbll_list_t reppktqbkp;       // never used
};
using lbha_obj_t = lbha_obj_s;

enum _lbha_event_e : int {
    LBHA_EVENT_TIMER = 1,
    LBHA_EVENT_HEARTBEATRX = 2,
    LBHA_EVENT_MANUALTAKEOVER = 3,
};

// Called while the executor is built: 0, or 1 if a list or lock could not be made.
[[nodiscard]] int lbha_init();
int lbha_exit();
// Validates and applies the HA settings that are in the executor's settable block. Always 0.
int lbha_cmd_set(lbcmd_objhdr_t *obj);
void lbha_timer_entry();
// Whether this node is the silent one of a pair: it then answers no queries for its addresses.
[[nodiscard]] bool lbha_isstandby();
// Whether the node is one of a pair. Who would queue records asks first, and leaves them as they
// are on a node that stands alone.
[[nodiscard]] bool lbha_ispaired();
// Whether heartbeats are sent and taken.
[[nodiscard]] bool lbha_hasrole();

// The state machine. `hdr` is a received heartbeat of `len` bytes, a header at least, and null for
// other events. No lock is held.
void _lbha_event(int event, const lbha_pkthdr_t *hdr, int len);
void _lbha_takeover();
// A hook without a body: who yields only falls silent.
void _lbha_relinquish();

// A node that yields asks for all its records to be sent again; the timer withdraws that when it
// has been done.
int lbha_set_crrepall();
int lbha_unset_crrepall();
int lbha_set_arrepall();
int lbha_unset_arrepall();
// The clusters' timers begin: what was asked for until now is granted, to the first cluster only.
void lbha_repall_begin();
// A cluster's tables are done: what was granted is withdrawn.
void lbha_repall_end();
// What is granted. Timer thread.
[[nodiscard]] bool lbha_crrepall();
[[nodiscard]] bool lbha_arrepall();
