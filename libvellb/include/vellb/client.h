// The road to the daemon: one connection, one command buffer out and back.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "prot/command.h"

namespace vellb
{

inline constexpr const char *DEFAULT_SOCKET = "/vellb2";

enum class fault_e {
    UNREACHABLE,  // no daemon behind the path, or no permission
    TIMED_OUT,    // it did not answer in time
    CLOSED_EARLY, // it closed the connection before the answer was complete
    MALFORMED,    // what came back is no answer to the request
};

// No usable answer. what() says what happened, hint() what to do about it.
class fault : public std::runtime_error
{
  public:
    fault(fault_e kind, const std::string &message, std::string hint)
        : std::runtime_error(message), kind_(kind), hint_(std::move(hint))
    {
    }
    [[nodiscard]] fault_e kind() const { return kind_; }
    [[nodiscard]] const std::string &hint() const { return hint_; }

  private:
    fault_e kind_;
    std::string hint_;
};

class client
{
  public:
    // The daemon serves one connection at a time and gives a stalled one ten seconds: the default
    // waits for longer than that.
    explicit client(std::string path = DEFAULT_SOCKET,
                    std::chrono::milliseconds timeout = std::chrono::seconds(15))
        : path_(std::move(path)), timeout_(timeout)
    {
    }

    virtual ~client() = default;

    // Sends the buffer and overwrites it with the answer. Throws fault; never raises SIGPIPE.
    // Another road than a socket overrides it.
    virtual void exchange(lbcmd_buf_t &buffer) const;

    [[nodiscard]] const std::string &path() const { return path_; }

  private:
    std::string path_;
    std::chrono::milliseconds timeout_;
};

} // namespace vellb
