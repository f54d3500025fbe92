// One thread, one epoll: whatever becomes readable has its function called, one after another.
// Functions may watch, unwatch and set timers, their own too.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>

#include "vellb/descriptor.h"

namespace cpserver
{

using vellb::descriptor;

// `fd`, or std::system_error with errno and `what` if it is negative.
int checked(int fd, const char *what);

class loop
{
  public:
    using function_t = std::function<void()>;

    loop();

    // Level-triggered. `fd` stays the caller's and must be unwatched before it is closed.
    void watch(int fd, function_t on_readable);
    void unwatch(int fd);

    // Until stop() is called.
    void run();
    void stop() { stopping_ = true; }

  private:
    descriptor epoll_;
    // Shared, so that a function that unwatches itself runs to its end.
    std::map<int, std::shared_ptr<function_t>> watched_{};
    bool stopping_ = false;
};

// Goes off once, or again and again; on the monotonic clock.
class timer
{
  public:
    timer(loop &on, loop::function_t function);
    timer(const timer &) = delete;
    timer &operator=(const timer &) = delete;
    ~timer();

    void in(std::chrono::milliseconds delay); // replaces what was set
    void every(std::chrono::milliseconds period);
    void off();
    [[nodiscard]] bool is_set() const { return set_; }

  private:
    void set(std::chrono::milliseconds first, std::chrono::milliseconds period);

    loop &loop_;
    descriptor fd_;
    bool set_ = false;
    bool periodic_ = false;
};

} // namespace cpserver
