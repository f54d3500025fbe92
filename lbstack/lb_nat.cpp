// NAT: return addresses, the ports that connections have on them, and the rewriting of packets both
// ways. The module owns the executor's list of return addresses and their memory.
//
// Workers take, look up and give back ports, each under its table's lock, which ranks above that of
// a server's records. The command thread makes and drops return addresses, the timer thread drops
// those of servers whose removal was refused, and frees them; the list's lock guards both counts. A
// record that owns a port may be changing hands: it is looked at under its server's lock before an
// answer is sent to anybody. No lock is held while a packet is rewritten or sent.
#include "lb_nat.h"

#include "lb_executor.h"
#include "lb_ip.h"
#include "lb_pbuf.h"
#include "lb_sel_connection.h"
#include "lb_srvset.h"
#include "lb_tcpudp.h"
#include "lb_utils.h"

namespace
{

int sendfragment(lbpbuf_obj_t *pkt, const lbfrag_record_t *record, const char *label);

constexpr lb_u64_t TRACE = LB_LOG_SELECT;
constexpr lb_u64_t FAILURE = LB_LOG_SELECT | LB_LOG_FAILURE;
constexpr int LOWPORTS = 1024; // up to here ports are never handed out

// Holds a port table's lock for a scope.
class ept_guard
{
  public:
    explicit ept_guard(EXC_EphemeralPortTable *pept) : lock_(&pept->lock)
    {
        lb_lockrank_take(LB_RANK_NATPORTS);
        rc_ = os_mutex_lock(lock_);
        if (rc_ != 0) {
            LB_LOG(FAILURE, "os_mutex_lock error, rc %d\n", rc_);
        }
    }
    ~ept_guard()
    {
        if (rc_ == 0) {
            (void)os_mutex_unlock(lock_); // nothing is left to undo
        }
        lb_lockrank_drop(LB_RANK_NATPORTS);
    }
    ept_guard(const ept_guard &) = delete;
    ept_guard &operator=(const ept_guard &) = delete;

  private:
    lblock *lock_;
    int rc_;
};

lb_u16_t slotafter(lb_u16_t slot)
{
    return slot >= EXC_EPT_LASTSLOT ? lb_u16_t{0} : static_cast<lb_u16_t>(slot + 1);
}

lbsel_cr_obj_t *&slotof(EXC_EphemeralPortTable *pept, lb_u16_t port)
{
    return pept->ucBusyPorts[port - EXC_EPT_FIRSTPORT];
}

// --- Return addresses ----------------------------------------------------------------------------

lbll_list_t *addresses()
{
    return &lbexecutor->retaddrlist;
}

void freeaddress(lb_retaddr_obj_t *obj)
{
    (void)lbfrag_cleanuptable(&obj->frag);  // what it refuses it reports; its memory goes anyway
    (void)os_mutex_destroy(&obj->ept.lock); // the same
    os_memset(obj, 0, sizeof(*obj));
    os_memfree(obj);
}

bool reapaddress(lb_grace_node_t *node)
{
    char *bytes = reinterpret_cast<char *>(node);
    freeaddress(reinterpret_cast<lb_retaddr_obj_t *>(bytes - offsetof(lb_retaddr_obj_t, grace)));
    return true;
}

// The object of an address that is in the list, counted once more; or null.
lb_retaddr_obj_t *takeexisting(const lbip_addr_t *addr)
{
    lbip_addr_t key = *addr;
    lbll_guard held(addresses());
    auto *obj = static_cast<lb_retaddr_obj_t *>(lbll_select1_nl(addresses(), &key));
    if (obj != nullptr) {
        obj->refcount++;
        obj->holders++;
    }
    return obj;
}

// The tables of an address that is nobody's yet: 0, or 1 (none is left then).
int inittables(lb_retaddr_obj_t *obj)
{
    if (EXC_EPTInit(&obj->ept) != 0) {
        LB_LOG(LB_LOG_SERVER | LB_LOG_FAILURE, "init of return address's ports failed\n");
        return 1;
    }
    if (lbfrag_inittable(&obj->frag, sendfragment) != 0) {
        (void)os_mutex_destroy(&obj->ept.lock); // its memory goes anyway
        return 1;
    }
    return 0;
}

lb_retaddr_obj_t *takenew(const lbip_addr_t *addr)
{
    auto *obj = lb_newzero<lb_retaddr_obj_t>();
    if (obj == nullptr) {
        LB_LOG(LB_LOG_SERVER | LB_LOG_FAILURE, "allocation of new return address failed\n");
        return nullptr;
    }
    if (inittables(obj) != 0) {
        os_memfree(obj);
        return nullptr;
    }
    obj->retaddr = *addr;
    obj->refcount = 1;
    obj->holders = 1;
    if (lbll_addnode_lhs(addresses(), obj) != 0) {
        LB_LOG(LB_LOG_SERVER | LB_LOG_FAILURE, "add return address to list failed\n");
        if (lb_peekptr(obj->exenode._list) == nullptr) {
            freeaddress(obj); // else it stays: packets may have found it
        }
        return nullptr;
    }
    lbmc_enter(&obj->membership, addr);
    LB_LOG(LB_LOG_SERVER | LB_LOG_EVENT, "retaddrrecord = %x in serv init\n", lb_log_low32(obj));
    return obj;
}

// --- Rewriting -----------------------------------------------------------------------------------

// The sum of what the TCP checksum covers of an address or a port.
lb_u32_t wordsof(const lbip_addr_t *addr)
{
    const int bytes = addr->version == 4 ? 4 : 16;
    lb_u32_t sum = 0;
    for (int i = 0; i < bytes; i += 2) {
        sum += static_cast<lb_u32_t>(addr->nboaddr.v6[i] << 8 | addr->nboaddr.v6[i + 1]);
    }
    return sum;
}

lb_u16_t fold(lb_u32_t sum)
{
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<lb_u16_t>(sum + (sum >> 16));
}

// RFC 1624, equation 3: HC' = ~(~HC + ~m + m'). Sums of words are folded first, which keeps them
// what they are in ones' complement.
lb_u16_t updatedsum(lb_u16_t sum, lb_u32_t before, lb_u32_t after)
{
    const lb_u32_t kept = static_cast<lb_u16_t>(~sum);
    const lb_u32_t removed = static_cast<lb_u16_t>(~fold(before));
    return static_cast<lb_u16_t>(~fold(kept + removed + fold(after)));
}

void setports(lbtcp_hdr_t *tcp, const lb_nat_endpoints_s *to)
{
    if (to->sport != 0) {
        lb_put16(tcp->sport, to->sport);
    }
    if (to->dport != 0) {
        lb_put16(tcp->dport, to->dport);
    }
}

lb_u32_t portsof(const lbtcp_hdr_t *tcp)
{
    return static_cast<lb_u32_t>(lb_get16(tcp->sport)) + lb_get16(tcp->dport);
}

// The versions have been compared: neither can refuse.
void setaddresses(lbpbuf_obj_t *pkt, const lb_nat_endpoints_s *to)
{
    (void)pkt->ipfuncs->setdaddr(pkt, to->dst);
    (void)pkt->ipfuncs->setsaddr(pkt, to->src);
}

// --- Answers -------------------------------------------------------------------------------------

// The connection whose answers come to this port now.
bool findowner(lb_retaddr_obj_t *retaddr, lb_u16_t natport, lbsel_natowner_t *owner)
{
    lbsel_cr_obj_t *cr = nullptr;
    lbsrv_obj_t *server = nullptr;
    if (natport > LOWPORTS) {
        // Under the lock the record still owns the port. It names a server while it is in the
        // connection table, and gives the port back first when it leaves: so its server was not
        // yet swept when this was read, and the memory of both stays until this thread goes out.
        ept_guard held(&retaddr->ept);
        cr = slotof(&retaddr->ept, natport);
        server = cr != nullptr ? lb_peekptr(cr->server) : nullptr;
    }
    return server != nullptr && lbsel_ct_natowner(server, cr, retaddr, natport, owner);
}

void tellunknown(const lb_retaddr_obj_t *retaddr, lb_u16_t natport)
{
    if (lb_log_enabled(FAILURE)) {
        LB_LOG(FAILURE, "CR not found in NAT return path Port: %d", natport);
        lbip_printaddr(" RA: ", &retaddr->retaddr, "\n");
    }
}

void setlinkheader(lbpbuf_obj_t *pkt, const lbneigh_obj_t *neigh, const lbifin_obj_t *ifin)
{
    if (lbifin_isptp(ifin)) {
        pkt->hw.vd = nullptr;
        return;
    }
    LB_LOG(TRACE, "NAT return : in if ifin -- 1\n");
    if (pkt->hw.vd == nullptr) {
        if (os_headroom(LBETH_HDRLEN, &pkt->hw.vd, &pkt->p.vd, &pkt->osopaque) != 0) {
            LB_LOG(LB_LOG_SELECT | LB_LOG_EVENT,
                   "Unable to setup eth header, transmitting anyway\n");
            return;
        }
        lb_put16(pkt->hw.eth->type, lbpbuf_ethtype(pkt));
    }
    LB_LOG(TRACE, "NAT return : copying hw address\n");
    const lbeth_addr_align_t dst = lb_peek(neigh->eaddr);
    const lbeth_addr_align_t src = lb_peek(ifin->setable.ethaddr);
    os_memcpy(pkt->hw.eth->dst.b, dst.b, LBETH_ADDRLEN);
    os_memcpy(pkt->hw.eth->src.b, src.b, LBETH_ADDRLEN);
}

// Sends a packet that has been rewritten through the client gateway: whether there is one.
bool sendtoclient(lbpbuf_obj_t *pkt)
{
    const lbneigh_obj_t *neigh = pkt->ipfuncs->getclientgwneigh(pkt);
    lbneigh_route_t *route = neigh != nullptr ? lb_peekptr(neigh->route) : nullptr;
    if (route == nullptr) {
        LB_LOG(FAILURE, "NAT return : no neigh to forward!\n");
        return false;
    }
    setlinkheader(pkt, neigh, route->ifin);
    LB_LOG(TRACE, "calling os_packetxmit\n");
    os_packetxmit(pkt->hw.vd, pkt->p.vd, lbpbuf_usablelen(pkt), &route->xmithndl, pkt->osopaque);
    return true;
}

unsigned int drop(lbpbuf_obj_t *pkt, lb_u32_t lb_proto_stats_t::*counter)
{
    lb_stat_inc(pkt->stats->*counter);
    os_packetfree(pkt->osopaque);
    return LB_PACKETRC_CONSUMED;
}

// Readdresses an answer and sends it; the buffer is freed in every case.
unsigned int answer(lbpbuf_obj_t *pkt, const lb_nat_endpoints_s *to)
{
    if (lb_nat_rewrite(pkt, to) != 0) {
        lbpbuf_trace(LB_LOG_SELECT | LB_LOG_PKTERROR, pkt, "nat-return-badinput");
        return drop(pkt, &lb_proto_stats_t::err);
    }
    if (!sendtoclient(pkt)) {
        return drop(pkt, &lb_proto_stats_t::err);
    }
    lb_stat_inc(pkt->stats->fwd);
    os_packetfree(pkt->osopaque);
    return LB_PACKETRC_CONSUMED;
}

int sendfragment(lbpbuf_obj_t *pkt, const lbfrag_record_t *record, const char *label)
{
    const lb_nat_endpoints_s to = {
        .src = &record->srvaddr, .dst = &record->peeraddr, .sport = 0, .dport = 0};
    lbpbuf_trace(LB_LOG_FRAGMENT | LB_LOG_FORWARDED, pkt, label);
    return static_cast<int>(answer(pkt, &to));
}

// What the later fragments of an answer shall follow, before the first one is rewritten.
void rememberfirst(lbpbuf_obj_t *pkt, lb_retaddr_obj_t *retaddr, const lbsel_natowner_t *owner)
{
    lbfrag_record_t what = {};
    what.srvaddr = owner->cluster;
    what.peeraddr = owner->client;
    lbfrag_publish(&retaddr->frag, pkt, &what);
}

} // namespace

int EXC_EPTInit(EXC_EphemeralPortTable *pept)
{
    os_memset(pept, 0, sizeof(*pept));
    return os_mutex_init(&pept->lock);
}

int EXC_EPTGetPort(EXC_EphemeralPortTable *pept, lbsel_cr_obj_t *cr)
{
    LB_LOG(TRACE, "inside EXC_EPTGetPort \n");
    ept_guard held(pept);
    const lb_u16_t start = pept->usNextPort <= EXC_EPT_LASTSLOT ? pept->usNextPort : lb_u16_t{0};
    lb_u16_t slot = start;
    int visited = 0;
    do {
        visited++;
        if (pept->ucBusyPorts[slot] == nullptr) {
            cr->natkey.natport = static_cast<lb_u16_t>(slot + EXC_EPT_FIRSTPORT);
            lb_pokeptr(pept->ucBusyPorts[slot], cr);
            pept->usNextPort = slotafter(slot);
            LB_LOG(TRACE, "using port %d at index %d \n", cr->natkey.natport, slot);
            return 0;
        }
        slot = slotafter(slot);
    } while (slot != start);
    const lbsel_cr_obj_t *occupant = pept->ucBusyPorts[start];
    LB_LOG(FAILURE, "Error: No free ports available %d,%X\n", start, lb_log_low32(occupant));
    LB_LOG_BARE(FAILURE, "Starting port %d:%X times thru loop %d\n", start + EXC_EPT_FIRSTPORT,
                lb_log_low32(occupant), visited);
    return EXC_EPT_NOPORT;
}

int EXC_EPTFreePort(EXC_EphemeralPortTable *pept, lb_u16_t usPort)
{
    LB_LOG(TRACE, "returning port %d at index %d \n", usPort, usPort - EXC_EPT_FIRSTPORT);
    if (usPort <= LOWPORTS) {
        return -1;
    }
    ept_guard held(pept);
    lb_pokeptr(slotof(pept, usPort), nullptr);
    return 0;
}

bool lb_ept_freeif(EXC_EphemeralPortTable *pept, lb_u16_t port, const lbsel_cr_obj_t *cr)
{
    LB_LOG(TRACE, "returning port %d at index %d \n", port, port - EXC_EPT_FIRSTPORT);
    if (port <= LOWPORTS) {
        return false;
    }
    ept_guard held(pept);
    if (slotof(pept, port) != cr) {
        return false;
    }
    lb_pokeptr(slotof(pept, port), nullptr);
    return true;
}

void lb_ept_claim(EXC_EphemeralPortTable *pept, lb_u16_t port, lbsel_cr_obj_t *cr)
{
    if (port <= LOWPORTS) {
        return;
    }
    ept_guard held(pept);
    lb_pokeptr(slotof(pept, port), cr);
    pept->usNextPort = slotafter(static_cast<lb_u16_t>(port - EXC_EPT_FIRSTPORT));
}

lbsel_cr_obj_t *EXC_EPTGetCR(EXC_EphemeralPortTable *pept, lb_u16_t natport)
{
    if (natport <= LOWPORTS) {
        return nullptr;
    }
    ept_guard held(pept);
    return slotof(pept, natport);
}

bool lb_ept_owns(const EXC_EphemeralPortTable *pept, lb_u16_t port, const lbsel_cr_obj_t *cr)
{
    return port > LOWPORTS && lb_peekptr(pept->ucBusyPorts[port - EXC_EPT_FIRSTPORT]) == cr;
}

int EXC_EPTCountPorts(EXC_EphemeralPortTable *pept)
{
    ept_guard held(pept);
    int busy = 0;
    for (int slot = 0; slot < EXC_EPT_LASTSLOT; slot++) {
        busy += pept->ucBusyPorts[slot] != nullptr ? 1 : 0;
    }
    return busy;
}

int _lb_nat_init()
{
    const int rc = lbll_initlist(&lbexecutor->retaddrlist, offsetof(lb_retaddr_obj_t, exenode),
                                 lbrat_ll_select, nullptr);
    if (rc == 0) {
        lbll_setrank(&lbexecutor->retaddrlist, LB_RANK_OBJECT);
    }
    return rc;
}

int _lb_nat_exit()
{
    return lbll_cleanuplist(&lbexecutor->retaddrlist);
}

int lbrat_ll_select(void *vkey, void *vobj)
{
    return lbip_isaddrequal(static_cast<const lbip_addr_t *>(vkey),
                            &static_cast<const lb_retaddr_obj_t *>(vobj)->retaddr);
}

lb_retaddr_obj_t *lbrat_take(const lbip_addr_t *addr)
{
    // Nobody else adds one between the two steps: this is the command thread.
    lb_retaddr_obj_t *obj = takeexisting(addr);
    if (obj == nullptr) {
        obj = takenew(addr);
    }
    if (obj != nullptr) {
        LB_LOG(LB_LOG_SERVER, "return address ref count = %d\n", obj->refcount);
    }
    return obj;
}

void lbrat_drop(lb_retaddr_obj_t *obj)
{
    LB_LOG(LB_LOG_SERVER, "return address record found!\n");
    bool last = false;
    {
        lbll_guard held(addresses());
        obj->refcount--;
        LB_LOG(LB_LOG_SERVER, "return address ref count = %d\n", obj->refcount);
        last = obj->refcount == 0;
        if (last) {
            LB_LOG(LB_LOG_SERVER, "return address record reference count is zero, delete\n");
            (void)lbll_rmnode_nl(addresses(), obj); // a broken list is reported by its module
        }
    }
    if (last) {
        lbmc_leave(&obj->membership);
    }
}

void lbrat_letgo(lb_retaddr_obj_t *obj)
{
    bool last = false;
    {
        lbll_guard held(addresses());
        obj->holders--;
        last = obj->holders == 0;
    }
    if (last) {
        lb_grace_defer(&obj->grace, reapaddress);
    }
}

int lb_nat_rewrite(lbpbuf_obj_t *pkt, const lb_nat_endpoints_s *to)
{
    const lbip_addr_t oldsrc = *pkt->ipfuncs->getsaddr(pkt);
    const lbip_addr_t olddst = *pkt->ipfuncs->getdaddr(pkt);
    if (to->src->version != oldsrc.version || to->dst->version != oldsrc.version) {
        return -1;
    }
    if (lbpbuf_usablelen(pkt) < 0) {
        return -1;
    }
    if (pkt->frag_offset != 0) {
        setaddresses(pkt, to);
        pkt->ipfuncs->hdrchksum(pkt);
        return 0;
    }
    lbtcp_hdr_t *tcp = lb_view<lbtcp_hdr_t>(pkt->ulp.vd, lbpbuf_ulplen(pkt));
    if (tcp == nullptr) {
        return -1;
    }
    const lb_u32_t before = wordsof(&oldsrc) + wordsof(&olddst) + portsof(tcp);
    setaddresses(pkt, to);
    setports(tcp, to);
    if (pkt->frag_mf == 0) {
        return pkt->ipfuncs->tcpchksum(pkt); // its lengths have been checked: it can't refuse
    }
    const lb_u32_t after = wordsof(to->src) + wordsof(to->dst) + portsof(tcp);
    lb_put16(tcp->csum, updatedsum(lb_get16(tcp->csum), before, after));
    pkt->ipfuncs->hdrchksum(pkt);
    return 0;
}

unsigned int lb_nat_entry(lbpbuf_obj_t *pkt, lb_retaddr_obj_t *retaddrrecord)
{
    const lb_u16_t natport = lbtcpudp_pbuf_getdport(pkt);
    LB_LOG(TRACE, "selecting CR from NAT table for port %d\n", natport);
    lbsel_natowner_t owner;
    if (!findowner(retaddrrecord, natport, &owner)) {
        tellunknown(retaddrrecord, natport);
        return drop(pkt, &lb_proto_stats_t::discard);
    }
    LB_LOG(TRACE, "cr record %x\n", lb_log_low32(owner.cr));
    LB_LOG(TRACE, "port from cr record %d\n", owner.clientport);
    if (pkt->frag_mf != 0) {
        rememberfirst(pkt, retaddrrecord, &owner);
    }
    const lb_nat_endpoints_s to = {
        .src = &owner.cluster, .dst = &owner.client, .sport = 0, .dport = owner.clientport};
    return answer(pkt, &to);
}

unsigned int lb_nat_fragment_entry(lbpbuf_obj_t *pkt, lb_retaddr_obj_t *retaddrrecord)
{
    return static_cast<unsigned int>(lbfrag_arrive(&retaddrrecord->frag, pkt));
}

void lb_nat_timer_entry()
{
    void *found[LB_SNAPSHOT_MAX];
    const int count = lbll_selectn(addresses(), found, LB_SNAPSHOT_MAX, lbll_filter_true, nullptr);
    for (int i = 0; i < count; i++) {
        lbfrag_timer_entry(&static_cast<lb_retaddr_obj_t *>(found[i])->frag);
    }
}

lb_u32_t _lb_nat_hthash_callback(void *key, void *obj)
{
    const auto *natkey = obj != nullptr ? &static_cast<const lbsel_cr_obj_t *>(obj)->natkey
                                        : static_cast<const lb_nat_obj_key_t *>(key);
    const lb_u32_t hash = static_cast<lb_u32_t>(natkey->natport) << 16;
    LB_LOG(TRACE, "_lb_nat_hthash_callback returning %d \n", hash);
    return hash;
}

int _lb_nat_htselect_callback(void *key, void *obj)
{
    LB_LOG(TRACE, "_lb_nat_htselect_callback\n");
    return static_cast<const lb_nat_obj_key_t *>(key)->natport ==
                   static_cast<const lbsel_cr_obj_t *>(obj)->natkey.natport
               ? LBLL_FILTER_YES
               : 0;
}

void _lb_nat_htprint_callback(void *obj)
{
    os_print("%d", static_cast<const lbsel_cr_obj_t *>(obj)->natkey.natport);
}
