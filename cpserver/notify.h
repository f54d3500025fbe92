// What the service manager is told (sd_notify(3)); without one, nothing happens.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace cpserver
{

void tell_ready(const std::string &status);
void tell_reloading();
void tell_stopping();
void tell_status(const std::string &status);
void feed_watchdog();

// How often the watchdog wants to be fed, with a margin; nothing if there is none.
std::optional<std::chrono::milliseconds> watchdog_period();

} // namespace cpserver
