// epoll(7) and timerfd_create(2). Knows nothing of what it calls.
#include "loop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <system_error>

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace cpserver
{

int checked(int fd, const char *what)
{
    if (fd < 0) {
        throw std::system_error(errno, std::system_category(), what);
    }
    return fd;
}

loop::loop() : epoll_(checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")) {}

void loop::watch(int fd, function_t on_readable)
{
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.fd = fd;
    checked(epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &wanted), "epoll_ctl");
    watched_[fd] = std::make_shared<function_t>(std::move(on_readable));
}

void loop::unwatch(int fd)
{
    if (watched_.erase(fd) != 0) {
        (void)epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr); // closing it does the same
    }
}

void loop::run()
{
    while (!stopping_) {
        // One at a time: what comes first may unwatch what would come second.
        epoll_event event{};
        const int ready = epoll_wait(epoll_.get(), &event, 1, -1);
        if (ready < 0 && errno != EINTR) {
            checked(ready, "epoll_wait");
        }
        const auto found = ready > 0 ? watched_.find(event.data.fd) : watched_.end();
        if (found != watched_.end()) {
            const auto function = found->second;
            (*function)();
        }
    }
}

timer::timer(loop &on, loop::function_t function)
    : loop_(on),
      fd_(checked(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "timerfd_create"))
{
    loop_.watch(fd_.get(), [this, call = std::move(function)] {
        uint64_t times = 0;
        // Nothing to read: it was set anew after it went off and before this was called.
        if (read(fd_.get(), &times, sizeof(times)) == sizeof(times)) {
            set_ = periodic_;
            call();
        }
    });
}

timer::~timer()
{
    loop_.unwatch(fd_.get());
}

void timer::in(std::chrono::milliseconds delay)
{
    set(delay, {});
}

void timer::every(std::chrono::milliseconds period)
{
    set(period, period);
}

void timer::off()
{
    set_ = false;
    const itimerspec never{};
    checked(timerfd_settime(fd_.get(), 0, &never, nullptr), "timerfd_settime");
}

void timer::set(std::chrono::milliseconds first, std::chrono::milliseconds period)
{
    const auto spec = [](std::chrono::milliseconds time) {
        return timespec{time.count() / 1000, (time.count() % 1000) * 1000000};
    };
    // All zero would mean "off".
    const itimerspec wanted{spec(period), spec(std::max(first, std::chrono::milliseconds(1)))};
    checked(timerfd_settime(fd_.get(), 0, &wanted, nullptr), "timerfd_settime");
    set_ = true;
    periodic_ = period.count() != 0;
}

} // namespace cpserver
