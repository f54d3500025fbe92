// Fragments: a table remembers where each fragmented datagram's first fragment went, so that the
// others follow it, and holds those that come before it. The module owns the records, the packets
// that they hold until these are sent or dropped, and the process's budget for held packets.
//
// Workers look up and insert, the timer thread retires, and the reaper frees a table that nobody
// uses any more. A record is in its bucket and on the expiration list, or in neither: both change
// under the bucket's lock, the list's being taken inside. A look-up and what follows from it, to
// insert a held fragment or to register a first one and take out those that wait for it, is one
// hold of the bucket's lock, so a fragment is either held before the first one is registered, and
// taken out by it, or finds what it registered. Who took a record out has it to itself. Records
// stay records until the table dies, so the timer may look at one that has been taken out
// meanwhile. No lock is held while a fragment is sent.
#include "lb_fragment.h"

#include "lb_cluster.h"
#include "lb_forward.h"
#include "lb_ip.h"
#include "lb_log.h"
#include "lb_pbuf.h"
#include "lb_port.h"
#include "lb_sel_records.h"
#include "lb_server.h"
#include "lb_tcpudp.h"
#include "lb_utils.h"

namespace
{

constexpr lb_u64_t TRACE = LB_LOG_FRAGMENT;
constexpr lb_u64_t FAILURE = LB_LOG_FRAGMENT | LB_LOG_FAILURE;
constexpr lb_u64_t HOSTBUFFER = 2048; // no host's is larger
static_assert(sizeof(lbfrag_record_t) + sizeof(lbpbuf_obj_t) + HOSTBUFFER <= LBFRAG_HELDCHARGE);

lb_u64_t budget = LBFRAG_BUDGET; // lb_peek, lb_poke
lb_u64_t heldbytes = 0;

bool samekey(const lbfrag_rec_key_t *a, const lbfrag_rec_key_t *b)
{
    return a->fragment_id == b->fragment_id && lbip_isaddrequal(&a->sourceip, &b->sourceip) != 0;
}

lbfrag_record_t *recordof(void *obj)
{
    return static_cast<lbfrag_record_t *>(obj);
}

bool isregistered(const lbfrag_record_t *record)
{
    return lbip_isaddrvalid(&record->srvaddr) == LBIP_VALID_YES;
}

lbfrag_rec_key_t keyof(lbpbuf_obj_t *pkt)
{
    lbfrag_rec_key_t key = {};
    key.fragment_id = pkt->frag_id;
    key.sourceip = *pkt->ipfuncs->getsaddr(pkt);
    return key;
}

lb_timeval_t timenow()
{
    lb_timeval_t now = {};
    (void)os_gettime(&now);
    return now;
}

// Held fragments of the key.
int _lbfrag_held_callback(void *vkey, void *vobj)
{
    const auto *record = static_cast<const lbfrag_record_t *>(vobj);
    const bool held = record->frag != nullptr && !isregistered(record);
    return held && samekey(static_cast<const lbfrag_rec_key_t *>(vkey), &record->frkey)
               ? LBLL_FILTER_YES
               : 0;
}

// Records that are too old; the key is an lbsel_deadline_t. The expiration list is locked.
int _lbfrag_expired_callback(void *vkey, void *vobj)
{
    const auto *deadline = static_cast<const lbsel_deadline_t *>(vkey);
    auto *record = static_cast<lbfrag_record_t *>(vobj);
    const lb_timeval_t stamp = record->timestamp;
    const int rc = lbsel_expired(deadline, &record->timestamp);
    if (lb_log_enabled(TRACE)) {
        const auto timeout_s = static_cast<lb_s32_t>(LBFRAG_TIMEOUT_S);
        const lb_timeval_t cutoff = {deadline->now.secs - timeout_s, deadline->now.usecs};
        const lb_timeval_t left = lb_timediff(stamp, cutoff);
        if (rc == LBLL_FILTER_YES) {
            LB_LOG(TRACE, "ct_llfilter_timer rc YES ts %d to %d d %d.%06d\n", stamp.secs,
                   cutoff.secs, left.secs, left.usecs);
        } else {
            LB_LOG(TRACE, "ct_llfilter_timer rc NO+STOP ts %d to %d d %d.%06d\n", stamp.secs,
                   cutoff.secs, left.secs, left.usecs);
        }
    }
    return rc;
}

// --- Records in the table: the bucket is locked --------------------------------------------------

// Puts a filled record into the table: 0, or non-zero (it is in neither place then).
int link(lbfrag_table_t *table, lbht_bucket_t *bucket, lbfrag_record_t *record)
{
    const lb_timeval_t now = timenow();
    if (int rc = lbht_addnode_nl(&table->fraght, record); rc != 0) {
        return rc;
    }
    lb_pokeptr(record->home, bucket);
    int rc = 0;
    {
        lbll_guard held(&table->expirationlist);
        record->timestamp = now;
        rc = lbll_addnode_rhs_nl(&table->expirationlist, record);
    }
    if (rc != 0) {
        lb_pokeptr(record->home, nullptr);
        (void)lbht_rmnode_nl(&table->fraght, record); // it has just been added
    }
    return rc;
}

// Neither can refuse: every record in the table is in both.
void unlink_nl(lbfrag_table_t *table, lbfrag_record_t *record) LB_NEEDS(table->expirationlist)
{
    lb_pokeptr(record->home, nullptr);
    (void)lbht_rmnode_nl(&table->fraght, record);
    (void)lbll_rmnode_nl(&table->expirationlist, record);
}

// Takes held fragments of the key out, LB_SNAPSHOT_MAX at most: how many.
int takeheld(lbfrag_table_t *table, lbfrag_rec_key_t *key, void **records)
{
    const int count =
        lbht_selectn1b_nl(&table->fraght, records, LB_SNAPSHOT_MAX, _lbfrag_held_callback, key);
    if (count > 0) {
        lbll_guard held(&table->expirationlist);
        for (int i = 0; i < count; i++) {
            unlink_nl(table, recordof(records[i]));
        }
    }
    return count;
}

// --- Records out of the table --------------------------------------------------------------------

void giveback(lbfrag_table_t *table, void **records, int count)
{
    lbll_guard held(&table->reuse);
    for (int i = 0; i < count; i++) {
        (void)lbll_addnode_rhs_nl(&table->reuse, records[i]); // it is on no list
    }
}

// The packet that the record holds, which is the caller's now; null if it holds none.
lbpbuf_obj_t *takepacket(lbfrag_record_t *record)
{
    lbpbuf_obj_t *pkt = record->frag;
    record->frag = nullptr;
    if (pkt != nullptr) {
        lb_budget_give(heldbytes, LBFRAG_HELDCHARGE);
    }
    return pkt;
}

void droppacket(lbfrag_record_t *record)
{
    if (lbpbuf_obj_t *pkt = takepacket(record); pkt != nullptr) {
        os_packetfree(pkt->osopaque);
        lbpbuf_free(pkt);
    }
}

int discard(lbpbuf_obj_t *pkt, const char *label)
{
    lb_stat_inc(pkt->stats->discard);
    if (pkt->cluster != nullptr) {
        lb_stat_inc(pkt->cluster->getable.ipstats.discard);
    }
    if (pkt->port != nullptr) {
        lb_stat_inc(pkt->port->getable.ipstats.discard);
    }
    lbpbuf_trace(LB_LOG_FRAGMENT | LB_LOG_DISCARDED, pkt, label);
    os_packetfree(pkt->osopaque);
    return LB_PACKETRC_CONSUMED;
}

// --- Arrival -------------------------------------------------------------------------------------

// Holds the packet in a record of its own; the bucket is locked. False if there is no memory for
// it.
bool hold(lbfrag_table_t *table, lbht_bucket_t *bucket, const lbfrag_rec_key_t *key,
          lbpbuf_obj_t *pkt)
{
    if (!lb_budget_take(heldbytes, LBFRAG_HELDCHARGE, lb_peek(budget))) {
        return false;
    }
    void *record = _lbfrag_getnewrecord(table);
    if (record == nullptr) {
        lb_budget_give(heldbytes, LBFRAG_HELDCHARGE);
        return false;
    }
    lbfrag_record_t *fresh = recordof(record);
    fresh->frkey = *key;
    fresh->frag = pkt;
    (void)lbpbuf_hold(pkt); // it always answers the same
    if (link(table, bucket, fresh) != 0) {
        (void)takepacket(fresh);
        giveback(table, &record, 1);
        return false;
    }
    return true;
}

enum arrival_e { REGISTERED, HELD, NOMEMORY };

// Looks the key up, and copies what is registered or else holds the packet. Once held it belongs to
// whoever finds it.
arrival_e lookuporhold(lbfrag_table_t *table, lbfrag_rec_key_t *key, lbpbuf_obj_t *pkt,
                       lbfrag_record_t *copy)
{
    lbht_bucket_t *bucket = lbht_bucket(&table->fraght, key);
    lbll_guard held(bucket);
    // A registered record stands in front of held ones: it was added last, at the head.
    const lbfrag_record_t *record = recordof(lbht_select1_nl(&table->fraght, key));
    if (record != nullptr && isregistered(record)) {
        copy->frkey = record->frkey;
        copy->sport = record->sport;
        copy->dport = record->dport;
        copy->srvaddr = record->srvaddr;
        copy->peeraddr = record->peeraddr;
        return REGISTERED;
    }
    return hold(table, bucket, key, pkt) ? HELD : NOMEMORY;
}

// --- Registration --------------------------------------------------------------------------------

// Registers under the key where its fragments go; the bucket is locked. False if there is no
// memory for it.
bool enter(lbfrag_table_t *table, lbfrag_rec_key_t *key, const lbfrag_record_t *what)
{
    void *record = lbht_select1_nl(&table->fraght, key);
    if (record != nullptr && isregistered(recordof(record))) {
        // The identification is in use again, or the first fragment came twice: the last one says
        // where the others go, and its time starts anew.
        lbll_guard held(&table->expirationlist);
        unlink_nl(table, recordof(record));
    } else {
        record = _lbfrag_getnewrecord(table);
    }
    if (record == nullptr) {
        return false;
    }
    lbfrag_record_t *fresh = recordof(record);
    fresh->frkey = *key;
    fresh->sport = what->sport;
    fresh->dport = what->dport;
    fresh->srvaddr = what->srvaddr;
    fresh->peeraddr = what->peeraddr;
    if (link(table, lbht_bucket(&table->fraght, key), fresh) != 0) {
        giveback(table, &record, 1);
        return false;
    }
    return true;
}

void sendheld(lbfrag_table_t *table, void **records, int count, const lbfrag_record_t *what)
{
    for (int i = count; i-- > 0;) { // the first that came is the last in its bucket
        lbpbuf_obj_t *pkt = takepacket(recordof(records[i]));
        (void)table->send(pkt, what, "forward-saved-frag"); // it frees the buffer in every case
        lbpbuf_free(pkt);
    }
    if (count > 0) {
        giveback(table, records, count);
    }
}

// --- Expiry --------------------------------------------------------------------------------------

// What the expiration list says of a record.
struct stale_s {
    lbfrag_record_t *record;
    lbfrag_rec_key_t key;
    lb_timeval_t timestamp;
};

int copystale(lbfrag_table_t *table, lbsel_deadline_t *deadline, stale_s *stale)
{
    void *records[LB_SNAPSHOT_MAX];
    lbll_guard held(&table->expirationlist);
    const int count = lbll_selectn_nl(&table->expirationlist, records, LB_SNAPSHOT_MAX,
                                      _lbfrag_expired_callback, deadline);
    for (int i = 0; i < count; i++) {
        lbfrag_record_t *record = recordof(records[i]);
        stale[i] = {record, record->frkey, record->timestamp};
    }
    return count;
}

// Takes the record out of the table if it is still what the list said: whether it did.
bool takestale(lbfrag_table_t *table, stale_s *stale)
{
    lbfrag_record_t *record = stale->record;
    lbht_bucket_t *bucket = lbht_bucket(&table->fraght, &stale->key);
    lbll_guard inbucket(bucket);
    // A record that is in this bucket stays in it while the bucket is locked; one that has left it
    // may be anybody's.
    if (lb_peekptr(record->home) != bucket || !samekey(&record->frkey, &stale->key)) {
        return false;
    }
    lbll_guard inlist(&table->expirationlist);
    const lb_timeval_t stamp = record->timestamp;
    if (stamp.secs != stale->timestamp.secs || stamp.usecs != stale->timestamp.usecs) {
        return false;
    }
    unlink_nl(table, record);
    return true;
}

} // namespace

int _lbfrag_send(lbpbuf_obj_t *pkt, const lbfrag_record_t *record, const char *label)
{
    LB_LOG(TRACE, "_lbfrag_send\n");
    pkt->frag_sport = record->sport;
    pkt->frag_dport = record->dport;
    lb_u16_t dport = record->dport;
    pkt->port = static_cast<lbport_obj_t *>(lbll_select1(&pkt->cluster->portlist, &dport));
    if (pkt->port == nullptr) {
        LB_LOG(FAILURE, "no port found for fragment\n");
        return discard(pkt, "frag-discard-noport");
    }
    lbip_addr_t srvaddr = record->srvaddr;
    pkt->server = static_cast<lbsrv_obj_t *>(lbll_select1(&pkt->port->serverlist, &srvaddr));
    if (pkt->server == nullptr) {
        LB_LOG(FAILURE, "no server found for fragment\n");
        return discard(pkt, "frag-discard-noserver");
    }
    lbpbuf_trace(LB_LOG_FRAGMENT | LB_LOG_FORWARDED, pkt, label);
    return lbsel_send(pkt);
}

int lbfrag_inittable(lbfrag_table_t *table, lbfrag_send_fn send)
{
    table->send = send;
    if (int rc = lbht_inittable(&table->fraght, LBFRAG_BUCKETS, table->buckets,
                                offsetof(lbfrag_record_t, ft_node), _lbfrag_hash_callback,
                                _lbfrag_select_callback, nullptr);
        rc != 0) {
        LB_LOG(FAILURE, "init hashtable failed\n");
        return rc;
    }
    lb_undo undo_ht([table] { (void)lbht_rmtable(&table->fraght); });
    constexpr int NODE = offsetof(lbfrag_record_t, expration_node);
    if (int rc = lbll_initlist(&table->expirationlist, NODE, nullptr, nullptr); rc != 0) {
        LB_LOG(FAILURE, "init of expirationlist failed\n");
        return rc;
    }
    lbll_setrank(&table->expirationlist, LB_RANK_FRAGEXPIRE);
    lb_undo undo_expiration([table] { (void)lbll_rmlist(&table->expirationlist); });
    if (int rc = lbll_initlist(&table->reuse, NODE, nullptr, nullptr); rc != 0) {
        LB_LOG(FAILURE, "init of reuse failed\n");
        return rc;
    }
    lbll_setrank(&table->reuse, LB_RANK_LEAF);
    undo_expiration.dismiss();
    undo_ht.dismiss();
    return 0;
}

int lbfrag_cleanuptable(lbfrag_table_t *table)
{
    LB_LOG(TRACE, "removing %d records\n", lbll_size(&table->expirationlist));
    while (void *record = lbll_getnode_lhs(&table->expirationlist)) {
        {
            lbll_guard held(&table->expirationlist);
            unlink_nl(table, recordof(record));
        }
        droppacket(recordof(record));
        giveback(table, &record, 1);
    }
    LB_LOG(TRACE, "deleting %d records\n", lbll_size(&table->reuse));
    while (void *record = lbll_getnode_lhs(&table->reuse)) {
        {
            lbll_guard held(&table->reuse);
            (void)lbll_rmnode_nl(&table->reuse, record); // it is there
        }
        os_memfree(record);
    }
    int failed = 0;
    if (lbht_rmtable(&table->fraght) != 0) {
        LB_LOG(FAILURE, "table removal failed\n");
        failed = 1;
    }
    if (lbll_cleanuplist(&table->expirationlist) != 0) {
        LB_LOG(FAILURE, "expirationlist removal failed\n");
        failed = 1;
    }
    if (lbll_cleanuplist(&table->reuse) != 0) {
        LB_LOG(FAILURE, "reuse removal failed\n");
        failed = 1;
    }
    return failed;
}

void lbfrag_timer_entry(lbfrag_table_t *table)
{
    lbsel_deadline_t deadline = {timenow(), LBFRAG_TIMEOUT_S + 1};
    stale_s stale[LB_SNAPSHOT_MAX];
    void *records[LB_SNAPSHOT_MAX];
    int found = LB_SNAPSHOT_MAX;
    while (found > 0) {
        found = copystale(table, &deadline, stale);
        int taken = 0;
        for (int i = 0; i < found; i++) {
            if (takestale(table, &stale[i])) {
                droppacket(stale[i].record);
                records[taken++] = stale[i].record;
            }
        }
        if (taken > 0) {
            giveback(table, records, taken);
        }
        LB_LOG(TRACE, "lbfrag_timer_entry removing %d records\n", taken);
    }
}

int lbfrag_arrive(lbfrag_table_t *table, lbpbuf_obj_t *pkt)
{
    LB_LOG(TRACE, " fragment %x offset %d received\n", pkt->frag_id, pkt->frag_offset);
    lbfrag_rec_key_t key = keyof(pkt);
    lbfrag_record_t record = {};
    switch (lookuporhold(table, &key, pkt, &record)) {
    case REGISTERED: return table->send(pkt, &record, "frag-fwd");
    case HELD: return LB_PACKETRC_HELD;
    case NOMEMORY: break;
    }
    LB_LOG(FAILURE, "frag rec alloc failure\n");
    return discard(pkt, "frag-discard-norecord");
}

void lbfrag_publish(lbfrag_table_t *table, lbpbuf_obj_t *pkt, const lbfrag_record_t *what)
{
    LB_LOG(TRACE, " firstfragment %x offset %d received\n", pkt->frag_id, pkt->frag_offset);
    lbfrag_rec_key_t key = keyof(pkt);
    void *records[LB_SNAPSHOT_MAX];
    int count = 0;
    bool entered = false;
    {
        lbll_guard held(lbht_bucket(&table->fraght, &key));
        entered = enter(table, &key, what);
        count = entered ? takeheld(table, &key, records) : 0;
    }
    if (!entered) {
        LB_LOG(FAILURE, "frag rec alloc failure\n");
        return;
    }
    sendheld(table, records, count, what);
    while (count == LB_SNAPSHOT_MAX) {
        {
            lbll_guard held(lbht_bucket(&table->fraght, &key));
            count = takeheld(table, &key, records);
        }
        sendheld(table, records, count, what);
    }
}

int lbfrag_pbuf_entry(lbpbuf_obj_t *pkt)
{
    return lbfrag_arrive(&pkt->cluster->fragtable, pkt);
}

void lbfrag_pbuf_firstfragment(lbpbuf_obj_t *pkt)
{
    lbfrag_record_t what = {};
    what.sport = lbtcpudp_pbuf_getsport(pkt);
    what.dport = lbtcpudp_pbuf_getdport(pkt);
    what.srvaddr = pkt->server->config.key.cfg.server;
    lbfrag_publish(&pkt->cluster->fragtable, pkt, &what);
}

void lbfrag_setbudget(lb_u64_t bytes)
{
    lb_poke(budget, bytes);
}

lb_u64_t lbfrag_heldbytes()
{
    return lb_peek(heldbytes);
}

lbfrag_record_t *_lbfrag_getnewrecord(lbfrag_table_t *table)
{
    lbfrag_record_t *record = nullptr;
    {
        lbll_guard held(&table->reuse);
        record = recordof(lbll_getnode_rhs_nl(&table->reuse));
        if (record != nullptr && lbll_rmnode_nl(&table->reuse, record) != 0) {
            return nullptr; // a broken invariant, which the list module has reported
        }
    }
    if (record == nullptr) {
        return lb_newzero<lbfrag_record_t>();
    }
    // Not as a whole: the timer may be asking at which home it is.
    record->sport = 0;
    record->dport = 0;
    record->srvaddr = {};
    record->peeraddr = {};
    return record;
}

lb_u32_t _lbfrag_hash_callback(void *vkey, void *vobj)
{
    return vkey != nullptr ? static_cast<const lbfrag_rec_key_t *>(vkey)->fragment_id
                           : static_cast<const lbfrag_record_t *>(vobj)->frkey.fragment_id;
}

int _lbfrag_select_callback(void *vkey, void *vobj)
{
    return samekey(static_cast<const lbfrag_rec_key_t *>(vkey),
                   &static_cast<const lbfrag_record_t *>(vobj)->frkey)
               ? LBLL_FILTER_YES
               : 0;
}
