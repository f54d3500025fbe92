// Changes to the configuration tree: executor, clusters, ports, servers. After a change the objects
// concerned are looked at once more, for settings that will surprise.
#include <fmt/format.h>

#include "commands.h"
#include "forwarding.h"
#include "vellb/surprises.h"
#include "words.h"

namespace vellbctl
{

namespace
{

constexpr lbcmd_keytype_e CONFIG = LBCMD_KEYTYPE_CONFIG;
constexpr lb_u16_t DEFAULT_WEIGHT = 10;
constexpr lb_u16_t DEFAULT_ENCAPMTU = 1500;

lbcmd_key_t asked_cluster(const session &s)
{
    return vellb::cluster_key(*s.req.address);
}
lbcmd_key_t asked_port(const session &s)
{
    return vellb::port_key(*s.req.address, s.req.port);
}
lbcmd_key_t asked_server(const session &s)
{
    return vellb::server_key(*s.req.address, s.req.port, *s.req.server);
}

void remove_asked(session &s, const lbcmd_key_t &key)
{
    const unsigned gone = s.remove(CONFIG, key, s.req.recursive);
    const bool more = gone > 1;
    s.done(more ? fmt::format("removed, with {} below it,", gone - 1).c_str() : "removed", CONFIG,
           key);
}

} // namespace

void look_at_port(session &s)
{
    s.look_again([&] {
        const auto port = vellb::read_port(s.daemon, *s.req.address, s.req.port);
        auto texts = port ? vellb::port_surprises(*port) : std::vector<std::string>{};
        if (port && (port->settings.reset != 0 || vellb::translates(*port))) {
            const auto more =
                vellb::gateway_surprises(vellb::read_executor(s.daemon), port->cluster.version);
            texts.insert(texts.end(), more.begin(), more.end());
        }
        return texts;
    });
}

void executor_set(session &s)
{
    s.change(CONFIG, vellb::executor_key(), s.req.executor_edits);
    s.look_again([&] {
        return vellb::gateway_surprises(vellb::read_executor(s.daemon),
                                        vellb::read_interfaces(s.daemon));
    });
    s.done("changed", CONFIG, vellb::executor_key());
}

void executor_stop(session &s)
{
    if (!s.req.confirmed) {
        throw usage_error("this stops the daemon, and with it all forwarding: confirm with --yes",
                          "stop", "usage: vellbctl executor stop --yes");
    }
    vellb::run(s.daemon, {CONFIG, LBCMD_ACTION_RM, vellb::executor_key()});
    s.done("stopped", CONFIG, vellb::executor_key());
}

void cluster_add(session &s)
{
    lbclu_setable_t settings{};
    s.req.cluster_edits.apply(settings);
    s.add(CONFIG, asked_cluster(s), vellb::bytes_of(lbclu_addable_t{}), vellb::bytes_of(settings));
    s.look_again(
        [&] { return vellb::subnet_surprises(*s.req.address, vellb::read_interfaces(s.daemon)); });
    s.done("added", CONFIG, asked_cluster(s));
}

void cluster_set(session &s)
{
    s.change(CONFIG, asked_cluster(s), s.req.cluster_edits);
    s.done("changed", CONFIG, asked_cluster(s));
}

void cluster_rm(session &s)
{
    remove_asked(s, asked_cluster(s));
}

void port_add(session &s)
{
    lbport_addable_t fixed{};
    fixed.selectalg = LBSEL_ALGORIGHM_HASH;
    fixed.udpselectalg = LBSEL_ALGORIGHM_UDPRR;
    s.req.port_fixed.apply(fixed);
    lbport_setable_t settings{}; // zero times: the daemon's defaults
    s.req.port_edits.apply(settings);
    s.add(CONFIG, asked_port(s), vellb::bytes_of(fixed), vellb::bytes_of(settings));
    look_at_port(s);
    s.done("added", CONFIG, asked_port(s));
}

void port_set(session &s)
{
    s.change(CONFIG, asked_port(s), s.req.port_edits);
    look_at_port(s);
    s.done("changed", CONFIG, asked_port(s));
}

void port_rm(session &s)
{
    remove_asked(s, asked_port(s));
}

void server_add(session &s)
{
    lbsrv_setable_t settings{};
    settings.weight = DEFAULT_WEIGHT;
    settings.stickyflag = 1;
    settings.encapmtu = DEFAULT_ENCAPMTU;
    settings.serverup = 1;
    s.req.server_edits.apply(settings);
    lbsrv_addable_t fixed{};
    apply_forwarding(s.req.forwarding, fixed);
    apply_forwarding(s.req.forwarding, settings);
    check_forwarding(s.req, fixed, settings);
    s.add(CONFIG, asked_server(s), vellb::bytes_of(fixed), vellb::bytes_of(settings));
    look_at_port(s);
    s.done("added", CONFIG, asked_server(s));
}

void server_set(session &s)
{
    const lbcmd_key_t key = asked_server(s);
    const vellb::answer now = vellb::run(s.daemon, {CONFIG, LBCMD_ACTION_GET, key});
    const auto fixed = vellb::block_of<lbsrv_addable_t>(now.addable, "addable");
    auto settings = vellb::block_of<lbsrv_setable_t>(now.setable, "settable");
    s.req.server_edits.apply(settings);
    apply_forwarding(s.req.forwarding, settings);
    check_forwarding(s.req, fixed, settings);
    vellb::run(s.daemon, {CONFIG, LBCMD_ACTION_SET, key, {}, vellb::bytes_of(settings)});
    look_at_port(s);
    s.done("changed", CONFIG, asked_server(s));
}

void server_rm(session &s)
{
    s.remove(CONFIG, asked_server(s), s.req.recursive);
    look_at_port(s);
    s.done("removed", CONFIG, asked_server(s));
}

} // namespace vellbctl
