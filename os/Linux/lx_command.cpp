// The command socket. One client at a time: it sends one whole command buffer, the stack executes
// it in place, the client gets it back with the answer filled in, and the connection ends. A buffer
// that did not arrive whole is never executed.
//
// Entered by the command thread alone, which keeps the buffer on its own stack and takes no locks
// here. No failure of a connection ends the thread, and no client can hold it: it gives up on one
// that neither sends nor takes a byte for LX_SILENCE_S seconds, and on any when the process stops.
#include "lb_entry.h"
#include "lx_host.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace
{

constexpr lb_u64_t LX_LOG_CLIENT = LB_LOG_HOST | LB_LOG_EVENT;
constexpr int LX_BACKLOG = 1;
constexpr int LX_SILENCE_S = 10;
constexpr lb_s64_t LX_SILENCE_MS = 10000;
constexpr int LX_ACCEPT_PAUSE_US = 100000;

lb_s64_t lx_now_ms()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<lb_s64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Whether to try again after a send or receive that moved nothing because the second was over or a
// signal came. `moved_ms` is when a byte moved last.
bool lx_may_wait(lb_s64_t moved_ms)
{
    if (lx_stopping()) {
        return false;
    }
    if (lx_now_ms() - moved_ms >= LX_SILENCE_MS) {
        LB_LOG_BARE(LX_LOG_CLIENT | LB_LOG_FAILURE,
                    "ERROR: %s:%d client moved no byte for %d seconds, closing its connection\n",
                    __FILE_NAME__, __LINE__, LX_SILENCE_S);
        return false;
    }
    return true;
}

bool lx_transient(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// Waits up to a second for a client.
bool lx_client_waits(int usockfd)
{
    fd_set readable;
    fd_set except;
    FD_ZERO(&readable);
    FD_ZERO(&except);
    FD_SET(usockfd, &readable);
    FD_SET(usockfd, &except);
    timeval patience = {1, 0};
    const int rc = select(usockfd + 1, &readable, nullptr, &except, &patience);
    const int error = errno;
    if (lx_stopping()) {
        return false;
    }
    if (rc < 0) {
        LB_LOG(LB_LOG_HOST, "command select error %d\n", error);
        errno = error;
        std::perror("select on command socket");
        return false;
    }
    if (rc == 0) {
        LB_LOG(LB_LOG_HOST, "select timeout\n");
        return false;
    }
    LB_LOG(LB_LOG_HOST, "usockfd ready\n");
    LB_LOG(LB_LOG_HOST, "calling accept selectrc=%d\n", rc);
    return true;
}

bool lx_set_timeouts(int fd)
{
    const timeval second = {1, 0};
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &second, sizeof(second)) != 0) {
        const int error = errno;
        std::perror("set rcvtimeout");
        LB_LOG_BARE(LX_LOG_CLIENT, "ERROR: %s:%d setsockopt rcvtimeo failed %d\n", __FILE_NAME__,
                    __LINE__, error);
        return false;
    }
    if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &second, sizeof(second)) != 0) {
        const int error = errno;
        std::perror("set rcvtimeout");
        LB_LOG_BARE(LX_LOG_CLIENT, "ERROR: %s:%d setsockopt sndtimeo failed %d\n", __FILE_NAME__,
                    __LINE__, error);
        return false;
    }
    return true;
}

// Says why a connection that can't go on ends: the client left (`error` 0) or the read failed.
void lx_report_read(int error)
{
    if (error == 0) {
        LB_LOG_BARE(LX_LOG_CLIENT, "ERROR: %s:%d read EOF from domain socket\n", __FILE_NAME__,
                    __LINE__);
        return;
    }
    errno = error;
    std::perror("read from domain socket");
    LB_LOG_BARE(LX_LOG_CLIENT, "ERROR: %s:%d read from domain socket %d\n", __FILE_NAME__, __LINE__,
                error);
}

// Whether the whole buffer has arrived.
bool lx_read_command(int fd, lbcmd_buf_t *buffer)
{
    auto *bytes = reinterpret_cast<char *>(buffer);
    std::size_t have = 0;
    lb_s64_t moved_ms = lx_now_ms();
    while (have < sizeof(*buffer)) {
        const ssize_t rc = read(fd, bytes + have, sizeof(*buffer) - have);
        const int error = rc == 0 ? 0 : errno;
        if (rc > 0) {
            have += static_cast<std::size_t>(rc);
            moved_ms = lx_now_ms();
            continue;
        }
        if (!lx_transient(error)) {
            lx_report_read(error);
            return false;
        }
        if (!lx_may_wait(moved_ms)) {
            return false;
        }
    }
    return true;
}

void lx_write_answer(int fd, const lbcmd_buf_t *buffer)
{
    const auto *bytes = reinterpret_cast<const char *>(buffer);
    std::size_t sent = 0;
    lb_s64_t moved_ms = lx_now_ms();
    while (sent < sizeof(*buffer)) {
        // A client that has left must not end the process with SIGPIPE.
        const ssize_t rc = send(fd, bytes + sent, sizeof(*buffer) - sent, MSG_NOSIGNAL);
        const int error = errno;
        if (rc > 0) {
            sent += static_cast<std::size_t>(rc);
            moved_ms = lx_now_ms();
            continue;
        }
        if (rc < 0 && lx_transient(error)) {
            if (lx_may_wait(moved_ms)) {
                continue;
            }
            return;
        }
        if (rc < 0) {
            errno = error;
            std::perror("write command response");
        }
        LB_LOG_BARE(LX_LOG_CLIENT, "ERROR: %s:%d write to domain socket rc: %d\n", __FILE_NAME__,
                    __LINE__, static_cast<int>(rc));
        return;
    }
}

void lx_serve_client(int fd)
{
    lbcmd_buf_t buffer;
    if (lx_set_timeouts(fd) && lx_read_command(fd, &buffer)) {
        // The answer's code is in the buffer.
        static_cast<void>(lbcmd_entry(&buffer));
        lx_write_answer(fd, &buffer);
    }
    close(fd);
}

} // namespace

void *lx_command_pthread(void *usockfd_parm)
{
    const int usockfd = *static_cast<int *>(usockfd_parm);
    if (listen(usockfd, LX_BACKLOG) != 0) {
        std::perror("listen");
    }
    while (!lx_stopping()) {
        if (!lx_client_waits(usockfd)) {
            continue;
        }
        const int fd = accept(usockfd, nullptr, nullptr);
        if (fd < 0) {
            std::perror("accept");
            // The client still waits, so the next round comes at once: leave the processor to
            // others.
            usleep(LX_ACCEPT_PAUSE_US);
            continue;
        }
        lx_serve_client(fd);
    }
    return nullptr;
}
