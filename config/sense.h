// What objects of a configuration must be to one another.
#pragma once

#include <vector>

#include "vellcfg/model.h"

namespace vellcfg
{

// Errors: objects that are there twice, refer to nothing, or combine what the daemon would refuse
// or take for something else.
std::vector<finding> nonsense(const service &wanted);

} // namespace vellcfg
