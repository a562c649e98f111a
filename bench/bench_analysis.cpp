// Analysis costs: the normaliser core on stereo 44.1 kHz blocks, a spectrum
// read of a playing stream, the offline tempo and loudness scans of a
// 5-minute MP3 (decoding included), and the offline tempo and beat scans of a
// 2-hour stream (no decoding: a drum loop copied out of memory), each
// reported as a real-time factor where that is the figure of merit.
#include <bass.h>
#include <bass_fx.h>
#include <benchmark/benchmark.h>

#include <tavro/analysis/R128Normalizer.hpp>
#include <tavro/analysis/TavroLoudness.hpp>
#include <tavro/sources/TavroFileSource.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned kRate = 44100;
constexpr double kTrackSeconds = 300;

// Kick, snare and hat at 124 BPM over quiet noise, stereo: enough texture for
// the scans to do their real work.
std::vector<float> drumLoop(double seconds) {
    const auto frames = static_cast<size_t>(seconds * kRate);
    std::vector<float> v(frames * 2);
    const double beat = 60.0 / 124.0;
    uint32_t seed = 7;
    for (size_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / kRate;
        const double inBeat = std::fmod(t, beat), inHalf = std::fmod(t, beat / 2);
        const int beatNo = static_cast<int>(t / beat) % 4;
        seed = seed * 1664525u + 1013904223u;
        const double noise = static_cast<double>(seed >> 8) / 16777216.0 - 0.5;
        double s = 0.05 * noise;
        s += 0.6 * std::sin(2 * M_PI * (50 + 70 * std::exp(-inBeat / 0.04)) * inBeat) * std::exp(-inBeat / 0.18);
        if (beatNo % 2 == 1) s += 0.4 * noise * std::exp(-inBeat / 0.07);
        s += 0.15 * noise * std::exp(-inHalf / 0.012);
        v[2 * i] = v[2 * i + 1] = static_cast<float>(s);
    }
    return v;
}

// The 5-minute MP3, made once per run with Debian's ffmpeg.
const std::string& trackPath() {
    static const std::string path = [] {
        char dir[] = "/tmp/tavro-bench.XXXXXX";
        const std::string base = mkdtemp(dir);
        const std::string raw = base + "/track.f32", mp3 = base + "/track.mp3";
        const auto pcm = drumLoop(kTrackSeconds);
        std::ofstream(raw, std::ios::binary)
            .write(reinterpret_cast<const char*>(pcm.data()), static_cast<std::streamsize>(pcm.size() * 4));
        const std::string cmd = "ffmpeg -nostdin -v error -y -f f32le -ar 44100 -ac 2 -i '" + raw +
                                "' -b:a 192k '" + mp3 + "'";
        if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "bench: ffmpeg failed\n");
        std::remove(raw.c_str());
        return mp3;
    }();
    return path;
}

struct Platform {
    Platform() {
        BASS_Init(0, kRate, 0, nullptr, nullptr);
        BASS_SetConfig(BASS_CONFIG_FLOATDSP, 1);
    }
    ~Platform() { BASS_Free(); }
};

void BM_NormalizerCore(benchmark::State& state) {
    constexpr uint64_t kBlock = 1024;
    R128NormalizerState* st = r128_normalizer_create(2, 8192, kRate);
    auto block = drumLoop(static_cast<double>(kBlock) / kRate);
    for (auto _ : state) {
        r128_normalizer_process_interleaved(st, block.data(), kBlock);
        benchmark::DoNotOptimize(block.data());
    }
    r128_normalizer_destroy(st);
    const double audio = static_cast<double>(state.iterations() * kBlock) / kRate;
    state.counters["realtime_x"] = benchmark::Counter(audio, benchmark::Counter::kIsRate);
}

void BM_SpectrumRead2048(benchmark::State& state) {
    Platform platform;
    const auto pcm = drumLoop(20);
    HSTREAM h = BASS_StreamCreate(kRate, 2, BASS_SAMPLE_FLOAT, STREAMPROC_PUSH, nullptr);
    BASS_StreamPutData(h, pcm.data(), static_cast<DWORD>(pcm.size() * 4) | BASS_STREAMPROC_END);
    BASS_ChannelPlay(h, FALSE);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::vector<float> mags(1024);
    for (auto _ : state) {
        if (BASS_ChannelGetData(h, mags.data(), BASS_DATA_FFT2048) == 0xFFFFFFFF) state.SkipWithError("read failed");
        benchmark::DoNotOptimize(mags.data());
    }
    BASS_StreamFree(h);
}

void BM_OfflineTempo5Min(benchmark::State& state) {
    Platform platform;
    const std::string& path = trackPath();
    float bpm = 0;
    for (auto _ : state) {
        HSTREAM h = BASS_StreamCreateFile(FALSE, path.c_str(), 0, 0, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT);
        bpm = BASS_FX_BPM_DecodeGet(h, 0, kTrackSeconds, (180u << 16) | 60u, 0, nullptr, nullptr);
        BASS_StreamFree(h);
    }
    state.counters["bpm"] = bpm;
    state.counters["realtime_x"] =
        benchmark::Counter(kTrackSeconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// A decoding stream that repeats one minute of the drum loop (124 beats, so
// the seams fall on the beat) for as long as it is read.
struct Loop {
    std::vector<float> pcm = drumLoop(60.0);
    size_t pos = 0;
};

DWORD loopProc(HSTREAM, void* buffer, DWORD length, void* user) {
    auto* loop = static_cast<Loop*>(user);
    auto* out = static_cast<float*>(buffer);
    for (size_t i = 0, n = length / sizeof(float); i < n;) {
        const size_t take = std::min(n - i, loop->pcm.size() - loop->pos);
        std::copy_n(loop->pcm.data() + loop->pos, take, out + i);
        i += take;
        loop->pos = (loop->pos + take) % loop->pcm.size();
    }
    return length;
}

constexpr double kLongSeconds = 2 * 3600;

void BM_OfflineTempo2Hours(benchmark::State& state) {
    Platform platform;
    Loop loop;
    float bpm = 0;
    for (auto _ : state) {
        loop.pos = 0;
        HSTREAM h = BASS_StreamCreate(kRate, 2, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT, loopProc, &loop);
        bpm = BASS_FX_BPM_DecodeGet(h, 0, kLongSeconds, (180u << 16) | 60u, 0, nullptr, nullptr);
        BASS_StreamFree(h);
    }
    state.counters["bpm"] = bpm;
    state.counters["realtime_x"] = benchmark::Counter(kLongSeconds * static_cast<double>(state.iterations()),
                                                      benchmark::Counter::kIsRate);
}

void BM_OfflineBeats2Hours(benchmark::State& state) {
    Platform platform;
    Loop loop;
    size_t beats = 0;
    for (auto _ : state) {
        loop.pos = 0;
        beats = 0;
        HSTREAM h = BASS_StreamCreate(kRate, 2, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT, loopProc, &loop);
        BASS_FX_BPM_BeatDecodeGet(
            h, 0, kLongSeconds, 0, [](DWORD, double, void* user) { ++*static_cast<size_t*>(user); }, &beats);
        BASS_StreamFree(h);
    }
    state.counters["beats"] = static_cast<double>(beats);
    state.counters["realtime_x"] = benchmark::Counter(kLongSeconds * static_cast<double>(state.iterations()),
                                                      benchmark::Counter::kIsRate);
}

void BM_OfflineLoudness5Min(benchmark::State& state) {
    Platform platform;
    const auto source = TavroFileSource::initWithFileURL(TavroURL::fileURLWithPath(trackPath()));
    double lufs = 0;
    for (auto _ : state) lufs = TavroLoudness::scanIntegratedLoudnessForSource(source);
    state.counters["lufs"] = lufs;
    state.counters["realtime_x"] =
        benchmark::Counter(kTrackSeconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

} // namespace

BENCHMARK(BM_NormalizerCore);
BENCHMARK(BM_SpectrumRead2048);
BENCHMARK(BM_OfflineTempo5Min)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_OfflineTempo2Hours)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_OfflineBeats2Hours)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_OfflineLoudness5Min)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_MAIN();
