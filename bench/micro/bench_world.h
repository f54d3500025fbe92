// A stack on the host in memory, configured over its own commands, and the frames that the
// benchmarks feed to it. One at a time: the stack is a process-wide thing.
#pragma once

#include "lb_types.h"

#include <array>
#include <cstdint>
#include <vector>

#include "prot/blocks.h"

namespace bench
{

using bytes_t = std::vector<std::uint8_t>;
using ipv4_t = std::array<std::uint8_t, 4>;

struct shape_t {
    int clusters = 1;
    int ports = 1; // of the last cluster; the others have one
    lbsel_algorighm_e udp = LBSEL_ALGORIGHM_HASH;
    lbsel_algorighm_e tcp = LBSEL_ALGORIGHM_HASH;
};

constexpr int SERVERS = 3; // behind the last port of the last cluster, of weight 1

// The benchmarks of tables and their records; whether one of them failed.
void register_records();
bool records_failed();

// Lists are walked from the front, so the traffic goes to the cluster and the port that were added
// last: the longest walk. Aborts the process with a message when the stack refuses something.
class world
{
  public:
    explicit world(const shape_t &shape);
    ~world();
    world(const world &) = delete;
    world &operator=(const world &) = delete;

    // Frames of 60 bytes to the last port, one for each server in turn.
    [[nodiscard]] std::array<bytes_t, SERVERS> client_frames(lb_u8_t proto) const;
    // The port that they go to.
    [[nodiscard]] lbport_obj_t *last_port() const;
    // To an address that is nobody's.
    [[nodiscard]] bytes_t foreign_frame() const;
    [[nodiscard]] bytes_t arp_request() const; // who has the last cluster?

  private:
    shape_t shape_;
};

} // namespace bench
