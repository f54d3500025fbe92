// The running state as the configuration file that makes it.
#pragma once

#include <string>

#include "vellb/tree.h"

namespace vellcfg
{

// YAML for read_texts(). Of what the daemon holds, the file has no words for: counters, interfaces'
// details (only their names), and fields that nothing reads. Whatever a text contains, the result
// can be read. A state that no file can ask for (an algorithm without a name) throws
// std::runtime_error.
std::string exported(const vellb::picture &now);

} // namespace vellcfg
