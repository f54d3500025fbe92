// NAT. It owns the executor's list of return addresses. There are no NAT servers yet, so the list
// stays empty and its callbacks are never called.

#include "lb_nat.h"

#include "lb_executor.h"

int _lb_nat_init()
{
    const int rc = lbll_initlist(&lbexecutor->retaddrlist, 0, lbll_filter_true, nullptr);
    if (rc == 0) {
        lbll_setrank(&lbexecutor->retaddrlist, LB_RANK_OBJECT);
    }
    return rc;
}

int _lb_nat_exit()
{
    return lbll_cleanuplist(&lbexecutor->retaddrlist);
}
