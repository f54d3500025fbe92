// From what was written to the daemon's own blocks. The rules are those of the daemon's objects
// when they are added and set. Pure.
#include "vellcfg/normalise.h"

#include "lb_log.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "vellb/address.h"

namespace vellcfg
{

namespace
{

constexpr lb_u32_t STALE_S = 6400;
constexpr lb_u32_t STICKY_S = 1800;
constexpr lb_u32_t WEIGHTBOUND = 20;
constexpr lb_u16_t ENCAPMTU = 1500;

// The rest of the field is zero.
template <class T, size_t SIZE> void put_text(T (&field)[SIZE], const std::string &text)
{
    memset(field, 0, SIZE);
    memcpy(field, text.data(), std::min(text.size(), SIZE - 1));
}

// The tunnels' MTUs that the file gives, by server: the daemon keeps one for each address.
using mtus_t = std::map<std::string, lb_u16_t>;

mtus_t given_mtus(const service &wanted)
{
    mtus_t mtus;
    for (const cluster &above : wanted.clusters) {
        for (const port &each : above.ports) {
            for (const server &one : each.servers) {
                if (one.encap_mtu) {
                    mtus.emplace(vellb::address_text(one.address), *one.encap_mtu);
                }
            }
        }
    }
    return mtus;
}

// An ADD writes the address's MTU, even that of a server without a tunnel.
lb_u16_t mtu_of(const server &wanted, const mtus_t &mtus)
{
    const auto given = mtus.find(vellb::address_text(wanted.address));
    return wanted.encap_mtu.value_or(given != mtus.end() ? given->second : ENCAPMTU);
}

vellb::server server_of(const server &wanted, const mtus_t &mtus)
{
    vellb::server made;
    made.address = wanted.address;
    made.fixed.nat = wanted.forward == forward_e::NAT ? 1 : 0;
    made.fixed.returnaddress = wanted.return_address;
    made.fixed.routeraddress = wanted.router_address;
    lbsrv_setable_t &set = made.settings;
    const lb_u8_t tunnel = wanted.forward == forward_e::IPIP  ? LBSRV_ENCAPTYPE_IPIP
                           : wanted.forward == forward_e::GRE ? LBSRV_ENCAPTYPE_GRE
                                                              : LBSRV_ENCAPTYPE_NONE;
    if (tunnel != LBSRV_ENCAPTYPE_NONE) {
        set.encapflags = static_cast<lb_u8_t>(tunnel | LBSRV_ENCAPFLAG_ENCAPSULATE);
    }
    set.encapsrcip = wanted.encap_source;
    set.encapmtu = mtu_of(wanted, mtus);
    set.weight = wanted.weight;
    set.quiesced = wanted.quiesced ? 1 : 0;
    set.stickyflag = wanted.sticky ? 1 : 0;
    set.Collocated = wanted.forward == forward_e::COLLOCATED ? 1 : 0;
    set.serverup = 1;
    put_text(set.serverid, wanted.id);
    return made;
}

vellb::rule rule_of(const rule &wanted)
{
    vellb::rule made;
    made.number = wanted.number;
    made.settings.type = wanted.type;
    made.settings.beginrange = wanted.first;
    made.settings.endrange = wanted.last;
    put_text(made.settings.name, wanted.name);
    for (const useserver &each : wanted.useservers) {
        made.useservers.push_back(each.address);
    }
    return made;
}

vellb::port port_of(const lbip_addr_t &cluster, const port &wanted, const mtus_t &mtus)
{
    vellb::port made;
    made.cluster = cluster;
    made.number = wanted.number;
    made.fixed.selectalg = wanted.algorithm;
    made.fixed.udpselectalg = wanted.udp_algorithm;
    made.fixed.crossport = wanted.number;
    lbport_setable_t &set = made.settings;
    set.staletimeout = wanted.stale_timeout_s.value_or(STALE_S);
    set.stickytime = wanted.sticky_time_s.value_or(
        wanted.algorithm == LBSEL_ALGORIGHM_CONN_AFFIN ? STICKY_S
        : wanted.algorithm == LBSEL_ALGORIGHM_AFFINITY ? set.staletimeout
                                                       : 0);
    set.weightbound = WEIGHTBOUND;
    set.reset = wanted.reset ? 1 : 0;
    set.repstrategy = wanted.replication;
    for (const server &each : wanted.servers) {
        made.servers.push_back(server_of(each, mtus));
    }
    for (const rule &each : wanted.rules) {
        made.rules.push_back(rule_of(each));
    }
    std::ranges::sort(made.rules, {}, &vellb::rule::number);
    return made;
}

// The daemon writes the other's number into both of a pair, whichever of them named it. A port
// joins one other: what names a third, or no port that has an affinity table, joins nothing.
void join_ports(const cluster &wanted, vellb::cluster &made)
{
    std::map<lb_u16_t, vellb::port *> ports;
    for (vellb::port &each : made.ports) {
        ports[each.number] = &each;
    }
    const auto alone = [](const vellb::port &each) { return each.fixed.crossport == each.number; };
    for (const port &each : wanted.ports) {
        const auto found = ports.find(each.crossport);
        vellb::port &mine = *ports.at(each.number);
        if (found == ports.end() || found->second == &mine ||
            !vellb::keeps_clients(mine.fixed.selectalg) ||
            mine.fixed.selectalg != found->second->fixed.selectalg || !alone(mine) ||
            !alone(*found->second)) {
            continue;
        }
        mine.fixed.crossport = found->second->number;
        found->second->fixed.crossport = mine.number;
    }
}

vellb::cluster cluster_of(const cluster &wanted, const mtus_t &mtus)
{
    vellb::cluster made;
    made.address = wanted.address;
    put_text(made.settings.clusterid, wanted.id);
    for (const port &each : wanted.ports) {
        made.ports.push_back(port_of(wanted.address, each, mtus));
    }
    join_ports(wanted, made);
    return made;
}

lbha_setables_t ha_of(const ha &wanted)
{
    lbha_setables_t set{};
    set.role = wanted.role;
    set.timeout = wanted.timeout_s;
    if (wanted.role == LBHA_ROLE_SOLO) {
        set.tostrategy = LBHA_TAKEOVERSTRATEGY_NA;
        return set;
    }
    set.tostrategy = wanted.takeover;
    set.repstrategy = wanted.replication;
    set.port = wanted.port;
    const size_t count = std::min(wanted.reach.size(), std::size(set.reachaddr));
    std::copy_n(wanted.reach.begin(), count, set.reachaddr);
    return set;
}

} // namespace

target normalised(const service &wanted)
{
    target made;
    lbexe_setable_t &set = made.executor.settings;
    made.log_mask_given = wanted.executor.log_mask.has_value();
    set.log_mask = wanted.executor.log_mask.value_or(LB_LOG_FAILURE);
    set.nfa = wanted.executor.own_address;
    set.clientgateway = wanted.executor.client_gateway;
    set.clientgateway_ipv6 = wanted.executor.client_gateway_ipv6;
    set.ha = ha_of(wanted.ha);
    for (const heartbeat &each : wanted.ha.heartbeats) {
        made.executor.heartbeats.push_back({each.local, each.partner, {}});
    }
    const mtus_t mtus = given_mtus(wanted);
    for (const cluster &each : wanted.clusters) {
        made.executor.clusters.push_back(each.address);
        made.clusters.push_back(cluster_of(each, mtus));
    }
    return made;
}

} // namespace vellcfg
