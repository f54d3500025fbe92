// Command buffers into the stack, one at a time, each checked: a legal answer, sizes that fit the
// buffer, and no object changed by what was refused.
#pragma once

#include <map>
#include <string>

#include "world.h"

namespace fuzz
{

// How often each answer was got.
using answers = std::map<std::string, std::uint64_t>;

// Carries out the command in the world's buffer, checks the answer and counts it: "ADD 1".
void run_command(world &stack, answers *counts);

// One input of the fuzz target: records with the beginning of a buffer each; the rest of it is left
// over from the record before. The control byte: bit 0 has the version set right, bit 1 has half a
// second pass behind the command, bit 2 five seconds, bit 3 sends a frame.
void run_commands(const std::uint8_t *data, std::size_t size);

} // namespace fuzz
