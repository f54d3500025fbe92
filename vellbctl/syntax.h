// Command lines against the table of commands.
#pragma once

#include <string>
#include <vector>

#include "grammar.h"

namespace vellbctl
{

// Asked for help or the version: `text` is the answer.
struct information {
    std::string text;
};

// Throws usage_error, its usage filled in, or information.
request parse(const std::vector<std::string> &words);

// How a command is written, for complaints that come after parsing.
std::string usage_line(const command &what);

// Words that may follow `words`, for completion in a shell.
std::vector<std::string> completions(const std::vector<std::string> &words);

} // namespace vellbctl
