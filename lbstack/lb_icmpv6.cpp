// ICMPv6 (RFC 4443) and the messages of neighbour discovery (RFC 4861). Solicitations and
// advertisements are checked here, and the neighbour table reads them through a table of functions;
// what it sends is built here. Errors about servers' answers go to the servers of the connections
// that they quote, and echo requests go round, both in the way of ICMP for IPv4. And the errors
// that forwarding sends are built here; the host builds their IP header and sums them.
//
// Receive workers enter with messages; the timer and the command thread come to send. No lock is
// taken and nothing is kept. What is read of a packet lies within what was received and what its
// payload length owns up to; what is not consumed is the host's and is never written to. The hop
// limit of neighbour messages is not looked at: who must not send them is to be shut out in front
// of this machine.
#include "lb_icmpv6.h"

#include "lb_cluster.h"
#include "lb_executor.h"
#include "lb_icmp.h"
#include "lb_ip.h"
#include "lb_ipv4.h"
#include "lb_ipv6.h"
#include "lb_neigh.h"

namespace
{

constexpr lb_u64_t FAILURE = LB_LOG_ICMPV6 | LB_LOG_FAILURE;
constexpr int ICMPLEN = sizeof(lbicmpv6_hdr_t);
constexpr int NEIGHLEN = sizeof(lbicmpv6_neigh_t);
constexpr int OPTIONEND = NEIGHLEN + sizeof(lbicmpv6_option_t);
constexpr int SRCHW_PAYLOAD = 32; // the two tests for an option differ on purpose
constexpr int TGTHW_BUFFER = 56;
constexpr lb_u8_t HOPLIMIT = 255; // RFC 4861, 4.3
constexpr int IP6LEN = 16;

lb_proto_stats_t &_lbicmpv6_stats()
{
    return lbexecutor->getable.icmpv6stats;
}

// --- What the neighbour table reads --------------------------------------------------------------

const lbicmpv6_neigh_t *_lbicmpv6_message(lbpbuf_obj_t *pkt)
{
    return reinterpret_cast<const lbicmpv6_neigh_t *>(pkt->ulp.icmpv6); // all of it is there
}

bool _lbicmpv6_isadvertisement(lbpbuf_obj_t *pkt)
{
    return pkt->ulp.icmpv6->type == LBICMPV6_TYPE_ADVERTISEMENT;
}

lbip_addr_t *_lbicmpv6_pbuf_getsrcip(lbpbuf_obj_t *pkt)
{
    pkt->neigh.srcip = lbip_fromv6(_lbicmpv6_isadvertisement(pkt) ? _lbicmpv6_message(pkt)->target
                                                                  : pkt->p.v6->src);
    return &pkt->neigh.srcip;
}

lbip_addr_t *_lbicmpv6_pbuf_gettgtip(lbpbuf_obj_t *pkt)
{
    pkt->neigh.tgtip = lbip_fromv6(_lbicmpv6_isadvertisement(pkt) ? pkt->p.v6->dst
                                                                  : _lbicmpv6_message(pkt)->target);
    return &pkt->neigh.tgtip;
}

// The option's address where there may be an option and all of one is there. Otherwise the one that
// is known of the neighbour, and failing that the station's that sent the frame.
unsigned char *_lbicmpv6_hw(lbpbuf_obj_t *pkt, const lbneigh_obj_t *neigh, bool mayhaveoption)
{
    if (mayhaveoption && lbpbuf_ulplen(pkt) >= OPTIONEND) {
        return reinterpret_cast<lbicmpv6_option_t *>(pkt->ulp.raw + NEIGHLEN)->address.b;
    }
    constexpr lbeth_addr_t UNKNOWN = {};
    pkt->neigh.hw = neigh != nullptr ? lb_peek(neigh->eaddr) : lbeth_addr_align_t{};
    if (pkt->hw.vd != nullptr && os_memcmp(pkt->neigh.hw.b, UNKNOWN.b, LBETH_ADDRLEN) == 0) {
        os_memcpy(pkt->neigh.hw.b, pkt->hw.eth->src.b, LBETH_ADDRLEN);
    }
    return pkt->neigh.hw.b;
}

unsigned char *_lbicmpv6_pbuf_getsrchw(lbpbuf_obj_t *pkt, lbneigh_obj_t *neigh)
{
    return _lbicmpv6_hw(pkt, neigh, lb_get16(pkt->p.v6->payloadlen) >= SRCHW_PAYLOAD);
}

unsigned char *_lbicmpv6_pbuf_gettgthw(lbpbuf_obj_t *pkt, lbneigh_obj_t *neigh)
{
    return _lbicmpv6_hw(pkt, neigh, pkt->buflen >= TGTHW_BUFFER);
}

int _lbicmpv6_pbuf_gettype(lbpbuf_obj_t *pkt)
{
    switch (pkt->ulp.icmpv6->type) {
    case LBICMPV6_TYPE_SOLICITATION: return LBNEIGH_TYPE_REQUEST;
    case LBICMPV6_TYPE_ADVERTISEMENT: return LBNEIGH_TYPE_REPLY;
    default: LB_LOG(LB_LOG_ICMPV6, "gettype(): Invalid Type!\n"); return LBNEIGH_TYPE_UNDEF;
    }
}

extern const lbpbuf_neighfuncs_prv_s lbicmpv6_neighfuncs;

// --- Messages that come in -----------------------------------------------------------------------

unsigned _lbicmpv6_group(const unsigned char *ip, int group)
{
    const std::ptrdiff_t at = std::ptrdiff_t{group} * 2;
    return static_cast<unsigned>(ip[at] << 8 | ip[at + 1]);
}

void _lbicmpv6_print(const lbicmpv6_hdr_t *icmpv6, lbpbuf_obj_t *pkt)
{
    const char *name = icmpv6->type == LBICMPV6_TYPE_SOLICITATION    ? "REQUEST"
                       : icmpv6->type == LBICMPV6_TYPE_ADVERTISEMENT ? "REPLY"
                                                                     : "UNKNOWN";
    // The two make one line.
    LB_LOG(LB_LOG_ICMPV6, "icmpv6: type=%s (%d) code=%d csum=0x%x res=0x%x", name, icmpv6->type,
           icmpv6->code, lb_get16(icmpv6->csum), lb_get32(icmpv6->word));
    const unsigned char *s = pkt->p.v6->src;
    const unsigned char *d = pkt->p.v6->dst;
    LB_LOG(
        LB_LOG_ICMPV6, "ipv6: %x:%x:%x:%x:%x:%x:%x:%x --> %x:%x:%x:%x:%x:%x:%x:%x\n",
        _lbicmpv6_group(s, 0), _lbicmpv6_group(s, 1), _lbicmpv6_group(s, 2), _lbicmpv6_group(s, 3),
        _lbicmpv6_group(s, 4), _lbicmpv6_group(s, 5), _lbicmpv6_group(s, 6), _lbicmpv6_group(s, 7),
        _lbicmpv6_group(d, 0), _lbicmpv6_group(d, 1), _lbicmpv6_group(d, 2), _lbicmpv6_group(d, 3),
        _lbicmpv6_group(d, 4), _lbicmpv6_group(d, 5), _lbicmpv6_group(d, 6), _lbicmpv6_group(d, 7));
}

int _lbicmpv6_toosmall(lbpbuf_obj_t *pkt)
{
    LB_LOG(LB_LOG_ICMPV6, "icmpv6_pbuf_entry packet too small: %d\n", pkt->buflen);
    lb_stat_inc(_lbicmpv6_stats().err);
    return LB_PACKETRC_INTACT;
}

// A length beyond what was received has no checksum that could be right.
bool _lbicmpv6_issumgood(lbpbuf_obj_t *pkt)
{
    const lbicmpv6_hdr_t *message = pkt->ulp.icmpv6;
    return lbpbuf_usablelen(pkt) >= 0 &&
           lb_get16(message->csum) == lbicmpv6_csum(pkt->p.v6, pkt->buflen, message);
}

int _lbicmpv6_pbuf_neigh_entry(lbpbuf_obj_t *pkt)
{
    if (lbpbuf_ulplen(pkt) < NEIGHLEN) {
        return _lbicmpv6_toosmall(pkt);
    }
    if (!_lbicmpv6_issumgood(pkt)) {
        LB_LOG(LB_LOG_ICMPV6, "icmpv6_pbuf_entry invalid checksum\n");
        lb_stat_inc(_lbicmpv6_stats().discard);
        return LB_PACKETRC_INTACT;
    }
    pkt->stats = &_lbicmpv6_stats();
    pkt->neighfuncs = &lbicmpv6_neighfuncs;
    if (lb_log_enabled(LB_LOG_ICMPV6)) {
        _lbicmpv6_print(pkt->ulp.icmpv6, pkt);
    }
    return lbneigh_pbuf_entry(pkt);
}

// An error for a cluster, which quotes what a server sent to its client.
int _lbicmpv6_pbuf_ip_entry(lbpbuf_obj_t *pkt)
{
    const int len = lbpbuf_ulplen(pkt) - ICMPLEN;
    lbipv6_hdr_t *iph = lb_view<lbipv6_hdr_t>(pkt->ulp.raw + ICMPLEN, len);
    if (iph == nullptr || lb_get32(iph->verclassflow) >> 28 != 6) {
        return _lbicmp_badinput(pkt);
    }
    pkt->_select_prv.sel_clientip = lbip_fromv6(iph->dst);
    lb_u8_t *upper = nullptr;
    const lb_u8_t proto = lbipv6_quotedproto(iph, len, &upper);
    if (proto != LBIP_PROTO_TCP && proto != LBIP_PROTO_UDP) {
        return _lbicmp_drop(pkt, "proto");
    }
    return _lbicmp_pbuf_tcpudp_entry(pkt, reinterpret_cast<const lbtcpudp_hdr_t *>(upper), proto);
}

// --- Messages that are sent ----------------------------------------------------------------------

struct neighframe_s {
    lbeth_hdr_t eth;
    lbipv6_hdr_t ip;
    lbicmpv6_neigh_t message;
    lbicmpv6_option_t option;
};
static_assert(sizeof(neighframe_s) == 86 && offsetof(neighframe_s, message) == 54);
constexpr int NEIGHPACKET = sizeof(neighframe_s) - sizeof(lbeth_hdr_t);

// What a neighbour message says, as its type has it.
void _lbicmpv6_fillmessage(neighframe_s *frame, int type, const unsigned char *ip_sender,
                           const unsigned char *ip_target)
{
    lbicmpv6_neigh_t &message = frame->message;
    const lb_u32_t flagshift = 24;
    switch (type) {
    case LBNEIGH_TYPE_REQUEST:
    case LBNEIGH_TYPE_VERIFY:
        message.hdr.type = LBICMPV6_TYPE_SOLICITATION;
        os_memcpy(message.target, ip_target, IP6LEN);
        return;
    case LBNEIGH_TYPE_REPLY:
        message.hdr.type = LBICMPV6_TYPE_ADVERTISEMENT;
        lb_put32(message.hdr.word,
                 lb_u32_t{LBICMPV6_FLAG_SOLICITED | LBICMPV6_FLAG_OVERRIDE} << flagshift);
        os_memcpy(message.target, ip_sender, IP6LEN);
        return;
    case LBNEIGH_TYPE_GRAT:
        message.hdr.type = LBICMPV6_TYPE_ADVERTISEMENT;
        lb_put32(message.hdr.word, lb_u32_t{LBICMPV6_FLAG_OVERRIDE} << flagshift);
        os_memcpy(message.target, ip_sender, IP6LEN);
        return;
    default: LB_LOG(FAILURE, "lbicmpv6_send invalid type\n");
    }
}

// To a multicast address; its Ethernet address is made of its last four bytes (RFC 2464, 7).
void _lbicmpv6_setgroup(neighframe_s *frame, const unsigned char *group)
{
    frame->eth.dst = {{0x33, 0x33, group[12], group[13], group[14], group[15]}};
    os_memcpy(frame->ip.dst, group, IP6LEN);
}

// Whom a neighbour message goes to, as its type has it.
void _lbicmpv6_filldestination(neighframe_s *frame, int type, const unsigned char *eth_dhost,
                               const unsigned char *ip_target)
{
    switch (type) {
    case LBNEIGH_TYPE_REQUEST: { // the solicited-node address: RFC 4291, 2.7.1
        const unsigned char group[IP6LEN] = {
            0xFF,         2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xFF, ip_target[13], ip_target[14],
            ip_target[15]};
        _lbicmpv6_setgroup(frame, group);
        return;
    }
    case LBNEIGH_TYPE_GRAT: {
        constexpr unsigned char ALLNODES[IP6LEN] = {0xFF, 2, 0, 0, 0, 0, 0, 0,
                                                    0,    0, 0, 0, 0, 0, 0, 1};
        _lbicmpv6_setgroup(frame, ALLNODES);
        return;
    }
    case LBNEIGH_TYPE_REPLY:
    case LBNEIGH_TYPE_VERIFY:
        os_memcpy(frame->eth.dst.b, eth_dhost, LBETH_ADDRLEN);
        os_memcpy(frame->ip.dst, ip_target, IP6LEN);
        return;
    default: LB_LOG(FAILURE, "lbicmpv6_send invalid type\n");
    }
}

void _lbicmpv6_filloption(neighframe_s *frame, int type, const unsigned char *eth_shost)
{
    frame->option.len = 1;
    os_memcpy(frame->option.address.b, eth_shost, LBETH_ADDRLEN);
    switch (type) {
    case LBNEIGH_TYPE_REQUEST:
    case LBNEIGH_TYPE_VERIFY: frame->option.type = LBICMPV6_OPTION_SOURCE; return;
    case LBNEIGH_TYPE_REPLY:
    case LBNEIGH_TYPE_GRAT: frame->option.type = LBICMPV6_OPTION_TARGET; return;
    default: LB_LOG(FAILURE, "lbicmpv6_send invalid type for opthdr\n");
    }
}

// Whether an error may be sent to the address: nobody's and a group's get none (RFC 4443, 2.4 (e)).
bool _lbicmpv6_isanswerable(const lbip_addr_t *dstip)
{
    return dstip->version == 6 && dstip->nboaddr.v6[0] != 0xFF &&
           lbip_isaddrvalid(dstip) == LBIP_VALID_YES;
}

// Sends `hdr` and behind it what it quotes; false when nothing was sent. The host stores the
// checksum, which needs the source address.
bool _lbicmpv6_senderror(const lbicmpv6_hdr_t &hdr, const lbip_addr_t *dstip, const void *data,
                         lb_u32_t length)
{
    if (!_lbicmpv6_isanswerable(dstip)) {
        LB_LOG(LB_LOG_ICMPV6, "icmp(v6) to no host's IPv6 address, not sent\n");
        return false;
    }
    const int total = static_cast<int>(sizeof(hdr) + length);
    unsigned char *message = static_cast<unsigned char *>(os_memalloc(total));
    if (message == nullptr) {
        LB_LOG(FAILURE, "icmp(v6) allocation of message failed\n");
        return false;
    }
    os_memcpy(message, &hdr, sizeof(hdr));
    os_memcpy(message + sizeof(hdr), data, length);
    unsigned char dest[IP6LEN];
    os_memcpy(dest, dstip->nboaddr.v6, sizeof(dest));
    os_xmitraw6(message, total, dest, LBIP_PROTO_ICMPV6);
    os_memfree(message);
    return true;
}

} // namespace

int lbicmpv6_pbuf_entry(lbpbuf_obj_t *pkt)
{
    LB_LOG(LB_LOG_ICMPV6, "icmpv6_pbuf_entry\n");
    lb_stat_inc(_lbicmpv6_stats().in);
    if (pkt->cluster != nullptr) {
        lb_stat_inc(pkt->cluster->getable.icmpstats.in);
    }
    const lbicmpv6_hdr_t *hdr = lb_view<lbicmpv6_hdr_t>(pkt->ulp.vd, lbpbuf_ulplen(pkt));
    if (hdr == nullptr) {
        return _lbicmpv6_toosmall(pkt);
    }
    if (pkt->frag_offset == 0) { // later fragments begin in the middle of a message: no type
        switch (hdr->type) {
        case LBICMPV6_TYPE_ECHOREQUEST:
            return pkt->cluster != nullptr ? lbicmp_pbuf_fwdrr(pkt) : LB_PACKETRC_INTACT;
        case LBICMPV6_TYPE_UNREACHABLE:
        case LBICMPV6_TYPE_PACKETTOOBIG:
        case LBICMPV6_TYPE_TIMEEXCEEDED:
        case LBICMPV6_TYPE_PARAMPROBLEM:
            return pkt->cluster != nullptr ? _lbicmpv6_pbuf_ip_entry(pkt) : LB_PACKETRC_INTACT;
        case LBICMPV6_TYPE_SOLICITATION:
        case LBICMPV6_TYPE_ADVERTISEMENT: return _lbicmpv6_pbuf_neigh_entry(pkt);
        default: break;
        }
    }
    LB_LOG(LB_LOG_ICMPV6, "icmpv6_pbuf_entry OP uninteresting\n");
    lb_stat_inc(_lbicmpv6_stats().discard);
    return LB_PACKETRC_INTACT;
}

lb_u16_t lbicmpv6_csum(lbipv6_hdr_t *ipv6h, int len, const lbicmpv6_hdr_t *icmpv6h)
{
    LB_LOG(LB_LOG_ICMPV6, "icmpv6_csum\n");
    constexpr std::ptrdiff_t REST = offsetof(lbicmpv6_hdr_t, csum) + sizeof(icmpv6h->csum);
    const auto *message = reinterpret_cast<const unsigned char *>(icmpv6h);
    const std::ptrdiff_t before = message - reinterpret_cast<const unsigned char *>(ipv6h);
    const int declared = LBIPV6_HDRLEN + lb_get16(ipv6h->payloadlen);
    const std::ptrdiff_t rest = (declared < len ? declared : len) - before - REST;
    lb_u32_t sum = lbipv6_pseudohdrsum(ipv6h, len);
    sum += lbipv4_primativesum(message, offsetof(lbicmpv6_hdr_t, csum));
    sum += lbipv4_primativesum(message + REST, rest > 0 ? static_cast<unsigned>(rest) : 0);
    return static_cast<lb_u16_t>(~lbipv4_foldsum(sum));
}

int lbicmpv6_send(int type, const unsigned char *eth_dhost, const unsigned char *eth_shost,
                  const unsigned char *ip_sender, const unsigned char *ip_target,
                  lb_xmithandle_t *xmithndl)
{
    LB_LOG(LB_LOG_ICMPV6, "icmpv6_send %d\n", type);
    neighframe_s frame = {};
    os_memcpy(frame.eth.src.b, eth_shost, LBETH_ADDRLEN);
    lb_put16(frame.eth.type, LBETH_TYPE_IPV6);
    lb_put32(frame.ip.verclassflow, lb_u32_t{6} << 28);
    lb_put16(frame.ip.payloadlen, sizeof(frame.message) + sizeof(frame.option));
    frame.ip.nexthdr = LBIP_PROTO_ICMPV6;
    frame.ip.hoplimit = HOPLIMIT;
    os_memcpy(frame.ip.src, ip_sender, sizeof(frame.ip.src));
    _lbicmpv6_filldestination(&frame, type, eth_dhost, ip_target);
    _lbicmpv6_fillmessage(&frame, type, ip_sender, ip_target);
    _lbicmpv6_filloption(&frame, type, eth_shost);
    lb_put16(frame.message.hdr.csum, lbicmpv6_csum(&frame.ip, NEIGHPACKET, &frame.message.hdr));
    os_packetxmit(&frame.eth, &frame.ip, NEIGHPACKET, xmithndl, nullptr);
    lb_stat_inc(_lbicmpv6_stats().gen);
    return 1;
}

int lbicmpv6_packet2long(lbip_addr_t *dstip, int /*code*/, lb_u32_t nexthopmtu, void *data,
                         lb_u32_t length)
{
    lbicmpv6_hdr_t hdr = {};
    hdr.type = LBICMPV6_TYPE_PACKETTOOBIG;
    lb_put32(hdr.word, nexthopmtu);
    if (_lbicmpv6_senderror(hdr, dstip, data, length)) {
        LB_LOG(LB_LOG_ICMPV6, "icmp(v6) packet2long packet sent with %d bytes of data.\n", length);
    }
    return 0;
}

int lbicmpv6_timeexceeded(lbip_addr_t *dstip, int /*code*/, void *data, lb_u32_t length)
{
    lbicmpv6_hdr_t hdr = {};
    hdr.type = LBICMPV6_TYPE_TIMEEXCEEDED;
    if (_lbicmpv6_senderror(hdr, dstip, data, length)) {
        LB_LOG(LB_LOG_ICMPV6, "icmp(v6) time_ exceeded packet sent with %d bytes of data.\n",
               length);
    }
    return 0;
}

namespace
{

const lbpbuf_neighfuncs_prv_s lbicmpv6_neighfuncs = {
    .getsrcip = _lbicmpv6_pbuf_getsrcip,
    .gettgtip = _lbicmpv6_pbuf_gettgtip,
    .getsrchw = _lbicmpv6_pbuf_getsrchw,
    .gettgthw = _lbicmpv6_pbuf_gettgthw,
    .gettype = _lbicmpv6_pbuf_gettype,
};

} // namespace
