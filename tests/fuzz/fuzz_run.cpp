// libFuzzer's entry for inputs that each have a stack of their own: FUZZ_RUN is what runs them.
#include "commands.h"
#include "configs.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    (void)FUZZ_RUN(data, size);
    return 0;
}
