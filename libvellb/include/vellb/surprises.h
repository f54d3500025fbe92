// Settings that do what they say and yet not what people expect. Each function returns what to say
// about it, nothing if all is well; what to do about it is told in words for the place where the
// setting was made.
#pragma once

#include <string>
#include <vector>

#include "vellb/tree.h"

namespace vellb
{

enum class made_e { BY_COMMAND, IN_FILE };

// How the algorithm spreads over the port's servers, and whether it can reach them.
std::vector<std::string> spread_surprises(const vellb::port &port,
                                          made_e made = made_e::BY_COMMAND);
// Whether packets of the port's cluster get to the server.
std::vector<std::string> server_surprises(const vellb::port &port, const vellb::server &each,
                                          made_e made = made_e::BY_COMMAND);
// When the rule fires, and what then.
std::vector<std::string> rule_surprises(const vellb::port &port, const vellb::rule &rule,
                                        made_e made = made_e::BY_COMMAND);
// These three.
std::vector<std::string> port_surprises(const vellb::port &port);
// Is the cluster's address on any interface's subnet?
std::vector<std::string> subnet_surprises(const lbip_addr_t &cluster,
                                          const std::vector<vellb::interface> &interfaces,
                                          made_e made = made_e::BY_COMMAND);
// Is any of the port's servers reached by NAT?
bool translates(const vellb::port &port);
// Is there a gateway towards clients of this IP version?
std::vector<std::string> gateway_surprises(const vellb::executor &executor, lb_u8_t version,
                                           made_e made = made_e::BY_COMMAND);
// Those of every version that a cluster has, and whether it is clear where the gateway is.
std::vector<std::string> gateway_surprises(const vellb::executor &executor,
                                           const std::vector<vellb::interface> &interfaces);
// Does the node belong to a pair?
bool is_paired(const lbha_setables_t &settings);
// What the partner will not know of the port's connections and clients.
std::vector<std::string> replication_surprises(const vellb::port &port,
                                               made_e made = made_e::BY_COMMAND);
// Whether heartbeats between these addresses arrive.
std::vector<std::string> heartbeat_surprises(const vellb::heartbeat &heartbeat,
                                             const vellb::picture &now,
                                             made_e made = made_e::BY_COMMAND);
// What a pair lacks to take over well; of a whole picture.
std::vector<std::string> ha_surprises(const vellb::picture &now);
// All of them.
std::vector<std::string> surprises(const vellb::picture &now);

} // namespace vellb
