#include "lb_cluster.h"
#include "lb_port.h"
#include "lb_select.h"

#include "stack_fixture.h"

namespace
{

using stack::cfgkey;

constexpr const char *C = "10.0.0.100";

int initcalls;
int initresult;
int cleanupcalls;
int timercalls;

int countinit(lbport_obj_t *port)
{
    initcalls++;
    EXPECT_EQ(port->setable.weightbound, 20U) << "defaults are settled first";
    return initresult;
}
void countcleanup(lbport_obj_t *)
{
    cleanupcalls++;
}
void counttimer(lbport_obj_t *)
{
    timercalls++;
}

class PortTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        initcalls = initresult = cleanupcalls = timercalls = 0;
        ASSERT_ADDED(add_cluster(C));
    }

    // Gives the algorithms with tables a chooser, as if they were there.
    void make_available()
    {
        for (int alg = LBSEL_ALGORIGHM_CONNECTION; alg <= LBSEL_ALGORIGHM_CONN_AFFIN; alg++) {
            selectfunc[alg] = {};
            selectfunc[alg].choose = selectfunc[LBSEL_ALGORIGHM_HASH].choose;
            selectfunc[alg].portinit = countinit;
            selectfunc[alg].portcleanup = countcleanup;
            selectfunc[alg].timer = counttimer;
        }
    }

    int add_crossport(lb_u16_t port, lb_u8_t selectalg, lb_u16_t crossport)
    {
        lbport_addable_t addable{};
        addable.selectalg = selectalg;
        addable.crossport = crossport;
        return add_port(C, port, addable);
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
    make_available();
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

TEST_F(PortTest, InitSettlesTheCallersBlocksToo)
{
    lbport_addable_t addable{};
    lbport_setable_t setable{};
    auto port = std::make_unique<lbport_obj_t>();
    lbcmd_key_t clusterkey = cfgkey(C);
    auto *cluster =
        reinterpret_cast<lbclu_obj_t *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &clusterkey));
    lbcmd_key_t key = cfgkey(C, 81);
    ASSERT_EQ(lbport_init(&key.cfg, cluster, port.get(), &addable, &setable), 0);
    EXPECT_EQ(addable.selectalg, LBSEL_ALGORIGHM_HASH);
    EXPECT_EQ(addable.crossport, 81);
    EXPECT_EQ(setable.staletimeout, 6400U);
    EXPECT_EQ(std::memcmp(&addable, &port->addable, sizeof(addable)), 0);
    EXPECT_EQ(std::memcmp(&setable, &port->setable, sizeof(setable)), 0);
    EXPECT_EQ(lbsrvset_cleanup(&port->serverset), 0);
    EXPECT_EQ(lbll_rmlist(&port->rulelist), 0);
    EXPECT_EQ(lbll_rmlist(&port->serverlist), 0);
}

TEST_F(PortTest, CrossPort)
{
    make_available();
    ASSERT_ADDED(add_crossport(80, LBSEL_ALGORIGHM_AFFINITY, 0));
    EXPECT_EQ(get_port(C, 80).addable.crossport, 80) << "none is the port itself";
    ASSERT_ADDED(add_crossport(443, LBSEL_ALGORIGHM_CONN_AFFIN, 80));
    EXPECT_EQ(get_port(C, 443).addable.crossport, 80);
    EXPECT_EQ(get_port(C, 80).addable.crossport, 443) << "the partner learns of it";
    ASSERT_ADDED(add_crossport(8080, LBSEL_ALGORIGHM_AFFINITY, 9999));
    EXPECT_EQ(get_port(C, 8080).addable.crossport, 9999) << "a partner that is yet to come";
    ASSERT_ADDED(add_crossport(81, LBSEL_ALGORIGHM_HASH, 81));
    EXPECT_EQ(add_crossport(82, LBSEL_ALGORIGHM_HASH, 80), LBCMD_RC_FAILURE);
    EXPECT_EQ(get_port(C, 80).addable.crossport, 82) << "even where the port fails";
    EXPECT_EQ(get_port(C, 82).rc, LBCMD_RC_OBJNOTFOUND);
}

TEST_F(PortTest, AlgorithmIsInitialisedCleanedUpAndDriven)
{
    make_available();
    ASSERT_ADDED(add_port(C, 80, LBSEL_ALGORIGHM_CONNECTION));
    EXPECT_EQ(initcalls, 1);
    tick(1);
    EXPECT_EQ(timercalls, 2);
    EXPECT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
    tick_once();
    EXPECT_EQ(timercalls, 2) << "a removed port has no timer";
    EXPECT_EQ(cleanupcalls, 0);
    tick(4);
    EXPECT_EQ(cleanupcalls, 1);
    initresult = 1;
    EXPECT_EQ(add_port(C, 80, LBSEL_ALGORIGHM_CONNECTION), LBCMD_RC_FAILURE);
    EXPECT_EQ(cleanupcalls, 1) << "it had taken nothing";
}

TEST_F(PortTest, LaterFailureGivesBackWhatTheAlgorithmTook)
{
    make_available();
    for (int n = 1; n <= 3; n++) {
        fake::fail(fake::op::mutex_init, n);
        EXPECT_EQ(add_port(C, 80, LBSEL_ALGORIGHM_CONNECTION), LBCMD_RC_FAILURE);
        EXPECT_FALSE(fake::fail_pending(fake::op::mutex_init));
        EXPECT_EQ(initcalls, n);
        EXPECT_EQ(cleanupcalls, n);
    }
}

} // namespace
