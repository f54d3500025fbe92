// The stack as its host sees it: start, stop and time. It names the version and the platform, and
// hands everything else to the executor. Start and stop are single-threaded; the timer thread
// announces here that it is inside the stack.

#include "lb_entry.h"

#include "lb_executor.h"
#include "lb_grace.h"
#include "lb_log.h"

#define LB_TEXT2(x) #x
#define LB_TEXT(x)  LB_TEXT2(x)

#if defined(__linux__)
#define LB_PLATFORM "Linux"
#else
#define LB_PLATFORM "unknown"
#endif

#if defined(__x86_64__)
#define LB_PROCESSOR "x86_64"
#elif defined(__aarch64__)
#define LB_PROCESSOR "aarch64"
#elif defined(__powerpc64__)
#define LB_PROCESSOR "ppc64"
#elif defined(__powerpc__)
#define LB_PROCESSOR "ppc"
#else
#define LB_PROCESSOR "unknown"
#endif

#if defined(__clang__)
#define LB_COMPILER                                                                                \
    "clang++" LB_TEXT(__clang_major__) "." LB_TEXT(__clang_minor__) "." LB_TEXT(                   \
        __clang_patchlevel__)
#elif defined(__GNUC__)
#define LB_COMPILER                                                                                \
    "g++" LB_TEXT(__GNUC__) "." LB_TEXT(__GNUC_MINOR__) "." LB_TEXT(__GNUC_PATCHLEVEL__)
#else
#define LB_COMPILER "unknown"
#endif

namespace
{
constexpr char PROGRAM[] = "vellb2";
} // namespace

const char *const lb_version = VELL_VERSION;
const char *const lb_buildinfo = LB_PLATFORM "/" LB_PROCESSOR "/" LB_COMPILER;

int lb_init()
{
    LB_LOG_BARE(LB_LOG_HOST | LB_LOG_EVENT, "%s %s %s init\n", PROGRAM, lb_version, lb_buildinfo);
    return lbexe_init();
}

int lb_exit()
{
    LB_LOG_BARE(LB_LOG_HOST | LB_LOG_EVENT, "%s %s %s exit\n", PROGRAM, lb_version, lb_buildinfo);
    return lbexe_exit();
}

int lb_timer_entry()
{
    lb_grace_inside inside;
    return lbexe_timer_entry();
}
