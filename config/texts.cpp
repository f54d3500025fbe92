// One list of options for each kind of object; a command is told by those in which two lists
// differ. No state.
#include "texts.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>

#include "vellb/address.h"
#include "vellb/names.h"
#include "vellb/words.h"

namespace vellcfg
{

namespace
{

using vellb::object_e;

std::string on_off(bool on)
{
    return on ? "on" : "off";
}

// None for a block that is not there, or is another one.
template <class B> std::optional<B> block(const vellb::bytes_t &bytes)
{
    return bytes.size() == sizeof(B) ? std::optional(vellb::block_of<B>(bytes, "")) : std::nullopt;
}

void add_ha(options_t &to, const lbha_setables_t &ha)
{
    to.push_back({"--role", {vellb::name_of(vellb::ha_roles(), ha.role)}});
    if (ha.role == LBHA_ROLE_SOLO) {
        return;
    }
    to.push_back({"--takeover", {vellb::name_of(vellb::ha_takeovers(), ha.tostrategy)}});
    to.push_back({"--timeout", {vellb::seconds_text(ha.timeout)}});
    to.push_back({"--replication", {vellb::name_of(vellb::ha_replications(), ha.repstrategy)}});
    to.push_back({"--port", {std::to_string(ha.port)}});
    std::vector<std::string> reach;
    for (const lbip_addr_t &each : ha.reachaddr) {
        if (vellb::is_set(each)) {
            reach.push_back(vellb::address_text(each));
        }
    }
    to.push_back({"--reach", reach.empty() ? std::vector<std::string>{"none"} : reach});
}

void add_executor(options_t &to, const lbexe_setable_t &set)
{
    to.push_back({"--client-gateway", {vellb::address_text(set.clientgateway)}});
    to.push_back({"--client-gateway-ipv6", {vellb::address_text(set.clientgateway_ipv6)}});
    to.push_back({"--own-address", {vellb::address_text(set.nfa)}});
    to.push_back({"--log-mask", {vellb::mask_text(set.log_mask)}});
}

void add_port(options_t &to, const std::optional<lbport_addable_t> &fixed, lb_u16_t number,
              const lbport_setable_t &set)
{
    if (fixed) {
        to.push_back({"--algorithm", {vellb::name_of(vellb::algorithms(), fixed->selectalg)}});
        to.push_back(
            {"--udp-algorithm", {vellb::name_of(vellb::algorithms(), fixed->udpselectalg)}});
        if (fixed->crossport != number && fixed->crossport != 0) {
            to.push_back({"--crossport", {std::to_string(fixed->crossport)}});
        }
    }
    to.push_back({"--stale-timeout", {vellb::seconds_text(set.staletimeout)}});
    to.push_back({"--sticky-time", {vellb::seconds_text(set.stickytime)}});
    to.push_back({"--reset", {on_off(set.reset != 0)}});
    to.push_back({"--replication", {vellb::name_of(vellb::ha_replications(), set.repstrategy)}});
}

void add_server(options_t &to, const std::optional<lbsrv_addable_t> &fixed,
                const lbsrv_setable_t &set)
{
    to.push_back({"--weight", {std::to_string(set.weight)}});
    to.push_back({"--id", {vellb::block_text(set.serverid, sizeof(set.serverid))}});
    to.push_back({"--sticky", {on_off(set.stickyflag != 0)}});
    to.push_back({"--quiesced", {on_off(set.quiesced != 0)}});
    const lb_u8_t tunnel = (set.encapflags & LBSRV_ENCAPFLAG_ENCAPSULATE) != 0
                               ? set.encapflags & LBSRV_ENCAPFLAG_TYPEMASK
                               : LBSRV_ENCAPTYPE_NONE;
    to.push_back({"--encap", {vellb::name_of(vellb::encapsulations(), tunnel)}});
    if (tunnel != LBSRV_ENCAPTYPE_NONE) {
        to.push_back({"--encap-source", {vellb::address_text(set.encapsrcip)}});
        to.push_back({"--encap-mtu", {std::to_string(set.encapmtu)}});
    }
    if (!fixed) {
        to.push_back({"--collocated", {on_off(set.Collocated != 0)}});
    } else if (set.Collocated != 0) {
        to.push_back({"--collocated", {}});
    }
    if (fixed && fixed->nat != 0) {
        to.push_back({"--nat", {}});
        to.push_back({"--return-address", {vellb::address_text(fixed->returnaddress)}});
        to.push_back({"--router-address", {vellb::address_text(fixed->routeraddress)}});
    }
}

void add_rule(options_t &to, const lbrul_setable_t &set)
{
    to.push_back({"--type", {vellb::name_of(vellb::rule_types(), set.type)}});
    if (set.type != LBRUL_TYPE_TRUE) {
        to.push_back({"--range", {vellb::range_text(set.beginrange, set.endrange)}});
    }
    to.push_back({"--name", {vellb::block_text(set.name, sizeof(set.name))}});
}

void add_interface(options_t &to, const lbifin_setable_t &set)
{
    const auto yes_no = [](lb_u8_t value) { return value == LBIFIN_YN_YES ? "yes" : "no"; };
    to.push_back({"--mtu", {std::to_string(set.mtu_sys)}});
    to.push_back({"--mac", {vellb::mac_text(set.ethaddr)}});
    to.push_back({"--up", {yes_no(set.isup_sys)}});
    to.push_back({"--arp", {yes_no(set.arp)}});
    to.push_back({"--loopback", {yes_no(set.loopback)}});
    to.push_back({"--point-to-point", {yes_no(set.isPTP)}});
}

// What an ADD means that does not say it.
options_t defaults(object_e object, const options_t &now)
{
    const auto value = [&](const char *name) {
        const auto found = std::ranges::find(now, name, &options_t::value_type::first);
        return found != now.end() ? found->second : std::vector<std::string>{};
    };
    switch (object) {
    case object_e::CLUSTER: return {{"--id", {""}}};
    case object_e::PORT: {
        const std::string algorithm = value("--algorithm").front();
        return {{"--udp-algorithm", {"udprr"}},
                {"--stale-timeout", {"1h46m40s"}},
                {"--sticky-time", algorithm == "affinity"     ? value("--stale-timeout")
                                  : algorithm == "conn-affin" ? std::vector<std::string>{"30m"}
                                                              : std::vector<std::string>{"0s"}},
                {"--reset", {"off"}},
                {"--replication", {"none"}}};
    }
    case object_e::SERVER:
        return {{"--weight", {"10"}},     {"--id", {""}},        {"--sticky", {"on"}},
                {"--quiesced", {"off"}},  {"--encap", {"none"}}, {"--encap-source", {"none"}},
                {"--encap-mtu", {"1500"}}};
    case object_e::RULE: return {{"--name", {""}}};
    case object_e::INTERFACE:
        return {{"--up", {"yes"}},
                {"--arp", {"yes"}},
                {"--loopback", {"no"}},
                {"--point-to-point", {"no"}}};
    case object_e::ADDRESS: return {{"--peer", {"none"}}};
    default: return {};
    }
}

std::string quoted(const std::string &word)
{
    const auto plain = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string_view("-_.,:/%@+").find(c) != std::string_view::npos;
    };
    if (!word.empty() && std::ranges::all_of(word, plain)) {
        return word;
    }
    std::string text = "'";
    for (const char c : word) {
        text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return text + "'";
}

// The executor's settings are two commands.
std::string executor_text(const options_t &then, const lbexe_setable_t &set, const options_t &all)
{
    const options_t now = changed(then, all);
    options_t own;
    add_executor(own, set);
    options_t first;
    options_t second;
    for (const auto &each : now) {
        const bool ours =
            std::ranges::find(own, each.first, &options_t::value_type::first) != own.end();
        (ours ? first : second).push_back(each);
    }
    std::string text = first.empty() ? "" : "vellbctl executor set" + text_of(first);
    if (!second.empty()) {
        text += (text.empty() ? "" : " && ") + ("vellbctl ha set" + text_of(second));
    }
    return text.empty() ? "vellbctl executor set" + text_of(own) : text;
}

} // namespace

options_t options_of(lbcmd_keytype_e keytype, const lbcmd_key_t &key, const vellb::bytes_t &addable,
                     const vellb::bytes_t &setable)
{
    options_t to;
    switch (vellb::object_of(keytype, key)) {
    case object_e::EXECUTOR:
        if (const auto set = block<lbexe_setable_t>(setable)) {
            add_executor(to, *set);
            add_ha(to, set->ha);
        }
        break;
    case object_e::CLUSTER:
        if (const auto set = block<lbclu_setable_t>(setable)) {
            to.push_back({"--id", {vellb::block_text(set->clusterid, sizeof(set->clusterid))}});
        }
        break;
    case object_e::PORT:
        if (const auto set = block<lbport_setable_t>(setable)) {
            add_port(to, block<lbport_addable_t>(addable), key.cfg.port, *set);
        }
        break;
    case object_e::SERVER:
        if (const auto set = block<lbsrv_setable_t>(setable)) {
            add_server(to, block<lbsrv_addable_t>(addable), *set);
        }
        break;
    case object_e::RULE:
        if (const auto set = block<lbrul_setable_t>(setable)) {
            add_rule(to, *set);
        }
        break;
    case object_e::INTERFACE:
        if (const auto set = block<lbifin_setable_t>(setable)) {
            add_interface(to, *set);
        }
        break;
    case object_e::ADDRESS:
        if (const auto set = block<lbifaddr_setable_t>(setable)) {
            to.push_back({"--peer", {vellb::address_text(set->peer)}});
        }
        break;
    case object_e::USESERVER:
    case object_e::HEARTBEAT:
    case object_e::INTERFACES:
    case object_e::UNKNOWN: break;
    }
    return to;
}

options_t changed(const options_t &then, const options_t &now)
{
    options_t result;
    std::ranges::copy_if(now, std::back_inserter(result), [&](const auto &each) {
        return std::ranges::find(then, each) == then.end();
    });
    return result;
}

std::string text_of(const options_t &options)
{
    std::string text;
    for (const auto &[name, values] : options) {
        text += values.empty() ? " " + name : "";
        for (const std::string &value : values) {
            text += fmt::format(" {} {}", name, quoted(value));
        }
    }
    return text;
}

std::string text_of(const vellb::request &command, const vellb::bytes_t &before)
{
    const char *const verb = command.action == LBCMD_ACTION_ADD  ? "add"
                             : command.action == LBCMD_ACTION_RM ? "rm"
                                                                 : "set";
    const object_e object = vellb::object_of(command.keytype, command.key);
    const bool adds = command.action == LBCMD_ACTION_ADD;
    const options_t all =
        options_of(command.keytype, command.key, command.addable, command.setable);
    const options_t then =
        adds ? defaults(object, all) : options_of(command.keytype, command.key, {}, before);
    if (object == object_e::EXECUTOR) {
        const auto set = block<lbexe_setable_t>(command.setable);
        return set ? executor_text(then, *set, all) : "vellbctl executor stop --yes";
    }
    const std::string line = vellb::command_line(verb, command.keytype, command.key);
    const options_t now = changed(then, all);
    // Bits that no word tells of: all words, which write the whole block.
    return line + text_of(now.empty() && command.action == LBCMD_ACTION_SET ? all : now);
}

} // namespace vellcfg
