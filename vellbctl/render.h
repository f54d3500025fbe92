// One picture of the daemon, for people and for programs.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "vellb/address.h"
#include "vellb/tree.h"

namespace vellbctl
{

// What of the picture is wanted.
struct view {
    bool executor = false;
    bool clusters = false;
    bool ports = false;
    bool servers = false;
    bool rules = false;
    bool useservers = false;
    bool interfaces = false;
    bool addresses = false;
    bool ha = false;
    bool heartbeats = false;
    // The document lists ports, servers, rules or addresses by themselves, not within their
    // parents.
    bool flat = false;
    const lbip_addr_t *server = nullptr; // of each port's servers, this one only

    [[nodiscard]] bool shows(const vellb::server &each) const
    {
        return server == nullptr || vellb::same_address(each.address, *server);
    }
};

// Since when this program has seen the states of this node and of its partners as they are.
class sightings
{
  public:
    void look(const vellb::picture &now, long now_s);
    // Wall-clock time; look() has seen them.
    [[nodiscard]] long since() const;
    [[nodiscard]] long since(const vellb::heartbeat &each) const;

  private:
    struct sighting {
        unsigned state;
        long since_s;
    };
    void look(const std::string &who, unsigned state, long now_s);
    std::map<std::string, sighting> seen_{};
};

// With an earlier picture: rates since then. With sightings: since when states are as they are.
// `now_s`: wall-clock time, for the age of the daemon.
std::string render_text(const vellb::picture &now, const vellb::picture *before, const view &what,
                        long now_s, const sightings *seen);
nlohmann::ordered_json render_json(const vellb::picture &now, const vellb::picture *before,
                                   const view &what, long now_s, const sightings *seen);

// Packets a second between two readings of a counter; 0 if it went backwards (a new daemon, or a
// new object under an old key).
double rate_of(lb_u64_t now, lb_u64_t before, std::chrono::steady_clock::duration between);

// The same object in an earlier picture, or null.
const vellb::cluster *find(const vellb::picture *in, const lbip_addr_t &cluster);
const vellb::port *find(const vellb::picture *in, const vellb::port &port);
const vellb::server *find(const vellb::picture *in, const vellb::port &port,
                          const lbip_addr_t &server);

const vellb::rule *find(const vellb::picture *in, const vellb::port &port, const vellb::rule &rule);

// Does the port keep connection or affinity records? Others count no connections.
bool keeps_records(const vellb::port &port);
// All servers' counts together.
lb_conn_stats_t connections_of(const vellb::port &port);

} // namespace vellbctl
