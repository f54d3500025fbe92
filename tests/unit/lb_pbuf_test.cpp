// The packet object: how long a packet may be believed to be, and what a thread leaves behind.
#include "lb_ipv4.h"
#include "lb_pbuf.h"

#include <thread>

#include "fake_fixture.h"
#include "fake_frame.h"
#include "packets.h"

namespace
{

using PbufTest = FakeHostTest;

TEST_F(PbufTest, AThreadThatEndsLeavesNothingBehind)
{
    std::thread([] { lbpbuf_free(lbpbuf_alloc()); }).join();
    EXPECT_EQ(fake::live_allocations(), 0);
}

TEST_F(PbufTest, HoldMarksTheBufferAndPullsUpOnlyWhatIsMissing)
{
    for (const int received : {60, 59}) {
        fake::frame host;
        packets::bytes header(60);
        header[0] = 0x45;
        packets::put16(header, 2, 60);
        lbpbuf_obj_t pkt = {};
        pkt.ipfuncs = &lbipv4_funcs;
        pkt.p.raw = header.data();
        pkt.buflen = received;
        pkt.osopaque = host.opaque();
        EXPECT_EQ(lbpbuf_hold(&pkt), LB_PACKETRC_HELD) << "even if the pull-up fails";
        EXPECT_EQ(fake::held_frames(), 1);
        EXPECT_EQ(fake::pullups(), received == 60 ? 0U : 1U);
        os_packetfree(pkt.osopaque);
    }
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
        pkt.ulp.raw = pkt.p.raw + row.ihl * 4;
        pkt.buflen = row.received;
        EXPECT_EQ(lbpbuf_usablelen(&pkt), row.usable);
        EXPECT_EQ(lbpbuf_ulplen(&pkt), row.ulplen);
    }
}

} // namespace
