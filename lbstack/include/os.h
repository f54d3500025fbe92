// The host services: all that the stack asks of the machine it runs on. os/Linux implements them
// for real, os/fake in memory for tests, fuzzers and benchmarks; which of the two is chosen when
// linking. Every function may be called from any thread unless it says otherwise.
#pragma once

#include "lb_types.h"

// --- Mutexes -------------------------------------------------------------------------------------

// Storage for a host mutex, used only through the calls below. Not recursive.
struct lblock_s {
    alignas(8) unsigned char opaque[256];
};
using lblock = lblock_s;

// Each returns 0 or the host's error code.
int os_mutex_init(void *lock);
int os_mutex_destroy(void *lock);
int os_mutex_lock(void *lock);
int os_mutex_unlock(void *lock);

// --- Memory --------------------------------------------------------------------------------------

// NULL when memory is exhausted. Aligned for any type.
void *os_memalloc(int size);
void os_memfree(void *obj);
void *os_memcpy(void *to, const void *from, std::size_t len);
void *os_memset(void *to, int byte, std::size_t len);
int os_memcmp(const void *a, const void *b, std::size_t len);

// --- Time and process ----------------------------------------------------------------------------

// Wall-clock time. Returns the seconds; fills zeros and returns 0 when the clock can't be read.
lb_s32_t os_gettime(lb_timeval_t *timeval);

// The stack found its own data inconsistent. Aborts with a core dump in the foreground and returns
// in daemon mode: code after it must be safe.
void os_core();

// Asks the process to stop, as SIGTERM does.
void os_stop();

// --- Log -----------------------------------------------------------------------------------------

// Adds to this thread's line; the line leaves when it ends with a newline or is full (1022
// characters). Lines leave whole, whatever other threads print. Use LB_LOG (lb_log.h) instead.
__attribute__((format(printf, 1, 2))) void os_print(const char *fmt, ...);

// --- Transmission --------------------------------------------------------------------------------

// Sends one frame: `eth` (14 bytes, contiguous with what follows) and `protolen` bytes of network
// layer, or, where `eth` is NULL, `protolen` bytes from `proto`. A failure is logged by the host.
void os_packetxmit(void *eth, void *proto, int protolen, void *xmithandle, lb_osopaque_t osopaque);

// Sends an IPv4 payload through the raw socket of `protocol` (4, 47, 1; 255: a whole IPv4 packet).
// `destaddr` is 4 bytes in network order; NULL means the previous call's destination.
void os_xmitraw(void *data, int length, unsigned char *srcaddr, unsigned char *destaddr,
                int protocol, lb_osopaque_t osopaque);

// The same for IPv6 (16 bytes of address); only protocol 58 sends anything.
void os_xmitraw6(void *data, int length, unsigned char *destaddr, int protocol);

// Opens a tun device called `dev`. Negative when the device can't be opened; a descriptor that is
// closed already when it opens but can't be attached, which the caller can't tell from success.
int os_tunAlloc(char *dev, int flags);

// Writes the network-layer packet behind the Ethernet header to the tun device.
void os_tunXmit(void *eth, int protolen, int tunfd);

// Builds the transmit handle of an interface: 0, or 1 for an unknown name (handle untouched).
// `ipver` 4 or 6. The hardware and IP addresses are hints that a host may ignore.
int os_getxmithandle(const char *name, int namelen, const unsigned char *ifacemac, int ipver,
                     const unsigned char *nbosrcip, const unsigned char *nbodstip,
                     void *xmithandle);

// Joins or leaves the Ethernet multicast group of an IPv6 address's solicited-node address.
// `interface` is the interface's name, `ip6addr` 16 bytes.
void os_regethmulticast(const char *interface, const unsigned char *ip6addr);
void os_unregethmulticast(const char *interface, const unsigned char *ip6addr);

// An interface was added to or removed from the interface tree. `ifacelist` holds `ifacecount`
// pointers to the settable blocks of the interfaces (lbifin_setable_t), the new one last.
void os_addiface(const char *ifacename, const void *ethaddr, void **ifacelist, int ifacecount);
void os_removeiface(const char *ifacename, const void *ethaddr);

// --- Received frames -----------------------------------------------------------------------------

// The stack is done with a received buffer. Frees it if the stack held it; otherwise the worker
// that received it still owns it and will reuse it.
void os_packetfree(lb_osopaque_t osopaque);

// The stack keeps a received buffer beyond the entry that it was handed to. Called by the thread
// that received it, before any other thread can find the packet: from then on the buffer is freed
// by whoever comes second, os_packetfree() or the worker when its entry has returned.
void os_packethold(lb_osopaque_t osopaque);

// Makes room for a link header in front of a frame that has none: sets *ppethaddr and returns 0, or
// returns 1 when there is one already or no room.
int os_headroom(int headroom, void **ppethaddr, void **ppproto, void **pposopaque);

// Makes `minlen` bytes contiguous: 1, or 0 where the host can't (received frames are contiguous).
int os_pullup(int minlen, void **ppethaddr, void **ppproto, int *pprotolen, void **pposopaque);
