// One write(2) a record, so that records of this process never mix. One thread.
#include "log.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

namespace cpserver
{

namespace
{

bool verbose_wanted = false;

// systemd.exec(5): "$JOURNAL_STREAM" names the device and inode of the stream, for what inherits
// the variable but writes elsewhere.
bool goes_to_journal()
{
    const char *stream = getenv("JOURNAL_STREAM"); // NOLINT(concurrency-mt-unsafe): one thread
    struct stat status {
    };
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           stream == fmt::format("{}:{}", status.st_dev, status.st_ino);
}

std::string intro(level_e level)
{
    static const bool to_journal = goes_to_journal();
    if (to_journal) { // which keeps its own time
        return fmt::format("<{}>", static_cast<int>(level));
    }
    timeval now{};
    gettimeofday(&now, nullptr);
    tm parts{};
    localtime_r(&now.tv_sec, &parts);
    char text[32];
    const size_t length = strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
    const char *word = level == level_e::ERROR     ? "error: "
                       : level == level_e::WARNING ? "warning: "
                                                   : "";
    return fmt::format("{}.{:03} {}", std::string_view(text, length), now.tv_usec / 1000, word);
}

} // namespace

void set_verbose(bool verbose)
{
    verbose_wanted = verbose;
}

void log_text(level_e level, std::string_view text)
{
    if (level == level_e::DEBUG && !verbose_wanted) {
        return;
    }
    while (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    for (;;) {
        const size_t end = text.find('\n');
        const std::string record = fmt::format("{}{}\n", intro(level), text.substr(0, end));
        // Nobody is left to be told when this fails.
        (void)!write(STDERR_FILENO, record.data(), record.size());
        if (end == std::string_view::npos) {
            return;
        }
        text.remove_prefix(end + 1);
    }
}

void complaint::say(const std::string &text)
{
    if (text != said_) {
        said_ = text;
        log_text(level_, text);
    }
}

void complaint::over(std::string_view relief)
{
    if (!said_.empty()) {
        said_.clear();
        if (!relief.empty()) {
            log_text(level_e::NOTICE, relief);
        }
    }
}

} // namespace cpserver
