// A file descriptor with one owner, who closes it.
#pragma once

#include <unistd.h>

namespace vellb
{

class descriptor
{
  public:
    descriptor() = default;
    explicit descriptor(int fd) : fd_(fd) {}
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;
    ~descriptor()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    [[nodiscard]] int get() const { return fd_; }

  private:
    int fd_ = -1;
};

} // namespace vellb
