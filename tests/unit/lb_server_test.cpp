#include "lb_cluster.h"
#include "lb_port.h"
#include "lb_server.h"

#include "stack_fixture.h"

namespace
{

using stack::cfgkey;
using stack::ip;

constexpr const char *C = "10.0.0.100";
constexpr const char *S = "10.0.0.11";

class ServerTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        ASSERT_ADDED(add_cluster(C));
        ASSERT_ADDED(add_port(C, 80));
    }

    template <class Object> Object *object(const lbcmd_key_t &key)
    {
        lbcmd_key_t copy = key;
        return reinterpret_cast<Object *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &copy));
    }
    lbsrv_obj_t *server(const char *addr) { return object<lbsrv_obj_t>(cfgkey(C, 80, addr)); }
    lbport_obj_t *port() { return object<lbport_obj_t>(cfgkey(C, 80)); }
    lb_u32_t weightsum() { return lb_peek(port()->serverset.weightsum); }
};

TEST_F(ServerTest, WeightSumFollowsEveryChange)
{
    ASSERT_ADDED(add_server(C, 80, "10.0.0.11", 3));
    EXPECT_EQ(weightsum(), 3U);
    ASSERT_ADDED(add_server(C, 80, "10.0.0.12", 4));
    EXPECT_EQ(weightsum(), 7U);
    EXPECT_EQ(set_server(C, 80, "10.0.0.11", [](lbsrv_setable_t &b) { b.weight = 10; }), 1);
    EXPECT_EQ(weightsum(), 14U);
    EXPECT_EQ(rm_server(C, 80, "10.0.0.12"), LBCMD_RC_SUCCESS);
    EXPECT_EQ(weightsum(), 10U);
    EXPECT_EQ(rm_server(C, 80, "10.0.0.11"), LBCMD_RC_SUCCESS);
    EXPECT_EQ(weightsum(), 10U) << "the last one leaves the sum as it was";
}

TEST_F(ServerTest, NeighbourIsHeldUntilTheServerIsReaped)
{
    lbip_addr_t addr = ip(S);
    ASSERT_ADDED(add_port(C, 81));
    ASSERT_ADDED(add_server(C, 80, S));
    ASSERT_ADDED(add_server(C, 81, S));
    lbneigh_obj_t *neigh = lbneigh_lookup(&addr);
    ASSERT_NE(neigh, nullptr);
    EXPECT_EQ(neigh->usecount, 2U);
    EXPECT_EQ(server(S)->neigh, neigh);
    EXPECT_EQ(rm_server(C, 80, S), LBCMD_RC_SUCCESS);
    EXPECT_EQ(neigh->usecount, 2U);
    tick(3);
    EXPECT_EQ(neigh->usecount, 1U);
    EXPECT_EQ(rm_server(C, 81, S), LBCMD_RC_SUCCESS);
    tick(3);
    EXPECT_EQ(lbneigh_lookup(&addr), nullptr);
}

} // namespace
