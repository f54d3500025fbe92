// What a configuration asks for and will silently not get.
#pragma once

#include <vector>

#include "vellb/tree.h"
#include "vellcfg/model.h"

namespace vellcfg
{

// Warnings about a configuration that was read without errors, by file, line and column. `host`:
// the interfaces that the daemon will know, of this machine; null leaves out what depends on them.
// Pure.
std::vector<finding> check(const service &wanted, const std::vector<vellb::interface> *host);

} // namespace vellcfg
