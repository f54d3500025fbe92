// Choosing: the arithmetic of round robin.
#include "lb_select.h"
#include "lb_server.h"

#include <memory>

#include "fake_fixture.h"

namespace
{

constexpr int NONE = -1;

// A server set of its own, with servers that are nothing but a weight.
class SrvsetTest : public FakeHostTest
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

    void fill(const std::vector<int> &weights)
    {
        ASSERT_EQ(lbsrvset_cleanup(&set_), 0);
        set_ = {};
        ASSERT_EQ(lbsrvset_init(&set_), 0);
        servers_.clear();
        for (const int weight : weights) {
            servers_.push_back(std::make_unique<lbsrv_obj_t>());
            lbsrv_obj_t *server = servers_.back().get();
            *server = {};
            server->setable.weight = static_cast<lb_u16_t>(weight);
            server->srvref.server = server;
            ASSERT_EQ(lbll_addnode_rhs(&set_.srvreflist, &server->srvref), 0);
        }
        lbsrvset_weightsum(&set_);
    }

    // The index of the server chosen, or NONE; the seed moves on.
    int choose(lb_u32_t &seed)
    {
        const lbsrv_obj_t *chosen = lbsel_srvset_chooseserver(&set_, &seed);
        for (std::size_t i = 0; i < servers_.size(); i++) {
            if (servers_[i].get() == chosen) {
                return static_cast<int>(i);
            }
        }
        return NONE;
    }

    std::vector<int> turns(lb_u32_t seed, int count)
    {
        std::vector<int> out;
        for (int i = 0; i < count; i++) {
            out.push_back(choose(seed));
        }
        return out;
    }

    lbsrvset_obj_t set_ = {};
    std::vector<std::unique_ptr<lbsrv_obj_t>> servers_;
};

TEST_F(SrvsetTest, TurnsByName)
{
    const struct {
        const char *name;
        std::vector<int> weights;
        lb_u32_t seed;
        std::vector<int> turns;
    } rows[] = {
        {"strict, from seed 7", {0, 0, 0}, 7, {1, 2, 0, 1}},
        {"weights 1, 0, 2", {1, 0, 2}, 0, {0, 2, 2, 0}},
        {"the first weighs nothing", {0, 1}, 0, {1, 1}},
        {"two alike, an odd port", {1, 1}, 1025, {1, 0}},
        {"one server", {0}, 99, {0, 0}},
        // 2^32 - 1 is divisible by 3, and 0 follows it.
        {"the seed wraps", {1, 1, 1}, 0xFFFFFFFE, {2, 0, 0, 1}},
        {"largest weights", {65535, 65535}, 65534, {0, 1}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fill(row.weights);
        EXPECT_EQ(turns(row.seed, static_cast<int>(row.turns.size())), row.turns);
    }
}

TEST_F(SrvsetTest, AStaleWeightSumChoosesNobodyRatherThanAnybody)
{
    lb_u32_t untouched = 5;
    EXPECT_EQ(choose(untouched), NONE) << "an empty set";
    EXPECT_EQ(untouched, 5U);
    fill({1, 1});
    lb_poke(servers_[1]->setable.weight, 0); // the sum still says 2
    lb_u32_t seed = 0;
    EXPECT_EQ(choose(seed), 0);
    EXPECT_EQ(choose(seed), NONE);
    EXPECT_EQ(choose(seed), 0);
    EXPECT_EQ(seed, 3U);
}

TEST_F(SrvsetTest, WeightsOfUpTo128ServersCount)
{
    fill(std::vector<int>(130, 65535));
    EXPECT_EQ(lb_peek(set_.weightsum), 128U * 65535U);
}

} // namespace
