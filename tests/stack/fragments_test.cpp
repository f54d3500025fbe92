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
using namespace packets;

constexpr const char *C = "10.0.0.100";
constexpr std::uint16_t ID = 0x1234;

class FragmentTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        make_eth0();
        make_service(C, {"10.0.0.11", "10.0.0.12"}); // UDP takes turns between the servers
        make_service("2001:db8::100", {"2001:db8::11", "2001:db8::12"});
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
    // The pieces of a client's datagram, and how many of a list of frames reach a server.
    static std::vector<bytes> parts(const std::string &src = "10.0.0.50", std::uint16_t id = ID)
    {
        return fragments(whole(src, id));
    }
    std::size_t sent_of(const std::vector<bytes> &frames) { return send_all(frames).pieces(); }
    lb_u32_t discarded() { return get_executor().getable.ipv4stats.discard; }

    fake::worker worker_;
};

TEST_F(FragmentTest, ComeWholeAtOneServerInAnyOrder)
{
    const struct {
        const char *name;
        std::vector<std::size_t> order;
        int held;
    } rows[] = {
        {"in order", {0, 1, 2, 3, 4, 5}, 0},
        {"reversed", {5, 4, 3, 2, 1, 0}, 5},
        {"first in the middle", {4, 2, 0, 5, 1, 3}, 2},
    };
    std::uint16_t id = ID;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fake::log_clear();
        const bytes datagram = whole("10.0.0.50", ++id);
        const std::vector<bytes> inorder = fragments(datagram);
        ASSERT_EQ(inorder.size(), row.order.size());
        std::vector<bytes> frames;
        for (const std::size_t i : row.order) {
            frames.push_back(inorder[i]);
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
    std::vector<bytes> frames = fragments(datagram, 44);
    ASSERT_GT(frames.size(), 2U * LB_SNAPSHOT_MAX);
    std::reverse(frames.begin(), frames.end());
    EXPECT_TRUE(send_all(frames).has(datagram));
    EXPECT_EQ(fake::held_frames(), 0);
}

// Two of one client, whose identifications differ in the upper half alone.
TEST_F(FragmentTest, OfIPv6AreKnownByTheirWholeIdentification)
{
    constexpr std::uint32_t IDS[] = {0x10007, 0x20007};
    const bytes datagram = whole("2001:db8::50", ID);
    std::vector<bytes> frames;
    for (const std::uint32_t id : IDS) {
        const std::vector<bytes> more = fragments(datagram, 1500, id);
        frames.insert(frames.end(), more.begin(), more.end());
    }
    std::reverse(frames.begin(), frames.end());
    const datagrams::receiver servers = send_all(frames);
    for (const std::uint32_t id : IDS) {
        EXPECT_TRUE(servers.has(datagram, id)) << id;
    }
}

TEST_F(FragmentTest, AreGivenUpAfterFourSeconds)
{
    const std::vector<bytes> p = parts();
    EXPECT_EQ(sent_of({p[1], p[2], p[3], p[4], p[5]}), 0U);
    tick(4);
    EXPECT_EQ(fake::held_frames(), 5) << "not older than four seconds";
    tick_once();
    EXPECT_EQ(fake::held_frames(), 0);
    EXPECT_EQ(lbfrag_heldbytes(), 0U);
    EXPECT_EQ(sent_of({p[0]}), 1U);
    tick(5);
    EXPECT_EQ(sent_of({p[1]}), 0U) << "what the first registered has gone too";
    EXPECT_EQ(fake::held_frames(), 1);
    const std::int64_t blocks = fake::live_allocations();
    // What the clock leaves in the future starts anew.
    fake::advance_s(-3600);
    tick(5);
    EXPECT_EQ(fake::held_frames(), 0);
    EXPECT_EQ(sent_of({p[1]}), 0U);
    EXPECT_EQ(fake::live_allocations(), blocks) << "records are used again";
    EXPECT_EQ(sent_of({parts("10.0.0.51")[0]}), 1U);
    // The end of the test proves that the cluster frees what is held and registered now.
}

TEST_F(FragmentTest, NeverTakeMoreThanTheBudget)
{
    constexpr int FRAMES = 10;
    lbfrag_setbudget(FRAMES * LBFRAG_HELDCHARGE + 1);
    for (std::uint16_t n = 0; n < 200; n++) {
        EXPECT_EQ(sent_of({parts("10.7.0." + std::to_string(n), n)[1]}), 0U);
    }
    EXPECT_EQ(fake::held_frames(), FRAMES);
    EXPECT_EQ(discarded(), 200U - FRAMES);
    EXPECT_EQ(get_cluster(C).getable.ipstats.discard, 200U - FRAMES);
    EXPECT_EQ(fake::log_count("frag-discard-norecord"), 200 - FRAMES);

    EXPECT_TRUE(send_all(parts()).has(whole("10.0.0.50", ID))) << "what needs no holding passes";
    tick(5);
    EXPECT_EQ(lbfrag_heldbytes(), 0U);
    std::vector<bytes> frames = parts("10.0.0.50", ID + 1);
    std::reverse(frames.begin(), frames.end());
    EXPECT_TRUE(send_all(frames).has(whole("10.0.0.50", ID + 1)));
}

TEST_F(FragmentTest, WithoutMemoryAreDroppedAndTheFirstGoesAlone)
{
    const std::vector<bytes> p = parts();
    const bytes ordinary = whole("10.0.0.50", ID, 32);
    EXPECT_EQ(sent_of({ordinary}), 1U); // leaves a packet object at hand
    fake::fail(fake::op::alloc, 1);
    EXPECT_EQ(worker_.receive(p[1]), LB_PACKETRC_CONSUMED);
    EXPECT_EQ(discarded(), 1U);
    EXPECT_EQ(lbfrag_heldbytes(), 0U);
    EXPECT_EQ(worker_.receive(p[2]), LB_PACKETRC_HELD);
    EXPECT_EQ(sent_of({ordinary}), 1U);
    fake::fail(fake::op::alloc, 1);
    EXPECT_EQ(sent_of({p[0]}), 1U) << "the first alone";
    EXPECT_EQ(fake::held_frames(), 1);
    tick(5);
    EXPECT_EQ(fake::held_frames(), 0);
}

TEST_F(FragmentTest, FollowTheLastFirstFragmentWhileItsServerIsThere)
{
    const std::vector<bytes> p = parts();
    EXPECT_EQ(sent_of({p[0]}), 1U);
    const std::int64_t allocations = fake::live_allocations();
    (void)worker_.receive(p[0]); // the servers take turns
    EXPECT_EQ(fake::live_allocations(), allocations) << "one record for one key";
    const mac server = mac_at(fake::take_sent().at(0).bytes, 0);
    tick(4);
    (void)worker_.receive(p[1]);
    EXPECT_EQ(mac_at(fake::take_sent().at(0).bytes, 0), server);
    for (const char *each : {"10.0.0.11", "10.0.0.12"}) {
        ASSERT_ADDED(rm_server(C, 80, each));
    }
    EXPECT_EQ(sent_of({p[2]}), 0U);
    EXPECT_TRUE(fake::log_contains("DISCARD frag-discard-noserver"));
    EXPECT_EQ(get_port(C, 80).getable.ipstats.discard, 1U);
    ASSERT_ADDED(rm_port(C, 80));
    EXPECT_EQ(sent_of({p[3]}), 0U);
    EXPECT_TRUE(fake::log_contains("DISCARD frag-discard-noport"));
    EXPECT_EQ(get_cluster(C).getable.ipstats.discard, 2U);
    EXPECT_EQ(discarded(), 2U);
    EXPECT_EQ(fake::held_frames(), 0);
}

} // namespace
