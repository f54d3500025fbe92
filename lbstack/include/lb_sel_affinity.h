// The affinity table: all packets of a client address go to one server for as long as the client
// keeps sending. Ports that are each other's cross-port share one table.
#pragma once

#include "lb_sel_records.h"
#include "lb_select.h"

#include "prot/ipaddr.h"

struct lbsel_ar_key_s {
    lbip_addr_t sip; // the client
};
using lbsel_ar_key_t = lbsel_ar_key_s;

// The first cache line is what a look-up reads. All but the two pointers is guarded by the lock of
// the server's arlist once the record is in the table; the key does not change while it is there.
struct alignas(LBSEL_CACHELINE) lbsel_ar_obj_s {
    lbht_node_t htnode;
    lbsel_ar_key_t arkey;
    lbsrv_obj_t *server;          // lb_peekptr; null while the record is in no table
    lbsrv_obj_t *crossportServer; // lb_peekptr; the same machine under the cross-port, or null
    lbll_node_t expirelist;       // in the server's arlist, or in reuse
    lb_timeval_t timestamp;       // the last packet
    lb_timeval_t reptimestamp;    // the last replication
    lb_u8_t _pad[24];
};
using lbsel_ar_obj_t = lbsel_ar_obj_s;
static_assert(sizeof(lbsel_ar_obj_t) == 2 * LBSEL_CACHELINE);
static_assert(offsetof(lbsel_ar_obj_t, expirelist) == LBSEL_CACHELINE);

struct lbsel_at_obj_s {
    lbht_table_t lookup;
    lbsel_pool_t pool;
    lb_u8_t refcount; // ports that share the table beyond the first; under pool.reuse's lock
    lbht_bucket_t bucket[LBSEL_BUCKETS];
};
using lbsel_at_obj_t = lbsel_at_obj_s;

extern const lbsel_funcs_t lbsel_at_funcs;

// The server of the packet's client on the packet's port, chosen and recorded if the client is new;
// null when the packet has been dropped, counted and freed. No lock is held.
[[nodiscard]] lbsrv_obj_t *lbsel_at_chooseserver(lbpbuf_obj_t *pkt, lbsel_at_obj_t *at);
// The server of a client on the port, null without a record of the client. Nothing is made, moved
// or noted. No lock is held.
[[nodiscard]] lbsrv_obj_t *lbsel_at_findserver(lbport_obj_t *port, const lbip_addr_t *client);
// A removed port lets go of a table that others still use.
void lbsel_at_detachport(lbport_obj_t *port);

// The row's operations, for the row that combines both tables; contracts: lbsel_funcs_t.
int _lbsel_at_portinit(lbport_obj_t *port);
int _lbsel_at_srvinit(lbsrv_obj_t *server);
void _lbsel_at_portcleanup(lbport_obj_t *port);
void _lbsel_at_srvrm(lbsrv_obj_t *server);
bool _lbsel_at_srvreap(lbsrv_obj_t *server);
lbsrv_obj_t *_lbsel_at_choose(lbpbuf_obj_t *pkt);
void _lbsel_at_timer(lbport_obj_t *port);

// How records leave the table.
[[nodiscard]] lbsel_table_t _lbsel_at_table(lbsel_at_obj_t *at);
// The server of the same machine under the port's cross-port, itself without one; null where that
// port has none. No lock is held.
[[nodiscard]] lbsrv_obj_t *_lbsel_at_crossport(lbsrv_obj_t *server);
// Whether a record that was found is still this client's, on this server.
[[nodiscard]] bool _lbsel_at_isstill(lbsrv_obj_t *server, const lbsel_ar_obj_t *ar,
                                     const lbsel_ar_key_t *key) LB_NEEDS(server->sel.arlist);
// A cleared record that is in no table and on no list, or null.
[[nodiscard]] lbsel_ar_obj_t *_lbsel_at_getnewar(lbsel_at_obj_t *at);
void _lbsel_at_returnar(lbsel_at_obj_t *at, lbsel_ar_obj_t *ar);
// Queues the record for the partner. The server's arlist is locked.
int rep_enqueuear(lbsel_ar_obj_t *ar);
