// The running state as the configuration file that makes it.
#pragma once

#include <string>

#include "vellb/tree.h"

namespace vellcfg
{

// YAML for read_texts(), whatever the texts in the daemon contain. Of what the daemon holds, the
// file has no words for: counters, interfaces' details (only their names), and fields that nothing
// reads. What no file can ask for (set by hand, or by another program) is told in a comment.
std::string exported(const vellb::picture &now);

} // namespace vellcfg
