// The effect chain: handles, parameters, order among DSP functions, bypass and removal.
#include "PlatformFixture.hpp"
#include "core/Handles.hpp"

#include <bass_fx.h>

#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

using namespace tavro::test;

namespace {

class EffectChainTest : public NoSoundTest {
  protected:
    HSTREAM decoding(unsigned chans = 2, DWORD freq = 44100) {
        return pushStream(freq, chans, BASS_STREAM_DECODE, std::vector<float>(freq * chans, 0.5f), true);
    }
};

// Records the order in which DSP functions and effects see a block.
struct Trace {
    std::vector<int> seen;
};

void tagDsp(HDSP, DWORD, void* buf, DWORD len, void* user) {
    auto* t = static_cast<Trace*>(user);
    // The settled last sample tells whether the halving effect ran before.
    const float* f = static_cast<float*>(buf);
    t->seen.push_back(static_cast<int>(std::lround(f[len / sizeof(float) - 1] * 1000)));
}

} // namespace

TEST_F(EffectChainTest, SetFxGivesHandlesThatFindTheirEffectAndKeepItsLastGoodParameters) {
    HSTREAM h = decoding();
    HFX eq = BASS_ChannelSetFX(h, BASS_FX_DX8_PARAMEQ, 0);
    ASSERT_NE(eq, 0u) << BASS_ErrorGetCode();
    BASS_DX8_PARAMEQ p{1000, 12, 6};
    ASSERT_TRUE(BASS_FXSetParameters(eq, &p));
    // Out-of-range parameters are refused and the old ones kept.
    for (BASS_DX8_PARAMEQ bad : {BASS_DX8_PARAMEQ{NAN, 6, 0}, BASS_DX8_PARAMEQ{500, 0.5f, 0},
                                 BASS_DX8_PARAMEQ{500, 6, 40}, BASS_DX8_PARAMEQ{20000, 6, 0}}) {
        EXPECT_FALSE(BASS_FXSetParameters(eq, &bad));
        EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
    }
    EXPECT_FALSE(BASS_FXSetParameters(eq, nullptr));
    BASS_DX8_PARAMEQ back{};
    ASSERT_TRUE(BASS_FXGetParameters(eq, &back));
    EXPECT_EQ(back.fCenter, 1000);
    EXPECT_EQ(back.fBandwidth, 12);
    EXPECT_EQ(back.fGain, 6);

    EXPECT_EQ(BASS_ChannelSetFX(h, 0xDEAD, 0), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLTYPE);
    EXPECT_EQ(BASS_ChannelSetFX(12345, BASS_FX_DX8_PARAMEQ, 0), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
}

TEST_F(EffectChainTest, RemovedOrFreedEffectsFailCleanly) {
    HSTREAM h = decoding();
    HSTREAM other = decoding();
    HFX a = BASS_ChannelSetFX(h, BASS_FX_BFX_BQF, 0);
    HFX b = BASS_ChannelSetFX(h, BASS_FX_BFX_BQF, 0);
    ASSERT_NE(a, b);
    EXPECT_FALSE(BASS_ChannelRemoveFX(other, a)); // not that channel's effect
    EXPECT_TRUE(BASS_ChannelRemoveFX(h, a));
    EXPECT_FALSE(BASS_ChannelRemoveFX(h, a));
    BASS_BFX_BQF p{};
    EXPECT_FALSE(BASS_FXGetParameters(a, &p));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
    EXPECT_TRUE(BASS_FXGetParameters(b, &p));
    BASS_StreamFree(h);
    EXPECT_FALSE(BASS_FXSetBypass(b, TRUE));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
    // Effects of a freed channel are dropped even when nobody asks for them.
    HFX c = BASS_ChannelSetFX(other, BASS_FX_BFX_BQF, 0);
    BASS_StreamFree(other);
    ASSERT_NE(BASS_ChannelSetFX(decoding(), BASS_FX_BFX_BQF, 0), 0u);
    EXPECT_EQ(tavro::platform::Handles::find(c), nullptr);
}

TEST_F(EffectChainTest, EffectsAndDspFunctionsRunInFallingPriority) {
    HSTREAM h = decoding(1);
    Trace t;
    // A low shelf with its corner far above the content scales DC by its gain.
    BASS_BFX_BQF half{BASS_BFX_BQF_LOWSHELF, 20000, -6.0206f, 0, 0, 1, BASS_BFX_CHANALL};
    ASSERT_NE(BASS_ChannelSetDSP(h, tagDsp, &t, 5), 0u);
    HFX fx = BASS_ChannelSetFX(h, BASS_FX_BFX_BQF, 3);
    ASSERT_TRUE(BASS_FXSetParameters(fx, &half));
    ASSERT_NE(BASS_ChannelSetDSP(h, tagDsp, &t, 1), 0u);
    float buf[1024];
    ASSERT_EQ(BASS_ChannelGetData(h, buf, sizeof buf | BASS_DATA_FLOAT), sizeof buf);
    ASSERT_EQ(t.seen.size(), 2u);
    EXPECT_EQ(t.seen[0], 500); // before the effect
    EXPECT_EQ(t.seen[1], 250); // after it

    // Moved ahead of both functions, it halves what each of them sees.
    t.seen.clear();
    ASSERT_TRUE(BASS_FXSetPriority(fx, 9));
    ASSERT_EQ(BASS_ChannelGetData(h, buf, sizeof buf | BASS_DATA_FLOAT), sizeof buf);
    ASSERT_EQ(t.seen.size(), 2u);
    EXPECT_EQ(t.seen[0], 250);
    EXPECT_EQ(t.seen[1], 250);
}

// Bypassing and removing crossfade over 10 ms (441 frames here); after that
// the effect is out of the signal exactly.
TEST_F(EffectChainTest, BypassAndRemovalMakeAnEffectTransparentAfterTheirCrossfade) {
    HSTREAM h = decoding(2);
    HFX fx = BASS_ChannelSetFX(h, BASS_FX_BFX_BQF, 0);
    BASS_BFX_BQF half{BASS_BFX_BQF_LOWSHELF, 20000, -6.0206f, 0, 0, 1, BASS_BFX_CHANALL};
    ASSERT_TRUE(BASS_FXSetParameters(fx, &half));
    float buf[2 * 1024];
    const auto pull = [&] { BASS_ChannelGetData(h, buf, sizeof buf | BASS_DATA_FLOAT); };
    pull();
    EXPECT_NEAR(buf[126], 0.25f, 1e-3f);
    ASSERT_TRUE(BASS_FXSetBypass(fx, TRUE));
    pull();
    EXPECT_GT(buf[2], 0.24f); // still mostly the effect
    EXPECT_LT(buf[2], 0.26f);
    EXPECT_EQ(buf[2 * 441], 0.5f);
    EXPECT_EQ(buf[2 * 1023 + 1], 0.5f);
    ASSERT_TRUE(BASS_FXSetBypass(fx, FALSE));
    pull();
    EXPECT_NEAR(buf[2 * 1023 + 1], 0.25f, 1e-3f);
    ASSERT_TRUE(BASS_ChannelRemoveFX(h, fx));
    pull();
    EXPECT_EQ(buf[2 * 441], 0.5f);
    EXPECT_EQ(buf[2 * 1023 + 1], 0.5f);
}

TEST_F(EffectChainTest, ChannelMaskLimitsAnEffectToItsChannels) {
    HSTREAM h = decoding(6, 8000);
    HFX fx = BASS_ChannelSetFX(h, BASS_FX_BFX_BQF, 0);
    BASS_BFX_BQF half{BASS_BFX_BQF_LOWSHELF, 20000, -6.0206f, 0, 0, 1, BASS_BFX_CHAN2 | BASS_BFX_CHAN6};
    ASSERT_TRUE(BASS_FXSetParameters(fx, &half));
    std::vector<float> buf(6 * 256);
    BASS_ChannelGetData(h, buf.data(), static_cast<DWORD>(buf.size() * 4) | BASS_DATA_FLOAT);
    const float* last = &buf[buf.size() - 6];
    for (int c = 0; c < 6; ++c)
        EXPECT_NEAR(last[c], (c == 1 || c == 5) ? 0.25f : 0.5f, 1e-3f) << c;
}

// Two records that give the same output, while any mix of their fields does
// not: a block that saw half of an update would show it.
TEST_F(EffectChainTest, ParameterUpdatesFromAnotherThreadArriveWhole) {
    HSTREAM h = pushStream(44100, 1, BASS_STREAM_DECODE, std::vector<float>(44100 * 20, 1.0f), true);
    HFX fx = BASS_ChannelSetFX(h, BASS_FX_BFX_ECHO4, 0);
    const BASS_BFX_ECHO4 dryOnly{1, 0, 0, 0, FALSE, BASS_BFX_CHANALL};
    const BASS_BFX_ECHO4 wetOnly{0, 1, 0, 0, FALSE, BASS_BFX_CHANALL};
    ASSERT_TRUE(BASS_FXSetParameters(fx, &dryOnly));
    float buf[512];
    BASS_ChannelGetData(h, buf, sizeof buf | BASS_DATA_FLOAT); // fill the one-sample line
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; !stop.load(); ++i)
            BASS_FXSetParameters(fx, (i & 1) ? &wetOnly : &dryOnly);
    });
    size_t wrong = 0;
    for (int block = 0; block < 1500; ++block) {
        if (BASS_ChannelGetData(h, buf, sizeof buf | BASS_DATA_FLOAT) != sizeof buf) break;
        for (float x : buf)
            wrong += x != 1.0f;
    }
    stop = true;
    writer.join();
    EXPECT_EQ(wrong, 0u);
}
