// See mutate.h. No state.
#include "mutate.h"

#include <algorithm>
#include <cctype>

namespace fuzz
{

namespace
{

constexpr std::size_t LARGEST_TEXT = 4096;

std::size_t below(rng &random, std::size_t bound)
{
    return bound == 0 ? 0 : static_cast<std::size_t>(random() % bound);
}

std::uint8_t interesting(rng &random)
{
    constexpr std::uint8_t VALUES[] = {0,  1,  2,  4,  5,  6,  7,  8,  10,  15,  16, 17,
                                       20, 43, 44, 47, 58, 59, 60, 64, 127, 128, 255};
    return VALUES[below(random, sizeof(VALUES))];
}

// One place, whatever it means.
void mutate_anywhere(rng &random, bytes &b, std::size_t largest)
{
    if (b.empty()) {
        b.resize(1 + below(random, 64));
        return;
    }
    const std::size_t at = below(random, b.size());
    switch (below(random, 8)) {
    case 0:
    case 1: b[at] = static_cast<std::uint8_t>(b[at] ^ 1U << below(random, 8)); break;
    case 2: b[at] = static_cast<std::uint8_t>(random()); break;
    case 3: b[at] = interesting(random); break;
    case 4: b.resize(at); break;
    case 5: b.resize(std::min(largest, b.size() + below(random, 64)), interesting(random)); break;
    case 6: b.insert(b.begin() + static_cast<long>(at), interesting(random)); break;
    default: b.resize(std::min(largest, b.size() + below(random, largest))); break;
    }
}

// One to four places, most of them between `from` and `to`.
void mutate(rng &random, bytes &b, std::size_t from, std::size_t to, std::size_t largest)
{
    for (std::size_t left = 1 + below(random, 4); left > 0; left--) {
        const std::size_t at = from + below(random, to - from);
        if (at >= b.size() || below(random, 3) == 0) {
            mutate_anywhere(random, b, largest);
        } else {
            b[at] =
                below(random, 2) == 0 ? interesting(random) : static_cast<std::uint8_t>(random());
        }
    }
    b.resize(std::min(b.size(), largest));
}

} // namespace

void mutate_frame(rng &random, bytes &frame)
{
    // The EtherType and what follows it, as far as an ICMPv6 option goes; a little more than a
    // buffer takes.
    mutate(random, frame, 12, 87, 1600);
}

void mutate_command(rng &random, bytes &command)
{
    mutate(random, command, offsetof(lbcmd_bufhdr_t, key), sizeof(lbcmd_bufhdr_t), 2048);
}

void mutate_text(rng &random, bytes &text, const bytes &other)
{
    static const std::string marks = ":-[]{},&*!'\"\n\t #0%\xFF";
    for (std::size_t left = 1 + below(random, 2); left > 0 && !text.empty(); left--) {
        const auto place = text.begin() + static_cast<long>(below(random, text.size()));
        const std::size_t kind = below(random, 8);
        if (kind == 0) {
            *place = static_cast<std::uint8_t>(marks[below(random, marks.size())]);
        } else if (kind == 1) {
            text.erase(place, place + std::min<long>(text.end() - place, 1 + random() % 40));
        } else if (kind == 2) {
            mutate_anywhere(random, text, LARGEST_TEXT);
        } else if (kind == 3) {
            const auto from = other.begin() + static_cast<long>(below(random, other.size()));
            const bytes piece(from, from + std::min<long>(other.end() - from, 1 + random() % 60));
            text.insert(place, piece.begin(), piece.end());
        } else if (const auto digit = std::find_if(place, text.end(), ::isdigit);
                   digit != text.end()) {
            *digit = static_cast<std::uint8_t>('0' + random() % 10); // often it can still be read
        }
    }
}

} // namespace fuzz
