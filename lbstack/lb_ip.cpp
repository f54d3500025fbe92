// The version-neutral IP layer: decides by destination and protocol which module takes a packet,
// and helps everyone with addresses.
//
// Every receive worker enters at once. The look-ups of the cluster and of the return address take
// the lock of their list; no lock is held while the packet goes on. Nothing is kept here.
#include "lb_ip.h"

#include "lb_executor.h"
#include "lb_fragment.h"
#include "lb_heartbeat.h"
#include "lb_icmp.h"
#include "lb_icmpv6.h"
#include "lb_linkedlist.h"
#include "lb_nat.h"
#include "lb_pbuf.h"
#include "lb_tcpudp.h"

namespace
{

// An address as its numbers, for the trace: eight 16-bit groups.
struct groups_s {
    unsigned g[8];
};
groups_s _lbip_groups(const lbip_addr_t *a)
{
    groups_s groups;
    for (int i = 0; i < 8; ++i) {
        const std::size_t at = static_cast<std::size_t>(i) * 2;
        groups.g[i] = static_cast<unsigned>(a->nboaddr.v6[at] << 8 | a->nboaddr.v6[at + 1]);
    }
    return groups;
}

lb_u32_t _lbip_word(const unsigned char *nbo)
{
    return static_cast<lb_u32_t>(nbo[0]) << 24 | static_cast<lb_u32_t>(nbo[1]) << 16 |
           static_cast<lb_u32_t>(nbo[2]) << 8 | nbo[3];
}

bool _lbip_onnetof4(const lbip_addr_t *ip, const lbip_addr_t *net)
{
    const unsigned prefix = net->prefix < 32 ? net->prefix : 32;
    // 64 bits wide, so that a shift by a whole word means what it says.
    const lb_u32_t mask = static_cast<lb_u32_t>(0xFFFFFFFFULL << (32 - prefix));
    return (_lbip_word(ip->nboaddr.v4) & mask) == (_lbip_word(net->nboaddr.v4) & mask);
}

bool _lbip_onnetof6(const lbip_addr_t *ip, const lbip_addr_t *net)
{
    unsigned char mask[16] = {};
    for (unsigned bit = 0; bit < net->prefix && bit < 128; ++bit) {
        mask[bit / 8] = static_cast<unsigned char>(mask[bit / 8] | 0x80 >> bit % 8);
    }
    if (lb_log_enabled(LB_LOG_IP)) {
        const groups_s i = _lbip_groups(ip);
        const groups_s n = _lbip_groups(net);
        LB_LOG(LB_LOG_IP,
               "onnetof ip %x:%x:%x:%x:%x:%x:%x:%x net %x:%x:%x:%x:%x:%x:%x:%x prefix %d --> mask "
               "%x:%x:%x:%x\n",
               i.g[0], i.g[1], i.g[2], i.g[3], i.g[4], i.g[5], i.g[6], i.g[7], n.g[0], n.g[1],
               n.g[2], n.g[3], n.g[4], n.g[5], n.g[6], n.g[7], net->prefix, _lbip_word(mask),
               _lbip_word(mask + 4), _lbip_word(mask + 8), _lbip_word(mask + 12));
    }
    lbip_addr_t maskedip = {};
    lbip_addr_t maskednet = {};
    (void)_lbip_maskaddr6(&maskedip, ip, mask); // both are of version 6: it can't refuse
    (void)_lbip_maskaddr6(&maskednet, net, mask);
    return lbip_isaddrequal(&maskedip, &maskednet) != 0;
}

using entry_fn = int (*)(lbpbuf_obj_t *pkt);

// The entry for the ICMP of the packet's own version, or null; the other's number means nothing.
entry_fn _lbip_icmpentry(const lbip_addr_t *dst, lb_u8_t proto)
{
    if (proto == LBIP_PROTO_ICMP && dst->version == 4) {
        return lbicmp_pbuf_entry;
    }
    return proto == LBIP_PROTO_ICMPV6 && dst->version == 6 ? lbicmpv6_pbuf_entry : nullptr;
}

int _lbip_forcluster(lbpbuf_obj_t *pkt, const lbip_addr_t *dst)
{
    const lb_u8_t proto = pkt->ipfuncs->getproto(pkt);
    if (proto == LBIP_PROTO_TCP || proto == LBIP_PROTO_UDP) {
        // A first fragment has the ports, so it goes the way of a whole packet, and the others
        // after it.
        return pkt->frag_offset != 0 ? lbfrag_pbuf_entry(pkt) : lbtcpudp_pbuf_entry(pkt);
    }
    if (const entry_fn icmp = _lbip_icmpentry(dst, proto); icmp != nullptr) {
        return icmp(pkt);
    }
    lb_stat_inc(pkt->stats->discard);
    lbpbuf_trace(LB_LOG_IP | LB_LOG_DISCARDED, pkt, "proto");
    os_packetfree(pkt->osopaque);
    return LB_PACKETRC_CONSUMED;
}

// The return address that a TCP packet is for, or null. Without NAT servers it costs a look at the
// list's size.
lb_retaddr_obj_t *_lbip_returnaddress(lbpbuf_obj_t *pkt, lbip_addr_t *dst)
{
    lbll_list_t *addresses = &lbexecutor->retaddrlist;
    if (lbll_size(addresses) == 0 || pkt->ipfuncs->getproto(pkt) != LBIP_PROTO_TCP) {
        return nullptr;
    }
    return static_cast<lb_retaddr_obj_t *>(lbll_select1(addresses, dst));
}

// Whether it is what partners of a pair send each other. Who sent it is not asked.
bool _lbip_isheartbeat(lbpbuf_obj_t *pkt)
{
    if (!lbha_hasrole() || pkt->ipfuncs->getproto(pkt) != LBIP_PROTO_UDP || pkt->frag_offset != 0 ||
        lbpbuf_ulplen(pkt) < static_cast<int>(sizeof(lbtcpudp_hdr_t))) {
        return false;
    }
    const lb_u16_t port = lb_peek(lbexecutor->setable.ha.port);
    return lbtcpudp_pbuf_getsport(pkt) == port && lbtcpudp_pbuf_getdport(pkt) == port;
}

int _lbip_forothers(lbpbuf_obj_t *pkt, lbip_addr_t *dst)
{
    if (_lbip_isheartbeat(pkt)) {
        lb_stat_inc(pkt->stats->gen);
        LB_LOG(LB_LOG_SELECT, "Calling lbhahb_pbuf_entry.\n");
        return lbhahb_pbuf_entry(pkt);
    }
    lb_retaddr_obj_t *retaddr = _lbip_returnaddress(pkt, dst);
    if (retaddr != nullptr && pkt->frag_offset != 0) {
        return static_cast<int>(lb_nat_fragment_entry(pkt, retaddr));
    }
    if (retaddr != nullptr && lbtcpudp_pbuf_getdport(pkt) >= EXC_EPT_FIRSTPORT) {
        LB_LOG(LB_LOG_SELECT, "This is a NAT return packet and a TCP, not UDP,ICMP,ICMP6. Calling "
                              "lb_nat_entry.\n");
        return static_cast<int>(lb_nat_entry(pkt, retaddr));
    }
    if (const entry_fn icmp = _lbip_icmpentry(dst, pkt->ipfuncs->getproto(pkt)); icmp != nullptr) {
        return icmp(pkt);
    }
    lbpbuf_trace(LB_LOG_IP | LB_LOG_INTACT, pkt, "notforus");
    lb_stat_inc(pkt->stats->notforus);
    return LB_PACKETRC_INTACT;
}

} // namespace

int lbip_pbuf_entry(lbpbuf_obj_t *pkt)
{
    lbip_addr_t *dst = pkt->ipfuncs->getdaddr(pkt);
    pkt->cluster = static_cast<lbclu_obj_t *>(lbll_select1(&lbexecutor->clusterlist, dst));
    return pkt->cluster != nullptr ? _lbip_forcluster(pkt, dst) : _lbip_forothers(pkt, dst);
}

int lbip_isaddrequal(const lbip_addr_t *a, const lbip_addr_t *b)
{
    if (a->version != b->version) {
        return 0;
    }
    if (a->version == 4) {
        return _lbip_word(a->nboaddr.v4) == _lbip_word(b->nboaddr.v4);
    }
    return os_memcmp(a->nboaddr.v6, b->nboaddr.v6, sizeof(a->nboaddr.v6)) == 0;
}

int lbip_isaddrvalid(const lbip_addr_t *a)
{
    const bool first4 = _lbip_word(a->nboaddr.v4) != 0;
    int rc = LBIP_VALID_NO;
    if (a->version == 4 && first4) {
        rc = LBIP_VALID_YES;
    } else if (a->version == 6) {
        const unsigned char *v6 = a->nboaddr.v6;
        const bool any = first4 || _lbip_word(v6 + 4) != 0 || _lbip_word(v6 + 8) != 0 ||
                         _lbip_word(v6 + 12) != 0;
        rc = any ? LBIP_VALID_YES : LBIP_VALID_NO;
    } else if (a->version == 0 && !first4) {
        rc = LBIP_VALID_EMPTY;
    }
    LB_LOG(LB_LOG_IP, "isaddrvalid returning %d\n", rc);
    return rc;
}

void lbip_printaddr(const char *prefix, const lbip_addr_t *a, const char *suffix)
{
    switch (a->version) {
    case 4:
        os_print("%s%d.%d.%d.%d", prefix, a->nboaddr.v4[0], a->nboaddr.v4[1], a->nboaddr.v4[2],
                 a->nboaddr.v4[3]);
        break;
    case 6: {
        const groups_s n = _lbip_groups(a);
        os_print("%s%x:%x:%x:%x:%x:%x:%x:%x", prefix, n.g[0], n.g[1], n.g[2], n.g[3], n.g[4],
                 n.g[5], n.g[6], n.g[7]);
        break;
    }
    case 0: os_print("%s0", prefix); break;
    default: os_print("%sna", prefix); break;
    }
    if (a->prefix != 0) {
        os_print("%%%d%s", a->prefix, suffix);
    } else {
        os_print("%s", suffix);
    }
}

int lbip_isaddrodd(const lbip_addr_t *a)
{
    const lbip_addr_t none = {};
    return a->version != 4 && a->version != 6 &&
                   (a->version != 0 || lbip_isaddrequal(a, &none) == 0)
               ? 1
               : 0;
}

lb_u32_t lbip_hash(const lbip_addr_t *a)
{
    switch (a->version) {
    case 4: return _lbip_word(a->nboaddr.v4);
    case 6: return _lbip_word(a->nboaddr.v6 + 12);
    default: return 0;
    }
}

int _lbip_maskaddr6(lbip_addr_t *out, const lbip_addr_t *in, const unsigned char *mask)
{
    if (out == nullptr || in == nullptr || mask == nullptr) {
        LB_LOG(LB_LOG_IP | LB_LOG_FAILURE, "ipv6_maskaddr ip/ipnew NULL, invalid\n");
        return 0;
    }
    if (in->version != 6) {
        LB_LOG(LB_LOG_IP | LB_LOG_FAILURE, "ipv6_maskaddr ip is not v6, invalid\n");
        return 0;
    }
    *out = *in;
    for (int i = 0; i < 16; ++i) {
        out->nboaddr.v6[i] &= mask[i];
    }
    return 0;
}

int lbip_onnetof(const lbip_addr_t *ip, const lbip_addr_t *net)
{
    if (ip->version != net->version) {
        return 0;
    }
    if (net->prefix == 0) {
        LB_LOG(LB_LOG_IP | LB_LOG_FAILURE, "onnetof net prefix is 0, invalid\n");
        return 0;
    }
    switch (ip->version) {
    case 4: return _lbip_onnetof4(ip, net);
    case 6: return _lbip_onnetof6(ip, net);
    default: break;
    }
    LB_LOG(LB_LOG_IP | LB_LOG_FAILURE, "onnetof no case matched\n");
    return 0;
}

lbip_addr_t lbip_fromv4(const unsigned char *nbo)
{
    lbip_addr_t addr = {};
    addr.version = 4;
    for (int i = 0; i < 4; ++i) { // one load and store; os_memcpy would be a call for each packet
        addr.nboaddr.v4[i] = nbo[i];
    }
    return addr;
}

lbip_addr_t lbip_fromv6(const unsigned char *nbo)
{
    lbip_addr_t addr = {};
    addr.version = 6;
    os_memcpy(addr.nboaddr.v6, nbo, sizeof(addr.nboaddr.v6));
    return addr;
}
