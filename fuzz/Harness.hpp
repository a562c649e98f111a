// What the fuzz targets share: the platform set up once per process, reads
// of a decoding channel with a bound on the work, and tag reads that touch
// every byte an application reading the tag would.
#pragma once

#include "bass.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

namespace tavro::fuzz {

// The no-sound device and every format plug-in the build makes
// (TAVRO_FUZZ_PLUGINS, comma-separated), once per process.
inline void setUp() {
    static const bool ready = [] {
        if (!BASS_Init(0, 44100, 0, nullptr, nullptr)) {
            std::fprintf(stderr, "fuzz: no-sound device failed (error %d)\n", BASS_ErrorGetCode());
            std::abort();
        }
        const std::string names = TAVRO_FUZZ_PLUGINS;
        for (size_t at = 0; at < names.size();) {
            size_t comma = names.find(',', at);
            if (comma == std::string::npos) comma = names.size();
            const std::string name = names.substr(at, comma - at);
            if (!name.empty() && !BASS_PluginLoad(name.c_str(), 0)) {
                std::fprintf(stderr, "fuzz: plug-in %s failed to load (error %d)\n", name.c_str(), BASS_ErrorGetCode());
                std::abort();
            }
            at = comma + 1;
        }
        // The device's threads stop before static objects go away.
        std::atexit([] { BASS_Free(); });
        return true;
    }();
    (void)ready;
}

// Frees a channel handle (stream, stage or module) when it goes out of scope.
struct Handle {
    DWORD h = 0;
    explicit Handle(DWORD handle) : h(handle) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() {
        if (h) BASS_ChannelFree(h);
    }
    explicit operator bool() const { return h != 0; }
    DWORD release() { return std::exchange(h, 0); }
};

inline volatile uint32_t sink;

// Reads n bytes at p (a copy: the sanitizer checks the whole range at once).
inline void touch(const char* p, size_t n) {
    const std::string copy(p, n);
    sink = sink + static_cast<uint32_t>(copy.size()) + (n ? static_cast<uint8_t>(copy[n / 2]) : 0u);
}

// NUL-terminated strings, ended by an empty one.
inline void touchList(const char* p) {
    while (*p) {
        const size_t n = std::strlen(p);
        touch(p, n);
        p += n + 1;
    }
}

// Every tag type a channel may have, read as an application reads it: the
// ID3v1 record is 128 bytes, an ID3v2 block as long as its header says,
// the others lists of strings.
inline void readTags(DWORD h) {
    if (const char* t = BASS_ChannelGetTags(h, BASS_TAG_ID3)) touch(t, 128);
    if (const char* t = BASS_ChannelGetTags(h, BASS_TAG_ID3V2)) {
        const auto* b = reinterpret_cast<const uint8_t*>(t);
        touch(t, 10);
        const size_t size = static_cast<size_t>((b[6] & 0x7F) << 21 | (b[7] & 0x7F) << 14 | (b[8] & 0x7F) << 7 | (b[9] & 0x7F));
        touch(t, 10 + size + ((b[5] & 0x10) ? 10 : 0));
    }
    for (DWORD type : {BASS_TAG_OGG, BASS_TAG_HTTP, BASS_TAG_ICY, BASS_TAG_META, BASS_TAG_APE, BASS_TAG_MP4,
                       BASS_TAG_RIFF_INFO})
        if (const char* t = BASS_ChannelGetTags(h, type)) touchList(t);
    for (DWORD type : {BASS_TAG_MUSIC_NAME, BASS_TAG_MUSIC_MESSAGE, BASS_TAG_MUSIC_AUTH})
        if (const char* t = BASS_ChannelGetTags(h, type)) touch(t, std::strlen(t));
    for (DWORD n = 0; n < 256; ++n) {
        if (const char* t = BASS_ChannelGetTags(h, BASS_TAG_MUSIC_INST + n)) touch(t, std::strlen(t));
        if (const char* t = BASS_ChannelGetTags(h, BASS_TAG_MUSIC_SAMPLE + n)) touch(t, std::strlen(t));
    }
}

// Info, length and position in every mode (most are refused).
inline void readInfo(DWORD h) {
    BASS_CHANNELINFO info{};
    if (BASS_ChannelGetInfo(h, &info)) sink = sink + info.freq + info.chans + info.ctype + info.origres;
    for (DWORD mode : {BASS_POS_BYTE, BASS_POS_MUSIC_ORDER, BASS_POS_OGG, BASS_POS_END, BASS_POS_LOOP}) {
        const QWORD len = BASS_ChannelGetLength(h, mode);
        const QWORD pos = BASS_ChannelGetPosition(h, mode);
        sink = sink + static_cast<uint32_t>(len + pos);
        if (len != static_cast<QWORD>(-1)) sink = sink + static_cast<uint32_t>(BASS_ChannelBytes2Seconds(h, len));
    }
}

// Reads a decoding channel in blocks of `block` bytes until it ends, fails
// or `maxFrames` frames have come; returns the frames read. Each block is a
// fresh allocation of exactly that size, so a write past it is caught.
inline uint64_t drain(DWORD h, uint64_t maxFrames, DWORD block = 1 << 14, bool asFloat = false) {
    BASS_CHANNELINFO info{};
    if (!BASS_ChannelGetInfo(h, &info) || info.chans == 0) return 0;
    const DWORD bps = asFloat || (info.flags & BASS_SAMPLE_FLOAT) ? 4 : (info.flags & BASS_SAMPLE_8BITS) ? 1 : 2;
    const DWORD bpf = bps * info.chans;
    auto buf = std::make_unique<uint8_t[]>(block);
    uint64_t frames = 0;
    for (int reads = 0; frames < maxFrames && reads < 4096; ++reads) {
        const DWORD got = BASS_ChannelGetData(h, buf.get(), block | (asFloat ? BASS_DATA_FLOAT : 0));
        if (got == 0xFFFFFFFF || got == 0) break;
        if (got > block || got % bpf) {
            std::fprintf(stderr, "fuzz: read of %u bytes returned %u (frame size %u)\n", block, got, bpf);
            std::abort();
        }
        frames += got / bpf;
    }
    return frames;
}

} // namespace tavro::fuzz
