// libFuzzer's entry for frames. Frames can't change the configuration, and to build it takes longer
// than most inputs: so many inputs share one stack, which is then torn down and made anew.
#include "frames.h"

namespace
{

constexpr int INPUTS_PER_WORLD = 500;
fuzz::world *shared = nullptr; // not destroyed at exit: the fake host is gone by then
int left = 0;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (left-- == 0) {
        if (shared != nullptr) {
            shared->finish();
            delete shared; // there is one shared in a process
        }
        shared = new fuzz::world;
        left = INPUTS_PER_WORLD;
    }
    fuzz::run_frames(*shared, data, size);
    return 0;
}
