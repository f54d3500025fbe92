// Heartbeats that nobody in his right mind would send, to a node that knows other connections: it
// lives, it forwards, and what it knew of others it still knows.
//
// VELL_FUZZ_HEARTBEATS says how many (100,000 without it), VELL_SEED which.
#include "ha_fixture.h"
#include "mutate.h"

namespace
{

class FuzzHeartbeats : public HaFixture
{
  protected:
    static packets::bytes random_heartbeat(fuzz::rng &random)
    {
        beat b = random_beat(random);
        b.count = random() % 4 == 0 ? static_cast<int>(random() % 256) : -1;
        packets::bytes frame = build(b);
        if (random() % 4 != 0) {
            fuzz::mutate_frame(random, frame);
        }
        for (auto left = random() % 4; left > 0 && frame.size() > HDR; left--) {
            frame[HDR + random() % (frame.size() - HDR)] = static_cast<std::uint8_t>(random());
        }
        // Half of them understood as far as the IP header goes.
        if (random() % 2 == 0 && frame.size() >= HDR) {
            const packets::bytes like = build(beat{});
            std::copy(like.begin(), like.begin() + HDR, frame.begin());
            packets::put16(frame, packets::ETH + 2,
                           static_cast<std::uint16_t>(frame.size() - packets::ETH));
            packets::mend_ip(frame);
        }
        return frame;
    }
};

TEST_F(FuzzHeartbeats, MutatedOnesTouchNobodyElse)
{
    fuzz::rng random(randoms::seed(1));
    ASSERT_ADDED(make_port(443, LBSEL_ALGORIGHM_AFFINITY));
    ASSERT_ADDED(make_port(8443, LBSEL_ALGORIGHM_AFFINITY, 443));
    for (int last = 11; last <= 13; last++) {
        make_everywhere(last);
    }
    ASSERT_ADDED(pair(LBHA_ROLE_PRIMARY, LBHA_TAKEOVERSTRATEGY_AUTOMATIC));
    constexpr const char *OTHER = "172.31.250.77";
    hear(record{.sport = 77, .client = OTHER});
    hear(record{.sport = 78, .server = server_ip(12), .natport = 33333, .client = OTHER});
    fake::core_expected(true);
    set_executor_log_mask(0);
    const std::uint64_t count = randoms::number_from("VELL_FUZZ_HEARTBEATS", 100000);
    std::uint64_t taken = 0;
    int most = 0;
    const auto expect_known = [] {
        EXPECT_EQ(known(77, OTHER), "11 2 0");
        EXPECT_EQ(known(78, OTHER), "12 2 33333");
    };
    for (std::uint64_t i = 0; i < count; i++) {
        const packets::bytes frame = random_heartbeat(random);
        taken += fake::receive(frame) == LB_PACKETRC_CONSUMED ? 1 : 0;
        most = std::max(most, lbll_size(&server_object(11)->sel.active));
        if (i % 500 == 0) {
            lbha_timer_entry(); // both states are seen; records do not age
            (void)fake::take_sent();
        }
        if (i % 5000 == 0) {
            expect_known();
            records::check_port(port_object(443));
        }
    }
    std::printf("%llu of %llu taken, %d records at most, %d impossible states\n",
                static_cast<unsigned long long>(taken), static_cast<unsigned long long>(count),
                most, fake::core_calls());
    EXPECT_GT(taken, count / 2);
    EXPECT_GT(most, 10);
    expect_known();
    EXPECT_TRUE(segment(SYN, 99));
    // Records that lost their port to another keep its number: they go before all is checked.
    for (int last = 11; last <= 13; last++) {
        EXPECT_EQ(rm_server(C, 80, server_ip(last)), LBCMD_RC_SUCCESS);
    }
}

} // namespace
