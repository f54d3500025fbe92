// One exchange with the daemon over its unix socket. A connection carries one buffer each way, so
// nothing outlives a call. Every wait is bounded by the same deadline.
#include "vellb/client.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <poll.h>

#include "vellb/descriptor.h"

namespace vellb
{

namespace
{

using monotonic_t = std::chrono::steady_clock;

std::string error_text(int error)
{
    return std::system_category().message(error);
}

fault unreachable(const std::string &path, int error)
{
    struct stat status {
    };
    const bool present = stat(path.c_str(), &status) == 0;
    if (error == ENOENT || error == ENOTDIR) {
        return {fault_e::UNREACHABLE, fmt::format("{} does not exist", path),
                "start vellb2, or name its socket with --socket PATH"};
    }
    if (present && !S_ISSOCK(status.st_mode)) {
        return {fault_e::UNREACHABLE, fmt::format("{} is not a socket", path),
                "name the daemon's socket with --socket PATH"};
    }
    if (error == ECONNREFUSED) {
        return {fault_e::UNREACHABLE, fmt::format("nobody listens on {}", path),
                "the daemon that made it is gone; start vellb2 again"};
    }
    if (error == EACCES || error == EPERM) {
        return {fault_e::UNREACHABLE, fmt::format("no permission for {}", path),
                "run this as root, or as the user who owns the socket"};
    }
    return {fault_e::UNREACHABLE, fmt::format("cannot connect to {}: {}", path, error_text(error)),
            "see whether vellb2 is running"};
}

fault timed_out(const std::string &path)
{
    return {fault_e::TIMED_OUT, fmt::format("the daemon at {} did not answer in time", path),
            "it may be serving a stalled client: try again in ten seconds, then see its log"};
}

// Waits until `fd` is ready for `events` or the deadline has passed.
void await(int fd, short events, monotonic_t::time_point deadline, const std::string &path)
{
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - monotonic_t::now()).count();
        if (left <= 0) {
            throw timed_out(path);
        }
        pollfd watched{fd, events, 0};
        const int ready = poll(&watched, 1, static_cast<int>(left));
        if (ready > 0) {
            return;
        }
        if (ready < 0 && errno != EINTR) {
            throw fault(fault_e::UNREACHABLE, "poll: " + error_text(errno), "try again");
        }
    }
}

void dial(int fd, const std::string &path, monotonic_t::time_point deadline)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        throw fault(fault_e::UNREACHABLE, fmt::format("'{}' cannot be a socket's path", path),
                    fmt::format("give a path of 1 to {} bytes", sizeof(address.sun_path) - 1));
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    // EAGAIN: the short queue of waiting connections is full (unix(7)); poll cannot wait for that.
    while (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        if (errno != EAGAIN && errno != EINTR) {
            throw unreachable(path, errno);
        }
        if (monotonic_t::now() >= deadline) {
            throw timed_out(path);
        }
        poll(nullptr, 0, 10);
    }
}

fault closed_early(const std::string &path, size_t received)
{
    return {fault_e::CLOSED_EARLY,
            fmt::format("the daemon at {} closed the connection after {} of {} bytes", path,
                        received, LBCMD_BUFSIZE),
            "it may be stopping: see whether it still runs, and its log"};
}

} // namespace

void client::exchange(lbcmd_buf_t &buffer) const
{
    const auto deadline = monotonic_t::now() + timeout_;
    const descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.get() < 0) {
        throw fault(fault_e::UNREACHABLE, "socket: " + error_text(errno), "try again");
    }
    dial(fd.get(), path_, deadline);

    auto *bytes = reinterpret_cast<unsigned char *>(&buffer);
    for (size_t done = 0; done < sizeof(buffer);) {
        await(fd.get(), POLLOUT, deadline, path_);
        const ssize_t sent = send(fd.get(), bytes + done, sizeof(buffer) - done, MSG_NOSIGNAL);
        if (sent > 0) {
            done += static_cast<size_t>(sent);
        } else if (errno != EAGAIN && errno != EINTR) {
            throw closed_early(path_, 0);
        }
    }
    for (size_t done = 0; done < sizeof(buffer);) {
        await(fd.get(), POLLIN, deadline, path_);
        const ssize_t got = recv(fd.get(), bytes + done, sizeof(buffer) - done, 0);
        if (got > 0) {
            done += static_cast<size_t>(got);
        } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
            throw closed_early(path_, done);
        }
    }
}

} // namespace vellb
