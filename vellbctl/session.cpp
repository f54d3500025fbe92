// What every command shares: changing single objects, reporting what was done, and explaining
// refusals. A refusal's hint depends on the answer code, the action and the kind of object.
#include "session.h"

#include <algorithm>
#include <fmt/format.h>

#include "vellb/address.h"
#include "vellb/names.h"

namespace vellbctl
{

namespace
{

using vellb::object_e;

// Can it be changed once it is there?
bool has_settings(object_e object)
{
    return object != object_e::HEARTBEAT && object != object_e::USESERVER;
}

lbcmd_key_t parent_of(lbcmd_keytype_e keytype, lbcmd_key_t key)
{
    switch (vellb::object_of(keytype, key)) {
    case object_e::USESERVER: key.cfg.server = {}; return key;
    case object_e::RULE:
    case object_e::SERVER: return vellb::port_key(key.cfg.cluster, key.cfg.port);
    case object_e::PORT: return vellb::cluster_key(key.cfg.cluster);
    case object_e::ADDRESS: key.iface.addr = {}; return key;
    case object_e::EXECUTOR:
    case object_e::CLUSTER:
    case object_e::HEARTBEAT:
    case object_e::INTERFACES:
    case object_e::INTERFACE:
    case object_e::UNKNOWN: break;
    }
    return {};
}

// Why the daemon probably answered FAILURE, as far as that can be told from the request.
std::string failure_hint(const vellb::request &what)
{
    const object_e object = vellb::object_of(what.keytype, what.key);
    if (object == object_e::PORT && what.action == LBCMD_ACTION_ADD &&
        what.addable.size() == sizeof(lbport_addable_t)) {
        const auto block = vellb::block_of<lbport_addable_t>(what.addable, "addable");
        if (!vellb::keeps_clients(block.selectalg) && block.crossport != 0 &&
            block.crossport != what.key.cfg.port) {
            return fmt::format("--crossport shares an affinity table, which algorithm {} does not "
                               "have: use --algorithm affinity or conn-affin",
                               vellb::name_of(vellb::algorithms(), block.selectalg));
        }
    }
    if (object == object_e::SERVER && what.setable.size() == sizeof(lbsrv_setable_t) &&
        vellb::block_of<lbsrv_setable_t>(what.setable, "settable").Collocated != 0) {
        return "a collocated server needs the tunnel device: is /dev/net/tun there? The daemon's "
               "log says why (failures are logged unless its log mask hides them)";
    }
    return "the daemon's log says why (failures are logged unless its log mask hides them)";
}

} // namespace

void session::answer(const std::string &text, nlohmann::ordered_json document)
{
    if (!req.json) {
        out << text << std::flush;
        return;
    }
    if (!warnings_.empty()) {
        document["warnings"] = warnings_;
        warnings_.clear();
    }
    // A stream of pictures is one document a line.
    out << dumped(document, req.watch_s.has_value()) << '\n' << std::flush;
}

void session::warn(const std::vector<std::string> &texts)
{
    for (const std::string &text : texts) {
        if (req.json) {
            warnings_.push_back(text);
        } else {
            err << "warning: " << text << '\n';
        }
    }
}

void session::add(lbcmd_keytype_e keytype, const lbcmd_key_t &key, vellb::bytes_t addable,
                  vellb::bytes_t setable)
{
    vellb::run(daemon, {keytype, LBCMD_ACTION_ADD, key, std::move(addable), std::move(setable)});
}

void session::done(const char *what, lbcmd_keytype_e keytype, const lbcmd_key_t &key)
{
    const object_e object = vellb::object_of(keytype, key);
    nlohmann::ordered_json document{{"done", what}, {"object", vellb::object_text(object)}};
    if (keytype == LBCMD_KEYTYPE_IFACE) {
        document["interface"] = vellb::interface_name(key.iface);
        if (vellb::is_set(key.iface.addr)) {
            document["address"] = vellb::address_text(key.iface.addr);
        }
    } else if (object == object_e::HEARTBEAT) {
        document["local"] = vellb::address_text(key.cfg.cluster);
        document["partner"] = vellb::address_text(key.cfg.server);
    } else if (object != object_e::EXECUTOR) {
        document["cluster"] = vellb::address_text(key.cfg.cluster);
        if (key.cfg.port != 0) {
            document["port"] = key.cfg.port;
        }
        if (key.cfg.rule != 0) {
            document["rule"] = key.cfg.rule;
        }
        if (vellb::is_set(key.cfg.server)) {
            document["server"] = vellb::address_text(key.cfg.server);
        }
    }
    answer(fmt::format("{} {}\n", what, vellb::key_text(keytype, key)), std::move(document));
}

unsigned session::remove(lbcmd_keytype_e keytype, const lbcmd_key_t &key, bool recursive)
{
    unsigned gone = 0;
    if (recursive) {
        const auto found = vellb::run(daemon, {keytype, LBCMD_ACTION_GET, key});
        for (const lbcmd_key_t &child : found.children) {
            // A use-server is the child of a rule and of a server: it may be gone already.
            if (vellb::look(daemon, keytype, child)) {
                gone += remove(keytype, child, true);
            }
        }
    }
    vellb::run(daemon, {keytype, LBCMD_ACTION_RM, key});
    return gone + 1;
}

complaint explain(const vellb::refused &error)
{
    const vellb::request &what = error.what_for();
    const std::string object = vellb::key_text(what.keytype, what.key);
    const std::string kind = vellb::object_text(vellb::object_of(what.keytype, what.key));
    const lbcmd_key_t parent = parent_of(what.keytype, what.key);
    const auto command = [&](const char *verb) {
        return vellb::command_line(verb, what.keytype, what.key);
    };
    complaint told{error.code(), vellb::name_of(vellb::answer_codes(), error.code()), "", ""};
    switch (error.code()) {
    case LBCMD_RC_NOTRECOGNIZED:
        told.message = "the daemon does not know this action";
        told.hint = "use the vellbctl that belongs to it";
        break;
    case LBCMD_RC_NOPARENT:
        if (vellb::object_of(what.keytype, what.key) == object_e::USESERVER) {
            const lbcmd_key_t server =
                vellb::server_key(what.key.cfg.cluster, what.key.cfg.port, what.key.cfg.server);
            told.message = vellb::key_text(what.keytype, server) + " does not exist";
            told.hint = "add it first: " + vellb::command_line("add", what.keytype, server);
            break;
        }
        told.message = object + " is always there and cannot be added";
        told.hint = "change it with set";
        break;
    case LBCMD_RC_ALREADYEXISTS:
        told.message = object + " exists already";
        told.hint = fmt::format("remove it first: {}", command("rm"));
        if (has_settings(vellb::object_of(what.keytype, what.key))) {
            told.hint = fmt::format("change it: {} ..., or {}", command("set"), told.hint);
        }
        break;
    case LBCMD_RC_PARENTDNE:
        told.message = vellb::key_text(what.keytype, parent) + " does not exist";
        told.hint = "add it first: " + vellb::command_line("add", what.keytype, parent);
        break;
    case LBCMD_RC_OBJNOTFOUND:
        told.message = object + " does not exist";
        told.hint = fmt::format("see what there is: vellbctl {} show", kind);
        break;
    case LBCMD_RC_HASCHILD:
        told.message = object + " still has objects below it";
        told.hint =
            fmt::format("remove those first, or all at once: {} --recursive", command("rm"));
        if (vellb::object_of(what.keytype, what.key) == object_e::EXECUTOR) {
            told.hint = "remove its clusters and heartbeats first";
        }
        break;
    case LBCMD_RC_FAILURE:
        told.message = fmt::format("the daemon could not {} {}",
                                   what.action == LBCMD_ACTION_ADD   ? "add"
                                   : what.action == LBCMD_ACTION_RM  ? "remove"
                                   : what.action == LBCMD_ACTION_SET ? "change"
                                                                     : "read",
                                   object);
        told.hint = failure_hint(what);
        break;
    default:
        told.message = "an answer code that this client does not know, for " + object;
        told.hint = "use the vellbctl that belongs to the daemon";
    }
    return told;
}

complaint explain(const vellb::fault &error)
{
    const auto name = [&] {
        switch (error.kind()) {
        case vellb::fault_e::UNREACHABLE: return "UNREACHABLE";
        case vellb::fault_e::TIMED_OUT: return "TIMEDOUT";
        case vellb::fault_e::CLOSED_EARLY: return "CLOSEDEARLY";
        case vellb::fault_e::MALFORMED: return "MALFORMED";
        }
        return "UNREACHABLE";
    };
    return {0, name(), error.what(), error.hint()};
}

std::string dumped(const nlohmann::ordered_json &document, bool one_line)
{
    return document.dump(one_line ? -1 : 2, ' ', false,
                         nlohmann::ordered_json::error_handler_t::replace);
}

} // namespace vellbctl
