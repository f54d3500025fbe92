// The neighbour table: one entry for every host that the stack sends to, which it resolves and
// watches by itself, next to the host's own neighbour cache.
//
// Workers bring answers in and read entries without a lock; the timer thread asks; the command
// thread adds and drops uses. A bucket's lock guards membership, `usecount` and the replacement of
// a route, and is never held while something is sent. Entries and routes that were taken out are
// freed through lb_grace. The state byte is one shared word: two threads that move it at the same
// moment may lose one step, which the next answer or query mends.
//
// Ages are differences of wall-clock time. A step forward makes every entry ripe at once, which
// costs one query each. After a step back the times of an entry lie in the future: they count as
// now, and the timer sets them to now, so that the entry ages on from there and nothing waits for
// the old time to come again.
#include "lb_neigh.h"

#include "lb_arp.h"
#include "lb_executor.h"
#include "lb_icmpv6.h"
#include "lb_ip.h"
#include "lb_log.h"
#include "lb_pbuf.h"
#include "lb_utils.h"

namespace
{

constexpr int BATCH = 64;
constexpr lb_s32_t VERIFY_AFTER_RX_S = 10;
constexpr lb_s32_t VERIFY_AFTER_TX_S = 15;
constexpr lb_s32_t RETRY_S = 1;
constexpr lb_s32_t RETRY_DEAD_S = 30;
constexpr lb_u8_t MODS_UNREACHABLE = LBNEIGH_STATEMOD_ERROR | LBNEIGH_STATEMOD_NOIFACE;

// Names may lack their NUL; "%.*s" with this length prints them.
constexpr int NAMELEN = LBIFACE_NAMELEN;

lb_u32_t tick = 0; // the timer's round; timer thread

lbht_table_t *_lbneigh_table()
{
    return &lbexecutor->neightable.ht;
}

const char *_lbneigh_ifname(const lbifin_obj_t *ifin)
{
    return ifin->cmdobj.key.iface.name;
}

lb_timeval_t _lbneigh_now()
{
    lb_timeval_t now;
    (void)os_gettime(&now); // zeros where the clock can't be read: a step back, as any other
    return now;
}

// --- Table callbacks -----------------------------------------------------------------------------

lb_u32_t _lbneigh_ht_hash(void *key, void *obj)
{
    if ((key == nullptr) == (obj == nullptr)) {
        LB_LOG(LB_LOG_NEIGH | LB_LOG_FAILURE, "both or neither key/obj in lbneigh_ht_hash\n");
        return 0;
    }
    return key != nullptr ? lbip_hash(static_cast<const lbip_addr_t *>(key))
                          : lbip_hash(&static_cast<const lbneigh_obj_t *>(obj)->ipaddr);
}

int _lbneigh_ht_select(void *key, void *obj)
{
    return lbip_isaddrequal(static_cast<const lbip_addr_t *>(key),
                            &static_cast<const lbneigh_obj_t *>(obj)->ipaddr);
}

void _lbneigh_ht_print(void *obj)
{
    lbip_printaddr("", &static_cast<const lbneigh_obj_t *>(obj)->ipaddr, "");
}

// What one round of the timer looks for.
struct round_s {
    lb_timeval_t now;
    lb_u32_t tick;
};

bool _lbneigh_islater(lb_timeval_t a, lb_timeval_t b)
{
    return a.secs != b.secs ? a.secs > b.secs : a.usecs > b.usecs;
}

// Filter: entries that are ripe and that this round has not visited. Brings times from the future
// back to now.
int _lbneigh_ht_filterripe(void *key, void *obj)
{
    const round_s *round = static_cast<const round_s *>(key);
    lbneigh_obj_t *entry = static_cast<lbneigh_obj_t *>(obj);
    if (_lbneigh_islater(lb_peek(entry->lastrx), round->now)) {
        lb_poke(entry->lastrx, round->now);
    }
    if (_lbneigh_islater(lb_peek(entry->lasttx), round->now)) {
        lb_poke(entry->lasttx, round->now);
    }
    if (entry->lasttick == round->tick || !_lbneigh_isripe(entry, round->now)) {
        return 0;
    }
    return LBLL_FILTER_YES;
}

// Filter: entries whose route leads over the interface.
int _lbneigh_ht_filteriface(void *key, void *obj)
{
    const lbneigh_obj_t *entry = static_cast<const lbneigh_obj_t *>(obj);
    const lbneigh_route_t *route = lb_peekptr(entry->route);
    return route != nullptr && route->ifin == static_cast<const lbifin_obj_t *>(key)
               ? LBLL_FILTER_YES
               : 0;
}

// --- Routes --------------------------------------------------------------------------------------

void _lbneigh_freeroute(lbneigh_route_t *route)
{
    lb_stat_inc(route->ifin->routes, static_cast<lb_u32_t>(-1));
    os_memfree(route);
}

bool _lbneigh_reaproute(lb_grace_node_t *node)
{
    char *bytes = reinterpret_cast<char *>(node);
    _lbneigh_freeroute(
        reinterpret_cast<lbneigh_route_t *>(bytes - offsetof(lbneigh_route_t, grace)));
    return true;
}

bool _lbneigh_reapentry(lb_grace_node_t *node)
{
    char *bytes = reinterpret_cast<char *>(node);
    lbneigh_obj_t *entry =
        reinterpret_cast<lbneigh_obj_t *>(bytes - offsetof(lbneigh_obj_t, grace));
    lbneigh_route_t *route = lb_peekptr(entry->route);
    if (route != nullptr) {
        _lbneigh_freeroute(route);
    }
    os_memfree(entry);
    return true;
}

bool _lbneigh_issameroute(const lbneigh_route_t *a, const lbneigh_route_t *b)
{
    return a->ifin == b->ifin && lbip_isaddrequal(&a->srcip, &b->srcip) != 0 &&
           os_memcmp(&a->xmithndl, &b->xmithndl, sizeof(a->xmithndl)) == 0;
}

// Publishes `route` (or null) in the entry, and retires what was there. `only` limits that to an
// entry whose route leads over that interface; false if it doesn't.
bool _lbneigh_publish(lbneigh_obj_t *entry, lbneigh_route_t *route, const lbifin_obj_t *only)
{
    lbneigh_route_t *old = nullptr;
    {
        lbll_guard held(lbht_bucket(_lbneigh_table(), &entry->ipaddr));
        old = lb_peekptr(entry->route);
        if (only != nullptr && (old == nullptr || old->ifin != only)) {
            return false;
        }
        lb_pokeptr(entry->route, route);
    }
    if (old != nullptr) {
        lb_grace_defer(&old->grace, _lbneigh_reaproute);
    }
    return true;
}

// Makes the entry's route the one that is wanted. False when memory is exhausted: then the entry
// keeps the one it has.
bool _lbneigh_setroute(lbneigh_obj_t *entry, const lbneigh_route_t *wanted)
{
    const lbneigh_route_t *current = lb_peekptr(entry->route);
    if (current != nullptr && _lbneigh_issameroute(current, wanted)) {
        return true;
    }
    lbneigh_route_t *route = lb_newzero<lbneigh_route_t>();
    if (route == nullptr) {
        LB_LOG(LB_LOG_NEIGH | LB_LOG_FAILURE, "alloc new route failed\n");
        return false;
    }
    *route = *wanted;
    lb_stat_inc(route->ifin->routes);
    return _lbneigh_publish(entry, route, nullptr);
}

// The address of ours from which `addr` is spoken to over the interface, or null.
const lbip_addr_t *_lbneigh_source(lbifin_obj_t *ifin, lbip_addr_t *addr)
{
    const lbip_addr_t *source = lbifin_getsrcip(ifin, addr);
    return source != nullptr ? source : lbifin_getsrcp2pip(ifin, addr);
}

// The transmit handle from `source` to `dest`: 0, or 1 for an interface that the host doesn't know.
int _lbneigh_gethandle(const lbifin_obj_t *ifin, const lbip_addr_t *source, const lbip_addr_t *dest,
                       lb_xmithandle_t *handle)
{
    const lbeth_addr_align_t mac = lb_peek(ifin->setable.ethaddr);
    return os_getxmithandle(_lbneigh_ifname(ifin), NAMELEN, mac.b, dest->version,
                            source->nboaddr.v6, dest->nboaddr.v6, handle);
}

// Nothing can be sent. That counts as a query, so that it is tried again as often as one is.
void _lbneigh_txerr(lbneigh_obj_t *entry)
{
    lb_poke(entry->lasttx, _lbneigh_now());
    _lbneigh_nextstate(entry, LBNEIGH_VECTOR_TXERR);
}

// Finds out anew how the entry is reached. Null when it isn't; the state says why.
lbneigh_route_t *_lbneigh_resolve(lbneigh_obj_t *entry)
{
    lbneigh_route_t wanted = {};
    wanted.ifin = lbifcol_selectbyip(&entry->ipaddr);
    const lbip_addr_t *source =
        wanted.ifin != nullptr ? _lbneigh_source(wanted.ifin, &entry->ipaddr) : nullptr;
    if (source == nullptr) {
        LB_LOG(LB_LOG_NEIGH | LB_LOG_FAILURE, "no interface for ip, hope for resolution later\n");
        (void)_lbneigh_publish(entry, nullptr, nullptr); // unconditional: it can't refuse
        _lbneigh_nextstate(entry, LBNEIGH_VECTOR_NOIFACE);
        return nullptr;
    }
    wanted.srcip = *source;
    _lbneigh_nextstate(entry, LBNEIGH_VECTOR_HAVEIFACE);

    const char *name = _lbneigh_ifname(wanted.ifin);
    if (_lbneigh_gethandle(wanted.ifin, &wanted.srcip, &entry->ipaddr, &wanted.xmithndl) != 0) {
        LB_LOG(LB_LOG_NEIGH | LB_LOG_FAILURE, "error getting transmit handle for %.*s\n", NAMELEN,
               name);
        _lbneigh_txerr(entry);
        return nullptr;
    }
    const unsigned char *h = wanted.xmithndl.opaque;
    LB_LOG(LB_LOG_NEIGH, "transmit handle for %.*s in %p (%02x%02x%02x%02x%02x%02x%02x%02x)\n",
           NAMELEN, name, static_cast<const void *>(entry), h[0], h[1], h[2], h[3], h[4], h[5],
           h[6], h[7]);
    if (!_lbneigh_setroute(entry, &wanted)) {
        _lbneigh_txerr(entry);
        return nullptr;
    }
    _lbneigh_nextstate(entry, LBNEIGH_VECTOR_TXOK);
    return lb_peekptr(entry->route);
}

// --- Queries and answers -------------------------------------------------------------------------

bool _lbneigh_isversion(const lbip_addr_t *addr)
{
    return addr->version == 4 || addr->version == 6;
}

// Sends an ARP or a neighbour message; `target` says which. Where nobody's hardware address is
// needed, `dhost` is null.
void _lbneigh_xmit(int type, const unsigned char *dhost, const lbifin_obj_t *ifin,
                   const lbip_addr_t *sender, const lbip_addr_t *target, lb_xmithandle_t *handle)
{
    const lbeth_addr_align_t shost = lb_peek(ifin->setable.ethaddr);
    if (target->version == 4) {
        lbarp_send(type, dhost, shost.b, sender->nboaddr.v4, target->nboaddr.v4, handle);
        return;
    }
    (void)lbicmpv6_send(type, dhost, shost.b, sender->nboaddr.v6, target->nboaddr.v6, handle); // 1
}

// Queries for the entry, or settles it where nothing needs to be asked.
void _lbneigh_send(lbneigh_obj_t *entry, int type)
{
    lbneigh_route_t *route = _lbneigh_resolve(entry);
    if (!_lbneigh_isversion(&entry->ipaddr)) {
        LB_LOG(LB_LOG_NEIGH | LB_LOG_FAILURE, "bad ip version\n");
        return;
    }
    if (route == nullptr) {
        if ((lb_peek(entry->state) & LBNEIGH_STATEMOD_NOIFACE) != 0) {
            LB_LOG(LB_LOG_NEIGH | LB_LOG_EVENT,
                   "no interface or non-arp interface, no query sent\n");
        }
        return;
    }
    if (lbifin_isptp(route->ifin) || !lbifin_doesarp(route->ifin)) {
        LB_LOG(LB_LOG_NEIGH, "p2p/non-arp interface, no query sent, going directly to RXOK\n");
        lb_poke(entry->lastrx, _lbneigh_now()); // as good as an answer, and good for as long
        lb_poke(entry->lasttx, _lbneigh_now());
        _lbneigh_nextstate(entry, LBNEIGH_VECTOR_RX);
        return;
    }
    if (entry->ipaddr.version == 4) {
        LB_LOG(LB_LOG_NEIGH, "ipv4 arp transmit\n");
    } else {
        LB_LOG(LB_LOG_NEIGH, "ipv6 ndisc transmit\n");
    }
    const lbeth_addr_align_t dhost = lb_peek(entry->eaddr);
    _lbneigh_xmit(type, dhost.b, route->ifin, &route->srcip, &entry->ipaddr, &route->xmithndl);
    lb_poke(entry->lasttx, _lbneigh_now());
}

// Whether a hardware address may be taken for one station's own. RFC 1812, 3.3.2: a broadcast or
// multicast address is not to be believed.
bool _lbneigh_isstation(const unsigned char *hw)
{
    const bool group = (hw[0] & 1) != 0;
    const bool none = (hw[0] | hw[1] | hw[2] | hw[3] | hw[4] | hw[5]) == 0;
    return !group && !none;
}

// Takes the sender's hardware address into its entry: whether there is one.
bool _lbneigh_learn(lbpbuf_obj_t *pkt)
{
    lbneigh_obj_t *entry = lbneigh_lookup(pkt->neighfuncs->getsrcip(pkt));
    if (entry == nullptr) {
        return false;
    }
    const unsigned char *hw = pkt->neighfuncs->getsrchw(pkt, entry);
    if (!_lbneigh_isstation(hw)) {
        LB_LOG(LB_LOG_NEIGH, "sender's hardware address is no station's, not learnt\n");
        return true;
    }
    lbeth_addr_align_t eaddr = {};
    os_memcpy(eaddr.b, hw, LBETH_ADDRLEN);
    lb_poke(entry->eaddr, eaddr);
    lb_poke(entry->lastrx, _lbneigh_now());
    _lbneigh_nextstate(entry, LBNEIGH_VECTOR_RX);
    return true;
}

// Answers a request for an address of ours: CONSUMED, or INTACT when it is not for us to answer.
// Who asks without an address of its own wants the same one: over IPv6 all nodes are told whose it
// is, because an answer can't be addressed to it (RFC 4861, 7.2.4; RFC 4862, 5.4.3).
int _lbneigh_reply(lbpbuf_obj_t *pkt, lbip_addr_t *own)
{
    lbifin_obj_t *ifin = lbifcol_selectbyip(own);
    const lbip_addr_t *asking = pkt->neighfuncs->getsrcip(pkt);
    const bool toall = own->version == 6 && lbip_isaddrvalid(asking) != LBIP_VALID_YES;
    const unsigned char *asker =
        toall ? nullptr : pkt->neighfuncs->getsrchw(pkt, lbneigh_lookup(asking));
    if (lbha_isstandby() || ifin == nullptr || !lbifin_doesarp(ifin) ||
        (!toall && !_lbneigh_isstation(asker))) {
        return LB_PACKETRC_INTACT;
    }
    lb_xmithandle_t handle = {};
    if (_lbneigh_gethandle(ifin, own, asking, &handle) != 0) {
        LB_LOG(LB_LOG_NEIGH | LB_LOG_FAILURE, "error getting transmit handle for %.*s\n", NAMELEN,
               _lbneigh_ifname(ifin));
        return LB_PACKETRC_INTACT;
    }
    _lbneigh_xmit(toall ? LBNEIGH_TYPE_GRAT : LBNEIGH_TYPE_REPLY, asker, ifin, own, asking,
                  &handle);
    os_packetfree(pkt->osopaque);
    return LB_PACKETRC_CONSUMED;
}

void _lbneigh_tracegrat(const lbip_addr_t *ipaddr, const lbifin_obj_t *ifin)
{
    const unsigned char *ip = ipaddr->nboaddr.v6;
    if (ipaddr->version == 4) {
        LB_LOG(LB_LOG_NEIGH, "lbneigh_grat_send sending arp for %d.%d.%d.%d on %.*s\n", ip[0],
               ip[1], ip[2], ip[3], NAMELEN, _lbneigh_ifname(ifin));
        return;
    }
    LB_LOG(LB_LOG_NEIGH, "lbneigh_grat_send sending ndisc6 for %x:%x:%x:%x:%x:%x:%x:%x on %.*s\n",
           ip[0] << 8 | ip[1], ip[2] << 8 | ip[3], ip[4] << 8 | ip[5], ip[6] << 8 | ip[7],
           ip[8] << 8 | ip[9], ip[10] << 8 | ip[11], ip[12] << 8 | ip[13], ip[14] << 8 | ip[15],
           NAMELEN, _lbneigh_ifname(ifin));
}

int _lbneigh_request(lbpbuf_obj_t *pkt)
{
    if (_lbneigh_learn(pkt)) {
        LB_LOG(LB_LOG_NEIGH, "request is for a *target*, so update\n");
    }
    lbip_addr_t *target = pkt->neighfuncs->gettgtip(pkt);
    if (lbll_select1(&lbexecutor->clusterlist, target) != nullptr) {
        LB_LOG(LB_LOG_NEIGH, "request for a *cluster*; send reply\n");
        return _lbneigh_reply(pkt, target);
    }
    // No host owns a return address either: nobody else would answer.
    if (lbll_select1(&lbexecutor->retaddrlist, target) != nullptr) {
        LB_LOG(LB_LOG_NEIGH, "request for a *return address*; send reply\n");
        return _lbneigh_reply(pkt, target);
    }
    LB_LOG(LB_LOG_NEIGH, "request not for cluster\n");
    return LB_PACKETRC_INTACT;
}

// --- State machine -------------------------------------------------------------------------------

// The state that a ripe entry goes to, and what it sends on the way there.
lb_u8_t _lbneigh_ripestate(lb_u8_t state, int *send)
{
    *send = LBNEIGH_TYPE_REQUEST;
    switch (state) {
    case LBNEIGH_STATE_RXOK: *send = LBNEIGH_TYPE_VERIFY; return LBNEIGH_STATE_TXU0;
    case LBNEIGH_STATE_TXU0: return LBNEIGH_STATE_TXB1;
    case LBNEIGH_STATE_TXB1: return LBNEIGH_STATE_TXB2;
    case LBNEIGH_STATE_TXB2: return LBNEIGH_STATE_TXB3;
    case LBNEIGH_STATE_TXB3:
    case LBNEIGH_STATE_DEAD: return LBNEIGH_STATE_DEAD;
    default: break;
    }
    *send = LBNEIGH_TYPE_UNDEF;
    LB_LOG(LB_LOG_NEIGH | LB_LOG_FAILURE, "nextstate timer vector invalid state\n");
    return LBNEIGH_STATE_UNDEF;
}

// The byte that follows `old` by the table of transitions, dead marking aside.
lb_u8_t _lbneigh_transition(lb_u8_t old, int vector, bool ripe, int *send)
{
    const lb_u8_t mods = old & LBNEIGH_STATEMASK_MOD;
    switch (vector) {
    case LBNEIGH_VECTOR_TIMER:
        return ripe ? mods | _lbneigh_ripestate(old & LBNEIGH_STATEMASK_STATE, send) : old;
    case LBNEIGH_VECTOR_RX:
        if ((mods & MODS_UNREACHABLE) != 0) {
            LB_LOG(LB_LOG_NEIGH, "_lbneigh_nextstate received update but have no vector\n");
            return old;
        }
        return mods | LBNEIGH_STATE_RXOK;
    case LBNEIGH_VECTOR_TXERR: return mods | LBNEIGH_STATEMOD_ERROR | LBNEIGH_STATE_TXU0;
    case LBNEIGH_VECTOR_NOIFACE: return mods | LBNEIGH_STATEMOD_NOIFACE | LBNEIGH_STATE_TXU0;
    case LBNEIGH_VECTOR_TXOK: return old & static_cast<lb_u8_t>(~MODS_UNREACHABLE);
    case LBNEIGH_VECTOR_HAVEIFACE: return old & static_cast<lb_u8_t>(~LBNEIGH_STATEMOD_NOIFACE);
    default: break;
    }
    LB_LOG(LB_LOG_NEIGH | LB_LOG_FAILURE, "nextstate invalid vector %d\n", vector);
    return mods;
}

lb_u8_t _lbneigh_markdead(lb_u8_t old, lb_u8_t next)
{
    const bool wasdead = (old & LBNEIGH_STATEMASK_STATE) == LBNEIGH_STATE_DEAD;
    const bool isdead = (next & LBNEIGH_STATEMASK_STATE) == LBNEIGH_STATE_DEAD;
    if (wasdead == isdead) {
        return next;
    }
    return isdead ? next | LBNEIGH_STATEMOD_SERVERSDOWN
                  : next & static_cast<lb_u8_t>(~LBNEIGH_STATEMOD_SERVERSDOWN);
}

// --- Entries -------------------------------------------------------------------------------------

lbneigh_obj_t *_lbneigh_newentry(const lbip_addr_t *ipaddr)
{
    lbneigh_obj_t *entry = lb_newzero<lbneigh_obj_t>();
    if (entry == nullptr) {
        LB_LOG(LB_LOG_NEIGH | LB_LOG_FAILURE, "alloc new node failed\n");
        return nullptr;
    }
    entry->ipaddr = *ipaddr;
    entry->state = LBNEIGH_STATE_TXB1; // the first query goes out at once
    entry->encapreachable = 1;
    return entry;
}

// Frees every entry that is left. No other thread is in the stack.
void _lbneigh_freeall()
{
    void *batch[BATCH];
    int count = 0;
    do {
        count = lbht_selectn(_lbneigh_table(), batch, BATCH, lbll_filter_true, nullptr);
        for (int i = 0; i < count; ++i) {
            lbneigh_obj_t *entry = static_cast<lbneigh_obj_t *>(batch[i]);
            if (lbht_rmnode(_lbneigh_table(), entry) != 0) {
                return; // logged; rather a leak than a loop
            }
            (void)_lbneigh_reapentry(&entry->grace); // frees always
        }
    } while (count == BATCH);
}

} // namespace

int lbneigh_init()
{
    lbneigh_table_t *table = &lbexecutor->neightable;
    return lbht_inittable(&table->ht, LBNEIGH_BUCKETS, table->buckets,
                          static_cast<int>(offsetof(lbneigh_obj_t, htnode)), _lbneigh_ht_hash,
                          _lbneigh_ht_select, _lbneigh_ht_print);
}

int lbneigh_exit()
{
    _lbneigh_freeall();
    return lbht_rmtable(_lbneigh_table());
}

lbneigh_obj_t *lbneigh_addnode(const lbip_addr_t *ipaddr)
{
    lbip_addr_t key = *ipaddr;
    lbneigh_obj_t *entry = nullptr;
    {
        lbll_guard held(lbht_bucket(_lbneigh_table(), &key));
        entry = static_cast<lbneigh_obj_t *>(lbht_select1_nl(_lbneigh_table(), &key));
        if (entry != nullptr) {
            ++entry->usecount;
            return entry;
        }
        entry = _lbneigh_newentry(&key);
        if (entry == nullptr) {
            return nullptr;
        }
        entry->usecount = 1;
        if (lbht_addnode_nl(_lbneigh_table(), entry) != 0) {
            LB_LOG(LB_LOG_NEIGH | LB_LOG_FAILURE, "add node to table failed\n");
            os_memfree(entry);
            return nullptr;
        }
    }
    _lbneigh_send(entry, LBNEIGH_TYPE_REQUEST);
    return entry;
}

void lbneigh_rmnode(const lbip_addr_t *ipaddr)
{
    lbip_addr_t key = *ipaddr;
    lbneigh_obj_t *entry = nullptr;
    {
        lbll_guard held(lbht_bucket(_lbneigh_table(), &key));
        entry = static_cast<lbneigh_obj_t *>(lbht_select1_nl(_lbneigh_table(), &key));
        if (entry == nullptr) {
            LB_LOG(LB_LOG_NEIGH | LB_LOG_FAILURE, "rmnode node not found\n");
            return;
        }
        if (--entry->usecount != 0 || lbht_rmnode_nl(_lbneigh_table(), entry) != 0) {
            return;
        }
    }
    lb_grace_defer(&entry->grace, _lbneigh_reapentry);
}

lbneigh_obj_t *lbneigh_lookup(const lbip_addr_t *ipaddr)
{
    lbip_addr_t key = *ipaddr;
    return static_cast<lbneigh_obj_t *>(lbht_select1(_lbneigh_table(), &key));
}

int lbneigh_pbuf_entry(lbpbuf_obj_t *pkt)
{
    switch (pkt->neighfuncs->gettype(pkt)) {
    case LBNEIGH_TYPE_REPLY:
        if (_lbneigh_learn(pkt)) {
            LB_LOG(LB_LOG_NEIGH, "neigh update on reply\n");
        } else {
            LB_LOG(LB_LOG_NEIGH, "reply for address not in neigh table\n");
        }
        return LB_PACKETRC_INTACT;
    case LBNEIGH_TYPE_REQUEST: return _lbneigh_request(pkt);
    default: return LB_PACKETRC_INTACT;
    }
}

void lbneigh_timer_entry()
{
    ++tick;
    round_s round = {.now = _lbneigh_now(), .tick = tick};
    void *batch[BATCH];
    int count = 0;
    do {
        count = lbht_selectn(_lbneigh_table(), batch, BATCH, _lbneigh_ht_filterripe, &round);
        LB_LOG(LB_LOG_NEIGH, "lbneigh_timer_entry %d nodes ready\n", count);
        for (int i = 0; i < count; ++i) {
            lbneigh_obj_t *entry = static_cast<lbneigh_obj_t *>(batch[i]);
            entry->lasttick = tick;
            _lbneigh_nextstate(entry, LBNEIGH_VECTOR_TIMER);
        }
    } while (count == BATCH);
}

void lbneigh_grat_send(lbip_addr_t *ipaddr)
{
    if (!_lbneigh_isversion(ipaddr)) {
        LB_LOG(LB_LOG_NEIGH | LB_LOG_EVENT, "Error: bad ip version\n");
        return;
    }
    lbifin_obj_t *ifin = lbifcol_selectbyip(ipaddr);
    if (ifin == nullptr) {
        LB_LOG(LB_LOG_NEIGH | LB_LOG_EVENT, "No Interface for grat neigh update\n");
        return;
    }
    if (!lbifin_doesarp(ifin)) {
        LB_LOG(LB_LOG_NEIGH | LB_LOG_EVENT, "Non-Arp Interface for grat neigh update - skipping\n");
        return;
    }
    lb_xmithandle_t handle = {};
    if (_lbneigh_gethandle(ifin, ipaddr, ipaddr, &handle) != 0) {
        LB_LOG(LB_LOG_NEIGH | LB_LOG_EVENT, "Could not get xmit handle for grat neigh update\n");
        return;
    }
    _lbneigh_tracegrat(ipaddr, ifin);
    _lbneigh_xmit(LBNEIGH_TYPE_GRAT, nullptr, ifin, ipaddr, ipaddr, &handle);
}

int lbneigh_clear_iface(const lbifin_obj_t *ifin)
{
    int cleared = 0;
    void *batch[BATCH];
    int count = 0;
    do {
        count = lbht_selectn(_lbneigh_table(), batch, BATCH, _lbneigh_ht_filteriface,
                             const_cast<lbifin_obj_t *>(ifin));
        for (int i = 0; i < count; ++i) {
            lbneigh_obj_t *entry = static_cast<lbneigh_obj_t *>(batch[i]);
            if (_lbneigh_publish(entry, nullptr, ifin)) {
                ++cleared;
                // Unreachable from now on, so that the timer looks for another way at once.
                _lbneigh_nextstate(entry, LBNEIGH_VECTOR_NOIFACE);
            }
        }
    } while (count == BATCH);
    return cleared;
}

void _lbneigh_nextstate(lbneigh_obj_t *entry, int vector)
{
    if (lb_peek(entry->Collocated) != 0) {
        lb_poke(entry->state, LBNEIGH_STATE_RXOK);
        return;
    }
    const bool ripe = vector == LBNEIGH_VECTOR_TIMER && _lbneigh_isripe(entry, _lbneigh_now());
    int send = LBNEIGH_TYPE_UNDEF;
    const lb_u8_t old = lb_peek(entry->state);
    const lb_u8_t next = _lbneigh_markdead(old, _lbneigh_transition(old, vector, ripe, &send));
    LB_LOG(LB_LOG_NEIGH, "neigh->state=%x newstate=%x\n", old, next);
    if (next == 0) {
        LB_LOG(LB_LOG_NEIGH | LB_LOG_FAILURE, "bad newstate\n");
    }
    lb_poke(entry->state, next);
    if (send != LBNEIGH_TYPE_UNDEF) {
        _lbneigh_send(entry, send);
    }
}

bool _lbneigh_isripe(const lbneigh_obj_t *entry, lb_timeval_t now)
{
    const lb_s32_t rx = lb_timediff_s(now, lb_peek(entry->lastrx));
    const lb_s32_t tx = lb_timediff_s(now, lb_peek(entry->lasttx));
    switch (lb_peek(entry->state) & LBNEIGH_STATEMASK_STATE) {
    case LBNEIGH_STATE_RXOK: return rx >= VERIFY_AFTER_RX_S || tx >= VERIFY_AFTER_TX_S;
    case LBNEIGH_STATE_TXU0:
    case LBNEIGH_STATE_TXB1:
    case LBNEIGH_STATE_TXB2:
    case LBNEIGH_STATE_TXB3: return tx >= RETRY_S;
    case LBNEIGH_STATE_DEAD: return tx >= RETRY_DEAD_S;
    default: return false;
    }
}
