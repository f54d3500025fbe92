// Fragments under load: four workers receive the fragments of many datagrams in random order, and
// each datagram must come whole. (Fragments whose records are retired meanwhile are among the
// frames of everything_at_once_test.cpp.)
#include <algorithm>

#include "datagrams.h"
#include "stress.h"

namespace
{

using packets::bytes;

constexpr unsigned DATAGRAMS = 48; // of a round
constexpr unsigned CLIENTS = 6;    // whose identifications collide

using FragmentStress = Stress<StackTest>;

TEST_F(FragmentStress, EveryDatagramComesWholeAtOneServer)
{
    make_eth0();
    make_service("10.0.0.100", {"10.0.0.11", "10.0.0.12", "10.0.0.13"});
    std::vector<bytes> frames;
    std::atomic<std::size_t> next{0};
    stress::team workers([&](fake::worker &worker) { // each takes the next for as long as there is
        for (std::size_t at = next++; at < frames.size(); at = next++) {
            (void)worker.receive(frames[at]);
        }
    });
    stress::rng random = random_for(0);
    const auto end = stress::clock::now() + stress::duration() / 2;
    for (unsigned serial = 0; stress::clock::now() < end && !HasFailure();) {
        std::vector<bytes> all;
        frames.clear();
        for (unsigned n = 0; n < DATAGRAMS; n++, serial++) {
            const std::string src = "10.9.0." + std::to_string(1 + serial % CLIENTS);
            const auto id = static_cast<std::uint16_t>(serial / CLIENTS);
            const auto size = static_cast<std::size_t>(600 + stress::below(random, 2400));
            all.push_back(datagrams::whole(src, id, size));
            const std::vector<bytes> parts = packets::fragments(all.back(), 576);
            frames.insert(frames.end(), parts.begin(), parts.end());
        }
        std::shuffle(frames.begin(), frames.end(), random);
        next = 0;
        workers.together();
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

} // namespace
