// The command line. Arguments are matched by their first two characters only and an option's value
// is always the next argument; both are the system's own habit and scripts rely on it. What can't
// be understood is named on standard error; only a missing or malformed value ends the process.
//
// Entered once, by main() before any thread exists. Takes no locks.
#include "lx_host.h"

#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

lb_u8_t argforeground = 0;
lb_u8_t argregularpriority = 0;
lb_u8_t argnumworkers = 4;
lb_s32_t arglog = LOG_LOCAL3;

namespace
{

constexpr int LX_DEFAULT_WORKERS = 4;
constexpr int LX_MAX_WORKERS = 15;
constexpr int LX_MAX_FACILITY = 7;
constexpr int LX_FACILITY_STEP = 8; // from LOG_LOCAL0 to LOG_LOCAL1

[[noreturn]] void lx_badargs()
{
    std::exit(-1); // NOLINT(concurrency-mt-unsafe): no thread has been started yet
}

void lx_arg_workers(const char *value)
{
    if (value == nullptr) {
        std::fprintf(stderr, "Error:  option -n needs decimal argument\n");
        lx_badargs();
    }
    const long workers = std::strtol(value, nullptr, 10);
    if (workers <= 0 || workers > LX_MAX_WORKERS) {
        std::fprintf(stderr, "Warning: Invalid value (%s) for -n,setting to default %d\n", value,
                     LX_DEFAULT_WORKERS);
        argnumworkers = LX_DEFAULT_WORKERS;
        return;
    }
    argnumworkers = static_cast<lb_u8_t>(workers);
}

void lx_arg_facility(const char *value)
{
    if (value == nullptr) {
        std::fprintf(stderr, "Error:  option -l needs decimal argument\n");
        lx_badargs();
    }
    char *rest = nullptr;
    errno = 0;
    const long local = std::strtol(value, &rest, 10);
    if ((local == 0 && errno != 0) || *rest != '\0') {
        std::fprintf(stderr, "Error: Invalid argument to option -l\n");
        lx_badargs();
    }
    if (local < 0 || local > LX_MAX_FACILITY) {
        std::fprintf(stderr,
                     "Warning: Invalid parameter to option -l,setting to default LOG_LOCAL3\n");
        arglog = LOG_LOCAL3;
        return;
    }
    arglog = static_cast<lb_s32_t>(LOG_LOCAL0 + local * LX_FACILITY_STEP);
}

void lx_arg_mask(const char *value)
{
    if (value == nullptr) {
        std::fprintf(stderr, "Error: Option -m needs hex argument\n");
        lx_badargs();
    }
    if (value[0] == '-') {
        std::fprintf(stderr, "Error: Argument for -m option cannot be negative\n");
        lx_badargs();
    }
    char *rest = nullptr;
    errno = 0;
    const unsigned long long mask = std::strtoull(value, &rest, 16);
    if ((mask == 0 && errno != 0) || *rest != '\0') {
        std::fprintf(stderr, "Error: Invalid argument for option -m %s\n", value);
        lx_badargs();
    }
    if (errno != 0) {
        std::fprintf(stderr, "Error: Out of range argument for option -m %s\n", value);
        lx_badargs();
    }
    lbexe_log_mask = mask;
}

bool lx_is(const char *arg, const char *option)
{
    return std::strncmp(arg, option, 2) == 0;
}

} // namespace

void lx_parseargs(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        const char *arg = argv[i];
        const char *value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (std::strlen(arg) < 2) {
            std::fprintf(stderr, "arg %d val %s bad\n", i, arg);
        } else if (lx_is(arg, "-f")) {
            argforeground = 1;
        } else if (lx_is(arg, "-r")) {
            argregularpriority = 1;
        } else if (lx_is(arg, "-n")) {
            lx_arg_workers(value);
            i++;
        } else if (lx_is(arg, "-l")) {
            lx_arg_facility(value);
            i++;
        } else if (lx_is(arg, "-m")) {
            lx_arg_mask(value);
            i++;
        } else {
            std::fprintf(stderr, "Error: Unrecognized option %s\n", arg);
        }
    }
}
