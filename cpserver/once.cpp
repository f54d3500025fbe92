// The modes without a loop. No lock is taken but for what changes the daemon.
#include "once.h"

#include <cstdio>
#include <fmt/format.h>

#include "goal.h"
#include "instance.h"
#include "log.h"
#include "vellcfg/apply.h"

namespace cpserver
{

namespace
{

constexpr auto PATIENCE = std::chrono::seconds(15); // the daemon gives a stalled client ten

// The file's errors are said here.
bool read_file(const options &asked, goal &into)
{
    loaded read = load(asked.file);
    if (!read.good) {
        fmt::print(stderr, "{}", read.errors);
        return false;
    }
    into = std::move(read.what);
    return true;
}

vellcfg::host_view warned_view(const goal &what)
{
    vellcfg::host_view host = vellcfg::view_host(what.wanted);
    for (const std::string &each : host.warnings) {
        fmt::print(stderr, "warning: {}\n", each);
    }
    return host;
}

vellcfg::plan plan_now(const goal &what, const vellb::client &daemon)
{
    const vellcfg::host_view host = warned_view(what);
    vellcfg::plan plan = plan_all(what, host, vellb::read_picture(daemon));
    for (const std::string &note : plan.notes) {
        fmt::print(stderr, "{}\n", note);
    }
    return plan;
}

template <class F> int guarded(F work)
{
    try {
        return work();
    } catch (const vellb::fault &error) {
        fmt::print(stderr, "cpserver: {}; {}\n", error.what(), error.hint());
        return EXIT_UNREACHABLE;
    } catch (const std::runtime_error &error) {
        fmt::print(stderr, "cpserver: {}\n", error.what());
        return EXIT_NOT_DONE;
    }
}

} // namespace

int check_file(const options &asked)
{
    return guarded([&] {
        goal what;
        if (!read_file(asked, what)) {
            return EXIT_WRONG_FILE;
        }
        (void)warned_view(what);
        size_t ports = 0;
        size_t servers = 0;
        for (const vellcfg::cluster &cluster : what.wanted.clusters) {
            ports += cluster.ports.size();
            for (const vellcfg::port &port : cluster.ports) {
                servers += port.servers.size();
            }
        }
        fmt::print("{} is good; clusters: {}, ports: {}, servers: {}\n", asked.file,
                   what.wanted.clusters.size(), ports, servers);
        return EXIT_DONE;
    });
}

int print_plan(const options &asked)
{
    return guarded([&] {
        goal what;
        if (!read_file(asked, what)) {
            return EXIT_WRONG_FILE;
        }
        const vellcfg::plan plan = plan_now(what, vellb::client(asked.socket, PATIENCE));
        for (const vellcfg::step &each : plan.steps) {
            fmt::print("{}\n", each.text);
        }
        fmt::print(stderr, "{} commands; nothing was changed (--dry-run)\n", plan.steps.size());
        return EXIT_DONE;
    });
}

int apply_once(const options &asked)
{
    return guarded([&] {
        const instance only_one(asked.run_directory);
        goal what;
        if (!read_file(asked, what)) {
            return EXIT_WRONG_FILE;
        }
        if (what.wanted.host_guard) {
            fmt::print(stderr, "host guard: only the service keeps it; left as it is\n");
        }
        const vellb::client daemon(asked.socket, PATIENCE);
        const vellcfg::plan plan = plan_now(what, daemon);
        const auto print = [](const vellcfg::progress &at) {
            fmt::print("{}\n", at.next->text);
            return true;
        };
        const applied result = apply_all(daemon, plan.steps, print);
        for (const std::string &line : result.interference) {
            fmt::print(stderr, "{}\n", line);
        }
        fmt::print(stderr, "{} of {} commands carried out\n", result.done, plan.steps.size());
        for (const std::string &line : result.refusals) {
            fmt::print(stderr, "cpserver: {}\n", line);
        }
        return result.complete() ? EXIT_DONE : EXIT_NOT_DONE;
    });
}

} // namespace cpserver
