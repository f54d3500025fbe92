// The host guard: an nftables table of its own that keeps the host's stack from answering or
// routing what arrives for cluster and return addresses. The forwarder sees such frames before
// nftables does, so nothing is taken from it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "prot/ipaddr.h"

struct nft_ctx;

namespace cpserver
{

inline constexpr const char *GUARD_TABLE = "vellb2_guard";

// The whole guard as one nft(8) transaction that makes the tables or replaces them. Addresses in
// any order, each once. Pure.
std::string guard_rules(std::vector<lbip_addr_t> addresses);

class guard
{
  public:
    guard();
    guard(const guard &) = delete;
    guard &operator=(const guard &) = delete;
    ~guard(); // leaves the tables as they are

    // The tables, whoever made them, say from now on exactly this; what they said before holds
    // until then. Asks the kernel whether they still do, and changes nothing then. True if they
    // were changed. Throws std::runtime_error with what nftables said.
    bool want(const std::vector<lbip_addr_t> &addresses);

    // No tables, no matter who made them.
    void remove();

  private:
    std::string run(const std::string &commands); // its output
    std::string listed();                         // what the kernel has; "" for nothing

    std::unique_ptr<nft_ctx, void (*)(nft_ctx *)> nft_;
    std::string rules_{};     // as last given
    std::string confirmed_{}; // as listed right after that
};

} // namespace cpserver
