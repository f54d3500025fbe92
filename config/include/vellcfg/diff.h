// The commands that turn one state of the daemon into another.
#pragma once

#include <string>
#include <vector>

#include "vellb/tree.h"
#include "vellcfg/normalise.h"

namespace vellcfg
{

struct step {
    vellb::request command{};
    // SET: the settable block that the difference was taken from, and which of its bits are the
    // configuration's (set in the mask). An empty mask: all of it. The command carries the whole
    // block as it should become.
    vellb::bytes_t before{};
    vellb::bytes_t mask{};
    std::string text{}; // the same for people: "vellbctl server set 10.0.0.100:80 10.0.0.11 ..."
};

struct plan {
    std::vector<step> steps{};
    // What the steps do beyond what one would expect, to be said before they are carried out:
    // objects that are removed and added again because a fixed field of theirs differs.
    std::vector<std::string> notes{};
    [[nodiscard]] bool empty() const { return steps.empty(); }
};

// The smallest ordered list that makes `actual` what `wanted` says: `interface_steps` as they are,
// the executor's settings, heartbeats, then cluster by cluster what goes, bottom-up, and what comes
// or changes, top-down. Every prefix of it leaves a state from which another diff leads to the same
// end. Not compared: what no key of the file sets, and what the daemon changes itself (a learnt
// encapmtu). Pure.
plan diff(const target &wanted, const vellb::picture &actual,
          std::vector<step> interface_steps = {});

// One step of a command that was planned elsewhere (interfaces), with its text made from it.
step step_of(vellb::request command);

} // namespace vellcfg
