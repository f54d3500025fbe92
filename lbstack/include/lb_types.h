// Basic types of the stack, and forward declarations of its objects, so that headers can name each
// other's types without including each other.
#pragma once

#include <cstddef>
#include <cstdint>

using lb_u8_t = std::uint8_t;
using lb_u16_t = std::uint16_t;
using lb_u32_t = std::uint32_t;
using lb_u64_t = std::uint64_t;
using lb_s8_t = std::int8_t;
using lb_s16_t = std::int16_t;
using lb_s32_t = std::int32_t;
using lb_s64_t = std::int64_t;

// Seconds and microseconds. Wall-clock time where it comes from os_gettime(); also used for
// differences, where both fields have the same sign. Aligned so that it can be read and written as
// one word while other threads do the same (lb_peek, lb_poke).
struct alignas(8) lb_timeval_s {
    lb_s32_t secs;
    lb_s32_t usecs;
};
using lb_timeval_t = lb_timeval_s;
static_assert(sizeof(lb_timeval_t) == 8);

// The host's receive buffer, opaque to the stack.
using lb_osopaque_t = void *;

// Where to transmit on one interface; filled by os_getxmithandle(), read by os_packetxmit().
union alignas(4) lb_xmithandle_u {
    unsigned char opaque[88];
};
using lb_xmithandle_t = lb_xmithandle_u;

// What becomes of a packet. Every packet entry point returns one of these.
enum lbip_packetrc_e : int {
    LB_PACKETRC_UNDEFINED = 0, // never a valid result
    LB_PACKETRC_CONSUMED = 1,  // sent, answered or dropped: the buffer may be reused
    LB_PACKETRC_INTACT = 2,    // not the forwarder's: left to the host, the buffer may be reused
    LB_PACKETRC_HELD = 3,      // kept by the stack, which frees it with os_packetfree()
};

struct lbll_list_s;
struct lbll_node_s;
struct lbht_table_s;
struct lbcmd_objhdr_s;
struct lbpbuf_obj_s;
struct lbexe_obj_s;
struct lbclu_obj_s;
struct lbport_obj_s;
struct lbsrv_obj_s;
struct lbrul_obj_s;
struct lbusrv_obj_s;
struct lbsrvset_obj_s;
struct lbsrv_ref_s;
struct lbifcol_collection_s;
struct lbifin_obj_s;
struct lbifaddr_obj_s;
struct lbneigh_obj_s;
struct lbfrag_table_s;
struct lbsel_cr_obj_s;
struct lb_retaddr_obj_s;
struct lbfrag_record_s;
struct lbha_repqobj_s;

using lbll_list_t = lbll_list_s;
using lbll_node_t = lbll_node_s;
using lbht_table_t = lbht_table_s;
using lbcmd_objhdr_t = lbcmd_objhdr_s;
using lbpbuf_obj_t = lbpbuf_obj_s;
using lbexe_obj_t = lbexe_obj_s;
using lbclu_obj_t = lbclu_obj_s;
using lbport_obj_t = lbport_obj_s;
using lbsrv_obj_t = lbsrv_obj_s;
using lbrul_obj_t = lbrul_obj_s;
using lbusrv_obj_t = lbusrv_obj_s;
using lbsrvset_obj_t = lbsrvset_obj_s;
using lbsrv_ref_t = lbsrv_ref_s;
using lbifcol_collection_t = lbifcol_collection_s;
using lbifin_obj_t = lbifin_obj_s;
using lbifaddr_obj_t = lbifaddr_obj_s;
using lbneigh_obj_t = lbneigh_obj_s;
using lbfrag_table_t = lbfrag_table_s;
using lbsel_cr_obj_t = lbsel_cr_obj_s;
using lb_retaddr_obj_t = lb_retaddr_obj_s;
using lbfrag_record_t = lbfrag_record_s;
using lbha_repqobj_t = lbha_repqobj_s;
