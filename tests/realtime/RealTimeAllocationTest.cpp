// Nothing on the audio path reaches the allocator: the device's mix and every
// channel's DSP and effect chain, while an application thread changes
// everything it can change. This executable replaces operator new to count
// the allocations made inside the platform's real-time stretches.
#include "MediaFixtures.hpp"
#include "PlatformFixture.hpp"
#include "runtime/RealTime.hpp"

#include <bass_fx.h>
#include <tavro/analysis/TavroBPM.hpp>
#include <tavro/analysis/TavroVolumeNormalizer.hpp>
#include <tavro/dsp/TavroCrossfeed.hpp>
#include <tavro/dsp/TavroDSP.hpp>
#include <tavro/dsp/TavroDSPBiquad.hpp>
#include <tavro/dsp/TavroDSPBitCrusher.hpp>
#include <tavro/dsp/TavroDSPDelay.hpp>
#include <tavro/dsp/TavroDSPRingModulator.hpp>
#include <tavro/dsp/TavroDSPSoftClip.hpp>
#include <tavro/dsp/TavroDSPStereoWidth.hpp>
#include <tavro/dsp/TavroDSPTremolo.hpp>
#include <tavro/sources/TavroFileSource.hpp>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<uint64_t> realTimeAllocations{0};
// Calls of the test's own DSPs made inside a marked stretch: without them the
// count above would say nothing.
std::atomic<uint64_t> markedCalls{0};
void noteCall() {
    if (tavro::platform::inRealTimeScope()) markedCalls.fetch_add(1, std::memory_order_relaxed);
}
std::atomic<size_t> largestRealTimeAllocation{0};

void* allocate(size_t n, size_t align = 0) {
    if (tavro::platform::inRealTimeScope()) {
        realTimeAllocations.fetch_add(1, std::memory_order_relaxed);
        size_t seen = largestRealTimeAllocation.load(std::memory_order_relaxed);
        while (n > seen && !largestRealTimeAllocation.compare_exchange_weak(seen, n)) {
        }
    }
    if (n == 0) n = 1;
    return align ? std::aligned_alloc(align, (n + align - 1) / align * align) : std::malloc(n);
}
} // namespace

void* operator new(size_t n) {
    if (void* p = allocate(n)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t n) { return operator new(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept { return allocate(n); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return allocate(n); }
void* operator new(size_t n, std::align_val_t a) {
    if (void* p = allocate(n, static_cast<size_t>(a))) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t n, std::align_val_t a) { return operator new(n, a); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t, std::align_val_t) noexcept { std::free(p); }

using namespace tavro::test;
using namespace std::chrono_literals;

namespace {

class RealTimeAllocationTest : public MediaTestOn<FloatDspTest> {
  protected:
    void SetUp() override {
        FloatDspTest::SetUp();
        realTimeAllocations = 0;
        largestRealTimeAllocation = 0;
        markedCalls = 0;
    }
    static std::string tone(const char* name) {
        const std::string path = media_->path(name);
        writeWav16(path, testSignal(44100 * 2, 2, 44100), 44100, 2);
        return path;
    }
    void expectNone() {
        EXPECT_GT(markedCalls.load(), 0u) << "the chain never ran inside a marked stretch";
        EXPECT_EQ(realTimeAllocations.load(), 0u) << "largest: " << largestRealTimeAllocation.load() << " bytes";
    }
};

// A node of the library's chain that only notes where it runs.
class Marker final : public TavroDSPNode {
  public:
    void processInterleavedFloat(float*, uint64_t, uint64_t, uint64_t) override { noteCall(); }
    TavroDSPNodeKind kind() const override { return 100; }
    std::shared_ptr<TavroDSPNode> copy() const override { return std::make_shared<Marker>(); }
};

} // namespace

// Every platform effect and a DSP on a looping file, edited while it plays:
// parameters glide, effects come, go and change order, attributes slide,
// the position jumps.
TEST_F(RealTimeAllocationTest, EffectsAndAttributesChangedWhilePlaying) {
    HSTREAM h = BASS_StreamCreateFile(FALSE, tone("fx.wav").c_str(), 0, 0, BASS_SAMPLE_LOOP | BASS_SAMPLE_FLOAT);
    ASSERT_NE(h, 0u);
    const DWORD types[] = {BASS_FX_DX8_CHORUS, BASS_FX_DX8_COMPRESSOR, BASS_FX_DX8_DISTORTION, BASS_FX_DX8_ECHO,
                           BASS_FX_DX8_FLANGER, BASS_FX_DX8_PARAMEQ, BASS_FX_DX8_REVERB, BASS_FX_BFX_ROTATE,
                           BASS_FX_BFX_PEAKEQ, BASS_FX_BFX_DAMP, BASS_FX_BFX_AUTOWAH, BASS_FX_BFX_PHASER,
                           BASS_FX_BFX_CHORUS, BASS_FX_BFX_COMPRESSOR2, BASS_FX_BFX_VOLUME_ENV, BASS_FX_BFX_BQF,
                           BASS_FX_BFX_ECHO4, BASS_FX_BFX_FREEVERB};
    std::vector<HFX> fx;
    for (DWORD t : types) {
        fx.push_back(BASS_ChannelSetFX(h, t, static_cast<int>(fx.size())));
        ASSERT_NE(fx.back(), 0u) << t;
    }
    BASS_ChannelSetDSP(h, [](HDSP, DWORD, void*, DWORD, void*) { noteCall(); }, nullptr, 0);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    std::vector<uint8_t> params(4096);
    for (int round = 0; round < 12; ++round) {
        // Each effect's own parameters read back and written again changed a
        // little: every one glides or crossfades to its new value.
        for (HFX f : fx) {
            if (!BASS_FXGetParameters(f, params.data())) continue;
            auto* first = reinterpret_cast<float*>(params.data());
            first[0] = first[0] * (round % 2 ? 0.9f : 1.1f);
            BASS_FXSetParameters(f, params.data());
        }
        BASS_ChannelSetAttribute(h, BASS_ATTRIB_VOL, round % 2 ? 0.5f : 1.0f);
        BASS_ChannelSlideAttribute(h, BASS_ATTRIB_PAN, round % 2 ? -0.5f : 0.5f, 30);
        BASS_ChannelSetAttribute(h, BASS_ATTRIB_FREQ, round % 2 ? 48000.0f : 44100.0f);
        BASS_FXSetPriority(fx[static_cast<size_t>(round) % fx.size()], 100 - round);
        HFX extra = BASS_ChannelSetFX(h, BASS_FX_BFX_BQF, 50);
        std::this_thread::sleep_for(25ms);
        BASS_ChannelRemoveFX(h, extra);
        BASS_ChannelSetPosition(h, BASS_ChannelSeconds2Bytes(h, 0.1 * round), BASS_POS_BYTE);
        std::this_thread::sleep_for(25ms);
    }
    EXPECT_GT(BASS_ChannelGetPosition(h, BASS_POS_BYTE), 0u);
    BASS_StreamFree(h);
    expectNone();
}

// The library's own nodes on a playing stream: a chain of every kind,
// crossfeed, the loudness normaliser and live beat detection.
TEST_F(RealTimeAllocationTest, LibraryNodesWhileTheirSettingsChange) {
    auto source = TavroFileSource::initWithFileURL(TavroURL::fileURLWithPath(tone("nodes.wav")));
    auto stream = TavroStream::streamWithSource(source, TavroSourceFlagFloat);
    ASSERT_TRUE(stream);
    auto dsp = TavroDSP::initWithStream(stream);
    auto biquad = TavroDSPPeaking::init();
    auto delay = TavroDSPDelay::init();
    auto tremolo = TavroDSPTremolo::init();
    auto crusher = TavroDSPBitCrusher::init();
    auto ring = TavroDSPRingModulator::init();
    auto clip = TavroDSPSoftClip::init();
    auto width = TavroDSPStereoWidth::init();
    for (std::shared_ptr<TavroDSPNode> n : std::initializer_list<std::shared_ptr<TavroDSPNode>>{biquad, delay, tremolo, crusher, ring, clip, width, std::make_shared<Marker>()})
        dsp->appendNode(n);
    auto crossfeed = TavroCrossfeed::initWithStream(stream);
    crossfeed->setEnabled(true);
    auto normalizer = TavroVolumeNormalizer::initWithStream(stream);
    normalizer->setEnabled(true);
    auto bpm = TavroBPM::initWithStream(stream);
    bpm->startBeatDetectionWithBlock([](double) {});
    ASSERT_TRUE(stream->play(false));
    for (int round = 0; round < 12; ++round) {
        const float k = round % 2 ? 1.0f : 2.0f;
        biquad->setCutoff(500 * k), biquad->setGainDB(3 * k);
        delay->setDelaySeconds(0.05f * k), delay->setFeedback(0.2f * k);
        tremolo->setRate(3 * k), crusher->setSampleRateReductionRatio(0.25f * k);
        ring->setCarrierFrequency(100 * k), clip->setDriveDB(3 * k), width->setWidth(0.5f * k);
        crossfeed->setCutoff(600 * k), crossfeed->setFeed(-4 * k);
        normalizer->setTargetLufs(-14 - 4 * k);
        if (round == 6) dsp->moveNodeAtIndex(0, 5);
        std::this_thread::sleep_for(50ms);
    }
    bpm->stopBeatDetection();
    stream->stop();
    expectNone();
}
