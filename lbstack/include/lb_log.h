// Logging. Every site names its bits: a module bit, or a module bit with class bits. A line is
// produced when the executor's mask has any of them, or while there is no executor yet. A disabled
// site costs one pointer test and one AND. Message texts are an interface: operators and tests
// match them.
#pragma once

#include "lb_types.h"
#include "lb_words.h"

#include "os.h"

// Module bits.
constexpr lb_u64_t LB_LOG_IPV4 = 0x1000;
constexpr lb_u64_t LB_LOG_IPV6 = 0x2000;
constexpr lb_u64_t LB_LOG_IP = 0x4000;
constexpr lb_u64_t LB_LOG_TCPUDP = 0x8000;
constexpr lb_u64_t LB_LOG_LIST = 0x10000;
constexpr lb_u64_t LB_LOG_EXECUTOR = 0x20000;
constexpr lb_u64_t LB_LOG_COMMAND = 0x40000;
constexpr lb_u64_t LB_LOG_CLUSTER = 0x80000;
constexpr lb_u64_t LB_LOG_PORT = 0x100000;
constexpr lb_u64_t LB_LOG_SERVER = 0x200000;
constexpr lb_u64_t LB_LOG_CONFIG = 0x400000;
constexpr lb_u64_t LB_LOG_IFACETREE = 0x800000;
constexpr lb_u64_t LB_LOG_IFCOL = 0x1000000;
constexpr lb_u64_t LB_LOG_IFACE = 0x2000000;
constexpr lb_u64_t LB_LOG_HOST = 0x4000000;
constexpr lb_u64_t LB_LOG_ARP = 0x10000000;
constexpr lb_u64_t LB_LOG_HASH = 0x20000000;
constexpr lb_u64_t LB_LOG_NEIGH = 0x40000000;
constexpr lb_u64_t LB_LOG_SELECT = 0x80000000;
constexpr lb_u64_t LB_LOG_ICMPV6 = 0x100000000;
constexpr lb_u64_t LB_LOG_HA = 0x200000000;
constexpr lb_u64_t LB_LOG_ICMP = 0x400000000;
constexpr lb_u64_t LB_LOG_FRAGMENT = 0x800000000;
constexpr lb_u64_t LB_LOG_RULE = 0x2000000000;
constexpr lb_u64_t LB_LOG_USESERVER = 0x4000000000;
constexpr lb_u64_t LB_LOG_SERVERSET = 0x8000000000;

// Class bits.
constexpr lb_u64_t LB_LOG_FORWARDED = 0x1;
constexpr lb_u64_t LB_LOG_DISCARDED = 0x2;
constexpr lb_u64_t LB_LOG_INTACT = 0x4;
constexpr lb_u64_t LB_LOG_PKTERROR = 0x8;
constexpr lb_u64_t LB_LOG_HELD = 0x10;
constexpr lb_u64_t LB_LOG_EVENT = 0x100; // notable events and refused requests
constexpr lb_u64_t LB_LOG_FAILURE = 0x200;
constexpr lb_u64_t LB_LOG_STATISTICS = 0x400;
constexpr lb_u64_t LB_LOG_REAP = 0x800;

// The mask given on the command line, copied into the executor when it is built. Set before that.
extern lb_u64_t lbexe_log_mask;
// The executor's mask and start time; NULL until lbexe_init() has set them.
extern lb_u64_t *lbexeos_logmask;
extern lb_timeval_t *lbexeos_starttime;

inline bool lb_log_enabled(lb_u64_t bits)
{
    return lbexeos_logmask == nullptr || (lb_peek(*lbexeos_logmask) & bits) != 0;
}

// Time since start, both fields of one sign; zero before the executor exists.
lb_timeval_t lb_log_elapsed();

// Prints "%d.%06d ", the prefix of every line.
void lb_log_prefix();

// One log site. The text follows "%s:%d " (source file, line) and ends with a newline.
#define LB_LOG(bits, fmt, ...)                                                                     \
    do {                                                                                           \
        if (lb_log_enabled(bits)) {                                                                \
            lb_log_prefix();                                                                       \
            os_print("%s:%d " fmt, __FILE_NAME__, __LINE__ __VA_OPT__(, ) __VA_ARGS__);            \
        }                                                                                          \
    } while (0)

// The few sites whose text does not begin with the source file.
#define LB_LOG_BARE(bits, ...)                                                                     \
    do {                                                                                           \
        if (lb_log_enabled(bits)) {                                                                \
            lb_log_prefix();                                                                       \
            os_print(__VA_ARGS__);                                                                 \
        }                                                                                          \
    } while (0)

// A pointer as the low 32 bits that "%x" prints.
inline unsigned lb_log_low32(const void *pointer)
{
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(pointer));
}
