// The way from any state of the daemon to any configuration, on the stack's own command entry:
// what the commands do is decided by the daemon, not by a model of it.
#include <map>

#include "random_service.h"
#include "stack_fixture.h"
#include "vellcfg/apply.h"
#include "vellcfg/diff.h"
#include "vellcfg/export.h"
#include "vellcfg/normalise.h"
#include "vellcfg/reader.h"

namespace
{

// Commands without a socket.
class direct_client : public vellb::client
{
  public:
    void exchange(lbcmd_buf_t &buffer) const override
    {
        commands_ += buffer.hdr.action == LBCMD_ACTION_GET ? 0 : 1;
        (void)lbcmd_entry(&buffer);
    }
    unsigned commands() const { return commands_; }

  private:
    mutable unsigned commands_ = 0;
};

// An object by name, with all that the configuration says of it. A picture is told through the file
// that makes it, so what no file asks for is not in it.
using told_t = std::map<std::string, std::string>;

std::string hex(const vellb::bytes_t &bytes)
{
    return {bytes.begin(), bytes.end()};
}

told_t told(const vellcfg::service &wanted)
{
    const auto state = vellcfg::normalised(wanted);
    const auto config = LBCMD_KEYTYPE_CONFIG;
    told_t all;
    for (const auto &c : state.clusters) {
        all[vellb::key_text(config, vellb::cluster_key(c.address))] =
            hex(vellb::bytes_of(c.settings));
        for (const auto &p : c.ports) {
            all[vellb::key_text(config, vellb::port_key(c.address, p.number))] =
                hex(vellb::bytes_of(p.fixed)) + hex(vellb::bytes_of(p.settings));
            for (vellb::server s : p.servers) {
                s.settings.encapmtu = 0;
                all[vellb::key_text(config, vellb::server_key(c.address, p.number, s.address))] =
                    hex(vellb::bytes_of(s.fixed)) + hex(vellb::bytes_of(s.settings));
            }
            for (const auto &r : p.rules) {
                all[vellb::key_text(config, vellb::rule_key(c.address, p.number, r.number))] =
                    hex(vellb::bytes_of(r.settings));
                for (const auto &u : r.useservers) {
                    all[vellb::key_text(
                        config, vellb::useserver_key(c.address, p.number, r.number, u))] = "";
                }
            }
        }
    }
    return all;
}

// The first object in which they differ, "" if none.
std::string difference(const told_t &a, const told_t &b)
{
    for (const auto *each : {&a, &b}) {
        for (const auto &[name, blocks] : *each) {
            const auto &other = each == &a ? b : a;
            const auto found = other.find(name);
            if (found == other.end() || found->second != blocks) {
                return name;
            }
        }
    }
    return "";
}

class config_reconcile : public StackTest
{
  protected:
    vellb::picture now() { return vellb::read_picture(daemon); }

    vellcfg::reading reread()
    {
        return vellcfg::read_texts({{"export", vellcfg::exported(now())}});
    }

    // Carries `count` of the steps out; each must be taken, which none is that orphans or has no
    // parent.
    void carry_out(const vellcfg::plan &plan, size_t count)
    {
        const auto result =
            apply(daemon, plan.steps, [&](const vellcfg::progress &at) { return at.done < count; });
        ASSERT_FALSE(result.failure) << result.failure->what();
        ASSERT_TRUE(result.interference.empty()) << result.interference[0];
    }

    // Nothing that is equal is touched, unless it goes with what it belongs to.
    void expect_minimal(const vellcfg::plan &plan, const vellcfg::service &wanted)
    {
        const told_t before = told(reread().wanted);
        const told_t after = told(wanted);
        std::set<std::string> gone;
        for (const auto &each : plan.steps) {
            const lbcfg_key_t &key = each.command.key.cfg;
            const std::string name = vellb::key_text(LBCMD_KEYTYPE_CONFIG, each.command.key);
            if (each.command.action == LBCMD_ACTION_RM) {
                gone.insert(name);
            }
            const auto then = before.find(name);
            const auto will = after.find(name);
            const bool differs = then == before.end() || will == after.end() ||
                                 then->second != will->second || key.port == 0;
            EXPECT_TRUE(differs || goes_with(plan, key)) << each.text;
        }
        EXPECT_EQ(gone.size() + sets(plan) + adds(plan), plan.steps.size());
    }

    static bool goes_with(const vellcfg::plan &plan, const lbcfg_key_t &key)
    {
        return std::ranges::any_of(plan.steps, [&](const vellcfg::step &each) {
            const lbcfg_key_t &above = each.command.key.cfg;
            return each.command.action == LBCMD_ACTION_RM && above.port == key.port &&
                   vellb::same_address(above.cluster, key.cluster) &&
                   ((above.rule == 0 && above.server.version == 0) || // the port
                    (above.rule == 0 && vellb::same_address(above.server, key.server)) ||
                    (above.rule == key.rule && above.server.version == 0));
        });
    }
    static size_t sets(const vellcfg::plan &plan) { return count(plan, LBCMD_ACTION_SET); }
    static size_t adds(const vellcfg::plan &plan) { return count(plan, LBCMD_ACTION_ADD); }
    static size_t count(const vellcfg::plan &plan, lbcmd_action_e action)
    {
        return static_cast<size_t>(std::ranges::count_if(
            plan.steps, [&](const auto &each) { return each.command.action == action; }));
    }

    // Somebody else changes one of the objects, within what the daemon takes.
    void interfere(random_service &random)
    {
        vellb::picture state = now();
        if (state.clusters.empty() || state.clusters[0].ports.empty()) {
            return;
        }
        const vellb::port &port = state.clusters[0].ports[0];
        lbport_setable_t set = port.settings;
        set.staletimeout = random.below(20);
        set.weightbound = 7; // nobody's business but theirs
        set.repstrategy = static_cast<lb_u8_t>(random.below(6));
        change(vellb::port_key(port.cluster, port.number), vellb::bytes_of(set));
        if (!port.servers.empty()) {
            lbsrv_setable_t server = port.servers[0].settings;
            server.encapmtu = random.one_in(2) ? 700 : 0; // as if learnt, or never
            server.encapflags = static_cast<lb_u8_t>(random.below(16));
            server.encapsrcip.version = random.one_in(2) ? 4 : 6;
            memset(server.serverid, static_cast<int>(random.below(256)), 9);
            change(vellb::server_key(port.cluster, port.number, port.servers[0].address),
                   vellb::bytes_of(server));
        }
        lbexe_setable_t executor = state.executor.settings;
        executor.ha.port = static_cast<lb_u16_t>(random.below(2));
        executor.ha.timeout = static_cast<lb_u8_t>(random.below(40));
        executor.clientgateway_ipv6 = port.cluster;
        change(vellb::executor_key(), vellb::bytes_of(executor));
        lbrul_setable_t never{};
        never.type = static_cast<lb_u8_t>(random.below(5));
        never.beginrange = random.below(2);
        const auto rule = vellb::rule_key(port.cluster, port.number, 77);
        (void)vellb::ask(daemon, {LBCMD_KEYTYPE_CONFIG, LBCMD_ACTION_ADD, rule,
                                  vellb::bytes_of(lbrul_addable_t{}), vellb::bytes_of(never)});
        const lbip_addr_t self = port.cluster;
        (void)vellb::ask(daemon, {LBCMD_KEYTYPE_CONFIG,
                                  LBCMD_ACTION_ADD,
                                  vellb::heartbeat_key(self, self),
                                  {},
                                  vellb::bytes_of(lbha_hb_setable_t{})});
    }
    void change(const lbcmd_key_t &key, const vellb::bytes_t &block)
    {
        vellb::run(daemon, {LBCMD_KEYTYPE_CONFIG, LBCMD_ACTION_SET, key, {}, block});
    }

    direct_client daemon;
};

TEST_F(config_reconcile, any_prefix_converges_and_equal_objects_are_left_alone)
{
    random_service random(20261121);
    for (int round = 0; round < 80 && !HasFailure(); round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        const vellcfg::service wanted = random.next();
        const auto target = vellcfg::normalised(wanted);
        const auto first = diff(target, now());
        expect_minimal(first, wanted);
        carry_out(first, random.below(static_cast<unsigned>(first.steps.size()) + 1));
        if (random.one_in(3)) {
            interfere(random);
            const auto strange = reread();
            ASSERT_TRUE(strange.errors.empty())
                << finding_text(strange.errors[0]) << vellcfg::exported(now());
        }
        const auto second = diff(target, now());
        carry_out(second, second.steps.size());
        const auto third = diff(target, now());
        EXPECT_TRUE(third.empty()) << third.steps[0].text;

        const unsigned before = daemon.commands();
        carry_out(third, 0);
        EXPECT_EQ(daemon.commands(), before);
        const auto file = reread();
        ASSERT_TRUE(file.errors.empty())
            << finding_text(file.errors[0]) << vellcfg::exported(now());
        EXPECT_EQ(difference(told(file.wanted), told(wanted)), "");
        EXPECT_TRUE(diff(vellcfg::normalised(file.wanted), now()).empty())
            << vellcfg::exported(now());
        tick(4);
    }
}

TEST_F(config_reconcile, an_export_applied_to_an_empty_daemon_gives_the_same_export)
{
    random_service random(7);
    for (int round = 0; round < 12 && !HasFailure(); round++) {
        const auto target = vellcfg::normalised(random.next());
        const auto plan = diff(target, now());
        carry_out(plan, plan.steps.size());
        const std::string text = vellcfg::exported(now());
        remove_all();
        tick(4);
        const auto file = vellcfg::read_texts({{"export", text}});
        ASSERT_TRUE(file.errors.empty()) << finding_text(file.errors[0]);
        const auto again = diff(vellcfg::normalised(file.wanted), now());
        carry_out(again, again.steps.size());
        EXPECT_EQ(vellcfg::exported(now()), text);
    }
}

} // namespace
