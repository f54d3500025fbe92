// Addresses as people write them. Nothing here resolves names.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "prot/ether.h"
#include "prot/ipaddr.h"

namespace vellb
{

// "10.0.0.1", "2001:db8::1" or "[2001:db8::1]"; prefix 0. Nothing if the text is no address.
std::optional<lbip_addr_t> parse_address(std::string_view text);

// "10.0.0.1/24"; the prefix is required and within the version's width.
std::optional<lbip_addr_t> parse_prefix(std::string_view text);

// "00:16:3e:00:00:01", either case.
std::optional<lbeth_addr_align_t> parse_mac(std::string_view text);

// Decimal digits only, at most `max`.
std::optional<unsigned long> parse_number(std::string_view text, unsigned long max);

// The address without its prefix; "none" when it is unset, "invalid" when its version is unknown.
std::string address_text(const lbip_addr_t &addr);
// With "/prefix".
std::string prefix_text(const lbip_addr_t &addr);
// "10.0.0.1:80", "[2001:db8::1]:80".
std::string endpoint_text(const lbip_addr_t &addr, unsigned port);
std::string mac_text(const lbeth_addr_align_t &mac);

bool is_set(const lbip_addr_t &addr);
// Is it 0.0.0.0 or ::, which no object may have?
bool is_unspecified(const lbip_addr_t &addr);
// Is it of fe80::/10, which every IPv6 interface has an address of?
bool is_link_local(const lbip_addr_t &addr);
// Version and address bytes; the prefix is not compared.
bool same_address(const lbip_addr_t &a, const lbip_addr_t &b);
// Does the subnet of `net` (address and prefix) contain `addr`?
bool on_net(const lbip_addr_t &addr, const lbip_addr_t &net);

} // namespace vellb
