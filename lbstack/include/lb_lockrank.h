// Lock levels. Locks are taken upwards only and never two of one level; builds with LB_LOCK_RANKS
// abort on a violation and name both levels.
#pragma once

#include "lb_types.h"

enum lb_lockrank_e : lb_u8_t {
    LB_RANK_NONE = 0,       // not checked
    LB_RANK_REAP = 1,       // the reap list
    LB_RANK_COMMAND = 2,    // command lists
    LB_RANK_OBJECT = 3,     // cluster, port, rule, server, heartbeat, return-address lists
    LB_RANK_IFACE = 4,      // interface list
    LB_RANK_IFADDR = 5,     // interface-address lists
    LB_RANK_SRVREF = 6,     // server-reference lists
    LB_RANK_RECORDS = 7,    // a server's records
    LB_RANK_BUCKET = 8,     // one hash bucket
    LB_RANK_FRAGEXPIRE = 9, // fragment expiration list
    LB_RANK_NATPORTS = 10,  // NAT port table
    LB_RANK_LEAF = 11,      // reuse lists, replication queue and flags, grace list
    LB_RANK_LOG = 12,       // the log
};

#ifdef LB_LOCK_RANKS
void lb_lockrank_take(lb_u8_t rank);
void lb_lockrank_drop(lb_u8_t rank);
#else
inline void lb_lockrank_take(lb_u8_t) {}
inline void lb_lockrank_drop(lb_u8_t) {}
#endif
