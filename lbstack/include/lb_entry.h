// The stack as its host sees it: start, stop, time, commands and frames.
#pragma once

#include "lb_types.h"

#include "prot/command.h"

// The version, and a short text naming platform, processor and compiler.
extern const char *const lb_version;
extern const char *const lb_buildinfo;

// Builds the stack: 0, or non-zero. Single-threaded, before any other call.
[[nodiscard]] int lb_init();
// Retires it, once every other thread is out: 0, or non-zero.
int lb_exit();
// The periodic work, every 500 ms on the timer thread.
int lb_timer_entry();

// Executes a command buffer in place on the command thread and returns its answer code.
int lbcmd_entry(lbcmd_buf_t *buffer);

// A received frame. `ethh` points at the 14-byte Ethernet header or is NULL, the second argument at
// the network layer, of which `len` bytes (possibly none, or -1) were received. The caller is
// inside the stack (lb_grace.h). The result says what becomes of the buffer.
int lbarp_entry(void *ethh, void *varp, int len, lb_osopaque_t osopaque);
int lbipv4_entry(void *ethh, void *iph, int len, lb_osopaque_t osopaque);
int lbipv6_entry(void *ethh, void *iph, int len, lb_osopaque_t osopaque);
