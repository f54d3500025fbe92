// What the files of the fake host share. Not for tests.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace fake::detail
{

// Counts the call; true if it is the one that was asked to fail.
bool must_fail(int which);

extern std::atomic<std::int64_t> held_frames;
extern std::atomic<std::uint64_t> unheld_frees;
extern std::atomic<std::uint64_t> pullups;

// Forgets the frames that were freed (their buffers stay until then, so that a second free is
// seen).
extern void (*reset_frames)();

} // namespace fake::detail
