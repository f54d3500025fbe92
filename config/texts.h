// Commands as vellbctl takes them, for people to read and to repeat.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "vellb/command.h"

namespace vellcfg
{

// Options by name, each with its values; none for a flag.
using options_t = std::vector<std::pair<std::string, std::vector<std::string>>>;

// What of the object's blocks has words. Blocks of a wrong size have none.
options_t options_of(lbcmd_keytype_e keytype, const lbcmd_key_t &key, const vellb::bytes_t &addable,
                     const vellb::bytes_t &setable);

// Those of `now` that `then` has not, or with other values.
options_t changed(const options_t &then, const options_t &now);

// " --weight 10 --id 'a b'"
std::string text_of(const options_t &options);

// The whole line. `before`: of a SET, the block that it changes.
std::string text_of(const vellb::request &command, const vellb::bytes_t &before);

} // namespace vellcfg
