// Grace: nothing is freed while a thread that may use it is inside.
#include "lb_grace.h"
#include "lb_utils.h"
#include "lb_words.h"

#include <array>
#include <thread>

#include "fake_fixture.h"
#include "puppet.h"

namespace
{

struct object {
    lb_grace_node_t node;
    lb_u64_t value;
    int refusals; // how often its reap finds a reference
};

int reaps;

bool reap_object(lb_grace_node_t *node)
{
    EXPECT_EQ(fake::mutexes_held_here(), 0) << "a reap runs without a lock";
    auto *obj = reinterpret_cast<object *>(node); // its first member
    reaps++;
    if (obj->refusals > 0) {
        obj->refusals--;
        return false;
    }
    os_memfree(obj);
    return true;
}

class GraceTest : public FakeHostTest
{
  protected:
    void SetUp() override
    {
        FakeHostTest::SetUp();
        set_log_mask(LB_LOG_FAILURE);
        reaps = 0;
        ASSERT_EQ(lb_grace_init(), 0);
    }
    void TearDown() override
    {
        EXPECT_EQ(lb_grace_exit(), 0);
        FakeHostTest::TearDown();
    }
    static void defer_object(int refusals = 0)
    {
        auto *obj = lb_newzero<object>();
        ASSERT_NE(obj, nullptr);
        obj->refusals = refusals;
        lb_grace_defer(&obj->node, reap_object);
    }
};

TEST_F(GraceTest, WhoIsInsideIsWaitedForAndWhoCameLaterIsNot)
{
    puppet early;
    puppet late;
    EXPECT_TRUE(lb_grace_passed(lb_grace_now())) << "nobody is inside";
    early.act(lb_grace_enter);
    const lb_grace_t since = lb_grace_now();
    late.act(lb_grace_enter);
    early.act(lb_grace_enter);
    early.act(lb_grace_leave);
    EXPECT_FALSE(lb_grace_passed(since)) << "it left one of two stays";
    early.act(lb_grace_leave);
    EXPECT_TRUE(lb_grace_passed(since)) << "the later one can't know the object";
    EXPECT_FALSE(lb_grace_passed(lb_grace_now()));
    // In and out again at once counts as having been outside.
    const lb_grace_t again = lb_grace_now();
    late.act(lb_grace_leave);
    late.act(lb_grace_enter);
    EXPECT_TRUE(lb_grace_passed(again));
    late.act(lb_grace_leave);
}

TEST_F(GraceTest, TooManyThreadsAreSafe)
{
    for (int i = 0; i < 200; i++) {
        std::thread([] { const lb_grace_inside inside; }).join();
    }
    EXPECT_EQ(fake::core_calls(), 0) << "slots are given back when threads end";
    fake::core_expected(true);
    std::array<puppet, 66> crowd;
    for (puppet &each : crowd) {
        each.act(lb_grace_enter);
    }
    EXPECT_GE(fake::core_calls(), 1);
    const lb_grace_t since = lb_grace_now();
    for (puppet &each : crowd) {
        EXPECT_FALSE(lb_grace_passed(since)) << "the one without a slot is inside still";
        each.act(lb_grace_leave);
    }
    EXPECT_TRUE(lb_grace_passed(since));
}

TEST_F(GraceTest, DeferredObjectsAreFreedOnceEveryoneWasOutside)
{
    puppet reader;
    const auto expect_reaps = [](int expected) {
        lb_grace_timer_entry();
        EXPECT_EQ(reaps, expected);
    };
    reader.act(lb_grace_enter);
    defer_object();
    expect_reaps(0);
    reader.act(lb_grace_leave);
    reader.act(lb_grace_enter);
    defer_object(); // the reader is inside for this one
    expect_reaps(1);
    EXPECT_EQ(fake::live_allocations(), 1);
    reader.act(lb_grace_leave);
    expect_reaps(2);
    EXPECT_EQ(fake::live_allocations(), 0);
    // A refused reap starts the wait again.
    defer_object(2);
    expect_reaps(3); // once a tick, though nobody is inside
    reader.act(lb_grace_enter);
    expect_reaps(4); // the reader came after the second wait began
    expect_reaps(4); // but was there when the third began
    reader.act(lb_grace_leave);
    expect_reaps(5);
}

TEST_F(GraceTest, AMutexThatFailsLosesNothing)
{
    for (const fake::op which : {fake::op::lock, fake::op::unlock}) {
        fake::fail(which, 1);
        defer_object();
        for (int n = 1; n <= 3; n++) {
            fake::fail(which, n);
            lb_grace_timer_entry();
        }
        fake::fail(which, 0);
        lb_grace_timer_entry();
        EXPECT_EQ(fake::live_allocations(), 0);
    }
    EXPECT_FALSE(fake::log_contains("is lost"));
}

} // namespace
