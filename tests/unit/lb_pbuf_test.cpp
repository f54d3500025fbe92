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

} // namespace
