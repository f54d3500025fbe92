// The stack as the fuzz targets and the mutation runs see it: started with one fixed configuration,
// checked after each input, torn down with a proof that nothing is left. It needs no test
// framework: what is wrong is thrown, which is a failed test there and a crash for libFuzzer.
#pragma once

#include "stack_client.h"

namespace fuzz
{

using stack::bytes;
using stack::bytes_of;

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
// 10.9.0.1 and the far end 10.9.0.2; the client gateway 10.0.0.254; and the cluster 10.0.0.100 with
// the ports
//   80    HASH, UDPRR    servers 10.0.0.11 and 10.0.0.12
//   81    UDPRR, UDPRR   servers 10.0.0.11 (weight 2), 10.0.0.12 (weight 0)
//   53    HASH, a UDP algorithm whose table the port lacks
//   82    HASH           no server
//   83    HASH           a server that no interface reaches
//   84    HASH           a server at the far end of ppp0
//   85    CONNECTION     servers 10.0.0.11 and 10.0.0.12
//   86    CONNECTION     NAT servers 10.2.0.11 and 10.2.0.12, from the return address 10.0.0.200
//   87    HASH           a server at the end of a GRE tunnel, of 100 bytes less than eth0's MTU
//   88    HASH           the same in IPIP
//   89    HASH           a server of this host
// Over IPv6: eth0 has 2001:db8::1/64, the client gateway is 2001:db8::fe, and the cluster
// 2001:db8::100 has the ports
//   80    HASH, UDPRR    servers 2001:db8::11 and 2001:db8::12
//   82    HASH           no server
//   83    HASH           the server 10.0.0.11, to which frames are forwarded all the same
//   85    CONNECTION     servers 2001:db8::11 and 2001:db8::12
//   86    CONNECTION     a NAT server 2001:db8:2::11, from the return address 2001:db8::200
//   87    HASH           a server at the end of a tunnel, which carries IPv4 alone
//   89    HASH           a server of this host
constexpr const char *CLUSTER = "10.0.0.100";
constexpr const char *RETURN = "10.0.0.200";
constexpr const char *CLUSTER6 = "2001:db8::100";
constexpr const char *RETURN6 = "2001:db8::200";
constexpr lb_u32_t MTU = 600;

class world : public stack::client
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
    // The neighbours of the configuration tell their hardware addresses, and one frame of each IP
    // version is forwarded with nothing changed that need not be.
    void require_forwarding();

    // Sends the command that stands in buffer(); the answer is the answer code.
    int execute();

    // All keys with their addable and settable blocks, in list order. Without the ports' cross-port
    // word, which a refused partner may change.
    static bytes objects();
    static void require_unharmed(); // nothing that the host has recorded as a fault
};

lbport_addable_t port_block(lb_u8_t tcp, lb_u8_t udp);
lbsrv_setable_t server_block(lb_u16_t weight);

} // namespace fuzz
