// libsystemd's small protocol to the service manager. A manager that cannot be reached is none.
#include "notify.h"

#include <systemd/sd-daemon.h>

#include <ctime>
#include <fmt/format.h>

namespace cpserver
{

namespace
{

void tell(const std::string &state)
{
    (void)sd_notify(0, state.c_str());
}

// A status is one line.
std::string status_line(std::string status)
{
    for (char &each : status) {
        each = each == '\n' ? ' ' : each;
    }
    return "STATUS=" + status;
}

} // namespace

void tell_ready(const std::string &status)
{
    tell("READY=1\n" + status_line(status));
}

void tell_reloading()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    tell(
        fmt::format("RELOADING=1\nMONOTONIC_USEC={}", now.tv_sec * 1000000LL + now.tv_nsec / 1000));
}

void tell_stopping()
{
    tell("STOPPING=1");
}

void tell_status(const std::string &status)
{
    tell(status_line(status));
}

void feed_watchdog()
{
    tell("WATCHDOG=1");
}

std::optional<std::chrono::milliseconds> watchdog_period()
{
    uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) <= 0) {
        return std::nullopt;
    }
    return std::chrono::milliseconds(microseconds / 1000 / 3 + 1);
}

} // namespace cpserver
