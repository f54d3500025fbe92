// Random numbers of tests, which a seed repeats.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace randoms
{

using rng = std::mt19937_64;

inline std::uint64_t number_from(const char *variable, std::uint64_t otherwise)
{
    const char *text = std::getenv(variable); // NOLINT(concurrency-mt-unsafe)
    return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 0) : otherwise;
}

// The seed that VELL_SEED gives, or another; it is printed.
inline std::uint64_t seed(std::uint64_t otherwise)
{
    const std::uint64_t made = number_from("VELL_SEED", otherwise);
    std::printf("VELL_SEED=%llu\n", static_cast<unsigned long long>(made));
    return made;
}

// A number below `bound`.
inline int below(rng &random, int bound)
{
    return static_cast<int>(random() % static_cast<std::uint64_t>(bound));
}

} // namespace randoms
