// The host's interfaces against the daemon's interface tree: what must be done so that the tree
// says what the host says.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "vellb/address.h"
#include "vellb/tree.h"

namespace vellhost
{

// What the host says of itself (rtnetlink(7)): every interface but loopbacks, with its addresses,
// in the host's order. Link-local ones are among them: a gateway is often known by such an address
// only, and is then asked for from there (RFC 4861, 7.2.2). Left out are temporary ones (RFC 8981),
// which come and go beside a lasting one of the same subnet, those that another host has (RFC 4862,
// 5.4), and multicast groups. The forwarder's own MTU and state are as the host's. Throws
// std::system_error.
std::vector<vellb::interface> read_host();

// How an interface hangs together with others.
struct link {
    std::string name;
    std::string kind;   // "bridge", "bond", "vlan", ...; "" for plain hardware
    std::string master; // of which bridge or bond it is a member; "" for none
    bool up = false;
    int index = 0; // of no two interfaces, not even one after the other under one name
};

// Every interface but loopbacks, in the host's order. Throws std::system_error.
std::vector<link> read_links();

// Warnings about interfaces among `used` whose frames reach the daemon twice, because
// a packet socket sees them on a bridge or bond and once more on its member. Pure.
std::vector<std::string> seen_twice(const std::vector<link> &links,
                                    const std::vector<std::string> &used);

struct sync_step {
    std::string what;   // "add", "set", "rm"
    std::string object; // "interface eth0", "address 10.0.0.1/24 of interface eth0"
    std::string detail;
    vellb::request command;
};

// Steps in an order that the daemon accepts: whatever is removed goes bottom-up. What is equal is
// not touched. A forwarder's MTU or state that was set apart from the host's stays apart. With
// `only`, all other interfaces are left alone.
std::vector<sync_step> plan_sync(const std::vector<vellb::interface> &host,
                                 const std::vector<vellb::interface> &tree,
                                 const std::vector<std::string> &only);

// Is there an interface that is up and has an address?
bool is_usable(const std::vector<vellb::interface> &host);

std::string interface_detail(const lbifin_setable_t &settings);

// Tells that interfaces or addresses changed; read_host() then tells how.
class change_watch
{
  public:
    change_watch(); // std::system_error
    change_watch(const change_watch &) = delete;
    change_watch &operator=(const change_watch &) = delete;
    ~change_watch();

    [[nodiscard]] int fd() const; // readable when there is something to drain
    bool drain();                 // was there anything?

  private:
    struct state;
    std::unique_ptr<state> state_;
};

} // namespace vellhost
