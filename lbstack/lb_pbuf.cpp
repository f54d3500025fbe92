// The packet object: where a packet's bytes lie and what the stack has found out about it.
//
// Every receive worker enters, each with its own objects, and no lock is taken. A packet that is
// not held costs no allocation: each thread keeps the object that it freed last and hands it out
// again. The packet's bytes stay in the host's buffer; nothing here copies or frees them.
#include "lb_pbuf.h"

#include "lb_ip.h"
#include "lb_server.h"
#include "lb_utils.h"

namespace
{

// The object that this thread keeps. The pointer alone is touched per packet; the janitor, whose
// destructor makes every access a little dearer, only when a thread keeps its first object.
enum keeping_e { KEEPING_NOT_YET, KEEPING, KEEPING_NO_MORE };
thread_local lbpbuf_obj_t *spare = nullptr;
thread_local keeping_e keeping = KEEPING_NOT_YET;

struct janitor_s {
    ~janitor_s()
    {
        keeping = KEEPING_NO_MORE;
        lbpbuf_drain();
    }
    void hire() { keeping = KEEPING; }
};
thread_local janitor_s janitor;

lb_u64_t packetcount = 0;

struct outcome_s {
    lb_u64_t bit;
    const char *word;
};
constexpr outcome_s outcomes[] = {
    {LB_LOG_PKTERROR, " ERROR"},    {LB_LOG_INTACT, " INTACT"}, {LB_LOG_DISCARDED, " DISCARD"},
    {LB_LOG_FORWARDED, " FORWARD"}, {LB_LOG_HELD, " HELD"},
};

} // namespace

lbpbuf_obj_t *lbpbuf_alloc()
{
    if (spare == nullptr) {
        return lb_newzero<lbpbuf_obj_t>();
    }
    lbpbuf_obj_t *pkt = spare;
    spare = nullptr;
    *pkt = lbpbuf_obj_t{};
    return pkt;
}

void lbpbuf_free(lbpbuf_obj_t *pkt)
{
    if (keeping == KEEPING_NOT_YET) {
        janitor.hire();
    }
    if (spare == nullptr && keeping == KEEPING) {
        spare = pkt;
        return;
    }
    os_memfree(pkt);
}

void lbpbuf_drain()
{
    if (spare != nullptr) {
        os_memfree(spare);
        spare = nullptr;
    }
}

int lbpbuf_pullup(lbpbuf_obj_t *pkt, int totlen)
{
    const std::ptrdiff_t distance = pkt->ulp.raw != nullptr ? pkt->ulp.raw - pkt->p.raw : 0;
    const int rc = os_pullup(totlen, &pkt->hw.vd, &pkt->p.vd, &pkt->buflen, &pkt->osopaque);
    if (pkt->ulp.raw != nullptr) {
        pkt->ulp.raw = pkt->p.raw + distance;
    }
    return rc;
}

int lbpbuf_hold(lbpbuf_obj_t *pkt)
{
    // Whoever holds a packet sends it as it stands later, so a host that keeps packets in pieces
    // puts them together now; what a host can't put together never came.
    if (const int totlen = pkt->ipfuncs->gettotlen(pkt); totlen > pkt->buflen) {
        (void)lbpbuf_pullup(pkt, totlen);
    }
    os_packethold(pkt->osopaque);
    return LB_PACKETRC_HELD;
}

int lbpbuf_usablelen(lbpbuf_obj_t *pkt)
{
    const int totlen = pkt->ipfuncs->gettotlen(pkt);
    if (totlen < pkt->ulp.raw - pkt->p.raw || totlen > pkt->buflen) {
        return -1;
    }
    return totlen;
}

int lbpbuf_ulplen(lbpbuf_obj_t *pkt)
{
    const int usable = lbpbuf_usablelen(pkt);
    const int end = usable >= 0 ? usable : pkt->buflen;
    const std::ptrdiff_t len = pkt->p.raw + end - pkt->ulp.raw;
    return len > 0 ? static_cast<int>(len) : 0;
}

void _lbpbuf_print(lb_u64_t mask, lbpbuf_obj_t *pkt, const char *label)
{
    const lb_timeval_t elapsed = lb_log_elapsed();
    const lb_u64_t number = lb_take_next(packetcount) + 1;
    os_print("%d.%06d pkt %lld %x ", elapsed.secs, elapsed.usecs, static_cast<long long>(number),
             pkt->frag_id);
    if (pkt->ip.srcip.version != 0) {
        lbip_printaddr("", &pkt->ip.srcip, " -> ");
    } else {
        os_print("sIP -> ");
    }
    if (pkt->ip.dstip.version != 0) {
        lbip_printaddr("", &pkt->ip.dstip, "");
    } else {
        os_print("dIP");
    }
    if (pkt->ip.sport_hbo != 0) {
        os_print(" %d:", pkt->ip.sport_hbo);
    } else {
        os_print(" sP:");
    }
    if (pkt->ip.dport_hbo != 0) {
        os_print("%d", pkt->ip.dport_hbo);
    } else {
        os_print("dP");
    }
    for (const outcome_s &outcome : outcomes) {
        if ((mask & outcome.bit) != 0) {
            os_print("%s", outcome.word);
        }
    }
    if (pkt->server != nullptr) {
        lbip_printaddr(" to ", &pkt->server->config.key.cfg.server, "");
    }
    os_print(" %s\n", label);
}
