// The table of commands: which words follow which, what they mean, and who carries them out.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "request.h"

namespace vellbctl
{

class session;

struct positional {
    const char *name;
    const char *meaning;
    void (*take)(request &, const std::string &word); // throws usage_error
    bool optional = false;
};

struct option {
    const char *name;  // with its dashes; "-w,--watch"
    const char *value; // its placeholder, null for a flag
    const char *meaning;
    void (*take)(request &, const std::string &word); // throws usage_error
    bool required = false;
    bool repeats = false;
};

struct command {
    const char *object;
    const char *verb; // empty: the object is the whole command
    const char *summary;
    std::vector<positional> positionals;
    std::vector<option> options;
    void (*run)(session &);
    bool needs_option = false; // a set that sets nothing is a mistake
};

std::span<const option> global_options();
std::span<const command> commands();

} // namespace vellbctl
