// Notices that files may have changed. The watch tells when to look, the signature whether anything
// is different.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "loop.h"

namespace cpserver
{

// Equal as long as nothing was written to, replaced, added or removed.
std::string signature(const std::vector<std::string> &files);

// Names in directories that come, go or have been written. Not what is being written: half a file
// must not be taken for a whole one.
class directory_watch
{
  public:
    // With `births`: names that come into being in place too, as sockets do.
    explicit directory_watch(bool births);

    [[nodiscard]] int fd() const { return inotify_.get(); }

    // Watches what happens in `path`, a directory, from now on; nothing changes if it is watched
    // already. False, with errno, if it can't be.
    bool add(const std::string &path);

    // Reads all that happened: the names concerned; "" stands for events that were lost or that
    // concern a directory itself.
    std::vector<std::string> drain();

    // As far as it was drained: the names that were written to and are not closed yet.
    [[nodiscard]] std::vector<std::string> unfinished() const;

  private:
    descriptor inotify_;
    bool births_;
    std::set<std::pair<int, std::string>> open_{}; // by directory
};

} // namespace cpserver
