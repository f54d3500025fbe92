// Between the host library, which knows interfaces and no file, and the file. No state.
#include "vellcfg/host.h"

#include <algorithm>

#include "vellcfg/check.h"
#include "vellhost/ifsync.h"

namespace vellcfg
{

std::vector<vellb::interface> used_interfaces(const service &wanted,
                                              const std::vector<vellb::interface> &host)
{
    const auto is_used = [&](const vellb::interface &each) {
        return wanted.interfaces
                   ? std::ranges::find(*wanted.interfaces, each.name, &interface_name::name) !=
                         wanted.interfaces->end()
                   : each.name != OWN_DEVICE;
    };
    std::vector<vellb::interface> used;
    std::ranges::copy_if(host, std::back_inserter(used), is_used);
    return used;
}

host_view view_host(const service &wanted)
{
    host_view view;
    view.interfaces = used_interfaces(wanted, vellhost::read_host());
    std::ranges::transform(check(wanted, &view.interfaces), std::back_inserter(view.warnings),
                           finding_text);
    std::vector<std::string> names;
    std::ranges::transform(view.interfaces, std::back_inserter(names), &vellb::interface::name);
    std::ranges::move(vellhost::seen_twice(vellhost::read_links(), names),
                      std::back_inserter(view.warnings));
    return view;
}

std::vector<step> interface_steps(const std::vector<vellb::interface> &used,
                                  const std::vector<vellb::interface> &tree)
{
    std::vector<step> steps;
    for (vellhost::sync_step &each : vellhost::plan_sync(used, tree, {})) {
        steps.push_back(step_of(std::move(each.command)));
    }
    return steps;
}

} // namespace vellcfg
