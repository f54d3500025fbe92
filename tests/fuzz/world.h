// The stack as the fuzz targets and the mutation runs see it: started with one fixed configuration,
// checked after each input, torn down with a proof that nothing is left. It needs no test
// framework: what is wrong is thrown, which is a failed test there and a crash for libFuzzer.
#pragma once

#include "lb_command.h"

#include <array>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "prot/blocks.h"

namespace fuzz
{

using bytes = std::vector<std::uint8_t>;

// The stack did something that it must never do.
struct fault : std::runtime_error {
    using std::runtime_error::runtime_error;
};

inline void require(bool good, const char *what)
{
    if (!good) {
        throw fault(what);
    }
}

// The fixed configuration: eth0 with 10.0.0.1/24 and a small MTU, the point-to-point ppp0 with
// 10.9.0.1 and the far end 10.9.0.2; the client gateway 10.0.0.254; and the cluster 10.0.0.100:
//   80    HASH, UDPRR    servers 10.0.0.11 and 10.0.0.12
//   81    UDPRR, UDPRR   servers 10.0.0.11 (weight 2), 10.0.0.12 (weight 0)
//   53    HASH, a UDP algorithm that has no chooser
//   82    HASH           no server
//   83    HASH           a server that no interface reaches
//   84    HASH           a server at the far end of ppp0
constexpr const char *CLUSTER = "10.0.0.100";
constexpr lb_u32_t MTU = 600;

class world
{
  public:
    // Starts the stack on a fresh host, with the fixed configuration.
    world();
    // Stops it without a proof, as after a failure.
    ~world();
    world(const world &) = delete;
    world &operator=(const world &) = delete;

    // Removes everything by commands, lets it be reaped, stops the stack and requires that nothing
    // is left and that the host was never misused.
    void finish();
    // Puts every object of the fixed configuration back that is missing.
    void configure();
    // The neighbours of the configuration tell their hardware addresses, and one frame is
    // forwarded with nothing changed that need not be.
    void require_forwarding();

    // Carries out the command that stands in buffer().
    int execute();
    lbcmd_buf_t &buffer() { return *buffer_; }
    // Fills buffer() with a command.
    void prepare(lbcmd_action_e action, lbcmd_keytype_e keytype, const lbcmd_key_t &key,
                 const bytes &add = {}, const bytes &set = {});

    // All keys with their addable and settable blocks, in list order. Without the ports' cross-port
    // word, which a refused partner may change.
    static bytes objects();
    static void require_unharmed(); // nothing that the host has recorded as a fault

  private:
    int add(lbcmd_keytype_e keytype, const lbcmd_key_t &key, const bytes &addable,
            const bytes &setable);
    void remove_below(lbcmd_keytype_e keytype, const lbcmd_key_t &key);

    std::unique_ptr<lbcmd_buf_t> buffer_ = std::make_unique<lbcmd_buf_t>();
};

lbip_addr_t address(const std::string &text); // "" for none; "10.0.0.1/24"
lbcmd_key_t config_key(const std::string &cluster, lb_u16_t port = 0,
                       const std::string &server = "", lb_u16_t rule = 0);
lbcmd_key_t interface_key(const std::string &name, const std::string &addr = "");

template <class T> bytes bytes_of(const T &block)
{
    const auto *p = reinterpret_cast<const std::uint8_t *>(&block);
    return {p, p + sizeof(block)};
}

lbifin_setable_t ethernet_block();
lbport_addable_t port_block(lb_u8_t tcp, lb_u8_t udp);
lbsrv_setable_t server_block(lb_u16_t weight);
bytes arp_reply(const std::string &ip, std::uint8_t last);
// The hardware address 02:00:00:00:00:`last`.
std::array<std::uint8_t, 6> station(std::uint8_t last);

} // namespace fuzz
