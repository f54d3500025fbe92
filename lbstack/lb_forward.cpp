// Forwarding: takes a packet to the server that was chosen for it. A neighbour gets it in an
// Ethernet frame, as the client sent it or, behind NAT, with its addresses rewritten; a server of
// this host gets it through the tun device, and a distant one inside IPIP (RFC 2003) or GRE
// (RFC 2784). Clients whose packets can't go on are answered with ICMP errors.
//
// Runs on the receive workers and takes no lock. The server, its neighbour entry and the route in
// it may be retired by other threads meanwhile; their memory stays while the worker is inside the
// stack. Every path frees the host's buffer exactly once, and counts the packet with its protocol,
// its cluster, its port and its server.
#include "lb_forward.h"

#include "lb_cluster.h"
#include "lb_executor.h"
#include "lb_fragment.h"
#include "lb_nat.h"
#include "lb_pbuf.h"
#include "lb_port.h"
#include "lb_select.h"
#include "lb_server.h"

#include "prot/gre.h"

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
    lbexe_getable_t &executor = lbexecutor->getable;
    const bool isv6 = lbpbuf_ethtype(pkt) == LBETH_TYPE_IPV6;
    lb_stat_inc(isv6 ? executor.icmpv6stats.gen : executor.icmpstats.gen);
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
        lb_put16(pkt->hw.eth->type, lbpbuf_ethtype(pkt));
    }
    const lbeth_addr_align_t dst = lb_peek(neigh->eaddr);
    const lbeth_addr_align_t src = lb_peek(ifin->setable.ethaddr);
    for (int i = 0; i < LBETH_ADDRLEN; ++i) {
        pkt->hw.eth->dst.b[i] = dst.b[i];
        pkt->hw.eth->src.b[i] = src.b[i];
    }
}

// Tells the client that its packet is too long for a path of `mtu` bytes.
void _lbsel_sendtoolong(lbpbuf_obj_t *pkt, int usable, lb_u32_t mtu)
{
    pkt->icmpfuncs.sendpkt2long(pkt->ipfuncs->getsaddr(pkt), LBICMP_CODE_FRAGNEEDED, mtu, pkt->p.vd,
                                _lbsel_quotelen(pkt, usable));
    _lbsel_counticmp(pkt);
}

// Readdresses a NAT server's TCP packet, which answers to the port of its connection alone: 0, or
// -1 when that can't be. What else goes to such a server stays as it is.
int _lbsel_translate(lbpbuf_obj_t *pkt)
{
    if (pkt->ipfuncs->getproto(pkt) != LBIP_PROTO_TCP) {
        return 0;
    }
    const lbsrv_obj_t *server = pkt->server;
    const lb_u16_t natport = pkt->_select_prv.natport;
    if (pkt->frag_offset == 0) {
        if (natport == 0) {
            return -1;
        }
        LB_LOG(LB_LOG_SELECT, "source port = %d\n", natport);
    }
    lbip_addr_t returnaddress; // the command thread may be storing the same bytes once more
    lb_load_shared(&returnaddress, &server->addable.returnaddress, sizeof(returnaddress));
    const lb_nat_endpoints_s to = {
        .src = &returnaddress, .dst = &server->config.key.cfg.server, .sport = natport, .dport = 0};
    return lb_nat_rewrite(pkt, &to);
}

// Hands a packet of `usable` bytes to the route's link, or to the tun device: whether it could.
bool _lbsel_transmit(lbpbuf_obj_t *pkt, lbneigh_route_t *route, int usable)
{
    if (lb_peek(pkt->server->setable.Collocated) != 1) {
        os_packetxmit(pkt->hw.vd, pkt->p.vd, usable, &route->xmithndl, pkt->osopaque);
        return true;
    }
    const int tunfd = lb_peek(os_tunfd);
    if (tunfd <= 0) {
        return false;
    }
    os_tunXmit(pkt->p.raw - LBETH_HDRLEN, usable, tunfd);
    LB_LOG(LB_LOG_SELECT, "Collocated forwarded packet success\n");
    return true;
}

// Sends a packet of `usable` bytes along the route, or answers the client why not.
void _lbsel_sendlink(lbpbuf_obj_t *pkt, lbneigh_route_t *route, int usable)
{
    const bool nat = lb_peek(pkt->server->addable.nat) != 0;
    const lb_u32_t mtu = lb_peek(route->ifin->setable.mtu_sys);
    if (static_cast<lb_u32_t>(usable) > mtu) { // before the addresses are rewritten: the client
        _lbsel_sendtoolong(pkt, usable, mtu);  // is to recognise what the error quotes
        _lbsel_count(pkt, &lb_proto_stats_t::discard);
        return;
    }
    if (nat && _lbsel_translate(pkt) != 0) {
        _lbsel_sendfailure(pkt);
        return;
    }
    if (!nat && pkt->ipfuncs->decttl(pkt) != 0) {
        pkt->icmpfuncs.sendtimeexceeded(pkt->ipfuncs->getsaddr(pkt), 0, pkt->p.vd,
                                        _lbsel_quotelen(pkt, usable));
        _lbsel_counticmp(pkt);
        _lbsel_count(pkt, &lb_proto_stats_t::err);
        return;
    }
    _lbsel_setlinkheader(pkt, pkt->server->neigh, route->ifin);
    if (!_lbsel_transmit(pkt, route, usable)) {
        _lbsel_sendfailure(pkt);
        return;
    }
    _lbsel_count(pkt, &lb_proto_stats_t::fwd);
    LB_LOG(LB_LOG_SELECT, "forwarded packet success\n");
}

// Whether a packet may enter the tunnel to its server, which takes `overhead` bytes of the path's
// MTU. The host has tunnels for IPv4 in IPv4 alone. One that is too long and may be fragmented goes
// all the same; its client is told anyway.
bool _lbsel_fitstunnel(lbpbuf_obj_t *pkt, int usable, lb_u32_t overhead)
{
    const lbsrv_obj_t *server = pkt->server;
    if (usable < 0 || server->neigh == nullptr || pkt->ipfuncs->getsaddr(pkt)->version != 4 ||
        server->config.key.cfg.server.version != 4) {
        return false;
    }
    const lb_u32_t mtu = lb_peek(server->neigh->encapmtu);
    if (static_cast<lb_u32_t>(usable) + overhead <= mtu) {
        return true;
    }
    _lbsel_sendtoolong(pkt, usable, mtu > overhead ? mtu - overhead : 0);
    return (lb_get16(pkt->p.v4->fragoff) & LBIPV4_FLAG_DF) == 0;
}

// Sends `length` bytes from `data` on to the server as the payload of an IPv4 packet.
void _lbsel_xmittunnel(lbpbuf_obj_t *pkt, unsigned char *data, int length, int protocol)
{
    const lbsrv_obj_t *server = pkt->server;
    unsigned char src[4];
    unsigned char dst[4];
    lb_load_shared(src, server->setable.encapsrcip.nboaddr.v4, sizeof(src));
    os_memcpy(dst, server->config.key.cfg.server.nboaddr.v4, sizeof(dst));
    os_xmitraw(data, length, src, dst, protocol, pkt->osopaque);
}

lbsel_encapforward_fn _lbsel_forwarder(const lbsrv_obj_t *server)
{
    const unsigned type = lb_peek(server->setable.encapflags) & LBSRV_ENCAPFLAG_TYPEMASK;
    return type <= LBSRV_ENCAPTYPE_MAX ? encapforwardfunc[type] : nullptr;
}

void _lbsel_sendtunnel(lbpbuf_obj_t *pkt)
{
    const lbsel_encapforward_fn forwarder = _lbsel_forwarder(pkt->server);
    if (forwarder == nullptr || forwarder(pkt) != 0) {
        _lbsel_sendfailure(pkt);
        return;
    }
    _lbsel_count(pkt, &lb_proto_stats_t::fwd);
    LB_LOG(LB_LOG_SELECT, "forwarded packet success\n");
}

// Only these have later fragments that follow them; an ICMP message has no ports to remember.
bool _lbsel_isfirstfragment(lbpbuf_obj_t *pkt)
{
    if (pkt->frag_mf == 0 || pkt->frag_offset != 0) {
        return false;
    }
    const lb_u8_t proto = pkt->ipfuncs->getproto(pkt);
    return proto == LBIP_PROTO_TCP || proto == LBIP_PROTO_UDP;
}

} // namespace

int lbsel_send(lbpbuf_obj_t *pkt)
{
    if (pkt == nullptr) {
        LB_LOG(LB_LOG_SELECT | LB_LOG_FAILURE, "no pkt to forward!\n");
        return LB_PACKETRC_CONSUMED;
    }
    if (_lbsel_isfirstfragment(pkt)) {
        lbfrag_pbuf_firstfragment(pkt); // its key is the client's address, so before any rewriting
    }
    const lbsrv_obj_t *server = pkt->server;
    lbneigh_route_t *route = server->neigh != nullptr ? lb_peekptr(server->neigh->route) : nullptr;
    const int usable = lbpbuf_usablelen(pkt);
    const bool encapsulate =
        (lb_peek(server->setable.encapflags) & LBSRV_ENCAPFLAG_ENCAPSULATE) != 0;
    if (usable >= 0 && route != nullptr && !encapsulate) {
        _lbsel_sendlink(pkt, route, usable);
    } else {
        _lbsel_sendtunnel(pkt);
    }
    os_packetfree(pkt->osopaque);
    return LB_PACKETRC_CONSUMED;
}

int lbsel_forwardipip(lbpbuf_obj_t *pkt)
{
    const int usable = lbpbuf_usablelen(pkt);
    if (!_lbsel_fitstunnel(pkt, usable, LBIPV4_HDRLEN) ||
        (lb_peek(pkt->server->addable.nat) != 0 && _lbsel_translate(pkt) != 0)) {
        return 1;
    }
    _lbsel_xmittunnel(pkt, pkt->p.raw, usable, LBIP_PROTO_IPIP);
    return 0;
}

int lbsel_forwardgre(lbpbuf_obj_t *pkt)
{
    const int usable = lbpbuf_usablelen(pkt);
    constexpr int GRELEN = sizeof(lbgre_hdr_t);
    if (!_lbsel_fitstunnel(pkt, usable, LBIPV4_HDRLEN + GRELEN)) {
        return 1;
    }
    // It takes the tail of the link header, which nobody needs any more.
    if (pkt->hw.vd == nullptr &&
        os_headroom(GRELEN, &pkt->hw.vd, &pkt->p.vd, &pkt->osopaque) != 0) {
        return 1;
    }
    if (lb_peek(pkt->server->addable.nat) != 0 && _lbsel_translate(pkt) != 0) {
        return 1;
    }
    auto *gre = reinterpret_cast<lbgre_hdr_t *>(pkt->p.raw - GRELEN);
    lb_put16(gre->flags, 0);
    lb_put16(gre->proto, LBETH_TYPE_IPV4);
    _lbsel_xmittunnel(pkt, pkt->p.raw - GRELEN, usable + GRELEN, LBIP_PROTO_GRE);
    return 0;
}
