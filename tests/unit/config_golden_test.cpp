// tests/config: each NAME.yaml with what a person is told about it, NAME.expected: errors, or
// warnings, notes and the commands that make it of an empty daemon or of NAME.before.
// VELL_GOLDEN=write writes the expected files anew, to be read before they are committed.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "syntax.h"
#include "vellb/address.h"
#include "vellb/words.h"
#include "vellcfg/check.h"
#include "vellcfg/diff.h"
#include "vellcfg/normalise.h"
#include "vellcfg/reader.h"

namespace
{

namespace fs = std::filesystem;

const fs::path DIRECTORY = VELL_CONFIG_FILES;

std::string content(const fs::path &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

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

// The words that a shell makes of a line.
std::vector<std::string> shell_words(const std::string &line)
{
    std::vector<std::string> words{""};
    bool in_quotes = false;
    for (size_t i = 0; i < line.size(); i++) {
        if (line[i] == '\'') {
            in_quotes = !in_quotes;
        } else if (line[i] == '\\' && !in_quotes) {
            words.back() += line[++i];
        } else if (line[i] == ' ' && !in_quotes) {
            words.emplace_back();
        } else {
            words.back() += line[i];
        }
    }
    return words;
}

// What is printed must be what vellbctl takes.
void expect_command(const std::string &line)
{
    auto words = shell_words(line);
    words.emplace_back("&&");
    std::vector<std::string> command;
    for (const std::string &word : words) {
        if (word != "&&") {
            command.push_back(word);
            continue;
        }
        ASSERT_EQ(command.front(), "vellbctl") << line;
        try {
            (void)vellbctl::parse({command.begin() + 1, command.end()});
        } catch (const vellb::bad_word &error) {
            ADD_FAILURE() << line << ": " << error.what();
        }
        command.clear();
    }
}

std::string told(const fs::path &path)
{
    const std::string name = path.filename();
    const auto read = vellcfg::read_texts({{name, content(path)}});
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
    vellcfg::service before;
    const fs::path old = fs::path(path).replace_extension("before");
    if (fs::exists(old)) {
        const auto first = vellcfg::read_texts({{"before", content(old)}});
        EXPECT_TRUE(first.errors.empty());
        before = first.wanted;
    }
    const auto plan = diff(vellcfg::normalised(read.wanted), vellcfg::normalised(before));
    for (const std::string &each : plan.notes) {
        text += "note: " + each + "\n";
    }
    for (const auto &each : plan.steps) {
        expect_command(each.text);
        text += each.text + "\n";
    }
    return text;
}

TEST(config_golden, files_are_told_as_expected)
{
    const char *const mode = getenv("VELL_GOLDEN");
    size_t seen = 0;
    for (const auto &each : fs::directory_iterator(DIRECTORY)) {
        if (each.path().extension() != ".yaml") {
            continue;
        }
        seen++;
        const fs::path expected = fs::path(each.path()).replace_extension("expected");
        const std::string text = told(each.path());
        if (mode != nullptr && std::string(mode) == "write") {
            std::ofstream(expected) << text;
        }
        EXPECT_EQ(text, content(expected)) << each.path();
    }
    EXPECT_GE(seen, 8U);
}

} // namespace
