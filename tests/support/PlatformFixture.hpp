// Shared helpers for tests of the audio platform.
#pragma once

#include <bass.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace tavro::test {

// Initialises the no-sound device for each test and frees it afterwards.
class NoSoundTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(BASS_Init(0, 44100, 0, nullptr, nullptr)) << BASS_ErrorGetCode(); }
    void TearDown() override { BASS_Free(); }
};

// The same, with DSPs handed float samples.
class FloatDspTest : public NoSoundTest {
  protected:
    void SetUp() override {
        NoSoundTest::SetUp();
        BASS_SetConfig(BASS_CONFIG_FLOATDSP, 1);
    }
};

inline std::vector<float> sine(double freq, double rate, size_t frames, unsigned chans, float amp) {
    std::vector<float> v(frames * chans);
    for (size_t i = 0; i < frames; ++i)
        for (unsigned c = 0; c < chans; ++c)
            v[i * chans + c] = amp * static_cast<float>(std::sin(2 * M_PI * freq * static_cast<double>(i) / rate));
    return v;
}

// White noise in [-amp, amp), the same for the same seed.
inline std::vector<float> noise(size_t n, uint32_t seed, float amp = 1.0f) {
    std::vector<float> v(n);
    for (auto& s : v)
        s = (static_cast<float>((seed = seed * 1664525u + 1013904223u) >> 8) / 8388608.0f - 1.0f) * amp;
    return v;
}

// Polls until the predicate holds or the timeout passes.
inline bool waitFor(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < end) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return pred();
}

// Calls `step` over and over for `d`.
inline void runFor(std::chrono::milliseconds d, const std::function<void()>& step) {
    for (const auto end = std::chrono::steady_clock::now() + d; std::chrono::steady_clock::now() < end;) step();
}

// What a shell command prints (reference tools in the comparisons).
inline std::string runCommand(const std::string& cmd) {
    std::string out;
    if (FILE* p = popen(cmd.c_str(), "r")) {
        char buf[256];
        while (std::fgets(buf, sizeof buf, p)) out += buf;
        pclose(p);
    }
    return out;
}

// Reads a decoding channel to its end, or `limit` frames, as float frames.
inline std::vector<float> decodeAll(DWORD h, unsigned chans, size_t limit = SIZE_MAX) {
    std::vector<float> out, buf(4096 * chans);
    while (out.size() / chans < limit) {
        const size_t want = std::min<size_t>(4096, limit - out.size() / chans);
        const DWORD got = BASS_ChannelGetData(h, buf.data(), static_cast<DWORD>(want * chans * 4) | BASS_DATA_FLOAT);
        if (got == 0xFFFFFFFF || got == 0) break;
        out.insert(out.end(), buf.begin(), buf.begin() + got / 4);
    }
    return out;
}

inline double correlation(const std::vector<float>& a, const std::vector<float>& b) {
    double ab = 0, aa = 0, bb = 0;
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) ab += a[i] * b[i], aa += a[i] * a[i], bb += b[i] * b[i];
    return ab / std::sqrt(aa * bb);
}

inline HSTREAM pushStream(DWORD freq, DWORD chans, DWORD flags, const std::vector<float>& data, bool end) {
    HSTREAM h = BASS_StreamCreate(freq, chans, flags | BASS_SAMPLE_FLOAT, STREAMPROC_PUSH, nullptr);
    if (h) {
        DWORD len = static_cast<DWORD>(data.size() * sizeof(float));
        if (end) len |= BASS_STREAMPROC_END;
        BASS_StreamPutData(h, data.data(), len);
    }
    return h;
}

// Runs `input` through a decoding stream with what `setup` installs on it and
// returns everything that came out.
inline std::vector<float> render(DWORD freq, unsigned chans, const std::vector<float>& input,
                                 const std::function<void(HSTREAM)>& setup) {
    HSTREAM h = pushStream(freq, chans, BASS_STREAM_DECODE, input, true);
    EXPECT_NE(h, 0u);
    setup(h);
    auto out = decodeAll(h, chans, input.size() / chans);
    BASS_StreamFree(h);
    return out;
}

// An effect of `type` on `h`, given `params`.
inline HFX install(HSTREAM h, DWORD type, const void* params) {
    HFX fx = BASS_ChannelSetFX(h, type, 0);
    EXPECT_NE(fx, 0u) << BASS_ErrorGetCode();
    EXPECT_TRUE(BASS_FXSetParameters(fx, params)) << BASS_ErrorGetCode();
    return fx;
}

} // namespace tavro::test
