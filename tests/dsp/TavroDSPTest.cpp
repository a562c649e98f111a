// The DSP chain: list editing, what each node is handed, channel selection,
// node kinds and copies, and the chain on decoding and playing streams.
#include "TestSource.hpp"

#include <tavro/dsp/TavroDSP.hpp>
#include <tavro/dsp/TavroDSPBiquad.hpp>
#include <tavro/dsp/TavroDSPGain.hpp>

#include <algorithm>
#include <cmath>
#include <tuple>
#include <typeinfo>

using namespace tavro::test;

namespace {

// Logs its calls and scales the block; it ignores its own `enabled` flag, so
// the chain's check shows.
class Probe final : public TavroDSPNode {
  public:
    Probe(std::string* log, char name, float factor) : log_(log), name_(name), factor_(factor) {}
    void processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels, uint64_t rate) override {
        *log_ += name_;
        frames_ += frames, channels_ = channels, rate_ = rate;
        for (uint64_t i = 0; i < frames * channels; ++i)
            samples[i] *= factor_;
    }
    TavroDSPNodeKind kind() const override { return 100; }
    std::shared_ptr<TavroDSPNode> copy() const override {
        return std::make_shared<Probe>(log_, name_, factor_);
    }
    uint64_t frames_ = 0, channels_ = 0, rate_ = 0;

  private:
    std::string* log_;
    char name_;
    float factor_;
};

class TavroDSPTest : public FloatDspTest {};

} // namespace

TEST_F(TavroDSPTest, ListEditingFollowsIndexRules) {
    auto dsp = TavroDSP::initWithStream(nullptr);
    std::vector<std::shared_ptr<TavroDSPNode>> n;
    for (int i = 0; i < 4; ++i)
        n.push_back(TavroDSPGain::init());
    auto order = [&] {
        std::string s;
        for (auto& node : dsp->nodes())
            s += static_cast<char>('a' + (std::find(n.begin(), n.end(), node) - n.begin()));
        return s;
    };
    EXPECT_FALSE(dsp->appendNode(nullptr));
    EXPECT_FALSE(dsp->insertNode(nullptr, 0));
    dsp->appendNode(n[0]), dsp->insertNode(n[1], 0), dsp->insertNode(n[2], 99), dsp->insertNode(n[3], 2);
    EXPECT_EQ(order(), "badc");
    dsp->moveNodeAtIndex(4, 0);
    EXPECT_EQ(order(), "badc") << "from beyond the end: nothing";
    dsp->moveNodeAtIndex(0, 99);
    EXPECT_EQ(order(), "adcb") << "to beyond the end: last";
    dsp->moveNodeAtIndex(3, 1);
    EXPECT_EQ(order(), "abdc");
    dsp->appendNode(n[0]);
    dsp->removeNode(n[0]);
    EXPECT_EQ(order(), "bdc") << "every occurrence goes";
    dsp->removeNode(TavroDSPGain::init());
    dsp->removeNode(dsp->nodes()[0]);
    EXPECT_EQ(order(), "dc") << "by identity";
    dsp->removeAllNodes();
    EXPECT_EQ(order(), "");
}

TEST_F(TavroDSPTest, EnabledNodesRunInOrderOnEachBlock) {
    std::vector<float> data(2 * 1000);
    for (size_t i = 0; i < 1000; ++i)
        data[2 * i] = 0.25f, data[2 * i + 1] = -0.5f;
    auto stream = testStream(data);
    auto dsp = TavroDSP::initWithStream(stream);
    ASSERT_NE(dsp->dspHandle(), 0u);
    EXPECT_EQ(pull(stream, 4), (std::vector<float>{0.25f, -0.5f, 0.25f, -0.5f})) << "an empty chain";
    std::string log;
    auto a = std::make_shared<Probe>(&log, 'a', 2.0f), b = std::make_shared<Probe>(&log, 'b', 3.0f);
    auto off = std::make_shared<Probe>(&log, 'x', 0.0f);
    off->setEnabled(false);
    dsp->appendNode(a), dsp->appendNode(b), dsp->appendNode(off), dsp->appendNode(b);
    std::vector<float> expected;
    for (int i = 0; i < 256; ++i)
        expected.push_back(0.25f * 18), expected.push_back(-0.5f * 18);
    EXPECT_EQ(pull(stream, 2 * 256), expected);
    EXPECT_EQ(log.substr(0, 3), "abb");
    EXPECT_EQ(a->frames_, 256u);
    EXPECT_EQ(a->channels_, 2u);
    EXPECT_EQ(a->rate_, 44100u);

    // Channel 2 alone: one-channel blocks of length / 4 frames.
    const uint32_t all = dsp->dspHandle();
    dsp->setTargetChannel(2);
    EXPECT_NE(dsp->dspHandle(), all);
    EXPECT_NE(dsp->dspHandle(), 0u);
    const uint32_t second = dsp->dspHandle();
    dsp->setTargetChannel(2);
    EXPECT_EQ(dsp->dspHandle(), second) << "the same value does not register anew";
    dsp->removeAllNodes();
    dsp->appendNode(a);
    a->frames_ = 0;
    EXPECT_EQ(pull(stream, 4), (std::vector<float>{0.25f, -1.0f, 0.25f, -1.0f}));
    EXPECT_EQ(a->channels_, 1u);
    EXPECT_EQ(a->frames_, 2u);
}

TEST_F(TavroDSPTest, DefaultNodesAndCopiesKeepClassFlagAndParameters) {
    const std::vector<std::pair<TavroDSPNodeKind, TavroDSPNodeKind>> kinds = {
        {0, 0}, {1, 1},   {2, 2},   {3, 3},   {4, 4},   {5, 5},  {6, 6},  {7, 7},        {8, 8},
        {9, 9}, {10, 10}, {11, 11}, {12, 12}, {13, 13}, {14, 0}, {-1, 0}, {INT64_MIN, 0}};
    std::vector<float> noise(64);
    for (size_t i = 0; i < noise.size(); ++i)
        noise[i] = std::sin(static_cast<float>(i)) * 0.8f;
    for (auto [asked, kind] : kinds) {
        auto node = TavroDSP::defaultNodeOfKind(asked);
        EXPECT_EQ(node->kind(), kind) << "asked " << asked;
        EXPECT_TRUE(node->enabled());
        node->setEnabled(false);
        auto block = noise;
        node->processInterleavedFloat(block.data(), 32, 2, 44100);
        EXPECT_EQ(block, noise) << "a disabled node checks its own flag, kind " << kind;
        auto copy = node->copy();
        EXPECT_EQ(typeid(*copy), typeid(*node)) << "kind " << kind;
        EXPECT_FALSE(copy->enabled());
    }
    EXPECT_EQ(typeid(*TavroDSP::defaultNodeOfKind(10)), typeid(TavroDSPLowShelf));
    auto shelf = TavroDSPHighShelf::init();
    shelf->setCutoff(3000), shelf->setResonance(1.2f), shelf->setGainDB(4);
    shelf->processInterleavedFloat(noise.data(), 32, 2, 44100);
    auto copy = std::static_pointer_cast<TavroDSPHighShelf>(shelf->copy());
    EXPECT_EQ(std::tuple(copy->cutoff(), copy->resonance(), copy->gainDB()), std::tuple(3000.0f, 1.2f, 4.0f));
    EXPECT_EQ(copy->zChannels(), 0u) << "no filter memory";
}

TEST_F(TavroDSPTest, ChainsOnAPlayingStreamChangeWhatIsHeard) {
    BASS_SetConfig(BASS_CONFIG_BUFFER, 100);
    auto stream = testStream();
    auto all = TavroDSP::initWithStream(stream), right = TavroDSP::initWithStream(stream);
    auto gain = TavroDSPGain::init();
    gain->setGainDB(-6);
    all->appendNode(gain);
    right->setTargetChannel(2);
    right->appendNode(gain->copy());
    ASSERT_TRUE(stream->play(false));
    std::vector<float> heard(2 * 512);
    ASSERT_TRUE(waitFor(
        [&] { return BASS_ChannelGetData(stream->handle(), heard.data(), 4096) == 4096 && heard[0] > 100; },
        std::chrono::seconds(5)));
    const auto g = static_cast<float>(std::pow(10.0, -6.0 / 20.0));
    for (size_t f = 0; f < 512; ++f) {
        // Left: the ramp's frame numbers, scaled once; right: then once more.
        const float frame = std::round(heard[2 * f] / g);
        ASSERT_EQ(frame * g, heard[2 * f]) << f;
        ASSERT_EQ(frame, std::round(heard[0] / g) + static_cast<float>(f)) << f;
        ASSERT_EQ(heard[2 * f + 1], heard[2 * f] * g) << f;
    }
}
