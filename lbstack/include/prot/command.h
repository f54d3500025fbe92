// The command buffer: one request or answer on the command socket. Host byte order.
#pragma once

#include "prot/keys.h"

constexpr lb_u32_t LBCMD_VERSION = 0x0805050B;
constexpr int LBCMD_BUFSIZE = 65536;

enum lbcmd_keytype_e : lb_u8_t {
    LBCMD_KEYTYPE_UNUSED = 0,
    LBCMD_KEYTYPE_CONFIG = 1,
    LBCMD_KEYTYPE_IFACE = 2,
    LBCMD_KEYTYPE_MAXIMUM = 3, // bound, never sent
};

enum lbcmd_action_e : lb_u8_t {
    LBCMD_ACTION_ADD = 1,
    LBCMD_ACTION_RM = 2,
    LBCMD_ACTION_GET = 3,
    LBCMD_ACTION_SET = 4,
};

enum lbcmd_bufhdr_answer_rc_e : lb_u16_t {
    LBCMD_RC_SUCCESS = 1,
    LBCMD_RC_NOTRECOGNIZED = 2,
    LBCMD_RC_NOPARENT = 3,
    LBCMD_RC_ALREADYEXISTS = 4,
    LBCMD_RC_PARENTDNE = 5,
    LBCMD_RC_OBJNOTFOUND = 6,
    LBCMD_RC_HASCHILD = 7,
    LBCMD_RC_FAILURE = 10,
    LBCMD_RC_BADKEYTYPE = 11, // for clients' own use
    LBCMD_RC_PROTOONLY = 99,  // for clients' own use
};

struct lbcmd_bufhdr_s {
    lb_u32_t lbversion; // LBCMD_VERSION
    lbcmd_key_t key;
    lb_u8_t keytype;    // lbcmd_keytype_e
    lb_u8_t action;     // lbcmd_action_e
    lb_u16_t addsize;   // bytes of the addable block,
    lb_u16_t setsize;   // the settable block,
    lb_u16_t getsize;   // the readable block,
    lb_u16_t listsize;  // and the children's keys, in this order and without gaps
    lb_u16_t answer_rc; // lbcmd_bufhdr_answer_rc_e
};
using lbcmd_bufhdr_t = lbcmd_bufhdr_s;
static_assert(sizeof(lbcmd_bufhdr_t) == 72);
static_assert(offsetof(lbcmd_bufhdr_t, key) == 4 && offsetof(lbcmd_bufhdr_t, keytype) == 60);
static_assert(offsetof(lbcmd_bufhdr_t, action) == 61 && offsetof(lbcmd_bufhdr_t, addsize) == 62);
static_assert(offsetof(lbcmd_bufhdr_t, setsize) == 64 && offsetof(lbcmd_bufhdr_t, getsize) == 66);
static_assert(offsetof(lbcmd_bufhdr_t, listsize) == 68 &&
              offsetof(lbcmd_bufhdr_t, answer_rc) == 70);

constexpr int LBCMD_PAYLOADSIZE = LBCMD_BUFSIZE - static_cast<int>(sizeof(lbcmd_bufhdr_t));
struct lbcmd_buf_s {
    lbcmd_bufhdr_t hdr;
    lb_u8_t _x[LBCMD_PAYLOADSIZE]; // blocks may start at odd offsets: memcpy
};
using lbcmd_buf_t = lbcmd_buf_s;
static_assert(sizeof(lbcmd_buf_t) == LBCMD_BUFSIZE && offsetof(lbcmd_buf_t, _x) == 72);
