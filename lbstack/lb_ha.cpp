// High availability: a node's role and state, and the one place that decides when it changes. The
// module owns the HA fields of the executor and the two replicate-all flags.
//
// Three threads bring events: the timer, a worker with a heartbeat, and the command thread with
// settings or a request. They change single shared words, so two of them at the same moment may
// lose one step, which the next heartbeat or tick mends. No lock is held while an event is handled:
// it sends heartbeats and announcements. The flags have a lock each, at the leaf level, which is
// held for one store.
#include "lb_ha.h"

#include "lb_cluster.h"
#include "lb_executor.h"
#include "lb_heartbeat.h"
#include "lb_log.h"
#include "lb_nat.h"
#include "lb_neigh.h"
#include "lb_port.h"
#include "lb_replication.h"
#include "lb_server.h"
#include "lb_utils.h"
#include "lb_words.h"

namespace
{

constexpr lb_u64_t TRACE = LB_LOG_HA;
constexpr lb_u64_t EVENT = LB_LOG_HA | LB_LOG_EVENT;
constexpr lb_u64_t FAILURE = LB_LOG_HA | LB_LOG_FAILURE;
constexpr int ANNOUNCED_MAX = 100; // clusters, their ports, and the ports' servers
constexpr lb_s64_t USECS_PER_SEC = 1000000;

lb_u32_t harep_crall; // lb_peek
lb_u32_t harep_arall; // lb_peek
lblock harep_crall_lock;
lblock harep_arall_lock;

// What the timer thread grants of them in its current round.
struct {
    bool cr;
    bool ar;
} granted;

lb_timeval_t now()
{
    lb_timeval_t time;
    (void)os_gettime(&time);
    return time;
}

lbha_setables_t *settings()
{
    return &lbexecutor->setable.ha;
}

// Whole seconds, a started one not counted. Times that came from a wire may be any numbers, so this
// is wide enough for all of them.
int secondsbetween(lb_timeval_t later, lb_timeval_t earlier)
{
    const lb_s64_t secs = lb_s64_t{later.secs} - earlier.secs;
    const lb_s64_t usecs = lb_s64_t{later.usecs} - earlier.usecs;
    const lb_s64_t whole = (secs * USECS_PER_SEC + usecs) / USECS_PER_SEC;
    constexpr lb_s64_t limit = 0x7FFFFFFF;
    return static_cast<int>(whole > limit ? limit : whole < -limit ? -limit : whole);
}

// Seconds since `when`. After a step back of the clock a time that lies in the future counts from
// now on: a dead partner is not to be waited for until the clock has caught up.
int secondssince(lb_timeval_t &when, lb_timeval_t time)
{
    const int secs = secondsbetween(time, lb_peek(when));
    if (secs < 0) {
        lb_poke(when, time);
        return 0;
    }
    return secs;
}

lb_timeval_t timeof(const lbha_pktseq_t &seq)
{
    return {.secs = static_cast<lb_s32_t>(lb_get32(seq.nbosecs)),
            .usecs = static_cast<lb_s32_t>(lb_get32(seq.nbousecs))};
}

void setstate(lb_u8_t state)
{
    lb_poke(lbexecutor->getable.ha.state, state);
    lb_poke(lbexecutor->ha.laststatechange, now());
}

void becomesolo()
{
    lb_poke(settings()->role, LBHA_ROLE_SOLO);
    lb_poke(settings()->tostrategy, LBHA_TAKEOVERSTRATEGY_NA);
    lb_poke(settings()->repstrategy, LBHA_REPLICATIONSTRATEGY_NOREP);
    setstate(LBHA_STATE_NA);
    lb_poke(lbexecutor->getable.ha.substate, LBHA_SUBSTATE_NA);
}

// --- Events --------------------------------------------------------------------------------------

void ontimer()
{
    lbha_obj_t *ha = &lbexecutor->ha;
    const lb_timeval_t seq = now();
    lb_poke(ha->seq, seq);
    if (lbha_isstandby()) {
        // The second condition lets a node that has just become standby wait for its partner.
        const int timeout = lb_peek(settings()->timeout);
        const int ackdelta = secondssince(ha->ack, seq);
        const int statedelta = secondssince(ha->laststatechange, seq);
        if (ackdelta > timeout && statedelta > timeout) {
            LB_LOG(EVENT,
                   "HA TAKEOVER: ackdelta:%d, statedelta:%d, > hbtimeout:%d, issuing takeover\n",
                   ackdelta, statedelta, timeout);
            _lbha_takeover();
        }
    }
    _lbha_sendheartbeats();
}

// What follows from the partner's state and reach score.
void compare(const lbha_pkthdr_t *hdr)
{
    const int theirs = hdr->reachscore;
    const int own = lb_peek(settings()->reachscore);
    const bool primary = lb_peek(settings()->role) == LBHA_ROLE_PRIMARY;
    const lb_u8_t state = lb_peek(lbexecutor->getable.ha.state);
    if (hdr->state == LBHA_STATE_ACTIVE && state == LBHA_STATE_ACTIVE) {
        LB_LOG(EVENT, "HA RELINQUISH: partner went active\n");
        setstate(LBHA_STATE_STANDBY);
        // A mutex error leaves the flags set all the same.
        (void)lbha_set_crrepall();
        (void)lbha_set_arrepall();
        return;
    }
    if (state != LBHA_STATE_STANDBY) {
        return;
    }
    if (theirs < own) {
        LB_LOG(EVENT, "HA TAKEOVER: standby and superior reachscore %d < %d\n", theirs, own);
        _lbha_takeover();
    } else if (hdr->state == LBHA_STATE_STANDBY && primary) {
        LB_LOG(EVENT, "HA TAKEOVER: dual standby and primary\n");
        _lbha_takeover();
    } else if (theirs == own && primary &&
               lb_peek(settings()->tostrategy) == LBHA_TAKEOVERSTRATEGY_AUTOMATIC) {
        LB_LOG(EVENT,
               "HA TAKEOVER: primary && standby && automatic && and identical reachscore %d == "
               "%d\n",
               theirs, own);
        _lbha_takeover();
    }
}

void onheartbeat(const lbha_pkthdr_t *hdr, int len)
{
    LB_LOG(TRACE, "Recvd heartbeat\n");
    const lb_u32_t version = lb_get32(hdr->lbversion);
    if ((version & LBHA_VERSION_MASK) != (LBHA_VERSION & LBHA_VERSION_MASK)) {
        LB_LOG(EVENT, "HA Versions Mismatch, dropping update %x != %x\n", version, LBHA_VERSION);
        return;
    }
    lb_poke(lbexecutor->ha.partnerack, timeof(hdr->seq));
    lb_poke(lbexecutor->ha.ack, timeof(hdr->ack));
    if (lb_peek(settings()->role) != LBHA_ROLE_SOLO) {
        LB_LOG(TRACE, "Calling handle replication record\n");
        _lbha_handlereprecords(hdr, len);
    }
    compare(hdr);
}

// --- Announcements -------------------------------------------------------------------------------

// What the lists give stays in memory while this thread is inside the stack.
void announceservers(lbport_obj_t *port)
{
    void *servers[ANNOUNCED_MAX];
    const int count =
        lbll_selectn(&port->serverlist, servers, ANNOUNCED_MAX, lbll_filter_true, nullptr);
    for (int i = 0; i < count; i++) {
        lb_retaddr_obj_t *retaddr = static_cast<lbsrv_obj_t *>(servers[i])->retaddrobj;
        if (retaddr != nullptr) {
            lbneigh_grat_send(&retaddr->retaddr);
        }
    }
}

void announce(lbclu_obj_t *cluster)
{
    lbneigh_grat_send(&cluster->cmdobj.key.cfg.cluster);
    void *ports[ANNOUNCED_MAX];
    const int count =
        lbll_selectn(&cluster->portlist, ports, ANNOUNCED_MAX, lbll_filter_true, nullptr);
    for (int i = 0; i < count; i++) {
        announceservers(static_cast<lbport_obj_t *>(ports[i]));
    }
}

// --- Start and stop ------------------------------------------------------------------------------

int initheartbeats(lbha_obj_t *ha)
{
    if (lbll_initlist(&ha->heartbeatlist, offsetof(lbha_heartbeatobj_t, hbnode), _lbhahb_ll_select,
                      _lbhahb_ll_print) != 0) {
        return 1;
    }
    lbll_setrank(&ha->heartbeatlist, LB_RANK_OBJECT);
    return 0;
}

int initqueue(lbll_list_t *queue)
{
    if (lbll_initlist(queue, offsetof(lbha_repqobj_t, qobjnode), lbll_filter_true,
                      _lbha_ll_repq_print) != 0) {
        return 1;
    }
    lbll_setrank(queue, LB_RANK_LEAF);
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
    LB_LOG(TRACE, "lbha_init\n");
    lbha_obj_t *ha = &lbexecutor->ha;
    int failed = 0;
    if (initheartbeats(ha) != 0) {
        LB_LOG(FAILURE, "lbha_init llinit failed\n");
        failed = 1;
    }
    ha->maxhbpayload = LBHA_REPRECS_MAX;
    if (initqueue(&ha->reppktq) != 0) {
        LB_LOG(FAILURE, "lbha_init reppktq llinit failed\n");
        failed = 1;
    }
    if (initqueue(&ha->reppktqbkp) != 0) {
        LB_LOG(FAILURE, "lbha_init reppktqbkp llinit failed\n");
        failed = 1;
    }
    becomesolo();
    lb_poke(ha->seq, now());
    harep_crall = 0;
    harep_arall = 0;
    granted = {};
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
    lbha_replication_drop();
    const int lists = cleanuplists();
    const int cr = os_mutex_destroy(&harep_crall_lock);
    const int ar = os_mutex_destroy(&harep_arall_lock);
    return lists + cr + ar;
}

int lbha_cmd_set(lbcmd_objhdr_t * /*obj*/)
{
    lbha_setables_t *set = settings();
    if (!lbha_hasrole()) {
        if (lb_peek(set->role) != LBHA_ROLE_SOLO) {
            LB_LOG(EVENT, "HA role unspecified -- default to SOLO\n");
        }
        becomesolo();
        lbha_replication_drop(); // nobody sends it any more
        return 0;
    }
    const lb_u8_t takeover = lb_peek(set->tostrategy);
    if (takeover != LBHA_TAKEOVERSTRATEGY_MANUAL && takeover != LBHA_TAKEOVERSTRATEGY_AUTOMATIC) {
        LB_LOG(EVENT, "HA takeover strategy invalid -- default to manual\n");
        lb_poke(set->tostrategy, LBHA_TAKEOVERSTRATEGY_MANUAL);
    }
    if (lb_peek(set->repstrategy) > LBHA_REPLICATIONSTRATEGY_CRREP) {
        // What is replicated is a setting of each port.
        LB_LOG(EVENT, "HA replication strategy invalid -- default to norep\n");
        lb_poke(set->repstrategy, LBHA_REPLICATIONSTRATEGY_NOREP);
    }
    if (!lbha_ispaired()) {
        LB_LOG(EVENT, "HA default state standby\n");
        setstate(LBHA_STATE_STANDBY);
    }
    if (lb_peek(set->manualtakeover) != 0) {
        _lbha_event(LBHA_EVENT_MANUALTAKEOVER, nullptr, 0);
        lb_poke(set->manualtakeover, 0);
    }
    return 0;
}

void lbha_timer_entry()
{
    if (lbha_hasrole()) {
        _lbha_event(LBHA_EVENT_TIMER, nullptr, 0);
    }
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

bool lbha_hasrole()
{
    const lb_u8_t role = lb_peek(settings()->role);
    return role == LBHA_ROLE_PRIMARY || role == LBHA_ROLE_BACKUP;
}

void _lbha_event(int event, const lbha_pkthdr_t *hdr, int len)
{
    LB_LOG(TRACE, "lbha_event %d state %d substate %d\n", event,
           lb_peek(lbexecutor->getable.ha.state), lb_peek(lbexecutor->getable.ha.substate));
    switch (event) {
    case LBHA_EVENT_TIMER: ontimer(); return;
    case LBHA_EVENT_HEARTBEATRX: onheartbeat(hdr, len); return;
    case LBHA_EVENT_MANUALTAKEOVER:
        LB_LOG(EVENT, "HA TAKEOVER: Manual takeover issueed\n");
        _lbha_takeover();
        return;
    default: break;
    }
    LB_LOG(FAILURE, "invalid HA event %d\n", event);
}

void _lbha_takeover()
{
    LB_LOG(FAILURE, "Takeover issued\n");
    setstate(LBHA_STATE_ACTIVE);
    _lbha_sendheartbeats(); // the partner is not to wait for the next tick
    void *clusters[ANNOUNCED_MAX];
    const int count =
        lbll_selectn(&lbexecutor->clusterlist, clusters, ANNOUNCED_MAX, lbll_filter_true, nullptr);
    for (int i = 0; i < count; i++) {
        announce(static_cast<lbclu_obj_t *>(clusters[i]));
    }
}

void _lbha_relinquish() {}

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

void lbha_repall_begin()
{
    granted = {.cr = lb_peek(harep_crall) != 0, .ar = lb_peek(harep_arall) != 0};
}

void lbha_repall_end()
{
    // Not what was asked for meanwhile: that is the next round's. A mutex error leaves a flag
    // withdrawn all the same.
    if (granted.cr) {
        (void)lbha_unset_crrepall();
    }
    if (granted.ar) {
        (void)lbha_unset_arrepall();
    }
    granted = {};
}

bool lbha_crrepall()
{
    return granted.cr;
}
bool lbha_arrepall()
{
    return granted.ar;
}
