// Biquad nodes: cookbook coefficients, memory per channel, and the output
// against scipy's lfilter as an independent reference.
#include "PlatformFixture.hpp"

#include <tavro/dsp/TavroDSPBiquad.hpp>

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <tuple>

namespace {

using tavro::test::noise;

// In blocks of 300 frames, so the memory must carry across blocks.
std::vector<float> filtered(TavroDSPBiquad& f, std::vector<float> v, uint64_t channels, uint64_t rate) {
    const size_t frames = v.size() / channels;
    for (size_t at = 0; at < frames; at += 300)
        f.processInterleavedFloat(v.data() + at * channels, std::min<size_t>(300, frames - at), channels,
                                  rate);
    return v;
}

template <typename T> std::shared_ptr<T> make(float cutoff, float q, float gain) {
    auto f = T::init();
    f->setCutoff(cutoff), f->setResonance(q), f->setGainDB(gain);
    return f;
}

} // namespace

TEST(TavroDSPBiquadTest, CoefficientsMatchTheCookbookValues) {
    const std::vector<std::tuple<std::shared_ptr<TavroDSPBiquad>, double, std::array<double, 5>>> cases = {
        {TavroDSPBiquad::init(), 48000, {0.003916077, 0.007832153, 0.003916077, -1.815317919, 0.830982226}},
        {TavroDSPLowPass::init(), 44100, {0.004603935, 0.009207870, 0.004603935, -1.799071621, 0.817487361}},
        {make<TavroDSPPeaking>(1000, 0.707f, 6),
         48000,
         {1.061051078, -1.861255905, 0.816265531, -1.861255905, 0.877316609}},
        {make<TavroDSPLowShelf>(1000, 0.707f, 6),
         48000,
         {1.032566623, -1.838836839, 0.828723267, -1.844436773, 0.855689955}},
        {make<TavroDSPHighShelf>(1000, 0.707f, 6),
         48000,
         {1.932332763, -3.564065605, 1.653477735, -1.780840866, 0.802585759}}};
    for (const auto& [f, rate, c] : cases) {
        f->computeCoefficientsForSampleRate(rate);
        const std::array<double, 5> got = {f->b0(), f->b1(), f->b2(), f->a1(), f->a2()};
        for (size_t i = 0; i < 5; ++i)
            EXPECT_NEAR(got[i], c[i], 1e-9) << "kind " << f->kind() << " coefficient " << i;
    }
}

TEST(TavroDSPBiquadTest, MemoryPerChannelAndParameterEdges) {
    for (uint64_t channels : {2u, 3u, 10u}) { // register path, general path, memory beyond the node
        const size_t frames = 1000;
        const auto in = noise(frames * channels, static_cast<uint32_t>(channels));
        const auto out = filtered(*make<TavroDSPPeaking>(800, 1.5f, -7), in, channels, 44100);
        for (uint64_t ch = 0; ch < channels; ++ch) {
            std::vector<float> mono(frames);
            for (size_t i = 0; i < frames; ++i)
                mono[i] = in[i * channels + ch];
            mono = filtered(*make<TavroDSPPeaking>(800, 1.5f, -7), mono, 1, 44100);
            for (size_t i = 0; i < frames; ++i)
                ASSERT_EQ(out[i * channels + ch], mono[i]) << channels << "/" << ch;
        }
    }
    // After an impulse, the ringing tail comes from the memory alone.
    auto f = make<TavroDSPLowPass>(500, 4, 0);
    auto tailAfterImpulse = [&](uint64_t chansIn, uint64_t chansOut, uint64_t rateOut) {
        std::vector<float> v(16 * 2, 0.0f);
        v[0] = 1.0f;
        f->processInterleavedFloat(v.data(), 1, chansIn, 44100);
        f->processInterleavedFloat(v.data() + 2, 8, chansOut, rateOut);
        return v[2];
    };
    EXPECT_NE(tailAfterImpulse(2, 2, 48000), 0.0f) << "a new sample rate keeps the memory";
    EXPECT_EQ(tailAfterImpulse(2, 1, 44100), 0.0f) << "stereo to mono starts from zero";
    EXPECT_EQ(tailAfterImpulse(1, 2, 44100), 0.0f) << "and back again";

    const auto in = noise(4000, 1);
    auto low = make<TavroDSPBandPass>(3000, 0.05f, 0), floor = make<TavroDSPBandPass>(3000, 0.1f, 0);
    EXPECT_EQ(filtered(*low, in, 1, 44100), filtered(*floor, in, 1, 44100)) << "Q below 0.1 acts as 0.1";
    auto off = TavroDSPNotch::init();
    off->setEnabled(false);
    EXPECT_EQ(filtered(*off, noise(200, 1), 2, 44100), noise(200, 1));
    EXPECT_EQ(off->zChannels(), 0u) << "a disabled node neither allocates";
    EXPECT_EQ(off->computedSR(), 0.0) << "nor computes";
}

TEST(TavroDSPBiquadTest, EveryTypeAgreesWithScipyLfilter) {
    if (std::system("/usr/bin/python3 -c 'import scipy' 2>/dev/null") != 0)
        GTEST_SKIP() << "python3-scipy is not installed (scripts/setup installs it)";
    char dirTemplate[] = "/tmp/tavro-biquad.XXXXXX";
    const std::filesystem::path dir = mkdtemp(dirTemplate);
    const auto signal = noise(6000, 7);
    std::ofstream(dir / "signal.f32", std::ios::binary)
        .write(reinterpret_cast<const char*>(signal.data()), static_cast<std::streamsize>(signal.size() * 4));

    const std::vector<std::function<std::shared_ptr<TavroDSPBiquad>()>> types = {
        TavroDSPLowPass::init,  TavroDSPHighPass::init,  TavroDSPBandPass::init, TavroDSPNotch::init,
        TavroDSPLowShelf::init, TavroDSPHighShelf::init, TavroDSPPeaking::init};
    std::vector<std::pair<std::shared_ptr<TavroDSPBiquad>, uint64_t>> cases;
    std::ofstream lines(dir / "cases.txt");
    lines.precision(17);
    for (const auto& type : types) {
        for (int setting = 0; setting < 2; ++setting) {
            auto n = type();
            n->setCutoff(setting ? 5000.0f : 700.0f), n->setResonance(setting ? 2.5f : 0.707f);
            n->setGainDB(setting ? -9.5f : 6.0f);
            cases.emplace_back(n, setting ? 48000 : 44100);
            // The reference gets the node's 32-bit parameters, widened as the node widens them.
            lines << n->kind() << ' ' << cases.back().second << ' ' << double{n->cutoff()} << ' '
                  << double{n->resonance()} << ' ' << double{n->gainDB()} << '\n';
        }
    }
    lines.close();
    const auto script = std::filesystem::path(TAVRO_TEST_SOURCE_DIR) / "dsp" / "biquad_reference.py";
    const std::string cmd = "/usr/bin/python3 '" + script.string() + "' '" + (dir / "signal.f32").string() +
                            "' '" + (dir / "cases.txt").string() + "' '" + (dir / "out.f64").string() + "'";
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    std::vector<double> reference(cases.size() * signal.size());
    std::ifstream(dir / "out.f64", std::ios::binary)
        .read(reinterpret_cast<char*>(reference.data()), static_cast<std::streamsize>(reference.size() * 8));
    std::filesystem::remove_all(dir);

    for (size_t k = 0; k < cases.size(); ++k) {
        const auto out = filtered(*cases[k].first, signal, 1, cases[k].second);
        double worst = 0;
        for (size_t i = 0; i < out.size(); ++i)
            worst = std::max(worst, std::abs(out[i] - reference[k * signal.size() + i]));
        EXPECT_LT(worst, 1e-6) << "kind " << cases[k].first->kind() << " at " << cases[k].second << " Hz";
    }
}
