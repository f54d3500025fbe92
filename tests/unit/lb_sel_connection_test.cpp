// The connection table's parts: records and their memory, the bucket of a key, expiry at the ends
// of its range, what is left when a table can't be made, and what a node without a partner leaves
// alone. What packets do to connections is tested through the whole stack.
#include "record_fixture.h"

namespace
{

using ConnectionTableTest = RecordFixture;

TEST_F(ConnectionTableTest, HandsOutClearedRecords)
{
    ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_CONNECTION));
    auto *ct = static_cast<lbsel_ct_obj_t *>(port_object(80)->ct);
    lbsel_cr_obj_t *used = _lbsel_ct_getnewcr(ct);
    ASSERT_NE(used, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(used) % LBSEL_CACHELINE, 0U);
    std::memset(&used->crkey, 1, sizeof(used->crkey));
    used->state = LBSEL_CR_STATE_RST;
    used->timestamp = used->reptimestamp = {.secs = 1, .usecs = 2};
    used->natkey.natport = 1025; // as a connection that has given it back may leave it
    used->server = reinterpret_cast<lbsrv_obj_t *>(ct);
    _lbsel_ct_returncr(ct, used);
    ASSERT_EQ(_lbsel_ct_getnewcr(ct), used) << "returned records come first";
    const lbsel_cr_obj_t empty{};
    EXPECT_EQ(std::memcmp(used, &empty, sizeof(empty)), 0);
    _lbsel_ct_returncr(ct, used);
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
    const auto port = [&] { return make_port(80, LBSEL_ALGORIGHM_CONN_AFFIN); };
    const auto server = [&] { return make_server(80, 11); };
    for (const int n : {1, 4096, 4097, 4098, 8194}) {
        expect_leaves_nothing(fake::op::mutex_init, n, port);
    }
    for (int n = 1; n <= 3; n++) {
        expect_leaves_nothing(fake::op::alloc, n, port);
    }
    ASSERT_ADDED(port());
    for (int n = 1; n <= 4; n++) {
        expect_leaves_nothing(fake::op::mutex_init, n, server);
    }
    fake::fail(fake::op::mutex_destroy, 100); // which keeps none of the others
    EXPECT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
    tick(5);
    EXPECT_FALSE(fake::fail_pending(fake::op::mutex_destroy));
}

} // namespace
