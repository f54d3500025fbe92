// Changes to rules and use-servers. A rule takes effect at once, also while it uses no server yet:
// the warnings that follow each change say so.
#include "commands.h"
#include "syntax.h"
#include "words.h"

namespace vellbctl
{

namespace
{

constexpr lbcmd_keytype_e CONFIG = LBCMD_KEYTYPE_CONFIG;

lbcmd_key_t asked_rule(const session &s)
{
    return vellb::rule_key(*s.req.address, s.req.port, s.req.rule);
}
lbcmd_key_t asked_useserver(const session &s)
{
    return vellb::useserver_key(*s.req.address, s.req.port, s.req.rule, *s.req.server);
}

// A range that nobody gave would mean "at 0 connections", which nobody means.
void check_range(const session &s, const lbrul_setable_t &settings)
{
    const bool ranged = settings.type != LBRUL_TYPE_TRUE;
    if (ranged && !s.req.ranged) {
        throw usage_error("--range is missing: the open connections at which the rule fires, as in "
                          "10-20",
                          "--type", usage_line(*s.req.what));
    }
    if (!ranged && s.req.ranged) {
        throw usage_error("--range goes with --type port-active or rule-active", "--range",
                          usage_line(*s.req.what));
    }
}

} // namespace

void rule_add(session &s)
{
    lbrul_setable_t settings{};
    s.req.rule_edits.apply(settings);
    check_range(s, settings);
    s.add(CONFIG, asked_rule(s), vellb::bytes_of(lbrul_addable_t{}), vellb::bytes_of(settings));
    look_at_port(s);
    s.done("added", CONFIG, asked_rule(s));
}

void rule_set(session &s)
{
    s.change(CONFIG, asked_rule(s), s.req.rule_edits);
    look_at_port(s);
    s.done("changed", CONFIG, asked_rule(s));
}

void rule_rm(session &s)
{
    const unsigned gone = s.remove(CONFIG, asked_rule(s), s.req.recursive);
    look_at_port(s);
    const std::string what =
        gone > 1 ? "removed, with " + std::to_string(gone - 1) + " below it," : "removed";
    s.done(what.c_str(), CONFIG, asked_rule(s));
}

void useserver_add(session &s)
{
    s.add(CONFIG, asked_useserver(s), vellb::bytes_of(lbusrv_addable_t{}),
          vellb::bytes_of(lbusrv_setable_t{}));
    look_at_port(s);
    s.done("added", CONFIG, asked_useserver(s));
}

void useserver_rm(session &s)
{
    s.remove(CONFIG, asked_useserver(s), false);
    look_at_port(s);
    s.done("removed", CONFIG, asked_useserver(s));
}

} // namespace vellbctl
