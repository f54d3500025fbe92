// The masks, by field. No state.
#include "managed.h"

#include <cstring>

namespace vellcfg
{

namespace
{

template <class... FIELDS> void own(FIELDS &...fields)
{
    (memset(&fields, 0xFF, sizeof(fields)), ...);
}

} // namespace

vellb::bytes_t managed_executor(bool log_mask, bool pair)
{
    lbexe_setable_t mask{};
    own(mask.nfa, mask.clientgateway, mask.clientgateway_ipv6, mask.ha.role);
    if (log_mask) {
        own(mask.log_mask);
    }
    if (pair) {
        own(mask.ha.tostrategy, mask.ha.timeout, mask.ha.repstrategy, mask.ha.port,
            mask.ha.reachaddr);
    }
    return vellb::bytes_of(mask);
}

vellb::bytes_t managed_cluster()
{
    lbclu_setable_t mask{};
    own(mask.clusterid);
    return vellb::bytes_of(mask);
}

vellb::bytes_t managed_port()
{
    lbport_setable_t mask{};
    own(mask.staletimeout, mask.stickytime, mask.reset, mask.repstrategy);
    return vellb::bytes_of(mask);
}

vellb::bytes_t managed_server(bool mtu)
{
    lbsrv_setable_t mask{};
    own(mask.encapsrcip, mask.weight, mask.encapflags, mask.quiesced, mask.stickyflag,
        mask.Collocated, mask.serverid);
    if (mtu) {
        own(mask.encapmtu);
    }
    return vellb::bytes_of(mask);
}

vellb::bytes_t managed_rule(bool ranged)
{
    lbrul_setable_t mask{};
    own(mask.type, mask.name);
    if (ranged) {
        own(mask.beginrange, mask.endrange);
    }
    return vellb::bytes_of(mask);
}

bool agree(const vellb::bytes_t &a, const vellb::bytes_t &b, const vellb::bytes_t &mask)
{
    for (size_t i = 0; i < mask.size(); i++) {
        if (((a[i] ^ b[i]) & mask[i]) != 0) {
            return false;
        }
    }
    return true;
}

vellb::bytes_t merged(const vellb::bytes_t &base, const vellb::bytes_t &over,
                      const vellb::bytes_t &mask)
{
    vellb::bytes_t result = base;
    for (size_t i = 0; i < mask.size(); i++) {
        result[i] = static_cast<lb_u8_t>((base[i] & ~mask[i]) | (over[i] & mask[i]));
    }
    return result;
}

} // namespace vellcfg
