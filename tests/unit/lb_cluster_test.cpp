#include "lb_cluster.h"
#include "lb_port.h"
#include "lb_server.h"

#include "stack_fixture.h"

namespace
{

using stack::cfgkey;
using stack::ip;

constexpr const char *C = "10.0.0.100";

class ClusterTest : public StackTest
{
  protected:
    lbclu_obj_t *find(const char *text)
    {
        lbip_addr_t addr = ip(text);
        return static_cast<lbclu_obj_t *>(lbll_select1(&lbexecutor->clusterlist, &addr));
    }
};

TEST_F(ClusterTest, PacketsFindItFromAddToRm)
{
    EXPECT_EQ(find(C), nullptr);
    ASSERT_ADDED(add_cluster(C));
    ASSERT_ADDED(add_cluster("10.0.0.101"));
    ASSERT_NE(find(C), nullptr);
    EXPECT_EQ(find(C)->cmdobj.key.cfg.cluster.nboaddr.v4[3], 100);
    EXPECT_EQ(find("10.0.0.101")->cmdobj.key.cfg.cluster.nboaddr.v4[3], 101);
    EXPECT_EQ(rm_cluster(C), LBCMD_RC_SUCCESS);
    EXPECT_EQ(find(C), nullptr);
    EXPECT_NE(find("10.0.0.101"), nullptr);
}

TEST_F(ClusterTest, IsAnnouncedWhenItIsLinked)
{
    ASSERT_ADDED(add_interface("eth0"));
    ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
    (void)fake::take_sent(); // what adding the interface sent
    ASSERT_ADDED(add_cluster(C));
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].ifname, "eth0");
    EXPECT_EQ(sent[0].bytes[12], 0x08);
    EXPECT_EQ(sent[0].bytes[13], 0x06);
}

TEST_F(ClusterTest, InitRefusesOtherVersions)
{
    auto cluster = std::make_unique<lbclu_obj_t>();
    lbclu_addable_t addable{};
    lbclu_setable_t setable{};
    lbcmd_key_t key = cfgkey("2001:db8::1");
    EXPECT_EQ(lbclu_init(&key.cfg, cluster.get(), &addable, &setable), 1);
    key.cfg.cluster.version = 0;
    EXPECT_EQ(lbclu_init(&key.cfg, cluster.get(), &addable, &setable), 1);
    EXPECT_TRUE(fake::log_contains("ip version not set!"));
}

// A port whose RM was refused stays linked until it is reaped, and its cluster with it. Both are
// taken out before they are freed, and grace starts anew.
TEST_F(ClusterTest, RefusedRemovalsAreUnlinkedBeforeTheyAreFreed)
{
    ASSERT_ADDED(add_cluster(C));
    ASSERT_ADDED(add_port(C, 80));
    lbclu_obj_t *cluster = find(C);
    lb_u16_t number = 80;
    auto *port = static_cast<lbport_obj_t *>(lbll_select1(&cluster->portlist, &number));
    // A reference that no server owns makes the port's removal refuse, and the port the cluster's.
    auto stray = std::make_unique<lbsrv_obj_t>();
    stray->srvref.server = stray.get();
    ASSERT_EQ(lbll_addnode_rhs(&port->serverset.srvreflist, &stray->srvref), 0);
    EXPECT_EQ(rm_port(C, 80), LBCMD_RC_FAILURE);
    EXPECT_EQ(get_port(C, 80).rc, LBCMD_RC_OBJNOTFOUND) << "an RM takes it off the tree first";
    EXPECT_EQ(rm_cluster(C), LBCMD_RC_FAILURE);
    EXPECT_EQ(find(C), cluster) << "still linked";
    tick(3);
    EXPECT_EQ(lbll_size(&cluster->portlist), 0) << "three seconds old: unlinked";
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 2) << "but not freed yet";
    tick_once();
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 1);
    EXPECT_EQ(find(C), nullptr);
    tick_once();
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 0);
    EXPECT_EQ(stray->srvref.refnode._list, nullptr);
}

TEST_F(ClusterTest, TimerWithdrawsReplicateAllAfterTheFirstCluster)
{
    EXPECT_EQ(lbha_set_crrepall(), 0);
    EXPECT_EQ(lbha_set_arrepall(), 0);
    tick_once();
    EXPECT_TRUE(lbha_crrepall() && lbha_arrepall()) << "no cluster, no timer";
    ASSERT_ADDED(add_cluster(C));
    tick_once();
    EXPECT_FALSE(lbha_crrepall() || lbha_arrepall());
}

} // namespace
