// The neighbour state byte, as the readable blocks of servers, the executor and heartbeats carry
// it.
#pragma once

#include "lb_types.h"

enum lbneigh_state_e : lb_u8_t {
    LBNEIGH_STATE_UNDEF = 0,
    LBNEIGH_STATE_RXOK = 1, // resolved and recently confirmed
    LBNEIGH_STATE_TXU0 = 2, // unicast verification sent
    LBNEIGH_STATE_TXB1 = 3, // first, second, third broadcast query sent
    LBNEIGH_STATE_TXB2 = 4,
    LBNEIGH_STATE_TXB3 = 5,
    LBNEIGH_STATE_DEAD = 6,
    LBNEIGH_STATE_UNUSED7 = 7,
};
constexpr lb_u8_t LBNEIGH_STATEMASK_STATE = 15;
constexpr lb_u8_t LBNEIGH_STATEMASK_MOD = 240;
constexpr lb_u8_t LBNEIGH_STATEMOD_UNDEF = 0;
constexpr lb_u8_t LBNEIGH_STATEMOD_NOIFACE = 16;     // no interface for the address
constexpr lb_u8_t LBNEIGH_STATEMOD_ERROR = 32;       // no transmit handle
constexpr lb_u8_t LBNEIGH_STATEMOD_SERVERSDOWN = 64; // dead, and so are its servers
