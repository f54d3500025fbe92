// A node of a pair on the wire: its heartbeats byte by byte, what it says and what it keeps silent
// about, and records on their way from one node to the other.
#include <algorithm>

#include "ha_fixture.h"

namespace
{

using packets::bytes;

class HaStackTest : public HaFixture
{
  protected:
    static constexpr const char *C6 = "2001:db8::100";

    void SetUp() override
    {
        HaFixture::SetUp();
        ASSERT_ADDED(set_port(C, 80, [](lbport_setable_t &set) {
            set.repstrategy = LBHA_REPLICATIONSTRATEGY_CRREP;
        }));
        ASSERT_ADDED(make_server(80, 11));
    }

    // An IPv6 partner, and a cluster with a server.
    void add_ipv6()
    {
        ASSERT_ADDED(add_ifaddr("eth0", "2001:db8::1/64"));
        ASSERT_ADDED(add_heartbeat("2001:db8::1", "2001:db8::2"));
        ASSERT_ADDED(add_cluster(C6));
        ASSERT_ADDED(add_port(C6, 80, LBSEL_ALGORIGHM_CONNECTION));
        ASSERT_ADDED(set_port(C6, 80, [](lbport_setable_t &set) {
            set.repstrategy = LBHA_REPLICATIONSTRATEGY_CRREP;
        }));
        ASSERT_ADDED(add_server(C6, 80, "2001:db8::11"));
        fake::receive(packets::advertisement("2001:db8::2", 2));
        fake::receive(packets::advertisement("2001:db8::11", 0x11));
        (void)fake::take_sent();
    }
    // The same heartbeat in an IPv6 packet.
    static bytes over_ipv6(const beat &b, const std::string &src, const std::string &dst)
    {
        const bytes like = build(b);
        bytes frame = packets::build(packets::packet{.src = src,
                                                     .dst = dst,
                                                     .sport = PORT,
                                                     .dport = PORT,
                                                     .proto = packets::UDP,
                                                     .ttl = 1,
                                                     .payload = like.size() - HDR,
                                                     .ethdst = packets::mac_of(2),
                                                     .ethsrc = packets::mac_of(1)});
        std::copy(like.begin() + HDR, like.end(), frame.begin() + packets::IP6 + 8);
        packets::mend_transport(frame);
        return frame;
    }
    static int numrecs(const bytes &frame) { return frame.at(HDR + 7); }
    static lb_u16_t sport(const bytes &frame, int index)
    {
        return packets::get16(frame, RECS + static_cast<std::size_t>(index) * RECLEN + 80);
    }
    static void enqueue(int count)
    {
        lbcmd_key_t key = stack::cfgkey(C, 80, "10.0.0.11");
        lbip_addr_t client = stack::ip("10.9.0.1");
        for (int i = 1; i <= count; i++) {
            EXPECT_EQ(lbha_replication_enqueue(&key.cfg, &client, static_cast<lb_u16_t>(i), 2, 0),
                      LBHA_REPENQ_SUCCESS);
        }
    }
    // Who is announced by gratuitous ARP in what was sent since the last look.
    static std::string announced()
    {
        std::string out;
        for (const fake::sent_frame &sent : fake::take_sent()) {
            packets::arp arp;
            if (packets::parse(sent.bytes, arp) && arp.srcip == arp.tgtip) {
                out += arp.srcip + " ";
            }
        }
        return out;
    }
    int ask_for(const std::string &ip)
    {
        return fake::receive(packets::build(packets::arp{.tgtip = ip}));
    }
};

TEST_F(HaStackTest, HeartbeatOverIPv4)
{
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    lb_poke(lbexecutor->setable.ha.reachscore, 7);
    hear(beat{.state = LBHA_STATE_ACTIVE, .score = 9, .seq = {0x01020304, 0x0A0B0C}});
    // 82 bytes: Ethernet, IPv4, UDP, the header.
    bytes want = {2,    0,    0,    0,    0, 2,  2,  0, 0, 0,  0, 1,    8,    0,    0x45, 0, 0,
                  68,   0,    1,    0,    0, 1,  17, 0, 0, 10, 0, 0,    1,    10,   0,    0, 2,
                  0x30, 0x39, 0x30, 0x39, 0, 48, 0,  0, 8, 5,  5, 0x0B, 2,    7,    1,    0, 0,
                  0,    0,    0,    0,    0, 0,  0,  1, 2, 3,  4, 0,    0x0A, 0x0B, 0x0C, 0, 0,
                  0,    0,    0,    0,    0, 0,  0,  0, 0, 0,  0, 0,    0,    0};
    for (int n = 1; n <= 3; n++) {
        SCOPED_TRACE(n);
        const auto frames = beats_of_a_tick();
        ASSERT_EQ(frames.size(), 1U);
        packets::put16(want, 18, static_cast<std::uint16_t>(n));
        put_time(want, HDR + 8, fake::now());
        packets::mend_ip(want);
        packets::mend_transport(want);
        EXPECT_EQ(frames[0], want);
    }
    lbifin_setable_t bare = stack::ethernet(1);
    bare.arp = LBIFIN_YN_NO;
    ASSERT_ADDED(set_interface("eth0", bare));
    (void)fake::take_sent();
    tick_once();
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_FALSE(sent[0].has_eth);
    EXPECT_EQ(sent[0].bytes.size(), 68U);
}

TEST_F(HaStackTest, HeartbeatOverIPv6IsBareWhateverIsQueued)
{
    add_ipv6();
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    enqueue(3);
    const auto frames = beats_of_a_tick();
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[0].size(), RECS + 3 * RECLEN);
    EXPECT_EQ(numrecs(frames[0]), 3);
    EXPECT_EQ(frames[1], over_ipv6({.seq = fake::now()}, "2001:db8::1", "2001:db8::2"));
    // RFC 8200, 8.1: a sum of 0 is sent as all ones.
    lb_poke(lbexecutor->ha.partnerack,
            lb_timeval_t{0, packets::get16(frames[1], packets::IP6 + 6)});
    _lbha_sendheartbeats();
    EXPECT_EQ(packets::get16(beats().at(1), packets::IP6 + 6), 0xFFFF);
}

TEST_F(HaStackTest, Ipv6ClustersArePairedLikeOthers)
{
    add_ipv6();
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    const auto ask = [] { return fake::receive(packets::build(packets::neighbour{})); };
    EXPECT_EQ(ask(), LB_PACKETRC_INTACT);
    EXPECT_TRUE(fake::take_sent().empty());
    const record known6 = {
        .sport = 5, .server = "2001:db8::11", .client = "2001:db8::50", .cluster = C6};
    record mixed = known6;
    mixed.client = "10.9.0.1"; // no packet to the cluster has such a client
    const beat b = {.seq = {77, 0}, .records = {mixed, known6}};
    // Who sends records over IPv6 is believed, too.
    EXPECT_EQ(fake::receive(over_ipv6(b, "2001:db8::2", "2001:db8::1")), LB_PACKETRC_CONSUMED);
    EXPECT_EQ(lbexecutor->ha.partnerack.secs, 77);
    EXPECT_EQ(known(5, "2001:db8::50", C6), "17 2 0");
    EXPECT_EQ(known(5, "10.9.0.1", C6), "");
    ASSERT_ADDED(take_over());
    bool heard = false;
    for (const fake::sent_frame &sent : fake::take_sent()) {
        heard =
            heard || (sent.ipver == 6 && sent.bytes.at(packets::IP6) == packets::ADVERTISEMENT &&
                      packets::ip6_at(sent.bytes, packets::IP6 + 8) == C6);
    }
    EXPECT_TRUE(heard);
    EXPECT_EQ(ask(), LB_PACKETRC_CONSUMED);
    (void)fake::take_sent();
    fake::receive(packets::build(packets::packet{.version = 6, .sport = 5, .flags = FIN | ACK}));
    EXPECT_EQ(packets::mac_at(fake::take_sent().at(0).bytes, 0), packets::mac_of(0x11));
    const auto frames = beats_of_a_tick(); // and the end of the connection goes back
    ASSERT_EQ(numrecs(frames.at(0)), 1);
    bytes want = build(beat{.records = {known6}});
    want[RECS + 82] = LBSEL_CR_STATE_FIN;
    EXPECT_TRUE(std::equal(want.begin() + RECS, want.end(), frames[0].begin() + RECS));
}

TEST_F(HaStackTest, PayloadFollowsTheSmallestMtu)
{
    ASSERT_ADDED(add_heartbeat("10.1.0.1", "10.1.0.2"));
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    set_executor_log_mask(LB_LOG_EVENT | LB_LOG_FAILURE);
    const struct {
        lb_u32_t sys, lb; // eth0; eth1 has 1500
        lb_u32_t want;
    } rows[] = {{1500, 1500, 14}, {9000, 0, 14}, {1280, 1280, 12}, {1500, 1280, 12},
                {1280, 0, 12},    {198, 0, 1},   {101, 0, 1},      {0, 0, 1}};
    for (const auto &row : rows) {
        lbifin_setable_t setable = stack::ethernet(1, row.sys);
        setable.mtu_lb = row.lb;
        ASSERT_ADDED(set_interface("eth0", setable));
        tick_once();
        EXPECT_EQ(lbexecutor->ha.maxhbpayload, row.want) << row.sys << " " << row.lb;
    }
    EXPECT_FALSE(fake::log_contains("minmtu > 1500"));
    ASSERT_ADDED(rm(LBCMD_KEYTYPE_CONFIG, stack::cfgkey("10.1.0.1", 0, "10.1.0.2")));
    ASSERT_ADDED(set_interface("eth0", stack::ethernet(1, 9000)));
    tick_once();
    EXPECT_EQ(lbexecutor->ha.maxhbpayload, 14U);
    EXPECT_EQ(fake::log_count("sendheartbeats: minmtu > 1500! re-setting to 1500, for now\n"), 1);
}

TEST_F(HaStackTest, HeartbeatObjectTellsOfItsNeighbour)
{
    using heartbeat_view = stack::view<stack::none, lbha_hb_setable_t, lbha_hb_getable_t>;
    const lbcmd_key_t key = stack::cfgkey(OWN, 0, PARTNER);
    EXPECT_EQ(get<heartbeat_view>(key).getable.neighstate, LBNEIGH_STATE_RXOK);
    const lbcmd_key_t away = stack::cfgkey(OWN, 0, "172.16.0.1");
    ASSERT_ADDED(add_heartbeat(OWN, "172.16.0.1"));
    EXPECT_NE(get<heartbeat_view>(away).getable.neighstate & LBNEIGH_STATEMOD_NOIFACE, 0);
    EXPECT_EQ(add_heartbeat(OWN, "fd00::2"), LBCMD_RC_FAILURE);
    const lbip_addr_t addr = stack::ip("172.16.0.1");
    EXPECT_NE(lbneigh_lookup(&addr), nullptr);
    EXPECT_EQ(rm(LBCMD_KEYTYPE_CONFIG, away), LBCMD_RC_SUCCESS);
    EXPECT_EQ(lbneigh_lookup(&addr), nullptr);
    EXPECT_EQ(get<heartbeat_view>(away).rc, LBCMD_RC_OBJNOTFOUND);
}

TEST_F(HaStackTest, OnlyHeartbeatsAreTakenAsSuch)
{
    const auto with = [](packets::packet ip) {
        ip.proto = ip.proto == packets::TCP ? packets::UDP : ip.proto;
        return build(beat{.seq = {77, 0}, .ip = ip});
    };
    const auto cut = [&](std::size_t received, std::uint16_t total) {
        bytes frame = packets::cut(with({.src = PARTNER, .dst = OWN, .sport = PORT, .dport = PORT}),
                                   received);
        packets::put16(frame, packets::ETH + 2, total);
        packets::mend_ip(frame);
        return frame;
    };
    bytes optioned = cut(68, 76);
    optioned.insert(optioned.begin() + packets::ETH + 20, 8, 1); // no operation
    optioned[packets::ETH] = 0x47;
    packets::mend_ip(optioned);
    bytes padded = cut(68, 68);
    padded.resize(padded.size() + 100);
    enum verdict { TAKEN, SHORT, NOTFORUS, DROPPED };
    const struct {
        const char *name;
        bytes frame;
        verdict want;
    } rows[] = {
        {"a heartbeat", cut(68, 68), TAKEN},
        {"from anyone to anyone",
         with({.src = "1.2.3.4", .dst = "5.6.7.8", .sport = PORT, .dport = PORT}), TAKEN},
        {"with IP options", optioned, TAKEN},
        {"padding behind it", padded, TAKEN},
        {"39 bytes", cut(67, 67), SHORT},
        {"39 bytes, says the total length", cut(68, 67), SHORT},
        {"39 bytes came", cut(67, 68), SHORT},
        {"ports alone", cut(24, 24), SHORT},
        {"no total length", cut(68, 0), SHORT},
        {"half of the ports", cut(23, 23), NOTFORUS},
        {"another source port", with({.dst = OWN, .sport = PORT - 1, .dport = PORT}), NOTFORUS},
        {"another destination port", with({.dst = OWN, .sport = PORT, .dport = 1}), NOTFORUS},
        {"a later fragment", with({.dst = OWN, .sport = PORT, .dport = PORT, .fragoff = 3}),
         NOTFORUS},
        {"another protocol", with({.dst = OWN, .sport = PORT, .dport = PORT, .proto = 132}),
         NOTFORUS},
        {"to a cluster", with({.dst = C, .sport = PORT, .dport = PORT}), DROPPED},
    };
    for (const lb_u8_t role : {LBHA_ROLE_BACKUP, LBHA_ROLE_SOLO}) {
        ASSERT_ADDED(pair(role));
        for (const auto &row : rows) {
            SCOPED_TRACE(std::string(row.name) + (role == LBHA_ROLE_SOLO ? ", alone" : ""));
            set_executor_log_mask(LB_LOG_EVENT | LB_LOG_FAILURE);
            fake::log_clear();
            lb_poke(lbexecutor->ha.partnerack, lb_timeval_t{});
            const lb_proto_stats_t before = get_executor().getable.ipv4stats;
            const bool alone = role == LBHA_ROLE_SOLO && row.want != DROPPED;
            const verdict want = alone ? NOTFORUS : row.want;
            EXPECT_EQ(fake::receive(row.frame),
                      want == NOTFORUS ? LB_PACKETRC_INTACT : LB_PACKETRC_CONSUMED);
            const lb_proto_stats_t after = get_executor().getable.ipv4stats;
            EXPECT_EQ(after.gen - before.gen, want == TAKEN || want == SHORT ? 1U : 0U);
            EXPECT_EQ(after.notforus - before.notforus, want == NOTFORUS ? 1U : 0U);
            EXPECT_EQ(after.discard - before.discard, want == DROPPED ? 1U : 0U);
            EXPECT_EQ(lbexecutor->ha.partnerack.secs, want == TAKEN ? 77 : 0);
            EXPECT_EQ(fake::log_contains("packet too short\n"), want == SHORT);
        }
    }
}

TEST_F(HaStackTest, StandbyIsSilentAndTheOneThatTakesOverIsHeard)
{
    ASSERT_ADDED(make_natserver(12));
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    (void)fake::take_sent();
    EXPECT_EQ(ask_for(C), LB_PACKETRC_INTACT);
    EXPECT_EQ(ask_for(R), LB_PACKETRC_INTACT);
    ASSERT_ADDED(add_cluster("10.0.0.101"));
    EXPECT_TRUE(fake::take_sent().empty());
    EXPECT_EQ(tcp(SYN), 11); // what reaches it goes on
    (void)fake::take_sent();
    for (int time = 0; time < 2; time++) { // an active one that is told to says it again
        ASSERT_ADDED(take_over());
        const auto sent = fake::sent();
        ASSERT_EQ(sent.size(), 4U);
        EXPECT_EQ(sent[0].bytes.at(HDR + 4), LBHA_STATE_ACTIVE); // before all others
        EXPECT_EQ(announced(), "10.0.0.100 10.1.0.200 10.0.0.101 ");
    }
    EXPECT_EQ(ask_for(C), LB_PACKETRC_CONSUMED);
    EXPECT_EQ(ask_for(R), LB_PACKETRC_CONSUMED);
    EXPECT_EQ(fake::take_sent().size(), 2U);
    hear(beat{.state = LBHA_STATE_ACTIVE});
    EXPECT_EQ(state(), LBHA_STATE_STANDBY);
    EXPECT_EQ(ask_for(C), LB_PACKETRC_INTACT);
    EXPECT_TRUE(fake::take_sent().empty());
}

// --- The queue -----------------------------------------------------------------------------------

TEST_F(HaStackTest, FifteenthRecordOpensASecondPacket)
{
    ASSERT_ADDED(add_heartbeat("10.1.0.1", "10.1.0.2"));
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    enqueue(15);
    const auto frames = beats_of_a_tick();
    ASSERT_EQ(frames.size(), 4U); // each packet to both partners
    for (std::size_t i = 0; i < frames.size(); i++) {
        EXPECT_EQ(numrecs(frames[i]), i < 2 ? 14 : 1);
        EXPECT_EQ(sport(frames[i], 0), i < 2 ? 1 : 15);
        EXPECT_EQ(packets::transport_residue(frames[i]), 0);
        EXPECT_EQ(packets::checksum(frames[i], packets::ETH, packets::ETH + 20), 0);
    }
    const auto blocks = fake::live_allocations();
    for (int i = 0; i < 3; i++) { // what is queued leaves, and so does its memory
        enqueue(i % 2 == 0 ? 28 : 15);
        EXPECT_EQ(beats_of_a_tick().size(), 4U);
    }
    EXPECT_EQ(lbll_size(&lbexecutor->ha.reppktq), 0);
    EXPECT_EQ(fake::live_allocations(), blocks);
    EXPECT_EQ(sport(frames[0], 13), 14);
    EXPECT_EQ(frames[0].size(), RECS + 14 * RECLEN);
    EXPECT_EQ(beats_of_a_tick().size(), 2U); // bare ones
    lb_poke(lbexecutor->ha.maxhbpayload, 2); // as a smaller MTU would have it
    enqueue(3);
    EXPECT_EQ(lbll_size(&lbexecutor->ha.reppktq), 2);
    fake::fail(fake::op::alloc, 1);
    lbcmd_key_t key = stack::cfgkey(C, 80, "10.0.0.11");
    EXPECT_EQ(lbha_replication_enqueue(&key.cfg, &key.cfg.server, 1, 2, 0), LBHA_REPENQ_SUCCESS);
    EXPECT_EQ(lbha_replication_enqueue(&key.cfg, &key.cfg.server, 1, 2, 0), LBHA_REPENQ_FAILURE);
    _lbha_ll_repq_print(lbll_getnode_lhs(&lbexecutor->ha.reppktq));
    os_print("\n");
    EXPECT_TRUE(fake::log_contains(" has 2 records\n"));
    EXPECT_TRUE(fake::log_contains("  reprec 10.9.0.1[3]->10.0.0.100[80]->10.0.0.11 exp 0 state "
                                   "2\n"));
}

TEST_F(HaStackTest, QueueWaitsForAnInterface)
{
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    ASSERT_ADDED(rm_ifaddr("eth0", "10.0.0.1/24"));
    ASSERT_ADDED(rm_interface("eth0"));
    set_executor_log_mask(LB_LOG_EVENT | LB_LOG_FAILURE);
    enqueue(20);
    for (int i = 0; i < 4; i++) {
        EXPECT_TRUE(beats_of_a_tick().empty());
    }
    EXPECT_EQ(fake::log_count("sendheartbeats: no nics\n"), 4);
    EXPECT_EQ(lbll_size(&lbexecutor->ha.reppktq), 2);
    ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
    ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
    std::vector<bytes> frames;
    for (int i = 0; i < 4 && frames.empty(); i++) {
        frames = beats_of_a_tick();
    }
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(numrecs(frames[0]) + numrecs(frames[1]), 20);
    enqueue(1);
    ASSERT_ADDED(pair(LBHA_ROLE_SOLO));
    EXPECT_EQ(lbll_size(&lbexecutor->ha.reppktq), 0); // nobody would take it any more
}

// --- Records that came ---------------------------------------------------------------------------

TEST_F(HaStackTest, PartnersStateDecides)
{
    const char *const CORE = "core";
    const struct {
        const char *name;
        std::vector<std::uint8_t> segments; // that make our own state
        const char *want[5];                // for ACTIVE, FIN, RST, PREEST, and no state
    } rows[] = {
        {"none", {}, {"11 2 0", "", "", "", ""}},
        {"pre-established", {SYN}, {CORE, CORE, CORE, CORE, CORE}},
        {"active", {SYN, ACK}, {"11 2 0", "11 3 0", "", CORE, CORE}},
        {"fin", {SYN, ACK, FIN}, {"", "", "", "", ""}},
        {"reset", {SYN, RST}, {CORE, CORE, CORE, CORE, CORE}},
    };
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    fake::core_expected(true);
    lb_u16_t sport = 1000;
    for (const auto &row : rows) {
        const lb_u8_t received[] = {2, 3, 4, 1, 9};
        for (int i = 0; i < 5; i++) {
            SCOPED_TRACE(std::string(row.name) + " hears " + std::to_string(received[i]));
            sport++;
            for (const std::uint8_t flags : row.segments) {
                ASSERT_EQ(tcp(flags, sport), 11);
            }
            const std::string before = known(sport);
            fake::advance_s(1);
            const int cores = fake::core_calls();
            const auto other = static_cast<lb_u16_t>(sport + 10000);
            hear(beat{.records = {{.sport = sport, .state = received[i]}, {.sport = other}}});
            const bool core = row.want[i] == CORE;
            EXPECT_EQ(fake::core_calls() - cores, core ? 1 : 0);
            EXPECT_EQ(known(sport), core ? before : row.want[i]);
            EXPECT_EQ(known(other), "11 2 0"); // whatever became of the first
            if (!known(sport).empty()) {
                EXPECT_EQ(connection(sport)->timestamp.secs, fake::now().secs);
                EXPECT_EQ(connection(sport)->reptimestamp.secs, fake::now().secs);
            }
        }
    }
    EXPECT_TRUE(fake::log_contains("invalid connection state\n"));
}

TEST_F(HaStackTest, NatPortsFollowTheRecords)
{
    ASSERT_ADDED(make_natserver(12));
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    const auto says = [](lb_u16_t sport, lb_u16_t natport, lb_u8_t state = 2) {
        hear(record{.sport = sport, .server = server_ip(12), .state = state, .natport = natport});
        return known(sport);
    };
    EXPECT_EQ(says(1, 2000), "12 2 2000");
    EXPECT_EQ(owner(2000), connection(1));
    EXPECT_EQ(retaddr()->ept.usNextPort, 2000 - 1024);
    EXPECT_EQ(says(1, 3000), "12 2 3000"); // another port: the old one is free
    EXPECT_EQ(owner(2000), nullptr);
    EXPECT_EQ(says(2, 1024), "12 2 0"); // none to claim
    EXPECT_EQ(says(2, 1024), "12 2 1024");
    EXPECT_EQ(says(2, 0), "12 2 0");
    EXPECT_EQ(says(3, 65535), "12 2 65535");
    EXPECT_EQ(owner(65535), connection(3));
    EXPECT_EQ(retaddr()->ept.usNextPort, 0); // behind the last one comes the first
    EXPECT_EQ(says(3, 65535, 3), "12 3 65535");
    EXPECT_EQ(says(3, 65535, 3), ""); // the second FIN
    EXPECT_EQ(owner(65535), nullptr);
    EXPECT_EQ(says(4, 3000), "12 2 3000"); // who comes last has it,
    EXPECT_EQ(owner(3000), connection(4));
    EXPECT_EQ(says(1, 0, 4), ""); // and who had it does not take it along
    EXPECT_EQ(owner(3000), connection(4));
    EXPECT_EQ(answered(answer(3000, 12)), "10.9.0.1:4");
    EXPECT_EQ(says(4, 0, 4), "");
    EXPECT_EQ(EXC_EPTCountPorts(&retaddr()->ept), 0);
    // A server of another kind has none.
    hear(record{.sport = 5, .natport = 4000});
    EXPECT_EQ(known(5), "11 2 0");
}

// A client's port may have begun another connection since the partner was last heard.
TEST_F(HaStackTest, AnotherServerIsBelievedByTheStandbyOnly)
{
    ASSERT_ADDED(make_natserver(12));
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    hear(record{.sport = 1, .server = server_ip(12), .natport = 2000});
    hear(record{.sport = 1});
    EXPECT_EQ(known(1), "11 2 0");
    EXPECT_EQ(owner(2000), nullptr);
    hear(record{.sport = 1, .server = server_ip(12), .state = 4});
    EXPECT_EQ(known(1), "");
    hear(record{.sport = 1});
    lb_poke(server_object(11)->sel.removed, 1); // it goes: nothing new
    hear(record{.sport = 2});
    EXPECT_EQ(known(2), "");
    lb_poke(server_object(11)->sel.removed, 0);
    ASSERT_ADDED(take_over());
    hear(record{.sport = 1, .server = server_ip(12), .natport = 2000});
    EXPECT_EQ(known(1), "11 2 0");
    EXPECT_EQ(owner(2000), nullptr);
}

TEST_F(HaStackTest, AffinityFollowsTheRecords)
{
    ASSERT_ADDED(make_port(443, LBSEL_ALGORIGHM_AFFINITY));
    ASSERT_ADDED(make_port(8443, LBSEL_ALGORIGHM_AFFINITY, 443));
    for (const lb_u16_t port : {lb_u16_t{443}, lb_u16_t{8443}}) {
        ASSERT_ADDED(make_server(port, 21));
        ASSERT_ADDED(make_server(port, 22));
    }
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    const auto clients = [](int last, lb_u16_t port) {
        return lbll_size(&server_object(last, port)->sel.arlist);
    };
    const auto asks = [](lb_u16_t port) { return tcp(SYN, 40000, "10.9.0.1", port); };
    hear(record{.server = address(22), .port = 443});
    EXPECT_EQ(clients(22, 443), 1);
    EXPECT_EQ(asks(443), 22);
    lb_poke(server_object(21, 443)->sel.removed, 1); // it goes: nothing new
    hear(record{.server = address(21), .client = "10.9.0.2", .port = 443});
    EXPECT_EQ(clients(21, 443), 0);
    lb_poke(server_object(21, 443)->sel.removed, 0);
    hear(record{.server = address(22), .port = 443}); // again
    EXPECT_EQ(clients(22, 443), 1);
    hear(record{.server = address(21), .port = 8443}); // moves, and the other port sees it
    EXPECT_EQ(clients(22, 443) + clients(21, 443) + clients(22, 8443), 0);
    EXPECT_EQ(clients(21, 8443), 1);
    EXPECT_EQ(asks(8443), 21);
    EXPECT_EQ(asks(443), 21);
    fake::fail(fake::op::alloc, 1);
    hear(record{.server = address(21)}); // no affinity on port 80
    EXPECT_TRUE(fake::fail_pending(fake::op::alloc));
}

// --- From node to node ---------------------------------------------------------------------------

TEST_F(HaStackTest, SessionsLiveOnAtThePartner)
{
    const auto configure = [this] {
        ASSERT_ADDED(make_natserver(12));
        lbport_setable_t both{};
        both.repstrategy = LBHA_REPLICATIONSTRATEGY_CRARREP;
        ASSERT_ADDED(make_port(443, LBSEL_ALGORIGHM_AFFINITY, 0, LBSEL_ALGORIGHM_UDPRR, both));
        ASSERT_ADDED(make_server(443, 21));
        ASSERT_ADDED(make_server(443, 22));
    };
    configure();
    ASSERT_ADDED(take_over());
    std::vector<std::string> before;
    for (lb_u16_t sport = 1; sport <= 40; sport++) { // every other one at the NAT server
        ASSERT_TRUE(segment(SYN, sport));
        ASSERT_TRUE(segment(ACK, sport));
        if (sport % 4 >= 2) {
            ASSERT_TRUE(segment(FIN, sport));
        }
        before.push_back(known(sport));
    }
    std::vector<int> servers;
    for (int who = 1; who <= 9; who++) {
        servers.push_back(tcp(SYN, 1, "10.9.1." + std::to_string(who), 443));
    }
    auto frames = beats_of_a_tick();
    EXPECT_EQ(frames.size(), 5U); // 40 + 20 + 9 records
    EXPECT_EQ(tcp(SYN, 99, "10.9.1.1", 443), servers[0]);
    EXPECT_EQ(numrecs(beats_of_a_tick().at(0)), 0); // known already

    restart();
    configure();
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    for (const bytes &frame : frames) {
        EXPECT_EQ(fake::receive(frame), LB_PACKETRC_CONSUMED);
    }
    for (lb_u16_t sport = 1; sport <= 40; sport++) {
        const std::string &was = before[sport - 1U];
        EXPECT_EQ(known(sport), was);
        const auto natport = connection(sport)->natkey.natport;
        if (natport != 0) {
            EXPECT_EQ(answered(answer(natport, 12)), "10.9.0.1:" + std::to_string(sport));
        }
    }
    for (int who = 1; who <= 9; who++) {
        EXPECT_EQ(tcp(SYN, 1, "10.9.1." + std::to_string(who), 443),
                  servers[static_cast<std::size_t>(who) - 1]);
    }
    // What the standby learnt it does not send back; new connections get ports that are free.
    ASSERT_ADDED(take_over());
    ASSERT_TRUE(segment(SYN, 50));
    ASSERT_TRUE(segment(SYN, 51));
    EXPECT_EQ(EXC_EPTCountPorts(&retaddr()->ept), 21);
}

TEST_F(HaStackTest, WhoYieldsSendsTheFirstClustersRecordsAgain)
{
    ASSERT_ADDED(add_cluster("10.0.0.101"));
    ASSERT_ADDED(add_port("10.0.0.101", 80, LBSEL_ALGORIGHM_CONNECTION));
    ASSERT_ADDED(set_port("10.0.0.101", 80, [](lbport_setable_t &set) {
        set.repstrategy = LBHA_REPLICATIONSTRATEGY_CRREP;
    }));
    ASSERT_ADDED(add_server("10.0.0.101", 80, "10.0.0.13"));
    meet(13);
    lbport_setable_t clients{};
    clients.repstrategy = LBHA_REPLICATIONSTRATEGY_ARREP;
    ASSERT_ADDED(make_port(443, LBSEL_ALGORIGHM_AFFINITY, 0, LBSEL_ALGORIGHM_UDPRR, clients));
    ASSERT_ADDED(make_server(443, 21));
    ASSERT_ADDED(take_over());
    for (const char *cluster : {C, "10.0.0.101"}) {
        for (const std::uint8_t flags : {SYN, ACK}) {
            fake::receive(
                packets::build(packets::packet{.dst = cluster, .sport = 7, .flags = flags}));
        }
    }
    ASSERT_EQ(tcp(SYN, 8), 11); // not established: not worth it
    ASSERT_EQ(tcp(SYN, 9, "10.9.0.9", 443), 21);
    EXPECT_EQ(numrecs(beats_of_a_tick().at(0)), 3);
    EXPECT_EQ(numrecs(beats_of_a_tick().at(0)), 0);
    hear(beat{.state = LBHA_STATE_ACTIVE});
    ASSERT_EQ(state(), LBHA_STATE_STANDBY);
    (void)beats_of_a_tick(); // in this one they are queued
    const auto frames = beats_of_a_tick();
    ASSERT_EQ(frames.size(), 1U);
    ASSERT_EQ(numrecs(frames[0]), 2);
    const auto cluster = [&](std::size_t i) { return packets::ip_at(frames[0], RECS + i + 8); };
    EXPECT_EQ(cluster(0), C);
    EXPECT_EQ(cluster(RECLEN), C);
    EXPECT_EQ(sport(frames[0], 0) + sport(frames[0], 1), 7);
    EXPECT_EQ(numrecs(beats_of_a_tick().at(0)), 0);
}

// A connection that began while the node stood alone is sent with its next packet.
TEST_F(HaStackTest, FirstPacketAfterPairingReplicates)
{
    ASSERT_EQ(tcp(SYN, 7), 11);
    ASSERT_EQ(tcp(ACK, 7), 11);
    ASSERT_ADDED(take_over());
    ASSERT_EQ(tcp(ACK, 7), 11);
    const auto frames = beats_of_a_tick();
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(numrecs(frames[0]), 1);
    EXPECT_EQ(sport(frames[0], 0), 7);
}

// --- Forgers -------------------------------------------------------------------------------------

TEST_F(HaStackTest, ForgedHeartbeatsTouchNobodyElse)
{
    ASSERT_ADDED(make_natserver(12));
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    hear(record{.sport = 1});
    hear(record{.sport = 2, .server = server_ip(12), .natport = 2000});
    const record good = {.sport = 3};
    const record rows[] = {
        {.sport = 1, .server = "", .state = 4, .client = "", .port = 0, .cluster = ""},
        {.sport = 1, .server = "", .state = 4},                     // the port
        {.sport = 1, .server = "", .state = 4, .port = 0},          // the cluster
        {.sport = 1, .server = PARTNER, .port = 0, .cluster = OWN}, // the heartbeat
        {.sport = 1, .state = 4, .rule = 1},                        // a use-server
        {.sport = 1, .server = "10.0.0.99", .state = 4},
        {.sport = 1, .state = 4, .cluster = "10.0.0.99"},
        {.sport = 1, .state = 4, .port = 81},
        {.sport = 1, .state = 4, .client = ""},
        {.sport = 0},
        {.sport = 65535, .state = 4},
        {.sport = 2, .server = server_ip(12), .state = 4, .natport = 65535, .client = "10.9.0.2"},
    };
    for (const record &row : rows) {
        hear(beat{.records = {row, good}});
        EXPECT_EQ(known(3), "11 2 0");
        hear(record{.sport = 3, .state = 4});
    }
    const lb_u8_t count = 255;
    hear(beat{.count = count});
    hear(beat{.records = {good}, .count = count});
    EXPECT_EQ(known(3), "11 2 0");
    const bytes whole = build(beat{.records = {good, {.sport = 4}}, .count = count});
    for (std::size_t len = 20; len < whole.size() - packets::ETH; len++) {
        for (const bool knows : {false, true}) {
            fake::receive(packets::cut(whole, len, knows));
            EXPECT_EQ(known(4), "") << len;
        }
    }
    fake::receive(whole);
    EXPECT_EQ(known(4), "11 2 0");
    EXPECT_EQ(known(1), "11 2 0");
    EXPECT_EQ(known(2), "12 2 2000");
    EXPECT_EQ(owner(2000), connection(2));
}

TEST_F(HaStackTest, WithoutMemoryTheRestOfThePacketIsLeft)
{
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    hear(beat{}); // the packet object is there
    fake::fail(fake::op::alloc, 1);
    hear(beat{.records = {{.sport = 1}, {.sport = 2}}});
    EXPECT_EQ(known(1) + known(2), "");
    EXPECT_TRUE(fake::log_contains("cannot create connection record !!!\n"));
}

} // namespace
