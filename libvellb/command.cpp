// Command buffers: keys and blocks in, keys and blocks out. Nothing in an answer is believed before
// its sizes have been checked against the buffer. No state.
#include "vellb/command.h"

#include <algorithm>
#include <fmt/format.h>

#include "vellb/address.h"
#include "vellb/names.h"

namespace vellb
{

namespace
{

fault malformed(const std::string &message)
{
    return {fault_e::MALFORMED, message,
            "client and daemon seem to be of different versions, or another program listens there"};
}

object_e config_object(const lbcfg_key_t &key)
{
    const bool cluster = key.cluster.version != 0;
    const bool server = key.server.version != 0;
    if (!cluster) {
        const bool empty = !server && key.port == 0 && key.rule == 0;
        return empty ? object_e::EXECUTOR : object_e::UNKNOWN;
    }
    if (key.port == 0) {
        return key.rule != 0 ? object_e::UNKNOWN : server ? object_e::HEARTBEAT : object_e::CLUSTER;
    }
    if (key.rule != 0) {
        return server ? object_e::USESERVER : object_e::RULE;
    }
    return server ? object_e::SERVER : object_e::PORT;
}

object_e interface_object(const lbiface_key_t &key)
{
    const bool named = key.name[0] != '\0';
    const bool address = key.addr.version != 0;
    if (named) {
        return address ? object_e::ADDRESS : object_e::INTERFACE;
    }
    return address ? object_e::UNKNOWN : object_e::INTERFACES;
}

bytes_t slice(const lbcmd_buf_t &buffer, size_t offset, size_t size)
{
    return {buffer._x + offset, buffer._x + offset + size};
}

// Is this an answer to `what`? The daemon leaves version, key type and action alone.
void check_header(const lbcmd_bufhdr_t &hdr, const request &what)
{
    if (hdr.lbversion != LBCMD_VERSION) {
        throw malformed(fmt::format("the answer is of protocol version 0x{:08X}, not 0x{:08X}",
                                    hdr.lbversion, LBCMD_VERSION));
    }
    if (hdr.keytype != what.keytype || hdr.action != what.action) {
        throw malformed(fmt::format("the answer is for action {} of key type {}, not {} of {}",
                                    hdr.action, hdr.keytype, static_cast<int>(what.action),
                                    static_cast<int>(what.keytype)));
    }
    if (hdr.answer_rc == 0) {
        throw malformed("the answer carries no answer code");
    }
}

} // namespace

lbcmd_key_t executor_key()
{
    return {};
}

lbcmd_key_t cluster_key(const lbip_addr_t &cluster)
{
    lbcmd_key_t key{};
    key.cfg.cluster = cluster;
    return key;
}

lbcmd_key_t port_key(const lbip_addr_t &cluster, lb_u16_t port)
{
    lbcmd_key_t key = cluster_key(cluster);
    key.cfg.port = port;
    return key;
}

lbcmd_key_t server_key(const lbip_addr_t &cluster, lb_u16_t port, const lbip_addr_t &server)
{
    lbcmd_key_t key = port_key(cluster, port);
    key.cfg.server = server;
    return key;
}

lbcmd_key_t rule_key(const lbip_addr_t &cluster, lb_u16_t port, lb_u16_t rule)
{
    lbcmd_key_t key = port_key(cluster, port);
    key.cfg.rule = rule;
    return key;
}

lbcmd_key_t useserver_key(const lbip_addr_t &cluster, lb_u16_t port, lb_u16_t rule,
                          const lbip_addr_t &server)
{
    lbcmd_key_t key = rule_key(cluster, port, rule);
    key.cfg.server = server;
    return key;
}

lbcmd_key_t heartbeat_key(const lbip_addr_t &local, const lbip_addr_t &partner)
{
    return server_key(local, 0, partner);
}

lbcmd_key_t interfaces_key()
{
    return {};
}

lbcmd_key_t interface_key(const std::string &name)
{
    lbcmd_key_t key{};
    name.copy(key.iface.name, LBIFACE_NAMELEN);
    return key;
}

lbcmd_key_t address_key(const std::string &name, const lbip_addr_t &addr)
{
    lbcmd_key_t key = interface_key(name);
    key.iface.addr = addr;
    return key;
}

object_e object_of(lbcmd_keytype_e keytype, const lbcmd_key_t &key)
{
    switch (keytype) {
    case LBCMD_KEYTYPE_CONFIG: return config_object(key.cfg);
    case LBCMD_KEYTYPE_IFACE: return interface_object(key.iface);
    case LBCMD_KEYTYPE_UNUSED:
    case LBCMD_KEYTYPE_MAXIMUM: break;
    }
    return object_e::UNKNOWN;
}

bool is_child(lbcmd_keytype_e keytype, const lbcmd_key_t &parent, const lbcmd_key_t &child)
{
    const object_e type = object_of(keytype, child);
    const bool same_cluster = same_address(parent.cfg.cluster, child.cfg.cluster);
    const bool same_port = same_cluster && parent.cfg.port == child.cfg.port;
    switch (object_of(keytype, parent)) {
    case object_e::EXECUTOR: return type == object_e::CLUSTER || type == object_e::HEARTBEAT;
    case object_e::CLUSTER: return type == object_e::PORT && same_cluster;
    case object_e::PORT: return (type == object_e::RULE || type == object_e::SERVER) && same_port;
    case object_e::RULE:
        return type == object_e::USESERVER && same_port && parent.cfg.rule == child.cfg.rule;
    case object_e::SERVER:
        return type == object_e::USESERVER && same_port &&
               same_address(parent.cfg.server, child.cfg.server);
    case object_e::INTERFACES: return type == object_e::INTERFACE;
    case object_e::INTERFACE:
        return type == object_e::ADDRESS &&
               memcmp(parent.iface.name, child.iface.name, LBIFACE_NAMELEN) == 0;
    case object_e::USESERVER:
    case object_e::HEARTBEAT:
    case object_e::ADDRESS:
    case object_e::UNKNOWN: break;
    }
    return false;
}

std::string object_text(object_e object)
{
    switch (object) {
    case object_e::EXECUTOR: return "executor";
    case object_e::CLUSTER: return "cluster";
    case object_e::PORT: return "port";
    case object_e::RULE: return "rule";
    case object_e::SERVER: return "server";
    case object_e::USESERVER: return "use-server";
    case object_e::HEARTBEAT: return "heartbeat";
    case object_e::INTERFACES: return "interface collection";
    case object_e::INTERFACE: return "interface";
    case object_e::ADDRESS: return "address";
    case object_e::UNKNOWN: break;
    }
    return "unknown object";
}

std::string key_text(lbcmd_keytype_e keytype, const lbcmd_key_t &key)
{
    const object_e object = object_of(keytype, key);
    std::string name = object_text(object);
    const auto endpoint = [&] { return endpoint_text(key.cfg.cluster, key.cfg.port); };
    switch (object) {
    case object_e::EXECUTOR: return "the executor";
    case object_e::CLUSTER: return fmt::format("{} {}", name, address_text(key.cfg.cluster));
    case object_e::PORT: return fmt::format("{} {}", name, endpoint());
    case object_e::RULE: return fmt::format("{} {} of port {}", name, key.cfg.rule, endpoint());
    case object_e::SERVER:
        return fmt::format("{} {} of port {}", name, address_text(key.cfg.server), endpoint());
    case object_e::USESERVER:
        return fmt::format("{} {} of rule {} of port {}", name, address_text(key.cfg.server),
                           key.cfg.rule, endpoint());
    case object_e::HEARTBEAT:
        return fmt::format("{} {} to {}", name, address_text(key.cfg.cluster),
                           address_text(key.cfg.server));
    case object_e::INTERFACES: return "the interface collection";
    case object_e::INTERFACE: return fmt::format("{} {}", name, interface_name(key.iface));
    case object_e::ADDRESS:
        return fmt::format("{} {} of interface {}", name, address_text(key.iface.addr),
                           interface_name(key.iface));
    case object_e::UNKNOWN: break;
    }
    return name;
}

std::string command_line(const char *verb, lbcmd_keytype_e keytype, const lbcmd_key_t &key)
{
    const object_e object = object_of(keytype, key);
    const std::string endpoint = endpoint_text(key.cfg.cluster, key.cfg.port);
    std::string line = fmt::format("vellbctl {} {}", object_text(object), verb);
    const auto with = [&](const std::string &words) { return line + " " + words; };
    const auto server = [&] { return address_text(key.cfg.server); };
    switch (object) {
    case object_e::CLUSTER: return with(address_text(key.cfg.cluster));
    case object_e::PORT: return with(endpoint);
    case object_e::SERVER: return with(fmt::format("{} {}", endpoint, server()));
    case object_e::RULE: return with(fmt::format("{} {}", endpoint, key.cfg.rule));
    case object_e::USESERVER:
        return with(fmt::format("{} {} {}", endpoint, key.cfg.rule, server()));
    case object_e::HEARTBEAT:
        return with(fmt::format("{} {}", address_text(key.cfg.cluster), server()));
    case object_e::INTERFACE: return with(interface_name(key.iface));
    case object_e::ADDRESS:
        return with(fmt::format("{} {}", interface_name(key.iface),
                                key.iface.addr.prefix != 0 ? prefix_text(key.iface.addr)
                                                           : address_text(key.iface.addr)));
    case object_e::EXECUTOR:
    case object_e::INTERFACES:
    case object_e::UNKNOWN: break;
    }
    return line;
}

std::string block_text(const void *text, size_t size)
{
    const auto *first = static_cast<const char *>(text);
    std::string copy(first, strnlen(first, size));
    const auto harmful = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7F; };
    std::ranges::replace_if(copy, harmful, '?');
    return copy;
}

std::string interface_name(const lbiface_key_t &key)
{
    return block_text(key.name, sizeof(key.name));
}

void block_fault(const char *what, size_t got, size_t expected)
{
    throw malformed(fmt::format("the {} block has {} bytes, not {}", what, got, expected));
}

std::unique_ptr<lbcmd_buf_t> encode(const request &what)
{
    if (what.addable.size() + what.setable.size() > LBCMD_PAYLOADSIZE) {
        throw std::length_error("blocks larger than a command buffer");
    }
    auto buffer = std::make_unique<lbcmd_buf_t>();
    buffer->hdr.lbversion = LBCMD_VERSION;
    buffer->hdr.key = what.key;
    buffer->hdr.keytype = what.keytype;
    buffer->hdr.action = what.action;
    buffer->hdr.addsize = static_cast<lb_u16_t>(what.addable.size());
    buffer->hdr.setsize = static_cast<lb_u16_t>(what.setable.size());
    std::ranges::copy(what.addable, buffer->_x);
    std::ranges::copy(what.setable, buffer->_x + what.addable.size());
    return buffer;
}

answer decode(const lbcmd_buf_t &buffer, const request &what)
{
    const lbcmd_bufhdr_t &hdr = buffer.hdr;
    check_header(hdr, what);
    answer result;
    result.rc = hdr.answer_rc;
    result.key = hdr.key;
    if (hdr.answer_rc != LBCMD_RC_SUCCESS || what.action != LBCMD_ACTION_GET) {
        return result;
    }
    const size_t blocks = size_t{hdr.addsize} + hdr.setsize + hdr.getsize;
    if (blocks + hdr.listsize > LBCMD_PAYLOADSIZE || hdr.listsize % sizeof(lbcmd_key_t) != 0) {
        throw malformed(fmt::format("the answer's sizes {}, {}, {} and {} do not fit a buffer",
                                    hdr.addsize, hdr.setsize, hdr.getsize, hdr.listsize));
    }
    result.addable = slice(buffer, 0, hdr.addsize);
    result.setable = slice(buffer, hdr.addsize, hdr.setsize);
    result.getable = slice(buffer, size_t{hdr.addsize} + hdr.setsize, hdr.getsize);
    result.children.resize(hdr.listsize / sizeof(lbcmd_key_t));
    if (!result.children.empty()) {
        memcpy(result.children.data(), buffer._x + blocks, hdr.listsize);
    }
    for (const lbcmd_key_t &child : result.children) {
        if (!is_child(what.keytype, what.key, child)) {
            throw malformed(fmt::format("the answer lists {} under {}",
                                        key_text(what.keytype, child),
                                        key_text(what.keytype, what.key)));
        }
    }
    return result;
}

refused::refused(request what, unsigned code)
    : std::runtime_error(fmt::format("{} of {} refused: {} ({})", name_of(actions(), what.action),
                                     key_text(what.keytype, what.key),
                                     name_of(answer_codes(), code), code)),
      what_for_(std::move(what)), code_(code)
{
}

answer ask(const client &daemon, const request &what)
{
    const auto buffer = encode(what);
    daemon.exchange(*buffer);
    return decode(*buffer, what);
}

answer run(const client &daemon, const request &what)
{
    answer result = ask(daemon, what);
    if (result.rc != LBCMD_RC_SUCCESS) {
        throw refused(what, result.rc);
    }
    return result;
}

std::optional<answer> look(const client &daemon, lbcmd_keytype_e keytype, const lbcmd_key_t &key)
{
    const request what{keytype, LBCMD_ACTION_GET, key};
    answer result = ask(daemon, what);
    if (result.rc == LBCMD_RC_OBJNOTFOUND) {
        return std::nullopt;
    }
    if (result.rc != LBCMD_RC_SUCCESS) {
        throw refused(what, result.rc);
    }
    return result;
}

} // namespace vellb
