// NAT through the whole stack: which client an answer reaches and what it looks like there, what
// becomes of everything else that is sent to a return address, how long a connection keeps its
// port, and how long a return address lives.
#include "nat_fixture.h"
#include "packets.h"

namespace
{

using packets::bytes;
using packets::ETH;

class NatTest : public NatFixture
{
  protected:
    void SetUp() override
    {
        NatFixture::SetUp();
        ASSERT_ADDED(make_natserver(11));
    }
    lb_proto_stats_t stats() { return get_executor().getable.ipv4stats; }
    static int busy() { return EXC_EPTCountPorts(&retaddr()->ept); }
};

TEST_F(NatTest, AnAnswerReachesItsClient)
{
    ASSERT_TRUE(segment(SYN, 40000, "10.9.0.1"));
    ASSERT_TRUE(segment(SYN, 40001, "10.9.0.2"));
    const lb_u64_t before = stats().fwd;
    fake::frame host;
    const bytes frame = packets::build(answer(1026));
    EXPECT_EQ(fake::receive_into(host, frame.data(), frame.size()), LB_PACKETRC_CONSUMED);
    EXPECT_EQ(host.frees(), 1);
    EXPECT_EQ(stats().fwd, before + 1);
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].ifname, "eth0");
    packets::packet expected = answer(40001);
    expected.src = C;
    expected.dst = "10.9.0.2";
    expected.ethdst = packets::mac_of(254);
    expected.ethsrc = packets::mac_of(1);
    EXPECT_EQ(sent[0].bytes, packets::build(expected)) << "the TTL as it was";
    EXPECT_EQ(fake::receive({frame.begin() + ETH, frame.end()}, fake::link::slip),
              LB_PACKETRC_CONSUMED);
    EXPECT_EQ(fake::take_sent().at(0).bytes, packets::build(expected)) << "it gets a link header";
    EXPECT_EQ(answered(answer(1025)), "10.9.0.1:40000");
    EXPECT_EQ(stats().in, stats().fwd + stats().notforus + stats().discard + stats().err);
}

TEST_F(NatTest, WhatBecomesOfPacketsForAReturnAddress)
{
    ASSERT_TRUE(segment(SYN, 40000));
    const auto with = [](std::uint16_t port, std::uint8_t proto, std::uint16_t fragoff = 0) {
        packets::packet p = answer(port);
        p.proto = proto;
        p.fragoff = fragoff;
        return packets::build(p);
    };
    const auto cut = [&with](std::size_t len, bool honest, std::uint16_t fragoff = 0) {
        return packets::cut(with(1025, packets::TCP, fragoff), len, honest);
    };
    using stat = lb_u32_t lb_proto_stats_t::*;
    const stat notforus = &lb_proto_stats_t::notforus;
    const stat discard = &lb_proto_stats_t::discard;
    const stat err = &lb_proto_stats_t::err;
    const struct {
        const char *name;
        bytes frame;
        stat counter; // null: sent to the client
    } rows[] = {
        {"an answer", with(1025, packets::TCP), nullptr},
        {"first fragment", with(1025, packets::TCP, 0x2000), nullptr},
        {"later fragment", with(1025, packets::TCP, 0x2004), nullptr},
        {"last fragment", with(1025, packets::TCP, 4), nullptr},
        {"nobody's port", with(1026, packets::TCP), discard},
        {"the last port", with(65535, packets::TCP), discard},
        {"a port that is never handed out", with(1024, packets::TCP), notforus},
        {"UDP", with(1025, packets::UDP), notforus},
        {"fragment of UDP", with(1025, packets::UDP, 4), notforus},
        {"no ports", cut(23, true), notforus},
        {"no whole TCP header", cut(39, true), err},
        {"nor in a first fragment", cut(39, true, 0x2000), err},
        {"longer than what came", cut(46, false), err},
        {"fragment longer than what came", cut(46, false, 4), err},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fake::log_clear();
        const lb_proto_stats_t before = stats();
        const bool intact = row.counter == notforus;
        EXPECT_EQ(fake::receive(row.frame), intact ? LB_PACKETRC_INTACT : LB_PACKETRC_CONSUMED);
        EXPECT_EQ(fake::take_sent().size(), row.counter == nullptr ? 1U : 0U);
        const lb_proto_stats_t after = stats();
        EXPECT_EQ(after.fwd, before.fwd + (row.counter == nullptr ? 1 : 0));
        for (const stat each : {notforus, discard, err}) {
            EXPECT_EQ(after.*each, before.*each + (row.counter == each ? 1 : 0));
        }
    }
}

TEST_F(NatTest, NeedsAClientGateway)
{
    ASSERT_TRUE(segment(SYN, 40000));
    lbifin_setable_t ptp = stack::ethernet(1);
    ptp.isPTP = LBIFIN_YN_YES;
    ASSERT_ADDED(set_interface("eth0", ptp));
    (void)fake::take_sent();
    fake::receive(packets::build(answer(1025)));
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_FALSE(sent[0].has_eth);
    const auto refused = [this] {
        const lb_u64_t frees = fake::unheld_frees();
        const lb_u32_t err = stats().err;
        EXPECT_EQ(answered(answer(1025)), "");
        EXPECT_EQ(fake::unheld_frees(), frees + 1);
        EXPECT_EQ(stats().err, err + 1);
    };
    ASSERT_ADDED(rm_ifaddr("eth0", "10.0.0.1/24"));
    ASSERT_ADDED(rm_interface("eth0"));
    refused();
    ASSERT_ADDED(set_client_gateway(""));
    refused();
    EXPECT_EQ(fake::log_count("NAT return : no neigh to forward!"), 2);
}

TEST_F(NatTest, AConnectionKeepsItsPortUntilItGoes)
{
    const auto open = [](std::uint16_t sport) {
        EXPECT_TRUE(segment(SYN, sport));
        EXPECT_TRUE(segment(ACK, sport));
    };
    ASSERT_TRUE(segment(SYN, 40000)); // 1025 never opens
    open(40001);                      // 1026 is reset
    open(40002);                      // 1027 stays
    open(40003);                      // 1028 begins anew
    EXPECT_TRUE(segment(RST, 40001));
    EXPECT_TRUE(segment(FIN | ACK, 40003));
    EXPECT_TRUE(segment(SYN, 40003));
    EXPECT_TRUE(segment(ACK, 40003));
    wait_ms(31000);
    EXPECT_EQ(answered(answer(1025)), "") << "expired";
    EXPECT_EQ(answered(answer(1026)), "10.9.0.1:40001") << "its last words";
    wait_ms(91000);
    EXPECT_EQ(answered(answer(1026)), "") << "expired";
    EXPECT_EQ(answered(answer(1027)), "10.9.0.1:40002");
    EXPECT_EQ(answered(answer(1028)), "10.9.0.1:40003");
    EXPECT_EQ(busy(), 2);
    EXPECT_EQ(fake::log_count("CR not found in NAT return path Port: "), 2);
    // A recycled record has a port of its own.
    ASSERT_TRUE(segment(SYN, 40004));
    EXPECT_EQ(answered(answer(1029)), "10.9.0.1:40004");
    EXPECT_EQ(answered(answer(1026)), "");
    // Its server is drained, so the next packet resets the connection.
    ASSERT_ADDED(make_server(80, 12));
    ASSERT_ADDED(set_port(C, 80, [](lbport_setable_t &s) { s.reset = 1; }));
    ASSERT_ADDED(set_server(C, 80, server_ip(11), [](lbsrv_setable_t &s) { s.weight = 0; }));
    (void)segment(ACK, 40002);
    EXPECT_EQ(owner(1027), nullptr);
    ASSERT_TRUE(segment(SYN, 40005)) << "to a server without NAT";
    EXPECT_EQ(busy(), 2);
}

TEST_F(NatTest, TwoServersShareAReturnAddress)
{
    ASSERT_ADDED(make_natserver(12));
    lb_retaddr_obj_t *shared = retaddr();
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(shared->refcount, 2U);
    EXPECT_EQ(lbll_size(&lbexecutor->retaddrlist), 1);
    ASSERT_TRUE(segment(SYN, 40000));
    ASSERT_TRUE(segment(SYN, 40001));
    const bool firston11 = owner(1025)->server == natserver(11);
    const lb_u16_t gone = firston11 ? 1025 : 1026;
    const lb_u16_t stays = firston11 ? 1026 : 1025;
    const std::string staying = firston11 ? "10.9.0.1:40001" : "10.9.0.1:40000";
    ASSERT_ADDED(rm_server(C, 80, server_ip(11)));
    EXPECT_EQ(shared->refcount, 1U);
    EXPECT_EQ(answered(answer(gone)), "");
    EXPECT_EQ(answered(answer(stays, 12)), staying);
    tick(5);
    EXPECT_EQ(answered(answer(stays, 12)), staying) << "after the other has been freed";
    ASSERT_ADDED(rm_server(C, 80, server_ip(12)));
    EXPECT_EQ(retaddr(), nullptr);
    EXPECT_EQ(fake::receive(packets::build(answer(stays, 12))), LB_PACKETRC_INTACT);
    // Its servers may still be in use by who is inside the stack, so the next has its own object.
    ASSERT_ADDED(make_natserver(13));
    EXPECT_NE(retaddr(), shared);
    tick(5);
    ASSERT_TRUE(segment(SYN, 40002));
    EXPECT_EQ(answered(answer(1025, 13)), "10.9.0.1:40002");
}

TEST_F(NatTest, ExhaustedPortsRefuseNewConnectionsAlone)
{
    ASSERT_TRUE(segment(SYN, 40000));
    lbsel_cr_obj_t placeholder{};
    EXC_EphemeralPortTable *ept = &retaddr()->ept;
    std::fill(ept->ucBusyPorts + 1, std::end(ept->ucBusyPorts), &placeholder);
    EXPECT_FALSE(segment(SYN, 40001));
    EXPECT_EQ(drops(), "1 0");
    EXPECT_TRUE(fake::log_contains("Could not get nat port"));
    EXPECT_EQ(lbll_size(&natserver(11)->sel.preest), 1) << "no record is left";
    EXPECT_EQ(answered(answer(1025)), "10.9.0.1:40000");
    std::fill(ept->ucBusyPorts + 1, std::end(ept->ucBusyPorts), nullptr);
    EXPECT_TRUE(segment(SYN, 40001));
}

TEST_F(NatTest, AServerThatCannotBeMadeLeavesNothing)
{
    for (const lbsrv_addable_t &addable :
         {natted("", ROUTER), natted("0.0.0.0", ROUTER), natted(R, "")}) {
        EXPECT_EQ(make_natserver(12, addable), LBCMD_RC_FAILURE);
    }
    const struct {
        fake::op what;
        int last; // of how many that a new return address and a new router cost
    } faults[] = {{fake::op::alloc, 3}, {fake::op::mutex_init, 4}};
    for (const auto &fault : faults) {
        for (int n = 1; n <= fault.last; n++) {
            expect_leaves_nothing(fault.what, n, [this] {
                return make_natserver(12, natted("10.1.0.201", "10.1.0.253"));
            });
        }
    }
    EXPECT_EQ(retaddr()->refcount, 1U);
    EXPECT_EQ(lbll_size(&lbexecutor->retaddrlist), 1);
}

// A rule that uses the server makes its removal refuse: it goes when it is reaped.
TEST_F(NatTest, RefusedRemovalGivesUpTheReturnAddressWhenReaped)
{
    ASSERT_TRUE(segment(SYN, 40000));
    natserver(11)->getable.useservercount = 1;
    EXPECT_EQ(rm_server(C, 80, server_ip(11)), LBCMD_RC_FAILURE);
    EXPECT_EQ(answered(answer(1025)), "10.9.0.1:40000") << "in use as before";
    EXPECT_EQ(retaddr()->refcount, 1U);
    lbip_addr_t router = stack::ip(ROUTER);
    tick(3);
    EXPECT_EQ(retaddr(), nullptr);
    EXPECT_NE(lbneigh_lookup(&router), nullptr);
    tick(1);
    EXPECT_EQ(lbneigh_lookup(&router), nullptr);
}

// --- Both ways, whole and in fragments -----------------------------------------------------------

// What is behind the link headers, in an order of its own.
std::vector<bytes> sorted_ip(const std::vector<bytes> &frames)
{
    std::vector<bytes> out;
    for (const bytes &frame : frames) {
        out.emplace_back(frame.begin() + ETH, frame.end());
    }
    std::sort(out.begin(), out.end());
    return out;
}

TEST_F(NatTest, BothWaysInFragmentsOfAnyOrderOfEitherVersion)
{
    constexpr const char *C6 = "2001:db8::100", *SERVER6 = "2001:db8:2::11", *CLIENT6 = "fd00::9";
    constexpr const char *R6 = "2001:db8:1::200";
    ASSERT_ADDED(add_ifaddr("eth0", "2001:db8::1/64"));
    ASSERT_ADDED(add_ifaddr("eth1", "2001:db8:1::1/64"));
    ASSERT_ADDED(set_executor(
        [](lbexe_setable_t &set) { set.clientgateway_ipv6 = stack::ip("2001:db8::254"); }));
    ASSERT_ADDED(add_cluster(C6));
    ASSERT_ADDED(add_port(C6, 80, LBSEL_ALGORIGHM_CONNECTION, LBSEL_ALGORIGHM_CONNECTION));
    lbsrv_setable_t setable{};
    setable.weight = 1;
    ASSERT_ADDED(add_server(C6, 80, SERVER6, setable, natted(R6, "2001:db8:1::254")));
    fake::receive(packets::advertisement("2001:db8::254", 254));
    fake::receive(packets::advertisement("2001:db8:1::254", 0xFE));
    ASSERT_TRUE(segment(SYN, 40000));
    fake::receive(packets::build(packets::packet{.src = CLIENT6}));

    // Translation is no hop: what may go no further goes.
    const auto piece = [](const char *src, std::uint16_t sport, const char *dst,
                          std::uint16_t dport) {
        return packets::fragments(packets::build(packets::packet{.src = src,
                                                                 .dst = dst,
                                                                 .sport = sport,
                                                                 .dport = dport,
                                                                 .ttl = 1,
                                                                 .flags = ACK,
                                                                 .payload = 3001}),
                                  1500, 0xABCD1234);
    };
    const struct {
        const char *name;
        std::vector<bytes> received, sent;
    } rows[] = {
        {"a request", piece("10.9.0.1", 40000, C, 80), piece(R, 1025, "10.2.0.11", 80)},
        {"an answer", piece("10.2.0.11", 80, R, 1025), piece(C, 80, "10.9.0.1", 40000)},
        {"an IPv6 request", piece(CLIENT6, 40000, C6, 80), piece(R6, 1025, SERVER6, 80)},
        {"an IPv6 answer", piece(SERVER6, 80, R6, 1025), piece(C6, 80, CLIENT6, 40000)},
    };
    for (const auto &row : rows) {
        auto frames = row.received;
        ASSERT_EQ(frames.size(), 3U);
        for (const char *order : {" in order", " backwards"}) {
            SCOPED_TRACE(std::string(row.name) + order);
            (void)fake::take_sent();
            for (const bytes &frame : frames) {
                (void)fake::receive(frame);
            }
            std::vector<bytes> sent;
            for (const auto &each : fake::take_sent()) {
                sent.push_back(each.bytes);
            }
            EXPECT_EQ(sorted_ip(sent), sorted_ip(row.sent));
            tick(5); // forgets the fragments
            std::reverse(frames.begin(), frames.end());
        }
    }
    EXPECT_EQ(fake::held_frames(), 0);
}

TEST_F(NatTest, WithoutARecordTcpStaysAndUdpGoesAsItCame)
{
    ASSERT_ADDED(make_port(443, LBSEL_ALGORIGHM_HASH));
    lbsrv_setable_t setable{};
    setable.weight = 1;
    ASSERT_ADDED(add_server(C, 443, server_ip(11), setable, natted()));
    const lb_u32_t err = stats().err;
    EXPECT_TRUE(frame_for(packets::build(packets::packet{.dport = 443})).empty());
    EXPECT_EQ(stats().err, err + 1);
    const bytes datagram = packets::build(packets::packet{.dport = 443, .proto = packets::UDP});
    EXPECT_EQ(sorted_ip({frame_for(datagram)}), sorted_ip({datagram}));
}

TEST_F(NatTest, TheClientIsToldThatItsOwnPacketIsTooLong)
{
    ASSERT_TRUE(segment(SYN, 40000));
    ASSERT_ADDED(set_interface("eth1", stack::ethernet(2, 576)));
    const bytes frame = packets::build(
        packets::packet{.src = "10.9.0.1", .dst = C, .sport = 40000, .flags = ACK, .payload = 600});
    fake::receive(frame);
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].protocol, 1);
    EXPECT_TRUE(std::equal(sent[0].bytes.begin() + 8, sent[0].bytes.end(), frame.begin() + ETH));
}

} // namespace
