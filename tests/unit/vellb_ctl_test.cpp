// vellbctl: the conversations of tests/vellbctl, and what cannot be written down beforehand.
#include <regex>

#include "prot/neighstate.h"
#include "vellbctl_fixture.h"

namespace
{

// Each NAME.talk is a conversation with a daemon that is empty at its beginning. A line that begins
// with "$" is a command; behind it stands all that it says, "-> " and each change that the daemon
// carried out, and "[status]" if that is not 0. How long it is up is left out. What is misused is
// told how to be used: that part is left out. Lines that begin with "# " are for readers.
class vellbctl_talk : public vellbctl_test, public testing::WithParamInterface<const char *>
{
  protected:
    void SetUp() override
    {
        vellbctl_test::SetUp();
        // What the daemon would have counted, of objects that the conversations make.
        lbexe_getable_t executor{};
        executor.ha.state = LBHA_STATE_STANDBY;
        std::string("1.2.3 Test").copy(executor.version, sizeof(executor.version));
        lbsrv_getable_t reachable{};
        reachable.neighstate = LBNEIGH_STATE_RXOK;
        reachable.ipstats.fwd = 1000;
        reachable.selstats = {1, 20, 3, 400};
        lbsrv_getable_t dead = reachable;
        dead.neighstate = LBNEIGH_STATE_DEAD | LBNEIGH_STATEMOD_SERVERSDOWN;
        dead.ipstats.fwd = 500;
        const lb_u8_t partner[4] = {LBNEIGH_STATE_RXOK};
        daemon.readings = {
            {stack::cfgkey(), vellb::bytes_of(executor)},
            {stack::cfgkey("10.0.0.100", 80, "10.0.0.11"), vellb::bytes_of(reachable)},
            {stack::cfgkey("10.0.0.100", 80, "10.0.0.12"), vellb::bytes_of(dead)},
            {stack::cfgkey("10.0.0.100", 80, "", 5), vellb::bytes_of(lbrul_getable_t{1234})},
            {stack::cfgkey("10.9.0.1", 0, "10.9.0.2"), vellb::bytes_of(partner)}};
    }

    std::string said(const std::string &command)
    {
        daemon.changes.clear();
        const result_t got = run(command);
        const size_t usage = got.err.find("usage: vellbctl");
        EXPECT_TRUE(got.status != 2 || got.err.empty() || usage != got.err.npos) << command;
        std::string text = got.out + got.err.substr(0, usage);
        EXPECT_EQ(text.find('\033'), std::string::npos) << "colours are for terminals";
        for (const std::string &change : daemon.changes) {
            text += "-> " + change + "\n";
        }
        static const std::regex up("(up |\"up_s\": )[0-9][0-9dhms]*");
        text = std::regex_replace(text, up, "$1...");
        return text + (got.status == 0 ? "" : fmt::format("[{}]\n", got.status));
    }
};

TEST_P(vellbctl_talk, goes_as_written)
{
    const auto path = std::filesystem::path(VELL_CONFIG_FILES) / "../vellbctl" / GetParam();
    std::istringstream lines(content(path));
    std::string text;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# ")) {
            text += line + "\n";
        } else if (line.starts_with("$")) {
            text += line + "\n" + said(line.substr(1));
        }
    }
    ASSERT_NE(text, "") << path;
    expect_golden(path, text);
}

INSTANTIATE_TEST_SUITE_P(all, vellbctl_talk,
                         testing::Values("words.talk", "texts.talk", "objects.talk",
                                         "surprises.talk", "pair.talk", "pictures.talk"));

TEST_F(vellbctl_test, help_and_completion)
{
    for (const char *line : {"--help", "-h", "help cluster", "--version"}) {
        const result_t got = run(line);
        EXPECT_TRUE(got.status == 0 && !got.out.empty() && got.err.empty()) << line << got.err;
    }
    EXPECT_EQ(run("--complete").out.substr(0, 14), "show\nexecutor\n");
    EXPECT_NE(run("--complete server add 10.0.0.1:80").out.find("--weight\n"), std::string::npos);
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

TEST_F(vellbctl_test, no_answer_is_status_3_and_a_failure_is_explained)
{
    daemon.refuse = [](const lbcmd_bufhdr_t &hdr) -> unsigned {
        return hdr.action == LBCMD_ACTION_ADD ? LBCMD_RC_FAILURE : 0;
    };
    EXPECT_EQ(run("cluster add 2001:db8::1").err,
              "refused: FAILURE (10): the daemon could not add cluster 2001:db8::1; the daemon's "
              "log says why (failures are logged unless its log mask hides them)\n");
    daemon.lie = [](lbcmd_buf_t &b) { b.hdr.setsize = 65535; };
    EXPECT_EQ(run("show").status, 3);
    EXPECT_NE(run("show").err.find("no usable answer: "), std::string::npos);
    daemon.stop();
    const result_t gone = run("show --json");
    EXPECT_EQ(gone.status, 3);
    EXPECT_EQ(nlohmann::json::parse(gone.out).at("error").at("name"), "UNREACHABLE");
}

TEST_F(vellbctl_test, a_takeover_is_done_when_the_node_is_active)
{
    must({"ha set --role backup --port 4647"});
    lbexe_getable_t readings{};
    readings.ha.state = LBHA_STATE_STANDBY;
    daemon.readings = {{stack::cfgkey(), vellb::bytes_of(readings)}};
    EXPECT_NE(run("ha takeover").err.find("not done: this node took over and yielded again"),
              std::string::npos);
    daemon.readings = {};
    EXPECT_EQ(json("ha takeover").at("state"), "active") << "it was asked to";
}

// --- Pictures ------------------------------------------------------------------------------------

TEST_F(vellbctl_test, bytes_that_are_no_text_break_no_document)
{
    must({"cluster add 10.0.0.100"});
    lbclu_setable_t garbage{};
    memset(garbage.clusterid, 0xFF, sizeof(garbage.clusterid));
    ASSERT_ADDED(set(LBCMD_KEYTYPE_CONFIG, stack::cfgkey("10.0.0.100"), garbage));
    EXPECT_EQ(run("show").status, 0);
    EXPECT_TRUE(nlohmann::json::accept(run("show --json").out));
}

TEST_F(vellbctl_test, parts_of_the_picture_are_as_in_the_whole)
{
    must({"interface add eth0 --mac 02:00:00:00:00:01 --mtu 1500", "address add eth0 10.0.0.1/24",
          "cluster add 10.0.0.100", "port add 10.0.0.100:80", "server add 10.0.0.100:80 10.0.0.11",
          "rule add 10.0.0.100:80 5 --type true", "use-server add 10.0.0.100:80 5 10.0.0.11",
          "heartbeat add 10.9.0.1 10.9.0.2"});
    const auto whole = json("show");
    const auto &port = whole.at("clusters").at(0).at("ports").at(0);
    EXPECT_EQ(json("cluster show").at("clusters"), whole.at("clusters"));
    EXPECT_EQ(json("port show").at("ports").at(0), port);
    EXPECT_EQ(json("rule show").at("rules"), port.at("rules"));
    EXPECT_EQ(json("use-server show").at("use_servers").at(0).at("server"), "10.0.0.11");
    EXPECT_EQ(json("interface show").at("interfaces"), whole.at("interfaces"));
    EXPECT_EQ(json("address show").at("addresses").size(), 1U);
    EXPECT_EQ(json("heartbeat show").at("heartbeats"),
              whole.at("executor").at("high_availability").at("heartbeats"));
}

TEST_F(vellbctl_test, watching_tells_since_when_states_are_seen)
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

TEST_F(vellbctl_test, watching_shows_rates_and_as_json_a_document_a_line)
{
    must({"cluster add 10.0.0.100", "port add 10.0.0.100:80",
          "server add 10.0.0.100:80 10.0.0.11 --weight 3"});
    // The counter grows by 100 with every look at it.
    lb_u64_t count = 1000;
    daemon.lie = [&](lbcmd_buf_t &b) {
        if (b.hdr.key.cfg.rule == 0 && b.hdr.key.cfg.server.nboaddr.v4[3] == 11) {
            count += 100;
            memcpy(b._x + b.hdr.addsize + b.hdr.setsize + offsetof(lbsrv_getable_t, ipstats.fwd),
                   &count, sizeof(count));
        }
    };
    // The first picture has nothing to compare with, and so no such column.
    const std::regex row("10.0.0.11 +3 +100% +.* +[0-9]+ +0 +direct[^]* 0 +([0-9]+) +direct");
    const std::string out = run("server show -w 0.1 --count 2").out;
    std::smatch rate;
    ASSERT_TRUE(std::regex_search(out, rate, row)) << out;
    EXPECT_GT(std::stoi(rate[1]), 100);
    EXPECT_LE(std::stoi(rate[1]), 1100);
    const auto pictures = documents("show -w 0.1 --count 2");
    ASSERT_EQ(pictures.size(), 2U);
    const auto counters = [&](size_t i) { return pictures[i]["executor"]["counters"]["ipv4"]; };
    EXPECT_FALSE(counters(0).contains("received_per_s"));
    EXPECT_EQ(counters(1).at("received_per_s"), 0);
}

} // namespace
