// When memory comes back: what must wait for whom, in the orders of events that are rare and hard
// to meet by chance.
#include <future>
#include <thread>

#include "stack_fixture.h"

namespace
{

// A thread that stays inside the stack for as long as it lives, as a worker with a packet does.
class thread_inside
{
  public:
    thread_inside() { entered_.get_future().wait(); }
    ~thread_inside()
    {
        leave_.set_value();
        thread_.join();
    }
    thread_inside(const thread_inside &) = delete;
    thread_inside &operator=(const thread_inside &) = delete;

  private:
    void stay()
    {
        const lb_grace_inside inside;
        entered_.set_value();
        leave_.get_future().wait();
    }

    std::promise<void> entered_{};
    std::promise<void> leave_{};
    std::thread thread_{[this] { stay(); }};
};

class ReapTest : public StackTest
{
};

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
    ASSERT_ADDED(add_cluster("10.0.0.100"));
    const auto before = fake::live_allocations();
    for (lb_u16_t port = 1; port <= 20; port++) {
        ASSERT_ADDED(add_port("10.0.0.100", port));
    }
    for (lb_u16_t port = 1; port <= 20; port++) {
        ASSERT_EQ(rm_port("10.0.0.100", port), LBCMD_RC_SUCCESS);
    }
    fake::advance_s(-3600);
    tick(2);
    EXPECT_GT(fake::live_allocations(), before);
    tick(2);
    EXPECT_EQ(fake::live_allocations(), before);
}

} // namespace
