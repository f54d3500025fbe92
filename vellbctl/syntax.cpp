// Command lines against the table of commands: a tree of CLI11 parsers is made of it, and what they
// throw is turned into words for people. No command is known here. The only file that includes
// CLI11, which takes long to compile.
#include "syntax.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "words.h"

namespace vellbctl
{

namespace
{

using words_t = std::vector<std::string>;

// "cluster add"
std::string name_of(const CLI::App &app)
{
    const CLI::App *parent = app.get_parent();
    const std::string above = parent != nullptr ? name_of(*parent) : "";
    return above.empty() ? app.get_name() : above + " " + app.get_name();
}

words_t names_below(const CLI::App &app)
{
    words_t names;
    for (const CLI::App *each : app.get_subcommands({})) {
        names.push_back(each->get_name());
    }
    return names;
}

void add_options(words_t &names, const CLI::App &app)
{
    for (const CLI::Option *each : app.get_options(&CLI::Option::nonpositional)) {
        names.push_back(each->get_name());
    }
}

std::string option_text(const CLI::Option &o)
{
    const std::string type = o.get_type_name();
    const bool repeats = o.get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll;
    return o.get_name() + (type.empty() ? "" : " " + type) + (repeats ? " ..." : "");
}

// A line for each command below.
std::string usage(const CLI::App &app)
{
    constexpr size_t WIDTH = 98;
    const bool root = app.get_parent() == nullptr;
    std::string text;
    for (const CLI::App *each : app.get_subcommands([root](const CLI::App *) { return !root; })) {
        text += (text.empty() ? "" : "\n") + usage(*each);
    }
    if (!text.empty()) {
        return text;
    }
    text = root ? "usage: vellbctl" : "usage: vellbctl " + name_of(app);
    size_t line_start = 0;
    for (const CLI::Option *each : app.get_options()) {
        const std::string shown = option_text(*each);
        const auto word =
            each->get_required() ? fmt::format(" {}", shown) : fmt::format(" [{}]", shown);
        if (text.size() - line_start + word.size() > WIDTH) {
            line_start = text.size() + 1;
            text += "\n           ";
        }
        text += each != app.get_help_ptr() ? word : "";
    }
    return root ? text + " COMMAND\n'vellbctl --help' lists the commands" : text;
}

class formatter : public CLI::Formatter
{
  public:
    std::string make_usage(const CLI::App *app, std::string) const override
    {
        return usage(*app) + "\n";
    }
    // The overview lists commands, not objects.
    std::string make_subcommand(const CLI::App *sub) const override
    {
        std::string text;
        for (const CLI::App *each : sub->get_subcommands({})) {
            text += make_subcommand(each);
        }
        return text.empty() ? fmt::format("  {:<28}{}\n", name_of(*sub), sub->get_description())
                            : text;
    }
};

// In the order that CLI11 wants, last word first. It would take any word for the number that
// --watch may have, and the next one for the value of "--id=".
words_t prepared(const words_t &words)
{
    words_t result;
    const std::string *next = nullptr;
    for (auto word = words.rbegin(); word != words.rend(); next = &*word++) {
        if ((*word == "--watch" || *word == "-w") && (next == nullptr || !parse_decimal(*next))) {
            result.emplace_back("--watch=1");
        } else if (word->starts_with("--") && word->find('=') == word->size() - 1) {
            result.insert(result.end(), {"", word->substr(0, word->size() - 1)});
        } else {
            result.push_back(*word);
        }
    }
    return result;
}

class tree
{
  public:
    tree()
    {
        root_.formatter(std::make_shared<formatter>());
        root_.footer("--socket, --json and --watch may stand anywhere. 'vellbctl COMMAND --help' "
                     "tells more.\n"
                     "exit status: 0 done, 1 refused, 2 usage, 3 daemon not reachable");
        root_.set_help_flag("-h,--help", "say how it is used");
        root_.fallthrough();
        // At most one: then a word behind a command is never taken for another command.
        root_.require_subcommand(1);
        for (const option &each : global_options()) {
            add(root_, each);
        }
        root_.set_version_flag("--version", "vellbctl " VELL_VERSION "\n", "say which one this is");
        root_.get_option("--count")->needs("--watch");
        for (const command &each : commands()) {
            add(each);
        }
        root_.add_subcommand("help", "the same as --help")
            ->silent()
            ->preparse_callback([this](size_t) { root_.get_help_ptr()->add_result("true"); });
    }
    tree(const tree &) = delete; // its callbacks point to it
    tree &operator=(const tree &) = delete;

    request parse(const words_t &words)
    {
        try {
            root_.parse(prepared(words));
            if (request_.what->needs_option &&
                reached().parse_order().size() == request_.what->positionals.size()) {
                throw usage_error("nothing to set: give at least one option");
            }
        } catch (const CLI::CallForHelp &) {
            throw information{root_.help()};
        } catch (const CLI::CallForVersion &version) {
            throw information{version.what()};
        } catch (const CLI::ParseError &error) {
            fail(explained(error));
        } catch (const usage_error &error) {
            fail(error);
        }
        return std::move(request_);
    }

    [[nodiscard]] std::string usage_line(const command &what) const
    {
        const CLI::App *app = root_.get_subcommand(what.object);
        return usage(*what.verb != '\0' ? *app->get_subcommand(what.verb) : *app);
    }

    [[nodiscard]] words_t completions(const words_t &words) const
    {
        const CLI::App *at = &root_;
        for (const std::string &word : words) {
            const words_t below = names_below(*at);
            at = std::ranges::find(below, word) != below.end() ? at->get_subcommand(word) : at;
        }
        words_t result = names_below(*at);
        add_options(result, *at);
        add_options(result, root_);
        return result;
    }

  private:
    void add(CLI::App &app, const option &row)
    {
        const bool flag = row.value == nullptr;
        CLI::Option *opt = flag ? app.add_flag(row.name) : app.add_option(row.name);
        opt->description(row.meaning)->required(row.required)->type_name(flag ? "" : row.value);
        if (row.repeats) {
            opt->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
        }
        opt->each([this, opt, flag, take = row.take](const std::string &word) {
            // What begins with dashes is the next option.
            if (flag ? word != "true" : word.starts_with("--")) {
                throw usage_error(fmt::format("{} {}", opt->get_name(),
                                              flag ? "takes no value" : "needs a value"),
                                  word);
            }
            try {
                take(request_, word);
            } catch (const vellb::bad_word &error) {
                throw usage_error(fmt::format("{}: {}", opt->get_name(), error.what()), error.word);
            }
        });
    }

    void add(const command &what)
    {
        const auto same = root_.get_subcommands(
            [&](const CLI::App *each) { return each->get_name() == what.object; });
        CLI::App *app = same.empty() ? root_.add_subcommand(what.object) : same.front();
        if (*what.verb != '\0') {
            app->require_subcommand(1);
            app = app->add_subcommand(what.verb);
        }
        app->description(what.summary);
        app->preparse_callback([this, &what](size_t) { request_.what = &what; });
        for (const positional &each : what.positionals) {
            add(*app, {each.name, "", each.meaning, each.take, !each.optional});
        }
        for (const option &each : what.options) {
            add(*app, each);
        }
        if (app->get_name() != "show") {
            app->excludes(root_.get_option("--watch"));
        }
    }

    // The command, or as much of it as was given.
    [[nodiscard]] const CLI::App &reached() const
    {
        const CLI::App *at = &root_;
        while (!at->get_subcommands().empty()) {
            at = at->get_subcommands().front();
        }
        return *at;
    }

    // A word that nothing took comes first: it may well be the cause of the other error.
    [[noreturn]] void fail(const usage_error &error) const
    {
        words_t extras = root_.remaining();
        std::erase(extras, "--");
        usage_error told = extras.empty() ? error : stray(extras.front());
        told.usage = usage(reached());
        throw told;
    }

    [[nodiscard]] usage_error stray(const std::string &word) const
    {
        if (word.starts_with("-")) {
            const std::string name = word.substr(0, word.find('='));
            return usage_error(name + stray_option(name), name);
        }
        return usage_error(names_below(reached()).empty()
                               ? fmt::format("unexpected word '{}'", word)
                               : no_command(fmt::format("unknown command '{}'", word), word),
                           word);
    }

    [[nodiscard]] std::string stray_option(const std::string &name) const
    {
        const CLI::App &at = reached();
        // What another command of the object takes was probably meant for that one.
        const CLI::App &object = at.get_parent() != nullptr ? *at.get_parent() : at;
        for (const CLI::App *each : object.get_subcommands({})) {
            if (each->get_option_no_throw(name) != nullptr) {
                return fmt::format(" goes only after a command that takes it, like '{}'",
                                   name_of(*each));
            }
        }
        words_t known;
        add_options(known, at);
        add_options(known, root_);
        return " is unknown here" + did_you_mean(name, known);
    }

    [[nodiscard]] std::string no_command(const std::string &what, const std::string &word) const
    {
        const std::string above = name_of(reached());
        const words_t known = names_below(reached());
        return fmt::format("{}{}{}; there are: {}", what,
                           above.empty() ? "" : fmt::format(" after '{}'", above),
                           did_you_mean(word, known), fmt::join(known, ", "));
    }

    [[nodiscard]] usage_error explained(const CLI::ParseError &error) const
    {
        const std::string text = error.what();
        if (error.get_name() == "RequiredError" && !names_below(reached()).empty()) {
            return usage_error(no_command("no command given", ""));
        }
        if (error.get_name() == "ExcludesError") {
            return usage_error("--watch goes with show only", "--watch");
        }
        if (error.get_name() == "ArgumentMismatch") { // "--weight: At Most 1 required but ..."
            const std::string name = text.substr(0, text.find(':'));
            return usage_error(name + " needs a value, and only one", name);
        }
        return usage_error(text);
    }

    request request_{};
    CLI::App root_{};
};

} // namespace

request parse(const words_t &words)
{
    return tree().parse(words);
}

std::string usage_line(const command &what)
{
    return tree().usage_line(what);
}

words_t completions(const words_t &words)
{
    return tree().completions(words);
}

} // namespace vellbctl
