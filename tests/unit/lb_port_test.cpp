#include "lb_cluster.h"
#include "lb_port.h"
#include "lb_select.h"

#include "stack_fixture.h"

namespace
{

using stack::cfgkey;

constexpr const char *C = "10.0.0.100";

class PortTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        ASSERT_ADDED(add_cluster(C));
    }
};

TEST_F(PortTest, AlgorithmsOutOfRangeBecomeTheDefaults)
{
    const struct {
        lb_u8_t selectalg, udpselectalg;
        lb_u8_t tcp, udp;
    } rows[] = {
        {0, 0, 1, 5}, {6, 9, 1, 5}, {255, 255, 1, 5}, {1, 1, 1, 1}, {5, 5, 5, 5}, {1, 3, 1, 3},
    };
    for (const auto &row : rows) {
        ASSERT_ADDED(add_port(C, 80, row.selectalg, row.udpselectalg));
        const stack::port_view view = get_port(C, 80);
        EXPECT_EQ(view.addable.selectalg, row.tcp) << +row.selectalg;
        EXPECT_EQ(view.addable.udpselectalg, row.udp) << +row.udpselectalg;
        EXPECT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
    }
}

TEST_F(PortTest, ShortTimesBecomeTheDefaults)
{
    const struct {
        lb_u8_t selectalg;
        lb_u32_t stale, sticky;
        lb_u32_t newstale, newsticky;
    } rows[] = {
        {LBSEL_ALGORIGHM_HASH, 9, 5, 6400, 5},        {LBSEL_ALGORIGHM_HASH, 10, 0, 10, 0},
        {LBSEL_ALGORIGHM_UDPRR, 0, 9, 6400, 9},       {LBSEL_ALGORIGHM_CONNECTION, 0, 3, 6400, 3},
        {LBSEL_ALGORIGHM_AFFINITY, 0, 0, 6400, 6400}, {LBSEL_ALGORIGHM_AFFINITY, 77, 9, 77, 77},
        {LBSEL_ALGORIGHM_AFFINITY, 77, 10, 77, 10},   {LBSEL_ALGORIGHM_CONN_AFFIN, 77, 5, 77, 1800},
        {LBSEL_ALGORIGHM_CONN_AFFIN, 77, 10, 77, 10},
    };
    for (const auto &row : rows) {
        lbport_addable_t addable{};
        addable.selectalg = row.selectalg;
        lbport_setable_t setable{};
        setable.staletimeout = row.stale;
        setable.stickytime = row.sticky;
        setable.weightbound = 99;
        ASSERT_ADDED(add_port(C, 80, addable, setable));
        const stack::port_view view = get_port(C, 80);
        EXPECT_EQ(view.setable.staletimeout, row.newstale) << +row.selectalg;
        EXPECT_EQ(view.setable.stickytime, row.newsticky) << +row.selectalg;
        EXPECT_EQ(view.setable.weightbound, 20U) << +row.selectalg;
        EXPECT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
    }
}

} // namespace
