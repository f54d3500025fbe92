// The command line.
#pragma once

#include <optional>
#include <string>

namespace cpserver
{

enum class mode_e {
    SERVE,
    CHECK,   // read the file, say what is wrong with it, touch nothing
    DRY_RUN, // say what would be changed, change nothing
    ONCE,    // make it so and end
};

struct options {
    mode_e mode = mode_e::SERVE;
    std::string file = "/etc/vellb2/cpserver.yaml";
    std::string socket{};
    std::string run_directory = "/run/cpserver";
    bool verbose = false;
};

// Exit statuses; those that vellbctl has too mean the same.
enum : int {
    EXIT_DONE = 0,
    EXIT_NOT_DONE = 1, // a refusal, another instance, a failure of the host
    EXIT_USAGE = 2,
    EXIT_UNREACHABLE = 3,
    EXIT_WRONG_FILE = 4,
};

// Nothing, and an exit status, when there is nothing left to do: help, version, a mistake (said
// already).
std::optional<options> parse_options(int argc, char **argv, int &status);

} // namespace cpserver
