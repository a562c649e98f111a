// Test media made at test time: a deterministic 16-bit-exact signal written
// as WAV by the test itself and encoded to other formats by Debian's ffmpeg.
#pragma once

#include "PlatformFixture.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace tavro::test {

// A chirp plus a little noise: every frame differs, so a frame out of place
// shows. Values are multiples of 1/32768, so 16-bit formats keep them exactly.
inline std::vector<float> testSignal(size_t frames, unsigned chans, unsigned rate) {
    std::vector<float> v(frames * chans);
    uint32_t seed = 12345;
    for (size_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / rate;
        for (unsigned c = 0; c < chans; ++c) {
            seed = seed * 1664525u + 1013904223u;
            const double noise = (static_cast<double>(seed >> 9) / 8388608.0 - 0.5) * 0.05;
            const double s = 0.5 * std::sin(2 * M_PI * (220.0 * (c + 1)) * t * (1.0 + t * 0.3)) + noise;
            v[i * chans + c] = static_cast<float>(std::lrint(s * 32767.0) / 32768.0);
        }
    }
    return v;
}

inline void put16(std::ofstream& f, uint16_t v) { f.put(char(v & 0xFF)).put(char(v >> 8)); }
inline void put32(std::ofstream& f, uint32_t v) { put16(f, v & 0xFFFF), put16(f, v >> 16); }

inline void writeWav16(const std::string& path, const std::vector<float>& pcm, unsigned rate, unsigned chans) {
    std::ofstream f(path, std::ios::binary);
    const uint32_t bytes = static_cast<uint32_t>(pcm.size() * 2);
    f.write("RIFF", 4), put32(f, 36 + bytes), f.write("WAVEfmt ", 8), put32(f, 16), put16(f, 1), put16(f, chans);
    put32(f, rate), put32(f, rate * chans * 2), put16(f, chans * 2), put16(f, 16), f.write("data", 4), put32(f, bytes);
    for (float s : pcm) put16(f, static_cast<uint16_t>(static_cast<int16_t>(std::clamp(std::lrint(s * 32768.0f), -32768L, 32767L))));
}

inline void writeFloatWav(const std::string& path, const std::vector<float>& pcm, unsigned rate, unsigned chans) {
    std::ofstream f(path, std::ios::binary);
    const auto bytes = static_cast<uint32_t>(pcm.size() * 4);
    f.write("RIFF", 4), put32(f, 36 + bytes), f.write("WAVEfmt ", 8), put32(f, 16), put16(f, 3), put16(f, chans);
    put32(f, rate), put32(f, rate * 4 * chans), put16(f, 4 * chans), put16(f, 32), f.write("data", 4);
    put32(f, bytes);
    f.write(reinterpret_cast<const char*>(pcm.data()), bytes);
}

// A folder of its own for one test binary, removed at exit.
class MediaDir {
  public:
    MediaDir() {
        char tmpl[] = "/tmp/tavro-media.XXXXXX";
        dir_ = mkdtemp(tmpl);
    }
    ~MediaDir() { std::system(("rm -rf '" + dir_ + "'").c_str()); }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    // Encodes a WAV with ffmpeg; returns the output path, or "" on failure.
    std::string encode(const std::string& wav, const std::string& name, const std::string& args) const {
        const std::string out = path(name);
        const std::string cmd = "ffmpeg -nostdin -v error -y -i '" + wav + "' " + args + " '" + out + "'";
        return std::system(cmd.c_str()) == 0 ? out : "";
    }

  private:
    std::string dir_;
};

// A test whose suite shares one media folder.
template <class Base = NoSoundTest> class MediaTestOn : public Base {
  protected:
    static void SetUpTestSuite() { media_ = new MediaDir(); }
    static void TearDownTestSuite() { delete media_, media_ = nullptr; }
    static inline MediaDir* media_ = nullptr;
};
using MediaTest = MediaTestOn<>;

inline std::vector<uint8_t> readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::string& path, const std::vector<uint8_t>& data) {
    std::ofstream f(path, std::ios::binary);
    f.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

// An APE tag (version 2000, footer only) holding one item, to append to a file.
inline std::vector<uint8_t> apeTag(const std::string& key, const std::string& value) {
    std::vector<uint8_t> t;
    auto le = [&](uint32_t v) { for (int i = 0; i < 4; ++i) t.push_back(uint8_t(v >> (8 * i))); };
    le(static_cast<uint32_t>(value.size())), le(0);
    t.insert(t.end(), key.begin(), key.end());
    t.push_back(0);
    t.insert(t.end(), value.begin(), value.end());
    const auto items = static_cast<uint32_t>(t.size());
    for (char c : std::string("APETAGEX")) t.push_back(static_cast<uint8_t>(c));
    le(2000), le(items + 32), le(1), le(0), le(0), le(0);
    return t;
}

} // namespace tavro::test
