// Command buffers: requests encoded, answers decoded. Everything in an answer is bounded by the
// sizes it states, and those by the buffer; an answer that does not fit its request is a fault.
#pragma once

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vellb/client.h"

namespace vellb
{

using bytes_t = std::vector<lb_u8_t>;

struct request {
    lbcmd_keytype_e keytype = LBCMD_KEYTYPE_CONFIG;
    lbcmd_action_e action = LBCMD_ACTION_GET;
    lbcmd_key_t key{};
    bytes_t addable{};
    bytes_t setable{};
};

struct answer {
    unsigned rc = 0;
    lbcmd_key_t key{};
    bytes_t addable{};
    bytes_t setable{};
    bytes_t getable{};
    std::vector<lbcmd_key_t> children{};
};

// What a configuration key names.
enum class object_e {
    EXECUTOR,
    CLUSTER,
    PORT,
    RULE,
    SERVER,
    USESERVER,
    HEARTBEAT,
    INTERFACES,
    INTERFACE,
    ADDRESS,
    UNKNOWN,
};

// Keys.
lbcmd_key_t executor_key();
lbcmd_key_t cluster_key(const lbip_addr_t &cluster);
lbcmd_key_t port_key(const lbip_addr_t &cluster, lb_u16_t port);
lbcmd_key_t server_key(const lbip_addr_t &cluster, lb_u16_t port, const lbip_addr_t &server);
lbcmd_key_t rule_key(const lbip_addr_t &cluster, lb_u16_t port, lb_u16_t rule);
lbcmd_key_t useserver_key(const lbip_addr_t &cluster, lb_u16_t port, lb_u16_t rule,
                          const lbip_addr_t &server);
lbcmd_key_t heartbeat_key(const lbip_addr_t &local, const lbip_addr_t &partner);
lbcmd_key_t interfaces_key();
lbcmd_key_t interface_key(const std::string &name); // at most LBIFACE_NAMELEN bytes are taken
lbcmd_key_t address_key(const std::string &name, const lbip_addr_t &addr);

object_e object_of(lbcmd_keytype_e keytype, const lbcmd_key_t &key);
// Is `child` one of the objects that a GET of `parent` lists?
bool is_child(lbcmd_keytype_e keytype, const lbcmd_key_t &parent, const lbcmd_key_t &child);
// "cluster 10.0.0.100", "server 10.0.0.11 of port 10.0.0.100:80", "interface eth0".
std::string key_text(lbcmd_keytype_e keytype, const lbcmd_key_t &key);
// The command of vellbctl about the object: "vellbctl port add 10.0.0.100:80".
std::string command_line(const char *verb, lbcmd_keytype_e keytype, const lbcmd_key_t &key);
// "cluster", "port", ...
std::string object_text(object_e object);

// A name out of a key, bounded, and made printable.
std::string interface_name(const lbiface_key_t &key);

// A text out of a block: up to its NUL or its end; what a terminal would act on becomes '?'.
std::string block_text(const void *text, size_t size);

// `value` as the bytes of a block.
template <class T> bytes_t bytes_of(const T &value)
{
    static_assert(std::is_trivially_copyable_v<T>);
    bytes_t bytes(sizeof(T));
    memcpy(bytes.data(), &value, sizeof(T));
    return bytes;
}

[[noreturn]] void block_fault(const char *what, size_t got, size_t expected);

// The block in `bytes`, which must be exactly one: daemon and client share the layouts.
template <class T> T block_of(const bytes_t &bytes, const char *what)
{
    static_assert(std::is_trivially_copyable_v<T>);
    if (bytes.size() != sizeof(T)) {
        block_fault(what, bytes.size(), sizeof(T));
    }
    T value;
    memcpy(&value, bytes.data(), sizeof(T));
    return value;
}

// Blocks that do not fit the payload are the caller's mistake: std::length_error.
std::unique_ptr<lbcmd_buf_t> encode(const request &what);

// Throws fault MALFORMED for what is no answer to `what`.
answer decode(const lbcmd_buf_t &buffer, const request &what);

// The daemon said no.
class refused : public std::runtime_error
{
  public:
    refused(request what, unsigned code);
    [[nodiscard]] const request &what_for() const { return what_for_; }
    [[nodiscard]] unsigned code() const { return code_; }

  private:
    request what_for_;
    unsigned code_;
};

// Sends the request and returns its answer, whatever its code.
answer ask(const client &daemon, const request &what);
// The same; any code but SUCCESS is thrown as refused.
answer run(const client &daemon, const request &what);
// A GET; nothing if the object does not exist.
std::optional<answer> look(const client &daemon, lbcmd_keytype_e keytype, const lbcmd_key_t &key);

} // namespace vellb
