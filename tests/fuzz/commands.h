// Command buffers into the stack, one at a time, each checked: a legal answer, sizes that fit the
// buffer, and no object changed by what was refused.
#pragma once

#include <string>

#include "world.h"

namespace fuzz
{

// Carries out the command in the world's buffer and checks the answer, which it tells: "ADD 1".
std::string run_command(world &stack);

// One input of the fuzz target: records with the beginning of a buffer each; the rest of it is left
// over from the record before. The control byte: bit 0 has the version set right, bit 1 has half a
// second pass behind the command, bit 2 five seconds, bit 3 sends a frame.
void run_commands(const std::uint8_t *data, std::size_t size);

} // namespace fuzz
