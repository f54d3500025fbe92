// The fragment table's life: a cluster makes it, ages it and retires it. Fragments are not followed
// yet, so no record is ever made and the callbacks that would look at one are never called.

#include "lb_fragment.h"

#include "lb_log.h"
#include "lb_utils.h"

namespace
{

lb_u32_t _lbfrag_hash_callback(void * /*key*/, void * /*obj*/)
{
    return 0;
}

} // namespace

int lbfrag_inittable(lbfrag_table_t *table)
{
    if (int rc = lbht_inittable(&table->fraght, LBFRAG_BUCKETS, table->buckets, 0,
                                _lbfrag_hash_callback, lbll_filter_true, nullptr);
        rc != 0) {
        LB_LOG(LB_LOG_FRAGMENT | LB_LOG_FAILURE, "init hashtable failed\n");
        return rc;
    }
    lb_undo undo_ht([table] { (void)lbht_rmtable(&table->fraght); });
    if (int rc = lbll_initlist(&table->expirationlist, 0, lbll_filter_true, nullptr); rc != 0) {
        LB_LOG(LB_LOG_FRAGMENT | LB_LOG_FAILURE, "init of expirationlist failed\n");
        return rc;
    }
    lbll_setrank(&table->expirationlist, LB_RANK_FRAGEXPIRE);
    lb_undo undo_expiration([table] { (void)lbll_rmlist(&table->expirationlist); });
    if (int rc = lbll_initlist(&table->reuse, 0, lbll_filter_true, nullptr); rc != 0) {
        LB_LOG(LB_LOG_FRAGMENT | LB_LOG_FAILURE, "init of reuse failed\n");
        return rc;
    }
    lbll_setrank(&table->reuse, LB_RANK_LEAF);
    undo_expiration.dismiss();
    undo_ht.dismiss();
    return 0;
}

int lbfrag_cleanuptable(lbfrag_table_t *table)
{
    int failed = 0;
    if (lbht_rmtable(&table->fraght) != 0) {
        LB_LOG(LB_LOG_FRAGMENT | LB_LOG_FAILURE, "table removal failed\n");
        failed = 1;
    }
    if (lbll_cleanuplist(&table->expirationlist) != 0) {
        LB_LOG(LB_LOG_FRAGMENT | LB_LOG_FAILURE, "expirationlist removal failed\n");
        failed = 1;
    }
    if (lbll_cleanuplist(&table->reuse) != 0) {
        LB_LOG(LB_LOG_FRAGMENT | LB_LOG_FAILURE, "reuse removal failed\n");
        failed = 1;
    }
    return failed;
}

void lbfrag_timer_entry(lbfrag_table_t * /*table*/)
{
    // No record is ever made, so none expires.
}
