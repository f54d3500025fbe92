// The fuzz targets as ordinary tests: every input of the corpora, and runs of mutated inputs that
// say how far these came. A run fails if a place was not reached at all: it would test nothing
// there.
//
// VELL_FUZZ_FRAMES, VELL_FUZZ_COMMANDS, VELL_FUZZ_FILES and VELL_FUZZ_LIES say how many (100,000,
// 10,000, 3,000 and 300 without them), VELL_SEED which.
#include "lb_entry.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

#include "commands.h"
#include "configs.h"
#include "fake_host.h"
#include "frames.h"
#include "mutate.h"
#include "seeds.h"

namespace
{

using fuzz::bytes;

std::uint64_t number_from(const char *variable, std::uint64_t otherwise)
{
    const char *text = std::getenv(variable); // NOLINT(concurrency-mt-unsafe)
    return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 0) : otherwise;
}

fuzz::rng seeded()
{
    const std::uint64_t seed = number_from("VELL_SEED", 1);
    std::printf("VELL_SEED=%llu\n", static_cast<unsigned long long>(seed));
    return fuzz::rng(seed);
}

// Runs every file of a corpus; how many there were.
template <class Run> int replay(const char *target, Run run)
{
    int count = 0;
    for (const auto &entry :
         std::filesystem::directory_iterator(std::filesystem::path(VELL_CORPUS) / target)) {
        std::ifstream in(entry.path(), std::ios::binary);
        const bytes input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        SCOPED_TRACE(entry.path().string());
        EXPECT_NO_THROW(run(input.data(), input.size()));
        count++;
    }
    return count;
}

template <class Counts>
void expect_reached(const Counts &counts, const std::vector<std::string> &places)
{
    for (const auto &[place, count] : counts) {
        std::printf("%10llu  %s\n", static_cast<unsigned long long>(count), place.c_str());
    }
    for (const std::string &place : places) {
        const auto found = counts.find(place);
        EXPECT_TRUE(found != counts.end() && found->second > 0) << "never reached: " << place;
    }
}

// Now and then time passes, neighbours become dead and are heard of again.
void let_time_pass(std::uint64_t input)
{
    if (input % 1000 != 0) {
        return;
    }
    fake::advance_ms(input % 5000 == 0 ? 20000 : 500);
    EXPECT_EQ(lb_timer_entry(), 0);
    (void)fake::take_sent();
}

TEST(FuzzFrames, Corpus)
{
    fuzz::world stack;
    const auto run = [&stack](const std::uint8_t *data, std::size_t size) {
        fuzz::run_frames(stack, data, size);
    };
    EXPECT_GT(replay("frames", run), 20);
    EXPECT_NO_THROW(stack.finish());
}

TEST(FuzzCommands, Corpus)
{
    EXPECT_GT(replay("commands", fuzz::run_commands), 50);
}

TEST(FuzzFrames, MutatedFramesReachEveryLayerAndHarmNothing)
{
    fuzz::rng random = seeded();
    const std::vector<fuzz::seed> seeds = fuzz::frame_seeds();
    fuzz::world stack;
    fuzz::frame_feeder feeder(true);
    const std::uint64_t frames = number_from("VELL_FUZZ_FRAMES", 100000);
    for (std::uint64_t i = 0; i < frames; i++) {
        const fuzz::seed &seed = seeds[random() % seeds.size()];
        bytes frame = seed.content;
        fuzz::mutate_frame(random, frame);
        const bool slip = random() % 10 == 0 && frame.size() > 14;
        const auto link = slip ? fake::link::slip : fake::link::ethernet;
        if (slip) {
            frame.erase(frame.begin(), frame.begin() + 14);
        }
        if (i % 2 == 0) {
            fuzz::mend_checksums(frame, link);
        }
        ASSERT_NO_THROW(feeder.feed(frame, link)) << "frame " << i << " made from " << seed.name;
        let_time_pass(i);
        fake::log_clear();
    }
    expect_reached(feeder.places(), fuzz::FRAME_PLACES);
    EXPECT_NO_THROW(stack.require_forwarding());
    EXPECT_NO_THROW(stack.finish());
}

TEST(FuzzCommands, MutatedCommandsGetEveryAnswerAndHarmNothing)
{
    constexpr std::uint64_t PER_WORLD = 200;
    fuzz::rng random = seeded();
    const std::vector<fuzz::seed> seeds = fuzz::command_seeds();
    fuzz::answers answers;
    auto stack = std::make_unique<fuzz::world>();
    const std::uint64_t commands = number_from("VELL_FUZZ_COMMANDS", 10000);
    for (std::uint64_t i = 0; i < commands; i++) {
        const fuzz::seed &seed = seeds[random() % seeds.size()];
        bytes command = seed.content;
        if (random() % 8 != 0) {
            fuzz::mutate_command(random, command);
        }
        std::memcpy(static_cast<void *>(&stack->buffer()), command.data(), command.size());
        ASSERT_NO_THROW(fuzz::run_command(*stack, &answers))
            << "command " << i << " made from " << seed.name;
        let_time_pass(i * 100);
        if (i % PER_WORLD == PER_WORLD - 1) {
            ASSERT_NO_THROW(stack->finish()) << "after command " << i;
            stack.reset(); // there is one stack in a process
            stack = std::make_unique<fuzz::world>();
            ASSERT_NO_THROW(stack->require_forwarding()) << "after command " << i;
        }
    }
    expect_reached(answers, fuzz::COMMAND_ANSWERS);
    EXPECT_NO_THROW(stack->finish());
}

TEST(FuzzConfig, FilesMutatedAreReadOrRefused)
{
    fuzz::rng random = seeded();
    std::vector<bytes> files;
    EXPECT_GT(replay("config",
                     [&](const std::uint8_t *data, std::size_t size) {
                         if (fuzz::run_config(data, size) != "errors") {
                             files.emplace_back(data, data + size);
                         }
                     }),
              8);
    fuzz::answers outcomes;
    const std::uint64_t count = number_from("VELL_FUZZ_FILES", 3000);
    for (std::uint64_t i = 0; i < count; i++) {
        bytes text = files[random() % files.size()];
        fuzz::mutate_text(random, text, files[random() % files.size()]);
        ASSERT_NO_THROW(outcomes[fuzz::run_config(text.data(), text.size())]++) << "file " << i;
    }
    expect_reached(outcomes, {"errors", "warnings", "fine"});
}

TEST(FuzzAnswers, LiesAreFoundOutOrDoNoHarm)
{
    fuzz::rng random = seeded();
    fuzz::answers outcomes;
    const std::uint64_t count = number_from("VELL_FUZZ_LIES", 300);
    for (std::uint64_t i = 0; i < count; i++) {
        bytes lies(8 * (1 + random() % 4));
        for (std::uint8_t &each : lies) {
            each = static_cast<std::uint8_t>(random());
        }
        ASSERT_NO_THROW(outcomes[fuzz::run_answers(lies.data(), lies.size())]++) << "input " << i;
    }
    expect_reached(outcomes, {"malformed", "refused", "applied"});
}

} // namespace
