// ICMP for IPv4 (RFC 792, RFC 1191). Servers answer clients from the cluster's address, so errors
// about their answers come here: each goes to the server of the connection that it quotes. Echo
// requests go round the cluster's ports and their servers. Errors about packets that we sent
// through a tunnel tell whether and how long packets get through; the host sees them, too. And the
// errors that forwarding sends are built here, in memory of their own, because what they quote lies
// in a receive buffer; the host builds their IP header.
//
// What becomes of an error once its quoted ports are found, and of echo requests, is ICMPv6's way,
// too; each packet counts with the ICMP of its version.
//
// Runs on the receive workers. Look-ups take the locks of lists and tables, one at a time; none is
// held while a packet is sent. What is read of a packet lies within what was received and what its
// total length owns up to; a packet that stays with the host is never written to.
#include "lb_icmp.h"

#include "lb_cluster.h"
#include "lb_executor.h"
#include "lb_forward.h"
#include "lb_ip.h"
#include "lb_ipv4.h"
#include "lb_neigh.h"
#include "lb_port.h"
#include "lb_sel_connection.h"
#include "lb_select.h"

namespace
{

constexpr lb_u64_t FAILURE = LB_LOG_ICMP | LB_LOG_FAILURE;
constexpr int ICMPLEN = sizeof(lbicmp_hdr_t);
constexpr int QUOTEDDATA = 8;                             // what an error quotes of the data
constexpr int TUNNELLEN = ICMPLEN + sizeof(lbipv4_hdr_t); // of an error about a tunnel

bool _lbicmp_isv6(const lbpbuf_obj_t *pkt)
{
    return pkt->ip.dstip.version == 6;
}

lb_u64_t _lbicmp_logbit(const lbpbuf_obj_t *pkt)
{
    return _lbicmp_isv6(pkt) ? LB_LOG_ICMPV6 : LB_LOG_ICMP;
}

// Counts the packet with its protocol, with the ICMP of its version, and with the cluster's ICMP if
// it is for one.
template <class T> void _lbicmp_count(lbpbuf_obj_t *pkt, T lb_proto_stats_t::*counter)
{
    lbexe_getable_t &executor = lbexecutor->getable;
    lb_proto_stats_t &own = _lbicmp_isv6(pkt) ? executor.icmpv6stats : executor.icmpstats;
    lb_stat_inc(pkt->stats->*counter);
    lb_stat_inc(own.*counter);
    if (pkt->cluster != nullptr) {
        lb_stat_inc(pkt->cluster->getable.icmpstats.*counter);
    }
}

int _lbicmp_notforus(lbpbuf_obj_t *pkt)
{
    _lbicmp_count(pkt, &lb_proto_stats_t::notforus);
    lbpbuf_trace(LB_LOG_ICMP | LB_LOG_INTACT, pkt, "notforus");
    return LB_PACKETRC_INTACT;
}

int _lbicmp_forward(lbpbuf_obj_t *pkt)
{
    _lbicmp_count(pkt, &lb_proto_stats_t::fwd);
    return lbsel_send(pkt);
}

int _lbicmp_hdrlen(const lbipv4_hdr_t *iph)
{
    return (iph->verihl & 15) * 4;
}

// The header of the packet that an error quotes, if all of it and `more` bytes behind it are there.
const lbipv4_hdr_t *_lbicmp_quoted(lbpbuf_obj_t *pkt, int more)
{
    const int len = lbpbuf_ulplen(pkt) - ICMPLEN;
    const lbipv4_hdr_t *iph = lb_view<lbipv4_hdr_t>(pkt->ulp.raw + ICMPLEN, len);
    if (iph == nullptr || iph->verihl >> 4 != 4) {
        return nullptr;
    }
    const int hdrlen = _lbicmp_hdrlen(iph);
    return hdrlen >= static_cast<int>(sizeof(*iph)) && hdrlen + more <= len ? iph : nullptr;
}

// --- Errors about servers' answers ---------------------------------------------------------------

lbsrv_obj_t *_lbicmp_serverby(lbpbuf_obj_t *pkt, lb_u8_t algorithm)
{
    lbport_obj_t *port = pkt->port;
    const lbip_addr_t *client = lbsel_pbuf_getclientaddr(pkt);
    const lb_u16_t clientport = lbsel_pbuf_getclientport(pkt);
    switch (algorithm) {
    case LBSEL_ALGORIGHM_HASH: {
        lb_u32_t seed = clientport;
        return lbsel_chooseserver(pkt, &seed);
    }
    case LBSEL_ALGORIGHM_UDPRR:
        return lbsel_chooseserver(pkt, &port->serverset.seeds[LBSRVSET_SEED_UDPRR]);
    case LBSEL_ALGORIGHM_CONNECTION: return lbsel_ct_findserver(port, client, clientport);
    case LBSEL_ALGORIGHM_AFFINITY: return lbsel_at_findserver(port, client);
    case LBSEL_ALGORIGHM_CONN_AFFIN: {
        lbsrv_obj_t *server = lbsel_ct_findserver(port, client, clientport);
        return server != nullptr ? server : lbsel_at_findserver(port, client);
    }
    default: return nullptr;
    }
}

lbsrv_obj_t *_lbicmp_findserver(lbpbuf_obj_t *pkt, lb_u8_t protocol)
{
    switch (protocol) {
    case LBIP_PROTO_TCP: return _lbicmp_serverby(pkt, lb_peek(pkt->port->addable.selectalg));
    case LBIP_PROTO_UDP: return _lbicmp_serverby(pkt, lb_peek(pkt->port->addable.udpselectalg));
    default: break;
    }
    LB_LOG(FAILURE, "protocol was tcp/udp, but now ain't!\n");
    return nullptr;
}

int _lbicmp_pbuf_ip_entry(lbpbuf_obj_t *pkt)
{
    const lbipv4_hdr_t *iph = _lbicmp_quoted(pkt, QUOTEDDATA);
    if (iph == nullptr) {
        return _lbicmp_badinput(pkt);
    }
    pkt->_select_prv.sel_clientip = lbip_fromv4(iph->dst);
    if ((lb_get16(iph->fragoff) & LBIPV4_OFFSET_MASK) != 0) {
        // Its data begins in the middle of something: there are no ports to know a connection by.
        LB_LOG(LB_LOG_ICMP, "Original packet is fragmented and this is not the first fragment\n");
        return _lbicmp_drop(pkt, "proto");
    }
    if (iph->proto != LBIP_PROTO_TCP && iph->proto != LBIP_PROTO_UDP) {
        return _lbicmp_drop(pkt, "proto");
    }
    const auto *data = reinterpret_cast<const unsigned char *>(iph) + _lbicmp_hdrlen(iph);
    return _lbicmp_pbuf_tcpudp_entry(pkt, lb_view<lbtcpudp_hdr_t>(data, QUOTEDDATA), iph->proto);
}

// --- Echo requests -------------------------------------------------------------------------------

// The list's member number `seed`, counted round; null when there is none.
void *_lbicmp_pick(lbll_list_t *list, unsigned int seed)
{
    const unsigned size = static_cast<unsigned>(lbll_size(list));
    if (size == 0) {
        return nullptr;
    }
    lb_s32_t key[2] = {static_cast<lb_s32_t>(seed % size), 0};
    void *found = nullptr;
    // None is found where members left since they were counted.
    return lbll_selectn(list, &found, 1, _lbsel_llfilter_strictrr, key) == 1 ? found : nullptr;
}

lbport_obj_t *_lbicmp_chooseport_rr(lbpbuf_obj_t *pkt, unsigned int seed)
{
    LB_LOG(LB_LOG_ICMP, "_lbicmp_chooseport_rr\n");
    return static_cast<lbport_obj_t *>(_lbicmp_pick(&pkt->cluster->portlist, seed));
}

lbsrv_obj_t *_lbicmp_chooseserver_rr(lbpbuf_obj_t *pkt, unsigned int seed)
{
    LB_LOG(LB_LOG_ICMP, "_lbicmp_chooseserver_rr\n");
    return static_cast<lbsrv_obj_t *>(_lbicmp_pick(&pkt->port->serverlist, seed));
}

// --- Errors about our own tunnels ----------------------------------------------------------------

// Nothing but the checksum vouches for the message, and frames reach us before the host's packet
// filter: who must not send such messages is to be shut out in front of this machine. The MTU is
// taken as it comes, also the 0 of routers older than RFC 1191; it holds until another message or a
// command sets it.
void _lbicmp_learn(const lbicmp_hdr_t *hdr, lbneigh_obj_t *neigh)
{
    if (hdr->code == LBICMP_CODE_FRAGNEEDED) {
        const lb_u16_t mtu = lb_get16(hdr->nexthopmtu);
        lb_poke(neigh->encapmtu, mtu);
        LB_LOG(LB_LOG_ICMP | LB_LOG_EVENT, "reset server encapmtu to %d\n", mtu);
        return;
    }
    lb_poke(neigh->encapreachable, 0);
    LB_LOG(LB_LOG_ICMP | LB_LOG_EVENT, "server marked as unreachable\n");
}

int _lbicmp_pbuf_tunnel_entry(lbpbuf_obj_t *pkt, const lbicmp_hdr_t *hdr)
{
    if (pkt->ipfuncs->gettotlen(pkt) < pkt->ipfuncs->gethdrlen(pkt) + TUNNELLEN) {
        _lbicmp_count(pkt, &lb_proto_stats_t::discard);
        return LB_PACKETRC_INTACT;
    }
    if (hdr->type != LBICMP_TYPE_UNREACHABLE) {
        return _lbicmp_notforus(pkt);
    }
    const lbipv4_hdr_t *iph = _lbicmp_quoted(pkt, 0);
    if (iph == nullptr) {
        return _lbicmp_badinput(pkt);
    }
    if (iph->proto != LBIP_PROTO_IPIP && iph->proto != LBIP_PROTO_GRE) {
        _lbicmp_count(pkt, &lb_proto_stats_t::discard);
        return LB_PACKETRC_INTACT;
    }
    if (lb_get16(hdr->csum) != lbicmp_csum(hdr, lbpbuf_ulplen(pkt))) {
        return _lbicmp_badinput(pkt);
    }
    const lbip_addr_t farend = lbip_fromv4(iph->dst);
    lbneigh_obj_t *neigh = lbneigh_lookup(&farend);
    if (neigh == nullptr) {
        return _lbicmp_notforus(pkt);
    }
    _lbicmp_learn(hdr, neigh);
    return LB_PACKETRC_INTACT;
}

// --- What is sent --------------------------------------------------------------------------------

// Sends `hdr` and behind it what it quotes; false when nothing was sent.
bool _lbicmp_send(const lbicmp_hdr_t &hdr, const lbip_addr_t *dstip, const void *data,
                  lb_u32_t length)
{
    if (dstip->version != 4) {
        LB_LOG(FAILURE, "icmp(v4) to an address of version %d, not sent\n", dstip->version);
        return false;
    }
    const int total = static_cast<int>(sizeof(hdr) + length);
    unsigned char *message = static_cast<unsigned char *>(os_memalloc(total));
    if (message == nullptr) {
        LB_LOG(FAILURE, "icmp(v4) allocation of message failed\n");
        return false;
    }
    os_memcpy(message, &hdr, sizeof(hdr));
    os_memcpy(message + sizeof(hdr), data, length);
    lbicmp_hdr_t *built = lb_view<lbicmp_hdr_t>(message, total);
    lb_put16(built->csum, lbicmp_csum(built, total));
    unsigned char dest[4];
    os_memcpy(dest, dstip->nboaddr.v4, sizeof(dest));
    os_xmitraw(message, total, nullptr, dest, LBIP_PROTO_ICMP, nullptr);
    os_memfree(message);
    return true;
}

} // namespace

int lbicmp_pbuf_entry(lbpbuf_obj_t *pkt)
{
    lb_stat_inc(lbexecutor->getable.icmpstats.in);
    if (pkt->cluster != nullptr) {
        lb_stat_inc(pkt->cluster->getable.icmpstats.in);
    }
    if (pkt->frag_offset != 0) { // it begins in the middle of a message: there is no type
        return pkt->cluster != nullptr ? _lbicmp_drop(pkt, "icmp-unhandled-type")
                                       : _lbicmp_notforus(pkt);
    }
    const lbicmp_hdr_t *hdr = lb_view<lbicmp_hdr_t>(pkt->ulp.vd, lbpbuf_ulplen(pkt));
    if (hdr == nullptr) {
        return _lbicmp_badinput(pkt);
    }
    if (pkt->cluster == nullptr) {
        return _lbicmp_pbuf_tunnel_entry(pkt, hdr);
    }
    switch (hdr->type) {
    case LBICMP_TYPE_ECHOREQUEST: return lbicmp_pbuf_fwdrr(pkt);
    case LBICMP_TYPE_UNREACHABLE:
    case LBICMP_TYPE_SOURCEQUENCH:
    case LBICMP_TYPE_REDIRECT:
    case LBICMP_TYPE_TIMEEXCEEDED: return _lbicmp_pbuf_ip_entry(pkt);
    default: return _lbicmp_drop(pkt, "icmp-unhandled-type");
    }
}

int _lbicmp_pbuf_tcpudp_entry(lbpbuf_obj_t *pkt, const lbtcpudp_hdr_t *tcpudphdr, lb_u8_t protocol)
{
    const unsigned char *end = pkt->ulp.raw + lbpbuf_ulplen(pkt);
    const std::ptrdiff_t len = end - reinterpret_cast<const unsigned char *>(tcpudphdr);
    const lbtcpudp_hdr_t *ports = lb_view<lbtcpudp_hdr_t>(tcpudphdr, len);
    if (ports == nullptr) {
        return _lbicmp_badinput(pkt);
    }
    // The quoted packet went from the server to the client.
    pkt->_select_prv.sel_clientport_hbo = lb_get16(ports->dport);
    lb_u16_t number = lb_get16(ports->sport);
    pkt->port = static_cast<lbport_obj_t *>(lbll_select1(&pkt->cluster->portlist, &number));
    if (pkt->port == nullptr) {
        return _lbicmp_drop(pkt, "icmp-no-port-match");
    }
    pkt->server = _lbicmp_findserver(pkt, protocol);
    return pkt->server != nullptr ? _lbicmp_forward(pkt) : _lbicmp_drop(pkt, "no-existing-record");
}

int _lbicmp_drop(lbpbuf_obj_t *pkt, const char *label)
{
    _lbicmp_count(pkt, &lb_proto_stats_t::discard);
    lbpbuf_trace(_lbicmp_logbit(pkt) | LB_LOG_DISCARDED, pkt, label);
    os_packetfree(pkt->osopaque);
    return LB_PACKETRC_CONSUMED;
}

int _lbicmp_badinput(lbpbuf_obj_t *pkt)
{
    _lbicmp_count(pkt, &lb_proto_stats_t::err);
    lbpbuf_trace(_lbicmp_logbit(pkt) | LB_LOG_PKTERROR, pkt, "badinput");
    if (pkt->cluster == nullptr) {
        return LB_PACKETRC_INTACT;
    }
    os_packetfree(pkt->osopaque);
    return LB_PACKETRC_CONSUMED;
}

int lbicmp_pbuf_fwdrr(lbpbuf_obj_t *pkt)
{
    pkt->port = _lbicmp_chooseport_rr(pkt, lb_take_next(pkt->cluster->getable.sel_rr_icmpctr));
    if (pkt->port == nullptr) {
        return _lbicmp_drop(pkt, "icmp-no-ports");
    }
    lb_u32_t &seed = pkt->port->serverset.seeds[LBSRVSET_SEED_ICMP];
    pkt->server = _lbicmp_chooseserver_rr(pkt, lb_take_next(seed));
    if (pkt->server == nullptr) {
        return _lbicmp_drop(pkt, "icmp-no-servers");
    }
    lbpbuf_trace(_lbicmp_logbit(pkt) | LB_LOG_FORWARDED, pkt, "icmp-fwd");
    return _lbicmp_forward(pkt);
}

lb_u16_t lbicmp_csum(const lbicmp_hdr_t *icmphdr, int icmplen)
{
    constexpr int REST = offsetof(lbicmp_hdr_t, csum) + sizeof(icmphdr->csum);
    const auto *message = reinterpret_cast<const unsigned char *>(icmphdr);
    const lb_u32_t sum = lbipv4_primativesum(message, offsetof(lbicmp_hdr_t, csum)) +
                         lbipv4_primativesum(message + REST, static_cast<unsigned>(icmplen - REST));
    return static_cast<lb_u16_t>(~lbipv4_foldsum(sum));
}

int lbicmp_dstnotreach(lbip_addr_t *dstip, int code, lb_u32_t nexthopmtu, void *data,
                       lb_u32_t length)
{
    lbicmp_hdr_t hdr = {};
    hdr.type = LBICMP_TYPE_UNREACHABLE;
    hdr.code = static_cast<lb_u8_t>(code);
    lb_put16(hdr.nexthopmtu, static_cast<lb_u16_t>(nexthopmtu));
    if (_lbicmp_send(hdr, dstip, data, length)) {
        LB_LOG(LB_LOG_ICMP, "icmp(v4) Destination unreachable packet sent. code=%d\n", code);
    }
    return 0;
}

int lbicmp_timeexceeded(lbip_addr_t *dstip, int code, void *data, lb_u32_t length)
{
    lbicmp_hdr_t hdr = {};
    hdr.type = LBICMP_TYPE_TIMEEXCEEDED;
    hdr.code = static_cast<lb_u8_t>(code);
    if (_lbicmp_send(hdr, dstip, data, length)) {
        LB_LOG(LB_LOG_ICMP, "icmp(v4) time exceeded packet sent.\n");
    }
    return 0;
}
