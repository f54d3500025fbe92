// The neighbour table: its state machine by table, its cadence on the fake clock, what it learns
// and answers, and routes that appear and go away.
#include "lb_neigh.h"

#include <algorithm>

#include "packets.h"
#include "stack_fixture.h"

namespace
{

using packets::bytes;

constexpr packets::mac OWN = {2, 0, 0, 0, 0, 1};
constexpr packets::mac PEER = {2, 0, 0, 0, 0, 0x11};
constexpr const char *PEER_IP = "10.0.0.11";

class NeighTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
    }

    void TearDown() override
    {
        for (const std::string &ip : added_) {
            remove(ip);
        }
        StackTest::TearDown();
    }

    lbneigh_obj_t *add(const std::string &ip = PEER_IP)
    {
        const lbip_addr_t addr = stack::ip(ip);
        const lb_grace_inside inside;
        lbneigh_obj_t *entry = lbneigh_addnode(&addr);
        if (entry != nullptr) {
            added_.push_back(ip);
        }
        return entry;
    }
    static void remove(const std::string &ip)
    {
        const lbip_addr_t addr = stack::ip(ip);
        lbneigh_rmnode(&addr);
    }
    static lbneigh_obj_t *find(const std::string &ip = PEER_IP)
    {
        const lbip_addr_t addr = stack::ip(ip);
        return lbneigh_lookup(&addr);
    }

    static int answer(packets::mac hw = PEER, const std::string &ip = PEER_IP)
    {
        return fake::receive(packets::build(packets::arp{
            .op = 2, .srchw = hw, .srcip = ip, .tgthw = OWN, .tgtip = "10.0.0.1", .ethdst = OWN}));
    }

    // The queries sent since the last call, as "b" (broadcast) or "u" (unicast to the peer).
    static std::string queries()
    {
        std::string out;
        for (const auto &frame : fake::take_sent()) {
            packets::arp arp;
            EXPECT_TRUE(packets::parse(frame.bytes, arp));
            EXPECT_EQ(arp.op, 1);
            EXPECT_EQ(arp.srchw, OWN);
            EXPECT_EQ(arp.srcip, "10.0.0.1");
            EXPECT_EQ(arp.tgthw, packets::mac{});
            out += arp.ethdst == packets::BROADCAST ? 'b' : arp.ethdst == PEER ? 'u' : '?';
        }
        return out;
    }

    // Ticks for a while and tells which query went out after how many half seconds.
    static std::string cadence(int seconds)
    {
        std::string out;
        for (int half = 1; half <= 2 * seconds; half++) {
            tick_once();
            for (const char query : queries()) {
                out += std::to_string(half / 2) + (half % 2 != 0 ? ".5" : "") + query + " ";
            }
        }
        return out;
    }

    std::vector<std::string> added_;
};

// --- State machine -------------------------------------------------------------------------------

constexpr int OK = LBNEIGH_STATE_RXOK, U0 = LBNEIGH_STATE_TXU0, B1 = LBNEIGH_STATE_TXB1,
              B2 = LBNEIGH_STATE_TXB2, B3 = LBNEIGH_STATE_TXB3, DEAD = LBNEIGH_STATE_DEAD,
              NOIF = LBNEIGH_STATEMOD_NOIFACE, ERR = LBNEIGH_STATEMOD_ERROR,
              DOWN = LBNEIGH_STATEMOD_SERVERSDOWN;

TEST_F(NeighTest, Transitions)
{
    lbneigh_obj_t *entry = add();
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(answer(), LB_PACKETRC_INTACT);
    (void)queries();
    const lb_timeval_t now = fake::now();
    const struct {
        const char *name;
        int old, vector;
        bool ripe;
        int next;
        const char *sends;
    } rows[] = {
        {"not ripe", OK, LBNEIGH_VECTOR_TIMER, false, OK, ""},
        {"verify", OK, LBNEIGH_VECTOR_TIMER, true, U0, "u"},
        {"first broadcast", U0, LBNEIGH_VECTOR_TIMER, true, B1, "b"},
        {"second", B1, LBNEIGH_VECTOR_TIMER, true, B2, "b"},
        {"third", B2, LBNEIGH_VECTOR_TIMER, true, B3, "b"},
        {"dies", B3, LBNEIGH_VECTOR_TIMER, true, DEAD | DOWN, "b"},
        {"stays dead", DEAD | DOWN, LBNEIGH_VECTOR_TIMER, true, DEAD | DOWN, "b"},
        {"unused state never ripens", 7, LBNEIGH_VECTOR_TIMER, true, 7, ""},
        {"answer", B3, LBNEIGH_VECTOR_RX, false, OK, ""},
        {"answer of the dead", DEAD | DOWN, LBNEIGH_VECTOR_RX, false, OK, ""},
        {"answer without handle", ERR | U0, LBNEIGH_VECTOR_RX, false, ERR | U0, ""},
        {"answer without interface", NOIF | U0, LBNEIGH_VECTOR_RX, false, NOIF | U0, ""},
        {"no handle", OK, LBNEIGH_VECTOR_TXERR, false, ERR | U0, ""},
        {"no handle for the dead", DEAD | DOWN, LBNEIGH_VECTOR_TXERR, false, ERR | U0, ""},
        {"no interface", B2, LBNEIGH_VECTOR_NOIFACE, false, NOIF | U0, ""},
        {"handle again", ERR | NOIF | B2, LBNEIGH_VECTOR_TXOK, false, B2, ""},
        {"handle again keeps the mark", DEAD | DOWN | ERR, LBNEIGH_VECTOR_TXOK, false, DEAD | DOWN,
         ""},
        {"interface again", ERR | NOIF | U0, LBNEIGH_VECTOR_HAVEIFACE, false, ERR | U0, ""},
        {"unknown vector", ERR | U0, 99, false, ERR, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const lb_timeval_t then = row.ripe ? lb_timeval_t{now.secs - 100, 0} : now;
        lb_poke(entry->lastrx, then);
        lb_poke(entry->lasttx, then);
        lb_poke(entry->state, static_cast<lb_u8_t>(row.old));
        _lbneigh_nextstate(entry, row.vector);
        EXPECT_EQ(int(lb_peek(entry->state)), row.next);
        EXPECT_EQ(queries(), row.sends);
    }
    lb_poke(entry->Collocated, 1);
    for (int vector = 0; vector < 8; vector++) {
        lb_poke(entry->state, static_cast<lb_u8_t>(ERR | DEAD));
        _lbneigh_nextstate(entry, vector);
        EXPECT_EQ(lb_peek(entry->state), OK) << "collocated, vector " << vector;
    }
}

// --- Cadence -------------------------------------------------------------------------------------

TEST_F(NeighTest, SilentNeighbourIsVerifiedQueriedDeclaredDeadAndComesBack)
{
    lbneigh_obj_t *entry = add();
    EXPECT_EQ(queries(), "b");
    answer();
    EXPECT_EQ(lb_peek(entry->state), OK);
    EXPECT_EQ(cadence(80), "10u 11b 12b 13b 14b 44b 74b ");
    EXPECT_EQ(lb_peek(entry->state), DEAD | DOWN);
    answer();
    EXPECT_EQ(lb_peek(entry->state), OK);
    EXPECT_EQ(cadence(11), "9u 10b 11b ") << "verified 15 s after the last query";
}

TEST_F(NeighTest, OwnQueriesOfANeighbourCountAsAnswers)
{
    lbneigh_obj_t *entry = add();
    answer();
    (void)queries();
    std::string seen;
    for (int round = 0; round < 6; round++) {
        seen += cadence(5) + "| ";
        const int rc = fake::receive(
            packets::build(packets::arp{.srchw = PEER, .srcip = PEER_IP, .tgtip = "10.0.0.77"}));
        EXPECT_EQ(rc, LB_PACKETRC_INTACT) << "a question to somebody else";
    }
    EXPECT_EQ(seen, "| | 5u | | | 5u | ") << "verified only 15 s after the last query";
    EXPECT_EQ(lb_peek(entry->state), OK);
}

TEST_F(NeighTest, ClockStepsNeitherHangNorKill)
{
    lbneigh_obj_t *entry = add();
    answer();
    (void)queries();
    fake::advance_s(-100000);
    EXPECT_EQ(cadence(12), "10.5u 11.5b ")
        << "ten seconds after the tick that noticed the step back";
    answer();
    fake::advance_s(500000);
    EXPECT_EQ(cadence(1), "0.5u ");
    answer();
    EXPECT_EQ(lb_peek(entry->state), OK);
    EXPECT_EQ(cadence(10), "10u ");
}

TEST_F(NeighTest, EveryRipeEntryIsVisitedOnceATick)
{
    for (int i = 0; i < 130; i++) {
        ASSERT_NE(add("192.168.0." + std::to_string(i + 1)), nullptr);
    }
    fake::log_clear();
    tick_once();
    EXPECT_EQ(fake::log_count("no interface for ip, hope for resolution later"), 130);
    tick_once();
    EXPECT_EQ(fake::log_count("no interface for ip, hope for resolution later"), 260);
}

// --- Learning ------------------------------------------------------------------------------------

// --- Routes --------------------------------------------------------------------------------------

TEST_F(NeighTest, NoInterfaceAndThenOneAppears)
{
    lbneigh_obj_t *entry = add("10.9.0.11");
    EXPECT_EQ(queries(), "");
    EXPECT_EQ(lb_peek(entry->state), NOIF | U0);
    tick(2);
    answer(PEER, "10.9.0.11");
    EXPECT_EQ(lb_peek(entry->state), NOIF | U0) << "answers count for nothing without a way";
    EXPECT_EQ(queries(), "");
    EXPECT_EQ(lb_peekptr(entry->route), nullptr);
    ASSERT_ADDED(add_interface("eth1", stack::ethernet(2)));
    ASSERT_ADDED(add_ifaddr("eth1", "10.9.0.1/24"));
    tick_once();
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].ifname, "eth1");
    EXPECT_EQ(packets::ip_at(sent[0].bytes, packets::ETH + 14), "10.9.0.1");
    answer(PEER, "10.9.0.11");
    EXPECT_EQ(lb_peek(entry->state), OK);
    ASSERT_NE(lb_peekptr(entry->route), nullptr);
}

TEST_F(NeighTest, ARouteIsReplacedOnlyWhenItDiffers)
{
    lbneigh_obj_t *entry = add();
    answer();
    const lbneigh_route_t *first = lb_peekptr(entry->route);
    tick(11);
    answer();
    EXPECT_EQ(lb_peekptr(entry->route), first);
    fake::set_ifindex("eth0", 77); // the host made the interface anew
    tick(11);
    answer();
    EXPECT_NE(lb_peekptr(entry->route), first);
    (void)fake::take_sent();
    tick(10);
    const auto sent = fake::take_sent();
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(sent[0].ifindex, 77);
}

TEST_F(NeighTest, AHandleThatCannotBeHadIsAskedForEverySecond)
{
    fake::set_interface_unknown("eth0");
    lbneigh_obj_t *entry = add();
    EXPECT_EQ(lb_peek(entry->state), ERR | U0);
    answer();
    EXPECT_EQ(lb_peek(entry->state), ERR | U0);
    fake::log_clear();
    EXPECT_EQ(cadence(3), "");
    EXPECT_EQ(fake::log_count("error getting transmit handle for eth0"), 3);
    fake::set_interface_unknown("eth0", false);
    EXPECT_EQ(cadence(1), "1b ");
    answer();
    EXPECT_EQ(lb_peek(entry->state), OK);
}

TEST_F(NeighTest, NothingIsAskedOnAnInterfaceWithoutArp)
{
    lbifin_setable_t silent = stack::ethernet(2);
    silent.arp = LBIFIN_YN_NO;
    lbifin_setable_t ppp = stack::ethernet(3);
    ppp.isPTP = LBIFIN_YN_YES;
    ASSERT_ADDED(add_interface("noarp", silent));
    ASSERT_ADDED(add_ifaddr("noarp", "10.8.0.1/24"));
    ASSERT_ADDED(add_interface("ppp", ppp));
    ASSERT_ADDED(add_ifaddr("ppp", "10.7.0.1/32", "10.7.0.2"));
    for (const char *ip : {"10.8.0.11", "10.7.0.2"}) {
        lbneigh_obj_t *entry = add(ip);
        tick(40);
        EXPECT_EQ(lb_peek(entry->state), OK) << ip;
        ASSERT_NE(lb_peekptr(entry->route), nullptr) << ip;
    }
    EXPECT_EQ(packets::to_text({find("10.7.0.2")->route->srcip.nboaddr.v4[0], 7, 0, 1}),
              "10.7.0.1");
    EXPECT_EQ(queries(), "");
}

// --- Answering and announcing --------------------------------------------------------------------

TEST_F(NeighTest, AClusterIsAnnouncedAndAnsweredForOnItsInterface)
{
    lbifin_setable_t silent = stack::ethernet(2);
    silent.arp = LBIFIN_YN_NO;
    ASSERT_ADDED(add_interface("noarp", silent));
    ASSERT_ADDED(add_ifaddr("noarp", "10.8.0.1/24"));
    for (const char *cluster : {"10.0.0.100", "10.8.0.100", "10.6.0.100"}) {
        ASSERT_ADDED(add_cluster(cluster));
    }
    const auto announced = fake::take_sent(); // of three, the one whose interface does ARP
    ASSERT_EQ(announced.size(), 1U);
    EXPECT_EQ(announced[0].bytes, packets::build(packets::arp{
                                      .srchw = OWN, .srcip = "10.0.0.100", .tgtip = "10.0.0.100"}));
    const struct {
        const char *name;
        packets::arp request;
        bool answered;
    } rows[] = {
        {"a probe for it", {.srcip = "0.0.0.0", .tgtip = "10.0.0.100"}, true},
        {"asked directly", {.tgtip = "10.0.0.100", .ethdst = OWN}, true},
        {"a cluster on an interface without ARP", {.tgtip = "10.8.0.100"}, false},
        {"a cluster that no interface carries", {.tgtip = "10.6.0.100"}, false},
        {"an asker with a group address",
         {.srchw = packets::BROADCAST, .tgtip = "10.0.0.100"},
         false},
        {"a reply, not a request", {.op = 2, .tgtip = "10.0.0.100"}, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(fake::receive(packets::build(row.request)),
                  row.answered ? LB_PACKETRC_CONSUMED : LB_PACKETRC_INTACT);
        const auto sent = fake::take_sent();
        ASSERT_EQ(sent.size(), row.answered ? 1U : 0U);
        if (row.answered) {
            const packets::arp expected{.op = 2,
                                        .srchw = OWN,
                                        .srcip = row.request.tgtip,
                                        .tgthw = row.request.srchw,
                                        .tgtip = row.request.srcip,
                                        .ethdst = row.request.srchw};
            EXPECT_EQ(sent[0].bytes, packets::build(expected));
            EXPECT_EQ(sent[0].ifname, "eth0");
        }
    }
    fake::set_interface_unknown("eth0");
    ASSERT_ADDED(add_cluster("10.0.0.101"));
    EXPECT_EQ(fake::receive(packets::build(packets::arp{})), LB_PACKETRC_INTACT)
        << "no handle to answer on";
}

} // namespace
