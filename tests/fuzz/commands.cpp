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

namespace
{

struct name {
    int value;
    const char *text;
};
constexpr name ACTIONS[] = {
    {LBCMD_ACTION_ADD, "ADD"},
    {LBCMD_ACTION_RM, "RM"},
    {LBCMD_ACTION_GET, "GET"},
    {LBCMD_ACTION_SET, "SET"},
};
constexpr name CODES[] = {
    {LBCMD_RC_SUCCESS, "SUCCESS"},     {LBCMD_RC_NOTRECOGNIZED, "NOTRECOGNIZED"},
    {LBCMD_RC_NOPARENT, "NOPARENT"},   {LBCMD_RC_ALREADYEXISTS, "ALREADYEXISTS"},
    {LBCMD_RC_PARENTDNE, "PARENTDNE"}, {LBCMD_RC_OBJNOTFOUND, "OBJNOTFOUND"},
    {LBCMD_RC_HASCHILD, "HASCHILD"},   {LBCMD_RC_FAILURE, "FAILURE"},
};

template <std::size_t N> const char *name_of(const name (&names)[N], int value)
{
    for (const name &n : names) {
        if (n.value == value) {
            return n.text;
        }
    }
    return nullptr;
}

} // namespace

const std::vector<std::string> COMMAND_ANSWERS = {
    "ADD SUCCESS",         "ADD NOPARENT",   "ADD ALREADYEXISTS", "ADD PARENTDNE",   "ADD FAILURE",
    "RM SUCCESS",          "RM OBJNOTFOUND", "RM HASCHILD",       "RM FAILURE",      "GET SUCCESS",
    "GET OBJNOTFOUND",     "GET FAILURE",    "SET SUCCESS",       "SET OBJNOTFOUND", "SET FAILURE",
    "other NOTRECOGNIZED", "other FAILURE"};

void run_command(world &stack, answers *counts)
{
    const lbcmd_bufhdr_t &hdr = stack.buffer().hdr;
    const int action = hdr.action;
    const bool versionfits = hdr.lbversion == LBCMD_VERSION;
    const bytes before = world::objects();
    const int rc = stack.execute();
    const char *code = name_of(CODES, rc);
    require(code != nullptr, "an answer code that no command gets");
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
    if (counts != nullptr) {
        const char *verb = name_of(ACTIONS, action);
        (*counts)[std::string(verb != nullptr ? verb : "other") + " " + code]++;
    }
}

void run_commands(const std::uint8_t *data, std::size_t size)
{
    world stack;
    std::size_t at = 0;
    std::memset(&stack.buffer(), 0, sizeof(lbcmd_buf_t));
    while (size - at >= 3) {
        const std::uint8_t control = data[at];
        const std::size_t wanted = static_cast<std::size_t>(data[at + 1] << 8 | data[at + 2]);
        at += 3;
        const std::size_t len = std::min({wanted, size - at, sizeof(lbcmd_buf_t)});
        std::memcpy(static_cast<void *>(&stack.buffer()), data + at, len);
        at += len;
        if ((control & 1) != 0) {
            stack.buffer().hdr.lbversion = LBCMD_VERSION;
        }
        run_command(stack, nullptr);
        if ((control & 6) != 0) {
            fake::advance_ms((control & 4) != 0 ? 5000 : 500);
            (void)lb_timer_entry();
        }
        if ((control & 8) != 0) {
            (void)fake::receive(packets::build(packets::packet{}));
        }
        (void)fake::take_sent();
    }
    stack.finish();
}

bytes command_record(const bytes &command)
{
    bytes out(3 + command.size());
    out[0] = 1;
    packets::put16(out, 1, static_cast<std::uint16_t>(command.size()));
    packets::set_at(out, 3, command);
    return out;
}

} // namespace fuzz
