// Everything that only looks: pictures of the trees, once or again and again, and the log mask's
// bits.
#include <chrono>
#include <ctime>
#include <fmt/format.h>
#include <optional>
#include <thread>

#include "commands.h"
#include "render.h"
#include "table.h"
#include "vellb/address.h"
#include "vellb/names.h"
#include "vellb/surprises.h"

namespace vellbctl
{

namespace
{

constexpr lbcmd_keytype_e CONFIG = LBCMD_KEYTYPE_CONFIG;
constexpr lbcmd_keytype_e IFACE = LBCMD_KEYTYPE_IFACE;

template <class T>
T found_or_refused(std::optional<T> found, lbcmd_keytype_e keytype, const lbcmd_key_t &key)
{
    if (!found) {
        throw vellb::refused({keytype, LBCMD_ACTION_GET, key}, LBCMD_RC_OBJNOTFOUND);
    }
    return std::move(*found);
}

// The clusters asked for, cut down to the port and the server asked for.
std::vector<vellb::cluster> read_asked_clusters(const session &s)
{
    std::vector<vellb::cluster> result;
    if (!s.req.address) {
        for (const lbip_addr_t &address : vellb::read_executor(s.daemon).clusters) {
            if (auto found = vellb::read_cluster(s.daemon, address)) {
                result.push_back(std::move(*found));
            }
        }
        return result;
    }
    const lbip_addr_t &address = *s.req.address;
    if (s.req.port == 0) {
        return {found_or_refused(vellb::read_cluster(s.daemon, address), CONFIG,
                                 vellb::cluster_key(address))};
    }
    vellb::cluster only;
    only.address = address;
    only.ports = {found_or_refused(vellb::read_port(s.daemon, address, s.req.port), CONFIG,
                                   vellb::port_key(address, s.req.port))};
    if (s.req.server) {
        const auto is_it = [&](const vellb::server &each) {
            return vellb::same_address(each.address, *s.req.server);
        };
        if (std::ranges::none_of(only.ports[0].servers, is_it)) {
            throw vellb::refused(
                {CONFIG, LBCMD_ACTION_GET, vellb::server_key(address, s.req.port, *s.req.server)},
                LBCMD_RC_OBJNOTFOUND);
        }
    }
    return {only};
}

// The clusters asked for, cut down to the rule asked for.
std::vector<vellb::cluster> read_asked_rules(const session &s)
{
    auto result = read_asked_clusters(s);
    if (s.req.rule == 0) {
        return result;
    }
    auto &rules = result[0].ports[0].rules;
    std::erase_if(rules, [&](const vellb::rule &each) { return each.number != s.req.rule; });
    if (rules.empty()) {
        throw vellb::refused(
            {CONFIG, LBCMD_ACTION_GET, vellb::rule_key(*s.req.address, s.req.port, s.req.rule)},
            LBCMD_RC_OBJNOTFOUND);
    }
    return result;
}

vellb::picture read_asked(const session &s, const view &what)
{
    if (what.executor && what.clusters) {
        return vellb::read_picture(s.daemon);
    }
    vellb::picture result;
    result.taken = std::chrono::steady_clock::now();
    if (what.executor || what.ha || what.heartbeats) {
        result.executor = vellb::read_executor(s.daemon);
    }
    if (what.clusters || what.ports || what.servers) {
        result.clusters = read_asked_clusters(s);
    } else if (what.rules || what.useservers) {
        result.clusters = read_asked_rules(s);
    }
    if (what.interfaces || what.addresses) {
        const auto &name = s.req.interface;
        result.interfaces =
            name ? std::vector{found_or_refused(vellb::read_interface(s.daemon, *name), IFACE,
                                                vellb::interface_key(*name))}
                 : vellb::read_interfaces(s.daemon);
    }
    return result;
}

// One picture, or one every so often, each with the rates since the one before.
void show(session &s, const view &what)
{
    constexpr const char *CLEAR = "\033[H\033[2J";
    std::optional<vellb::picture> before;
    sightings seen;
    unsigned left = s.req.count.value_or(0);
    auto next = std::chrono::steady_clock::now();
    for (;;) {
        const vellb::picture now = read_asked(s, what);
        const bool whole = what.executor && what.clusters;
        if (whole && !before) {
            s.warn(vellb::surprises(now));
        }
        const long now_s = time(nullptr);
        const vellb::picture *earlier = before ? &*before : nullptr;
        seen.look(now, now_s);
        const sightings *watched = s.req.watch_s ? &seen : nullptr;
        const bool clear = s.req.watch_s && s.tty && !s.req.json;
        s.answer((clear ? CLEAR : "") + render_text(now, earlier, what, now_s, watched) +
                     (s.req.watch_s && !clear ? "\n" : ""),
                 render_json(now, earlier, what, now_s, watched));
        if (!s.req.watch_s || (s.req.count && --left == 0)) {
            return;
        }
        before = now;
        next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(*s.req.watch_s));
        std::this_thread::sleep_until(next);
    }
}

} // namespace

void show_all(session &s)
{
    show(s, {.executor = true,
             .clusters = true,
             .ports = true,
             .servers = true,
             .rules = true,
             .interfaces = true,
             .heartbeats = true});
}

void show_executor(session &s)
{
    show(s, {.executor = true});
}

void show_ha(session &s)
{
    show(s, {.ha = true, .heartbeats = true});
}

void show_heartbeats(session &s)
{
    show(s, {.heartbeats = true, .flat = true});
}

void show_clusters(session &s)
{
    const bool one = s.req.address.has_value();
    show(s, {.clusters = true, .ports = one, .servers = one, .rules = one});
}

void show_ports(session &s)
{
    const bool one = s.req.address.has_value();
    show(s, {.ports = true, .servers = one, .rules = one, .flat = true});
}

void show_servers(session &s)
{
    show(s, {.servers = true, .flat = true, .server = s.req.server ? &*s.req.server : nullptr});
}

void show_rules(session &s)
{
    show(s, {.rules = true, .flat = true});
}

void show_useservers(session &s)
{
    show(s, {.useservers = true, .flat = true});
}

void show_interfaces(session &s)
{
    show(s, {.interfaces = true});
}

void show_addresses(session &s)
{
    show(s, {.addresses = true, .flat = true});
}

void logmask_decode(session &s)
{
    table_t table({{"BIT", true}, {"NAME"}, {"MEANING"}});
    nlohmann::ordered_json bits = nlohmann::ordered_json::array();
    lb_u64_t left = *s.req.mask;
    const auto row = [&](lb_u64_t bit, std::string_view name, std::string_view meaning) {
        table.row({fmt::format("0x{:x}", bit), std::string(name), std::string(meaning)});
        bits.push_back({{"bit", bit}, {"name", name}, {"meaning", meaning}});
        left &= ~bit;
    };
    for (const vellb::named_value &each : vellb::log_bits()) {
        if ((left & each.value) != 0) {
            row(each.value, each.name, each.meaning);
        }
    }
    if (left != 0) {
        row(left, "", "no module or class has these bits");
    }
    s.answer(fmt::format("0x{:x} {}\n", *s.req.mask, vellb::mask_text(*s.req.mask)) +
                 (table.empty() ? "" : table.text()),
             {{"log_mask", *s.req.mask}, {"names", vellb::mask_text(*s.req.mask)}, {"bits", bits}});
}

void logmask_names(session &s)
{
    table_t table({{"BIT", true}, {"NAME"}, {"MEANING"}});
    nlohmann::ordered_json bits = nlohmann::ordered_json::array();
    for (const vellb::named_value &each : vellb::log_bits()) {
        table.row(
            {fmt::format("0x{:x}", each.value), std::string(each.name), std::string(each.meaning)});
        bits.push_back({{"bit", each.value}, {"name", each.name}, {"meaning", each.meaning}});
    }
    s.answer(table.text(), {{"bits", bits}});
}

} // namespace vellbctl
