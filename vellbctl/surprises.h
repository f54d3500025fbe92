// Settings that do what they say and yet not what people expect. Each function returns what to say
// about it, nothing if all is well.
#pragma once

#include <string>
#include <vector>

#include "vellb/tree.h"

namespace vellbctl
{

// How the algorithm spreads over the port's servers, and whether they can be reached.
std::vector<std::string> port_surprises(const vellb::port &port);
// Is the cluster's address on any interface's subnet?
std::vector<std::string> subnet_surprises(const lbip_addr_t &cluster,
                                          const std::vector<vellb::interface> &interfaces);
// Is any of the port's servers reached by NAT?
bool translates(const vellb::port &port);
// Is there a gateway towards clients of this IP version?
std::vector<std::string> gateway_surprises(const vellb::executor &executor, lb_u8_t version);
// Those of every version that a cluster has, and whether it is clear where the gateway is.
std::vector<std::string> gateway_surprises(const vellb::executor &executor,
                                           const std::vector<vellb::interface> &interfaces);
// Does the node belong to a pair?
bool is_paired(const lbha_setables_t &settings);
// What a pair lacks to take over well; of a whole picture.
std::vector<std::string> ha_surprises(const vellb::picture &now);
// All of them.
std::vector<std::string> surprises(const vellb::picture &now);

} // namespace vellbctl
