// The configuration file, and the files of conf.d beside it, read strictly.
#pragma once

#include <string>
#include <vector>

#include "vellcfg/model.h"

namespace vellcfg
{

struct source {
    std::string name{}; // as messages call it
    std::string text{};
};

struct reading {
    service wanted{};              // of use only without errors
    std::vector<finding> errors{}; // by file, line and column; if there are many, some hundred
};

// Every file that makes the configuration: `path` itself, then conf.d/*.yaml in its directory in
// lexical order (bytes), but for hidden ones. conf.d need not exist; one that cannot be listed
// stands there itself. Never fails: what cannot be listed or opened is found when it is read.
std::vector<std::string> files_of(const std::string &path);

// The directories in which a change may change the configuration: that of `path`, and its conf.d,
// whether or not it exists.
std::vector<std::string> directories_of(const std::string &path);

// The files of `path` read and taken together as one configuration. Never throws for what is in
// them; a file that cannot be read is an error among the others.
reading read_files(const std::string &path);
reading read_texts(const std::vector<source> &sources);

} // namespace vellcfg
