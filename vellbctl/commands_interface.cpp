// Changes to the interface tree, by hand and by reading the host.
#include <system_error>

#include <algorithm>
#include <fmt/format.h>

#include "commands.h"
#include "table.h"
#include "vellb/address.h"
#include "vellhost/ifsync.h"

namespace vellbctl
{

namespace
{

constexpr lbcmd_keytype_e IFACE = LBCMD_KEYTYPE_IFACE;

lbcmd_key_t asked_interface(const session &s)
{
    return vellb::interface_key(*s.req.interface);
}
lbcmd_key_t asked_address(const session &s)
{
    return vellb::address_key(*s.req.interface, *s.req.address);
}

std::vector<vellb::interface> host_or_declined()
{
    try {
        return vellhost::read_host();
    } catch (const std::system_error &error) {
        throw declined(error.what(), "nothing was changed; try again");
    }
}

void check_only(const session &s, const std::vector<vellb::interface> &host,
                const std::vector<vellb::interface> &tree)
{
    for (const std::string &name : s.req.only) {
        const auto is_it = [&](const vellb::interface &each) { return each.name == name; };
        if (!std::ranges::any_of(host, is_it) && !std::ranges::any_of(tree, is_it)) {
            throw declined(
                fmt::format("neither the host nor the daemon has an interface '{}'", name),
                "see: ip link; loopbacks are left out");
        }
    }
}

void report(session &s, const std::vector<vellhost::sync_step> &steps)
{
    table_t table({{"ACTION"}, {"OBJECT"}, {"DETAIL"}});
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const vellhost::sync_step &step : steps) {
        table.row({step.what, step.object, step.detail});
        list.push_back({{"action", step.what}, {"object", step.object}, {"detail", step.detail}});
    }
    const std::string text = steps.empty()
                                 ? "nothing to do: the daemon knows this host's interfaces\n"
                             : s.req.dry_run ? table.text() + "nothing was changed (--dry-run)\n"
                                             : table.text();
    s.answer(text, {{"done", s.req.dry_run ? "planned" : "synchronised"}, {"steps", list}});
}

} // namespace

void interface_add(session &s)
{
    lbifin_setable_t settings{};
    settings.isup_sys = settings.isup_lb = settings.arp = LBIFIN_YN_YES;
    settings.loopback = settings.isPTP = LBIFIN_YN_NO;
    s.req.interface_edits.apply(settings);
    s.add(IFACE, asked_interface(s), {}, vellb::bytes_of(settings));
    s.done("added", IFACE, asked_interface(s));
}

void interface_set(session &s)
{
    s.change(IFACE, asked_interface(s), s.req.interface_edits);
    s.done("changed", IFACE, asked_interface(s));
}

void interface_rm(session &s)
{
    s.remove(IFACE, asked_interface(s), s.req.recursive);
    s.done("removed", IFACE, asked_interface(s));
}

void interface_sync(session &s)
{
    const auto host = host_or_declined();
    if (!vellhost::is_usable(host)) {
        throw declined("this host has no interface that is up and has an address beyond its link",
                       "nothing was changed; run this in the daemon's network namespace, or see: "
                       "ip address");
    }
    const auto tree = vellb::read_interfaces(s.daemon);
    check_only(s, host, tree);
    const auto steps = vellhost::plan_sync(host, tree, s.req.only);
    if (!s.req.dry_run) {
        for (const vellhost::sync_step &step : steps) {
            vellb::run(s.daemon, step.command);
        }
    }
    report(s, steps);
}

void address_add(session &s)
{
    lbifaddr_setable_t settings{};
    s.req.address_edits.apply(settings);
    s.add(IFACE, asked_address(s), {}, vellb::bytes_of(settings));
    s.done("added", IFACE, asked_address(s));
}

void address_set(session &s)
{
    s.change(IFACE, asked_address(s), s.req.address_edits);
    s.done("changed", IFACE, asked_address(s));
}

void address_rm(session &s)
{
    s.remove(IFACE, asked_address(s), false);
    s.done("removed", IFACE, asked_address(s));
}

} // namespace vellbctl
