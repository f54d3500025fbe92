// Server sets: the list of references that round robin chooses from, and the sums over it. Workers
// walk the list and read the sums; the command thread changes the list and recomputes the weight
// sum, the timer thread recomputes the count of records.
//
// Members are copied out of the list before anything is summed, so a sum holds no lock.

#include "lb_srvset.h"

#include "lb_log.h"
#include "lb_server.h"
#include "lb_words.h"

namespace
{

int snapshot(lbsrvset_obj_t *srvset, void **refs)
{
    return lbll_selectn(&srvset->srvreflist, refs, LB_SNAPSHOT_MAX, lbll_filter_true, nullptr);
}

const lbsrv_obj_t *serverof(void *ref)
{
    return static_cast<lbsrv_ref_t *>(ref)->server;
}

} // namespace

int lbsrvset_init(lbsrvset_obj_t *srvset)
{
    if (lbll_initlist(&srvset->srvreflist, offsetof(lbsrv_ref_t, refnode), nullptr, nullptr) != 0) {
        LB_LOG(LB_LOG_SERVERSET | LB_LOG_FAILURE, "init useserverlist failed\n");
        return 1;
    }
    lbll_setrank(&srvset->srvreflist, LB_RANK_SRVREF);
    return 0;
}

int lbsrvset_cleanup(lbsrvset_obj_t *srvset)
{
    if (lbll_cleanuplist(&srvset->srvreflist) != 0) {
        LB_LOG(LB_LOG_SERVERSET | LB_LOG_FAILURE, "Removal of list failed\n");
        return 1;
    }
    return 0;
}

void lbsrvset_weightsum(lbsrvset_obj_t *srvset)
{
    LB_LOG(LB_LOG_SERVERSET, "lbsrvset_weightsum called %p\n", static_cast<void *>(srvset));
    void *refs[LB_SNAPSHOT_MAX];
    const int count = snapshot(srvset, refs);
    lb_u32_t sum = 0;
    for (int i = 0; i < count; i++) {
        sum += lb_peek(serverof(refs[i])->setable.weight);
    }
    lb_poke(srvset->weightsum, sum);
    LB_LOG(LB_LOG_SERVERSET, "weightsum is %d\n", static_cast<int>(sum));
}

void lbsrvset_timer_entry(lbsrvset_obj_t *srvset)
{
    void *refs[LB_SNAPSHOT_MAX];
    const int count = snapshot(srvset, refs);
    lb_u32_t active = 0;
    for (int i = 0; i < count; i++) {
        const lbsrv_seldat_t *sel = &serverof(refs[i])->sel;
        active += static_cast<lb_u32_t>(lbll_size(&sel->preest) + lbll_size(&sel->active));
    }
    lb_poke(srvset->numactive, active);
}
