// The list, command by command, over whatever road the client has. The daemon has no transactions:
// between reading a block and writing it another program may write it too, so what is found there
// is looked at before and after. No state between calls.
#include "vellcfg/apply.h"

#include <fmt/format.h>

#include "managed.h"
#include "texts.h"

namespace vellcfg
{

namespace
{

class applier
{
  public:
    applier(const vellb::client &daemon, outcome &result) : daemon_(daemon), result_(result) {}

    // Throws vellb::refused.
    void carry_out(const step &what)
    {
        switch (what.command.action) {
        case LBCMD_ACTION_SET: set(what); break;
        case LBCMD_ACTION_RM: remove(what); break;
        case LBCMD_ACTION_ADD:
        case LBCMD_ACTION_GET: vellb::run(daemon_, what.command); break;
        }
    }

  private:
    void remove(const step &what)
    {
        const vellb::answer got = vellb::ask(daemon_, what.command);
        if (got.rc == LBCMD_RC_OBJNOTFOUND) {
            tell(what, "was removed by another program meanwhile");
        } else if (got.rc != LBCMD_RC_SUCCESS) {
            throw vellb::refused(what.command, got.rc);
        }
    }

    [[nodiscard]] vellb::bytes_t read(const step &what) const
    {
        const vellb::answer now =
            vellb::run(daemon_, {what.command.keytype, LBCMD_ACTION_GET, what.command.key});
        if (now.setable.size() != what.command.setable.size()) {
            vellb::block_fault("settable", now.setable.size(), what.command.setable.size());
        }
        return now.setable;
    }

    void set(const step &what)
    {
        const vellb::bytes_t &wanted = what.command.setable;
        const vellb::bytes_t mask =
            what.mask.empty() ? vellb::bytes_t(wanted.size(), 0xFF) : what.mask;
        const vellb::bytes_t compared = without_learnt(what, mask);
        const vellb::bytes_t fresh = read(what);
        if (!what.before.empty() && !agree(fresh, what.before, compared)) {
            tell(what, fmt::format("was changed by another program meanwhile:{}",
                                   difference(what, what.before, fresh)));
        }
        if (agree(fresh, wanted, mask)) {
            return;
        }
        vellb::request command = what.command;
        command.setable = merged(fresh, wanted, mask);
        vellb::run(daemon_, command);
        const vellb::bytes_t after = read(what);
        const std::string now = difference(what, command.setable, after);
        if (!agree(after, command.setable, compared) && !now.empty()) {
            tell(what, fmt::format("does not hold what was just written, but{}: another program "
                                   "writes it too, or the daemon does not take it",
                                   now));
        }
    }

    // A tunnel's MTU is shared by all servers of one address, and may be learnt meanwhile.
    static vellb::bytes_t without_learnt(const step &what, const vellb::bytes_t &mask)
    {
        const bool server =
            vellb::object_of(what.command.keytype, what.command.key) == vellb::object_e::SERVER;
        return server ? merged(vellb::bytes_t(mask.size()), mask, managed_server(false)) : mask;
    }

    // The words in which `now` differs from `then`.
    static std::string difference(const step &what, const vellb::bytes_t &then,
                                  const vellb::bytes_t &now)
    {
        const auto options = [&](const vellb::bytes_t &block) {
            return options_of(what.command.keytype, what.command.key, {}, block);
        };
        return text_of(changed(options(then), options(now)));
    }

    void tell(const step &what, const std::string &text)
    {
        result_.interference.push_back(
            fmt::format("{} {}", vellb::key_text(what.command.keytype, what.command.key), text));
    }

    const vellb::client &daemon_;
    outcome &result_;
};

} // namespace

outcome apply(const vellb::client &daemon, std::span<const step> steps, const watcher_t &watcher)
{
    outcome result;
    applier work(daemon, result);
    for (const step &each : steps) {
        if (watcher && !watcher({result.done, steps.size(), &each})) {
            result.stopped = true;
            return result;
        }
        try {
            work.carry_out(each);
        } catch (const vellb::refused &no) {
            result.failure = no;
            return result;
        }
        result.done++;
    }
    return result;
}

} // namespace vellcfg
