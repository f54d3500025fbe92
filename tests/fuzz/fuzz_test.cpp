// The fuzz targets as ordinary tests: every input of the corpora, and runs of mutations of them
// that say what became of these. A run fails if an end was not reached at all: it would test
// nothing there.
//
// VELL_FUZZ_FRAMES, VELL_FUZZ_COMMANDS, VELL_FUZZ_FILES and VELL_FUZZ_LIES say how many (100,000,
// 10,000, 3,000 and 300 without them), VELL_SEED which.
#include "lb_entry.h"
#include "lb_words.h"

#include <cstdio>
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

namespace
{

using fuzz::bytes;

// Runs every file of a corpus; what they held, by file name.
template <class Run> std::map<std::string, bytes> replay(const char *target, Run run)
{
    std::map<std::string, bytes> inputs;
    for (const auto &entry :
         std::filesystem::directory_iterator(std::filesystem::path(VELL_CORPUS) / target)) {
        std::ifstream in(entry.path(), std::ios::binary);
        bytes &input = inputs[entry.path().filename()];
        input.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        SCOPED_TRACE(entry.path().string());
        EXPECT_NO_THROW(run(input.data(), input.size()));
    }
    return inputs;
}

struct seed {
    std::string name;
    bytes content;
};

// The first record of each input, unless its control byte says that it is of another kind.
std::vector<seed> first_records(const std::map<std::string, bytes> &inputs, int otherkinds)
{
    std::vector<seed> seeds;
    for (const auto &[name, input] : inputs) {
        const std::uint8_t *data = input.data();
        std::size_t size = input.size();
        fuzz::record first;
        if (fuzz::take_record(data, size, first) && (first.control & otherkinds) == 0) {
            seeds.push_back({name, first.content});
        }
    }
    return seeds;
}

// Prints what was reached, which must be of at least so many kinds.
void expect_reached(const fuzz::reached &counts, std::size_t kinds)
{
    std::size_t reached = 0;
    for (const auto &[end, count] : counts) {
        std::printf("%10llu  %s\n", static_cast<unsigned long long>(count), end.c_str());
        reached += count != 0 ? 1 : 0;
    }
    EXPECT_GE(reached, kinds);
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

TEST(FuzzFrames, CorpusAndMutationsReachEveryEndAndHarmNothing)
{
    constexpr std::size_t FRAME_ENDS = 20;
    fuzz::rng random(randoms::seed(1));
    fuzz::world stack;
    const auto corpus = replay("frames", [&stack](const std::uint8_t *data, std::size_t size) {
        fuzz::run_frames(stack, data, size);
    });
    const std::vector<seed> seeds = first_records(corpus, 3);
    ASSERT_GT(seeds.size(), 100U);
    fuzz::frame_feeder feeder;
    lb_poke(lbexecutor->setable.log_mask, ~0ULL);
    const std::uint64_t frames = randoms::number_from("VELL_FUZZ_FRAMES", 100000);
    for (std::uint64_t i = 0; i < frames; i++) {
        const seed &from = seeds[random() % seeds.size()];
        bytes frame = from.content;
        fuzz::mutate_frame(random, frame);
        const bool slip = random() % 10 == 0 && frame.size() > 14;
        const auto link = slip ? fake::link::slip : fake::link::ethernet;
        if (slip) {
            frame.erase(frame.begin(), frame.begin() + 14);
        }
        if (i % 2 == 0) {
            fuzz::mend_checksums(frame, link);
        }
        ASSERT_NO_THROW(feeder.feed(frame, link)) << "frame " << i << " made from " << from.name;
        let_time_pass(i);
    }
    expect_reached(feeder.places(), FRAME_ENDS);
    EXPECT_NO_THROW(stack.require_forwarding());
    EXPECT_NO_THROW(stack.finish());
}

TEST(FuzzCommands, CorpusAndMutationsGetEveryAnswerAndHarmNothing)
{
    constexpr std::uint64_t PER_WORLD = 200;
    constexpr std::size_t ANSWERS = 17; // ADD five, RM and GET and SET four or three, others two
    fuzz::rng random(randoms::seed(1));
    const std::vector<seed> seeds = first_records(replay("commands", fuzz::run_commands), 0);
    ASSERT_GT(seeds.size(), 50U);
    fuzz::reached answers;
    auto stack = std::make_unique<fuzz::world>();
    const std::uint64_t commands = randoms::number_from("VELL_FUZZ_COMMANDS", 10000);
    for (std::uint64_t i = 0; i < commands; i++) {
        const seed &from = seeds[random() % seeds.size()];
        bytes command = from.content;
        if (random() % 8 != 0) {
            fuzz::mutate_command(random, command);
        }
        std::memcpy(static_cast<void *>(&stack->buffer()), command.data(), command.size());
        ASSERT_NO_THROW(answers[fuzz::run_command(*stack)]++)
            << "command " << i << " made from " << from.name;
        let_time_pass(i * 100);
        if (i % PER_WORLD == PER_WORLD - 1) {
            ASSERT_NO_THROW(stack->finish()) << "after command " << i;
            stack.reset(); // there is one stack in a process
            stack = std::make_unique<fuzz::world>();
            ASSERT_NO_THROW(stack->require_forwarding()) << "after command " << i;
        }
    }
    expect_reached(answers, ANSWERS);
    EXPECT_NO_THROW(stack->finish());
}

TEST(FuzzConfig, FilesMutatedAreReadOrRefused)
{
    fuzz::rng random(randoms::seed(1));
    std::vector<bytes> files;
    (void)replay("config", [&](const std::uint8_t *data, std::size_t size) {
        if (fuzz::run_config(data, size) != "errors") {
            files.emplace_back(data, data + size);
        }
    });
    ASSERT_GT(files.size(), 3U);
    fuzz::reached outcomes;
    const std::uint64_t count = randoms::number_from("VELL_FUZZ_FILES", 3000);
    for (std::uint64_t i = 0; i < count; i++) {
        bytes text = files[random() % files.size()];
        fuzz::mutate_text(random, text, files[random() % files.size()]);
        ASSERT_NO_THROW(outcomes[fuzz::run_config(text.data(), text.size())]++) << "file " << i;
    }
    expect_reached(outcomes, 3); // errors, warnings, fine
}

TEST(FuzzAnswers, LiesAreFoundOutOrDoNoHarm)
{
    fuzz::rng random(randoms::seed(1));
    fuzz::reached outcomes;
    const std::uint64_t count = randoms::number_from("VELL_FUZZ_LIES", 300);
    for (std::uint64_t i = 0; i < count; i++) {
        bytes lies(8 * (1 + random() % 4));
        for (std::uint8_t &each : lies) {
            each = static_cast<std::uint8_t>(random());
        }
        ASSERT_NO_THROW(outcomes[fuzz::run_answers(lies.data(), lies.size())]++) << "input " << i;
    }
    expect_reached(outcomes, 3); // malformed, refused, applied
}

} // namespace
