// Forwarding: takes a packet to the server that was chosen for it by rewriting the Ethernet header,
// so that the server gets it as the client sent it, and answers clients whose packets can't go on
// with ICMP errors.
//
// Runs on the receive workers and takes no lock. The server, its neighbour entry and the route in
// it may be retired by other threads meanwhile; their memory stays while the worker is inside the
// stack. Every path frees the host's buffer exactly once, and counts the packet with its protocol,
// its cluster, its port and its server.
#include "lb_forward.h"

#include "lb_cluster.h"
#include "lb_executor.h"
#include "lb_fragment.h"
#include "lb_pbuf.h"
#include "lb_port.h"
#include "lb_server.h"

namespace
{

template <class T> void _lbsel_count(lbpbuf_obj_t *pkt, T lb_proto_stats_t::*counter)
{
    lb_stat_inc(pkt->stats->*counter);
    lb_stat_inc(pkt->cluster->getable.ipstats.*counter);
    lb_stat_inc(pkt->port->getable.ipstats.*counter);
    lb_stat_inc(pkt->server->getable.ipstats.*counter);
}

// One ICMP message was sent about the packet.
void _lbsel_counticmp(lbpbuf_obj_t *pkt)
{
    lb_stat_inc(lbexecutor->getable.icmpstats.gen);
    lb_stat_inc(pkt->cluster->getable.icmpstats.gen);
    lb_stat_inc(pkt->port->getable.icmpstats.gen);
    lb_stat_inc(pkt->server->getable.icmpstats.gen);
}

// What an ICMP error may quote of a packet of `usable` bytes.
lb_u32_t _lbsel_quotelen(lbpbuf_obj_t *pkt, int usable)
{
    const int wanted = pkt->ipfuncs->geticmpfraglen(pkt);
    return static_cast<lb_u32_t>(wanted < usable ? wanted : usable);
}

void _lbsel_sendfailure(lbpbuf_obj_t *pkt)
{
    lbpbuf_trace(LB_LOG_SELECT | LB_LOG_PKTERROR, pkt, "send-failure");
    _lbsel_count(pkt, &lb_proto_stats_t::err);
    LB_LOG(LB_LOG_SELECT, "forwarded packet failure\n");
}

// Addresses the frame to the neighbour. The EtherType stays as received; a frame that came without
// a link header gets one.
void _lbsel_setlinkheader(lbpbuf_obj_t *pkt, const lbneigh_obj_t *neigh, const lbifin_obj_t *ifin)
{
    if (lbifin_isptp(ifin)) {
        pkt->hw.vd = nullptr;
        return;
    }
    if (pkt->hw.vd == nullptr) {
        if (os_headroom(LBETH_HDRLEN, &pkt->hw.vd, &pkt->p.vd, &pkt->osopaque) != 0) {
            LB_LOG(LB_LOG_SELECT | LB_LOG_FAILURE,
                   "Unable to setup eth header, transmitting anyway\n");
            return;
        }
        lb_put16(pkt->hw.eth->type, LBETH_TYPE_IPV4);
    }
    const lbeth_addr_align_t dst = lb_peek(neigh->eaddr);
    const lbeth_addr_align_t src = lb_peek(ifin->setable.ethaddr);
    for (int i = 0; i < LBETH_ADDRLEN; ++i) {
        pkt->hw.eth->dst.b[i] = dst.b[i];
        pkt->hw.eth->src.b[i] = src.b[i];
    }
}

// Sends a packet of `usable` bytes along the route, or answers the client why not.
void _lbsel_sendlink(lbpbuf_obj_t *pkt, lbneigh_route_t *route, int usable)
{
    const lb_u32_t mtu = lb_peek(route->ifin->setable.mtu_sys);
    _lbsel_setlinkheader(pkt, pkt->server->neigh, route->ifin);
    if (static_cast<lb_u32_t>(usable) > mtu) {
        pkt->icmpfuncs.sendpkt2long(pkt->ipfuncs->getsaddr(pkt), LBICMP_CODE_FRAGNEEDED, mtu,
                                    pkt->p.vd, _lbsel_quotelen(pkt, usable));
        _lbsel_counticmp(pkt);
        _lbsel_count(pkt, &lb_proto_stats_t::discard);
        return;
    }
    if (pkt->ipfuncs->decttl(pkt) != 0) {
        pkt->icmpfuncs.sendtimeexceeded(pkt->ipfuncs->getsaddr(pkt), 0, pkt->p.vd,
                                        _lbsel_quotelen(pkt, usable));
        _lbsel_counticmp(pkt);
        _lbsel_count(pkt, &lb_proto_stats_t::err);
        return;
    }
    os_packetxmit(pkt->hw.vd, pkt->p.vd, usable, &route->xmithndl, pkt->osopaque);
    _lbsel_count(pkt, &lb_proto_stats_t::fwd);
    LB_LOG(LB_LOG_SELECT, "forwarded packet success\n");
}

} // namespace

int lbsel_send(lbpbuf_obj_t *pkt)
{
    if (pkt == nullptr) {
        LB_LOG(LB_LOG_SELECT | LB_LOG_FAILURE, "no pkt to forward!\n");
        return LB_PACKETRC_CONSUMED;
    }
    if (pkt->frag_mf != 0 && pkt->frag_offset == 0) {
        lbfrag_pbuf_firstfragment(pkt);
    }
    const lbsrv_obj_t *server = pkt->server;
    lbneigh_route_t *route = server->neigh != nullptr ? lb_peekptr(server->neigh->route) : nullptr;
    const int usable = lbpbuf_usablelen(pkt);
    const bool encapsulate =
        (lb_peek(server->setable.encapflags) & LBSRV_ENCAPFLAG_ENCAPSULATE) != 0;
    if (usable < 0 || route == nullptr || encapsulate) {
        _lbsel_sendfailure(pkt);
    } else {
        _lbsel_sendlink(pkt, route, usable);
    }
    os_packetfree(pkt->osopaque);
    return LB_PACKETRC_CONSUMED;
}
