// Records of connections and of clients' affinity: their memory, and the steps by which they enter
// and leave tables and lists. It owns the pools' chunks; the tables own the pools.
//
// Workers, the timer and the command thread enter. Locks: a server's list, and under it one at a
// time a bucket or a reuse list. Chunks come from the heap under the reuse list's lock, one for
// many records, and go back when the table dies.
#include "lb_sel_records.h"

#include "lb_cluster.h"
#include "lb_log.h"
#include "lb_pbuf.h"
#include "lb_port.h"

#include <cstdint>

constexpr lb_u32_t CHUNKRECORDS = 32;
constexpr int PREFETCHED = 4; // records ahead
constexpr lb_s64_t USECS_PER_SEC = 1000000;

// In front of a chunk's records, which begin at the next cache line.
struct lbsel_chunk_s {
    lbsel_chunk_t *next;
};

namespace
{

constexpr lb_u64_t FAILURE = LB_LOG_SELECT | LB_LOG_FAILURE;

// A server's lists, in the order in which they are retired.
constexpr lbll_list_t lbsrv_seldat_t::*const SERVERLISTS[] = {
    &lbsrv_seldat_t::preest,
    &lbsrv_seldat_t::active,
    &lbsrv_seldat_t::fin,
    &lbsrv_seldat_t::arlist,
};

void *recordat(const lbsel_pool_t *pool, lbsel_chunk_t *chunk, lb_u32_t index)
{
    auto *first = reinterpret_cast<unsigned char *>(chunk + 1);
    const auto misfit = reinterpret_cast<std::uintptr_t>(first) % LBSEL_CACHELINE;
    first += misfit != 0 ? LBSEL_CACHELINE - misfit : 0;
    return first + static_cast<std::size_t>(index) * pool->recordsize;
}

// The caller holds the reuse list's lock.
bool addchunk(lbsel_pool_t *pool)
{
    const std::size_t size =
        sizeof(lbsel_chunk_t) + LBSEL_CACHELINE + std::size_t{CHUNKRECORDS} * pool->recordsize;
    auto *chunk = static_cast<lbsel_chunk_t *>(os_memalloc(static_cast<int>(size)));
    if (chunk == nullptr) {
        return false;
    }
    os_memset(chunk, 0, size);
    chunk->next = pool->chunks;
    pool->chunks = chunk;
    pool->fresh = CHUNKRECORDS;
    return true;
}

lb_s64_t usecsof(lb_timeval_t time)
{
    return time.secs * USECS_PER_SEC + time.usecs;
}

lbsrv_obj_t *drop(lbpbuf_obj_t *pkt, lb_u64_t bit, lb_u32_t lb_proto_stats_t::*counter,
                  const char *label)
{
    pkt->server = nullptr;
    if (label != nullptr) {
        lbpbuf_trace(LB_LOG_SELECT | bit, pkt, label);
    }
    lb_stat_inc(pkt->stats->*counter);
    lb_stat_inc(pkt->cluster->getable.ipstats.*counter);
    lb_stat_inc(pkt->port->getable.ipstats.*counter);
    os_packetfree(pkt->osopaque);
    return nullptr;
}

// Out of the table and off the list, on the way to the reuse list.
void detach(const lbsel_table_t *table, lbll_list_t *guard, lbll_list_t *list, void *record)
    LB_NEEDS(*guard)
{
    // Both refuse only what is not there, a broken invariant that the list module has reported.
    (void)lbht_rmnode(table->lookup, record);
    (void)lbsel_list_unlink(guard, list, record);
    table->forget(record);
}

} // namespace

int lbsel_pool_init(lbsel_pool_t *pool, std::size_t recordsize, int nodeoffset)
{
    pool->chunks = nullptr;
    pool->fresh = 0;
    pool->recordsize = static_cast<lb_u32_t>(recordsize);
    if (lbll_initlist(&pool->reuse, nodeoffset, nullptr, nullptr) != 0) {
        return 1;
    }
    lbll_setrank(&pool->reuse, LB_RANK_LEAF);
    return 0;
}

void lbsel_pool_cleanup(lbsel_pool_t *pool)
{
    if (lbll_cleanuplist(&pool->reuse) != 0) {
        LB_LOG(FAILURE, "reuse removal failed\n");
    }
    while (pool->chunks != nullptr) {
        lbsel_chunk_t *chunk = pool->chunks;
        pool->chunks = chunk->next;
        os_memfree(chunk);
    }
}

void *lbsel_pool_take(lbsel_pool_t *pool, bool *reused)
{
    lbll_guard held(&pool->reuse);
    // The record that was retired last is the likeliest to be in a cache.
    void *record = lbll_getnode_rhs_nl(&pool->reuse);
    *reused = record != nullptr;
    if (record != nullptr) {
        return lbll_rmnode_nl(&pool->reuse, record) == 0 ? record : nullptr;
    }
    if (pool->fresh == 0 && !addchunk(pool)) {
        return nullptr;
    }
    pool->fresh--;
    return recordat(pool, pool->chunks, pool->fresh);
}

void lbsel_pool_give(lbsel_pool_t *pool, void **records, int count)
{
    lbll_guard held(&pool->reuse);
    for (int i = 0; i < count; i++) {
        // Refused where it is still on a list: then it is lost to reuse, not to the pool.
        (void)lbll_addnode_rhs_nl(&pool->reuse, records[i]);
    }
}

int lbsel_pool_foreach(lbsel_pool_t *pool, void (*visit)(void *record, void *context),
                       void *context)
{
    int count = 0;
    lb_u32_t first = pool->fresh; // a chunk is handed out from its end
    for (lbsel_chunk_t *chunk = pool->chunks; chunk != nullptr; chunk = chunk->next) {
        for (lb_u32_t i = first; i < CHUNKRECORDS; i++) {
            visit(recordat(pool, chunk, i), context);
            count++;
        }
        first = 0;
    }
    return count;
}

int lbsel_list_append(lbll_list_t * /*guard*/, lbll_list_t *list, void *record) LB_UNCHECKED_LOCKING
{
    return lbll_addnode_rhs_nl(list, record);
}

int lbsel_list_unlink(lbll_list_t * /*guard*/, lbll_list_t *list, void *record) LB_UNCHECKED_LOCKING
{
    return lbll_rmnode_nl(list, record);
}

int lbsel_list_selectn(lbll_list_t * /*guard*/, lbll_list_t *list, void **out, int capacity,
                       lbll_select_fn filter, void *key) LB_UNCHECKED_LOCKING
{
    return lbll_selectn_nl(list, out, capacity, filter, key);
}

void lbsel_list_iterate(lbll_list_t * /*guard*/, lbll_list_t *list,
                        void (*action)(void *record)) LB_UNCHECKED_LOCKING
{
    lbll_iterateact_nl(list, action);
}

int lbsel_lists_init(lbsrv_obj_t *server, const lbsel_listinit_t *lists, int count)
{
    for (int i = 0; i < count; i++) {
        lbll_list_t *list = &(server->sel.*lists[i].list);
        if (lbll_initlist(list, lists[i].nodeoffset, nullptr, nullptr) != 0) {
            LB_LOG(FAILURE, "%s list init failed\n", lists[i].name);
            while (--i >= 0) {
                (void)lbll_rmlist(&(server->sel.*lists[i].list)); // it logs its own failure
            }
            return 1;
        }
        lbll_setrank(list, LB_RANK_RECORDS);
    }
    return 0;
}

void lbsel_lists_cleanup(lbsrv_obj_t *server)
{
    for (const auto member : SERVERLISTS) {
        lbll_list_t *list = &(server->sel.*member);
        if (list->_status == LBLL_FLAG_READY && lbll_cleanuplist(list) != 0) {
            LB_LOG(FAILURE, "removal of a record list failed\n");
        }
    }
}

lbsel_insert_e lbsel_insert(lbht_table_t *lookup, void *key, void *record)
{
    lbll_guard held(lbht_bucket(lookup, key));
    if (lbht_select1_nl(lookup, key) != nullptr) {
        return LBSEL_INSERT_EXISTS;
    }
    return lbht_addnode_nl(lookup, record) == 0 ? LBSEL_INSERT_DONE : LBSEL_INSERT_FAILED;
}

void lbsel_retire(const lbsel_table_t *table, lbll_list_t *guard, lbll_list_t *list, void *record)
{
    detach(table, guard, list, record);
    lbsel_pool_give(table->pool, &record, 1);
}

int lbsel_retirebatch(const lbsel_table_t *table, lbll_list_t *guard, lbll_list_t *list,
                      lbll_select_fn filter, void *key)
{
    void *records[LB_SNAPSHOT_MAX];
    lbll_guard held(guard);
    const int count = lbsel_list_selectn(guard, list, records, LB_SNAPSHOT_MAX, filter, key);
    for (int i = 0; i < count; i++) {
        // The selection has touched the second cache line of each; leaving the table takes the
        // first.
        __builtin_prefetch(records[i + PREFETCHED < count ? i + PREFETCHED : i], 1);
        detach(table, guard, list, records[i]);
    }
    if (count != 0) {
        lbsel_pool_give(table->pool, records, count);
    }
    return count;
}

int lbsel_retireall(const lbsel_table_t *table, lbll_list_t *guard, lbll_list_t *list,
                    lbll_select_fn filter, void *key)
{
    int total = 0;
    for (int count = LB_SNAPSHOT_MAX; count == LB_SNAPSHOT_MAX; total += count) {
        count = lbsel_retirebatch(table, guard, list, filter, key);
    }
    return total;
}

int lbsel_expired(const lbsel_deadline_t *deadline, lb_timeval_t *timestamp)
{
    const lb_s64_t idle = usecsof(deadline->now) - usecsof(*timestamp);
    if (idle < -USECS_PER_SEC) {
        // Not left as it is, or what stands behind it would wait until the clock has caught up.
        *timestamp = deadline->now;
        return 0;
    }
    const lb_s64_t limit = (static_cast<lb_s64_t>(deadline->timeout_s) - 1) * USECS_PER_SEC;
    return idle > limit ? LBLL_FILTER_YES : LBLL_FILTER_STOP;
}

lbsrv_obj_t *lbsel_discard(lbpbuf_obj_t *pkt, const char *label)
{
    return drop(pkt, LB_LOG_DISCARDED, &lb_proto_stats_t::discard, label);
}

lbsrv_obj_t *lbsel_error(lbpbuf_obj_t *pkt, const char *label)
{
    return drop(pkt, LB_LOG_PKTERROR, &lb_proto_stats_t::err, label);
}
