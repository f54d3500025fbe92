// Frames by way of a packet socket: slower than XDP, but every kernel and interface takes them.
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>

#include "pump.h"

namespace pump
{
namespace
{

[[noreturn]] void fail(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

class packet_engine_t final : public engine_t
{
  public:
    explicit packet_engine_t(const stream_t &stream)
        : stream_(stream), frames_(BATCH, build_frame(stream)),
          fd_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0))
    {
        if (fd_ < 0) {
            fail("packet socket");
        }
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = static_cast<int>(if_nametoindex(stream.dev.c_str()));
        const int on = 1;
        if (to.sll_ifindex == 0 || bind(fd_, reinterpret_cast<sockaddr *>(&to), sizeof(to)) != 0 ||
            setsockopt(fd_, SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof(on)) != 0) {
            const int why = errno;
            close(fd_);
            throw std::system_error(why, std::generic_category(), "interface " + stream.dev);
        }
        for (std::size_t i = 0; i < BATCH; i++) {
            pieces_[i] = {frames_[i].data(), frames_[i].size()};
            messages_[i].msg_hdr.msg_iov = &pieces_[i];
            messages_[i].msg_hdr.msg_iovlen = 1;
        }
    }
    ~packet_engine_t() override { close(fd_); }
    packet_engine_t(const packet_engine_t &) = delete;
    packet_engine_t &operator=(const packet_engine_t &) = delete;

    const char *name() const override { return "packet"; }

    std::uint64_t send(std::uint32_t count) override
    {
        std::uint64_t sent = 0;
        while (sent < count) {
            const auto batch = static_cast<unsigned>(std::min<std::uint64_t>(BATCH, count - sent));
            for (unsigned i = 0; i < batch; i++) {
                const auto port = static_cast<std::uint16_t>(stream_.sport_base +
                                                             (random_() & (stream_.flows - 1U)));
                const std::uint16_t wire = htons(port);
                std::memcpy(&frames_[i][SPORT_OFFSET], &wire, sizeof(wire));
            }
            const int rc = sendmmsg(fd_, messages_.data(), batch, 0);
            if (rc < 0 && errno == EINTR) {
                break;
            }
            if (rc < 0 && errno != ENOBUFS) {
                fail("sendmmsg");
            }
            sent += static_cast<std::uint64_t>(std::max(rc, 0));
        }
        return sent;
    }

  private:
    static constexpr std::size_t BATCH = 64;
    stream_t stream_;
    std::vector<std::vector<std::uint8_t>> frames_;
    std::array<iovec, BATCH> pieces_{};
    std::array<mmsghdr, BATCH> messages_{};
    std::minstd_rand random_{1};
    int fd_;
};

} // namespace

std::unique_ptr<engine_t> make_packet_engine(const stream_t &stream)
{
    return std::make_unique<packet_engine_t>(stream);
}

} // namespace pump
