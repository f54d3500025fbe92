// What the thread tests share: random numbers, threads that do one thing again and again while the
// test sends commands, and such that do it at the same time.
//
// VELL_STRESS_SECONDS says how long (5 without it), VELL_SEED which. Threads interleave as they
// like, so a seed repeats what each thread does, not when.
#pragma once

#include <atomic>
#include <barrier>
#include <chrono>
#include <thread>

#include "packets.h"
#include "randoms.h"
#include "stack_fixture.h"

namespace stress
{

using randoms::below;
using randoms::rng;
using clock = std::chrono::steady_clock;

constexpr int WORKERS = 4;

inline std::chrono::milliseconds duration()
{
    return std::chrono::milliseconds(1000 * randoms::number_from("VELL_STRESS_SECONDS", 5));
}

// Workers that all do one thing at the same time, as often as they are told to.
class team
{
  public:
    explicit team(std::function<void(fake::worker &)> job) : job_(std::move(job))
    {
        for (int i = 0; i < WORKERS; i++) {
            threads_.emplace_back([this] { work(); });
        }
    }
    ~team()
    {
        stop_ = true;
        turn_.arrive_and_wait();
    }
    // Returns when all have done it.
    void together()
    {
        turn_.arrive_and_wait();
        turn_.arrive_and_wait();
    }

  private:
    void work()
    {
        fake::worker worker;
        for (turn_.arrive_and_wait(); !stop_; turn_.arrive_and_wait()) {
            job_(worker);
            turn_.arrive_and_wait();
        }
    }

    std::function<void(fake::worker &)> job_;
    std::barrier<> turn_{WORKERS + 1};
    bool stop_ = false;
    std::vector<std::jthread> threads_; // joined first
};

} // namespace stress

template <class Fixture> class Stress : public Fixture
{
  protected:
    using job = std::function<void(stress::rng &, fake::worker &)>;

    void SetUp() override
    {
        Fixture::SetUp();
        seed_ = randoms::seed(std::random_device{}());
        fake::log_discard(true);
    }

    // Random numbers of one thread's own.
    [[nodiscard]] stress::rng random_for(int thread) const
    {
        return stress::rng(seed_ + static_cast<std::uint64_t>(thread));
    }
    // One more thread, which does it until run() has ended.
    void start(const job &again)
    {
        threads_.emplace_back([this, again, random = random_for(++started_)]() mutable {
            fake::worker worker;
            while (!stop_.load(std::memory_order_relaxed)) {
                again(random, worker);
            }
        });
    }
    // Receives frames that `make` has made beforehand, which takes longer than to receive them.
    void start_worker(const std::function<packets::bytes(stress::rng &)> &make,
                      const std::function<void(const packets::bytes &, fake::worker &)> &receive)
    {
        stress::rng random = random_for(-++started_);
        std::vector<packets::bytes> load(2000);
        std::generate(load.begin(), load.end(), [&] { return make(random); });
        start([load, receive](stress::rng &chance, fake::worker &worker) {
            receive(load[chance() % load.size()], worker);
        });
    }
    // Time that runs, most of it slowly, so that connections live; now and then for the time of a
    // whole state, and to and fro by an hour.
    void start_timer()
    {
        start([](stress::rng &random, fake::worker & /*worker*/) {
            switch (stress::below(random, 100)) {
            case 0:
            case 1: fake::advance_ms(31000); break;
            case 2: fake::advance_ms(-3600000); break;
            case 3: fake::advance_ms(3600000); break;
            default: fake::advance_ms(stress::below(random, 2000) - 100); break;
            }
            EXPECT_EQ(lb_timer_entry(), 0);
        });
    }
    // Gives commands for as long as the test shall last, and ends the threads.
    void run(const std::function<void(stress::rng &)> &command)
    {
        stress::rng random = random_for(0);
        std::uint64_t commands = 0;
        const auto end = stress::clock::now() + stress::duration();
        for (; stress::clock::now() < end && !Fixture::HasFatalFailure(); commands++) {
            command(random);
        }
        stop_ = true;
        for (std::thread &thread : threads_) {
            thread.join();
        }
        std::printf("%llu commands, %llu frames sent\n", static_cast<unsigned long long>(commands),
                    static_cast<unsigned long long>(fake::sent_count()));
        EXPECT_GT(commands, 3U);
        EXPECT_GT(fake::sent_count(), 1000U);
    }

  private:
    std::uint64_t seed_ = 0;
    int started_ = 0;
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
};
