// A host in memory, for tests, fuzzers and benchmarks: it implements os.h with a clock that is set
// by hand, frames that are kept instead of sent, accounting of all that the stack takes, and faults
// on demand. Everything here may be called from any thread; reset() only while nobody is in the
// stack.
//
// What the stack does wrong towards its host is recorded as a fault, in words, and nothing crashes:
// relocking a mutex, unlocking a free one, destroying a held one, freeing twice, sending a frame
// under a lock or beyond what was received. FakeHostTest (tests/support/fake_fixture.h) fails on
// any.
#pragma once

#include "lb_types.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "fake_frame.h"

namespace fake
{

// Everything as at the start of the process. What is still allocated then is forgotten.
void reset();

// --- Clock: starts at 1,000,000 s; stands still unless moved; may be moved back
// ----------------------

void set_time(lb_s32_t secs, lb_s32_t usecs = 0);
void advance_ms(std::int64_t ms); // negative for a step back
inline void advance_s(std::int64_t secs)
{
    advance_ms(secs * 1000);
}
[[nodiscard]] lb_timeval_t now();

// --- What was sent
// -----------------------------------------------------------------------------------

enum class via { packet, raw4, raw6, tun };

struct sent_frame {
    via how;
    std::vector<std::uint8_t> bytes; // packet: from the Ethernet header, if there was one
    std::string ifname;              // packet: the interface of the transmit handle
    int ifindex = 0;
    int ipver = 0;                  // packet: what the handle was made for
    bool has_eth = false;           // packet: an Ethernet header was given
    std::vector<std::uint8_t> dest; // raw4, raw6: the destination's 4 or 16 bytes
    int protocol = 0;               // raw4, raw6
    int tunfd = -1;                 // tun
};

[[nodiscard]] std::vector<sent_frame> sent();      // all since reset or take_sent()
[[nodiscard]] std::vector<sent_frame> take_sent(); // the same, and forgets them
[[nodiscard]] std::uint64_t sent_count();          // counts on while frames are not kept
[[nodiscard]] std::uint64_t sent_bytes();
// With `on`, frames are counted and not kept: no allocation, no lock.
void count_only(bool on);

// --- Log
// ---------------------------------------------------------------------------------------------

[[nodiscard]] std::vector<std::string> log_lines(); // each with its newline, as emitted
[[nodiscard]] bool log_contains(std::string_view text);
[[nodiscard]] int log_count(std::string_view text); // lines that contain it
void log_clear();
void log_discard(bool on); // lines are assembled and thrown away
void log_echo(bool on);    // lines go to standard error too (or set VELL_TEST_LOG=1)

// --- Accounting
// --------------------------------------------------------------------------------------

[[nodiscard]] std::int64_t live_allocations();
[[nodiscard]] std::int64_t live_bytes();
[[nodiscard]] std::uint64_t total_allocations(); // since reset; never falls
[[nodiscard]] std::int64_t live_mutexes();
[[nodiscard]] int mutexes_held_here(); // by this thread
[[nodiscard]] std::int64_t held_frames();
// os_packetfree() calls on frames that the stack did not hold.
[[nodiscard]] std::uint64_t unheld_frees();
[[nodiscard]] std::uint64_t pullups();

[[nodiscard]] std::vector<std::string> faults();
[[nodiscard]] std::vector<std::string> take_faults(); // for tests that provoke them
void record_fault(const std::string &what);

// --- Process
// -----------------------------------------------------------------------------------------

void core_expected(bool on); // until reset(); without it, os_core() fails the test
[[nodiscard]] int core_calls();
[[nodiscard]] int unasked_core_calls();
[[nodiscard]] bool stop_requested();

// --- Faults on demand
// --------------------------------------------------------------------------------

enum class op {
    alloc,
    mutex_init,
    mutex_destroy,
    lock,
    unlock,
    getxmithandle,
    xmit,
    tun_alloc,
    count
};

// What a mutex call returns that was made to fail. The failed unlock has unlocked all the same, and
// the failed destroy destroyed.
constexpr int INJECTED_RC = 77;

// The n-th next call fails (1 is the next one), once; 0 calls it off.
void fail(op which, int n);
// Whether the failure is still ahead: false once it has struck.
[[nodiscard]] bool fail_pending(op which);

// Runs once, inside the next os_getxmithandle(): what other threads may do while the stack is busy
// there.
void during_getxmithandle(std::function<void()> what);

// --- Interfaces
// --------------------------------------------------------------------------------------

// Every name is known unless said otherwise; its index is a hash of the name.
void set_interface_unknown(const std::string &name, bool unknown = true);
void set_ifindex(const std::string &name, int ifindex);
[[nodiscard]] int ifindex_of(const std::string &name);

struct membership {
    bool join;
    std::string ifname;
    std::vector<std::uint8_t> ip6; // 16 bytes
};
[[nodiscard]] std::vector<membership> memberships();

struct iface_event {
    bool added;
    std::string ifname;
    std::vector<std::uint8_t> mac; // 6 bytes
    int interfaces = 0;            // added: how many there were then
};
[[nodiscard]] std::vector<iface_event> iface_events();

struct tun_request {
    std::string dev;
    int flags;
    int result;
};
[[nodiscard]] std::vector<tun_request> tun_requests();

} // namespace fake
