// Names of the protocol's numbers, both ways. A number without a name prints as "unknown (N)".
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "prot/blocks.h"
#include "prot/command.h"
#include "prot/neighstate.h"

namespace vellb
{

struct named_value {
    lb_u64_t value;
    std::string_view name;
    std::string_view meaning;
};

// How packets get to a server. Not a number of the protocol: several fields of a server make it.
enum class forward_e : lb_u8_t { DIRECT, NAT, IPIP, GRE, COLLOCATED };

// The tables themselves, for help texts and for those who decode.
std::span<const named_value> answer_codes(); // "SUCCESS", "PARENTDNE", ...
std::span<const named_value> actions();
std::span<const named_value> algorithms();
std::span<const named_value> rule_types();
std::span<const named_value> ha_roles();
std::span<const named_value> ha_takeovers();
std::span<const named_value> ha_replications();
std::span<const named_value> ha_states();
std::span<const named_value> ha_substates();
std::span<const named_value> ha_events();
std::span<const named_value> yes_no();
std::span<const named_value> encapsulations();
std::span<const named_value> forwardings(); // forward_e
std::span<const named_value> log_bits();    // classes first, then modules

std::string name_of(std::span<const named_value> table, lb_u64_t value);
std::optional<lb_u64_t> value_of(std::span<const named_value> table, std::string_view name);
// Does an algorithm keep a record of each connection, of each client?
bool keeps_connections(lb_u8_t algorithm);
bool keeps_clients(lb_u8_t algorithm);

// "hash, connection, ...", for messages.
std::string names_in(std::span<const named_value> table);

// The state byte of a neighbour in words: "reachable", "dead, servers down", "none".
std::string neighbour_text(lb_u8_t state);

// "failures,forwarded"; bits without a name as one number; "none" for 0.
std::string mask_text(lb_u64_t mask);

// What `text` makes of `current`: a list of names and numbers, separated by commas. Items with + or
// - add to and take from the current mask; items without a sign replace it. "all", "none" and
// "default" are understood. On failure nothing, and the item that is wrong in `bad`.
std::optional<lb_u64_t> mask_from(std::string_view text, lb_u64_t current, std::string &bad);

} // namespace vellb
