// The stack as the fuzz targets and the mutation runs see it: started with one fixed configuration,
// checked after each input, torn down with a proof that nothing is left. It needs no test
// framework: what is wrong is thrown, which is a failed test there and a crash for libFuzzer.
#pragma once

#include "stack_client.h"

namespace fuzz
{

using stack::bytes;
using stack::bytes_of;

// The stack did something that it must never do.
struct fault : std::runtime_error {
    using std::runtime_error::runtime_error;
};

inline void require(bool good, const char *what)
{
    if (!good) {
        throw fault(what);
    }
}

// Of the fixed configuration, which world.cpp has.
constexpr const char *CLUSTER = "10.0.0.100";
constexpr const char *RETURN = "10.0.0.200";
constexpr const char *CLUSTER6 = "2001:db8::100";
constexpr const char *RETURN6 = "2001:db8::200";
constexpr lb_u32_t MTU = 600;

// One record of an input: a control byte, a length of two bytes (high first) and as many bytes.
struct record {
    std::uint8_t control;
    std::size_t length; // as it claims
    bytes content;      // as far as there are any
};
constexpr std::size_t RECORD = 3; // in front of the content

// Takes the first record off the input; false if it has none.
bool take_record(const std::uint8_t *&data, std::size_t &size, record &out);

class world : public stack::client
{
  public:
    // Starts the stack on a fresh host, with the fixed configuration.
    world();
    // Stops it without a proof, as after a failure.
    ~world();
    world(const world &) = delete;
    world &operator=(const world &) = delete;

    // Removes everything by commands, lets it be reaped, stops the stack and requires that nothing
    // is left and that the host was never misused.
    void finish();
    // The neighbours of the configuration tell their hardware addresses, and one frame of each IP
    // version is forwarded with nothing changed that need not be.
    void require_forwarding();

    // Sends the command that stands in buffer(); the answer is the answer code.
    int execute();

    // All keys with their addable and settable blocks, in list order. Without the ports' cross-port
    // word, which a refused partner may change.
    static bytes objects();
    static void require_unharmed(); // nothing that the host has recorded as a fault

  private:
    void configure();
};

} // namespace fuzz
