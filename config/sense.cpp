// Whether objects, each of them right, are right together: what the daemon would refuse, or would
// take and then do something else. Pure.
#include "sense.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>

#include "document.h"
#include "prot/command.h"
#include "vellb/address.h"
#include "vellb/names.h"
#include "vellb/words.h"

namespace vellcfg
{

namespace
{

using vellb::address_text;

// The keys of children that an answer has room for behind the object's blocks. What the daemon
// cannot list cannot be found again.
template <class... BLOCKS> constexpr size_t listable()
{
    return (LBCMD_PAYLOADSIZE - (sizeof(BLOCKS) + ... + 0)) / sizeof(lbcmd_key_t);
}

class judge
{
  public:
    std::vector<finding> errors{};

    void judge_all(const service &wanted)
    {
        judge_interfaces(wanted);
        judge_ha(wanted);
        for (const cluster &each : wanted.clusters) {
            once(clusters_, address_text(each.address), each.at, "cluster");
        }
        few(wanted.clusters.size() + wanted.ha.heartbeats.size(),
            listable<lbexe_setable_t, lbexe_getable_t>(),
            wanted.clusters.empty() ? wanted.ha.at : wanted.clusters.back().at,
            "clusters and heartbeats");
        for (const cluster &each : wanted.clusters) {
            judge_cluster(each);
        }
    }

  private:
    using places_t = std::map<std::string, place>;

    void error(const place &at, std::string text) { tell(errors, at, std::move(text)); }

    // An address that could not be read was told of.
    void once(places_t &known, const std::string &name, const place &at, const char *object)
    {
        if (name == address_text({})) {
            return;
        }
        const auto [first, fresh] = known.emplace(name, at);
        if (!fresh) {
            error(at, fmt::format("{} {} is there twice; the first is at {}", object, name,
                                  place_text(first->second)));
        }
    }

    void few(size_t count, size_t most, const place &at, const char *what)
    {
        if (count > most) {
            error(at, fmt::format("{} {} are more than the daemon can list: {} at most", count,
                                  what, most));
        }
    }

    void judge_interfaces(const service &wanted)
    {
        places_t names;
        if (wanted.interfaces) {
            for (const interface_name &each : *wanted.interfaces) {
                once(names, each.name, each.at, "interface");
            }
        }
    }

    void judge_ha(const service &wanted)
    {
        const ha &pair = wanted.ha;
        places_t pairs;
        for (const heartbeat &each : pair.heartbeats) {
            once(pairs,
                 fmt::format("{} to {}", address_text(each.local), address_text(each.partner)),
                 each.at, "heartbeat");
            if (each.local.version != each.partner.version) {
                error(each.at, fmt::format("heartbeat from an IPv{} to an IPv{} address: both ends "
                                           "must be of one version",
                                           each.local.version, each.partner.version));
            }
            if (vellb::same_address(each.local, each.partner)) {
                error(each.at, "heartbeat to itself: 'partner' is the other node's address");
            }
        }
        if (pair.reach.size() > std::size(lbha_setables_t{}.reachaddr)) {
            error(pair.at, fmt::format("{} addresses in 'reach': {} are kept", pair.reach.size(),
                                       std::size(lbha_setables_t{}.reachaddr)));
        }
        if (pair.role != LBHA_ROLE_SOLO && pair.port == 0) {
            error(pair.at, "a node of a pair needs 'port', the UDP port of the heartbeats, the "
                           "same on both nodes");
        }
        if (pair.role == LBHA_ROLE_SOLO && !pair.heartbeats.empty()) {
            error(pair.heartbeats.front().at,
                  "a heartbeat with role solo: give this node role primary or backup");
        }
    }

    void judge_cluster(const cluster &wanted)
    {
        few(wanted.ports.size(), listable<lbclu_addable_t, lbclu_setable_t, lbclu_getable_t>(),
            wanted.at, "ports of a cluster");
        places_t ports;
        for (const port &each : wanted.ports) {
            once(ports, std::to_string(each.number), each.at, "port");
            judge_port(each);
        }
    }

    void judge_port(const port &wanted)
    {
        few(wanted.servers.size() + wanted.rules.size(),
            listable<lbport_addable_t, lbport_setable_t, lbport_getable_t>(), wanted.at,
            "servers and rules of a port");
        if (wanted.crossport != 0 && !vellb::keeps_clients(wanted.algorithm)) {
            error(wanted.crossport_at,
                  fmt::format("crossport: shares an affinity table, which algorithm {} does not "
                              "have: use affinity or conn-affin",
                              vellb::name_of(vellb::algorithms(), wanted.algorithm)));
        }
        places_t servers;
        for (const server &each : wanted.servers) {
            once(servers, address_text(each.address), each.at, "server");
            judge_forward(each);
        }
        places_t rules;
        for (const rule &each : wanted.rules) {
            once(rules, std::to_string(each.number), each.at, "rule");
            judge_rule(each, servers, servers.size() == wanted.servers.size());
        }
    }

    // `whole`: every server's address is known.
    void judge_rule(const rule &wanted, const places_t &servers, bool whole)
    {
        const std::string type = vellb::name_of(vellb::rule_types(), wanted.type);
        if (wanted.type == LBRUL_TYPE_TRUE && wanted.ranged) {
            error(wanted.at, "a rule with 'range' needs 'type', port-active or rule-active: whose "
                             "open connections are counted");
        }
        if (wanted.type != LBRUL_TYPE_TRUE && !wanted.ranged) {
            error(wanted.at, fmt::format("a rule of type {} needs 'range', the open connections at "
                                         "which it fires, as in: range: 10-20",
                                         type));
        }
        few(wanted.useservers.size(), listable<lbrul_addable_t, lbrul_setable_t, lbrul_getable_t>(),
            wanted.at, "use-servers of a rule");
        places_t used;
        for (const useserver &each : wanted.useservers) {
            const std::string name = address_text(each.address);
            once(used, name, each.at, "use-server");
            if (!servers.contains(name) && whole) {
                std::vector<std::string> names;
                std::ranges::transform(servers, std::back_inserter(names),
                                       [](const auto &one) { return one.first; });
                error(each.at, fmt::format("use-servers: {} is no server of this port{}", name,
                                           vellb::did_you_mean(name, names)));
            }
        }
    }

    void judge_forward(const server &wanted)
    {
        const std::string way =
            vellb::name_of(vellb::forwardings(), static_cast<lb_u64_t>(wanted.forward));
        const auto goes_with = [&](bool given, const char *key, const char *ways) {
            if (given) {
                error(wanted.at,
                      fmt::format("'{}' goes with forward: {}, not with {}", key, ways, way));
            }
        };
        if (wanted.forward == forward_e::NAT) {
            judge_nat(wanted);
        } else {
            goes_with(vellb::is_set(wanted.return_address), "return-address", "nat");
            goes_with(vellb::is_set(wanted.router_address), "router-address", "nat");
        }
        const bool tunnel = wanted.forward == forward_e::IPIP || wanted.forward == forward_e::GRE;
        if (!tunnel) {
            goes_with(wanted.encap_mtu.has_value(), "encap-mtu", "ipip or gre");
            goes_with(vellb::is_set(wanted.encap_source), "encap-source", "ipip or gre");
        } else if (vellb::is_set(wanted.encap_source)) {
            one_version(wanted, wanted.encap_source, "encap-source");
        }
    }

    void judge_nat(const server &wanted)
    {
        if (!vellb::is_set(wanted.return_address)) {
            error(wanted.at,
                  "forward: nat needs 'return-address', the address that the server sees "
                  "and answers to, one that no host has");
        }
        if (!vellb::is_set(wanted.router_address)) {
            error(wanted.at,
                  "forward: nat needs 'router-address', the next hop towards the server; "
                  "the server's own address if it is on the forwarder's segment");
        }
        if (!vellb::is_set(wanted.return_address) || !vellb::is_set(wanted.router_address)) {
            return;
        }
        one_version(wanted, wanted.return_address, "return-address");
        one_version(wanted, wanted.router_address, "router-address");
        const auto differs = [&](const lbip_addr_t &other, const char *why) {
            if (vellb::same_address(wanted.return_address, other)) {
                error(wanted.at, fmt::format("return-address: {} is {}",
                                             address_text(wanted.return_address), why));
            }
        };
        if (clusters_.contains(address_text(wanted.return_address))) {
            differs(wanted.return_address,
                    "a cluster's address: packets to it are clients', not answers");
        }
        differs(wanted.address, "the server's own address: it would answer itself");
        differs(wanted.router_address,
                "the router's own address: the forwarder would not see answers");
    }

    void one_version(const server &wanted, const lbip_addr_t &other, const char *key)
    {
        if (other.version != wanted.address.version) {
            error(wanted.at,
                  fmt::format("{}: {} is an IPv{} address, the server's is IPv{}", key,
                              address_text(other), other.version, wanted.address.version));
        }
    }

    places_t clusters_{};
};

} // namespace

std::string place_text(const place &at)
{
    return at.line == 0 ? at.file : fmt::format("{}:{}:{}", at.file, at.line, at.column);
}

std::string finding_text(const finding &told)
{
    std::string text = fmt::format("{}: {}", place_text(told.at), told.text);
    // It quotes the file, which must not speak to the terminal or look like another line.
    std::ranges::replace_if(
        text, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7F; }, '?');
    return text;
}

std::vector<finding> nonsense(const service &wanted)
{
    judge all;
    try {
        all.judge_all(wanted);
    } catch (const enough &) { // what is known is told
    }
    return std::move(all.errors);
}

} // namespace vellcfg
