// inotify(7) on directories, never on files: an editor that writes a new file and renames it over
// the old one takes the watched file away.
#include "filewatch.h"

#include <sys/inotify.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>

namespace cpserver
{

namespace
{

constexpr uint32_t CHANGES = IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                             IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

} // namespace

std::string signature(const std::vector<std::string> &files)
{
    std::string result;
    for (const std::string &file : files) {
        struct stat status {
        };
        if (stat(file.c_str(), &status) == 0) {
            result += fmt::format("{}|{}|{}|{}|{}.{}\n", file, status.st_dev, status.st_ino,
                                  status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
        }
    }
    return result;
}

directory_watch::directory_watch(bool births)
    : inotify_(checked(inotify_init1(IN_CLOEXEC | IN_NONBLOCK), "inotify_init1")), births_(births)
{
}

bool directory_watch::add(const std::string &path)
{
    return inotify_add_watch(inotify_.get(), path.empty() ? "." : path.c_str(), CHANGES) >= 0;
}

std::vector<std::string> directory_watch::drain()
{
    std::vector<std::string> names;
    alignas(inotify_event) std::array<char, 16384> buffer;
    for (;;) {
        const ssize_t got = read(inotify_.get(), buffer.data(), buffer.size());
        if (got <= 0) {
            return names;
        }
        for (size_t at = 0; at + sizeof(inotify_event) <= static_cast<size_t>(got);) {
            inotify_event event{};
            memcpy(&event, buffer.data() + at, sizeof(event));
            const std::string name = event.len != 0 ? buffer.data() + at + sizeof(event) : "";
            at += sizeof(event) + event.len;
            if ((event.mask & IN_MODIFY) != 0) {
                open_.emplace(event.wd, name);
                continue;
            }
            if (name.empty()) { // who closes what is not heard of any more
                open_.clear();
            }
            open_.erase({event.wd, name});
            // A file that was opened for writing is heard of again when it is closed.
            if (births_ || (event.mask & IN_CREATE) == 0 || (event.mask & IN_ISDIR) != 0) {
                names.push_back(name);
            }
        }
    }
}

std::vector<std::string> directory_watch::unfinished() const
{
    std::vector<std::string> names;
    for (const auto &[directory, name] : open_) {
        names.push_back(name);
    }
    return names;
}

} // namespace cpserver
