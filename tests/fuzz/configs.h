// Configuration files as anybody may write them, and answers as a daemon gone wrong may give them.
#pragma once

#include <string>

#include "world.h"

namespace fuzz
{

// Reads the input as a configuration: "errors", "warnings" or "fine". What was read must survive
// being exported and read again.
std::string run_config(const std::uint8_t *data, std::size_t size);

// Reads, compares and changes a small stack whose answers are edited on the way, 8 bytes an edit:
// which answer (2 bytes), where (2 bytes), by what (1 byte), how often (1 byte), 2 unused. How it
// ended: "malformed", "refused", "stopped" or "applied".
std::string run_answers(const std::uint8_t *data, std::size_t size);

} // namespace fuzz
