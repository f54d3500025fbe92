// A node of a pair on the wire: its heartbeats byte by byte, what it says and what it keeps silent
// about, and records on their way from one node to the other.
#include <algorithm>
#include <map>

#include "ha_fixture.h"

namespace
{

using packets::bytes;

class HaStackTest : public HaFixture
{
  protected:
    void SetUp() override
    {
        HaFixture::SetUp();
        ASSERT_ADDED(replicate_connections(C));
        ASSERT_ADDED(make_server(80, 11));
    }

    int replicate_connections(const std::string &cluster)
    {
        return set_port(cluster, 80, [](lbport_setable_t &set) {
            set.repstrategy = LBHA_REPLICATIONSTRATEGY_CRREP;
        });
    }
    int make_affinity_port(lb_u16_t number, lb_u8_t strategy, const std::vector<int> &servers,
                           lb_u16_t crossport = 0)
    {
        lbport_setable_t setable{};
        setable.repstrategy = strategy;
        EXPECT_EQ(
            make_port(number, LBSEL_ALGORIGHM_AFFINITY, crossport, LBSEL_ALGORIGHM_UDPRR, setable),
            LBCMD_RC_SUCCESS);
        return make_servers(number, servers);
    }
    // An IPv6 partner, and a cluster with a server.
    void add_ipv6()
    {
        HaFixture::add_ipv6({"2001:db8::11"});
        ASSERT_ADDED(add_heartbeat("2001:db8::1", "2001:db8::2"));
        ASSERT_ADDED(replicate_connections(C6));
        meet("2001:db8::2", 2);
    }
    // What carries a heartbeat of ours; the IPv4 identification goes up.
    static packets::packet own(const char *src, const char *dst, std::uint16_t id = 0)
    {
        return {.src = src,
                .dst = dst,
                .sport = PORT,
                .dport = PORT,
                .proto = packets::UDP,
                .ttl = 1,
                .id = id,
                .ethdst = packets::mac_of(2),
                .ethsrc = packets::mac_of(1)};
    }
    static int numrecs(const bytes &frame) { return frame.at(HDR + 7); }
    static lb_u16_t sport(const bytes &frame, int index)
    {
        return packets::get16(frame, RECS + static_cast<std::size_t>(index) * RECLEN + 80);
    }
    static void enqueue(int count, int want = LBHA_REPENQ_SUCCESS)
    {
        lbcmd_key_t key = stack::cfgkey(C, 80, "10.0.0.11");
        lbip_addr_t client = stack::ip("10.9.0.1");
        for (int i = 1; i <= count; i++) {
            EXPECT_EQ(lbha_replication_enqueue(&key.cfg, &client, static_cast<lb_u16_t>(i), 2, 0),
                      want);
        }
    }
    // Who is announced by gratuitous ARP in what was sent since the last look.
    static std::string announced()
    {
        std::string out;
        for (const fake::sent_frame &sent : fake::take_sent()) {
            const bytes &b = sent.bytes;
            if (packets::get16(b, 12) == 0x0806 && packets::ip_at(b, 28) == packets::ip_at(b, 38)) {
                out += packets::ip_at(b, 28) + " ";
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
    using heartbeat_view = stack::view<stack::none, lbha_hb_setable_t, lbha_hb_getable_t>;
    EXPECT_EQ(get<heartbeat_view>(stack::cfgkey(OWN, 0, PARTNER)).getable.neighstate,
              LBNEIGH_STATE_RXOK);
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    lb_poke(lbexecutor->setable.ha.reachscore, 7);
    hear(beat{.state = LBHA_STATE_ACTIVE, .score = 9, .seq = {0x01020304, 0x0A0B0C}});
    for (std::uint16_t n = 1; n <= 3; n++) {
        SCOPED_TRACE(n);
        const auto frames = beats_of_a_tick();
        ASSERT_EQ(frames.size(), 1U);
        EXPECT_EQ(frames[0], build(beat{.score = 7,
                                        .seq = fake::now(),
                                        .ack = {0x01020304, 0x0A0B0C},
                                        .ip = own(OWN, PARTNER, n)}));
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
    EXPECT_EQ(add_heartbeat(OWN, "fd00::2"), LBCMD_RC_FAILURE);
    enqueue(3);
    const auto frames = beats_of_a_tick();
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[0].size(), RECS + 3 * RECLEN);
    EXPECT_EQ(numrecs(frames[0]), 3);
    EXPECT_EQ(frames[1], build(beat{.seq = fake::now(), .ip = own("2001:db8::1", "2001:db8::2")}));
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
    // Who sends records over IPv6 is believed, too.
    hear(beat{.seq = {77, 0}, .records = {mixed, known6}, .ip = own("2001:db8::2", "2001:db8::1")});
    EXPECT_EQ(lbexecutor->ha.partnerack.secs, 77);
    EXPECT_EQ(known(5, "2001:db8::50", C6), "17 2 0");
    EXPECT_EQ(known(5, "10.9.0.1", C6), "");
    ASSERT_ADDED(take_over());
    const auto sent = fake::take_sent();
    EXPECT_TRUE(std::any_of(sent.begin(), sent.end(), [](const fake::sent_frame &each) {
        return each.ipver == 6 && each.bytes.at(packets::IP6) == packets::ADVERTISEMENT &&
               packets::ip6_at(each.bytes, packets::IP6 + 8) == C6;
    }));
    EXPECT_EQ(ask(), LB_PACKETRC_CONSUMED);
    (void)fake::take_sent();
    fake::receive(packets::build(packets::packet{.version = 6, .sport = 5, .flags = FIN | ACK}));
    EXPECT_EQ(packets::mac_at(fake::take_sent().at(0).bytes, 0), packets::mac_of(11));
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
    const struct {
        lb_u32_t sys, lb; // eth0; eth1 has 1500
        lb_u32_t want;
    } rows[] = {{9000, 0, 14}, {1500, 1280, 12}, {1280, 0, 12}, {101, 0, 1}};
    for (const auto &row : rows) {
        lbifin_setable_t setable = stack::ethernet(1, row.sys);
        setable.mtu_lb = row.lb;
        ASSERT_ADDED(set_interface("eth0", setable));
        tick_once();
        EXPECT_EQ(lbexecutor->ha.maxhbpayload, row.want) << row.sys << " " << row.lb;
    }
    ASSERT_ADDED(rm(LBCMD_KEYTYPE_CONFIG, stack::cfgkey("10.1.0.1", 0, "10.1.0.2")));
    ASSERT_ADDED(set_interface("eth0", stack::ethernet(1, 9000)));
    tick_once();
    EXPECT_EQ(lbexecutor->ha.maxhbpayload, 14U);
}

TEST_F(HaStackTest, OnlyHeartbeatsAreTakenAsSuch)
{
    const auto with = [](std::uint16_t sport, std::uint16_t dport, const char *dst = OWN,
                         std::uint8_t proto = packets::UDP, std::uint16_t fragoff = 0) {
        return build(beat{.seq = {77, 0},
                          .ip = {.src = "1.2.3.4",
                                 .dst = dst,
                                 .sport = sport,
                                 .dport = dport,
                                 .proto = proto,
                                 .fragoff = fragoff}});
    };
    const auto cut = [&](std::size_t received, std::uint16_t total) {
        bytes frame = packets::cut(with(PORT, PORT), received);
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
    constexpr const char *GEN = "in gen", *NOTFORUS = "in notforus", *DISCARD = "in discard";
    const struct {
        const char *name;
        bytes frame;
        const char *counted;
        bool taken = false;
    } rows[] = {
        {"a heartbeat", cut(68, 68), GEN, true},
        {"to anyone", with(PORT, PORT, "5.6.7.8"), GEN, true},
        {"with IP options", optioned, GEN, true},
        {"padding behind it", padded, GEN, true},
        {"39 bytes, says the total length", cut(68, 67), GEN},
        {"39 bytes came", cut(67, 68), GEN},
        {"no total length", cut(68, 0), GEN},
        {"half of the ports", cut(23, 23), NOTFORUS},
        {"another source port", with(PORT - 1, PORT), NOTFORUS},
        {"another destination port", with(PORT, 1), NOTFORUS},
        {"a later fragment", with(PORT, PORT, OWN, packets::UDP, 3), NOTFORUS},
        {"another protocol", with(PORT, PORT, OWN, 132), NOTFORUS},
        {"to a cluster", with(PORT, PORT, C), DISCARD},
    };
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        lb_poke(lbexecutor->ha.partnerack, lb_timeval_t{});
        const lb_proto_stats_t before = get_executor().getable.ipv4stats;
        EXPECT_EQ(fake::receive(row.frame),
                  row.counted == NOTFORUS ? LB_PACKETRC_INTACT : LB_PACKETRC_CONSUMED);
        EXPECT_EQ(stack::counted(before, get_executor().getable.ipv4stats), row.counted);
        EXPECT_EQ(lbexecutor->ha.partnerack.secs, row.taken ? 77 : 0);
    }
    ASSERT_ADDED(pair(LBHA_ROLE_SOLO));
    EXPECT_EQ(fake::receive(rows[0].frame), LB_PACKETRC_INTACT) << "alone";
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
    enqueue(28); // what is queued leaves, and so does its memory
    EXPECT_EQ(beats_of_a_tick().size(), 4U);
    EXPECT_EQ(lbll_size(&lbexecutor->ha.reppktq), 0);
    EXPECT_EQ(fake::live_allocations(), blocks);
    EXPECT_EQ(sport(frames[0], 13), 14);
    EXPECT_EQ(frames[0].size(), RECS + 14 * RECLEN);
    EXPECT_EQ(beats_of_a_tick().size(), 2U); // bare ones
    lb_poke(lbexecutor->ha.maxhbpayload, 2); // as a smaller MTU would have it
    enqueue(3);
    EXPECT_EQ(lbll_size(&lbexecutor->ha.reppktq), 2);
    enqueue(1);
    fake::fail(fake::op::alloc, 1);
    enqueue(1, LBHA_REPENQ_FAILURE);
}

TEST_F(HaStackTest, QueueWaitsForAnInterface)
{
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    ASSERT_ADDED(rm_ifaddr("eth0", "10.0.0.1/24"));
    ASSERT_ADDED(rm_interface("eth0"));
    enqueue(20);
    (void)fake::take_sent();
    tick(2);
    EXPECT_TRUE(beats().empty());
    EXPECT_EQ(lbll_size(&lbexecutor->ha.reppktq), 2);
    ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
    ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
    tick(2);
    const auto frames = beats();
    ASSERT_GE(frames.size(), 2U);
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
    ASSERT_ADDED(make_affinity_port(443, 0, {21, 22}));
    ASSERT_ADDED(make_affinity_port(8443, 0, {21, 22}, 443));
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
        ASSERT_ADDED(make_affinity_port(443, LBHA_REPLICATIONSTRATEGY_CRARREP, {21, 22}));
    };
    const auto visit = [](int who) { return tcp(SYN, 1, "10.9.1." + std::to_string(who), 443); };
    configure();
    EXPECT_TRUE(segment(SYN, 41)); // begun alone: the first packet of a pair replicates it
    EXPECT_TRUE(segment(ACK, 41));
    ASSERT_ADDED(take_over());
    EXPECT_TRUE(segment(ACK, 41));
    std::map<lb_u16_t, std::string> before = {{41, known(41)}};
    for (lb_u16_t sport = 1; sport <= 40; sport++) { // every other one at the NAT server
        EXPECT_TRUE(segment(SYN, sport));
        EXPECT_TRUE(segment(ACK, sport));
        EXPECT_TRUE(sport % 4 < 2 || segment(FIN, sport));
        before[sport] = known(sport);
    }
    std::vector<int> servers;
    for (int who = 0; who < 9; who++) {
        servers.push_back(visit(who));
    }
    const auto frames = beats_of_a_tick();
    EXPECT_EQ(frames.size(), 5U); // 41 + 20 + 9 records
    EXPECT_TRUE(segment(ACK, 1));
    EXPECT_EQ(visit(0), servers[0]);
    EXPECT_EQ(numrecs(beats_of_a_tick().at(0)), 0); // known already

    restart();
    configure();
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    for (const bytes &frame : frames) {
        EXPECT_EQ(fake::receive(frame), LB_PACKETRC_CONSUMED);
    }
    for (const auto &[sport, was] : before) {
        ASSERT_EQ(known(sport), was);
        if (const auto natport = connection(sport)->natkey.natport; natport != 0) {
            EXPECT_EQ(answered(answer(natport, 12)), "10.9.0.1:" + std::to_string(sport));
        }
    }
    for (int who = 0; who < 9; who++) {
        EXPECT_EQ(visit(who), servers.at(static_cast<std::size_t>(who)));
    }
    // New connections get ports that are free.
    const int ports = EXC_EPTCountPorts(&retaddr()->ept);
    ASSERT_ADDED(take_over());
    EXPECT_TRUE(segment(SYN, 50));
    EXPECT_TRUE(segment(SYN, 51));
    EXPECT_EQ(EXC_EPTCountPorts(&retaddr()->ept), ports + 1);
}

TEST_F(HaStackTest, WhoYieldsSendsTheFirstClustersRecordsAgain)
{
    ASSERT_ADDED(add_cluster("10.0.0.101"));
    ASSERT_ADDED(add_port("10.0.0.101", 80, LBSEL_ALGORIGHM_CONNECTION));
    ASSERT_ADDED(replicate_connections("10.0.0.101"));
    ASSERT_ADDED(add_server("10.0.0.101", 80, "10.0.0.13"));
    meet(13);
    ASSERT_ADDED(make_affinity_port(443, LBHA_REPLICATIONSTRATEGY_ARREP, {21}));
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

// --- Forgers -------------------------------------------------------------------------------------

TEST_F(HaStackTest, ForgedHeartbeatsTouchNobodyElse)
{
    ASSERT_ADDED(make_natserver(12));
    ASSERT_ADDED(pair(LBHA_ROLE_BACKUP));
    hear(record{.sport = 1});
    hear(record{.sport = 2, .server = server_ip(12), .natport = 2000});
    const record good = {.sport = 3};
    const record rows[] = {
        {.sport = 1, .server = "", .state = 4},                     // the port
        {.sport = 1, .server = "", .state = 4, .port = 0},          // the cluster
        {.sport = 1, .server = PARTNER, .port = 0, .cluster = OWN}, // the heartbeat
        {.sport = 1, .state = 4, .rule = 1},                        // a use-server
        {.sport = 1, .state = 4, .port = 81},
        {.sport = 1, .state = 4, .client = ""},
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
        fake::receive(packets::cut(whole, len, len % 2 == 0));
        EXPECT_EQ(known(4), "") << len;
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
}

} // namespace
