#include "lb_cluster.h"
#include "lb_port.h"
#include "lb_select.h"
#include "lb_server.h"

#include "stack_fixture.h"

namespace
{

using stack::cfgkey;
using stack::ip;

constexpr const char *C = "10.0.0.100";
constexpr const char *S = "10.0.0.11";

int srvinitresult;
std::vector<std::string> calls;

int recordinit(lbsrv_obj_t *)
{
    calls.push_back("init");
    return srvinitresult;
}
void recordrm(lbsrv_obj_t *srv)
{
    EXPECT_EQ(srv->llnode._list, nullptr) << "still linked";
    calls.push_back("rm");
}
bool recordreap(lbsrv_obj_t *)
{
    calls.push_back("reap");
    return false;
}

class ServerTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        srvinitresult = 0;
        calls.clear();
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

TEST_F(ServerTest, ReadsNeighbourAndMtu)
{
    lbsrv_setable_t setable{};
    setable.encapmtu = 1400;
    ASSERT_ADDED(add_server(C, 80, S, setable));
    lbneigh_obj_t *neigh = server(S)->neigh;
    EXPECT_EQ(lb_peek(neigh->encapmtu), 1400);
    EXPECT_EQ(get_server(C, 80, S).getable.neighstate, lb_peek(neigh->state));
    lb_poke(neigh->encapmtu, 1300);
    EXPECT_EQ(get_server(C, 80, S).setable.encapmtu, 1300);
    EXPECT_EQ(set_server(C, 80, S, [](lbsrv_setable_t &b) { b.encapmtu = 1200; }), 1);
    EXPECT_EQ(lb_peek(neigh->encapmtu), 1200);
    // The byte for "no neighbour" when there is none.
    lbsrv_obj_t *srv = server(S);
    srv->neigh = nullptr;
    EXPECT_EQ(get_server(C, 80, S).getable.neighstate, 0x20);
    EXPECT_TRUE(fake::log_contains("no neigh"));
    srv->neigh = neigh;
}

TEST_F(ServerTest, ReadsSizesOfItsRecordLists)
{
    ASSERT_ADDED(add_server(C, 80, S));
    lbsrv_seldat_t *sel = &server(S)->sel;
    sel->preest._size = 1;
    sel->active._size = 2;
    sel->fin._size = 3;
    sel->arlist._size = 4;
    lb_conn_stats_t stats = get_server(C, 80, S).getable.selstats;
    EXPECT_EQ(stats.preest, 1U);
    EXPECT_EQ(stats.fin, 3U);
    EXPECT_EQ(stats.active, 4U) << "affinity records, without a connection table";
    port()->ct = this;
    EXPECT_EQ(get_server(C, 80, S).getable.selstats.active, 2U);
    port()->ct = nullptr;
    *sel = {};
}

TEST_F(ServerTest, KindsThatCannotBeServedAreRefused)
{
    set_executor_log_mask(LB_LOG_EVENT);
    lbsrv_addable_t nat{};
    nat.nat = 1;
    lbsrv_setable_t encapsulated{};
    encapsulated.encapflags = LBSRV_ENCAPFLAG_ENCAPSULATE | LBSRV_ENCAPTYPE_GRE;
    lbsrv_setable_t collocated{};
    collocated.Collocated = 1;
    const struct {
        const char *line;
        const char *addr;
        lbsrv_setable_t setable;
        lbsrv_addable_t addable;
    } rows[] = {
        {"NAT servers are not available", S, {}, nat},
        {"IPv6 servers are not available", "2001:db8::1", {}, {}},
        {"server address is not valid", "0.0.0.0", {}, {}},
        {"encapsulation and collocated servers are not available", S, encapsulated, {}},
        {"encapsulation and collocated servers are not available", S, collocated, {}},
    };
    for (const auto &row : rows) {
        fake::log_clear();
        EXPECT_EQ(add_server(C, 80, row.addr, row.setable, row.addable), LBCMD_RC_FAILURE);
        EXPECT_TRUE(fake::log_contains(row.line)) << row.line;
    }
    EXPECT_TRUE(get_port(C, 80).children.empty());
    EXPECT_EQ(lbll_size(&port()->serverset.srvreflist), 0);
}

TEST_F(ServerTest, SetOfEncapsulationIsTakenBack)
{
    set_executor_log_mask(LB_LOG_EVENT);
    ASSERT_ADDED(add_server(C, 80, S));
    EXPECT_EQ(set_server(C, 80, S, [](lbsrv_setable_t &b) { b.encapflags = LBSRV_ENCAPTYPE_IPIP; }),
              1);
    EXPECT_EQ(get_server(C, 80, S).setable.encapflags, LBSRV_ENCAPTYPE_IPIP);
    EXPECT_EQ(set_server(C, 80, S,
                         [](lbsrv_setable_t &b) {
                             b.encapflags = LBSRV_ENCAPFLAG_ENCAPSULATE | LBSRV_ENCAPTYPE_GRE;
                             b.weight = 9;
                         }),
              LBCMD_RC_SUCCESS);
    EXPECT_EQ(fake::log_count("encapsulation and collocated servers are not available"), 1);
    EXPECT_EQ(get_server(C, 80, S).setable.encapflags, LBSRV_ENCAPTYPE_IPIP);
    EXPECT_EQ(get_server(C, 80, S).setable.weight, 9) << "the rest is applied";
    EXPECT_EQ(set_server(C, 80, S, [](lbsrv_setable_t &b) { b.Collocated = 1; }), 1);
    EXPECT_EQ(get_server(C, 80, S).setable.Collocated, 0);
    EXPECT_TRUE(fake::tun_requests().empty());
}

TEST_F(ServerTest, AlgorithmHearsOfItsServers)
{
    lbsel_funcs_t &row = selectfunc[LBSEL_ALGORIGHM_HASH];
    const lbsel_funcs_t saved = row;
    row.srvinit = recordinit;
    row.srvrm = recordrm;
    row.srvreap = recordreap;
    ASSERT_ADDED(add_server(C, 80, S));
    EXPECT_EQ(rm_server(C, 80, S), LBCMD_RC_SUCCESS);
    EXPECT_EQ(calls, (std::vector<std::string>{"init", "rm"}));
    tick(4);
    EXPECT_EQ(calls, (std::vector<std::string>{"init", "rm", "reap"}));

    srvinitresult = 1;
    lbip_addr_t addr = ip(S);
    EXPECT_EQ(add_server(C, 80, S), LBCMD_RC_FAILURE);
    EXPECT_TRUE(fake::log_contains("select init failed"));
    EXPECT_EQ(lbneigh_lookup(&addr), nullptr) << "the neighbour is given back";
    row = saved;
}

// A rule that uses the server makes its removal refuse. It is off the tree, but packets find it
// until it is reaped.
TEST_F(ServerTest, RefusedRemovalIsUnlinkedBeforeItIsFreed)
{
    ASSERT_ADDED(add_server(C, 80, S));
    lbsrv_obj_t *srv = server(S);
    srv->getable.useservercount = 1;
    EXPECT_EQ(rm_server(C, 80, S), LBCMD_RC_FAILURE);
    EXPECT_EQ(server(S), nullptr);
    lbip_addr_t addr = ip(S);
    EXPECT_EQ(lbll_select1(&port()->serverlist, &addr), srv);
    tick(3);
    EXPECT_EQ(lbll_size(&port()->serverlist), 0);
    EXPECT_EQ(lbll_size(&port()->serverset.srvreflist), 0);
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 1) << "freed before readers have let go";
    tick_once();
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 0);
}

} // namespace
