// Throughput of the sample-level DSP nodes on stereo 44.1 kHz float blocks of
// 1024 frames, against a plain copy loop of the same buffer (the memory
// ceiling) in the same run; and the share of one core a chain of eight mixed
// nodes takes on a stream that plays in real time.
//
// Node parameters are chosen so that the block neither grows nor decays over
// millions of in-place passes (no infinities, no denormals), without changing
// the work done per sample.
#include <bass.h>
#include <benchmark/benchmark.h>

#include <tavro/dsp/TavroDSP.hpp>
#include <tavro/dsp/TavroDSPBiquad.hpp>
#include <tavro/dsp/TavroDSPBitCrusher.hpp>
#include <tavro/dsp/TavroDSPDelay.hpp>
#include <tavro/dsp/TavroDSPGain.hpp>
#include <tavro/dsp/TavroDSPRingModulator.hpp>
#include <tavro/dsp/TavroDSPSoftClip.hpp>
#include <tavro/dsp/TavroDSPStereoWidth.hpp>
#include <tavro/dsp/TavroDSPTremolo.hpp>

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>
#include <vector>

namespace {

constexpr uint64_t kFrames = 1024;
constexpr uint64_t kChannels = 2;
constexpr uint64_t kRate = 44100;

// Noise around a DC offset: low-pass filters keep the offset for ever.
std::vector<float> signal() {
    std::vector<float> v(kFrames * kChannels);
    uint32_t seed = 1;
    for (auto& s : v) {
        seed = seed * 1664525u + 1013904223u;
        s = 0.25f + (static_cast<float>(seed >> 8) / 16777216.0f - 0.5f) * 0.5f;
    }
    return v;
}

void BM_CopyLoop(benchmark::State& state) {
    const auto src = signal();
    std::vector<float> dst(src.size());
    for (auto _ : state) {
        for (size_t i = 0; i < src.size(); ++i)
            dst[i] = src[i];
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFrames * kChannels));
}

void runNode(benchmark::State& state, const std::shared_ptr<TavroDSPNode>& node) {
    auto buf = signal();
    for (auto _ : state) {
        node->processInterleavedFloat(buf.data(), kFrames, kChannels, kRate);
        benchmark::DoNotOptimize(buf.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFrames * kChannels));
}

void BM_Gain(benchmark::State& state) {
    runNode(state, TavroDSPGain::init());
}
void BM_StereoWidth(benchmark::State& state) {
    runNode(state, TavroDSPStereoWidth::init());
}
void BM_BiquadLowPass(benchmark::State& state) {
    runNode(state, TavroDSPLowPass::init());
}
void BM_BiquadPeaking(benchmark::State& state) {
    auto n = TavroDSPPeaking::init();
    n->setGainDB(6);
    n->setCutoff(3000);
    runNode(state, n);
}
void BM_SoftClip(benchmark::State& state) {
    runNode(state, TavroDSPSoftClip::init());
}
void BM_BitCrusher(benchmark::State& state) {
    runNode(state, TavroDSPBitCrusher::init());
}
void BM_RingModulator(benchmark::State& state) {
    auto n = TavroDSPRingModulator::init();
    n->setMix(0);
    runNode(state, n);
}
void BM_Tremolo(benchmark::State& state) {
    auto n = TavroDSPTremolo::init();
    n->setDepth(0);
    runNode(state, n);
}
void BM_Delay(benchmark::State& state) {
    auto n = TavroDSPDelay::init();
    n->setMix(0);
    runNode(state, n);
}

std::vector<std::shared_ptr<TavroDSPNode>> eightMixedNodes() {
    auto hp = TavroDSPHighPass::init();
    hp->setCutoff(40);
    auto peak = TavroDSPPeaking::init();
    peak->setGainDB(3);
    auto gain = TavroDSPGain::init();
    gain->setGainDB(-3);
    auto width = TavroDSPStereoWidth::init();
    width->setWidth(1.2f);
    return {hp,
            peak,
            gain,
            TavroDSPSoftClip::init(),
            width,
            TavroDSPTremolo::init(),
            TavroDSPDelay::init(),
            TavroDSPRingModulator::init()};
}

DWORD noiseProc(HSTREAM, void* buffer, DWORD length, void* user) {
    auto* seed = static_cast<uint32_t*>(user);
    auto* out = static_cast<float*>(buffer);
    for (DWORD i = 0; i < length / 4; ++i) {
        *seed = *seed * 1664525u + 1013904223u;
        out[i] = (static_cast<float>(*seed >> 8) / 16777216.0f - 0.5f) * 0.5f;
    }
    return length;
}

// The chain's own cost per 1024-frame block, its list pick-up and channel
// query included, as a share of the block's duration.
void BM_ChainOfEightPerBlock(benchmark::State& state) {
    BASS_Init(0, kRate, 0, nullptr, nullptr);
    BASS_SetConfig(BASS_CONFIG_FLOATDSP, 1);
    uint32_t seed = 1;
    const HSTREAM h =
        BASS_StreamCreate(kRate, kChannels, BASS_SAMPLE_FLOAT | BASS_STREAM_DECODE, &noiseProc, &seed);
    // The chain reads the channel's format from the stream it is made on.
    struct Handed final : TavroSource {
        HSTREAM h;
        explicit Handed(HSTREAM handle) : h(handle) {}
        uint32_t createStreamWithFlags(TavroSourceFlags, TavroError*) override { return h; }
        std::string displayName() const override { return "noise"; }
    };
    auto s = TavroStream::streamWithSource(std::make_shared<Handed>(h), TavroSourceFlagFloat);
    auto dsp = TavroDSP::initWithStream(s);
    for (auto& n : eightMixedNodes())
        dsp->appendNode(n);
    auto buf = signal();
    for (auto _ : state) {
        dsp->processBuffer(buf.data(), static_cast<uint32_t>(buf.size() * 4));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFrames * kChannels));
    const double audioSeconds =
        static_cast<double>(kFrames) / kRate * static_cast<double>(state.iterations());
    state.counters["core_pct"] =
        benchmark::Counter(audioSeconds / 100.0, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    dsp.reset();
    s.reset();
    BASS_Free();
}

// The same chain on a stream that plays on the no-sound device: the time
// spent between two probe DSPs around the chain, over real time.
struct Stopwatch {
    std::chrono::steady_clock::time_point started;
    std::atomic<int64_t> nanoseconds{0};
    std::atomic<int64_t> blocks{0};
};

void startProbe(HDSP, DWORD, void*, DWORD, void* user) {
    static_cast<Stopwatch*>(user)->started = std::chrono::steady_clock::now();
}
void stopProbe(HDSP, DWORD, void*, DWORD, void* user) {
    auto* w = static_cast<Stopwatch*>(user);
    w->nanoseconds +=
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - w->started)
            .count();
    w->blocks += 1;
}

void BM_ChainOfEightOnPlayingStream(benchmark::State& state) {
    BASS_Init(0, kRate, 0, nullptr, nullptr);
    BASS_SetConfig(BASS_CONFIG_FLOATDSP, 1);
    uint32_t seed = 7;
    struct Handed final : TavroSource {
        uint32_t* seed;
        explicit Handed(uint32_t* s) : seed(s) {}
        uint32_t createStreamWithFlags(TavroSourceFlags, TavroError*) override {
            return BASS_StreamCreate(kRate, kChannels, BASS_SAMPLE_FLOAT, &noiseProc, seed);
        }
        std::string displayName() const override { return "noise"; }
    };
    auto s = TavroStream::streamWithSource(std::make_shared<Handed>(&seed), TavroSourceFlagFloat);
    Stopwatch watch;
    BASS_ChannelSetDSP(s->handle(), &startProbe, &watch, 1);
    auto dsp = TavroDSP::initWithStream(s);
    for (auto& n : eightMixedNodes())
        dsp->appendNode(n);
    BASS_ChannelSetDSP(s->handle(), &stopProbe, &watch, -1);
    s->play(false);
    double played = 0;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(3));
        played += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
    s->free();
    state.counters["core_pct"] = static_cast<double>(watch.nanoseconds.load()) / 1e9 / played * 100.0;
    state.counters["blocks"] = static_cast<double>(watch.blocks.load());
    dsp.reset();
    BASS_Free();
}

BENCHMARK(BM_CopyLoop);
BENCHMARK(BM_Gain);
BENCHMARK(BM_StereoWidth);
BENCHMARK(BM_BiquadLowPass);
BENCHMARK(BM_BiquadPeaking);
BENCHMARK(BM_SoftClip);
BENCHMARK(BM_BitCrusher);
BENCHMARK(BM_RingModulator);
BENCHMARK(BM_Tremolo);
BENCHMARK(BM_Delay);
BENCHMARK(BM_ChainOfEightPerBlock);
BENCHMARK(BM_ChainOfEightOnPlayingStream)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
