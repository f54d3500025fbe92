// Fragments under load: four workers receive the fragments of many datagrams in random order, first
// without and then against a timer that retires records while they are being used.
#include "lb_fragment.h"

#include <algorithm>
#include <optional>

#include "datagrams.h"
#include "stress.h"

namespace
{

using packets::bytes;
using stress::below;

constexpr const char *C = "10.0.0.100";
constexpr int DATAGRAMS = 48; // of a round
constexpr int CLIENTS = 6;    // whose identifications collide

class FragmentStress : public Stress<StackTest>
{
  protected:
    void SetUp() override
    {
        Stress::SetUp();
        ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(add_cluster(C));
        ASSERT_ADDED(add_port(C, 80));
        for (const std::uint8_t last : {11, 12, 13}) {
            const std::string server = "10.0.0." + std::to_string(last);
            ASSERT_ADDED(add_server(C, 80, server));
            fake::receive(packets::arp_reply(server, last));
        }
        (void)fake::take_sent();
    }
    void TearDown() override
    {
        workers_.reset();
        stop_stack();
        EXPECT_EQ(lbfrag_heldbytes(), 0U);
        Stress::TearDown();
    }

    // A round: the workers share out the fragments of new datagrams, shuffled. The datagrams.
    std::vector<bytes> round(stress::rng &random)
    {
        std::vector<bytes> all;
        frames_.clear();
        for (int n = 0; n < DATAGRAMS; n++) {
            serial_++;
            const std::string src = "10.9.0." + std::to_string(1 + serial_ % CLIENTS);
            const auto id = static_cast<std::uint16_t>(serial_ / CLIENTS);
            const auto size = static_cast<std::size_t>(600 + below(random, 2400));
            all.push_back(datagrams::whole(src, id, size));
            const std::vector<bytes> parts = packets::fragments(all.back(), 576);
            frames_.insert(frames_.end(), parts.begin(), parts.end());
        }
        std::shuffle(frames_.begin(), frames_.end(), random);
        next_ = 0;
        workers_->together();
        return all;
    }
    [[nodiscard]] std::size_t frames() const { return frames_.size(); }

  private:
    // A worker takes the next frame for as long as there is one.
    void work(fake::worker &worker)
    {
        for (std::size_t at = next_++; at < frames_.size(); at = next_++) {
            (void)worker.receive(frames_[at]);
        }
    }

    std::atomic<std::size_t> next_{0};
    std::vector<bytes> frames_;
    unsigned serial_ = 0;
    std::optional<stress::team> workers_{[this](fake::worker &worker) { work(worker); }};
};

TEST_F(FragmentStress, EveryDatagramComesWholeAtOneServer)
{
    stress::rng random = random_for(0);
    const auto end = stress::clock::now() + stress::duration() / 2;
    while (stress::clock::now() < end && !HasFailure()) {
        const std::vector<bytes> all = round(random);
        datagrams::receiver servers;
        servers.take(fake::take_sent());
        for (const bytes &datagram : all) {
            EXPECT_TRUE(servers.has(datagram));
        }
        EXPECT_EQ(fake::held_frames(), 0) << "a fragment was stranded";
        fake::advance_s(5);
        EXPECT_EQ(lb_timer_entry(), 0);
    }
}

TEST_F(FragmentStress, EveryFragmentIsSentOnceOrGivenUp)
{
    std::atomic<bool> stop{false};
    std::thread timer([this, &stop] {
        stress::rng random = random_for(1);
        while (!stop) {
            fake::advance_ms(below(random, 20) == 0 ? -3000 : below(random, 3000));
            EXPECT_EQ(lb_timer_entry(), 0);
        }
    });
    stress::rng random = random_for(0);
    std::size_t sent = 0;
    std::size_t received = 0;
    const auto end = stress::clock::now() + stress::duration() / 2;
    while (stress::clock::now() < end && !HasFailure()) {
        (void)round(random);
        datagrams::receiver servers;
        servers.take(fake::take_sent());
        sent += servers.pieces();
        received += frames();
    }
    stop = true;
    timer.join();
    std::printf("%zu fragments, %zu sent\n", received, sent);
    EXPECT_GT(sent, 0U);
    for (int i = 0; i < 2; i++) { // the clock may have been set back in between
        fake::advance_s(10);
        EXPECT_EQ(lb_timer_entry(), 0);
    }
    EXPECT_EQ(fake::held_frames(), 0);
    EXPECT_EQ(lbfrag_heldbytes(), 0U);
}

} // namespace
