// Builds the tree from yaml-cpp's events rather than from its nodes: those keep no order of
// duplicates, expand nothing visibly, and don't tell where a key stands. No state between calls.
#include "document.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <sstream>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

namespace vellcfg
{

namespace
{

// Far beyond any configuration, and little enough to hold.
constexpr size_t NODES_MOST = 1000000;
constexpr size_t WORD_MOST = 4096;

// Columns in characters, as editors show them; yaml-cpp counts bytes. It remembers where it was,
// so that a text of a single line is not read again for each of its words.
class columns
{
  public:
    explicit columns(const std::string &text) : text_(text) {}

    int of(const YAML::Mark &mark)
    {
        if (mark.is_null()) {
            return 1;
        }
        if (mark.line != line_) {
            line_ = mark.line;
            at_ = std::min(static_cast<size_t>(mark.pos - mark.column), text_.size());
            inner_ = 0;
        }
        const size_t to = std::min(static_cast<size_t>(mark.pos), text_.size());
        for (; at_ < to; at_++) {
            inner_ += is_inner(text_[at_]);
        }
        for (; at_ > to; at_--) {
            inner_ -= is_inner(text_[at_ - 1]);
        }
        return mark.column - inner_ + 1;
    }

  private:
    // A byte of a character of UTF-8 that is not its first.
    static bool is_inner(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

    const std::string &text_;
    int line_ = -1;
    size_t at_ = 0;
    int inner_ = 0; // such bytes between the line's begin and `at_`
};

class builder : public YAML::EventHandler
{
  public:
    builder(const std::string &name, const std::string &text, std::vector<finding> &errors)
        : name_(name), text_(text), columns_(text), errors_(errors)
    {
    }

    node_ptr root{};
    YAML::Mark last_word{YAML::Mark::null_mark()};

    void OnDocumentStart(const YAML::Mark &) override {}
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark &mark, YAML::anchor_t anchor) override
    {
        const auto nothing = made(mark, kind_e::NOTHING, anchor);
        // It is nowhere itself: the parser has gone on to what follows.
        if (!open_.empty() && open_.back().keyed && !open_.back().dropped) {
            nothing->line = open_.back().what->entries.back().line;
            nothing->column = open_.back().what->entries.back().column;
        } else if (!open_.empty() && open_.back().what->kind == kind_e::LIST) {
            go_back_to_dash(*nothing, static_cast<size_t>(mark.pos));
        }
        place_value(mark, nothing);
    }
    void OnAlias(const YAML::Mark &mark, YAML::anchor_t anchor) override
    {
        const auto found = anchors_.find(anchor);
        const bool whole = found != anchors_.end() &&
                           std::ranges::find(open_, found->second, &frame::what) == open_.end();
        if (!whole) {
            error(mark, "an alias inside of what it stands for");
        }
        place_value(mark, whole ? found->second : made(mark, kind_e::NOTHING, 0));
    }
    void OnScalar(const YAML::Mark &mark, const std::string &tag, YAML::anchor_t anchor,
                  const std::string &value) override
    {
        last_word = mark;
        check_tag(mark, tag);
        if (value.size() > WORD_MOST) {
            throw YAML::Exception(mark, "this is longer than any value: is a quote missing?");
        }
        frame *at = open_.empty() ? nullptr : &open_.back();
        const auto made_one = made(mark, kind_e::WORD, anchor);
        made_one->word = value.substr(0, value.find('\0'));
        if (made_one->word.size() != value.size()) {
            error(mark, "a NUL character, which no value may contain");
        }
        if (at != nullptr && at->what->kind == kind_e::MAP && !at->keyed) {
            take_key(*at, mark, made_one->word);
        } else {
            place_value(mark, made_one);
        }
    }
    void OnSequenceStart(const YAML::Mark &mark, const std::string &tag, YAML::anchor_t anchor,
                         YAML::EmitterStyle::value) override
    {
        open(mark, tag, kind_e::LIST, anchor);
    }
    void OnSequenceEnd() override { close(); }
    void OnMapStart(const YAML::Mark &mark, const std::string &tag, YAML::anchor_t anchor,
                    YAML::EmitterStyle::value) override
    {
        open(mark, tag, kind_e::MAP, anchor);
    }
    void OnMapEnd() override { close(); }

  private:
    struct frame {
        std::shared_ptr<node> what;
        bool keyed = false; // MAP: a key waits for its value
        bool dropped = false;
        std::map<std::string, int> lines{}; // of the keys
    };

    void error(const YAML::Mark &mark, const std::string &text)
    {
        tell(errors_, {name_, mark.line + 1, columns_.of(mark)}, text);
    }

    void check_tag(const YAML::Mark &mark, const std::string &tag)
    {
        if (!tag.empty() && tag != "?" && tag != "!") {
            error(mark, fmt::format("the tag {} has no meaning here", tag));
        }
    }

    std::shared_ptr<node> made(const YAML::Mark &mark, kind_e kind, YAML::anchor_t anchor)
    {
        if (++nodes_ > NODES_MOST) {
            throw YAML::Exception(
                mark,
                fmt::format("more than {} keys and values: this is no configuration", NODES_MOST));
        }
        auto result = std::make_shared<node>();
        result->line = mark.line + 1;
        result->column = columns_.of(mark);
        result->kind = kind;
        if (anchor != 0) {
            anchors_[anchor] = result;
        }
        return result;
    }

    void take_key(frame &at, const YAML::Mark &mark, const std::string &key)
    {
        const auto [first, fresh] = at.lines.emplace(key, mark.line + 1);
        if (!fresh) {
            error(mark,
                  fmt::format("'{}' is there twice; the first is in line {}", key, first->second));
        }
        at.keyed = true;
        at.dropped = !fresh;
        if (fresh) {
            at.what->entries.push_back({mark.line + 1, columns_.of(mark), key, {}});
        }
    }

    void place_value(const YAML::Mark &mark, const node_ptr &value)
    {
        if (open_.empty()) {
            root = value;
            return;
        }
        frame &at = open_.back();
        if (at.what->kind == kind_e::LIST) {
            at.what->items.push_back(value);
        } else if (!at.keyed) {
            error(mark, "a key must be a single word");
            at.keyed = at.dropped = true; // its value follows
        } else {
            if (!at.dropped) {
                at.what->entries.back().value = value;
            }
            at.keyed = at.dropped = false;
        }
    }

    void open(const YAML::Mark &mark, const std::string &tag, kind_e kind, YAML::anchor_t anchor)
    {
        check_tag(mark, tag);
        auto fresh = made(mark, kind, anchor);
        place_value(mark, fresh);
        open_.push_back({std::move(fresh)});
    }

    void close() { open_.pop_back(); }

    // From `at`, where what follows an empty item begins, back over blanks and comments.
    void go_back_to_dash(node &item, size_t at) const
    {
        at = std::min(at, text_.size());
        int line = item.line;
        const auto line_of = [&] { return at == 0 ? 0 : text_.rfind('\n', at - 1) + 1; };
        for (;;) {
            while (at > 0 && is_blank(text_[at - 1])) {
                at--;
            }
            if (at == 0 || text_[at - 1] != '\n') {
                break;
            }
            at--;
            line--;
            const size_t begin = line_of();
            for (size_t i = begin; i < at; i++) {
                at = text_[i] == '#' && (i == begin || is_blank(text_[i - 1])) ? i : at;
            }
        }
        if (at > 0 && text_[at - 1] == '-') {
            item.line = line;
            item.column = static_cast<int>(at - line_of());
        }
    }
    static bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

    const std::string &name_;
    const std::string &text_;
    columns columns_;
    std::vector<finding> &errors_;
    std::vector<frame> open_{};
    std::map<YAML::anchor_t, std::shared_ptr<node>> anchors_{};
    size_t nodes_ = 0;
};

// Where the line (from 0) begins, the text's end if there is none.
size_t line_begin(const std::string &text, int line)
{
    size_t begin = 0;
    for (int i = 0; i < line && begin != text.size(); i++) {
        const size_t end = text.find('\n', begin);
        begin = end == std::string::npos ? text.size() : end + 1;
    }
    return begin;
}

// Does the line (from 1) begin with blanks and a tab?
bool is_tabbed(const std::string &text, int line)
{
    const size_t word = text.find_first_not_of(" -", line_begin(text, line - 1));
    return word != std::string::npos && text[word] == '\t';
}

// yaml-cpp says what it stumbled over; people want to know what to do.
std::string explained(const std::string &message)
{
    static const std::map<std::string, std::string> remedies{
        {"illegal map value", "a ':' where no key can stand: is the line indented like its "
                              "neighbours? Put words with ': ' or a final ':' into quotes"},
        {"bad file", "nested deeper than any configuration"},
        {"alias not found after *", "put a word that begins with '*' into quotes"},
        {"anchor not found after &", "put a word that begins with '&' into quotes"},
        {"end of map flow not found", "a '{' whose '}' is missing, or a ',' before this"},
        {"end of sequence flow not found", "a '[' whose ']' is missing, or a ',' before this"},
        {"the referenced anchor is not defined",
         "put a word that begins with '*' into quotes; as an alias it stands for nothing"},
        {"illegal block entry", "a '- ' where no list can begin: each on a line of its own"},
        {"unknown token", "put a word that begins with this character into quotes"},
        {"end of map not found", "the indentation fits neither the lines above nor a new level"},
        {"end of sequence not found", "a line that is no item of the list above: is it indented "
                                      "like its neighbours?"},
    };
    const auto found = remedies.find(message);
    return found != remedies.end() ? found->second : message;
}

// The word that an unclosed quote made of all that stands before `end`, the end of its document.
YAML::Mark quote_before(const std::string &text, const YAML::Mark &end)
{
    std::istringstream stream(text.substr(0, line_begin(text, end.line)));
    std::vector<finding> ignored;
    builder words(text, text, ignored);
    try {
        YAML::Parser parser(stream);
        while (parser.HandleNextDocument(words)) {
        }
    } catch (const YAML::Exception &) { // of what the quote has swallowed
    } catch (const enough &) {
    }
    return words.last_word;
}

// yaml-cpp passes on whatever it finds, or takes it for something else (a NUL, a lone CR).
bool is_text(const std::string &name, const std::string &text, std::vector<finding> &errors)
{
    place at{name, 1, 1};
    for (size_t i = 0; i < text.size();) {
        const size_t length = utf8_length(text, i);
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool line_end = text[i] == '\n' || text.compare(i, 2, "\r\n") == 0;
        const bool control = (byte < ' ' && text[i] != '\t' && !line_end) || byte == 0x7F;
        if (length == 0 || control) {
            const char *const what =
                length == 0       ? "is no UTF-8: save the file as UTF-8"
                : text[i] == '\r' ? "stands outside of a line's end: save the file with LF or CRLF"
                                  : "is a control character: is this a text file in UTF-8?";
            tell(errors, at, fmt::format("the byte 0x{:02X} {}", byte, what));
            return false;
        }
        at.column = text[i] == '\n' ? 1 : at.column + 1;
        at.line += text[i] == '\n' ? 1 : 0;
        i += length;
    }
    return true;
}

} // namespace

void tell(std::vector<finding> &errors, place at, std::string text)
{
    errors.push_back({std::move(at), std::move(text)});
    if (errors.size() >= ERRORS_MOST) {
        throw enough();
    }
}

size_t utf8_length(const std::string &text, size_t at)
{
    const auto byte = [&](size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const unsigned first = byte(at);
    const size_t length = first < 0x80   ? 1
                          : first < 0xC2 ? 0
                          : first < 0xE0 ? 2
                          : first < 0xF0 ? 3
                          : first < 0xF5 ? 4
                                         : 0;
    for (size_t i = 1; i < length; i++) {
        if ((byte(at + i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const unsigned second = byte(at + 1);
    // Longer than needed, surrogates, beyond the last character.
    const bool wrong = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                       (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
    return wrong ? 0 : length;
}

node_ptr parse_document(const std::string &name, const std::string &text,
                        std::vector<finding> &errors)
{
    if (!is_text(name, text, errors)) {
        return nullptr;
    }
    // yaml-cpp closes a quote at the end of the text, but not at that of a document.
    const std::string whole = text.substr(text.starts_with("\xEF\xBB\xBF") ? 3 : 0) +
                              (text.ends_with('\n') ? "...\n" : "\n...\n");
    std::istringstream stream(whole);
    builder first(name, whole, errors);
    try {
        YAML::Parser parser(stream);
        if (!parser.HandleNextDocument(first)) {
            return nullptr;
        }
        builder second(name, whole, errors);
        if (parser.HandleNextDocument(second)) {
            const node *more = second.root.get();
            tell(errors,
                 {name, more != nullptr ? more->line : 1, more != nullptr ? more->column : 1},
                 "a second document: put each into a file of its own in conf.d");
        }
    } catch (const YAML::Exception &error) {
        if (error.msg == YAML::ErrorMsg::DOC_IN_SCALAR) {
            const YAML::Mark quote = quote_before(whole, error.mark);
            tell(errors, {name, quote.line + 1, columns(whole).of(quote)},
                 "a quote that is never closed");
            return nullptr;
        }
        const int line = std::max(error.mark.line + 1, 1);
        tell(errors, {name, line, columns(whole).of(error.mark)},
             is_tabbed(text, line) ? "a tab in the indentation: use blanks" : explained(error.msg));
        return nullptr;
    }
    return first.root;
}

} // namespace vellcfg
