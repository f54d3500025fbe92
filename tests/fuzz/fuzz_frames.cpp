// libFuzzer's entry for frames.
#include "frames.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::run_frames(data, size);
    return 0;
}
