// Fuzz target: the tracker-module loader, from memory. Each input is a whole
// module: loaded for decoding, its texts and length read, rendered for a
// bounded time, seeked, then loaded again in mono 16-bit at a low rate with
// looping, and (for a short song) with a prescan of its length.
#include "Harness.hpp"

using namespace tavro::fuzz;

namespace {

constexpr uint64_t kMaxFrames = 1 << 16;       // per pass
constexpr QWORD kMaxPrescanSeconds = 30;       // the prescan renders the whole song

DWORD load(const uint8_t* data, size_t size, DWORD flags, DWORD freq) {
    return BASS_MusicLoad(TRUE, data, 0, static_cast<DWORD>(size), flags | BASS_STREAM_DECODE, freq);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    setUp();
    if (size == 0) return 0;
    QWORD seconds = ~QWORD{0};
    {
        Handle h(load(data, size, BASS_SAMPLE_FLOAT, 0));
        if (!h) return 0;
        readTags(h.h);
        readInfo(h.h);
        const QWORD len = BASS_ChannelGetLength(h.h, BASS_POS_BYTE);
        if (len != static_cast<QWORD>(-1)) seconds = static_cast<QWORD>(BASS_ChannelBytes2Seconds(h.h, len));
        drain(h.h, kMaxFrames);
        // Seeks render their way to the target: keep them near the start.
        BASS_ChannelSetPosition(h.h, 8 * 4410, BASS_POS_BYTE);
        drain(h.h, 4096);
        BASS_ChannelSetPosition(h.h, 0, BASS_POS_BYTE);
        drain(h.h, 4096);
        BASS_ChannelSetPosition(h.h, 1, BASS_POS_MUSIC_ORDER);
        drain(h.h, 4096);
    }
    {
        Handle h(load(data, size, BASS_SAMPLE_MONO | BASS_SAMPLE_LOOP | BASS_MUSIC_RAMPS, 8000));
        if (h) {
            drain(h.h, kMaxFrames, 1000);
            readInfo(h.h);
        }
    }
    if (seconds <= kMaxPrescanSeconds) {
        Handle h(load(data, size, BASS_MUSIC_PRESCAN | BASS_SAMPLE_FLOAT | BASS_SAMPLE_LOOP, 8000));
        if (h) {
            readInfo(h.h);
            const QWORD len = BASS_ChannelGetLength(h.h, BASS_POS_BYTE);
            // Across the end: the loop carries on from the song's loop point.
            if (len != static_cast<QWORD>(-1) && len > 8 * 1024) BASS_ChannelSetPosition(h.h, len - 8 * 512, BASS_POS_BYTE);
            drain(h.h, 4096);
        }
    }
    return 0;
}
