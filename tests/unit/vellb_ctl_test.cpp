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
        {"frobnicate", "unknown command 'frobnicate'; there are: show, executor"},
        {"cluster remove 10.0.0.1", "unknown command 'remove' after 'cluster'"},
        {"cluster add", "usage: vellbctl cluster add ADDRESS [--id TEXT]\n"},
        {"cluster add", "ADDRESS is required"},
        {"cluster add 10.0.0.1 10.0.0.2", "unexpected word '10.0.0.2'"},
        {"cluster add 10.0.0.1/24", "'10.0.0.1/24' carries a prefix length"},
        {"cluster add 0.0.0.0", "'0.0.0.0' is the unspecified address"},
        {"cluster set 10.0.0.1", "nothing to set"},
        {"cluster show --id x", "--id goes only after a command that takes it, like 'cluster add'"},
        {"port add 10.0.0.1", "'10.0.0.1' does not look like 10.0.0.100:80"},
        {"port add 2001:db8::1:80", "does not look like"},
        {"port add 10.0.0.1:0", "port '0', which is not a number from 1 to 65535"},
        {"port add 10.0.0.1:80 --algorithm hsah", "'hsah' is not one of hash, connection"},
        {"port add 10.0.0.1:80 --stale-timeout 30x", "'30x' is not a time"},
        {"port add 10.0.0.1:80 --stale-timeout 71582789m", "is not a time"},
        {server + "--wieght 3", "(did you mean '--weight'?)"},
        {server + "--weight", "--weight needs a value"},
        {server + "--weight 65536", "'65536' is not a number from 0 to"},
        {server + "--weight -1", "'-1' is not a number"},
        {server + "--weight 1 --weight 2", "--weight needs a value, and only one"},
        {server + "--sticky maybe", "'maybe' is neither on nor off"},
        {gre + "--encap-mtu 0", "'0' would let nothing through that must not be fragmented"},
        {gre + "--encap-mtu 91", "'91' is less than 92"},
        {gre + "--encap-mtu 65536", "'65536' is more than 65535"},
        {"executor set --client-gateway 2001:db8::1", "--client-gateway-ipv6"},
        {"executor set --client-gateway-ipv6 10.0.0.1", "is an IPv4 address"},
        {"executor set --log-mask failures,forwardd", "'forwardd' is neither a log bit's name"},
        {"executor stop", "confirm with --yes"},
        {"ha set --timeout 31", "'31' is not from 1s to 30s"},
        {"ha set --role undefined", "'undefined' is not one of solo, primary, backup"},
        {"ha set --replication both", "port set ADDRESS:PORT --replication both"},
        {"heartbeat add 10.9.0.1 2001:db8::2", "addresses are of one version"},
        {"heartbeat add 10.9.0.1 10.9.0.1", "stands for both ends"},
        {"interface add eth0 --mtu 1500", "--mac is required"},
        {"interface add eth0 --mtu 1500 --mac 02:00:00:00:00", "is not a hardware address"},
        {"interface rm abcdefghijklmnopqrstuvwxyz0123456", "is not an interface name of 1 to 31"},
        {"address add eth0 10.0.0.1", "lacks its prefix length, as in 10.0.0.1/24"},
        {"cluster add 10.0.0.1 --json=yes", "--json takes no value"},
        {"cluster add 10.0.0.1 --watch", "--watch goes with show only"},
        {"show --count 3", "--count requires --watch"},
        {"show --watch=soon", "'soon' is not a number of seconds"},
        {"--sokcet /x show", "--sokcet is unknown here (did you mean '--socket'?)"},
        {"--weight 3 server add", "--weight goes only after a command that takes it"},
        {"rule add 10.0.0.100:80 5", "--type is required"},
        {"rule add 10.0.0.100:80 0 --type true", "RULE: '0' is not a number from 1 to 65535"},
        {"rule add 10.0.0.100:80 5 --type port-active", "--range is missing"},
        {"rule add 10.0.0.1:80 5 --type true --range 1-2", "--range goes with --type port-active"},
        {"rule add 10.0.0.1:80 5 --type port-active --range 20-10", "ends before it begins"},
        {"rule add 10.0.0.1:80 5 --type port-active --range 10", "'10' is not a range"},
        {"rule add 10.0.0.1:80 5 --type port-active --range 1-4294967296", "is not a range"},
    });
    EXPECT_TRUE(daemon.changes().empty());
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
    EXPECT_NE(run("interface sync --help").out.find("no temporary IPv6"), std::string::npos);
    const auto complete = [](const char *words) {
        return run_without_socket(std::string("--complete ") + words).out;
    };
    EXPECT_EQ(complete("").substr(0, 14), "show\nexecutor\n");
    EXPECT_EQ(complete("cluster").substr(0, 16), "add\nset\nrm\nshow\n");
    EXPECT_NE(complete("server add 10.0.0.1:80").find("--weight\n"), std::string::npos);
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
$ executor stop --yes
stopped the executor
)");
    EXPECT_EQ(daemon.changes().back(), "RM the executor");
}

TEST_F(vellbctl_test, new_objects_have_sound_defaults)
{
    must({"cluster add 10.0.0.100 --id www",
          "port add 10.0.0.100:80 --stale-timeout 30m --reset on --crossport 443",
          "server add 10.0.0.100:80 10.0.0.11"});
    const auto port_key = vellb::port_key(ip("10.0.0.100"), 80);
    const auto fixed = vellb::block_of<lbport_addable_t>(
        daemon.at(LBCMD_KEYTYPE_CONFIG, port_key).addable, "addable");
    EXPECT_EQ(fixed.selectalg, LBSEL_ALGORIGHM_HASH);
    EXPECT_EQ(fixed.udpselectalg, LBSEL_ALGORIGHM_UDPRR);
    EXPECT_EQ(fixed.crossport, 443);
    EXPECT_EQ(settings<lbport_setable_t>(port_key).staletimeout, 1800U);
    EXPECT_EQ(settings<lbport_setable_t>(port_key).reset, 1);
    const auto server =
        settings<lbsrv_setable_t>(vellb::server_key(ip("10.0.0.100"), 80, ip("10.0.0.11")));
    EXPECT_EQ(server.weight, 10);
    EXPECT_EQ(server.stickyflag, 1U);
    EXPECT_EQ(server.encapmtu, 1500);
    EXPECT_EQ(server.serverup, 1);
    EXPECT_STREQ(settings<lbclu_setable_t>(vellb::cluster_key(ip("10.0.0.100"))).clusterid, "www");
}

TEST_F(vellbctl_test, set_changes_only_what_is_named)
{
    // Every byte of the block has a value of its own.
    auto executor = daemon.at(LBCMD_KEYTYPE_CONFIG, {});
    for (size_t i = 0; i < executor.setable.size(); i++) {
        executor.setable[i] = static_cast<lb_u8_t>(i * 7 + 1);
    }
    daemon.put(executor);
    must({"executor set --log-mask failures,forwarded",
          "executor set --log-mask +arp,-failures --client-gateway 10.0.0.1"});
    auto expected = executor.setable;
    const lb_u64_t mask = 0x10000001;
    const lbip_addr_t gateway = ip("10.0.0.1");
    memcpy(expected.data(), &mask, sizeof(mask));
    memcpy(expected.data() + offsetof(lbexe_setable_t, clientgateway), &gateway, sizeof(gateway));
    EXPECT_EQ(daemon.at(LBCMD_KEYTYPE_CONFIG, {}).setable, expected);
    must({"executor set --client-gateway none", "cluster add 10.0.0.100 --id a-long-name",
          "cluster set 10.0.0.100 --id www"});
    EXPECT_EQ(settings<lbexe_setable_t>({}).clientgateway.version, 0);
    const auto block = settings<lbclu_setable_t>(vellb::cluster_key(ip("10.0.0.100")));
    EXPECT_EQ(std::string(block.clusterid, sizeof(block.clusterid)),
              std::string("www") + std::string(sizeof(block.clusterid) - 3, '\0'))
        << "a shorter text leaves nothing of the longer";
}

TEST_F(vellbctl_test, recursive_removal_goes_bottom_up)
{
    must({"cluster add 10.0.0.100", "port add 10.0.0.100:80", "port add 10.0.0.100:81",
          "server add 10.0.0.100:80 10.0.0.11", "rule add 10.0.0.100:80 5 --type true",
          "use-server add 10.0.0.100:80 5 10.0.0.11"});
    daemon.forget_changes();
    must({"cluster rm 10.0.0.100 --recursive"});
    const std::vector<std::string> expected{
        "RM use-server 10.0.0.11 of rule 5 of port 10.0.0.100:80",
        "RM server 10.0.0.11 of port 10.0.0.100:80",
        "RM rule 5 of port 10.0.0.100:80",
        "RM port 10.0.0.100:80",
        "RM port 10.0.0.100:81",
        "RM cluster 10.0.0.100"};
    EXPECT_EQ(daemon.changes(), expected);
}

TEST_F(vellbctl_test, a_failure_is_explained_as_far_as_it_can_be)
{
    unsigned code = LBCMD_RC_FAILURE;
    daemon.refuse = [&](const lbcmd_bufhdr_t &hdr) {
        return hdr.action == LBCMD_ACTION_ADD ? code : 0;
    };
    talk(R"(
$ cluster add 2001:db8::1
refused: FAILURE (10): the daemon could not add cluster 2001:db8::1; the daemon's log says why
    (failures are logged unless its log mask hides them)
[1]
)");
    EXPECT_NE(run("port add 10.0.0.100:80 --crossport 443").err.find("which algorithm hash does "),
              std::string::npos);
    code = LBCMD_RC_NOPARENT;
    EXPECT_NE(run("use-server add 10.0.0.100:80 5 10.0.0.14")
                  .err.find("add it first: vellbctl server add 10.0.0.100:80 10.0.0.14\n"),
              std::string::npos);
    const auto error = json("use-server add 10.0.0.100:80 5 10.0.0.14").at("error");
    EXPECT_EQ(error.at("code"), 3);
    EXPECT_EQ(error.at("name"), "NOPARENT");
    EXPECT_EQ(error.at("message"), "server 10.0.0.14 of port 10.0.0.100:80 does not exist");
    EXPECT_EQ(error.at("hint"), "add it first: vellbctl server add 10.0.0.100:80 10.0.0.14");
    EXPECT_EQ(json("clutser").at("error").at("name"), "USAGE");
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
    struct row_t {
        const char *words;
        const char *text;
        const char *name;
        int encapflags;
    };
    const row_t rows[] = {
        {"add --nat --return-address 10.0.0.50 --router-address 10.0.0.1",
         "nat via 10.0.0.1 as 10.0.0.50", "nat", 0},
        {"add --encap ipip", "ipip mtu 1500", "ipip", 0x09},
        {"add --encap gre --encap-source 10.0.0.2 --encap-mtu 1400", "gre mtu 1400", "gre", 0x0a},
        {"set --encap-mtu 92", "gre mtu 92", "gre", 0x0a},
        {"set --encap none", "direct", "direct", 0},
        {"add --collocated", "collocated", "collocated", 0},
        {"set --collocated off", "direct", "direct", 0},
    };
    must({"cluster add 10.0.0.100", "port add 10.0.0.100:80 --algorithm connection"});
    for (const row_t &row : rows) {
        const std::string words = row.words;
        if (words.starts_with("add")) {
            run("server rm 10.0.0.100:80 10.0.0.11");
        }
        must({"server " + words.substr(0, 3) + " 10.0.0.100:80 10.0.0.11" + words.substr(3)});
        EXPECT_EQ(json("server show").at("servers").at(0).at("forwarding"), row.name) << words;
        EXPECT_NE(run("server show").out.find(row.text), std::string::npos) << words;
        const auto key = vellb::server_key(ip("10.0.0.100"), 80, ip("10.0.0.11"));
        EXPECT_EQ(settings<lbsrv_setable_t>(key).encapflags, row.encapflags) << words;
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
        {add + "--nat --return-address 10.0.0.50", "--nat needs --router-address"},
        {add + "--return-address 10.0.0.50", "--return-address goes with --nat"},
        {from + "2001:db8::1", "2001:db8::1 is an IPv6 address, the server's is IPv4"},
        {from + "10.0.0.100", "the cluster's"},
        {from + "10.0.0.13", "the server's own"},
        {from + "10.0.0.1", "the router's own"},
        {add + "--encap ipip " + nat, "--encap does not go with a NAT server"},
        {add + "--collocated " + nat, "--collocated does not go with a NAT server"},
        {add + "--collocated --encap gre", "--collocated does not go with --encap"},
        {add + "--encap-mtu 1400", "--encap-mtu goes with --encap"},
        {add + "--encap-source 10.0.0.2", "--encap-source goes with --encap"},
        {add + "--encap gre --encap-source 2001:db8::1", "2001:db8::1 is an IPv6"},
        {set + "1 --encap gre", "--encap does not go with a NAT server"},
        {set + "1 --encap-mtu 1400", "--encap-mtu goes with --encap"},
        {set + "1 --collocated on", "--collocated does not go with a NAT server"},
        {set + "2 --collocated on", "--collocated does not go with --encap"},
    });
    must({set + "1 --weight 3"}); // its addresses stand in no one's way
}

// --- Surprises (their rules are told by the golden files of configurations, too) -----------------

TEST_F(vellbctl_test, weights_that_linux_clients_defeat_are_told)
{
    const struct {
        std::vector<int> weights;
        const char *warning; // "": none
    } rows[] = {
        {{3, 1}, "10.0.0.12 gets none of their connections"},
        {{3, 3}, "10.0.0.11 gets 2 of 3 instead of 3 of 6, 10.0.0.12 gets 1 of 3"},
        {{0, 0}, "take turns and still get traffic"},
        {{1, 2}, ""},
        {{10, 10}, ""},
        {{2, 0}, ""},
    };
    for (const auto &row : rows) {
        must({"cluster add 10.0.0.100", "port add 10.0.0.100:80"});
        result_t last;
        int number = 11;
        for (const int weight : row.weights) {
            last = run(
                fmt::format("server add 10.0.0.100:80 10.0.0.{} --weight {}", number++, weight));
        }
        EXPECT_EQ(last.status, 0) << last.err;
        EXPECT_EQ(last.err.empty(), *row.warning == '\0') << last.err;
        EXPECT_NE(last.err.find(row.warning), std::string::npos) << last.err;
        EXPECT_EQ(run("show").out.find("OPENING"), std::string::npos) << "hash keeps none";
        must({"cluster rm 10.0.0.100 --recursive"});
    }
}

TEST_F(vellbctl_test, what_is_out_of_reach_is_told)
{
    const std::string eth = " --mac 02:00:00:00:00:01 --mtu 1500";
    const std::string nat = "server add 10.0.0.100:80 10.0.0.11 --nat --return-address 10.0.0.50 "
                            "--router-address 10.0.0.1";
    must({"interface add eth0" + eth, "interface add eth1" + eth, "address add eth0 10.0.0.1/24",
          "address add eth0 fe80::1/64", "address add eth1 fe80::1/64"});
    expect_warnings({
        {"cluster add 10.0.0.100", ""},
        {"port add 10.0.0.100:80 --algorithm hash", ""},
        {nat, "keeps no connections"},
        {"server rm 10.0.0.100:80 10.0.0.11", ""},
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
    const auto warnings = json("cluster add 10.0.1.100").at("warnings");
    EXPECT_NE(warnings.at(0).get<std::string>().find("no interface carries the subnet"),
              std::string::npos);
}

// --- Rules ---------------------------------------------------------------------------------------

TEST_F(vellbctl_test, rules_are_kept_and_those_that_surprise_are_told)
{
    must({"cluster add 10.0.0.100", "port add 10.0.0.100:80 --algorithm connection",
          "server add 10.0.0.100:80 10.0.0.11 --weight 3",
          "server add 10.0.0.100:80 10.0.0.12 --weight 0", "port add 10.0.0.100:81",
          "server add 10.0.0.100:81 10.0.0.11"});
    const std::string add = "rule add 10.0.0.100:81 1 --type rule-active --range ";
    expect_warnings({
        {"rule add 10.0.0.100:80 5 --type port-active --range 10-20 --name night",
         "what it fires for is dropped"},
        {"use-server add 10.0.0.100:80 5 10.0.0.12", "rule 5 of port 10.0.0.100:80 never fires"},
        {"use-server add 10.0.0.100:80 5 10.0.0.11", ""},
        {"rule set 10.0.0.100:80 5 --range 7-", ""},
        {add + "1-", "with algorithm hash the port counts none: it never fires"},
        {"rule rm 10.0.0.100:81 1", ""},
        {add + "0-5", "it always fires"},
    });
    const auto rule = settings<lbrul_setable_t>(vellb::rule_key(ip("10.0.0.100"), 80, 5));
    EXPECT_EQ(rule.type, LBRUL_TYPE_PORTACTIVE);
    EXPECT_EQ(rule.beginrange, 7U);
    EXPECT_EQ(rule.endrange, 0xFFFFFFFF);
    EXPECT_STREQ(reinterpret_cast<const char *>(rule.name), "night");
    talk(R"(
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
)");
}

// --- High availability ---------------------------------------------------------------------------

class vellbctl_ha : public vellbctl_test
{
  protected:
    lbha_setables_t ha() { return settings<lbexe_setable_t>({}).ha; }
    void read_state(lb_u8_t state)
    {
        auto executor = daemon.at(LBCMD_KEYTYPE_CONFIG, {});
        executor.getable[offsetof(lbexe_getable_t, ha)] = state;
        daemon.put(executor);
    }
};

TEST_F(vellbctl_ha, settings_are_kept_and_those_of_a_pair_need_a_role)
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
    must({"ha set --role backup --port 4647 --reach 10.0.0.1 --reach 10.0.0.2 --reach-score 7"});
    EXPECT_EQ(ha().role, LBHA_ROLE_BACKUP);
    EXPECT_EQ(ha().tostrategy, LBHA_TAKEOVERSTRATEGY_MANUAL);
    EXPECT_EQ(ha().port, 4647);
    EXPECT_EQ(ha().reachscore, 7);
    EXPECT_TRUE(vellb::same_address(ha().reachaddr[1], ip("10.0.0.2")));
    must({"ha set --takeover automatic --replication connections --timeout 30s",
          "ha set --reach 10.0.0.3"});
    EXPECT_EQ(ha().tostrategy, LBHA_TAKEOVERSTRATEGY_AUTOMATIC);
    EXPECT_EQ(ha().repstrategy, LBHA_REPLICATIONSTRATEGY_CRREP);
    EXPECT_EQ(ha().timeout, 30);
    EXPECT_TRUE(vellb::same_address(ha().reachaddr[0], ip("10.0.0.3")));
    EXPECT_EQ(ha().reachaddr[1].version, 0);
    EXPECT_EQ(settings<lbexe_setable_t>({}).log_mask, 0x200U);
}

TEST_F(vellbctl_ha, a_takeover_is_done_when_the_node_is_active)
{
    must({"ha set --role primary --port 4647"});
    read_state(LBHA_STATE_STANDBY);
    EXPECT_NE(run("ha takeover").err.find("not done: this node took over and yielded again"),
              std::string::npos);
    EXPECT_EQ(ha().manualtakeover, 1);
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
        {"show", "port 10.9.0.100:80: at a takeover its connections end, because they are not "
                 "replicated; vellbctl port set 10.9.0.100:80 --replication connections"},
        {"show", "port 10.9.0.100:81: at a takeover its clients get new servers, because they are "
                 "not replicated; vellbctl port set 10.9.0.100:81 --replication both"},
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

TEST_F(vellbctl_ha, tables_and_documents)
{
    must({"ha set --role primary --port 4647 --replication connections --reach 10.0.0.1",
          "heartbeat add 10.9.0.1 10.9.0.2"});
    read_state(LBHA_STATE_STANDBY);
    const auto key = vellb::heartbeat_key(ip("10.9.0.1"), ip("10.9.0.2"));
    auto heartbeat = daemon.at(LBCMD_KEYTYPE_CONFIG, key);
    heartbeat.getable[0] = LBNEIGH_STATE_RXOK;
    daemon.put(heartbeat);
    talk(R"(
$ ha show
role             primary
state            standby
substate         undefined
last event       not recorded
takeover         manual
replication      connections
timeout          0 s
heartbeat port   4647
reach score      0
reach addresses  10.0.0.1

HEARTBEAT FROM  TO PARTNER  NEIGHBOUR
10.9.0.1        10.9.0.2    reachable
)");
    const auto ha = json("ha show").at("high_availability");
    EXPECT_EQ(ha.at("state"), "standby");
    EXPECT_EQ(ha.at("reach_addresses"), nlohmann::json::array({"10.0.0.1"}));
    EXPECT_EQ(ha.at("heartbeats").at(0).at("neighbour"), "reachable");
    EXPECT_EQ(json("show").at("executor").at("high_availability"), ha);
    EXPECT_EQ(json("heartbeat show").at("heartbeats"), ha.at("heartbeats"));
    EXPECT_NE(run("show").out.find("10.9.0.2    reachable"), std::string::npos);
}

TEST_F(vellbctl_ha, watching_tells_since_when_states_are_seen)
{
    must({"ha set --role primary --port 4647", "heartbeat add 10.9.0.1 10.9.0.2"});
    read_state(LBHA_STATE_STANDBY);
    int looks = 0;
    daemon.lie = [&](lbcmd_buf_t &b) { // the second of three pictures shows an active node
        if (b.hdr.key.cfg.cluster.version == 0) {
            const lb_u8_t state = looks++ < 1 ? LBHA_STATE_STANDBY : LBHA_STATE_ACTIVE;
            b._x[b.hdr.addsize + b.hdr.setsize + offsetof(lbexe_getable_t, ha)] = state;
        }
    };
    std::istringstream lines(run("ha show -w 1.1 --count 3 --json").out);
    std::vector<long> node;
    std::vector<long> partner;
    for (std::string line; std::getline(lines, line);) {
        const auto ha = nlohmann::json::parse(line).at("high_availability");
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

class vellbctl_show : public vellbctl_test
{
  protected:
    // A port with a rule and two servers, one of which is dead.
    void SetUp() override
    {
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
        lbsrv_getable_t readings{};
        readings.neighstate = LBNEIGH_STATE_RXOK;
        readings.ipstats.fwd = 1000;
        readings.selstats = {1, 20, 3, 400};
        read(vellb::server_key(ip("10.0.0.100"), 80, ip("10.0.0.11")), readings);
        readings.neighstate = LBNEIGH_STATE_DEAD | LBNEIGH_STATEMOD_SERVERSDOWN;
        readings.ipstats.fwd = 500;
        read(vellb::server_key(ip("10.0.0.100"), 80, ip("10.0.0.12")), readings);
        read(vellb::rule_key(ip("10.0.0.100"), 80, 5), lbrul_getable_t{1234});
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
$ rule rm 10.0.0.100:80 9
removed rule 9 of port 10.0.0.100:80
$ rule rm 10.0.0.100:80 5 --recursive
removed, with 2 below it, rule 5 of port 10.0.0.100:80
$ rule show
no rules
)");
    EXPECT_EQ(run("server show 10.0.0.100:80 10.0.0.12").out.find("10.0.0.11 "), std::string::npos);
}

TEST_F(vellbctl_show, the_whole_picture)
{
    const result_t got = run("show");
    for (const char *part :
         {"vellb2 1.2.3 Test, up ", "client gateway       10.0.0.254 (none)",
          "log mask             0x200 failures", "high availability    solo", "PROTOCOL  RECEIVED",
          "10.0.0.100  www      1", "10.0.0.100:80  connection", "dead, servers down",
          "eth0       02:00:00:00:00:01", "nothing: drops", "SO FAR"}) {
        EXPECT_NE(got.out.find(part), std::string::npos) << part << " in\n" << got.out;
    }
    std::istringstream lines(got.out);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 100U) << line;
        EXPECT_EQ(line.find('\033'), std::string::npos);
    }
}

TEST_F(vellbctl_show, documents)
{
    const auto whole = json("show");
    const auto &executor = whole.at("executor");
    EXPECT_EQ(executor.at("version"), "1.2.3 Test");
    EXPECT_EQ(executor.at("log_mask"), 0x200);
    EXPECT_EQ(executor.at("client_gateway").at("address"), "10.0.0.254");
    EXPECT_EQ(executor.at("client_gateway_ipv6"), nullptr);
    EXPECT_EQ(whole.at("interfaces").at(0).at("addresses").at(0).at("prefix"), 24);
    EXPECT_EQ(whole.at("clusters").at(0).at("id"), "www");
    const auto &port = whole.at("clusters").at(0).at("ports").at(0);
    EXPECT_EQ(port.at("connections").at("active"), 40);
    const auto &server = port.at("servers").at(1);
    EXPECT_EQ(server.at("server"), "10.0.0.12");
    EXPECT_EQ(server.at("weight"), 2);
    EXPECT_EQ(server.at("neighbour"), "dead, servers down");
    EXPECT_EQ(server.at("counters").at("forwarded"), 500);
    EXPECT_EQ(server.at("connections").at("so_far"), 400);
    const auto &rule = port.at("rules").at(0);
    EXPECT_EQ(rule.at("type"), "rule-active");
    EXPECT_EQ(rule.at("from"), 0);
    EXPECT_EQ(rule.at("to"), 100);
    EXPECT_EQ(rule.at("fired"), 1234);
    EXPECT_EQ(rule.at("servers"), nlohmann::json::array({"10.0.0.12", "10.0.0.11"}));
    EXPECT_EQ(json("cluster show 10.0.0.100").at("clusters").at(0), whole.at("clusters").at(0));
    EXPECT_EQ(json("port show 10.0.0.100:80").at("ports").at(0), port);
    EXPECT_EQ(json("server show").at("servers"), port.at("servers"));
    EXPECT_EQ(json("rule show").at("rules"), port.at("rules"));
    EXPECT_EQ(json("address show").at("addresses").size(), 1U);
    EXPECT_EQ(json("use-server show").at("use_servers").at(0).at("server"), "10.0.0.12");
}

TEST_F(vellbctl_show, bytes_that_are_no_text_break_no_document)
{
    auto cluster = daemon.at(LBCMD_KEYTYPE_CONFIG, vellb::cluster_key(ip("10.0.0.100")));
    memset(cluster.setable.data() + offsetof(lbclu_setable_t, clusterid), 0xFF,
           sizeof(lbclu_setable_t::clusterid));
    daemon.put(cluster);
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
    std::istringstream lines(run("show -w 0.1 --count 2 --json").out);
    std::vector<nlohmann::json> documents;
    for (std::string line; std::getline(lines, line);) {
        documents.push_back(nlohmann::json::parse(line));
    }
    ASSERT_EQ(documents.size(), 2U);
    const auto counters = [&](size_t i) { return documents[i]["executor"]["counters"]["ipv4"]; };
    EXPECT_FALSE(counters(0).contains("received_per_s"));
    EXPECT_EQ(counters(1).at("received_per_s"), 0);
}

} // namespace
