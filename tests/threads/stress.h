// What the thread tests of records share: how long they run, their seed, and their neighbours.
//
// VELL_STRESS_SECONDS says how long (5 without it). Threads interleave as they like, so a seed
// repeats what each thread does, not when.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "packets.h"
#include "stack_fixture.h"

namespace stress
{

using rng = std::mt19937_64;
using clock = std::chrono::steady_clock;

constexpr int WORKERS = 4;

inline std::uint64_t number_from(const char *variable, std::uint64_t otherwise)
{
    const char *text = std::getenv(variable); // NOLINT(concurrency-mt-unsafe)
    return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 0) : otherwise;
}

inline std::chrono::milliseconds duration()
{
    return std::chrono::milliseconds(1000 * number_from("VELL_STRESS_SECONDS", 5));
}

// A number below `bound`.
inline int below(rng &random, int bound)
{
    return static_cast<int>(random() % static_cast<std::uint64_t>(bound));
}

inline packets::mac mac_of(std::uint8_t last)
{
    return {2, 0, 0, 0, 0, last};
}

// A reply by which a neighbour makes its hardware address known.
inline packets::bytes arp_reply(const std::string &ip, std::uint8_t last)
{
    packets::arp reply;
    reply.op = 2;
    reply.srchw = mac_of(last);
    reply.srcip = ip;
    reply.tgthw = mac_of(1);
    reply.tgtip = "10.0.0.1";
    reply.ethdst = mac_of(1);
    return packets::build(reply);
}

} // namespace stress

class StressTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        seed_ = stress::number_from("VELL_SEED", std::random_device{}());
        std::printf("VELL_SEED=%llu\n", static_cast<unsigned long long>(seed_));
        fake::log_discard(true);
    }

    // Random numbers of one thread's own.
    [[nodiscard]] stress::rng random_for(int thread) const
    {
        return stress::rng(seed_ + static_cast<std::uint64_t>(thread));
    }

  private:
    std::uint64_t seed_ = 0;
};
