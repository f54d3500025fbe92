// The connection table, its records, and the rows CONNECTION and CONN_AFFIN. A record is in the
// table and on one of its server's lists preest, active and fin, or in neither. It goes when it has
// been idle for its state's time, when a drained server's port resets, and when its server is
// removed.
//
// Workers choose, the timer thread ages, the command thread adds and removes ports and servers. The
// lock of a server's `active` list guards all three lists; under it a bucket, a return address's
// ports, the reuse list or the replication queue is locked. Servers are chosen and resets sent
// without a lock.
//
// A record of a NAT server owns a port of the server's return address from before it enters the
// table until it leaves. Answers find it by that port, even before it has entered: so it names its
// server only while it is in the table, where the server's removal sweeps it away.
#include "lb_sel_connection.h"

#include "lb_cluster.h"
#include "lb_executor.h"
#include "lb_ip.h"
#include "lb_log.h"
#include "lb_nat.h"
#include "lb_pbuf.h"
#include "lb_port.h"
#include "lb_replication.h"
#include "lb_utils.h"

namespace
{

constexpr lb_u64_t TRACE = LB_LOG_SELECT;
constexpr lb_u64_t FAILURE = LB_LOG_SELECT | LB_LOG_FAILURE;
constexpr lb_u64_t REAP = LB_LOG_SELECT | LB_LOG_REAP;
constexpr lb_s32_t REPLICATE_AFTER_S = 640;
constexpr lb_u32_t PREEST_TIMEOUT_S = 30;
constexpr lb_u32_t FIN_TIMEOUT_S = 120;

lb_u32_t _lbsel_ct_hash_callback(void *key, void *obj)
{
    const lbsel_cr_obj_key_t *k = obj != nullptr ? &static_cast<lbsel_cr_obj_t *>(obj)->crkey
                                                 : static_cast<lbsel_cr_obj_key_t *>(key);
    return (lbip_hash(&k->sip) << 16) + k->sport;
}

bool isequal(const lbsel_cr_obj_key_t *a, const lbsel_cr_obj_key_t *b)
{
    return a->sport == b->sport && lbip_isaddrequal(&a->sip, &b->sip) != 0;
}

int _lbsel_ct_select_callback(void *key, void *obj)
{
    return isequal(static_cast<lbsel_cr_obj_key_t *>(key),
                   &static_cast<lbsel_cr_obj_t *>(obj)->crkey)
               ? LBLL_FILTER_YES
               : 0;
}

void printkey(const lbsel_cr_obj_key_t *key)
{
    lbip_printaddr("", &key->sip, "");
    os_print(":%d", key->sport);
}

void _lbsel_ct_print_callback(void *obj)
{
    printkey(&static_cast<lbsel_cr_obj_t *>(obj)->crkey);
}

lbsel_ct_obj_t *tableof(const lbport_obj_t *port)
{
    return static_cast<lbsel_ct_obj_t *>(port->ct);
}

bool replicates(const lbport_obj_t *port)
{
    const lb_u8_t strategy = lb_peek(port->setable.repstrategy);
    return lbha_ispaired() && (strategy == LBHA_REPLICATIONSTRATEGY_CRREP ||
                               strategy == LBHA_REPLICATIONSTRATEGY_CRARREP);
}

// --- NAT servers' ports --------------------------------------------------------------------------

// Takes a source port for a connection to a NAT server: 0, or 1 when none is to be had. The record
// has its key.
int takenatport(lbsel_cr_obj_t *cr, const lbsrv_obj_t *server)
{
    cr->natkey.natport = 0;
    if (server->retaddrobj == nullptr) {
        return 0;
    }
    LB_LOG(TRACE, "cr->server->retaddrobj = %x\n", lb_log_low32(server->retaddrobj));
    if (EXC_EPTGetPort(&server->retaddrobj->ept, cr) != 0) {
        LB_LOG(FAILURE, "Could not get nat port \n");
        return 1;
    }
    LB_LOG(TRACE, "got nat port %d \n", cr->natkey.natport);
    return 0;
}

// Gives the record's port back to its server's return address, if it has one.
void freenatport(lbsel_cr_obj_t *cr, const lbsrv_obj_t *server)
{
    if (cr->natkey.natport == 0) {
        return;
    }
    if (!lb_ept_freeif(&server->retaddrobj->ept, cr->natkey.natport, cr)) {
        LB_LOG(FAILURE, "NAT port %d is not its connection's\n", cr->natkey.natport);
    }
    cr->natkey.natport = 0;
}

// What a record does when it leaves the table, under its server's lock.
void _lbsel_ct_forget(void *record)
{
    auto *cr = static_cast<lbsel_cr_obj_t *>(record);
    freenatport(cr, lb_peekptr(cr->server)); // before it stops naming the server
    lb_pokeptr(cr->server, nullptr);
}

// --- One packet ----------------------------------------------------------------------------------

// What a look at a connection's record, or the attempt to make one, came to.
enum outcome_e {
    AGAIN,    // somebody else was faster: look once more
    ANSWERED, // the packet has its server, or has been dropped or answered
};

// What a packet does to its record.
struct step_s {
    lbll_list_t *target; // where the record is to stand; null for an impossible state
    lb_u8_t repstate;
    bool replicate;
    const char *label;
};

void replicatewith(step_s *step, lb_u8_t state)
{
    step->replicate = true;
    step->repstate = state;
}

void stepactive(lbpbuf_obj_t *pkt, lbsrv_obj_t *server, lbsel_cr_obj_t *cr, step_s *step)
    LB_NEEDS(server->sel.active)
{
    if ((pkt->pseudotcpflags & LBTCP_FIN) != 0) {
        cr->state = LBSEL_CR_STATE_FIN;
        step->target = &server->sel.fin;
        LB_LOG(TRACE, "Setting sendrr EST->FIN \n");
        replicatewith(step, LBSEL_CR_STATE_FIN);
        return;
    }
    step->target = &server->sel.active;
    const lb_s32_t last = cr->timestamp.secs;
    const lb_s32_t replicated = cr->reptimestamp.secs;
    if (replicates(pkt->port) && last - replicated > REPLICATE_AFTER_S) {
        LB_LOG(TRACE, "Setting sendrr (%d - %d > %d)EST->EST \n", last, replicated,
               REPLICATE_AFTER_S);
        replicatewith(step, LBSEL_CR_STATE_ACTIVE);
    }
}

// Moves the connection's state as the packet's flags say.
step_s advance(lbpbuf_obj_t *pkt, lbsrv_obj_t *server, lbsel_cr_obj_t *cr)
    LB_NEEDS(server->sel.active)
{
    step_s step = {.target = nullptr,
                   .repstate = LBSEL_CR_STATE_ACTIVE,
                   .replicate = false,
                   .label = "fwd-cr-existing"};
    if ((pkt->pseudotcpflags & LBTCP_RST) != 0) {
        cr->state = LBSEL_CR_STATE_RST;
        replicatewith(&step, LBSEL_CR_STATE_RST);
    }
    switch (cr->state) {
    case LBSEL_CR_STATE_PREEST:
        step.target = &server->sel.preest;
        if ((pkt->pseudotcpflags & LBTCP_ACK) != 0) {
            cr->state = LBSEL_CR_STATE_ACTIVE;
            step.target = &server->sel.active;
            LB_LOG(TRACE, "Setting sendrr PRE->EST \n");
            replicatewith(&step, LBSEL_CR_STATE_ACTIVE);
        }
        break;
    case LBSEL_CR_STATE_ACTIVE: stepactive(pkt, server, cr, &step); break;
    case LBSEL_CR_STATE_FIN:
    case LBSEL_CR_STATE_RST:
        step.target = &server->sel.fin;
        if ((pkt->pseudotcpflags & LBTCP_SYN) != 0) {
            cr->state = LBSEL_CR_STATE_PREEST;
            step.target = &server->sel.preest;
            lb_stat_inc(server->getable.selstats.lifetime);
            replicatewith(&step, LBSEL_CR_STATE_PREEST);
            step.label = "fwd-cr-new-synonfin";
        }
        break;
    }
    return step;
}

// Notes the packet in its record, and puts the record at the newest end of its list: 0, or 1 when
// it could not be (the record is out of the table then).
int settle(lbpbuf_obj_t *pkt, lbsel_ct_obj_t *ct, lbsrv_obj_t *server, lbsel_cr_obj_t *cr,
           const step_s *step) LB_NEEDS(server->sel.active)
{
    (void)os_gettime(&cr->timestamp);
    if (step->replicate && replicates(pkt->port)) {
        cr->reptimestamp = cr->timestamp;
        LB_LOG(TRACE, "sending replication  \n");
        (void)lbha_replication_enqueue(&server->config.key.cfg, &cr->crkey.sip, cr->crkey.sport,
                                       step->repstate, cr->natkey.natport);
        LB_LOG(TRACE, "called lbha_replication_enqueue \n");
    }
    lbll_list_t *from = lb_peekptr(cr->expirelist._list);
    if ((from == nullptr || lbsel_list_unlink(&server->sel.active, from, cr) == 0) &&
        lbsel_list_append(&server->sel.active, step->target, cr) == 0) {
        pkt->_select_prv.selrecord = cr;
        pkt->_select_prv.selrecordkind = LBPBUF_SELRECORD_CONNECTION;
        pkt->_select_prv.natport = cr->natkey.natport;
        return 0;
    }
    LB_LOG(FAILURE, "add to ct failed\n");
    (void)lbht_rmnode(&ct->lookup, cr); // what it refuses it reports
    _lbsel_ct_forget(cr);
    return 1;
}

// Whether the record is in the table, for this server. Only then may it be looked at.
bool isof(lbsrv_obj_t *server, const lbsel_cr_obj_t *cr) LB_NEEDS(server->sel.active)
{
    const lbll_list_t *list = lb_peekptr(cr->expirelist._list);
    return list == &server->sel.active || list == &server->sel.preest || list == &server->sel.fin;
}

// Whether the packet belongs to a connection that its drained server shall not keep. While every
// weight is 0 there is nowhere else to go.
bool isdrained(const lbpbuf_obj_t *pkt, lbsrv_obj_t *server, const lbsel_cr_obj_t *cr)
    LB_NEEDS(server->sel.active)
{
    return lb_peek(pkt->port->setable.reset) != 0 && lb_peek(server->setable.weight) == 0 &&
           lb_peek(server->setable.quiesced) == 0 && cr->state == LBSEL_CR_STATE_ACTIVE &&
           lb_peek(pkt->port->serverset.weightsum) != 0 && (pkt->pseudotcpflags & LBTCP_RST) == 0;
}

// A flow of datagrams has nothing to reset: it begins anew with its next datagram.
void reset(lbpbuf_obj_t *pkt)
{
    if (pkt->ipfuncs->getproto(pkt) == LBIP_PROTO_TCP) {
        LB_LOG(TRACE, "Sending Reset for server\n");
        (void)pkt->sendreset(pkt); // a client that misses it sends again, and finds no connection
    }
    pkt->server = nullptr;
    os_packetfree(pkt->osopaque);
}

void badstate(lbpbuf_obj_t *pkt, const lbsel_cr_obj_key_t *key, lb_u8_t state)
{
    if (lb_log_enabled(FAILURE)) {
        LB_LOG(FAILURE, "invalid connection state : %d id:%d ", state,
               static_cast<int>(pkt->frag_id));
        printkey(key);
        os_print("\n");
    }
    os_core();
    LB_LOG(FAILURE, "expirelist null!\n");
    LB_LOG(FAILURE, "expirelist null! : %d id:%d \n", state, static_cast<int>(pkt->frag_id));
    (void)lbsel_error(pkt, "bad state");
}

outcome_e answer(lbpbuf_obj_t *pkt, lbsrv_obj_t *server, const char *label)
{
    pkt->server = server;
    lbpbuf_trace(LB_LOG_SELECT | LB_LOG_FORWARDED, pkt, label);
    return ANSWERED;
}

// A packet of a connection that has a record.
outcome_e follow(lbpbuf_obj_t *pkt, lbsel_ct_obj_t *ct, lbsel_cr_obj_t *cr,
                 const lbsel_cr_obj_key_t *key)
{
    lbsrv_obj_t *server = lb_peekptr(cr->server);
    if (server == nullptr) {
        return AGAIN;
    }
    __builtin_prefetch(&cr->expirelist, 1);
    bool drained = false;
    int failed = 0;
    lb_u8_t state = 0;
    step_s step = {};
    {
        lbll_guard held(&server->sel.active);
        if (!_lbsel_ct_isstill(server, cr, key)) {
            return AGAIN;
        }
        LB_LOG(TRACE, "existing connection\n");
        drained = isdrained(pkt, server, cr);
        if (drained) {
            const lbsel_table_t table = _lbsel_ct_table(ct);
            lbsel_retire(&table, &server->sel.active, lb_peekptr(cr->expirelist._list), cr);
        } else {
            step = advance(pkt, server, cr);
            state = cr->state;
            failed = step.target != nullptr ? settle(pkt, ct, server, cr, &step) : 0;
        }
    }
    if (drained) {
        reset(pkt);
        return ANSWERED;
    }
    if (step.target == nullptr) {
        badstate(pkt, key, state);
        return ANSWERED;
    }
    if (failed != 0) {
        _lbsel_ct_returncr(ct, cr);
        (void)lbsel_error(pkt, "add to expirelist failed");
        return ANSWERED;
    }
    return answer(pkt, server, step.label);
}

// A record that was never seen, or has been taken out of the table again.
void giveback(lbsel_ct_obj_t *ct, lbsel_cr_obj_t *cr)
{
    if (lb_peekptr(cr->htnode._list) != nullptr || lb_peekptr(cr->nathtnode._list) != nullptr) {
        LB_LOG(FAILURE, "connection record to be dropped is in a table\n");
        os_core();
        return; // it is lost to reuse, but nobody finds it on two lists
    }
    _lbsel_ct_returncr(ct, cr);
}

// A record for a server that was chosen: into the table, unless the connection has one by now or
// the server has been removed.
outcome_e enter(lbpbuf_obj_t *pkt, lbsel_ct_obj_t *ct, lbsrv_obj_t *server, lbsel_cr_obj_t *cr)
{
    const bool confirmed = (pkt->pseudotcpflags & LBTCP_ACK) != 0;
    const step_s step = {.target = confirmed ? &server->sel.active : &server->sel.preest,
                         .repstate = LBSEL_CR_STATE_ACTIVE,
                         .replicate = false,
                         .label = "fwd-cr-new"};
    lbsel_insert_e inserted = LBSEL_INSERT_EXISTS;
    int failed = 0;
    {
        lbll_guard held(&server->sel.active);
        cr->state = confirmed ? LBSEL_CR_STATE_ACTIVE : LBSEL_CR_STATE_PREEST;
        if (lb_peek(server->sel.removed) == 0) {
            lb_pokeptr(cr->server, server);
            inserted = lbsel_insert(&ct->lookup, &cr->crkey, cr);
        }
        if (inserted == LBSEL_INSERT_DONE) {
            lb_stat_inc(server->getable.selstats.lifetime);
            failed = settle(pkt, ct, server, cr, &step);
        } else {
            freenatport(cr, server);
            lb_pokeptr(cr->server, nullptr);
        }
    }
    if (inserted == LBSEL_INSERT_DONE && failed == 0) {
        return answer(pkt, server, step.label);
    }
    giveback(ct, cr);
    if (inserted == LBSEL_INSERT_EXISTS) {
        return AGAIN;
    }
    if (inserted == LBSEL_INSERT_FAILED) {
        LB_LOG(FAILURE, "add to ct failed\n");
        (void)lbsel_discard(pkt, "add to ct failed");
        return ANSWERED;
    }
    (void)lbsel_error(pkt, "add to expirelist failed");
    return ANSWERED;
}

// A packet of a connection that has no record.
outcome_e begin(lbpbuf_obj_t *pkt, lbsel_ct_obj_t *ct, lbsel_at_obj_t *at,
                const lbsel_cr_obj_key_t *key)
{
    LB_LOG(TRACE, "new connection\n");
    if ((pkt->pseudotcpflags & LBTCP_SYN) == 0) {
        (void)lbsel_discard(pkt, "new conn, !start");
        return ANSWERED;
    }
    lbsel_cr_obj_t *cr = _lbsel_ct_getnewcr(ct);
    if (cr == nullptr) {
        (void)lbsel_discard(pkt, "cr alloc failed");
        return ANSWERED;
    }
    cr->crkey = *key;
    lbsrv_obj_t *server =
        at != nullptr ? lbsel_at_chooseserver(pkt, at)
                      : lbsel_chooseserver(pkt, &pkt->port->serverset.seeds[LBSRVSET_SEED_ATCT]);
    if (server == nullptr) {
        giveback(ct, cr);
        if (at == nullptr) {
            (void)lbsel_discard(pkt, "no server");
        }
        return ANSWERED; // the affinity table has dropped the packet itself
    }
    if (takenatport(cr, server) != 0) {
        giveback(ct, cr);
        (void)lbsel_discard(pkt, "Failed to get NAT port");
        return ANSWERED;
    }
    return enter(pkt, ct, server, cr);
}

lbsrv_obj_t *_lbsel_ct_choose(lbpbuf_obj_t *pkt)
{
    lbsel_ct_obj_t *ct = tableof(pkt->port);
    if (ct == nullptr) {
        return lbsel_error(pkt, "no connection table");
    }
    return _lbsel_ct_chooseserver(pkt, ct, nullptr);
}

lbsrv_obj_t *_lbsel_ctat_choose(lbpbuf_obj_t *pkt)
{
    lbsel_ct_obj_t *ct = tableof(pkt->port);
    auto *at = static_cast<lbsel_at_obj_t *>(lb_peekptr(pkt->port->at));
    if (ct == nullptr || at == nullptr) {
        return lbsel_error(pkt, "no connection or affinity table");
    }
    return _lbsel_ct_chooseserver(pkt, ct, at);
}

// --- Ports and servers ---------------------------------------------------------------------------

int _lbsel_ct_portinit(lbport_obj_t *port)
{
    auto *ct = lb_newzero<lbsel_ct_obj_t>();
    if (ct == nullptr) {
        LB_LOG(FAILURE, "connection table alloc failed\n");
        return 1;
    }
    lb_undo undo_alloc([ct] { os_memfree(ct); });
    if (lbht_inittable(&ct->lookup, LBSEL_BUCKETS, ct->bucket, offsetof(lbsel_cr_obj_t, htnode),
                       _lbsel_ct_hash_callback, _lbsel_ct_select_callback,
                       _lbsel_ct_print_callback) != 0) {
        LB_LOG(FAILURE, "connection table hash table init failed\n");
        return 1;
    }
    if (lbsel_pool_init(&ct->pool, sizeof(lbsel_cr_obj_t), offsetof(lbsel_cr_obj_t, expirelist)) !=
        0) {
        LB_LOG(FAILURE, "connection fin list init failed\n");
        (void)lbht_rmtable(&ct->lookup); // it logs its own failure
        return 1;
    }
    undo_alloc.dismiss();
    port->ct = ct;
    return 0;
}

int _lbsel_ct_srvinit(lbsrv_obj_t *server)
{
    constexpr int node = offsetof(lbsel_cr_obj_t, expirelist);
    static constexpr lbsel_listinit_t lists[] = {
        {&lbsrv_seldat_t::preest, "connection preest", node},
        {&lbsrv_seldat_t::active, "connection active", node},
        {&lbsrv_seldat_t::fin, "connection fin", node},
    };
    return lbsel_lists_init(server, lists, 3);
}

void checkreused(void *record, void *tablename)
{
    auto *cr = static_cast<lbsel_cr_obj_t *>(record);
    const auto *reuse = static_cast<lbll_list_t *>(tablename);
    if (lb_peekptr(cr->expirelist._list) == reuse && lb_peekptr(cr->htnode._list) != nullptr) {
        LB_LOG(FAILURE, "sel_ct_portcleanup node on reuse list still on hash list\n");
    }
}

void _lbsel_ct_portcleanup(lbport_obj_t *port)
{
    lbsel_ct_obj_t *ct = tableof(port);
    if (ct == nullptr) {
        return;
    }
    port->ct = nullptr;
    const int records = lbsel_pool_foreach(&ct->pool, checkreused, &ct->pool.reuse);
    LB_LOG(TRACE, "sel_ct_portcleanup records=%d \n", records);
    (void)lbht_rmtable(&ct->lookup); // it logs its own failure
    lbsel_pool_cleanup(&ct->pool);
    os_memfree(ct);
}

// A server's lists as messages number them, and the time that each allows.
constexpr lbll_list_t lbsrv_seldat_t::*const STATELISTS[] = {
    &lbsrv_seldat_t::preest,
    &lbsrv_seldat_t::active,
    &lbsrv_seldat_t::fin,
};

// Takes a removed server's records out of the table: how many there were.
int sweep(lbsrv_obj_t *server)
{
    lb_poke(server->sel.removed, 1);
    const lbsel_table_t table = _lbsel_ct_table(tableof(server->parent));
    int total = 0;
    for (int i = 0; i < 3; i++) {
        const int records = lbsel_retireall(
            &table, &server->sel.active, &(server->sel.*STATELISTS[i]), lbll_filter_true, nullptr);
        LB_LOG(TRACE, "sel_ct_srvrm list %d records=%d \n", i, records);
        total += records;
    }
    return total;
}

void _lbsel_ct_srvrm(lbsrv_obj_t *server)
{
    (void)sweep(server); // how many there were matters to the reaper alone
}

bool _lbsel_ct_srvreap(lbsrv_obj_t *server)
{
    if (sweep(server) != 0) {
        return true;
    }
    lbsel_lists_cleanup(server);
    return false;
}

int _lbsel_ct_expired(void *deadline, void *obj)
{
    return lbsel_expired(static_cast<lbsel_deadline_t *>(deadline),
                         &static_cast<lbsel_cr_obj_t *>(obj)->timestamp);
}

void _lbsel_ct_enqueue_callback(void *obj)
{
    (void)rep_enqueuecr(static_cast<lbsel_cr_obj_t *>(obj)); // a full queue is the queue's matter
}

void agepreest(const lbsel_table_t *table, lbsrv_obj_t *server, lbsel_deadline_t *deadline)
{
    const int records = lbsel_retireall(table, &server->sel.active, &server->sel.preest,
                                        _lbsel_ct_expired, deadline);
    if (records > 0) {
        LB_LOG(REAP, "Removing %d preestablished conn records from %p\n", records,
               static_cast<void *>(server));
        LB_LOG(REAP, "sel_ct_timer preest records=%d \n", records);
    }
}

void ageactive(const lbsel_table_t *table, lbsrv_obj_t *server, lbsel_deadline_t *deadline)
{
    const int records = lbsel_retireall(table, &server->sel.active, &server->sel.active,
                                        _lbsel_ct_expired, deadline);
    if (records > 0) {
        LB_LOG(REAP, "Removing %d established conn records from %p\n", records,
               static_cast<void *>(server));
        LB_LOG(REAP, "sel_ct_timer active records=%d \n", records);
    }
    if (lbha_crrepall() && replicates(server->parent)) {
        lbll_guard held(&server->sel.active);
        lbll_iterateact_nl(&server->sel.active, _lbsel_ct_enqueue_callback);
    }
}

void agefin(const lbsel_table_t *table, lbsrv_obj_t *server, lbsel_deadline_t *deadline)
{
    const int records =
        lbsel_retireall(table, &server->sel.active, &server->sel.fin, _lbsel_ct_expired, deadline);
    if (records > 0) {
        LB_LOG(REAP, "Removing %d fin conn records from %p\n", records,
               static_cast<void *>(server));
    }
}

void _lbsel_ct_timer(lbport_obj_t *port)
{
    const lbsel_table_t table = _lbsel_ct_table(tableof(port));
    lb_timeval_t now;
    (void)os_gettime(&now);
    lbsel_deadline_t preest = {.now = now, .timeout_s = PREEST_TIMEOUT_S};
    lbsel_deadline_t active = {.now = now, .timeout_s = lb_peek(port->setable.staletimeout)};
    lbsel_deadline_t fin = {.now = now, .timeout_s = FIN_TIMEOUT_S};
    const struct {
        void (*age)(const lbsel_table_t *, lbsrv_obj_t *, lbsel_deadline_t *);
        lbsel_deadline_t *deadline;
    } passes[] = {{agepreest, &preest}, {ageactive, &active}, {agefin, &fin}};

    void *refs[LB_SNAPSHOT_MAX];
    const int count =
        lbll_selectn(&port->serverset.srvreflist, refs, LB_SNAPSHOT_MAX, lbll_filter_true, nullptr);
    for (const auto &pass : passes) {
        for (int i = 0; i < count; i++) {
            pass.age(&table, static_cast<lbsrv_ref_t *>(refs[i])->server, pass.deadline);
        }
    }
}

// --- Both tables together ------------------------------------------------------------------------

int _lbsel_ctat_portinit(lbport_obj_t *port)
{
    if (_lbsel_ct_portinit(port) != 0) {
        return 1;
    }
    if (_lbsel_at_portinit(port) != 0) {
        _lbsel_ct_portcleanup(port);
        return 1;
    }
    return 0;
}

int _lbsel_ctat_srvinit(lbsrv_obj_t *server)
{
    if (_lbsel_ct_srvinit(server) != 0) {
        return 1;
    }
    static constexpr lbsel_listinit_t arlist = {&lbsrv_seldat_t::arlist, "affinity arlist",
                                                offsetof(lbsel_ar_obj_t, expirelist)};
    if (lbsel_lists_init(server, &arlist, 1) != 0) {
        lbsel_lists_cleanup(server);
        return 1;
    }
    server->sel.at = lb_peekptr(server->parent->at);
    return 0;
}

void _lbsel_ctat_portcleanup(lbport_obj_t *port)
{
    _lbsel_ct_portcleanup(port);
    _lbsel_at_portcleanup(port);
}

void _lbsel_ctat_srvrm(lbsrv_obj_t *server)
{
    _lbsel_ct_srvrm(server);
    _lbsel_at_srvrm(server);
}

bool _lbsel_ctat_srvreap(lbsrv_obj_t *server)
{
    const bool connections = sweep(server) != 0;
    // The lists may be retired only when both tables are done with the server.
    if (connections) {
        _lbsel_at_srvrm(server);
        return true;
    }
    return _lbsel_at_srvreap(server);
}

void _lbsel_ctat_timer(lbport_obj_t *port)
{
    _lbsel_ct_timer(port);
    _lbsel_at_timer(port);
}

} // namespace

lbsel_table_t _lbsel_ct_table(lbsel_ct_obj_t *ct)
{
    return {.lookup = &ct->lookup, .pool = &ct->pool, .forget = _lbsel_ct_forget};
}

bool _lbsel_ct_isstill(lbsrv_obj_t *server, const lbsel_cr_obj_t *cr, const lbsel_cr_obj_key_t *key)
{
    return isof(server, cr) && isequal(&cr->crkey, key);
}

lbsrv_obj_t *_lbsel_ct_chooseserver(lbpbuf_obj_t *pkt, lbsel_ct_obj_t *ct, lbsel_at_obj_t *at)
{
    LB_LOG(TRACE, "conntable_choose\n");
    lbsel_cr_obj_key_t key = {
        .sip = *lbsel_pbuf_getclientaddr(pkt), .sport = lbsel_pbuf_getclientport(pkt), ._pad = 0};
    for (int tries = 0; tries < LBSEL_TRIES; tries++) {
        auto *cr = static_cast<lbsel_cr_obj_t *>(lbht_select1(&ct->lookup, &key));
        const outcome_e outcome =
            cr != nullptr ? follow(pkt, ct, cr, &key) : begin(pkt, ct, at, &key);
        if (outcome == ANSWERED) {
            return pkt->server;
        }
    }
    return lbsel_error(pkt, "connection keeps changing");
}

bool lbsel_ct_natowner(lbsrv_obj_t *server, const lbsel_cr_obj_t *cr,
                       const lb_retaddr_obj_t *retaddr, lb_u16_t natport, lbsel_natowner_t *owner)
{
    if (server->retaddrobj != retaddr) {
        return false; // the record has moved to another server meanwhile
    }
    lbll_guard held(&server->sel.active);
    if (!isof(server, cr) || cr->natkey.natport != natport ||
        !lb_ept_owns(&retaddr->ept, natport, cr)) {
        return false;
    }
    owner->client = cr->crkey.sip;
    owner->clientport = cr->crkey.sport;
    owner->cluster = server->config.key.cfg.cluster;
    owner->cr = cr;
    return true;
}

lbsrv_obj_t *lbsel_ct_findserver(lbport_obj_t *port, const lbip_addr_t *client,
                                 lb_u16_t clientport_hbo)
{
    lbsel_ct_obj_t *ct = tableof(port);
    if (ct == nullptr) {
        return nullptr;
    }
    lbsel_cr_obj_key_t key = {.sip = *client, .sport = clientport_hbo, ._pad = 0};
    for (int tries = 0; tries < LBSEL_TRIES; tries++) {
        auto *cr = static_cast<lbsel_cr_obj_t *>(lbht_select1(&ct->lookup, &key));
        if (cr == nullptr) {
            return nullptr;
        }
        lbsrv_obj_t *server = lb_peekptr(cr->server);
        if (server == nullptr) {
            continue; // retired since it was found
        }
        lbll_guard held(&server->sel.active);
        if (_lbsel_ct_isstill(server, cr, &key)) {
            return server;
        }
    }
    return nullptr;
}

lbsel_cr_obj_t *_lbsel_ct_getnewcr(lbsel_ct_obj_t *ct)
{
    bool reused = false;
    auto *cr = static_cast<lbsel_cr_obj_t *>(lbsel_pool_take(&ct->pool, &reused));
    if (cr != nullptr && reused) {
        LB_LOG(TRACE, "reusing node\n");
        // Its links and its server were cleared when it was retired, while others could see them.
        cr->crkey = {};
        cr->natkey = {};
        cr->state = 0;
        cr->timestamp = {};
        cr->reptimestamp = {};
    }
    return cr;
}

void _lbsel_ct_returncr(lbsel_ct_obj_t *ct, lbsel_cr_obj_t *cr)
{
    lb_pokeptr(cr->server, nullptr);
    void *record = cr;
    lbsel_pool_give(&ct->pool, &record, 1);
}

int rep_enqueuecr(lbsel_cr_obj_t *cr)
{
    lbsrv_obj_t *server = lb_peekptr(cr->server);
    const lb_u16_t natport = server->retaddrobj != nullptr ? cr->natkey.natport : lb_u16_t{0};
    return lbha_replication_enqueue(&server->config.key.cfg, &cr->crkey.sip, cr->crkey.sport,
                                    LBSEL_CR_STATE_ACTIVE, natport);
}

const lbsel_funcs_t lbsel_ct_funcs = {
    .portinit = _lbsel_ct_portinit,
    .srvinit = _lbsel_ct_srvinit,
    .portcleanup = _lbsel_ct_portcleanup,
    .srvrm = _lbsel_ct_srvrm,
    .srvreap = _lbsel_ct_srvreap,
    .choose = _lbsel_ct_choose,
    .timer = _lbsel_ct_timer,
};

const lbsel_funcs_t lbsel_ctat_funcs = {
    .portinit = _lbsel_ctat_portinit,
    .srvinit = _lbsel_ctat_srvinit,
    .portcleanup = _lbsel_ctat_portcleanup,
    .srvrm = _lbsel_ctat_srvrm,
    .srvreap = _lbsel_ctat_srvreap,
    .choose = _lbsel_ctat_choose,
    .timer = _lbsel_ctat_timer,
};
