// A YAML text as a tree in which every key and value knows its line and column.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "vellcfg/model.h"

namespace vellcfg
{

enum class kind_e { NOTHING, WORD, LIST, MAP };

struct node;
using node_ptr = std::shared_ptr<const node>;

struct entry {
    int line = 0;
    int column = 0;
    std::string key{};
    node_ptr value{};
};

// Aliases share the node of their anchor, so the tree may be larger to walk than to hold; it has no
// cycles, and its depth is bounded.
struct node {
    int line = 0;
    int column = 0;
    kind_e kind = kind_e::NOTHING;
    std::string word{};            // WORD
    std::vector<node_ptr> items{}; // LIST
    std::vector<entry> entries{};  // MAP, keys once each
};

// More errors than this help nobody.
constexpr size_t ERRORS_MOST = 100;

// Thrown by tell(): there are too many.
struct enough {
};

// Appends an error. Throws `enough` behind the last one that is to be told.
void tell(std::vector<finding> &errors, place at, std::string text);

// The bytes of the UTF-8 character (RFC 3629) that begins at `at`, 0 if none does.
size_t utf8_length(const std::string &text, size_t at);

// The one document in `text`, null if there is none. What is no YAML, and what YAML allows but a
// configuration does not (keys given twice, several documents, tags, control characters), is told
// in `errors`. For the text, throws nothing but `enough`.
node_ptr parse_document(const std::string &name, const std::string &text,
                        std::vector<finding> &errors);

} // namespace vellcfg
