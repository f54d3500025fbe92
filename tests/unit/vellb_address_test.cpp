// Addresses and masks as people write them: what the conversations with vellbctl cannot ask.
#include <gtest/gtest.h>

#include "vellb/address.h"
#include "vellb/names.h"

namespace
{

using std::literals::operator""sv;

TEST(vellb_address, what_no_command_line_can_hold_is_no_address)
{
    for (const std::string_view bad : {"10.0.0.1\0x"sv, ""sv, "10.0.0.1 "sv}) {
        EXPECT_FALSE(vellb::parse_address(bad)) << bad;
    }
    EXPECT_FALSE(vellb::parse_prefix("10.0.0.1/ 8"));
    EXPECT_FALSE(vellb::parse_mac(""));
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

TEST(vellb_names, a_mask_in_words_means_the_same_mask)
{
    for (const lb_u64_t mask : {0x0ULL, 0x200ULL, 0xFFFFFFFFFFFFFFFFULL, 0x8000000000000201ULL,
                                0x40000ULL, 0x8000000ULL}) {
        std::string bad;
        EXPECT_EQ(vellb::mask_from(vellb::mask_text(mask), 0x77, bad), mask) << bad;
    }
}

} // namespace
