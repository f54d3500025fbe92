// The picture for programs. Numbers are numbers, times end in _s, states come as words. Reads
// decoded blocks only.
#include "forwarding.h"
#include "render.h"
#include "vellb/address.h"
#include "vellb/names.h"

namespace vellbctl
{

namespace
{

using json_t = nlohmann::ordered_json;

json_t address_json(const lbip_addr_t &addr)
{
    return vellb::is_set(addr) ? json_t(vellb::address_text(addr)) : json_t(nullptr);
}

json_t counters_json(const lb_proto_stats_t &c)
{
    return {{"received", c.in}, {"forwarded", c.fwd},       {"generated", c.gen},
            {"errors", c.err},  {"not_for_us", c.notforus}, {"discarded", c.discard}};
}

json_t connections_json(const lb_conn_stats_t &c)
{
    return {{"establishing", c.preest},
            {"active", c.active},
            {"finishing", c.fin},
            {"so_far", c.lifetime}};
}

class json_renderer
{
  public:
    json_renderer(const vellb::picture &now, const vellb::picture *before, const sightings *seen)
        : now_(now), before_(before), seen_(seen)
    {
    }

    [[nodiscard]] json_t executor(long now_s) const;
    [[nodiscard]] json_t ha() const;
    [[nodiscard]] json_t heartbeats() const;
    [[nodiscard]] json_t cluster(const vellb::cluster &each) const;
    [[nodiscard]] json_t port(const vellb::port &each) const;
    [[nodiscard]] json_t server(const vellb::port &port, const vellb::server &each) const;
    // Clusters with all below them; or, flat, all ports, servers, rules or use-servers.
    [[nodiscard]] json_t listed(const view &what) const;
    // Appends the rules, or what they use.
    void add_rules(json_t &list, const vellb::cluster &each, const view &what) const;
    [[nodiscard]] json_t rule(const vellb::port &port, const vellb::rule &each) const;
    [[nodiscard]] static json_t useservers(const vellb::port &port, const vellb::rule &each);
    [[nodiscard]] static json_t interface(const vellb::interface &each);

  private:
    void add_rate(json_t &to, const char *name, lb_u64_t value, const lb_u64_t *earlier) const
    {
        if (before_ != nullptr && earlier != nullptr) {
            to[name] = rate_of(value, *earlier, now_.taken - before_->taken);
        }
    }

    const vellb::picture &now_;
    const vellb::picture *before_;
    const sightings *seen_;
};

json_t json_renderer::heartbeats() const
{
    json_t list = json_t::array();
    for (const vellb::heartbeat &each : now_.executor.heartbeats) {
        json_t one{{"local", vellb::address_text(each.local)},
                   {"partner", vellb::address_text(each.partner)},
                   {"neighbour", vellb::neighbour_text(each.readings.neighstate)},
                   {"neighbour_state", each.readings.neighstate}};
        if (seen_ != nullptr) {
            one["neighbour_seen_since"] = seen_->since(each);
        }
        list.push_back(std::move(one));
    }
    return list;
}

json_t json_renderer::ha() const
{
    const lbha_setables_t &set = now_.executor.settings.ha;
    const lbha_getables_t &get = now_.executor.readings.ha;
    json_t reach = json_t::array();
    for (const lbip_addr_t &each : set.reachaddr) {
        if (vellb::is_set(each)) {
            reach.push_back(vellb::address_text(each));
        }
    }
    json_t result{{"role", vellb::name_of(vellb::ha_roles(), set.role)},
                  {"state", vellb::name_of(vellb::ha_states(), get.state)},
                  {"substate", vellb::name_of(vellb::ha_substates(), get.substate)},
                  {"last_event", vellb::name_of(vellb::ha_events(), get.lastevent)},
                  {"takeover", vellb::name_of(vellb::ha_takeovers(), set.tostrategy)},
                  {"timeout_s", set.timeout},
                  {"replication", vellb::name_of(vellb::ha_replications(), set.repstrategy)},
                  {"port", set.port},
                  {"reach_score", set.reachscore},
                  {"reach_addresses", reach},
                  {"heartbeats", heartbeats()}};
    if (seen_ != nullptr) {
        result["state_seen_since"] = seen_->since();
    }
    return result;
}

json_t gateway_json(const lbip_addr_t &gateway, lb_u8_t state)
{
    if (!vellb::is_set(gateway)) {
        return nullptr;
    }
    return {{"address", vellb::address_text(gateway)}, {"neighbour", vellb::neighbour_text(state)}};
}

json_t json_renderer::executor(long now_s) const
{
    const lbexe_setable_t &set = now_.executor.settings;
    const lbexe_getable_t &get = now_.executor.readings;
    json_t counters{{"ipv4", counters_json(get.ipv4stats)},
                    {"ipv6", counters_json(get.ipv6stats)},
                    {"arp", counters_json(get.arpstats)},
                    {"icmp", counters_json(get.icmpstats)},
                    {"icmpv6", counters_json(get.icmpv6stats)}};
    const lbexe_getable_t *old = before_ != nullptr ? &before_->executor.readings : nullptr;
    add_rate(counters["ipv4"], "received_per_s", get.ipv4stats.in,
             old != nullptr ? &old->ipv4stats.in : nullptr);
    add_rate(counters["ipv4"], "forwarded_per_s", get.ipv4stats.fwd,
             old != nullptr ? &old->ipv4stats.fwd : nullptr);
    return {
        {"version", vellb::block_text(get.version, sizeof(get.version))},
        {"started", get.starttime.secs},
        {"up_s", now_s - get.starttime.secs},
        {"client_gateway", gateway_json(set.clientgateway, get.clientgwneighstate)},
        {"client_gateway_ipv6", gateway_json(set.clientgateway_ipv6, get.clientgwneighstate_ipv6)},
        {"own_address", address_json(set.nfa)},
        {"log_mask", set.log_mask},
        {"log_mask_names", vellb::mask_text(set.log_mask)},
        {"high_availability", ha()},
        {"counters", counters}};
}

json_t json_renderer::server(const vellb::port &port, const vellb::server &each) const
{
    const lbsrv_setable_t &set = each.settings;
    const lbsrv_getable_t &get = each.readings;
    json_t counters = counters_json(get.ipstats);
    const vellb::server *old = find(before_, port, each.address);
    add_rate(counters, "forwarded_per_s", get.ipstats.fwd,
             old != nullptr ? &old->readings.ipstats.fwd : nullptr);
    const auto encapsulation = static_cast<lb_u8_t>(set.encapflags & LBSRV_ENCAPFLAG_TYPEMASK);
    return {{"cluster", vellb::address_text(port.cluster)},
            {"port", port.number},
            {"server", vellb::address_text(each.address)},
            {"id", vellb::block_text(set.serverid, sizeof(set.serverid))},
            {"weight", set.weight},
            {"neighbour", vellb::neighbour_text(get.neighstate)},
            {"neighbour_state", get.neighstate},
            {"up", set.serverup != 0},
            {"sticky", set.stickyflag != 0},
            {"quiesced", set.quiesced != 0},
            {"forwarding", forwarding_name(each)},
            {"collocated", set.Collocated != 0},
            {"nat", each.fixed.nat != 0},
            {"return_address", address_json(each.fixed.returnaddress)},
            {"router_address", address_json(each.fixed.routeraddress)},
            {"encapsulation", vellb::name_of(vellb::encapsulations(), encapsulation)},
            {"encapsulation_source", address_json(set.encapsrcip)},
            {"encapsulation_mtu", set.encapmtu},
            {"counters", counters},
            {"icmp_counters", counters_json(get.icmpstats)},
            {"connections", connections_json(get.selstats)}};
}

json_t json_renderer::useservers(const vellb::port &port, const vellb::rule &each)
{
    json_t list = json_t::array();
    for (const lbip_addr_t &server : each.useservers) {
        list.push_back({{"cluster", vellb::address_text(port.cluster)},
                        {"port", port.number},
                        {"rule", each.number},
                        {"server", vellb::address_text(server)}});
    }
    return list;
}

json_t json_renderer::rule(const vellb::port &port, const vellb::rule &each) const
{
    const lbrul_setable_t &set = each.settings;
    const bool ranged = set.type != LBRUL_TYPE_TRUE;
    json_t servers = json_t::array();
    for (const lbip_addr_t &server : each.useservers) {
        servers.push_back(vellb::address_text(server));
    }
    json_t result{
        {"cluster", vellb::address_text(port.cluster)},
        {"port", port.number},
        {"rule", each.number},
        {"name", vellb::block_text(set.name, sizeof(set.name))},
        {"type", vellb::name_of(vellb::rule_types(), set.type)},
        {"from", ranged ? json_t(set.beginrange) : json_t(nullptr)},
        {"to", ranged ? json_t(set.endrange) : json_t(nullptr)},
        {"servers", servers},
        {"fired", each.readings.timesfired},
    };
    const vellb::rule *old = find(before_, port, each);
    add_rate(result, "fired_per_s", each.readings.timesfired,
             old != nullptr ? &old->readings.timesfired : nullptr);
    return result;
}

void json_renderer::add_rules(json_t &list, const vellb::cluster &each, const view &what) const
{
    for (const vellb::port &port : each.ports) {
        for (const vellb::rule &one : port.rules) {
            const json_t more =
                what.rules ? json_t::array({rule(port, one)}) : useservers(port, one);
            list.insert(list.end(), more.begin(), more.end());
        }
    }
}

json_t json_renderer::port(const vellb::port &each) const
{
    json_t counters = counters_json(each.readings.ipstats);
    const vellb::port *old = find(before_, each);
    add_rate(counters, "forwarded_per_s", each.readings.ipstats.fwd,
             old != nullptr ? &old->readings.ipstats.fwd : nullptr);
    json_t servers = json_t::array();
    for (const vellb::server &one : each.servers) {
        servers.push_back(server(each, one));
    }
    json_t rules = json_t::array();
    for (const vellb::rule &one : each.rules) {
        rules.push_back(rule(each, one));
    }
    return {{"cluster", vellb::address_text(each.cluster)},
            {"port", each.number},
            {"algorithm", vellb::name_of(vellb::algorithms(), each.fixed.selectalg)},
            {"udp_algorithm", vellb::name_of(vellb::algorithms(), each.fixed.udpselectalg)},
            {"crossport", each.fixed.crossport},
            {"stale_timeout_s", each.settings.staletimeout},
            {"sticky_time_s", each.settings.stickytime},
            {"reset", each.settings.reset != 0},
            {"replication", vellb::name_of(vellb::ha_replications(), each.settings.repstrategy)},
            {"rules", rules},
            {"connections", connections_json(connections_of(each))},
            {"counters", counters},
            {"icmp_counters", counters_json(each.readings.icmpstats)},
            {"choices",
             {{"table", each.readings.sel_rr_tablecounter},
              {"icmp", each.readings.sel_rr_icmpcounter},
              {"udp", each.readings.sel_rr_connlesscounter}}},
            {"servers", servers}};
}

json_t json_renderer::cluster(const vellb::cluster &each) const
{
    json_t counters = counters_json(each.readings.ipstats);
    const vellb::cluster *old = find(before_, each.address);
    add_rate(counters, "forwarded_per_s", each.readings.ipstats.fwd,
             old != nullptr ? &old->readings.ipstats.fwd : nullptr);
    json_t ports = json_t::array();
    for (const vellb::port &one : each.ports) {
        ports.push_back(port(one));
    }
    return {{"cluster", vellb::address_text(each.address)},
            {"id", vellb::block_text(each.settings.clusterid, sizeof(each.settings.clusterid))},
            {"counters", counters},
            {"arp_counters", counters_json(each.readings.arpstats)},
            {"icmp_counters", counters_json(each.readings.icmpstats)},
            {"ports", ports}};
}

json_t json_renderer::listed(const view &what) const
{
    json_t list = json_t::array();
    for (const vellb::cluster &each : now_.clusters) {
        if (!what.flat) {
            list.push_back(cluster(each));
            continue;
        }
        if (!what.ports && !what.servers) {
            add_rules(list, each, what);
            continue;
        }
        for (const vellb::port &one : each.ports) {
            if (what.ports) {
                list.push_back(port(one));
                continue;
            }
            for (const vellb::server &behind : one.servers) {
                if (what.shows(behind)) {
                    list.push_back(server(one, behind));
                }
            }
        }
    }
    return list;
}

json_t json_renderer::interface(const vellb::interface &each)
{
    json_t addresses = json_t::array();
    for (const vellb::interface_address &one : each.addresses) {
        addresses.push_back({{"interface", each.name},
                             {"address", vellb::address_text(one.address)},
                             {"prefix", one.address.prefix},
                             {"peer", address_json(one.peer)}});
    }
    const lbifin_setable_t &set = each.settings;
    const auto word = [](lb_u8_t value) { return vellb::name_of(vellb::yes_no(), value); };
    return {{"interface", each.name},
            {"mac", vellb::mac_text(set.ethaddr)},
            {"mtu", set.mtu_sys},
            {"forwarder_mtu", set.mtu_lb},
            {"up", word(set.isup_sys)},
            {"forwarder_up", word(set.isup_lb)},
            {"arp", word(set.arp)},
            {"loopback", word(set.loopback)},
            {"point_to_point", word(set.isPTP)},
            {"addresses", addresses}};
}

} // namespace

json_t render_json(const vellb::picture &now, const vellb::picture *before, const view &what,
                   long now_s, const sightings *seen)
{
    const json_renderer renderer(now, before, seen);
    json_t document = json_t::object();
    if (what.executor) {
        document["executor"] = renderer.executor(now_s);
    }
    if (what.ha) {
        document["high_availability"] = renderer.ha();
    } else if (what.heartbeats && what.flat) {
        document["heartbeats"] = renderer.heartbeats();
    }
    const char *list = !what.flat        ? (what.clusters ? "clusters" : "")
                       : what.ports      ? "ports"
                       : what.servers    ? "servers"
                       : what.rules      ? "rules"
                       : what.useservers ? "use_servers"
                                         : "";
    if (*list != '\0') {
        document[list] = renderer.listed(what);
    }
    if (what.interfaces || what.addresses) {
        const char *name = what.interfaces ? "interfaces" : "addresses";
        document[name] = json_t::array();
        for (const vellb::interface &each : now.interfaces) {
            const json_t one = json_renderer::interface(each);
            if (what.interfaces) {
                document[name].push_back(one);
            } else {
                document[name].insert(document[name].end(), one["addresses"].begin(),
                                      one["addresses"].end());
            }
        }
    }
    return document;
}

} // namespace vellbctl
