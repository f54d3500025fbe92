// The host's interfaces and addresses over rtnetlink(7), and word of their changes. Reads only. A
// dump that was interrupted by a change is started again.
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <system_error>

#include <cerrno>
#include <cstring>
#include <libmnl/libmnl.h>
#include <map>
#include <memory>

#include "vellhost/ifsync.h"

namespace vellhost
{

namespace
{

[[noreturn]] void failed(const char *what)
{
    throw std::system_error(errno, std::system_category(), what);
}

struct host_state {
    std::map<int, vellb::interface> interfaces{}; // by index: the order of creation
    struct upper {
        link what{};
        int master = 0;
    };
    std::map<int, upper> links{};
};

lb_u8_t yes_no(bool yes)
{
    return yes ? LBIFIN_YN_YES : LBIFIN_YN_NO;
}

// The bytes of an attribute, if it has at least as many as wanted.
template <class T> bool copy_attribute(const nlattr *attribute, T &to, size_t size)
{
    if (mnl_attr_get_payload_len(attribute) < size) {
        return false;
    }
    memcpy(&to, mnl_attr_get_payload(attribute), size);
    return true;
}

// libmnl's own loop over attributes is a macro that only C accepts.
template <class F> void each_attribute(const nlmsghdr *message, unsigned offset, F take)
{
    const auto call = [](const nlattr *attribute, void *data) {
        (*static_cast<F *>(data))(attribute);
        return MNL_CB_OK;
    };
    mnl_attr_parse(message, offset, call, &take);
}

int take_link(const nlmsghdr *message, void *data)
{
    auto *state = static_cast<host_state *>(data);
    const auto *link = static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(message));
    if ((link->ifi_flags & IFF_LOOPBACK) != 0) {
        return MNL_CB_OK;
    }
    vellb::interface found;
    lbifin_setable_t &settings = found.settings;
    each_attribute(message, sizeof(*link), [&](const nlattr *attribute) {
        const auto type = mnl_attr_get_type(attribute);
        if (type == IFLA_IFNAME && mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) == 0) {
            found.name = mnl_attr_get_str(attribute);
        } else if (type == IFLA_MTU) {
            copy_attribute(attribute, settings.mtu_sys, sizeof(settings.mtu_sys));
        } else if (type == IFLA_ADDRESS && link->ifi_type == ARPHRD_ETHER) {
            copy_attribute(attribute, settings.ethaddr.b, sizeof(settings.ethaddr.b));
        }
    });
    settings.mtu_lb = settings.mtu_sys;
    settings.isup_sys = yes_no((link->ifi_flags & IFF_UP) != 0);
    settings.isup_lb = settings.isup_sys;
    settings.arp = yes_no(link->ifi_type == ARPHRD_ETHER && (link->ifi_flags & IFF_NOARP) == 0);
    settings.loopback = yes_no(false);
    settings.isPTP = yes_no((link->ifi_flags & IFF_POINTOPOINT) != 0);
    if (!found.name.empty() && found.name.size() < LBIFACE_NAMELEN) {
        state->interfaces.emplace(link->ifi_index, std::move(found));
    }
    return MNL_CB_OK;
}

// Temporary (RFC 8981), or another host's. The first flag means "secondary" with IPv4.
bool passing(const ifaddrmsg &header)
{
    return header.ifa_family == AF_INET6 &&
           (header.ifa_flags & (IFA_F_TEMPORARY | IFA_F_DADFAILED)) != 0;
}

// ip-address(8), autojoin: it stands among the addresses so that the kernel joins the group.
bool multicast(const lbip_addr_t &addr)
{
    return addr.version == 4 ? (addr.nboaddr.v4[0] & 0xF0U) == 0xE0 : addr.nboaddr.v6[0] == 0xFF;
}

std::string kind_of(const nlattr *linkinfo)
{
    std::string kind;
    const auto take = [](const nlattr *attribute, void *data) {
        if (mnl_attr_get_type(attribute) == IFLA_INFO_KIND &&
            mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) == 0) {
            *static_cast<std::string *>(data) = mnl_attr_get_str(attribute);
        }
        return MNL_CB_OK;
    };
    mnl_attr_parse_nested(linkinfo, take, &kind);
    return kind;
}

int take_kinship(const nlmsghdr *message, void *data)
{
    auto *state = static_cast<host_state *>(data);
    const auto *header = static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(message));
    if ((header->ifi_flags & IFF_LOOPBACK) != 0) {
        return MNL_CB_OK;
    }
    host_state::upper &found = state->links[header->ifi_index];
    found.what.up = (header->ifi_flags & IFF_UP) != 0;
    each_attribute(message, sizeof(*header), [&](const nlattr *attribute) {
        const auto type = mnl_attr_get_type(attribute);
        if (type == IFLA_IFNAME && mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) == 0) {
            found.what.name = mnl_attr_get_str(attribute);
        } else if (type == IFLA_MASTER) {
            copy_attribute(attribute, found.master, sizeof(found.master));
        } else if (type == IFLA_LINKINFO) {
            found.what.kind = kind_of(attribute);
        }
    });
    return MNL_CB_OK;
}

int take_address(const nlmsghdr *message, void *data)
{
    auto *state = static_cast<host_state *>(data);
    const auto *header = static_cast<const ifaddrmsg *>(mnl_nlmsg_get_payload(message));
    const auto owner = state->interfaces.find(static_cast<int>(header->ifa_index));
    const lb_u8_t version = header->ifa_family == AF_INET    ? 4
                            : header->ifa_family == AF_INET6 ? 6
                                                             : 0;
    if (version == 0 || passing(*header) || owner == state->interfaces.end()) {
        return MNL_CB_OK;
    }
    lbip_addr_t local{};
    lbip_addr_t far_end{};
    const auto copy_address = [&](const nlattr *attribute, lbip_addr_t &to) {
        if (copy_attribute(attribute, to.nboaddr, version == 4 ? 4 : sizeof(to.nboaddr))) {
            to.version = version;
        }
    };
    each_attribute(message, sizeof(*header), [&](const nlattr *attribute) {
        const auto type = mnl_attr_get_type(attribute);
        if (type == IFA_LOCAL) {
            copy_address(attribute, local);
        } else if (type == IFA_ADDRESS) {
            copy_address(attribute, far_end);
        }
    });
    // IFA_ADDRESS is the far end of a point-to-point address, else the address itself.
    local = local.version == 0 ? far_end : local;
    if (local.version != 0 && !multicast(local)) {
        const bool peered = far_end.version != 0 && !vellb::same_address(local, far_end);
        local.prefix = header->ifa_prefixlen;
        owner->second.addresses.push_back({local, peered ? far_end : lbip_addr_t{}});
    }
    return MNL_CB_OK;
}

struct socket_closer {
    void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
};
using mnl_socket_ptr_t = std::unique_ptr<mnl_socket, socket_closer>;

// One dump request and its answers; errno EINTR if the host changed meanwhile.
bool dump(mnl_socket *socket, unsigned sequence, lb_u16_t type, unsigned char family, mnl_cb_t take,
          host_state &state)
{
    // What the kernel sends at most in one piece of a dump.
    std::vector<char> buffer(32768);
    nlmsghdr *request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = type;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request->nlmsg_seq = sequence;
    auto *generic = static_cast<rtgenmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
    generic->rtgen_family = family;
    if (mnl_socket_sendto(socket, request, request->nlmsg_len) < 0) {
        return false;
    }
    for (;;) {
        const ssize_t got = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
        if (got < 0) {
            return false;
        }
        const int more = mnl_cb_run(buffer.data(), static_cast<size_t>(got), sequence,
                                    mnl_socket_get_portid(socket), take, &state);
        if (more <= MNL_CB_STOP) {
            return more == MNL_CB_STOP;
        }
    }
}

mnl_socket_ptr_t opened(unsigned groups)
{
    mnl_socket_ptr_t socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    if (!socket || mnl_socket_bind(socket.get(), groups, MNL_SOCKET_AUTOPID) < 0) {
        failed("rtnetlink socket");
    }
    return socket;
}

// What the dumps that `read` asks for make of the host.
template <class F> host_state read_state(F read)
{
    constexpr int ATTEMPTS = 5;
    for (int attempt = 1;; attempt++) {
        const mnl_socket_ptr_t socket = opened(0);
        host_state state;
        if (read(socket.get(), state)) {
            return state;
        }
        if (errno != EINTR || attempt == ATTEMPTS) {
            failed("reading the host's interfaces");
        }
    }
}

} // namespace

std::vector<vellb::interface> read_host()
{
    host_state state = read_state([](mnl_socket *socket, host_state &into) {
        return dump(socket, 1, RTM_GETLINK, AF_PACKET, take_link, into) &&
               dump(socket, 2, RTM_GETADDR, AF_UNSPEC, take_address, into);
    });
    std::vector<vellb::interface> result;
    for (auto &[index, each] : state.interfaces) {
        result.push_back(std::move(each));
    }
    return result;
}

std::vector<link> read_links()
{
    host_state state = read_state([](mnl_socket *socket, host_state &into) {
        return dump(socket, 1, RTM_GETLINK, AF_PACKET, take_kinship, into);
    });
    std::vector<link> result;
    for (auto &[index, each] : state.links) {
        const auto master = state.links.find(each.master);
        each.what.index = index;
        each.what.master = master != state.links.end() ? master->second.what.name : "";
        result.push_back(each.what);
    }
    return result;
}

struct change_watch::state {
    mnl_socket_ptr_t socket;
};

change_watch::change_watch()
    : state_(new state{opened(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR)})
{
}

change_watch::~change_watch() = default;

int change_watch::fd() const
{
    return mnl_socket_get_fd(state_->socket.get());
}

bool change_watch::drain()
{
    std::vector<char> buffer(32768);
    for (bool any = false;; any = true) {
        const ssize_t got = recv(fd(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        // ENOBUFS: there was more than the socket could hold.
        if (got == 0 || (got < 0 && errno != ENOBUFS && errno != EINTR)) {
            return any;
        }
    }
}

} // namespace vellhost
