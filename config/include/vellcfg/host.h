// The interfaces of this machine as the configuration wants the daemon to know them.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "vellcfg/diff.h"
#include "vellcfg/model.h"

namespace vellcfg
{

// The daemon makes it for servers on its own machine; no wire leads to it.
constexpr const char *OWN_DEVICE = "veldra";

// Of the host's interfaces those that the daemon is to use: the ones named, or all but the one that
// the daemon makes itself for servers on this machine. Pure.
std::vector<vellb::interface> used_interfaces(const service &wanted,
                                              const std::vector<vellb::interface> &host);

// Those of this machine, and what the configuration asks for and will not get on it: one text each,
// those about the file with their places.
struct host_view {
    std::vector<vellb::interface> interfaces{};
    std::vector<std::string> warnings{};
    std::map<std::string, int> indexes{}; // the kernel's, by name
};
// Throws std::system_error.
host_view view_host(const service &wanted);

// What makes the daemon's interface tree say what `used` says, for diff(). Those named in `renewed`
// are others under old names: the daemon has to let go of the old ones, equal or not. Pure.
std::vector<step> interface_steps(const std::vector<vellb::interface> &used,
                                  const std::vector<vellb::interface> &tree,
                                  const std::vector<std::string> &renewed = {});

} // namespace vellcfg
