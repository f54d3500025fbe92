// libFuzzer's entry for command buffers.
#include "commands.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::run_commands(data, size);
    return 0;
}
