// Rules, use-servers and connection counts as vellbctl takes and shows them, against a stand-in for
// the daemon.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

#include "app.h"
#include "vellb_fake_daemon.h"

namespace
{

const lbip_addr_t CLUSTER = *vellb::parse_address("10.0.0.100");

struct result_t {
    int status = -1;
    std::string out{};
    std::string err{};
};

class vellbctl_rules : public testing::Test
{
  protected:
    result_t run(const std::string &line)
    {
        std::istringstream words("--socket " + daemon.path() + " " + line);
        std::ostringstream out;
        std::ostringstream err;
        const int status =
            vellbctl::run({std::istream_iterator<std::string>(words), {}}, {out, err, false});
        return {status, out.str(), err.str()};
    }
    void must(const std::string &line)
    {
        const result_t got = run(line);
        ASSERT_EQ(got.status, 0) << line << ": " << got.err << got.out;
    }
    // A port with servers 11 (weight 3) and 12 (weight 0).
    void SetUp() override
    {
        must("cluster add 10.0.0.100");
        must("port add 10.0.0.100:80 --algorithm connection");
        must("server add 10.0.0.100:80 10.0.0.11 --weight 3");
        must("server add 10.0.0.100:80 10.0.0.12 --weight 0");
    }
    lbrul_setable_t rule(lb_u16_t number)
    {
        return vellb::block_of<lbrul_setable_t>(
            daemon.at(LBCMD_KEYTYPE_CONFIG, vellb::rule_key(CLUSTER, 80, number)).setable, "");
    }
    // What the daemon would have counted.
    template <class B> void read(const lbcmd_key_t &key, const B &readings)
    {
        auto object = daemon.at(LBCMD_KEYTYPE_CONFIG, key);
        object.getable = vellb::bytes_of(readings);
        daemon.put(object);
    }

    fake_daemon daemon;
};

TEST_F(vellbctl_rules, wrong_words_are_named)
{
    const char *const rows[][2] = {
        {"rule add 10.0.0.100:80 5", "--type is required"},
        {"rule add 10.0.0.100:80 0 --type true", "RULE: '0' is not a number from 1 to 65535"},
        {"rule add 10.0.0.100:80 65536 --type true", "'65536' is not a number"},
        {"rule add 10.0.0.100:80 5 --type ture", "(did you mean 'true'?)"},
        {"rule add 10.0.0.100:80 5 --type port-active", "--range is missing"},
        {"rule add 10.0.0.100:80 5 --type true --range 1-2",
         "--range goes with --type port-active"},
        {"rule add 10.0.0.100:80 5 --type port-active --range 20-10", "ends before it begins"},
        {"rule add 10.0.0.100:80 5 --type port-active --range 10", "'10' is not a range"},
        {"rule add 10.0.0.100:80 5 --type port-active --range -10", "'-10' is not a range"},
        {"rule add 10.0.0.100:80 5 --type port-active --range 1-4294967296", "is not a range"},
        {"rule set 10.0.0.100:80 5", "nothing to set"},
        {"use-server add 10.0.0.100:80 5", "SERVER is required"},
        {"use-server set 10.0.0.100:80 5 10.0.0.11", "unknown command 'set' after 'use-server'"},
    };
    for (const auto &[line, message] : rows) {
        const result_t got = run(line);
        EXPECT_EQ(got.status, 2) << line;
        EXPECT_NE(got.err.find(message), std::string::npos) << line << ": " << got.err;
        EXPECT_NE(got.err.find("usage: vellbctl "), std::string::npos) << line << ": " << got.err;
    }
    EXPECT_FALSE(daemon.has(LBCMD_KEYTYPE_CONFIG, vellb::rule_key(CLUSTER, 80, 5)));
}

TEST_F(vellbctl_rules, come_and_go)
{
    must("rule add 10.0.0.100:80 5 --type port-active --range 10-20 --name night");
    EXPECT_EQ(rule(5).type, LBRUL_TYPE_PORTACTIVE);
    EXPECT_EQ(rule(5).beginrange, 10U);
    EXPECT_EQ(rule(5).endrange, 20U);
    must("rule set 10.0.0.100:80 5 --range 7-");
    EXPECT_EQ(rule(5).type, LBRUL_TYPE_PORTACTIVE);
    EXPECT_EQ(rule(5).beginrange, 7U);
    EXPECT_EQ(rule(5).endrange, 0xFFFFFFFF);
    EXPECT_STREQ(reinterpret_cast<const char *>(rule(5).name), "night");
    EXPECT_EQ(run("use-server add 10.0.0.100:80 5 10.0.0.11").out,
              "added use-server 10.0.0.11 of rule 5 of port 10.0.0.100:80\n");
    const auto used = vellb::useserver_key(CLUSTER, 80, 5, *vellb::parse_address("10.0.0.11"));
    EXPECT_TRUE(daemon.has(LBCMD_KEYTYPE_CONFIG, used));
    EXPECT_EQ(run("server rm 10.0.0.100:80 10.0.0.11").err,
              "refused: HASCHILD (7): server 10.0.0.11 of port 10.0.0.100:80 still has objects "
              "below it; remove those first, or all at once: vellbctl server rm 10.0.0.100:80 "
              "10.0.0.11 --recursive\n");
    EXPECT_EQ(run("rule rm 10.0.0.100:80 5").status, 1);
    must("use-server rm 10.0.0.100:80 5 10.0.0.11");
    must("use-server add 10.0.0.100:80 5 10.0.0.12");
    EXPECT_EQ(run("rule rm 10.0.0.100:80 5 --recursive").out,
              "removed, with 1 below it, rule 5 of port 10.0.0.100:80\n");
    must("rule add 10.0.0.100:80 6 --type true");
    must("use-server add 10.0.0.100:80 6 10.0.0.11");
    must("cluster rm 10.0.0.100 --recursive");
}

TEST_F(vellbctl_rules, refusals_say_what_to_do)
{
    const char *const rows[][2] = {
        {"rule add 10.0.0.100:81 5 --type true",
         "refused: PARENTDNE (5): port 10.0.0.100:81 does not exist; add it first: vellbctl port "
         "add 10.0.0.100:81\n"},
        {"use-server add 10.0.0.100:80 9 10.0.0.11",
         "refused: PARENTDNE (5): rule 9 of port 10.0.0.100:80 does not exist; add it first: "
         "vellbctl rule add 10.0.0.100:80 9\n"},
        {"rule show 10.0.0.100:80 9",
         "refused: OBJNOTFOUND (6): rule 9 of port 10.0.0.100:80 does not exist; see what there "
         "is: vellbctl rule show\n"},
    };
    for (const auto &[line, message] : rows) {
        const result_t got = run(line);
        EXPECT_EQ(got.status, 1) << line;
        EXPECT_EQ(got.err, message) << line;
    }
    daemon.refuse = [](const lbcmd_bufhdr_t &hdr) -> unsigned {
        return hdr.action == LBCMD_ACTION_ADD ? LBCMD_RC_NOPARENT : 0;
    };
    EXPECT_EQ(run("use-server add 10.0.0.100:80 5 10.0.0.14").err,
              "refused: NOPARENT (3): server 10.0.0.14 of port 10.0.0.100:80 does not exist; add "
              "it first: vellbctl server add 10.0.0.100:80 10.0.0.14\n");
}

TEST_F(vellbctl_rules, surprises_are_told)
{
    EXPECT_NE(run("rule add 10.0.0.100:80 5 --type true").err.find("what it fires for is dropped"),
              std::string::npos);
    EXPECT_NE(run("use-server add 10.0.0.100:80 5 10.0.0.12")
                  .err.find("rule 5 of port "
                            "10.0.0.100:80 never fires"),
              std::string::npos);
    EXPECT_EQ(run("use-server add 10.0.0.100:80 5 10.0.0.11").err, "");
    must("port add 10.0.0.100:81 --algorithm hash");
    must("server add 10.0.0.100:81 10.0.0.11");
    const std::string add = "rule add 10.0.0.100:81 1 --type rule-active --range ";
    EXPECT_NE(run(add + "1-").err.find("with algorithm hash the port counts none: it never fires"),
              std::string::npos);
    must("rule rm 10.0.0.100:81 1");
    EXPECT_NE(run(add + "0-5").err.find("it always fires"), std::string::npos);
}

TEST_F(vellbctl_rules, tables)
{
    must("rule add 10.0.0.100:80 9 --type true --name rest");
    must("rule add 10.0.0.100:80 5 --type rule-active --range 0-100");
    must("use-server add 10.0.0.100:80 5 10.0.0.12");
    must("use-server add 10.0.0.100:80 5 10.0.0.11");
    read(vellb::rule_key(CLUSTER, 80, 5), lbrul_getable_t{1234});
    const std::string table =
        "PORT           RULE  TYPE         CONNECTIONS  USES                 FIRED  NAME\n"
        "10.0.0.100:80     5  rule-active        0-100  10.0.0.12 10.0.0.11   1234  \n"
        "10.0.0.100:80     9  true                   -  nothing: drops           0  rest\n";
    const auto without_trailing = [](std::string text) {
        for (size_t at; (at = text.find(" \n")) != std::string::npos;) {
            text.erase(at, 1);
        }
        return text;
    };
    EXPECT_EQ(without_trailing(run("rule show").out), without_trailing(table));
    EXPECT_NE(run("show").out.find("nothing: drops"), std::string::npos);
    EXPECT_EQ(run("rule show 10.0.0.100:80 5").out.find("rest"), std::string::npos);
    EXPECT_EQ(run("use-server show 10.0.0.100:80").out, "PORT           RULE  SERVER\n"
                                                        "10.0.0.100:80     5  10.0.0.12\n"
                                                        "10.0.0.100:80     5  10.0.0.11\n");
    must("rule rm 10.0.0.100:80 5 --recursive");
    must("rule rm 10.0.0.100:80 9");
    EXPECT_EQ(run("rule show").out, "no rules\n");
    EXPECT_EQ(run("show").out.find("no rules"), std::string::npos);
}

TEST_F(vellbctl_rules, documents)
{
    must("rule add 10.0.0.100:80 5 --type port-active --range 3-");
    must("use-server add 10.0.0.100:80 5 10.0.0.11");
    read(vellb::rule_key(CLUSTER, 80, 5), lbrul_getable_t{7});
    const auto rules = nlohmann::json::parse(run("rule show --json").out).at("rules");
    ASSERT_EQ(rules.size(), 1U);
    EXPECT_EQ(rules[0].at("type"), "port-active");
    EXPECT_EQ(rules[0].at("from"), 3);
    EXPECT_EQ(rules[0].at("to"), 0xFFFFFFFF);
    EXPECT_EQ(rules[0].at("fired"), 7);
    EXPECT_EQ(rules[0].at("servers").at(0), "10.0.0.11");
    const auto whole = nlohmann::json::parse(run("show --json").out);
    EXPECT_EQ(whole.at("clusters").at(0).at("ports").at(0).at("rules"), rules);
    EXPECT_EQ(nlohmann::json::parse(run("port show 10.0.0.100:80 --json").out)
                  .at("ports")
                  .at(0)
                  .at("rules"),
              rules);
    const auto used = nlohmann::json::parse(run("use-server show --json").out).at("use_servers");
    EXPECT_EQ(used.at(0).at("rule"), 5);
    EXPECT_EQ(used.at(0).at("server"), "10.0.0.11");
}

TEST_F(vellbctl_rules, connections_are_counted_by_server_and_state)
{
    lbsrv_getable_t readings{};
    readings.selstats = {1, 20, 3, 400};
    for (const char *server : {"10.0.0.11", "10.0.0.12"}) {
        read(vellb::server_key(CLUSTER, 80, *vellb::parse_address(server)), readings);
    }
    const std::string table = "PORT           SERVER     OPENING  ACTIVE  CLOSING  SO FAR\n"
                              "10.0.0.100:80  10.0.0.11        1      20        3     400\n"
                              "10.0.0.100:80  10.0.0.12        1      20        3     400\n";
    for (const char *line : {"show", "server show", "port show 10.0.0.100:80"}) {
        EXPECT_NE(run(line).out.find(table), std::string::npos) << line << run(line).out;
    }
    const auto port = nlohmann::json::parse(run("port show --json").out).at("ports").at(0);
    EXPECT_EQ(port.at("connections").at("active"), 40);
    EXPECT_EQ(port.at("servers").at(1).at("connections").at("so_far"), 400);
    must("cluster rm 10.0.0.100 --recursive");
    must("cluster add 10.0.0.100");
    must("port add 10.0.0.100:80 --algorithm hash");
    must("server add 10.0.0.100:80 10.0.0.11");
    EXPECT_EQ(run("server show").out.find("OPENING"), std::string::npos) << "none are kept";
}

} // namespace
