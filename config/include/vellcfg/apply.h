// Carries a list of commands out.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "vellb/command.h"
#include "vellcfg/diff.h"

namespace vellcfg
{

struct progress {
    size_t done = 0;
    size_t total = 0;
    const step *next = nullptr;
};

// Called before each step, so some thousand times a second; false stops before it.
using watcher_t = std::function<bool(const progress &)>;

struct outcome {
    size_t done = 0; // steps carried out
    bool stopped = false;
    std::optional<vellb::refused> failure{}; // what the daemon did not do
    std::vector<std::string> interference{}; // what another writer did meanwhile, one line each
    [[nodiscard]] bool complete() const { return !stopped && !failure; }
};

// Carries the steps out in order until one is refused or the watcher says stop. A SET first reads
// the object's block again and changes in it only the configuration's bits, then reads it back:
// bits of the configuration that are not what they were in the difference, or not what was just
// written, were changed by somebody else, and that is said. So it is of an object that was to be
// removed and is not there any more; going on does no harm then. Throws vellb::fault when the
// daemon gives no usable answer; what was done until then stays done.
outcome apply(const vellb::client &daemon, std::span<const step> steps,
              const watcher_t &watcher = {});

} // namespace vellcfg
