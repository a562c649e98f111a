// Without a reachable sound server the no-sound device stands in for the
// default output. This executable points the client at a socket that does
// not exist before anything connects.
#include "PlatformFixture.hpp"

#include <cstdlib>

namespace {
const int kNoServer = [] { return setenv("PULSE_SERVER", "unix:/nonexistent/tavro/pa.sock", 1); }();
}

TEST(NoServerTest, DefaultDeviceFallsBackToNoSound) {
    ASSERT_EQ(kNoServer, 0);
    BASS_DEVICEINFO info;
    ASSERT_TRUE(BASS_GetDeviceInfo(0, &info));
    EXPECT_STREQ(info.name, "No sound");
    EXPECT_EQ(info.driver, nullptr);
    EXPECT_EQ(info.flags & (BASS_DEVICE_DEFAULT | BASS_DEVICE_ENABLED), DWORD(BASS_DEVICE_DEFAULT | BASS_DEVICE_ENABLED));
    EXPECT_FALSE(BASS_GetDeviceInfo(1, &info));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_DEVICE);

    EXPECT_FALSE(BASS_Free());
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_INIT);
    EXPECT_FALSE(BASS_Init(1, 44100, 0, nullptr, nullptr));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_DEVICE);
    ASSERT_TRUE(BASS_Init(-1, 44100, 0, nullptr, nullptr));
    EXPECT_EQ(BASS_GetDevice(), 0u);
    BASS_INFO bi;
    ASSERT_TRUE(BASS_GetInfo(&bi));
    EXPECT_EQ(bi.freq, 44100u);
    EXPECT_FALSE(BASS_Init(0, 44100, 0, nullptr, nullptr));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ALREADY);
    EXPECT_TRUE(BASS_Free());
    // Handles made before the device was freed are dead.
    ASSERT_TRUE(BASS_Init(-1, 44100, 0, nullptr, nullptr));
    HSTREAM h = BASS_StreamCreate(44100, 2, 0, STREAMPROC_PUSH, nullptr);
    ASSERT_NE(h, 0u);
    EXPECT_TRUE(BASS_Free());
    EXPECT_FALSE(BASS_ChannelPlay(h, FALSE));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
    EXPECT_EQ(BASS_StreamCreate(44100, 2, 0, STREAMPROC_PUSH, nullptr), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_INIT);
}
