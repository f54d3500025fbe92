// Command lines against the table of commands. Options may stand anywhere, as --name value or
// --name=value; the first words without dashes are the object and what to do with it. The parser
// knows no command: all of that is in the table.
#include "syntax.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <optional>
#include <set>

#include "words.h"

namespace vellbctl
{

namespace
{

const std::vector<option> &global_options()
{
    static const std::vector<option> options{
        {"--socket", "PATH", "the daemon's command socket (default /vellb2)",
         [](request &r, const std::string &word) {
             constexpr size_t SUN_PATH_MOST = 107; // unix(7)
             if (word.empty() || word.size() > SUN_PATH_MOST) {
                 throw usage_error(
                     fmt::format("'{}' is not a socket path of 1 to {} bytes", word, SUN_PATH_MOST),
                     word);
             }
             r.socket = word;
         }},
        {"--json", nullptr, "print one JSON document; errors and warnings as well",
         [](request &r, const std::string &) { r.json = true; }},
        {"--count", "N", "with --watch: stop after N pictures",
         [](request &r, const std::string &word) { r.count = take_number(word, 1, 1000000); }},
    };
    return options;
}

std::vector<std::string> objects()
{
    std::vector<std::string> names;
    for (const command &each : commands()) {
        if (std::ranges::find(names, each.object) == names.end()) {
            names.emplace_back(each.object);
        }
    }
    return names;
}

std::vector<std::string> verbs(const std::string &object)
{
    std::vector<std::string> names;
    for (const command &each : commands()) {
        if (object == each.object && *each.verb != '\0') {
            names.emplace_back(each.verb);
        }
    }
    return names;
}

const command *find_command(const std::string &object, const std::string &verb)
{
    for (const command &each : commands()) {
        if (object == each.object && verb == each.verb) {
            return &each;
        }
    }
    return nullptr;
}

const option *find_option(const std::vector<option> &options, const std::string &name)
{
    const auto found =
        std::ranges::find_if(options, [&](const option &o) { return name == o.name; });
    return found != options.end() ? &*found : nullptr;
}

std::string joined(const std::vector<std::string> &names, const char *separator)
{
    return fmt::format("{}", fmt::join(names, separator));
}

std::string command_name(const command &what)
{
    return fmt::format("{}{}{}", what.object, *what.verb != '\0' ? " " : "", what.verb);
}

std::string option_text(const option &o)
{
    return o.value != nullptr ? fmt::format("{} {}", o.name, o.value) : o.name;
}

std::string overview()
{
    std::string text = "usage: vellbctl [--socket PATH] [--json] [-w|--watch [SECONDS]] COMMAND\n\n"
                       "commands:\n";
    for (const command &each : commands()) {
        text += fmt::format("  {:<18} {}\n", command_name(each), each.summary);
    }
    text += "\nOptions may stand anywhere. 'vellbctl COMMAND --help' tells more.\n"
            "exit status: 0 done, 1 refused, 2 usage, 3 daemon not reachable\n";
    return text;
}

std::string object_usage(const std::string &object)
{
    std::string text;
    for (const command &each : commands()) {
        if (object == each.object) {
            text += text.empty() ? "" : "\n";
            text += usage_line(each);
        }
    }
    return text;
}

std::string command_help(const command &what)
{
    std::string text = fmt::format("{}\n\n{}\n", usage_line(what), what.summary);
    const auto row = [&](const std::string &name, const char *meaning) {
        text += fmt::format("  {:<26} {}\n", name, meaning);
    };
    text += what.positionals.empty() ? "" : "\n";
    for (const positional &each : what.positionals) {
        row(each.name, each.meaning);
    }
    text += "\noptions:\n";
    for (const option &each : what.options) {
        row(option_text(each), each.meaning);
    }
    for (const option &each : global_options()) {
        row(option_text(each), each.meaning);
    }
    row("-w, --watch [SECONDS]", "with show: again and again, with rates");
    return text;
}

class parser
{
  public:
    explicit parser(const std::vector<std::string> &words) : words_(words) {}

    request parse()
    {
        try {
            while (at_ < words_.size()) {
                take(words_[at_++]);
            }
            finish();
        } catch (usage_error &error) {
            error.usage = usage();
            throw;
        }
        return std::move(request_);
    }

  private:
    void take(const std::string &word)
    {
        if (!plain_ && word == "--") {
            plain_ = true;
        } else if (!plain_ && word.size() > 1 && word[0] == '-') {
            take_option(word);
        } else if (request_.what == nullptr) {
            take_name(word);
        } else {
            take_positional(word);
        }
    }

    void take_name(const std::string &word)
    {
        if (word == "help" && object_.empty()) {
            help_ = true;
            return;
        }
        if (object_.empty()) {
            const auto known = objects();
            if (std::ranges::find(known, word) == known.end()) {
                throw usage_error(fmt::format("unknown command '{}'{}; there are: {}", word,
                                              did_you_mean(word, known), joined(known, ", ")),
                                  word);
            }
            object_ = word;
            request_.what = find_command(object_, "");
            return;
        }
        const auto known = verbs(object_);
        request_.what = find_command(object_, word);
        if (request_.what == nullptr) {
            throw usage_error(fmt::format("'{}' is nothing that can be done with {} {}{}; "
                                          "there are: {}",
                                          word, article(object_), object_,
                                          did_you_mean(word, known), joined(known, ", ")),
                              word);
        }
    }

    static const char *article(const std::string &noun)
    {
        // Among the nouns that begin with u, the use-server sounds as if it began with y.
        return std::string_view("aeio").find(noun[0]) != std::string_view::npos ? "an" : "a";
    }

    void take_positional(const std::string &word)
    {
        const auto &expected = request_.what->positionals;
        if (positionals_ >= expected.size()) {
            throw usage_error(fmt::format("unexpected word '{}'", word), word);
        }
        const positional &spec = expected[positionals_++];
        guarded(spec.name, [&] { spec.take(request_, word); });
    }

    void take_option(const std::string &word)
    {
        const auto equals = word.find('=');
        const bool inlined = word.starts_with("--") && equals != std::string::npos;
        const std::string name = inlined ? word.substr(0, equals) : word;
        if (name == "--help" || name == "-h") {
            help_ = true;
            return;
        }
        if (name == "--version") {
            throw information{"vellbctl " VELL_VERSION "\n"};
        }
        if (name == "--watch" || name == "-w") {
            take_watch(inlined ? std::optional(word.substr(equals + 1)) : std::nullopt);
            return;
        }
        const option &spec = look_up(name);
        if (!spec.repeats && !seen_.insert(name).second) {
            throw usage_error(fmt::format("{} is given twice", name), name);
        }
        own_options_ += find_option(global_options(), name) == nullptr ? 1 : 0;
        if (spec.value == nullptr && inlined) {
            throw usage_error(fmt::format("{} takes no value", name), word);
        }
        std::string value;
        if (inlined) {
            value = word.substr(equals + 1);
        } else if (spec.value != nullptr) {
            if (at_ >= words_.size() || words_[at_].starts_with("--")) {
                throw usage_error(fmt::format("{} needs a value: {}", name, option_text(spec)),
                                  name);
            }
            value = words_[at_++];
        }
        guarded(spec.name, [&] { spec.take(request_, value); });
    }

    const option &look_up(const std::string &name) const
    {
        if (const option *found = find_option(global_options(), name)) {
            return *found;
        }
        if (request_.what == nullptr) {
            throw usage_error(
                fmt::format("option {} stands before its command, or is unknown", name), name);
        }
        if (const option *found = find_option(request_.what->options, name)) {
            return *found;
        }
        // What another command of the object takes was probably meant for that one.
        for (const command &each : commands()) {
            if (object_ == each.object && find_option(each.options, name) != nullptr) {
                throw usage_error(fmt::format("{} goes with '{}', not with '{}'", name,
                                              command_name(each), command_name(*request_.what)),
                                  name);
            }
        }
        std::vector<std::string> known{"--help", "--watch"};
        for (const auto *table : {&global_options(), &request_.what->options}) {
            for (const option &each : *table) {
                known.emplace_back(each.name);
            }
        }
        throw usage_error(fmt::format("unknown option {}{}", name, did_you_mean(name, known)),
                          name);
    }

    // The number of seconds may be missing: the next word is taken only if it is one.
    void take_watch(const std::optional<std::string> &inlined)
    {
        constexpr double LEAST_S = 0.1;
        constexpr double MOST_S = 3600;
        request_.watch_s = 1;
        const std::string word = inlined.value_or(at_ < words_.size() ? words_[at_] : "");
        double seconds = 0;
        const char *last = word.data() + word.size();
        const auto [end, error] = std::from_chars(word.data(), last, seconds);
        const bool number = error == std::errc{} && end == last;
        if (!number && !inlined) {
            return;
        }
        if (!number || !(seconds >= LEAST_S && seconds <= MOST_S)) {
            throw usage_error(fmt::format("--watch: '{}' is not a number of seconds from {} to {}",
                                          word, LEAST_S, MOST_S),
                              word);
        }
        request_.watch_s = seconds;
        at_ += inlined ? 0 : 1;
    }

    // A value's complaint begins with the name of what it was meant for.
    template <class F> static void guarded(const char *name, F take_value)
    {
        try {
            take_value();
        } catch (const usage_error &error) {
            throw usage_error(fmt::format("{}: {}", name, error.what()), error.word);
        }
    }

    void finish() const
    {
        if (help_) {
            throw information{request_.what != nullptr ? command_help(*request_.what)
                              : object_.empty()        ? overview()
                                                       : object_usage(object_) + "\n"};
        }
        if (request_.what == nullptr) {
            throw usage_error(object_.empty() ? "no command given"
                                              : fmt::format("what is to be done with the {}? {}",
                                                            object_, joined(verbs(object_), ", ")));
        }
        const command &what = *request_.what;
        if (positionals_ < what.positionals.size() && !what.positionals[positionals_].optional) {
            const positional &missing = what.positionals[positionals_];
            throw usage_error(fmt::format("{} is missing: {}", missing.name, missing.meaning));
        }
        for (const option &each : what.options) {
            if (each.required && !seen_.contains(each.name)) {
                throw usage_error(fmt::format("{} is missing: {}", each.name, each.meaning));
            }
        }
        if (what.needs_option && own_options_ == 0) {
            throw usage_error("nothing to set: give at least one option");
        }
        const bool shows =
            std::string_view(what.object) == "show" || std::string_view(what.verb) == "show";
        if (!shows && (request_.watch_s || request_.count)) {
            throw usage_error("--watch and --count go with show only", "--watch");
        }
        if (request_.count && !request_.watch_s) {
            throw usage_error("--count needs --watch", "--count");
        }
    }

    [[nodiscard]] std::string usage() const
    {
        if (request_.what != nullptr) {
            return usage_line(*request_.what);
        }
        return object_.empty() ? "usage: vellbctl [--socket PATH] [--json] COMMAND; "
                                 "'vellbctl --help' lists the commands"
                               : object_usage(object_);
    }

    const std::vector<std::string> &words_;
    size_t at_ = 0;
    bool plain_ = false;
    bool help_ = false;
    std::string object_{};
    size_t positionals_ = 0;
    size_t own_options_ = 0;
    std::set<std::string> seen_{};
    request request_{};
};

} // namespace

request parse(const std::vector<std::string> &words)
{
    return parser(words).parse();
}

std::string usage_line(const command &what)
{
    constexpr size_t WIDTH = 98;
    constexpr const char *INDENT = "\n           ";
    std::string text = "usage: vellbctl " + command_name(what);
    size_t line_start = 0;
    const auto add = [&](const std::string &word) {
        if (text.size() - line_start + 1 + word.size() > WIDTH) {
            line_start = text.size() + 1;
            text += INDENT;
        }
        text += ' ' + word;
    };
    for (const positional &each : what.positionals) {
        add(each.optional ? fmt::format("[{}]", each.name) : std::string(each.name));
    }
    for (const option &each : what.options) {
        const std::string option = option_text(each) + (each.repeats ? " ..." : "");
        add(each.required ? option : "[" + option + "]");
    }
    return text;
}

std::vector<std::string> completions(const std::vector<std::string> &words)
{
    std::vector<std::string> plain;
    for (const std::string &word : words) {
        if (!word.starts_with("-")) {
            plain.push_back(word);
        }
    }
    std::vector<std::string> result;
    const command *what = nullptr;
    if (plain.empty()) {
        result = objects();
    } else {
        what = find_command(plain[0], plain.size() > 1 ? plain[1] : "");
        what = what != nullptr ? what : find_command(plain[0], "");
        result = what == nullptr ? verbs(plain[0]) : result;
    }
    const std::vector<option> none;
    for (const auto *table : {what != nullptr ? &what->options : &none, &global_options()}) {
        for (const option &each : *table) {
            result.emplace_back(each.name);
        }
    }
    result.insert(result.end(), {"--watch", "--help"});
    return result;
}

} // namespace vellbctl
