// The hash table: the choice of a bucket, and nothing else. All linking, locking and matching are
// the bucket list's. Entered by every thread; takes one bucket's lock at a time, never two. The
// buckets and the objects belong to others; nothing is allocated or freed here.
#include "lb_hashtable.h"

#include "lb_log.h"

constexpr lb_u64_t TRACE = LB_LOG_HASH;
constexpr lb_u64_t FAILURE = LB_LOG_HASH | LB_LOG_FAILURE;

static lbht_bucket_t *bucket_of_object(lbht_table_t *table, void *obj)
{
    return &table->buckets[_lbht_hash(table, nullptr, obj)];
}

int lbht_inittable(lbht_table_t *table, int numbuckets, lbht_bucket_t *buckets, int offset,
                   lbht_hash_fn hash, lbll_select_fn select, lbll_print_fn print)
{
    LB_LOG(TRACE, "init\n");
    table->numbuckets = numbuckets;
    table->_hash = hash;
    table->buckets = buckets;
    for (int i = 0; i < numbuckets; i++) {
        if (lbll_initlist(&buckets[i], offset, select, print) != 0) {
            LB_LOG(FAILURE, "rmtable sublist init failed\n");
            while (--i >= 0) {
                (void)lbll_cleanuplist(&buckets[i]); // it logs its own failure
            }
            LB_LOG(FAILURE, "init returning failure\n");
            return 1;
        }
        lbll_setrank(&buckets[i], LB_RANK_BUCKET);
    }
    LB_LOG(TRACE, "init returning success\n");
    return 0;
}

int lbht_rmtable(lbht_table_t *table)
{
    int rc = 0;
    LB_LOG(TRACE, "rmtable\n");
    for (int i = 0; i < table->numbuckets; i++) {
        if (lbll_cleanuplist(&table->buckets[i]) != 0) {
            LB_LOG(FAILURE, "rmtable sublist cleanup failed\n");
            rc = 1;
        }
    }
    table->numbuckets = 0;
    table->_hash = nullptr;
    return rc;
}

int lbht_addnode(lbht_table_t *table, void *obj)
{
    LB_LOG(TRACE, "addnode\n");
    return lbll_addnode_lhs(bucket_of_object(table, obj), obj);
}

int lbht_addnode_nl(lbht_table_t *table, void *obj) LB_UNCHECKED_LOCKING
{
    LB_LOG(TRACE, "addnode\n");
    return lbll_addnode_lhs_nl(bucket_of_object(table, obj), obj);
}

int lbht_rmnode(lbht_table_t *table, void *obj)
{
    LB_LOG(TRACE, "rmnode\n");
    return lbll_rmnode(bucket_of_object(table, obj), obj);
}

int lbht_rmnode_nl(lbht_table_t *table, void *obj) LB_UNCHECKED_LOCKING
{
    LB_LOG(TRACE, "rmnode\n");
    return lbll_rmnode_nl(bucket_of_object(table, obj), obj);
}

void *lbht_select1(lbht_table_t *table, void *key)
{
    LB_LOG(TRACE, "select\n");
    return lbll_select1(lbht_bucket(table, key), key);
}

void *lbht_select1_nl(lbht_table_t *table, void *key) LB_UNCHECKED_LOCKING
{
    LB_LOG(TRACE, "select\n");
    return lbll_select1_nl(lbht_bucket(table, key), key);
}

int lbht_selectn(lbht_table_t *table, void **out, int capacity, lbll_select_fn filter, void *key)
{
    int count = 0;
    for (int i = 0; i < table->numbuckets; i++) {
        const int rc = lbll_selectn(&table->buckets[i], out + count, capacity - count, filter, key);
        if (rc < 0) {
            LB_LOG(FAILURE, "selectn error %d\n", rc);
            return rc;
        }
        count += rc;
    }
    return count;
}

int lbht_selectn_nl(lbht_table_t *table, void **out, int capacity, lbll_select_fn filter, void *key)
{
    // Who walks a whole table can't hold all of its locks: this form takes them in turn as well.
    return lbht_selectn(table, out, capacity, filter, key);
}

int lbht_selectn1b(lbht_table_t *table, void **out, int capacity, lbll_select_fn filter, void *key)
{
    return lbll_selectn(lbht_bucket(table, key), out, capacity, filter, key);
}

int lbht_selectn1b_nl(lbht_table_t *table, void **out, int capacity, lbll_select_fn filter,
                      void *key) LB_UNCHECKED_LOCKING
{
    return lbll_selectn_nl(lbht_bucket(table, key), out, capacity, filter, key);
}

int lbht_lockkeylist(lbht_table_t *table, void *key) LB_UNCHECKED_LOCKING
{
    return lbll_lock(lbht_bucket(table, key));
}

int lbht_unlockkeylist(lbht_table_t *table, void *key) LB_UNCHECKED_LOCKING
{
    return lbll_unlock(lbht_bucket(table, key));
}

int _lbht_hash(lbht_table_t *table, void *key, void *obj)
{
    const lb_u32_t buckets = static_cast<lb_u32_t>(table->numbuckets);
    const int index = static_cast<int>(table->_hash(key, obj) % buckets);
    LB_LOG(TRACE, "hash to %d\n", index);
    return index;
}

lbht_bucket_t *lbht_bucket(lbht_table_t *table, void *key)
{
    return &table->buckets[_lbht_hash(table, key, nullptr)];
}
