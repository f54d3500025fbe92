// Fragmented datagrams through the whole stack: in whatever order their fragments come, each goes
// to one server whole and once; what waits in vain is given up in time, and never takes more memory
// than there is for it.
#include "lb_fragment.h"
#include "lb_srvset.h"

#include <algorithm>

#include "datagrams.h"
#include "stack_fixture.h"

namespace
{

using datagrams::whole;
using packets::bytes;

constexpr const char *C = "10.0.0.100";
constexpr std::uint16_t ID = 0x1234;

class FragmentTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(add_cluster(C));
        ASSERT_ADDED(add_port(C, 80)); // UDP takes turns between the servers
        for (const std::uint8_t last : {11, 12}) {
            const std::string server = "10.0.0." + std::to_string(last);
            ASSERT_ADDED(add_server(C, 80, server));
            fake::receive(packets::arp_reply(server, last));
        }
        (void)fake::take_sent();
        set_executor_log_mask(LB_LOG_FAILURE | LB_LOG_FORWARDED | LB_LOG_DISCARDED);
    }
    void TearDown() override
    {
        stop_stack();
        EXPECT_EQ(lbfrag_heldbytes(), 0U);
        lbfrag_setbudget(LBFRAG_BUDGET);
        StackTest::TearDown();
    }

    // Receives the frames, and puts together what was sent to the servers.
    datagrams::receiver send_all(const std::vector<bytes> &frames)
    {
        for (const bytes &frame : frames) {
            const int rc = worker_.receive(frame);
            EXPECT_TRUE(rc == LB_PACKETRC_CONSUMED || rc == LB_PACKETRC_HELD) << rc;
        }
        datagrams::receiver servers;
        servers.take(fake::take_sent());
        return servers;
    }
    lb_u32_t discarded() { return get_executor().getable.ipv4stats.discard; }

    fake::worker worker_;
};

TEST_F(FragmentTest, ComeWholeAtOneServerInAnyOrder)
{
    const struct {
        const char *name;
        std::vector<int> order;
        int held;
    } rows[] = {
        {"in order", {0, 1, 2, 3, 4, 5}, 0},
        {"reversed", {5, 4, 3, 2, 1, 0}, 5},
        {"last first", {5, 0, 1, 2, 3, 4}, 1},
        {"first last", {1, 2, 3, 4, 5, 0}, 5},
        {"first in the middle", {4, 2, 0, 5, 1, 3}, 2},
    };
    std::uint16_t id = ID;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fake::log_clear();
        const bytes datagram = whole("10.0.0.50", ++id);
        const std::vector<bytes> parts = packets::fragments(datagram);
        ASSERT_EQ(parts.size(), row.order.size());
        std::vector<bytes> frames;
        for (const int i : row.order) {
            frames.push_back(parts[static_cast<std::size_t>(i)]);
        }
        EXPECT_TRUE(send_all(frames).has(datagram));
        EXPECT_EQ(fake::log_count("forward-saved-frag"), row.held);
        EXPECT_EQ(fake::log_count("frag-fwd"), 5 - row.held);
        EXPECT_EQ(fake::held_frames(), 0);
        EXPECT_EQ(lbfrag_heldbytes(), 0U);
    }
    EXPECT_EQ(discarded(), 0U);
    EXPECT_EQ(fake::pullups(), 0U) << "nothing was missing";
}

TEST_F(FragmentTest, HundredsWaitForOneFirst)
{
    const bytes datagram = whole("10.0.0.50", ID, 7200);
    std::vector<bytes> frames = packets::fragments(datagram, 44);
    ASSERT_GT(frames.size(), 2U * LB_SNAPSHOT_MAX);
    std::reverse(frames.begin(), frames.end());
    EXPECT_TRUE(send_all(frames).has(datagram));
    EXPECT_EQ(fake::held_frames(), 0);
}

TEST_F(FragmentTest, AreGivenUpAfterFourSeconds)
{
    const bytes datagram = whole("10.0.0.50", ID);
    const std::vector<bytes> parts = packets::fragments(datagram);
    (void)send_all({parts.begin() + 1, parts.end()});
    tick(4);
    EXPECT_EQ(fake::held_frames(), 5) << "not older than four seconds";
    tick_once();
    EXPECT_EQ(fake::held_frames(), 0);
    EXPECT_EQ(lbfrag_heldbytes(), 0U);
    EXPECT_EQ(send_all({parts[0]}).pieces(), 1U);
    tick(5);
    EXPECT_EQ(send_all({parts[1]}).pieces(), 0U) << "what the first registered has gone too";
    EXPECT_EQ(fake::held_frames(), 1);
    // What the clock leaves in the future starts anew.
    fake::advance_s(-3600);
    tick(5);
    EXPECT_EQ(fake::held_frames(), 0);
}

TEST_F(FragmentTest, AreGivenUpUnderSteadyTraffic)
{
    std::int64_t after10s = 0;
    for (int n = 0; n < 60; n++) {
        const auto id = static_cast<std::uint16_t>(n);
        std::vector<bytes> frames = packets::fragments(whole("10.0.0.50", id));
        const std::vector<bytes> firstless = packets::fragments(whole("10.0.0.51", id));
        frames.push_back(firstless.back());
        (void)send_all(frames);
        tick_once();
        EXPECT_LE(fake::held_frames(), 9);
        if (n == 20) {
            after10s = fake::live_allocations();
        }
    }
    EXPECT_EQ(fake::held_frames(), 8);
    EXPECT_EQ(fake::live_allocations(), after10s) << "records are used again";
}

TEST_F(FragmentTest, NeverTakeMoreThanTheBudget)
{
    constexpr int FRAMES = 10;
    lbfrag_setbudget(FRAMES * LBFRAG_HELDCHARGE + 1);
    fake::log_clear();
    for (int n = 0; n < 200; n++) {
        const std::string src = "10.7.0." + std::to_string(n);
        (void)send_all({packets::fragments(whole(src, static_cast<std::uint16_t>(n)))[1]});
    }
    EXPECT_EQ(fake::held_frames(), FRAMES);
    EXPECT_EQ(discarded(), 200U - FRAMES);
    EXPECT_EQ(get_cluster(C).getable.ipstats.discard, 200U - FRAMES);
    EXPECT_EQ(fake::log_count("frag-discard-norecord"), 200 - FRAMES);
    EXPECT_EQ(fake::log_count("frag rec alloc failure"), 200 - FRAMES);

    const bytes datagram = whole("10.0.0.50", ID);
    std::vector<bytes> frames = packets::fragments(datagram);
    EXPECT_TRUE(send_all(frames).has(datagram)) << "what needs no holding gets through";
    tick(5);
    EXPECT_EQ(lbfrag_heldbytes(), 0U);
    const bytes later = whole("10.0.0.50", ID + 1);
    frames = packets::fragments(later);
    std::reverse(frames.begin(), frames.end());
    EXPECT_TRUE(send_all(frames).has(later));
}

TEST_F(FragmentTest, WithoutMemoryAreDroppedAndTheFirstGoesAlone)
{
    const std::vector<bytes> parts = packets::fragments(whole("10.0.0.50", ID));
    const lb_u32_t before = discarded();
    const bytes ordinary = whole("10.0.0.50", ID, 32);
    (void)worker_.receive(ordinary); // leaves a packet object at hand
    fake::fail(fake::op::alloc, 1);
    EXPECT_EQ(worker_.receive(parts[1]), LB_PACKETRC_CONSUMED);
    EXPECT_EQ(discarded(), before + 1);
    EXPECT_EQ(lbfrag_heldbytes(), 0U);
    EXPECT_EQ(worker_.receive(parts[2]), LB_PACKETRC_HELD);
    (void)worker_.receive(ordinary);
    (void)fake::take_sent();
    fake::fail(fake::op::alloc, 1);
    EXPECT_EQ(send_all({parts[0]}).pieces(), 1U) << "the first alone";
    EXPECT_EQ(fake::held_frames(), 1);
    EXPECT_EQ(fake::log_count("frag rec alloc failure"), 2);
    tick(5);
    EXPECT_EQ(fake::held_frames(), 0);
}

TEST_F(FragmentTest, FollowTheLastFirstFragment)
{
    const std::vector<bytes> parts = packets::fragments(whole("10.0.0.50", ID));
    (void)send_all({parts[0]});
    const std::int64_t allocations = fake::live_allocations();
    (void)worker_.receive(parts[0]); // the servers take turns
    EXPECT_EQ(fake::live_allocations(), allocations) << "one record for one key";
    const packets::mac server = packets::mac_at(fake::take_sent().at(0).bytes, 0);
    tick(4);
    (void)worker_.receive(parts[1]);
    EXPECT_EQ(packets::mac_at(fake::take_sent().at(0).bytes, 0), server);
}

TEST_F(FragmentTest, WhoseServerOrPortHasGoneAreDropped)
{
    const std::vector<bytes> parts = packets::fragments(whole("10.0.0.50", ID));
    (void)send_all({parts[0]});
    const lb_u32_t before = discarded();
    for (const char *server : {"10.0.0.11", "10.0.0.12"}) {
        ASSERT_ADDED(rm_server(C, 80, server));
    }
    fake::log_clear();
    EXPECT_EQ(send_all({parts[1]}).pieces(), 0U);
    EXPECT_TRUE(fake::log_contains("DISCARD frag-discard-noserver"));
    EXPECT_TRUE(fake::log_contains("no server found for fragment"));
    EXPECT_EQ(get_port(C, 80).getable.ipstats.discard, 1U);
    ASSERT_ADDED(rm_port(C, 80));
    EXPECT_EQ(send_all({parts[2]}).pieces(), 0U);
    EXPECT_TRUE(fake::log_contains("DISCARD frag-discard-noport"));
    EXPECT_TRUE(fake::log_contains("no port found for fragment"));
    EXPECT_EQ(get_cluster(C).getable.ipstats.discard, 2U);
    EXPECT_EQ(discarded(), before + 2);
    EXPECT_EQ(fake::held_frames(), 0);
}

// Held fragments and a registered first one; the end of the test proves that the cluster frees all.
TEST_F(FragmentTest, GoWithTheirCluster)
{
    const std::vector<bytes> parts = packets::fragments(whole("10.0.0.50", ID));
    const std::vector<bytes> others = packets::fragments(whole("10.0.0.51", ID));
    (void)send_all({parts[0], others[1], others[2]});
    EXPECT_EQ(fake::held_frames(), 2);
}

} // namespace
