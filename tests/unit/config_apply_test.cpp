// The configuration's commands meeting a daemon that others use too, and the program that sends
// them once; files on disk; the limits that only many objects reach.
#include <sys/stat.h>

#include <fstream>

#include "vellbctl_fixture.h"
#include "vellcfg/apply.h"
#include "vellcfg/check.h"
#include "vellcfg/diff.h"
#include "vellcfg/normalise.h"
#include "vellcfg/reader.h"

namespace
{

constexpr const char *WEB = R"(
interfaces: []
clusters:
  - address: 10.0.0.100
    ports:
      - {port: 80, servers: [{address: 10.0.0.11, weight: 5}, 10.0.0.12, 10.0.0.13]}
)";

class config_apply : public vellbctl_test
{
  protected:
    vellcfg::plan plan_for(const std::string &text)
    {
        const auto read = vellcfg::read_texts({{"f", text}});
        EXPECT_TRUE(read.errors.empty());
        return diff(vellcfg::normalised(read.wanted), vellb::read_picture(client));
    }
    // As another program would.
    void set_weight(lb_u16_t weight)
    {
        set_server("10.0.0.100", 80, "10.0.0.11", [&](lbsrv_setable_t &block) {
            block.weight = weight;
            block.cps = 77;
        });
    }

    vellb::client client{daemon.path()};
};

TEST_F(config_apply, a_second_writer_is_named_and_its_own_fields_are_kept)
{
    ASSERT_TRUE(vellcfg::apply(client, plan_for(WEB).steps).complete());
    set_weight(3);
    const auto plan = plan_for(WEB);
    ASSERT_EQ(plan.steps.size(), 1U);
    EXPECT_EQ(plan.steps[0].text, "vellbctl server set 10.0.0.100:80 10.0.0.11 --weight 5");
    set_weight(4); // after the difference
    const auto early = vellcfg::apply(client, plan.steps);
    EXPECT_EQ(early.interference,
              std::vector<std::string>{"server 10.0.0.11 of port 10.0.0.100:80 was changed by "
                                       "another program meanwhile: --weight 4"});
    const auto now = get_server("10.0.0.100", 80, "10.0.0.11").setable;
    EXPECT_EQ(now.weight, 5);
    EXPECT_EQ(now.cps, 77U);

    set_weight(3);
    const auto again = plan_for(WEB);
    bool set = false;
    daemon.lie = [&](lbcmd_buf_t &b) {
        set = set || b.hdr.action == LBCMD_ACTION_SET;
        if (set && b.hdr.action == LBCMD_ACTION_GET) {
            b._x[sizeof(lbsrv_addable_t) + offsetof(lbsrv_setable_t, weight)] = 6;
        }
    };
    const auto late = vellcfg::apply(client, again.steps);
    ASSERT_EQ(late.interference.size(), 1U);
    EXPECT_NE(late.interference[0].find("does not hold what was just written, but --weight 6"),
              std::string::npos)
        << late.interference[0];
}

TEST_F(config_apply, what_somebody_removed_is_told_and_a_refusal_stops)
{
    const auto plan = plan_for(WEB);
    daemon.refuse = [](const lbcmd_bufhdr_t &hdr) -> unsigned {
        return hdr.action == LBCMD_ACTION_ADD && hdr.key.cfg.server.nboaddr.v4[3] == 12
                   ? LBCMD_RC_FAILURE
                   : 0;
    };
    const auto refused = vellcfg::apply(client, plan.steps);
    ASSERT_TRUE(refused.failure);
    EXPECT_EQ(refused.failure->code(), static_cast<unsigned>(LBCMD_RC_FAILURE));
    EXPECT_EQ(refused.done, 3U);
    EXPECT_EQ(get_server("10.0.0.100", 80, "10.0.0.13").rc, LBCMD_RC_OBJNOTFOUND);

    daemon.refuse = {};
    const auto removal = plan_for("interfaces: []");
    ASSERT_ADDED(rm_server("10.0.0.100", 80, "10.0.0.11"));
    const auto gone = vellcfg::apply(client, removal.steps);
    EXPECT_TRUE(gone.complete());
    EXPECT_EQ(gone.interference,
              std::vector<std::string>{"server 10.0.0.11 of port 10.0.0.100:80 was removed by "
                                       "another program meanwhile"});
}

TEST_F(config_apply, the_watcher_sees_every_step_and_may_stop)
{
    const auto plan = plan_for(WEB);
    std::string seen;
    const auto result = vellcfg::apply(client, plan.steps, [&](const vellcfg::progress &at) {
        seen += std::to_string(at.done) + "/" + std::to_string(at.total) + " ";
        return at.done < 2;
    });
    EXPECT_TRUE(result.stopped && !result.complete());
    EXPECT_EQ(seen, "0/5 1/5 2/5 ");
    EXPECT_EQ(daemon.changes.size(), 2U);
}

TEST_F(config_apply, vellbctl_checks_differs_applies_and_exports)
{
    const std::string file = daemon.directory() + "/web.yaml";
    const struct {
        std::string line, text;
        int status;
        std::string said;
    } rows[] = {
        {"check", WEB, 0, file + ": no errors"},
        {"apply --dry-run", WEB, 0, "\nvellbctl server add 10.0.0.100:80 10.0.0.13"},
        {"apply", WEB, 0, "done: 5 commands"}, // so the dry run did none
        {"diff", WEB, 0, "# nothing to do"},
        {"apply", "clusters: [{address: 10.0.0.300}]\n", 1,
         file + ":1:22: address: '10.0.0.300' is not an"},
        {"check --json", "clusters: [{address: 10.0.0.300}]\n", 1, "\"reasons\": ["},
    };
    for (const auto &row : rows) {
        std::ofstream(file) << row.text;
        const result_t got = run(row.line + " -f " + file);
        EXPECT_EQ(got.status, row.status) << row.line;
        EXPECT_NE((got.out + got.err).find(row.said), std::string::npos) << got.out << got.err;
    }
    const std::string text = run("export").out;
    EXPECT_NE(text.find("      - port: 80\n        algorithm: hash\n"), std::string::npos) << text;
}

TEST(config_diff, what_stands_behind_an_address_is_no_difference)
{
    const auto wanted = vellcfg::normalised(vellcfg::read_texts({{"f", WEB}}).wanted);
    vellb::picture there = wanted;
    lbip_addr_t &untidy = there.clusters[0].ports[0].servers[1].address;
    untidy.nboaddr.v6[9] = 0xAA;
    untidy.prefix = 24;
    EXPECT_TRUE(diff(wanted, there).empty());
}

TEST(config_files, conf_d_follows_the_file_in_lexical_order)
{
    const scratch_directory place;
    const auto write = [&](const std::string &file, const std::string &text) {
        std::ofstream(place.path + "/" + file) << text;
    };
    // The number of errors, and the first.
    const auto expect_error = [&](const char *file, size_t errors, const std::string &message) {
        const auto read = vellcfg::read_files(place.path + "/" + file);
        ASSERT_EQ(read.errors.size(), errors) << message;
        EXPECT_NE(finding_text(read.errors[0]).find(message), std::string::npos)
            << finding_text(read.errors[0]);
    };
    const std::string conf_d = place.path + "/conf.d";
    std::filesystem::create_directory(conf_d);
    write("main.yaml", "executor: {own-address: 10.0.0.1}\n");
    write("conf.d/20.yaml", "clusters: [{address: 10.0.0.120}]\n");
    write("conf.d/10.yaml", "clusters: [{address: 10.0.0.110}]\n");
    write("conf.d/15.yaml.bak", "nonsense: [\n");
    std::filesystem::create_symlink("me@here.1234", conf_d + "/.#20.yaml"); // Emacs
    const auto good = vellcfg::read_files(place.path + "/main.yaml");
    ASSERT_TRUE(good.errors.empty()) << finding_text(good.errors[0]);
    ASSERT_EQ(good.wanted.clusters.size(), 2U);
    EXPECT_EQ(vellb::address_text(good.wanted.clusters[0].address), "10.0.0.110");

    write("conf.d/30.yaml", "executor: {}\nclusters: [{address: 10.0.0.110}]\n");
    expect_error("main.yaml", 2,
                 "'executor' is there twice; the first is at " + place.path + "/main.yaml:1:11");
    expect_error("missing.yaml", 2, "missing.yaml: cannot be read: No such");
    std::filesystem::remove(conf_d + "/30.yaml");
    ASSERT_EQ(mkfifo((conf_d + "/40.yaml").c_str(), 0600), 0);
    expect_error("main.yaml", 1, "40.yaml: cannot be read: it is no regular file");
    // What cannot be listed is not gone, and must be noticed when it takes the place of nothing.
    std::filesystem::remove_all(conf_d);
    EXPECT_EQ(vellcfg::files_of(place.path + "/main.yaml").size(), 1U);
    write("conf.d", "a plain file");
    EXPECT_EQ(vellcfg::files_of(place.path + "/main.yaml").back(), conf_d);
    std::filesystem::remove(conf_d);
    std::filesystem::create_symlink("unmounted", conf_d);
    expect_error("main.yaml", 1, "/conf.d: cannot be read: No such");
}

// So many addresses of 10.`net`.0.0, with a comma behind each.
std::string hosts(int net, size_t count)
{
    std::string text;
    for (size_t i = 0; i < count; i++) {
        text += fmt::format("10.{}.{}.{}, ", net, i / 200, 1 + i % 200);
    }
    return text;
}

TEST(config_files, what_is_no_configuration_is_told_in_time_and_in_few_words)
{
    std::string deep;
    for (int i = 0; i < 10000; i++) {
        deep += "- ";
    }
    // Hundreds of rules that share a list of hundreds of strangers.
    std::string bomb = "clusters: [{address: 10.0.0.1, ports: [{port: 1, servers: [" +
                       hosts(1, 899) + "], rules: [{number: 1, use-servers: &u [" + hosts(2, 899) +
                       "]}";
    for (int i = 2; i < 200; i++) {
        bomb += fmt::format(", {{number: {}, use-servers: *u}}", i);
    }
    bomb += "]}]}]";
    const struct {
        const char *name;
        std::string text;
        const char *message;
    } rows[] = {
        {"empty", "", "f:1:1: the file says nothing"},
        {"NUL", std::string("ha:\n\0", 5), "f:2:1: the byte 0x00 is a control character"},
        {"escaped NUL", "interfaces: [\"a\\0b\"]", "f:1:14: a NUL character"},
        {"old line ends", "ha: 1\rx: 2\r", "f:1:6: the byte 0x0D stands outside"},
        {"new line ends", "clusters: []\r\nx: 2\r\n", "f:2:1: 'x' is no key of a configuration"},
        {"byte order mark", "\xEF\xBB\xBFx: 2", "f:1:1: 'x' is no key"},
        {"Latin-1", "ha: caf\xE9", "f:1:8: the byte 0xE9 is no UTF-8"},
        {"tab", "clusters:\n\t- 1\n", "f:2:2: a tab in the indentation"},
        {"merged", "executor: &x {}\nha: {<<: *x, role: solo}",
         "f:2:6: '<<' is no key of 'ha' (not"},
        {"no blank", "ha: role:solo",
         "f:1:5: 'ha' is a list of keys and values, as in: role: ...; "},
        {"open list", "interfaces: [a\nha: {}", "f:2:3: a '[' whose ']' is missing"},
        {"star", "interfaces: [*]", "f:1:15: put a word that begins with '*' into quotes"},
        {"terminal", "\"\\e[2J\\n\": 1", "f:1:1: '?[2J?' is no key"},
        {"open quote", "x: \"" + std::string(5000, 'a') + "\"", "f:1:4: this is longer than any"},
        {"unclosed quote", "clusters:\n- address: 10.0.0.1\n  id: \"web\n  ports: []\n",
         "f:3:7: a quote that is never closed"},
        {"unclosed quote in a list", "ha: {}\ninterfaces: ['a\n", "f:2:14: a quote that is never"},
        {"unclosed quote behind umlauts", "\xEF\xBB\xBFha: {role: \xC3\xBC, x: \"\xC3\xBC",
         "f:1:18: a quote that is never"},
        {"empty item",
         "clusters:\n- address: 10.0.0.1\n  ports:\n    - # one - or\n\n  # two\n  id: x",
         "f:4:5: a port is a list of keys"},
        {"empty last item", "clusters:\r\n - \r\n", "f:2:2: a cluster is a list of keys"},
        {"tab behind a dash", "clusters:\n-\taddress: x\n", "f:2:10: a tab in the indentation"},
        {"dash behind a key", "ha: - x", "f:1:5: a '- ' where no list can begin"},
        {"strange alias", "ha: *x", "f:1:5: put a word that begins with '*' into quotes"},
        {"deep list", deep, "f:1:1000: nested deeper than any"},
        {"too much", "x: [" + std::string(2000000, ',') + "]",
         "f:1:1000002: more than 1000000 keys"},
        {"wrong in many aliases", bomb, "f:1:10348: use-servers: 10.2.0.1 is no server"},
    };
    for (const auto &row : rows) {
        const auto read = vellcfg::read_texts({{"f", row.text}});
        ASSERT_FALSE(read.errors.empty()) << row.name;
        EXPECT_LE(read.errors.size(), 101U) << row.name;
        const std::string first = finding_text(read.errors[0]);
        EXPECT_EQ(first.find(row.message), 0U) << row.name << ": " << first.substr(0, 300);
    }
}

// Objects by the hundred: where the daemon looks at the first few only, and where it can list no
// more.
TEST(config_limits, what_the_daemon_does_not_reach_is_told)
{
    struct row_t {
        const char *name;
        bool pair;
        size_t clusters, ports, servers, rules;
        const char *message;
    };
    const row_t rows[] = {
        {"few", true, 100, 1, 1, 0, ""},
        {"clusters", false, 129, 0, 0, 0, "129 clusters: the 1 from here on, beyond the first 128"},
        {"announced", true, 101, 0, 0, 0, "are not announced at a takeover"},
        {"ports", false, 1, 129, 0, 0, "129 ports: the 1 from here on"},
        {"servers", false, 1, 1, 131, 0,
         "131 servers: the 3 from here on, beyond the first 128, "
         "are not weighed"},
        {"rules", false, 1, 1, 1, 129, "129 rules: the 1 from here on"},
        {"unlistable", false, 1, 1, 1000, 167, "1167 servers and rules of a port are more than"},
    };
    for (const row_t &row : rows) {
        std::string text = row.pair ? "ha: {role: primary, port: 4647, heartbeats: [{local: "
                                      "10.9.0.1, partner: 10.9.0.2}]}\nclusters:\n"
                                    : "clusters:\n";
        for (size_t c = 0; c < row.clusters; c++) {
            text += fmt::format("- {{address: 10.1.{}.{}, ports: [", c / 200, 1 + c % 200);
            for (size_t p = 1; p <= row.ports; p++) {
                text += fmt::format("{{port: {}, algorithm: connection, replication: connections, "
                                    "servers: [{}], rules: [",
                                    p, hosts(2, row.servers));
                for (size_t r = 1; r <= row.rules; r++) {
                    text += fmt::format("{{number: {}, use-servers: [10.2.0.1]}}, ", r);
                }
                text += "]}, ";
            }
            text += "]}\n";
        }
        const auto read = vellcfg::read_texts({{"f", text}});
        auto told = read.errors;
        if (told.empty()) {
            told = vellcfg::check(read.wanted, nullptr);
        }
        EXPECT_EQ(told.empty(), *row.message == '\0') << row.name;
        if (!told.empty()) {
            EXPECT_NE(told[0].text.find(row.message), std::string::npos)
                << row.name << ": " << told[0].text;
        }
    }
}

// What a takeover announces are return addresses, not the servers that have them.
TEST(config_limits, return_addresses_that_no_announced_server_has_are_told)
{
    const auto nat = [](int host, const char *source) {
        return fmt::format("{{address: 10.2.9.{}, forward: nat, return-address: {}, "
                           "router-address: 10.2.0.254}}, ",
                           host, source);
    };
    const struct {
        const char *name;
        std::string servers;
        const char *message; // empty: none
    } rows[] = {
        {"direct behind", nat(1, "10.0.0.50") + hosts(2, 100), ""},
        {"shared", nat(1, "10.0.0.50") + hosts(2, 99) + nat(2, "10.0.0.50"), ""},
        {"one", hosts(2, 100) + nat(1, "10.0.0.50") + nat(2, "10.0.0.50"),
         "return-address 10.0.0.50 is not announced at a takeover"},
        {"two", hosts(2, 100) + nat(1, "10.0.0.50") + nat(2, "10.0.0.51"),
         "return-address 10.0.0.50 and 1 more from here on are not announced"},
    };
    for (const auto &row : rows) {
        const auto read = vellcfg::read_texts(
            {{"f", "executor: {client-gateway: 10.0.0.1}\n"
                   "ha: {role: primary, port: 1, heartbeats: [{local: 10.9.0.1, partner: "
                   "10.9.0.2}]}\nclusters: [{address: 10.1.0.1, ports: [{port: 1, algorithm: "
                   "connection, replication: connections, servers: [" +
                       row.servers + "]}]}]"}});
        ASSERT_TRUE(read.errors.empty()) << finding_text(read.errors[0]);
        std::string told;
        for (const auto &each : vellcfg::check(read.wanted, nullptr)) {
            told += each.text;
        }
        EXPECT_EQ(told.substr(0, strlen(row.message)), row.message) << row.name;
        EXPECT_EQ(told.empty(), *row.message == '\0') << row.name << ": " << told;
    }
}

} // namespace
