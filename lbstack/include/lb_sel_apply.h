// Records that the partner's tables have, applied to ours.
#pragma once

#include "lb_types.h"

#include "prot/ipaddr.h"

struct lbsel_replica_s {
    lbip_addr_t client;
    lb_u16_t clientport; // host order; connections only, as are the next two
    lb_u16_t natport;    // host order
    lb_u8_t state;       // as it came, lbsel_cr_state_e or anything else
};
using lbsel_replica_t = lbsel_replica_s;

// Makes, moves, refreshes or removes the client's record: false when it could not be done for want
// of memory, so that there is no use in trying the next. The server was found in the configuration
// tree since the caller entered the stack. No lock is held.
[[nodiscard]] bool lbsel_ct_apply(lbsrv_obj_t *server, const lbsel_replica_t *replica);
[[nodiscard]] bool lbsel_at_apply(lbsrv_obj_t *server, const lbip_addr_t *client);
