// The configuration file, once and by hand: what cpserver does all the time. The interfaces are
// this machine's, so these commands belong into the daemon's network namespace.
#include <system_error>

#include <algorithm>
#include <fmt/format.h>

#include "commands.h"
#include "vellcfg/apply.h"
#include "vellcfg/check.h"
#include "vellcfg/export.h"
#include "vellcfg/host.h"
#include "vellcfg/normalise.h"
#include "vellcfg/reader.h"
#include "vellhost/ifsync.h"

namespace vellbctl
{

namespace
{

std::vector<std::string> lines(const std::vector<vellcfg::finding> &findings)
{
    std::vector<std::string> texts;
    std::ranges::transform(findings, std::back_inserter(texts), vellcfg::finding_text);
    return texts;
}

vellcfg::service read(const session &s)
{
    vellcfg::reading got = vellcfg::read_files(s.req.file);
    if (!got.errors.empty()) {
        const size_t count = got.errors.size();
        throw declined(fmt::format("{} error{} in the configuration", count, count == 1 ? "" : "s"),
                       "nothing was changed", lines(got.errors));
    }
    return std::move(got.wanted);
}

vellcfg::host_view view_machine(const vellcfg::service &wanted)
{
    try {
        return vellcfg::view_host(wanted);
    } catch (const std::system_error &error) {
        throw declined(error.what(), "nothing was changed; try again");
    }
}

vellcfg::plan plan_for(session &s)
{
    const vellcfg::service wanted = read(s);
    const vellcfg::host_view host = view_machine(wanted);
    const bool none_wanted = wanted.interfaces && wanted.interfaces->empty();
    if (!none_wanted && !vellhost::is_usable(host.interfaces)) {
        throw declined("no interface that the file lets the daemon use is up and has an address",
                       "nothing was changed; run this in the daemon's network namespace, or see: "
                       "ip address");
    }
    s.warn(host.warnings);
    const vellb::picture now = vellb::read_picture(s.daemon);
    return vellcfg::diff(vellcfg::normalised(wanted), now,
                         vellcfg::interface_steps(host.interfaces, now.interfaces));
}

void show(session &s, const vellcfg::plan &plan)
{
    std::string text;
    nlohmann::ordered_json commands = nlohmann::ordered_json::array();
    for (const std::string &each : plan.notes) {
        text += "# " + each + "\n";
    }
    for (const vellcfg::step &each : plan.steps) {
        text += each.text + "\n";
        commands.push_back(each.text);
    }
    if (plan.empty()) {
        text = "# nothing to do: the daemon is as the file says\n";
    }
    s.answer(text, {{"done", "planned"}, {"notes", plan.notes}, {"commands", commands}});
}

// Long work shows that it goes on.
vellcfg::watcher_t progress_on(session &s)
{
    constexpr size_t EVERY = 500;
    if (!s.tty || s.req.json) {
        return {};
    }
    return [&s](const vellcfg::progress &at) {
        if (at.done % EVERY == 0 && at.done != 0) {
            s.err << fmt::format("{} of {}\n", at.done, at.total) << std::flush;
        }
        return true;
    };
}

} // namespace

void file_check(session &s)
{
    const vellcfg::service wanted = read(s);
    std::vector<std::string> warnings;
    try {
        warnings = vellcfg::view_host(wanted).warnings;
    } catch (const std::system_error &) {
        warnings = lines(vellcfg::check(wanted, nullptr));
    }
    s.warn(warnings);
    const std::vector<std::string> files = vellcfg::files_of(s.req.file);
    s.answer(fmt::format("{}: no errors, {} warning{}\n", fmt::join(files, ", "), warnings.size(),
                         warnings.size() == 1 ? "" : "s"),
             {{"done", "checked"}, {"files", files}});
}

void file_diff(session &s)
{
    show(s, plan_for(s));
}

void file_apply(session &s)
{
    const vellcfg::plan plan = plan_for(s);
    if (s.req.dry_run || plan.empty()) {
        show(s, plan);
        return;
    }
    s.warn(plan.notes);
    const vellcfg::outcome result = vellcfg::apply(s.daemon, plan.steps, progress_on(s));
    s.warn(result.interference);
    if (result.failure) {
        s.err << (s.req.json ? ""
                             : fmt::format("stopped after {} of {} commands, at: {}\n", result.done,
                                           plan.steps.size(), plan.steps[result.done].text));
        throw vellb::refused(*result.failure);
    }
    s.answer(fmt::format("done: {} command{}\n", result.done, result.done == 1 ? "" : "s"),
             {{"done", "applied"}, {"commands", result.done}});
}

void file_export(session &s)
{
    const std::string text = vellcfg::exported(vellb::read_picture(s.daemon));
    s.answer(text, {{"yaml", text}});
}

} // namespace vellbctl
