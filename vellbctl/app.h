// The whole program but for main(): words in, text and an exit status out.
#pragma once

#include <string>
#include <vector>

#include "session.h"

namespace vellbctl
{

enum exit_e : int {
    EXIT_DONE = 0,
    EXIT_REFUSED = 1,
    EXIT_USAGE = 2,
    EXIT_UNREACHABLE = 3,
};

int run(const std::vector<std::string> &words, const streams &to);

} // namespace vellbctl
