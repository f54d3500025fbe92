// ARP (RFC 826): checks what comes in and hands it to the neighbour table, and builds the messages
// that the table sends.
//
// Receive workers enter with messages, the timer and the command thread to send. No lock is taken.
// The packet object of a message lives on its worker's stack, so a message is never held.
#include "lb_arp.h"

#include "lb_executor.h"
#include "lb_ip.h"
#include "lb_neigh.h"
#include "lb_pbuf.h"

namespace
{

constexpr lbeth_addr_t BROADCAST = {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};

lbip_addr_t *_lbarp_pbuf_getsrcip(lbpbuf_obj_t *pkt)
{
    pkt->neigh.srcip = lbip_fromv4(pkt->p.arp->srcip);
    return &pkt->neigh.srcip;
}

lbip_addr_t *_lbarp_pbuf_gettgtip(lbpbuf_obj_t *pkt)
{
    pkt->neigh.tgtip = lbip_fromv4(pkt->p.arp->tgtip);
    return &pkt->neigh.tgtip;
}

unsigned char *_lbarp_pbuf_getsrchw(lbpbuf_obj_t *pkt, lbneigh_obj_t * /*neigh*/)
{
    return pkt->p.arp->srchw.b;
}

unsigned char *_lbarp_pbuf_gettgthw(lbpbuf_obj_t *pkt, lbneigh_obj_t * /*neigh*/)
{
    return pkt->p.arp->tgthw.b;
}

int _lbarp_pbuf_gettype(lbpbuf_obj_t *pkt)
{
    switch (lb_get16(pkt->p.arp->hdr.op)) {
    case LBARP_OP_REQUEST: return LBNEIGH_TYPE_REQUEST;
    case LBARP_OP_REPLY: return LBNEIGH_TYPE_REPLY;
    default: return LBNEIGH_TYPE_UNDEF;
    }
}

void _lbarp_print(const lbarp_pkt_t *arp)
{
    const lb_u8_t *s = arp->srchw.b;
    const lb_u8_t *t = arp->tgthw.b;
    LB_LOG(LB_LOG_ARP,
           "arp op %d from %02x:%02x:%02x:%02x:%02x:%02x %d.%d.%d.%d for "
           "%02x:%02x:%02x:%02x:%02x:%02x %d.%d.%d.%d\n",
           lb_get16(arp->hdr.op), s[0], s[1], s[2], s[3], s[4], s[5], arp->srcip[0], arp->srcip[1],
           arp->srcip[2], arp->srcip[3], t[0], t[1], t[2], t[3], t[4], t[5], arp->tgtip[0],
           arp->tgtip[1], arp->tgtip[2], arp->tgtip[3]);
}

// The message at `bytes` if it is one that the neighbour table can read, else null.
lbarp_pkt_t *_lbarp_check(void *bytes, int len)
{
    const lbarp_hdr_t *hdr = lb_view<lbarp_hdr_t>(bytes, len);
    const int hdrlen = sizeof(lbarp_hdr_t);
    const int hwlen = hdr != nullptr ? hdr->hwlen : 0;
    const int protolen = hdr != nullptr ? hdr->protolen : 0;
    if (hdr == nullptr || len < hdrlen + 2 * hwlen + 2 * protolen) {
        LB_LOG(LB_LOG_ARP | LB_LOG_FAILURE | LB_LOG_PKTERROR,
               "arp_entry packet too small %d < %d + 2*%d + 2*%d\n", len, hdrlen, hwlen, protolen);
        return nullptr;
    }
    if (lb_get16(hdr->hwtype) != LBARP_HW_ETHERNET) {
        LB_LOG(LB_LOG_ARP, "arp_entry not ethernet\n");
        return nullptr;
    }
    if (lb_get16(hdr->prototype) != LBETH_TYPE_IPV4) {
        LB_LOG(LB_LOG_ARP, "arp_entry not ethertype ip\n");
        return nullptr;
    }
    if (hwlen != LBETH_ADDRLEN) {
        LB_LOG(LB_LOG_ARP, "arp_entry hwlen not ethernet\n");
        return nullptr;
    }
    if (protolen != 4) {
        LB_LOG(LB_LOG_ARP, "arp_entry proto not ipv4\n");
        return nullptr;
    }
    const lb_u16_t op = lb_get16(hdr->op);
    if (op != LBARP_OP_REQUEST && op != LBARP_OP_REPLY) {
        LB_LOG(LB_LOG_ARP, "arp_entry OP uninteresting\n");
        return nullptr;
    }
    return lb_view<lbarp_pkt_t>(bytes, len);
}

extern const lbpbuf_neighfuncs_prv_s lbarp_neighfuncs;

} // namespace

int lbarp_entry(void *ethh, void *varp, int len, lb_osopaque_t osopaque)
{
    LB_LOG(LB_LOG_ARP, "arp_entry\n");
    lb_stat_inc(lbexecutor->getable.arpstats.in);
    lbarp_pkt_t *arp = _lbarp_check(varp, len);
    if (arp == nullptr) {
        return LB_PACKETRC_INTACT;
    }
    lbpbuf_obj_t pkt = {};
    pkt.hw.vd = ethh;
    pkt.p.arp = arp;
    pkt.buflen = len;
    pkt.osopaque = osopaque;
    pkt.stats = &lbexecutor->getable.arpstats;
    pkt.neighfuncs = &lbarp_neighfuncs;
    _lbarp_print(arp);
    return lbneigh_pbuf_entry(&pkt);
}

void lbarp_send(int type, const unsigned char *eth_dhost, const unsigned char *eth_shost,
                const unsigned char *ip_sender, const unsigned char *ip_target,
                lb_xmithandle_t *xmithndl)
{
    struct {
        lbeth_hdr_t eth;
        lbarp_pkt_t arp;
    } frame = {};
    static_assert(sizeof(frame) == 42);

    lb_u16_t op = LBARP_OP_REQUEST;
    const unsigned char *dhost = BROADCAST.b;
    switch (type) {
    case LBNEIGH_TYPE_REQUEST:
    case LBNEIGH_TYPE_GRAT: break;
    case LBNEIGH_TYPE_VERIFY: dhost = eth_dhost; break;
    case LBNEIGH_TYPE_REPLY:
        op = LBARP_OP_REPLY;
        dhost = eth_dhost;
        os_memcpy(frame.arp.tgthw.b, eth_dhost, LBETH_ADDRLEN);
        break;
    default: LB_LOG(LB_LOG_ARP | LB_LOG_FAILURE, "lbarp_send invalid type\n"); return;
    }
    os_memcpy(frame.eth.dst.b, dhost, LBETH_ADDRLEN);
    os_memcpy(frame.eth.src.b, eth_shost, LBETH_ADDRLEN);
    lb_put16(frame.eth.type, LBETH_TYPE_ARP);
    lb_put16(frame.arp.hdr.hwtype, LBARP_HW_ETHERNET);
    lb_put16(frame.arp.hdr.prototype, LBETH_TYPE_IPV4);
    frame.arp.hdr.hwlen = LBETH_ADDRLEN;
    frame.arp.hdr.protolen = sizeof(frame.arp.srcip);
    lb_put16(frame.arp.hdr.op, op);
    os_memcpy(frame.arp.srchw.b, eth_shost, LBETH_ADDRLEN);
    os_memcpy(frame.arp.srcip, ip_sender, sizeof(frame.arp.srcip));
    os_memcpy(frame.arp.tgtip, ip_target, sizeof(frame.arp.tgtip));
    os_packetxmit(&frame.eth, &frame.arp, sizeof(frame.arp), xmithndl, nullptr);
    lb_stat_inc(lbexecutor->getable.arpstats.gen);
}

namespace
{

const lbpbuf_neighfuncs_prv_s lbarp_neighfuncs = {
    .getsrcip = _lbarp_pbuf_getsrcip,
    .gettgtip = _lbarp_pbuf_gettgtip,
    .getsrchw = _lbarp_pbuf_getsrchw,
    .gettgthw = _lbarp_pbuf_gettgthw,
    .gettype = _lbarp_pbuf_gettype,
};

} // namespace
