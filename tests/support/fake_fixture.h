// The base of every fixture on the fake host: each test begins with a fresh host, and ends by
// proving that the stack gave everything back and misused nothing. A fixture that starts the stack
// derives from it, starts it after SetUp() and stops it before TearDown().
#pragma once

#include "lb_log.h"

#include <gtest/gtest.h>

#include "fake_host.h"

class FakeHostTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        lbexeos_logmask = nullptr;
        lbexeos_starttime = nullptr;
        lbexe_log_mask = LB_LOG_FAILURE;
        fake::reset();
    }

    void TearDown() override
    {
        EXPECT_EQ(fake::live_allocations(), 0) << fake::live_bytes() << " bytes leaked";
        EXPECT_EQ(fake::live_mutexes(), 0) << "mutexes that were never destroyed";
        EXPECT_EQ(fake::mutexes_held_here(), 0) << "mutexes that are still locked";
        EXPECT_EQ(fake::held_frames(), 0) << "received frames that the stack never freed";
        EXPECT_EQ(fake::unasked_core_calls(), 0) << "the stack called os_core()";
        for (const std::string &fault : fake::faults()) {
            ADD_FAILURE() << fault;
        }
        if (HasFailure()) {
            print_log_tail();
        }
        lbexeos_logmask = nullptr;
        lbexeos_starttime = nullptr;
    }

    // Logs what `mask` lets through, as the executor's mask would. Without it every site logs.
    void set_log_mask(lb_u64_t mask)
    {
        mask_ = mask;
        lbexeos_logmask = &mask_;
    }

  private:
    static void print_log_tail()
    {
        const auto lines = fake::log_lines();
        const std::size_t first = lines.size() > 50 ? lines.size() - 50 : 0;
        for (std::size_t i = first; i < lines.size(); i++) {
            std::fputs(("  log: " + lines[i]).c_str(), stderr);
        }
    }

    lb_u64_t mask_ = 0;
};
