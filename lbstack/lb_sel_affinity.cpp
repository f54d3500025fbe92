// The affinity table, its records and the AFFINITY row. A record is in the table and on its
// server's arlist, or in neither; it goes when its client has been silent for the sticky time, when
// its server's weight falls to 0 while others have weight, and when its server is removed.
//
// Workers choose, the timer thread ages, the command thread adds and removes ports and servers. The
// lock of a server's arlist guards that server's records; under it a bucket or the reuse list is
// locked. Servers are chosen, and looked up in the configuration tree, without a lock. Two ports
// may share a table, so a record may name servers of two ports: the one that it is listed with, and
// the same machine under the other port. Neither stays named beyond its server's removal.
#include "lb_sel_affinity.h"

#include "lb_cluster.h"
#include "lb_executor.h"
#include "lb_ip.h"
#include "lb_log.h"
#include "lb_pbuf.h"
#include "lb_port.h"
#include "lb_replication.h"
#include "lb_utils.h"

namespace
{

constexpr lb_u64_t TRACE = LB_LOG_SELECT;
constexpr lb_u64_t FAILURE = LB_LOG_SELECT | LB_LOG_FAILURE;
constexpr lb_s32_t REPLICATE_AFTER_S = 640;
constexpr lb_u8_t REPSTATE = 2; // affinity records are always replicated as active
constexpr int SHARERS_MAX = 255;
constexpr int ARLIST = 0; // messages number the lists that they tell of

lb_u32_t _lbsel_at_hash_callback(void *key, void *obj)
{
    return lbip_hash(obj != nullptr ? &static_cast<lbsel_ar_obj_t *>(obj)->arkey.sip
                                    : &static_cast<lbsel_ar_key_t *>(key)->sip);
}

int _lbsel_at_select_callback(void *key, void *obj)
{
    return lbip_isaddrequal(&static_cast<lbsel_ar_key_t *>(key)->sip,
                            &static_cast<lbsel_ar_obj_t *>(obj)->arkey.sip);
}

void _lbsel_at_print_callback(void *obj)
{
    lbip_printaddr("", &static_cast<lbsel_ar_obj_t *>(obj)->arkey.sip, "");
}

void _lbsel_at_forget(void *record)
{
    auto *ar = static_cast<lbsel_ar_obj_t *>(record);
    lb_pokeptr(ar->server, nullptr);
    lb_pokeptr(ar->crossportServer, nullptr);
}

lbsel_at_obj_t *_lbsel_at_ofport(const lbport_obj_t *port)
{
    return static_cast<lbsel_at_obj_t *>(lb_peekptr(port->at));
}

bool _lbsel_at_replicates(const lbport_obj_t *port)
{
    const lb_u8_t strategy = lb_peek(port->setable.repstrategy);
    return lbha_ispaired() && (strategy == LBHA_REPLICATIONSTRATEGY_ARREP ||
                               strategy == LBHA_REPLICATIONSTRATEGY_CRARREP);
}

// The server object of the same machine under another port of the cluster, or null.
lbsrv_obj_t *_lbsel_at_twin(const lbsrv_obj_t *server, lb_u16_t port)
{
    lbcmd_key_t key = server->config.key;
    key.cfg.port = port;
    static_assert(offsetof(lbsrv_obj_t, config) == 0);
    return reinterpret_cast<lbsrv_obj_t *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &key));
}

// What a look at a client's record, or the attempt to make one, came to.
enum outcome_e {
    AGAIN,    // somebody else was faster: look once more
    ANSWERED, // the packet has its server, or has been dropped
};

// A client's server on the port, from what its record names: the record may have been made on
// either port, and tables can be shared by more ports than two. Null without one.
lbsrv_obj_t *_lbsel_at_serveron(const lbport_obj_t *port, lbsrv_obj_t *server,
                                lbsrv_obj_t *crossport)
{
    if (server->parent == port) {
        return server;
    }
    if (crossport != nullptr && crossport->parent != port) {
        crossport = _lbsel_at_twin(server, lbport_number(port));
    }
    const bool usable =
        crossport != nullptr && crossport->parent == port && lb_peek(crossport->sel.removed) == 0;
    return usable ? crossport : nullptr;
}

outcome_e _lbsel_at_answer(lbpbuf_obj_t *pkt, lbsrv_obj_t *server, lbsrv_obj_t *crossport,
                           const char *label)
{
    pkt->server = _lbsel_at_serveron(pkt->port, server, crossport);
    if (pkt->server == nullptr) {
        (void)lbsel_error(pkt, nullptr);
        return ANSWERED;
    }
    lbpbuf_trace(LB_LOG_SELECT | LB_LOG_FORWARDED, pkt, label);
    return ANSWERED;
}

// Notes the packet in a record that is on no list, and puts it at the newest end: 0, or 1 when it
// could not be (the record is out of the table then).
int _lbsel_at_refresh(lbpbuf_obj_t *pkt, lbsel_at_obj_t *at, lbsrv_obj_t *server,
                      lbsel_ar_obj_t *ar, bool replicate) LB_NEEDS(server->sel.arlist)
{
    (void)os_gettime(&ar->timestamp);
    if (replicate && _lbsel_at_replicates(pkt->port)) {
        ar->reptimestamp = ar->timestamp;
        (void)lbha_replication_enqueue(&server->config.key.cfg, &ar->arkey.sip, 0, REPSTATE, 0);
        LB_LOG(LB_LOG_HA, "called lbha_replication_enqueue for AR\n");
    }
    pkt->_select_prv.selrecord = ar;
    pkt->_select_prv.selrecordkind = LBPBUF_SELRECORD_AFFINITY;
    if (lbll_addnode_rhs_nl(&server->sel.arlist, ar) != 0) {
        LB_LOG(FAILURE, "add to ct failed\n");
        pkt->_select_prv.selrecord = nullptr;
        pkt->_select_prv.selrecordkind = LBPBUF_SELRECORD_NONE;
        (void)lbht_rmnode(&at->lookup, ar); // what it refuses it reports
        _lbsel_at_forget(ar);
        return 1;
    }
    return 0;
}

// Whether the client is to go elsewhere: its server takes no more, and others do.
bool _lbsel_at_ismoving(const lbpbuf_obj_t *pkt, const lbsrv_obj_t *server)
{
    return lb_peek(server->sel.removed) != 0 ||
           (lb_peek(server->setable.weight) == 0 && lb_peek(pkt->port->serverset.weightsum) != 0);
}

// A packet of a client that has a record.
outcome_e _lbsel_at_follow(lbpbuf_obj_t *pkt, lbsel_at_obj_t *at, lbsel_ar_obj_t *ar,
                           const lbsel_ar_key_t *key)
{
    lbsrv_obj_t *server = lb_peekptr(ar->server);
    if (server == nullptr) {
        return AGAIN;
    }
    __builtin_prefetch(&ar->expirelist, 1);
    lbsrv_obj_t *crossport = nullptr;
    int failed = 0;
    {
        lbll_guard held(&server->sel.arlist);
        if (!_lbsel_at_isstill(server, ar, key)) {
            return AGAIN;
        }
        if (_lbsel_at_ismoving(pkt, server)) {
            const lbsel_table_t table = _lbsel_at_table(at);
            lbsel_retire(&table, &server->sel.arlist, &server->sel.arlist, ar);
            return AGAIN; // as a new client
        }
        LB_LOG(TRACE, "existing affinity\n");
        crossport = lb_peekptr(ar->crossportServer);
        const bool stale = ar->timestamp.secs - ar->reptimestamp.secs > REPLICATE_AFTER_S;
        failed = lbll_rmnode_nl(&server->sel.arlist, ar);
        if (failed == 0) {
            failed = _lbsel_at_refresh(pkt, at, server, ar, stale);
        }
    }
    if (failed != 0) {
        _lbsel_at_returnar(at, ar);
        (void)lbsel_error(pkt, "add to expirelist failed");
        return ANSWERED;
    }
    return _lbsel_at_answer(pkt, server, crossport, "fwd-ar-existing");
}

// A record for a server that was chosen: into the table, unless the client has one by now or the
// server has been removed.
outcome_e _lbsel_at_enter(lbpbuf_obj_t *pkt, lbsel_at_obj_t *at, lbsrv_obj_t *server,
                          lbsel_ar_obj_t *ar)
{
    lbsrv_obj_t *crossport = ar->crossportServer;
    lbsel_insert_e inserted = LBSEL_INSERT_EXISTS;
    int failed = 0;
    {
        lbll_guard held(&server->sel.arlist);
        if (lb_peek(server->sel.removed) == 0) {
            inserted = lbsel_insert(&at->lookup, &ar->arkey, ar);
        }
        if (inserted == LBSEL_INSERT_DONE) {
            lb_stat_inc(server->getable.selstats.lifetime);
            failed = _lbsel_at_refresh(pkt, at, server, ar, true);
        }
    }
    if (inserted == LBSEL_INSERT_DONE && failed == 0) {
        return _lbsel_at_answer(pkt, server, crossport, "fwd-ar-new");
    }
    _lbsel_at_returnar(at, ar);
    if (inserted == LBSEL_INSERT_EXISTS) {
        return AGAIN;
    }
    if (inserted == LBSEL_INSERT_FAILED) {
        LB_LOG(FAILURE, "add to at failed\n");
        lbpbuf_trace(LB_LOG_SELECT | LB_LOG_PKTERROR, pkt, "add to at failed");
        (void)lbsel_discard(pkt, nullptr);
        return ANSWERED;
    }
    (void)lbsel_error(pkt, "add to expirelist failed");
    return ANSWERED;
}

// A packet of a client that has no record.
outcome_e _lbsel_at_begin(lbpbuf_obj_t *pkt, lbsel_at_obj_t *at, const lbsel_ar_key_t *key)
{
    LB_LOG(TRACE, "new affinity\n");
    lbsrv_obj_t *server = lbsel_chooseserver(pkt, &pkt->port->serverset.seeds[LBSRVSET_SEED_ATCT]);
    pkt->server = server;
    if (server == nullptr) {
        (void)lbsel_discard(pkt, "no server");
        return ANSWERED;
    }
    if (lb_peek(server->setable.stickyflag) == 0) {
        return ANSWERED;
    }
    lbsel_ar_obj_t *ar = _lbsel_at_getnewar(at);
    if (ar == nullptr) {
        (void)lbsel_discard(pkt, "ar alloc failed");
        return ANSWERED;
    }
    ar->arkey = *key;
    lb_pokeptr(ar->server, server);
    lb_pokeptr(ar->crossportServer, _lbsel_at_crossport(server));
    return _lbsel_at_enter(pkt, at, server, ar);
}

struct crossportsweep_s {
    lbsrv_obj_t *server;
    int found;
};

// Run by a walk over the table, which holds the record's bucket: a record can't leave the table, so
// it can't become another client's meanwhile.
int _lbsel_at_clearcrossport(void *vsweep, void *vobj)
{
    auto *sweep = static_cast<crossportsweep_s *>(vsweep);
    auto *ar = static_cast<lbsel_ar_obj_t *>(vobj);
    if (lb_peekptr(ar->crossportServer) == sweep->server) {
        lb_pokeptr(ar->crossportServer, nullptr);
        sweep->found++;
    }
    return 0;
}

// Takes every reference to a removed server out of its table: how many there were.
int _lbsel_at_sweep(lbsrv_obj_t *server)
{
    lb_poke(server->sel.removed, 1);
    auto *at = static_cast<lbsel_at_obj_t *>(server->sel.at);
    lbll_list_t *arlist = &server->sel.arlist;
    const lbsel_table_t table = _lbsel_at_table(at);
    const int records = lbsel_retireall(&table, arlist, arlist, lbll_filter_true, nullptr);
    LB_LOG(TRACE, "sel_at_srvrm list %d records=%d \n", ARLIST, records);
    crossportsweep_s sweep = {.server = server, .found = 0};
    void *none = nullptr;
    (void)lbht_selectn(&at->lookup, &none, 1, _lbsel_at_clearcrossport, &sweep);
    return records + sweep.found;
}

int _lbsel_at_expired(void *deadline, void *obj)
{
    return lbsel_expired(static_cast<lbsel_deadline_t *>(deadline),
                         &static_cast<lbsel_ar_obj_t *>(obj)->timestamp);
}

void _lbsel_at_enqueue_callback(void *obj)
{
    (void)rep_enqueuear(static_cast<lbsel_ar_obj_t *>(obj)); // a full queue is the queue's matter
}

void _lbsel_at_ageserver(const lbsel_table_t *table, lbsrv_obj_t *server,
                         lbsel_deadline_t *deadline, bool replicateall)
{
    lbll_list_t *arlist = &server->sel.arlist;
    const int records = lbsel_retireall(table, arlist, arlist, _lbsel_at_expired, deadline);
    if (records > 0) {
        LB_LOG(LB_LOG_REAP, "lbsel_at_timer records=%d \n", records);
    }
    if (replicateall) {
        lbll_guard held(arlist);
        lbll_iterateact_nl(arlist, _lbsel_at_enqueue_callback);
    }
}

lbsel_at_obj_t *_lbsel_at_newtable()
{
    auto *at = lb_newzero<lbsel_at_obj_t>();
    if (at == nullptr) {
        LB_LOG(FAILURE, "affinity table alloc failed\n");
        return nullptr;
    }
    lb_undo undo_alloc([at] { os_memfree(at); });
    if (lbht_inittable(&at->lookup, LBSEL_BUCKETS, at->bucket, offsetof(lbsel_ar_obj_t, htnode),
                       _lbsel_at_hash_callback, _lbsel_at_select_callback,
                       _lbsel_at_print_callback) != 0) {
        LB_LOG(FAILURE, "affinity table hash table init failed\n");
        return nullptr;
    }
    if (lbsel_pool_init(&at->pool, sizeof(lbsel_ar_obj_t), offsetof(lbsel_ar_obj_t, expirelist)) !=
        0) {
        LB_LOG(FAILURE, "affinity fin list init failed\n");
        (void)lbht_rmtable(&at->lookup); // it logs its own failure
        return nullptr;
    }
    undo_alloc.dismiss();
    return at;
}

// The partner's table, with one more user; null when it can't be shared.
lbsel_at_obj_t *_lbsel_at_sharetable(lbport_obj_t *port)
{
    lb_u16_t number = port->addable.crossport;
    const auto *partner =
        static_cast<lbport_obj_t *>(lbll_select1(&port->parent->portlist, &number));
    if (partner == nullptr) {
        LB_LOG(FAILURE, "cross-port %d object not found\n", number);
        return nullptr;
    }
    lbsel_at_obj_t *at = _lbsel_at_ofport(partner);
    if (lb_peek(partner->addable.selectalg) != port->addable.selectalg || at == nullptr) {
        LB_LOG(FAILURE, "cross-port %d does not use the same selection algorithm\n", number);
        return nullptr;
    }
    lbll_guard held(&at->pool.reuse);
    if (at->refcount == SHARERS_MAX) {
        LB_LOG(FAILURE, "cross-port %d: too many ports share its table\n", number);
        return nullptr;
    }
    at->refcount++;
    LB_LOG(TRACE, "port %d: cross-port to %d\n", lbport_number(port), number);
    return at;
}

// Drops one use of the port's table: whether others are left.
bool _lbsel_at_isleft(lbsel_at_obj_t *at)
{
    lbll_guard held(&at->pool.reuse);
    if (at->refcount == 0) {
        return false;
    }
    at->refcount--;
    return true;
}

} // namespace

lbsel_table_t _lbsel_at_table(lbsel_at_obj_t *at)
{
    return {.lookup = &at->lookup, .pool = &at->pool, .forget = _lbsel_at_forget};
}

lbsrv_obj_t *_lbsel_at_crossport(lbsrv_obj_t *server)
{
    const lb_u16_t number = lbport_number(server->parent);
    const lb_u16_t partner = lb_peek(server->parent->addable.crossport);
    return partner == number ? server : _lbsel_at_twin(server, partner);
}

bool _lbsel_at_isstill(lbsrv_obj_t *server, const lbsel_ar_obj_t *ar, const lbsel_ar_key_t *key)
{
    return lb_peekptr(ar->expirelist._list) == &server->sel.arlist &&
           lbip_isaddrequal(&ar->arkey.sip, &key->sip) != 0;
}

lbsrv_obj_t *lbsel_at_chooseserver(lbpbuf_obj_t *pkt, lbsel_at_obj_t *at)
{
    LB_LOG(TRACE, "affintable_choose\n");
    lbsel_ar_key_t key = {.sip = *lbsel_pbuf_getclientaddr(pkt)};
    for (int tries = 0; tries < LBSEL_TRIES; tries++) {
        auto *ar = static_cast<lbsel_ar_obj_t *>(lbht_select1(&at->lookup, &key));
        const outcome_e outcome =
            ar != nullptr ? _lbsel_at_follow(pkt, at, ar, &key) : _lbsel_at_begin(pkt, at, &key);
        if (outcome == ANSWERED) {
            return pkt->server;
        }
    }
    return lbsel_error(pkt, "affinity keeps changing");
}

lbsrv_obj_t *lbsel_at_findserver(lbport_obj_t *port, const lbip_addr_t *client)
{
    lbsel_at_obj_t *at = _lbsel_at_ofport(port);
    if (at == nullptr) {
        return nullptr;
    }
    lbsel_ar_key_t key = {.sip = *client};
    for (int tries = 0; tries < LBSEL_TRIES; tries++) {
        auto *ar = static_cast<lbsel_ar_obj_t *>(lbht_select1(&at->lookup, &key));
        if (ar == nullptr) {
            return nullptr;
        }
        lbsrv_obj_t *server = lb_peekptr(ar->server);
        if (server == nullptr) {
            continue; // retired since it was found
        }
        lbsrv_obj_t *crossport = nullptr;
        bool still = false;
        {
            lbll_guard held(&server->sel.arlist);
            still = _lbsel_at_isstill(server, ar, &key);
            crossport = lb_peekptr(ar->crossportServer);
        }
        if (still) {
            return _lbsel_at_serveron(port, server, crossport);
        }
    }
    return nullptr;
}

void lbsel_at_detachport(lbport_obj_t *port)
{
    lbsel_at_obj_t *at = _lbsel_at_ofport(port);
    if (at != nullptr && _lbsel_at_isleft(at)) {
        lb_pokeptr(port->at, nullptr);
    }
}

int _lbsel_at_portinit(lbport_obj_t *port)
{
    const bool alone = port->addable.crossport == lbport_number(port);
    lbsel_at_obj_t *at = alone ? _lbsel_at_newtable() : _lbsel_at_sharetable(port);
    lb_pokeptr(port->at, at);
    return at != nullptr ? 0 : 1;
}

int _lbsel_at_srvinit(lbsrv_obj_t *server)
{
    constexpr int node = offsetof(lbsel_ar_obj_t, expirelist);
    static constexpr lbsel_listinit_t lists[] = {
        {&lbsrv_seldat_t::preest, "affinity preest", node},
        {&lbsrv_seldat_t::active, "affinity active", node},
        {&lbsrv_seldat_t::fin, "affinity fin", node},
        {&lbsrv_seldat_t::arlist, "affinity arlist", node},
    };
    server->sel.at = lb_peekptr(server->parent->at);
    return lbsel_lists_init(server, lists, 4);
}

void _lbsel_at_portcleanup(lbport_obj_t *port)
{
    lbsel_at_obj_t *at = _lbsel_at_ofport(port);
    lb_pokeptr(port->at, nullptr);
    if (at == nullptr || _lbsel_at_isleft(at)) {
        return;
    }
    LB_LOG(TRACE, "lbsel_at_portcleanup records=%d \n", lbll_size(&at->pool.reuse));
    (void)lbht_rmtable(&at->lookup); // it logs its own failure
    lbsel_pool_cleanup(&at->pool);
    os_memfree(at);
}

void _lbsel_at_srvrm(lbsrv_obj_t *server)
{
    (void)_lbsel_at_sweep(server); // how many there were matters to the reaper alone
}

bool _lbsel_at_srvreap(lbsrv_obj_t *server)
{
    if (_lbsel_at_sweep(server) != 0) {
        return true;
    }
    lbsel_lists_cleanup(server);
    return false;
}

lbsrv_obj_t *_lbsel_at_choose(lbpbuf_obj_t *pkt)
{
    lbsel_at_obj_t *at = _lbsel_at_ofport(pkt->port);
    if (at == nullptr) {
        return lbsel_error(pkt, "no affinity table");
    }
    return lbsel_at_chooseserver(pkt, at);
}

void _lbsel_at_timer(lbport_obj_t *port)
{
    lbsel_at_obj_t *at = _lbsel_at_ofport(port);
    if (at == nullptr) {
        return;
    }
    const lbsel_table_t table = _lbsel_at_table(at);
    lbsel_deadline_t deadline = {.now = {}, .timeout_s = lb_peek(port->setable.stickytime)};
    (void)os_gettime(&deadline.now);
    const bool replicateall = lbha_arrepall() && _lbsel_at_replicates(port);
    void *refs[LB_SNAPSHOT_MAX];
    const int count =
        lbll_selectn(&port->serverset.srvreflist, refs, LB_SNAPSHOT_MAX, lbll_filter_true, nullptr);
    for (int i = 0; i < count; i++) {
        _lbsel_at_ageserver(&table, static_cast<lbsrv_ref_t *>(refs[i])->server, &deadline,
                            replicateall);
    }
}

lbsel_ar_obj_t *_lbsel_at_getnewar(lbsel_at_obj_t *at)
{
    bool reused = false;
    auto *ar = static_cast<lbsel_ar_obj_t *>(lbsel_pool_take(&at->pool, &reused));
    if (ar != nullptr && reused) {
        // Its links and pointers were cleared when it was retired, while others could see them.
        ar->arkey = {};
        ar->timestamp = {};
        ar->reptimestamp = {};
    }
    return ar;
}

void _lbsel_at_returnar(lbsel_at_obj_t *at, lbsel_ar_obj_t *ar)
{
    _lbsel_at_forget(ar);
    void *record = ar;
    lbsel_pool_give(&at->pool, &record, 1);
}

int rep_enqueuear(lbsel_ar_obj_t *ar)
{
    return lbha_replication_enqueue(&lb_peekptr(ar->server)->config.key.cfg, &ar->arkey.sip, 0,
                                    REPSTATE, 0);
}

const lbsel_funcs_t lbsel_at_funcs = {
    .portinit = _lbsel_at_portinit,
    .srvinit = _lbsel_at_srvinit,
    .portcleanup = _lbsel_at_portcleanup,
    .srvrm = _lbsel_at_srvrm,
    .srvreap = _lbsel_at_srvreap,
    .choose = _lbsel_at_choose,
    .timer = _lbsel_at_timer,
};
