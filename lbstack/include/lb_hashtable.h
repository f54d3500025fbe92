// A chained hash table whose buckets are lists (lb_linkedlist.h), each with its own lock. The owner
// supplies the bucket array. Nobody ever holds two buckets.
#pragma once

#include "lb_linkedlist.h"

// The raw hash of a key (obj null) or of an object (key null): equal for an object and its key.
using lbht_hash_fn = lb_u32_t (*)(void *key, void *obj);
using lbht_bucket_t = lbll_list_t;
using lbht_node_t = lbll_node_t;

struct lbht_table_s {
    lbht_hash_fn _hash;
    lb_s32_t numbuckets;
    lbht_bucket_t *buckets;
};

// 0, or 1 if a bucket could not be made (those before it are retired again).
[[nodiscard]] int lbht_inittable(lbht_table_t *table, int numbuckets, lbht_bucket_t *buckets,
                                 int offset, lbht_hash_fn hash, lbll_select_fn select,
                                 lbll_print_fn print);
// Detaches all objects (which belong to their owners) and retires the table: 0, or 1.
[[nodiscard]] int lbht_rmtable(lbht_table_t *table);

[[nodiscard]] int lbht_addnode(lbht_table_t *table, void *obj); // at the head of its bucket
[[nodiscard]] int lbht_addnode_nl(lbht_table_t *table, void *obj);
[[nodiscard]] int lbht_rmnode(lbht_table_t *table, void *obj);
[[nodiscard]] int lbht_rmnode_nl(lbht_table_t *table, void *obj);
[[nodiscard]] void *lbht_select1(lbht_table_t *table, void *key);
[[nodiscard]] void *lbht_select1_nl(lbht_table_t *table, void *key);
// Over all buckets; STOP ends one bucket's walk only. Both forms lock bucket by bucket: hold none.
[[nodiscard]] int lbht_selectn(lbht_table_t *table, void **out, int capacity, lbll_select_fn filter,
                               void *key);
[[nodiscard]] int lbht_selectn_nl(lbht_table_t *table, void **out, int capacity,
                                  lbll_select_fn filter, void *key);
// Within the key's bucket.
[[nodiscard]] int lbht_selectn1b(lbht_table_t *table, void **out, int capacity,
                                 lbll_select_fn filter, void *key);
[[nodiscard]] int lbht_selectn1b_nl(lbht_table_t *table, void **out, int capacity,
                                    lbll_select_fn filter, void *key);
// Locks the bucket of a key, for who looks up and then changes or removes.
int lbht_lockkeylist(lbht_table_t *table, void *key);
int lbht_unlockkeylist(lbht_table_t *table, void *key);
[[nodiscard]] int _lbht_hash(lbht_table_t *table, void *key, void *obj); // the bucket's index
// The key's bucket, for a guard: lbll_guard held(lbht_bucket(&table, &key)).
[[nodiscard]] lbht_bucket_t *lbht_bucket(lbht_table_t *table, void *key);
