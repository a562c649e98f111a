// Cost of the tempo and reverse stages on a stereo 44.1 kHz source: pass-
// through, tempo and pitch changes with each interpolation, and playing
// backwards. Reported as the share of one core needed in real time, and the
// cost of making a tempo stage.
#include <bass.h>
#include <bass_fx.h>
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

constexpr DWORD kRate = 44100;
constexpr size_t kBlock = 4096;

// Noise-like content that never ends.
DWORD noise(HSTREAM, void* buffer, DWORD length, void* user) {
    auto* state = static_cast<uint32_t*>(user);
    auto* out = static_cast<float*>(buffer);
    for (DWORD i = 0; i < length / 4; ++i) {
        *state = *state * 1664525u + 1013904223u;
        out[i] = static_cast<float>(*state >> 8) / 16777216.0f - 0.5f;
    }
    return length;
}

void report(benchmark::State& state) {
    const double audioSeconds = static_cast<double>(kBlock) / kRate * static_cast<double>(state.iterations());
    // CPU seconds per audio second, as a percentage of one core.
    state.counters["core_pct"] =
        benchmark::Counter(audioSeconds / 100.0, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.SetItemsProcessed(static_cast<int64_t>(kBlock) * state.iterations());
}

void tempoStage(benchmark::State& state, float tempo, float pitch, DWORD algo) {
    BASS_Init(0, kRate, 0, nullptr, nullptr);
    uint32_t seed = 1;
    HSTREAM src = BASS_StreamCreate(kRate, 2, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT, noise, &seed);
    HSTREAM t = BASS_FX_TempoCreate(src, BASS_STREAM_DECODE | BASS_FX_FREESOURCE | algo);
    BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO, tempo);
    BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO_PITCH, pitch);
    std::vector<float> out(kBlock * 2);
    for (auto _ : state) {
        BASS_ChannelGetData(t, out.data(), static_cast<DWORD>(out.size() * 4) | BASS_DATA_FLOAT);
        benchmark::DoNotOptimize(out.data());
    }
    report(state);
    BASS_StreamFree(t);
    BASS_Free();
}

void BM_TempoPassThrough(benchmark::State& s) {
    tempoStage(s, 0, 0, 0);
}
void BM_TempoPlus25(benchmark::State& s) {
    tempoStage(s, 25, 0, 0);
}
void BM_PitchUp3Linear(benchmark::State& s) {
    tempoStage(s, 0, 3, BASS_FX_TEMPO_ALGO_LINEAR);
}
void BM_PitchUp3Cubic(benchmark::State& s) {
    tempoStage(s, 0, 3, BASS_FX_TEMPO_ALGO_CUBIC);
}
void BM_PitchUp3Shannon(benchmark::State& s) {
    tempoStage(s, 0, 3, BASS_FX_TEMPO_ALGO_SHANNON);
}

// Creation primes the processing's buffers; this is what it costs.
void BM_TempoCreate(benchmark::State& state) {
    BASS_Init(0, kRate, 0, nullptr, nullptr);
    uint32_t seed = 1;
    for (auto _ : state) {
        HSTREAM src = BASS_StreamCreate(kRate, 2, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT, noise, &seed);
        HSTREAM t = BASS_FX_TempoCreate(src, BASS_STREAM_DECODE | BASS_FX_FREESOURCE);
        BASS_StreamFree(t);
    }
    BASS_Free();
}

// Backwards over a decoded file of noise written to memory as WAV.
void BM_ReverseBackwards(benchmark::State& state) {
    BASS_Init(0, kRate, 0, nullptr, nullptr);
    const size_t frames = 60 * kRate;
    std::vector<uint8_t> wav(44 + frames * 4);
    auto put32 = [&](size_t at, uint32_t v) { std::memcpy(wav.data() + at, &v, 4); };
    auto put16 = [&](size_t at, uint16_t v) { std::memcpy(wav.data() + at, &v, 2); };
    std::memcpy(wav.data(), "RIFF", 4);
    put32(4, static_cast<uint32_t>(wav.size() - 8));
    std::memcpy(wav.data() + 8, "WAVEfmt ", 8);
    put32(16, 16);
    put16(20, 1);
    put16(22, 2);
    put32(24, kRate);
    put32(28, kRate * 4);
    put16(32, 4);
    put16(34, 16);
    std::memcpy(wav.data() + 36, "data", 4);
    put32(40, static_cast<uint32_t>(frames * 4));
    uint32_t seed = 1;
    for (size_t i = 0; i < frames * 2; ++i) {
        seed = seed * 1664525u + 1013904223u;
        put16(44 + i * 2, static_cast<uint16_t>(seed >> 16));
    }
    HSTREAM src =
        BASS_StreamCreateFile(TRUE, wav.data(), 0, wav.size(), BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT);
    HSTREAM r = BASS_FX_ReverseCreate(src, 2.0f, BASS_STREAM_DECODE | BASS_FX_FREESOURCE | BASS_SAMPLE_LOOP);
    if (!r) {
        state.SkipWithError("the reverse stage could not be made");
        BASS_Free();
        return;
    }
    std::vector<float> out(kBlock * 2);
    for (auto _ : state) {
        BASS_ChannelGetData(r, out.data(), static_cast<DWORD>(out.size() * 4) | BASS_DATA_FLOAT);
        benchmark::DoNotOptimize(out.data());
    }
    report(state);
    BASS_StreamFree(r);
    BASS_Free();
}

} // namespace

BENCHMARK(BM_TempoPassThrough);
BENCHMARK(BM_TempoPlus25);
BENCHMARK(BM_PitchUp3Linear);
BENCHMARK(BM_PitchUp3Cubic);
BENCHMARK(BM_PitchUp3Shannon);
BENCHMARK(BM_TempoCreate)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReverseBackwards);
BENCHMARK_MAIN();
