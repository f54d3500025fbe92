// What is IPv6's own in the whole stack: long addresses, a reset's layout, wide identifications of
// fragments, translation behind extension headers, packets of one version for servers of the other,
// and which multicast groups the host hears while all that is configured.
#include "lb_ipv6.h"

#include <map>
#include <set>

#include "packets6.h"
#include "stack_fixture.h"

namespace
{

using packets::bytes;
using packets::DSTOPTS;
using packets::ETH;
using packets::ext;
using packets::fragment;
using packets::HOPOPTS;
using packets::IP6;
using packets::mac_of;
using packets::packet6;
using packets::padding;
using packets::UDP;

constexpr const char *C = "2001:db8::100";
constexpr const char *S = "2001:db8::11";
constexpr const char *CLIENT = "2001:db8:9::1"; // behind the gateway
constexpr const char *NATSERVER = "2001:db8:2::11";
constexpr const char *R = "2001:db8:1::200";
constexpr std::uint8_t SYN = 0x02;
constexpr std::uint8_t RST = 0x04;
constexpr std::uint8_t ACK = 0x10;

bytes packet(const packet6 &p = {})
{
    return packets::build(p);
}

class Ipv6Test : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(add_ifaddr("eth0", "2001:db8::1/64"));
        ASSERT_ADDED(set_executor(
            [](lbexe_setable_t &b) { b.clientgateway_ipv6 = stack::ip("2001:db8::254"); }));
        ASSERT_ADDED(add_cluster(C));
        ASSERT_ADDED(add_port(C, 80));
        ASSERT_ADDED(add_server(C, 80, S));
        meet("2001:db8::254", 254);
        meet(S, 11);
    }
    // Whatever a test does, each group is joined once and left once, by turns.
    void TearDown() override
    {
        stop_stack();
        std::map<std::string, int> joined;
        for (const fake::membership &m : fake::memberships()) {
            int &count = joined[m.ifname + " " + packets::ip6_at(m.ip6, 0)];
            count += m.join ? 1 : -1;
            EXPECT_TRUE(count == 0 || count == 1) << m.ifname;
        }
        for (const auto &[where, count] : joined) {
            EXPECT_EQ(count, 0) << where << " was never left";
        }
        StackTest::TearDown();
    }

    static void meet(const std::string &ip, std::uint8_t last)
    {
        fake::receive(ip.find(':') != std::string::npos ? packets::advertisement(ip, last)
                                                        : packets::arp_reply(ip, last));
        (void)fake::take_sent();
    }
    // The frame that was sent for a received one; empty unless it is the only one.
    static bytes forwarded(const bytes &frame)
    {
        (void)fake::take_sent();
        EXPECT_EQ(fake::receive(frame), LB_PACKETRC_CONSUMED);
        const auto sent = fake::take_sent();
        return sent.size() == 1 && sent[0].how == fake::via::packet ? sent[0].bytes : bytes();
    }
    // The last byte of the hardware address that it was sent to; -1 for none.
    static int server_of(const packet6 &p)
    {
        const bytes sent = forwarded(packet(p));
        return sent.empty() ? -1 : sent[5];
    }
};

TEST_F(Ipv6Test, ConnectionsAndAffinityKnowClientsByTheirWholeAddress)
{
    ASSERT_ADDED(add_port(C, 443, LBSEL_ALGORIGHM_CONNECTION));
    ASSERT_ADDED(add_port(C, 8443, LBSEL_ALGORIGHM_AFFINITY));
    for (const std::uint8_t last : {12, 13}) {
        const std::string server = "2001:db8::" + std::to_string(last);
        lbsrv_setable_t setable{};
        setable.weight = 1;
        setable.stickyflag = 1;
        ASSERT_ADDED(add_server(C, 443, server, setable));
        ASSERT_ADDED(add_server(C, 8443, server, setable));
        meet(server, last);
    }
    for (const std::uint16_t dport : {443, 8443}) {
        // The addresses end alike, so one bucket holds both.
        const packet6 a = {.src = "2001:db8:a::1", .dport = dport};
        const packet6 b = {.src = "2001:db8:b::1", .dport = dport};
        const int first = server_of(a);
        const int second = server_of(b);
        EXPECT_EQ(first + second, 12 + 13) << dport << ": round robin";
        for (const auto &[who, server] : {std::pair{a, first}, {b, second}, {a, first}}) {
            packet6 next = who;
            next.flags = ACK;
            EXPECT_EQ(server_of(next), server) << dport;
        }
    }
}

TEST_F(Ipv6Test, AHeaderThatLiesIsNotSummedUpNorReaddressed)
{
    bytes frame = packet({.exts = {fragment(7, 0)}});
    lbpbuf_obj_t pkt = {};
    pkt.p.raw = frame.data() + ETH;
    pkt.buflen = static_cast<int>(frame.size()) - ETH;
    ASSERT_EQ(_lbipv6_getproto(pkt.p.v6, pkt.buflen, &pkt.ulp.raw, &pkt), packets::TCP);
    pkt.ipfuncs = &lbipv6_funcs;
    EXPECT_EQ(lbipv6_funcs.gethdrlen(&pkt), 40);
    const lbip_addr_t other = stack::ip("10.0.0.1");
    EXPECT_EQ(lbipv6_funcs.setsaddr(&pkt, &other), -1);
    EXPECT_EQ(lbipv6_funcs.setdaddr(&pkt, &other), -1);
    for (const int payload : {0, 7, 8 + 19, 61}) { // and one byte more than came
        packets::put16(frame, ETH + 4, static_cast<std::uint16_t>(payload));
        const bytes before = frame;
        EXPECT_EQ(lbipv6_funcs.tcpchksum(&pkt), -1) << payload;
        EXPECT_EQ(frame, before);
    }
}

TEST_F(Ipv6Test, AResetByteByByte)
{
    constexpr const char *OTHER = "2001:db8::12"; // where a drained server's clients shall go
    ASSERT_ADDED(add_port(C, 443, LBSEL_ALGORIGHM_CONNECTION));
    ASSERT_ADDED(add_server(C, 443, S));
    ASSERT_ADDED(add_server(C, 443, OTHER, 0));
    ASSERT_ADDED(set_port(C, 443, [](lbport_setable_t &b) { b.reset = 1; }));
    packet6 p = {.src = CLIENT, .dport = 443, .exts = {padding(DSTOPTS)}};
    for (const std::uint16_t sport : {1, 2, 3}) { // each is forgotten with its reset
        for (const std::uint8_t flags : {SYN, ACK}) {
            p.sport = sport;
            p.flags = flags;
            EXPECT_EQ(server_of(p), 11);
        }
    }
    for (const auto &[server, weight] : {std::pair{S, 0}, {OTHER, 1}}) {
        ASSERT_ADDED(set_server(C, 443, server, [&, to = weight](lbsrv_setable_t &b) {
            b.weight = static_cast<lb_u16_t>(to);
        }));
    }
    const auto reset = [&](std::uint16_t sport) {
        p.sport = sport;
        p.seq = 0x11223344;
        p.ack = 0x55667788;
        return forwarded(packet(p));
    };
    bytes want = packet({.src = C,
                         .dst = CLIENT,
                         .sport = 443,
                         .dport = 1,
                         .flags = RST,
                         .seq = 0x55667788,
                         .ack = 0x11223344,
                         .payload = 0,
                         .ethdst = mac_of(254),
                         .ethsrc = mac_of(1)});
    packets::put16(want, IP6 + 14, 0); // window
    packets::mend_transport(want);
    EXPECT_EQ(reset(1), want);
    lbifin_setable_t bare = stack::ethernet(1);
    bare.isPTP = LBIFIN_YN_YES;
    ASSERT_ADDED(set_interface("eth0", bare));
    packets::put16(want, IP6 + 2, 2);
    packets::mend_transport(want);
    EXPECT_EQ(reset(2), bytes(want.begin() + ETH, want.end()));
    set_executor_log_mask(LB_LOG_TCPUDP);
    ASSERT_ADDED(set_executor([](lbexe_setable_t &b) { b.clientgateway_ipv6 = {}; }));
    EXPECT_EQ(reset(3), bytes());
    EXPECT_TRUE(fake::log_contains("sendreset: no neigh or no interface"));
}

TEST_F(Ipv6Test, FragmentsFollowTheirFirstOneWhateverTheOrder)
{
    ASSERT_ADDED(add_server(C, 80, "2001:db8::12"));
    meet("2001:db8::12", 12);
    // Two datagrams of one client whose identifications differ in the upper half alone.
    const packet6 datagram = {.src = CLIENT, .proto = UDP, .payload = 4000};
    std::vector<bytes> frames = packets::fragments6(datagram, 0x10007);
    for (const bytes &f : packets::fragments6(datagram, 0x20007)) {
        frames.push_back(f);
    }
    std::reverse(frames.begin(), frames.end());
    std::map<std::uint32_t, std::set<bytes>> got;
    std::map<std::uint32_t, std::set<int>> servers;
    for (const bytes &frame : frames) {
        EXPECT_NE(fake::receive(frame), LB_PACKETRC_INTACT);
        for (const auto &sent : fake::take_sent()) {
            const std::uint32_t id = packets::get32(sent.bytes, IP6 + 4);
            got[id].emplace(sent.bytes.begin() + IP6, sent.bytes.end());
            servers[id].insert(sent.bytes[5]);
        }
    }
    for (const std::uint32_t id : {0x10007U, 0x20007U}) {
        std::set<bytes> want;
        for (const bytes &f : packets::fragments6(datagram, id)) {
            want.emplace(f.begin() + IP6, f.end());
        }
        EXPECT_EQ(got[id], want) << id;
        EXPECT_EQ(servers[id].size(), 1U) << id;
    }
    EXPECT_NE(servers[0x10007], servers[0x20007]) << "they take turns";
}

// --- Translation ---------------------------------------------------------------------------------

class Ipv6NatTest : public Ipv6Test
{
  protected:
    void SetUp() override
    {
        Ipv6Test::SetUp();
        ASSERT_ADDED(add_interface("eth1", stack::ethernet(2)));
        ASSERT_ADDED(add_ifaddr("eth1", "2001:db8:1::1/64"));
        ASSERT_ADDED(add_port(C, 443, LBSEL_ALGORIGHM_CONNECTION, LBSEL_ALGORIGHM_CONNECTION));
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
        const std::size_t at = f.empty() ? 0 : packets::upper_of(f).at;
        return at == 0 ? ""
                       : packets::ip6_at(f, ETH + 8) + " " + std::to_string(packets::get16(f, at)) +
                             " > " + packets::ip6_at(f, ETH + 24) + " " +
                             std::to_string(packets::get16(f, at + 2)) + " " +
                             std::to_string(packets::transport_residue(f));
    }
};

TEST_F(Ipv6NatTest, BothWaysWithHeadersInFrontAndOddLengths)
{
    ASSERT_ADDED(make_natserver(C, NATSERVER, R));
    const packet6 answer = {.src = NATSERVER, .dst = R, .sport = 443, .dport = 1025, .hops = 1};
    for (const std::vector<ext> &exts :
         {std::vector<ext>{}, {padding(HOPOPTS), padding(DSTOPTS)}, {fragment(5, 0)}}) {
        for (const std::size_t payload : {0, 1, 700}) {
            packet6 p = {.src = CLIENT, .dport = 443, .exts = exts, .payload = payload};
            EXPECT_EQ(ends(forwarded(packet(p))), "2001:db8:1::200 1025 > 2001:db8:2::11 443 0");
            packet6 back = answer;
            back.exts = exts;
            back.payload = payload;
            const bytes sent = forwarded(packet(back));
            EXPECT_EQ(ends(sent), "2001:db8::100 443 > 2001:db8:9::1 40000 0");
            EXPECT_EQ(packets::mac_at(sent, 0), mac_of(254));
        }
    }
    bytes lying = packet(answer);
    lying.pop_back();
    EXPECT_EQ(forwarded(lying), bytes());
    EXPECT_EQ(get_executor().getable.ipv6stats.err, 1U);
}

// --- Both versions -------------------------------------------------------------------------------

TEST_F(Ipv6NatTest, APacketNeverLeavesHalfWayToTheOtherVersion)
{
    constexpr const char *C4 = "10.0.0.100";
    ASSERT_ADDED(add_cluster(C4));
    ASSERT_ADDED(add_port(C4, 443, LBSEL_ALGORIGHM_CONNECTION));
    const bytes six = packet({.src = CLIENT, .dport = 443});
    const bytes four = packets::build(packets::packet{.dport = 443});
    lbsrv_setable_t tunnel{};
    tunnel.weight = 1;
    tunnel.encapmtu = 1500;
    tunnel.encapsrcip = stack::ip("10.0.0.1");
    tunnel.encapflags = LBSRV_ENCAPFLAG_ENCAPSULATE;
    const auto add_tunnel = [&](const char *cluster, const char *server, lb_u8_t type) {
        tunnel.encapflags = static_cast<lb_u8_t>(LBSRV_ENCAPFLAG_ENCAPSULATE | type);
        return add_server(cluster, 443, server, tunnel);
    };
    const struct {
        const char *name;
        const char *cluster;
        const char *server;
        std::function<int(const char *cluster, const char *server)> add;
        int hw; // where it is forwarded to; -1 for an error
    } rows[] = {
        {"IPv6 to an IPv4 neighbour", C, "10.0.0.21",
         [this](auto *c, auto *s) { return add_server(c, 443, s); }, 21},
        {"IPv4 to an IPv6 neighbour", C4, "2001:db8::21",
         [this](auto *c, auto *s) { return add_server(c, 443, s); }, 21},
        {"NAT to IPv4", C, "10.2.0.11",
         [this](auto *c, auto *s) { return make_natserver(c, s, R); }, -1},
        {"NAT from IPv4", C, NATSERVER,
         [this](auto *c, auto *s) { return make_natserver(c, s, "10.1.0.200"); }, -1},
        {"NAT of IPv4 to IPv6", C4, NATSERVER,
         [this](auto *c, auto *s) { return make_natserver(c, s, R); }, -1},
        {"GRE to IPv4", C, "10.0.0.21",
         [&](auto *c, auto *s) { return add_tunnel(c, s, LBSRV_ENCAPTYPE_GRE); }, -1},
        {"IPIP to IPv6", C, S,
         [&](auto *c, auto *s) { return add_tunnel(c, s, LBSRV_ENCAPTYPE_IPIP); }, -1},
        {"IPIP of IPv4 to IPv6", C4, S,
         [&](auto *c, auto *s) { return add_tunnel(c, s, LBSRV_ENCAPTYPE_IPIP); }, -1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.add(row.cluster, row.server), LBCMD_RC_SUCCESS);
        meet(row.server, 21);
        const bytes &frame = row.cluster == C ? six : four;
        const bytes sent = forwarded(frame);
        const lb_proto_stats_t counted = get_server(row.cluster, 443, row.server).getable.ipstats;
        EXPECT_EQ(counted.err, row.hw < 0 ? 1U : 0U);
        EXPECT_EQ(counted.fwd, row.hw < 0 ? 0U : 1U);
        if (row.hw < 0) {
            EXPECT_EQ(sent, bytes());
        } else {
            ASSERT_EQ(sent.size(), frame.size());
            EXPECT_EQ(sent[5], row.hw);
            EXPECT_EQ(packets::get16(sent, 12), packets::get16(frame, 12));
        }
        EXPECT_EQ(rm_server(row.cluster, 443, row.server), LBCMD_RC_SUCCESS);
    }
}

// --- Multicast -----------------------------------------------------------------------------------

TEST_F(Ipv6NatTest, GroupsAreJoinedWhereTheAddressIsReachedInWhateverOrder)
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
            const std::string ip = packets::ip6_at(all[seen].ip6, 0);
            changes += (all[seen].join ? "+" : "-") + all[seen].ifname + " " +
                       ip.substr(ip.size() - 3) + " ";
        }
        EXPECT_EQ(changes, row.changes);
    }
}

} // namespace
