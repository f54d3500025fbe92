// Heartbeats: the objects that name the pairs of addresses, the packets that travel between them,
// and the way of a received one to the state machine.
//
// The command thread adds and removes heartbeats; the timer sends a round every tick, and whoever
// takes over sends one of its own, so two rounds may run at once. A round copies the list, sends
// without a lock, and stays inside the stack meanwhile: a heartbeat that is removed under it keeps
// its memory until the round is over. Received ones run on the workers. Nothing here decides.
#include "lb_heartbeat.h"

#include "lb_executor.h"
#include "lb_ip.h"
#include "lb_ipv4.h"
#include "lb_ipv6.h"
#include "lb_log.h"
#include "lb_neigh.h"
#include "lb_pbuf.h"
#include "lb_replication.h"
#include "lb_srvset.h"
#include "lb_words.h"

#include "prot/ipv6.h"

namespace
{

constexpr lb_u64_t TRACE = LB_LOG_HA;
constexpr lb_u64_t EVENT = LB_LOG_HA | LB_LOG_EVENT;
constexpr lb_u64_t FAILURE = LB_LOG_HA | LB_LOG_FAILURE;
constexpr lb_u8_t HOPS = 1; // partners are on one link
constexpr lb_u32_t NOMTU = 0xFFFFFFFF;
constexpr lb_u32_t MTU_MAX = 1500; // no jumbo frames between partners
constexpr lb_u32_t FRAME_OVERHEAD = 102;

// Heartbeats as they lie on the wire.
struct payload_s {
    lbudp_hdr_t udp;
    lbha_pkthdr_t ha;
    lbha_replicationrec_t records[LBHA_REPRECS_MAX];
};
constexpr int BARELEN = offsetof(payload_s, records);
struct frame4_s {
    lbeth_hdr_t eth;
    lbipv4_hdr_t ip;
    payload_s payload;
};
struct frame6_s {
    lbeth_hdr_t eth;
    lbipv6_hdr_t ip;
    payload_s payload;
};
static_assert(BARELEN == 48);
static_assert(offsetof(frame4_s, payload) == 34 && sizeof(frame4_s) <= MTU_MAX);
static_assert(offsetof(frame6_s, payload) == 54 && sizeof(frame6_s) <= MTU_MAX);

static_assert(offsetof(lbha_heartbeatobj_t, cmdobj) == 0);
lbha_heartbeatobj_t *heartbeatof(lbcmd_objhdr_t *obj)
{
    return reinterpret_cast<lbha_heartbeatobj_t *>(obj);
}

const lbcfg_key_t *keyof(const void *obj)
{
    return &static_cast<const lbha_heartbeatobj_t *>(obj)->cmdobj.key.cfg;
}

bool reap(lb_grace_node_t *node)
{
    char *bytes = reinterpret_cast<char *>(node);
    os_memfree(
        reinterpret_cast<lbha_heartbeatobj_t *>(bytes - offsetof(lbha_heartbeatobj_t, grace)));
    return true;
}

// Lets go of the partner's entry. Who sends meanwhile may still be using it: it has its own grace.
void releaseneigh(lbha_heartbeatobj_t *hb)
{
    lb_pokeptr(hb->neigh, nullptr);
    lbneigh_rmnode(&keyof(hb)->server);
}

// --- Sending -------------------------------------------------------------------------------------

// How the partner is reached: both null when it isn't.
struct way_s {
    const lbneigh_obj_t *neigh;
    lbneigh_route_t *route;
};
way_s wayof(const lbha_heartbeatobj_t *hb)
{
    const lbneigh_obj_t *neigh = lb_peekptr(hb->neigh);
    lbneigh_route_t *route = neigh != nullptr ? lb_peekptr(neigh->route) : nullptr;
    return route != nullptr ? way_s{neigh, route} : way_s{nullptr, nullptr};
}

lbha_pktseq_t wiretime(lb_timeval_t time)
{
    lbha_pktseq_t seq;
    lb_put32(seq.nbosecs, static_cast<lb_u32_t>(time.secs));
    lb_put32(seq.nbousecs, static_cast<lb_u32_t>(time.usecs));
    return seq;
}

lbha_pkthdr_t currentheader()
{
    const lbha_obj_t *ha = &lbexecutor->ha;
    lbha_pkthdr_t hdr = {};
    lb_put32(hdr.lbversion, LBHA_VERSION);
    hdr.state = lb_peek(lbexecutor->getable.ha.state);
    hdr.substate = lb_peek(lbexecutor->getable.ha.substate);
    hdr.reachscore = lb_peek(lbexecutor->setable.ha.reachscore);
    hdr.seq = wiretime(lb_peek(ha->seq));
    hdr.ack = wiretime(lb_peek(ha->partnerack));
    return hdr;
}

// The smallest MTU on the way to a partner, or NOMTU.
lb_u32_t smallestmtu(void *const *heartbeats, int count)
{
    lb_u32_t smallest = NOMTU;
    for (int i = 0; i < count; i++) {
        const way_s way = wayof(static_cast<lbha_heartbeatobj_t *>(heartbeats[i]));
        if (way.route == nullptr) {
            continue;
        }
        const lb_u32_t sys = lb_peek(way.route->ifin->setable.mtu_sys);
        const lb_u32_t lb = lb_peek(way.route->ifin->setable.mtu_lb);
        smallest = sys < smallest ? sys : smallest;
        smallest = lb != 0 && lb < smallest ? lb : smallest;
    }
    return smallest;
}

// How many records fit into a heartbeat: 1 at least, whatever an interface claims.
lb_u32_t payloadfor(lb_u32_t mtu)
{
    if (mtu > MTU_MAX) {
        LB_LOG(EVENT, "sendheartbeats: minmtu > 1500! re-setting to 1500, for now\n");
        mtu = MTU_MAX;
    }
    const lb_u32_t fits =
        mtu > FRAME_OVERHEAD ? (mtu - FRAME_OVERHEAD) / sizeof(lbha_replicationrec_t) : 0;
    static_assert((MTU_MAX - FRAME_OVERHEAD) / sizeof(lbha_replicationrec_t) == LBHA_REPRECS_MAX);
    return fits == 0 ? 1 : fits;
}

// One packet to every partner. Records go to IPv4 partners only.
void sendtoall(void *const *heartbeats, int count, const lbha_pkthdr_t *bare,
               const lbha_reppkt_t *records)
{
    lbha_pkthdr_t full = *bare;
    full.numreprec = records != nullptr ? records->pkthdr.numreprec : lb_u8_t{0};
    const int len = full.numreprec * static_cast<int>(sizeof(lbha_replicationrec_t));
    for (int i = 0; i < count; i++) {
        auto *hb = static_cast<lbha_heartbeatobj_t *>(heartbeats[i]);
        if (keyof(hb)->cluster.version == 4) {
            _lbha_ipv4_sendheartbeat(hb, &full, records != nullptr ? records->reprec : nullptr,
                                     len);
        } else {
            _lbha_ipv6_sendheartbeat(hb, bare, nullptr, 0);
        }
    }
}

// Fills what both versions have in common, its checksum aside: the payload's length.
int fillpayload(payload_s *payload, const lbha_pkthdr_t *hdr, const void *repdata, int repdatalen)
{
    constexpr int room = sizeof(payload->records);
    const int records = repdata == nullptr || repdatalen < 0 ? 0
                        : repdatalen > room                  ? room
                                                             : repdatalen;
    const lb_u16_t port = lb_peek(lbexecutor->setable.ha.port);
    lb_put16(payload->udp.sport, port);
    lb_put16(payload->udp.dport, port);
    lb_put16(payload->udp.len, static_cast<lb_u16_t>(BARELEN + records));
    payload->ha = *hdr;
    if (records > 0) {
        os_memcpy(payload->records, repdata, static_cast<std::size_t>(records));
    }
    return BARELEN + records;
}

lb_u16_t checksum(const payload_s *payload, int len, lb_u32_t pseudohdrsum)
{
    const lb_u32_t sum = lbipv4_primativesum(payload->udp.sport.b, static_cast<unsigned>(len));
    return static_cast<lb_u16_t>(~lbipv4_foldsum(pseudohdrsum + sum));
}

void transmit(const way_s &way, lbeth_hdr_t *eth, void *ip, int len, lb_u16_t type)
{
    const lbeth_addr_align_t dst = lb_peek(way.neigh->eaddr);
    const lbeth_addr_align_t src = lb_peek(way.route->ifin->setable.ethaddr);
    os_memcpy(eth->dst.b, dst.b, LBETH_ADDRLEN);
    os_memcpy(eth->src.b, src.b, LBETH_ADDRLEN);
    lb_put16(eth->type, type);
    const bool linked = lbifin_haslinkheader(way.route->ifin);
    os_packetxmit(linked ? eth : nullptr, ip, len, &way.route->xmithndl, nullptr);
}

void fillheader(lbha_heartbeatobj_t *hb, const lbcfg_key_t *key)
{
    lbcmd_key_t wide;
    wide.cfg = *key;
    lbcmd_objhdr_t *hdr = &hb->cmdobj;
    lbcmd_objhdr_init(hdr, &wide);
    hdr->setable = {sizeof(hb->setable), &hb->setable};
    hdr->getable = {sizeof(hb->getable), &hb->getable};
    hdr->remove = _lbhahb_cmd_rm;
    hdr->get = _lbhahb_cmd_get;
}

} // namespace

int lbhahb_init(lbcfg_key_t *key, lbha_heartbeatobj_t *hb, void * /*addable*/, void *setable)
{
    LB_LOG(TRACE, "lbhahb_init\n");
    os_memset(hb, 0, sizeof(*hb));
    fillheader(hb, key);
    os_memcpy(&hb->setable, setable, sizeof(hb->setable));
    if (key->cluster.version != key->server.version) {
        LB_LOG(EVENT, "heartbeat's addresses are of different IP versions\n");
        return 1;
    }
    hb->neigh = lbneigh_addnode(&key->server);
    if (hb->neigh == nullptr) {
        LB_LOG(FAILURE, "lbhahb_init returning failure\n");
        return 1;
    }
    LB_LOG(TRACE, "lbhahb_init returning success\n");
    return 0;
}

void lbhahb_undo(lbha_heartbeatobj_t *hb)
{
    releaseneigh(hb);
}

int _lbhahb_cmd_rm(lbcmd_objhdr_t *objhdr)
{
    lbha_heartbeatobj_t *hb = heartbeatof(objhdr);
    releaseneigh(hb);
    if (lbll_rmnode(&lbexecutor->ha.heartbeatlist, hb) != 0) {
        LB_LOG(FAILURE, "could not remove heartbeat from heartbeatlist\n");
        return LBCMD_RC_FAILURE;
    }
    lb_grace_defer(&hb->grace, reap);
    return LBCMD_RC_SUCCESS;
}

int _lbhahb_cmd_get(lbcmd_objhdr_t *objhdr)
{
    lbha_heartbeatobj_t *hb = heartbeatof(objhdr);
    const lbneigh_obj_t *neigh = lb_peekptr(hb->neigh);
    lb_u8_t state = LBNEIGH_STATEMOD_ERROR;
    if (neigh != nullptr) {
        state = lb_peek(neigh->state);
        LB_LOG(TRACE, "neigh state is %d\n", state);
    } else {
        LB_LOG(EVENT, "no neigh\n");
    }
    lb_poke(hb->getable.neighstate, state);
    return 0;
}

int _lbhahb_ll_select(void *vkey, void *vobj)
{
    const auto *key = static_cast<const lbcfg_key_t *>(vkey);
    const lbcfg_key_t *own = keyof(vobj);
    return lbip_isaddrequal(&key->cluster, &own->cluster) != 0 &&
                   lbip_isaddrequal(&key->server, &own->server) != 0
               ? LBLL_FILTER_YES
               : 0;
}

void _lbhahb_ll_print(void *obj)
{
    lbip_printaddr("src ", &keyof(obj)->cluster, " ");
    lbip_printaddr("dst ", &keyof(obj)->server, "");
}

void _lbha_sendheartbeats()
{
    void *heartbeats[LB_SNAPSHOT_MAX];
    const int count = lbll_selectn(&lbexecutor->ha.heartbeatlist, heartbeats, LB_SNAPSHOT_MAX,
                                   lbll_filter_true, nullptr);
    const lb_u32_t mtu = smallestmtu(heartbeats, count);
    if (mtu == NOMTU) {
        LB_LOG(EVENT, "sendheartbeats: no nics\n");
        return; // what is queued waits
    }
    lb_poke(lbexecutor->ha.maxhbpayload, payloadfor(mtu));
    const lbha_pkthdr_t hdr = currentheader();
    lbha_repqobj_t *packet = lbha_replication_take();
    if (packet == nullptr) {
        sendtoall(heartbeats, count, &hdr, nullptr);
    }
    while (packet != nullptr) {
        sendtoall(heartbeats, count, &hdr, &packet->reppkt);
        lbha_repqobj_t *sent = packet;
        packet = packet->next;
        os_memfree(sent);
    }
}

void _lbha_ipv4_sendheartbeat(lbha_heartbeatobj_t *hb, const lbha_pkthdr_t *hapkthdr,
                              const void *repdata, int repdatalen)
{
    const way_s way = wayof(hb);
    if (way.route == nullptr) {
        LB_LOG(EVENT, "sendheartbeat: no neigh or no interface\n");
        return;
    }
    const lb_u16_t id = static_cast<lb_u16_t>(lb_take_next(lbexecutor->ha.ipid) + 1);
    frame4_s frame = {};
    const int len = fillpayload(&frame.payload, hapkthdr, repdata, repdatalen);
    const int total = len + LBIPV4_HDRLEN;
    frame.ip.verihl = 0x45;
    lb_put16(frame.ip.totlen, static_cast<lb_u16_t>(total));
    lb_put16(frame.ip.id, id);
    frame.ip.ttl = HOPS;
    frame.ip.proto = LBIP_PROTO_UDP;
    os_memcpy(frame.ip.src, keyof(hb)->cluster.nboaddr.v4, sizeof(frame.ip.src));
    os_memcpy(frame.ip.dst, keyof(hb)->server.nboaddr.v4, sizeof(frame.ip.dst));
    lb_put16(frame.ip.csum, lbipv4_checksum(&frame.ip.verihl));
    lb_put16(frame.payload.udp.csum,
             checksum(&frame.payload, len, lbipv4_pseudohdrsum(&frame.ip.verihl)));
    LB_LOG(TRACE, "sending HA packet ip_id=%d\n", id);
    LB_LOG(TRACE, "sending HA packet size with hdr  %d  heratbeat pkt size  w/o hdr %%\n", total);
    transmit(way, &frame.eth, &frame.ip, total, LBETH_TYPE_IPV4);
}

void _lbha_ipv6_sendheartbeat(lbha_heartbeatobj_t *hb, const lbha_pkthdr_t *hapkthdr,
                              const void *repdata, int repdatalen)
{
    LB_LOG(TRACE, "ipv6 sendheartbeat entered\n");
    const way_s way = wayof(hb);
    if (way.route == nullptr) {
        LB_LOG(EVENT, "sendheartbeat: no neigh or no interface\n");
        return;
    }
    frame6_s frame = {};
    const int len = fillpayload(&frame.payload, hapkthdr, repdata, repdatalen);
    const int total = len + LBIPV6_HDRLEN;
    frame.ip.verclassflow.b[0] = 0x60;
    lb_put16(frame.ip.payloadlen, static_cast<lb_u16_t>(len));
    frame.ip.nexthdr = LBIP_PROTO_UDP;
    frame.ip.hoplimit = HOPS;
    os_memcpy(frame.ip.src, keyof(hb)->cluster.nboaddr.v6, sizeof(frame.ip.src));
    os_memcpy(frame.ip.dst, keyof(hb)->server.nboaddr.v6, sizeof(frame.ip.dst));
    const lb_u16_t sum = checksum(&frame.payload, len, lbipv6_pseudohdrsum(&frame.ip, total));
    // RFC 8200, 8.1: over IPv6 a sum of 0 means that there is none, which receivers refuse.
    lb_put16(frame.payload.udp.csum, sum != 0 ? sum : lb_u16_t{0xFFFF});
    LB_LOG(TRACE, "sending HA packet\n");
    transmit(way, &frame.eth, &frame.ip, total, LBETH_TYPE_IPV6);
}

int lbhahb_pbuf_entry(lbpbuf_obj_t *pkt)
{
    const int total = pkt->ipfuncs->gettotlen(pkt);
    const int end = total < pkt->buflen ? total : pkt->buflen;
    const int offset = static_cast<int>(pkt->ulp.raw - pkt->p.raw) + int{sizeof(lbudp_hdr_t)};
    const int len = end - offset;
    const auto *hdr = len > 0 ? lb_view<lbha_pkthdr_t>(pkt->p.raw + offset, len) : nullptr;
    if (hdr != nullptr) {
        LB_LOG(TRACE, "packet id is:%d packet length = %d\n", static_cast<int>(pkt->frag_id), end);
        _lbha_event(LBHA_EVENT_HEARTBEATRX, hdr, len);
    } else {
        LB_LOG(EVENT, "packet too short\n");
    }
    os_packetfree(pkt->osopaque);
    return LB_PACKETRC_CONSUMED;
}
