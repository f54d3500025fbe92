// Everything at once: workers with all kinds of frames, a stack that is made what one random
// configuration after the other says while its interface comes and goes, and a timer whose clock
// runs fast and steps to and fro.
//
// Only the command thread changes the trees: whatever the other threads do meanwhile, no command
// may be refused, and each configuration must be reached. Once all have stopped, all memory must
// come back.
#include "lb_cluster.h"
#include "lb_port.h"
#include "lb_server.h"

#include "random_service.h"
#include "stack_daemon.h"
#include "stress.h"
#include "vellcfg/apply.h"
#include "vellcfg/diff.h"
#include "vellcfg/normalise.h"

namespace
{

using stress::below;
using stress::rng;

// An address of the random configurations.
std::string address(int version, int last)
{
    return (version == 6 ? "2001:db8::" : "10.0.0.") + std::to_string(last);
}

packets::bytes random_packet(rng &random)
{
    const std::uint8_t protos[] = {packets::TCP, packets::TCP, packets::UDP, packets::UDP, 1, 50};
    const std::uint16_t fragoffs[] = {0x2000, 0x2010, 0x0020};
    packets::packet p = {.version = below(random, 3) == 0 ? 6 : 4};
    p.src = address(p.version, 11 + below(random, 4));
    p.dst = address(p.version, below(random, 8) == 0 ? 50 : 100 + below(random, 2));
    p.sport = static_cast<std::uint16_t>(1024 + below(random, 1000));
    p.dport = static_cast<std::uint16_t>(80 + below(random, 5));
    p.proto = protos[below(random, 6)];
    p.flags = static_cast<std::uint8_t>(1U << below(random, 5));
    p.ttl = static_cast<std::uint8_t>(below(random, 6) == 0 ? 1 : 64);
    p.fragoff = below(random, 12) == 0 ? fragoffs[below(random, 3)] : std::uint16_t{0};
    p.id = static_cast<std::uint16_t>(below(random, 4));
    p.payload = static_cast<std::size_t>(below(random, 10) == 0 ? 1400 : below(random, 100));
    return packets::build(p);
}

packets::bytes random_neighbour(rng &random)
{
    const int server = 11 + below(random, 4);
    const auto mac = static_cast<std::uint8_t>(random());
    switch (below(random, 4)) {
    case 0: return packets::advertisement(address(6, server), mac);
    case 1: return packets::build(packets::arp{.srcip = address(4, server)});
    case 2: return packets::arp_reply(address(4, 254), mac);
    default: return packets::arp_reply(address(4, server), mac);
    }
}

class EverythingAtOnceTest : public Stress<StackTest>
{
  protected:
    void reconfigure(random_service &services)
    {
        const auto target = vellcfg::normalised(services.next());
        const auto plan = vellcfg::diff(target, vellb::read_picture(daemon_));
        const auto result = vellcfg::apply(daemon_, plan.steps);
        ASSERT_TRUE(result.complete()) << result.failure->what();
        const auto left = vellcfg::diff(target, vellb::read_picture(daemon_));
        ASSERT_TRUE(left.empty()) << left.steps[0].text;
    }
    void make_interface(rng &random)
    {
        lbifin_setable_t made = stack::ethernet(1, below(random, 4) == 0 ? 576 : 1500);
        made.arp = below(random, 5) == 0 ? LBIFIN_YN_NO : LBIFIN_YN_YES;
        made.isPTP = below(random, 5) == 0 ? LBIFIN_YN_YES : LBIFIN_YN_NO;
        ASSERT_ADDED(add_interface("eth0", made));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24", below(random, 3) == 0 ? "10.0.0.12" : ""));
        ASSERT_ADDED(add_ifaddr("eth0", "2001:db8::1/64"));
    }
    void expect_forwards()
    {
        fake::count_only(false);
        make_eth0();
        make_service("10.0.0.100", {"10.0.0.11"});
        const auto sent = sent_for(packets::build(packets::packet{}));
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(packets::mac_at(sent[0].bytes, 0), packets::mac_of(11));
    }

  private:
    stack_daemon daemon_;
};

TEST_F(EverythingAtOnceTest, EveryConfigurationIsReachedAndLeavesNothing)
{
    random_service services(static_cast<unsigned>(random_for(0)()));
    fake::count_only(true);
    for (int i = 0; i < stress::WORKERS; i++) {
        start_worker(
            [](rng &random) {
                return below(random, 4) == 0 ? random_neighbour(random) : random_packet(random);
            },
            [](const packets::bytes &bytes, fake::worker &worker) { (void)worker.receive(bytes); });
    }
    start_timer();
    run([&](rng &random) {
        remove_below(LBCMD_KEYTYPE_IFACE, stack::ifacekey());
        if (below(random, 4) != 0) {
            make_interface(random);
        }
        reconfigure(services);
    });
    remove_all();
    tick(6);
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 0);
    for (const lbht_bucket_t &bucket : lbexecutor->neightable.buckets) {
        EXPECT_EQ(lbll_size(&bucket), 0) << "a use of a neighbour that nobody gave back";
    }
    lbpbuf_drain();
    EXPECT_EQ(fake::live_allocations(), 0) << fake::live_bytes() << " bytes";
    expect_forwards();
}

} // namespace
