// The daemon's two object trees, read by following children, as decoded structures. One picture
// feeds every rendering. Objects that vanish while the tree is read are left out.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "prot/blocks.h"
#include "vellb/command.h"
#include "vellb/names.h"

namespace vellb
{

struct server {
    lbip_addr_t address{};
    lbsrv_addable_t fixed{};
    lbsrv_setable_t settings{};
    lbsrv_getable_t readings{};
};

struct rule {
    lb_u16_t number = 0;
    lbrul_setable_t settings{};
    lbrul_getable_t readings{};
    std::vector<lbip_addr_t> useservers{}; // in the order in which they were added
};

struct port {
    lbip_addr_t cluster{};
    lb_u16_t number = 0;
    lbport_addable_t fixed{};
    lbport_setable_t settings{};
    lbport_getable_t readings{};
    std::vector<server> servers{}; // in the order in which they were added
    std::vector<rule> rules{};     // in the order in which they are tried
};

struct cluster {
    lbip_addr_t address{};
    lbclu_setable_t settings{};
    lbclu_getable_t readings{};
    std::vector<port> ports{};
};

// The pair of addresses over which a node and its partner tell each other that they live.
struct heartbeat {
    lbip_addr_t local{};
    lbip_addr_t partner{};
    lbha_hb_getable_t readings{};
};

struct executor {
    lbexe_setable_t settings{};
    lbexe_getable_t readings{};
    std::vector<lbip_addr_t> clusters{};
    std::vector<heartbeat> heartbeats{};
};

struct interface_address {
    lbip_addr_t address{}; // with its prefix
    lbip_addr_t peer{};
};

struct interface {
    std::string name;
    lbifin_setable_t settings{};
    std::vector<interface_address> addresses{};
};

struct picture {
    vellb::executor executor;
    std::vector<cluster> clusters{};
    std::vector<interface> interfaces{};
    std::chrono::steady_clock::time_point taken{};
};

// How packets get to the server: by the first of its settings that the daemon looks at. Nothing if
// they are dropped.
std::optional<forward_e> forwarding_of(const server &each);

executor read_executor(const client &daemon);
// Each with everything below it; nothing if it does not exist.
std::optional<cluster> read_cluster(const client &daemon, const lbip_addr_t &address);
std::optional<port> read_port(const client &daemon, const lbip_addr_t &cluster, lb_u16_t number);
std::optional<server> read_server(const client &daemon, const lbip_addr_t &cluster, lb_u16_t port,
                                  const lbip_addr_t &address);
std::optional<rule> read_rule(const client &daemon, const lbip_addr_t &cluster, lb_u16_t port,
                              lb_u16_t number);
std::optional<interface> read_interface(const client &daemon, const std::string &name);
std::vector<interface> read_interfaces(const client &daemon);
picture read_picture(const client &daemon);

enum class takeover_e {
    ACTIVE,
    ALONE,   // no partner, so there is nothing to take over: not asked
    YIELDED, // the partner claimed the addresses at the same moment
};
// Asks the node to take its partner's place now: what became of it.
takeover_e take_over(const client &daemon);

} // namespace vellb
