// Cost of the whole path a playing stream takes: its source rendered into
// its ring by the update side, then volume, pan and (optionally) rate
// conversion into a stereo device buffer, for N stereo 44.1 kHz streams.
// Reported as the share of one core that needs in real time. The source is a
// cheap noise generator, so the figure is the engine's own cost, not a
// decoder's. Also: how long starting one more stream takes while N play on a
// running output, and what a playing stream costs in memory.
#include <bass.h>
#include <benchmark/benchmark.h>

#include "channel/Channel.hpp"
#include "output/Device.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <unistd.h>
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
        for (auto& c : chans) c->fillRing(4 * kBlock);
        dev->render(out.data(), kBlock);
        benchmark::DoNotOptimize(out.data());
    }
    const double audioSeconds = static_cast<double>(kBlock) / deviceRate * static_cast<double>(state.iterations());
    // CPU seconds per audio second, as a percentage of one core.
    state.counters["core_pct"] = benchmark::Counter(audioSeconds / 100.0, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    // Per stream: constant from 1 to 1000 streams when nothing grows with N.
    state.counters["core_pct_per_stream"] =
        benchmark::Counter(audioSeconds * streams / 100.0, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    for (auto& c : chans) {
        Handles::remove(c->handle());
        c->free();
    }
    BASS_Free();
}

long residentKiB() {
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// N streams play on the running no-sound device (its own threads mix them);
// each iteration starts one more stream and stops it. The worst and mean
// start, and the resident memory each playing stream added.
void BM_PlayWhileOthersPlay(benchmark::State& state) {
    const int streams = static_cast<int>(state.range(0));
    BASS_Init(0, 44100, 0, nullptr, nullptr);
    auto dev = Device::current();
    const long before = residentKiB();
    std::vector<std::shared_ptr<SignalChannel>> chans;
    for (int i = 0; i < streams; ++i) {
        auto c = std::make_shared<SignalChannel>(44100, dev);
        Handles::add(c);
        c->play(false);
        chans.push_back(c);
    }
    const long after = residentKiB();
    auto extra = std::make_shared<SignalChannel>(44100, dev);
    Handles::add(extra);
    double worst = 0, total = 0;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        extra->play(true);
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        state.SetIterationTime(s);
        worst = std::max(worst, s), total += s;
        extra->stop();
    }
    state.counters["worst_ms"] = worst * 1000;
    state.counters["mean_ms"] = total * 1000 / static_cast<double>(state.iterations());
    // A fresh stream's first play: its ring and short history are made then.
    double firstWorst = 0;
    for (int i = 0; i < 50; ++i) {
        auto fresh = std::make_shared<SignalChannel>(44100, dev);
        Handles::add(fresh);
        const auto t0 = std::chrono::steady_clock::now();
        fresh->play(false);
        firstWorst = std::max(firstWorst, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        Handles::remove(fresh->handle());
        fresh->free();
    }
    state.counters["first_play_worst_ms"] = firstWorst * 1000;
    state.counters["kB_per_stream"] = static_cast<double>(after - before) / streams;
    for (auto& c : chans) {
        Handles::remove(c->handle());
        c->free();
    }
    Handles::remove(extra->handle());
    extra->free();
    BASS_Free();
}

// N looping 44.1 kHz MP3 streams decoded and played in real time on the
// no-sound device by the engine's own threads, for three seconds: the share
// of real time the audio threads were busy (BASS_GetCPU) and the device
// blocks in which some stream ran dry. Real time holds while the busy share
// stays under the machine's cores and no block runs dry.
void BM_Mp3StreamsInRealTime(benchmark::State& state) {
    const int streams = static_cast<int>(state.range(0));
    const std::string path = "/tmp/tavro-bench-media/twenty-seconds.mp3";
    const std::string make = "mkdir -p /tmp/tavro-bench-media && [ -s " + path +
                             " ] || ffmpeg -nostdin -v error -y -f lavfi -i \"aevalsrc='0.3*sin(2*PI*220*t)|0.3*sin(2*PI*330*t)'"
                             ":s=44100:d=20\" -c:a libmp3lame -b:a 192k " + path;
    if (std::system(make.c_str()) != 0) {
        state.SkipWithError("could not make the test file");
        return;
    }
    BASS_Init(0, 44100, 0, nullptr, nullptr);
    std::vector<HSTREAM> handles;
    for (int i = 0; i < streams; ++i) {
        HSTREAM h = BASS_StreamCreateFile(FALSE, path.c_str(), 0, 0, BASS_SAMPLE_FLOAT | BASS_SAMPLE_LOOP);
        BASS_ChannelSetAttribute(h, BASS_ATTRIB_VOL, 0.001f);
        BASS_ChannelPlay(h, FALSE);
        handles.push_back(h);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    for (auto _ : state) {
        BASS_GetCPU();
        const uint64_t before = underruns();
        std::this_thread::sleep_for(std::chrono::seconds(3));
        const float cpu = BASS_GetCPU();
        state.SetIterationTime(3);
        state.counters["busy_pct"] = cpu;
        state.counters["busy_pct_per_stream"] = cpu / static_cast<float>(streams);
        state.counters["underruns"] = static_cast<double>(underruns() - before);
    }
    for (HSTREAM h : handles) BASS_StreamFree(h);
    BASS_Free();
}

void BM_MixSameRate(benchmark::State& state) { mixStreams(state, 44100); }
void BM_MixWithRateConversion(benchmark::State& state) { mixStreams(state, 48000); }

BENCHMARK(BM_MixSameRate)->Arg(1)->Arg(10)->Arg(100)->Arg(500)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MixWithRateConversion)->Arg(1)->Arg(100)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Mp3StreamsInRealTime)->Arg(1)->Arg(10)->Arg(100)->Arg(500)->Arg(1000)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_PlayWhileOthersPlay)->Arg(10)->Arg(1000)->Iterations(200)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
