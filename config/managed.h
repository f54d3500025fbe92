// Which bits of the daemon's settable blocks the configuration owns. All others are left as they
// are: other programs', or the daemon's own.
#pragma once

#include "prot/blocks.h"
#include "vellb/command.h"

namespace vellcfg
{

// A mask of a block: ones where the bits are the configuration's.
vellb::bytes_t managed_executor(bool log_mask, bool pair);
vellb::bytes_t managed_cluster();
vellb::bytes_t managed_port();
// `mtu`: the tunnel is new, so its MTU is not a learnt one.
vellb::bytes_t managed_server(bool mtu);
// `ranged`: of a type that goes by open connections.
vellb::bytes_t managed_rule(bool ranged);

// Do two blocks of the mask's size agree in its bits?
bool agree(const vellb::bytes_t &a, const vellb::bytes_t &b, const vellb::bytes_t &mask);
// `base`, with the mask's bits of `over`. All three are of one size.
vellb::bytes_t merged(const vellb::bytes_t &base, const vellb::bytes_t &over,
                      const vellb::bytes_t &mask);

} // namespace vellcfg
