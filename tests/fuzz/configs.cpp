// See configs.h. No state.
#include "configs.h"

#include "vellcfg/check.h"
#include "vellcfg/diff.h"
#include "vellcfg/export.h"
#include "vellcfg/normalise.h"
#include "vellcfg/reader.h"

namespace fuzz
{

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

} // namespace fuzz
