// Interface sync: what is planned from two pictures.
#include <gtest/gtest.h>

#include "vellb/address.h"
#include "vellb/command.h"
#include "vellhost/ifsync.h"

namespace
{

using interfaces_t = std::vector<vellb::interface>;

vellb::interface iface(const char *name, lb_u32_t mtu,
                       const std::vector<std::pair<const char *, const char *>> &addresses)
{
    vellb::interface result;
    result.name = name;
    result.settings.ethaddr = *vellb::parse_mac("02:00:00:00:00:01");
    result.settings.mtu_sys = result.settings.mtu_lb = mtu;
    result.settings.isup_sys = result.settings.isup_lb = LBIFIN_YN_YES;
    result.settings.arp = LBIFIN_YN_YES;
    for (const auto &[address, peer] : addresses) {
        result.addresses.push_back({*vellb::parse_prefix(address),
                                    peer != nullptr ? *vellb::parse_address(peer) : lbip_addr_t{}});
    }
    return result;
}

std::string plan(const interfaces_t &host, const interfaces_t &tree,
                 const std::vector<std::string> &only = {})
{
    std::string texts;
    for (const vellhost::sync_step &step : vellhost::plan_sync(host, tree, only)) {
        texts += step.what + " " + step.object + ";";
    }
    return texts;
}

TEST(vellb_ifsync, plans)
{
    const auto eth0 = iface("eth0", 1500, {{"10.0.0.1/24", nullptr}});
    const auto eth1 = iface("eth1", 1500, {{"10.1.0.1/24", nullptr}, {"10.2.0.1/24", nullptr}});
    const auto eth9 = iface("eth9", 1500, {});
    const auto jumbo = iface("eth9", 9000, {});
    const auto peer = iface("eth0", 1500, {{"10.0.0.1/24", "10.9.9.9"}});
    const auto less = iface("eth1", 1500, {{"10.2.0.1/24", nullptr}});
    const auto twice = iface("eth0", 1500, {{"10.0.0.1/24", nullptr}, {"10.0.0.1/32", nullptr}});
    const std::string add = "add interface eth0;add address 10.0.0.1/24 of eth0;";
    const std::string rm = "rm address 10.0.0.1/24 of eth0;";
    const std::string rm2 = "rm address 10.2.0.1/24 of eth1;";
    const struct {
        const char *name;
        interfaces_t host, tree;
        std::vector<std::string> only;
        std::string steps;
    } rows[] = {
        {"equal", {eth0, eth1}, {eth1, eth0}, {}, ""},
        {"another MTU", {jumbo}, {eth9}, {}, "set interface eth9;"},
        {"another peer", {peer}, {eth0}, {}, rm + "add address 10.0.0.1/24 of eth0;"},
        {"gone, bottom-up", {eth0}, {eth0, less}, {}, rm2 + "rm interface eth1;"},
        {"one address, two prefixes: the first stands", {twice}, {eth0}, {}, ""},
        {"only one of them", {eth0, eth1}, {eth9}, {"eth0"}, add},
        {"only one that is gone", {eth0, eth1}, {eth9}, {"eth9"}, "rm interface eth9;"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(plan(row.host, row.tree, row.only), row.steps) << row.name;
    }
}

TEST(vellb_ifsync, a_host_with_link_local_addresses_only_is_not_taken_for_the_daemons)
{
    const char *link_local = "fe80::1/64";
    EXPECT_FALSE(vellhost::is_usable({iface("eth0", 1500, {{link_local, nullptr}})}));
    for (const char *wider : {"2001:db8::1/64", "10.0.0.1/24"}) {
        const auto both = iface("eth0", 1500, {{link_local, nullptr}, {wider, nullptr}});
        EXPECT_TRUE(vellhost::is_usable({both})) << wider;
    }
}

TEST(vellb_ifsync, what_was_set_apart_for_the_forwarder_stays_apart)
{
    auto old = iface("eth0", 1500, {});
    old.settings.mtu_lb = 1400;
    const auto steps = vellhost::plan_sync({iface("eth0", 9000, {})}, {old}, {});
    ASSERT_EQ(steps.size(), 1U);
    const auto block = vellb::block_of<lbifin_setable_t>(steps[0].command.setable, "settable");
    EXPECT_EQ(block.mtu_sys, 9000U);
    EXPECT_EQ(block.mtu_lb, 1400U);
}

} // namespace
