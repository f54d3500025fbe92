// Tables of the protocol's numbers and their names. The numbers come from the daemon's headers; the
// names of answer codes are those of its traces. No state.
#include "vellb/names.h"

#include "lb_log.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fmt/format.h>

namespace vellb
{

namespace
{

constexpr auto ANSWER_CODES = std::to_array<named_value>({
    {LBCMD_RC_SUCCESS, "SUCCESS", "carried out"},
    {LBCMD_RC_NOTRECOGNIZED, "NOTRECOGNIZED", "the action is not known"},
    {LBCMD_RC_NOPARENT, "NOPARENT", "a root object cannot be added"},
    {LBCMD_RC_ALREADYEXISTS, "ALREADYEXISTS", "the object exists already"},
    {LBCMD_RC_PARENTDNE, "PARENTDNE", "the object's parent does not exist"},
    {LBCMD_RC_OBJNOTFOUND, "OBJNOTFOUND", "the object does not exist"},
    {LBCMD_RC_HASCHILD, "HASCHILD", "the object still has children"},
    {LBCMD_RC_FAILURE, "FAILURE", "not carried out; the daemon's log says why"},
    {LBCMD_RC_BADKEYTYPE, "BADKEYTYPE", "never sent by the daemon"},
    {LBCMD_RC_PROTOONLY, "PROTOONLY", "never sent by the daemon"},
});

constexpr auto ACTIONS = std::to_array<named_value>({
    {LBCMD_ACTION_ADD, "ADD", ""},
    {LBCMD_ACTION_RM, "RM", ""},
    {LBCMD_ACTION_GET, "GET", ""},
    {LBCMD_ACTION_SET, "SET", ""},
});

constexpr auto ALGORITHMS = std::to_array<named_value>({
    {LBSEL_ALGORIGHM_HASH, "hash", "by the client's port, stateless"},
    {LBSEL_ALGORIGHM_CONNECTION, "connection", "a record for each connection"},
    {LBSEL_ALGORIGHM_AFFINITY, "affinity", "a record for each client"},
    {LBSEL_ALGORIGHM_CONN_AFFIN, "conn-affin", "a record for each connection and each client"},
    {LBSEL_ALGORIGHM_UDPRR, "udprr", "packets round the servers, stateless"},
});

constexpr auto RULE_TYPES = std::to_array<named_value>({
    {LBRUL_TYPE_TRUE, "true", "always"},
    {LBRUL_TYPE_PORTACTIVE, "port-active", "by the open connections of the port"},
    {LBRUL_TYPE_RULEACTIVE, "rule-active", "by the open connections of the rule's servers"},
});

constexpr auto HA_ROLES = std::to_array<named_value>({
    {LBHA_ROLE_UNDEF, "undefined", ""},
    {LBHA_ROLE_SOLO, "solo", "no partner"},
    {LBHA_ROLE_PRIMARY, "primary", ""},
    {LBHA_ROLE_BACKUP, "backup", ""},
});

constexpr auto HA_TAKEOVERS = std::to_array<named_value>({
    {LBHA_TAKEOVERSTRATEGY_UNDEF, "undefined", ""},
    {LBHA_TAKEOVERSTRATEGY_MANUAL, "manual", ""},
    {LBHA_TAKEOVERSTRATEGY_AUTOMATIC, "automatic", ""},
    {LBHA_TAKEOVERSTRATEGY_NA, "n/a", ""},
});

constexpr auto HA_REPLICATIONS = std::to_array<named_value>({
    {LBHA_REPLICATIONSTRATEGY_NOREP, "none", ""},
    {LBHA_REPLICATIONSTRATEGY_CRREP, "connections", ""},
    {LBHA_REPLICATIONSTRATEGY_ARREP, "affinity", ""},
    {LBHA_REPLICATIONSTRATEGY_CRARREP, "both", ""},
});

constexpr auto HA_STATES = std::to_array<named_value>({
    {LBHA_STATE_UNDEF, "undefined", ""},
    {LBHA_STATE_ACTIVE, "active", ""},
    {LBHA_STATE_STANDBY, "standby", ""},
    {LBHA_STATE_NA, "n/a", ""},
});

constexpr auto HA_SUBSTATES = std::to_array<named_value>({
    {LBHA_SUBSTATE_UNDEF, "undefined", ""},
    {LBHA_SUBSTATE_NA, "n/a", ""},
    {LBHA_SUBSTATE_SYNC, "synchronised", ""},
    {LBHA_SUBSTATE_NOTSYNC, "not synchronised", ""},
});

constexpr auto HA_EVENTS = std::to_array<named_value>({
    {0, "not recorded", ""},
    {1, "timer", ""},
    {2, "heartbeat", ""},
    {3, "manual takeover", ""},
});

constexpr auto YES_NO = std::to_array<named_value>({
    {LBIFIN_YN_UNDEFINED, "undefined", ""},
    {LBIFIN_YN_YES, "yes", ""},
    {LBIFIN_YN_NO, "no", ""},
});

constexpr auto ENCAPSULATIONS = std::to_array<named_value>({
    {LBSRV_ENCAPTYPE_NONE, "none", ""},
    {LBSRV_ENCAPTYPE_IPIP, "ipip", ""},
    {LBSRV_ENCAPTYPE_GRE, "gre", ""},
});

constexpr lb_u64_t number(forward_e way)
{
    return static_cast<lb_u64_t>(way);
}

constexpr auto FORWARDINGS = std::to_array<named_value>({
    {number(forward_e::DIRECT), "direct", "to its hardware address"},
    {number(forward_e::NAT), "nat", "with translated addresses, both ways"},
    {number(forward_e::IPIP), "ipip", "inside an IP packet"},
    {number(forward_e::GRE), "gre", "inside a GRE packet"},
    {number(forward_e::COLLOCATED), "collocated", "on this machine, through the tunnel device"},
});

constexpr auto LOG_BITS = std::to_array<named_value>({
    {LB_LOG_FORWARDED, "forwarded", "a line for each packet forwarded"},
    {LB_LOG_DISCARDED, "discarded", "a line for each packet discarded"},
    {LB_LOG_INTACT, "intact", "a line for each packet left to the host"},
    {LB_LOG_PKTERROR, "packet-errors", "malformed or short packets, failed sends"},
    {LB_LOG_HELD, "held", "a line for each packet held"},
    {LB_LOG_EVENT, "events", "notable events and refused requests"},
    {LB_LOG_FAILURE, "failures", "failures of internal operations; the default"},
    {LB_LOG_STATISTICS, "statistics", "protocol counters, twice a second"},
    {LB_LOG_REAP, "reaping", "freeing of removed objects, ageing of tables"},
    {LB_LOG_IPV4, "ipv4", "module: IPv4"},
    {LB_LOG_IPV6, "ipv6", "module: IPv6"},
    {LB_LOG_IP, "ip", "module: IP, either version"},
    {LB_LOG_TCPUDP, "tcpudp", "module: TCP and UDP"},
    {LB_LOG_LIST, "list", "module: linked list"},
    {LB_LOG_EXECUTOR, "executor", "module: executor"},
    {LB_LOG_COMMAND, "command", "module: commands; also traces every command buffer"},
    {LB_LOG_CLUSTER, "cluster", "module: cluster"},
    {LB_LOG_PORT, "port", "module: port"},
    {LB_LOG_SERVER, "server", "module: server"},
    {LB_LOG_CONFIG, "config-keys", "module: configuration tree"},
    {LB_LOG_IFACETREE, "interface-keys", "module: interface tree"},
    {LB_LOG_IFCOL, "interfaces", "module: interface collection"},
    {LB_LOG_IFACE, "interface", "module: interface and its addresses"},
    {LB_LOG_HOST, "host", "module: start-up, reception, command socket"},
    {LB_LOG_ARP, "arp", "module: ARP"},
    {LB_LOG_HASH, "hash-table", "module: hash table"},
    {LB_LOG_NEIGH, "neighbours", "module: neighbour table"},
    {LB_LOG_SELECT, "selection", "module: choosing and forwarding"},
    {LB_LOG_ICMPV6, "icmpv6", "module: ICMPv6"},
    {LB_LOG_HA, "ha", "module: high availability"},
    {LB_LOG_ICMP, "icmp", "module: ICMP"},
    {LB_LOG_FRAGMENT, "fragments", "module: fragment table"},
    {LB_LOG_RULE, "rules", "module: rules"},
    {LB_LOG_USESERVER, "use-servers", "module: use-servers"},
    {LB_LOG_SERVERSET, "server-set", "module: server set"},
});

std::string_view state_words(unsigned state)
{
    switch (state) {
    case LBNEIGH_STATE_UNDEF: return "none";
    case LBNEIGH_STATE_RXOK: return "reachable";
    case LBNEIGH_STATE_TXU0: return "verifying";
    case LBNEIGH_STATE_TXB1: return "asking 1 of 3";
    case LBNEIGH_STATE_TXB2: return "asking 2 of 3";
    case LBNEIGH_STATE_TXB3: return "asking 3 of 3";
    case LBNEIGH_STATE_DEAD: return "dead";
    default: return "unknown";
    }
}

// One name or number of a mask.
std::optional<lb_u64_t> mask_item(std::string_view item)
{
    if (item == "all") {
        return ~lb_u64_t{0};
    }
    if (item == "none") {
        return 0;
    }
    if (item == "default") {
        return LB_LOG_FAILURE;
    }
    if (item.empty() || item[0] < '0' || item[0] > '9') {
        return value_of(LOG_BITS, item);
    }
    const bool hex = item.starts_with("0x") || item.starts_with("0X");
    const std::string_view digits = hex ? item.substr(2) : item;
    lb_u64_t value = 0;
    const char *last = digits.data() + digits.size();
    const auto [end, error] = std::from_chars(digits.data(), last, value, hex ? 16 : 10);
    if (error != std::errc{} || end != last) {
        return std::nullopt;
    }
    return value;
}

} // namespace

std::span<const named_value> answer_codes()
{
    return ANSWER_CODES;
}
std::span<const named_value> actions()
{
    return ACTIONS;
}
std::span<const named_value> algorithms()
{
    return ALGORITHMS;
}
std::span<const named_value> rule_types()
{
    return RULE_TYPES;
}
std::span<const named_value> ha_roles()
{
    return HA_ROLES;
}
std::span<const named_value> ha_takeovers()
{
    return HA_TAKEOVERS;
}
std::span<const named_value> ha_replications()
{
    return HA_REPLICATIONS;
}
std::span<const named_value> ha_states()
{
    return HA_STATES;
}
std::span<const named_value> ha_substates()
{
    return HA_SUBSTATES;
}
std::span<const named_value> ha_events()
{
    return HA_EVENTS;
}
std::span<const named_value> yes_no()
{
    return YES_NO;
}
std::span<const named_value> encapsulations()
{
    return ENCAPSULATIONS;
}
std::span<const named_value> forwardings()
{
    return FORWARDINGS;
}
std::span<const named_value> log_bits()
{
    return LOG_BITS;
}

std::string name_of(std::span<const named_value> table, lb_u64_t value)
{
    const auto row = std::ranges::find(table, value, &named_value::value);
    return row != table.end() ? std::string(row->name) : fmt::format("unknown ({})", value);
}

std::optional<lb_u64_t> value_of(std::span<const named_value> table, std::string_view name)
{
    const auto row = std::ranges::find(table, name, &named_value::name);
    return row != table.end() ? std::optional(row->value) : std::nullopt;
}

bool keeps_connections(lb_u8_t algorithm)
{
    return algorithm == LBSEL_ALGORIGHM_CONNECTION || algorithm == LBSEL_ALGORIGHM_CONN_AFFIN;
}

bool keeps_clients(lb_u8_t algorithm)
{
    return algorithm == LBSEL_ALGORIGHM_AFFINITY || algorithm == LBSEL_ALGORIGHM_CONN_AFFIN;
}

std::string names_in(std::span<const named_value> table)
{
    std::string names;
    for (const named_value &row : table) {
        names += names.empty() ? "" : ", ";
        names += row.name;
    }
    return names;
}

std::string neighbour_text(lb_u8_t state)
{
    std::string text(state_words(state & LBNEIGH_STATEMASK_STATE));
    if (text == "none" && state != 0) {
        text.clear();
    }
    const auto add = [&](lb_u8_t bit, const char *words) {
        if ((state & bit) != 0) {
            text += text.empty() ? "" : ", ";
            text += words;
        }
    };
    add(LBNEIGH_STATEMOD_NOIFACE, "no interface");
    add(LBNEIGH_STATEMOD_ERROR, "cannot transmit");
    add(LBNEIGH_STATEMOD_SERVERSDOWN, "servers down");
    add(0x80, "unknown modifier");
    return text;
}

std::string mask_text(lb_u64_t mask)
{
    if (mask == 0) {
        return "none";
    }
    if (mask == ~lb_u64_t{0}) {
        return "all";
    }
    std::string text;
    for (const named_value &row : LOG_BITS) {
        if ((mask & row.value) != 0) {
            text += text.empty() ? "" : ",";
            text += row.name;
            mask &= ~row.value;
        }
    }
    if (mask != 0) {
        text += fmt::format("{}0x{:x}", text.empty() ? "" : ",", mask);
    }
    return text;
}

std::optional<lb_u64_t> mask_from(std::string_view text, lb_u64_t current, std::string &bad)
{
    lb_u64_t mask = current;
    bool replaced = false;
    for (;;) {
        const auto comma = text.find(',');
        const std::string_view item = text.substr(0, comma);
        const bool adds = item.starts_with('+');
        const bool takes = item.starts_with('-');
        const auto bits = mask_item(adds || takes ? item.substr(1) : item);
        if (!bits) {
            bad = item;
            return std::nullopt;
        }
        if (!adds && !takes && !replaced) {
            mask = 0;
            replaced = true;
        }
        mask = takes ? mask & ~*bits : mask | *bits;
        if (comma == std::string_view::npos) {
            return mask;
        }
        text.remove_prefix(comma + 1);
    }
}

} // namespace vellb
