// The IPv6 layer: validates every frame that comes in (RFC 8200), builds its packet object, finds
// the upper layer behind its extension headers, and hands it to the version-neutral layer; reads
// and rewrites IPv6 headers for the others, sums pseudo headers, and answers clients with TCP
// resets.
//
// Every receive worker enters at once; no lock is taken, and nothing is kept. No header's length
// is believed: the walk ends where the bytes end that were received, and whoever sends, sums or
// quotes a packet asks lbpbuf_usablelen().
#include "lb_ipv6.h"

#include "lb_executor.h"
#include "lb_icmpv6.h"
#include "lb_ip.h"
#include "lb_ipv4.h"
#include "lb_tcpudp.h"

namespace
{

// The low nibble is cleared, not the flag bits alone: the lowest bit of the offset goes with them.
constexpr lb_u16_t OFFSET_MASK = 0xFFF0;
// What an error may quote: with both headers in front of it, as long as every link must carry
// (RFC 4443, 2.4).
constexpr int QUOTE_MAX = 1232;
constexpr lb_u8_t RESET_HOPLIMIT = 64;

enum quoted_e { RECEIVED, QUOTED };

// Takes note of a fragment header: whether the walk goes on behind it.
bool _lbipv6_passfragment(const lbipv6_frag_t *frag, lbpbuf_obj_t *pkt, quoted_e quoted)
{
    const lb_u16_t offset = lb_get16(frag->offset);
    if (pkt != nullptr) {
        pkt->frag_id = lb_get32(frag->id);
        pkt->frag_mf = offset & 1;
        pkt->frag_offset = offset & OFFSET_MASK;
    }
    if (quoted == QUOTED && (offset & OFFSET_MASK) != 0) {
        LB_LOG(LB_LOG_IPV6, "Original packet is fragmented and this is not the first fragment\n");
        return false;
    }
    return true;
}

std::ptrdiff_t _lbipv6_extlen(const lbipv6_ext_t *ext)
{
    return (std::ptrdiff_t{ext->len} + 1) * LBIPV6_EXTUNIT;
}

// The extension header at `at`, or null if it doesn't end before `end`.
const lbipv6_ext_t *_lbipv6_extension(lb_u8_t *at, const lb_u8_t *end)
{
    const auto *ext = lb_view<lbipv6_ext_t>(at, end - at);
    return ext != nullptr && _lbipv6_extlen(ext) <= end - at ? ext : nullptr;
}

// The upper-layer protocol and its header, or 0 and null.
lb_u8_t _lbipv6_walk(lbipv6_hdr_t *iph, int len, lb_u8_t **protoh, lbpbuf_obj_t *pkt,
                     quoted_e quoted)
{
    auto *at = reinterpret_cast<lb_u8_t *>(iph) + LBIPV6_HDRLEN;
    const lb_u8_t *end = reinterpret_cast<const lb_u8_t *>(iph) + len;
    lb_u8_t proto = iph->nexthdr;
    *protoh = nullptr;
    while (true) {
        switch (proto) {
        case LBIP_PROTO_TCP:
        case LBIP_PROTO_UDP:
        case LBIP_PROTO_GRE:
        case LBIP_PROTO_ICMPV6: *protoh = at; return proto;
        case LBIPV6_NEXT_HOPBYHOP:
        case LBIPV6_NEXT_ROUTING:
        case LBIPV6_NEXT_FRAGMENT:
        case LBIPV6_NEXT_DSTOPTIONS: break;
        default:
            LB_LOG(LB_LOG_IPV6 | LB_LOG_FAILURE, "Error parsing ipv6 extension headers\n");
            return 0;
        }
        const lbipv6_ext_t *ext = _lbipv6_extension(at, end);
        if (ext == nullptr) {
            LB_LOG(LB_LOG_IPV6 | LB_LOG_FAILURE, "Error parsing ipv6 extension headers\n");
            return 0;
        }
        if (proto == LBIPV6_NEXT_FRAGMENT &&
            !_lbipv6_passfragment(lb_view<lbipv6_frag_t>(at, end - at), pkt, quoted)) {
            return 0;
        }
        proto = ext->nexthdr;
        at += _lbipv6_extlen(ext);
    }
}

lbip_addr_t *_lbipv6_pbuf_getsaddr(lbpbuf_obj_t *pkt)
{
    pkt->ip.srcip = lbip_fromv6(pkt->p.v6->src);
    return &pkt->ip.srcip;
}

lbip_addr_t *_lbipv6_pbuf_getdaddr(lbpbuf_obj_t *pkt)
{
    pkt->ip.dstip = lbip_fromv6(pkt->p.v6->dst);
    return &pkt->ip.dstip;
}

lb_u8_t _lbipv6_pbuf_getproto(lbpbuf_obj_t *pkt)
{
    lb_u8_t *upper = nullptr;
    return _lbipv6_getproto(pkt->p.v6, pkt->buflen, &upper, nullptr);
}

int _lbipv6_pbuf_decttl(lbpbuf_obj_t *pkt)
{
    if (pkt->p.v6->hoplimit <= 1) {
        return -1;
    }
    --pkt->p.v6->hoplimit;
    return 0;
}

int _lbipv6_pbuf_gettotlen(lbpbuf_obj_t *pkt)
{
    return lb_get16(pkt->p.v6->payloadlen) + LBIPV6_HDRLEN;
}

int _lbipv6_pbuf_gethdrlen(lbpbuf_obj_t * /*pkt*/)
{
    return LBIPV6_HDRLEN;
}

int _lbipv6_pbuf_geticmpfraglen(lbpbuf_obj_t *pkt)
{
    const int totlen = _lbipv6_pbuf_gettotlen(pkt);
    return totlen < QUOTE_MAX ? totlen : QUOTE_MAX;
}

int _lbipv6_pbuf_setsaddr(lbpbuf_obj_t *pkt, const lbip_addr_t *addr)
{
    if (addr->version != 6) {
        return -1;
    }
    os_memcpy(pkt->p.v6->src, addr->nboaddr.v6, sizeof(pkt->p.v6->src));
    return 0;
}

int _lbipv6_pbuf_setdaddr(lbpbuf_obj_t *pkt, const lbip_addr_t *addr)
{
    if (addr->version != 6) {
        return -1;
    }
    os_memcpy(pkt->p.v6->dst, addr->nboaddr.v6, sizeof(pkt->p.v6->dst));
    return 0;
}

// Sums a TCP segment of `len` bytes, the last of the packet's `total`, into its header.
void _lbipv6_sumtcp(lbipv6_hdr_t *iph, int total, lbtcp_hdr_t *tcp, int len)
{
    lb_put16(tcp->csum, 0);
    const lb_u32_t segment = lbipv4_primativesum(reinterpret_cast<const unsigned char *>(tcp),
                                                 static_cast<unsigned>(len));
    const lb_u32_t sum = lbipv6_pseudohdrsum(iph, total) + segment;
    lb_put16(tcp->csum, static_cast<lb_u16_t>(~lbipv4_foldsum(sum)));
}

// Extension headers are no part of the segment, whatever the payload length counts.
int _lbipv6_pbuf_tcpchksum(lbpbuf_obj_t *pkt)
{
    const int usable = lbpbuf_usablelen(pkt);
    if (usable < 0) {
        return -1;
    }
    const int len = lbpbuf_ulplen(pkt);
    lbtcp_hdr_t *tcp = lb_view<lbtcp_hdr_t>(pkt->ulp.vd, len);
    if (tcp == nullptr) {
        return -1;
    }
    _lbipv6_sumtcp(pkt->p.v6, usable, tcp, len);
    return 0;
}

void _lbipv6_pbuf_hdrchksum(lbpbuf_obj_t * /*pkt*/) {}

lbneigh_obj_t *_lbipv6_pbuf_getclientgwneigh(lbpbuf_obj_t * /*pkt*/)
{
    return lb_peekptr(lbexecutor->clientgw_neigh_ipv6);
}

// Steps from a packet object that knows its bytes to a disposition.
int _lbipv6_pbuf_entry(lbpbuf_obj_t *pkt)
{
    const lbipv6_hdr_t *iph = lb_view<lbipv6_hdr_t>(pkt->p.vd, pkt->buflen);
    if (iph == nullptr || iph->verclassflow.b[0] >> 4 != 6) {
        lb_stat_inc(pkt->stats->err);
        lbpbuf_trace(LB_LOG_IPV6 | LB_LOG_PKTERROR, pkt, "badinput");
        os_packetfree(pkt->osopaque);
        return LB_PACKETRC_CONSUMED;
    }
    pkt->ipfuncs = &lbipv6_funcs;
    pkt->icmpfuncs = {
        .sendpkt2long = lbicmpv6_packet2long,
        .sendtimeexceeded = lbicmpv6_timeexceeded,
    };
    pkt->sendreset = _lbipv6_pbuf_sendreset;
    if (_lbipv6_getproto(pkt->p.v6, pkt->buflen, &pkt->ulp.raw, pkt) == 0) {
        lb_stat_inc(pkt->stats->discard);
        lbpbuf_trace(LB_LOG_IPV6 | LB_LOG_DISCARDED, pkt, "proto");
        os_packetfree(pkt->osopaque);
        return LB_PACKETRC_CONSUMED;
    }
    return lbip_pbuf_entry(pkt);
}

// A reset as it lies on the wire.
struct reset_s {
    lbipv6_hdr_t ip;
    lbtcp_hdr_t tcp;
};
static_assert(sizeof(reset_s) <= LBTCPUDP_RESETMAX && alignof(reset_s) == 1);

int _lbipv6_fillreset(const lbpbuf_obj_t *pkt, const lbtcp_hdr_t *tcp, void *out)
{
    const lbipv6_hdr_t *iph = pkt->p.v6;
    auto *reset = static_cast<reset_s *>(out);
    *reset = reset_s{};
    reset->ip.verclassflow.b[0] = 6 << 4;
    lb_put16(reset->ip.payloadlen, sizeof(lbtcp_hdr_t));
    reset->ip.nexthdr = LBIP_PROTO_TCP;
    reset->ip.hoplimit = RESET_HOPLIMIT;
    os_memcpy(reset->ip.src, iph->dst, sizeof(reset->ip.src));
    os_memcpy(reset->ip.dst, iph->src, sizeof(reset->ip.dst));

    lbtcpudp_fillreset(&reset->tcp, tcp);
    _lbipv6_sumtcp(&reset->ip, sizeof(reset->ip) + sizeof(reset->tcp), &reset->tcp,
                   sizeof(reset->tcp));
    return sizeof(*reset);
}

} // namespace

int lbipv6_entry(void *ethh, void *iph, int len, lb_osopaque_t osopaque)
{
    lb_proto_stats_t *stats = &lbexecutor->getable.ipv6stats;
    LB_LOG(LB_LOG_IPV6, "ipv6_entry\n");
    lb_stat_inc(stats->in);
    lbpbuf_obj_t *pkt = lbpbuf_alloc();
    if (pkt == nullptr) {
        LB_LOG(LB_LOG_IPV6 | LB_LOG_FAILURE | LB_LOG_PKTERROR, "ipv6_entry pbuf-alloc-failure\n");
        lb_stat_inc(stats->err);
        return LB_PACKETRC_INTACT;
    }
    pkt->hw.vd = ethh;
    pkt->p.vd = iph;
    pkt->buflen = len;
    pkt->osopaque = osopaque;
    pkt->stats = stats;
    const int rc = _lbipv6_pbuf_entry(pkt);
    if (rc != LB_PACKETRC_HELD) {
        lbpbuf_free(pkt);
    }
    return rc;
}

lb_u8_t _lbipv6_getproto(lbipv6_hdr_t *iph, int len, lb_u8_t **protoh, lbpbuf_obj_t *pkt)
{
    return _lbipv6_walk(iph, len, protoh, pkt, RECEIVED);
}

lb_u8_t lbipv6_quotedproto(lbipv6_hdr_t *iph, int len, lb_u8_t **protoh)
{
    return _lbipv6_walk(iph, len, protoh, nullptr, QUOTED);
}

lb_u32_t lbipv6_pseudohdrsum(lbipv6_hdr_t *iph, int len)
{
    struct {
        lb_u8_t src[16];
        lb_u8_t dst[16];
        lb_be32_t len;
        lb_u8_t zero[3];
        lb_u8_t nexthdr;
    } pseudo = {};
    static_assert(sizeof(pseudo) == 40);
    const int payloadlen = lb_get16(iph->payloadlen);
    lb_u8_t *upper = nullptr;
    const lb_u8_t proto = _lbipv6_getproto(iph, len, &upper, nullptr);
    const std::ptrdiff_t headers =
        proto != 0 ? upper - reinterpret_cast<lb_u8_t *>(iph) - LBIPV6_HDRLEN : 0;
    os_memcpy(pseudo.src, iph->src, sizeof(pseudo.src));
    os_memcpy(pseudo.dst, iph->dst, sizeof(pseudo.dst));
    lb_put32(pseudo.len, static_cast<lb_u32_t>(payloadlen - headers));
    pseudo.nexthdr = proto != 0 ? proto : iph->nexthdr;
    return lbipv4_primativesum(reinterpret_cast<const unsigned char *>(&pseudo), sizeof(pseudo));
}

int _lbipv6_pbuf_sendreset(lbpbuf_obj_t *pkt)
{
    LB_LOG(LB_LOG_TCPUDP, "ipv6 _lbipv6_pbuf_sendreset entered\n");
    return lbtcpudp_sendreset(pkt, LBETH_TYPE_IPV6, _lbipv6_fillreset);
}

const lbpbuf_ipfuncs_prv_s lbipv6_funcs = {
    .getsaddr = _lbipv6_pbuf_getsaddr,
    .getdaddr = _lbipv6_pbuf_getdaddr,
    .getproto = _lbipv6_pbuf_getproto,
    .decttl = _lbipv6_pbuf_decttl,
    .gettotlen = _lbipv6_pbuf_gettotlen,
    .gethdrlen = _lbipv6_pbuf_gethdrlen,
    .geticmpfraglen = _lbipv6_pbuf_geticmpfraglen,
    .setsaddr = _lbipv6_pbuf_setsaddr,
    .setdaddr = _lbipv6_pbuf_setdaddr,
    .tcpchksum = _lbipv6_pbuf_tcpchksum,
    .getclientgwneigh = _lbipv6_pbuf_getclientgwneigh,
    .hdrchksum = _lbipv6_pbuf_hdrchksum,
};
