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
    const struct {
        const char *net, *in, *out; // the last inside, the first outside
    } rows[] = {
        {"10.0.0.1/31", "10.0.0.0", "10.0.0.3"},
        {"10.0.0.1/0", "192.0.2.1", "2001:db8::9"},
        {"2001:db8::1/63", "2001:db8:0:1::", "2001:db8:0:2::"},
    };
    for (const auto &row : rows) {
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
    const std::pair<const char *, bool> rows[] = {
        {"fe80::1", true}, {"febf::", true}, {"fec0::1", false}, {"254.128.0.1", false}};
    for (const auto &[text, is] : rows) {
        EXPECT_EQ(vellb::is_link_local(*vellb::parse_address(text)), is) << text;
    }
}

TEST(vellb_names, a_mask_in_words_means_the_same_mask)
{
    for (const lb_u64_t mask : {0x0ULL, 0xFFFFFFFFFFFFFFFFULL, 0x8000000000000201ULL}) {
        std::string bad;
        EXPECT_EQ(vellb::mask_from(vellb::mask_text(mask), 0x77, bad), mask) << bad;
    }
}

} // namespace
