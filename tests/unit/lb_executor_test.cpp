#include "lb_cluster.h"
#include "lb_executor.h"

#include "stack_fixture.h"

namespace
{

using stack::cfgkey;
using stack::ip;

constexpr const char *C = "10.0.0.100";

using ExecutorTest = StackTest;

TEST_F(ExecutorTest, StartsOnceAndAgainAfterExit)
{
    EXPECT_EQ(lb_init(), 1);
    ASSERT_ADDED(add_cluster(C));
    stop_stack();
    EXPECT_EQ(fake::live_mutexes(), 0);
    EXPECT_EQ(lbexecutor, nullptr);
    EXPECT_EQ(lbexe_exit(), 1) << "it is retired already";
    ASSERT_EQ(lb_init(), 0);
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

TEST_F(ExecutorTest, GatewayWithoutMemoryIsTakenByTheNextSet)
{
    EXPECT_EQ(set_client_gateway("10.0.0.1"), LBCMD_RC_SUCCESS);
    fake::fail(fake::op::alloc, 1);
    EXPECT_EQ(set_client_gateway("10.0.0.2"), LBCMD_RC_SUCCESS);
    EXPECT_EQ(lbexecutor->clientgw_neigh, nullptr);
    EXPECT_EQ(set_client_gateway("10.0.0.2"), LBCMD_RC_SUCCESS);
    EXPECT_NE(lbexecutor->clientgw_neigh, nullptr);
}

TEST_F(ExecutorTest, EachIpVersionHasAGatewayOfItsOwn)
{
    const auto gateway6 = [this](const std::string &addr) {
        return set_executor([&](lbexe_setable_t &b) { b.clientgateway_ipv6 = ip(addr); });
    };
    const auto entry = [](const std::string &addr) {
        const lbip_addr_t key = ip(addr);
        return lbneigh_lookup(&key);
    };
    ASSERT_ADDED(set_client_gateway("10.0.0.1"));
    set_executor_log_mask(LB_LOG_EXECUTOR);
    const struct {
        const char *addr;
        bool isneighbour;
        const char *log;
    } rows[] = {
        {"2001:db8::1", true, "creating new neigh record for clientgateway6\n"},
        {"2001:db8::2", true, "removing old clientgateway6 from neigh table and add new\n"},
        {"2001:db8::2", true, nullptr},
        {"10.0.0.9", false, "removing clientgateway6 from neigh table\n"},
        {"", false, nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.addr);
        fake::log_clear();
        EXPECT_EQ(gateway6(row.addr), LBCMD_RC_SUCCESS);
        EXPECT_EQ(lbexecutor->clientgw_neigh_ipv6, row.isneighbour ? entry(row.addr) : nullptr);
        EXPECT_EQ(lbexecutor->clientgw_neigh_ipv6 != nullptr, row.isneighbour);
        EXPECT_EQ(get_executor().getable.clientgwneighstate_ipv6 != 0, row.isneighbour);
        EXPECT_EQ(fake::log_count("clientgateway"), row.log != nullptr ? 1 : 0);
        EXPECT_TRUE(row.log == nullptr || fake::log_contains(row.log));
    }
    EXPECT_EQ(entry("2001:db8::2"), nullptr);
    EXPECT_EQ(lbexecutor->clientgw_neigh, entry("10.0.0.1")) << "the other's is left alone";
    EXPECT_EQ(set_client_gateway("2001:db8::1"), LBCMD_RC_SUCCESS);
    EXPECT_EQ(lbexecutor->clientgw_neigh, nullptr);
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
        {"heartbeat",
         [&] {
             return add(LBCMD_KEYTYPE_CONFIG, cfgkey("10.0.0.1", 0, "10.0.0.2"), {},
                        stack::bytes_of(lbha_hb_setable_t{}));
         },
         LBCMD_KEYTYPE_CONFIG, cfgkey("10.0.0.1", 0, "10.0.0.2"), 2},
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
