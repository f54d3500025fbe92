// What the daemon is to become, out of the files, and how far it is from that. Both the service and
// the modes that do their work once stand on this.
#pragma once

#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include "vellcfg/apply.h"
#include "vellcfg/diff.h"
#include "vellcfg/host.h"
#include "vellcfg/model.h"

namespace cpserver
{

struct goal {
    vellcfg::service wanted{};
    vellcfg::target state{}; // the same, as the daemon would tell it
};

// What the file says, or why it says nothing.
struct loaded {
    bool good = false;
    goal what{};
    std::string errors{}; // one a line, with their places
};
loaded load(const std::string &file);

// Everything, or the interfaces alone.
vellcfg::plan plan_all(const goal &what, const vellcfg::host_view &host,
                       const vellb::picture &actual, const std::vector<std::string> &renewed = {});
vellcfg::plan plan_interfaces(const vellcfg::host_view &host,
                              const std::vector<vellb::interface> &actual,
                              const std::vector<std::string> &renewed);

struct applied {
    size_t done = 0; // steps carried out
    bool stopped = false;
    size_t refused = 0;
    std::vector<std::string> refusals{}; // the first ones, one line each
    std::vector<std::string> interference{};
    [[nodiscard]] bool complete() const { return !stopped && refused == 0; }
};

// Carries the steps out as vellcfg::apply() does, but goes on after a refusal: one object that the
// daemon does not take must not hold up the others. What stands on it is refused as well. Throws
// vellb::fault.
applied apply_all(const vellb::client &daemon, std::span<const vellcfg::step> steps,
                  const vellcfg::watcher_t &watcher);

// Cluster and return addresses, each once; without those that an interface of the host has, which
// stand in `owned`: nobody wants to lose the way to the machine.
std::vector<lbip_addr_t>
guarded_addresses(std::initializer_list<const std::vector<vellb::cluster> *> trees,
                  const std::vector<vellb::interface> &host, std::vector<std::string> &owned);

} // namespace cpserver
