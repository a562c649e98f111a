// The crossfeed on decoding streams, sample for sample against libbs2b driven
// directly.
#include "TestSource.hpp"

#include <tavro/dsp/TavroCrossfeed.hpp>

#include <bs2b/bs2b.h>

using namespace tavro::test;

namespace {

class TavroCrossfeedTest : public FloatDspTest {
  protected:
    void SetUp() override {
        FloatDspTest::SetUp();
        bs2b_ = bs2b_open();
    }
    void TearDown() override {
        bs2b_close(bs2b_);
        NoSoundTest::TearDown();
    }
    // The reference filter over in[from, to).
    std::vector<float> reference(const std::vector<float>& in, size_t from, size_t to) {
        std::vector<float> v(in.begin() + static_cast<long>(from), in.begin() + static_cast<long>(to));
        bs2b_cross_feed_f(bs2b_, v.data(), static_cast<int>(v.size() / 2));
        return v;
    }
    t_bs2bdp bs2b_ = nullptr;
};

} // namespace

TEST_F(TavroCrossfeedTest, StereoIsCrossfedAsLibbs2bDoes) {
    const auto in = noise(2 * 8000, 3, 0.7f);
    auto s = testStream(in, 48000);
    auto cf = TavroCrossfeed::initWithStream(s);
    EXPECT_NE(cf->dspHandle(), 0u);
    EXPECT_EQ(cf->bs2bSampleRate(), 48000.0);
    EXPECT_EQ(pull(s, 2000), std::vector<float>(in.begin(), in.begin() + 2000)) << "disabled at first";
    cf->setEnabled(true);
    bs2b_set_srate(bs2b_, 48000);
    EXPECT_EQ(pull(s, 4000), reference(in, 2000, 6000)) << "libbs2b's default level, 700 Hz and 4.5 dB";

    // A new level from the next block on, with the history kept.
    cf->setCutoff(100), cf->setFeed(20);
    bs2b_set_level_fcut(bs2b_, 300), bs2b_set_level_feed(bs2b_, 150);
    EXPECT_EQ(pull(s, 4000), reference(in, 6000, 10000));
    // Off and on again keeps the history; reset() clears it.
    cf->setEnabled(false);
    EXPECT_EQ(pull(s, 2000), std::vector<float>(in.begin() + 10000, in.begin() + 12000));
    cf->setEnabled(true);
    EXPECT_EQ(pull(s, 2000), reference(in, 12000, 14000));
    cf->reset();
    bs2b_clear(bs2b_);
    EXPECT_EQ(pull(s, 2000), reference(in, 14000, 16000));
}

TEST_F(TavroCrossfeedTest, MonoAndSurroundPassUnchanged) {
    for (DWORD chans : {1u, 6u}) {
        const auto in = noise(chans * 3000, chans, 0.7f);
        auto s = testStream(in, 44100, chans);
        auto cf = TavroCrossfeed::initWithStream(s);
        cf->setEnabled(true);
        EXPECT_EQ(pull(s, in.size()), in) << chans << " channels";
    }
}

TEST_F(TavroCrossfeedTest, LevelsAreLimitedAndRoundedAwayFromZero) {
    auto cf = TavroCrossfeed::initWithStream(testStream(noise(200, 1, 0.7f)));
    for (auto [hz, applied] :
         std::vector<std::pair<float, int32_t>>{{100, 300}, {5000, 2000}, {NAN, 300}, {700.5f, 701}}) {
        cf->setCutoff(hz);
        EXPECT_EQ(cf->appliedCutoff(), applied) << hz;
    }
    EXPECT_EQ(cf->cutoff(), 700.5f) << "the attribute keeps what was set";
    for (auto [db, applied] :
         std::vector<std::pair<float, int32_t>>{{0.5f, 10}, {20, 150}, {4.55f, 46}, {4.45f, 45}}) {
        cf->setFeed(db);
        EXPECT_EQ(cf->appliedFeed(), applied) << db;
    }

    // Without a sample rate there is no filter, and nothing to reset.
    auto gone = testStream(noise(200, 2, 0.7f));
    gone->free();
    auto idle = TavroCrossfeed::initWithStream(gone);
    idle->reset();
    idle->setEnabled(true);
    EXPECT_FALSE(idle->hasFilter());
    EXPECT_EQ(idle->dspHandle(), 0u);
}
