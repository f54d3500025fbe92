// Planning of an interface sync: pure comparison of two lists. Reading the host is netlink.cpp's,
// carrying the plan out is the command's.
#include "vellhost/ifsync.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

#include "vellb/address.h"

namespace vellhost
{

namespace
{

constexpr lbcmd_keytype_e IFACE = LBCMD_KEYTYPE_IFACE;
using interfaces_t = std::vector<vellb::interface>;

const vellb::interface *named(const interfaces_t &list, const std::string &name)
{
    const auto found = std::ranges::find(list, name, &vellb::interface::name);
    return found != list.end() ? &*found : nullptr;
}

const vellb::interface_address *same_in(const std::vector<vellb::interface_address> &list,
                                        const lbip_addr_t &address)
{
    const auto found = std::ranges::find_if(list, [&](const vellb::interface_address &each) {
        return vellb::same_address(each.address, address);
    });
    return found != list.end() ? &*found : nullptr;
}

std::string address_detail(const vellb::interface_address &each)
{
    return vellb::is_set(each.peer) ? "peer " + vellb::address_text(each.peer) : "";
}

class planner
{
  public:
    std::vector<sync_step> steps{};

    void remove_address(const std::string &name, const vellb::interface_address &each,
                        const char *why)
    {
        step("rm", name, each, why, LBCMD_ACTION_RM, {});
    }
    void add_address(const std::string &name, const vellb::interface_address &each)
    {
        const lbifaddr_setable_t settings{each.peer};
        step("add", name, each, address_detail(each), LBCMD_ACTION_ADD, vellb::bytes_of(settings));
    }
    void interface(const char *what, const std::string &name, const std::string &detail,
                   lbcmd_action_e action, vellb::bytes_t setable)
    {
        steps.push_back({what,
                         "interface " + name,
                         detail,
                         {IFACE, action, vellb::interface_key(name), {}, std::move(setable)}});
    }

  private:
    void step(const char *what, const std::string &name, const vellb::interface_address &each,
              const std::string &detail, lbcmd_action_e action, vellb::bytes_t setable)
    {
        const lbcmd_key_t key = vellb::address_key(name, each.address);
        steps.push_back({what,
                         fmt::format("address {} of {}", vellb::prefix_text(each.address), name),
                         detail,
                         {IFACE, action, key, {}, std::move(setable)}});
    }
};

// The host's settings, but for what someone set apart for the forwarder.
lbifin_setable_t merged(const lbifin_setable_t &host, const lbifin_setable_t &old)
{
    lbifin_setable_t settings = host;
    if (old.mtu_lb != old.mtu_sys) {
        settings.mtu_lb = old.mtu_lb;
    }
    if (old.isup_lb != old.isup_sys) {
        settings.isup_lb = old.isup_lb;
    }
    return settings;
}

void plan_interface(planner &plan, const vellb::interface &host, const vellb::interface *old)
{
    if (old == nullptr) {
        plan.interface("add", host.name, interface_detail(host.settings), LBCMD_ACTION_ADD,
                       vellb::bytes_of(host.settings));
    } else {
        const lbifin_setable_t settings = merged(host.settings, old->settings);
        if (vellb::bytes_of(settings) != vellb::bytes_of(old->settings)) {
            plan.interface("set", host.name, interface_detail(settings), LBCMD_ACTION_SET,
                           vellb::bytes_of(settings));
        }
    }
    std::vector<vellb::interface_address> kept;
    for (const vellb::interface_address &each :
         old != nullptr ? old->addresses : std::vector<vellb::interface_address>{}) {
        const auto *now = same_in(host.addresses, each.address);
        const bool equal = now != nullptr && now->address.prefix == each.address.prefix &&
                           vellb::same_address(now->peer, each.peer);
        if (equal) {
            kept.push_back(each);
        } else {
            plan.remove_address(host.name, each, now != nullptr ? "changed" : "gone");
        }
    }
    for (const vellb::interface_address &each : host.addresses) {
        // One address with two prefixes has one key only: the first stands.
        if (same_in(kept, each.address) == nullptr) {
            kept.push_back(each);
            plan.add_address(host.name, each);
        }
    }
}

} // namespace

std::vector<sync_step> plan_sync(const interfaces_t &host, const interfaces_t &tree,
                                 const std::vector<std::string> &only)
{
    const auto left_alone = [&](const std::string &name) {
        return !only.empty() && std::ranges::find(only, name) == only.end();
    };
    planner plan;
    for (const vellb::interface &old : tree) {
        if (left_alone(old.name) || named(host, old.name) != nullptr) {
            continue;
        }
        for (const vellb::interface_address &each : old.addresses) {
            plan.remove_address(old.name, each, "gone");
        }
        plan.interface("rm", old.name, "gone", LBCMD_ACTION_RM, {});
    }
    for (const vellb::interface &each : host) {
        if (!left_alone(each.name)) {
            plan_interface(plan, each, named(tree, each.name));
        }
    }
    return std::move(plan.steps);
}

std::vector<std::string> seen_twice(const std::vector<link> &links,
                                    const std::vector<std::string> &used)
{
    const auto is_used = [&](const std::string &name) {
        return std::ranges::find(used, name) != used.end();
    };
    std::vector<std::string> warnings;
    for (const link &each : links) {
        const auto upper = std::ranges::find(links, each.master, &link::name);
        const bool doubled =
            upper != links.end() && each.up && upper->up &&
            (upper->kind == "bridge" || upper->kind == "bond" || upper->kind == "team");
        if (doubled && (is_used(each.name) || is_used(upper->name))) {
            warnings.push_back(fmt::format(
                "{} is a member of the {} {}: frames on it are seen twice and would be forwarded "
                "twice; use an interface that is no member and has none",
                each.name, upper->kind, upper->name));
        }
    }
    return warnings;
}

bool is_usable(const interfaces_t &host)
{
    return std::ranges::any_of(host, [](const vellb::interface &each) {
        // Every interface that is up has a link-local address, in any namespace.
        return each.settings.isup_sys == LBIFIN_YN_YES &&
               !std::ranges::all_of(each.addresses, [](const vellb::interface_address &address) {
                   return vellb::is_link_local(address.address);
               });
    });
}

std::string interface_detail(const lbifin_setable_t &settings)
{
    std::string text =
        fmt::format("{}, mtu {}, {}", vellb::mac_text(settings.ethaddr), settings.mtu_sys,
                    settings.isup_sys == LBIFIN_YN_YES ? "up" : "down");
    text += settings.arp == LBIFIN_YN_YES ? "" : ", no arp";
    text += settings.isPTP == LBIFIN_YN_YES ? ", point-to-point" : "";
    return text;
}

} // namespace vellhost
