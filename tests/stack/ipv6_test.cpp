// What is IPv6's own in the whole stack: a reset's layout, translation behind extension headers,
// packets of one version for servers of the other, and which multicast groups the host hears while
// all that is configured.
#include "stack_fixture.h"

namespace
{

using namespace packets;

constexpr const char *C = "2001:db8::100";
constexpr const char *S = "2001:db8::11";
constexpr const char *CLIENT = "2001:db8:9::1"; // behind the gateway
constexpr const char *NATSERVER = "2001:db8:2::11";
constexpr const char *R = "2001:db8:1::200";
constexpr std::uint8_t SYN = 0x02;
constexpr std::uint8_t RST = 0x04;
constexpr std::uint8_t ACK = 0x10;

class Ipv6Test : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        make_eth0();
        ASSERT_ADDED(set_executor(
            [](lbexe_setable_t &b) { b.clientgateway_ipv6 = stack::ip("2001:db8::254"); }));
        meet("2001:db8::254", 254);
        ASSERT_ADDED(add_interface("eth1", stack::ethernet(2)));
        ASSERT_ADDED(add_ifaddr("eth1", "2001:db8:1::1/64"));
        make_service(C, {S});
        ASSERT_ADDED(add_port(C, 443, LBSEL_ALGORIGHM_CONNECTION, LBSEL_ALGORIGHM_CONNECTION));
    }
    // The frame that was sent for a received one; empty unless it is the only one.
    static bytes forwarded(const bytes &frame)
    {
        const auto sent = sent_for(frame);
        return sent.size() == 1 && sent[0].how == fake::via::packet ? sent[0].bytes : bytes();
    }
    int make_natserver(const std::string &cluster, const std::string &server,
                       const std::string &returnaddress)
    {
        lbsrv_addable_t addable{};
        addable.nat = 1;
        addable.returnaddress = stack::ip(returnaddress);
        addable.routeraddress = stack::ip("2001:db8:1::254");
        lbsrv_setable_t setable{};
        setable.weight = 1;
        const int rc = add_server(cluster, 443, server, setable, addable);
        meet("2001:db8:1::254", 0xFE);
        return rc;
    }
    // What becomes of one whole packet, on its way and back: "source destination sum".
    static std::string ends(const bytes &f)
    {
        if (f.empty()) {
            return "";
        }
        const std::size_t at = upper_of(f).at;
        return src_of(f) + " " + std::to_string(get16(f, at)) + " > " + dst_of(f) + " " +
               std::to_string(get16(f, at + 2)) + " " + std::to_string(transport_residue(f));
    }
};

TEST_F(Ipv6Test, AResetByteByByte)
{
    ASSERT_ADDED(add_server(C, 443, S));
    ASSERT_ADDED(add_server(C, 443, "2001:db8::12", 0)); // where the drained server's clients go
    ASSERT_ADDED(set_port(C, 443, [](lbport_setable_t &b) { b.reset = 1; }));
    packet p = {.src = CLIENT, .dport = 443, .exts = {padding(DSTOPTS)}};
    for (const std::uint16_t sport : {1, 2}) { // each is forgotten with its reset
        for (const std::uint8_t flags : {SYN, ACK}) {
            p.sport = sport;
            p.flags = flags;
            EXPECT_FALSE(forwarded(build(p)).empty());
        }
    }
    ASSERT_ADDED(set_server(C, 443, S, [](lbsrv_setable_t &b) { b.weight = 0; }));
    ASSERT_ADDED(set_server(C, 443, "2001:db8::12", [](lbsrv_setable_t &b) { b.weight = 1; }));
    const auto reset = [&](std::uint16_t sport) {
        p.sport = sport;
        p.seq = 0x11223344;
        p.ack = 0x55667788;
        return forwarded(build(p));
    };
    bytes want = build(packet{.src = C,
                              .dst = CLIENT,
                              .sport = 443,
                              .dport = 1,
                              .flags = RST,
                              .seq = 0x55667788,
                              .ack = 0x11223344,
                              .payload = 0,
                              .ethdst = mac_of(254),
                              .ethsrc = mac_of(1)});
    put16(want, IP6 + 14, 0); // window
    mend_transport(want);
    EXPECT_EQ(reset(1), want);
    lbifin_setable_t bare = stack::ethernet(1);
    bare.isPTP = LBIFIN_YN_YES;
    ASSERT_ADDED(set_interface("eth0", bare));
    put16(want, IP6 + 2, 2);
    mend_transport(want);
    EXPECT_EQ(reset(2), part(want, ETH, want.size())) << "point to point: without a frame";
}

// --- Translation ---------------------------------------------------------------------------------

TEST_F(Ipv6Test, BothWaysWithHeadersInFrontAndOddLengths)
{
    ASSERT_ADDED(make_natserver(C, NATSERVER, R));
    packet request = {.src = CLIENT, .dport = 443};
    packet answer = {.src = NATSERVER, .dst = R, .sport = 443, .dport = 1025, .ttl = 1};
    for (const std::vector<ext> &exts :
         {std::vector<ext>{}, {padding(HOPOPTS), padding(DSTOPTS)}, {fragment(5, 0)}}) {
        for (const std::size_t payload : {0, 1, 700}) {
            request.exts = answer.exts = exts;
            request.payload = answer.payload = payload;
            EXPECT_EQ(ends(forwarded(build(request))),
                      "2001:db8:1::200 1025 > 2001:db8:2::11 443 0");
            const bytes sent = forwarded(build(answer));
            EXPECT_EQ(ends(sent), "2001:db8::100 443 > 2001:db8:9::1 40000 0");
            EXPECT_EQ(mac_at(sent, 0), mac_of(254));
        }
    }
    const std::uint16_t lies[] = {0, 7, 8 + 19, 8 + 20 + 700 + 1}; // no TCP header; more than came
    for (const std::uint16_t lie : lies) {
        EXPECT_EQ(forwarded(with16(build(answer), ETH + 4, lie)), bytes()) << lie;
    }
    EXPECT_EQ(get_executor().getable.ipv6stats.err, std::size(lies));
}

// --- Both versions -------------------------------------------------------------------------------

TEST_F(Ipv6Test, APacketNeverLeavesHalfWayToTheOtherVersion)
{
    constexpr const char *C4 = "10.0.0.100";
    ASSERT_ADDED(add_cluster(C4));
    ASSERT_ADDED(add_port(C4, 443, LBSEL_ALGORIGHM_CONNECTION));
    const bytes six = build(packet{.src = CLIENT, .dport = 443});
    const bytes four = build(packet{.dport = 443});
    enum kind { NEIGHBOUR, NAT, NAT4, GRE, IPIP };
    const auto add = [&](const char *cluster, const char *server, kind how) {
        if (how == NAT || how == NAT4) {
            return make_natserver(cluster, server, how == NAT ? R : "10.1.0.200");
        }
        lbsrv_setable_t setable{};
        setable.weight = 1;
        if (how != NEIGHBOUR) {
            setable.encapmtu = 1500;
            setable.encapsrcip = stack::ip("10.0.0.1");
            setable.encapflags = LBSRV_ENCAPFLAG_ENCAPSULATE;
            setable.encapflags |= how == GRE ? LBSRV_ENCAPTYPE_GRE : LBSRV_ENCAPTYPE_IPIP;
        }
        return add_server(cluster, 443, server, setable);
    };
    const struct {
        const char *name, *cluster, *server;
        kind how;
        bool goes; // to the server; else an error
    } rows[] = {
        {"IPv6 to an IPv4 neighbour", C, "10.0.0.21", NEIGHBOUR, true},
        {"IPv4 to an IPv6 neighbour", C4, "2001:db8::21", NEIGHBOUR, true},
        {"NAT to IPv4", C, "10.2.0.11", NAT, false},
        {"NAT from IPv4", C, NATSERVER, NAT4, false},
        {"NAT of IPv4 to IPv6", C4, NATSERVER, NAT, false},
        {"GRE to IPv4", C, "10.0.0.21", GRE, false},
        {"IPIP to IPv6", C, S, IPIP, false},
        {"IPIP of IPv4 to IPv6", C4, S, IPIP, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_ADDED(add(row.cluster, row.server, row.how));
        meet(row.server, 21);
        const bytes &frame = row.cluster == C ? six : four;
        const bytes sent = forwarded(frame);
        const lb_proto_stats_t counted = get_server(row.cluster, 443, row.server).getable.ipstats;
        EXPECT_EQ(counted.err, row.goes ? 0U : 1U);
        EXPECT_EQ(counted.fwd, row.goes ? 1U : 0U);
        ASSERT_EQ(sent.size(), row.goes ? frame.size() : 0U);
        if (row.goes) {
            EXPECT_EQ(sent[5], 21);
            EXPECT_EQ(get16(sent, 12), get16(frame, 12));
        }
        EXPECT_EQ(rm_server(row.cluster, 443, row.server), LBCMD_RC_SUCCESS);
    }
}

// --- Multicast -----------------------------------------------------------------------------------

TEST_F(Ipv6Test, GroupsAreJoinedWhereTheAddressIsReachedInWhateverOrder)
{
    constexpr const char *X = "2001:db8:7::100";
    constexpr const char *RX = "2001:db8:7::200";
    lbifin_setable_t noarp = stack::ethernet(2);
    noarp.arp = LBIFIN_YN_NO;
    const auto arp = [&](bool on) {
        return set_interface("eth1", on ? stack::ethernet(2) : noarp);
    };
    const auto net = [this](const char *name) { return add_ifaddr(name, "2001:db8:7::1/64"); };
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
        {"a return address", [&] { return make_natserver(C, NATSERVER, RX); }, "+eth1 200 "},
        {"shared", [&] { return make_natserver(C, "2001:db8:2::12", RX); }, ""},
        {"by one", [&] { return rm_server(C, 443, NATSERVER); }, ""},
        {"the last address", [&] { return rmnet("eth1"); }, "-eth1 100 -eth1 200 "},
        {"back", [&] { return net("eth1"); }, "+eth1 100 +eth1 200 "},
        {"by none", [&] { return rm_server(C, 443, "2001:db8:2::12"); }, "-eth1 200 "},
        {"the cluster goes", [&] { return rm_cluster(X); }, "-eth1 100 "},
        {"and is freed", [] { return tick(4), LBCMD_RC_SUCCESS; }, ""},
        {"IPv4", [&] { return add_cluster("10.0.0.100"); }, ""},
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
