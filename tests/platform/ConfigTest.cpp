// Process-wide options: defaults, limits, unknown options, pointer options.
#include <bass.h>
#include <gtest/gtest.h>

#include <string>

TEST(ConfigTest, ValuesRoundTripWithinTheirLimitsAndUnknownOptionsAreRefused) {
    EXPECT_EQ(BASS_GetConfig(12345), 0xFFFFFFFFu);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
    EXPECT_FALSE(BASS_SetConfig(12345, 1));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
    EXPECT_FALSE(BASS_SetConfigPtr(BASS_CONFIG_BUFFER, "x"));

    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_GVOL_STREAM), 10000u);
    EXPECT_TRUE(BASS_SetConfig(BASS_CONFIG_GVOL_STREAM, 5000));
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_GVOL_STREAM), 5000u);
    EXPECT_FALSE(BASS_SetConfig(BASS_CONFIG_GVOL_STREAM, 10001));
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_GVOL_STREAM), 5000u);
    BASS_SetConfig(BASS_CONFIG_GVOL_STREAM, 10000);
    // Buffer lengths are clamped to what the mixer can serve.
    EXPECT_TRUE(BASS_SetConfig(BASS_CONFIG_BUFFER, 1));
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_BUFFER), 10u);
    BASS_SetConfig(BASS_CONFIG_BUFFER, 40);
    EXPECT_TRUE(BASS_SetConfig(BASS_CONFIG_IOS_SESSION, 0x1CF));
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_IOS_SESSION), 0x1CFu);
    EXPECT_TRUE(BASS_SetConfig(BASS_CONFIG_DOWNMIX, 1));
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_DOWNMIX), 1u);
    EXPECT_FALSE(BASS_SetConfig(BASS_CONFIG_SRC, 9));
}

TEST(ConfigTest, PointerOptionsAreKeptAndReportedBack) {
    EXPECT_TRUE(BASS_SetConfigPtr(BASS_CONFIG_NET_AGENT, "TavroTest/1.0"));
    EXPECT_EQ(std::string(static_cast<const char*>(BASS_GetConfigPtr(BASS_CONFIG_NET_AGENT))), "TavroTest/1.0");
    EXPECT_TRUE(BASS_SetConfigPtr(BASS_CONFIG_NET_PROXY, ""));
    EXPECT_EQ(std::string(static_cast<const char*>(BASS_GetConfigPtr(BASS_CONFIG_NET_PROXY))), "");
    auto notify = +[](DWORD) {};
    EXPECT_TRUE(BASS_SetConfigPtr(BASS_CONFIG_IOS_NOTIFY, reinterpret_cast<const void*>(notify)));
    EXPECT_EQ(BASS_GetConfigPtr(BASS_CONFIG_IOS_NOTIFY), reinterpret_cast<const void*>(notify));
    EXPECT_TRUE(BASS_SetConfigPtr(BASS_CONFIG_IOS_NOTIFY, nullptr));
}
