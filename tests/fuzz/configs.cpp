// The reader, and the reconciler behind it.
#include "configs.h"

#include "stack_daemon.h"
#include "vellcfg/apply.h"
#include "vellcfg/check.h"
#include "vellcfg/diff.h"
#include "vellcfg/export.h"
#include "vellcfg/normalise.h"
#include "vellcfg/reader.h"

namespace fuzz
{

namespace
{

// A daemon of which nothing is sure. It gives up in time, whatever it makes its client ask.
class liar : public stack_daemon
{
  public:
    liar(const std::uint8_t *data, std::size_t size) : edits_(data, data + size) {}

    void exchange(lbcmd_buf_t &buffer) const override
    {
        constexpr unsigned MOST = 600;
        if (++count_ > MOST) {
            throw vellb::fault(vellb::fault_e::TIMED_OUT, "too many commands", "");
        }
        stack_daemon::exchange(buffer);
        auto *bytes = reinterpret_cast<std::uint8_t *>(&buffer);
        for (std::size_t i = 0; i + 8 <= edits_.size(); i += 8) {
            const std::uint8_t *edit = &edits_[i];
            const unsigned first = edit[0] % 64U;
            const unsigned often = 1 + edit[5] % 16U;
            if (count_ < first || (count_ - first) % often != 0) {
                continue;
            }
            // Mostly where something is.
            const std::size_t where =
                edit[3] % 2 != 0 ? edit[2] % 72U : edit[2] * 8U + edit[3] % 8U;
            bytes[where] = edit[4];
        }
    }

  private:
    bytes edits_;
    mutable unsigned count_ = 0;
};

const vellcfg::target &goal()
{
    static const vellcfg::target made = normalised(vellcfg::read_texts({{"goal", R"(
clusters:
  - address: 10.0.0.100
    id: other
    ports:
      - {port: 80, algorithm: affinity, servers: [10.0.0.11, 10.0.0.13]}
      - port: 85
        algorithm: connection
        servers: [{address: 10.0.0.11, weight: 3}]
        rules: [{number: 5, use-servers: [10.0.0.11]}]
)"}}).wanted);
    return made;
}

std::string reconciled(const vellb::client &daemon)
{
    try {
        const vellb::picture now = vellb::read_picture(daemon);
        (void)vellcfg::read_texts({{"export", vellcfg::exported(now)}});
        const auto plan = vellcfg::diff(goal(), now);
        const auto result = vellcfg::apply(daemon, plan.steps);
        return result.failure ? "refused" : "applied";
    } catch (const vellb::refused &) {
        return "refused";
    } catch (const vellb::fault &error) {
        return error.kind() == vellb::fault_e::MALFORMED ? "malformed" : "stopped";
    }
}

} // namespace

std::string run_config(const std::uint8_t *data, std::size_t size)
{
    const auto read =
        vellcfg::read_texts({{"input", std::string(reinterpret_cast<const char *>(data), size)}});
    if (!read.errors.empty()) {
        for (const auto &each : read.errors) {
            require(each.at.file == "input" && each.at.line > 0 && !each.text.empty(),
                    "an error without a place");
        }
        return "errors";
    }
    const auto warnings = vellcfg::check(read.wanted, nullptr);
    vellcfg::target made = vellcfg::normalised(read.wanted);
    const auto again = vellcfg::read_texts({{"export", vellcfg::exported(made)}});
    if (!again.errors.empty()) {
        throw fault("an export that cannot be read: " + finding_text(again.errors[0]));
    }
    made.log_mask_given = true;
    const auto left = vellcfg::diff(vellcfg::normalised(again.wanted), made);
    if (!left.empty()) {
        throw fault("an export that says something else: " + left.steps[0].text);
    }
    require(vellcfg::diff(made, made).empty(), "a difference from itself");
    return warnings.empty() ? "fine" : "warnings";
}

std::string run_answers(const std::uint8_t *data, std::size_t size)
{
    world stack;
    const liar daemon(data, size);
    const std::string end = reconciled(daemon);
    stack.finish();
    return end;
}

} // namespace fuzz
