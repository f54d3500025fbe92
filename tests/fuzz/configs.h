// Configuration files as anybody may write them.
#pragma once

#include <string>

#include "world.h"

namespace fuzz
{

// Reads the input as a configuration: "errors", "warnings" or "fine". What was read must survive
// being exported and read again.
std::string run_config(const std::uint8_t *data, std::size_t size);

} // namespace fuzz
