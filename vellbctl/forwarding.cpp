// Which settings of a server's forwarding go together, and what they are called. The daemon takes
// most combinations and then forwards by the first that applies; here they are refused with a
// reason.
#include "forwarding.h"

#include <fmt/format.h>

#include "syntax.h"
#include "vellb/address.h"
#include "vellb/names.h"
#include "words.h"

namespace vellbctl
{

namespace
{

lb_u8_t tunnel_of(const lbsrv_setable_t &settings)
{
    return static_cast<lb_u8_t>(settings.encapflags & LBSRV_ENCAPFLAG_TYPEMASK);
}

bool encapsulates(const lbsrv_setable_t &settings)
{
    return (settings.encapflags & LBSRV_ENCAPFLAG_ENCAPSULATE) != 0;
}

class checker
{
  public:
    checker(const request &asked, const lbsrv_addable_t &fixed, const lbsrv_setable_t &settings)
        : asked_(asked), words_(asked.forwarding), server_(*asked.server), fixed_(fixed),
          settings_(settings)
    {
    }

    void check() const
    {
        check_together();
        check_nat();
        check_tunnel();
    }

  private:
    // Only what the words touch is judged: an old setting must not stand in the way of a new one.
    void refuse(bool wrong, const char *word, const std::string &why) const
    {
        if (wrong) {
            throw usage_error(why, word, usage_line(*asked_.what));
        }
    }

    void check_together() const
    {
        const bool nat = fixed_.nat != 0;
        const bool tunnel = words_.encap.value_or(LBSRV_ENCAPTYPE_NONE) != LBSRV_ENCAPTYPE_NONE ||
                            (words_.collocated && encapsulates(settings_));
        const bool here = settings_.Collocated != 0 && (words_.collocated || tunnel);
        refuse(nat && tunnel, "--encap",
               "--encap does not go with a NAT server: translation already carries its packets "
               "across routers; remove the server and add it again without --nat");
        refuse(here && nat, "--collocated",
               "--collocated does not go with a NAT server: packets to this machine need no "
               "translation");
        refuse(here && tunnel, "--collocated",
               "--collocated does not go with --encap: packets to this machine pass no tunnel; use "
               "one of them");
    }

    void check_nat() const
    {
        refuse(!words_.nat && words_.return_address.has_value(), "--return-address",
               "--return-address goes with --nat");
        refuse(!words_.nat && words_.router_address.has_value(), "--router-address",
               "--router-address goes with --nat");
        refuse(words_.nat && !words_.return_address, "--nat",
               "--nat needs --return-address: the address that the server sees and answers to, one "
               "that no host has");
        refuse(words_.nat && !words_.router_address, "--nat",
               "--nat needs --router-address: the next hop towards the server; the server's own "
               "address if it is on the forwarder's segment");
        if (!words_.nat) {
            return;
        }
        same_version("--return-address", *words_.return_address);
        same_version("--router-address", *words_.router_address);
        refuse(
            vellb::same_address(*words_.return_address, *asked_.address), "--return-address",
            "--return-address is the cluster's address: packets to it are clients', not answers");
        refuse(vellb::same_address(*words_.return_address, server_), "--return-address",
               "--return-address is the server's own address: it would answer itself");
        refuse(vellb::same_address(*words_.return_address, *words_.router_address),
               "--return-address",
               "--return-address is the router's own address: the forwarder would not see answers");
    }

    void check_tunnel() const
    {
        const bool tunnel = tunnel_of(settings_) != LBSRV_ENCAPTYPE_NONE;
        refuse(!tunnel && words_.encap_source.has_value(), "--encap-source",
               "--encap-source goes with --encap ipip or gre");
        refuse(!tunnel && words_.encap_mtu.has_value(), "--encap-mtu",
               "--encap-mtu goes with --encap ipip or gre");
        if (words_.encap_source && vellb::is_set(*words_.encap_source)) {
            same_version("--encap-source", *words_.encap_source);
        }
    }

    void same_version(const char *word, const lbip_addr_t &address) const
    {
        refuse(address.version != server_.version, word,
               fmt::format("{}: {} is an IPv{} address, the server's is IPv{}", word,
                           vellb::address_text(address), address.version, server_.version));
    }

    const request &asked_;
    const forwarding_words &words_;
    const lbip_addr_t &server_;
    const lbsrv_addable_t &fixed_;
    const lbsrv_setable_t &settings_;
};

} // namespace

void apply_forwarding(const forwarding_words &asked, lbsrv_addable_t &fixed)
{
    fixed.nat = asked.nat ? 1 : 0;
    fixed.returnaddress = asked.return_address.value_or(lbip_addr_t{});
    fixed.routeraddress = asked.router_address.value_or(lbip_addr_t{});
}

void apply_forwarding(const forwarding_words &asked, lbsrv_setable_t &settings)
{
    if (asked.encap && *asked.encap != LBSRV_ENCAPTYPE_NONE) {
        settings.encapflags = static_cast<lb_u8_t>(*asked.encap | LBSRV_ENCAPFLAG_ENCAPSULATE);
    } else if (asked.encap) {
        settings.encapflags = 0;
        settings.encapsrcip = {};
    }
    settings.encapsrcip = asked.encap_source.value_or(settings.encapsrcip);
    settings.encapmtu = asked.encap_mtu.value_or(settings.encapmtu);
    if (asked.collocated) {
        settings.Collocated = *asked.collocated ? 1 : 0;
    }
}

void check_forwarding(const request &asked, const lbsrv_addable_t &fixed,
                      const lbsrv_setable_t &settings)
{
    checker(asked, fixed, settings).check();
}

std::string forwarding_name(const vellb::server &server)
{
    const auto way = vellb::forwarding_of(server);
    return way ? vellb::name_of(vellb::forwardings(), static_cast<lb_u64_t>(*way))
               : "nothing: drops";
}

std::string forwarding_text(const vellb::server &server)
{
    const std::string name = forwarding_name(server);
    if (name == "nat") {
        return fmt::format("nat via {} as {}", vellb::address_text(server.fixed.routeraddress),
                           vellb::address_text(server.fixed.returnaddress));
    }
    return encapsulates(server.settings) ? fmt::format("{} mtu {}", name, server.settings.encapmtu)
                                         : name;
}

} // namespace vellbctl
