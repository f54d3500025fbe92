// Writes YAML by hand: few keys, a fixed order, one object a paragraph, so that two exports can be
// compared line by line. Defaults are left out. Pure.
#include "vellcfg/export.h"

#include <algorithm>
#include <fmt/format.h>

#include "document.h"
#include "vellb/address.h"
#include "vellb/names.h"
#include "vellb/surprises.h"
#include "vellb/words.h"
#include "vellcfg/normalise.h"

namespace vellcfg
{

namespace
{

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

    explicit writer(const vellb::picture &now) : now_(now) {}

    void executor(const vellb::executor &now);
    void interfaces(const std::vector<vellb::interface> &all);
    void ha(const vellb::executor &now);
    void clusters();

  private:
    void address(int depth, const char *name, const lbip_addr_t &value, bool takes = true)
    {
        if (vellb::is_set(value)) {
            words(depth, name, written(value), takes && !vellb::is_unspecified(value));
        }
    }
    // A list with what `write` makes of each; those for which it is false are told in remarks only.
    template <class T, class F>
    void list(int depth, const char *name, const std::vector<T> &all, F write)
    {
        const size_t begin = text.size();
        line(depth, fmt::format("{}:", name));
        const size_t head = text.size();
        const auto count = std::ranges::count_if(all, write);
        if (count == 0) {
            text.erase(begin, head - begin);
        }
    }
    // A key whose value the reader takes, or what stands there instead.
    void words(int depth, const char *name, const std::string &value, bool takes)
    {
        if (takes) {
            key(depth, name, value);
        } else {
            remark(depth, fmt::format("{}: {}, which no file can ask for", name, value));
        }
    }
    void on_off(int depth, const char *name, bool value, bool by_default)
    {
        if (value != by_default) {
            key(depth, name, value ? "on" : "off");
        }
    }
    void time(int depth, const char *name, lb_u32_t seconds, lb_u32_t by_default);
    void cluster(const vellb::cluster &now);
    void port(const vellb::port &now, bool shares);
    void server(const vellb::server &now);
    void forwarding(const vellb::server &now);
    bool rule(const vellb::rule &now);
    [[nodiscard]] bool translates(const vellb::server &now) const;

    const vellb::picture &now_;
};

void writer::executor(const vellb::executor &now)
{
    line(0, "executor:");
    const lbip_addr_t &v4 = now.settings.clientgateway;
    const lbip_addr_t &v6 = now.settings.clientgateway_ipv6;
    address(1, "client-gateway", v4, v4.version == 4);
    address(1, "client-gateway-ipv6", v6, v6.version == 6);
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
    if (!vellb::is_paired(set) || set.port == 0) {
        if (vellb::is_paired(set)) {
            remark(0, fmt::format("role: {} without a port, which no file can ask for",
                                  vellb::name_of(vellb::ha_roles(), set.role)));
        }
        for (const vellb::heartbeat &each : now.heartbeats) {
            remark(0, fmt::format("a heartbeat of a node without a role: {} to {}",
                                  written(each.local), written(each.partner)));
        }
        return;
    }
    line(0, "ha:");
    key(1, "role", vellb::name_of(vellb::ha_roles(), set.role));
    key(1, "takeover", vellb::name_of(vellb::ha_takeovers(), set.tostrategy));
    words(1, "timeout", vellb::seconds_text(set.timeout),
          set.timeout >= LBHA_TIMEOUT_MINIMUM && set.timeout <= LBHA_TIMEOUT_MAXIMUM);
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
    list(1, "heartbeats", now.heartbeats, [&](const vellb::heartbeat &each) {
        const bool takes = each.local.version == each.partner.version &&
                           !vellb::same_address(each.local, each.partner);
        line(2, fmt::format("{} {{local: {}, partner: {}}}", takes ? "-" : "# no heartbeat:",
                            written(each.local), written(each.partner)));
        return takes;
    });
}

void writer::clusters()
{
    if (now_.clusters.empty()) {
        line(0, "clusters: []");
        return;
    }
    list(0, "clusters", now_.clusters, [&](const vellb::cluster &each) {
        cluster(each);
        return true;
    });
}

void writer::cluster(const vellb::cluster &now)
{
    const std::string id =
        vellb::block_text(now.settings.clusterid, sizeof(lbclu_setable_t::clusterid));
    line(1, "- address: " + written(now.address));
    if (!id.empty()) {
        key(2, "id", scalar(id));
    }
    list(2, "ports", now.ports, [&](const vellb::port &each) {
        const bool shares = std::ranges::any_of(now.ports, [&](const vellb::port &other) {
            return each.number != other.number && each.fixed.crossport == other.number &&
                   other.fixed.crossport == each.number;
        });
        port(each, shares);
        return true;
    });
}

void writer::time(int depth, const char *name, lb_u32_t seconds, lb_u32_t by_default)
{
    if (seconds != by_default) {
        words(depth, name, vellb::seconds_text(seconds), seconds >= LEAST_TIME_S);
    }
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
        words(4, "replication", vellb::name_of(vellb::ha_replications(), now.settings.repstrategy),
              now.settings.repstrategy <= LBHA_REPLICATIONSTRATEGY_CRARREP);
    }
    list(4, "servers", now.servers, [&](const vellb::server &each) {
        server(each);
        return true;
    });
    list(4, "rules", now.rules, [&](const vellb::rule &each) { return rule(each); });
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

// As the reader wants it.
bool writer::translates(const vellb::server &now) const
{
    const lbip_addr_t &source = now.fixed.returnaddress;
    const lbip_addr_t &router = now.fixed.routeraddress;
    const auto is_it = [&](const lbip_addr_t &each) { return vellb::same_address(each, source); };
    return !vellb::is_unspecified(source) && !vellb::is_unspecified(router) &&
           source.version == now.address.version && router.version == now.address.version &&
           !is_it(router) && !is_it(now.address) &&
           std::ranges::none_of(now_.executor.clusters, is_it);
}

void writer::forwarding(const vellb::server &now)
{
    const auto way = vellb::forwarding_of(now);
    if (!way) {
        remark(6, "packets to it are dropped: it encapsulates by a way that has no name");
    } else if (*way == forward_e::NAT && !translates(now)) {
        remark(6, fmt::format("forward: nat via {} as {}, which no file can ask for",
                              written(now.fixed.routeraddress), written(now.fixed.returnaddress)));
        return;
    } else if (*way != forward_e::DIRECT) {
        key(6, "forward", vellb::name_of(vellb::forwardings(), static_cast<lb_u64_t>(*way)));
    }
    if (way == forward_e::NAT) {
        address(6, "return-address", now.fixed.returnaddress);
        address(6, "router-address", now.fixed.routeraddress);
    }
    if (way == forward_e::IPIP || way == forward_e::GRE) {
        address(6, "encap-source", now.settings.encapsrcip,
                now.settings.encapsrcip.version == now.address.version);
        // A learnt one, or one that was set: nobody can tell.
        if (now.settings.encapmtu != 1500) {
            words(6, "encap-mtu", std::to_string(now.settings.encapmtu),
                  now.settings.encapmtu >= vellb::ENCAP_MTU_LEAST);
        }
    }
}

// False for one that is told in a remark only.
bool writer::rule(const vellb::rule &now)
{
    const lbrul_setable_t &set = now.settings;
    if (set.type != LBRUL_TYPE_TRUE && set.beginrange > set.endrange) {
        remark(5, fmt::format("rule {} never fires: its range is {}", now.number,
                              vellb::range_text(set.beginrange, set.endrange)));
        return false;
    }
    const std::string name = vellb::block_text(set.name, sizeof(set.name));
    line(5, fmt::format("- number: {}", now.number));
    if (!name.empty()) {
        key(6, "name", scalar(name));
    }
    if (set.type != LBRUL_TYPE_TRUE) {
        key(6, "type", vellb::name_of(vellb::rule_types(), set.type));
        key(6, "range", vellb::range_text(set.beginrange, set.endrange));
    }
    std::vector<std::string> servers;
    for (const lbip_addr_t &each : now.useservers) {
        servers.push_back(written(each));
    }
    if (!servers.empty()) {
        key(6, "use-servers", fmt::format("[{}]", fmt::join(servers, ", ")));
    }
    return true;
}

} // namespace

std::string exported(const vellb::picture &now)
{
    writer to(now);
    to.executor(now.executor);
    to.interfaces(now.interfaces);
    to.ha(now.executor);
    to.clusters();
    return to.text;
}

} // namespace vellcfg
