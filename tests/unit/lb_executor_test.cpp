#include "lb_cluster.h"
#include "lb_executor.h"

#include "stack_fixture.h"

namespace
{

using stack::cfgkey;
using stack::ip;

constexpr const char *C = "10.0.0.100";

using ExecutorTest = StackTest;

TEST_F(ExecutorTest, StartsOnceAndAgainAndAFailedStartLeavesNothing)
{
    EXPECT_EQ(lb_init(), 1);
    ASSERT_ADDED(add_cluster(C));
    stop_stack();
    EXPECT_EQ(lbexe_exit(), 1) << "it is retired already";
    int n = 0;
    do {
        EXPECT_EQ(fake::live_mutexes(), 0) << n;
        EXPECT_EQ(lbexecutor, nullptr) << n;
        EXPECT_EQ(lbexeos_logmask, nullptr) << n;
        fake::fail(fake::op::mutex_init, ++n);
    } while (lb_init() != 0);
    EXPECT_GT(n, 20);
    EXPECT_TRUE(get_executor().children.empty());
}

TEST_F(ExecutorTest, EachIpVersionHasAGatewayOfItsOwn)
{
    const auto entry = [](const std::string &addr) {
        const lbip_addr_t key = ip(addr);
        return lbneigh_lookup(&key);
    };
    ASSERT_ADDED(set_client_gateway("10.0.0.1"));
    const struct {
        const char *addr;
        int failedalloc;
        bool isneighbour;
    } rows[] = {
        {"2001:db8::1", 0, true}, {"2001:db8::2", 1, false}, // no memory: the next set makes it
        {"2001:db8::2", 0, true}, {"10.0.0.9", 0, false},
        {"2001:db8::1", 0, true}, {"", 0, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.addr);
        fake::fail(fake::op::alloc, row.failedalloc);
        EXPECT_EQ(set_executor([&](auto &b) { b.clientgateway_ipv6 = ip(row.addr); }),
                  LBCMD_RC_SUCCESS);
        EXPECT_EQ(lbexecutor->clientgw_neigh_ipv6, row.isneighbour ? entry(row.addr) : nullptr);
        EXPECT_EQ(get_executor().getable.clientgwneighstate_ipv6 != 0, row.isneighbour);
    }
    EXPECT_EQ(entry("2001:db8::1"), nullptr);
    EXPECT_EQ(lbexecutor->clientgw_neigh, entry("10.0.0.1")) << "the other's is left alone";
    fake::fail(fake::op::alloc, 1);
    ASSERT_ADDED(set_client_gateway("10.0.0.2"));
    EXPECT_EQ(lbexecutor->clientgw_neigh, nullptr);
    ASSERT_ADDED(set_client_gateway("10.0.0.2"));
    EXPECT_NE(lbexecutor->clientgw_neigh, nullptr);
    ASSERT_ADDED(set_client_gateway("2001:db8::1"));
    EXPECT_EQ(lbexecutor->clientgw_neigh, nullptr);
}

// For every object, each allocation and each mutex that its ADD asks for fails in turn. Whether the
// ADD is refused or does without, nothing is left once the object is gone.
TEST_F(ExecutorTest, FailedAddsLeaveTheTreeAsItWas)
{
    set_executor_log_mask(0);
    const auto hb = cfgkey("10.0.0.1", 0, "10.0.0.2");
    const auto CONFIG = LBCMD_KEYTYPE_CONFIG, IFACE = LBCMD_KEYTYPE_IFACE;
    const struct {
        const char *name;
        lbcmd_keytype_e keytype;
        lbcmd_key_t key;
        int least; // failures that must have struck
        std::function<int()> add;
    } rows[] = {
        {"interface", IFACE, stack::ifacekey("eth0"), 2, [&] { return add_interface("eth0"); }},
        {"address", IFACE, stack::ifacekey("eth0", "10.0.0.1/24"), 1,
         [&] { return add_ifaddr("eth0", "10.0.0.1/24"); }},
        {"cluster", CONFIG, cfgkey(C), 260, [&] { return add_cluster(C); }},
        {"port", CONFIG, cfgkey(C, 80), 4, [&] { return add_port(C, 80); }},
        {"server", CONFIG, cfgkey(C, 80, "10.0.0.11"), 2,
         [&] { return add_server(C, 80, "10.0.0.11"); }},
        {"heartbeat", CONFIG, hb, 2,
         [&] { return add(CONFIG, hb, {}, stack::bytes_of(lbha_hb_setable_t{})); }},
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
