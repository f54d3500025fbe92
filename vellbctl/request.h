// What a command line asks for, after every word of it has been understood.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "prot/blocks.h"
#include "vellb/client.h"

namespace vellbctl
{

struct command;

// Changes to a block, in the order given; they touch nothing but what they name.
template <class B> class edits_t
{
  public:
    void add(std::function<void(B &)> edit) { edits_.push_back(std::move(edit)); }
    void apply(B &block) const
    {
        for (const auto &edit : edits_) {
            edit(block);
        }
    }
    [[nodiscard]] bool empty() const { return edits_.empty(); }

  private:
    std::vector<std::function<void(B &)>> edits_;
};

// What only a node of a pair has, as far as the words say.
struct ha_words {
    std::optional<lb_u8_t> role{};        // _lbha_role_e
    std::optional<lb_u8_t> takeover{};    // _lbha_takeoverstrategy_e
    std::optional<lb_u8_t> replication{}; // _lbha_replicationstrategy_e
    std::optional<lb_u8_t> timeout_s{};
    std::optional<lb_u8_t> reach_score{};
    std::optional<lb_u16_t> port{};
    std::optional<std::vector<lbip_addr_t>> reach{}; // empty: none
};

// How a server is to be reached, as far as the words say.
struct forwarding_words {
    bool nat = false;
    std::optional<lbip_addr_t> return_address{};
    std::optional<lbip_addr_t> router_address{};
    std::optional<lb_u8_t> encap{}; // lbsrv_encaptype_e
    std::optional<lbip_addr_t> encap_source{};
    std::optional<lb_u16_t> encap_mtu{};
    std::optional<bool> collocated{};
};

struct request {
    const command *what = nullptr;
    std::string socket = vellb::DEFAULT_SOCKET;
    bool json = false;
    std::optional<double> watch_s{};
    std::optional<unsigned> count{};

    // The object addressed.
    std::optional<lbip_addr_t> address{}; // a cluster's, or an interface's
    lb_u16_t port = 0;
    lb_u16_t rule = 0;
    std::optional<lbip_addr_t> server{};  // a port's
    std::optional<lbip_addr_t> partner{}; // at the other end of a heartbeat
    std::optional<std::string> interface {
    };
    std::optional<lb_u64_t> mask{};

    // Its blocks.
    edits_t<lbexe_setable_t> executor_edits{};
    ha_words ha{};
    edits_t<lbclu_setable_t> cluster_edits{};
    edits_t<lbport_addable_t> port_fixed{};
    edits_t<lbport_setable_t> port_edits{};
    edits_t<lbsrv_setable_t> server_edits{};
    forwarding_words forwarding{};
    edits_t<lbrul_setable_t> rule_edits{};
    edits_t<lbifin_setable_t> interface_edits{};
    edits_t<lbifaddr_setable_t> address_edits{};

    bool ranged = false; // a rule's range was given
    bool recursive = false;
    bool confirmed = false;
    bool dry_run = false;
    std::vector<std::string> only{};
    std::string file{}; // a configuration's
};

} // namespace vellbctl
