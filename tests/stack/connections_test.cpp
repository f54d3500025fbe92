// Connections, affinity and both together, through commands and packets: which server each packet
// reaches, what GET tells of the records, when they age, and what becomes of them when servers are
// drained or removed and when ports that share a table go.
#include <array>

#include "record_fixture.h"

namespace
{

class ConnectionTest : public RecordFixture
{
  protected:
    void SetUp() override
    {
        RecordFixture::SetUp();
        ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_CONNECTION, 0, LBSEL_ALGORIGHM_CONNECTION));
        ASSERT_ADDED(make_servers(80));
    }
    int set_reset(bool on)
    {
        return set_port(C, 80, [on](lbport_setable_t &setable) { setable.reset = on; });
    }
};

TEST_F(ConnectionTest, FollowsTheFlagsOfOneConnection)
{
    const struct {
        const char *name;
        std::uint8_t flags;
        const char *counts; // preest active fin lifetime
    } steps[] = {
        {"SYN", SYN, "1 0 0 1"},
        {"data without ACK", 0x08, "1 0 0 1"},
        {"ACK", ACK, "0 1 0 1"},
        {"SYN of an active one", SYN, "0 1 0 1"},
        {"FIN", FIN | ACK, "0 0 1 1"},
        {"last ACK", ACK, "0 0 1 1"},
        {"SYN on a finished one", SYN, "1 0 0 2"},
        {"RST before it is established", RST, "0 0 1 2"},
        {"ACK after RST", ACK, "0 0 1 2"},
        {"SYN on a reset one", SYN, "1 0 0 3"},
        {"ACK", ACK, "0 1 0 3"},
        {"RST", RST | ACK, "0 0 1 3"},
        {"SYN and RST in one", SYN | RST, "1 0 0 4"},
        {"FIN confirms first", FIN | ACK, "0 1 0 4"},
    };
    for (const auto &step : steps) {
        EXPECT_EQ(tcp(step.flags), 11) << step.name;
        EXPECT_EQ(counts(11), step.counts) << step.name;
    }
    EXPECT_EQ(counts(12), "0 0 0 0");
    EXPECT_EQ(drops(), "0 0");
}

TEST_F(ConnectionTest, BeginsWithSynOnly)
{
    for (const std::uint8_t flags : {0x00, 0x08, 0x10, 0x11, 0x04, 0x14, 0x39}) {
        EXPECT_EQ(tcp(flags), NOWHERE) << int{flags};
    }
    EXPECT_EQ(drops(), "7 0");
    EXPECT_EQ(get_cluster(C).getable.ipstats.discard, 7U);
    EXPECT_EQ(get_executor().getable.ipv4stats.discard, 7U);
    for (const int last : {11, 12, 13}) {
        EXPECT_EQ(counts(last), "0 0 0 0");
    }
}

TEST_F(ConnectionTest, TellsConnectionsApartByAddressAndPort)
{
    int next = 11;
    for (const char *who : {"10.9.0.1", "10.9.0.2"}) {
        // Equal in the low 12 bits, which choose the bucket.
        for (const std::uint16_t sport : {40000, 40000 + 4096, 40001}) {
            EXPECT_EQ(tcp(SYN, sport, who), next);
            EXPECT_EQ(tcp(ACK, sport, who), next);
            next = next == 13 ? 11 : next + 1;
        }
    }
    EXPECT_EQ(counts(11), "0 2 0 2");
}

TEST_F(ConnectionTest, SurvivesAnImpossibleState)
{
    EXPECT_EQ(tcp(SYN), 11);
    auto *ct = static_cast<lbsel_ct_obj_t *>(port_object(80)->ct);
    lbsel_cr_obj_t *cr = records::all<lbsel_cr_obj_t>(ct->pool).at(0);
    cr->state = 9;
    fake::core_expected(true);
    EXPECT_EQ(tcp(ACK), NOWHERE);
    EXPECT_EQ(fake::core_calls(), 1);
    EXPECT_EQ(drops(), "0 1");
    cr->state = LBSEL_CR_STATE_PREEST;
    EXPECT_EQ(tcp(ACK), 11); // the lock was released
}

// --- Age -----------------------------------------------------------------------------------------

TEST_F(ConnectionTest, AgesByState)
{
    const struct {
        const char *name;
        std::vector<std::uint8_t> flags;
        lb_u32_t staletimeout;
        int idle_s; // the time that is allowed, less one second
    } rows[] = {
        {"half-open", {SYN}, 6400, 29},
        {"established, short time", {SYN, ACK}, 10, 9},
        {"closed", {SYN, ACK, FIN}, 6400, 119},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_ADDED(
            set_port(C, 80, [&](lbport_setable_t &s) { s.staletimeout = row.staletimeout; }));
        int server = NOWHERE;
        for (const std::uint8_t flags : row.flags) {
            server = tcp(flags);
        }
        const std::string before = counts(server);
        wait_ms(row.idle_s * 1000);
        EXPECT_EQ(counts(server), before);
        tcp(0); // the last packet counts, not the first
        wait_ms(row.idle_s * 1000 - 1);
        EXPECT_EQ(counts(server), before);
        wait_ms(2);
        EXPECT_EQ(counts(server).substr(0, 6), "0 0 0 ");
        EXPECT_EQ(tcp(ACK), NOWHERE);
    }
}

TEST_F(ConnectionTest, AgesAndForgetsMoreThanABatch)
{
    for (std::uint16_t sport = 1; sport <= 1000; sport++) {
        EXPECT_NE(tcp(SYN, sport), NOWHERE);
        tcp(sport % 5 == 1 ? ACK : 0, sport);
        tcp(sport % 10 == 1 ? FIN : 0, sport);
    }
    EXPECT_EQ(tcp(0, 1), 11);
    EXPECT_EQ(tcp(0, 2), 12);
    ASSERT_ADDED(rm_server(C, 80, address(11)));
    EXPECT_EQ(tcp(ACK, 1), NOWHERE);
    EXPECT_EQ(tcp(0, 2), 12);
    records::check_port(port_object(80));
    wait_ms(10000);
    EXPECT_EQ(tcp(0, 500), 12);
    EXPECT_EQ(tcp(ACK, 1), NOWHERE);
    wait_ms(20000);
    auto *ct = static_cast<lbsel_ct_obj_t *>(port_object(80)->ct);
    EXPECT_EQ(lbll_size(&ct->pool.reuse), 1000 - 133 - 1) << "the half-open ones, but for one";
    EXPECT_EQ(tcp(0, 500), 12);
    const std::uint64_t allocations = fake::total_allocations();
    for (std::uint16_t sport = 2001; sport <= 2800; sport++) {
        EXPECT_NE(tcp(SYN, sport), NOWHERE);
    }
    EXPECT_EQ(fake::total_allocations(), allocations) << "retired records are used again";
    // The same address again is another server.
    ASSERT_ADDED(make_server(80, 11));
    EXPECT_EQ(counts(11), "0 0 0 0");
}

// --- Drained servers -----------------------------------------------------------------------------

TEST_F(ConnectionTest, ResetsConnectionsOfADrainedServerOfEitherVersion)
{
    add_ipv6({"2001:db8::11", "2001:db8::12"});
    ASSERT_ADDED(weigh(80, 13, 0));
    for (const char *const cluster : {C, C6}) {
        SCOPED_TRACE(cluster);
        const bool isv6 = cluster == C6;
        const std::string net = isv6 ? "2001:db8::" : "10.0.0.";
        const auto weights = [&](lb_u16_t first, lb_u16_t second) {
            ASSERT_ADDED(set_server(cluster, 80, net + "11", [=](auto &s) { s.weight = first; }));
            ASSERT_ADDED(set_server(cluster, 80, net + "12", [=](auto &s) { s.weight = second; }));
        };
        packets::packet p = {.src = isv6 ? "fd00::9" : "10.9.0.1",
                             .dst = cluster,
                             .seq = 0x11223344,
                             .ack = 0x55667788,
                             .exts = {packets::padding(packets::DSTOPTS)}};
        const auto send = [&](std::uint16_t sport, std::uint8_t flags) {
            p.sport = sport;
            p.flags = flags;
            return frame_for(packets::build(p));
        };
        const auto server = [&](std::uint16_t sport, std::uint8_t flags) {
            return packets::mac_at(send(sport, flags), 0);
        };
        ASSERT_ADDED(set_port(cluster, 80, [](lbport_setable_t &s) { s.reset = 1; }));
        weights(1, 0);
        for (const std::uint16_t sport : {1, 2, 3}) {
            EXPECT_EQ(server(sport, SYN), packets::mac_of(11));
        }
        EXPECT_EQ(server(1, ACK), packets::mac_of(11));
        EXPECT_EQ(server(2, ACK), packets::mac_of(11));
        weights(0, 1);
        EXPECT_EQ(server(3, SYN), packets::mac_of(11)) << "not established: stays";

        for (const bool framed : {true, false}) {
            lbifin_setable_t eth0 = stack::ethernet(1);
            eth0.isPTP = framed ? LBIFIN_YN_NO : LBIFIN_YN_YES;
            ASSERT_ADDED(set_interface("eth0", eth0));
            const packets::bytes sent = send(framed ? 1 : 2, ACK);
            ASSERT_FALSE(sent.empty());
            const std::size_t ip = framed ? packets::ETH : 0;
            packets::bytes want =
                packets::build(packets::packet{.src = cluster,
                                               .dst = p.src,
                                               .sport = 80,
                                               .dport = p.sport,
                                               .flags = RST,
                                               .seq = p.ack,
                                               .ack = p.seq,
                                               .id = packets::get16(sent, ip + 4), // IPv4
                                               .payload = 0,
                                               .ethdst = packets::mac_of(254),
                                               .ethsrc = packets::mac_of(1)});
            packets::put16(want, packets::upper_of(want).at + 14, 0); // window
            packets::mend_transport(want);
            EXPECT_EQ(sent, packets::part(want, packets::ETH - ip, want.size()));
        }
        ASSERT_ADDED(set_interface("eth0", stack::ethernet(1)));
        EXPECT_TRUE(send(1, ACK).empty()) << "the connection is forgotten";
        EXPECT_EQ(server(1, SYN), packets::mac_of(12)) << "and begins anew elsewhere";
        const lb_conn_stats_t left = get_server(cluster, 80, net + "11").getable.selstats;
        EXPECT_TRUE(left.preest == 1 && left.active == 0 && left.fin == 0 && left.lifetime == 3);
    }
}

TEST_F(ConnectionTest, KeepsConnectionsOfADrainedServer)
{
    const struct {
        const char *name;
        bool reset;
        lb_u32_t quiesced;
        lb_u16_t others; // weight of the other servers
        std::uint8_t flags;
    } rows[] = {
        {"port does not reset", false, 0, 1, ACK},
        {"quiesced", true, 1, 1, ACK},
        {"every weight is 0", true, 0, 0, ACK},
        {"the client resets by itself", true, 0, 1, RST},
    };
    std::uint16_t sport = 1;
    for (const auto &row : rows) {
        ASSERT_ADDED(weigh(80, 11, 1));
        ASSERT_ADDED(set_reset(row.reset));
        do {
            sport++;
        } while (tcp(SYN, sport) != 11);
        EXPECT_EQ(tcp(ACK, sport), 11) << row.name;
        ASSERT_ADDED(set_server(C, 80, address(11), [&](lbsrv_setable_t &s) {
            s.weight = 0;
            s.quiesced = row.quiesced;
        }));
        ASSERT_ADDED(weigh(80, 12, row.others));
        ASSERT_ADDED(weigh(80, 13, row.others));
        EXPECT_EQ(tcp(row.flags, sport), 11) << row.name;
    }
}

TEST_F(ConnectionTest, MovesDatagramsOfADrainedServerWithoutAReset)
{
    ASSERT_ADDED(set_reset(true));
    EXPECT_EQ(udp(), 11);
    ASSERT_ADDED(weigh(80, 11, 0));
    EXPECT_EQ(udp(), NOWHERE);
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(udp(), 13) << "the second turn of those that are left";
}

// --- Removal -------------------------------------------------------------------------------------

// A worker may have chosen the server just before it was removed.
TEST_F(ConnectionTest, MakesNoRecordForAServerThatIsBeingRemoved)
{
    lb_poke(server_object(11)->sel.removed, 1);
    EXPECT_EQ(tcp(SYN), 12);
    EXPECT_EQ(counts(11), "0 0 0 0");
    EXPECT_EQ(lbll_size(&static_cast<lbsel_ct_obj_t *>(port_object(80)->ct)->pool.reuse), 0);
    lb_poke(server_object(11)->sel.removed, 0);
}

// --- Affinity ------------------------------------------------------------------------------------

class AffinityTest : public RecordFixture
{
  protected:
    void make(lb_u8_t algorithm)
    {
        ASSERT_ADDED(make_port(80, algorithm));
        ASSERT_ADDED(make_servers(80));
    }
    // Port 443, which shares the table of port 80.
    void make_partner(lb_u8_t algorithm, const std::vector<int> &servers = {11, 12, 13})
    {
        ASSERT_ADDED(make_port(443, algorithm, 80));
        ASSERT_ADDED(make_servers(443, servers));
    }
    static lbsel_at_obj_t *table_of(lb_u16_t number)
    {
        return static_cast<lbsel_at_obj_t *>(port_object(number)->at);
    }
    int at80(const std::string &who, std::uint16_t sport = 1) { return tcp(ACK, sport, who); }
    int at443(const std::string &who) { return tcp(ACK, 1, who, 443); }
};

TEST_F(AffinityTest, ReturnsAClientToItsServer)
{
    make(LBSEL_ALGORIGHM_AFFINITY);
    EXPECT_EQ(at80("10.9.0.1"), 11);
    EXPECT_EQ(at80("10.9.0.2"), 12);
    EXPECT_EQ(at80("10.9.16.1"), 13) << "in the bucket of 10.9.0.1";
    for (std::uint16_t sport = 2; sport < 10; sport++) {
        EXPECT_EQ(at80("10.9.0.1", sport), 11);
        EXPECT_EQ(at80("10.9.0.2", sport), 12);
        EXPECT_EQ(at80("10.9.16.1", sport), 13);
    }
    EXPECT_EQ(counts(11), "0 1 0 1");
}

TEST_F(AffinityTest, MovesAClientWhoseServerIsDrainedOrRemoved)
{
    make(LBSEL_ALGORIGHM_AFFINITY);
    EXPECT_EQ(at80("10.9.0.1"), 11);
    ASSERT_ADDED(weigh(80, 11, 0));
    const int moved = at80("10.9.0.1");
    EXPECT_TRUE(moved == 12 || moved == 13);
    EXPECT_EQ(counts(11), "0 0 0 1");
    for (const int last : {12, 13}) {
        ASSERT_ADDED(weigh(80, last, 0));
    }
    EXPECT_EQ(at80("10.9.0.1"), moved) << "every weight is 0: nowhere else to go";
    ASSERT_ADDED(rm_server(C, 80, address(moved)));
    const int again = at80("10.9.0.1");
    EXPECT_TRUE(again != moved && again != NOWHERE);
    EXPECT_EQ(at80("10.9.0.1"), again);
    tick(5);
    EXPECT_EQ(at80("10.9.0.1"), again);
}

TEST_F(AffinityTest, MakesNoRecordForAServerThatIsNotSticky)
{
    ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_AFFINITY));
    ASSERT_ADDED(make_server(80, 11, 1, 0));
    ASSERT_ADDED(make_server(80, 12, 1, 0));
    EXPECT_EQ(at80("10.9.0.1"), 11);
    EXPECT_EQ(at80("10.9.0.1"), 12);
    EXPECT_EQ(at80("10.9.0.1"), 11);
    EXPECT_EQ(counts(11), "0 0 0 0");
    EXPECT_EQ(drops(), "0 0");
}

TEST_F(AffinityTest, ForgetsAClientAfterTheStickyTime)
{
    make(LBSEL_ALGORIGHM_AFFINITY);
    ASSERT_ADDED(set_port(C, 80, [](lbport_setable_t &s) { s.stickytime = 10; }));
    const struct {
        int idle_ms;
        bool stays;
    } rows[] = {{8500, true}, {9000, true}, {9001, false}, {10500, false}};
    for (const auto &row : rows) {
        const int server = at80("10.9.0.1");
        const std::string before = counts(server);
        wait_ms(row.idle_ms);
        EXPECT_EQ(counts(server) == before, row.stays) << row.idle_ms;
    }
}

TEST_F(AffinityTest, WithoutMemoryOrServersAClientIsDropped)
{
    for (const lb_u8_t algorithm : {LBSEL_ALGORIGHM_AFFINITY, LBSEL_ALGORIGHM_CONNECTION}) {
        make(algorithm);
        fake::receive(packets::build(packets::packet{.dport = 81})); // the packet object is there
        fake::fail(fake::op::alloc, 1);
        EXPECT_EQ(tcp(SYN), NOWHERE);
        EXPECT_NE(tcp(SYN), NOWHERE);
        for (const int last : {11, 12, 13}) {
            ASSERT_ADDED(rm_server(C, 80, address(last)));
        }
        EXPECT_EQ(tcp(SYN, 40001), NOWHERE);
        EXPECT_EQ(drops(), "2 0");
        ASSERT_ADDED(rm_port(C, 80));
        tick(5);
    }
}

TEST_F(AffinityTest, HoldsAcrossPortsAndIsAnErrorWhereThePartnerLacksTheServer)
{
    make(LBSEL_ALGORIGHM_AFFINITY);
    make_partner(LBSEL_ALGORIGHM_AFFINITY, {12, 13});
    EXPECT_EQ(at80("10.9.0.1"), 11);
    EXPECT_EQ(at443("10.9.0.1"), NOWHERE);
    EXPECT_EQ(drops(443), "0 1");
    EXPECT_EQ(at80("10.9.0.2"), 12);
    EXPECT_EQ(at443("10.9.0.2"), 12) << "first seen at 80";
    EXPECT_EQ(counts(12, 443), "0 0 0 0") << "the record is with the server that made it";
    EXPECT_EQ(get_server(C, 443, address(12)).getable.ipstats.fwd, 1U);
    const int home = at443("10.9.0.3");
    EXPECT_EQ(at80("10.9.0.3"), home) << "first seen at 443";
    ASSERT_ADDED(rm_server(C, 443, address(12)));
    EXPECT_EQ(at443("10.9.0.2"), NOWHERE);
    tick(5);
    EXPECT_EQ(at443("10.9.0.2"), NOWHERE);
    EXPECT_EQ(drops(443), "0 3");
    EXPECT_EQ(at80("10.9.0.2"), 12);
}

// The record that names the partner's server may be made while that server goes: the reaper's sweep
// must find it, and wait once more.
TEST_F(AffinityTest, FreesNoServerThatAPartnersRecordNames)
{
    make(LBSEL_ALGORIGHM_AFFINITY);
    make_partner(LBSEL_ALGORIGHM_AFFINITY);
    EXPECT_EQ(at80("10.9.0.1"), 11);
    lbsrv_obj_t *gone = server_object(11, 443);
    ASSERT_ADDED(rm_server(C, 443, address(11)));
    lbsel_ar_obj_t *ar = records::all<lbsel_ar_obj_t>(table_of(80)->pool).at(0);
    EXPECT_EQ(ar->crossportServer, nullptr);
    ar->crossportServer = gone;
    EXPECT_EQ(at443("10.9.0.1"), NOWHERE) << "named, but not followed";
    const std::int64_t blocks = fake::live_allocations();
    wait_ms(3000);
    EXPECT_EQ(fake::live_allocations(), blocks) << "a reference was found";
    EXPECT_EQ(ar->crossportServer, nullptr);
    EXPECT_EQ(lb_timer_entry(), 0);
    EXPECT_EQ(fake::live_allocations(), blocks - 1) << "none was found";
}

TEST_F(AffinityTest, SharesATableUntilItsLastPortGoes)
{
    const std::array<lb_u16_t, 2> orders[] = {{80, 443}, {443, 80}};
    for (const lb_u8_t algorithm : {LBSEL_ALGORIGHM_AFFINITY, LBSEL_ALGORIGHM_CONN_AFFIN}) {
        for (const auto &order : orders) {
            make(algorithm);
            make_partner(algorithm);
            ASSERT_EQ(table_of(80), table_of(443));
            EXPECT_NE(tcp(SYN, 1, "10.9.0.1", order[0]), NOWHERE);
            EXPECT_NE(tcp(SYN, 1, "10.9.0.2", order[1]), NOWHERE);
            remove_port(order[0]);
            for (int i = 0; i < 2; i++) {
                const int kept = tcp(SYN, 2, "10.9.0.2", order[1]);
                EXPECT_NE(kept, NOWHERE);
                EXPECT_EQ(tcp(SYN, 3, "10.9.0.2", order[1]), kept);
                EXPECT_NE(tcp(SYN, 2, "10.9.0.1", order[1]), NOWHERE) << "a new client now";
                tick(5);
            }
            remove_port(order[1]);
            tick(5);
        }
    }
}

TEST_F(AffinityTest, SharesATableAmongThreePorts)
{
    make(LBSEL_ALGORIGHM_CONN_AFFIN);
    make_partner(LBSEL_ALGORIGHM_CONN_AFFIN);
    ASSERT_ADDED(make_port(8443, LBSEL_ALGORIGHM_CONN_AFFIN, 80));
    ASSERT_ADDED(make_servers(8443));
    const int home = tcp(SYN, 1, "10.9.0.1", 443);
    EXPECT_EQ(tcp(SYN, 1, "10.9.0.1", 80), home);
    EXPECT_EQ(tcp(SYN, 1, "10.9.0.1", 8443), home);
    // Each connection is with its own port's server, or removing a port would take it along.
    EXPECT_EQ(counts(home, 443), "1 0 0 2");
    EXPECT_EQ(counts(home, 80), "1 0 0 1");
    EXPECT_EQ(counts(home, 8443), "1 0 0 1");
}

TEST_F(AffinityTest, SharesATableWithUpTo255PortsThatFit)
{
    constexpr lb_u8_t AFFINITY = LBSEL_ALGORIGHM_AFFINITY;
    make(AFFINITY);
    EXPECT_EQ(at80("10.9.0.1"), 11);
    EXPECT_EQ(make_port(443, AFFINITY, 81), LBCMD_RC_FAILURE);
    EXPECT_EQ(make_port(443, LBSEL_ALGORIGHM_CONN_AFFIN, 80), LBCMD_RC_FAILURE);
    EXPECT_EQ(make_port(443, LBSEL_ALGORIGHM_CONNECTION, 80), LBCMD_RC_FAILURE);
    // A port that joined a table and then fails must not take the table along.
    for (int n = 1; n <= 3; n++) { // the server set's, the rules' and the servers' list
        expect_leaves_nothing(fake::op::mutex_init, n,
                              [this] { return make_port(443, AFFINITY, 80); });
        EXPECT_EQ(table_of(80)->refcount, 0);
    }
    EXPECT_EQ(at80("10.9.0.1"), 11);
    for (lb_u16_t number = 1000; number < 1255; number++) {
        ASSERT_ADDED(make_port(number, AFFINITY, 80));
    }
    EXPECT_EQ(table_of(80)->refcount, 255);
    EXPECT_EQ(make_port(2000, AFFINITY, 80), LBCMD_RC_FAILURE);
    remove_port(80); // the others keep it
    for (lb_u16_t number = 1000; number < 1254; number++) {
        ASSERT_EQ(rm_port(C, number), LBCMD_RC_SUCCESS);
    }
    tick(5);
    EXPECT_EQ(table_of(1254)->refcount, 0);
}

// --- Both together -------------------------------------------------------------------------------

TEST_F(AffinityTest, SendsNewConnectionsOfAKnownClientToItsServer)
{
    make(LBSEL_ALGORIGHM_CONN_AFFIN);
    EXPECT_EQ(tcp(SYN, 1), 11);
    EXPECT_EQ(tcp(ACK, 1), 11);
    EXPECT_EQ(tcp(SYN, 2), 11);
    EXPECT_EQ(tcp(SYN, 1, "10.9.0.2"), 12);
    EXPECT_EQ(tcp(ACK, 3), NOWHERE) << "a known client still begins with SYN";
    EXPECT_EQ(counts(11), "1 1 0 3") << "two connections and one client";

    ASSERT_ADDED(weigh(80, 11, 0));
    const int moved = tcp(SYN, 4);
    EXPECT_NE(moved, 11);
    EXPECT_EQ(tcp(ACK, 1), 11) << "an old connection stays";
    EXPECT_EQ(tcp(SYN, 5), moved);
    ASSERT_ADDED(rm_server(C, 80, address(moved)));
    EXPECT_EQ(tcp(ACK, 4), NOWHERE);
    EXPECT_EQ(tcp(ACK, 1), 11);
}

// The forwarder must not take one kind of record for the other.
TEST_F(AffinityTest, CountsAnErrorWhereThePortHasNoTable)
{
    constexpr lb_u8_t HASH = LBSEL_ALGORIGHM_HASH, CONNECTION = LBSEL_ALGORIGHM_CONNECTION;
    constexpr lb_u8_t AFFINITY = LBSEL_ALGORIGHM_AFFINITY, BOTH = LBSEL_ALGORIGHM_CONN_AFFIN;
    const struct {
        lb_u8_t tcp, udp;
        bool served = false;
    } rows[] = {
        {HASH, CONNECTION},       {HASH, AFFINITY},         {CONNECTION, BOTH},
        {AFFINITY, BOTH},         {BOTH, CONNECTION, true}, {BOTH, AFFINITY, true},
        {CONNECTION, HASH, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.tcp) + " " + std::to_string(row.udp));
        ASSERT_ADDED(make_port(80, row.tcp, 0, row.udp));
        ASSERT_ADDED(make_server(80, 11));
        const auto freed = fake::unheld_frees();
        EXPECT_EQ(udp(), row.served ? 11 : NOWHERE);
        EXPECT_EQ(drops(), row.served ? "0 0" : "0 1");
        EXPECT_EQ(fake::unheld_frees(), freed + 1);
        remove_port(80, {11});
    }
}

} // namespace
