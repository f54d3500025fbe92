// Words turned into values. Pure functions; every refusal names the word and says what would do.
#include "vellb/words.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <numeric>

namespace vellb
{

namespace
{

// Edits (insert, delete, replace, swap of neighbours) that turn one word into the other.
size_t distance(std::string_view a, std::string_view b)
{
    std::vector<size_t> before(b.size() + 1);
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= a.size(); i++) {
        const std::vector<size_t> above = row;
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            const size_t replaced = above[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            row[j] = std::min({replaced, above[j] + 1, row[j - 1] + 1});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                row[j] = std::min(row[j], before[j - 2] + 1);
            }
        }
        before = above;
    }
    return row.back();
}

[[noreturn]] void wrong(const std::string &word, const std::string &why)
{
    throw bad_word(fmt::format("'{}' {}", word, why), word);
}

} // namespace

std::optional<std::string> nearest(std::string_view word,
                                   const std::vector<std::string> &candidates)
{
    std::optional<std::string> best;
    size_t least = std::max<size_t>(1, word.size() / 3) + 1;
    for (const std::string &candidate : candidates) {
        const size_t away = distance(word, candidate);
        if (away < least) {
            least = away;
            best = candidate;
        }
    }
    return best;
}

std::string did_you_mean(std::string_view word, const std::vector<std::string> &candidates)
{
    const auto meant = nearest(word, candidates);
    return meant ? fmt::format(" (did you mean '{}'?)", *meant) : "";
}

std::optional<double> parse_decimal(std::string_view word)
{
    double number = 0;
    const char *last = word.data() + word.size();
    const auto [end, error] = std::from_chars(word.data(), last, number);
    return error == std::errc{} && end == last ? std::optional(number) : std::nullopt;
}

lbip_addr_t take_address(const std::string &word)
{
    const auto addr = parse_address(word);
    if (!addr && parse_prefix(word)) {
        wrong(word, "carries a prefix length, which is not wanted here");
    }
    if (!addr) {
        wrong(word, "is not an IPv4 or IPv6 address");
    }
    if (is_unspecified(*addr)) {
        wrong(word, "is the unspecified address, which nothing can have");
    }
    return *addr;
}

lbip_addr_t take_address_or_none(const std::string &word)
{
    return word == "none" ? lbip_addr_t{} : take_address(word);
}

lbip_addr_t take_prefix(const std::string &word)
{
    const auto addr = parse_prefix(word);
    if (const auto bare = parse_address(word); !addr && bare) {
        wrong(word, fmt::format("lacks its prefix length, as in {}/{}", address_text(*bare),
                                bare->version == 4 ? 24 : 64));
    }
    if (!addr) {
        wrong(word, "is not an address with a prefix length, as in 10.0.0.1/24");
    }
    if (is_unspecified(*addr)) {
        wrong(word, "is the unspecified address, which nothing can have");
    }
    return *addr;
}

void take_endpoint(const std::string &word, lbip_addr_t &addr, lb_u16_t &port)
{
    constexpr const char *FORM = "does not look like 10.0.0.100:80 or [2001:db8::1]:80";
    const auto colon = word.rfind(':');
    if (colon == std::string::npos) {
        wrong(word, FORM);
    }
    const std::string host = word.substr(0, colon);
    const bool bracketed = host.starts_with('[');
    const auto found = parse_address(host);
    if (!found || (found->version == 6 && !bracketed)) {
        wrong(word, FORM);
    }
    const auto number = parse_number(word.substr(colon + 1), 65535);
    if (!number || *number == 0) {
        wrong(word, fmt::format("has port '{}', which is not a number from 1 to 65535",
                                word.substr(colon + 1)));
    }
    addr = take_address(host);
    port = static_cast<lb_u16_t>(*number);
}

lbeth_addr_align_t take_mac(const std::string &word)
{
    const auto mac = parse_mac(word);
    if (!mac) {
        wrong(word, "is not a hardware address, as in 02:00:00:00:00:01");
    }
    return *mac;
}

lb_u32_t take_number(const std::string &word, lb_u32_t least, lb_u32_t most)
{
    const auto number = parse_number(word, most);
    if (!number || *number < least) {
        wrong(word, fmt::format("is not a number from {} to {}", least, most));
    }
    return static_cast<lb_u32_t>(*number);
}

lb_u32_t take_seconds(const std::string &word)
{
    constexpr unsigned long MOST = 0xFFFFFFFF;
    constexpr unsigned long UNITS[] = {1, 60, 3600, 86400};
    constexpr std::string_view LETTERS = "smhd";
    unsigned long seconds = 0;
    std::string_view left = word;
    // A number alone is seconds; otherwise every number has its unit.
    do {
        const auto end = left.find_first_of(LETTERS);
        const bool bare = end == std::string_view::npos && left.size() == word.size();
        const unsigned long unit =
            bare ? 1 : UNITS[LETTERS.find(end < left.size() ? left[end] : 's')];
        const auto number = parse_number(left.substr(0, end), (MOST - seconds) / unit);
        if (!number || (end == std::string_view::npos && !bare)) {
            wrong(word, "is not a time, as in 90, 90s, 30m, 1h30m or 1d");
        }
        seconds += *number * unit;
        left.remove_prefix(bare ? left.size() : end + 1);
    } while (!left.empty());
    return static_cast<lb_u32_t>(seconds);
}

double take_interval(const std::string &word)
{
    constexpr double LEAST_S = 0.1;
    constexpr double MOST_S = 3600;
    const double seconds = parse_decimal(word).value_or(0);
    if (!(seconds >= LEAST_S && seconds <= MOST_S)) {
        wrong(word, fmt::format("is not a number of seconds from {} to {}", LEAST_S, MOST_S));
    }
    return seconds;
}

bool take_switch(const std::string &word)
{
    if (word == "on" || word == "yes" || word == "true") {
        return true;
    }
    if (word != "off" && word != "no" && word != "false") {
        wrong(word, "is neither on nor off");
    }
    return false;
}

std::string take_socket(const std::string &word)
{
    constexpr size_t SUN_PATH_MOST = 107; // unix(7)
    if (word.empty() || word.size() > SUN_PATH_MOST) {
        wrong(word, fmt::format("is not a socket path of 1 to {} bytes", SUN_PATH_MOST));
    }
    return word;
}

void take_range(const std::string &word, lb_u32_t &first, lb_u32_t &last)
{
    constexpr lb_u32_t MOST = 0xFFFFFFFF;
    const auto dash = word.find('-');
    const auto number = [&](const std::string &digits) { return parse_number(digits, MOST); };
    const auto from = number(word.substr(0, dash));
    const bool open = dash != std::string::npos && dash + 1 == word.size();
    const auto to = open                        ? std::optional<unsigned long>(MOST)
                    : dash != std::string::npos ? number(word.substr(dash + 1))
                                                : std::nullopt;
    if (!from || !to) {
        wrong(word, "is not a range, as in 10-20, or 10- without an upper bound");
    }
    if (*from > *to) {
        wrong(word, "ends before it begins");
    }
    first = static_cast<lb_u32_t>(*from);
    last = static_cast<lb_u32_t>(*to);
}

std::string take_text(const std::string &word, size_t most)
{
    if (word.size() > most) {
        wrong(word, fmt::format("is longer than {} bytes", most));
    }
    const auto control = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7F; };
    if (std::ranges::any_of(word, control)) {
        wrong(word, "contains control characters");
    }
    return word;
}

std::string take_interface(const std::string &word)
{
    if (word.empty() || word.size() >= LBIFACE_NAMELEN) {
        wrong(word, fmt::format("is not an interface name of 1 to {} bytes", LBIFACE_NAMELEN - 1));
    }
    return take_text(word, LBIFACE_NAMELEN);
}

lb_u16_t take_encap_mtu(const std::string &word)
{
    constexpr lb_u32_t LEAST = ENCAP_MTU_LEAST;
    constexpr lb_u32_t MOST = 65535;
    const auto number = parse_number(word, ~0U);
    if (!number) {
        wrong(word, fmt::format("is not a number from {} to {}", LEAST, MOST));
    }
    if (*number == 0) {
        wrong(word, "would let nothing through that must not be fragmented: leave it out for 1500");
    }
    if (*number < LEAST) {
        wrong(word, fmt::format("is less than {}: inside GRE and an outer header not even the 68 "
                                "bytes would fit that every link must carry",
                                LEAST));
    }
    if (*number > MOST) {
        wrong(word, fmt::format("is more than {}, the longest IPv4 packet", MOST));
    }
    return static_cast<lb_u16_t>(*number);
}

lb_u64_t take_name(const std::string &word, std::span<const named_value> table)
{
    const auto value = value_of(table, word);
    if (!value) {
        std::vector<std::string> names;
        for (const named_value &row : table) {
            names.emplace_back(row.name);
        }
        wrong(word, fmt::format("is not one of {}{}", names_in(table), did_you_mean(word, names)));
    }
    return *value;
}

lb_u64_t take_mask(const std::string &word, lb_u64_t current)
{
    std::string bad;
    const auto mask = mask_from(word, current, bad);
    if (!mask) {
        std::vector<std::string> names{"all", "none", "default"};
        for (const named_value &row : log_bits()) {
            names.emplace_back(row.name);
        }
        const bool is_signed = bad.starts_with('+') || bad.starts_with('-');
        throw bad_word(fmt::format("'{}' is neither a log bit's name nor a number{}; "
                                   "see: vellbctl log-mask names",
                                   bad, did_you_mean(is_signed ? bad.substr(1) : bad, names)),
                       bad);
    }
    return *mask;
}

std::string seconds_text(lb_u64_t seconds)
{
    struct unit {
        lb_u64_t length;
        char letter;
    };
    std::string text;
    for (const unit &each : {unit{86400, 'd'}, unit{3600, 'h'}, unit{60, 'm'}, unit{1, 's'}}) {
        if (seconds >= each.length) {
            text += fmt::format("{}{}", seconds / each.length, each.letter);
            seconds %= each.length;
        }
    }
    return text.empty() ? "0s" : text;
}

std::string range_text(lb_u32_t first, lb_u32_t last)
{
    return fmt::format("{}-{}", first, last != 0xFFFFFFFF ? std::to_string(last) : "");
}

} // namespace vellb
