// The desired state in the shape in which the daemon tells its own.
#pragma once

#include "vellb/tree.h"
#include "vellcfg/model.h"

namespace vellcfg
{

struct target : vellb::picture {
    bool log_mask_given = false; // else the daemon's stays as it is
};

// `wanted` as vellb::read_picture would find it after it was applied to an empty daemon: defaults
// of ports filled in, both ends of a crossport named, rule types and HA settings settled. Without
// interfaces: those are the host's. What no key of the file sets holds what an ADD should carry.
// Counters and other readings are zero. Pure; `wanted` is one that was read without errors.
target normalised(const service &wanted);

} // namespace vellcfg
