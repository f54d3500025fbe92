// vellbctl as a person or a script meets it, with a daemon on the fake host: words in; text, JSON
// and an exit status out.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "app.h"
#include "vellb/address.h"
#include "vellb_fake_daemon.h"

class vellbctl_test : public StackTest
{
  protected:
    using rows_t = std::initializer_list<std::pair<std::string, const char *>>;
    struct result_t {
        int status = -1;
        std::string out{};
        std::string err{};
    };

    result_t run(std::vector<std::string> words)
    {
        if (words.empty() || words[0] != "--complete") {
            words.insert(words.begin(), {"--socket", daemon.path()});
        }
        std::ostringstream out;
        std::ostringstream err;
        const int status = vellbctl::run(words, {out, err, false});
        return {status, out.str(), err.str()};
    }
    result_t run(const std::string &line)
    {
        std::istringstream words(line);
        return run(std::vector<std::string>{std::istream_iterator<std::string>(words), {}});
    }
    void must(std::initializer_list<std::string> lines)
    {
        for (const std::string &line : lines) {
            const result_t got = run(line);
            ASSERT_EQ(got.status, 0) << line << ": " << got.err << got.out;
        }
    }
    nlohmann::json json(const std::string &line)
    {
        return nlohmann::json::parse(run(line + " --json").out);
    }

    // Lines that begin with "$ " are commands. What follows one is all that it says, lines broken
    // before four spaces put together again; "[1]" is its status, if that is not 0.
    void talk(const std::string &text)
    {
        std::istringstream lines(text);
        std::string line;
        std::string command;
        std::string said;
        const auto check = [&] {
            if (!command.empty()) {
                const result_t got = run(command);
                EXPECT_EQ(got.out + got.err +
                              (got.status == 0 ? "" : fmt::format("[{}]\n", got.status)),
                          said)
                    << command;
            }
        };
        while (std::getline(lines, line)) {
            if (line.starts_with("$ ")) {
                check();
                command = line.substr(2);
                said.clear();
            } else if (line.starts_with("    ")) {
                said.back() = ' ';
                said += line.substr(4) + "\n";
            } else if (!command.empty()) {
                said += line + "\n";
            }
        }
        check();
    }
    // Commands that are carried out, and what they warn of; "" for nothing.
    void expect_warnings(rows_t rows)
    {
        for (const auto &[line, warning] : rows) {
            const result_t got = run(line);
            EXPECT_EQ(got.status, 0) << line << ": " << got.err;
            EXPECT_EQ(got.err.empty(), *warning == '\0') << line << ": " << got.err;
            EXPECT_NE(got.err.find(warning), std::string::npos) << line << ": " << got.err;
        }
    }
    // Commands that are not even sent, and why.
    void expect_refused_words(rows_t rows)
    {
        for (const auto &[line, message] : rows) {
            const result_t got = run(line);
            const bool json = got.err.empty();
            const std::string &text = json ? got.out : got.err;
            EXPECT_EQ(got.status, 2) << line << ": " << text;
            EXPECT_NE(text.find(message), std::string::npos) << line << ": " << text;
            EXPECT_TRUE(json || text.find("usage: vellbctl") != text.npos) << line << ": " << text;
        }
    }

    fake_daemon daemon;
};
