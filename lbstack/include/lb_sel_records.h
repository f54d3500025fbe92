// What the connection and the affinity table have in common: where records come from and go to, how
// they enter a table and leave it, when they are too old, and how a packet without a server ends.
//
// A record is in its table's bucket and on one list of its server, or in neither: both change under
// the lock that guards the server's list. Who found a record in a table, without that lock, reads
// its server, locks, and asks whether the record is on a list of that server: nobody else could
// have put it there or taken it away.
#pragma once

#include "lb_hashtable.h"
#include "lb_server.h"
#include "lb_types.h"

constexpr std::size_t LBSEL_CACHELINE = 64;
constexpr int LBSEL_BUCKETS = 4096;
// How often a packet starts over because its record changed hands meanwhile.
constexpr int LBSEL_TRIES = 64;

// --- Records' memory -----------------------------------------------------------------------------

struct lbsel_chunk_s;
using lbsel_chunk_t = lbsel_chunk_s;

// Records stay records until the pool dies, so a pointer to one may be followed at any time before.
struct lbsel_pool_s {
    lbll_list_t reuse;     // retired records; its lock guards the rest, too
    lbsel_chunk_t *chunks; // the newest first
    lb_u32_t fresh;        // records of the newest chunk that were never handed out
    lb_u32_t recordsize;   // a multiple of the cache line
};
using lbsel_pool_t = lbsel_pool_s;

// `nodeoffset` is that of the node by which records are on `reuse`. 0, or 1.
[[nodiscard]] int lbsel_pool_init(lbsel_pool_t *pool, std::size_t recordsize, int nodeoffset);
// Frees every record. Nobody uses one any more.
void lbsel_pool_cleanup(lbsel_pool_t *pool);
// A record that is on no list, aligned to the cache line; null when memory is exhausted. All zero,
// except when `reused` says that it had a life before: then the caller clears it.
[[nodiscard]] void *lbsel_pool_take(lbsel_pool_t *pool, bool *reused);
// Puts records that are on no list on the reuse list.
void lbsel_pool_give(lbsel_pool_t *pool, void **records, int count);
// Calls `visit` for every record that was ever handed out: how many. Nobody changes them meanwhile.
int lbsel_pool_foreach(lbsel_pool_t *pool, void (*visit)(void *record, void *context),
                       void *context);

// --- Lists that another list's lock guards
// ----------------------------------------------------------------------------------------------

// A server's lists `preest` and `fin` are guarded by the lock of `active`.
[[nodiscard]] int lbsel_list_append(lbll_list_t *guard, lbll_list_t *list, void *record)
    LB_NEEDS(*guard);
[[nodiscard]] int lbsel_list_unlink(lbll_list_t *guard, lbll_list_t *list, void *record)
    LB_NEEDS(*guard);
[[nodiscard]] int lbsel_list_selectn(lbll_list_t *guard, lbll_list_t *list, void **out,
                                     int capacity, lbll_select_fn filter, void *key)
    LB_NEEDS(*guard);
void lbsel_list_iterate(lbll_list_t *guard, lbll_list_t *list, void (*action)(void *record))
    LB_NEEDS(*guard);

struct lbsel_listinit_s {
    lbll_list_t lbsrv_seldat_t::*list;
    const char *name; // as messages call it
    int nodeoffset;
};
using lbsel_listinit_t = lbsel_listinit_s;
// Initialises lists of a server: 0, or 1 (none is left then).
[[nodiscard]] int lbsel_lists_init(lbsrv_obj_t *server, const lbsel_listinit_t *lists, int count);
// Retires those of the server's lists that were initialised.
void lbsel_lists_cleanup(lbsrv_obj_t *server);

// --- Into a table, and out -----------------------------------------------------------------------

enum lbsel_insert_e : int {
    LBSEL_INSERT_DONE,
    LBSEL_INSERT_EXISTS, // another record has the key
    LBSEL_INSERT_FAILED,
};
// Inserts unless there is a record with the key. The lock of the server's list is held.
[[nodiscard]] lbsel_insert_e lbsel_insert(lbht_table_t *lookup, void *key, void *record);

struct lbsel_table_s {
    lbht_table_t *lookup;
    lbsel_pool_t *pool;
    void (*forget)(void *record); // what the record held besides its links; the lock is held
};
using lbsel_table_t = lbsel_table_s;

// Takes one record out of the table and off its list, to the reuse list.
void lbsel_retire(const lbsel_table_t *table, lbll_list_t *guard, lbll_list_t *list, void *record)
    LB_NEEDS(*guard);
// The same for the first of the list's records that the filter selects, LB_SNAPSHOT_MAX at most:
// how many.
[[nodiscard]] int lbsel_retirebatch(const lbsel_table_t *table, lbll_list_t *guard,
                                    lbll_list_t *list, lbll_select_fn filter, void *key)
    LB_EXCLUDES(*guard);
// The same for all of them, letting others in between batches: how many.
int lbsel_retireall(const lbsel_table_t *table, lbll_list_t *guard, lbll_list_t *list,
                    lbll_select_fn filter, void *key) LB_EXCLUDES(*guard);

// --- Age -----------------------------------------------------------------------------------------

// A record that has been idle for more than `timeout_s` - 1 seconds is too old.
struct lbsel_deadline_s {
    lb_timeval_t now;
    lb_u32_t timeout_s;
};
using lbsel_deadline_t = lbsel_deadline_s;
// What a filter over a list, oldest first, answers for a record's time stamp. One that the clock
// has left behind by being set back starts anew.
[[nodiscard]] int lbsel_expired(const lbsel_deadline_t *deadline, lb_timeval_t *timestamp);

// --- Packets -------------------------------------------------------------------------------------

// Drops a packet, traced with the label if there is one: counted as discarded, or as an error. Both
// return null.
lbsrv_obj_t *lbsel_discard(lbpbuf_obj_t *pkt, const char *label);
lbsrv_obj_t *lbsel_error(lbpbuf_obj_t *pkt, const char *label);
