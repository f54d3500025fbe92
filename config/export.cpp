// Writes YAML by hand: few keys, a fixed order, one object a paragraph, so that two exports can be
// compared line by line. Defaults are left out. Pure.
#include "vellcfg/export.h"

#include <algorithm>
#include <fmt/format.h>

#include "document.h"
#include "vellb/address.h"
#include "vellb/names.h"
#include "vellb/words.h"
#include "vellcfg/normalise.h"

namespace vellcfg
{

namespace
{

constexpr lb_u32_t LEAST_TIME_S = 10;

// A scalar for any text: what YAML or UTF-8 does not take becomes '?'.
std::string scalar(const std::string &text)
{
    std::string quoted = "\"";
    for (size_t i = 0; i < text.size();) {
        const size_t length = utf8_length(text, i);
        const bool control = static_cast<unsigned char>(text[i]) < ' ' || text[i] == 0x7F;
        if (length == 0 || control) {
            quoted += '?';
            i++;
            continue;
        }
        quoted += text[i] == '"' || text[i] == '\\' ? "\\" : "";
        quoted += text.substr(i, length);
        i += length;
    }
    return quoted + "\"";
}

// Without quotes a colon may mean something.
std::string written(const lbip_addr_t &address)
{
    const std::string text = vellb::address_text(address);
    return address.version == 6 ? "\"" + text + "\"" : text;
}

class writer
{
  public:
    std::string text{};

    void line(int depth, const std::string &words)
    {
        text.append(2 * static_cast<size_t>(depth), ' ');
        text += words + "\n";
    }
    void key(int depth, const char *name, const std::string &value)
    {
        line(depth, fmt::format("{}: {}", name, value));
    }
    void remark(int depth, const std::string &words) { line(depth, "# " + words); }

    void executor(const vellb::executor &now);
    void interfaces(const std::vector<vellb::interface> &all);
    void ha(const vellb::executor &now);
    void cluster(const vellb::cluster &now);

  private:
    void address(int depth, const char *name, const lbip_addr_t &value)
    {
        if (vellb::is_set(value)) {
            key(depth, name, written(value));
        }
    }
    void on_off(int depth, const char *name, bool value, bool by_default)
    {
        if (value != by_default) {
            key(depth, name, value ? "on" : "off");
        }
    }
    void time(int depth, const char *name, lb_u32_t seconds, lb_u32_t by_default);
    void port(const vellb::port &now, bool shares);
    void server(const vellb::server &now);
    void forwarding(const vellb::server &now);
    void rule(const vellb::rule &now);
};

void writer::executor(const vellb::executor &now)
{
    line(0, "executor:");
    address(1, "client-gateway", now.settings.clientgateway);
    address(1, "client-gateway-ipv6", now.settings.clientgateway_ipv6);
    address(1, "own-address", now.settings.nfa);
    key(1, "log-mask", vellb::mask_text(now.settings.log_mask));
}

void writer::interfaces(const std::vector<vellb::interface> &all)
{
    std::vector<std::string> names;
    std::ranges::transform(all, std::back_inserter(names),
                           [](const vellb::interface &each) { return scalar(each.name); });
    key(0, "interfaces", fmt::format("[{}]", fmt::join(names, ", ")));
}

void writer::ha(const vellb::executor &now)
{
    const lbha_setables_t &set = now.settings.ha;
    const bool pair = set.role == LBHA_ROLE_PRIMARY || set.role == LBHA_ROLE_BACKUP;
    if (!pair) {
        for (const vellb::heartbeat &each : now.heartbeats) {
            remark(0, fmt::format("a heartbeat of a node without a role: {} to {}",
                                  written(each.local), written(each.partner)));
        }
        return;
    }
    line(0, "ha:");
    key(1, "role", vellb::name_of(vellb::ha_roles(), set.role));
    key(1, "takeover", vellb::name_of(vellb::ha_takeovers(), set.tostrategy));
    if (set.timeout >= LBHA_TIMEOUT_MINIMUM && set.timeout <= LBHA_TIMEOUT_MAXIMUM) {
        key(1, "timeout", vellb::seconds_text(set.timeout));
    } else {
        remark(1, fmt::format("timeout: {}s, which no file can ask for", set.timeout));
    }
    key(1, "replication", vellb::name_of(vellb::ha_replications(), set.repstrategy));
    key(1, "port", std::to_string(set.port));
    std::vector<std::string> reach;
    for (const lbip_addr_t &each : set.reachaddr) {
        if (vellb::is_set(each)) {
            reach.push_back(written(each));
        }
    }
    if (!reach.empty()) {
        key(1, "reach", fmt::format("[{}]", fmt::join(reach, ", ")));
    }
    if (!now.heartbeats.empty()) {
        line(1, "heartbeats:");
    }
    for (const vellb::heartbeat &each : now.heartbeats) {
        line(2, fmt::format("- {{local: {}, partner: {}}}", written(each.local),
                            written(each.partner)));
    }
}

void writer::cluster(const vellb::cluster &now)
{
    const std::string id =
        vellb::block_text(now.settings.clusterid, sizeof(lbclu_setable_t::clusterid));
    line(1, "- address: " + written(now.address));
    if (!id.empty()) {
        key(2, "id", scalar(id));
    }
    if (!now.ports.empty()) {
        line(2, "ports:");
    }
    for (const vellb::port &each : now.ports) {
        const bool shares = std::ranges::any_of(now.ports, [&](const vellb::port &other) {
            return each.number != other.number && each.fixed.crossport == other.number &&
                   other.fixed.crossport == each.number;
        });
        port(each, shares);
    }
}

void writer::time(int depth, const char *name, lb_u32_t seconds, lb_u32_t by_default)
{
    if (seconds == by_default) {
        return;
    }
    if (seconds < LEAST_TIME_S) {
        remark(depth, fmt::format("{}: {}s, which no file can ask for", name, seconds));
        return;
    }
    key(depth, name, vellb::seconds_text(seconds));
}

void writer::port(const vellb::port &now, bool shares)
{
    vellcfg::service plain;
    plain.clusters.resize(1);
    plain.clusters[0].ports.resize(1);
    plain.clusters[0].ports[0].algorithm = now.fixed.selectalg;
    if (now.settings.staletimeout >= LEAST_TIME_S) {
        plain.clusters[0].ports[0].stale_timeout_s = now.settings.staletimeout;
    }
    const lb_u32_t sticky = normalised(plain).clusters[0].ports[0].settings.stickytime;
    line(3, fmt::format("- port: {}", now.number));
    key(4, "algorithm", vellb::name_of(vellb::algorithms(), now.fixed.selectalg));
    if (now.fixed.udpselectalg != LBSEL_ALGORIGHM_UDPRR) {
        key(4, "udp-algorithm", vellb::name_of(vellb::algorithms(), now.fixed.udpselectalg));
    }
    if (shares) {
        key(4, "crossport", std::to_string(now.fixed.crossport));
    }
    time(4, "stale-timeout", now.settings.staletimeout, 6400);
    time(4, "sticky-time", now.settings.stickytime, sticky);
    on_off(4, "reset", now.settings.reset != 0, false);
    if (now.settings.repstrategy != LBHA_REPLICATIONSTRATEGY_NOREP) {
        key(4, "replication", vellb::name_of(vellb::ha_replications(), now.settings.repstrategy));
    }
    if (!now.servers.empty()) {
        line(4, "servers:");
    }
    for (const vellb::server &each : now.servers) {
        server(each);
    }
    if (!now.rules.empty()) {
        line(4, "rules:");
    }
    for (const vellb::rule &each : now.rules) {
        rule(each);
    }
}

void writer::server(const vellb::server &now)
{
    const std::string id =
        vellb::block_text(now.settings.serverid, sizeof(lbsrv_setable_t::serverid));
    line(5, "- address: " + written(now.address));
    if (!id.empty()) {
        key(6, "id", scalar(id));
    }
    key(6, "weight", std::to_string(now.settings.weight));
    forwarding(now);
    on_off(6, "sticky", now.settings.stickyflag != 0, true);
    on_off(6, "quiesced", now.settings.quiesced != 0, false);
}

void writer::forwarding(const vellb::server &now)
{
    const auto way = vellb::forwarding_of(now);
    if (!way) {
        remark(6, "packets to it are dropped: it encapsulates by a way that has no name");
    } else if (*way != forward_e::DIRECT) {
        key(6, "forward", vellb::name_of(vellb::forwardings(), static_cast<lb_u64_t>(*way)));
    }
    if (way == forward_e::NAT) {
        address(6, "return-address", now.fixed.returnaddress);
        address(6, "router-address", now.fixed.routeraddress);
    }
    if (way == forward_e::IPIP || way == forward_e::GRE) {
        address(6, "encap-source", now.settings.encapsrcip);
        // A learnt one, or one that was set: nobody can tell.
        if (now.settings.encapmtu != 1500) {
            key(6, "encap-mtu", std::to_string(now.settings.encapmtu));
        }
    }
}

void writer::rule(const vellb::rule &now)
{
    const std::string name = vellb::block_text(now.settings.name, sizeof(lbrul_setable_t::name));
    line(5, fmt::format("- number: {}", now.number));
    if (!name.empty()) {
        key(6, "name", scalar(name));
    }
    if (now.settings.type != LBRUL_TYPE_TRUE) {
        key(6, "type", vellb::name_of(vellb::rule_types(), now.settings.type));
        key(6, "range", vellb::range_text(now.settings.beginrange, now.settings.endrange));
    }
    std::vector<std::string> servers;
    for (const lbip_addr_t &each : now.useservers) {
        servers.push_back(written(each));
    }
    if (!servers.empty()) {
        key(6, "use-servers", fmt::format("[{}]", fmt::join(servers, ", ")));
    }
}

} // namespace

std::string exported(const vellb::picture &now)
{
    writer to;
    to.executor(now.executor);
    to.interfaces(now.interfaces);
    to.ha(now.executor);
    to.line(0, now.clusters.empty() ? "clusters: []" : "clusters:");
    for (const vellb::cluster &each : now.clusters) {
        to.cluster(each);
    }
    return to.text;
}

} // namespace vellcfg
