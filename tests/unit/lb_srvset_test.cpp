#include "lb_server.h"
#include "lb_srvset.h"

#include <memory>
#include <numeric>
#include <vector>

#include "fake_fixture.h"

namespace
{

class ServerSetTest : public FakeHostTest
{
  protected:
    void SetUp() override
    {
        FakeHostTest::SetUp();
        set_log_mask(LB_LOG_FAILURE);
        ASSERT_EQ(lbsrvset_init(&set_), 0);
    }
    void TearDown() override
    {
        EXPECT_EQ(lbsrvset_cleanup(&set_), 0);
        FakeHostTest::TearDown();
    }

    lbsrv_obj_t &join(lb_u16_t weight)
    {
        servers_.push_back(std::make_unique<lbsrv_obj_t>());
        lbsrv_obj_t &srv = *servers_.back();
        srv.setable.weight = weight;
        srv.srvref.server = &srv;
        EXPECT_EQ(lbll_addnode_rhs(&set_.srvreflist, &srv.srvref), 0);
        return srv;
    }

    lbsrvset_obj_t set_{};
    std::vector<std::unique_ptr<lbsrv_obj_t>> servers_;
};

TEST_F(ServerSetTest, SumsWeightsOfAllUpTo128)
{
    lbsrvset_weightsum(&set_);
    EXPECT_EQ(set_.weightsum, 0U);
    for (lb_u16_t i = 1; i <= 128; i++) {
        join(i);
    }
    lbsrvset_weightsum(&set_);
    EXPECT_EQ(set_.weightsum, 128U * 129U / 2U);
    join(1000);
    join(65535);
    lbsrvset_weightsum(&set_);
    EXPECT_EQ(set_.weightsum, 128U * 129U / 2U) << "the 129th and 130th count";
}

TEST_F(ServerSetTest, LargestWeightsDoNotOverflow)
{
    for (int i = 0; i < 128; i++) {
        join(65535);
    }
    lbsrvset_weightsum(&set_);
    EXPECT_EQ(set_.weightsum, 128U * 65535U);
}

TEST_F(ServerSetTest, CountsHalfOpenAndActiveRecordsOnly)
{
    lbsrv_obj_t &a = join(1);
    lbsrv_obj_t &b = join(1);
    a.sel.preest._size = 3;
    a.sel.active._size = 4;
    a.sel.fin._size = 100;
    b.sel.active._size = 5;
    b.sel.arlist._size = 100;
    lbsrvset_timer_entry(&set_);
    EXPECT_EQ(set_.numactive, 12U);
}

TEST_F(ServerSetTest, CleanupDetachesMembers)
{
    lbsrv_obj_t &srv = join(1);
    ASSERT_EQ(lbsrvset_cleanup(&set_), 0);
    EXPECT_EQ(srv.srvref.refnode._list, nullptr);
    EXPECT_EQ(lbsrvset_cleanup(&set_), 1);
    EXPECT_TRUE(fake::log_contains("Removal of list failed"));
    ASSERT_EQ(lbsrvset_init(&set_), 0);
}

} // namespace
