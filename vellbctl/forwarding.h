// How a server is reached: directly, by address translation, through a tunnel, or on this machine.
#pragma once

#include <string>

#include "request.h"
#include "vellb/tree.h"

namespace vellbctl
{

// The words asked for, written into the blocks.
void apply_forwarding(const forwarding_words &asked, lbsrv_addable_t &fixed);
void apply_forwarding(const forwarding_words &asked, lbsrv_setable_t &settings);

// The blocks as they would be: throws usage_error for what makes no sense together.
void check_forwarding(const request &asked, const lbsrv_addable_t &fixed,
                      const lbsrv_setable_t &settings);

// "direct", "nat via 10.0.0.1 as 10.0.0.50", "gre mtu 1500", "collocated".
std::string forwarding_text(const vellb::server &server);
// The first word of it.
std::string forwarding_name(const vellb::server &server);

} // namespace vellbctl
