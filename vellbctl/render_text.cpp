// The picture for people: a few aligned tables that fit a terminal. Reads decoded blocks only.
#include <algorithm>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <numeric>

#include "forwarding.h"
#include "render.h"
#include "table.h"
#include "vellb/address.h"
#include "vellb/names.h"
#include "vellb/surprises.h"
#include "words.h"

namespace vellbctl
{

namespace
{

using std::to_string;

std::string rate_text(double rate)
{
    constexpr double THOUSAND = 1000;
    return rate >= THOUSAND * THOUSAND ? fmt::format("{:.2f}M", rate / THOUSAND / THOUSAND)
           : rate >= 10 * THOUSAND     ? fmt::format("{:.1f}k", rate / THOUSAND)
                                       : fmt::format("{:.0f}", rate);
}

class text_renderer
{
  public:
    text_renderer(const vellb::picture &now, const vellb::picture *before, const view &what,
                  const sightings *seen)
        : now_(now), before_(before), what_(what), seen_(seen)
    {
    }

    [[nodiscard]] std::string executor(long now_s) const;
    [[nodiscard]] std::string ha() const;
    [[nodiscard]] std::string heartbeats() const;
    [[nodiscard]] std::string clusters() const;
    [[nodiscard]] std::string ports() const;
    [[nodiscard]] std::string servers() const;
    [[nodiscard]] std::string connections() const; // empty where none are counted
    [[nodiscard]] std::string rules() const;
    [[nodiscard]] std::string useservers() const;
    [[nodiscard]] std::string interfaces() const;
    [[nodiscard]] std::string addresses() const;

  private:
    // A last column with the rate of a counter, when there is something to compare with.
    void with_rate(std::vector<column> &columns) const
    {
        if (before_ != nullptr) {
            columns.insert(columns.end(), {"PKT/S", true});
        }
    }
    void add_rate(std::vector<std::string> &cells, lb_u64_t value, const lb_u64_t *earlier) const
    {
        if (before_ != nullptr) {
            cells.push_back(earlier == nullptr
                                ? "-"
                                : rate_text(rate_of(value, *earlier, now_.taken - before_->taken)));
        }
    }
    [[nodiscard]] std::string protocols() const;

    const vellb::picture &now_;
    const vellb::picture *before_;
    const view &what_;
    const sightings *seen_;
};

std::string moment_text(long when_s)
{
    return fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::localtime(when_s));
}

std::string gateway_text(const lbip_addr_t &gateway, lb_u8_t state)
{
    return vellb::is_set(gateway)
               ? fmt::format("{} ({})", vellb::address_text(gateway), vellb::neighbour_text(state))
               : "none";
}

std::string text_renderer::executor(long now_s) const
{
    const lbexe_setable_t &set = now_.executor.settings;
    const lbexe_getable_t &get = now_.executor.readings;
    const long age = now_s - get.starttime.secs;
    std::string text =
        fmt::format("vellb2 {}, up {}\n", vellb::block_text(get.version, sizeof(get.version)),
                    age >= 0 ? seconds_text(static_cast<lb_u64_t>(age)) : "since a time to come");
    const auto line = [&](const char *name, const std::string &value) {
        text += fmt::format("  {:<20} {}\n", name, value);
    };
    line("client gateway", gateway_text(set.clientgateway, get.clientgwneighstate));
    line("client gateway IPv6", gateway_text(set.clientgateway_ipv6, get.clientgwneighstate_ipv6));
    line("own address", vellb::address_text(set.nfa));
    line("log mask", fmt::format("0x{:x} {}", set.log_mask, vellb::mask_text(set.log_mask)));
    std::string ha = vellb::name_of(vellb::ha_roles(), set.ha.role);
    if (vellb::is_paired(set.ha)) {
        ha += fmt::format(", {}, takeover {}, timeout {} s",
                          vellb::name_of(vellb::ha_states(), get.ha.state),
                          vellb::name_of(vellb::ha_takeovers(), set.ha.tostrategy), set.ha.timeout);
    }
    line("high availability", ha);
    return text + "\n" + protocols();
}

std::string text_renderer::ha() const
{
    const lbha_setables_t &set = now_.executor.settings.ha;
    const lbha_getables_t &get = now_.executor.readings.ha;
    std::string text;
    const auto line = [&](const char *name, const std::string &value) {
        text += fmt::format("{:<16} {}\n", name, value);
    };
    const std::string state = vellb::name_of(vellb::ha_states(), get.state);
    line("role", vellb::name_of(vellb::ha_roles(), set.role));
    line("state", seen_ == nullptr
                      ? state
                      : fmt::format("{}, seen since {}", state, moment_text(seen_->since())));
    line("substate", vellb::name_of(vellb::ha_substates(), get.substate));
    line("last event", vellb::name_of(vellb::ha_events(), get.lastevent));
    line("takeover", vellb::name_of(vellb::ha_takeovers(), set.tostrategy));
    line("replication", vellb::name_of(vellb::ha_replications(), set.repstrategy));
    line("timeout", fmt::format("{} s", set.timeout));
    line("heartbeat port", set.port != 0 ? to_string(set.port) : "none");
    line("reach score", to_string(set.reachscore));
    std::string reach;
    for (const lbip_addr_t &each : set.reachaddr) {
        if (vellb::is_set(each)) {
            reach += (reach.empty() ? "" : " ") + vellb::address_text(each);
        }
    }
    line("reach addresses", reach.empty() ? "none" : reach);
    return text;
}

std::string text_renderer::heartbeats() const
{
    std::vector<column> columns{{"HEARTBEAT FROM"}, {"TO PARTNER"}, {"NEIGHBOUR"}};
    if (seen_ != nullptr) {
        columns.push_back({"SEEN SINCE"});
    }
    table_t table(columns);
    for (const vellb::heartbeat &each : now_.executor.heartbeats) {
        std::vector<std::string> cells{vellb::address_text(each.local),
                                       vellb::address_text(each.partner),
                                       vellb::neighbour_text(each.readings.neighstate)};
        if (seen_ != nullptr) {
            cells.push_back(moment_text(seen_->since(each)));
        }
        table.row(std::move(cells));
    }
    return table.empty() ? "no heartbeats\n" : table.text();
}

std::string text_renderer::protocols() const
{
    std::vector<column> columns{{"PROTOCOL"},         {"RECEIVED", true},  {"FORWARDED", true},
                                {"NOT FOR US", true}, {"DISCARDED", true}, {"ERRORS", true},
                                {"GENERATED", true}};
    with_rate(columns);
    table_t table(columns);
    const lbexe_getable_t &get = now_.executor.readings;
    const lbexe_getable_t *old = before_ != nullptr ? &before_->executor.readings : nullptr;
    const auto row = [&](const char *name, const lb_proto_stats_t lbexe_getable_t::*member) {
        const lb_proto_stats_t &c = get.*member;
        std::vector<std::string> cells{name,
                                       to_string(c.in),
                                       to_string(c.fwd),
                                       to_string(c.notforus),
                                       to_string(c.discard),
                                       to_string(c.err),
                                       to_string(c.gen)};
        add_rate(cells, c.in, old != nullptr ? &(old->*member).in : nullptr);
        table.row(std::move(cells));
    };
    row("IPv4", &lbexe_getable_t::ipv4stats);
    row("IPv6", &lbexe_getable_t::ipv6stats);
    row("ARP", &lbexe_getable_t::arpstats);
    row("ICMP", &lbexe_getable_t::icmpstats);
    row("ICMPv6", &lbexe_getable_t::icmpv6stats);
    return table.text();
}

std::string text_renderer::clusters() const
{
    std::vector<column> columns{{"CLUSTER"},         {"ID"},
                                {"PORTS", true},     {"FORWARDED", true},
                                {"DISCARDED", true}, {"ERRORS", true}};
    with_rate(columns);
    table_t table(columns);
    for (const vellb::cluster &each : now_.clusters) {
        const lb_proto_stats_t &c = each.readings.ipstats;
        const vellb::cluster *old = find(before_, each.address);
        std::vector<std::string> cells{
            vellb::address_text(each.address),
            vellb::block_text(each.settings.clusterid, sizeof(each.settings.clusterid)),
            to_string(each.ports.size()),
            to_string(c.fwd),
            to_string(c.discard),
            to_string(c.err)};
        add_rate(cells, c.fwd, old != nullptr ? &old->readings.ipstats.fwd : nullptr);
        table.row(std::move(cells));
    }
    return table.empty() ? "no clusters\n" : table.text();
}

std::string text_renderer::ports() const
{
    std::vector<column> columns{{"PORT"},
                                {"TCP"},
                                {"UDP"},
                                {"SERVERS", true},
                                {"STALE", true},
                                {"STICKY", true},
                                {"FORWARDED", true},
                                {"DISCARDED", true},
                                {"ERRORS", true}};
    with_rate(columns);
    table_t table(columns);
    for (const vellb::cluster &cluster : now_.clusters) {
        for (const vellb::port &each : cluster.ports) {
            const lb_proto_stats_t &c = each.readings.ipstats;
            const vellb::port *old = find(before_, each);
            const lb_u32_t sticky = each.settings.stickytime;
            std::vector<std::string> cells{
                vellb::endpoint_text(each.cluster, each.number),
                vellb::name_of(vellb::algorithms(), each.fixed.selectalg),
                vellb::name_of(vellb::algorithms(), each.fixed.udpselectalg),
                to_string(each.servers.size()),
                seconds_text(each.settings.staletimeout),
                sticky != 0 ? seconds_text(sticky) : "-",
                to_string(c.fwd),
                to_string(c.discard),
                to_string(c.err)};
            add_rate(cells, c.fwd, old != nullptr ? &old->readings.ipstats.fwd : nullptr);
            table.row(std::move(cells));
        }
    }
    return table.empty() ? "no ports\n" : table.text();
}

std::string server_notes(const vellb::server &each)
{
    const lbsrv_setable_t &set = each.settings;
    std::string notes = vellb::block_text(set.serverid, sizeof(set.serverid));
    const auto add = [&](bool holds, const std::string &note) {
        if (holds) {
            notes += (notes.empty() ? "" : ", ") + note;
        }
    };
    add(set.serverup == 0, "down");
    add(set.quiesced != 0, "quiesced");
    add(set.stickyflag == 0, "not sticky");
    return notes;
}

std::string text_renderer::servers() const
{
    std::vector<column> columns{{"PORT"},        {"SERVER"},    {"WEIGHT", true},
                                {"SHARE", true}, {"NEIGHBOUR"}, {"FORWARDED", true},
                                {"ERRORS", true}};
    with_rate(columns);
    columns.insert(columns.end(), {{"FORWARDING"}, {"NOTES"}});
    table_t table(columns);
    const auto plus = [](unsigned sum, const vellb::server &s) { return sum + s.settings.weight; };
    for (const vellb::cluster &cluster : now_.clusters) {
        for (const vellb::port &port : cluster.ports) {
            const unsigned sum =
                std::accumulate(port.servers.begin(), port.servers.end(), 0U, plus);
            for (const vellb::server &each : port.servers) {
                if (!what_.shows(each)) {
                    continue;
                }
                const double share = sum != 0 ? 100.0 * each.settings.weight / sum
                                              : 100.0 / static_cast<double>(port.servers.size());
                const lb_proto_stats_t &c = each.readings.ipstats;
                const vellb::server *old = find(before_, port, each.address);
                std::vector<std::string> cells{vellb::endpoint_text(port.cluster, port.number),
                                               vellb::address_text(each.address),
                                               to_string(each.settings.weight),
                                               fmt::format("{:.0f}%", share),
                                               vellb::neighbour_text(each.readings.neighstate),
                                               to_string(c.fwd),
                                               to_string(c.err)};
                add_rate(cells, c.fwd, old != nullptr ? &old->readings.ipstats.fwd : nullptr);
                cells.push_back(forwarding_text(each));
                cells.push_back(server_notes(each));
                table.row(std::move(cells));
            }
        }
    }
    return table.empty() ? "no servers\n" : table.text();
}

// Connections by state, and all so far. An affinity port counts its clients as active.
std::string text_renderer::connections() const
{
    table_t table({{"PORT"},
                   {"SERVER"},
                   {"OPENING", true},
                   {"ACTIVE", true},
                   {"CLOSING", true},
                   {"SO FAR", true}});
    for (const vellb::cluster &cluster : now_.clusters) {
        for (const vellb::port &port : cluster.ports) {
            if (!keeps_records(port)) {
                continue;
            }
            for (const vellb::server &each : port.servers) {
                if (!what_.shows(each)) {
                    continue;
                }
                const lb_conn_stats_t &c = each.readings.selstats;
                table.row({vellb::endpoint_text(port.cluster, port.number),
                           vellb::address_text(each.address), to_string(c.preest),
                           to_string(c.active), to_string(c.fin), to_string(c.lifetime)});
            }
        }
    }
    return table.empty() ? "" : table.text();
}

std::string range_text(const lbrul_setable_t &set)
{
    if (set.type == LBRUL_TYPE_TRUE) {
        return "-";
    }
    return vellb::range_text(set.beginrange, set.endrange);
}

std::string text_renderer::rules() const
{
    std::vector<column> columns{{"PORT"}, {"RULE", true}, {"TYPE"}, {"CONNECTIONS", true},
                                {"USES"}, {"FIRED", true}};
    with_rate(columns);
    columns.push_back({"NAME"});
    table_t table(columns);
    for (const vellb::cluster &cluster : now_.clusters) {
        for (const vellb::port &port : cluster.ports) {
            for (const vellb::rule &each : port.rules) {
                const lbrul_setable_t &set = each.settings;
                std::vector<std::string> servers;
                for (const lbip_addr_t &server : each.useservers) {
                    servers.push_back(vellb::address_text(server));
                }
                const vellb::rule *old = find(before_, port, each);
                std::vector<std::string> cells{
                    vellb::endpoint_text(port.cluster, port.number),
                    to_string(each.number),
                    vellb::name_of(vellb::rule_types(), set.type),
                    range_text(set),
                    servers.empty() ? "nothing: drops" : fmt::format("{}", fmt::join(servers, " ")),
                    to_string(each.readings.timesfired)};
                add_rate(cells, each.readings.timesfired,
                         old != nullptr ? &old->readings.timesfired : nullptr);
                cells.push_back(vellb::block_text(set.name, sizeof(set.name)));
                table.row(std::move(cells));
            }
        }
    }
    return table.empty() ? "no rules\n" : table.text();
}

std::string text_renderer::useservers() const
{
    table_t table({{"PORT"}, {"RULE", true}, {"SERVER"}});
    for (const vellb::cluster &cluster : now_.clusters) {
        for (const vellb::port &port : cluster.ports) {
            for (const vellb::rule &each : port.rules) {
                for (const lbip_addr_t &server : each.useservers) {
                    table.row({vellb::endpoint_text(port.cluster, port.number),
                               to_string(each.number), vellb::address_text(server)});
                }
            }
        }
    }
    return table.empty() ? "no use-servers\n" : table.text();
}

std::string yes_no_text(lb_u8_t value)
{
    return vellb::name_of(vellb::yes_no(), value);
}

std::string text_renderer::interfaces() const
{
    table_t table(
        {{"INTERFACE"}, {"MAC"}, {"MTU", true}, {"UP"}, {"ARP"}, {"KIND"}, {"ADDRESSES"}});
    for (const vellb::interface &each : now_.interfaces) {
        const lbifin_setable_t &set = each.settings;
        std::string addresses;
        for (const vellb::interface_address &one : each.addresses) {
            addresses += addresses.empty() ? "" : " ";
            addresses += vellb::prefix_text(one.address);
        }
        const char *kind = set.loopback == LBIFIN_YN_YES ? "loopback"
                           : set.isPTP == LBIFIN_YN_YES  ? "point-to-point"
                                                         : "broadcast";
        const bool apart = set.mtu_lb != set.mtu_sys;
        table.row({each.name, vellb::mac_text(set.ethaddr),
                   apart ? fmt::format("{} (forwarder {})", set.mtu_sys, set.mtu_lb)
                         : to_string(set.mtu_sys),
                   yes_no_text(set.isup_sys), yes_no_text(set.arp), kind, addresses});
    }
    return table.empty() ? "no interfaces: teach the daemon with: vellbctl interface sync\n"
                         : table.text();
}

std::string text_renderer::addresses() const
{
    table_t table({{"INTERFACE"}, {"ADDRESS"}, {"PEER"}});
    for (const vellb::interface &each : now_.interfaces) {
        for (const vellb::interface_address &one : each.addresses) {
            table.row({each.name, vellb::prefix_text(one.address), vellb::address_text(one.peer)});
        }
    }
    return table.empty() ? "no addresses\n" : table.text();
}

std::string name_of(const vellb::heartbeat &each)
{
    return vellb::address_text(each.local) + " " + vellb::address_text(each.partner);
}

} // namespace

void sightings::look(const vellb::picture &now, long now_s)
{
    look("", now.executor.readings.ha.state, now_s);
    for (const vellb::heartbeat &each : now.executor.heartbeats) {
        look(name_of(each), each.readings.neighstate, now_s);
    }
}

void sightings::look(const std::string &who, unsigned state, long now_s)
{
    const auto [found, fresh] = seen_.try_emplace(who, sighting{state, now_s});
    if (!fresh && found->second.state != state) {
        found->second = {state, now_s};
    }
}

long sightings::since() const
{
    return seen_.at("").since_s;
}

long sightings::since(const vellb::heartbeat &each) const
{
    return seen_.at(name_of(each)).since_s;
}

double rate_of(lb_u64_t now, lb_u64_t before, std::chrono::steady_clock::duration between)
{
    const double seconds = std::chrono::duration<double>(between).count();
    return now < before || seconds <= 0 ? 0 : static_cast<double>(now - before) / seconds;
}

const vellb::cluster *find(const vellb::picture *in, const lbip_addr_t &cluster)
{
    if (in == nullptr) {
        return nullptr;
    }
    const auto found = std::ranges::find_if(in->clusters, [&](const vellb::cluster &each) {
        return vellb::same_address(each.address, cluster);
    });
    return found != in->clusters.end() ? &*found : nullptr;
}

const vellb::port *find(const vellb::picture *in, const vellb::port &port)
{
    const vellb::cluster *cluster = find(in, port.cluster);
    if (cluster == nullptr) {
        return nullptr;
    }
    const auto found = std::ranges::find(cluster->ports, port.number, &vellb::port::number);
    return found != cluster->ports.end() ? &*found : nullptr;
}

const vellb::server *find(const vellb::picture *in, const vellb::port &port,
                          const lbip_addr_t &server)
{
    const vellb::port *old = find(in, port);
    if (old == nullptr) {
        return nullptr;
    }
    const auto found = std::ranges::find_if(old->servers, [&](const vellb::server &each) {
        return vellb::same_address(each.address, server);
    });
    return found != old->servers.end() ? &*found : nullptr;
}

const vellb::rule *find(const vellb::picture *in, const vellb::port &port, const vellb::rule &rule)
{
    const vellb::port *old = find(in, port);
    if (old == nullptr) {
        return nullptr;
    }
    const auto found = std::ranges::find(old->rules, rule.number, &vellb::rule::number);
    return found != old->rules.end() ? &*found : nullptr;
}

bool keeps_records(const vellb::port &port)
{
    const lb_u8_t algorithm = port.fixed.selectalg;
    return algorithm >= LBSEL_ALGORIGHM_CONNECTION && algorithm <= LBSEL_ALGORIGHM_CONN_AFFIN;
}

lb_conn_stats_t connections_of(const vellb::port &port)
{
    lb_conn_stats_t sum{};
    for (const vellb::server &each : port.servers) {
        const lb_conn_stats_t &c = each.readings.selstats;
        sum.preest += c.preest;
        sum.active += c.active;
        sum.fin += c.fin;
        sum.lifetime += c.lifetime;
    }
    return sum;
}

std::string render_text(const vellb::picture &now, const vellb::picture *before, const view &what,
                        long now_s, const sightings *seen)
{
    const text_renderer renderer(now, before, what, seen);
    std::string text;
    const auto section = [&](bool wanted, const std::string &content) {
        text += wanted && !text.empty() ? "\n" : "";
        text += wanted ? content : "";
    };
    section(what.executor, renderer.executor(now_s));
    section(what.ha, renderer.ha());
    const bool alone = what.executor && now.executor.heartbeats.empty();
    section(what.heartbeats && !alone, renderer.heartbeats());
    section(what.clusters, renderer.clusters());
    section(what.ports, renderer.ports());
    section(what.servers, renderer.servers());
    const std::string connections = renderer.connections();
    section(what.servers && !connections.empty(), connections);
    const bool norules = std::ranges::all_of(now.clusters, [](const vellb::cluster &each) {
        return std::ranges::all_of(each.ports, &std::vector<vellb::rule>::empty,
                                   &vellb::port::rules);
    });
    // Where rules are not what was asked for, most ports have none.
    section(what.rules && !(norules && (what.ports || what.clusters)), renderer.rules());
    section(what.useservers, renderer.useservers());
    section(what.interfaces, renderer.interfaces());
    section(what.addresses, renderer.addresses());
    return text;
}

} // namespace vellbctl
