// Addresses and masks as people write them.
#include <gtest/gtest.h>

#include "vellb/address.h"
#include "vellb/names.h"

namespace
{

using std::literals::operator""sv;

TEST(vellb_address, parses_and_prints)
{
    const std::pair<const char *, const char *> good[] = {
        {"10.0.0.1", "10.0.0.1"},
        {"2001:DB8:0::1", "2001:db8::1"},
        {"[2001:db8::1]", "2001:db8::1"},
        {"2001:db8:0:1:0:0:0:1", "2001:db8:0:1::1"},   // the longest run of zeros (RFC 5952, 4.2.3)
        {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"}, // of equal ones the first
        {"2001:db8::1:1:1:1:1", "2001:db8:0:1:1:1:1:1"}, // never a single one (4.2.2)
        {"::ffff:10.0.0.1", "::ffff:10.0.0.1"},
    };
    for (const auto &[text, printed] : good) {
        const auto addr = vellb::parse_address(text);
        ASSERT_TRUE(addr.has_value()) << text;
        EXPECT_EQ(vellb::address_text(*addr), printed);
    }
    for (const std::string_view bad :
         {"10.0.0.1\0x"sv, ""sv, "10.0.0"sv, "10.0.0.256"sv, "010.0.0.1"sv, "10.0.0.1 "sv,
          "[10.0.0.1]"sv, "[]"sv, "[2001:db8::1"sv, "localhost"sv, "2001:db8::1%eth0"sv}) {
        EXPECT_FALSE(vellb::parse_address(bad)) << bad;
    }
}

TEST(vellb_address, prefixes)
{
    for (const char *good : {"10.0.0.1/24", "10.0.0.1/0", "10.0.0.1/32", "2001:db8::1/128"}) {
        const auto addr = vellb::parse_prefix(good);
        ASSERT_TRUE(addr) << good;
        EXPECT_EQ(vellb::prefix_text(*addr), good);
    }
    for (const char *bad : {"10.0.0.1", "10.0.0.1/33", "10.0.0.1/", "10.0.0.1/-1", "10.0.0.1/ 8",
                            "2001:db8::1/129", "/24", "10.0.0.1/24/24"}) {
        EXPECT_FALSE(vellb::parse_prefix(bad)) << bad;
    }
}

TEST(vellb_address, subnets)
{
    struct row_t {
        const char *net, *in, *out; // the last inside, the first outside
    };
    const row_t rows[] = {
        {"10.0.0.1/24", "10.0.0.255", "10.0.1.0"},
        {"10.0.0.1/25", "10.0.0.127", "10.0.0.128"},
        {"10.0.0.1/31", "10.0.0.0", "10.0.0.3"},
        {"10.0.0.1/32", "10.0.0.1", "10.0.0.2"},
        {"10.0.0.1/0", "192.0.2.1", "2001:db8::9"},
        {"2001:db8::1/63", "2001:db8:0:1::", "2001:db8:0:2::"},
    };
    for (const row_t &row : rows) {
        const auto net = *vellb::parse_prefix(row.net);
        EXPECT_TRUE(vellb::on_net(*vellb::parse_address(row.in), net)) << row.net;
        EXPECT_FALSE(vellb::on_net(*vellb::parse_address(row.out), net)) << row.net;
    }
    // A prefix that no IPv4 address has must not read past it.
    lbip_addr_t net = *vellb::parse_prefix("10.0.0.1/32");
    net.prefix = 255;
    EXPECT_FALSE(vellb::on_net(*vellb::parse_address("10.0.0.1"), net));
}

TEST(vellb_address, link_local_is_ten_bits)
{
    for (const char *text : {"fe80::1", "febf::"}) {
        EXPECT_TRUE(vellb::is_link_local(*vellb::parse_address(text))) << text;
    }
    for (const char *text : {"fec0::1", "fe7f::1", "2001:db8::1", "254.128.0.1"}) {
        EXPECT_FALSE(vellb::is_link_local(*vellb::parse_address(text))) << text;
    }
}

TEST(vellb_address, macs)
{
    EXPECT_EQ(vellb::mac_text(*vellb::parse_mac("02:AB:cd:00:0f:f0")), "02:ab:cd:00:0f:f0");
    for (const char *bad : {"", "02:ab:cd:00:0f", "02:ab:cd:00:0f:f0:", "02-ab-cd-00-0f-f0",
                            "02:ab:cd:00:0f:g0", "2:ab:cd:00:0f:f0:", "+2:ab:cd:00:0f:f0"}) {
        EXPECT_FALSE(vellb::parse_mac(bad)) << bad;
    }
}

TEST(vellb_names, log_masks)
{
    struct row_t {
        const char *text;
        lb_u64_t current;
        lb_u64_t mask;
        const char *bad; // null: understood
    };
    const row_t rows[] = {
        {"failures,forwarded", 0xF000, 0x201, nullptr},
        {"0x40200", 7, 0x40200, nullptr},
        {"512", 7, 0x200, nullptr},
        {"+forwarded", 0x200, 0x201, nullptr},
        {"-failures", 0x201, 0x1, nullptr},
        {"+arp,-failures", 0x200, 0x10000000, nullptr},
        {"failures,+arp", 0x1000, 0x10000200, nullptr},
        {"+0x40000", 0x200, 0x40200, nullptr},
        {"none", 0x200, 0, nullptr},
        {"all,-arp", 0, ~0x10000000ULL, nullptr},
        {"default,server-set", 0, 0x8000000200, nullptr},
        {"", 0, 0, ""},
        {"failures,", 0, 0, ""},
        {"failures,forwardd", 0, 0, "forwardd"},
        {"+-arp", 0, 0, "+-arp"},
        {"0x", 0, 0, "0x"},
        {"0x12345678123456789", 0, 0, "0x12345678123456789"},
        {"12z", 0, 0, "12z"},
    };
    for (const row_t &row : rows) {
        std::string bad = "unset";
        const auto mask = vellb::mask_from(row.text, row.current, bad);
        ASSERT_EQ(mask.has_value(), row.bad == nullptr) << row.text;
        EXPECT_EQ(mask.value_or(row.mask), row.mask) << row.text;
        EXPECT_EQ(mask ? row.text : bad, mask ? row.text : row.bad) << row.text;
    }
}

TEST(vellb_names, a_mask_in_words_means_the_same_mask)
{
    for (const lb_u64_t mask : {0x0ULL, 0x200ULL, 0xFFFFFFFFFFFFFFFFULL, 0x8000000000000201ULL,
                                0x40000ULL, 0x8000000ULL}) {
        std::string bad;
        EXPECT_EQ(vellb::mask_from(vellb::mask_text(mask), 0x77, bad), mask) << bad;
    }
}

} // namespace
