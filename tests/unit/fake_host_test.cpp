// The fake host itself: what it says it catches, it catches. A fixture that never fails proves
// nothing.
#include "lb_entry.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "fake_fixture.h"
#include "fake_host.h"
#include "os.h"

namespace
{

class FakeHost : public FakeHostTest
{
  protected:
    // The one fault recorded since the last call.
    static std::string fault()
    {
        const auto all = fake::take_faults();
        return all.size() == 1 ? all[0] : std::to_string(all.size()) + " faults";
    }

    static lb_xmithandle_t handle_of(const char *name, int ipver = 4)
    {
        lb_xmithandle_t handle;
        EXPECT_EQ(os_getxmithandle(name, static_cast<int>(std::strlen(name)), nullptr, ipver,
                                   nullptr, nullptr, &handle),
                  0);
        return handle;
    }
};

TEST_F(FakeHost, MutexMisuseIsRecordedAndHarmless)
{
    lblock lock = {};
    EXPECT_EQ(os_mutex_lock(&lock), EINVAL);
    EXPECT_EQ(fault(), "lock of a mutex that was never initialised or is destroyed");
    ASSERT_EQ(os_mutex_init(&lock), 0);
    EXPECT_EQ(os_mutex_unlock(&lock), EPERM);
    EXPECT_EQ(fault(), "a mutex was unlocked by a thread that does not hold it");
    ASSERT_EQ(os_mutex_lock(&lock), 0);
    EXPECT_EQ(os_mutex_lock(&lock), EDEADLK);
    EXPECT_EQ(fault(), "a mutex was locked again by the thread that holds it");
    std::thread([&] { EXPECT_EQ(os_mutex_unlock(&lock), EPERM); }).join();
    EXPECT_EQ(fault(), "a mutex was unlocked by a thread that does not hold it");
    EXPECT_EQ(os_mutex_destroy(&lock), EBUSY);
    EXPECT_EQ(fault(), "a held mutex was destroyed");
    lb_xmithandle_t handle = handle_of("eth0");
    unsigned char packet[20] = {};
    os_packetxmit(nullptr, packet, sizeof(packet), &handle, nullptr);
    EXPECT_EQ(fault(), "a frame was sent while a lock was held");
    ASSERT_EQ(os_mutex_unlock(&lock), 0);
    EXPECT_EQ(fake::live_mutexes(), 1);
    ASSERT_EQ(os_mutex_destroy(&lock), 0);
    EXPECT_EQ(os_mutex_destroy(&lock), EINVAL);
    EXPECT_EQ(fault(), "destroy of a mutex that was never initialised or is destroyed");
}

TEST_F(FakeHost, PlannedFailuresStrikeOnceAndInTime)
{
    std::array<void *, 4> got = {};
    fake::fail(fake::op::alloc, 3);
    for (void *&p : got) {
        p = os_memalloc(10);
        EXPECT_EQ(fake::fail_pending(fake::op::alloc), &p < &got[2]);
    }
    EXPECT_EQ(got[2], nullptr);
    EXPECT_NE(got[3], nullptr);
    EXPECT_EQ(fake::live_allocations(), 3);
    EXPECT_EQ(fake::live_bytes(), 30);
    for (void *p : got) {
        os_memfree(p);
    }
    EXPECT_EQ(fake::total_allocations(), 3U);
}

TEST_F(FakeHost, WhatAnEarlierTestLeftBehindIsNotChargedToALaterOne)
{
    void *left = os_memalloc(1);
    lblock lock;
    ASSERT_EQ(os_mutex_init(&lock), 0);
    fake::reset();
    EXPECT_EQ(fake::live_allocations(), 0);
    os_memfree(left);
    EXPECT_EQ(os_mutex_destroy(&lock), 0);
    EXPECT_EQ(fake::live_allocations(), 0);
    EXPECT_EQ(fake::live_mutexes(), 0);
}

TEST_F(FakeHost, FramesAreKeptWithTheirInterface)
{
    unsigned char frame[34] = {0xAA};
    unsigned char dest[4] = {10, 0, 0, 9};
    lb_xmithandle_t handle = handle_of("lan7");
    os_packetxmit(frame, frame + 14, 20, &handle, nullptr);
    os_xmitraw(frame, 5, nullptr, dest, 4, nullptr);
    os_xmitraw(frame, 6, nullptr, nullptr, 47, nullptr);
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(sent[0].bytes, std::vector<std::uint8_t>(frame, frame + 34));
    EXPECT_EQ(sent[0].ifname, "lan7");
    EXPECT_EQ(sent[0].ifindex, fake::ifindex_of("lan7"));
    EXPECT_EQ(sent[0].ipver, 4);
    EXPECT_EQ(sent[1].dest, (std::vector<std::uint8_t>{10, 0, 0, 9}));
    EXPECT_EQ(sent[2].dest, sent[1].dest) << "no destination means the last one";
    fake::count_only(true);
    os_packetxmit(nullptr, frame, 20, &handle, nullptr);
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(fake::sent_count(), 4U);
}

TEST_F(FakeHost, UnknownInterfacesLeaveTheHandleAlone)
{
    fake::set_interface_unknown("gone");
    lb_xmithandle_t handle;
    std::memset(&handle, 0x33, sizeof(handle));
    EXPECT_EQ(os_getxmithandle("gone", 4, nullptr, 4, nullptr, nullptr, &handle), 1);
    EXPECT_EQ(handle.opaque[0], 0x33);
    unsigned char packet[1] = {};
    os_packetxmit(nullptr, packet, 1, &handle, nullptr);
    EXPECT_EQ(fault(), "a frame was sent through a transmit handle that was never made");
}

TEST_F(FakeHost, ReceivedFrames)
{
    fake::frame f;
    const std::vector<std::uint8_t> bytes(60, 0x11);
    f.load(bytes.data(), bytes.size());
    lb_osopaque_t opaque = f.opaque();
    void *proto = f.bytes();
    void *eth = nullptr;
    EXPECT_EQ(os_headroom(33, &eth, &proto, &opaque), 1);
    EXPECT_EQ(os_headroom(14, &eth, &proto, &opaque), 0);
    EXPECT_EQ(eth, f.bytes() - 14);
    EXPECT_EQ(os_headroom(14, &eth, &proto, &opaque), 1) << "it has a header already";

    os_packetfree(opaque);
    EXPECT_EQ(f.frees(), 1);
    EXPECT_EQ(fake::unheld_frees(), 1U);
    os_packetfree(opaque);
    EXPECT_EQ(fault(), "a received frame was freed twice");

    lb_xmithandle_t handle = handle_of("eth0");
    f.load(bytes.data(), bytes.size());
    fake::count_only(true); // the bytes that follow the frame are poisoned, so they are not copied
    os_packetxmit(nullptr, f.bytes(), 61, &handle, opaque);
    EXPECT_EQ(fault(), "sent 1 bytes beyond what was received");
    os_packetxmit(nullptr, f.bytes(), 60, &handle, opaque);

    const std::vector<std::uint8_t> giant(2000, 0x22);
    f.load(giant.data(), giant.size());
    EXPECT_EQ(f.length(), fake::frame::CAPACITY) << "the receive cuts it";
}

TEST_F(FakeHost, FramesOfNoEntryAreLeftAlone)
{
    std::vector<std::uint8_t> tagged(60, 0);
    tagged[12] = 0x81;
    EXPECT_EQ(fake::receive(tagged), fake::NOT_DISPATCHED);
    EXPECT_EQ(fake::receive(std::vector<std::uint8_t>(13, 0)), fake::NOT_DISPATCHED);
    EXPECT_EQ(fake::receive(tagged, fake::link::loopback), fake::NOT_DISPATCHED);
}

#if defined(__SANITIZE_ADDRESS__)
TEST_F(FakeHost, ReadingPastAFrameIsCaught)
{
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    fake::frame f;
    for (const std::size_t len : {20U, 21U, 27U}) {
        const std::vector<std::uint8_t> bytes(len, 1);
        f.load(bytes.data(), bytes.size());
        const volatile std::uint8_t *p = f.bytes();
        EXPECT_EQ(p[len - 1], 1);
        EXPECT_DEATH((void)p[len], "use-after-poison");
    }
}
#endif

} // namespace
