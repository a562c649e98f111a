// The DSP chain and the crossfeed edited and retuned from application threads
// while a stream plays. Run under ThreadSanitizer by scripts/test.
#include "TestSource.hpp"

#include <tavro/dsp/TavroCrossfeed.hpp>
#include <tavro/dsp/TavroDSP.hpp>
#include <tavro/dsp/TavroDSPBiquad.hpp>
#include <tavro/dsp/TavroDSPDelay.hpp>
#include <tavro/dsp/TavroDSPGain.hpp>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

using namespace tavro::test;

namespace {

// Counts blocks and lingers in each, writing its own memory throughout, so
// that a node freed under a running block shows in the sanitizers.
class Lingering final : public TavroDSPNode {
  public:
    explicit Lingering(std::atomic<int>* blocks) : blocks_(blocks) {}
    void processInterleavedFloat(float*, uint64_t, uint64_t, uint64_t) override {
        blocks_->fetch_add(1);
        for (float& s : scratch_) {
            s += 1.0f;
            std::this_thread::sleep_for(std::chrono::microseconds(10));
        }
    }
    TavroDSPNodeKind kind() const override { return 100; }
    std::shared_ptr<TavroDSPNode> copy() const override { return std::make_shared<Lingering>(blocks_); }

  private:
    std::atomic<int>* blocks_;
    std::vector<float> scratch_ = std::vector<float>(10, 0.0f);
};

class ConcurrencyDSPTest : public FloatDspTest {
  protected:
    void SetUp() override {
        FloatDspTest::SetUp();
        BASS_SetConfig(BASS_CONFIG_BUFFER, 50);
        BASS_SetConfig(BASS_CONFIG_UPDATEPERIOD, 5);
        stream_ = testStream();
        ASSERT_TRUE(stream_);
        dsp_ = TavroDSP::initWithStream(stream_);
        dsp_->appendNode(std::make_shared<Lingering>(&blocks_));
        ASSERT_TRUE(stream_->play(false));
        ASSERT_TRUE(waitFor([&] { return blocks_.load() > 0; }, std::chrono::seconds(5)));
    }
    // From two threads at once for 0.7 s; then the chain must still run, and
    // is destroyed while the stream plays.
    void hammer(const std::function<void(int)>& first, const std::function<void(int)>& second) {
        auto loop = [](const std::function<void(int)>& step) {
            const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(700);
            for (int i = 0; std::chrono::steady_clock::now() < end; ++i)
                step(i), std::this_thread::sleep_for(std::chrono::microseconds(150));
        };
        std::thread a(loop, first), b(loop, second);
        a.join(), b.join();
        dsp_->setTargetChannel(0);
        dsp_->appendNode(std::make_shared<Lingering>(&blocks_));
        const int before = blocks_.load();
        EXPECT_TRUE(waitFor([&] { return blocks_.load() > before; }, std::chrono::seconds(5)))
            << "still running";
        dsp_.reset();
        stream_->free();
    }
    std::atomic<int> blocks_{0};
    std::shared_ptr<TavroStream> stream_;
    std::shared_ptr<TavroDSP> dsp_;
};

} // namespace

TEST_F(ConcurrencyDSPTest, NodesAppendedMovedAndRemovedWhilePlaying) {
    hammer(
        [&](int i) {
            // Removed nodes die on this thread, often while a block runs them.
            dsp_->appendNode(std::make_shared<Lingering>(&blocks_));
            dsp_->insertNode(TavroDSP::defaultNodeOfKind(i % 14), static_cast<uint64_t>(i % 5));
            dsp_->moveNodeAtIndex(static_cast<uint64_t>(i % 7), static_cast<uint64_t>(i % 3));
            const auto nodes = dsp_->nodes();
            if (nodes.size() > 6)
                dsp_->removeNode(nodes[static_cast<size_t>(i) % nodes.size()]), dsp_->removeNode(nodes[0]);
            if (i % 50 == 49) dsp_->removeAllNodes();
        },
        [&](int) {
            for (auto& n : dsp_->nodes())
                n->setEnabled(!n->enabled());
        });
}

TEST_F(ConcurrencyDSPTest, CrossfeedAndNodeParametersChangedWhilePlaying) {
    auto crossfeed = TavroCrossfeed::initWithStream(stream_);
    crossfeed->setEnabled(true);
    auto gain = TavroDSPGain::init();
    gain->setGainDB(-90); // the ramp's values grow large
    auto peak = TavroDSPPeaking::init();
    auto delay = TavroDSPDelay::init();
    dsp_->appendNode(gain), dsp_->appendNode(peak), dsp_->appendNode(delay);
    hammer(
        [&](int i) {
            crossfeed->setCutoff(300.0f + static_cast<float>(i % 17) * 100.0f);
            crossfeed->setFeed(static_cast<float>(i % 13));
            if (i % 10 == 0) crossfeed->reset();
            if (i % 25 == 0) crossfeed->setEnabled(i % 50 != 0);
        },
        [&](int i) {
            const auto f = static_cast<float>(i % 20);
            peak->setCutoff(200 + f * 300), peak->setResonance(0.3f + f / 10), peak->setGainDB(f - 10);
            // Longer and shorter lines: the audio thread remakes and trims it.
            delay->setDelaySeconds(0.01f + f / 100), delay->setFeedback(f / 25), delay->setMix(f / 20);
            if (i % 40 == 0) dsp_->setTargetChannel(static_cast<uint64_t>((i / 40) % 3));
        });
    crossfeed.reset();
}
