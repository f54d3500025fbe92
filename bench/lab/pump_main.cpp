// vell_pump: offers frames at a steady rate to an interface, or counts and takes away what an
// interface sends. The lab benchmark runs both ends with it. The sender says what it sent as one
// line of JSON; what it did not send in time it does not try to catch up. The sink answers every
// line of its input with its count. One thread.
#include <linux/if_ether.h>
#include <netinet/in.h>
#include <sys/time.h>
#include <system_error>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "pump.h"

namespace pump
{

std::vector<std::uint8_t> build_frame(const stream_t &stream)
{
    std::vector<std::uint8_t> frame(std::max<std::size_t>(stream.size, HEADERS));
    auto put16 = [&](std::size_t at, std::size_t value) {
        frame[at] = static_cast<std::uint8_t>(value >> 8);
        frame[at + 1] = static_cast<std::uint8_t>(value);
    };
    std::ranges::copy(stream.dst_mac, frame.begin());
    std::ranges::copy(stream.src_mac, frame.begin() + 6);
    put16(12, ETH_P_IP);
    const std::size_t ip = 14;
    frame[ip] = 0x45;
    put16(ip + 2, frame.size() - ip);
    frame[ip + 8] = 64;
    frame[ip + 9] = stream.tcp ? IPPROTO_TCP : IPPROTO_UDP;
    std::ranges::copy(stream.src_ip, frame.begin() + ip + 12);
    std::ranges::copy(stream.dst_ip, frame.begin() + ip + 16);
    std::uint32_t sum = 0;
    for (std::size_t at = ip; at < ip + 20; at += 2) {
        sum += static_cast<std::uint32_t>(frame[at]) << 8 | frame[at + 1];
    }
    sum = (sum & 0xffff) + (sum >> 16);
    sum = (sum & 0xffff) + (sum >> 16);
    put16(ip + 10, ~sum & 0xffff);
    put16(SPORT_OFFSET, stream.sport_base);
    put16(SPORT_OFFSET + 2, stream.dport);
    if (stream.tcp) {
        frame[SPORT_OFFSET + 12] = 0x50; // no options
        frame[SPORT_OFFSET + 13] = 0x02; // SYN
    } else {
        put16(SPORT_OFFSET + 4, frame.size() - SPORT_OFFSET);
    }
    return frame;
}

} // namespace pump

namespace
{

using pump::engine_t;
using steady = std::chrono::steady_clock;

template <std::size_t N>
std::array<std::uint8_t, N> parse_bytes(const std::string &text, char separator, int base)
{
    std::array<std::uint8_t, N> bytes{};
    std::istringstream in(text);
    std::string part;
    std::size_t got = 0;
    while (std::getline(in, part, separator)) {
        std::size_t used = 0;
        const unsigned long value = part.empty() ? 256 : std::stoul(part, &used, base);
        if (got == N || value > 255 || used != part.size()) {
            throw std::invalid_argument(text);
        }
        bytes[got++] = static_cast<std::uint8_t>(value);
    }
    if (got != N) {
        throw std::invalid_argument(text);
    }
    return bytes;
}

// Frames that an interface has sent, from the namespace that this process is in.
std::uint64_t tx_packets(const std::string &dev)
{
    std::ifstream in("/proc/self/net/dev");
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t colon = line.find(':');
        const std::size_t begin = line.find_first_not_of(' ');
        if (colon == std::string::npos || line.substr(begin, colon - begin) != dev) {
            continue;
        }
        std::istringstream fields(line.substr(colon + 1));
        std::uint64_t value = 0;
        for (int i = 0; i < 10;
             i++) { // bytes packets errs drop ... of 8 receive fields, then bytes
            fields >> value;
        }
        return value;
    }
    return 0;
}

// XDP for as many as go, where the kernel and the interface take it; a redirect that the interface
// refuses is silent, so its counter is asked. A packet socket for a steady rate: it sends little
// bursts.
std::unique_ptr<engine_t> choose_engine(const std::string &wanted, const pump::stream_t &stream,
                                        double rate)
{
    if (wanted == "packet" || (wanted == "auto" && rate > 0)) {
        return pump::make_packet_engine(stream);
    }
    try {
        auto engine = pump::make_xdp_engine(stream);
        const std::uint64_t before = tx_packets(stream.dev);
        const std::uint64_t sent = engine->send(64);
        if (tx_packets(stream.dev) >= before + sent / 2) {
            return engine;
        }
        throw std::system_error(EOPNOTSUPP, std::generic_category(),
                                stream.dev + " takes no redirected frames (set GRO on at both ends "
                                             "of the pair once they are up)");
    } catch (const std::system_error &e) {
        if (wanted == "xdp") {
            throw;
        }
        std::fprintf(stderr, "vell_pump: %s; using a packet socket\n", e.what());
        return pump::make_packet_engine(stream);
    }
}

// A timer interrupts whatever call is sending, again and again, so that none is missed between two
// calls.
void interrupt_after(double seconds)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    const auto usec = static_cast<suseconds_t>(seconds * 1e6);
    const itimerval timer = {.it_interval = {0, 10000},
                             .it_value = {usec / 1000000, usec % 1000000}};
    if (sigaction(SIGALRM, &action, nullptr) != 0 || setitimer(ITIMER_REAL, &timer, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "setting a timer");
    }
}

struct pace_t {
    double rate = 0; // frames a second, 0 for as many as go
    double seconds = 1;
};

struct result_t {
    std::uint64_t sent = 0;
    double seconds = 0;
    std::uint64_t late = 0; // times that it fell behind by more than 10 ms and let frames go
};

result_t run_flat_out(engine_t &engine, double seconds)
{
    constexpr std::uint32_t chunk = 50'000'000;
    const auto begin = steady::now();
    const auto end = begin + std::chrono::duration<double>(seconds);
    result_t result;
    interrupt_after(seconds);
    while (steady::now() < end) {
        result.sent += engine.send(chunk);
    }
    result.seconds = std::chrono::duration<double>(steady::now() - begin).count();
    return result;
}

result_t run_paced(engine_t &engine, const pace_t &pace)
{
    constexpr double tick_s = 0.0005;
    const auto chunk = static_cast<std::uint32_t>(std::max(pace.rate * tick_s, 1.0));
    const auto begin = steady::now();
    const auto end = begin + std::chrono::duration<double>(pace.seconds);
    const auto step = std::chrono::duration_cast<steady::duration>(
        std::chrono::duration<double>(chunk / pace.rate));
    result_t result;
    for (auto due = begin; due < end; due += step) {
        const auto now = steady::now();
        if (now > due + std::chrono::milliseconds(10)) {
            due = now;
            result.late++;
        }
        std::this_thread::sleep_until(due);
        result.sent += engine.send(chunk);
    }
    result.seconds = std::chrono::duration<double>(steady::now() - begin).count();
    return result;
}

} // namespace

int main(int argc, char **argv)
try {
    CLI::App app{
        "Offers UDP or TCP frames to an interface at a steady rate, or counts and takes away "
        "what an interface sends."};
    app.require_subcommand(1);
    pump::stream_t stream;
    pace_t pace;
    std::string src_mac, dst_mac, src_ip, dst_ip, engine = "auto", sink_dev;
    auto *send = app.add_subcommand("send", "send frames and print what was sent as JSON");
    send->add_option("--dev", stream.dev, "interface to send on")->required();
    send->add_option("--src-mac", src_mac, "source MAC")->required();
    send->add_option("--dst-mac", dst_mac, "destination MAC")->required();
    send->add_option("--src-ip", src_ip, "source address")->required();
    send->add_option("--dst-ip", dst_ip, "destination address")->required();
    send->add_option("--dport", stream.dport, "destination port")->required();
    send->add_option("--sport", stream.sport_base, "first source port")->default_val(16384);
    send->add_option("--flows", stream.flows, "number of source ports, a power of two")
        ->default_val(4096);
    send->add_option("--size", stream.size, "bytes a frame")
        ->default_val(60)
        ->check(CLI::Range(60, 1514));
    send->add_flag("--tcp", stream.tcp, "TCP openings, without checksum, instead of UDP");
    send->add_option("--rate", pace.rate, "frames a second; 0: as many as go")->default_val(0);
    send->add_option("--seconds", pace.seconds, "how long")
        ->default_val(1)
        ->check(CLI::Range(0.01, 60.0));
    send->add_option("--engine", engine, "auto, xdp or packet")
        ->check(CLI::IsMember({"auto", "xdp", "packet"}));
    auto *sink = app.add_subcommand("sink", "count and drop IPv4 frames");
    sink->add_option("--dev", sink_dev, "interface")->required();
    CLI11_PARSE(app, argc, argv);

    if (sink->parsed()) {
        const auto end = pump::attach_sink(sink_dev);
        std::puts("0");
        std::fflush(stdout);
        for (int c = std::getchar(); c != EOF; c = std::getchar()) {
            if (c == '\n') {
                std::printf("%llu\n", static_cast<unsigned long long>(end->taken()));
                std::fflush(stdout);
            }
        }
        return 0;
    }
    if (stream.flows == 0 || (stream.flows & (stream.flows - 1)) != 0 ||
        stream.sport_base + stream.flows > 65536) {
        std::fprintf(stderr, "vell_pump: --flows is a power of two and fits above --sport\n");
        return 2;
    }
    stream.src_mac = parse_bytes<6>(src_mac, ':', 16);
    stream.dst_mac = parse_bytes<6>(dst_mac, ':', 16);
    stream.src_ip = parse_bytes<4>(src_ip, '.', 10);
    stream.dst_ip = parse_bytes<4>(dst_ip, '.', 10);
    const auto way = choose_engine(engine, stream, pace.rate);
    const result_t result =
        pace.rate > 0 ? run_paced(*way, pace) : run_flat_out(*way, pace.seconds);
    const nlohmann::json said = {{"engine", way->name()},
                                 {"sent", result.sent},
                                 {"seconds", result.seconds},
                                 {"late", result.late}};
    std::puts(said.dump().c_str());
    return 0;
} catch (const std::invalid_argument &e) {
    std::fprintf(stderr, "vell_pump: not an address: %s\n", e.what());
    return 2;
} catch (const std::exception &e) {
    std::fprintf(stderr, "vell_pump: %s\n", e.what());
    return 1;
}
