// The fragment table of a cluster: which server the fragments of a datagram follow.
#pragma once

#include "lb_hashtable.h"
#include "lb_types.h"

constexpr int LBFRAG_BUCKETS = 256;

struct lbfrag_table_s {
    lbht_table_t fraght;
    lbht_bucket_t buckets[LBFRAG_BUCKETS];
    lbll_list_t expirationlist;
    lbll_list_t reuse;
};

[[nodiscard]] int lbfrag_inittable(lbfrag_table_t *table); // 0, or non-zero
int lbfrag_cleanuptable(lbfrag_table_t *table);            // 0, or non-zero
void lbfrag_timer_entry(lbfrag_table_t *table);
