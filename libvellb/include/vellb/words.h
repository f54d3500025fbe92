// Words as people write them, on a command line or in a file, turned into values or into a message
// that says what is wrong with them.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "vellb/address.h"
#include "vellb/names.h"

namespace vellb
{

// A word that cannot be taken: `word` is the one, what() says why.
class bad_word : public std::runtime_error
{
  public:
    explicit bad_word(const std::string &message, std::string wrong_word = "")
        : std::runtime_error(message), word(std::move(wrong_word))
    {
    }
    std::string word;
};

// The candidate that `word` was probably meant to be.
std::optional<std::string> nearest(std::string_view word,
                                   const std::vector<std::string> &candidates);
// " (did you mean 'cluster'?)", or nothing.
std::string did_you_mean(std::string_view word, const std::vector<std::string> &candidates);

// "2", "0.5"; nothing if any of the word is something else.
std::optional<double> parse_decimal(std::string_view word);

// Each throws bad_word.
lbip_addr_t take_address(const std::string &word);         // no prefix, not 0.0.0.0 or ::
lbip_addr_t take_address_or_none(const std::string &word); // "none": unset
lbip_addr_t take_prefix(const std::string &word);          // A/LENGTH
void take_endpoint(const std::string &word, lbip_addr_t &addr, lb_u16_t &port);
lbeth_addr_align_t take_mac(const std::string &word);
lb_u32_t take_number(const std::string &word, lb_u32_t least, lb_u32_t most);
lb_u32_t take_seconds(const std::string &word); // "90", "90s", "30m", "1h30m", "1d"
double take_interval(const std::string &word);  // seconds, 0.1 to 3600
bool take_switch(const std::string &word);      // on, off, yes, no, true, false
std::string take_socket(const std::string &word);
// "10-20", or "10-" without an upper bound.
void take_range(const std::string &word, lb_u32_t &first, lb_u32_t &last);
std::string take_text(const std::string &word, size_t most);
std::string take_interface(const std::string &word);
// Every link carries packets of 68 bytes (RFC 791), here with the longer tunnel header around.
constexpr lb_u16_t ENCAP_MTU_LEAST = 68 + 24;
// Bytes that an outer packet may have.
lb_u16_t take_encap_mtu(const std::string &word);
lb_u64_t take_name(const std::string &word, std::span<const named_value> table);
lb_u64_t take_mask(const std::string &word, lb_u64_t current);

// "1h46m40s".
std::string seconds_text(lb_u64_t seconds);
// As take_range takes it.
std::string range_text(lb_u32_t first, lb_u32_t last);

} // namespace vellb
