// The IPv6 layer: finds what lies behind the extension headers of a packet (RFC 8200, 4), and sums
// pseudo headers. The forwarder serves IPv4 clusters only, so every IPv6 frame belongs to the host;
// the frames are counted, so that an operator sees that they come.
//
// Every receive worker enters at once; no lock is taken, and nothing is kept. No header's length
// is believed: the walk ends where the bytes end that were received.
#include "lb_ipv6.h"

#include "lb_executor.h"
#include "lb_ipv4.h"

namespace
{

// The low nibble is cleared, not the flag bits alone: the lowest bit of the offset goes with them.
constexpr lb_u16_t OFFSET_MASK = 0xFFF0;

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

// The extension header at `at`, or null if it doesn't end before `end`.
const lbipv6_ext_t *_lbipv6_extension(lb_u8_t *at, const lb_u8_t *end)
{
    const auto *ext = lb_view<lbipv6_ext_t>(at, end - at);
    return ext != nullptr && (ext->len + 1) * LBIPV6_EXTUNIT <= end - at ? ext : nullptr;
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
        at += (ext->len + 1) * LBIPV6_EXTUNIT;
    }
}

} // namespace

int lbipv6_entry(void * /*ethh*/, void * /*iph*/, int /*len*/, lb_osopaque_t /*osopaque*/)
{
    lb_stat_inc(lbexecutor->getable.ipv6stats.in);
    return LB_PACKETRC_INTACT;
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
