// From the command line to an exit status.
#include <cstdio>
#include <exception>
#include <fmt/format.h>

#include "log.h"
#include "once.h"
#include "options.h"
#include "service.h"

namespace
{

int carry_out(const cpserver::options &asked)
{
    switch (asked.mode) {
    case cpserver::mode_e::CHECK: return cpserver::check_file(asked);
    case cpserver::mode_e::DRY_RUN: return cpserver::print_plan(asked);
    case cpserver::mode_e::ONCE: return cpserver::apply_once(asked);
    case cpserver::mode_e::SERVE: break;
    }
    cpserver::set_verbose(asked.verbose);
    return cpserver::service(asked).run();
}

} // namespace

int main(int argc, char **argv)
{
    int status = cpserver::EXIT_DONE;
    const auto asked = cpserver::parse_options(argc, argv, status);
    if (!asked) {
        return status;
    }
    try {
        return carry_out(*asked);
    } catch (const std::exception &error) {
        fmt::print(stderr, "cpserver: {}\n", error.what());
        return cpserver::EXIT_NOT_DONE;
    }
}
