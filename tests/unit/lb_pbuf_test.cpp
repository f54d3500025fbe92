// The packet object: what it costs, how long a packet may be believed to be, and its trace line.
#include "lb_ip.h"
#include "lb_ipv4.h"
#include "lb_pbuf.h"
#include "lb_server.h"

#include <cstring>
#include <thread>

#include "fake_fixture.h"
#include "packets.h"

namespace
{

class PbufTest : public FakeHostTest
{
  protected:
    void TearDown() override
    {
        lbpbuf_drain();
        FakeHostTest::TearDown();
    }
};

TEST_F(PbufTest, AWarmThreadAllocatesNothingAndGetsClearedObjects)
{
    lbpbuf_obj_t *first = lbpbuf_alloc();
    ASSERT_NE(first, nullptr);
    std::memset(static_cast<void *>(first), 0xEE, sizeof(*first));
    lbpbuf_free(first);
    const auto before = fake::total_allocations();
    for (int i = 0; i < 100; i++) {
        lbpbuf_obj_t *pkt = lbpbuf_alloc();
        const lbpbuf_obj_t zero = {};
        ASSERT_EQ(std::memcmp(pkt, &zero, sizeof(zero)), 0);
        pkt->buflen = i + 1;
        lbpbuf_free(pkt);
    }
    EXPECT_EQ(fake::total_allocations(), before);
}

TEST_F(PbufTest, ObjectsInUseAtOnceAreDifferentAndOnlyOneIsKept)
{
    lbpbuf_obj_t *a = lbpbuf_alloc();
    lbpbuf_obj_t *b = lbpbuf_alloc();
    EXPECT_NE(a, b);
    lbpbuf_free(a);
    lbpbuf_free(b);
    EXPECT_EQ(fake::live_allocations(), 1);
    lbpbuf_drain();
    EXPECT_EQ(fake::live_allocations(), 0);
}

TEST_F(PbufTest, AThreadThatEndsLeavesNothingBehind)
{
    std::thread([] { lbpbuf_free(lbpbuf_alloc()); }).join();
    EXPECT_EQ(fake::live_allocations(), 0);
}

TEST_F(PbufTest, ExhaustedMemoryGivesNull)
{
    fake::fail(fake::op::alloc, 1);
    EXPECT_EQ(lbpbuf_alloc(), nullptr);
}

TEST_F(PbufTest, HoldAnswersHeldEvenIfThePullUpFails)
{
    lbpbuf_obj_t pkt = {};
    EXPECT_EQ(lbpbuf_hold(&pkt), LB_PACKETRC_HELD);
    EXPECT_EQ(fake::pullups(), 1U);
}

TEST_F(PbufTest, LengthsAreBelievedOnlyBetweenHeaderAndReceived)
{
    const struct {
        const char *name;
        int received, ihl, total;
        int usable, ulplen;
    } rows[] = {
        {"as received", 60, 5, 60, 60, 40},          {"padding behind it", 60, 5, 40, 40, 20},
        {"header alone", 60, 5, 20, 20, 0},          {"total below the header", 60, 6, 23, -1, 36},
        {"total is nothing", 60, 5, 0, -1, 40},      {"one byte too many", 60, 5, 61, -1, 40},
        {"as long as can be", 60, 5, 65535, -1, 40}, {"only the header came", 24, 6, 100, -1, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        packets::bytes header(60);
        header[0] = static_cast<std::uint8_t>(0x40 | row.ihl);
        packets::put16(header, 2, static_cast<std::uint16_t>(row.total));
        lbpbuf_obj_t pkt = {};
        pkt.ipfuncs = &lbipv4_funcs;
        pkt.p.raw = header.data();
        pkt.buflen = row.received;
        EXPECT_EQ(lbpbuf_usablelen(&pkt), row.usable);
        EXPECT_EQ(lbpbuf_ulplen(&pkt), row.ulplen);
    }
}

TEST_F(PbufTest, TraceLine)
{
    lbsrv_obj_t server = {};
    server.config.key.cfg.server = lbip_fromv4(packets::to_ip4("10.0.0.11").data());
    lbpbuf_obj_t known = {};
    known.frag_id = 0xABC;
    known.ip.srcip = lbip_fromv4(packets::to_ip4("10.0.0.50").data());
    known.ip.dstip = server.config.key.cfg.server;
    known.ip.sport_hbo = 1025;
    known.ip.dport_hbo = 80;
    known.server = &server;
    const struct {
        lb_u64_t mask;
        lbpbuf_obj_t pkt;
        const char *label, *text;
    } rows[] = {
        {LB_LOG_TCPUDP | LB_LOG_PKTERROR,
         {},
         "pullup failed",
         " 0 sIP -> dIP sP:dP ERROR pullup failed\n"},
        {LB_LOG_SELECT | LB_LOG_FORWARDED, known, "hash-fwd",
         " abc 10.0.0.50 -> 10.0.0.11 1025:80 FORWARD to 10.0.0.11 hash-fwd\n"},
        {0x1F, {}, "all", " 0 sIP -> dIP sP:dP ERROR INTACT DISCARD FORWARD HELD all\n"},
        {LB_LOG_TCPUDP | LB_LOG_FAILURE, {}, "tcpudp error", " 0 sIP -> dIP sP:dP tcpudp error\n"},
    };
    long last = -1;
    for (auto row : rows) {
        SCOPED_TRACE(row.label);
        fake::log_clear();
        _lbpbuf_print(row.mask, &row.pkt, row.label);
        const auto lines = fake::log_lines();
        ASSERT_EQ(lines.size(), 1U);
        long count = 0;
        int used = 0;
        ASSERT_EQ(std::sscanf(lines[0].c_str(), "0.000000 pkt %ld%n", &count, &used), 1);
        EXPECT_EQ(lines[0].substr(static_cast<std::size_t>(used)), row.text);
        EXPECT_TRUE(last < 0 || count == last + 1);
        last = count;
    }
}

} // namespace
