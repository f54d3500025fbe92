// See commands.h. One thread.
#include "commands.h"

#include "lb_entry.h"
#include "lb_executor.h"

#include <algorithm>
#include <cstring>

#include "fake_frame.h"
#include "fake_host.h"
#include "packets.h"

namespace fuzz
{

std::string run_command(world &stack)
{
    const lbcmd_bufhdr_t &hdr = stack.buffer().hdr;
    const int action = hdr.action;
    const bool versionfits = hdr.lbversion == LBCMD_VERSION;
    const bytes before = world::objects();
    const int rc = stack.execute();
    require(rc >= LBCMD_RC_SUCCESS && rc <= LBCMD_RC_FAILURE,
            "an answer code that no command gets");
    const bool got = action == LBCMD_ACTION_GET && rc == LBCMD_RC_SUCCESS;
    const int total = hdr.addsize + hdr.setsize + hdr.getsize + hdr.listsize;
    if (got) {
        require(total <= LBCMD_PAYLOADSIZE, "an answer longer than the buffer");
        require(hdr.listsize % sizeof(lbcmd_key_t) == 0, "half a key in the list of children");
    }
    // An object that can't be removed is off the command list all the same.
    const bool halfremoved = action == LBCMD_ACTION_RM && rc == LBCMD_RC_FAILURE;
    if ((rc != LBCMD_RC_SUCCESS || action == LBCMD_ACTION_GET) && !halfremoved) {
        require(world::objects() == before, "a refused command or a GET changed an object");
    }
    require(versionfits || rc == LBCMD_RC_FAILURE, "a command of another version was obeyed");
    world::require_unharmed();
    static const char *const verbs[] = {"other", "ADD", "RM", "GET", "SET"};
    return verbs[action <= LBCMD_ACTION_SET ? action : 0] + (" " + std::to_string(rc));
}

void run_commands(const std::uint8_t *data, std::size_t size)
{
    world stack;
    std::memset(&stack.buffer(), 0, sizeof(lbcmd_buf_t));
    for (record next; take_record(data, size, next);) {
        std::copy_n(next.content.begin(), std::min(next.content.size(), sizeof(lbcmd_buf_t)),
                    reinterpret_cast<std::uint8_t *>(&stack.buffer()));
        if ((next.control & 1) != 0) {
            stack.buffer().hdr.lbversion = LBCMD_VERSION;
        }
        (void)run_command(stack);
        if ((next.control & 6) != 0) {
            fake::advance_ms((next.control & 4) != 0 ? 5000 : 500);
            (void)lb_timer_entry();
        }
        if ((next.control & 8) != 0) {
            (void)fake::receive(packets::build(packets::packet{}));
        }
        (void)fake::take_sent();
    }
    stack.finish();
}

} // namespace fuzz
