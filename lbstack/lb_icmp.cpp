// ICMP for IPv4: the errors that the forwarder sends about packets that it can't forward (RFC 792,
// RFC 1191), and the checksum of ICMP messages. What comes in is left to the host.
//
// Runs on the receive workers and takes no lock. The host builds the IP header of what is sent; the
// message is built in memory of its own, because what it quotes lies in a receive buffer.
#include "lb_icmp.h"

#include "lb_executor.h"
#include "lb_ipv4.h"

namespace
{

// Sends `hdr` and behind it what it quotes; false when nothing was sent.
bool _lbicmp_send(const lbicmp_hdr_t &hdr, const lbip_addr_t *dstip, const void *data,
                  lb_u32_t length)
{
    if (dstip->version != 4) {
        LB_LOG(LB_LOG_ICMP | LB_LOG_FAILURE, "icmp(v4) to an address of version %d, not sent\n",
               dstip->version);
        return false;
    }
    const int total = static_cast<int>(sizeof(hdr) + length);
    unsigned char *message = static_cast<unsigned char *>(os_memalloc(total));
    if (message == nullptr) {
        LB_LOG(LB_LOG_ICMP | LB_LOG_FAILURE, "icmp(v4) allocation of message failed\n");
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
    lb_proto_stats_t *stats = &lbexecutor->getable.icmpstats;
    lb_stat_inc(stats->in);
    lb_stat_inc(stats->notforus);
    lb_stat_inc(pkt->stats->notforus);
    lbpbuf_trace(LB_LOG_ICMP | LB_LOG_INTACT, pkt, "notforus");
    return LB_PACKETRC_INTACT;
}

lb_u16_t lbicmp_csum(lbicmp_hdr_t *icmphdr, int icmplen)
{
    const lb_be16_t stored = icmphdr->csum;
    lb_put16(icmphdr->csum, 0);
    const lb_u32_t sum = lbipv4_primativesum(reinterpret_cast<const unsigned char *>(icmphdr),
                                             static_cast<unsigned>(icmplen));
    icmphdr->csum = stored;
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
