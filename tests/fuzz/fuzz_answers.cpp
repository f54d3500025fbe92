// libFuzzer's entry for a daemon's answers.
#include "configs.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    (void)fuzz::run_answers(data, size);
    return 0;
}
