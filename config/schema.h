// Reading a tree of keys and values against tables of keys, with every error kept and its place
// told.
#pragma once

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "document.h"
#include "vellb/words.h"

namespace vellcfg
{

// Another system's word for what is called something else here.
struct synonym {
    std::string_view theirs;
    std::string_view ours;
};

// What is known of one file while it is read.
class context
{
  public:
    context(const std::string &file, std::vector<finding> &errors) : file_(file), errors_(errors) {}

    [[nodiscard]] place at(int line, int column) const { return {file_, line, column}; }
    [[nodiscard]] place at(const node &what) const { return at(what.line, what.column); }
    void error(const place &where, std::string text) { tell(errors_, where, std::move(text)); }
    [[nodiscard]] size_t errors() const { return errors_.size(); }

    // Aliases make few bytes into many objects. False once it is too much; told once.
    bool affordable(const node &what);

    // Objects with errors inside, by line and column: what else is wrong with them may follow.
    std::set<std::pair<int, int>> broken{};

    // The key whose value is being read: messages begin with it.
    std::string_view key{};

    // The value's word through `take`, which throws vellb::bad_word for what it does not like.
    template <class F> void word(const node &value, F take)
    {
        if (value.kind != kind_e::WORD) {
            error(at(value), fmt::format("{}: {}", key, no_word(value)));
            return;
        }
        try {
            take(value.word);
        } catch (const vellb::bad_word &wrong) {
            error(at(value), fmt::format("{}: {}", key, wrong.what()));
        }
    }

    // Each item of a list. One that is no list is told, "a list is wanted, as in EXAMPLE".
    template <class F> void list(const node &value, const char *example, F take)
    {
        const std::string_view name = key;
        if (value.kind != kind_e::LIST) {
            error(at(value), fmt::format("{}: a list is wanted, as in: {}", name, example));
            return;
        }
        for (const node_ptr &item : value.items) {
            if (!affordable(*item)) {
                return;
            }
            key = name;
            take(*item);
        }
        key = name;
    }

  private:
    static std::string no_word(const node &value);

    const std::string &file_;
    std::vector<finding> &errors_;
    size_t read_ = 0;
};

template <class T> struct row_t {
    std::string_view key;
    void (*take)(context &, T &, const node &value);
    bool required = false;
};

// Tells of `given`, which is none of `known`.
void unknown_key(context &to, const entry &given, std::string_view object,
                 const std::vector<std::string> &known);

// Every key of the map `what` by its row; `object` is what it describes ("a server"). Unknown and
// missing keys are told.
template <class T>
void read_map(context &to, const node &what, T &into, std::string_view object,
              std::span<const row_t<T>> rows)
{
    if (what.kind != kind_e::MAP) {
        const bool joined = what.word.find(':') != std::string::npos;
        to.error(to.at(what),
                 fmt::format("{} is a list of keys and values, as in: {}: ...{}", object,
                             rows.front().key, joined ? "; there is a blank behind the ':'" : ""));
        return;
    }
    const std::string_view outer = to.key;
    const size_t before = to.errors();
    std::map<std::string_view, bool> seen;
    for (const entry &each : what.entries) {
        const auto row = std::ranges::find(rows, each.key, &row_t<T>::key);
        if (row == rows.end()) {
            std::vector<std::string> known;
            for (const row_t<T> &one : rows) {
                known.emplace_back(one.key);
            }
            unknown_key(to, each, object, known);
            continue;
        }
        seen[row->key] = true;
        to.key = row->key;
        row->take(to, into, *each.value);
    }
    for (const row_t<T> &row : rows) {
        if (row.required && !seen[row.key]) {
            to.error(to.at(what), fmt::format("{} needs '{}'", object, row.key));
        }
    }
    if (to.errors() != before) {
        to.broken.emplace(what.line, what.column);
    }
    to.key = outer;
}

} // namespace vellcfg
