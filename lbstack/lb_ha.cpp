// High availability of a node that stands alone: whatever role it is given, it becomes SOLO. The
// module owns the HA fields of the executor and the two replicate-all flags.
//
// Settings change on the command thread; workers read the state through lbha_isstandby(). The flags
// have a lock each, at the leaf level, which is held for one store.

#include "lb_ha.h"

#include "lb_executor.h"
#include "lb_log.h"
#include "lb_utils.h"
#include "lb_words.h"

namespace
{

constexpr lb_u32_t HBPAYLOAD_START = 14;

lb_u32_t harep_crall; // lb_peek
lb_u32_t harep_arall; // lb_peek
lblock harep_crall_lock;
lblock harep_arall_lock;

lb_timeval_t now()
{
    lb_timeval_t time;
    (void)os_gettime(&time);
    return time;
}

void becomesolo()
{
    lbha_setables_t *setable = &lbexecutor->setable.ha;
    lb_poke(setable->role, LBHA_ROLE_SOLO);
    lb_poke(setable->tostrategy, LBHA_TAKEOVERSTRATEGY_NA);
    lb_poke(setable->repstrategy, LBHA_REPLICATIONSTRATEGY_NOREP);
    lb_poke(lbexecutor->getable.ha.state, LBHA_STATE_NA);
    lb_poke(lbexecutor->getable.ha.substate, LBHA_SUBSTATE_NA);
    lb_poke(lbexecutor->ha.laststatechange, now());
}

int initlist(lbll_list_t *list, lb_lockrank_e rank)
{
    if (lbll_initlist(list, 0, lbll_filter_true, nullptr) != 0) {
        return 1;
    }
    lbll_setrank(list, rank);
    return 0;
}

int cleanup(lbll_list_t *list)
{
    return list->_status == LBLL_FLAG_READY ? lbll_cleanuplist(list) : 0;
}

int cleanuplists()
{
    lbha_obj_t *ha = &lbexecutor->ha;
    return cleanup(&ha->heartbeatlist) + cleanup(&ha->reppktq) + cleanup(&ha->reppktqbkp);
}

int setflag(lblock *lock, lb_u32_t *flag, lb_u32_t value)
{
    lb_lockrank_take(LB_RANK_LEAF);
    const int locked = os_mutex_lock(lock);
    lb_poke(*flag, value);
    const int rc = locked == 0 ? os_mutex_unlock(lock) : locked;
    lb_lockrank_drop(LB_RANK_LEAF);
    return rc;
}

int initlocks()
{
    if (os_mutex_init(&harep_arall_lock) != 0) {
        return 1;
    }
    if (os_mutex_init(&harep_crall_lock) != 0) {
        (void)os_mutex_destroy(&harep_arall_lock);
        return 1;
    }
    return 0;
}

} // namespace

int lbha_init()
{
    LB_LOG(LB_LOG_HA, "lbha_init\n");
    lbha_obj_t *ha = &lbexecutor->ha;
    int failed = 0;
    if (initlist(&ha->heartbeatlist, LB_RANK_OBJECT) != 0) {
        LB_LOG(LB_LOG_HA | LB_LOG_FAILURE, "lbha_init llinit failed\n");
        failed = 1;
    }
    ha->maxhbpayload = HBPAYLOAD_START;
    if (initlist(&ha->reppktq, LB_RANK_LEAF) != 0) {
        LB_LOG(LB_LOG_HA | LB_LOG_FAILURE, "lbha_init reppktq llinit failed\n");
        failed = 1;
    }
    if (initlist(&ha->reppktqbkp, LB_RANK_LEAF) != 0) {
        LB_LOG(LB_LOG_HA | LB_LOG_FAILURE, "lbha_init reppktqbkp llinit failed\n");
        failed = 1;
    }
    becomesolo();
    lb_poke(ha->seq, now());
    harep_crall = 0;
    harep_arall = 0;
    if (failed == 0) {
        failed = initlocks();
    }
    if (failed != 0) {
        (void)cleanuplists();
    }
    return failed;
}

int lbha_exit()
{
    const int lists = cleanuplists();
    const int cr = os_mutex_destroy(&harep_crall_lock);
    const int ar = os_mutex_destroy(&harep_arall_lock);
    return lists + cr + ar;
}

int lbha_cmd_set(lbcmd_objhdr_t * /*obj*/)
{
    const lb_u8_t role = lb_peek(lbexecutor->setable.ha.role);
    if (role == LBHA_ROLE_PRIMARY || role == LBHA_ROLE_BACKUP) {
        LB_LOG(LB_LOG_HA | LB_LOG_EVENT, "HA role %d is not available -- set to SOLO\n", role);
    } else if (role != LBHA_ROLE_SOLO) {
        LB_LOG(LB_LOG_HA | LB_LOG_EVENT, "HA role unspecified -- default to SOLO\n");
    }
    becomesolo();
    return 0;
}

void lbha_timer_entry()
{
    // A node that stands alone sends no heartbeats.
}

bool lbha_isstandby()
{
    return lb_peek(lbexecutor->getable.ha.state) == LBHA_STATE_STANDBY;
}

bool lbha_ispaired()
{
    // Not by the role, which a command may have stored and not yet corrected.
    const lb_u8_t state = lb_peek(lbexecutor->getable.ha.state);
    return state == LBHA_STATE_ACTIVE || state == LBHA_STATE_STANDBY;
}
int lbha_replication_enqueue(lbcfg_key_t * /*key*/, lbip_addr_t * /*cliip*/, lb_u16_t /*cliport*/,
                             lb_u8_t /*state*/, lb_u16_t /*natport*/)
{
    // A node that stands alone queues nothing: nobody would ever take it.
    return LBHA_REPENQ_SUCCESS;
}
int lbha_set_crrepall()
{
    return setflag(&harep_crall_lock, &harep_crall, 1);
}
int lbha_unset_crrepall()
{
    return setflag(&harep_crall_lock, &harep_crall, 0);
}
int lbha_set_arrepall()
{
    return setflag(&harep_arall_lock, &harep_arall, 1);
}
int lbha_unset_arrepall()
{
    return setflag(&harep_arall_lock, &harep_arall, 0);
}
bool lbha_crrepall()
{
    return lb_peek(harep_crall) != 0;
}
bool lbha_arrepall()
{
    return lb_peek(harep_arall) != 0;
}
