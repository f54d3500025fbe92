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
    const lb_u16_t hint = table.usNextPort;
    EXPECT_EQ(take(other), EXC_EPT_NOPORT);
    EXPECT_EQ(table.usNextPort, hint);
    EXPECT_EQ(fake::log_count("Error: No free ports available 0,"), 1);
    EXPECT_EQ(fake::log_count("Starting port 1025:"), 1);
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

class RewriteTest : public StackTest
{
  protected:
    static int rewrite(bytes &frame, const packets::packet &to, const std::string &dst)
    {
        lbpbuf_obj_t pkt = {};
        pkt.ipfuncs = &lbipv4_funcs;
        pkt.p.raw = frame.data() + ETH;
        pkt.buflen = static_cast<lb_s32_t>(frame.size()) - ETH;
        pkt.ulp.raw = pkt.p.raw + (frame[ETH] & 15) * 4;
        const std::uint16_t fragoff = packets::get16(frame, ETH + 6);
        pkt.frag_mf = (fragoff & 0x2000) != 0;
        pkt.frag_offset = static_cast<lb_u16_t>((fragoff & 0x1FFF) * 8);
        const lbip_addr_t srcaddr = stack::ip(to.src);
        const lbip_addr_t dstaddr = stack::ip(dst);
        const lb_nat_endpoints_s ends = {
            .src = &srcaddr, .dst = &dstaddr, .sport = to.sport, .dport = to.dport};
        return lb_nat_rewrite(&pkt, &ends);
    }
};

// Bytes [from, to) of a packet's payload as a fragment.
bytes fragment(const bytes &whole, std::size_t from, std::size_t to, bool more)
{
    const std::size_t l4 = ETH + static_cast<std::size_t>(whole[ETH] & 15) * 4;
    bytes out(whole.begin(), whole.begin() + static_cast<long>(l4));
    out.insert(out.end(), whole.begin() + static_cast<long>(l4 + from),
               whole.begin() + static_cast<long>(l4 + to));
    packets::put16(out, ETH + 2, static_cast<std::uint16_t>(out.size() - ETH));
    packets::put16(out, ETH + 6, static_cast<std::uint16_t>(from / 8 | (more ? 0x2000 : 0)));
    packets::mend_ip(out);
    return out;
}

TEST_F(RewriteTest, GivesThePacketThatTheOtherEndExpects)
{
    std::mt19937 random(7);
    const auto address = [&] {
        return packets::to_text({10, static_cast<std::uint8_t>(random()),
                                 static_cast<std::uint8_t>(random()),
                                 static_cast<std::uint8_t>(random())});
    };
    const auto port = [&] { return static_cast<std::uint16_t>(1 + random() % 65535); };
    for (int i = 0; i < 2000; i++) {
        packets::packet p = {.src = address(),
                             .dst = address(),
                             .sport = port(),
                             .dport = port(),
                             .seq = static_cast<std::uint32_t>(random()),
                             .options = i % 3 * 4U,
                             .payload = 30 + random() % 90};
        bytes whole = packets::build(p);
        const std::size_t end = 20 + p.payload;
        bytes first = fragment(whole, 0, 24, true);
        bytes later = fragment(whole, 24, end, false);
        p.src = address();
        p.dst = address();
        p.sport = i % 2 != 0 ? 0 : port(); // 0: as it is
        p.dport = port();
        for (bytes *frame : {&whole, &first, &later}) {
            ASSERT_EQ(rewrite(*frame, p, p.dst), 0);
        }
        p.sport = packets::get16(whole, ETH + 20 + p.options);
        const bytes expected = packets::build(p);
        ASSERT_EQ(whole, expected);
        // Sums of 0 and of 0xFFFF mean the same, and the two ways may differ in which they give.
        const std::size_t sum = ETH + 20 + p.options + 16;
        bytes expectedfirst = fragment(expected, 0, 24, true);
        if (packets::get16(first, sum) % 0xFFFF == 0) {
            packets::put16(expectedfirst, sum, packets::get16(first, sum));
        }
        ASSERT_EQ(first, expectedfirst);
        ASSERT_EQ(later, fragment(expected, 24, end, false));
    }
}

TEST_F(RewriteTest, LeavesWhatItCannotRewrite)
{
    const bytes whole = packets::build(packets::packet{});
    bytes lying = whole;
    packets::put16(lying, ETH + 2, static_cast<std::uint16_t>(whole.size() - ETH + 1));
    bytes inside = whole;
    packets::put16(inside, ETH + 2, 19);
    const struct {
        const char *name;
        bytes frame;
        const char *dst;
    } rows[] = {
        {"another version", whole, "2001:db8::1"},
        {"longer than what came", lying, "10.3.0.1"},
        {"shorter than its header", inside, "10.3.0.1"},
        {"no whole TCP header", fragment(whole, 0, 19, false), "10.3.0.1"},
        {"nor in a first fragment", fragment(whole, 0, 16, true), "10.3.0.1"},
    };
    for (const auto &row : rows) {
        bytes frame = row.frame;
        EXPECT_EQ(rewrite(frame, packets::packet{.src = "10.3.0.2"}, row.dst), -1) << row.name;
        EXPECT_EQ(frame, row.frame) << row.name;
    }
}

} // namespace
