// The way from any state of the daemon to any configuration, on the stack's own command entry:
// what the commands do is decided by the daemon, not by a model of it.
#include <map>

#include "random_service.h"
#include "stack_daemon.h"
#include "stack_fixture.h"
#include "vellcfg/apply.h"
#include "vellcfg/diff.h"
#include "vellcfg/export.h"
#include "vellcfg/normalise.h"
#include "vellcfg/reader.h"

namespace
{

class counting_daemon : public stack_daemon
{
  public:
    void exchange(lbcmd_buf_t &buffer) const override
    {
        commands += buffer.hdr.action == LBCMD_ACTION_GET ? 0 : 1;
        stack_daemon::exchange(buffer);
    }
    mutable unsigned commands = 0;
};

// An object by name, with all that the configuration says of it: the blocks of the command that
// adds it to an empty daemon. A picture is told through the file that makes it, so what no file
// asks for is not in it. Objects that are not below a cluster are left out.
using told_t = std::map<std::string, vellb::bytes_t>;

told_t told(const vellcfg::service &wanted)
{
    told_t all;
    for (const auto &each : vellcfg::diff(vellcfg::normalised(wanted), vellb::picture{}).steps) {
        const auto &command = each.command;
        vellb::bytes_t blocks = command.setable;
        const auto object = vellb::object_of(command.keytype, command.key);
        if (object == vellb::object_e::SERVER) {
            memset(&blocks[offsetof(lbsrv_setable_t, encapmtu)], 0, 2); // which is learnt
        }
        blocks.insert(blocks.end(), command.addable.begin(), command.addable.end());
        if (object != vellb::object_e::EXECUTOR && object != vellb::object_e::HEARTBEAT) {
            all[vellb::key_text(command.keytype, command.key)] = blocks;
        }
    }
    return all;
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
        std::set<std::string> texts;
        for (const auto &each : plan.steps) {
            const lbcfg_key_t &key = each.command.key.cfg;
            const std::string name = vellb::key_text(LBCMD_KEYTYPE_CONFIG, each.command.key);
            const auto then = before.find(name);
            const auto will = after.find(name);
            const bool differs = then == before.end() || will == after.end() ||
                                 then->second != will->second || key.port == 0;
            EXPECT_TRUE(differs || goes_with(plan, key)) << each.text;
            EXPECT_TRUE(texts.insert(each.text).second) << "twice: " << each.text;
        }
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
    // Somebody else changes one of the objects, within what the daemon takes.
    void interfere(random_service &random)
    {
        vellb::picture state = now();
        if (state.clusters.empty() || state.clusters[0].ports.empty()) {
            return;
        }
        const vellb::port &port = state.clusters[0].ports[0];
        lbport_setable_t changed = port.settings;
        changed.staletimeout = random.below(20);
        changed.weightbound = 7; // nobody's business but theirs
        changed.repstrategy = static_cast<lb_u8_t>(random.below(6));
        change(vellb::port_key(port.cluster, port.number), changed);
        if (!port.servers.empty()) {
            lbsrv_setable_t server = port.servers[0].settings;
            server.encapmtu = random.one_in(2) ? 700 : 0; // as if learnt, or never
            server.encapflags = static_cast<lb_u8_t>(random.below(16));
            server.encapsrcip.version = random.one_in(2) ? 4 : 6;
            memset(server.serverid, static_cast<int>(random.below(256)), 9);
            change(vellb::server_key(port.cluster, port.number, port.servers[0].address), server);
        }
        lbexe_setable_t executor = state.executor.settings;
        executor.ha.port = static_cast<lb_u16_t>(random.below(2));
        executor.ha.timeout = static_cast<lb_u8_t>(random.below(40));
        executor.clientgateway_ipv6 = port.cluster;
        change(vellb::executor_key(), executor);
        lbrul_setable_t never{};
        never.type = static_cast<lb_u8_t>(random.below(5));
        never.beginrange = random.below(2);
        const auto rule = vellb::rule_key(port.cluster, port.number, 77);
        (void)add(LBCMD_KEYTYPE_CONFIG, rule, stack::bytes_of(lbrul_addable_t{}),
                  stack::bytes_of(never));
        (void)add(LBCMD_KEYTYPE_CONFIG, vellb::heartbeat_key(port.cluster, port.cluster), {},
                  stack::bytes_of(lbha_hb_setable_t{}));
    }
    template <class Block> void change(const lbcmd_key_t &key, const Block &block)
    {
        ASSERT_ADDED(set(LBCMD_KEYTYPE_CONFIG, key, block));
    }

    counting_daemon daemon;
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

        const unsigned before = daemon.commands;
        carry_out(third, 0);
        EXPECT_EQ(daemon.commands, before);
        const auto file = reread();
        ASSERT_TRUE(file.errors.empty())
            << finding_text(file.errors[0]) << vellcfg::exported(now());
        EXPECT_EQ(told(file.wanted), told(wanted));
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
