// Helpers for addresses: equality and subnets.
#include "lb_ip.h"

#include "stack_fixture.h"

namespace
{

using IpTest = FakeHostTest;

TEST_F(IpTest, EqualityLooksAtVersionAndAddressAlone)
{
    lbip_addr_t rest = stack::ip("10.0.0.1");
    rest.nboaddr.v6[9] = 7; // behind an IPv4 address
    const struct {
        lbip_addr_t a, b;
        int equal;
    } rows[] = {
        {stack::ip("10.0.0.1/24"), rest, 1},
        {stack::ip("2001:db8::1"), stack::ip("2001:db8::2"), 0},
        {stack::ip("0.0.0.0"), stack::ip("::"), 0},
        {{}, {}, 1},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(lbip_isaddrequal(&row.a, &row.b), row.equal) << &row - rows;
    }
}

TEST_F(IpTest, AnyBitMakesAnAddressValid)
{
    for (const char *text : {"0.0.0.1", "::1", "1::"}) {
        const lbip_addr_t addr = stack::ip(text);
        EXPECT_EQ(lbip_isaddrvalid(&addr), LBIP_VALID_YES) << text;
    }
}

TEST_F(IpTest, Subnets)
{
    set_log_mask(0);
    const struct {
        const char *ip, *net;
        int on;
    } rows[] = {
        {"10.1.2.3", "10.1.0.0", 0}, // no prefix is none
        {"10.1.2.3", "2001:db8::/16", 0},      {"10.1.2.2", "10.1.2.3/31", 1},
        {"10.1.255.3", "10.1.0.0/17", 0},      {"10.1.127.3", "10.1.0.0/17", 1},
        {"127.0.0.1", "64.0.0.0/1", 1},        {"128.0.0.1", "64.0.0.0/1", 0},
        {"10.1.2.3", "10.1.2.3/200", 1},       {"2001:db8::3", "2001:db8::2/127", 1},
        {"2001:db8::3", "2001:db8::2/128", 0}, {"2001:db8::3", "2001:db8::2/255", 0},
    };
    for (const auto &row : rows) {
        const lbip_addr_t ip = stack::ip(row.ip);
        const lbip_addr_t net = stack::ip(row.net);
        EXPECT_EQ(lbip_onnetof(&ip, &net), row.on) << row.ip << " on " << row.net;
    }
}

} // namespace
