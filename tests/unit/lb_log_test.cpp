// Log mask, time differences and shared-word copies.
#include "lb_log.h"
#include "lb_utils.h"
#include "lb_words.h"

#include <numeric>

#include "fake_fixture.h"

namespace
{

using LogTest = FakeHostTest;

TEST_F(LogTest, AnyCommonBitPrints)
{
    struct {
        const char *name;
        lb_u64_t mask;
        lb_u64_t bits;
        bool printed;
    } const rows[] = {
        {"class bit", LB_LOG_FAILURE, LB_LOG_LIST | LB_LOG_FAILURE, true},
        {"module bit", LB_LOG_LIST, LB_LOG_LIST | LB_LOG_FAILURE, true},
        {"low half of a high bit", 0x80, LB_LOG_SERVERSET, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        set_log_mask(row.mask);
        fake::log_clear();
        int evaluated = 0;
        LB_LOG(row.bits, "text %d\n", ++evaluated);
        EXPECT_EQ(fake::log_contains("text 1"), row.printed);
        EXPECT_EQ(evaluated != 0, row.printed);
    }
}

TEST_F(LogTest, TimeDifferences)
{
    const struct {
        lb_timeval_t now, then, diff;
    } rows[] = {
        {{10, 100}, {7, 200}, {2, 999900}},   // borrow
        {{7, 200}, {10, 100}, {-2, -999900}}, // carry the other way
        {{7, 0}, {7, 1}, {0, -1}},
    };
    for (const auto &row : rows) {
        const lb_timeval_t diff = lb_timediff(row.now, row.then);
        EXPECT_EQ(diff.secs, row.diff.secs);
        EXPECT_EQ(diff.usecs, row.diff.usecs);
    }
}

TEST_F(LogTest, SharedCopiesAreExactAtEveryLengthAndOffset)
{
    std::vector<unsigned char> from(64);
    std::iota(from.begin(), from.end(), 1);
    for (std::size_t len = 0; len <= 40; len++) {
        for (std::size_t offset = 0; offset < 8; offset++) {
            alignas(8) unsigned char shared[48];
            std::vector<unsigned char> back(64, 0xEE);
            shared[len] = 0xEE;
            lb_store_shared(shared, &from[offset], len);
            lb_load_shared(&back[offset], shared, len);
            ASSERT_TRUE(std::equal(shared, shared + len, &from[offset]));
            ASSERT_TRUE(std::equal(shared, shared + len, &back[offset]));
            ASSERT_EQ(shared[len], 0xEE) << "wrote beyond the block";
            ASSERT_EQ(back[offset + len], 0xEE) << "wrote beyond the block";
        }
    }
}

} // namespace
