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
    const std::vector<vellhost::link> links = vellhost::read_links();
    std::ranges::move(vellhost::seen_twice(links, names), std::back_inserter(view.warnings));
    for (const vellhost::link &each : links) {
        view.indexes[each.name] = each.index;
    }
    return view;
}

std::vector<step> interface_steps(const std::vector<vellb::interface> &used,
                                  const std::vector<vellb::interface> &tree,
                                  const std::vector<std::string> &renewed)
{
    std::vector<vellb::interface> lasting;
    std::vector<vellb::interface> fresh;
    for (const vellb::interface &each : used) {
        const bool other = std::ranges::find(renewed, each.name) != renewed.end();
        (other ? fresh : lasting).push_back(each);
    }
    std::vector<step> steps;
    const auto take = [&](std::vector<vellhost::sync_step> planned) {
        for (vellhost::sync_step &each : planned) {
            steps.push_back(step_of(std::move(each.command)));
        }
    };
    take(vellhost::plan_sync(lasting, tree, {}));
    take(vellhost::plan_sync(fresh, {}, {}));
    return steps;
}

} // namespace vellcfg
