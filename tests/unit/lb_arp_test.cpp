// ARP: which messages reach the neighbour table.
#include "lb_arp.h"

#include "packets.h"
#include "stack_fixture.h"

namespace
{

using packets::bytes;
using packets::ETH;

class ArpTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(add_cluster("10.0.0.100"));
        (void)fake::take_sent();
    }
};

bytes with16(bytes frame, std::size_t at, std::uint16_t value)
{
    packets::put16(frame, ETH + at, value);
    return frame;
}

TEST_F(ArpTest, OnlyWhatIsArpForIpv4IsAnswered)
{
    set_executor_log_mask(LB_LOG_ARP);
    const bytes request = packets::build(packets::arp{});
    bytes padded = request;
    padded.resize(60);
    const struct {
        const char *name;
        bytes frame;
        const char *refusal; // null: answered
    } rows[] = {
        {"request for a cluster", request, nullptr},
        {"padded to the smallest Ethernet frame", padded, nullptr},
        {"hardware type 6", with16(request, 0, 6), "arp_entry not ethernet"},
        {"for IPv6", with16(request, 2, 0x86DD), "arp_entry not ethertype ip"},
        {"hardware length 5", with16(request, 4, 0x0504), "arp_entry hwlen not ethernet"},
        {"protocol length 2", with16(request, 4, 0x0602), "arp_entry proto not ipv4"},
        {"lengths beyond the frame", with16(request, 4, 0xFFFF),
         "arp_entry packet too small 28 < 8 + 2*255 + 2*255"},
        {"RARP", with16(request, 6, 3), "arp_entry OP uninteresting"},
        {"operation 0", with16(request, 6, 0), "arp_entry OP uninteresting"},
        {"operation 256 (bytes swapped)", with16(request, 6, 0x0100), "arp_entry OP uninteresting"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fake::log_clear();
        const auto before = get_executor().getable.arpstats;
        const bool answered = row.refusal == nullptr;
        EXPECT_EQ(fake::receive(row.frame), answered ? LB_PACKETRC_CONSUMED : LB_PACKETRC_INTACT);
        EXPECT_EQ(fake::take_sent().size(), answered ? 1U : 0U);
        EXPECT_TRUE(answered || fake::log_contains(row.refusal));
        const auto after = get_executor().getable.arpstats;
        EXPECT_EQ(after.in, before.in + 1);
        EXPECT_EQ(after.gen, before.gen + (answered ? 1 : 0));
        EXPECT_EQ(after.err, before.err);
    }
}

} // namespace
