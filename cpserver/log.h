// What the control server says, a line a record, on standard error: with a syslog priority in front
// where the journal reads it (sd-daemon(3)), else with the time of day.
#pragma once

#include <fmt/format.h>
#include <string>
#include <string_view>

namespace cpserver
{

enum class level_e : int {
    ERROR = 3,
    WARNING = 4,
    NOTICE = 5, // something began or ended
    INFO = 6,   // what was changed
    DEBUG = 7,  // only with --verbose
};

void set_verbose(bool verbose);

// Several lines are written as several records of the same level.
void log_text(level_e level, std::string_view text);

template <class... T> void log(level_e level, fmt::format_string<T...> format, T &&...values)
{
    log_text(level, fmt::format(format, std::forward<T>(values)...));
}

// A complaint that is told when it is new and when it is over, not each time it is met.
class complaint
{
  public:
    explicit complaint(level_e level = level_e::ERROR) : level_(level) {}
    void say(const std::string &text);
    // With `relief` as the line that tells of the end, if there was a complaint.
    void over(std::string_view relief = {});
    [[nodiscard]] const std::string &text() const { return said_; }

  private:
    level_e level_;
    std::string said_{};
};

} // namespace cpserver
