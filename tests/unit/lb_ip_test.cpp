// Helpers for addresses: equality, validity, subnets.
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
        {stack::ip("10.0.0.1"), stack::ip("10.0.0.0"), 0},
        {stack::ip("2001:db8:a::1"), stack::ip("2001:db8:b::1"), 0},
        {stack::ip("2001:db8::1"), stack::ip("2001:db8::2"), 0},
        {stack::ip("0.0.0.0"), stack::ip("::"), 0},
        {{}, {}, 1},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(lbip_isaddrequal(&row.a, &row.b), row.equal) << &row - rows;
    }
}

TEST_F(IpTest, Validity)
{
    const struct {
        const char *addr;
        int version;
        int valid;
    } rows[] = {
        {"0.0.0.1", 4, LBIP_VALID_YES}, {"0.0.0.0", 4, LBIP_VALID_NO},
        {"::1", 6, LBIP_VALID_YES},     {"ff00::", 6, LBIP_VALID_YES},
        {"::", 6, LBIP_VALID_NO},       {"0.0.0.0", 0, LBIP_VALID_EMPTY},
        {"10.0.0.1", 0, LBIP_VALID_NO}, {"10.0.0.1", 5, LBIP_VALID_NO},
    };
    for (const auto &row : rows) {
        lbip_addr_t addr = stack::ip(row.addr);
        addr.version = static_cast<lb_u8_t>(row.version);
        EXPECT_EQ(lbip_isaddrvalid(&addr), row.valid) << row.addr << " of version " << row.version;
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
        {"10.1.2.3", "2001:db8::/16", 0},
        {"10.1.2.3", "10.1.2.3/32", 1},
        {"10.1.2.2", "10.1.2.3/32", 0},
        {"10.1.2.2", "10.1.2.3/31", 1},
        {"10.1.255.3", "10.1.0.0/17", 0},
        {"10.1.127.3", "10.1.0.0/17", 1},
        {"127.0.0.1", "64.0.0.0/1", 1},
        {"128.0.0.1", "64.0.0.0/1", 0},
        {"10.1.2.3", "10.1.2.3/200", 1},
        {"2001:db8::1", "2001:db8::2/126", 1},
        {"2001:db8::1", "2001:db8::2/127", 0},
        {"2001:db8::3", "2001:db8::2/127", 1},
        {"2001:db8::3", "2001:db8::2/128", 0},
        {"2001:db8::3", "2001:db8::2/255", 0},
        {"2001:db8:0:1::1", "2001:db8::/63", 1},
        {"2001:db8:0:1::1", "2001:db8::/64", 0},
        {"8000::1", "::1/1", 0},
        {"4000::1", "::1/1", 1},
    };
    for (const auto &row : rows) {
        const lbip_addr_t ip = stack::ip(row.ip);
        const lbip_addr_t net = stack::ip(row.net);
        EXPECT_EQ(lbip_onnetof(&ip, &net), row.on) << row.ip << " on " << row.net;
    }
}

} // namespace
