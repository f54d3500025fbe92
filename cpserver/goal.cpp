// Composition of what the configuration library and the host library know. Reads files and the
// host; talks to no daemon.
#include "goal.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>

#include "vellb/address.h"
#include "vellcfg/normalise.h"
#include "vellcfg/reader.h"

namespace cpserver
{

namespace
{

constexpr size_t REFUSALS_TOLD = 50;

std::string lines_of(const std::vector<vellcfg::finding> &findings)
{
    std::string text;
    for (const vellcfg::finding &each : findings) {
        text += vellcfg::finding_text(each) + '\n';
    }
    return text;
}

} // namespace

loaded load(const std::string &file)
{
    loaded result;
    vellcfg::reading read = vellcfg::read_files(file);
    if (!read.errors.empty()) {
        result.errors = lines_of(read.errors);
        return result;
    }
    result.good = true;
    result.what.state = vellcfg::normalised(read.wanted);
    result.what.wanted = std::move(read.wanted);
    return result;
}

vellcfg::plan plan_all(const goal &what, const vellcfg::host_view &host,
                       const vellb::picture &actual, const std::vector<std::string> &renewed)
{
    return vellcfg::diff(what.state, actual,
                         vellcfg::interface_steps(host.interfaces, actual.interfaces, renewed));
}

vellcfg::plan plan_interfaces(const vellcfg::host_view &host,
                              const std::vector<vellb::interface> &actual,
                              const std::vector<std::string> &renewed)
{
    return {vellcfg::interface_steps(host.interfaces, actual, renewed), {}};
}

applied apply_all(const vellb::client &daemon, std::span<const vellcfg::step> steps,
                  const vellcfg::watcher_t &watcher)
{
    applied result;
    const size_t total = steps.size();
    for (;;) {
        const auto watch = [&](const vellcfg::progress &at) {
            return !watcher || watcher({result.done + at.done, total, at.next});
        };
        vellcfg::outcome part = vellcfg::apply(daemon, steps, watch);
        result.done += part.done;
        result.stopped = part.stopped;
        std::ranges::move(part.interference, std::back_inserter(result.interference));
        if (!part.failure) {
            return result;
        }
        if (result.refused++ < REFUSALS_TOLD) {
            result.refusals.emplace_back(part.failure->what());
        } else if (result.refused == REFUSALS_TOLD + 1) {
            result.refusals.emplace_back("... and more");
        }
        steps = steps.subspan(part.done + 1);
    }
}

std::vector<lbip_addr_t>
guarded_addresses(std::initializer_list<const std::vector<vellb::cluster> *> trees,
                  const std::vector<vellb::interface> &host, std::vector<std::string> &owned)
{
    std::vector<lbip_addr_t> result;
    std::set<std::string> met;
    const auto take = [&](const lbip_addr_t &address) {
        const std::string text = vellb::address_text(address);
        if (!vellb::is_set(address) || !met.insert(text).second) {
            return;
        }
        for (const vellb::interface &each : host) {
            const auto same = [&](const vellb::interface_address &its) {
                return vellb::same_address(its.address, address);
            };
            if (std::ranges::any_of(each.addresses, same)) {
                owned.push_back(fmt::format(
                    "{} is an address of this host's interface {}: it is not guarded; take it off "
                    "the host, which must own neither cluster nor return addresses",
                    text, each.name));
                return;
            }
        }
        result.push_back(address);
    };
    for (const auto *clusters : trees) {
        for (const vellb::cluster &cluster : *clusters) {
            take(cluster.address);
            for (const vellb::port &port : cluster.ports) {
                for (const vellb::server &server : port.servers) {
                    if (server.fixed.nat != 0) {
                        take(server.fixed.returnaddress);
                    }
                }
            }
        }
    }
    return result;
}

} // namespace cpserver
