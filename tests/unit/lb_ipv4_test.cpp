// When the IPv4 layer sends no reset.
#include "lb_ipv4.h"

#include "stack_fixture.h"

namespace
{

using namespace packets;

using Ipv4Test = StackTest;

TEST_F(Ipv4Test, AResetNeedsAGatewayAndSequenceNumbersAndHasAnIdentificationOfItsOwn)
{
    const bytes request = build(packet{.flags = 0x10});
    const auto reset = [](bytes frame) {
        lbpbuf_obj_t pkt = {}; // over the IP part, as the entry makes it
        pkt.ipfuncs = &lbipv4_funcs;
        pkt.p.raw = frame.data() + ETH;
        pkt.ulp.raw = pkt.p.raw + 20;
        pkt.buflen = static_cast<lb_s32_t>(frame.size()) - ETH;
        const lb_grace_inside inside;
        return _lbipv4_pbuf_sendreset(&pkt);
    };
    EXPECT_EQ(reset(request), -1) << "no gateway";
    ASSERT_ADDED(set_client_gateway("10.0.0.254"));
    EXPECT_EQ(reset(request), -1) << "no interface";
    make_eth0();
    tick(1);
    (void)fake::take_sent();
    EXPECT_EQ(reset(cut(request, 39, false)), -1) << "short TCP header";
    EXPECT_EQ(reset(with_total(request, 39)), -1) << "a total length that ends within it";
    EXPECT_EQ(fake::sent_count(), 1U) << "only the query for the gateway";
    EXPECT_EQ(reset(request), 0);
    EXPECT_EQ(reset(request), 0);
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(get16(sent[1].bytes, ETH + 4), get16(sent[0].bytes, ETH + 4) + 1);
}

} // namespace
