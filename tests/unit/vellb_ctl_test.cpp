// vellbctl's words, its changes and refusals, what it warns of, and its pictures of the daemon.
#include <regex>

#include "prot/neighstate.h"
#include "vellbctl_fixture.h"

namespace
{

using vellbctl_words = vellbctl_test;

// --- Words ---------------------------------------------------------------------------------------

TEST_F(vellbctl_words, wrong_ones_are_named)
{
    const std::string server = "server add 10.0.0.1:80 10.0.0.2 ";
    const std::string gre = server + "--encap gre ";
    expect_refused_words({
        {"", "no command given"},
        {"clutser add 10.0.0.1", "unknown command 'clutser' (did you mean 'cluster'?)"},
        {"cluster remove 10.0.0.1", "unknown command 'remove' after 'cluster'"},
        {"cluster add", "usage: vellbctl cluster add ADDRESS [--id TEXT]\n"},
        {"cluster add 10.0.0.1 10.0.0.2", "unexpected word '10.0.0.2'"},
        {"cluster add 10.0.0.1/24", "'10.0.0.1/24' carries a prefix length"},
        {"cluster add 0.0.0.0", "'0.0.0.0' is the unspecified address"},
        {"cluster set 10.0.0.1", "nothing to set"},
        {"cluster show --id x", "--id goes only after a command that takes it, like 'cluster add'"},
        {"port add 2001:db8::1:80", "does not look like"},
        {"port add 10.0.0.1:0", "port '0', which is not a number from 1 to 65535"},
        {"port add 10.0.0.1:80 --algorithm hsah", "'hsah' is not one of hash, connection"},
        {"port add 10.0.0.1:80 --stale-timeout 71582789m", "is not a time"},
        {server + "--wieght 3", "(did you mean '--weight'?)"},
        {server + "--weight", "--weight needs a value"},
        {server + "--weight 65536", "'65536' is not a number from 0 to"},
        {server + "--weight 1 --weight 2", "--weight needs a value, and only one"},
        {server + "--sticky maybe", "'maybe' is neither on nor off"},
        {gre + "--encap-mtu 0", "'0' would let nothing through that must not be fragmented"},
        {gre + "--encap-mtu 91", "'91' is less than 92"},
        {"executor set --client-gateway 2001:db8::1", "--client-gateway-ipv6"},
        {"executor set --client-gateway-ipv6 10.0.0.1", "is an IPv4 address"},
        {"executor set --log-mask failures,forwardd", "'forwardd' is neither a log bit's name"},
        {"executor stop", "confirm with --yes"},
        {"ha set --timeout 31", "'31' is not from 1s to 30s"},
        {"ha set --role undefined", "'undefined' is not one of solo, primary, backup"},
        {"ha set --replication both", "port set ADDRESS:PORT --replication both"},
        {"heartbeat add 10.9.0.1 2001:db8::2", "addresses are of one version"},
        {"heartbeat add 10.9.0.1 10.9.0.1", "stands for both ends"},
        {"interface add eth0 --mtu 1500 --mac 02:00:00:00:00", "is not a hardware address"},
        {"interface rm abcdefghijklmnopqrstuvwxyz0123456", "is not an interface name of 1 to 31"},
        {"address add eth0 10.0.0.1", "lacks its prefix length, as in 10.0.0.1/24"},
        {"cluster add 10.0.0.1 --json=yes", "--json takes no value"},
        {"cluster add 10.0.0.1 --watch", "--watch goes with show only"},
        {"show --count 3", "--count requires --watch"},
        {"show --watch=soon", "'soon' is not a number of seconds"},
        {"--sokcet /x show", "--sokcet is unknown here (did you mean '--socket'?)"},
        {"rule add 10.0.0.100:80 0 --type true", "RULE: '0' is not a number from 1 to 65535"},
        {"rule add 10.0.0.100:80 5 --type port-active", "--range is missing"},
        {"rule add 10.0.0.1:80 5 --type true --range 1-2", "--range goes with --type port-active"},
        {"rule add 10.0.0.1:80 5 --type port-active --range 20-10", "ends before it begins"},
        {"rule add 10.0.0.1:80 5 --type port-active --range 1-4294967296", "is not a range"},
    });
    EXPECT_TRUE(daemon.changes.empty());
}

TEST_F(vellbctl_words, help_and_completion)
{
    for (const char *line : {"--help", "help", "cluster --help", "-h", "--version", "help cluster",
                             "server add 10.0.0.1:80 -h"}) {
        const result_t got = run(line);
        EXPECT_EQ(got.status, 0) << line << ": " << got.err;
        EXPECT_FALSE(got.out.empty()) << line;
        EXPECT_TRUE(got.err.empty()) << line << ": " << got.err;
    }
    EXPECT_EQ(run("--complete").out.substr(0, 14), "show\nexecutor\n");
    EXPECT_EQ(run("--complete cluster").out.substr(0, 16), "add\nset\nrm\nshow\n");
    EXPECT_NE(run("--complete server add 10.0.0.1:80").out.find("--weight\n"), std::string::npos);
}

// --- Changes and refusals ------------------------------------------------------------------------

TEST_F(vellbctl_test, objects_come_and_go_and_refusals_say_what_to_do)
{
    talk(R"(
$ executor set --client-gateway 10.0.0.254 --client-gateway-ipv6 2001:db8::fe
changed the executor
$ interface add show --mac 02:00:00:00:00:01 --mtu 1500
added interface show
$ address add show 10.0.0.1/24
added address 10.0.0.1 of interface show
$ address set show 10.0.0.1/24 --peer 10.0.0.9
changed address 10.0.0.1 of interface show
$ address add show 2001:db8::2/64
added address 2001:db8::2 of interface show
$ address add eth9 10.0.0.1/24
refused: PARENTDNE (5): interface eth9 does not exist; add it first: vellbctl interface add eth9
[1]
$ interface set show --up no
changed interface show
$ cluster add 10.0.0.100 --id www
added cluster 10.0.0.100
$ cluster set --id= 10.0.0.100
changed cluster 10.0.0.100
$ cluster add 10.0.0.100
refused: ALREADYEXISTS (4): cluster 10.0.0.100 exists already; change it: vellbctl cluster set
    10.0.0.100 ..., or remove it first: vellbctl cluster rm 10.0.0.100
[1]
$ cluster show 10.0.0.9
refused: OBJNOTFOUND (6): cluster 10.0.0.9 does not exist; see what there is: vellbctl cluster show
[1]
$ port add 10.0.0.100:80 --algorithm hash --stale-timeout 30m
added port 10.0.0.100:80
$ server add 10.0.0.100:80 10.0.0.11 --weight 3
added server 10.0.0.11 of port 10.0.0.100:80
$ server show 10.0.0.100:80 10.0.0.12
refused: OBJNOTFOUND (6): server 10.0.0.12 of port 10.0.0.100:80 does not exist; see what there is:
    vellbctl server show
[1]
$ cluster rm 10.0.0.100
refused: HASCHILD (7): cluster 10.0.0.100 still has objects below it; remove those first, or all at
    once: vellbctl cluster rm 10.0.0.100 --recursive
[1]
$ cluster add 2001:DB8:0::1
added cluster 2001:db8::1
$ port add [2001:db8::1]:80
added port [2001:db8::1]:80
$ server add [2001:db8::1]:80 2001:db8::0:11
added server 2001:db8::11 of port [2001:db8::1]:80
$ port rm [2001:db8::1]:80 --recursive
removed, with 1 below it, port [2001:db8::1]:80
$ cluster rm [2001:db8::1]
removed cluster 2001:db8::1
$ interface rm show --recursive
removed interface show
$ ha takeover
not done: this node has no partner: its role is solo; give it one: vellbctl ha set --role
    primary|backup --port PORT, and: vellbctl heartbeat add LOCAL PARTNER
[1]
$ heartbeat add 10.9.0.1 10.9.0.2
added heartbeat 10.9.0.1 to 10.9.0.2
warning: no heartbeats are sent while this node's role is solo: vellbctl ha set --role
    primary|backup --port PORT
$ heartbeat add 10.9.0.1 10.9.0.2
refused: ALREADYEXISTS (4): heartbeat 10.9.0.1 to 10.9.0.2 exists already; remove it first:
    vellbctl heartbeat rm 10.9.0.1 10.9.0.2
[1]
$ heartbeat rm 10.9.0.1 10.9.0.2
removed heartbeat 10.9.0.1 to 10.9.0.2
$ cluster rm 10.0.0.100 --recursive
removed, with 2 below it, cluster 10.0.0.100
$ executor stop --yes
stopped the executor
)");
    EXPECT_EQ(daemon.changes.back(), "RM the executor");
}

TEST_F(vellbctl_test, set_changes_only_what_is_named)
{
    // Every byte of the block has a value of its own.
    vellb::bytes_t block(sizeof(lbexe_setable_t));
    for (size_t i = 0; i < block.size(); i++) {
        block[i] = static_cast<lb_u8_t>(i * 7 + 1);
    }
    auto expected = block;
    daemon.refuse = [](const lbcmd_bufhdr_t &hdr) -> unsigned {
        return hdr.action == LBCMD_ACTION_SET ? LBCMD_RC_FAILURE : 0; // to the stack, that is
    };
    daemon.lie = [&](lbcmd_buf_t &b) {
        if (b.hdr.key.cfg.cluster.version == 0 && b.hdr.action == LBCMD_ACTION_GET) {
            std::copy(block.begin(), block.end(), b._x + b.hdr.addsize);
        } else if (b.hdr.action == LBCMD_ACTION_SET) {
            block.assign(b._x, b._x + b.hdr.setsize);
            b.hdr.answer_rc = LBCMD_RC_SUCCESS;
        }
    };
    must({"executor set --log-mask failures,forwarded",
          "executor set --log-mask +arp,-failures --client-gateway 10.0.0.1"});
    const lb_u64_t mask = 0x10000001;
    const lbip_addr_t gateway = stack::ip("10.0.0.1");
    memcpy(expected.data(), &mask, sizeof(mask));
    memcpy(expected.data() + offsetof(lbexe_setable_t, clientgateway), &gateway, sizeof(gateway));
    EXPECT_EQ(block, expected);
    daemon.lie = {};
    daemon.refuse = {};
    must({"cluster add 10.0.0.100 --id a-long-name", "cluster set 10.0.0.100 --id www"});
    const auto id = get_cluster("10.0.0.100").setable;
    EXPECT_EQ(std::string(id.clusterid, sizeof(id.clusterid)),
              std::string("www") + std::string(sizeof(id.clusterid) - 3, '\0'))
        << "a shorter text leaves nothing of the longer";
}

TEST_F(vellbctl_test, recursive_removal_goes_bottom_up)
{
    must({"cluster add 10.0.0.100", "port add 10.0.0.100:80", "port add 10.0.0.100:81",
          "server add 10.0.0.100:80 10.0.0.11", "rule add 10.0.0.100:80 5 --type true",
          "use-server add 10.0.0.100:80 5 10.0.0.11"});
    daemon.changes.clear();
    must({"cluster rm 10.0.0.100 --recursive"});
    const std::vector<std::string> expected{
        "RM use-server 10.0.0.11 of rule 5 of port 10.0.0.100:80",
        "RM server 10.0.0.11 of port 10.0.0.100:80",
        "RM rule 5 of port 10.0.0.100:80",
        "RM port 10.0.0.100:80",
        "RM port 10.0.0.100:81",
        "RM cluster 10.0.0.100"};
    EXPECT_EQ(daemon.changes, expected);
}

TEST_F(vellbctl_test, a_failure_is_explained_as_far_as_it_can_be)
{
    daemon.refuse = [](const lbcmd_bufhdr_t &hdr) -> unsigned {
        return hdr.action == LBCMD_ACTION_ADD ? LBCMD_RC_FAILURE : 0;
    };
    talk(R"(
$ cluster add 2001:db8::1
refused: FAILURE (10): the daemon could not add cluster 2001:db8::1; the daemon's log says why
    (failures are logged unless its log mask hides them)
[1]
)");
    EXPECT_NE(run("port add 10.0.0.100:80 --crossport 443").err.find("which algorithm hash does "),
              std::string::npos);
    daemon.refuse = {};
    must({"cluster add 10.0.0.100", "port add 10.0.0.100:80",
          "rule add 10.0.0.100:80 5 --type true"});
    EXPECT_EQ(json("use-server add 10.0.0.100:80 5 10.0.0.14").at("error"),
              nlohmann::json::parse(R"({
        "code": 3, "name": "NOPARENT",
        "message": "server 10.0.0.14 of port 10.0.0.100:80 does not exist",
        "hint": "add it first: vellbctl server add 10.0.0.100:80 10.0.0.14"})"));
    EXPECT_EQ(json("clutser").at("error").at("word"), "clutser");
}

TEST_F(vellbctl_test, no_answer_is_status_3)
{
    daemon.lie = [](lbcmd_buf_t &b) { b.hdr.setsize = 65535; };
    EXPECT_EQ(run("show").status, 3);
    EXPECT_NE(run("show").err.find("no usable answer: "), std::string::npos);
    daemon.manners = fake_daemon::manners_e::HANGS_UP_HALFWAY;
    EXPECT_EQ(json("show").at("error").at("name"), "CLOSEDEARLY");
    daemon.stop();
    const result_t gone = run("show --json");
    EXPECT_EQ(gone.status, 3);
    EXPECT_EQ(nlohmann::json::parse(gone.out).at("error").at("name"), "UNREACHABLE");
}

// --- Forwarding ----------------------------------------------------------------------------------

TEST_F(vellbctl_test, a_server_is_reached_as_the_words_say)
{
    const struct {
        const char *words, *text, *name;
    } rows[] = {
        {"add 10.0.0.100:80 10.0.0.11 --nat --return-address 10.0.0.50 --router-address 10.0.0.1",
         "nat via 10.0.0.1 as 10.0.0.50", "nat"},
        {"add 10.0.0.100:80 10.0.0.12 --encap ipip", "ipip mtu 1500", "ipip"},
        {"add 10.0.0.100:80 10.0.0.13 --encap gre --encap-source 10.0.0.2", "gre mtu 1500", "gre"},
        {"set 10.0.0.100:80 10.0.0.13 --encap-mtu 92", "gre mtu 92", "gre"},
        {"set 10.0.0.100:80 10.0.0.13 --encap none", "direct", "direct"},
        {"add 10.0.0.100:80 10.0.0.14 --collocated", "collocated", "collocated"},
        {"set 10.0.0.100:80 10.0.0.14 --collocated off", "direct", "direct"},
    };
    must({"cluster add 10.0.0.100", "port add 10.0.0.100:80 --algorithm connection"});
    for (const auto &[words, text, name] : rows) {
        must({std::string("server ") + words});
        const std::string show = "server show" + std::string(words).substr(3, 24);
        EXPECT_EQ(json(show).at("servers").at(0).at("forwarding"), name) << words;
        EXPECT_NE(run(show).out.find(text), std::string::npos) << words;
    }
}

TEST_F(vellbctl_test, forwarding_that_makes_no_sense_is_refused_with_a_reason)
{
    const std::string nat = "--nat --return-address 10.0.0.50 --router-address 10.0.0.1";
    const std::string add = "server add 10.0.0.100:80 10.0.0.13 ";
    const std::string set = "server set 10.0.0.100:80 10.0.0.1";
    const std::string from = add + "--nat --router-address 10.0.0.1 --return-address ";
    must({"cluster add 10.0.0.100", "port add 10.0.0.100:80 --algorithm connection",
          "server add 10.0.0.100:80 10.0.0.11 " + nat,
          "server add 10.0.0.100:80 10.0.0.12 --encap gre"});
    expect_refused_words({
        {add + "--nat --router-address 10.0.0.1", "--nat needs --return-address"},
        {add + "--return-address 10.0.0.50", "--return-address goes with --nat"},
        {from + "2001:db8::1", "2001:db8::1 is an IPv6 address, the server's is IPv4"},
        {from + "10.0.0.100", "the cluster's"},
        {from + "10.0.0.13", "the server's own"},
        {from + "10.0.0.1", "the router's own"},
        {add + "--encap ipip " + nat, "--encap does not go with a NAT server"},
        {add + "--collocated --encap gre", "--collocated does not go with --encap"},
        {add + "--encap-source 10.0.0.2", "--encap-source goes with --encap"},
        {add + "--encap gre --encap-source 2001:db8::1", "2001:db8::1 is an IPv6"},
        {set + "1 --encap gre", "--encap does not go with a NAT server"},
        {set + "1 --encap-mtu 1400", "--encap-mtu goes with --encap"},
        {set + "1 --collocated on", "--collocated does not go with a NAT server"},
        {set + "2 --collocated on", "--collocated does not go with --encap"},
    });
    must({set + "1 --weight 3"}); // its addresses stand in no one's way
}

// --- Surprises: those that the golden files of configurations do not tell ------------------------

TEST_F(vellbctl_test, weights_that_linux_clients_defeat_are_told)
{
    const struct {
        int first, second;
        const char *warning; // "": none
    } rows[] = {
        {3, 1, "10.0.0.12 gets none of their connections"},
        {3, 3, "10.0.0.11 gets 2 of 3 instead of 3 of 6, 10.0.0.12 gets 1 of 3"},
        {0, 0, "take turns and still get traffic"},
        {1, 2, ""},
        {10, 10, ""},
        {2, 0, ""},
    };
    const std::string server = " 10.0.0.100:80 10.0.0.";
    must({"cluster add 10.0.0.100", "port add 10.0.0.100:80"});
    for (const auto &row : rows) {
        must({fmt::format("server add{}11 --weight {}", server, row.first)});
        expect_warnings(
            {{fmt::format("server add{}12 --weight {}", server, row.second), row.warning}});
        must({"server rm" + server + "11", "server rm" + server + "12"});
    }
}

TEST_F(vellbctl_test, what_is_out_of_reach_is_told)
{
    const std::string eth = " --mac 02:00:00:00:00:01 --mtu 1500";
    must({"interface add eth0" + eth, "interface add eth1" + eth, "address add eth0 10.0.0.1/24",
          "address add eth0 fe80::1/64", "address add eth1 fe80::1/64", "cluster add 10.0.0.100",
          "port add 10.0.0.100:80 --algorithm connection --reset on"});
    expect_warnings({
        {"executor set --client-gateway none", "warning: no client gateway is set"},
        {"executor set --client-gateway 10.0.0.254", ""},
        {"cluster add 2001:db8::100", "so neighbour solicitations for it are not"},
        {"port add [2001:db8::100]:80 --algorithm connection --reset on", "no IPv6 client gateway"},
        {"executor set --client-gateway-ipv6 fe80::2",
         "fe80::2 is link-local and may be behind any of eth0, eth1: the daemon takes eth0"},
        {"executor set --client-gateway-ipv6 2001:db8::1", ""},
        {"server add 10.0.0.100:80 2001:db8::12", ""}, // carried to its hardware address
        {"server add [2001:db8::100]:80 10.0.0.12 --encap gre", "gre tunnels carry IPv4 only"},
        {"show", "subnet of cluster 2001:db8::100"},
    });
    const std::string warning = json("cluster add 10.0.1.100").at("warnings").at(0);
    EXPECT_NE(warning.find("no interface carries the subnet"), std::string::npos);
}

TEST_F(vellbctl_test, rules_are_kept_and_those_that_surprise_are_told)
{
    must({"cluster add 10.0.0.100", "port add 10.0.0.100:80 --algorithm connection",
          "server add 10.0.0.100:80 10.0.0.11 --weight 3",
          "server add 10.0.0.100:80 10.0.0.12 --weight 0", "port add 10.0.0.100:81",
          "server add 10.0.0.100:81 10.0.0.11"});
    expect_warnings({
        {"rule add 10.0.0.100:80 5 --type port-active --range 10-20 --name night",
         "what it fires for is dropped"},
        {"use-server add 10.0.0.100:80 5 10.0.0.12", "rule 5 of port 10.0.0.100:80 never fires"},
        {"use-server add 10.0.0.100:80 5 10.0.0.11", ""},
        {"rule set 10.0.0.100:80 5 --range 7-", ""},
        {"rule add 10.0.0.100:81 1 --type rule-active --range 0-5", "it always fires"},
    });
    talk(R"(
$ rule show 10.0.0.100:80
PORT           RULE  TYPE         CONNECTIONS  USES                 FIRED  NAME
10.0.0.100:80     5  port-active           7-  10.0.0.12 10.0.0.11      0  night
$ rule add 10.0.0.100:82 5 --type true
refused: PARENTDNE (5): port 10.0.0.100:82 does not exist; add it first: vellbctl port add
    10.0.0.100:82
[1]
$ rule show 10.0.0.100:80 9
refused: OBJNOTFOUND (6): rule 9 of port 10.0.0.100:80 does not exist; see what there is: vellbctl
    rule show
[1]
$ server rm 10.0.0.100:80 10.0.0.11
refused: HASCHILD (7): server 10.0.0.11 of port 10.0.0.100:80 still has objects below it; remove
    those first, or all at once: vellbctl server rm 10.0.0.100:80 10.0.0.11 --recursive
[1]
$ use-server rm 10.0.0.100:80 5 10.0.0.11
removed use-server 10.0.0.11 of rule 5 of port 10.0.0.100:80
warning: rule 5 of port 10.0.0.100:80 never fires: all its servers have weight 0
$ rule rm 10.0.0.100:80 5 --recursive
removed, with 1 below it, rule 5 of port 10.0.0.100:80
$ rule rm 10.0.0.100:81 1
removed rule 1 of port 10.0.0.100:81
$ rule show
no rules
)");
}

// --- High availability ---------------------------------------------------------------------------

class vellbctl_ha : public vellbctl_test
{
  protected:
    // What the executor's readable block says from now on.
    void read_state(lb_u8_t state)
    {
        lbexe_getable_t readings{};
        readings.ha.state = state;
        daemon.readings = {{stack::cfgkey(), vellb::bytes_of(readings)}};
    }
    std::vector<nlohmann::json> documents(const std::string &line)
    {
        std::istringstream lines(run(line + " --json").out);
        std::vector<nlohmann::json> each;
        for (std::string text; std::getline(lines, text);) {
            each.push_back(nlohmann::json::parse(text));
        }
        return each;
    }
};

TEST_F(vellbctl_ha, settings_of_a_pair_need_a_role_and_a_takeover_is_done_when_active)
{
    std::string thirteen = "ha set --reach none";
    for (int i = 1; i <= 13; i++) {
        thirteen += fmt::format(" --reach 10.0.0.{}", i);
    }
    expect_refused_words({
        {"ha set", "nothing to set"},
        {"ha set --takeover automatic", "--takeover goes with a role in a pair"},
        {"ha set --role solo --replication connections", "--replication goes with a role"},
        {"ha set --role backup", "--port is missing"},
        {thirteen, "'10.0.0.13' is one too many"},
    });
    must({"ha set --role backup --port 4647 --reach 10.0.0.1 --reach 10.0.0.2 --reach-score 7",
          "ha set --takeover automatic --replication connections --timeout 30s",
          "ha set --reach 10.0.0.3", "heartbeat add 10.9.0.1 10.9.0.2"});
    read_state(LBHA_STATE_STANDBY);
    lb_u8_t neighbour[4] = {LBNEIGH_STATE_RXOK};
    daemon.readings.push_back(
        {stack::cfgkey("10.9.0.1", 0, "10.9.0.2"), vellb::bytes_of(neighbour)});
    talk(R"(
$ ha show
role             backup
state            standby
substate         undefined
last event       not recorded
takeover         automatic
replication      connections
timeout          30 s
heartbeat port   4647
reach score      7
reach addresses  10.0.0.3

HEARTBEAT FROM  TO PARTNER  NEIGHBOUR
10.9.0.1        10.9.0.2    reachable
)");
    const auto ha = json("ha show").at("high_availability");
    EXPECT_EQ(ha.at("state"), "standby");
    EXPECT_EQ(ha.at("reach_addresses"), nlohmann::json::array({"10.0.0.3"}));
    EXPECT_EQ(ha.at("heartbeats").at(0).at("neighbour"), "reachable");
    EXPECT_EQ(json("show").at("executor").at("high_availability"), ha);
    EXPECT_EQ(json("heartbeat show").at("heartbeats"), ha.at("heartbeats"));
    EXPECT_NE(run("show").out.find("10.9.0.2    reachable"), std::string::npos);

    EXPECT_NE(run("ha takeover").err.find("not done: this node took over and yielded again"),
              std::string::npos);
    EXPECT_EQ(get_executor().getable.ha.state, LBHA_STATE_ACTIVE) << "it was asked to";
    read_state(LBHA_STATE_ACTIVE);
    EXPECT_EQ(run("ha takeover").out, "took over: this node is active\n");
    EXPECT_EQ(json("ha takeover").at("state"), "active");
}

TEST_F(vellbctl_ha, what_a_pair_lacks_is_told)
{
    must({"interface add eth1 --mac 02:00:00:00:00:01 --mtu 1500", "address add eth1 10.9.0.1/24",
          "executor set --client-gateway 10.9.0.9"});
    expect_warnings({
        {"heartbeat add 2001:db8::1 2001:db8::2", "while this node's role is solo"},
        {"ha set --role primary --port 4647", "travel to IPv4 partners only"},
        {"heartbeat rm 2001:db8::1 2001:db8::2", "no heartbeat is configured"},
        {"heartbeat add 10.9.0.3 10.9.0.2", "no interface that the daemon knows has the address"},
        {"heartbeat rm 10.9.0.3 10.9.0.2", "no heartbeat is configured"},
        {"heartbeat add 10.9.0.1 10.9.0.2", ""},
    });
    must({"cluster add 10.9.0.100", "port add 10.9.0.100:80 --algorithm connection",
          "port add 10.9.0.100:81 --algorithm conn-affin --replication connections"});
    expect_warnings({
        {"show", "not replicated; vellbctl port set 10.9.0.100:80 --replication connections"},
        {"show", "not replicated; vellbctl port set 10.9.0.100:81 --replication both"},
        {"port set 10.9.0.100:80 --replication both --stale-timeout 641s", ""},
        {"port set 10.9.0.100:81 --replication both --stale-timeout 2h --sticky-time 640s", ""},
        {"show", "vellbctl port set 10.9.0.100:81 --sticky-time 700s or more"},
        {"port set 10.9.0.100:81 --sticky-time 641s", ""},
        {"show", ""},
        {"ha set --role backup", ""},
        {"ha set --role solo", "no heartbeats are sent"},
        {"ha set --role backup", "set the role before the clusters are added"},
        {"heartbeat add 10.9.0.1 10.9.0.100", "because it is a cluster's address"},
    });
}

TEST_F(vellbctl_ha, watching_tells_since_when_states_are_seen)
{
    must({"ha set --role primary --port 4647", "heartbeat add 10.9.0.1 10.9.0.2"});
    int looks = 0;
    daemon.lie = [&](lbcmd_buf_t &b) { // the second of three pictures shows an active node
        if (b.hdr.key.cfg.cluster.version == 0) {
            const lb_u8_t state = looks++ < 1 ? LBHA_STATE_STANDBY : LBHA_STATE_ACTIVE;
            b._x[b.hdr.addsize + b.hdr.setsize + offsetof(lbexe_getable_t, ha)] = state;
        }
    };
    std::vector<long> node;
    std::vector<long> partner;
    for (const auto &document : documents("ha show -w 1.1 --count 3")) {
        const auto &ha = document.at("high_availability");
        node.push_back(ha.at("state_seen_since"));
        partner.push_back(ha.at("heartbeats").at(0).at("neighbour_seen_since"));
    }
    ASSERT_EQ(node.size(), 3U);
    EXPECT_LT(node[0], node[1]);
    EXPECT_EQ(node[1], node[2]);
    EXPECT_EQ(partner, std::vector<long>(3, node[0]));
    EXPECT_NE(run("ha show -w 0.1 --count 1").out.find(", seen since 20"), std::string::npos);
}

// --- Pictures ------------------------------------------------------------------------------------

class vellbctl_show : public vellbctl_ha
{
  protected:
    // A port with two rules and two servers, one of which is dead.
    void SetUp() override
    {
        vellbctl_ha::SetUp();
        must({"interface add eth0 --mac 02:00:00:00:00:01 --mtu 1500",
              "address add eth0 10.0.0.1/24", "executor set --client-gateway 10.0.0.254",
              "cluster add 10.0.0.100 --id www",
              "port add 10.0.0.100:80 --algorithm connection --stale-timeout 6400",
              "server add 10.0.0.100:80 10.0.0.11 --weight 3 --id one",
              "server add 10.0.0.100:80 10.0.0.12 --weight 2 --quiesced on",
              "rule add 10.0.0.100:80 9 --type true --name rest",
              "rule add 10.0.0.100:80 5 --type rule-active --range 0-100",
              "use-server add 10.0.0.100:80 5 10.0.0.12",
              "use-server add 10.0.0.100:80 5 10.0.0.11"});
        lbsrv_getable_t reachable{};
        reachable.neighstate = LBNEIGH_STATE_RXOK;
        reachable.ipstats.fwd = 1000;
        reachable.selstats = {1, 20, 3, 400};
        lbsrv_getable_t dead = reachable;
        dead.neighstate = LBNEIGH_STATE_DEAD | LBNEIGH_STATEMOD_SERVERSDOWN;
        dead.ipstats.fwd = 500;
        daemon.readings = {
            {stack::cfgkey("10.0.0.100", 80, "10.0.0.11"), vellb::bytes_of(reachable)},
            {stack::cfgkey("10.0.0.100", 80, "10.0.0.12"), vellb::bytes_of(dead)},
            {stack::cfgkey("10.0.0.100", 80, "", 5), vellb::bytes_of(lbrul_getable_t{1234})}};
    }
};

TEST_F(vellbctl_show, tables)
{
    talk(R"(
$ interface show
INTERFACE  MAC                 MTU  UP   ARP  KIND       ADDRESSES
eth0       02:00:00:00:00:01  1500  yes  yes  broadcast  10.0.0.1/24
$ address show eth0
INTERFACE  ADDRESS      PEER
eth0       10.0.0.1/24  none
$ cluster show
CLUSTER     ID   PORTS  FORWARDED  DISCARDED  ERRORS
10.0.0.100  www      1          0          0       0
$ port show 10.0.0.100:80
PORT           TCP         UDP    SERVERS     STALE  STICKY  FORWARDED  DISCARDED  ERRORS
10.0.0.100:80  connection  udprr        2  1h46m40s       -          0          0       0

PORT           SERVER     WEIGHT  SHARE  NEIGHBOUR           FORWARDED  ERRORS  FORWARDING  NOTES
10.0.0.100:80  10.0.0.11       3    60%  reachable                1000       0  direct      one
10.0.0.100:80  10.0.0.12       2    40%  dead, servers down        500       0  direct      quiesced

PORT           SERVER     OPENING  ACTIVE  CLOSING  SO FAR
10.0.0.100:80  10.0.0.11        1      20        3     400
10.0.0.100:80  10.0.0.12        1      20        3     400

PORT           RULE  TYPE         CONNECTIONS  USES                 FIRED  NAME
10.0.0.100:80     5  rule-active        0-100  10.0.0.12 10.0.0.11   1234
10.0.0.100:80     9  true                   -  nothing: drops           0  rest
$ rule show 10.0.0.100:80 9
PORT           RULE  TYPE  CONNECTIONS  USES            FIRED  NAME
10.0.0.100:80     9  true            -  nothing: drops      0  rest
$ use-server show 10.0.0.100:80
PORT           RULE  SERVER
10.0.0.100:80     5  10.0.0.12
10.0.0.100:80     5  10.0.0.11
)");
    EXPECT_EQ(run("server show 10.0.0.100:80 10.0.0.12").out.find("10.0.0.11 "), std::string::npos);
    std::istringstream lines(run("show").out);
    const std::string whole = lines.str();
    for (const char *part :
         {"vellb2 ", "client gateway       10.0.0.254 (", "log mask             0x200 failures",
          "high availability    solo", "PROTOCOL  RECEIVED", "10.0.0.100  www      1",
          "10.0.0.100:80  connection", "dead, servers down", "eth0       02:00:00:00:00:01",
          "nothing: drops", "SO FAR"}) {
        EXPECT_NE(whole.find(part), std::string::npos) << part << " in\n" << whole;
    }
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 100U) << line;
        EXPECT_EQ(line.find('\033'), std::string::npos);
    }
}

TEST_F(vellbctl_show, documents)
{
    const auto whole = json("show");
    const auto &executor = whole.at("executor");
    const auto &port = whole.at("clusters").at(0).at("ports").at(0);
    EXPECT_EQ(executor.at("log_mask"), 0x200);
    EXPECT_EQ(executor.at("client_gateway").at("address"), "10.0.0.254");
    EXPECT_EQ(executor.at("client_gateway_ipv6"), nullptr);
    EXPECT_EQ(whole.at("interfaces").at(0).at("addresses").at(0).at("prefix"), 24);
    EXPECT_EQ(whole.at("clusters").at(0).at("id"), "www");
    EXPECT_EQ(port.at("connections").at("active"), 40);
    // Of a server and a rule, what must be in it.
    auto server = port.at("servers").at(1);
    server.merge_patch(nlohmann::json::parse(R"({"server": "10.0.0.12", "weight": 2,
        "neighbour": "dead, servers down", "counters": {"forwarded": 500},
        "connections": {"so_far": 400}})"));
    EXPECT_EQ(server, port.at("servers").at(1));
    auto rule = port.at("rules").at(0);
    rule.merge_patch(nlohmann::json::parse(R"({"type": "rule-active", "from": 0, "to": 100,
        "fired": 1234, "servers": ["10.0.0.12", "10.0.0.11"]})"));
    EXPECT_EQ(rule, port.at("rules").at(0));
    EXPECT_EQ(json("cluster show 10.0.0.100").at("clusters").at(0), whole.at("clusters").at(0));
    EXPECT_EQ(json("port show 10.0.0.100:80").at("ports").at(0), port);
    EXPECT_EQ(json("server show").at("servers"), port.at("servers"));
    EXPECT_EQ(json("rule show").at("rules"), port.at("rules"));
    EXPECT_EQ(json("address show").at("addresses").size(), 1U);
    EXPECT_EQ(json("use-server show").at("use_servers").at(0).at("server"), "10.0.0.12");
}

TEST_F(vellbctl_show, bytes_that_are_no_text_break_no_document)
{
    lbclu_setable_t garbage{};
    memset(garbage.clusterid, 0xFF, sizeof(garbage.clusterid));
    ASSERT_ADDED(set(LBCMD_KEYTYPE_CONFIG, stack::cfgkey("10.0.0.100"), garbage));
    EXPECT_EQ(run("show").status, 0);
    EXPECT_TRUE(nlohmann::json::accept(run("show --json").out));
}

TEST_F(vellbctl_show, watching_shows_rates_and_as_json_a_document_a_line)
{
    // The counter grows by 100 with every look at it.
    lb_u64_t count = 1000;
    daemon.lie = [&](lbcmd_buf_t &b) {
        if (b.hdr.key.cfg.rule == 0 && b.hdr.key.cfg.server.nboaddr.v4[3] == 11) {
            count += 100;
            memcpy(b._x + b.hdr.addsize + b.hdr.setsize + offsetof(lbsrv_getable_t, ipstats.fwd),
                   &count, sizeof(count));
        }
    };
    const std::regex row("10.0.0.11 +3 +60% +reachable +[0-9]+ +0( +[0-9]+)? +direct");
    const std::string out = run("server show -w 0.1 --count 3").out;
    std::vector<std::string> rates;
    for (auto at = std::sregex_iterator(out.begin(), out.end(), row); at != std::sregex_iterator();
         ++at) {
        rates.push_back((*at)[1]);
    }
    // The first picture has nothing to compare with, and so no such column.
    ASSERT_EQ(rates.size(), 3U) << out;
    EXPECT_EQ(rates[0], "");
    EXPECT_GT(std::stoi(rates[1]), 100);
    EXPECT_LE(std::stoi(rates[1]), 1100);
    const auto pictures = documents("show -w 0.1 --count 2");
    ASSERT_EQ(pictures.size(), 2U);
    const auto counters = [&](size_t i) { return pictures[i]["executor"]["counters"]["ipv4"]; };
    EXPECT_FALSE(counters(0).contains("received_per_s"));
    EXPECT_EQ(counters(1).at("received_per_s"), 0);
}

} // namespace
