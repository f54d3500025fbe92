// Helpers for addresses: equality, validity, hashing, and subnets against a bit-by-bit
// reference.
#include "lb_ip.h"
#include "lb_log.h"

#include <random>

#include "fake_fixture.h"
#include "stack_fixture.h"

namespace
{

using IpTest = FakeHostTest;

TEST_F(IpTest, EqualityLooksAtVersionAndAddressAlone)
{
    lbip_addr_t rest = stack::ip("10.0.0.1");
    rest.nboaddr.v6[9] = 7; // behind an IPv4 address
    const struct {
        const char *name;
        lbip_addr_t a, b;
        int equal;
    } rows[] = {
        {"prefix is ignored", stack::ip("10.0.0.1/24"), stack::ip("10.0.0.1"), 1},
        {"one bit", stack::ip("10.0.0.1"), stack::ip("10.0.0.0"), 0},
        {"bytes behind an IPv4 address", rest, stack::ip("10.0.0.1"), 1},
        {"first bytes of an IPv6 address", stack::ip("2001:db8:a::1"), stack::ip("2001:db8:b::1"),
         0},
        {"last byte of an IPv6 address", stack::ip("2001:db8::1"), stack::ip("2001:db8::2"), 0},
        {"same bytes, other version", stack::ip("0.0.0.0"), stack::ip("::"), 0},
        {"both unset", {}, {}, 1},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(lbip_isaddrequal(&row.a, &row.b), row.equal) << row.name;
    }
}

TEST_F(IpTest, Validity)
{
    lbip_addr_t odd = stack::ip("10.0.0.1");
    odd.version = 5;
    lbip_addr_t unversioned = stack::ip("10.0.0.1");
    unversioned.version = 0;
    const struct {
        const char *name;
        lbip_addr_t addr;
        int valid;
    } rows[] = {
        {"IPv4", stack::ip("0.0.0.1"), LBIP_VALID_YES},
        {"0.0.0.0", stack::ip("0.0.0.0"), LBIP_VALID_NO},
        {"IPv6, last byte only", stack::ip("::1"), LBIP_VALID_YES},
        {"IPv6, first byte only", stack::ip("ff00::"), LBIP_VALID_YES},
        {"::", stack::ip("::"), LBIP_VALID_NO},
        {"unset", {}, LBIP_VALID_EMPTY},
        {"an address without a version", unversioned, LBIP_VALID_NO},
        {"version 5", odd, LBIP_VALID_NO},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(lbip_isaddrvalid(&row.addr), row.valid) << row.name;
    }
}

TEST_F(IpTest, SubnetsByName)
{
    set_log_mask(0);
    const struct {
        const char *ip, *net;
        int on;
    } rows[] = {
        {"10.1.2.3", "10.1.0.0", 0}, // no prefix is none
        {"10.1.2.3", "2001:db8::/16", 0},
        {"10.1.2.3", "10.1.2.3/200", 1},
        {"2001:db8::1", "2001:db8::2/255", 0},
    };
    for (const auto &row : rows) {
        const lbip_addr_t ip = stack::ip(row.ip);
        const lbip_addr_t net = stack::ip(row.net);
        EXPECT_EQ(lbip_onnetof(&ip, &net), row.on) << row.ip << " on " << row.net;
    }
}

bool same_bits(const lbip_addr_t &a, const lbip_addr_t &b, int bits)
{
    for (int i = 0; i < bits; i++) {
        const int mask = 0x80 >> i % 8;
        if ((a.nboaddr.v6[i / 8] & mask) != (b.nboaddr.v6[i / 8] & mask)) {
            return false;
        }
    }
    return true;
}

TEST_F(IpTest, SubnetsAgreeWithAReferenceBitByBit)
{
    set_log_mask(0);
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 20000; round++) {
        lbip_addr_t net = {};
        net.version = round % 2 != 0 ? 4 : 6;
        const unsigned width = net.version == 4 ? 32 : 128;
        net.prefix = static_cast<lb_u8_t>(1 + random() % width);
        for (unsigned i = 0; i < width / 8; i++) {
            net.nboaddr.v6[i] = static_cast<lb_u8_t>(random());
        }
        lbip_addr_t ip = net;
        const unsigned bit = random() % width; // one bit, inside the prefix or behind it
        ip.nboaddr.v6[bit / 8] ^= static_cast<lb_u8_t>(0x80 >> bit % 8);
        ASSERT_EQ(lbip_onnetof(&ip, &net), same_bits(ip, net, net.prefix))
            << "prefix " << int(net.prefix) << " bit " << bit;
    }
}

} // namespace
