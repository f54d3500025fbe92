// Addresses as people write them: parsing and printing through the C library, which knows the
// textual forms (RFC 4291, 2.2; RFC 5952). No state.
#include "vellb/address.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>
#include <cstring>
#include <fmt/format.h>

namespace vellb
{

namespace
{

constexpr int V4_BYTES = 4;
constexpr int V6_BYTES = 16;

int width_bytes(const lbip_addr_t &addr)
{
    return addr.version == 4 ? V4_BYTES : addr.version == 6 ? V6_BYTES : 0;
}

} // namespace

std::optional<lbip_addr_t> parse_address(std::string_view text)
{
    const bool bracketed = text.size() > 2 && text.front() == '[' && text.back() == ']';
    const std::string word(bracketed ? text.substr(1, text.size() - 2) : text);
    lbip_addr_t addr{};
    if (word.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    if (!bracketed && inet_pton(AF_INET, word.c_str(), addr.nboaddr.v4) == 1) {
        addr.version = 4;
        return addr;
    }
    if (inet_pton(AF_INET6, word.c_str(), addr.nboaddr.v6) == 1) {
        addr.version = 6;
        return addr;
    }
    return std::nullopt;
}

std::optional<lbip_addr_t> parse_prefix(std::string_view text)
{
    const auto slash = text.find('/');
    if (slash == std::string_view::npos) {
        return std::nullopt;
    }
    auto addr = parse_address(text.substr(0, slash));
    if (!addr) {
        return std::nullopt;
    }
    const auto width = static_cast<unsigned long>(width_bytes(*addr)) * 8;
    const auto length = parse_number(text.substr(slash + 1), width);
    if (!length) {
        return std::nullopt;
    }
    addr->prefix = static_cast<lb_u8_t>(*length);
    return addr;
}

std::optional<lbeth_addr_align_t> parse_mac(std::string_view text)
{
    constexpr size_t TEXTLEN = LBETH_ADDRLEN * 3 - 1;
    if (text.size() != TEXTLEN) {
        return std::nullopt;
    }
    lbeth_addr_align_t mac{};
    for (size_t i = 0; i < LBETH_ADDRLEN; i++) {
        const char *pair = text.data() + i * 3;
        const auto [end, error] = std::from_chars(pair, pair + 2, mac.b[i], 16);
        const bool separated = i + 1 == LBETH_ADDRLEN || pair[2] == ':';
        if (error != std::errc{} || end != pair + 2 || !separated) {
            return std::nullopt;
        }
    }
    return mac;
}

std::optional<unsigned long> parse_number(std::string_view text, unsigned long max)
{
    unsigned long value = 0;
    const char *last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, value, 10);
    if (error != std::errc{} || end != last || value > max) {
        return std::nullopt;
    }
    return value;
}

std::string address_text(const lbip_addr_t &addr)
{
    if (addr.version == 0) {
        return "none";
    }
    std::array<char, INET6_ADDRSTRLEN> text{};
    const int family = addr.version == 4 ? AF_INET : AF_INET6;
    if (width_bytes(addr) == 0 ||
        inet_ntop(family, &addr.nboaddr, text.data(), text.size()) == nullptr) {
        return "invalid";
    }
    return text.data();
}

std::string prefix_text(const lbip_addr_t &addr)
{
    return fmt::format("{}/{}", address_text(addr), addr.prefix);
}

std::string endpoint_text(const lbip_addr_t &addr, unsigned port)
{
    const bool bracketed = addr.version == 6;
    return fmt::format("{}{}{}:{}", bracketed ? "[" : "", address_text(addr), bracketed ? "]" : "",
                       port);
}

std::string mac_text(const lbeth_addr_align_t &mac)
{
    return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", mac.b[0], mac.b[1], mac.b[2],
                       mac.b[3], mac.b[4], mac.b[5]);
}

bool is_set(const lbip_addr_t &addr)
{
    return addr.version != 0;
}

bool is_unspecified(const lbip_addr_t &addr)
{
    static const std::array<lb_u8_t, V6_BYTES> zero{};
    return memcmp(&addr.nboaddr, zero.data(), static_cast<size_t>(width_bytes(addr))) == 0;
}

bool is_link_local(const lbip_addr_t &addr)
{
    return addr.version == 6 && addr.nboaddr.v6[0] == 0xFE && (addr.nboaddr.v6[1] & 0xC0U) == 0x80;
}

bool same_address(const lbip_addr_t &a, const lbip_addr_t &b)
{
    return a.version == b.version &&
           memcmp(&a.nboaddr, &b.nboaddr, static_cast<size_t>(width_bytes(a))) == 0;
}

bool on_net(const lbip_addr_t &addr, const lbip_addr_t &net)
{
    const int width = width_bytes(addr) * 8;
    if (addr.version != net.version || width == 0 || net.prefix > width) {
        return false;
    }
    const size_t whole = net.prefix / 8;
    const unsigned rest = net.prefix % 8;
    if (memcmp(&addr.nboaddr, &net.nboaddr, whole) != 0) {
        return false;
    }
    const unsigned mask = (0xFFU << (8 - rest)) & 0xFFU;
    return rest == 0 || ((addr.nboaddr.v6[whole] ^ net.nboaddr.v6[whole]) & mask) == 0;
}

} // namespace vellb
