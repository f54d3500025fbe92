// What is IPv6's own in the whole stack: packets of one version for servers of the other, and which
// multicast groups the host hears while all that is configured.
#include "nat_fixture.h"

namespace
{

using namespace packets;

constexpr const char *ROUTER6 = "2001:db8:1::254";

class Ipv6Test : public NatFixture
{
  protected:
    void SetUp() override
    {
        NatFixture::SetUp();
        add_ipv6();
        ASSERT_ADDED(add_ifaddr("eth1", "2001:db8:1::1/64"));
    }
};

TEST_F(Ipv6Test, APacketNeverLeavesHalfWayToTheOtherVersion)
{
    constexpr lb_u8_t GRE = LBSRV_ENCAPFLAG_ENCAPSULATE | LBSRV_ENCAPTYPE_GRE;
    constexpr lb_u8_t IPIP = LBSRV_ENCAPFLAG_ENCAPSULATE | LBSRV_ENCAPTYPE_IPIP;
    const lbsrv_addable_t direct{}, nat4 = natted(), nat6 = natted("2001:db8:1::200", ROUTER6);
    const struct {
        const char *name, *cluster, *server;
        const lbsrv_addable_t &addable;
        lb_u8_t encapflags = 0;
        bool goes = false; // to the server; else an error
    } rows[] = {
        {"IPv6 to an IPv4 neighbour", C6, "10.0.0.21", direct, 0, true},
        {"IPv4 to an IPv6 neighbour", C, "2001:db8::21", direct, 0, true},
        {"NAT to IPv4", C6, "10.2.0.11", nat6},
        {"NAT from IPv4", C6, "2001:db8:2::11", nat4},
        {"NAT of IPv4 to IPv6", C, "2001:db8:2::11", nat6},
        {"GRE to IPv4", C6, "10.0.0.21", direct, GRE},
        {"IPIP to IPv6", C6, "2001:db8::11", direct, IPIP},
        {"IPIP of IPv4 to IPv6", C, "2001:db8::11", direct, IPIP},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        lbsrv_setable_t setable{};
        setable.weight = 1;
        setable.encapmtu = 1500;
        setable.encapsrcip = stack::ip("10.0.0.1");
        setable.encapflags = row.encapflags;
        ASSERT_ADDED(add_server(row.cluster, 80, row.server, setable, row.addable));
        meet(row.server, 21);
        meet(ROUTER, 0xFE);
        meet(ROUTER6, 0xFE);
        const bytes frame = build(packet{.dst = row.cluster});
        const auto sent = sent_for(frame);
        EXPECT_EQ(stack::counted({}, get_server(row.cluster, 80, row.server).getable.ipstats),
                  row.goes ? "fwd" : "err");
        ASSERT_EQ(sent.size(), row.goes ? 1U : 0U);
        if (row.goes) {
            EXPECT_EQ(sent[0].bytes.size(), frame.size());
            EXPECT_EQ(sent[0].bytes[5], 21);
            EXPECT_EQ(get16(sent[0].bytes, 12), get16(frame, 12));
        }
        EXPECT_EQ(rm_server(row.cluster, 80, row.server), LBCMD_RC_SUCCESS);
    }
}

// --- Multicast -----------------------------------------------------------------------------------

TEST_F(Ipv6Test, GroupsAreJoinedWhereTheAddressIsReachedInWhateverOrder)
{
    constexpr const char *X = "2001:db8:7::100";
    lbifin_setable_t noarp = stack::ethernet(2);
    noarp.arp = LBIFIN_YN_NO;
    const auto arp = [&](bool on) {
        return set_interface("eth1", on ? stack::ethernet(2) : noarp);
    };
    const auto net = [this](const char *name) { return add_ifaddr(name, "2001:db8:7::1/64"); };
    const auto nat = [this](const char *server) {
        return add_natserver(C6, server, natted("2001:db8:7::200", ROUTER6));
    };
    const auto rmnet = [this](const char *name) { return rm_ifaddr(name, "2001:db8:7::1/64"); };
    const struct {
        const char *name;
        std::function<int()> step;
        const char *changes; // to the host's memberships
    } rows[] = {
        {"a cluster without an interface", [&] { return add_cluster(X); }, ""},
        {"goes as it came", [&] { return rm_cluster(X); }, ""},
        {"again, and", [&] { return add_cluster(X); }, ""},
        {"ARP off", [&] { return arp(false); }, ""},
        {"the address appears", [&] { return net("eth1"); }, ""},
        {"ARP on", [&] { return arp(true); }, "+eth1 100 "},
        {"ARP on again", [&] { return arp(true); }, ""},
        {"ARP off again", [&] { return arp(false); }, "-eth1 100 "},
        {"no address", [&] { return rmnet("eth1"); }, ""},
        {"another interface", [&] { return net("eth0"); }, "+eth0 100 "},
        {"both, the first holds", [&] { return arp(true), net("eth1"); }, ""},
        {"it moves", [&] { return rmnet("eth0"); }, "-eth0 100 +eth1 100 "},
        {"a return address", [&] { return nat("2001:db8:2::11"); }, "+eth1 200 "},
        {"shared", [&] { return nat("2001:db8:2::12"); }, ""},
        {"by one", [&] { return rm_server(C6, 80, "2001:db8:2::11"); }, ""},
        {"the last address", [&] { return rmnet("eth1"); }, "-eth1 100 -eth1 200 "},
        {"back", [&] { return net("eth1"); }, "+eth1 100 +eth1 200 "},
        {"by none", [&] { return rm_server(C6, 80, "2001:db8:2::12"); }, "-eth1 200 "},
        {"the cluster goes", [&] { return rm_cluster(X); }, "-eth1 100 "},
        {"and is freed", [] { return tick(4), LBCMD_RC_SUCCESS; }, ""},
        {"IPv4", [&] { return add_cluster("10.0.0.101"); }, ""},
    };
    std::size_t seen = fake::memberships().size();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.step(), LBCMD_RC_SUCCESS);
        std::string changes;
        const auto all = fake::memberships();
        for (; seen < all.size(); seen++) {
            const std::string ip = ip6_at(all[seen].ip6, 0);
            changes += (all[seen].join ? "+" : "-") + all[seen].ifname + " " +
                       ip.substr(ip.size() - 3) + " ";
        }
        EXPECT_EQ(changes, row.changes);
    }
}

} // namespace
