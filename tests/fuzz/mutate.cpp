// See mutate.h. No state.
#include "mutate.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace fuzz
{

namespace
{

constexpr std::size_t LARGEST_FRAME = 1600; // a little more than a buffer takes
constexpr std::size_t LARGEST_COMMAND = 2048;

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

// A field within the link, network or transport header.
void mutate_header(rng &random, bytes &frame)
{
    // EtherType; version and length; total length; fragment offset; TTL; protocol; checksum; the
    // last bytes of the addresses; the destination port. Or in ARP: types, lengths, operation.
    constexpr std::size_t FIELDS[] = {12, 13, 14, 14, 15, 16, 17, 18, 19, 20,
                                      21, 22, 23, 24, 25, 29, 33, 36, 37};
    // In IPv6: EtherType; version; payload length; next header; hop limit; the last bytes of the
    // addresses; then, with and without an extension header of 8 bytes: its next header, length and
    // fragment offset, ports, or type, code and checksum; a target, and an option.
    constexpr std::size_t FIELDS6[] = {12, 13, 14, 18, 19, 20, 20, 21, 37, 53, 54, 54, 55,
                                       56, 57, 58, 62, 63, 64, 65, 66, 68, 77, 78, 80, 86};
    const bool isv6 = frame.size() > 13 && frame[12] == 0x86 && frame[13] == 0xDD;
    const std::size_t at = isv6 ? FIELDS6[below(random, std::size(FIELDS6))]
                                : FIELDS[below(random, std::size(FIELDS))];
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

} // namespace fuzz
