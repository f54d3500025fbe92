// See mutate.h. No state.
#include "mutate.h"

#include <algorithm>
#include <cctype>

namespace fuzz
{

namespace
{

constexpr std::size_t LARGEST_FRAME = 1600; // a little more than a buffer takes
constexpr std::size_t LARGEST_COMMAND = 2048;
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

// A byte of the EtherType or of what follows it, as far as an ICMPv6 option goes.
void mutate_header(rng &random, bytes &frame)
{
    const std::size_t at = 12 + below(random, 75);
    if (at < frame.size()) {
        frame[at] =
            below(random, 2) == 0 ? interesting(random) : static_cast<std::uint8_t>(random());
    }
}

} // namespace

void mutate_frame(rng &random, bytes &frame)
{
    for (std::size_t left = 1 + below(random, 4); left > 0; left--) {
        if (below(random, 3) == 0) {
            mutate_anywhere(random, frame, LARGEST_FRAME);
        } else {
            mutate_header(random, frame);
        }
    }
    if (frame.size() > LARGEST_FRAME) {
        frame.resize(LARGEST_FRAME);
    }
}

void mutate_command(rng &random, bytes &command)
{
    constexpr std::size_t HEADER = sizeof(lbcmd_bufhdr_t);
    for (std::size_t left = 1 + below(random, 4); left > 0; left--) {
        const std::size_t kind = below(random, 4);
        if (kind == 0 || command.size() < HEADER) {
            mutate_anywhere(random, command, LARGEST_COMMAND);
        } else if (kind == 1) { // keytype, action, sizes
            command[60 + below(random, 10)] = interesting(random);
        } else { // the key
            command[4 + below(random, 56)] =
                below(random, 2) == 0 ? interesting(random) : static_cast<std::uint8_t>(random());
        }
    }
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
