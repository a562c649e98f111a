// Cost of the output mix per playing stream: volume, pan and (optionally)
// rate conversion of N stereo 44.1 kHz streams into a stereo device buffer.
// Reported as the share of one core the mix needs in real time.
#include <bass.h>
#include <benchmark/benchmark.h>

#include "channel/Channel.hpp"
#include "output/Device.hpp"

#include <cmath>
#include <vector>

namespace {

using namespace tavro::platform;

// A stream of noise-like content that never ends.
class SignalChannel final : public Channel {
  public:
    SignalChannel(DWORD freq, std::shared_ptr<Device> dev) : Channel(freq, 2, BASS_SAMPLE_FLOAT, BASS_CTYPE_STREAM, std::move(dev)) {}

  protected:
    size_t produce(float* out, size_t frames) override {
        for (size_t i = 0; i < frames * 2; ++i) {
            state_ = state_ * 1664525u + 1013904223u;
            out[i] = static_cast<float>(state_ >> 8) / 16777216.0f - 0.5f;
        }
        return frames;
    }
    bool sourceEnded() const override { return false; }

  private:
    uint32_t state_ = 1;
};

void mixStreams(benchmark::State& state, DWORD deviceRate) {
    const int streams = static_cast<int>(state.range(0));
    BASS_Init(0, deviceRate, 0, nullptr, nullptr);
    auto dev = Device::current();
    std::vector<std::shared_ptr<SignalChannel>> chans;
    for (int i = 0; i < streams; ++i) {
        auto c = std::make_shared<SignalChannel>(44100, dev);
        Handles::add(c);
        c->setAttribute(BASS_ATTRIB_VOL, 0.5f);
        c->setAttribute(BASS_ATTRIB_PAN, -0.5f + static_cast<float>(i % 10) / 10.0f);
        c->play(false);
        chans.push_back(c);
    }
    // Take the device thread out: the benchmark drives the mix itself.
    BASS_Pause();
    constexpr size_t kBlock = 480;
    std::vector<float> out(kBlock * 2);
    for (auto _ : state) {
        state.PauseTiming();
        for (auto& c : chans) c->fillRing(4 * kBlock);
        state.ResumeTiming();
        dev->render(out.data(), kBlock);
        benchmark::DoNotOptimize(out.data());
    }
    const double audioSeconds = static_cast<double>(kBlock) / deviceRate * static_cast<double>(state.iterations());
    // CPU seconds per audio second, as a percentage of one core.
    state.counters["core_pct"] = benchmark::Counter(audioSeconds / 100.0, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["streams"] = streams;
    for (auto& c : chans) {
        Handles::remove(c->handle());
        c->free();
    }
    BASS_Free();
}

void BM_MixSameRate(benchmark::State& state) { mixStreams(state, 44100); }
void BM_MixWithRateConversion(benchmark::State& state) { mixStreams(state, 48000); }

BENCHMARK(BM_MixSameRate)->Arg(1)->Arg(100)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MixWithRateConversion)->Arg(1)->Arg(100)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
