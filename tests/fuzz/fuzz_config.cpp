// libFuzzer's entry for configuration files.
#include "configs.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    (void)fuzz::run_config(data, size);
    return 0;
}
