// NAT's parts: the order in which a return address's ports are handed out, who may give one back,
// and rewritten packets against packets that were built with the new addresses.
#include "lb_ipv4.h"
#include "lb_nat.h"

#include <random>

#include "nat_fixture.h"

namespace
{

using packets::bytes;
using packets::ETH;

class PortTableTest : public FakeHostTest
{
  protected:
    void SetUp() override
    {
        FakeHostTest::SetUp();
        set_log_mask(LB_LOG_FAILURE);
        ASSERT_EQ(EXC_EPTInit(&table), 0);
    }
    void TearDown() override
    {
        os_mutex_destroy(&table.lock);
        FakeHostTest::TearDown();
    }
    // The port that the record is given, or the refusal.
    int take(lbsel_cr_obj_t &cr)
    {
        const int rc = EXC_EPTGetPort(&table, &cr);
        return rc == 0 ? cr.natkey.natport : rc;
    }

    const std::unique_ptr<EXC_EphemeralPortTable> heap = std::make_unique<EXC_EphemeralPortTable>();
    EXC_EphemeralPortTable &table = *heap;
    lbsel_cr_obj_t one{};
    lbsel_cr_obj_t other{};
};

TEST_F(PortTableTest, HandsPortsOutInTurn)
{
    EXPECT_EQ(take(one), 1025);
    EXPECT_EQ(take(one), 1026);
    EXPECT_EQ(EXC_EPTFreePort(&table, 1025), 0);
    EXPECT_EQ(take(one), 1027) << "what was given back waits for its turn";
    for (int port = 1028; port <= 65535; port++) {
        ASSERT_EQ(take(one), port);
    }
    EXPECT_EQ(take(other), 1025);
    EXPECT_EQ(EXC_EPTGetCR(&table, 1025), &other);
    EXPECT_EQ(EXC_EPTFreePort(&table, 1030), 0);
    EXPECT_EQ(EXC_EPTFreePort(&table, 65535), 0);
    EXPECT_EQ(EXC_EPTCountPorts(&table), 64509) << "of 64511 the last one is not counted";
    EXPECT_EQ(take(other), 1030) << "busy ones are passed over";
    EXPECT_EQ(take(other), 65535);
    EXPECT_FALSE(fake::log_contains("No free ports"));
    EXPECT_EQ(take(other), EXC_EPT_NOPORT);
    EXPECT_EQ(fake::log_count("Error: No free ports available 0,"), 1);
    EXPECT_EQ(table.ucBusyPorts[EXC_EPT_LASTSLOT + 1], nullptr) << "port 65536";
    table.usNextPort = EXC_EPT_LASTSLOT + 1; // the hint behind port 65535 wraps
    EXPECT_EQ(EXC_EPTFreePort(&table, 1025), 0);
    EXPECT_EQ(take(other), 1025);
}

TEST_F(PortTableTest, GivesBackWhatItsOwnerGives)
{
    ASSERT_EQ(take(one), 1025);
    EXPECT_FALSE(lb_ept_freeif(&table, 1025, &other));
    EXPECT_TRUE(lb_ept_owns(&table, 1025, &one));
    EXPECT_FALSE(lb_ept_owns(&table, 1025, &other));
    EXPECT_TRUE(lb_ept_freeif(&table, 1025, &one));
    EXPECT_FALSE(lb_ept_freeif(&table, 1025, &one)) << "twice";
    for (const lb_u16_t low : {lb_u16_t{0}, lb_u16_t{80}, lb_u16_t{1024}}) {
        EXPECT_EQ(EXC_EPTFreePort(&table, low), -1);
        EXPECT_FALSE(lb_ept_freeif(&table, low, &one));
        EXPECT_FALSE(lb_ept_owns(&table, low, nullptr));
        EXPECT_EQ(EXC_EPTGetCR(&table, low), nullptr);
    }
}

using RewriteTest = StackTest;

// What the frame is when it has been readdressed as `to`.
bytes rewritten(bytes frame, const packets::packet &to)
{
    lbpbuf_obj_t pkt = {};
    pkt.ipfuncs = &lbipv4_funcs;
    pkt.p.raw = frame.data() + ETH;
    pkt.buflen = static_cast<lb_s32_t>(frame.size()) - ETH;
    pkt.ulp.raw = pkt.p.raw + (frame[ETH] & 15) * 4;
    const lbip_addr_t src = stack::ip(to.src);
    const lbip_addr_t dst = stack::ip(to.dst);
    const lb_nat_endpoints_s ends = {
        .src = &src, .dst = &dst, .sport = to.sport, .dport = to.dport};
    EXPECT_EQ(lb_nat_rewrite(&pkt, &ends), 0);
    return frame;
}

TEST_F(RewriteTest, GivesThePacketThatTheOtherEndExpects)
{
    std::mt19937 random(7);
    const auto byte = [&] { return static_cast<std::uint8_t>(random()); };
    const auto address = [&] { return packets::to_text({10, byte(), byte(), byte()}); };
    const auto port = [&] { return static_cast<std::uint16_t>(1 + random() % 65535); };
    for (int i = 0; i < 2000; i++) {
        const packets::packet p = {.src = address(),
                                   .dst = address(),
                                   .sport = port(),
                                   .dport = port(),
                                   .seq = static_cast<std::uint32_t>(random()),
                                   .options = i % 3 * 4U,
                                   .payload = 30 + random() % 90};
        packets::packet to = p;
        to.src = address();
        to.dst = address();
        to.dport = port();
        packets::packet given = to;
        given.sport = 0; // as it is
        if (i % 2 == 0) {
            given.sport = to.sport = port();
        }
        ASSERT_EQ(rewritten(packets::build(p), given), packets::build(to));
    }
}

} // namespace
