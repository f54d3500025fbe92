// The IPv4 layer: validates every frame that comes in (RFC 791), builds its packet object and hands
// it to the version-neutral layer; reads and rewrites IPv4 headers for the others, sums them
// (RFC 1071, incrementally as in RFC 1141), and answers clients with TCP resets.
//
// Every receive worker enters at once; no lock is taken, and nothing is kept but the identification
// of packets that are built here. A header's total length is not believed here: whoever sends, sums
// or quotes a packet asks lbpbuf_usablelen().
#include "lb_ipv4.h"

#include "lb_executor.h"
#include "lb_icmp.h"
#include "lb_ip.h"
#include "lb_tcpudp.h"

namespace
{

constexpr int LARGEST_PACKET = 1600;
constexpr lb_u8_t RESET_TTL = 64;

lb_u16_t ipid = 0;

lbip_addr_t *_lbipv4_pbuf_getsaddr(lbpbuf_obj_t *pkt)
{
    pkt->ip.srcip = lbip_fromv4(pkt->p.v4->src);
    return &pkt->ip.srcip;
}

lbip_addr_t *_lbipv4_pbuf_getdaddr(lbpbuf_obj_t *pkt)
{
    pkt->ip.dstip = lbip_fromv4(pkt->p.v4->dst);
    return &pkt->ip.dstip;
}

lb_u8_t _lbipv4_pbuf_getproto(lbpbuf_obj_t *pkt)
{
    return pkt->p.v4->proto;
}

int _lbipv4_pbuf_decttl(lbpbuf_obj_t *pkt)
{
    lbipv4_hdr_t *iph = pkt->p.v4;
    if (iph->ttl <= 1) {
        return -1;
    }
    --iph->ttl;
    const lb_u32_t sum = static_cast<lb_u32_t>(lb_get16(iph->csum)) + 0x0100;
    lb_put16(iph->csum, static_cast<lb_u16_t>(sum + (sum >> 16)));
    return 0;
}

int _lbipv4_pbuf_gettotlen(lbpbuf_obj_t *pkt)
{
    return lb_get16(pkt->p.v4->totlen);
}

int _lbipv4_hdrlen(const lbipv4_hdr_t *iph)
{
    return (iph->verihl & 15) * 4;
}

int _lbipv4_pbuf_gethdrlen(lbpbuf_obj_t *pkt)
{
    return _lbipv4_hdrlen(pkt->p.v4);
}

int _lbipv4_pbuf_geticmpfraglen(lbpbuf_obj_t *pkt)
{
    return _lbipv4_hdrlen(pkt->p.v4) + 8; // RFC 792: the header and 64 bits of data
}

int _lbipv4_pbuf_setsaddr(lbpbuf_obj_t *pkt, const lbip_addr_t *addr)
{
    if (addr->version != 4) {
        return -1;
    }
    os_memcpy(pkt->p.v4->src, addr->nboaddr.v4, sizeof(pkt->p.v4->src));
    return 0;
}

int _lbipv4_pbuf_setdaddr(lbpbuf_obj_t *pkt, const lbip_addr_t *addr)
{
    if (addr->version != 4) {
        return -1;
    }
    os_memcpy(pkt->p.v4->dst, addr->nboaddr.v4, sizeof(pkt->p.v4->dst));
    return 0;
}

// The checksum of a TCP segment of `len` bytes behind the header `iph`; the stored one is cleared.
lb_u16_t _lbipv4_tcpchecksum(const lbipv4_hdr_t *iph, lbtcp_hdr_t *tcp, int len)
{
    lb_put16(tcp->csum, 0);
    const lb_u32_t pseudo = lbipv4_pseudohdrsum(reinterpret_cast<const unsigned char *>(iph));
    const lb_u32_t segment = lbipv4_primativesum(reinterpret_cast<const unsigned char *>(tcp),
                                                 static_cast<unsigned>(len));
    return static_cast<lb_u16_t>(~lbipv4_foldsum(pseudo + segment));
}

int _lbipv4_pbuf_tcpchksum(lbpbuf_obj_t *pkt)
{
    lbipv4_hdr_t *iph = pkt->p.v4;
    const int len = lbpbuf_usablelen(pkt) - _lbipv4_hdrlen(iph);
    lbtcp_hdr_t *tcp = lb_view<lbtcp_hdr_t>(pkt->ulp.vd, len);
    if (tcp == nullptr) {
        return -1;
    }
    lb_put16(iph->csum, lbipv4_checksum(pkt->p.raw));
    const lb_u16_t sum = _lbipv4_tcpchecksum(iph, tcp, len);
    LB_LOG(LB_LOG_TCPUDP, "tcpchksum=%d\n", sum);
    lb_put16(tcp->csum, sum);
    LB_LOG(LB_LOG_TCPUDP, "tcpchksum in pkt =%d\n", lb_get16(tcp->csum));
    return 0;
}

void _lbipv4_pbuf_hdrchksum(lbpbuf_obj_t *pkt)
{
    lb_put16(pkt->p.v4->csum, lbipv4_checksum(pkt->p.raw));
}

lbneigh_obj_t *_lbipv4_pbuf_getclientgwneigh(lbpbuf_obj_t * /*pkt*/)
{
    return lb_peekptr(lbexecutor->clientgw_neigh);
}

// Whether `len` bytes at `iph` begin with a header that can be read; its total length is nobody's
// business yet.
bool _lbipv4_isheader(const void *iph, int len)
{
    const lbipv4_hdr_t *hdr = lb_view<lbipv4_hdr_t>(iph, len);
    if (hdr == nullptr) {
        return false;
    }
    const int hdrlen = _lbipv4_hdrlen(hdr);
    return hdrlen >= static_cast<int>(sizeof(lbipv4_hdr_t)) && hdrlen <= len &&
           hdr->verihl >> 4 == 4;
}

// 0 and 0xFFFF pass unverified: frames whose sender leaves the sum to its hardware carry them.
bool _lbipv4_issumgood(lbpbuf_obj_t *pkt)
{
    const lb_u16_t stored = lb_get16(pkt->p.v4->csum);
    if (stored == 0 || stored == 0xFFFF) {
        return true;
    }
    const lb_u16_t sum = lbipv4_checksum(pkt->p.raw);
    if (sum == stored) {
        return true;
    }
    lbpbuf_trace(LB_LOG_IPV4 | LB_LOG_PKTERROR, pkt, "badip4chksum");
    LB_LOG(LB_LOG_IPV4, "sum=%x pktsum=%x\n", sum, stored);
    return false;
}

// Steps from a packet object that knows its bytes to a disposition.
int _lbipv4_pbuf_entry(lbpbuf_obj_t *pkt)
{
    if (!_lbipv4_isheader(pkt->p.vd, pkt->buflen)) {
        lb_stat_inc(pkt->stats->err);
        lbpbuf_trace(LB_LOG_IPV4 | LB_LOG_PKTERROR, pkt, "badinput");
        os_packetfree(pkt->osopaque);
        return LB_PACKETRC_CONSUMED;
    }
    if (!_lbipv4_issumgood(pkt)) {
        lb_stat_inc(pkt->stats->err);
        os_packetfree(pkt->osopaque);
        return LB_PACKETRC_CONSUMED;
    }
    pkt->ipfuncs = &lbipv4_funcs;
    pkt->icmpfuncs = {
        .sendpkt2long = lbicmp_dstnotreach,
        .sendtimeexceeded = lbicmp_timeexceeded,
    };
    pkt->sendreset = _lbipv4_pbuf_sendreset;
    pkt->ulp.raw = pkt->p.raw + _lbipv4_hdrlen(pkt->p.v4);

    const lb_u16_t fragoff = lb_get16(pkt->p.v4->fragoff);
    pkt->frag_id = lb_get16(pkt->p.v4->id);
    pkt->frag_mf = (fragoff & LBIPV4_FLAG_MF) != 0;
    pkt->frag_offset = static_cast<lb_u16_t>((fragoff & LBIPV4_OFFSET_MASK) * 8);
    if (pkt->frag_offset != 0 || pkt->frag_mf != 0) {
        LB_LOG(LB_LOG_IPV4, "frag_id=%x frag_mf=%x frag_offset=%x\n", pkt->frag_id, pkt->frag_mf,
               pkt->frag_offset);
    }
    return lbip_pbuf_entry(pkt);
}

// A reset as it lies on the wire.
struct reset_s {
    lbipv4_hdr_t ip;
    lbtcp_hdr_t tcp;
};
static_assert(sizeof(reset_s) <= LBTCPUDP_RESETMAX && alignof(reset_s) == 1);

int _lbipv4_fillreset(const lbpbuf_obj_t *pkt, const lbtcp_hdr_t *tcp, void *out)
{
    const lbipv4_hdr_t *iph = pkt->p.v4;
    auto *reset = static_cast<reset_s *>(out);
    *reset = reset_s{};
    reset->ip.verihl = 0x45;
    lb_put16(reset->ip.totlen, sizeof(lbipv4_hdr_t) + sizeof(lbtcp_hdr_t));
    lb_put16(reset->ip.id, static_cast<lb_u16_t>(lb_take_next(ipid) + 1));
    reset->ip.ttl = RESET_TTL;
    reset->ip.proto = LBIP_PROTO_TCP;
    os_memcpy(reset->ip.src, iph->dst, sizeof(reset->ip.src));
    os_memcpy(reset->ip.dst, iph->src, sizeof(reset->ip.dst));
    lb_put16(reset->ip.csum, lbipv4_checksum(&reset->ip.verihl));

    lbtcpudp_fillreset(&reset->tcp, tcp);
    lb_put16(reset->tcp.csum, _lbipv4_tcpchecksum(&reset->ip, &reset->tcp, sizeof(lbtcp_hdr_t)));
    return sizeof(*reset);
}

} // namespace

int lbipv4_entry(void *ethh, void *iph, int len, lb_osopaque_t osopaque)
{
    lb_proto_stats_t *stats = &lbexecutor->getable.ipv4stats;
    if (len > LARGEST_PACKET) {
        LB_LOG(LB_LOG_IPV4 | LB_LOG_FAILURE | LB_LOG_PKTERROR, "Error packet too big %d %X\n", len,
               lb_log_low32(lbexecutor));
        lb_stat_inc(stats->err);
        return LB_PACKETRC_INTACT;
    }
    lb_stat_inc(stats->in);
    lbpbuf_obj_t *pkt = lbpbuf_alloc();
    if (pkt == nullptr) {
        LB_LOG(LB_LOG_IPV4 | LB_LOG_FAILURE | LB_LOG_PKTERROR, "ipv4_entry pbuf-alloc-failure\n");
        lb_stat_inc(stats->err);
        return LB_PACKETRC_INTACT;
    }
    pkt->hw.vd = ethh;
    pkt->p.vd = iph;
    pkt->buflen = len;
    pkt->osopaque = osopaque;
    pkt->stats = stats;
    const int rc = _lbipv4_pbuf_entry(pkt);
    if (rc != LB_PACKETRC_HELD) {
        lbpbuf_free(pkt);
    }
    return rc;
}

lb_u16_t lbipv4_checksum(const unsigned char *iph)
{
    const lbipv4_hdr_t *hdr = reinterpret_cast<const lbipv4_hdr_t *>(iph);
    const lb_u16_t stored = lb_get16(hdr->csum);
    const lb_u32_t sum =
        lbipv4_primativesum(iph, static_cast<unsigned>(_lbipv4_hdrlen(hdr))) - stored;
    const lb_u16_t answer = static_cast<lb_u16_t>(~lbipv4_foldsum(sum));
    LB_LOG(LB_LOG_IPV4, "ipv4_checksum sum=%x, returning answer=%x, pktcksum=%x\n", sum, answer,
           stored);
    return answer;
}

lb_u32_t lbipv4_pseudohdrsum(const unsigned char *iph)
{
    const lbipv4_hdr_t *hdr = reinterpret_cast<const lbipv4_hdr_t *>(iph);
    lb_u32_t sum = lbipv4_primativesum(hdr->src, sizeof(hdr->src) + sizeof(hdr->dst));
    sum += hdr->proto;
    sum += static_cast<lb_u16_t>(lb_get16(hdr->totlen) - _lbipv4_hdrlen(hdr));
    return sum;
}

lb_u32_t lbipv4_primativesum(const unsigned char *buf, unsigned len)
{
    lb_u32_t sum = 0;
    unsigned i = 0;
    for (; i + 1 < len; i += 2) {
        sum += static_cast<lb_u32_t>(buf[i] << 8 | buf[i + 1]);
    }
    if (i < len) {
        sum += static_cast<lb_u32_t>(buf[i] << 8);
    }
    LB_LOG(LB_LOG_IPV4, "primativesum returning %x\n", sum);
    return sum;
}

lb_u16_t lbipv4_foldsum(lb_u32_t sum)
{
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<lb_u16_t>(sum + (sum >> 16));
}

int _lbipv4_pbuf_sendreset(lbpbuf_obj_t *pkt)
{
    LB_LOG(LB_LOG_TCPUDP, "ipv4 lbtcp_sendreset entered\n");
    return lbtcpudp_sendreset(pkt, LBETH_TYPE_IPV4, _lbipv4_fillreset);
}

const lbpbuf_ipfuncs_prv_s lbipv4_funcs = {
    .getsaddr = _lbipv4_pbuf_getsaddr,
    .getdaddr = _lbipv4_pbuf_getdaddr,
    .getproto = _lbipv4_pbuf_getproto,
    .decttl = _lbipv4_pbuf_decttl,
    .gettotlen = _lbipv4_pbuf_gettotlen,
    .gethdrlen = _lbipv4_pbuf_gethdrlen,
    .geticmpfraglen = _lbipv4_pbuf_geticmpfraglen,
    .setsaddr = _lbipv4_pbuf_setsaddr,
    .setdaddr = _lbipv4_pbuf_setdaddr,
    .tcpchksum = _lbipv4_pbuf_tcpchksum,
    .getclientgwneigh = _lbipv4_pbuf_getclientgwneigh,
    .hdrchksum = _lbipv4_pbuf_hdrchksum,
};
