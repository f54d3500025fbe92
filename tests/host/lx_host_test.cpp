// The Linux host by itself: what its worker makes of each kind of frame, who owns a receive buffer
// when, where raw sends go, and how a log line is put together.
//
// The socket calls are this file's own (they take the place of the C library's), so that frames,
// addresses and errors come from a table; the entries of the stack note what they are handed and
// answer what the test wants. Needs no privileges.
#include "lb_entry.h"
#include "lb_grace.h"
#include "lx_host.h"
#include "lx_pktbuf.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "os.h"
#include "prot/ether.h"

// --- What main() and the stack would provide -----------------------------------------------------

std::atomic<lb_s32_t> stopping{0};
int psfd = -1;
int rawfd_ipip = 1004;
int rawfd_gre = 1047;
int rawfd_icmp = 1001;
int rawfd_icmp6 = 1058;
int rawfd_nat = 1255;
sockaddr_in rawsin = {AF_INET, 0, {0}, {}};
sockaddr_in6 rawsin6 = {AF_INET6, 0, 0, {}, 0};

namespace
{

struct frame_t {
    int pkttype = PACKET_HOST;
    int hatype = ARPHRD_ETHER;
    int type = LBETH_TYPE_IPV4;
    int len = 60;
    bool vlan = false;
    bool cut = false;
    int error = 0; // the receive fails with this
};

std::deque<frame_t> frames;
std::string entered;         // "name eth proto length" of each, offsets in the buffer; -1 for none
std::vector<void *> buffers; // of each
std::function<int(lx_pktbuf_t *)> answer;
int inside = 0;

int note(const char *name, void *eth, void *proto, int len, void *opaque)
{
    EXPECT_EQ(inside, 1) << "the stack is entered by a thread that has announced itself";
    auto *pkt = static_cast<lx_pktbuf_t *>(opaque);
    const long at = eth == nullptr ? -1 : static_cast<lb_u8_t *>(eth) - pkt->buf;
    entered += std::string(name) + " " + std::to_string(at) + " " +
               std::to_string(static_cast<lb_u8_t *>(proto) - pkt->buf) + " " + std::to_string(len);
    buffers.push_back(opaque);
    return answer ? answer(pkt) : static_cast<int>(LB_PACKETRC_CONSUMED);
}

struct sent_t {
    int fd;
    std::string bytes;
    std::string to;
    bool operator==(const sent_t &) const = default;
};
std::vector<sent_t> sent;

} // namespace

void lb_grace_enter()
{
    inside++;
}
void lb_grace_leave()
{
    inside--;
}
int lbarp_entry(void *ethh, void *varp, int len, lb_osopaque_t osopaque)
{
    return note("arp", ethh, varp, len, osopaque);
}
int lbipv4_entry(void *ethh, void *iph, int len, lb_osopaque_t osopaque)
{
    return note("ipv4", ethh, iph, len, osopaque);
}
int lbipv6_entry(void *ethh, void *iph, int len, lb_osopaque_t osopaque)
{
    return note("ipv6", ethh, iph, len, osopaque);
}

// Hands out the next frame of the script; after the last one the process stops.
extern "C" ssize_t recvmsg(int /*fd*/, msghdr *msg, int /*flags*/)
{
    EXPECT_EQ(inside, 0) << "a thread that waits for a frame is outside the stack";
    EXPECT_GE(msg->msg_namelen, sizeof(sockaddr_ll)) << "room for the whole address";
    if (frames.empty()) {
        stopping = 1;
        errno = EINTR;
        return -1;
    }
    const frame_t frame = frames.front();
    frames.pop_front();
    if (frame.error != 0) {
        errno = frame.error;
        return -1;
    }
    auto *sll = static_cast<sockaddr_ll *>(msg->msg_name);
    *sll = {};
    sll->sll_hatype = static_cast<unsigned short>(frame.hatype);
    sll->sll_pkttype = static_cast<unsigned char>(frame.pkttype);
    msg->msg_namelen = 0; // as little as a kernel could say
    auto *bytes = static_cast<lb_u8_t *>(msg->msg_iov[0].iov_base);
    std::memset(bytes, 0, 60);
    bytes[12] = static_cast<lb_u8_t>(frame.type >> 8);
    bytes[13] = static_cast<lb_u8_t>(frame.type);
    tpacket_auxdata aux = {};
    aux.tp_status = frame.vlan ? TP_STATUS_VLAN_VALID : 0;
    cmsghdr *c = CMSG_FIRSTHDR(msg);
    c->cmsg_level = SOL_PACKET;
    c->cmsg_type = PACKET_AUXDATA;
    c->cmsg_len = CMSG_LEN(sizeof(aux));
    std::memcpy(CMSG_DATA(c), &aux, sizeof(aux));
    msg->msg_flags = frame.cut ? MSG_TRUNC : 0;
    return frame.len;
}

extern "C" ssize_t sendto(int fd, const void *data, size_t len, int /*flags*/, const sockaddr *to,
                          socklen_t /*tolen*/)
{
    sent.push_back({fd, std::string(static_cast<const char *>(data), len), ""});
    if (to->sa_family == AF_INET) {
        const auto *in = reinterpret_cast<const sockaddr_in *>(to);
        sent.back().to = std::string(reinterpret_cast<const char *>(&in->sin_addr), 4);
    } else if (to->sa_family == AF_PACKET) {
        const auto *ll = reinterpret_cast<const sockaddr_ll *>(to);
        sent.back().to = std::to_string(ll->sll_ifindex) + "/" +
                         std::string(reinterpret_cast<const char *>(ll->sll_addr), ll->sll_halen);
    }
    return static_cast<ssize_t>(len);
}

namespace
{

// --- Reception -----------------------------------------------------------------------------------

class lx_host : public testing::Test
{
  protected:
    void SetUp() override
    {
        stopping = 0;
        argforeground = 1;
        sent.clear();
        answer = nullptr;
        lbexeos_logmask = &mask_;
    }
    // Runs a worker over the frames, from the beginning; what it printed.
    static std::string run(std::deque<frame_t> script)
    {
        frames = std::move(script);
        entered.clear();
        buffers.clear();
        testing::internal::CaptureStdout();
        lx_recv(7);
        return testing::internal::GetCapturedStdout();
    }
    lb_u64_t mask_ = LB_LOG_HOST;
};

struct row_t {
    const char *name;
    frame_t frame;
    const char *entered; // "name eth proto len", or none
    const char *said;
};

const row_t rows[] = {
    {"ipv4", {}, "ipv4 32 46 46", "ipv4_entry returned 1\n"},
    {"ipv6", {.type = 0x86DD}, "ipv6 32 46 46", " ipv6_entry returned 1\n"},
    {"arp", {.type = 0x0806}, "arp 32 46 46", "lbarp_entry returned 1\n"},
    {"other host's", {.pkttype = PACKET_OTHERHOST}, "ipv4 32 46 46", "hatype 1 (1)\n"},
    {"other type", {.type = 0x88B5}, "", "ethertype 34997 invalid\n"},
    {"tag in the frame", {.type = 0x8100}, "", "ethertype 33024 invalid\n"},
    {"tag taken out by the kernel", {.vlan = true}, "", "ethertype 33024 invalid\n"},
    {"type word but no more", {.len = 14}, "ipv4 32 46 0", "ipv4_entry returned 1\n"},
    {"half a type word", {.len = 13}, "", "hatype 1 (1)\n"},
    {"slip",
     {.hatype = ARPHRD_SLIP, .len = 40},
     "ipv4 -1 32 40",
     "link/slip ipv4_entry returned 1\n"},
    {"other link", {.hatype = 512}, "", "link layer protocol 512 (200) dropped\n"},
    {"longest", {.len = 1568}, "ipv4 32 46 1554", "ipv4_entry returned 1\n"},
};

TEST_F(lx_host, each_kind_of_frame_goes_its_way)
{
    for (const row_t &row : rows) {
        SCOPED_TRACE(row.name);
        stopping = 0;
        const std::string said = run({row.frame});
        EXPECT_EQ(entered, row.entered);
        EXPECT_NE(said.find(row.said), std::string::npos) << said;
    }
}

TEST_F(lx_host, failed_receive_is_not_taken_for_the_frame_before_and_nothing_comes_once_it_stops)
{
    const std::string said = run({{}, {.error = ENOMEM}, {}});
    EXPECT_EQ(buffers.size(), 2U);
    EXPECT_NE(said.find("recv failed, errno=12\n"), std::string::npos);
    EXPECT_NE(said.find("link layer protocol 0 (0) dropped\n"), std::string::npos);
    EXPECT_EQ(run({{}}), ""); // it has stopped
    EXPECT_EQ(entered, "");
    stopping = 0;
    EXPECT_EQ(run({}), ""); // the interrupted receive
}

// --- Who owns a buffer (leaks and double frees are AddressSanitizer's to see) --------------------

TEST_F(lx_host, whoever_comes_second_has_the_buffer)
{
    // The stack publishes the packet, another thread is done with it before the entry has returned:
    // the worker comes second, and has the buffer back.
    const struct {
        const char *name;
        bool marked, released;
        int rc;
        bool back;
    } table[] = {
        {"freed by an entry that says so", false, true, LB_PACKETRC_CONSUMED, true},
        {"left to the host", false, false, LB_PACKETRC_INTACT, true},
        {"held unmarked", false, false, LB_PACKETRC_HELD, false},
        {"marked and kept", true, false, LB_PACKETRC_HELD, false},
        {"marked and released", true, true, LB_PACKETRC_HELD, true},
        {"released unmarked", false, true, LB_PACKETRC_HELD, true},
        {"marked, then dropped after all", true, true, LB_PACKETRC_CONSUMED, true},
        {"marked and kept, whatever is said", true, false, LB_PACKETRC_CONSUMED, false},
    };
    for (const auto &each : table) {
        SCOPED_TRACE(each.name);
        stopping = 0;
        answer = [&each](lx_pktbuf_t *pkt) -> int {
            if (buffers.size() > 1) {
                return LB_PACKETRC_CONSUMED;
            }
            if (each.marked) {
                os_packethold(pkt);
            }
            if (each.released) {
                std::thread(os_packetfree, pkt).join();
            }
            return each.rc;
        };
        run({{}, {}});
        ASSERT_EQ(buffers.size(), 2U);
        EXPECT_EQ(buffers[0] == buffers[1], each.back);
        if (!each.back) {
            os_packetfree(buffers[0]);
        }
    }
    os_packethold(nullptr);
    os_packetfree(nullptr);
}

TEST_F(lx_host, headroom)
{
    lx_pktbuf_t pkt = {};
    void *opaque = &pkt;
    void *eth = nullptr;
    void *proto = pkt.buf + 32;
    EXPECT_EQ(os_headroom(14, &eth, &proto, &opaque), 0);
    EXPECT_EQ(eth, pkt.buf + 18);
    EXPECT_EQ(os_headroom(14, &eth, &proto, &opaque), 1) << "there is one already";
    eth = nullptr;
    EXPECT_EQ(os_headroom(33, &eth, &proto, &opaque), 1) << "one byte too many";
    EXPECT_EQ(os_headroom(32, &eth, &proto, &opaque), 0);
    eth = opaque = nullptr;
    EXPECT_EQ(os_headroom(14, &eth, &proto, &opaque), 1) << "a packet that was not received";
}

// --- Transmission --------------------------------------------------------------------------------

TEST_F(lx_host, raw_sends_find_their_socket_and_remember_the_destination)
{
    char payload[] = "payload";
    unsigned char one[] = {10, 0, 0, 1};
    unsigned char two[] = {10, 0, 0, 2};
    os_xmitraw(payload, 7, nullptr, one, 4, nullptr);
    os_xmitraw(payload, 6, nullptr, nullptr, 47, nullptr); // where the last one went
    os_xmitraw(payload, 5, nullptr, two, 1, nullptr);
    os_xmitraw(payload, 4, nullptr, nullptr, 255, nullptr);
    const std::string to_one(one, one + 4);
    const std::string to_two(two, two + 4);
    const std::vector<sent_t> expected = {{rawfd_ipip, "payload", to_one},
                                          {rawfd_gre, "payloa", to_one},
                                          {rawfd_icmp, "paylo", to_two},
                                          {rawfd_nat, "payl", to_two}};
    EXPECT_EQ(sent, expected);
}

TEST_F(lx_host, frames_with_and_without_a_header)
{
    psfd = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(psfd, 0);
    mask_ = 0;
    lb_xmithandle_t handle;
    std::memset(&handle, 0x55, sizeof(handle));
    const lb_xmithandle_t before = handle;
    EXPECT_EQ(os_getxmithandle("no-such-if", 10, nullptr, 4, nullptr, nullptr, &handle), 1);
    EXPECT_EQ(std::memcmp(&handle, &before, sizeof(handle)), 0) << "untouched";
    ASSERT_EQ(os_getxmithandle("lo", 2, nullptr, 6, nullptr, nullptr, &handle), 0);
    const auto *sll = reinterpret_cast<const sockaddr_ll *>(&handle);
    EXPECT_EQ(sll->sll_family, AF_PACKET);
    EXPECT_EQ(sll->sll_protocol, htons(0x86DD));

    char frame[] = "DSTMACSRCMAC\x08\x01the packet";
    os_packetxmit(frame, frame + 14, 10, &handle, nullptr);
    os_packetxmit(nullptr, frame + 14, 6, &handle, nullptr);
    const std::string lo = std::to_string(if_nametoindex("lo")) + "/";
    const std::vector<sent_t> expected = {{psfd, std::string(frame, 24), lo + "DSTMAC"},
                                          {psfd, "the pa", lo}};
    EXPECT_EQ(sent, expected);
    close(psfd);
}

// --- Log -----------------------------------------------------------------------------------------

TEST_F(lx_host, line_that_is_too_long_is_cut_and_the_next_starts_afresh)
{
    const struct {
        const char *name;
        std::size_t before;
        std::size_t length;
        std::size_t printed;
    } cases[] = {
        {"longest with its newline", 0, 1021, 1022},
        {"one more loses the newline", 0, 1022, 1022},
        {"in pieces", 1000, 500, 1022},
        {"pieces that just fit", 1000, 21, 1022},
        {"piece after a full line", 1022, 10, 1022},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        testing::internal::CaptureStdout();
        os_print("%s", std::string(c.before, 'a').c_str());
        os_print("%s\n", std::string(c.length, 'b').c_str());
        EXPECT_EQ(testing::internal::GetCapturedStdout().size(), c.printed);
        testing::internal::CaptureStdout();
        os_print("next\n");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "next\n");
    }
}

} // namespace
