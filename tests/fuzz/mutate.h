// Changes to valid inputs, by random numbers of one's own: so a seed repeats a run.
#pragma once

#include "randoms.h"
#include "world.h"

namespace fuzz
{

using randoms::rng;

// Changes one to four places: bits, bytes, lengths, or the fields by which a frame is understood.
void mutate_frame(rng &random, bytes &frame);
// The same for a command buffer's beginning. The length stays below the buffer's.
void mutate_command(rng &random, bytes &command);

} // namespace fuzz
