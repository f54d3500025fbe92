// The log mask, and the time in front of every line. Owns the three words that decide what is
// logged and from when it counts; the executor hangs its own mask and start time in here when it is
// built, before other threads run. Entered by every thread; takes no lock.
#include "lb_log.h"

#include "lb_utils.h"

lb_u64_t lbexe_log_mask = LB_LOG_FAILURE;
lb_u64_t *lbexeos_logmask = nullptr;
lb_timeval_t *lbexeos_starttime = nullptr;

lb_timeval_t lb_log_elapsed()
{
    if (lbexeos_starttime == nullptr) {
        return {0, 0};
    }
    lb_timeval_t now;
    (void)os_gettime(&now); // a clock that can't be read shows as a strange time, nothing worse
    return lb_timediff(now, lb_peek(*lbexeos_starttime));
}

void lb_log_prefix()
{
    const lb_timeval_t elapsed = lb_log_elapsed();
    os_print("%d.%06d ", elapsed.secs, elapsed.usecs);
}
