// What the configuration file asks for, as it was written: every object knows its place. Values are
// whole and within their bounds; whether they make sense together is check.h's question, and what
// the daemon makes of them normalise.h's.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "prot/blocks.h"
#include "vellb/names.h"

namespace vellcfg
{

// Line and column count from 1. Line 0: written nowhere, a default.
struct place {
    std::string file{};
    int line = 0;
    int column = 0;
};

// "web.yaml:12:7", "web.yaml" without a line.
std::string place_text(const place &at);

// Something to tell about a place: an error or a warning.
struct finding {
    place at{};
    std::string text{};
};

// "web.yaml:12:7: text"
std::string finding_text(const finding &told);

// How packets get to a server.
using forward_e = vellb::forward_e;

struct server {
    place at{};
    lbip_addr_t address{};
    std::string id{};
    lb_u16_t weight = 10;
    bool sticky = true;
    bool quiesced = false;
    forward_e forward = forward_e::DIRECT;
    lbip_addr_t return_address{}; // these two with NAT only
    lbip_addr_t router_address{};
    lbip_addr_t encap_source{}; // these two with IPIP and GRE only
    std::optional<lb_u16_t> encap_mtu{};
};

struct useserver {
    place at{};
    lbip_addr_t address{};
};

struct rule {
    place at{};
    lb_u16_t number = 0;
    std::string name{};
    lb_u8_t type = LBRUL_TYPE_TRUE; // lbrul_type_e, never NONE
    bool ranged = false;            // with the other types only
    lb_u32_t first = 0;             // open connections, both included
    lb_u32_t last = 0;
    std::vector<useserver> useservers{};
};

// The least time of a port's records: the daemon takes less for "the default".
constexpr lb_u32_t LEAST_TIME_S = 10;

struct port {
    place at{};
    lb_u16_t number = 0;
    lb_u8_t algorithm = LBSEL_ALGORIGHM_HASH;      // lbsel_algorighm_e
    lb_u8_t udp_algorithm = LBSEL_ALGORIGHM_UDPRR; // lbsel_algorighm_e
    lb_u16_t crossport = 0;                        // 0: none
    place crossport_at{};
    std::optional<lb_u32_t> stale_timeout_s{}; // absent: the daemon's default
    std::optional<lb_u32_t> sticky_time_s{};
    bool reset = false;
    lb_u8_t replication = LBHA_REPLICATIONSTRATEGY_NOREP; // _lbha_replicationstrategy_e
    std::vector<server> servers{};
    std::vector<rule> rules{};
};

struct cluster {
    place at{};
    lbip_addr_t address{};
    std::string id{};
    std::vector<port> ports{};
};

struct executor {
    place at{};
    lbip_addr_t client_gateway{};
    lbip_addr_t client_gateway_ipv6{};
    lbip_addr_t own_address{};
    std::optional<lb_u64_t> log_mask{}; // absent: as the daemon was started
};

struct heartbeat {
    place at{};
    lbip_addr_t local{};
    lbip_addr_t partner{};
};

struct ha {
    place at{};
    lb_u8_t role = LBHA_ROLE_SOLO; // _lbha_role_e, never UNDEF; the rest matters to a pair only
    lb_u8_t takeover = LBHA_TAKEOVERSTRATEGY_MANUAL;
    lb_u8_t replication = LBHA_REPLICATIONSTRATEGY_NOREP; // NOREP or CRREP
    lb_u8_t timeout_s = LBHA_TIMEOUT_DEFAULT;
    lb_u16_t port = 0;                // 0 only without a partner
    std::vector<lbip_addr_t> reach{}; // at most 12: whose reachability makes the reach score
    std::vector<heartbeat> heartbeats{};
};

struct interface_name {
    place at{};
    std::string name{};
};

struct service {
    vellcfg::executor executor{};
    vellcfg::ha ha{};
    // The host's interfaces that the daemon is to use. Absent: all but loopbacks.
    std::optional<std::vector<interface_name>> interfaces{};
    bool host_guard = false;
    place host_guard_at{};
    std::vector<cluster> clusters{};
};

} // namespace vellcfg
