// From words to an exit status: every failure ends here and is told once, in the form asked for.
#include "app.h"

#include <algorithm>
#include <fmt/format.h>

#include "syntax.h"
#include "words.h"

namespace vellbctl
{

namespace
{

class teller
{
  public:
    teller(const streams &to, bool json) : to_(to), json_(json) {}

    // `intro` stands before the message for people: "refused: PARENTDNE (5)".
    void failure(const std::string &intro, const complaint &told,
                 const nlohmann::ordered_json &more = nlohmann::ordered_json::object()) const
    {
        if (!json_) {
            to_.err << fmt::format("{}: {}{}\n", intro, told.message,
                                   told.hint.empty() ? "" : "; " + told.hint);
            return;
        }
        nlohmann::ordered_json error{
            {"code", nullptr}, {"name", told.name}, {"message", told.message}, {"hint", told.hint}};
        if (told.code != 0) {
            error["code"] = told.code;
        }
        error.update(more);
        to_.out << dumped({{"error", error}}) << '\n';
    }

    void declined(const vellbctl::declined &error) const
    {
        nlohmann::ordered_json more = nlohmann::ordered_json::object();
        if (json_ && !error.reasons.empty()) {
            more["reasons"] = error.reasons;
        }
        for (const std::string &each : error.reasons) {
            to_.err << (json_ ? "" : each + "\n");
        }
        failure("not done", {0, "DECLINED", error.what(), error.hint}, more);
    }

    void usage(const usage_error &error) const
    {
        failure("vellbctl", {0, "USAGE", error.what(), ""},
                {{"word", error.word}, {"usage", error.usage}});
        if (!json_) {
            to_.err << error.usage << '\n';
        }
    }

  private:
    const streams &to_;
    bool json_;
};

int carry_out(const std::vector<std::string> &words, const streams &to, const teller &tell)
{
    try {
        const request asked = parse(words);
        session s(asked, to);
        asked.what->run(s);
        return EXIT_DONE;
    } catch (const information &wanted) {
        to.out << wanted.text;
        return EXIT_DONE;
    } catch (const usage_error &error) {
        tell.usage(error);
        return EXIT_USAGE;
    } catch (const vellb::refused &error) {
        const complaint told = explain(error);
        tell.failure(fmt::format("refused: {} ({})", told.name, told.code), told);
        return EXIT_REFUSED;
    } catch (const declined &error) {
        tell.declined(error);
        return EXIT_REFUSED;
    } catch (const vellb::fault &error) {
        tell.failure(error.kind() == vellb::fault_e::UNREACHABLE ? "daemon not reachable"
                                                                 : "no usable answer",
                     explain(error));
        return EXIT_UNREACHABLE;
    }
}

} // namespace

int run(const std::vector<std::string> &words, const streams &to)
{
    // Completion asks with the words typed so far.
    if (!words.empty() && words[0] == "--complete") {
        for (const std::string &each : completions({words.begin() + 1, words.end()})) {
            to.out << each << '\n';
        }
        return EXIT_DONE;
    }
    // Known before parsing, so that a mistake in the words is told in the form asked for.
    const bool json = std::ranges::find(words, "--json") != words.end();
    const teller tell(to, json);
    try {
        return carry_out(words, to, tell);
    } catch (const std::exception &error) {
        tell.failure("vellbctl", {0, "INTERNAL", error.what(), "please report this"});
        return EXIT_REFUSED;
    }
}

} // namespace vellbctl
