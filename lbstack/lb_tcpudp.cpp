// The TCP/UDP entry: finds the port that a packet for a cluster is meant for, notes who the client
// is, has the port's algorithm choose a server, and hands the packet to forwarding. Nothing that
// comes here is left to the host: no host owns a cluster address.
//
// Every receive worker enters at once. The look-up of the port takes the port list's lock; none is
// held while a server is chosen or the packet sent.
#include "lb_tcpudp.h"

#include "lb_cluster.h"
#include "lb_forward.h"
#include "lb_interface.h"
#include "lb_linkedlist.h"
#include "lb_neigh.h"
#include "lb_pbuf.h"
#include "lb_port.h"
#include "lb_select.h"

namespace
{

using choose_fn = lbsrv_obj_t *(*)(lbpbuf_obj_t *pkt);

// Every UDP datagram both opens and confirms a flow.
constexpr lb_u8_t UDP_PSEUDOFLAGS = LBTCP_SYN | LBTCP_ACK;

// Whether `len` bytes of the upper-layer header are there; counted and traced if not.
bool _lbtcpudp_has(lbpbuf_obj_t *pkt, int len)
{
    if (lbpbuf_ulplen(pkt) >= len) {
        return true;
    }
    const int hdrlen = static_cast<int>(pkt->ulp.raw - pkt->p.raw);
    if (pkt->buflen < hdrlen + len && lbpbuf_pullup(pkt, hdrlen + len) != 0 &&
        lbpbuf_ulplen(pkt) >= len) {
        return true;
    }
    lb_stat_inc(pkt->stats->err);
    lbpbuf_trace(LB_LOG_TCPUDP | LB_LOG_PKTERROR, pkt, "pullup failed");
    return false;
}

const lbtcpudp_hdr_t *_lbtcpudp_ports(lbpbuf_obj_t *pkt)
{
    return lb_view<lbtcpudp_hdr_t>(pkt->ulp.vd, lbpbuf_ulplen(pkt));
}

int _lbtcpudp_noalgorithm(lbpbuf_obj_t *pkt)
{
    LB_LOG(LB_LOG_TCPUDP | LB_LOG_FAILURE, "Error: null selection alg\n");
    lb_stat_inc(pkt->port->getable.ipstats.err);
    lb_stat_inc(pkt->stats->err);
    lbpbuf_trace(LB_LOG_TCPUDP | LB_LOG_FAILURE, pkt, "tcpudp error");
    os_packetfree(pkt->osopaque);
    return LB_PACKETRC_CONSUMED;
}

int _lbtcpudp_select(lbpbuf_obj_t *pkt, choose_fn choose)
{
    if (choose == nullptr) {
        return _lbtcpudp_noalgorithm(pkt);
    }
    if (choose(pkt) == nullptr) {
        // The algorithm has counted the packet and freed it.
        lbpbuf_trace(LB_LOG_TCPUDP | LB_LOG_DISCARDED, pkt, "tcpudp packet discarded");
        return LB_PACKETRC_CONSUMED;
    }
    return lbsel_send(pkt);
}

} // namespace

int lbtcpudp_pbuf_entry(lbpbuf_obj_t *pkt)
{
    // Without ports the packet goes on as one for port 0, which no cluster has.
    (void)_lbtcpudp_has(pkt, sizeof(lbtcpudp_hdr_t));
    lb_u16_t dport = lbtcpudp_pbuf_getdport(pkt);
    pkt->port = static_cast<lbport_obj_t *>(lbll_select1(&pkt->cluster->portlist, &dport));
    if (pkt->port == nullptr) {
        lb_stat_inc(pkt->stats->discard);
        lbpbuf_trace(LB_LOG_TCPUDP | LB_LOG_DISCARDED, pkt, "not a lb port");
        os_packetfree(pkt->osopaque);
        return LB_PACKETRC_CONSUMED;
    }
    pkt->_select_prv.sel_clientip = *pkt->ipfuncs->getsaddr(pkt);
    pkt->_select_prv.sel_clientport_hbo = lbtcpudp_pbuf_getsport(pkt);

    switch (pkt->ipfuncs->getproto(pkt)) {
    case LBIP_PROTO_TCP:
        if (!_lbtcpudp_has(pkt, LBTCP_FLAGSEND)) {
            os_packetfree(pkt->osopaque);
            return LB_PACKETRC_CONSUMED;
        }
        pkt->pseudotcpflags = pkt->ulp.tcp->flags & LBTCP_FLAGMASK;
        return _lbtcpudp_select(pkt, selectfunc[lb_peek(pkt->port->addable.selectalg)].choose);
    case LBIP_PROTO_UDP:
        pkt->pseudotcpflags = UDP_PSEUDOFLAGS;
        return _lbtcpudp_select(pkt, selectfunc[lb_peek(pkt->port->addable.udpselectalg)].choose);
    default:
        LB_LOG(LB_LOG_TCPUDP | LB_LOG_FAILURE, "Error: unknown protocol: %d\n",
               pkt->ipfuncs->getproto(pkt));
        pkt->pseudotcpflags = LBTCP_ACK;
        return _lbtcpudp_select(pkt, nullptr);
    }
}

lb_u16_t lbtcpudp_pbuf_getdport(lbpbuf_obj_t *pkt)
{
    const lbtcpudp_hdr_t *ports = _lbtcpudp_ports(pkt);
    pkt->ip.dport_hbo = ports != nullptr ? lb_get16(ports->dport) : lb_u16_t{0};
    return pkt->ip.dport_hbo;
}

lb_u16_t lbtcpudp_pbuf_getsport(lbpbuf_obj_t *pkt)
{
    const lbtcpudp_hdr_t *ports = _lbtcpudp_ports(pkt);
    pkt->ip.sport_hbo = ports != nullptr ? lb_get16(ports->sport) : lb_u16_t{0};
    return pkt->ip.sport_hbo;
}

void lbtcpudp_fillreset(lbtcp_hdr_t *reset, const lbtcp_hdr_t *tcp)
{
    reset->sport = tcp->dport;
    reset->dport = tcp->sport;
    reset->seq = tcp->ack;
    reset->ack = tcp->seq;
    reset->dataoff = sizeof(lbtcp_hdr_t) / 4 << 4;
    reset->flags = LBTCP_RST;
}

int lbtcpudp_sendreset(lbpbuf_obj_t *pkt, lb_u16_t ethtype, lbtcpudp_fillreset_fn fill)
{
    const lbneigh_obj_t *neigh = pkt->ipfuncs->getclientgwneigh(pkt);
    lbneigh_route_t *route = neigh != nullptr ? lb_peekptr(neigh->route) : nullptr;
    if (route == nullptr) {
        LB_LOG(LB_LOG_TCPUDP, "sendreset: no neigh or no interface\n");
        return -1;
    }
    const lbtcp_hdr_t *tcp = lb_view<lbtcp_hdr_t>(pkt->ulp.vd, lbpbuf_ulplen(pkt));
    if (tcp == nullptr) {
        LB_LOG(LB_LOG_TCPUDP, "sendreset: no sequence numbers\n");
        return -1;
    }
    struct {
        lbeth_hdr_t eth;
        lb_u8_t reset[LBTCPUDP_RESETMAX];
    } frame;
    const int len = fill(pkt, tcp, frame.reset);
    const lbeth_addr_align_t dst = lb_peek(neigh->eaddr);
    const lbeth_addr_align_t src = lb_peek(route->ifin->setable.ethaddr);
    os_memcpy(frame.eth.dst.b, dst.b, LBETH_ADDRLEN);
    os_memcpy(frame.eth.src.b, src.b, LBETH_ADDRLEN);
    lb_put16(frame.eth.type, ethtype);
    void *link = lbifin_haslinkheader(route->ifin) ? &frame.eth : nullptr;
    LB_LOG(LB_LOG_TCPUDP | LB_LOG_FAILURE, "Calling os_packetxmit\n");
    os_packetxmit(link, frame.reset, len, &route->xmithndl, nullptr);
    return 0;
}
