// flock(2) on a file that holds the process number of its owner.
#include "instance.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>

#include <cerrno>
#include <fmt/format.h>

namespace cpserver
{

namespace
{

int opened(const std::string &directory)
{
    if (mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) {
        throw std::system_error(errno, std::system_category(), "cannot make " + directory);
    }
    const std::string path = directory + "/lock";
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        throw std::system_error(errno, std::system_category(), "cannot open " + path);
    }
    return fd;
}

} // namespace

instance::instance(const std::string &directory) : lock_(opened(directory))
{
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
        char text[16] = "?";
        const ssize_t got = pread(lock_.get(), text, sizeof(text) - 1, 0);
        const std::string owner(text, got > 0 ? static_cast<size_t>(got) : 1);
        throw std::runtime_error(
            fmt::format("another cpserver (process {}) holds {}/lock and would undo what this one "
                        "does; stop it first, or change its file: it notices",
                        owner.substr(0, owner.find('\n')), directory));
    }
    const std::string number = fmt::format("{}\n", getpid());
    if (ftruncate(lock_.get(), 0) != 0 || pwrite(lock_.get(), number.data(), number.size(), 0) !=
                                              static_cast<ssize_t>(number.size())) {
        throw std::system_error(errno, std::system_category(), "cannot write the lock file");
    }
}

} // namespace cpserver
