// What the files of the Linux host share: the process's options, its sockets and the stop flag. All
// are set before the first thread starts and only read afterwards, except `stopping`.
#pragma once

#include "lb_log.h"
#include "lb_types.h"

#include <netinet/in.h>
#include <sys/un.h>

#include <atomic>

// --- Options (lx_options.cpp) --------------------------------------------------------------------

extern lb_u8_t argforeground;      // 1: stay in the foreground and log to standard output
extern lb_u8_t argregularpriority; // 1: keep the ordinary scheduling class
extern lb_u8_t argnumworkers;      // receive workers, 1 to 15
extern lb_s32_t arglog;            // syslog facility

// Fills the options. A bad command line ends the process with status 255.
void lx_parseargs(int argc, char **argv);

// --- The process (lx_entry.cpp) ------------------------------------------------------------------

// Non-zero once the process is to stop; every thread looks at it in each of its rounds.
extern std::atomic<lb_s32_t> stopping;
static_assert(std::atomic<lb_s32_t>::is_always_lock_free, "written by a signal handler");
inline bool lx_stopping()
{
    return stopping.load(std::memory_order_relaxed) != 0;
}

extern int psfd; // the packet socket
extern int rawfd_ipip;
extern int rawfd_gre;
extern int rawfd_icmp;
extern int rawfd_icmp6;
extern int rawfd_nat;
extern sockaddr_in rawsin; // templates of destinations: each send fills its own copy
extern sockaddr_in6 rawsin6;
extern sockaddr_un sun; // the command socket's address

// --- Thread bodies -------------------------------------------------------------------------------

// Reads frames from the packet socket and hands them to the stack until the process stops.
void lx_recv(int fd);
// Serves the command socket, whose descriptor the argument points at, until the process stops.
void *lx_command_pthread(void *usockfd_parm);

// --- Log (lx_log.cpp) ----------------------------------------------------------------------------

constexpr lb_u64_t LX_LOG_FAILURE = LB_LOG_HOST | LB_LOG_FAILURE;
// What keeps the process from starting is shown under either class.
constexpr lb_u64_t LX_LOG_STARTUP = LB_LOG_HOST | LB_LOG_EVENT | LB_LOG_FAILURE;

// Says how many lines were kept from syslog, for places that have gone quiet since. Timer thread,
// and once more before syslog is closed.
void lx_log_flush();
// Dumps to standard output: a labelled buffer, and a packet socket's address.
void lx_dbg_bufprint(const char *label, const unsigned char *buf, int len);
void lx_dbg_printsll(void *pkt);

// --- Diagnostics (lx_interfaces.cpp) -------------------------------------------------------------

// Prints the host's interfaces to standard output. `sockfd` is any socket.
void lx_learninterfaces(int sockfd);
