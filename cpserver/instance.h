// One control server at a time: two with different files would undo each other's work.
#pragma once

#include <string>

#include "loop.h"

namespace cpserver
{

// Holds a lock in `directory` (made if missing) for as long as it lives; the kernel drops it with
// the process. Throws std::runtime_error that names the other process, or std::system_error.
class instance
{
  public:
    explicit instance(const std::string &directory);

  private:
    descriptor lock_;
};

} // namespace cpserver
