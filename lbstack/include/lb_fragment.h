// The fragment table: where the fragments of a datagram go. Only a datagram's first fragment has
// the ports by which a server is chosen; the table remembers by identification and source address
// where that one went, and holds fragments that came before it. A cluster has a table; so may
// anyone else whose fragments must follow their first one.
#pragma once

#include "lb_hashtable.h"
#include "lb_types.h"

#include "prot/ipaddr.h"

constexpr int LBFRAG_BUCKETS = 256;
constexpr lb_u32_t LBFRAG_TIMEOUT_S = 4;
// Memory for held fragments, for the process. A held frame is charged with LBFRAG_HELDCHARGE.
constexpr lb_u64_t LBFRAG_BUDGET = lb_u64_t{64} * 1024 * 1024;

struct lbfrag_rec_key_s {
    lb_u32_t fragment_id;
    lbip_addr_t sourceip;
};
using lbfrag_rec_key_t = lbfrag_rec_key_s;

// Either what a first fragment has registered (`srvaddr` is valid) or one held fragment. A key has
// one registered record, or any number of held ones.
struct lbfrag_record_s {
    lbht_node_t ft_node;
    lbll_node_t expration_node; // on the table's expirationlist, or on reuse
    lbht_bucket_t *home;        // lb_peekptr: the bucket it is in, or null; changed under its lock
    lb_timeval_t timestamp;     // guarded by the expiration list
    lbfrag_rec_key_t frkey;     // this and what follows: guarded by the bucket
    lb_u16_t sport;             // of the first fragment, host order
    lb_u16_t dport;
    lbip_addr_t srvaddr;  // where the others go; version 0 until the first one has gone there
    lbip_addr_t peeraddr; // for tables that need a second address
    lbpbuf_obj_t *frag;   // the held fragment, or null
};

// What a held frame takes of the budget: its record, its packet object, and the host's buffer.
constexpr lb_u64_t LBFRAG_HELDCHARGE = 2560;

// Sends one fragment where its datagram's record says; `record` is the caller's copy. No lock is
// held. The host's buffer is freed in every case, the packet object is not. A disposition.
using lbfrag_send_fn = int (*)(lbpbuf_obj_t *pkt, const lbfrag_record_t *record, const char *label);

struct lbfrag_table_s {
    lbht_table_t fraght;
    lbht_bucket_t buckets[LBFRAG_BUCKETS];
    lbll_list_t expirationlist; // every record in fraght, the oldest first
    lbll_list_t reuse;
    lbfrag_send_fn send;
};

// The forwarder of a cluster's tables: to the server `srvaddr` of the cluster's port `dport`.
int _lbfrag_send(lbpbuf_obj_t *pkt, const lbfrag_record_t *record, const char *label);

// 0, or non-zero (nothing is left then).
[[nodiscard]] int lbfrag_inittable(lbfrag_table_t *table, lbfrag_send_fn send = _lbfrag_send);
// Frees the records and what they hold, and retires the table: 0, or non-zero. Nobody else uses the
// table any more.
int lbfrag_cleanuptable(lbfrag_table_t *table);
// Retires records older than LBFRAG_TIMEOUT_S and frees what they hold. Timer thread.
void lbfrag_timer_entry(lbfrag_table_t *table);

// A fragment that is not its datagram's first has arrived: sends it after the first, or holds it.
// A disposition.
[[nodiscard]] int lbfrag_arrive(lbfrag_table_t *table, lbpbuf_obj_t *pkt);
// A first fragment goes where `what` says (ports and addresses; srvaddr is valid): registers that,
// and sends the fragments that wait for it. Before anything of the packet's header is rewritten.
void lbfrag_publish(lbfrag_table_t *table, lbpbuf_obj_t *pkt, const lbfrag_record_t *what);

// The same for a packet to a cluster, in its cluster's table; the first fragment's server is chosen
// already.
[[nodiscard]] int lbfrag_pbuf_entry(lbpbuf_obj_t *pkt);
void lbfrag_pbuf_firstfragment(lbpbuf_obj_t *pkt);

// The process's budget for held fragments: sets it, and tells what is taken of it. In bytes.
void lbfrag_setbudget(lb_u64_t bytes);
[[nodiscard]] lb_u64_t lbfrag_heldbytes();

// A record that is in no table and says nothing, from the reuse list or else the heap. Null when
// memory is exhausted.
[[nodiscard]] lbfrag_record_t *_lbfrag_getnewrecord(lbfrag_table_t *table);
// The table's callbacks; keys are lbfrag_rec_key_t.
lb_u32_t _lbfrag_hash_callback(void *vkey, void *vobj);
int _lbfrag_select_callback(void *vkey, void *vobj);
