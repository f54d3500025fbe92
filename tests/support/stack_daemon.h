// A client of the daemon's library whose daemon is the stack of this process: commands without a
// socket. One thread.
#pragma once

#include "lb_entry.h"

#include "vellb/client.h"

class stack_daemon : public vellb::client
{
  public:
    void exchange(lbcmd_buf_t &buffer) const override { (void)lbcmd_entry(&buffer); }
};
