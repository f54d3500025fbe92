// The neighbour table: its cadence on the fake clock, routes that appear and go away, and what of
// ARP is announced and answered.
#include "lb_neigh.h"

#include "stack_fixture.h"

namespace
{

using namespace packets;

constexpr mac OWN = {2, 0, 0, 0, 0, 1};
constexpr mac PEER = {2, 0, 0, 0, 0, 0x11};
constexpr const char *PEER_IP = "10.0.0.11";

class NeighTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        make_eth0();
    }

    // It goes with the stack.
    static lbneigh_obj_t *add(const std::string &ip = PEER_IP)
    {
        const lbip_addr_t addr = stack::ip(ip);
        const lb_grace_inside inside;
        return lbneigh_addnode(&addr);
    }
    static void answer(const std::string &ip = PEER_IP) { meet(ip, PEER[5]); }

    // The queries sent since the last call, as "b" (broadcast) or "u" (unicast to the peer).
    static std::string queries()
    {
        const auto query = [](const mac &to) {
            return build(arp{.srchw = OWN, .srcip = "10.0.0.1", .tgtip = PEER_IP, .ethdst = to});
        };
        std::string out;
        for (const auto &sent : fake::take_sent()) {
            out += sent.bytes == query(BROADCAST) ? 'b' : sent.bytes == query(PEER) ? 'u' : '?';
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
};

constexpr int OK = LBNEIGH_STATE_RXOK, U0 = LBNEIGH_STATE_TXU0,
              DEAD = LBNEIGH_STATE_DEAD | LBNEIGH_STATEMOD_SERVERSDOWN,
              NOIF = LBNEIGH_STATEMOD_NOIFACE, ERR = LBNEIGH_STATEMOD_ERROR;

// --- Cadence -------------------------------------------------------------------------------------

TEST_F(NeighTest, SilentNeighbourIsVerifiedQueriedDeclaredDeadAndComesBack)
{
    lbneigh_obj_t *entry = add();
    EXPECT_EQ(queries(), "b");
    answer();
    EXPECT_EQ(lb_peek(entry->state), OK);
    EXPECT_EQ(cadence(80), "10u 11b 12b 13b 14b 44b 74b ");
    EXPECT_EQ(lb_peek(entry->state), DEAD);
    answer();
    EXPECT_EQ(lb_peek(entry->state), OK);
    EXPECT_EQ(cadence(11), "9u 10b 11b ") << "verified 15 s after the last query";
}

TEST_F(NeighTest, ClockStepsNeitherHangNorKill)
{
    lbneigh_obj_t *entry = add();
    answer();
    fake::advance_s(-100000);
    EXPECT_EQ(cadence(12), "10.5u 11.5b ")
        << "ten seconds after the tick that noticed the step back";
    answer();
    fake::advance_s(500000);
    EXPECT_EQ(cadence(1), "0.5u ");
    answer();
    EXPECT_EQ(lb_peek(entry->state), OK);
    EXPECT_EQ(cadence(10), "10u ");
    fake::advance_s(-100000);
    EXPECT_EQ(cadence(2), "1.5b ");
}

TEST_F(NeighTest, EveryRipeEntryIsVisitedOnceATick)
{
    for (int i = 0; i < 130; i++) {
        ASSERT_NE(add("192.168.0." + std::to_string(i + 1)), nullptr);
    }
    fake::log_clear();
    tick_once();
    EXPECT_EQ(fake::log_count("no interface for ip, hope for resolution later"), 130);
}

// --- Routes --------------------------------------------------------------------------------------

TEST_F(NeighTest, NoInterfaceAndThenOneAppears)
{
    lbneigh_obj_t *entry = add("10.9.0.11");
    EXPECT_EQ(queries(), "");
    EXPECT_EQ(lb_peek(entry->state), NOIF | U0);
    tick(2);
    answer("10.9.0.11");
    EXPECT_EQ(lb_peek(entry->state), NOIF | U0) << "answers count for nothing without a way";
    EXPECT_EQ(queries(), "");
    EXPECT_EQ(lb_peekptr(entry->route), nullptr);
    ASSERT_ADDED(add_interface("eth1", stack::ethernet(2)));
    ASSERT_ADDED(add_ifaddr("eth1", "10.9.0.1/24"));
    tick_once();
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].ifname, "eth1");
    EXPECT_EQ(ip_at(sent[0].bytes, ETH + 14), "10.9.0.1");
    answer("10.9.0.11");
    EXPECT_EQ(lb_peek(entry->state), OK);
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
    lbneigh_obj_t *entry = add();
    tick(4);
    EXPECT_EQ(lb_peek(entry->state), DEAD);
    (void)queries();
    fake::set_interface_unknown("eth0");
    EXPECT_EQ(cadence(30), "");
    answer();
    EXPECT_EQ(lb_peek(entry->state), ERR | U0) << "unreachable rather than dead or answering";
    fake::log_clear();
    tick(3);
    EXPECT_EQ(fake::log_count("error getting transmit handle for eth0"), 3);
    fake::set_interface_unknown("eth0", false);
    EXPECT_EQ(cadence(1), "1b ");
    answer();
    EXPECT_EQ(lb_peek(entry->state), OK);
}

TEST_F(NeighTest, NothingIsAskedWithoutArpNorOfThisHost)
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
    lbneigh_obj_t *own = add();
    (void)queries();
    lb_poke(own->Collocated, 1);
    tick(40);
    EXPECT_EQ(lb_peek(own->state), OK);
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
    EXPECT_EQ(announced[0].bytes,
              build(arp{.srchw = OWN, .srcip = "10.0.0.100", .tgtip = "10.0.0.100"}));
    const arp request, probe = {.srcip = "0.0.0.0"}, direct = {.ethdst = OWN};
    const bytes frame = build(request);
    bytes padded = frame;
    padded.resize(60); // the smallest Ethernet frame

    const struct {
        const char *name;
        bytes frame;
        const arp *answered = nullptr; // or left to the host
    } rows[] = {
        {"a request", padded, &request},
        {"a probe", build(probe), &probe},
        {"asked directly", build(direct), &direct},
        {"a cluster on an interface without ARP", build(arp{.tgtip = "10.8.0.100"})},
        {"a cluster that no interface carries", build(arp{.tgtip = "10.6.0.100"})},
        {"an asker with a group address", build(arp{.srchw = BROADCAST})},
        {"a reply, not a request", build(arp{.op = 2})},
        {"hardware type 6", with16(frame, ETH, 6)},
        {"for IPv6", with16(frame, ETH + 2, 0x86DD)},
        {"hardware length 5", with16(frame, ETH + 4, 0x0504)},
        {"protocol length 2", with16(frame, ETH + 4, 0x0602)},
        {"lengths beyond the frame", with16(frame, ETH + 4, 0xFFFF)},
        {"a frame that is cut", part(frame, 0, frame.size() - 1)},
        {"operation 256 (bytes swapped)", with16(frame, ETH + 6, 0x0100)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const auto before = get_executor().getable.arpstats;
        if (row.answered == nullptr) {
            expect_left_to_host(row.frame);
        } else {
            const auto sent = sent_for(row.frame);
            ASSERT_EQ(sent.size(), 1U);
            const arp expected{.op = 2,
                               .srchw = OWN,
                               .srcip = row.answered->tgtip,
                               .tgthw = row.answered->srchw,
                               .tgtip = row.answered->srcip,
                               .ethdst = row.answered->srchw};
            EXPECT_EQ(sent[0].bytes, build(expected));
            EXPECT_EQ(sent[0].ifname, "eth0");
        }
        EXPECT_EQ(stack::counted(before, get_executor().getable.arpstats),
                  row.answered != nullptr ? "in gen" : "in");
    }
}

} // namespace
