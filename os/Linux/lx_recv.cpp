// Reception. Each worker reads frames from the one packet socket into a buffer of its own, drops
// what this host sent itself, and hands the rest by link type and Ethernet type to the stack. The
// kernel's own stack receives every frame as well, so a frame that is left alone needs no
// re-injection: the worker forgets it. This file also owns the life of the receive buffers.
//
// The workers enter lx_recv(); any thread may enter os_packetfree(). No locks are taken: a buffer
// has one owner at a time, told by its ownership word. A worker is inside the stack only while an
// entry of the stack runs, never while it waits for a frame.
#include "lb_entry.h"
#include "lb_grace.h"
#include "lx_host.h"
#include "lx_pktbuf.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "os.h"
#include "prot/ether.h"

namespace
{

constexpr int LX_NOT_ENTERED = -1; // the result for a frame that no entry of the stack saw
constexpr int LX_RETRY_US = 100;
constexpr lb_s64_t LX_CUT_REPORT_S = 60;

// What a receive tells about a frame besides its bytes and its address.
struct lx_frameinfo_t {
    bool vlan; // it carried a VLAN tag, which the kernel has taken out
    bool cut;  // it is longer than the buffer
};

// The network layers above Ethernet.
struct lx_protocol_t {
    int ethertype;
    int (*entry)(void *ethh, void *proto, int len, lb_osopaque_t osopaque);
    const char *name; // in traces
};
constexpr lx_protocol_t lx_protocols[] = {
    {LBETH_TYPE_IPV4, lbipv4_entry, "ipv4_entry"},
    {LBETH_TYPE_IPV6, lbipv6_entry, "ipv6_entry"},
    {LBETH_TYPE_ARP, lbarp_entry, "lbarp_entry"},
};

std::atomic<lb_u64_t> lx_cutframes{0};
std::atomic<lb_s64_t> lx_cutreport_s{-LX_CUT_REPORT_S}; // when the last report was made

// Waits for as long as it takes; NULL only when the process stops meanwhile.
lx_pktbuf_t *lx_newbuf(int fd)
{
    for (;;) {
        auto *pkt = static_cast<lx_pktbuf_t *>(std::malloc(sizeof(lx_pktbuf_t)));
        if (pkt != nullptr) {
            std::memset(pkt, 0, offsetof(lx_pktbuf_t, buf));
            pkt->psfdin = fd;
            pkt->buflen = LX_FRAMEMAX;
            return pkt;
        }
        const int error = errno;
        LB_LOG(LX_LOG_FAILURE, "packet buffer allocation failure, errno=%d\n", error);
        if (lx_stopping()) {
            return nullptr;
        }
        usleep(LX_RETRY_US);
    }
}

// The kernel moves an outer VLAN tag from the frame into the auxiliary data before a packet socket
// sees it: what is left looks like an untagged frame of the wrong network.
bool lx_carried_vlan(msghdr *msg)
{
    for (cmsghdr *c = CMSG_FIRSTHDR(msg); c != nullptr; c = CMSG_NXTHDR(msg, c)) {
        if (c->cmsg_level == SOL_PACKET && c->cmsg_type == PACKET_AUXDATA) {
            tpacket_auxdata aux;
            std::memcpy(&aux, CMSG_DATA(c), sizeof(aux));
            return (aux.tp_status & TP_STATUS_VLAN_VALID) != 0;
        }
    }
    return false;
}

// Reads the next frame to buf + LX_HEADROOM. False when the process is to stop.
bool lx_receive(lx_pktbuf_t *pkt, lx_frameinfo_t *info)
{
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(tpacket_auxdata))];
    iovec room = {pkt->buf + LX_HEADROOM, static_cast<std::size_t>(pkt->buflen)};
    msghdr msg = {};
    // The kernel writes back how long the address was, so its room is told anew each time.
    pkt->sainlen = sizeof(pkt->sain);
    msg.msg_name = &pkt->sain;
    msg.msg_namelen = pkt->sainlen;
    msg.msg_iov = &room;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);

    pkt->datalen = static_cast<int>(recvmsg(pkt->psfdin, &msg, 0));
    const int error = errno;
    if (lx_stopping()) {
        return false;
    }
    if (pkt->datalen < 0) {
        std::printf("recv failed, errno=%d\n", error);
        // Nothing of the frame before may be taken for this one's.
        pkt->datalen = -1;
        pkt->sain = {};
        *info = {};
        // A receive that keeps failing must not keep a processor busy at real-time priority.
        usleep(LX_RETRY_US);
        return true;
    }
    info->cut = (msg.msg_flags & MSG_TRUNC) != 0;
    info->vlan = lx_carried_vlan(&msg);
    return true;
}

// Frames longer than any link's own come from merging (GRO, LRO) before the packet socket. They
// can't be forwarded: what was cut off is gone.
void lx_report_cut(const lx_pktbuf_t *pkt)
{
    const lb_u64_t count = lx_cutframes.fetch_add(1, std::memory_order_relaxed) + 1;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    lb_s64_t last = lx_cutreport_s.load(std::memory_order_relaxed);
    if (now.tv_sec - last < LX_CUT_REPORT_S ||
        !lx_cutreport_s.compare_exchange_strong(last, now.tv_sec, std::memory_order_relaxed)) {
        return;
    }
    char name[IF_NAMESIZE] = "?";
    if_indextoname(static_cast<unsigned>(pkt->sain.sll_ifindex), name);
    LB_LOG(
        LX_LOG_FAILURE,
        "frames longer than %d bytes on %s are left to the host, %llu so far: switch off GRO and "
        "LRO there (ethtool -K %s gro off lro off)\n",
        LX_FRAMEMAX, name, static_cast<unsigned long long>(count), name);
}

int lx_enter_slip(lx_pktbuf_t *pkt)
{
    pkt->ethh = nullptr;
    pkt->iph = pkt->buf + LX_HEADROOM;
    int rc = LX_NOT_ENTERED;
    {
        lb_grace_inside inside;
        rc = lbipv4_entry(nullptr, pkt->iph, pkt->datalen, pkt);
    }
    LB_LOG(LB_LOG_HOST, "link/slip ipv4_entry returned %d\n", rc);
    return rc;
}

int lx_enter_ethernet(lx_pktbuf_t *pkt, bool vlan)
{
    const auto *eth = lb_view<lbeth_hdr_t>(pkt->ethh, pkt->datalen);
    if (eth == nullptr) {
        return LX_NOT_ENTERED; // too short to say of what type it is
    }
    const int type = vlan ? LBETH_TYPE_VLAN : lb_get16(eth->type);
    for (const lx_protocol_t &protocol : lx_protocols) {
        if (protocol.ethertype != type) {
            continue;
        }
        int rc = LX_NOT_ENTERED;
        {
            lb_grace_inside inside;
            rc = protocol.entry(pkt->ethh, pkt->iph, pkt->datalen - LBETH_HDRLEN, pkt);
        }
        LB_LOG(LB_LOG_HOST, "%s returned %d\n", protocol.name, rc);
        return rc;
    }
    LB_LOG(LB_LOG_HOST, "ethertype %d invalid\n", type);
    return LX_NOT_ENTERED;
}

// The stack's answer for a frame, or LX_NOT_ENTERED.
int lx_classify(lx_pktbuf_t *pkt, const lx_frameinfo_t *info)
{
    if (pkt->sain.sll_pkttype == PACKET_OUTGOING) {
        return LX_NOT_ENTERED; // what this host sent, the daemon included
    }
    const int hatype = pkt->sain.sll_hatype;
    if (hatype == ARPHRD_LOOPBACK) {
        return LX_NOT_ENTERED; // untraced too: a log that travels over loopback would feed itself
    }
    LB_LOG_BARE(LB_LOG_HOST, "hatype %d (%x)\n", hatype, static_cast<unsigned>(hatype));
    if (info->cut) {
        // A frame without its end must never be forwarded, and an answer to it (an error, a reset)
        // would be about a packet that the sender sent whole: the host's stack, which has all of
        // it, gets it.
        lx_report_cut(pkt);
        return LX_NOT_ENTERED;
    }
    switch (hatype) {
    case ARPHRD_SLIP: return lx_enter_slip(pkt);
    case ARPHRD_ETHER: return lx_enter_ethernet(pkt, info->vlan);
    default:
        LB_LOG(LB_LOG_HOST, "link layer protocol %d (%x) dropped\n", hatype,
               static_cast<unsigned>(hatype));
        return LX_NOT_ENTERED;
    }
}

// The buffer for the next round: this one, or NULL when it is the stack's now.
lx_pktbuf_t *lx_settle(lx_pktbuf_t *pkt, int rc)
{
    // What the worker marked itself it sees, whatever the entry answers: the stack may still find a
    // buffer that it was told to keep.
    const bool marked = lx_heldword(pkt).load(std::memory_order_acquire) == LX_MARKED;
    switch (rc) {
    case LX_NOT_ENTERED:
    case LB_PACKETRC_CONSUMED:
    case LB_PACKETRC_INTACT:
    case LB_PACKETRC_HELD: break;
    default: LB_LOG(LX_LOG_FAILURE, "invalid return code (%d) from lbstack\n", rc); break;
    }
    if (!marked && rc != LB_PACKETRC_HELD) {
        return pkt;
    }
    // Where it was released already, by another thread, the worker comes second: instead of freeing
    // the buffer it has it back. Otherwise the buffer may be gone from here on.
    const lb_u8_t before = lx_heldword(pkt).exchange(LX_HELD, std::memory_order_acq_rel);
    return before == LX_RELEASED ? pkt : nullptr;
}

} // namespace

void lx_recv(int fd)
{
    lx_pktbuf_t *pkt = nullptr;
    while (!lx_stopping()) {
        if (pkt == nullptr) {
            pkt = lx_newbuf(fd);
        }
        if (pkt == nullptr) {
            return;
        }
        pkt->ethh = pkt->buf + LX_HEADROOM;
        pkt->iph = pkt->ethh + LBETH_HDRLEN;
        lx_heldword(pkt).store(LX_OWNED, std::memory_order_relaxed);
        lx_frameinfo_t info = {};
        if (!lx_receive(pkt, &info)) {
            break;
        }
        pkt = lx_settle(pkt, lx_classify(pkt, &info));
    }
    std::free(pkt);
}

void os_packetfree(lb_osopaque_t osopaque)
{
    auto *pkt = static_cast<lx_pktbuf_t *>(osopaque);
    if (pkt == nullptr) {
        return; // a packet that the stack made itself
    }
    // A buffer that its worker hasn't let go of is only marked; the worker, coming second, takes
    // the mark off when it reuses it.
    if (lx_heldword(pkt).exchange(LX_RELEASED, std::memory_order_acq_rel) == LX_HELD) {
        std::free(pkt);
    }
}

void os_packethold(lb_osopaque_t osopaque)
{
    auto *pkt = static_cast<lx_pktbuf_t *>(osopaque);
    if (pkt != nullptr) {
        // Whoever finds the packet finds it through a lock that is taken later.
        lx_heldword(pkt).store(LX_MARKED, std::memory_order_relaxed);
    }
}

int os_headroom(int headroom, void **ppethaddr, void **ppproto, void **pposopaque)
{
    auto *pkt = static_cast<lx_pktbuf_t *>(*pposopaque);
    auto *proto = static_cast<lb_u8_t *>(*ppproto);
    if (*ppethaddr != nullptr || pkt == nullptr || proto - pkt->buf < headroom) {
        return 1;
    }
    *ppethaddr = proto - headroom;
    return 0;
}

int os_pullup(int /*minlen*/, void ** /*ppethaddr*/, void ** /*ppproto*/, int * /*pprotolen*/,
              void ** /*pposopaque*/)
{
    std::printf("Warning: [%s] should not have been reached on Linux\n", "os_pullup");
    return 0;
}
