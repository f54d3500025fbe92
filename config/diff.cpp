// Compares two trees and writes the commands from one to the other. Everything is decided from the
// two pictures alone; nothing here talks to a daemon. No state between calls.
//
// A port's affinity table is shared with the port that its crossport names, if that one names it in
// return: the daemon writes both. Numbers that nobody returns are left over from partners that
// went, and mean nothing. Joining and parting happen when one of the two is added, so one is
// enough.
#include "vellcfg/diff.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <map>
#include <set>

#include "managed.h"
#include "texts.h"
#include "vellb/address.h"
#include "vellb/names.h"

namespace vellcfg
{

namespace
{

constexpr lbcmd_keytype_e CONFIG = LBCMD_KEYTYPE_CONFIG;

using vellb::bytes_of;
using vellb::bytes_t;

struct address_less {
    bool operator()(const lbip_addr_t &a, const lbip_addr_t &b) const
    {
        return a.version != b.version
                   ? a.version < b.version
                   : memcmp(a.nboaddr.v6, b.nboaddr.v6, sizeof(a.nboaddr.v6)) < 0;
    }
};
using addresses_t = std::set<lbip_addr_t, address_less>;

// The address alone: other programs' keys may hold anything behind it.
lbip_addr_t bare(const lbip_addr_t &address)
{
    lbip_addr_t result{};
    result.version = address.version;
    const size_t size = address.version == 4 ? sizeof(result.nboaddr.v4) : sizeof(result.nboaddr);
    memcpy(&result.nboaddr, &address.nboaddr, size);
    return result;
}

bool same_fixed(const vellb::server &a, const vellb::server &b)
{
    const bool nat = a.fixed.nat != 0;
    return nat == (b.fixed.nat != 0) &&
           (!nat || (vellb::same_address(a.fixed.returnaddress, b.fixed.returnaddress) &&
                     vellb::same_address(a.fixed.routeraddress, b.fixed.routeraddress)));
}

std::string counted(size_t count, const char *what)
{
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

// The port that this one shares its affinity table with, or its own number.
lb_u16_t joined(const std::map<lb_u16_t, const vellb::port *> &ports, const vellb::port &each)
{
    const auto other = ports.find(each.fixed.crossport);
    const bool mutual = other != ports.end() && other->second->fixed.crossport == each.number;
    return mutual ? each.fixed.crossport : each.number;
}

class differ
{
  public:
    plan out{};

    void add(const lbcmd_key_t &key, bytes_t addable, bytes_t setable)
    {
        push({CONFIG, LBCMD_ACTION_ADD, key, std::move(addable), std::move(setable)}, {}, {});
    }
    void remove(const lbcmd_key_t &key) { push({CONFIG, LBCMD_ACTION_RM, key}, {}, {}); }
    // A SET, unless the blocks agree where it matters.
    void set(const lbcmd_key_t &key, const bytes_t &now, const bytes_t &wanted, const bytes_t &mask)
    {
        if (!agree(now, wanted, mask)) {
            push({CONFIG, LBCMD_ACTION_SET, key, {}, merged(now, wanted, mask)}, now, mask);
        }
    }

    void executor(const target &wanted, const vellb::picture &actual);
    void heartbeats(const vellb::executor &wanted, const vellb::executor &actual);

  private:
    void push(vellb::request command, bytes_t before, bytes_t mask)
    {
        step made{std::move(command), std::move(before), std::move(mask), ""};
        made.text = text_of(made.command, made.before);
        out.steps.push_back(std::move(made));
    }
};

void differ::executor(const target &wanted, const vellb::picture &actual)
{
    set(vellb::executor_key(), bytes_of(actual.executor.settings),
        bytes_of(wanted.executor.settings),
        managed_executor(wanted.log_mask_given,
                         wanted.executor.settings.ha.role != LBHA_ROLE_SOLO));
}

void differ::heartbeats(const vellb::executor &wanted, const vellb::executor &actual)
{
    const auto in = [](const std::vector<vellb::heartbeat> &list, const vellb::heartbeat &one) {
        return std::ranges::any_of(list, [&](const vellb::heartbeat &each) {
            return vellb::same_address(each.local, one.local) &&
                   vellb::same_address(each.partner, one.partner);
        });
    };
    for (const vellb::heartbeat &each : actual.heartbeats) {
        if (!in(wanted.heartbeats, each)) {
            remove(vellb::heartbeat_key(each.local, each.partner));
        }
    }
    for (const vellb::heartbeat &each : wanted.heartbeats) {
        if (!in(actual.heartbeats, each)) {
            add(vellb::heartbeat_key(each.local, each.partner), {}, bytes_of(lbha_hb_setable_t{}));
        }
    }
}

// --- Ports ---------------------------------------------------------------------------------------

// One port in both states: what goes first, then what comes and changes. With `anew`, it goes and
// comes as a whole.
class port_differ
{
  public:
    port_differ(differ &to, const vellb::port &wanted, const vellb::port *actual, bool anew)
        : to_(to), wanted_(wanted), actual_(actual), kept_(anew ? nullptr : actual)
    {
        for (const vellb::server &each : wanted.servers) {
            servers_[bare(each.address)] = &each;
        }
        for (const vellb::rule &each : wanted.rules) {
            rules_[each.number] = &each;
        }
        if (kept_ != nullptr) {
            for (const vellb::server &each : kept_->servers) {
                keep_server(each);
            }
            for (const vellb::rule &each : kept_->rules) {
                keep_rule(each);
            }
        }
    }

    void remove() const
    {
        if (actual_ == nullptr) {
            return;
        }
        for (const vellb::rule &each : actual_->rules) {
            remove_rule(each);
        }
        for (const vellb::server &each : actual_->servers) {
            if (!kept_servers_.contains(bare(each.address))) {
                to_.remove(server_key(each.address));
            }
        }
        if (kept_ == nullptr) {
            to_.remove(vellb::port_key(actual_->cluster, actual_->number));
        }
    }

    // `joins`: the port that it is to share a table with is there.
    void make(bool joins) const
    {
        const lbcmd_key_t key = vellb::port_key(wanted_.cluster, wanted_.number);
        if (kept_ == nullptr) {
            lbport_addable_t fixed = wanted_.fixed;
            fixed.crossport = joins ? fixed.crossport : wanted_.number;
            to_.add(key, bytes_of(fixed), bytes_of(wanted_.settings));
        } else {
            to_.set(key, bytes_of(kept_->settings), bytes_of(wanted_.settings), managed_port());
        }
        for (const vellb::server &each : wanted_.servers) {
            make_server(each);
        }
        for (const vellb::rule &each : wanted_.rules) {
            make_rule(each);
        }
    }

  private:
    struct kept_rule {
        const vellb::rule *actual = nullptr;
        addresses_t useservers{};
    };

    [[nodiscard]] lbcmd_key_t server_key(const lbip_addr_t &address) const
    {
        return vellb::server_key(wanted_.cluster, wanted_.number, bare(address));
    }

    void keep_server(const vellb::server &each)
    {
        const auto found = servers_.find(bare(each.address));
        if (found == servers_.end()) {
            return;
        }
        if (same_fixed(*found->second, each)) {
            kept_servers_[bare(each.address)] = &each;
            return;
        }
        to_.out.notes.push_back(fmt::format(
            "{} is removed and added again: how NAT reaches it differs, and that is fixed when it "
            "is added; its connections are lost",
            vellb::key_text(CONFIG, server_key(each.address))));
    }

    void keep_rule(const vellb::rule &each)
    {
        const auto found = rules_.find(each.number);
        if (found == rules_.end()) {
            return;
        }
        kept_rule &kept = kept_rules_[each.number];
        kept.actual = &each;
        addresses_t asked;
        for (const lbip_addr_t &address : found->second->useservers) {
            asked.insert(bare(address));
        }
        for (const lbip_addr_t &address : each.useservers) {
            // A use-server goes with its server.
            if (asked.contains(bare(address)) && kept_servers_.contains(bare(address))) {
                kept.useservers.insert(bare(address));
            }
        }
    }

    [[nodiscard]] lbcmd_key_t useserver_key(lb_u16_t rule, const lbip_addr_t &address) const
    {
        return vellb::useserver_key(wanted_.cluster, wanted_.number, rule, bare(address));
    }

    // Of a rule that stays, only what stands in the way of a server's removal: a rule without
    // use-servers drops, so others go when their successors are there.
    void remove_rule(const vellb::rule &each) const
    {
        const auto kept = kept_rules_.find(each.number);
        for (const lbip_addr_t &address : each.useservers) {
            if (kept == kept_rules_.end() || !kept_servers_.contains(bare(address))) {
                to_.remove(useserver_key(each.number, address));
            }
        }
        if (kept == kept_rules_.end()) {
            to_.remove(vellb::rule_key(wanted_.cluster, wanted_.number, each.number));
        }
    }

    void make_server(const vellb::server &each) const
    {
        const auto kept = kept_servers_.find(bare(each.address));
        if (kept == kept_servers_.end()) {
            to_.add(server_key(each.address), bytes_of(each.fixed), bytes_of(each.settings));
            return;
        }
        const bool tunnel = each.settings.encapflags != kept->second->settings.encapflags &&
                            each.settings.encapflags != 0;
        to_.set(server_key(each.address), bytes_of(kept->second->settings), bytes_of(each.settings),
                managed_server(tunnel));
    }

    void make_rule(const vellb::rule &each) const
    {
        const lbcmd_key_t key = vellb::rule_key(wanted_.cluster, wanted_.number, each.number);
        const auto kept = kept_rules_.find(each.number);
        if (kept == kept_rules_.end()) {
            to_.add(key, bytes_of(lbrul_addable_t{}), bytes_of(each.settings));
        } else {
            to_.set(key, bytes_of(kept->second.actual->settings), bytes_of(each.settings),
                    managed_rule(each.settings.type != LBRUL_TYPE_TRUE));
        }
        for (const lbip_addr_t &address : each.useservers) {
            if (kept == kept_rules_.end() || !kept->second.useservers.contains(bare(address))) {
                to_.add(useserver_key(each.number, address), bytes_of(lbusrv_addable_t{}),
                        bytes_of(lbusrv_setable_t{}));
            }
        }
        if (kept == kept_rules_.end()) {
            return;
        }
        for (const lbip_addr_t &address : kept->second.actual->useservers) {
            if (kept_servers_.contains(bare(address)) &&
                !kept->second.useservers.contains(bare(address))) {
                to_.remove(useserver_key(each.number, address));
            }
        }
    }

    differ &to_;
    const vellb::port &wanted_;
    const vellb::port *actual_;
    const vellb::port *kept_;
    std::map<lbip_addr_t, const vellb::server *, address_less> servers_{};
    std::map<lb_u16_t, const vellb::rule *> rules_{};
    std::map<lbip_addr_t, const vellb::server *, address_less> kept_servers_{};
    std::map<lb_u16_t, kept_rule> kept_rules_{};
};

// --- Clusters ------------------------------------------------------------------------------------

class cluster_differ
{
  public:
    cluster_differ(differ &to, const vellb::cluster &wanted, const vellb::cluster *actual)
        : to_(to), wanted_(wanted), actual_(actual)
    {
        for (const vellb::port &each : wanted.ports) {
            asked_[each.number] = &each;
        }
        if (actual != nullptr) {
            for (const vellb::port &each : actual->ports) {
                there_[each.number] = &each;
            }
        }
        choose_anew();
        choose_to_part();
        choose_to_join();
    }

    void run()
    {
        const lbcmd_key_t key = vellb::cluster_key(bare(wanted_.address));
        std::vector<port_differ> ports;
        for (const vellb::port &each : wanted_.ports) {
            const auto there = there_.find(each.number);
            tell_anew(each.number);
            ports.emplace_back(to_, each, there != there_.end() ? there->second : nullptr,
                               anew_.contains(each.number));
        }
        for (const auto &[number, there] : there_) {
            if (!asked_.contains(number)) {
                port_differ(to_, vellb::port{there->cluster, number}, there, true).remove();
            }
        }
        for (const port_differ &each : ports) {
            each.remove();
        }
        if (actual_ == nullptr) {
            to_.add(key, bytes_of(lbclu_addable_t{}), bytes_of(wanted_.settings));
        } else {
            to_.set(key, bytes_of(actual_->settings), bytes_of(wanted_.settings),
                    managed_cluster());
        }
        // The first of two that share a table stands alone until the second one joins it.
        std::set<lb_u16_t> there;
        for (const auto &[number, port] : asked_) {
            if (kept(number)) {
                there.insert(number);
            }
        }
        for (size_t i = 0; i < ports.size(); i++) {
            ports[i].make(there.contains(wanted_.ports[i].fixed.crossport));
            there.insert(wanted_.ports[i].number);
        }
    }

  private:
    using ports_t = std::map<lb_u16_t, const vellb::port *>;

    [[nodiscard]] bool kept(lb_u16_t number) const
    {
        return asked_.contains(number) && there_.contains(number) && !anew_.contains(number);
    }

    void choose_anew()
    {
        for (const auto &[number, wanted] : asked_) {
            const auto there = there_.find(number);
            if (there == there_.end()) {
                continue;
            }
            const lbport_addable_t &then = there->second->fixed;
            const lbport_addable_t &now = wanted->fixed;
            const auto name = [](lb_u8_t algorithm) {
                return vellb::name_of(vellb::algorithms(), algorithm);
            };
            if (then.selectalg != now.selectalg) {
                anew_[number] = fmt::format("its algorithm changes from {} to {}",
                                            name(then.selectalg), name(now.selectalg));
            } else if (then.udpselectalg != now.udpselectalg) {
                anew_[number] = fmt::format("its algorithm for UDP changes from {} to {}",
                                            name(then.udpselectalg), name(now.udpselectalg));
            }
        }
    }

    // Ports that share a table and must not: one of the two goes, rather the one that is to share
    // another's.
    void choose_to_part()
    {
        for (const auto &[number, there] : there_) {
            const lb_u16_t other = joined(there_, *there);
            if (other <= number || !kept(number) || !kept(other) ||
                joined(asked_, *asked_.at(number)) == other) {
                continue;
            }
            const bool moves = joined(asked_, *asked_.at(number)) != number;
            anew_[moves ? number : other] = fmt::format(
                "it shares its affinity table with port {} no more", moves ? other : number);
        }
    }

    void choose_to_join()
    {
        for (const auto &[number, wanted] : asked_) {
            const lb_u16_t other = joined(asked_, *wanted);
            if (other > number && kept(number) && kept(other) &&
                joined(there_, *there_.at(number)) != other) {
                anew_[other] = fmt::format("it is to share the affinity table of port {}", number);
            }
        }
    }

    void tell_anew(lb_u16_t number)
    {
        const auto why = anew_.find(number);
        if (why == anew_.end()) {
            return;
        }
        const vellb::port &there = *there_.at(number);
        to_.out.notes.push_back(fmt::format(
            "{} is removed and added again, and its {} with it: {}, and that is fixed when it is "
            "added; its connections are lost",
            vellb::key_text(CONFIG, vellb::port_key(there.cluster, number)),
            there.rules.empty() ? counted(there.servers.size(), "server")
                                : counted(there.servers.size(), "server") + " and " +
                                      counted(there.rules.size(), "rule"),
            why->second));
    }

    differ &to_;
    const vellb::cluster &wanted_;
    const vellb::cluster *actual_;
    ports_t asked_{};
    ports_t there_{};
    std::map<lb_u16_t, std::string> anew_{}; // why
};

void remove_cluster(differ &to, const vellb::cluster &there)
{
    for (const vellb::port &each : there.ports) {
        port_differ(to, vellb::port{each.cluster, each.number}, &each, true).remove();
    }
    to.remove(vellb::cluster_key(bare(there.address)));
}

} // namespace

plan diff(const target &wanted, const vellb::picture &actual, std::vector<step> interface_steps)
{
    differ to;
    to.out.steps = std::move(interface_steps);
    to.executor(wanted, actual);
    to.heartbeats(wanted.executor, actual.executor);
    std::map<lbip_addr_t, const vellb::cluster *, address_less> there;
    addresses_t asked;
    for (const vellb::cluster &each : wanted.clusters) {
        asked.insert(bare(each.address));
    }
    for (const vellb::cluster &each : actual.clusters) {
        there[bare(each.address)] = &each;
        if (!asked.contains(bare(each.address))) {
            remove_cluster(to, each);
        }
    }
    for (const vellb::cluster &each : wanted.clusters) {
        const auto found = there.find(bare(each.address));
        cluster_differ(to, each, found != there.end() ? found->second : nullptr).run();
    }
    return std::move(to.out);
}

step step_of(vellb::request command)
{
    step made{std::move(command)};
    made.text = text_of(made.command, {});
    return made;
}

} // namespace vellcfg
