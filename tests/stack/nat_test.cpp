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
    const bytes frame = packets::build(answer(1026));
    for (const auto &sent : {sent_for(frame), sent_for(packets::part(frame, ETH, frame.size()),
                                                       fake::link::slip)}) { // gets a link header
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(sent[0].ifname, "eth0");
        packets::packet expected = answer(40001);
        expected.src = C;
        expected.dst = "10.9.0.2";
        expected.ethdst = packets::mac_of(254);
        expected.ethsrc = packets::mac_of(1);
        EXPECT_EQ(sent[0].bytes, packets::build(expected)) << "the TTL as it was";
    }
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
    constexpr const char *SENT = "in fwd", *NOTFORUS = "in notforus", *DISCARD = "in discard",
                         *ERROR = "in err";
    const struct {
        const char *name;
        bytes frame;
        const char *counted;
    } rows[] = {
        {"an answer", with(1025, packets::TCP), SENT},
        {"first fragment", with(1025, packets::TCP, 0x2000), SENT},
        {"later fragment", with(1025, packets::TCP, 0x2004), SENT},
        {"nobody's port", with(1026, packets::TCP), DISCARD},
        {"the last port", with(65535, packets::TCP), DISCARD},
        {"a port that is never handed out", with(1024, packets::TCP), NOTFORUS},
        {"UDP", with(1025, packets::UDP), NOTFORUS},
        {"fragment of UDP", with(1025, packets::UDP, 4), NOTFORUS},
        {"no ports", cut(23, true), NOTFORUS},
        {"no whole TCP header", cut(39, true), ERROR},
        {"nor in a first fragment", cut(39, true, 0x2000), ERROR},
        {"longer than what came", cut(46, false), ERROR},
        {"fragment longer than what came", cut(46, false, 4), ERROR},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const lb_proto_stats_t before = stats();
        const lb_u64_t frees = fake::unheld_frees();
        const bool intact = row.counted == NOTFORUS;
        EXPECT_EQ(fake::receive(row.frame), intact ? LB_PACKETRC_INTACT : LB_PACKETRC_CONSUMED);
        EXPECT_EQ(fake::unheld_frees(), frees + (intact ? 0 : 1));
        EXPECT_EQ(fake::take_sent().size(), row.counted == SENT ? 1U : 0U);
        EXPECT_EQ(stack::counted(before, stats()), row.counted);
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

// What is behind the link headers of what is sent for these, in an order of its own.
std::vector<bytes> sorted_ip(const std::vector<bytes> &frames)
{
    std::vector<bytes> out;
    for (const bytes &frame : frames) {
        out.emplace_back(frame.begin() + ETH, frame.end());
    }
    std::sort(out.begin(), out.end());
    return out;
}
std::vector<bytes> sent_for_all(const std::vector<bytes> &frames)
{
    (void)fake::take_sent();
    std::vector<bytes> sent;
    for (const bytes &frame : frames) {
        (void)fake::receive(frame);
    }
    for (const auto &each : fake::take_sent()) {
        sent.push_back(each.bytes);
    }
    return sorted_ip(sent);
}

TEST_F(NatTest, BothWaysWholeAndInFragmentsOfAnyOrderOfEitherVersion)
{
    constexpr const char *SERVER6 = "2001:db8:2::11", *CLIENT6 = "fd00::9";
    constexpr const char *R6 = "2001:db8:1::200", *ROUTER6 = "2001:db8:1::254";
    add_ipv6();
    ASSERT_ADDED(add_ifaddr("eth1", "2001:db8:1::1/64"));
    ASSERT_ADDED(add_natserver(C6, SERVER6, natted(R6, ROUTER6)));
    meet(ROUTER6, 0xFE);
    ASSERT_TRUE(segment(SYN, 40000));
    ASSERT_FALSE(frame_for(packets::build(packets::packet{.src = CLIENT6})).empty());

    struct ends {
        const char *src;
        std::uint16_t sport;
        const char *dst;
        std::uint16_t dport;
        // Translation is no hop: what may go no further goes.
        [[nodiscard]] bytes packet(std::size_t payload, std::vector<packets::ext> exts = {}) const
        {
            return packets::build(packets::packet{.src = src,
                                                  .dst = dst,
                                                  .sport = sport,
                                                  .dport = dport,
                                                  .ttl = 1,
                                                  .flags = ACK,
                                                  .exts = std::move(exts),
                                                  .payload = payload});
        }
    };
    const struct {
        const char *name;
        ends received, sent;
        std::uint8_t to;
    } rows[] = {
        {"a request", {"10.9.0.1", 40000, C, 80}, {R, 1025, "10.2.0.11", 80}, 0xFE},
        {"an answer", {"10.2.0.11", 80, R, 1025}, {C, 80, "10.9.0.1", 40000}, 254},
        {"an IPv6 request", {CLIENT6, 40000, C6, 80}, {R6, 1025, SERVER6, 80}, 0xFE},
        {"an IPv6 answer", {SERVER6, 80, R6, 1025}, {C6, 80, CLIENT6, 40000}, 254},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        for (const std::vector<packets::ext> &exts : {std::vector<packets::ext>{},
                                                      {packets::padding(packets::HOPOPTS)},
                                                      {packets::fragment(5, 0)}}) {
            for (const std::size_t payload : {0, 1, 700}) {
                const bytes sent = frame_for(row.received.packet(payload, exts));
                ASSERT_FALSE(sent.empty());
                EXPECT_EQ(sorted_ip({sent}), sorted_ip({row.sent.packet(payload, exts)}));
                EXPECT_EQ(packets::mac_at(sent, 0), packets::mac_of(row.to));
            }
        }
        auto frames = packets::fragments(row.received.packet(3001), 1500, 0xABCD1234);
        const auto expected = packets::fragments(row.sent.packet(3001), 1500, 0xABCD1234);
        ASSERT_EQ(frames.size(), 3U);
        for (const char *order : {"in order", "backwards"}) {
            EXPECT_EQ(sent_for_all(frames), sorted_ip(expected)) << order;
            tick(5); // forgets the fragments
            std::reverse(frames.begin(), frames.end());
        }
    }
    const bytes answer6 = rows[3].received.packet(700, {packets::fragment(5, 0)});
    for (const int lie : {0, 7, 8 + 19, 8 + 20 + 700 + 1}) { // no TCP header; more than came
        EXPECT_TRUE(
            frame_for(packets::with16(answer6, ETH + 4, static_cast<lb_u16_t>(lie))).empty());
    }
    EXPECT_EQ(get_executor().getable.ipv6stats.err, 4U);
    EXPECT_EQ(fake::held_frames(), 0);
}

// A record of affinity is not taken for a connection's.
TEST_F(NatTest, WithoutAConnectionTcpStaysAndUdpGoesAsItCame)
{
    for (const lb_u8_t algorithm : {LBSEL_ALGORIGHM_HASH, LBSEL_ALGORIGHM_AFFINITY}) {
        ASSERT_ADDED(make_port(443, algorithm));
        ASSERT_ADDED(add_natserver(C, server_ip(11), natted(), 443));
        EXPECT_EQ(set_server(C, 443, server_ip(11), [](auto &s) { s.stickyflag = 1; }),
                  LBCMD_RC_SUCCESS);
        const lb_u32_t err = stats().err;
        EXPECT_TRUE(frame_for(packets::build(packets::packet{.dport = 443})).empty());
        EXPECT_EQ(stats().err, err + 1);
        const bytes datagram = packets::build(packets::packet{.dport = 443, .proto = packets::UDP});
        EXPECT_EQ(sorted_ip({frame_for(datagram)}), sorted_ip({datagram}));
        EXPECT_EQ(rm_server(C, 443, server_ip(11)), LBCMD_RC_SUCCESS);
        EXPECT_EQ(rm_port(C, 443), LBCMD_RC_SUCCESS);
    }
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
