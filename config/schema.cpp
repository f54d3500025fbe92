// What all tables of keys share: the budget, and the words for unknown keys.
#include "schema.h"

#include <algorithm>
#include <array>

namespace vellcfg
{

namespace
{

// Twenty times what the daemon is made for.
constexpr size_t OBJECTS_MOST = 200000;

// Where people come from, a key often has another name.
constexpr auto SYNONYMS = std::to_array<synonym>({
    {"backend", "servers"},
    {"balance", "algorithm"},
    {"bind", "address"},
    {"frontend", "clusters"},
    {"gateway", "client-gateway"},
    {"global", "executor"},
    {"ip", "address"},
    {"lb_algo", "algorithm"},
    {"lb_kind", "forward"},
    {"mode", "forward"},
    {"mtu", "encap-mtu"},
    {"name", "id"},
    {"id", "name"},
    {"persistence", "sticky-time"},
    {"persistence_timeout", "sticky-time"},
    {"real-servers", "servers"},
    {"real_server", "servers"},
    {"router", "router-address"},
    {"scheduler", "algorithm"},
    {"server", "servers"},
    {"state", "role"},
    {"vip", "address"},
    {"virtual-services", "clusters"},
    {"virtual_ipaddress", "clusters"},
    {"virtual_server", "clusters"},
    {"vrrp_instance", "ha"},
});

} // namespace

bool context::affordable(const node &what)
{
    read_++;
    if (read_ == OBJECTS_MOST) {
        error(at(what),
              fmt::format("more than {} objects: nothing behind this one is read", OBJECTS_MOST));
    }
    return read_ < OBJECTS_MOST;
}

std::string context::no_word(const node &value)
{
    switch (value.kind) {
    case kind_e::NOTHING: return "has no value; leave the key out for the default";
    case kind_e::LIST: return "a single value is wanted, not a list";
    case kind_e::MAP: return "a single value is wanted, not keys and values";
    case kind_e::WORD: break;
    }
    return "";
}

void unknown_key(context &to, const entry &given, std::string_view object,
                 const std::vector<std::string> &known)
{
    std::string hint;
    for (const synonym &each : SYNONYMS) {
        if (each.theirs == given.key && std::ranges::find(known, each.ours) != known.end()) {
            hint = fmt::format(" (here it is called '{}')", each.ours);
        }
    }
    if (given.key == "<<") {
        hint = " (nothing is merged here: write out what it stands for)";
    } else if (hint.empty()) {
        hint = vellb::did_you_mean(given.key, known);
    }
    to.error(to.at(given.line, given.column),
             fmt::format("'{}' is no key of {}{}; there are: {}", given.key, object, hint,
                         fmt::join(known, ", ")));
}

} // namespace vellcfg
