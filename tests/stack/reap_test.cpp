// When memory comes back: what must wait for whom, in the orders of events that are rare and hard
// to meet by chance.
#include "lb_cluster.h"
#include "lb_port.h"
#include "lb_server.h"

#include "puppet.h"
#include "stack_fixture.h"

namespace
{

// As a worker with a packet: inside the stack for as long as it lives.
struct thread_inside : puppet {
    thread_inside()
    {
        act([] { lb_grace_enter(); });
    }
    ~thread_inside()
    {
        act([] { lb_grace_leave(); });
    }
    thread_inside(const thread_inside &) = delete;
    thread_inside &operator=(const thread_inside &) = delete;
};

using ReapTest = StackTest;

constexpr const char *C = "10.0.0.100";

// The timer may be finding a route over an interface while that is removed, and publish it late. A
// worker that takes that route uses the interface, even if nothing leads to the route any more
// when the interface's own grace has passed.
TEST_F(ReapTest, InterfaceOutlivesALateRouteThatWasTakenAndDropped)
{
    ASSERT_ADDED(add_interface("eth0"));
    ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
    ASSERT_ADDED(set_client_gateway("10.0.0.254"));
    bool removed = false;
    fake::during_getxmithandle([&] {
        removed = true;
        EXPECT_EQ(rm_ifaddr("eth0", "10.0.0.1"), LBCMD_RC_SUCCESS);
        EXPECT_EQ(rm_interface("eth0"), LBCMD_RC_SUCCESS);
    });
    for (int i = 0; i < 10 && !removed; i++) {
        tick_once();
    }
    const lbneigh_obj_t *gateway = lb_peekptr(lbexecutor->clientgw_neigh);
    ASSERT_NE(lb_peekptr(gateway->route), nullptr) << "the route was not published late";
    {
        const thread_inside worker;
        const lbneigh_route_t *taken = lb_peekptr(gateway->route);
        ASSERT_ADDED(set_client_gateway(""));
        tick_once(); // the interface's address may go
        const auto held = fake::live_allocations();
        EXPECT_EQ(held, 3) << "neighbour, route and interface";
        tick(5);
        EXPECT_EQ(fake::live_allocations(), held);
        EXPECT_EQ(lb_peek(taken->ifin->setable.mtu_sys), 1500U);
    }
    tick(2);
    EXPECT_EQ(fake::live_allocations(), 0);
}

// Every object's age starts again at a step back, not one object's after the other.
TEST_F(ReapTest, ClockStepBackDelaysAllRemovedObjectsOnce)
{
    ASSERT_ADDED(add_cluster(C));
    const auto before = fake::live_allocations();
    for (lb_u16_t port = 1; port <= 20; port++) {
        ASSERT_ADDED(add_port(C, port));
    }
    for (lb_u16_t port = 1; port <= 20; port++) {
        ASSERT_ADDED(rm_port(C, port));
    }
    fake::advance_s(-3600);
    tick(2);
    EXPECT_GT(fake::live_allocations(), before);
    tick(2);
    EXPECT_EQ(fake::live_allocations(), before);
}

TEST_F(ReapTest, NothingIsFreedWhileAReaderIsInside)
{
    ASSERT_ADDED(add_interface("eth0"));
    ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
    make_service(C, {"10.0.0.11"});
    const struct {
        const char *name;
        std::function<int()> remove;
    } rows[] = {
        {"server", [this] { return rm_server(C, 80, "10.0.0.11"); }},
        {"port", [this] { return rm_port(C, 80); }},
        {"cluster", [this] { return rm_cluster(C); }},
        {"address", [this] { return rm_ifaddr("eth0", "10.0.0.1/24"); }},
        {"interface", [this] { return rm_interface("eth0"); }},
    };
    const lbip_addr_t server = stack::ip("10.0.0.11");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        tick_once();
        lbpbuf_drain();
        const auto full = fake::live_allocations();
        {
            const thread_inside reader;
            EXPECT_EQ(row.remove(), LBCMD_RC_SUCCESS);
            tick(10);
            lbpbuf_drain();
            EXPECT_EQ(fake::live_allocations(), full);
            EXPECT_EQ(lbneigh_lookup(&server) != nullptr, &row == rows) << "its server's";
        }
        tick(1);
        lbpbuf_drain();
        EXPECT_LT(fake::live_allocations(), full);
    }
    EXPECT_EQ(fake::live_allocations(), 0);
}

// A port whose RM was refused stays linked until it is reaped, and its cluster with it. Both are
// taken out before they are freed, and grace starts anew.
TEST_F(ReapTest, RefusedRemovalsAreUnlinkedBeforeTheyAreFreed)
{
    ASSERT_ADDED(add_cluster(C));
    ASSERT_ADDED(add_port(C, 80));
    const auto find = [](const char *text) {
        lbip_addr_t addr = stack::ip(text);
        return static_cast<lbclu_obj_t *>(lbll_select1(&lbexecutor->clusterlist, &addr));
    };
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

} // namespace
