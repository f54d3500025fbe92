// The frame generator of the benchmark lab: what its parts share. One thread, no locks.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace pump
{

// Every frame is a UDP datagram, or a TCP opening, of one client to one address and port. Only the
// source port varies, at random within a power of two of ports.
struct stream_t {
    std::string dev;
    std::array<std::uint8_t, 6> src_mac{};
    std::array<std::uint8_t, 6> dst_mac{};
    std::array<std::uint8_t, 4> src_ip{};
    std::array<std::uint8_t, 4> dst_ip{};
    std::uint16_t sport_base = 0;
    std::uint16_t flows = 1; // a power of two
    std::uint16_t dport = 0;
    std::uint16_t size = 60; // bytes of the frame, without the FCS
    bool tcp = false;
};

constexpr std::size_t HEADERS = 14 + 20 + 20;
constexpr std::size_t SPORT_OFFSET = 14 + 20;

// The frame with source port `sport_base`: IPv4 header summed, the other checksum 0.
std::vector<std::uint8_t> build_frame(const stream_t &stream);

// A way to put frames on the wire. send() blocks until `count` have left or a signal came, and
// returns how many left. Throws std::system_error where the kernel refuses.
class engine_t
{
  public:
    virtual ~engine_t() = default;
    virtual const char *name() const = 0;
    virtual std::uint64_t send(std::uint32_t count) = 0;
};

// Frames made inside the kernel by a test run of an XDP program: several million a second. Needs
// GRO or an XDP program on both ends of a veth pair.
std::unique_ptr<engine_t> make_xdp_engine(const stream_t &stream);
// A packet socket: about half a million a second, on any interface.
std::unique_ptr<engine_t> make_packet_engine(const stream_t &stream);

// Takes every IPv4 frame that an interface is about to send, and counts it; other frames go their
// way. It costs the sender less than any receiving end would. It stays until the interface goes.
class sink_t
{
  public:
    virtual ~sink_t() = default;
    virtual std::uint64_t taken() const = 0;
};
std::unique_ptr<sink_t> attach_sink(const std::string &dev);

} // namespace pump
