// The connection table: every packet of a client's TCP connection goes to the server that was
// chosen for its first SYN. The states follow the flags of the client's packets.
#pragma once

#include "lb_sel_affinity.h"

enum lbsel_cr_state_e : lb_u8_t {
    LBSEL_CR_STATE_PREEST = 1,
    LBSEL_CR_STATE_ACTIVE = 2,
    LBSEL_CR_STATE_FIN = 3,
    LBSEL_CR_STATE_RST = 4,
};

struct lbsel_cr_obj_key_s {
    lbip_addr_t sip; // the client,
    lb_u16_t sport;  // and its port, host order
    lb_u16_t _pad;
};
using lbsel_cr_obj_key_t = lbsel_cr_obj_key_s;

struct lb_nat_obj_key_s {
    lb_u16_t natport; // source port towards a NAT server, host order; 0 for other servers
};
using lb_nat_obj_key_t = lb_nat_obj_key_s;

// The first cache line is what a look-up reads. All but the server is guarded by the lock of the
// server's `active` list once the record is in the table; the key does not change while it is
// there.
struct alignas(LBSEL_CACHELINE) lbsel_cr_obj_s {
    lbht_node_t htnode;
    lbsel_cr_obj_key_t crkey;
    lb_nat_obj_key_t natkey;
    lb_u8_t state; // lbsel_cr_state_e
    lb_u8_t _pad;
    lbsrv_obj_t *server;       // lb_peekptr; null while the record is in no table
    lbll_node_t expirelist;    // in the server's preest, active or fin, or in reuse
    lbht_node_t nathtnode;     // in no table: a return address's port table is an array
    lb_timeval_t timestamp;    // the last packet
    lb_timeval_t reptimestamp; // the last replication
};
static_assert(sizeof(lbsel_cr_obj_t) == 2 * LBSEL_CACHELINE);
static_assert(offsetof(lbsel_cr_obj_t, expirelist) == LBSEL_CACHELINE);

struct lbsel_ct_obj_s {
    lbht_table_t lookup;
    lbsel_pool_t pool;
    lbht_bucket_t bucket[LBSEL_BUCKETS];
};
using lbsel_ct_obj_t = lbsel_ct_obj_s;

extern const lbsel_funcs_t lbsel_ct_funcs;
// Connections whose server is chosen by the affinity table.
extern const lbsel_funcs_t lbsel_ctat_funcs;

// The server of the packet's connection, chosen and recorded if the packet begins one: by `at` if
// there is one, else among the port's servers. Null when the packet has been dropped or answered,
// counted and freed. The packet's selrecord is the connection's. No lock is held.
[[nodiscard]] lbsrv_obj_t *_lbsel_ct_chooseserver(lbpbuf_obj_t *pkt, lbsel_ct_obj_t *ct,
                                                  lbsel_at_obj_t *at);
// The server of a client's connection to the port, null without one. Nothing is made, moved or
// noted. No lock is held.
[[nodiscard]] lbsrv_obj_t *lbsel_ct_findserver(lbport_obj_t *port, const lbip_addr_t *client,
                                               lb_u16_t clientport_hbo);

// Whose answers come to a NAT port.
struct lbsel_natowner_s {
    lbip_addr_t client;
    lb_u16_t clientport;      // host order
    lbip_addr_t cluster;      // where the client thinks that it is talking to
    const lbsel_cr_obj_t *cr; // for messages; it may have changed hands since
};
using lbsel_natowner_t = lbsel_natowner_s;
// Whether the record that was found for a port, and the server that it named, are still what owns
// it on that return address; if so, who that is. No lock is held.
[[nodiscard]] bool lbsel_ct_natowner(lbsrv_obj_t *server, const lbsel_cr_obj_t *cr,
                                     const lb_retaddr_obj_t *retaddr, lb_u16_t natport,
                                     lbsel_natowner_t *owner);

// How records leave the table.
[[nodiscard]] lbsel_table_t _lbsel_ct_table(lbsel_ct_obj_t *ct);
// Whether a record that was found is still this connection's, on this server.
[[nodiscard]] bool _lbsel_ct_isstill(lbsrv_obj_t *server, const lbsel_cr_obj_t *cr,
                                     const lbsel_cr_obj_key_t *key) LB_NEEDS(server->sel.active);
// A cleared record that is in no table and on no list, or null.
[[nodiscard]] lbsel_cr_obj_t *_lbsel_ct_getnewcr(lbsel_ct_obj_t *ct);
// Gives back a record that is in no table, on no list, and owns no port.
void _lbsel_ct_returncr(lbsel_ct_obj_t *ct, lbsel_cr_obj_t *cr);
// Queues the record for the partner. The server's `active` list is locked.
int rep_enqueuecr(lbsel_cr_obj_t *cr);
