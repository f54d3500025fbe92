// The fake host itself: what it says it catches, it catches. A fixture that never fails proves
// nothing.
#include "lb_entry.h"

#include <cerrno>
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

    static void send(unsigned char *packet, int len, lb_osopaque_t opaque)
    {
        lb_xmithandle_t handle;
        EXPECT_EQ(os_getxmithandle("eth0", 4, nullptr, 4, nullptr, nullptr, &handle), 0);
        os_packetxmit(nullptr, packet, len, &handle, opaque);
    }
};

TEST_F(FakeHost, MutexMisuseIsRecordedAndHarmless)
{
    lblock lock = {};
    EXPECT_EQ(os_mutex_lock(&lock), EINVAL);
    EXPECT_EQ(fault(), "lock of a mutex that was never initialised or is destroyed");
    ASSERT_EQ(os_mutex_init(&lock), 0);
    ASSERT_EQ(os_mutex_lock(&lock), 0);
    std::thread([&] { EXPECT_EQ(os_mutex_unlock(&lock), EPERM); }).join();
    EXPECT_EQ(fault(), "a mutex was unlocked by a thread that does not hold it");
    EXPECT_EQ(os_mutex_lock(&lock), EDEADLK);
    EXPECT_EQ(fault(), "a mutex was locked again by the thread that holds it");
    EXPECT_EQ(os_mutex_destroy(&lock), EBUSY);
    EXPECT_EQ(fault(), "a held mutex was destroyed");
    unsigned char packet[20] = {};
    send(packet, sizeof(packet), nullptr);
    EXPECT_EQ(fault(), "a frame was sent while a lock was held");
    ASSERT_EQ(os_mutex_unlock(&lock), 0);
    EXPECT_EQ(fake::live_mutexes(), 1);
    ASSERT_EQ(os_mutex_destroy(&lock), 0);
}

TEST_F(FakeHost, DoubleFreesAndSendsBeyondTheFrameAreRecorded)
{
    fake::frame f;
    const std::vector<std::uint8_t> bytes(60, 0x11);
    f.load(bytes.data(), bytes.size());
    lb_osopaque_t opaque = f.opaque();
    os_packetfree(opaque);
    os_packetfree(opaque);
    EXPECT_EQ(fault(), "a received frame was freed twice");

    f.load(bytes.data(), bytes.size());
    fake::count_only(true); // the bytes that follow the frame are poisoned, so they are not copied
    send(f.bytes(), 61, opaque);
    EXPECT_EQ(fault(), "sent 1 bytes beyond what was received");
    send(f.bytes(), 60, opaque);
}

#if defined(__SANITIZE_ADDRESS__)
TEST_F(FakeHost, ReadingPastAFrameIsCaught)
{
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    fake::frame f;
    for (const std::size_t len : {20U, 27U}) {
        const std::vector<std::uint8_t> bytes(len, 1);
        f.load(bytes.data(), bytes.size());
        const volatile std::uint8_t *p = f.bytes();
        EXPECT_EQ(p[len - 1], 1);
        EXPECT_DEATH((void)p[len], "use-after-poison");
    }
}
#endif

} // namespace
