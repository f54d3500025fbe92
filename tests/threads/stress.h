// What the thread tests share: how long they run, their seed, worker threads, and the questions
// that are asked once every thread has stopped.
//
// VELL_STRESS_SECONDS says how long (5 without it). Threads interleave as they like, so a seed
// repeats what each thread does, not when.
#pragma once

#include "lb_cluster.h"
#include "lb_port.h"
#include "lb_server.h"

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

    // Every list that the tree leads to, and every bucket of neighbours.
    static void expect_consistent_lists()
    {
        EXPECT_EQ(_lbll_debug_consistencycheck(&lbexecutor->cfgcmdlist), 0);
        EXPECT_EQ(_lbll_debug_consistencycheck(&lbexecutor->ifacecmdlist), 0);
        EXPECT_EQ(_lbll_debug_consistencycheck(&lbexecutor->cmdreaplist), 0);
        EXPECT_EQ(_lbll_debug_consistencycheck(&lbexecutor->clusterlist), 0);
        EXPECT_EQ(_lbll_debug_consistencycheck(&lbexecutor->ifcollection.interfacelist), 0);
        for (void *cluster : members(&lbexecutor->clusterlist)) {
            expect_consistent_ports(static_cast<lbclu_obj_t *>(cluster));
        }
        for (void *ifin : members(&lbexecutor->ifcollection.interfacelist)) {
            EXPECT_EQ(_lbll_debug_consistencycheck(&static_cast<lbifin_obj_t *>(ifin)->ifaddrlist),
                      0);
        }
        for (lbht_bucket_t &bucket : lbexecutor->neightable.buckets) {
            EXPECT_EQ(_lbll_debug_consistencycheck(&bucket), 0);
        }
    }

    [[nodiscard]] static int neighbours()
    {
        int count = 0;
        for (const lbht_bucket_t &bucket : lbexecutor->neightable.buckets) {
            count += lbll_size(&bucket);
        }
        return count;
    }

  private:
    static std::vector<void *> members(lbll_list_t *list)
    {
        std::vector<void *> out(static_cast<std::size_t>(lbll_size(list)));
        const int count =
            lbll_selectn(list, out.data(), static_cast<int>(out.size()), lbll_filter_true, nullptr);
        EXPECT_EQ(static_cast<std::size_t>(count), out.size());
        return out;
    }

    static void expect_consistent_ports(lbclu_obj_t *cluster)
    {
        EXPECT_EQ(_lbll_debug_consistencycheck(&cluster->portlist), 0);
        for (void *obj : members(&cluster->portlist)) {
            auto *port = static_cast<lbport_obj_t *>(obj);
            EXPECT_EQ(_lbll_debug_consistencycheck(&port->serverlist), 0);
            EXPECT_EQ(_lbll_debug_consistencycheck(&port->serverset.srvreflist), 0);
            EXPECT_EQ(lbll_size(&port->serverlist), lbll_size(&port->serverset.srvreflist));
        }
    }

    std::uint64_t seed_ = 0;
};
