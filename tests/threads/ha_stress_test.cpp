// A pair's node under everything at once: clients' packets, a partner that sends records of the
// same connections and claims every state, roles that change, takeovers, servers and heartbeats
// that come and go, and ticks. Made for ThreadSanitizer; at the end all is whole and nothing is
// left.
#include <atomic>

#include "ha_fixture.h"
#include "stress.h"

namespace
{

using stress::below;
using stress::rng;

class HaStressTest : public HaFixture
{
  protected:
    void SetUp() override
    {
        HaFixture::SetUp();
        const std::uint64_t seed = stress::number_from("VELL_SEED", std::random_device{}());
        std::printf("VELL_SEED=%llu\n", static_cast<unsigned long long>(seed));
        seed_ = seed;
        fake::log_discard(true);
        fake::count_only(true);
        fake::core_expected(true); // both sides change the same connections
        ASSERT_EQ(set_port(C, 80, [](lbport_setable_t &set) { set.repstrategy = 3; }), // both kinds
                  LBCMD_RC_SUCCESS);
        ASSERT_ADDED(make_port(443, LBSEL_ALGORIGHM_AFFINITY));
        ASSERT_ADDED(make_port(8443, LBSEL_ALGORIGHM_AFFINITY, 443));
        ASSERT_EQ(set_port(C, 443, [](lbport_setable_t &set) { set.repstrategy = 3; }),
                  LBCMD_RC_SUCCESS);
        for (int last = 11; last <= 13; last++) {
            make_servers(last);
        }
    }
    [[nodiscard]] rng random_for(int thread) const
    {
        return rng(seed_ + static_cast<std::uint64_t>(thread));
    }

    static void clients(rng random, const std::atomic<bool> &stop)
    {
        const std::uint8_t flags[] = {SYN, SYN | ACK, ACK, FIN, RST};
        const lb_u16_t ports[] = {80, 80, 443, 8443};
        fake::worker worker;
        while (!stop) {
            (void)worker.receive(packets::build(
                packets::packet{.src = "10.9.0." + std::to_string(1 + below(random, 64)),
                                .dst = C,
                                .sport = 7,
                                .dport = ports[below(random, 4)],
                                .flags = flags[below(random, 5)]}));
        }
    }
    static void partner(rng random, const std::atomic<bool> &stop)
    {
        fake::worker worker;
        while (!stop) {
            (void)worker.receive(build(random_beat(random)));
        }
    }
    static void time(const std::atomic<bool> &stop)
    {
        while (!stop) {
            tick_once();
        }
    }
    void random_command(rng &random)
    {
        const int last = 11 + below(random, 3);
        const lb_u8_t role = static_cast<lb_u8_t>(1 + below(random, 3));
        switch (below(random, 8)) {
        case 0: EXPECT_EQ(rm_server(C, 80, address(last)), LBCMD_RC_SUCCESS); break;
        case 1: EXPECT_EQ(rm_server(C, 80, server_ip(last)), LBCMD_RC_SUCCESS); break;
        case 2: EXPECT_EQ(rm_server(C, 443, address(last)), LBCMD_RC_SUCCESS); break;
        case 3:
            EXPECT_EQ(rm(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(OWN, 0, PARTNER)), LBCMD_RC_SUCCESS);
            EXPECT_EQ(add_heartbeat(OWN, PARTNER), LBCMD_RC_SUCCESS);
            break;
        case 4: EXPECT_EQ(take_over(), LBCMD_RC_SUCCESS); break;
        default:
            EXPECT_EQ(pair(role, static_cast<lb_u8_t>(1 + below(random, 2))), LBCMD_RC_SUCCESS);
            break;
        }
        make_servers(last);
    }

  private:
    std::uint64_t seed_ = 0;
};

TEST_F(HaStressTest, TablesStayWholeAndNothingIsLeft)
{
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    threads.emplace_back(clients, random_for(1), std::cref(stop));
    threads.emplace_back(clients, random_for(2), std::cref(stop));
    threads.emplace_back(partner, random_for(3), std::cref(stop));
    threads.emplace_back(partner, random_for(4), std::cref(stop));
    threads.emplace_back(time, std::cref(stop));
    rng random = random_for(0);
    const auto end = stress::clock::now() + stress::duration();
    int commands = 0;
    for (; stress::clock::now() < end; commands++) {
        random_command(random);
    }
    stop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    std::printf("%d commands, %llu frames sent, %d impossible states\n", commands,
                static_cast<unsigned long long>(fake::sent_count()), fake::core_calls());
    EXPECT_GT(commands, 50);
    EXPECT_GT(fake::sent_count(), 1000U);
    // Records that lost their port to another keep its number: they go before all is checked.
    for (int last = 11; last <= 13; last++) {
        EXPECT_EQ(rm_server(C, 80, server_ip(last)), LBCMD_RC_SUCCESS);
    }
    tick(6); // servers that were removed under way are swept once more, and freed
    fake::count_only(false);
}

} // namespace
