// Replication: records of connections and of clients' affinity on their way to the partner, and
// those that the partner sent.
#pragma once

#include "lb_linkedlist.h"
#include "lb_types.h"

#include "prot/ha.h"
#include "prot/keys.h"

struct lbha_repqobj_s {
    lbll_node_t qobjnode; // in the queue
    lbha_repqobj_s *next; // once it is taken out
    lbha_reppkt_t reppkt; // of its header only numreprec and rseq (when it was opened) are kept
};

enum _lbha_repenq_rc : int {
    LBHA_REPENQ_SUCCESS = 1,
    LBHA_REPENQ_SOFTLIMIT = 2, // never returned, like the next: the queue has no limits
    LBHA_REPENQ_HARDLIMIT = 3,
    LBHA_REPENQ_FAILURE = 4, // no memory
};
// Queues a record for the partner; a client port of 0 marks an affinity record. Ports in host
// order. A server's records may be locked.
int lbha_replication_enqueue(lbcfg_key_t *key, lbip_addr_t *cliip, lb_u16_t cliport, lb_u8_t state,
                             lb_u16_t natport);
// Empties the queue: a chain of its packets, the oldest first, which the caller frees; or null.
[[nodiscard]] lbha_repqobj_t *lbha_replication_take();
// Frees what is queued.
void lbha_replication_drop();
// Applies the records of a received heartbeat of `len` bytes, a header at least. No lock is held.
void _lbha_handlereprecords(const lbha_pkthdr_t *pkt, int len);

void _lbha_ll_repq_print(void *obj);
void _lbha_reprec_print(const lbha_replicationrec_t *rec);
