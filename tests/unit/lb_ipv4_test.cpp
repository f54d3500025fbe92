// The layers of the two IP versions: which packets they don't sum up, and when no reset is sent.
#include "lb_ipv4.h"
#include "lb_ipv6.h"

#include "stack_fixture.h"

namespace
{

using namespace packets;

// A packet object over the IP part of a frame, as the entry makes it.
lbpbuf_obj_t over(bytes &frame)
{
    lbpbuf_obj_t pkt = {};
    pkt.ipfuncs = is_ipv6(frame) ? &lbipv6_funcs : &lbipv4_funcs;
    pkt.p.raw = frame.data() + ETH;
    pkt.buflen = static_cast<lb_s32_t>(frame.size()) - ETH;
    pkt.ulp.raw = frame.data() + upper_of(frame).at;
    return pkt;
}

using IpLayerTest = StackTest;

TEST_F(IpLayerTest, NothingIsDoneToPacketsWhoseLengthsLie)
{
    const bytes v4 = build(packet{});
    const bytes v6 = build(packet{.version = 6, .exts = {fragment(7, 0)}});
    const bytes frames[] = {
        with_total(v4, 200),         with_total(v4, 19),          with_total(v4, 39),
        cut(v4, 39, false),          with16(v6, ETH + 4, 0),      with16(v6, ETH + 4, 7),
        with16(v6, ETH + 4, 8 + 19), with16(v6, ETH + 4, 8 + 53),
    };
    for (const bytes &before : frames) {
        SCOPED_TRACE(&before - frames);
        bytes frame = before;
        lbpbuf_obj_t pkt = over(frame);
        const lbip_addr_t other = stack::ip(is_ipv6(frame) ? "10.0.0.1" : "2001:db8::1");
        EXPECT_EQ(pkt.ipfuncs->setsaddr(&pkt, &other), -1);
        EXPECT_EQ(pkt.ipfuncs->setdaddr(&pkt, &other), -1);
        EXPECT_EQ(pkt.ipfuncs->tcpchksum(&pkt), -1);
        EXPECT_EQ(frame, before);
    }
}

TEST_F(IpLayerTest, AResetNeedsAGatewayAndSequenceNumbersAndHasAnIdentificationOfItsOwn)
{
    const bytes request = build(packet{.flags = 0x10});
    const auto reset = [](bytes frame) {
        lbpbuf_obj_t pkt = over(frame);
        const lb_grace_inside inside;
        return _lbipv4_pbuf_sendreset(&pkt);
    };
    EXPECT_EQ(reset(request), -1) << "no gateway";
    make_eth0();
    ASSERT_ADDED(set_client_gateway("10.0.0.254"));
    (void)fake::take_sent();
    EXPECT_EQ(reset(cut(request, 39, false)), -1) << "short TCP header";
    EXPECT_EQ(reset(with_total(request, 39)), -1) << "a total length that ends within it";
    EXPECT_TRUE(fake::take_sent().empty());
    EXPECT_EQ(reset(request), 0);
    EXPECT_EQ(reset(request), 0);
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(get16(sent[1].bytes, ETH + 4), get16(sent[0].bytes, ETH + 4) + 1);
}

} // namespace
