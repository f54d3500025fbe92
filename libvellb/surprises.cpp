// Settings that will surprise. The hash algorithm takes the client's port modulo the sum of
// weights, and Linux gives connect() even ports only (ip(7), ip_local_port_range; odd ones are kept
// for bind()): over an even sum, only even remainders occur.
#include "vellb/surprises.h"

#include <algorithm>
#include <fmt/format.h>
#include <numeric>

#include "vellb/address.h"
#include "vellb/names.h"

namespace vellb
{

namespace
{

// How long a busy connection or client is not told to the partner again.
constexpr lb_u32_t REPLICATED_EVERY_S = 640;

// Even numbers from `first` to before `last`.
unsigned evens(unsigned first, unsigned last)
{
    return (last + 1) / 2 - (first + 1) / 2;
}

unsigned weight_of(const vellb::server &server, bool all_zero)
{
    return all_zero ? 1 : server.settings.weight;
}

std::vector<std::string> parity_surprises(const vellb::port &port, unsigned sum, bool all_zero)
{
    std::vector<std::string> starving;
    std::vector<std::string> uneven;
    unsigned first = 0;
    for (const vellb::server &server : port.servers) {
        const unsigned weight = weight_of(server, all_zero);
        const unsigned got = evens(first, first + weight);
        first += weight;
        const std::string name = address_text(server.address);
        if (weight != 0 && got == 0) {
            starving.push_back(name);
        } else if (2 * got != weight) {
            uneven.push_back(fmt::format("{} gets {} of {} instead of {} of {}", name, got, sum / 2,
                                         weight, sum));
        }
    }
    if (starving.empty() && uneven.empty()) {
        return {};
    }
    const std::string effect =
        starving.empty() ? fmt::format("{}", fmt::join(uneven, ", "))
                         : fmt::format("{} get{} none of their connections",
                                       fmt::join(starving, ", "), starving.size() == 1 ? "s" : "");
    const std::string remedy =
        all_zero ? "give the servers weights with an odd sum" : "make the sum odd";
    return {fmt::format("port {}: {} is even, and Linux clients connect from even ports only: {}; "
                        "{}",
                        endpoint_text(port.cluster, port.number),
                        all_zero ? fmt::format("the number of servers ({})", sum)
                                 : fmt::format("the sum of weights ({})", sum),
                        effect, remedy)};
}

bool counts(const vellb::port &port)
{
    return keeps_connections(port.fixed.selectalg);
}

// Translation needs a record of each connection to find the way back.
std::vector<std::string> nat_surprises(const vellb::port &port, made_e made)
{
    if (counts(port) || !translates(port)) {
        return {};
    }
    return {fmt::format(
        "port {} has NAT servers but algorithm {}, which keeps no connections: TCP "
        "packets to these servers are dropped; {}",
        endpoint_text(port.cluster, port.number), name_of(algorithms(), port.fixed.selectalg),
        made == made_e::IN_FILE ? "use algorithm connection or conn-affin"
                                : "the algorithm is fixed, so add the port anew with --algorithm "
                                  "connection or conn-affin")};
}

} // namespace

std::vector<std::string> rule_surprises(const vellb::port &port, const vellb::rule &rule,
                                        made_e made)
{
    const lbrul_setable_t &set = rule.settings;
    const std::string name =
        fmt::format("rule {} of port {}", rule.number, endpoint_text(port.cluster, port.number));
    if (set.type != LBRUL_TYPE_TRUE && !counts(port)) {
        return {fmt::format("{} goes by open connections, but with algorithm {} the port counts "
                            "none: it {} fires",
                            name, name_of(algorithms(), port.fixed.selectalg),
                            set.beginrange == 0 ? "always" : "never")};
    }
    if (rule.useservers.empty()) {
        return {
            fmt::format("{} uses no server: what it fires for is dropped; give it one: {}", name,
                        made == made_e::IN_FILE
                            ? "use-servers: [...]"
                            : fmt::format("vellbctl use-server add {} {} SERVER",
                                          endpoint_text(port.cluster, port.number), rule.number))};
    }
    const auto weighs = [&](const vellb::server &each) {
        return each.settings.weight != 0 &&
               std::ranges::any_of(rule.useservers, [&](const lbip_addr_t &used) {
                   return same_address(used, each.address);
               });
    };
    if (std::ranges::none_of(port.servers, weighs)) {
        return {fmt::format("{} never fires: all its servers have weight 0", name)};
    }
    return {};
}

// Translation and tunnels keep to one version of IP; what is only carried to a hardware address
// does not.
std::vector<std::string> server_surprises(const vellb::port &port, const vellb::server &each,
                                          made_e made)
{
    const auto way = forwarding_of(each);
    const bool tunnel = way == forward_e::GRE || way == forward_e::IPIP;
    const bool works = tunnel
                           ? port.cluster.version == 4 && each.address.version == 4
                           : way != forward_e::NAT || port.cluster.version == each.address.version;
    if (works) {
        return {};
    }
    return {fmt::format(
        "server {} of port {}: {}, so packets to it are dropped as errors; {}",
        address_text(each.address), endpoint_text(port.cluster, port.number),
        tunnel ? fmt::format("{} tunnels carry IPv4 only",
                             name_of(forwardings(), static_cast<lb_u64_t>(*way)))
               : fmt::format("NAT does not turn IPv{} into IPv{}", port.cluster.version,
                             each.address.version),
        !tunnel ? fmt::format("use an IPv{} address of it", port.cluster.version)
                : fmt::format("use {} if it is on a segment of the forwarder",
                              made == made_e::IN_FILE ? "forward: direct" : "--encap none"))};
}

std::vector<std::string> heartbeat_surprises(const vellb::heartbeat &heartbeat,
                                             const vellb::picture &now, made_e made)
{
    std::vector<std::string> texts;
    for (const lbip_addr_t &end : {heartbeat.local, heartbeat.partner}) {
        const auto is_it = [&](const lbip_addr_t &each) { return vellb::same_address(each, end); };
        if (std::ranges::any_of(now.executor.clusters, is_it)) {
            texts.push_back(fmt::format("heartbeats to {} are not recognised, because it is a "
                                        "cluster's address: use addresses of the nodes' own",
                                        vellb::address_text(end)));
        }
    }
    const auto has_it = [&](const vellb::interface &interface) {
        return std::ranges::any_of(interface.addresses, [&](const vellb::interface_address &each) {
            return vellb::same_address(each.address, heartbeat.local);
        });
    };
    if (std::ranges::none_of(now.interfaces, has_it)) {
        texts.push_back(fmt::format("no interface that the daemon knows has the address {}: {}",
                                    vellb::address_text(heartbeat.local),
                                    made == made_e::IN_FILE
                                        ? "is this the partner's file?"
                                        : "is it this node's own? then: vellbctl interface sync"));
    }
    return texts;
}

// What the partner will not know of a port's connections and clients.
std::vector<std::string> replication_surprises(const vellb::port &port, made_e made)
{
    const lb_u8_t algorithm = port.fixed.selectalg;
    const lb_u8_t strategy = port.settings.repstrategy;
    const bool connections = keeps_connections(algorithm);
    const bool clients = keeps_clients(algorithm);
    const bool lacks_connections = connections && strategy != LBHA_REPLICATIONSTRATEGY_CRREP &&
                                   strategy != LBHA_REPLICATIONSTRATEGY_CRARREP;
    const bool lacks_clients = clients && strategy != LBHA_REPLICATIONSTRATEGY_ARREP &&
                               strategy != LBHA_REPLICATIONSTRATEGY_CRARREP;
    const std::string endpoint = vellb::endpoint_text(port.cluster, port.number);
    const auto remedy = [&](const std::string &key, const std::string &value) {
        return made == made_e::IN_FILE
                   ? fmt::format("{}: {}", key, value)
                   : fmt::format("vellbctl port set {} --{} {}", endpoint, key, value);
    };
    if (!lacks_connections && !lacks_clients) {
        const bool stale = connections && port.settings.staletimeout <= REPLICATED_EVERY_S;
        const bool unstuck = clients && port.settings.stickytime <= REPLICATED_EVERY_S;
        if (!stale && !unstuck) {
            return {};
        }
        return {
            fmt::format("port {}: the partner hears of what lasts only every {} s and forgets it "
                        "before that; {} or more",
                        endpoint, REPLICATED_EVERY_S,
                        remedy(stale ? "stale-timeout" : "sticky-time",
                               fmt::format("{}s", REPLICATED_EVERY_S + 60)))};
    }
    return {fmt::format("port {}: at a takeover {}; {}", endpoint,
                        lacks_connections ? "its connections end, because they are not replicated"
                                          : "its clients get new servers, because they are not "
                                            "replicated",
                        remedy("replication", connections && clients ? "both"
                                              : connections          ? "connections"
                                                                     : "affinity"))};
}

bool translates(const vellb::port &port)
{
    return std::ranges::any_of(port.servers,
                               [](const vellb::server &each) { return each.fixed.nat != 0; });
}

std::vector<std::string> spread_surprises(const vellb::port &port, made_e made)
{
    std::vector<std::string> texts;
    const auto plus = [](unsigned sum, const vellb::server &s) { return sum + s.settings.weight; };
    const unsigned weights = std::accumulate(port.servers.begin(), port.servers.end(), 0U, plus);
    const bool all_zero = weights == 0;
    const auto sum = all_zero ? static_cast<unsigned>(port.servers.size()) : weights;
    if (all_zero && !port.servers.empty()) {
        texts.push_back(fmt::format("port {}: all servers have weight 0, so they take turns and "
                                    "still get traffic; to drain the port, remove the servers",
                                    endpoint_text(port.cluster, port.number)));
    }
    if (port.fixed.selectalg == LBSEL_ALGORIGHM_HASH && port.servers.size() > 1 && sum % 2 == 0) {
        const auto more = parity_surprises(port, sum, all_zero);
        texts.insert(texts.end(), more.begin(), more.end());
    }
    const auto nat = nat_surprises(port, made);
    texts.insert(texts.end(), nat.begin(), nat.end());
    return texts;
}

std::vector<std::string> port_surprises(const vellb::port &port)
{
    std::vector<std::string> texts = spread_surprises(port);
    const auto take = [&](const std::vector<std::string> &more) {
        texts.insert(texts.end(), more.begin(), more.end());
    };
    for (const vellb::server &each : port.servers) {
        take(server_surprises(port, each));
    }
    for (const vellb::rule &each : port.rules) {
        take(rule_surprises(port, each));
    }
    return texts;
}

std::vector<std::string> subnet_surprises(const lbip_addr_t &cluster,
                                          const std::vector<vellb::interface> &interfaces,
                                          made_e made)
{
    for (const vellb::interface &interface : interfaces) {
        for (const vellb::interface_address &each : interface.addresses) {
            if (on_net(cluster, each.address) || same_address(cluster, each.peer)) {
                return {};
            }
        }
    }
    return {fmt::format("no interface carries the subnet of cluster {}, so {} for it are not "
                        "answered; {}",
                        address_text(cluster),
                        cluster.version == 6 ? "neighbour solicitations" : "ARP requests",
                        made == made_e::IN_FILE
                            ? "give an interface of this machine an address of that subnet, and "
                              "name it in 'interfaces'"
                            : "teach the daemon its interfaces: vellbctl interface sync")};
}

std::vector<std::string> gateway_surprises(const vellb::executor &executor, lb_u8_t version,
                                           made_e made)
{
    const lbexe_setable_t &set = executor.settings;
    if (is_set(version == 6 ? set.clientgateway_ipv6 : set.clientgateway)) {
        return {};
    }
    const std::string key = version == 6 ? "client-gateway-ipv6" : "client-gateway";
    const std::string remedy = made == made_e::IN_FILE
                                   ? fmt::format("'{}' under executor", key)
                                   : fmt::format("vellbctl executor set --{} ADDRESS", key);
    return {
        fmt::format("no {}client gateway is set, so resets and answers of NAT servers cannot be "
                    "sent to clients{}; set it: {}",
                    version == 6 ? "IPv6 " : "", version == 6 ? " of IPv6 clusters" : "", remedy)};
}

std::vector<std::string> gateway_surprises(const vellb::executor &executor,
                                           const std::vector<vellb::interface> &interfaces)
{
    std::vector<std::string> texts;
    for (const lb_u8_t version : {lb_u8_t{4}, lb_u8_t{6}}) {
        if (std::ranges::find(executor.clusters, version, &lbip_addr_t::version) !=
            executor.clusters.end()) {
            const auto more = gateway_surprises(executor, version);
            texts.insert(texts.end(), more.begin(), more.end());
        }
    }
    const lbip_addr_t &gateway = executor.settings.clientgateway_ipv6;
    std::vector<std::string> names;
    for (const vellb::interface &interface : interfaces) {
        const auto has_it = [&](const vellb::interface_address &each) {
            return on_net(gateway, each.address);
        };
        if (std::ranges::any_of(interface.addresses, has_it)) {
            names.push_back(interface.name);
        }
    }
    if (is_link_local(gateway) && names.size() > 1) {
        texts.push_back(fmt::format("client gateway {} is link-local and may be behind any of {}: "
                                    "the daemon takes {}, the first that it was told of; better "
                                    "name a global address of the gateway",
                                    address_text(gateway), fmt::join(names, ", "), names.front()));
    }
    return texts;
}

bool is_paired(const lbha_setables_t &settings)
{
    return settings.role == LBHA_ROLE_PRIMARY || settings.role == LBHA_ROLE_BACKUP;
}

std::vector<std::string> ha_surprises(const vellb::picture &now)
{
    const std::vector<vellb::heartbeat> &heartbeats = now.executor.heartbeats;
    if (!is_paired(now.executor.settings.ha)) {
        return heartbeats.empty() ? std::vector<std::string>{}
                                  : std::vector<std::string>{
                                        "no heartbeats are sent while this node's role is solo: "
                                        "vellbctl ha set --role primary|backup --port PORT"};
    }
    std::vector<std::string> texts;
    if (heartbeats.empty()) {
        texts.emplace_back("no heartbeat is configured, so this node hears of no partner and takes "
                           "the addresses over: vellbctl heartbeat add LOCAL PARTNER");
    } else if (std::ranges::none_of(heartbeats, [](const vellb::heartbeat &each) {
                   return each.partner.version == 4;
               })) {
        texts.emplace_back("records of connections and clients travel to IPv4 partners only: add "
                           "a heartbeat between IPv4 addresses");
    }
    for (const vellb::heartbeat &each : heartbeats) {
        for (std::string &text : heartbeat_surprises(each, now)) {
            texts.push_back(std::move(text));
        }
    }
    for (const vellb::cluster &cluster : now.clusters) {
        for (const vellb::port &port : cluster.ports) {
            for (std::string &text : replication_surprises(port)) {
                texts.push_back(std::move(text));
            }
        }
    }
    return texts;
}

std::vector<std::string> surprises(const vellb::picture &now)
{
    std::vector<std::string> texts;
    const auto take = [&](const std::vector<std::string> &more) {
        texts.insert(texts.end(), more.begin(), more.end());
    };
    take(gateway_surprises(now.executor, now.interfaces));
    take(ha_surprises(now));
    for (const vellb::cluster &cluster : now.clusters) {
        take(subnet_surprises(cluster.address, now.interfaces));
        for (const vellb::port &port : cluster.ports) {
            take(port_surprises(port));
        }
    }
    return texts;
}

} // namespace vellb
