// The host services that the stack calls: transmission, the tun device, transmit handles, multicast
// membership, memory, locks, time, and the two ways out (stop and core).
//
// Any thread enters any of them at any time. They take no locks: each send is one call on a socket
// that all threads share, with an address record of its own, straight from the caller's bytes.
#include "lx_host.h"

#include <fcntl.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "os.h"

namespace
{

constexpr int LX_ETHHDR = 14;
constexpr int LX_ETHADDR = 6;
constexpr int LX_NOT_SENT = -99;      // the result of a send through no socket
constexpr int LX_CLOSED_FD = INT_MAX; // the kernel gives no descriptor a number that high
constexpr int LX_IPPROTO_IPIP = 4;
constexpr int LX_IPPROTO_GRE = 47;
constexpr int LX_IPPROTO_NAT = 255;
constexpr int LX_IPPROTO_ICMP6 = 58;

static_assert(sizeof(sockaddr_ll) == 20 && sizeof(sockaddr_ll) <= sizeof(lb_xmithandle_t));
static_assert(sizeof(pthread_mutex_t) <= sizeof(lblock));
static_assert(alignof(pthread_mutex_t) <= alignof(lblock));

// The destination of the last raw IPv4 send, network order.
lb_u32_t lx_lastdest = 0;

void lx_check_sent(int rc, int expected)
{
    if (rc != expected) {
        const int error = errno;
        LB_LOG(LX_LOG_FAILURE, "ERROR: send returned %d instead of %d, errno=%d\n", rc, expected,
               error);
    }
}

int lx_rawsocket(int protocol)
{
    switch (protocol) {
    case LX_IPPROTO_NAT: return rawfd_nat;
    case LX_IPPROTO_GRE: return rawfd_gre;
    case LX_IPPROTO_IPIP: return rawfd_ipip;
    case IPPROTO_ICMP: return rawfd_icmp;
    default: return LX_NOT_SENT;
    }
}

pthread_mutex_t *lx_mutex(void *lock)
{
    return static_cast<pthread_mutex_t *>(lock);
}

// Joins or leaves the group 33:33:FF and the last three bytes of the address (RFC 2464, section 7,
// of the solicited-node address of RFC 4291, section 2.7.1).
void lx_multicast(const char *interface, const unsigned char *ip6addr, int what)
{
    packet_mreq mreq = {};
    mreq.mr_ifindex = static_cast<int>(if_nametoindex(interface));
    mreq.mr_type = PACKET_MR_MULTICAST;
    mreq.mr_alen = LX_ETHADDR;
    mreq.mr_address[0] = 0x33;
    mreq.mr_address[1] = 0x33;
    mreq.mr_address[2] = 0xFF;
    std::memcpy(mreq.mr_address + 3, ip6addr + 13, 3);
    if (setsockopt(psfd, SOL_PACKET, what, &mreq, sizeof(mreq)) != 0) {
        std::perror("setsockopt");
    }
}

void lx_copy_ifname(ifreq *request, const char *name)
{
    std::memcpy(request->ifr_name, name, strnlen(name, IFNAMSIZ));
}

} // namespace

// --- Mutexes -------------------------------------------------------------------------------------

int os_mutex_init(void *lock)
{
    return pthread_mutex_init(lx_mutex(lock), nullptr);
}

int os_mutex_destroy(void *lock)
{
    return pthread_mutex_destroy(lx_mutex(lock));
}

int os_mutex_lock(void *lock)
{
    return pthread_mutex_lock(lx_mutex(lock));
}

int os_mutex_unlock(void *lock)
{
    return pthread_mutex_unlock(lx_mutex(lock));
}

// --- Memory --------------------------------------------------------------------------------------

void *os_memalloc(int size)
{
    return std::malloc(static_cast<std::size_t>(size));
}

void os_memfree(void *obj)
{
    std::free(obj);
}

void *os_memcpy(void *to, const void *from, std::size_t len)
{
    return std::memcpy(to, from, len);
}

void *os_memset(void *to, int byte, std::size_t len)
{
    return std::memset(to, byte, len);
}

int os_memcmp(const void *a, const void *b, std::size_t len)
{
    return std::memcmp(a, b, len);
}

// --- Time and process ----------------------------------------------------------------------------

lb_s32_t os_gettime(lb_timeval_t *timeval)
{
    struct timeval now = {};
    if (gettimeofday(&now, nullptr) != 0) {
        *timeval = {0, 0};
        return 0;
    }
    timeval->secs = static_cast<lb_s32_t>(now.tv_sec);
    timeval->usecs = static_cast<lb_s32_t>(now.tv_usec);
    return timeval->secs;
}

void os_core()
{
    if (argforeground != 0) {
        std::abort();
    }
}

void os_stop()
{
    stopping.store(1, std::memory_order_relaxed);
}

// --- Transmission --------------------------------------------------------------------------------

void os_packetxmit(void *eth, void *proto, int protolen, void *xmithandle,
                   lb_osopaque_t /*osopaque*/)
{
    sockaddr_ll sll;
    std::memcpy(&sll, xmithandle, sizeof(sll));
    const void *frame = proto;
    int len = protolen;
    if (eth != nullptr) {
        const auto *h = static_cast<const unsigned char *>(eth);
        std::memcpy(sll.sll_addr, h, LX_ETHADDR);
        sll.sll_halen = LX_ETHADDR;
        frame = eth;
        len = protolen + LX_ETHHDR;
        LB_LOG(LB_LOG_HOST,
               "eth dst: %02x %02x %02x %02x %02x %02x src: %02x %02x %02x %02x %02x %02x "
               "proto: %02x %02x \n",
               h[0], h[1], h[2], h[3], h[4], h[5], h[6], h[7], h[8], h[9], h[10], h[11], h[12],
               h[13]);
    }
    const ssize_t rc = sendto(psfd, frame, static_cast<std::size_t>(len), 0,
                              reinterpret_cast<sockaddr *>(&sll), sizeof(sll));
    lx_check_sent(static_cast<int>(rc), len);
}

void os_xmitraw(void *data, int length, unsigned char * /*srcaddr*/, unsigned char *destaddr,
                int protocol, lb_osopaque_t /*osopaque*/)
{
    sockaddr_in to = rawsin;
    lb_u32_t dest = lb_peek(lx_lastdest);
    if (destaddr != nullptr) {
        lb_u32_t given = 0;
        std::memcpy(&given, destaddr, sizeof(given));
        // Written only when it changes: all workers share the word.
        if (given != dest) {
            lb_poke(lx_lastdest, given);
        }
        dest = given;
    }
    to.sin_addr.s_addr = dest;
    const int fd = lx_rawsocket(protocol);
    ssize_t rc = LX_NOT_SENT;
    if (fd != LX_NOT_SENT) {
        rc = sendto(fd, data, static_cast<std::size_t>(length), MSG_NOSIGNAL,
                    reinterpret_cast<sockaddr *>(&to), sizeof(to));
    }
    lx_check_sent(static_cast<int>(rc), length);
}

void os_xmitraw6(void *data, int length, unsigned char *destaddr, int protocol)
{
    ssize_t rc = 0;
    if (protocol == LX_IPPROTO_ICMP6) {
        sockaddr_in6 to = rawsin6;
        std::memcpy(&to.sin6_addr, destaddr, sizeof(to.sin6_addr));
        rc = sendto(rawfd_icmp6, data, static_cast<std::size_t>(length), MSG_NOSIGNAL,
                    reinterpret_cast<sockaddr *>(&to), sizeof(to));
    }
    lx_check_sent(static_cast<int>(rc), length);
}

int os_tunAlloc(char *dev, int flags)
{
    const int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        LB_LOG(LX_LOG_FAILURE, "Error: tun_alloc open failed with errno=%d\n", error);
        return fd;
    }
    ifreq request = {};
    request.ifr_flags = static_cast<short>(flags | IFF_NO_PI);
    if (dev[0] != '\0') {
        lx_copy_ifname(&request, dev);
    }
    if (ioctl(fd, TUNSETIFF, &request) < 0) {
        const int error = errno;
        LB_LOG(LX_LOG_FAILURE, "Error: tun_alloc ioctl failed with errno=%d\n", error);
        close(fd);
        return LX_CLOSED_FD; // not `fd`, which the next accept() would get
    }
    return fd;
}

void os_tunXmit(void *eth, int protolen, int tunfd)
{
    // Neither text ends its line; the thread's next message does.
    LB_LOG(LB_LOG_HOST, "Writing to tun ");
    const auto *packet = static_cast<const unsigned char *>(eth) + LX_ETHHDR;
    if (write(tunfd, packet, static_cast<std::size_t>(protolen)) == -1) {
        const int error = errno;
        LB_LOG(LB_LOG_HOST, "Writing to tun failed with errno=%d ", error);
    }
}

int os_getxmithandle(const char *name, int /*namelen*/, const unsigned char * /*ifacemac*/,
                     int ipver, const unsigned char * /*nbosrcip*/,
                     const unsigned char * /*nbodstip*/, void *xmithandle)
{
    LB_LOG(LB_LOG_HOST, "os_getxmithandle entered\n");
    ifreq request = {};
    lx_copy_ifname(&request, name);
    int rc = 0;
    if (ioctl(psfd, SIOCGIFINDEX, &request) < 0) {
        LB_LOG(LX_LOG_FAILURE, "os_getxmithandle SIOCGIFINDEX failed\n");
        rc = 1;
    } else {
        sockaddr_ll sll = {};
        sll.sll_family = AF_PACKET;
        sll.sll_ifindex = request.ifr_ifindex;
        if (ipver == 4) {
            sll.sll_protocol = htons(ETH_P_IP);
        } else if (ipver == 6) {
            sll.sll_protocol = htons(ETH_P_IPV6);
        }
        std::memcpy(xmithandle, &sll, sizeof(sll));
        LB_LOG(LB_LOG_HOST, "os_getxmithandle SIOCGIFINDEX %.*s = %d\n", IFNAMSIZ, name,
               sll.sll_ifindex);
    }
    LB_LOG(LB_LOG_HOST, "os_getxmithandle returning %d\n", rc);
    return rc;
}

void os_regethmulticast(const char *interface, const unsigned char *ip6addr)
{
    LB_LOG(LB_LOG_HOST, "os_regethmulticast entered\n");
    lx_multicast(interface, ip6addr, PACKET_ADD_MEMBERSHIP);
}

void os_unregethmulticast(const char *interface, const unsigned char *ip6addr)
{
    LB_LOG(LB_LOG_HOST, "os_unregethmulticast entered\n");
    lx_multicast(interface, ip6addr, PACKET_DROP_MEMBERSHIP);
}

// The packet socket sees every interface as it is.
void os_addiface(const char * /*ifacename*/, const void * /*ethaddr*/, void ** /*ifacelist*/,
                 int /*ifacecount*/)
{
}

void os_removeiface(const char * /*ifacename*/, const void * /*ethaddr*/) {}
