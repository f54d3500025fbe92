// High availability: this node's settings and heartbeats, and the request to take over. The daemon
// corrects settings that it can't use without a word to the client; here they are refused instead,
// and what it made of the others is looked at once more.
#include <algorithm>
#include <fmt/format.h>

#include "commands.h"
#include "syntax.h"
#include "vellb/address.h"
#include "vellb/names.h"
#include "vellb/surprises.h"
#include "words.h"

namespace vellbctl
{

namespace
{

constexpr lbcmd_keytype_e CONFIG = LBCMD_KEYTYPE_CONFIG;

lbcmd_key_t asked_heartbeat(const session &s)
{
    return vellb::heartbeat_key(*s.req.address, *s.req.partner);
}

lbexe_setable_t read_settings(const session &s)
{
    const auto now =
        vellb::run(s.daemon, {CONFIG, LBCMD_ACTION_GET, vellb::executor_key()}).setable;
    return vellb::block_of<lbexe_setable_t>(now, "settable");
}

void write_settings(const session &s, const lbexe_setable_t &block)
{
    vellb::run(s.daemon,
               {CONFIG, LBCMD_ACTION_SET, vellb::executor_key(), {}, vellb::bytes_of(block)});
}

void check(const session &s, const lbha_setables_t &wanted)
{
    const ha_words &words = s.req.ha;
    const auto wrong = [&](const std::string &message, const char *word) {
        throw usage_error(message, word, usage_line(*s.req.what));
    };
    if (!vellb::is_paired(wanted) && (words.takeover || words.replication)) {
        const char *word = words.takeover ? "--takeover" : "--replication";
        wrong(
            fmt::format("{} goes with a role in a pair: add --role primary or --role backup", word),
            word);
    }
    if (vellb::is_paired(wanted) && wanted.port == 0) {
        wrong("--port is missing: the UDP port of the heartbeats, the same on both nodes, as in "
              "--port 4647",
              "--port");
    }
}

lbha_setables_t merged(const ha_words &words, lbha_setables_t block)
{
    block.role = words.role.value_or(block.role);
    block.tostrategy = words.takeover.value_or(block.tostrategy);
    block.repstrategy = words.replication.value_or(block.repstrategy);
    block.timeout = words.timeout_s.value_or(block.timeout);
    block.reachscore = words.reach_score.value_or(block.reachscore);
    block.port = words.port.value_or(block.port);
    if (words.reach) {
        std::ranges::fill(block.reachaddr, lbip_addr_t{});
        std::ranges::fill(block.reachstatus, 0);
        std::ranges::copy(*words.reach, block.reachaddr);
    }
    // Who joins a pair has none from the time alone.
    if (vellb::is_paired(block) && block.tostrategy != LBHA_TAKEOVERSTRATEGY_AUTOMATIC) {
        block.tostrategy = LBHA_TAKEOVERSTRATEGY_MANUAL;
    }
    return block;
}

} // namespace

void ha_set(session &s)
{
    lbexe_setable_t block = read_settings(s);
    const bool was_alone = !vellb::is_paired(block.ha);
    block.ha = merged(s.req.ha, block.ha);
    check(s, block.ha);
    write_settings(s, block);
    s.look_again([&] {
        const auto now = vellb::read_picture(s.daemon);
        auto texts = vellb::ha_surprises(now);
        if (was_alone && vellb::is_paired(block.ha) && !now.clusters.empty()) {
            texts.emplace_back(
                "alone, this node announced its clusters' addresses and answered for "
                "them: where a partner is active already, set the role before the "
                "clusters are added");
        }
        if (now.executor.settings.ha.role != block.ha.role) {
            texts.push_back(fmt::format(
                "the daemon took role {} instead of {}: use the vellbctl that belongs to it",
                vellb::name_of(vellb::ha_roles(), now.executor.settings.ha.role),
                vellb::name_of(vellb::ha_roles(), block.ha.role)));
        }
        return texts;
    });
    s.answer("changed high availability\n", {{"done", "changed"}, {"object", "ha"}});
}

void ha_takeover(session &s)
{
    switch (vellb::take_over(s.daemon)) {
    case vellb::takeover_e::ACTIVE: break;
    case vellb::takeover_e::ALONE:
        throw declined(
            "this node has no partner: its role is solo",
            "give it one: vellbctl ha set --role primary|backup --port PORT, and: vellbctl "
            "heartbeat add LOCAL PARTNER");
    case vellb::takeover_e::YIELDED:
        throw declined("this node took over and yielded again: its partner claimed the addresses "
                       "at the same moment",
                       "look at both nodes, and ask again if need be: vellbctl ha show");
    }
    s.answer("took over: this node is active\n",
             {{"done", "took over"},
              {"object", "ha"},
              {"state", vellb::name_of(vellb::ha_states(), LBHA_STATE_ACTIVE)}});
}

void heartbeat_add(session &s)
{
    const lbip_addr_t &local = *s.req.address;
    const lbip_addr_t &partner = *s.req.partner;
    if (local.version != partner.version) {
        throw usage_error(fmt::format("{} is an IPv{} address, {} an IPv{} one: a heartbeat's "
                                      "addresses are of one version",
                                      vellb::address_text(local), local.version,
                                      vellb::address_text(partner), partner.version),
                          vellb::address_text(partner), usage_line(*s.req.what));
    }
    if (vellb::same_address(local, partner)) {
        throw usage_error(fmt::format("{} stands for both ends: the second is the partner's",
                                      vellb::address_text(local)),
                          vellb::address_text(partner), usage_line(*s.req.what));
    }
    s.add(CONFIG, asked_heartbeat(s), {}, vellb::bytes_of(lbha_hb_setable_t{}));
    s.look_again([&] { return vellb::ha_surprises(vellb::read_picture(s.daemon)); });
    s.done("added", CONFIG, asked_heartbeat(s));
}

void heartbeat_rm(session &s)
{
    s.remove(CONFIG, asked_heartbeat(s), false);
    s.look_again([&] { return vellb::ha_surprises(vellb::read_picture(s.daemon)); });
    s.done("removed", CONFIG, asked_heartbeat(s));
}

} // namespace vellbctl
