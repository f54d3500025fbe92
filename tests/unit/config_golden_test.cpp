// tests/config: each NAME.yaml with what a person is told about it, NAME.expected: errors, or
// warnings, notes and the commands that make it of an empty daemon or of NAME.before.
// The commands are then given to vellbctl: the daemon must be as the file wants it.
#include <regex>
#include <wordexp.h>

#include "vellbctl_fixture.h"
#include "vellcfg/check.h"
#include "vellcfg/diff.h"
#include "vellcfg/normalise.h"
#include "vellcfg/reader.h"

namespace
{

namespace fs = std::filesystem;

// The machine on which the files are checked.
std::vector<vellb::interface> host()
{
    vellb::interface eth0 {
        "eth0", {}, {}
    };
    eth0.settings.mtu_sys = 1500;
    for (const char *each : {"10.0.0.1/24", "10.9.0.1/24", "2001:db8::1/64"}) {
        eth0.addresses.push_back({*vellb::parse_prefix(each), {}});
    }
    return {eth0};
}

// The words that a shell makes of a command.
std::vector<std::string> shell_words(const std::string &command)
{
    wordexp_t made{};
    EXPECT_EQ(wordexp(command.c_str(), &made, WRDE_NOCMD), 0) << command;
    std::vector<std::string> words(made.we_wordv, made.we_wordv + made.we_wordc);
    wordfree(&made);
    return words;
}

class config_golden : public vellbctl_test
{
  protected:
    // Makes the daemon what the file says, with the words that a person would give vellbctl;
    // returns these.
    std::string carry_out(const vellcfg::service &wanted)
    {
        const auto target = vellcfg::normalised(wanted);
        const auto plan = diff(target, vellb::read_picture(client));
        std::string text;
        for (const std::string &each : plan.notes) {
            text += "note: " + each + "\n";
        }
        for (const auto &each : plan.steps) {
            text += each.text + "\n";
            static const std::regex command("vellbctl (.*?)( && |$)");
            for (std::sregex_iterator at(each.text.begin(), each.text.end(), command), end;
                 at != end; ++at) {
                const result_t got = run(shell_words((*at)[1]));
                EXPECT_EQ(got.status, 0) << each.text << ": " << got.err;
            }
        }
        const auto left = diff(target, vellb::read_picture(client));
        EXPECT_TRUE(left.empty()) << left.steps[0].text;
        return text;
    }

    std::string told(const fs::path &path)
    {
        const auto read = vellcfg::read_texts({{path.filename(), content(path)}});
        std::string text;
        for (const auto &each : read.errors) {
            text += "error: " + vellcfg::finding_text(each) + "\n";
        }
        if (!read.errors.empty()) {
            return text;
        }
        const auto interfaces = host();
        for (const auto &each : vellcfg::check(read.wanted, &interfaces)) {
            text += "warning: " + vellcfg::finding_text(each) + "\n";
        }
        remove_all();
        const fs::path old = fs::path(path).replace_extension("before");
        const auto first =
            vellcfg::read_texts({{"before", fs::exists(old) ? content(old) : "ha: {role: solo}"}});
        EXPECT_TRUE(first.errors.empty());
        carry_out(first.wanted);
        return text + carry_out(read.wanted);
    }

    vellb::client client{daemon.path()};
};

TEST_F(config_golden, files_are_told_as_expected)
{
    size_t seen = 0;
    for (const auto &each : fs::directory_iterator(VELL_CONFIG_FILES)) {
        if (each.path().extension() == ".yaml") {
            seen++;
            const std::string text = told(each.path());
            expect_golden(fs::path(each.path()).replace_extension("expected"), text);
        }
    }
    EXPECT_GE(seen, 8U);
}

} // namespace
