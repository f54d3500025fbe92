// Frames into the stack, one at a time, each checked against what it must not do: change a frame
// that is left to the host, send more than came in, or send anything but what came in.
#pragma once

#include <map>
#include <string>

#include "fake_frame.h"
#include "fake_host.h"
#include "world.h"

namespace fuzz
{

// How often each kind of end was reached, by its name.
using reached = std::map<std::string, std::uint64_t>;

class frame_feeder
{
  public:
    frame_feeder();

    void feed(const bytes &frame, fake::link link);
    // Of all frames since the stack was started.
    [[nodiscard]] reached places() const;

  private:
    void check_sent(const bytes &frame, fake::link link);
    bool was_held(const fake::sent_frame &out);

    fake::worker worker_{};
    std::vector<bytes> held_{}; // packets that the stack may still send
    reached reached_{};
};

// One input of the fuzz target: records with a frame each. The control byte: bits 0 and 1 choose
// the link (2: SLIP, 3: no frame, but the length is tenths of a second that pass); bit 2 has the IP
// and inner checksums mended. Afterwards the stack must still forward.
void run_frames(world &stack, const std::uint8_t *data, std::size_t size);

// Computes the checksums anew of what looks like IPv4 or IPv6, and of the TCP, UDP or ICMP within.
void mend_checksums(bytes &frame, fake::link link);

} // namespace fuzz
