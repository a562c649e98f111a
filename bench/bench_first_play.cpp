// How soon the first play after starting the output is heard, on a sound
// server of the benchmark's own (a null sink, as on the test machines): each
// iteration starts the output, plays an endless stream and waits for its
// position to advance (the position follows what leaves the server, so it
// moves when the first frame is heard). Reported with the median and the worst
// of 20 starts. The peer in the same run is a later play on an output that is
// already running: the first play should cost no more than that.
#include <bass.h>
#include <benchmark/benchmark.h>

#include "PrivateSoundServer.hpp"

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

DWORD endless(HSTREAM, void* buffer, DWORD length, void*) {
    auto* out = static_cast<float*>(buffer);
    for (DWORD i = 0; i < length / 4; ++i) out[i] = 0.1f;
    return length;
}

tavro::test::PrivateSoundServer& server() {
    static tavro::test::PrivateSoundServer* s = [] {
        auto* p = new tavro::test::PrivateSoundServer();
        if (p->start()) p->use();
        return p;
    }();
    return *s;
}

// Seconds from play until the position moves, or 10 when it never does.
double untilHeard() {
    HSTREAM h = BASS_StreamCreate(48000, 2, BASS_SAMPLE_FLOAT, endless, nullptr);
    const auto t0 = Clock::now();
    BASS_ChannelPlay(h, FALSE);
    double s = 10;
    while (Clock::now() - t0 < std::chrono::seconds(10)) {
        if (BASS_ChannelGetPosition(h, BASS_POS_BYTE) > 0) {
            s = std::chrono::duration<double>(Clock::now() - t0).count();
            break;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    BASS_StreamFree(h);
    return s;
}

void report(benchmark::State& state, std::vector<double> times) {
    std::sort(times.begin(), times.end());
    state.counters["median_ms"] = times[times.size() / 2] * 1000;
    state.counters["worst_ms"] = times.back() * 1000;
}

// `later`: measure a second play, after one has already sounded.
void playAfterStart(benchmark::State& state, bool later) {
    server();
    std::vector<double> times;
    for (auto _ : state) {
        if (!BASS_Init(-1, 48000, 0, nullptr, nullptr) || BASS_GetDevice() == 0) {
            state.SkipWithError("no sound server");
            break;
        }
        if (later) untilHeard();
        const double s = untilHeard();
        state.SetIterationTime(s);
        times.push_back(s);
        BASS_Free();
        // Let the server's sink go idle again, as between two program runs.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    if (!times.empty()) report(state, times);
}

void BM_FirstPlayAfterStart(benchmark::State& state) { playAfterStart(state, false); }
void BM_LaterPlay(benchmark::State& state) { playAfterStart(state, true); }

BENCHMARK(BM_FirstPlayAfterStart)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LaterPlay)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
