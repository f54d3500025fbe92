// Valid inputs of every kind, from which the corpus is made and the mutation runs start.
#pragma once

#include "world.h"

namespace fuzz
{

struct seed {
    std::string name; // a file name
    bytes content;    // a frame from its Ethernet header, or the beginning of a command buffer
};

std::vector<seed> frame_seeds();
std::vector<seed> frame_seeds6(); // of IPv6; frame_seeds() has them, too
std::vector<seed> command_seeds();

} // namespace fuzz
