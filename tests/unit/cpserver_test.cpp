// The control server's parts that decide: which interfaces, which addresses to guard and how, and
// when a file has changed.
#include <algorithm>
#include <fstream>

#include "cpserver/filewatch.h"
#include "cpserver/goal.h"
#include "cpserver/guard.h"
#include "vellb/address.h"
#include "vellb_fake_daemon.h"
#include "vellcfg/diff.h"
#include "vellcfg/host.h"
#include "vellcfg/normalise.h"
#include "vellcfg/reader.h"
#include "vellhost/ifsync.h"

namespace
{

using texts_t = std::vector<std::string>;

using cpserver_apply = StackTest;

vellb::interface iface(const char *name, const texts_t &addresses)
{
    vellb::interface result;
    result.name = name;
    for (const std::string &each : addresses) {
        result.addresses.push_back({stack::ip(each), {}});
    }
    return result;
}

vellcfg::service service(const std::string &text)
{
    const auto read = vellcfg::read_texts({{"f", text}});
    EXPECT_TRUE(read.errors.empty()) << text;
    return read.wanted;
}

TEST(cpserver, interfaces_are_those_named_or_all_but_its_own_device)
{
    const std::vector<vellb::interface> host{iface("eth0", {"10.0.0.2/24"}), iface("eth1", {}),
                                             iface("veldra", {})};
    const struct {
        const char *file; // of which eth7 is not there yet
        texts_t chosen;
    } rows[] = {
        {"clusters: []", {"eth0", "eth1"}},
        {"interfaces: [eth1, eth7]", {"eth1"}},
        {"interfaces: []", {}},
        {"interfaces: [veldra]", {"veldra"}},
    };
    for (const auto &row : rows) {
        texts_t chosen;
        for (const auto &each : vellcfg::used_interfaces(service(row.file), host)) {
            chosen.push_back(each.name);
        }
        EXPECT_EQ(chosen, row.chosen) << row.file;
    }
}

TEST(cpserver, another_interface_under_an_old_name_is_told_though_it_is_equal)
{
    const std::vector<vellb::interface> both{iface("eth0", {"10.0.0.2/24"}), iface("eth1", {})};
    const auto told = [&](const std::vector<vellb::interface> &tree, const texts_t &renewed) {
        std::string text;
        for (const auto &each : vellcfg::interface_steps(both, tree, renewed)) {
            text += each.text.substr(9, each.text.find(" --") - 9) + "; ";
        }
        return text;
    };
    EXPECT_EQ(told(both, {}), "");
    EXPECT_EQ(told(both, {"eth0"}), "address rm eth0 10.0.0.2/24; interface rm eth0; "
                                    "interface add eth0; address add eth0 10.0.0.2/24; ");
    EXPECT_EQ(told({both[1]}, {"eth0"}), "interface add eth0; address add eth0 10.0.0.2/24; ");
}

TEST(cpserver, frames_that_would_be_seen_twice_are_warned_of)
{
    const vellhost::link bridge{"br0", "bridge", "", true};
    const vellhost::link vrf{"red", "vrf", "", true};
    const std::vector<vellhost::link> one{{"eth0", "", "br0", true}, bridge};
    const std::vector<vellhost::link> two{
        {"eth0", "", "br0", true}, {"eth1", "", "br0", true}, bridge};
    const struct {
        const char *name;
        std::vector<vellhost::link> links;
        texts_t used;
        size_t warnings;
    } rows[] = {
        {"a member is used", one, {"eth0"}, 1},
        {"the bridge is used", one, {"br0"}, 1},
        {"neither is", one, {"eth1"}, 0},
        {"two members, none used", two, {}, 0},
        {"all are", two, {"br0", "eth0", "eth1"}, 2},
        {"the member is down", {{"eth0", "", "br0", false}, bridge}, {"eth0"}, 0},
        {"a master that passes nothing on", {{"eth0", "", "red", true}, vrf}, {"eth0"}, 0},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(vellhost::seen_twice(row.links, row.used).size(), row.warnings) << row.name;
    }
}

TEST_F(cpserver_apply, an_object_that_is_refused_holds_up_what_stands_on_it_and_nothing_else)
{
    fake_daemon daemon;
    daemon.refuse = [&](const lbcmd_bufhdr_t &asked) -> unsigned {
        const lbcfg_key_t &key = asked.key.cfg;
        const bool hit = key.port == 0 && key.cluster.nboaddr.v4[3] == 101;
        return hit && asked.action == LBCMD_ACTION_ADD ? LBCMD_RC_FAILURE : 0;
    };
    std::string servers;
    for (int i = 1; i <= 100; i++) {
        servers += (i == 1 ? "10.0.1." : ", 10.0.1.") + std::to_string(i);
    }
    const auto wanted = vellcfg::normalised(service(R"(
interfaces: []
clusters:
  - {address: 10.0.0.100, ports: [{port: 80, servers: [10.0.0.11]}]}
  - {address: 10.0.0.101, ports: [{port: 80, servers: [)" +
                                                    servers + R"(]}]}
  - {address: 10.0.0.102, ports: [{port: 80, servers: [10.0.0.11]}]}
)"));
    const vellb::client control(daemon.path());
    const auto steps = diff(wanted, vellb::read_picture(control)).steps;
    size_t seen = 0;
    const auto result = cpserver::apply_all(control, steps, [&](const vellcfg::progress &at) {
        seen += at.next != nullptr;
        return true;
    });
    EXPECT_EQ(seen, 108U);
    EXPECT_EQ(result.done, 6U);
    EXPECT_FALSE(result.complete());
    EXPECT_EQ(result.refused, 102U);
    ASSERT_EQ(result.refusals.size(), 51U);
    EXPECT_NE(result.refusals[0].find("cluster 10.0.0.101"), std::string::npos);
    EXPECT_NE(result.refusals[1].find("PARENTDNE"), std::string::npos);
    EXPECT_EQ(result.refusals[50], "... and more");
    EXPECT_EQ(get_server("10.0.0.102", 80, "10.0.0.11").rc, LBCMD_RC_SUCCESS);
}

TEST(cpserver, guard_takes_clusters_and_return_addresses_but_never_the_hosts_own)
{
    const auto clusters = [](const std::string &text) {
        return vellcfg::normalised(service(text)).clusters;
    };
    const auto wanted = clusters(R"(
clusters:
  - address: 10.0.0.100
    ports:
      - port: 80
        servers:
          - {address: 10.1.0.1, forward: nat, return-address: 10.0.0.50, router-address: 10.0.0.9}
          - 10.0.0.11
          - {address: 10.1.0.2, forward: nat, return-address: 10.0.0.50, router-address: 10.0.0.9}
  - {address: 2001:db8::1, ports: []}
)");
    const auto leaving =
        clusters("clusters: [{address: 10.0.0.100, ports: []}, {address: 10.0.0.2, ports: []}]");
    texts_t owned;
    texts_t guarded;
    for (const lbip_addr_t &each : cpserver::guarded_addresses(
             {&wanted, &leaving}, {iface("eth0", {"10.0.0.2/24"})}, owned)) {
        guarded.push_back(vellb::address_text(each));
    }
    EXPECT_EQ(guarded, (texts_t{"10.0.0.100", "10.0.0.50", "2001:db8::1"}));
    ASSERT_EQ(owned.size(), 1U);
    EXPECT_NE(owned[0].find("10.0.0.2 is an address of this host's interface eth0"),
              std::string::npos);
}

TEST(cpserver, guard_rules_name_every_address_where_its_version_wants_it)
{
    const auto a = stack::ip("10.0.0.100");
    const auto b = stack::ip("2001:db8::1");
    const std::string rules = cpserver::guard_rules({a, b});
    EXPECT_EQ(rules, cpserver::guard_rules({b, a})); // else it would be loaded again and again
    for (const char *each : {"  ip daddr { 10.0.0.100 } ", "  ip6 daddr { 2001:db8::1 } ",
                             "@th,64,128 { 0x20010db8000000000000000000000001 } ",
                             "arp daddr ip { 10.0.0.100 } ", "delete table inet vellb2_guard\n"}) {
        EXPECT_NE(rules.find(each), std::string::npos) << each;
    }
    EXPECT_EQ(cpserver::guard_rules({}).find("drop"), std::string::npos);
}

TEST(cpserver, a_file_is_heard_of_when_it_is_whole)
{
    const scratch_directory place;
    cpserver::directory_watch watch(false);
    ASSERT_TRUE(watch.add(place.path));
    const std::string file = place.path + "/a.yaml";
    {
        std::ofstream out(file);
        out << "half" << std::flush;
        EXPECT_EQ(watch.drain(), texts_t{});
        EXPECT_EQ(watch.unfinished(), texts_t{"a.yaml"});
        out << " and half";
    }
    EXPECT_EQ(watch.drain(), texts_t{"a.yaml"});
    EXPECT_EQ(watch.unfinished(), texts_t{});
    const std::string before = cpserver::signature({file});
    std::ofstream(place.path + "/b") << "half and half";
    std::filesystem::rename(place.path + "/b", file); // as editors do; as long as before
    const texts_t names = watch.drain();
    EXPECT_EQ(std::count(names.begin(), names.end(), "a.yaml"), 1);
    EXPECT_NE(cpserver::signature({file}), before);
    std::filesystem::create_directory(place.path + "/conf.d");
    EXPECT_EQ(watch.drain(), texts_t{"conf.d"});
}

} // namespace
