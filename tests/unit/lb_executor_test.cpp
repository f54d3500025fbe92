#include "lb_cluster.h"
#include "lb_executor.h"

#include "stack_fixture.h"

namespace
{

using stack::cfgkey;
using stack::ip;

constexpr const char *C = "10.0.0.100";

class ExecutorTest : public StackTest
{
};

TEST_F(ExecutorTest, StartsOnceAndAgainAfterExit)
{
    EXPECT_EQ(lb_init(), 1);
    EXPECT_TRUE(fake::log_contains("Attempt to initialize the executor twice"));
    ASSERT_ADDED(add_cluster(C));
    stop_stack();
    EXPECT_EQ(fake::live_mutexes(), 0);
    EXPECT_EQ(lbexecutor, nullptr);
    EXPECT_EQ(lbexe_exit(), 1) << "it is retired already";
    fake::log_clear();
    ASSERT_EQ(lb_init(), 0);
    EXPECT_TRUE(fake::log_contains("vellb2 0.1.0 Linux/"));
    EXPECT_TRUE(get_executor().children.empty());
}

TEST_F(ExecutorTest, FailedStartLeavesNothing)
{
    stop_stack();
    int n = 1;
    for (;; n++) {
        fake::fail(fake::op::mutex_init, n);
        if (lb_init() == 0) {
            break;
        }
        EXPECT_EQ(fake::live_mutexes(), 0) << n;
        EXPECT_EQ(lbexecutor, nullptr) << n;
        EXPECT_EQ(lbexeos_logmask, nullptr) << n;
    }
    EXPECT_GT(n, 20);
    fake::fail(fake::op::mutex_init, 0);
}

TEST_F(ExecutorTest, TellsVersionStartAndDefaults)
{
    const stack::executor_view view = get_executor();
    const std::string version(view.getable.version, sizeof(view.getable.version));
    EXPECT_EQ(version.substr(0, 12), "0.1.0 Linux/");
    EXPECT_NE(version.find("++"), std::string::npos);
    EXPECT_EQ(view.getable.starttime.secs, fake::now().secs);
    EXPECT_EQ(view.setable.log_mask, lbexe_log_mask);
    EXPECT_EQ(view.setable.ha.timeout, 2);
    EXPECT_EQ(view.setable.ha.role, LBHA_ROLE_SOLO);
    EXPECT_EQ(view.getable.ha.state, LBHA_STATE_NA);
}

TEST_F(ExecutorTest, GatewayFollowsTheSetting)
{
    const lbneigh_obj_t *&gateway = const_cast<const lbneigh_obj_t *&>(lbexecutor->clientgw_neigh);
    lbip_addr_t first = ip("10.0.0.1");
    lbip_addr_t second = ip("10.0.0.2");
    set_executor_log_mask(LB_LOG_EXECUTOR);
    EXPECT_EQ(set_client_gateway("10.0.0.1"), LBCMD_RC_SUCCESS);
    const lbneigh_obj_t *neigh = gateway;
    ASSERT_NE(neigh, nullptr);
    EXPECT_EQ(neigh, lbneigh_lookup(&first));
    EXPECT_EQ(neigh->usecount, 1U);
    EXPECT_EQ(get_executor().getable.clientgwneighstate, lb_peek(neigh->state));

    EXPECT_EQ(set_client_gateway("10.0.0.1"), LBCMD_RC_SUCCESS);
    EXPECT_EQ(gateway, neigh);
    EXPECT_EQ(neigh->usecount, 1U) << "the same address takes no second use";
    EXPECT_FALSE(fake::log_contains("removing"));

    EXPECT_EQ(set_client_gateway("10.0.0.2"), LBCMD_RC_SUCCESS);
    EXPECT_EQ(lbneigh_lookup(&first), nullptr);
    EXPECT_NE(lbneigh_lookup(&second), nullptr);
    EXPECT_EQ(gateway, lbneigh_lookup(&second));

    EXPECT_EQ(set_client_gateway(""), LBCMD_RC_SUCCESS);
    EXPECT_EQ(gateway, nullptr);
    EXPECT_EQ(lbneigh_lookup(&second), nullptr);
    EXPECT_EQ(get_executor().getable.clientgwneighstate, 0);
}

TEST_F(ExecutorTest, GatewayWithoutMemoryIsTakenByTheNextSet)
{
    EXPECT_EQ(set_client_gateway("10.0.0.1"), LBCMD_RC_SUCCESS);
    fake::fail(fake::op::alloc, 1);
    EXPECT_EQ(set_client_gateway("10.0.0.2"), LBCMD_RC_SUCCESS);
    EXPECT_EQ(lbexecutor->clientgw_neigh, nullptr);
    EXPECT_EQ(set_client_gateway("10.0.0.2"), LBCMD_RC_SUCCESS);
    EXPECT_NE(lbexecutor->clientgw_neigh, nullptr);
}

TEST_F(ExecutorTest, IPv6GatewayIsStoredWithoutANeighbour)
{
    EXPECT_EQ(set_executor([](lbexe_setable_t &b) { b.clientgateway_ipv6 = ip("2001:db8::1"); }),
              LBCMD_RC_SUCCESS);
    EXPECT_EQ(get_executor().setable.clientgateway_ipv6.version, 6);
    EXPECT_EQ(lbexecutor->clientgw_neigh_ipv6, nullptr);
    EXPECT_EQ(set_client_gateway("2001:db8::1"), LBCMD_RC_SUCCESS);
    EXPECT_EQ(lbexecutor->clientgw_neigh, nullptr);
}

TEST_F(ExecutorTest, RemovalStopsTheProcess)
{
    ASSERT_ADDED(add_cluster(C));
    EXPECT_EQ(rm(LBCMD_KEYTYPE_CONFIG, cfgkey()), LBCMD_RC_HASCHILD);
    EXPECT_FALSE(fake::stop_requested());
    EXPECT_EQ(rm_cluster(C), LBCMD_RC_SUCCESS);
    EXPECT_EQ(rm(LBCMD_KEYTYPE_CONFIG, cfgkey()), LBCMD_RC_SUCCESS);
    EXPECT_TRUE(fake::stop_requested());
}

TEST_F(ExecutorTest, EveryRoleBecomesSolo)
{
    set_executor_log_mask(LB_LOG_EVENT);
    const struct {
        lb_u8_t role;
        const char *line; // null: silently
    } rows[] = {
        {LBHA_ROLE_UNDEF, "HA role unspecified -- default to SOLO"},
        {LBHA_ROLE_SOLO, nullptr},
        {LBHA_ROLE_PRIMARY, "HA role 2 is not available -- set to SOLO"},
        {LBHA_ROLE_BACKUP, "HA role 3 is not available -- set to SOLO"},
        {7, "HA role unspecified -- default to SOLO"},
    };
    for (const auto &row : rows) {
        fake::log_clear();
        EXPECT_EQ(set_executor([&](lbexe_setable_t &b) {
                      b.log_mask = LB_LOG_EVENT;
                      b.ha.role = row.role;
                      b.ha.tostrategy = LBHA_TAKEOVERSTRATEGY_AUTOMATIC;
                      b.ha.repstrategy = LBHA_REPLICATIONSTRATEGY_CRREP;
                      b.ha.timeout = 9;
                  }),
                  LBCMD_RC_SUCCESS);
        const stack::executor_view view = get_executor();
        EXPECT_EQ(view.setable.ha.role, LBHA_ROLE_SOLO) << +row.role;
        EXPECT_EQ(view.setable.ha.tostrategy, LBHA_TAKEOVERSTRATEGY_NA) << +row.role;
        EXPECT_EQ(view.setable.ha.repstrategy, LBHA_REPLICATIONSTRATEGY_NOREP) << +row.role;
        EXPECT_EQ(view.setable.ha.timeout, 9) << +row.role;
        EXPECT_EQ(view.getable.ha.state, LBHA_STATE_NA) << +row.role;
        EXPECT_EQ(fake::log_count("HA role"), row.line == nullptr ? 0 : 1) << +row.role;
        EXPECT_TRUE(row.line == nullptr || fake::log_contains(row.line)) << +row.role;
    }
}

TEST_F(ExecutorTest, StatisticsLineAddsUp)
{
    lb_proto_stats_t stats{};
    stats.in = 6000000000ULL;
    stats.fwd = 5000000000ULL;
    stats.notforus = 1;
    stats.discard = 2;
    stats.err = 3;
    stats.gen = 4;
    lbexe_protostats("ipv4", &stats);
    EXPECT_FALSE(fake::log_contains("ipv4"));
    set_executor_log_mask(LB_LOG_STATISTICS);
    lbexe_protostats("ipv4", &stats);
    EXPECT_TRUE(fake::log_contains("0.000000 ipv4 in:6000000000 = ( fwd:5000000000 notforus:1 "
                                   "discard:2 err:3 ):5000000006 gen:4 \n"));
    tick_once();
    EXPECT_TRUE(fake::log_contains("arp  in:0 = ( fwd:0 notforus:0 discard:0 err:0 ):0 gen:0 \n"));
}

// For every object, each allocation and each mutex that its ADD asks for fails in turn. Whether the
// ADD is refused or does without, nothing is left once the object is gone.
TEST_F(ExecutorTest, FailedAddsLeaveTheTreeAsItWas)
{
    set_executor_log_mask(0);
    const struct {
        const char *name;
        std::function<int()> add;
        lbcmd_keytype_e keytype;
        lbcmd_key_t key;
        int least; // failures that must have struck
    } rows[] = {
        {"interface", [&] { return add_interface("eth0"); }, LBCMD_KEYTYPE_IFACE,
         stack::ifacekey("eth0"), 2},
        {"interface address", [&] { return add_ifaddr("eth0", "10.0.0.1/24"); },
         LBCMD_KEYTYPE_IFACE, stack::ifacekey("eth0", "10.0.0.1/24"), 1},
        {"cluster", [&] { return add_cluster(C); }, LBCMD_KEYTYPE_CONFIG, cfgkey(C), 260},
        {"port", [&] { return add_port(C, 80); }, LBCMD_KEYTYPE_CONFIG, cfgkey(C, 80), 4},
        {"server", [&] { return add_server(C, 80, "10.0.0.11"); }, LBCMD_KEYTYPE_CONFIG,
         cfgkey(C, 80, "10.0.0.11"), 2},
    };
    for (const auto &row : rows) {
        int struck = 0;
        for (fake::op which : {fake::op::alloc, fake::op::mutex_init}) {
            bool pending = false;
            for (int n = 1; !pending; n++) {
                const auto memory = fake::live_allocations();
                const auto mutexes = fake::live_mutexes();
                fake::fail(which, n);
                const int rc = row.add();
                pending = fake::fail_pending(which);
                fake::fail(which, 0);
                struck += pending ? 0 : 1;
                EXPECT_EQ(rm(row.keytype, row.key),
                          rc == LBCMD_RC_SUCCESS ? LBCMD_RC_SUCCESS : LBCMD_RC_OBJNOTFOUND)
                    << row.name << " " << n;
                tick(rc == LBCMD_RC_SUCCESS ? 4 : 1);
                lbpbuf_drain();
                ASSERT_EQ(fake::live_allocations(), memory) << row.name << " " << n;
                ASSERT_EQ(fake::live_mutexes(), mutexes) << row.name << " " << n;
            }
        }
        EXPECT_GE(struck, row.least) << row.name;
        ASSERT_ADDED(row.add());
        lbpbuf_drain();
    }
}

} // namespace
