// Reads the object trees. Depth is bounded by the kinds of objects, not by what the daemon says:
// each kind is read by its own function, and an answer that lists strangers was refused before.
#include "vellb/tree.h"

#include <algorithm>

#include "vellb/surprises.h"

namespace vellb
{

namespace
{

constexpr lbcmd_keytype_e CONFIG = LBCMD_KEYTYPE_CONFIG;
constexpr lbcmd_keytype_e IFACE = LBCMD_KEYTYPE_IFACE;

std::optional<interface> interface_at(const client &daemon, const lbcmd_key_t &key)
{
    const auto got = look(daemon, IFACE, key);
    if (!got) {
        return std::nullopt;
    }
    interface result;
    result.name = interface_name(key.iface);
    result.settings = block_of<lbifin_setable_t>(got->setable, "interface's settable");
    for (const lbcmd_key_t &child : got->children) {
        if (const auto address = look(daemon, IFACE, child)) {
            const auto settings =
                block_of<lbifaddr_setable_t>(address->setable, "address's settable");
            // The stored key: it alone is sure to carry the prefix.
            result.addresses.push_back({address->key.iface.addr, settings.peer});
        }
    }
    return result;
}

} // namespace

std::optional<forward_e> forwarding_of(const server &each)
{
    const lbsrv_setable_t &set = each.settings;
    if ((set.encapflags & LBSRV_ENCAPFLAG_ENCAPSULATE) != 0) {
        switch (set.encapflags & LBSRV_ENCAPFLAG_TYPEMASK) {
        case LBSRV_ENCAPTYPE_IPIP: return forward_e::IPIP;
        case LBSRV_ENCAPTYPE_GRE: return forward_e::GRE;
        default: return std::nullopt;
        }
    }
    return set.Collocated == 1   ? forward_e::COLLOCATED
           : each.fixed.nat != 0 ? forward_e::NAT
                                 : forward_e::DIRECT;
}

executor read_executor(const client &daemon)
{
    const answer got = run(daemon, {CONFIG, LBCMD_ACTION_GET, executor_key()});
    executor result;
    result.settings = block_of<lbexe_setable_t>(got.setable, "executor's settable");
    result.readings = block_of<lbexe_getable_t>(got.getable, "executor's readable");
    for (const lbcmd_key_t &child : got.children) {
        if (object_of(CONFIG, child) == object_e::CLUSTER) {
            result.clusters.push_back(child.cfg.cluster);
        } else if (const auto found = look(daemon, CONFIG, child)) {
            result.heartbeats.push_back(
                {child.cfg.cluster, child.cfg.server,
                 block_of<lbha_hb_getable_t>(found->getable, "heartbeat's readable")});
        }
    }
    return result;
}

std::optional<server> read_server(const client &daemon, const lbip_addr_t &cluster, lb_u16_t port,
                                  const lbip_addr_t &address)
{
    const auto got = look(daemon, CONFIG, server_key(cluster, port, address));
    if (!got) {
        return std::nullopt;
    }
    server result;
    result.address = address;
    result.fixed = block_of<lbsrv_addable_t>(got->addable, "server's addable");
    result.settings = block_of<lbsrv_setable_t>(got->setable, "server's settable");
    result.readings = block_of<lbsrv_getable_t>(got->getable, "server's readable");
    return result;
}

std::optional<port> read_port(const client &daemon, const lbip_addr_t &cluster, lb_u16_t number)
{
    const auto got = look(daemon, CONFIG, port_key(cluster, number));
    if (!got) {
        return std::nullopt;
    }
    port result;
    result.cluster = cluster;
    result.number = number;
    result.fixed = block_of<lbport_addable_t>(got->addable, "port's addable");
    result.settings = block_of<lbport_setable_t>(got->setable, "port's settable");
    result.readings = block_of<lbport_getable_t>(got->getable, "port's readable");
    for (const lbcmd_key_t &child : got->children) {
        if (object_of(CONFIG, child) == object_e::RULE) {
            if (auto found = read_rule(daemon, cluster, number, child.cfg.rule)) {
                result.rules.push_back(std::move(*found));
            }
        } else if (auto found = read_server(daemon, cluster, number, child.cfg.server)) {
            result.servers.push_back(*found);
        }
    }
    std::ranges::sort(result.rules, {}, &rule::number);
    return result;
}

std::optional<cluster> read_cluster(const client &daemon, const lbip_addr_t &address)
{
    const auto got = look(daemon, CONFIG, cluster_key(address));
    if (!got) {
        return std::nullopt;
    }
    cluster result;
    result.address = address;
    result.settings = block_of<lbclu_setable_t>(got->setable, "cluster's settable");
    result.readings = block_of<lbclu_getable_t>(got->getable, "cluster's readable");
    for (const lbcmd_key_t &child : got->children) {
        if (auto found = read_port(daemon, address, child.cfg.port)) {
            result.ports.push_back(*found);
        }
    }
    return result;
}

std::optional<rule> read_rule(const client &daemon, const lbip_addr_t &cluster, lb_u16_t port,
                              lb_u16_t number)
{
    const auto got = look(daemon, CONFIG, rule_key(cluster, port, number));
    if (!got) {
        return std::nullopt;
    }
    rule result;
    result.number = number;
    result.settings = block_of<lbrul_setable_t>(got->setable, "rule's settable");
    result.readings = block_of<lbrul_getable_t>(got->getable, "rule's readable");
    for (const lbcmd_key_t &child : got->children) {
        result.useservers.push_back(child.cfg.server);
    }
    return result;
}

std::optional<interface> read_interface(const client &daemon, const std::string &name)
{
    return interface_at(daemon, interface_key(name));
}

std::vector<interface> read_interfaces(const client &daemon)
{
    const answer got = run(daemon, {IFACE, LBCMD_ACTION_GET, interfaces_key()});
    std::vector<interface> result;
    for (const lbcmd_key_t &child : got.children) {
        if (auto found = interface_at(daemon, child)) {
            result.push_back(*found);
        }
    }
    return result;
}

picture read_picture(const client &daemon)
{
    picture result;
    result.taken = std::chrono::steady_clock::now();
    result.executor = read_executor(daemon);
    for (const lbip_addr_t &address : result.executor.clusters) {
        if (auto found = read_cluster(daemon, address)) {
            result.clusters.push_back(*found);
        }
    }
    result.interfaces = read_interfaces(daemon);
    return result;
}

takeover_e take_over(const client &daemon)
{
    lbexe_setable_t settings = read_executor(daemon).settings;
    if (!is_paired(settings.ha)) {
        return takeover_e::ALONE;
    }
    settings.ha.manualtakeover = 1;
    run(daemon, {CONFIG, LBCMD_ACTION_SET, executor_key(), {}, bytes_of(settings)});
    return read_executor(daemon).readings.ha.state == LBHA_STATE_ACTIVE ? takeover_e::ACTIVE
                                                                        : takeover_e::YIELDED;
}

} // namespace vellb
