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
// One or two places of a text: marks, digits, cuts, pieces of `other`.
void mutate_text(rng &random, bytes &text, const bytes &other);

} // namespace fuzz
