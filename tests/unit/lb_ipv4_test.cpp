// The IPv4 layer: its sums, what it refuses, and when no reset is sent.
#include "lb_ip.h"
#include "lb_ipv4.h"
#include "lb_neigh.h"

#include "packets.h"
#include "stack_fixture.h"

namespace
{

using packets::bytes;
using packets::ETH;

class Ipv4Test : public StackTest
{
  protected:
    lb_proto_stats_t stats() { return get_executor().getable.ipv4stats; }

    // A packet object over the IP part of a frame, as the entry makes it.
    lbpbuf_obj_t over(bytes &frame)
    {
        lbpbuf_obj_t pkt = {};
        pkt.ipfuncs = &lbipv4_funcs;
        pkt.stats = &lbexecutor->getable.ipv4stats;
        pkt.p.raw = frame.data() + ETH;
        pkt.buflen = static_cast<lb_s32_t>(frame.size()) - ETH;
        pkt.ulp.raw = pkt.p.raw + (frame[ETH] & 15) * 4;
        return pkt;
    }
};

bytes with(bytes frame, std::size_t at, std::uint8_t value)
{
    frame[ETH + at] = value;
    packets::mend_ip(frame);
    return frame;
}

bytes cut(bytes frame, std::size_t iplen)
{
    frame.resize(ETH + iplen);
    return frame;
}

TEST_F(Ipv4Test, EntryKnowsItsLargestPacketAndAFailedReceive)
{
    bytes frame = packets::build(packets::packet{.payload = 2000});
    fake::frame host;
    const struct {
        const char *name;
        int len, rc;
        int in, err;
    } rows[] = {
        {"largest", 1600, LB_PACKETRC_INTACT, 1, 0},
        {"too large", 1601, LB_PACKETRC_INTACT, 0, 1},
        {"failed receive", -1, LB_PACKETRC_CONSUMED, 1, 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const auto before = stats();
        host.load(frame.data(), 0); // only its name is used here
        const lb_grace_inside inside;
        EXPECT_EQ(lbipv4_entry(frame.data(), frame.data() + ETH, row.len, host.opaque()), row.rc);
        EXPECT_EQ(stats().in - before.in, static_cast<lb_u64_t>(row.in));
        EXPECT_EQ(stats().err - before.err, static_cast<lb_u32_t>(row.err));
    }
    EXPECT_TRUE(fake::log_contains("Error packet too big 1601 "));
}

TEST_F(Ipv4Test, WithoutMemoryTheFrameIsTheHosts)
{
    lbpbuf_drain();
    fake::fail(fake::op::alloc, 1);
    EXPECT_EQ(fake::receive(packets::build(packets::packet{})), LB_PACKETRC_INTACT);
    EXPECT_EQ(stats().err, 1U);
    EXPECT_TRUE(fake::log_contains("ipv4_entry pbuf-alloc-failure"));
}

TEST_F(Ipv4Test, RewrittenTcpPacketIsRightAgain)
{
    for (const std::size_t payload : {0, 1, 2, 1399}) {
        bytes frame = packets::build(packets::packet{.options = 8, .payload = payload});
        lbpbuf_obj_t pkt = over(frame);
        const lbip_addr_t server = stack::ip("192.0.2.77");
        const lbip_addr_t other = stack::ip("2001:db8::1");
        const bytes before = frame;
        EXPECT_EQ(lbipv4_funcs.setdaddr(&pkt, &other), -1);
        EXPECT_EQ(lbipv4_funcs.setsaddr(&pkt, &other), -1);
        EXPECT_EQ(frame, before);
        EXPECT_EQ(lbipv4_funcs.setdaddr(&pkt, &server), 0);
        EXPECT_EQ(lbipv4_funcs.tcpchksum(&pkt), 0);
        EXPECT_EQ(packets::ip_at(frame, ETH + 16), "192.0.2.77");
        EXPECT_EQ(packets::checksum(frame, ETH, ETH + 28), 0);
        EXPECT_EQ(packets::transport_residue(frame), 0) << payload;
    }
}

TEST_F(Ipv4Test, TcpSumRefusesLengthsThatLie)
{
    const bytes good = packets::build(packets::packet{});
    const struct {
        const char *name;
        bytes frame;
    } rows[] = {
        {"total beyond the frame", with(good, 3, 200)},
        {"total below the header", with(good, 3, 19)},
        {"no room for a TCP header", with(good, 3, 39)},
        {"cut within the TCP header", cut(good, 39)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        bytes frame = row.frame;
        lbpbuf_obj_t pkt = over(frame);
        EXPECT_EQ(lbipv4_funcs.tcpchksum(&pkt), -1);
        EXPECT_EQ(frame, row.frame);
    }
}

// --- Reset ---------------------------------------------------------------------------------------

TEST_F(Ipv4Test, AResetNeedsAGatewayAndSequenceNumbersAndHasAnIdentificationOfItsOwn)
{
    const bytes request = packets::build(packets::packet{.flags = 0x10});
    const auto reset = [this](bytes frame) {
        lbpbuf_obj_t pkt = over(frame);
        const lb_grace_inside inside;
        return _lbipv4_pbuf_sendreset(&pkt);
    };
    EXPECT_EQ(reset(request), -1) << "no gateway";
    ASSERT_ADDED(set_client_gateway("10.0.0.254"));
    EXPECT_EQ(reset(request), -1) << "no interface";
    ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
    ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
    tick(1);
    (void)fake::take_sent();
    EXPECT_EQ(reset(cut(request, 39)), -1) << "short TCP header";
    EXPECT_EQ(reset(with(request, 3, 39)), -1) << "a total length that ends within it";
    EXPECT_EQ(fake::sent_count(), 1U) << "only the query for the gateway";
    EXPECT_EQ(reset(request), 0);
    EXPECT_EQ(reset(request), 0);
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(packets::get16(sent[1].bytes, ETH + 4), packets::get16(sent[0].bytes, ETH + 4) + 1);
}

} // namespace
