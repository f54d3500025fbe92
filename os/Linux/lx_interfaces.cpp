// A listing of the host's interfaces on standard output, for whoever debugs the host side. Nothing
// in the system calls it; it takes no locks and changes nothing.
#include "lx_host.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <cstring>

namespace
{

constexpr int LX_CONFSIZE = 32768; // room for the address list

struct lx_flagname_t {
    int flag;
    const char *name;
};

const char *lx_typename(int hatype)
{
    switch (hatype) {
    case ARPHRD_ETHER: return "ether";
    case ARPHRD_LOOPBACK: return "loopback";
    case ARPHRD_SIT: return "sit";
    case ARPHRD_IPGRE: return "gre";
    default: return "n/a";
    }
}

void lx_print_flags(int flags)
{
    static constexpr lx_flagname_t names[] = {
        {IFF_BROADCAST, ",bcst"},    {IFF_LOOPBACK, ",loopback"}, {IFF_POINTOPOINT, ",p2p"},
        {IFF_NOARP, ",noarp"},       {IFF_PROMISC, ",promisc"},   {IFF_NOTRAILERS, ",notrailers"},
        {IFF_ALLMULTI, ",allmulti"}, {IFF_MASTER, ",master"},     {IFF_SLAVE, ",slave"},
        {IFF_MULTICAST, ",mcast"},
    };
    std::printf(" flags=%s", (flags & IFF_UP) != 0 ? "up" : "down");
    for (const lx_flagname_t &name : names) {
        std::printf("%s", (flags & name.flag) != 0 ? name.name : "");
    }
}

// The index of the interface named in `request`, in front of which `what` is printed.
void lx_print_index(int sockfd, const char *what, const char *ifname)
{
    ifreq request = {};
    std::memcpy(request.ifr_name, ifname, strnlen(ifname, IFNAMSIZ));
    if (ioctl(sockfd, SIOCGIFINDEX, &request) < 0) {
        std::perror("ioctl(SIOCGIFINDEX)");
    }
    std::printf("%sSIOCGIFINDEX: %.*s has index %d\n", what, IFNAMSIZ, request.ifr_name,
                request.ifr_ifindex);
}

void lx_print_interface(int sockfd, int ifindex, const char *ifname)
{
    std::printf("ifindex=%d name=%.*s", ifindex, IFNAMSIZ, ifname);
    ifreq request = {};
    std::memcpy(request.ifr_name, ifname, IFNAMSIZ);
    if (ioctl(sockfd, SIOCGIFFLAGS, &request) == 0) {
        lx_print_flags(request.ifr_flags);
    }
    if (ioctl(sockfd, SIOCGIFMTU, &request) == 0) {
        std::printf(" mtu=%d", request.ifr_mtu);
    }
    if (ioctl(sockfd, SIOCGIFHWADDR, &request) == 0) {
        unsigned char mac[6];
        std::memcpy(mac, request.ifr_hwaddr.sa_data, sizeof(mac));
        std::printf(" type=%d(%s) hwaddr=%02x:%02x:%02x:%02x:%02x:%02x",
                    request.ifr_hwaddr.sa_family, lx_typename(request.ifr_hwaddr.sa_family), mac[0],
                    mac[1], mac[2], mac[3], mac[4], mac[5]);
    }
    std::printf("\n");
}

// Every IPv4 address of the host.
void lx_print_addresses(int sockfd)
{
    alignas(ifreq) static char room[LX_CONFSIZE];
    ifconf conf = {};
    conf.ifc_len = sizeof(room);
    conf.ifc_buf = room;
    if (ioctl(sockfd, SIOCGIFCONF, &conf) < 0) {
        std::perror("getting addrs");
        return;
    }
    const int count = conf.ifc_len / static_cast<int>(sizeof(ifreq));
    std::printf("ifreq contains %d elements\n", count);
    for (int i = 0; i < count; i++) {
        const ifreq &entry = conf.ifc_req[i];
        sockaddr_in addr;
        std::memcpy(&addr, &entry.ifr_addr, sizeof(addr));
        unsigned char b[4];
        std::memcpy(b, &addr.sin_addr, sizeof(b));
        std::printf("%.*s %d.%d.%d.%d\n", IFNAMSIZ, entry.ifr_name, b[0], b[1], b[2], b[3]);
        lx_print_index(sockfd, "", entry.ifr_name);
    }
}

} // namespace

void lx_learninterfaces(int sockfd)
{
    std::printf("%s:%s entry\n", __FILE_NAME__, __func__);
    lx_print_index(sockfd, "hardcode eth1 ", "eth1");
    for (int ifindex = 1;; ifindex++) {
        ifreq request = {};
        request.ifr_ifindex = ifindex;
        if (ioctl(sockfd, SIOCGIFNAME, &request) < 0) {
            return;
        }
        lx_print_interface(sockfd, ifindex, request.ifr_name);
        lx_print_addresses(sockfd);
    }
}
