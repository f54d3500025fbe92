// libnftables, within this process. One table in the family inet, because one address may be of
// either version, and one in the family arp; both change in one transaction.
#include "guard.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <nftables/libnftables.h>
#include <stdexcept>

#include "vellb/address.h"

namespace cpserver
{

namespace
{

// Frames that a collocated server is meant to get come out of the forwarder's tun device.
constexpr const char *NOT_FROM_A_WIRE = R"({ "lo", "veldra" })";

// A target address in a neighbour solicitation, which nft 1.0.6 has no name for (RFC 4861, 4.3).
constexpr const char *SOLICITED = "icmpv6 type nd-neighbor-solicit @th,64,128";

std::string joined(const std::vector<std::string> &texts)
{
    return fmt::format("{{ {} }}", fmt::join(texts, ", "));
}

std::string number_text(const lbip_addr_t &address)
{
    std::string text = "0x";
    for (const lb_u8_t byte : address.nboaddr.v6) {
        text += fmt::format("{:02x}", byte);
    }
    return text;
}

} // namespace

std::string guard_rules(std::vector<lbip_addr_t> addresses)
{
    std::ranges::sort(addresses, {}, vellb::address_text);
    std::vector<std::string> v4;
    std::vector<std::string> v6;
    std::vector<std::string> targets;
    for (const lbip_addr_t &each : addresses) {
        (each.version == 4 ? v4 : v6).push_back(vellb::address_text(each));
        if (each.version == 6) {
            targets.push_back(number_text(each));
        }
    }
    // A table is made before it is deleted: deleting one that is not there fails.
    std::string text;
    for (const char *family : {"inet", "arp"}) {
        text += fmt::format("table {0} {1} {{}}\ndelete table {0} {1}\n", family, GUARD_TABLE);
    }
    const auto rule = [&](const std::string &match) {
        text += fmt::format("    {} counter drop\n", match);
    };
    text += fmt::format("table inet {} {{\n  chain wire {{\n"
                        "    type filter hook prerouting priority raw; policy accept;\n"
                        "    iifname {} accept\n",
                        GUARD_TABLE, NOT_FROM_A_WIRE);
    if (!v4.empty()) {
        rule("ip daddr " + joined(v4));
    }
    if (!v6.empty()) {
        rule("ip6 daddr " + joined(v6));
        rule(fmt::format("{} {}", SOLICITED, joined(targets)));
    }
    text += "  }\n}\n";
    text += fmt::format("table arp {} {{\n  chain wire {{\n"
                        "    type filter hook input priority filter; policy accept;\n",
                        GUARD_TABLE);
    if (!v4.empty()) {
        rule("arp operation request arp daddr ip " + joined(v4));
    }
    return text + "  }\n}\n";
}

guard::guard() : nft_(nft_ctx_new(NFT_CTX_DEFAULT), nft_ctx_free)
{
    if (!nft_) {
        throw std::runtime_error("libnftables could not be set up");
    }
    nft_ctx_buffer_output(nft_.get());
    nft_ctx_buffer_error(nft_.get());
    nft_ctx_output_set_flags(nft_.get(), NFT_CTX_OUTPUT_STATELESS); // counters are not compared
}

guard::~guard() = default;

bool guard::want(const std::vector<lbip_addr_t> &addresses)
{
    std::string rules = guard_rules(addresses);
    if (rules == rules_ && listed() == confirmed_) {
        return false;
    }
    run(rules);
    rules_ = std::move(rules);
    confirmed_ = listed();
    return true;
}

void guard::remove()
{
    rules_.clear();
    for (const char *family : {"inet", "arp"}) {
        run(fmt::format("table {0} {1} {{}}\ndelete table {0} {1}\n", family, GUARD_TABLE));
    }
}

std::string guard::run(const std::string &commands)
{
    const int failed = nft_run_cmd_from_buffer(nft_.get(), commands.c_str());
    std::string output = nft_ctx_get_output_buffer(nft_.get());
    const std::string error = nft_ctx_get_error_buffer(nft_.get());
    if (failed != 0) {
        throw std::runtime_error(error.empty() ? "nftables refused without a word" : error);
    }
    return output;
}

std::string guard::listed()
{
    std::string text;
    // One command at a time: the library looks for the last table only where there are two.
    for (const char *family : {"inet", "arp"}) {
        try {
            text += run(fmt::format("list table {} {}\n", family, GUARD_TABLE));
        } catch (const std::runtime_error &) {
            return ""; // no such table
        }
    }
    return text;
}

} // namespace cpserver
