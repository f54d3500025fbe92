// The connection table's parts: records and their memory, the bucket of a key, expiry at the ends
// of its range, what is left when a table can't be made, and what a node without a partner leaves
// alone. What packets do to connections is tested through the whole stack.
#include <algorithm>

#include "record_fixture.h"

namespace
{

class ConnectionTableTest : public RecordFixture
{
  protected:
    lbsel_ct_obj_t *make_table()
    {
        EXPECT_EQ(make_port(80, LBSEL_ALGORIGHM_CONNECTION), LBCMD_RC_SUCCESS);
        return static_cast<lbsel_ct_obj_t *>(port_object(80)->ct);
    }
};

TEST_F(ConnectionTableTest, HandsOutClearedRecords)
{
    lbsel_ct_obj_t *ct = make_table();
    std::vector<lbsel_cr_obj_t *> records;
    for (int i = 0; i < 100; i++) {
        records.push_back(_lbsel_ct_getnewcr(ct));
        ASSERT_NE(records.back(), nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(records.back()) % LBSEL_CACHELINE, 0U);
    }
    std::sort(records.begin(), records.end());
    for (std::size_t i = 1; i < records.size(); i++) {
        EXPECT_GE(records[i] - records[i - 1], 1) << "records overlap";
    }
    lbsel_cr_obj_t *used = records[7];
    used->crkey = {.sip = stack::ip("10.9.0.1"), .sport = 7, ._pad = 0};
    used->state = LBSEL_CR_STATE_RST;
    used->timestamp = used->reptimestamp = {.secs = 1, .usecs = 2};
    used->natkey.natport = 1025; // as a connection that has given it back may leave it
    used->server = reinterpret_cast<lbsrv_obj_t *>(ct);
    for (lbsel_cr_obj_t *record : records) {
        _lbsel_ct_returncr(ct, record);
    }
    const std::int64_t blocks = fake::live_allocations();
    const lbsel_cr_obj_t empty{};
    for (int i = 0; i < 100; i++) {
        lbsel_cr_obj_t *again = _lbsel_ct_getnewcr(ct);
        EXPECT_EQ(std::memcmp(again, &empty, sizeof(empty)), 0);
    }
    EXPECT_EQ(fake::live_allocations(), blocks) << "returned records come first";
    for (lbsel_cr_obj_t *record : records) {
        _lbsel_ct_returncr(ct, record);
    }
}

TEST_F(ConnectionTableTest, TellsTheAgeOfRecordsAtTheEndsOfItsRange)
{
    constexpr int YES = LBLL_FILTER_YES;
    constexpr int STOP = LBLL_FILTER_STOP;
    const struct {
        const char *name;
        lb_u32_t timeout_s;
        lb_timeval_t now;
        lb_timeval_t timestamp;
        int answer;
    } rows[] = {
        {"exactly T-1", 30, {1000, 5}, {971, 5}, STOP},
        {"a microsecond more", 30, {1000, 6}, {971, 5}, YES},
        {"a microsecond less", 30, {1000, 4}, {971, 5}, STOP},
        {"T of 1 allows the same instant", 1, {1000, 0}, {1000, 0}, STOP},
        {"T of 0 allows nothing", 0, {1000, 0}, {1000, 0}, YES},
        {"the longest T", 0xFFFFFFFF, {2147483647, 0}, {0, 0}, STOP},
        {"a T beyond signed seconds", 0x80000000, {1000, 0}, {999, 0}, STOP},
        {"just ahead of the timer", 10, {1000, 0}, {1000, 900000}, STOP},
    };
    for (const auto &row : rows) {
        const lbsel_deadline_t deadline = {.now = row.now, .timeout_s = row.timeout_s};
        lb_timeval_t timestamp = row.timestamp;
        EXPECT_EQ(lbsel_expired(&deadline, &timestamp), row.answer) << row.name;
        EXPECT_EQ(timestamp.secs, row.timestamp.secs) << row.name;
    }
    const lbsel_deadline_t deadline = {.now = {1000, 7}, .timeout_s = 10};
    lb_timeval_t ahead = {5000, 0};
    EXPECT_EQ(lbsel_expired(&deadline, &ahead), 0) << "neither old, nor a reason to stop";
    EXPECT_EQ(ahead.secs, 1000);
}

// Whatever fails while a port or a server is added, nothing is left of it.
TEST_F(ConnectionTableTest, LeavesNothingOfAPortOrServerThatFails)
{
    const lb_u8_t algorithms[] = {LBSEL_ALGORIGHM_CONNECTION, LBSEL_ALGORIGHM_AFFINITY,
                                  LBSEL_ALGORIGHM_CONN_AFFIN};
    for (const lb_u8_t algorithm : algorithms) {
        const std::int64_t blocks = fake::live_allocations();
        const std::int64_t mutexes = fake::live_mutexes();
        const bool both = algorithm == LBSEL_ALGORIGHM_CONN_AFFIN;
        for (const int n : {1, 4096, 4097, both ? 4098 : 4099, both ? 8194 : 4100}) {
            fake::fail(fake::op::mutex_init, n);
            EXPECT_EQ(make_port(80, algorithm), LBCMD_RC_FAILURE) << n;
            ASSERT_FALSE(fake::fail_pending(fake::op::mutex_init)) << n;
            EXPECT_EQ(fake::live_allocations(), blocks) << n;
            EXPECT_EQ(fake::live_mutexes(), mutexes) << n;
        }
        for (int n = 1; n <= (both ? 3 : 2); n++) {
            fake::fail(fake::op::alloc, n);
            EXPECT_EQ(make_port(80, algorithm), LBCMD_RC_FAILURE) << n;
            EXPECT_EQ(fake::live_allocations(), blocks) << n;
            EXPECT_EQ(fake::live_mutexes(), mutexes) << n;
        }
        ASSERT_ADDED(make_port(80, algorithm));
        const std::int64_t withport = fake::live_mutexes();
        for (int n = 1; n <= (algorithm == LBSEL_ALGORIGHM_CONNECTION ? 3 : 4); n++) {
            fake::fail(fake::op::mutex_init, n);
            EXPECT_EQ(make_server(80, 11), LBCMD_RC_FAILURE) << n;
            EXPECT_EQ(fake::live_mutexes(), withport) << n;
        }
        ASSERT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
        tick(5);
        EXPECT_EQ(fake::live_mutexes(), mutexes);
    }
    EXPECT_TRUE(fake::log_contains("connection table alloc failed\n"));
    EXPECT_TRUE(fake::log_contains("affinity table alloc failed\n"));
    EXPECT_TRUE(fake::log_contains("connection table hash table init failed\n"));
    EXPECT_TRUE(fake::log_contains("affinity table hash table init failed\n"));
    EXPECT_TRUE(fake::log_contains("connection fin list init failed\n"));
    EXPECT_TRUE(fake::log_contains("affinity fin list init failed\n"));
    EXPECT_TRUE(fake::log_contains("connection preest list init failed\n"));
    EXPECT_TRUE(fake::log_contains("affinity arlist list init failed\n"));
}

} // namespace
