// vellbctl as a person or a script meets it, with a daemon on the fake host: words in; text, JSON
// and an exit status out.
#pragma once

#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "app.h"
#include "vellb/address.h"
#include "vellb_fake_daemon.h"

class vellbctl_test : public StackTest
{
  protected:
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
    // The documents that a command prints, one a line.
    std::vector<nlohmann::json> documents(const std::string &line)
    {
        std::istringstream lines(run(line + " --json").out);
        std::vector<nlohmann::json> each;
        for (std::string text; std::getline(lines, text);) {
            each.push_back(nlohmann::json::parse(text));
        }
        return each;
    }
    nlohmann::json json(const std::string &line)
    {
        return nlohmann::json::parse(run(line + " --json").out);
    }

    static std::string content(const std::filesystem::path &path)
    {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    // VELL_GOLDEN=write writes the file anew, to be read before it is committed.
    static void expect_golden(const std::filesystem::path &path, const std::string &text)
    {
        const char *const mode = getenv("VELL_GOLDEN");
        if (mode != nullptr && std::string(mode) == "write") {
            std::ofstream(path) << text;
        }
        EXPECT_EQ(text, content(path)) << path;
    }

    fake_daemon daemon;
};
