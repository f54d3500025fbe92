// The table of commands. A row's functions turn one word into one part of the request; what a word
// may be is decided in words.cpp. Flags and values that several commands share are named once.
#include "grammar.h"

#include <fmt/format.h>

#include "commands.h"
#include "words.h"

namespace vellbctl
{

namespace
{

using word_t = const std::string &;

lb_u8_t yes_no(bool yes)
{
    return yes ? LBIFIN_YN_YES : LBIFIN_YN_NO;
}

// --- Positionals ---------------------------------------------------------------------------------

void take_cluster(request &r, word_t word)
{
    r.address = take_address(word);
}
void take_port(request &r, word_t word)
{
    r.address.emplace();
    take_endpoint(word, *r.address, r.port);
}
void take_server(request &r, word_t word)
{
    r.server = take_address(word);
}
void take_partner(request &r, word_t word)
{
    r.partner = take_address(word);
}
void take_rule(request &r, word_t word)
{
    r.rule = static_cast<lb_u16_t>(take_number(word, 1, 65535));
}
void take_name_of_interface(request &r, word_t word)
{
    r.interface = take_interface(word);
}
void take_own_address(request &r, word_t word)
{
    // The prefix plays no part in finding an address: one that was pasted along is no mistake.
    const auto with_prefix = vellb::parse_prefix(word);
    r.address = with_prefix ? take_prefix(word) : take_address(word);
}
void take_own_prefix(request &r, word_t word)
{
    r.address = take_prefix(word);
}

constexpr positional CLUSTER{"ADDRESS", "the cluster's address, as in 10.0.0.100 or 2001:db8::100",
                             take_cluster};
constexpr positional SOME_CLUSTER{"ADDRESS", "one cluster only", take_cluster, true};
constexpr positional PORT{"ADDRESS:PORT",
                          "cluster and port, as in 10.0.0.100:80 or [2001:db8::100]:80", take_port};
constexpr positional SOME_PORT{"ADDRESS:PORT", "one port only", take_port, true};
constexpr positional SERVER{"SERVER", "the server's address, as in 10.0.0.11 or 2001:db8::11",
                            take_server};
constexpr positional SOME_SERVER{"SERVER", "one server only", take_server, true};
constexpr positional LOCAL{"LOCAL", "an address of this node's own, as in 10.9.0.1", take_cluster};
constexpr positional PARTNER{"PARTNER", "the partner's, as in 10.9.0.2", take_partner};
constexpr positional RULE{"RULE", "the rule's number; lower ones are tried first", take_rule};
constexpr positional SOME_RULE{"RULE", "one rule only", take_rule, true};
constexpr positional INTERFACE{"NAME", "the interface, as in eth0", take_name_of_interface};
constexpr positional SOME_INTERFACE{"NAME", "one interface only", take_name_of_interface, true};
constexpr positional OWN_PREFIX{
    "ADDRESS/LENGTH", "an address of it, as in 10.0.0.1/24 or 2001:db8::1/64", take_own_prefix};
constexpr positional OWN_ADDRESS{"ADDRESS", "an address of it", take_own_address};

// --- Options -------------------------------------------------------------------------------------

constexpr option RECURSIVE{"--recursive", nullptr, "and everything below it",
                           [](request &r, word_t) { r.recursive = true; }};

const std::vector<option> &executor_options()
{
    static const std::vector<option> options{
        {"--client-gateway", "ADDRESS|none", "IPv4 router towards the clients; carries resets",
         [](request &r, word_t word) {
             const lbip_addr_t addr = take_address_or_none(word);
             if (addr.version == 6) {
                 throw usage_error(fmt::format("'{}' is an IPv6 address: that one is set with "
                                               "--client-gateway-ipv6",
                                               word),
                                   word);
             }
             r.executor_edits.add([addr](lbexe_setable_t &b) { b.clientgateway = addr; });
         }},
        {"--client-gateway-ipv6", "ADDRESS|none", "IPv6 router towards the clients; carries resets",
         [](request &r, word_t word) {
             const lbip_addr_t addr = take_address_or_none(word);
             if (addr.version == 4) {
                 throw usage_error(fmt::format("'{}' is an IPv4 address: that one is set with "
                                               "--client-gateway",
                                               word),
                                   word);
             }
             r.executor_edits.add([addr](lbexe_setable_t &b) { b.clientgateway_ipv6 = addr; });
         }},
        {"--own-address", "ADDRESS|none", "the forwarder's own address",
         [](request &r, word_t word) {
             const lbip_addr_t addr = take_address_or_none(word);
             r.executor_edits.add([addr](lbexe_setable_t &b) { b.nfa = addr; });
         }},
        {"--log-mask", "LIST", "what is logged: names and numbers, +NAME adds, -NAME takes away",
         [](request &r, word_t word) {
             static_cast<void>(take_mask(word, 0)); // complains now, not after the read
             r.executor_edits.add(
                 [word](lbexe_setable_t &b) { b.log_mask = take_mask(word, b.log_mask); });
         }},
    };
    return options;
}

void take_reach(request &r, word_t word)
{
    constexpr size_t MOST = std::size(lbha_setables_t{}.reachaddr);
    if (!r.ha.reach) {
        r.ha.reach.emplace();
    }
    if (word == "none") {
        return;
    }
    if (r.ha.reach->size() == MOST) {
        throw usage_error(fmt::format("'{}' is one too many: {} are kept", word, MOST), word);
    }
    r.ha.reach->push_back(take_address(word));
}

std::vector<option> ha_options()
{
    return {
        {"--role", "ROLE", "solo, or in a pair primary or backup",
         [](request &r, word_t word) {
             const auto roles = vellb::ha_roles().subspan(LBHA_ROLE_SOLO);
             r.ha.role = static_cast<lb_u8_t>(take_name(word, roles));
         }},
        {"--takeover", "STRATEGY",
         "of a primary that returns: manual waits to be told (the default), automatic does not",
         [](request &r, word_t word) {
             const auto strategies = vellb::ha_takeovers().subspan(LBHA_TAKEOVERSTRATEGY_MANUAL, 2);
             r.ha.takeover = static_cast<lb_u8_t>(take_name(word, strategies));
         }},
        {"--replication", "WHAT",
         "none or connections; what is sent is each port's own --replication",
         [](request &r, word_t word) {
             const auto value = static_cast<lb_u8_t>(take_name(word, vellb::ha_replications()));
             if (value > LBHA_REPLICATIONSTRATEGY_CRREP) {
                 throw usage_error(fmt::format("'{0}' is a setting of ports only: vellbctl port "
                                               "set ADDRESS:PORT --replication {0}",
                                               word),
                                   word);
             }
             r.ha.replication = value;
         }},
        {"--timeout", "TIME",
         "1s to 30s: the partner is dead a whole second after this much silence; default 2s",
         [](request &r, word_t word) {
             const lb_u32_t timeout = take_seconds(word);
             if (timeout < LBHA_TIMEOUT_MINIMUM || timeout > LBHA_TIMEOUT_MAXIMUM) {
                 throw usage_error(fmt::format("'{}' is not from 1s to 30s", word), word);
             }
             r.ha.timeout_s = static_cast<lb_u8_t>(timeout);
         }},
        {"--port", "PORT", "UDP port of the heartbeats, the same on both nodes",
         [](request &r, word_t word) {
             r.ha.port = static_cast<lb_u16_t>(take_number(word, 1, 65535));
         }},
        {"--reach-score", "N", "0 to 255: a standby with the higher one takes over",
         [](request &r, word_t word) {
             r.ha.reach_score = static_cast<lb_u8_t>(take_number(word, 0, 255));
         }},
        {"--reach", "ADDRESS|none",
         "an address that a control server measures; up to 12; replaces the earlier ones",
         take_reach, false, true},
    };
}

constexpr option CLUSTER_ID{"--id", "TEXT", "a name for people", [](request &r, word_t word) {
                                const std::string id =
                                    take_text(word, sizeof(lbclu_setable_t::clusterid) - 1);
                                r.cluster_edits.add([id](lbclu_setable_t &b) {
                                    memset(b.clusterid, 0, sizeof(b.clusterid));
                                    id.copy(b.clusterid, sizeof(b.clusterid) - 1);
                                });
                            }};

std::vector<option> port_set_options()
{
    return {
        {"--stale-timeout", "TIME", "how long a record may stay idle, from 10s; default 6400s",
         [](request &r, word_t word) {
             const lb_u32_t seconds = take_seconds(word);
             r.port_edits.add([seconds](lbport_setable_t &b) { b.staletimeout = seconds; });
         }},
        {"--sticky-time", "TIME", "how long a client keeps its server, from 10s",
         [](request &r, word_t word) {
             const lb_u32_t seconds = take_seconds(word);
             r.port_edits.add([seconds](lbport_setable_t &b) { b.stickytime = seconds; });
         }},
        {"--reset", "on|off", "reset connections to servers of weight 0",
         [](request &r, word_t word) {
             const lb_u8_t reset = take_switch(word) ? 1 : 0;
             r.port_edits.add([reset](lbport_setable_t &b) { b.reset = reset; });
         }},
        {"--replication", "WHAT", "none, connections, affinity or both",
         [](request &r, word_t word) {
             const auto what = static_cast<lb_u8_t>(take_name(word, vellb::ha_replications()));
             r.port_edits.add([what](lbport_setable_t &b) { b.repstrategy = what; });
         }},
    };
}

std::vector<option> port_add_options()
{
    std::vector<option> options{
        {"--algorithm", "NAME", "hash, connection, affinity, conn-affin or udprr; default hash",
         [](request &r, word_t word) {
             const auto name = static_cast<lb_u8_t>(take_name(word, vellb::algorithms()));
             r.port_fixed.add([name](lbport_addable_t &b) { b.selectalg = name; });
         }},
        {"--udp-algorithm", "NAME", "the same for UDP; default udprr",
         [](request &r, word_t word) {
             const auto name = static_cast<lb_u8_t>(take_name(word, vellb::algorithms()));
             r.port_fixed.add([name](lbport_addable_t &b) { b.udpselectalg = name; });
         }},
        {"--crossport", "PORT", "share the affinity table of that port",
         [](request &r, word_t word) {
             const auto port = static_cast<lb_u16_t>(take_number(word, 1, 65535));
             r.port_fixed.add([port](lbport_addable_t &b) { b.crossport = port; });
         }},
    };
    const auto more = port_set_options();
    options.insert(options.end(), more.begin(), more.end());
    return options;
}

std::vector<option> server_options()
{
    return {
        {"--weight", "N", "its share of the traffic, 0 to 65535; default 10",
         [](request &r, word_t word) {
             const auto weight = static_cast<lb_u16_t>(take_number(word, 0, 65535));
             r.server_edits.add([weight](lbsrv_setable_t &b) { b.weight = weight; });
         }},
        {"--id", "TEXT", "a name for people",
         [](request &r, word_t word) {
             const std::string id = take_text(word, sizeof(lbsrv_setable_t::serverid) - 1);
             r.server_edits.add([id](lbsrv_setable_t &b) {
                 memset(b.serverid, 0, sizeof(b.serverid));
                 memcpy(b.serverid, id.data(), id.size());
             });
         }},
        {"--sticky", "on|off", "make affinity records for its clients; default on",
         [](request &r, word_t word) {
             const lb_u32_t sticky = take_switch(word) ? 1 : 0;
             r.server_edits.add([sticky](lbsrv_setable_t &b) { b.stickyflag = sticky; });
         }},
        {"--quiesced", "on|off", "at weight 0, keep its connections",
         [](request &r, word_t word) {
             const lb_u32_t quiesced = take_switch(word) ? 1 : 0;
             r.server_edits.add([quiesced](lbsrv_setable_t &b) { b.quiesced = quiesced; });
         }},
    };
}

const std::vector<option> &tunnel_options()
{
    static const std::vector<option> options{
        {"--encap", "TYPE", "send its packets inside others: ipip, gre or none",
         [](request &r, word_t word) {
             r.forwarding.encap = static_cast<lb_u8_t>(take_name(word, vellb::encapsulations()));
         }},
        {"--encap-source", "ADDRESS|none",
         "outer source, for the record: the host's routing picks it",
         [](request &r, word_t word) { r.forwarding.encap_source = take_address_or_none(word); }},
        {"--encap-mtu", "N", "the longest outer packet towards it; default 1500",
         [](request &r, word_t word) { r.forwarding.encap_mtu = take_encap_mtu(word); }},
    };
    return options;
}

std::vector<option> server_add_options()
{
    std::vector<option> options = server_options();
    const std::vector<option> nat{
        {"--nat", nullptr, "translate its TCP connections, both ways",
         [](request &r, word_t) { r.forwarding.nat = true; }},
        {"--return-address", "ADDRESS", "NAT: the source that the server sees and answers to",
         [](request &r, word_t word) { r.forwarding.return_address = take_address(word); }},
        {"--router-address", "ADDRESS", "NAT: next hop towards the server",
         [](request &r, word_t word) { r.forwarding.router_address = take_address(word); }},
    };
    options.insert(options.end(), nat.begin(), nat.end());
    options.insert(options.end(), tunnel_options().begin(), tunnel_options().end());
    options.push_back({"--collocated", nullptr, "it runs on this machine: use the tunnel device",
                       [](request &r, word_t) { r.forwarding.collocated = true; }});
    return options;
}

std::vector<option> server_set_options()
{
    std::vector<option> options = server_options();
    options.insert(options.end(), tunnel_options().begin(), tunnel_options().end());
    options.push_back(
        {"--collocated", "on|off", "it runs on this machine: use the tunnel device",
         [](request &r, word_t word) { r.forwarding.collocated = take_switch(word); }});
    return options;
}

std::vector<option> rule_options(bool adds)
{
    return {
        {"--type", "TYPE", "when it fires: true, port-active or rule-active",
         [](request &r, word_t word) {
             const auto type = static_cast<lb_u8_t>(take_name(word, vellb::rule_types()));
             r.rule_edits.add([type](lbrul_setable_t &b) { b.type = type; });
         },
         adds},
        {"--range", "FROM-TO", "the open connections, both included, at which it fires",
         [](request &r, word_t word) {
             lb_u32_t first = 0;
             lb_u32_t last = 0;
             take_range(word, first, last);
             r.ranged = true;
             r.rule_edits.add([first, last](lbrul_setable_t &b) {
                 b.beginrange = first;
                 b.endrange = last;
             });
         }},
        {"--name", "TEXT", "a name for people",
         [](request &r, word_t word) {
             const std::string name = take_text(word, sizeof(lbrul_setable_t::name) - 1);
             r.rule_edits.add([name](lbrul_setable_t &b) {
                 memset(b.name, 0, sizeof(b.name));
                 memcpy(b.name, name.data(), name.size());
             });
         }},
    };
}

std::vector<option> interface_options(bool adds)
{
    return {
        {"--mtu", "N", "the host's MTU; the forwarder's too",
         [](request &r, word_t word) {
             const lb_u32_t mtu = take_number(word, 68, 65535);
             r.interface_edits.add([mtu](lbifin_setable_t &b) { b.mtu_sys = b.mtu_lb = mtu; });
         },
         adds},
        {"--mac", "ADDRESS", "its hardware address, as in 02:00:00:00:00:01",
         [](request &r, word_t word) {
             const lbeth_addr_align_t mac = take_mac(word);
             r.interface_edits.add([mac](lbifin_setable_t &b) { b.ethaddr = mac; });
         },
         adds},
        {"--up", "yes|no", "is it up? default yes",
         [](request &r, word_t word) {
             const lb_u8_t up = yes_no(take_switch(word));
             r.interface_edits.add([up](lbifin_setable_t &b) { b.isup_sys = b.isup_lb = up; });
         }},
        {"--arp", "yes|no", "does it do ARP? default yes",
         [](request &r, word_t word) {
             const lb_u8_t arp = yes_no(take_switch(word));
             r.interface_edits.add([arp](lbifin_setable_t &b) { b.arp = arp; });
         }},
        {"--loopback", "yes|no", "is it a loopback? default no",
         [](request &r, word_t word) {
             const lb_u8_t loopback = yes_no(take_switch(word));
             r.interface_edits.add([loopback](lbifin_setable_t &b) { b.loopback = loopback; });
         }},
        {"--point-to-point", "yes|no", "is it point-to-point? default no",
         [](request &r, word_t word) {
             const lb_u8_t ptp = yes_no(take_switch(word));
             r.interface_edits.add([ptp](lbifin_setable_t &b) { b.isPTP = ptp; });
         }},
    };
}

constexpr option PEER{"--peer", "ADDRESS|none", "the far end of a point-to-point link",
                      [](request &r, word_t word) {
                          const lbip_addr_t peer = take_address_or_none(word);
                          r.address_edits.add([peer](lbifaddr_setable_t &b) { b.peer = peer; });
                      }};

// --- Commands ------------------------------------------------------------------------------------

void add_config_commands(std::vector<command> &table)
{
    table.insert(
        table.end(),
        {
            {"show",
             "",
             "everything: executor, clusters, ports, servers, interfaces",
             {},
             {},
             show_all},
            {"executor",
             "show",
             "the forwarder's own settings and counters",
             {},
             {},
             show_executor},
            {"executor",
             "set",
             "change some of its settings",
             {},
             executor_options(),
             executor_set,
             true},
            {"executor",
             "stop",
             "stop the daemon",
             {},
             {{"--yes", nullptr, "really", [](request &r, word_t) { r.confirmed = true; }}},
             executor_stop},
            {"cluster", "add", "own a cluster address", {CLUSTER}, {CLUSTER_ID}, cluster_add},
            {"cluster", "set", "change a cluster", {CLUSTER}, {CLUSTER_ID}, cluster_set, true},
            {"cluster", "rm", "give a cluster address up", {CLUSTER}, {RECURSIVE}, cluster_rm},
            {"cluster", "show", "clusters and their counters", {SOME_CLUSTER}, {}, show_clusters},
            {"port", "add", "serve a port of a cluster", {PORT}, port_add_options(), port_add},
            {"port", "set", "change a port", {PORT}, port_set_options(), port_set, true},
            {"port", "rm", "stop serving a port", {PORT}, {RECURSIVE}, port_rm},
            {"port", "show", "ports and their counters", {SOME_PORT}, {}, show_ports},
            {"server",
             "add",
             "add a server to a port",
             {PORT, SERVER},
             server_add_options(),
             server_add},
            {"server",
             "set",
             "change a server",
             {PORT, SERVER},
             server_set_options(),
             server_set,
             true},
            {"server", "rm", "take a server from a port", {PORT, SERVER}, {RECURSIVE}, server_rm},
            {"server",
             "show",
             "servers, their state and counters",
             {SOME_PORT, SOME_SERVER},
             {},
             show_servers},
        });
}

void add_ha_commands(std::vector<command> &table)
{
    table.insert(
        table.end(),
        {
            {"ha", "show", "this node's role and state, and its partners", {}, {}, show_ha},
            {"ha", "set", "make it one of a pair, or alone", {}, ha_options(), ha_set, true},
            {"ha", "takeover", "take the cluster addresses over now", {}, {}, ha_takeover},
            {"heartbeat",
             "add",
             "tell a partner twice a second that this node lives",
             {LOCAL, PARTNER},
             {},
             heartbeat_add},
            {"heartbeat", "rm", "tell it no more", {LOCAL, PARTNER}, {}, heartbeat_rm},
            {"heartbeat", "show", "partners and how they are reached", {}, {}, show_heartbeats},
        });
}

void add_rule_commands(std::vector<command> &table)
{
    table.insert(
        table.end(),
        {
            {"rule",
             "add",
             "send packets to some of the port's servers when it fires",
             {PORT, RULE},
             rule_options(true),
             rule_add},
            {"rule", "set", "change a rule", {PORT, RULE}, rule_options(false), rule_set, true},
            {"rule", "rm", "remove a rule", {PORT, RULE}, {RECURSIVE}, rule_rm},
            {"rule",
             "show",
             "rules, their servers and how often they fired",
             {SOME_PORT, SOME_RULE},
             {},
             show_rules},
            {"use-server",
             "add",
             "let a rule use a server of its port",
             {PORT, RULE, SERVER},
             {},
             useserver_add},
            {"use-server",
             "rm",
             "take a server from a rule",
             {PORT, RULE, SERVER},
             {},
             useserver_rm},
            {"use-server",
             "show",
             "the servers that rules use",
             {SOME_PORT, SOME_RULE},
             {},
             show_useservers},
        });
}

void add_interface_commands(std::vector<command> &table)
{
    const std::vector<option> sync_options{
        {"--dry-run", nullptr, "only say what would be done",
         [](request &r, word_t) { r.dry_run = true; }},
        {"--only", "NAME", "leave all other interfaces alone; may be repeated",
         [](request &r, word_t word) { r.only.push_back(take_interface(word)); }, false, true},
    };
    table.insert(
        table.end(),
        {
            {"interface",
             "sync",
             "write the host's interfaces and addresses (no loopback, no temporary IPv6)",
             {},
             sync_options,
             interface_sync},
            {"interface",
             "add",
             "add an interface by hand",
             {INTERFACE},
             interface_options(true),
             interface_add},
            {"interface",
             "set",
             "change an interface",
             {INTERFACE},
             interface_options(false),
             interface_set,
             true},
            {"interface", "rm", "remove an interface", {INTERFACE}, {RECURSIVE}, interface_rm},
            {"interface",
             "show",
             "interfaces and their addresses",
             {SOME_INTERFACE},
             {},
             show_interfaces},
            {"address",
             "add",
             "add an address of an interface",
             {INTERFACE, OWN_PREFIX},
             {PEER},
             address_add},
            {"address",
             "set",
             "change the peer of an address",
             {INTERFACE, OWN_ADDRESS},
             {PEER},
             address_set,
             true},
            {"address",
             "rm",
             "remove an address of an interface",
             {INTERFACE, OWN_ADDRESS},
             {},
             address_rm},
            {"address",
             "show",
             "addresses of the interfaces",
             {SOME_INTERFACE},
             {},
             show_addresses},
            {"log-mask",
             "decode",
             "say what a log mask means",
             {{"LIST", "a number, as in 0x40200, or names",
               [](request &r, word_t word) { r.mask = take_mask(word, 0); }}},
             {},
             logmask_decode},
            {"log-mask", "names", "the names of the log mask's bits", {}, {}, logmask_names},
        });
}

void add_file_commands(std::vector<command> &table)
{
    const option file{"-f,--file", "FILE",
                      "the configuration file; conf.d/*.yaml beside it is read too",
                      [](request &r, word_t word) { r.file = word; }, true};
    const option dry_run{"--dry-run", nullptr, "only say what would be done: the same as diff",
                         [](request &r, word_t) { r.dry_run = true; }};
    table.insert(table.end(),
                 {
                     {"check",
                      "",
                      "read a configuration file and say what is wrong with it; asks no daemon",
                      {},
                      {file},
                      file_check},
                     {"diff",
                      "",
                      "the commands that would make the daemon what a file says",
                      {},
                      {file},
                      file_diff},
                     {"apply", "", "carry these commands out", {}, {file, dry_run}, file_apply},
                     {"export",
                      "",
                      "the daemon's configuration as the file that makes it",
                      {},
                      {},
                      file_export},
                 });
}

} // namespace

std::span<const option> global_options()
{
    static constexpr option OPTIONS[] = {
        {"--socket", "PATH", "the daemon's command socket (default /vellb2)",
         [](request &r, word_t word) { r.socket = take_socket(word); }},
        {"--json", nullptr, "print one JSON document; errors and warnings as well",
         [](request &r, word_t) { r.json = true; }},
        {"-w,--watch", "[SECONDS]", "with show: again and again, with rates",
         [](request &r, word_t word) { r.watch_s = take_interval(word); }},
        {"--count", "N", "with --watch: stop after N pictures",
         [](request &r, word_t word) { r.count = take_number(word, 1, 1000000); }},
    };
    return OPTIONS;
}

std::span<const command> commands()
{
    static const std::vector<command> table = [] {
        std::vector<command> rows;
        add_config_commands(rows);
        add_rule_commands(rows);
        add_interface_commands(rows);
        add_ha_commands(rows);
        add_file_commands(rows);
        return rows;
    }();
    return table;
}

} // namespace vellbctl
