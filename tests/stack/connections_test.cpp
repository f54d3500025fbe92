// Connections, affinity and both together, through commands and packets: which server each packet
// reaches, what GET tells of the records, when they age, and what becomes of them when servers are
// drained or removed and when ports that share a table go.
#include "lb_grace.h"

#include <array>
#include <set>

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
        {"SYN again", SYN, "1 0 0 1"},
        {"data without ACK", 0x08, "1 0 0 1"},
        {"ACK", ACK, "0 1 0 1"},
        {"data", ACK | 0x08, "0 1 0 1"},
        {"SYN of an active one", SYN, "0 1 0 1"},
        {"FIN", FIN | ACK, "0 0 1 1"},
        {"last ACK", ACK, "0 0 1 1"},
        {"SYN on a finished one", SYN, "1 0 0 2"},
        {"RST before it is established", RST, "0 0 1 2"},
        {"ACK after RST", ACK, "0 0 1 2"},
        {"SYN on a reset one", SYN, "1 0 0 3"},
        {"ACK", ACK, "0 1 0 3"},
        {"RST", RST | ACK, "0 0 1 3"},
        {"RST again", RST, "0 0 1 3"},
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

TEST_F(ConnectionTest, GoesStraightToActiveOnSynAck)
{
    EXPECT_EQ(tcp(SYN | ACK), 11);
    EXPECT_EQ(counts(11), "0 1 0 1");
    EXPECT_EQ(udp(50000), 12); // a datagram both opens and confirms
    EXPECT_EQ(udp(50000), 12);
    EXPECT_EQ(counts(12), "0 1 0 1");
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
        {"established", {SYN, ACK}, 6400, 6399},
        {"established, short time", {SYN, ACK}, 10, 9},
        {"closed", {SYN, ACK, FIN}, 6400, 119},
        {"reset", {SYN, ACK, RST}, 6400, 119},
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

TEST_F(ConnectionTest, AgesMoreThanABatch)
{
    for (std::uint16_t sport = 1; sport <= 1000; sport++) {
        EXPECT_NE(tcp(SYN, sport), NOWHERE);
    }
    wait_ms(10000);
    EXPECT_NE(tcp(ACK, 500), NOWHERE);
    wait_ms(20000);
    EXPECT_EQ(lbll_size(&static_cast<lbsel_ct_obj_t *>(port_object(80)->ct)->pool.reuse), 999);
    EXPECT_NE(tcp(ACK, 500), NOWHERE);
    const std::uint64_t allocations = fake::total_allocations();
    for (std::uint16_t sport = 2001; sport <= 2999; sport++) {
        EXPECT_NE(tcp(SYN, sport), NOWHERE);
    }
    EXPECT_EQ(fake::total_allocations(), allocations) << "retired records are used again";
}

TEST_F(ConnectionTest, AgesTheFirstServersOnly)
{
    for (int last = 14; last <= 139; last++) {
        ASSERT_ADDED(make_server(80, last, 0));
    }
    for (const int last : {11, 12, 13}) {
        ASSERT_ADDED(weigh(80, last, 0));
    }
    // 129 servers, the 128th being 138; strictly in turn while every weight is 0.
    std::set<int> reached;
    for (std::uint16_t sport = 1; sport <= 129; sport++) {
        reached.insert(tcp(SYN, sport));
    }
    ASSERT_EQ(reached.size(), 129U);
    wait_ms(31000);
    EXPECT_EQ(counts(11), "0 0 0 1");
    EXPECT_EQ(counts(138), "0 0 0 1");
    EXPECT_EQ(counts(139), "1 0 0 1");
}

// --- Drained servers -----------------------------------------------------------------------------

TEST_F(ConnectionTest, ResetsConnectionsOfADrainedServer)
{
    ASSERT_ADDED(set_reset(true));
    for (const std::uint16_t sport : {40000, 40001, 40002}) {
        tcp(SYN, sport);
    }
    EXPECT_EQ(tcp(SYN, 40003), 11);
    EXPECT_EQ(tcp(ACK, 40000), 11);
    ASSERT_ADDED(weigh(80, 11, 0));
    EXPECT_EQ(tcp(SYN, 40003), 11) << "not established: stays";
    EXPECT_EQ(counts(11), "1 1 0 2");

    const packets::packet p = {
        .src = "10.9.0.1", .flags = ACK, .seq = 0x11223344, .ack = 0x55667788};
    const packets::bytes sent = frame_for(packets::build(p));
    ASSERT_FALSE(sent.empty());
    const auto id = packets::get16(sent, packets::ETH + 4);
    packets::bytes want = packets::build(packets::packet{.src = C,
                                                         .dst = p.src,
                                                         .sport = p.dport,
                                                         .dport = p.sport,
                                                         .flags = RST,
                                                         .seq = p.ack,
                                                         .ack = p.seq,
                                                         .id = id,
                                                         .payload = 0,
                                                         .ethdst = packets::mac_of(254),
                                                         .ethsrc = packets::mac_of(1)});
    packets::put16(want, packets::ETH + 20 + 14, 0); // window
    packets::mend_transport(want);
    EXPECT_EQ(sent, want);
    EXPECT_EQ(counts(11), "1 0 0 2");
    EXPECT_EQ(tcp(ACK, 40000), NOWHERE) << "the connection is forgotten";
    EXPECT_NE(tcp(SYN, 40000), 11) << "and begins anew elsewhere";
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

TEST_F(ConnectionTest, ForgetsConnectionsOfARemovedServer)
{
    for (std::uint16_t sport = 1; sport <= 600; sport++) {
        tcp(SYN, sport);
        tcp(sport % 2 != 0 ? ACK : 0, sport);
        tcp(sport % 5 == 0 ? FIN : 0, sport);
    }
    EXPECT_EQ(tcp(0, 1), 11);
    EXPECT_EQ(tcp(0, 2), 12);
    ASSERT_ADDED(rm_server(C, 80, address(11)));
    EXPECT_EQ(tcp(ACK, 1), NOWHERE);
    EXPECT_EQ(tcp(0, 2), 12);
    records::check_port(port_object(80));
    tick(5);
    EXPECT_EQ(tcp(ACK, 1), NOWHERE);
    EXPECT_NE(tcp(SYN, 1), NOWHERE);
    // The same address again is another server.
    ASSERT_ADDED(make_server(80, 11));
    EXPECT_EQ(counts(11), "0 0 0 0");
}

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

TEST_F(AffinityTest, RefusesAPartnerThatDoesNotFit)
{
    ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_AFFINITY));
    const std::int64_t blocks = fake::live_allocations();
    EXPECT_EQ(make_port(443, LBSEL_ALGORIGHM_AFFINITY, 81), LBCMD_RC_FAILURE);
    EXPECT_EQ(make_port(443, LBSEL_ALGORIGHM_CONN_AFFIN, 80), LBCMD_RC_FAILURE);
    EXPECT_EQ(make_port(443, LBSEL_ALGORIGHM_CONNECTION, 80), LBCMD_RC_FAILURE);
    EXPECT_EQ(fake::live_allocations(), blocks);
}

TEST_F(AffinityTest, CountsThePortsThatShareATable)
{
    ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_AFFINITY));
    EXPECT_EQ(table_of(80)->refcount, 0);
    for (lb_u16_t number = 1000; number < 1255; number++) {
        ASSERT_ADDED(make_port(number, LBSEL_ALGORIGHM_AFFINITY, 80));
    }
    EXPECT_EQ(table_of(80)->refcount, 255);
    EXPECT_EQ(make_port(2000, LBSEL_ALGORIGHM_AFFINITY, 80), LBCMD_RC_FAILURE);
    ASSERT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS); // the others keep it
    for (lb_u16_t number = 1000; number < 1254; number++) {
        ASSERT_EQ(rm_port(C, number), LBCMD_RC_SUCCESS);
    }
    tick(5);
    EXPECT_EQ(table_of(1254)->refcount, 0);
}

// A port that joined a table and then fails must not take the table along.
TEST_F(AffinityTest, GivesItsTableBackWhenThePortFails)
{
    make(LBSEL_ALGORIGHM_AFFINITY);
    EXPECT_EQ(at80("10.9.0.1"), 11);
    for (int n = 1; n <= 3; n++) { // the server set's, the rules' and the servers' list
        expect_leaves_nothing(fake::op::mutex_init, n,
                              [this] { return make_port(443, LBSEL_ALGORIGHM_AFFINITY, 80); });
        EXPECT_EQ(table_of(80)->refcount, 0);
    }
    EXPECT_EQ(at80("10.9.0.1"), 11);
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

// Forwarding asks for a connection's record: it must be able to tell.
TEST_F(AffinityTest, TellsWhatKindOfRecordAPacketCarries)
{
    const struct {
        lb_u8_t algorithm;
        lb_u32_t sticky;
        lbpbuf_selrecord_e kind;
    } rows[] = {
        {LBSEL_ALGORIGHM_HASH, 1, LBPBUF_SELRECORD_NONE},
        {LBSEL_ALGORIGHM_AFFINITY, 1, LBPBUF_SELRECORD_AFFINITY},
        {LBSEL_ALGORIGHM_AFFINITY, 0, LBPBUF_SELRECORD_NONE},
        {LBSEL_ALGORIGHM_CONN_AFFIN, 1, LBPBUF_SELRECORD_CONNECTION},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(+row.algorithm);
        ASSERT_ADDED(make_port(80, row.algorithm));
        ASSERT_ADDED(make_server(80, 11, 1, row.sticky));
        lbpbuf_obj_t pkt{};
        pkt.port = port_object(80);
        pkt.cluster = pkt.port->parent;
        pkt.stats = &lbexecutor->getable.ipv4stats;
        pkt.pseudotcpflags = SYN;
        pkt._select_prv.sel_clientip = stack::ip("10.9.0.1");
        {
            const lb_grace_inside inside;
            EXPECT_EQ(selectfunc[row.algorithm].choose(&pkt), server_object(11));
        }
        EXPECT_EQ(pkt._select_prv.selrecordkind, row.kind);
        EXPECT_EQ(pkt._select_prv.selrecord != nullptr, row.kind != LBPBUF_SELRECORD_NONE);
        remove_port(80, {11});
    }
}

// The forwarder must not take one kind of record for the other.
TEST_F(AffinityTest, CountsAnErrorWhereThePortHasNoTable)
{
    constexpr lb_u8_t HASH = LBSEL_ALGORIGHM_HASH, CONNECTION = LBSEL_ALGORIGHM_CONNECTION;
    constexpr lb_u8_t AFFINITY = LBSEL_ALGORIGHM_AFFINITY, BOTH = LBSEL_ALGORIGHM_CONN_AFFIN;
    const struct {
        lb_u8_t tcp;
        bool served;
        std::vector<lb_u8_t> udp;
    } rows[] = {
        {HASH, false, {CONNECTION, AFFINITY, BOTH}},
        {CONNECTION, false, {AFFINITY, BOTH}},
        {AFFINITY, false, {CONNECTION, BOTH}},
        {BOTH, true, {CONNECTION, AFFINITY, BOTH}},
        {CONNECTION, true, {HASH}},
    };
    for (const auto &row : rows) {
        for (const lb_u8_t udpalgorithm : row.udp) {
            SCOPED_TRACE(std::to_string(row.tcp) + " " + std::to_string(udpalgorithm));
            ASSERT_ADDED(make_port(80, row.tcp, 0, udpalgorithm));
            ASSERT_ADDED(make_server(80, 11));
            EXPECT_EQ(udp(), row.served ? 11 : NOWHERE);
            EXPECT_EQ(drops(), row.served ? "0 0" : "0 1");
            remove_port(80, {11});
        }
    }
}

} // namespace
