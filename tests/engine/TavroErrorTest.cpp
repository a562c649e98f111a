// Error values: the description table, its fallback, and where codes come from.
#include <tavro/engine/TavroError.hpp>

#include <bass.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

TEST(TavroErrorTest, DescriptionsComeFromTheTableOrTheNumberedFallback) {
    EXPECT_EQ(TavroError::descriptionForBassCode(0), "OK");
    EXPECT_EQ(TavroError::descriptionForBassCode(11), "Device needs reinit");
    EXPECT_EQ(TavroError::descriptionForBassCode(14), "Already initialized/paused");
    EXPECT_EQ(TavroError::descriptionForBassCode(27), "Stream is not a file stream");
    EXPECT_EQ(TavroError::descriptionForBassCode(49), "Access denied");
    for (int32_t code : {12, 13, 15, 16, 26, 28, 30, 35, 36, 50, 1000, -1, INT32_MIN})
        EXPECT_EQ(TavroError::descriptionForBassCode(code), "BASS error " + std::to_string(code));
    int listed = 0;
    for (int32_t code = 0; code < 50; ++code)
        listed += TavroError::descriptionForBassCode(code) != "BASS error " + std::to_string(code);
    EXPECT_EQ(listed, 41);
}

TEST(TavroErrorTest, FactoriesFillDomainCodeAndExactlyOneDescription) {
    EXPECT_STREQ(TavroErrorDomain, "TavroErrorDomain");
    const auto unknown = TavroError::errorFromBassCode(-1);
    EXPECT_EQ(unknown.domain(), TavroErrorDomain);
    EXPECT_EQ(unknown.code(), -1);
    ASSERT_EQ(unknown.userInfo().size(), 1u);
    EXPECT_EQ(unknown.userInfo().at(TavroLocalizedDescriptionKey), "BASS error -1");

    const auto own = TavroError::errorWithMessage("No stream loaded");
    EXPECT_EQ(own.domain(), TavroErrorDomain);
    EXPECT_EQ(own.code(), -1);
    EXPECT_EQ(own.localizedDescription(), "No stream loaded");
    EXPECT_EQ(TavroError(), TavroError::errorFromBassCode(0));
}

TEST(TavroErrorTest, CurrentErrorReadsTheCallingThreadsLastFailure) {
    ASSERT_FALSE(BASS_SetConfig(12345, 1));
    std::thread([] {
        BASS_ChannelPlay(0xDEAD, FALSE); // a different failure, elsewhere
        EXPECT_EQ(TavroError::currentError().code(), BASS_ERROR_HANDLE);
    }).join();
    const auto error = TavroError::currentError();
    EXPECT_EQ(error.code(), BASS_ERROR_ILLPARAM);
    EXPECT_EQ(error.localizedDescription(), "Illegal parameter");
}

} // namespace
