// Choosing: the arithmetic of round robin, and the weights that it goes by.
#include "record_fixture.h"

namespace
{

class SelectTest : public RecordFixture
{
  protected:
    // A port whose datagrams its servers get in turn.
    void make(const std::vector<lb_u16_t> &weights)
    {
        ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_HASH, 0, LBSEL_ALGORIGHM_UDPRR));
        for (const lb_u16_t weight : weights) {
            servers_.push_back(11 + static_cast<int>(servers_.size()));
            ASSERT_ADDED(make_server(80, servers_.back(), weight));
        }
    }
    void unmake()
    {
        remove_port(80, servers_);
        servers_.clear();
    }
    static lb_u32_t &seed() { return port_object(80)->serverset.seeds[LBSRVSET_SEED_UDPRR]; }
    static lb_u32_t weightsum() { return lb_peek(port_object(80)->serverset.weightsum); }

  private:
    std::vector<int> servers_;
};

TEST_F(SelectTest, TurnsByName)
{
    const struct {
        const char *name;
        std::vector<lb_u16_t> weights;
        lb_u32_t seed;
        std::vector<int> turns; // of server 11, 12 and so on
    } rows[] = {
        {"strict, from seed 7", {0, 0, 0}, 7, {12, 13, 11, 12}},
        {"weights 1, 0, 2", {1, 0, 2}, 0, {11, 13, 13, 11}},
        {"the first weighs nothing", {0, 1}, 0, {12, 12}},
        {"two alike, an odd port", {1, 1}, 1025, {12, 11}},
        {"one server", {0}, 99, {11, 11}},
        // 2^32 - 1 is divisible by 3, and 0 follows it.
        {"the seed wraps", {1, 1, 1}, 0xFFFFFFFE, {13, 11, 11, 12}},
        {"largest weights", {65535, 65535}, 65534, {11, 12}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        make(row.weights);
        lb_poke(seed(), row.seed);
        for (const int turn : row.turns) {
            EXPECT_EQ(udp(), turn);
        }
        unmake();
    }
}

TEST_F(SelectTest, AStaleWeightSumChoosesNobodyRatherThanAnybody)
{
    make({1, 1});
    lb_poke(server_object(12)->setable.weight, 0); // the sum still says 2
    lb_poke(seed(), 0);
    EXPECT_EQ(udp(), 11);
    EXPECT_EQ(udp(), NOWHERE);
    EXPECT_EQ(udp(), 11);
}

TEST_F(SelectTest, WeightSumFollowsEveryChange)
{
    make({3, 4});
    EXPECT_EQ(weightsum(), 7U);
    ASSERT_ADDED(weigh(80, 11, 10));
    EXPECT_EQ(weightsum(), 14U);
    ASSERT_ADDED(rm_server(C, 80, address(12)));
    EXPECT_EQ(weightsum(), 10U);
    ASSERT_ADDED(rm_server(C, 80, address(11)));
    EXPECT_EQ(weightsum(), 10U) << "the last one leaves the sum as it was";
}

TEST_F(SelectTest, WeightsOfUpTo128ServersCount)
{
    make(std::vector<lb_u16_t>(130, 65535));
    EXPECT_EQ(weightsum(), 128U * 65535U);
}

} // namespace
