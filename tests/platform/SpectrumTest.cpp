// FFT requests of BASS_ChannelGetData: scaling, bin placement, channel
// averaging, consumption on decoding channels and heard data on playing ones.
#include "PlatformFixture.hpp"

#include <algorithm>

using namespace tavro::test;

namespace {

class SpectrumTest : public NoSoundTest {};

size_t peakBin(const std::vector<float>& v) {
    return static_cast<size_t>(std::max_element(v.begin(), v.end()) - v.begin());
}

TEST_F(SpectrumTest, FullScaleSineAtBinCentreReadsOneInItsBinAtEverySize) {
    const DWORD flags[] = {BASS_DATA_FFT256, BASS_DATA_FFT512, BASS_DATA_FFT1024, BASS_DATA_FFT2048,
                           BASS_DATA_FFT4096, BASS_DATA_FFT8192, BASS_DATA_FFT16384};
    for (unsigned i = 0; i < 7; ++i) {
        const size_t n = size_t(256) << i;
        const size_t bin = n / 8;
        const double freq = 44100.0 * static_cast<double>(bin) / static_cast<double>(n);
        HSTREAM h = pushStream(44100, 2, BASS_STREAM_DECODE, sine(freq, 44100, n, 2, 1.0f), true);
        std::vector<float> mags(n / 2, -1.0f);
        const DWORD got = BASS_ChannelGetData(h, mags.data(), flags[i]);
        EXPECT_EQ(got, n * 2 * 4) << n; // the frames it consumed, in the channel's format
        EXPECT_EQ(peakBin(mags), bin) << n;
        EXPECT_NEAR(mags[bin], 1.0f, 0.01f) << n;
        // Hann leakage stays in the neighbouring bins.
        EXPECT_NEAR(mags[bin + 1], 0.5f, 0.01f) << n;
        EXPECT_LT(mags[bin + 3], 1e-3f) << n;
        BASS_StreamFree(h);
    }
}

TEST_F(SpectrumTest, ChannelsAreAveragedUnlessAskedIndividually) {
    // Left a 1 kHz sine, right its negation: the average is silence.
    auto pcm = sine(44100.0 * 64 / 2048, 44100, 4096, 2, 0.5f);
    for (size_t i = 0; i < 4096; ++i) pcm[i * 2 + 1] = -pcm[i * 2];
    HSTREAM h = pushStream(44100, 2, BASS_STREAM_DECODE, pcm, true);
    std::vector<float> mono(1024);
    ASSERT_NE(BASS_ChannelGetData(h, mono.data(), BASS_DATA_FFT2048), 0xFFFFFFFFu);
    EXPECT_LT(*std::max_element(mono.begin(), mono.end()), 1e-5f);

    std::vector<float> both(2048);
    ASSERT_NE(BASS_ChannelGetData(h, both.data(), BASS_DATA_FFT2048 | BASS_DATA_FFT_INDIVIDUAL), 0xFFFFFFFFu);
    EXPECT_NEAR(both[64 * 2], 0.5f, 0.01f);
    EXPECT_NEAR(both[64 * 2 + 1], 0.5f, 0.01f);
    BASS_StreamFree(h);
}

TEST_F(SpectrumTest, DecodingChannelIsConsumedAndPaddedAtItsEnd) {
    // 3000 frames: a full block, then 952 frames padded with zeros, then the end.
    HSTREAM h = pushStream(8000, 1, BASS_STREAM_DECODE, std::vector<float>(3000, 0.25f), true);
    std::vector<float> mags(1024);
    EXPECT_EQ(BASS_ChannelGetData(h, mags.data(), BASS_DATA_FFT2048), 2048u * 4);
    EXPECT_NEAR(mags[0], 0.25f, 1e-4f); // a constant reads its value in bin 0
    EXPECT_EQ(BASS_ChannelGetPosition(h, BASS_POS_BYTE), 2048u * 4);
    EXPECT_EQ(BASS_ChannelGetData(h, mags.data(), BASS_DATA_FFT2048), 952u * 4);
    EXPECT_EQ(BASS_ChannelGetData(h, mags.data(), BASS_DATA_FFT2048), 0xFFFFFFFFu);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ENDED);

    HSTREAM dc = pushStream(8000, 1, BASS_STREAM_DECODE, std::vector<float>(256, 0.25f), true);
    ASSERT_NE(BASS_ChannelGetData(dc, mags.data(), BASS_DATA_FFT256 | BASS_DATA_FFT_REMOVEDC), 0xFFFFFFFFu);
    EXPECT_LT(mags[0], 1e-6f);
    BASS_StreamFree(h);
    BASS_StreamFree(dc);
}

TEST_F(SpectrumTest, PlayingChannelShowsWhatIsHeard) {
    std::vector<float> mags(1024);
    HSTREAM h = pushStream(44100, 2, 0, sine(44100.0 * 100 / 2048, 44100, 44100 * 3, 2, 0.8f), true);
    EXPECT_EQ(BASS_ChannelGetData(h, mags.data(), BASS_DATA_FFT2048), 0xFFFFFFFFu);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_NOPLAY);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    ASSERT_TRUE(waitFor([&] { return BASS_ChannelGetPosition(h, BASS_POS_BYTE) > 2048 * 8; },
                        std::chrono::milliseconds(2000)));
    ASSERT_NE(BASS_ChannelGetData(h, mags.data(), BASS_DATA_FFT2048), 0xFFFFFFFFu);
    EXPECT_EQ(peakBin(mags), 100u);
    EXPECT_NEAR(mags[100], 0.8f, 0.02f);
    // The first read longer than the short history starts keeping a long
    // one; once that has filled, the largest spectrum sees all its frames.
    std::vector<float> wide(8192);
    const DWORD bytes = 16384 * 2 * 4;
    EXPECT_LT(BASS_ChannelGetData(h, wide.data(), BASS_DATA_FFT16384), bytes);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(BASS_ChannelGetData(h, wide.data(), BASS_DATA_FFT16384), bytes);
    EXPECT_EQ(peakBin(wide), 800u);
    EXPECT_NEAR(wide[800], 0.8f, 0.02f);
    BASS_StreamFree(h);
}

TEST_F(SpectrumTest, UnsupportedRequestsAreRefused) {
    HSTREAM h = pushStream(44100, 1, BASS_STREAM_DECODE, std::vector<float>(4096, 0.1f), true);
    std::vector<float> mags(16384);
    EXPECT_EQ(BASS_ChannelGetData(h, mags.data(), BASS_DATA_FFT256 | 0x7), 0xFFFFFFFFu); // size index 7
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
    EXPECT_EQ(BASS_ChannelGetData(h, mags.data(), BASS_DATA_FFT1024 | BASS_DATA_FFT_COMPLEX), 0xFFFFFFFFu);
    EXPECT_EQ(BASS_ChannelGetData(h, nullptr, BASS_DATA_FFT1024), 0xFFFFFFFFu);
    EXPECT_EQ(BASS_ChannelGetData(0, mags.data(), BASS_DATA_FFT1024), 0xFFFFFFFFu);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
    BASS_StreamFree(h);
}

} // namespace
