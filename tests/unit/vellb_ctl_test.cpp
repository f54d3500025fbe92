// vellbctl as a person or a script meets it: words in; text, JSON and an exit status out; against a
// stand-in for the daemon.
#include <gtest/gtest.h>
#include <sstream>

#include "app.h"
#include "prot/neighstate.h"
#include "vellb_fake_daemon.h"

namespace
{

lbip_addr_t ip(const char *text)
{
    return *vellb::parse_address(text);
}

struct result_t {
    int status = -1;
    std::string out{};
    std::string err{};
};

std::vector<std::string> split(const std::string &line)
{
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

result_t ctl(const std::string &line)
{
    std::ostringstream out;
    std::ostringstream err;
    const int status = vellbctl::run(split(line), {out, err, false});
    return {status, out.str(), err.str()};
}

class vellbctl_test : public testing::Test
{
  protected:
    result_t run(const std::string &line) { return ctl("--socket " + daemon.path() + " " + line); }
    void must(const std::string &line)
    {
        const result_t got = run(line);
        ASSERT_EQ(got.status, 0) << line << ": " << got.err << got.out;
    }
    template <class B> B settings(const lbcmd_key_t &key)
    {
        return vellb::block_of<B>(daemon.at(LBCMD_KEYTYPE_CONFIG, key).setable, "settable");
    }

    fake_daemon daemon;
};

// --- Words ---------------------------------------------------------------------------------------

TEST(vellbctl_words, wrong_ones_are_named)
{
    struct row_t {
        const char *line;
        const char *message;
        const char *usage;
    };
    const row_t rows[] = {
        {"", "no command given", "usage: vellbctl [--socket"},
        {"clutser add 10.0.0.1", "unknown command 'clutser' (did you mean 'cluster'?)",
         "usage: vellbctl"},
        {"frobnicate", "unknown command 'frobnicate'; there are: show, executor", "usage:"},
        {"cluster", "no command given after 'cluster'; there are: add, set, rm, show",
         "usage: vellbctl cluster add"},
        {"cluster remove 10.0.0.1", "unknown command 'remove' after 'cluster'",
         "usage: vellbctl cluster rm"},
        {"cluster add", "ADDRESS is required", "usage: vellbctl cluster add ADDRESS [--id TEXT]\n"},
        {"cluster add 10.0.0.1 10.0.0.2", "unexpected word '10.0.0.2'", "usage: vellbctl cluster"},
        {"cluster add 10.0.0", "'10.0.0' is not an IPv4 or IPv6 address", "usage:"},
        {"cluster add 10.0.0.1/24", "'10.0.0.1/24' carries a prefix length", "usage:"},
        {"cluster add 0.0.0.0", "'0.0.0.0' is the unspecified address", "usage:"},
        {"cluster set 10.0.0.1", "nothing to set", "usage: vellbctl cluster set"},
        {"cluster show --id x", "--id goes only after a command that takes it, like 'cluster add'",
         "usage:"},
        {"port add 10.0.0.1", "'10.0.0.1' does not look like 10.0.0.100:80", "usage:"},
        {"port add 10.0.0.1:0", "port '0', which is not a number from 1 to 65535", "usage:"},
        {"port add 10.0.0.1:65536", "port '65536'", "usage:"},
        {"port add 2001:db8::1:80", "does not look like", "usage:"},
        {"port add [2001:db8::1]", "does not look like", "usage:"},
        {"port add [2001:db8::1]:0", "port '0'", "usage:"},
        {"cluster add ::", "'::' is the unspecified address", "usage:"},
        {"port add 10.0.0.1:80 --algorithm hsah",
         "'hsah' is not one of hash, connection, affinity, conn-affin, udprr (did you mean "
         "'hash'?)",
         "usage: vellbctl port add"},
        {"port add 10.0.0.1:80 --stale-timeout 30x", "'30x' is not a time", "usage:"},
        {"port add 10.0.0.1:80 --stale-timeout 71582789m", "is not a time", "usage:"},
        {"port set 10.0.0.1:80 --algorithm hash",
         "--algorithm goes only after a command that takes it, like 'port add'", "usage:"},
        {"server add 10.0.0.1:80 10.0.0.2 --wieght 3", "(did you mean '--weight'?)", "usage:"},
        {"server add 10.0.0.1:80 10.0.0.2 --weight", "--weight needs a value",
         "usage: vellbctl server add"},
        {"server add 10.0.0.1:80 10.0.0.2 --weight --json", "--weight needs a value", ""},
        {"server add 10.0.0.1:80 10.0.0.2 --weight 65536", "'65536' is not a number from 0 to",
         "usage:"},
        {"server add 10.0.0.1:80 10.0.0.2 --weight -1", "'-1' is not a number", "usage:"},
        {"server add 10.0.0.1:80 10.0.0.2 --weight 1 --weight 2",
         "--weight needs a value, and only one", ""},
        {"server add 10.0.0.1:80 10.0.0.2 --sticky maybe", "'maybe' is neither on nor off", ""},
        {"server add 10.0.0.1:80", "SERVER is required", "usage: vellbctl server add"},
        {"server set 10.0.0.1:80 10.0.0.2 --nat",
         "--nat goes only after a command that takes it, like 'server add'", "usage:"},
        {"server add 10.0.0.1:80 10.0.0.2 --encap gre --encap-mtu 0",
         "'0' would let nothing through that must not be fragmented", "usage:"},
        {"server add 10.0.0.1:80 10.0.0.2 --encap gre --encap-mtu 91", "'91' is less than 92", ""},
        {"server add 10.0.0.1:80 10.0.0.2 --encap gre --encap-mtu 65536",
         "'65536' is more than 65535", ""},
        {"server add 10.0.0.1:80 10.0.0.2 --encap vxlan", "is not one of none, ipip, gre", ""},
        {"executor set --client-gateway 2001:db8::1", "--client-gateway-ipv6", "usage:"},
        {"executor set --client-gateway-ipv6 10.0.0.1", "is an IPv4 address", "usage:"},
        {"executor set --log-mask failures,forwardd",
         "'forwardd' is neither a log bit's name nor a number (did you mean 'forwarded'?)", ""},
        {"ha set --timeout 31", "'31' is not from 1s to 30s", "usage: vellbctl ha set"},
        {"ha set", "nothing to set", "usage: vellbctl ha set"},
        {"ha set --role undefined", "'undefined' is not one of solo, primary, backup", ""},
        {"ha set --takeover n/a", "'n/a' is not one of manual, automatic", ""},
        {"ha set --replication both", "port set ADDRESS:PORT --replication both", "usage:"},
        {"ha set --port 0", "'0' is not a number from 1 to 65535", ""},
        {"ha set --reach-score 256", "'256' is not a number from 0 to 255", ""},
        {"ha set --reach 10.0.0", "'10.0.0' is not an IPv4 or IPv6 address", ""},
        {"heartbeat add 10.9.0.1", "PARTNER is required", "usage: vellbctl heartbeat add LOCAL"},
        {"heartbeat add 10.9.0.1 2001:db8::2", "addresses are of one version", "usage:"},
        {"heartbeat add 10.9.0.1 10.9.0.1", "stands for both ends", "usage: vellbctl heartbeat"},
        {"executor stop", "confirm with --yes", "usage: vellbctl executor stop --yes"},
        {"interface add eth0 --mtu 1500", "--mac is required", "usage: vellbctl interface add"},
        {"interface add eth0 --mtu 1500 --mac 02:00:00:00:00", "is not a hardware address", ""},
        {"interface add abcdefghijklmnopqrstuvwxyz0123456 --mtu 1500 --mac 02:00:00:00:00:01",
         "is not an interface name of 1 to 31 bytes", ""},
        {"address add eth0 10.0.0.1", "lacks its prefix length, as in 10.0.0.1/24", "usage:"},
        {"address add eth0 2001:DB8::1", "lacks its prefix length, as in 2001:db8::1/64", "usage:"},
        {"cluster add 10.0.0.1 --json=yes", "--json takes no value", "usage:"},
        {"cluster add 10.0.0.1 --watch", "--watch goes with show only", "usage:"},
        {"show --count 3", "--count requires --watch", "usage:"},
        {"show --watch=soon", "'soon' is not a number of seconds", "usage:"},
        {"show -w 0", "'0' is not a number of seconds", "usage:"},
        {"show everything", "unexpected word 'everything'", "usage: vellbctl show"},
        {"cluster show -w clutser", "'clutser' is not an IPv4 or IPv6 address", "usage:"},
        {"server set 10.0.0.1:80 --wieght 3 10.0.0.2", "--wieght is unknown here (did you mean",
         "usage: vellbctl server set"},
        {"--sokcet /x show", "--sokcet is unknown here (did you mean '--socket'?)", "usage:"},
        {"cluster add 10.0.0.1 --id --json", "--id needs a value", "usage:"},
        {"log-mask decode", "LIST is required", "usage: vellbctl log-mask decode"},
        {"--weight 3 server add",
         "--weight goes only after a command that takes it, like 'server add'", "usage:"},
    };
    for (const row_t &row : rows) {
        const result_t got = ctl(row.line);
        const bool json = std::string(row.line).find("--json") != std::string::npos;
        const std::string &text = json && got.err.empty() ? got.out : got.err;
        EXPECT_EQ(got.status, 2) << row.line << ": " << text;
        EXPECT_NE(text.find(row.message), std::string::npos) << row.line << ": " << text;
        EXPECT_NE(text.find(row.usage), std::string::npos) << row.line << ": " << text;
    }
}

TEST(vellbctl_words, help_is_no_mistake)
{
    for (const char *line : {"--help", "help", "cluster --help", "server add --help", "-h",
                             "--version", "help cluster", "server add 10.0.0.1:80 -h"}) {
        const result_t got = ctl(line);
        EXPECT_EQ(got.status, 0) << line << ": " << got.err;
        EXPECT_FALSE(got.out.empty()) << line;
        EXPECT_TRUE(got.err.empty()) << line << ": " << got.err;
    }
    EXPECT_NE(ctl("interface sync --help").out.find("no temporary IPv6"), std::string::npos);
}

TEST(vellbctl_words, completion_knows_what_may_follow)
{
    EXPECT_EQ(ctl("--complete").out.substr(0, 14), "show\nexecutor\n");
    EXPECT_EQ(ctl("--complete cluster").out.substr(0, 16), "add\nset\nrm\nshow\n");
    EXPECT_NE(ctl("--complete server add 10.0.0.1:80").out.find("--weight\n"), std::string::npos);
}

// --- Changes -------------------------------------------------------------------------------------

TEST_F(vellbctl_test, objects_come_and_go)
{
    const char *const lines[][2] = {
        {"cluster add 10.0.0.100 --id www", "added cluster 10.0.0.100\n"},
        {"port add 10.0.0.100:80 --algorithm hash --stale-timeout 30m",
         "added port 10.0.0.100:80\n"},
        {"server add 10.0.0.100:80 10.0.0.11 --weight 3",
         "added server 10.0.0.11 of port 10.0.0.100:80\n"},
        {"server set 10.0.0.100:80 10.0.0.11 --weight=5",
         "changed server 10.0.0.11 of port 10.0.0.100:80\n"},
        {"server rm 10.0.0.100:80 10.0.0.11", "removed server 10.0.0.11 of port 10.0.0.100:80\n"},
        {"port rm 10.0.0.100:80", "removed port 10.0.0.100:80\n"},
        {"cluster set --id= 10.0.0.100", "changed cluster 10.0.0.100\n"},
        {"cluster rm 10.0.0.100", "removed cluster 10.0.0.100\n"},
        {"cluster add 2001:DB8:0::1", "added cluster 2001:db8::1\n"},
        {"port add [2001:db8::1]:80", "added port [2001:db8::1]:80\n"},
        {"server add [2001:db8::1]:80 2001:db8::0:11",
         "added server 2001:db8::11 of port [2001:db8::1]:80\n"},
        {"rule add [2001:db8::1]:80 5 --type true", "added rule 5 of port [2001:db8::1]:80\n"},
        {"cluster rm [2001:db8::1] --recursive", "removed, with 3 below it, cluster 2001:db8::1\n"},
        {"interface add show --mac 02:00:00:00:00:01 --mtu 1500", "added interface show\n"},
        {"interface add eth0 --mac 02:00:00:00:00:01 --mtu 1500", "added interface eth0\n"},
        {"address add eth0 10.0.0.1/24", "added address 10.0.0.1 of interface eth0\n"},
        {"address set eth0 10.0.0.1/24 --peer 10.0.0.9",
         "changed address 10.0.0.1 of interface eth0\n"},
        {"address add eth0 2001:db8::2/64", "added address 2001:db8::2 of interface eth0\n"},
        {"interface set eth0 --up no", "changed interface eth0\n"},
        {"interface rm eth0 --recursive", "removed interface eth0\n"},
        {"heartbeat add 10.9.0.1 10.9.0.2", "added heartbeat 10.9.0.1 to 10.9.0.2\n"},
        {"heartbeat rm 10.9.0.1 10.9.0.2", "removed heartbeat 10.9.0.1 to 10.9.0.2\n"},
    };
    for (const auto &[line, out] : lines) {
        const result_t got = run(line);
        EXPECT_EQ(got.status, 0) << line << ": " << got.err;
        EXPECT_EQ(got.out, out) << line;
    }
}

TEST_F(vellbctl_test, new_objects_have_sound_defaults)
{
    must("cluster add 10.0.0.100 --id www");
    must("port add 10.0.0.100:80 --stale-timeout 30m --reset on --crossport 443");
    must("server add 10.0.0.100:80 10.0.0.11");
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
    must("executor set --log-mask failures,forwarded");
    auto expected = executor.setable;
    const lb_u64_t mask = 0x201;
    memcpy(expected.data(), &mask, sizeof(mask));
    EXPECT_EQ(daemon.at(LBCMD_KEYTYPE_CONFIG, {}).setable, expected);

    must("executor set --log-mask +arp,-failures --client-gateway 10.0.0.1");
    const auto now = settings<lbexe_setable_t>({});
    EXPECT_EQ(now.log_mask, 0x10000001U);
    EXPECT_TRUE(vellb::same_address(now.clientgateway, ip("10.0.0.1")));
    const lbip_addr_t gateway = ip("10.0.0.1");
    const lb_u64_t second = 0x10000001;
    memcpy(expected.data(), &second, sizeof(second));
    memcpy(expected.data() + offsetof(lbexe_setable_t, clientgateway), &gateway, sizeof(gateway));
    EXPECT_EQ(daemon.at(LBCMD_KEYTYPE_CONFIG, {}).setable, expected);

    must("executor set --client-gateway none");
    EXPECT_EQ(settings<lbexe_setable_t>({}).clientgateway.version, 0);
}

TEST_F(vellbctl_test, a_shorter_id_leaves_nothing_of_the_longer)
{
    must("cluster add 10.0.0.100 --id a-long-name");
    must("cluster set 10.0.0.100 --id www");
    const auto block = settings<lbclu_setable_t>(vellb::cluster_key(ip("10.0.0.100")));
    EXPECT_EQ(std::string(block.clusterid, sizeof(block.clusterid)),
              std::string("www") + std::string(sizeof(block.clusterid) - 3, '\0'));
}

TEST_F(vellbctl_test, recursive_removal_goes_bottom_up)
{
    for (const char *line :
         {"cluster add 10.0.0.100", "port add 10.0.0.100:80", "port add 10.0.0.100:81",
          "server add 10.0.0.100:80 10.0.0.11", "server add 10.0.0.100:80 10.0.0.12"}) {
        must(line);
    }
    daemon.forget_changes();
    const result_t got = run("cluster rm 10.0.0.100 --recursive");
    EXPECT_EQ(got.out, "removed, with 4 below it, cluster 10.0.0.100\n");
    const std::vector<std::string> expected{
        "RM server 10.0.0.11 of port 10.0.0.100:80", "RM server 10.0.0.12 of port 10.0.0.100:80",
        "RM port 10.0.0.100:80", "RM port 10.0.0.100:81", "RM cluster 10.0.0.100"};
    EXPECT_EQ(daemon.changes(), expected);
}

TEST_F(vellbctl_test, stopping_takes_a_yes)
{
    EXPECT_EQ(run("executor stop").status, 2);
    EXPECT_TRUE(daemon.changes().empty());
    EXPECT_EQ(run("executor stop --yes").out, "stopped the executor\n");
    EXPECT_EQ(daemon.changes(), std::vector<std::string>{"RM the executor"});
}

// --- Refusals ------------------------------------------------------------------------------------

TEST_F(vellbctl_test, refusals_name_the_code_and_what_to_do)
{
    must("cluster add 10.0.0.100");
    must("port add 10.0.0.100:80");
    must("server add 10.0.0.100:80 10.0.0.11");
    must("heartbeat add 10.9.0.1 10.9.0.2");
    const char *const rows[][2] = {
        {"cluster add 10.0.0.100",
         "refused: ALREADYEXISTS (4): cluster 10.0.0.100 exists already; change it: vellbctl "
         "cluster set 10.0.0.100 ..., or remove it first: vellbctl cluster rm 10.0.0.100\n"},
        {"port add 10.0.0.101:80", "refused: PARENTDNE (5): cluster 10.0.0.101 does not exist; add "
                                   "it first: vellbctl cluster "
                                   "add 10.0.0.101\n"},
        {"server add 10.0.0.100:81 10.0.0.11",
         "refused: PARENTDNE (5): port 10.0.0.100:81 does not exist; add it first: vellbctl port "
         "add 10.0.0.100:81\n"},
        {"address add eth9 10.0.0.1/24",
         "refused: PARENTDNE (5): interface eth9 does not exist; add it first: vellbctl interface "
         "add eth9\n"},
        {"server set 10.0.0.100:80 10.0.0.12 --weight 1",
         "refused: OBJNOTFOUND (6): server 10.0.0.12 of port 10.0.0.100:80 does not exist; see "
         "what "
         "there is: vellbctl server show\n"},
        {"cluster show 10.0.0.9", "refused: OBJNOTFOUND (6): cluster 10.0.0.9 does not exist; see "
                                  "what there is: vellbctl cluster show\n"},
        {"server show 10.0.0.100:80 10.0.0.12", "refused: OBJNOTFOUND (6): server 10.0.0.12 of "
                                                "port 10.0.0.100:80 does not exist; see what "
                                                "there is: vellbctl server show\n"},
        {"heartbeat add 10.9.0.1 10.9.0.2",
         "refused: ALREADYEXISTS (4): heartbeat 10.9.0.1 to 10.9.0.2 exists already; remove it "
         "first: vellbctl heartbeat rm 10.9.0.1 10.9.0.2\n"},
        {"heartbeat rm 10.9.0.1 10.9.0.3",
         "refused: OBJNOTFOUND (6): heartbeat 10.9.0.1 to 10.9.0.3 does not exist; see what there "
         "is: vellbctl heartbeat show\n"},
        {"ha takeover", "not done: this node has no partner: its role is solo; give it one: "
                        "vellbctl ha set --role primary|backup --port PORT, and: vellbctl "
                        "heartbeat add LOCAL PARTNER\n"},
        {"cluster rm 10.0.0.100", "refused: HASCHILD (7): cluster 10.0.0.100 still has objects "
                                  "below it; remove those first, "
                                  "or all at once: vellbctl cluster rm 10.0.0.100 --recursive\n"},
    };
    for (const auto &[line, message] : rows) {
        const result_t got = run(line);
        EXPECT_EQ(got.status, 1) << line;
        EXPECT_EQ(got.err, message) << line;
        EXPECT_EQ(got.out, "") << line;
    }
}

TEST_F(vellbctl_test, a_failure_is_explained_as_far_as_it_can_be)
{
    daemon.refuse = [](const lbcmd_bufhdr_t &hdr) -> unsigned {
        return hdr.action == LBCMD_ACTION_ADD ? LBCMD_RC_FAILURE : 0;
    };
    const char *const rows[][2] = {
        {"cluster add 2001:db8::1", "could not add cluster 2001:db8::1; the daemon's log says why"},
        {"port add 10.0.0.100:80 --crossport 443",
         "which algorithm hash does not have: use --algorithm"},
        {"port add 10.0.0.100:80", "the daemon's log says why"},
    };
    for (const auto &[line, message] : rows) {
        const result_t got = run(line);
        EXPECT_EQ(got.status, 1) << line;
        EXPECT_NE(got.err.find("refused: FAILURE (10): "), std::string::npos) << got.err;
        EXPECT_NE(got.err.find(message), std::string::npos) << got.err;
    }
}

TEST_F(vellbctl_test, errors_as_json)
{
    const result_t refused = run("port add 10.0.0.101:80 --json");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "");
    const auto error = nlohmann::json::parse(refused.out).at("error");
    EXPECT_EQ(error.at("code"), 5);
    EXPECT_EQ(error.at("name"), "PARENTDNE");
    EXPECT_EQ(error.at("message"), "cluster 10.0.0.101 does not exist");
    EXPECT_EQ(error.at("hint"), "add it first: vellbctl cluster add 10.0.0.101");

    const auto usage = nlohmann::json::parse(run("clutser --json").out).at("error");
    EXPECT_EQ(usage.at("name"), "USAGE");
    EXPECT_EQ(usage.at("word"), "clutser");

    daemon.stop();
    const result_t gone = run("show --json");
    EXPECT_EQ(gone.status, 3);
    EXPECT_EQ(nlohmann::json::parse(gone.out).at("error").at("name"), "UNREACHABLE");
}

TEST_F(vellbctl_test, no_answer_is_status_3)
{
    daemon.manners = fake_daemon::manners_e::HANGS_UP_HALFWAY;
    const result_t got = run("show");
    EXPECT_EQ(got.status, 3);
    EXPECT_NE(got.err.find("no usable answer: the daemon at"), std::string::npos) << got.err;
    daemon.manners = fake_daemon::manners_e::GOOD;
    daemon.lie = [](lbcmd_buf_t &b) { b.hdr.setsize = 65535; };
    EXPECT_EQ(run("show").status, 3);
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
        {"add", "direct", "direct", 0},
        {"add --nat --return-address 10.0.0.50 --router-address 10.0.0.1",
         "nat via 10.0.0.1 as 10.0.0.50", "nat", 0},
        {"add --encap ipip", "ipip mtu 1500", "ipip", 0x09},
        {"add --encap gre --encap-source 10.0.0.2 --encap-mtu 1400", "gre mtu 1400", "gre", 0x0a},
        {"set --encap-mtu 92", "gre mtu 92", "gre", 0x0a},
        {"set --encap ipip", "ipip mtu 92", "ipip", 0x09},
        {"set --encap none", "direct", "direct", 0},
        {"add --collocated", "collocated", "collocated", 0},
        {"set --collocated off", "direct", "direct", 0},
    };
    for (const row_t &row : rows) {
        const std::string words = row.words;
        if (words.starts_with("add")) {
            run("cluster rm 10.0.0.100 --recursive");
            must("cluster add 10.0.0.100");
            must("port add 10.0.0.100:80 --algorithm connection");
        }
        must("server " + words.substr(0, 3) + " 10.0.0.100:80 10.0.0.11" + words.substr(3));
        const auto shown = nlohmann::json::parse(run("server show --json").out).at("servers").at(0);
        EXPECT_EQ(shown.at("forwarding"), row.name) << words;
        EXPECT_NE(run("server show").out.find(row.text), std::string::npos) << words;
        const auto key = vellb::server_key(ip("10.0.0.100"), 80, ip("10.0.0.11"));
        EXPECT_EQ(settings<lbsrv_setable_t>(key).encapflags, row.encapflags) << words;
    }
}

TEST_F(vellbctl_test, forwarding_that_makes_no_sense_is_refused_with_a_reason)
{
    must("cluster add 10.0.0.100");
    must("port add 10.0.0.100:80 --algorithm connection");
    const std::string nat = "--nat --return-address 10.0.0.50 --router-address 10.0.0.1";
    must("server add 10.0.0.100:80 10.0.0.11 " + nat);
    must("server add 10.0.0.100:80 10.0.0.12 --encap gre");
    const std::pair<std::string, const char *> rows[] = {
        {"add --nat --router-address 10.0.0.1", "--nat needs --return-address"},
        {"add --nat --return-address 10.0.0.50", "--nat needs --router-address"},
        {"add --return-address 10.0.0.50", "--return-address goes with --nat"},
        {"add --nat --return-address 2001:db8::1 --router-address 10.0.0.1",
         "2001:db8::1 is an IPv6 address, the server's is IPv4"},
        {"add --nat --return-address 10.0.0.100 --router-address 10.0.0.1", "the cluster's"},
        {"add --nat --return-address 10.0.0.13 --router-address 10.0.0.1", "the server's own"},
        {"add --nat --return-address 10.0.0.1 --router-address 10.0.0.1", "the router's own"},
        {"add --encap ipip " + nat, "--encap does not go with a NAT server"},
        {"add --collocated " + nat, "--collocated does not go with a NAT server"},
        {"add --collocated --encap gre", "--collocated does not go with --encap"},
        {"add --encap-mtu 1400", "--encap-mtu goes with --encap"},
        {"add --encap-source 10.0.0.2", "--encap-source goes with --encap"},
        {"add --encap gre --encap-source 2001:db8::1", "--encap-source: 2001:db8::1 is an IPv6"},
        {"set 10.0.0.11 --encap gre", "--encap does not go with a NAT server"},
        {"set 10.0.0.11 --encap-mtu 1400", "--encap-mtu goes with --encap"},
        {"set 10.0.0.11 --collocated on", "--collocated does not go with a NAT server"},
        {"set 10.0.0.12 --collocated on", "--collocated does not go with --encap"},
    };
    for (const auto &[words, reason] : rows) {
        const bool add = words.starts_with("add");
        const result_t got = run("server " + words.substr(0, 3) + " 10.0.0.100:80" +
                                 (add ? " 10.0.0.13" : "") + words.substr(3));
        EXPECT_EQ(got.status, 2) << words;
        EXPECT_NE(got.err.find(reason), std::string::npos) << words << ": " << got.err;
        EXPECT_NE(got.err.find("usage: vellbctl server"), std::string::npos) << words;
    }
    must("server set 10.0.0.100:80 10.0.0.11 --weight 3"); // its addresses stand in no one's way
}

TEST_F(vellbctl_test, nat_that_cannot_work_is_told)
{
    const std::string server =
        "server add 10.0.0.100:80 10.0.0.11 --nat --return-address 10.0.0.50 --router-address "
        "10.0.0.1";
    for (const char *algorithm : {"hash", "affinity", "connection"}) {
        run("cluster rm 10.0.0.100 --recursive");
        must("cluster add 10.0.0.100");
        must(std::string("port add 10.0.0.100:80 --algorithm ") + algorithm);
        const result_t got = run(server);
        EXPECT_EQ(got.err.find("keeps no connections") == std::string::npos,
                  std::string(algorithm) == "connection")
            << got.err;
        EXPECT_NE(got.err.find("no client gateway is set"), std::string::npos) << got.err;
    }
    must("executor set --client-gateway 10.0.0.254");
    EXPECT_EQ(run("server set 10.0.0.100:80 10.0.0.11 --weight 3").err, "");
}

TEST_F(vellbctl_test, ways_that_keep_to_one_ip_version_are_told)
{
    const char *const v4 = "10.0.0.11";
    const char *const v6 = "2001:db8::11";
    const char *const v4_nat = " --nat --return-address 10.0.0.50 --router-address 10.0.0.1";
    const char *const v6_nat = " --nat --return-address 2001:db8::50 --router-address 2001:db8::1";
    const struct {
        std::string cluster, server;
        const char *warning; // empty: none
    } rows[] = {
        {"10.0.0.100", v6, ""}, // carried to its hardware address
        {"2001:db8::100", v4, ""},
        {"2001:db8::100", std::string(v6) + v6_nat, ""},
        {"10.0.0.100", std::string(v4) + " --encap gre", ""},
        {"10.0.0.100", std::string(v6) + v6_nat, "NAT does not turn IPv4 into IPv6"},
        {"2001:db8::100", std::string(v4) + v4_nat, "NAT does not turn IPv6 into IPv4"},
        {"2001:db8::100", std::string(v4) + " --encap gre", "gre tunnels carry IPv4 only"},
        {"2001:db8::100", std::string(v4) + " --encap ipip", "ipip tunnels carry IPv4 only"},
    };
    must("executor set --client-gateway 10.0.0.254 --client-gateway-ipv6 2001:db8::254");
    for (const auto &row : rows) {
        const std::string endpoint = row.cluster.find(':') == std::string::npos
                                         ? row.cluster + ":80"
                                         : "[" + row.cluster + "]:80";
        must("cluster add " + row.cluster);
        must("port add " + endpoint + " --algorithm connection");
        const result_t got = run("server add " + endpoint + " " + row.server);
        EXPECT_EQ(got.status, 0) << row.server;
        EXPECT_EQ(got.err.empty(), *row.warning == '\0') << got.err;
        EXPECT_NE(got.err.find(row.warning), std::string::npos) << got.err;
        must("cluster rm " + row.cluster + " --recursive");
    }
}

// --- Surprises -----------------------------------------------------------------------------------

TEST_F(vellbctl_test, surprises_are_told_and_change_no_status)
{
    struct row_t {
        std::vector<int> weights;
        const char *warning; // null: none
    };
    const row_t rows[] = {
        {{1, 1}, "10.0.0.12 gets none of their connections"},
        {{3, 1}, "10.0.0.12 gets none of their connections"},
        {{1, 1, 2}, "10.0.0.12 gets none"},
        {{3, 3}, "10.0.0.11 gets 2 of 3 instead of 3 of 6, 10.0.0.12 gets 1 of 3"},
        {{0, 0}, "take turns and still get traffic"},
        {{1, 2}, nullptr},
        {{10, 10}, nullptr},
        {{10}, nullptr},
        {{2, 0}, nullptr},
    };
    for (const row_t &row : rows) {
        must("cluster add 10.0.0.100");
        must("port add 10.0.0.100:80");
        result_t last;
        int number = 11;
        for (const int weight : row.weights) {
            last = run("server add 10.0.0.100:80 10.0.0." + std::to_string(number++) +
                       " --weight " + std::to_string(weight));
            ASSERT_EQ(last.status, 0) << last.err;
        }
        EXPECT_EQ(last.err.empty(), row.warning == nullptr) << last.err;
        EXPECT_NE(last.err.find(row.warning == nullptr ? "" : row.warning), std::string::npos)
            << last.err;
        must("cluster rm 10.0.0.100 --recursive");
    }
}

TEST_F(vellbctl_test, a_cluster_off_every_subnet_is_told)
{
    must("interface add eth0 --mac 02:00:00:00:00:01 --mtu 1500");
    must("address add eth0 10.0.0.1/24");
    EXPECT_EQ(run("cluster add 10.0.0.100").err, "");
    const result_t got = run("cluster add 10.0.1.100 --json");
    EXPECT_EQ(got.err, "");
    const auto warnings = nlohmann::json::parse(got.out).at("warnings");
    EXPECT_NE(warnings.at(0).get<std::string>().find("no interface carries the subnet"),
              std::string::npos);
    const result_t whole = run("show");
    EXPECT_NE(whole.err.find("warning: no client gateway is set"), std::string::npos) << whole.err;
    EXPECT_NE(whole.err.find("subnet of cluster 10.0.1.100"), std::string::npos) << whole.err;
}

TEST_F(vellbctl_test, each_ip_version_wants_its_own_gateway_and_subnet)
{
    for (const char *eth : {"eth0", "eth1"}) {
        must(std::string("interface add ") + eth + " --mac 02:00:00:00:00:01 --mtu 1500");
        must(std::string("address add ") + eth + " fe80::1/64");
    }
    must("executor set --client-gateway 10.0.0.254");
    const result_t cluster = run("cluster add 2001:db8::100");
    EXPECT_NE(cluster.err.find("so neighbour solicitations for it are not"), std::string::npos)
        << cluster.err;
    const std::pair<const char *, const char *> rows[] = {
        {"executor set --client-gateway-ipv6 none", "no IPv6 client gateway is set"},
        {"port add [2001:db8::100]:80 --algorithm connection --reset on", "no IPv6 client gateway"},
        {"executor set --client-gateway-ipv6 fe80::2",
         "fe80::2 is link-local and may be behind any of eth0, eth1: the daemon takes eth0"},
        {"executor set --client-gateway-ipv6 2001:db8::1", ""},
        {"executor set --client-gateway none", ""}, // no cluster of IPv4
    };
    for (const auto &[line, warning] : rows) {
        const result_t got = run(line);
        EXPECT_EQ(got.err.empty(), *warning == '\0') << line << ": " << got.err;
        EXPECT_NE(got.err.find(warning), std::string::npos) << line << ": " << got.err;
    }
    must("address add eth0 2001:db8::2/64");
    EXPECT_EQ(run("show").err, "");
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
    void read_neighbour(lb_u8_t state)
    {
        auto heartbeat =
            daemon.at(LBCMD_KEYTYPE_CONFIG, vellb::heartbeat_key(ip("10.9.0.1"), ip("10.9.0.2")));
        heartbeat.getable[0] = state;
        daemon.put(heartbeat);
    }
};

TEST_F(vellbctl_ha, settings_are_kept_and_those_of_a_pair_need_a_role)
{
    for (const auto &[line, message] :
         {std::pair{"ha set --takeover automatic", "--takeover goes with a role in a pair"},
          std::pair{"ha set --replication connections", "--replication goes with a role"},
          std::pair{"ha set --role solo --takeover manual", "--takeover goes with a role"},
          std::pair{"ha set --role backup", "--port is missing"}}) {
        const result_t got = run(line);
        EXPECT_EQ(got.status, 2) << line;
        EXPECT_NE(got.err.find(message), std::string::npos) << line << ": " << got.err;
    }
    EXPECT_TRUE(daemon.changes().empty());
    must("ha set --role backup --port 4647 --reach 10.0.0.1 --reach 10.0.0.2 --reach-score 7");
    EXPECT_EQ(ha().role, LBHA_ROLE_BACKUP);
    EXPECT_EQ(ha().tostrategy, LBHA_TAKEOVERSTRATEGY_MANUAL);
    EXPECT_EQ(ha().port, 4647);
    EXPECT_EQ(ha().reachscore, 7);
    EXPECT_TRUE(vellb::same_address(ha().reachaddr[1], ip("10.0.0.2")));
    must("ha set --takeover automatic --replication connections --timeout 30s");
    must("ha set --reach 10.0.0.3");
    EXPECT_EQ(ha().tostrategy, LBHA_TAKEOVERSTRATEGY_AUTOMATIC);
    EXPECT_EQ(ha().repstrategy, LBHA_REPLICATIONSTRATEGY_CRREP);
    EXPECT_EQ(ha().timeout, 30);
    EXPECT_TRUE(vellb::same_address(ha().reachaddr[0], ip("10.0.0.3")));
    EXPECT_EQ(ha().reachaddr[1].version, 0);
    std::string thirteen = "ha set --reach none";
    for (int i = 1; i <= 13; i++) {
        thirteen += " --reach 10.0.0." + std::to_string(i);
    }
    EXPECT_NE(run(thirteen).err.find("'10.0.0.13' is one too many"), std::string::npos);
    EXPECT_EQ(settings<lbexe_setable_t>({}).log_mask, 0x200U);
}

TEST_F(vellbctl_ha, a_takeover_is_done_when_the_node_is_active)
{
    must("ha set --role primary --port 4647");
    read_state(LBHA_STATE_STANDBY);
    EXPECT_NE(run("ha takeover").err.find("not done: this node took over and yielded again"),
              std::string::npos);
    EXPECT_EQ(ha().manualtakeover, 1);
    read_state(LBHA_STATE_ACTIVE);
    EXPECT_EQ(run("ha takeover").out, "took over: this node is active\n");
    EXPECT_EQ(nlohmann::json::parse(run("ha takeover --json").out).at("state"), "active");
}

TEST_F(vellbctl_ha, what_a_pair_lacks_is_told)
{
    const auto warns = [&](const std::string &line, const char *text) {
        const result_t got = run(line);
        EXPECT_EQ(got.status, 0) << got.err;
        EXPECT_NE(got.err.find(text), std::string::npos) << line << ": " << got.err;
    };
    warns("heartbeat add 2001:db8::1 2001:db8::2", "while this node's role is solo");
    warns("ha set --role primary --port 4647", "travel to IPv4 partners only");
    must("heartbeat rm 2001:db8::1 2001:db8::2");
    warns("ha set --role primary", "no heartbeat is configured");
    warns("heartbeat add 10.9.0.1 10.9.0.2", "no interface that the daemon knows has the address");
    must("interface add eth1 --mac 02:00:00:00:00:01 --mtu 1500");
    must("address add eth1 10.9.0.1/24");
    must("executor set --client-gateway 10.9.0.9");
    must("cluster add 10.9.0.100");
    must("port add 10.9.0.100:80 --algorithm connection --stale-timeout 2h");
    must("port add 10.9.0.100:81 --algorithm conn-affin --replication connections --stale-timeout "
         "2h --sticky-time 640s");
    must("port add 10.9.0.100:82 --algorithm affinity --replication connections --sticky-time 2h");
    must("port add 10.9.0.100:83 --algorithm hash");
    warns("show", "port 10.9.0.100:80: at a takeover its connections end, because they are not "
                  "replicated; vellbctl port set 10.9.0.100:80 --replication connections");
    warns("show", "port 10.9.0.100:81: at a takeover its clients get new servers, because they are "
                  "not replicated; vellbctl port set 10.9.0.100:81 --replication both");
    warns("show", "vellbctl port set 10.9.0.100:82 --replication affinity");
    must("port set 10.9.0.100:80 --replication both");
    must("port set 10.9.0.100:81 --replication both");
    must("port set 10.9.0.100:82 --replication affinity");
    warns("show", "vellbctl port set 10.9.0.100:81 --sticky-time 700s or more");
    must("port set 10.9.0.100:81 --sticky-time 641s");
    EXPECT_EQ(run("show").err, "");
    EXPECT_EQ(run("ha set --role backup").err, "");
    must("ha set --role solo");
    warns("ha set --role backup", "set the role before the clusters are added");
    warns("heartbeat add 10.9.0.1 10.9.0.100", "because it is a cluster's address");
}

TEST_F(vellbctl_ha, tables_and_documents)
{
    must("ha set --role primary --port 4647 --replication connections --reach 10.0.0.1");
    must("heartbeat add 10.9.0.1 10.9.0.2");
    read_state(LBHA_STATE_STANDBY);
    read_neighbour(LBNEIGH_STATE_RXOK);
    EXPECT_EQ(run("heartbeat show").out, "HEARTBEAT FROM  TO PARTNER  NEIGHBOUR\n"
                                         "10.9.0.1        10.9.0.2    reachable\n");
    const std::string shown = run("ha show").out;
    for (const char *line :
         {"role             primary\n", "state            standby\n",
          "substate         undefined\n", "last event       not recorded\n",
          "takeover         manual\n", "replication      connections\n", "heartbeat port   4647\n",
          "reach addresses  10.0.0.1\n", "10.9.0.2    reachable\n"}) {
        EXPECT_NE(shown.find(line), std::string::npos) << line << " in\n" << shown;
    }
    const auto ha = nlohmann::json::parse(run("ha show --json").out).at("high_availability");
    EXPECT_EQ(ha.at("state"), "standby");
    EXPECT_EQ(ha.at("reach_addresses"), nlohmann::json::array({"10.0.0.1"}));
    EXPECT_EQ(ha.at("heartbeats").at(0).at("neighbour"), "reachable");
    EXPECT_EQ(nlohmann::json::parse(run("show --json").out).at("executor").at("high_availability"),
              ha);
    EXPECT_EQ(nlohmann::json::parse(run("heartbeat show --json").out).at("heartbeats"),
              ha.at("heartbeats"));
    EXPECT_NE(run("show").out.find("10.9.0.2    reachable"), std::string::npos);
}

TEST_F(vellbctl_ha, watching_tells_since_when_states_are_seen)
{
    must("ha set --role primary --port 4647");
    must("heartbeat add 10.9.0.1 10.9.0.2");
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
    void SetUp() override
    {
        for (const char *line :
             {"interface add eth0 --mac 02:00:00:00:00:01 --mtu 1500",
              "address add eth0 10.0.0.1/24", "executor set --client-gateway 10.0.0.254",
              "cluster add 10.0.0.100 --id www", "port add 10.0.0.100:80 --stale-timeout 6400",
              "server add 10.0.0.100:80 10.0.0.11 --weight 3 --id one",
              "server add 10.0.0.100:80 10.0.0.12 --weight 2 --quiesced on"}) {
            must(line);
        }
        read_server(11, LBNEIGH_STATE_RXOK, 1000);
        read_server(12, LBNEIGH_STATE_DEAD | LBNEIGH_STATEMOD_SERVERSDOWN, 500);
    }

    void read_server(int last, int state, lb_u64_t forwarded)
    {
        const auto address = ip(("10.0.0." + std::to_string(last)).c_str());
        auto object =
            daemon.at(LBCMD_KEYTYPE_CONFIG, vellb::server_key(ip("10.0.0.100"), 80, address));
        lbsrv_getable_t readings{};
        readings.neighstate = static_cast<lb_u8_t>(state);
        readings.ipstats.fwd = forwarded;
        object.getable = vellb::bytes_of(readings);
        daemon.put(object);
    }
};

TEST_F(vellbctl_show, tables)
{
    EXPECT_EQ(run("server show").out,
              "PORT           SERVER     WEIGHT  SHARE  NEIGHBOUR           FORWARDED  ERRORS  "
              "FORWARDING  NOTES\n"
              "10.0.0.100:80  10.0.0.11       3    60%  reachable                1000       0  "
              "direct      one\n"
              "10.0.0.100:80  10.0.0.12       2    40%  dead, servers down        500       0  "
              "direct      quiesced\n");
    EXPECT_EQ(
        run("port show").out,
        "PORT           TCP   UDP    SERVERS     STALE  STICKY  FORWARDED  DISCARDED  ERRORS\n"
        "10.0.0.100:80  hash  udprr        2  1h46m40s       -          0          0       0\n");
    EXPECT_EQ(run("interface show").out,
              "INTERFACE  MAC                 MTU  UP   ARP  KIND       ADDRESSES\n"
              "eth0       02:00:00:00:00:01  1500  yes  yes  broadcast  10.0.0.1/24\n");
    EXPECT_EQ(run("address show eth0").out, "INTERFACE  ADDRESS      PEER\n"
                                            "eth0       10.0.0.1/24  none\n");
    EXPECT_EQ(run("server show 10.0.0.100:80 10.0.0.12").out.find("10.0.0.11 "), std::string::npos);
}

TEST_F(vellbctl_show, the_whole_picture)
{
    const result_t got = run("show");
    EXPECT_EQ(got.err, "");
    for (const char *part :
         {"vellb2 1.2.3 Test, up ", "client gateway       10.0.0.254 (none)",
          "log mask             0x200 failures", "high availability    solo", "PROTOCOL  RECEIVED",
          "CLUSTER     ID   PORTS", "10.0.0.100  www      1", "10.0.0.100:80  hash",
          "dead, servers down", "eth0       02:00:00:00:00:01"}) {
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
    const auto whole = nlohmann::json::parse(run("show --json").out);
    EXPECT_EQ(whole.at("executor").at("version"), "1.2.3 Test");
    EXPECT_EQ(whole.at("executor").at("log_mask"), 0x200);
    EXPECT_EQ(whole.at("executor").at("client_gateway").at("address"), "10.0.0.254");
    EXPECT_EQ(whole.at("executor").at("client_gateway_ipv6"), nullptr);
    const auto server = whole.at("clusters").at(0).at("ports").at(0).at("servers").at(1);
    EXPECT_EQ(server.at("server"), "10.0.0.12");
    EXPECT_EQ(server.at("weight"), 2);
    EXPECT_EQ(server.at("neighbour"), "dead, servers down");
    EXPECT_EQ(server.at("counters").at("forwarded"), 500);
    EXPECT_EQ(whole.at("interfaces").at(0).at("addresses").at(0).at("prefix"), 24);
    EXPECT_EQ(nlohmann::json::parse(run("server show --json").out).at("servers").at(0),
              whole.at("clusters").at(0).at("ports").at(0).at("servers").at(0));
    EXPECT_EQ(nlohmann::json::parse(run("port show --json").out).at("ports").size(), 1U);
    EXPECT_EQ(nlohmann::json::parse(run("address show --json").out).at("addresses").size(), 1U);
    EXPECT_EQ(nlohmann::json::parse(run("cluster show 10.0.0.100 --json").out)
                  .at("clusters")
                  .at(0)
                  .at("id"),
              "www");
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

TEST_F(vellbctl_show, watching_shows_rates)
{
    // The counter grows by 100 with every look at it.
    lb_u64_t count = 1000;
    daemon.lie = [&](lbcmd_buf_t &b) {
        if (b.hdr.key.cfg.server.nboaddr.v4[3] == 11) {
            count += 100;
            memcpy(b._x + b.hdr.addsize + b.hdr.setsize + offsetof(lbsrv_getable_t, ipstats.fwd),
                   &count, sizeof(count));
        }
    };
    const result_t got = run("server show -w 0.1 --count 3");
    EXPECT_EQ(got.status, 0) << got.err;
    std::istringstream lines(got.out);
    std::vector<std::string> rates;
    for (std::string line; std::getline(lines, line);) {
        const auto words = split(line);
        if (words.size() > 7 && words[1] == "10.0.0.11") {
            rates.push_back(words[7]);
        }
    }
    // The first picture has nothing to compare with, and so no such column.
    ASSERT_EQ(rates.size(), 3U) << got.out;
    EXPECT_EQ(rates[0], "direct");
    EXPECT_GT(std::stoi(rates[1]), 100);
    EXPECT_LE(std::stoi(rates[1]), 1100);
    EXPECT_EQ(split(got.out).at(6), "ERRORS");
}

TEST_F(vellbctl_show, watching_as_json_is_a_document_a_line)
{
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
