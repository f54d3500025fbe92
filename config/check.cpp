// Warnings: settings that the daemon takes and that do less than they say. What holds for a running
// daemon as well comes from libvellb; here are the limits of what the daemon looks at twice a
// second, and what only a file or this machine can tell. Pure.
#include "vellcfg/check.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <map>
#include <set>
#include <tuple>

#include "prot/gre.h"
#include "prot/ipv4.h"
#include "vellb/address.h"
#include "vellb/names.h"
#include "vellb/surprises.h"
#include "vellcfg/host.h"
#include "vellcfg/normalise.h"

namespace vellcfg
{

namespace
{

using vellb::address_text;
using vellb::keeps_clients;
using vellb::keeps_connections;
using vellb::made_e;

// How many children of one object the daemon visits at a tick, and at a takeover.
constexpr size_t VISITED = 128;
constexpr size_t ANNOUNCED = 100;

// Addresses that no host has on a wire (RFC 6890; RFC 4291, 2.5.5 and 2.7). Null for all others.
const char *unsuitable(const lbip_addr_t &address)
{
    const lb_u8_t *bytes = address.nboaddr.v6;
    if (address.version == 4) {
        return bytes[0] == 127    ? "a loopback address"
               : bytes[0] == 0    ? "an address of 0.0.0.0/8"
               : bytes[0] >= 0xE0 ? "a multicast, reserved or broadcast address"
                                  : nullptr;
    }
    static constexpr lb_u8_t MAPPED[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    static constexpr lb_u8_t LOOPBACK[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return bytes[0] == 0xFF                                 ? "a multicast address"
           : memcmp(bytes, LOOPBACK, sizeof(LOOPBACK)) == 0 ? "the loopback address"
           : memcmp(bytes, MAPPED, sizeof(MAPPED)) == 0
               ? "an IPv4 address in the form of IPv6; write it with its four numbers only"
               : nullptr;
}

class checker
{
  public:
    checker(const service &wanted, const std::vector<vellb::interface> *host)
        : wanted_(wanted), state_(normalised(wanted)), host_(host)
    {
        if (host != nullptr) {
            state_.interfaces = *host;
        }
    }

    std::vector<finding> run()
    {
        check_interfaces();
        check_ha();
        const bool paired = wanted_.ha.role != LBHA_ROLE_SOLO;
        limit(wanted_.clusters, VISITED, "clusters", "are not aged: their records never expire");
        if (paired) {
            limit(wanted_.clusters, ANNOUNCED, "clusters", "are not announced at a takeover");
            check_announced();
        }
        check_gateway("client-gateway", wanted_.executor.client_gateway);
        check_gateway("client-gateway-ipv6", wanted_.executor.client_gateway_ipv6);
        check_shared_mtus();
        for (size_t i = 0; i < wanted_.clusters.size(); i++) {
            check_cluster(wanted_.clusters[i], state_.clusters[i]);
        }
        std::ranges::stable_sort(found_, {}, [](const finding &each) {
            return std::tie(each.at.file, each.at.line, each.at.column);
        });
        return std::move(found_);
    }

  private:
    void warn(const place &at, std::string text) { found_.push_back({at, std::move(text)}); }
    void warn(const place &at, const std::vector<std::string> &texts)
    {
        for (const std::string &each : texts) {
            warn(at, each);
        }
    }

    // The first object beyond the limit is the place.
    template <class T>
    void limit(const std::vector<T> &all, size_t most, const char *what, const char *effect)
    {
        if (all.size() > most) {
            warn(all[most].at, fmt::format("{} {}: the {} from here on, beyond the first {}, {}",
                                           all.size(), what, all.size() - most, most, effect));
        }
    }

    void check_interfaces()
    {
        if (!wanted_.interfaces) {
            return;
        }
        for (const interface_name &each : *wanted_.interfaces) {
            if (each.name == OWN_DEVICE) {
                warn(each.at, fmt::format("{} is the daemon's own road to servers on this machine: "
                                          "leave it out",
                                          OWN_DEVICE));
            } else if (host_ != nullptr &&
                       std::ranges::find(*host_, each.name, &vellb::interface::name) ==
                           host_->end()) {
                warn(each.at, fmt::format("this machine has no interface {}", each.name));
            }
        }
    }

    // The interface that leads to an address, null if none does.
    [[nodiscard]] const vellb::interface *towards(const lbip_addr_t &address) const
    {
        const auto leads = [&](const vellb::interface_address &own) {
            return vellb::on_net(address, own.address) || vellb::same_address(address, own.peer);
        };
        const auto found = std::ranges::find_if(*host_, [&](const vellb::interface &each) {
            return std::ranges::any_of(each.addresses, leads);
        });
        return found != host_->end() ? &*found : nullptr;
    }
    [[nodiscard]] bool is_stranded(const lbip_addr_t &next_hop) const
    {
        // Before the machine has any, all would be.
        return host_ != nullptr && !host_->empty() && towards(next_hop) == nullptr;
    }
    [[nodiscard]] bool is_own(const lbip_addr_t &address) const
    {
        return host_ != nullptr && std::ranges::any_of(*host_, [&](const vellb::interface &each) {
                   return std::ranges::any_of(each.addresses,
                                              [&](const vellb::interface_address &own) {
                                                  return vellb::same_address(own.address, address);
                                              });
               });
    }

    void check_gateway(const char *key, const lbip_addr_t &gateway)
    {
        if (vellb::is_set(gateway) && is_stranded(gateway)) {
            warn(wanted_.executor.at,
                 fmt::format("{}: {} is in no subnet of an interface, so nothing is sent to it: "
                             "routes of this machine are not used",
                             key, address_text(gateway)));
        }
    }

    // The daemon keeps the tunnels' MTU with the neighbour: one for each address.
    void check_shared_mtus()
    {
        std::map<std::string, const server *> firsts;
        for (const cluster &above : wanted_.clusters) {
            for (const port &each : above.ports) {
                for (const server &one : each.servers) {
                    if (!one.encap_mtu) {
                        continue;
                    }
                    const std::string address = address_text(one.address);
                    const server *first = firsts.emplace(address, &one).first->second;
                    if (first->encap_mtu != one.encap_mtu) {
                        warn(one.at, fmt::format("encap-mtu {}: the daemon keeps one for each "
                                                 "address, and {} has {} at {}: the last one that "
                                                 "is sent holds for all",
                                                 *one.encap_mtu, address, *first->encap_mtu,
                                                 place_text(first->at)));
                    }
                }
            }
        }
    }

    void check_ha()
    {
        const ha &pair = wanted_.ha;
        if (pair.role != LBHA_ROLE_SOLO && pair.heartbeats.empty()) {
            warn(pair.at, "a node of a pair without heartbeats hears nothing of its partner, so "
                          "both take the cluster addresses");
        }
        if (!pair.reach.empty()) {
            warn(pair.at, "reach: nothing measures these addresses yet, so they count for nothing");
        }
        const bool v4 = std::ranges::any_of(
            pair.heartbeats, [](const heartbeat &each) { return each.partner.version == 4; });
        if (!pair.heartbeats.empty() && !v4) {
            warn(pair.heartbeats.front().at, "records of connections and clients travel between "
                                             "IPv4 addresses only: add such a heartbeat");
        }
        for (size_t i = 0; host_ != nullptr && i < pair.heartbeats.size(); i++) {
            warn(pair.heartbeats[i].at, vellb::heartbeat_surprises(state_.executor.heartbeats[i],
                                                                   state_, made_e::IN_FILE));
        }
    }

    // Return addresses are found through their servers; that of another server counts as well.
    void check_announced()
    {
        std::set<std::string> announced;
        std::set<std::string> others;
        const server *first = nullptr;
        for (const bool within : {true, false}) {
            each_server([&](const server &one, bool is_within) {
                const std::string address = address_text(one.return_address);
                if (one.forward != forward_e::NAT || is_within != within) {
                    return;
                }
                if (within) {
                    announced.insert(address);
                } else if (!announced.contains(address) && others.insert(address).second) {
                    first = first == nullptr ? &one : first;
                }
            });
        }
        if (first != nullptr) {
            warn(first->at,
                 fmt::format("return-address {}{} not announced at a takeover: only those of the "
                             "first {} servers of a port, {} ports and {} clusters are",
                             address_text(first->return_address),
                             others.size() == 1
                                 ? std::string(" is")
                                 : fmt::format(" and {} more from here on are", others.size() - 1),
                             ANNOUNCED, ANNOUNCED, ANNOUNCED));
        }
    }
    // `visit` is told whether the daemon comes to the server at a takeover.
    template <class F> void each_server(F visit) const
    {
        for (size_t i = 0; i < wanted_.clusters.size(); i++) {
            const std::vector<port> &ports = wanted_.clusters[i].ports;
            for (size_t j = 0; j < ports.size(); j++) {
                for (size_t k = 0; k < ports[j].servers.size(); k++) {
                    visit(ports[j].servers[k], i < ANNOUNCED && j < ANNOUNCED && k < ANNOUNCED);
                }
            }
        }
    }

    void check_cluster(const cluster &written, const vellb::cluster &made)
    {
        if (host_ != nullptr) {
            warn(written.at, vellb::subnet_surprises(made.address, *host_, made_e::IN_FILE));
        }
        if (const char *what = unsuitable(written.address)) {
            warn(written.at, fmt::format("no client reaches cluster {}: it is {}",
                                         address_text(written.address), what));
        } else if (is_own(written.address)) {
            warn(written.at, fmt::format("cluster {} is an address of this machine too, whose own "
                                         "stack answers clients: take it off the interface",
                                         address_text(written.address)));
        }
        limit(written.ports, VISITED, "ports", "are not aged: their records never expire");
        const bool needs_gateway = std::ranges::any_of(made.ports, [](const vellb::port &each) {
            return each.settings.reset != 0 || vellb::translates(each);
        });
        if (needs_gateway && !told_gateway_[made.address.version == 6]) {
            told_gateway_[made.address.version == 6] = true;
            warn(written.at,
                 vellb::gateway_surprises(state_.executor, made.address.version, made_e::IN_FILE));
        }
        for (size_t i = 0; i < written.ports.size(); i++) {
            check_port(written, written.ports[i], made.ports[i]);
        }
    }

    void check_port(const cluster &above, const port &written, const vellb::port &made)
    {
        limit(written.servers, VISITED, "servers",
              "are not weighed: they count neither in the sum of weights nor in open connections");
        limit(written.rules, VISITED, "rules", "are not weighed, so they may not fire");
        if (wanted_.ha.role != LBHA_ROLE_SOLO) {
            warn(written.at, vellb::replication_surprises(made, made_e::IN_FILE));
        }
        check_udp(written);
        check_crossport(above, written, made);
        check_shared_table(above, written, made);
        if (written.sticky_time_s && !keeps_clients(written.algorithm)) {
            warn(written.at, fmt::format("sticky-time has no effect with algorithm {}",
                                         name(written.algorithm)));
        }
        warn(written.at, vellb::spread_surprises(made, made_e::IN_FILE));
        check_tunnels(above, written);
        check_roads(above, written);
        for (size_t i = 0; i < written.servers.size(); i++) {
            warn(written.servers[i].at,
                 vellb::server_surprises(made, made.servers[i], made_e::IN_FILE));
        }
        for (const rule &each : written.rules) { // made's are sorted
            const auto same = std::ranges::find(made.rules, each.number, &vellb::rule::number);
            warn(each.at, vellb::rule_surprises(made, *same, made_e::IN_FILE));
        }
    }

    static std::string name(lb_u8_t algorithm)
    {
        return vellb::name_of(vellb::algorithms(), algorithm);
    }

    void check_udp(const port &written)
    {
        const bool table =
            (!keeps_connections(written.udp_algorithm) || keeps_connections(written.algorithm)) &&
            (!keeps_clients(written.udp_algorithm) || keeps_clients(written.algorithm));
        if (!table) {
            warn(written.at,
                 fmt::format("udp-algorithm {} needs a table that algorithm {} does not make: UDP "
                             "packets of this port are dropped; name the same for both",
                             name(written.udp_algorithm), name(written.algorithm)));
        }
    }

    void check_crossport(const cluster &above, const port &written, const vellb::port &made)
    {
        if (written.crossport == 0 || written.crossport == written.number ||
            made.fixed.crossport == written.crossport) {
            return;
        }
        const auto other = std::ranges::find(above.ports, written.crossport, &port::number);
        const std::string why =
            other == above.ports.end() ? fmt::format("cluster {} has no port {}",
                                                     address_text(above.address), written.crossport)
            : !keeps_clients(other->algorithm)
                ? fmt::format("port {} has algorithm {}, so no affinity table", other->number,
                              name(other->algorithm))
            : other->algorithm != written.algorithm
                ? fmt::format("port {} has algorithm {}, and only the same can share a table",
                              other->number, name(other->algorithm))
                : "a port can be joined with one other only";
        warn(written.crossport_at,
             fmt::format("crossport {} joins nothing: {}", written.crossport, why));
    }

    // A client is sent to where the table has it, and to nowhere if that is no server of the port.
    void check_shared_table(const cluster &above, const port &written, const vellb::port &made)
    {
        const auto other = std::ranges::find(above.ports, made.fixed.crossport, &port::number);
        if (other == above.ports.end() || other->number == written.number) {
            return;
        }
        const auto stays_behind = [&](const server &each) {
            return each.sticky && each.weight != 0 &&
                   std::ranges::none_of(other->servers, [&](const server &theirs) {
                       return vellb::same_address(theirs.address, each.address);
                   });
        };
        const auto found = std::ranges::find_if(written.servers, stays_behind);
        if (found != written.servers.end()) {
            warn(found->at, fmt::format("server {} is none of port {}, which shares the affinity "
                                        "table: its clients are dropped there as errors; name the "
                                        "same servers in both",
                                        address_text(found->address), other->number));
        }
    }

    // What is wrong with where the server is said to be, whatever the subnets.
    [[nodiscard]] std::string misplaced(const server &each) const
    {
        const std::string name = address_text(each.address);
        const auto is_it = [&](const cluster &one) {
            return vellb::same_address(one.address, each.address);
        };
        if (const char *what = unsuitable(each.address)) {
            return fmt::format("no packet reaches server {}: it is {}", name, what);
        }
        if (each.forward == forward_e::DIRECT && is_own(each.address)) {
            return fmt::format("server {} is this machine itself; use forward: collocated", name);
        }
        if (each.forward != forward_e::COLLOCATED && std::ranges::any_of(wanted_.clusters, is_it)) {
            return fmt::format("server {} is a cluster's address, so packets come back; use the "
                               "server's own",
                               name);
        }
        return "";
    }

    // The daemon resolves next hops on its interfaces' subnets and nowhere else.
    void check_roads(const cluster &above, const port &written)
    {
        const bool reached = !is_stranded(above.address); // else that is told
        std::set<std::string> told;                       // routers; "" for servers
        for (const server &each : written.servers) {
            const std::string why = misplaced(each);
            const bool nat = each.forward == forward_e::NAT;
            const bool hops = nat || each.forward == forward_e::DIRECT;
            const lbip_addr_t &hop = nat ? each.router_address : each.address;
            if (!why.empty()) {
                warn(each.at, why);
            } else if (reached && hops && is_stranded(hop) &&
                       told.insert(nat ? address_text(hop) : "").second) {
                warn(each.at, fmt::format("{} {} is in no subnet of an interface, so packets never "
                                          "reach {}",
                                          nat ? "router-address" : "server", address_text(hop),
                                          nat ? "the server"
                                              : "it; use forward: ipip, gre, or nat with a "
                                                "router-address"));
            }
        }
    }

    // The MTU on the way to an address of one of the host's subnets, 0 if that is not known.
    [[nodiscard]] lb_u32_t mtu_towards(const lbip_addr_t &address) const
    {
        const vellb::interface *way = host_ != nullptr ? towards(address) : nullptr;
        return way != nullptr ? way->settings.mtu_sys : 0;
    }

    void check_tunnels(const cluster &above, const port &written)
    {
        constexpr lb_u32_t IPIP_BYTES = sizeof(lbipv4_hdr_t);
        constexpr lb_u32_t GRE_BYTES = sizeof(lbipv4_hdr_t) + sizeof(lbgre_hdr_t);
        constexpr lb_u32_t USUAL = 1500;
        bool told = false;
        for (const server &each : written.servers) {
            const bool tunnel = each.forward == forward_e::IPIP || each.forward == forward_e::GRE;
            if (!tunnel || each.address.version != 4) { // that one is told of anyway
                continue;
            }
            const lb_u32_t outer = each.encap_mtu.value_or(USUAL);
            const lb_u32_t link = mtu_towards(each.address);
            if (link != 0 && outer > link) {
                warn(each.at, fmt::format("encap-mtu {} is more than the {} of the interface "
                                          "towards {}: what is longer is fragmented or lost; give "
                                          "encap-mtu: {}",
                                          outer, link, address_text(each.address), link));
            }
            const lb_u32_t inner =
                outer - (each.forward == forward_e::GRE ? GRE_BYTES : IPIP_BYTES);
            const lb_u32_t clients = mtu_towards(above.address);
            if (!told && inner < (clients != 0 ? clients : USUAL)) {
                told = true;
                warn(each.at,
                     fmt::format("packets of clients fit into this tunnel up to {} bytes: longer "
                                 "ones are answered with ICMP, which clients behind a filter never "
                                 "get; lower the servers' MSS, or raise the MTU on the way and "
                                 "encap-mtu",
                                 inner));
            }
        }
    }

    const service &wanted_;
    target state_;
    const std::vector<vellb::interface> *host_;
    std::vector<finding> found_{};
    bool told_gateway_[2] = {false, false}; // by version
};

} // namespace

std::vector<finding> check(const service &wanted, const std::vector<vellb::interface> *host)
{
    return checker(wanted, host).run();
}

} // namespace vellcfg
