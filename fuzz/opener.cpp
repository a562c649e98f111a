// Fuzz target: the file opener, from memory. Each input is a whole file and
// goes through every way an application uses a file stream: decoding to the
// end as float, 16-bit and 8-bit mono, seeking in every mode (with and
// without a prescan), looping, and the tempo and reverse stages on top. Tags,
// info and length are read each time. Decoding is capped per pass, so a
// legitimately long stream cannot make an input time out.
#include "Harness.hpp"

#include "bass_fx.h"

using namespace tavro::fuzz;

namespace {

constexpr uint64_t kMaxFrames = 1 << 16; // per pass: about 1.5 s at 44.1 kHz
constexpr uint64_t kAfterSeek = 2048;

DWORD open(const uint8_t* data, size_t size, DWORD flags) {
    return BASS_StreamCreateFile(TRUE, data, 0, size, flags | BASS_STREAM_DECODE);
}

DWORD frameBytes(DWORD h) {
    BASS_CHANNELINFO info{};
    if (!BASS_ChannelGetInfo(h, &info)) return 0;
    const DWORD bps = (info.flags & BASS_SAMPLE_FLOAT) ? 4 : (info.flags & BASS_SAMPLE_8BITS) ? 1 : 2;
    return bps * info.chans;
}

void decodeThrough(const uint8_t* data, size_t size, DWORD flags, DWORD block) {
    Handle h(open(data, size, flags));
    if (!h) return;
    readInfo(h.h);
    drain(h.h, kMaxFrames, block);
    readInfo(h.h);
}

// Seeks to the start, the middle, the last frame, the end and past it, in
// each mode, reading a little after each.
void seekAround(const uint8_t* data, size_t size, DWORD flags) {
    Handle h(open(data, size, flags | BASS_SAMPLE_FLOAT));
    if (!h) return;
    const DWORD bpf = frameBytes(h.h);
    QWORD len = BASS_ChannelGetLength(h.h, BASS_POS_BYTE);
    if (len == static_cast<QWORD>(-1)) len = QWORD{4096} * bpf;
    const QWORD half = len / 2 / bpf * bpf;
    const QWORD targets[] = {half, 0, len >= bpf ? len - bpf : 0, len, len + bpf, bpf};
    const DWORD modes[] = {BASS_POS_BYTE, BASS_POS_BYTE | BASS_POS_DECODETO, BASS_POS_BYTE | BASS_POS_SCAN,
                           BASS_POS_BYTE | BASS_POS_SCAN | BASS_POS_DECODETO, BASS_POS_BYTE | BASS_POS_INEXACT,
                           BASS_POS_BYTE | BASS_POS_FLUSH};
    for (DWORD mode : modes) {
        for (QWORD pos : targets) {
            BASS_ChannelSetPosition(h.h, pos, mode);
            drain(h.h, kAfterSeek, 4096);
            readInfo(h.h);
        }
    }
    // Modes a file stream does not have are refused.
    BASS_ChannelSetPosition(h.h, 0, BASS_POS_MUSIC_ORDER);
    BASS_ChannelSetPosition(h.h, 0, BASS_POS_OGG);
}

// Looping: reads run through the end and back to the start, also after a
// seek near the end; the loop is switched off again at the end.
void loop(const uint8_t* data, size_t size) {
    Handle h(open(data, size, BASS_SAMPLE_FLOAT | BASS_SAMPLE_LOOP));
    if (!h) return;
    drain(h.h, kMaxFrames);
    const QWORD len = BASS_ChannelGetLength(h.h, BASS_POS_BYTE);
    const DWORD bpf = frameBytes(h.h);
    if (len != static_cast<QWORD>(-1) && len > QWORD{64} * bpf) {
        BASS_ChannelSetPosition(h.h, len - QWORD{64} * bpf, BASS_POS_BYTE);
        drain(h.h, kAfterSeek, 4096);
    }
    BASS_ChannelFlags(h.h, 0, BASS_SAMPLE_LOOP);
    drain(h.h, kMaxFrames);
}

// The tempo and reverse stages read the stream as their source.
void stages(const uint8_t* data, size_t size) {
    if (DWORD src = open(data, size, BASS_SAMPLE_FLOAT)) {
        Handle tempo(BASS_FX_TempoCreate(src, BASS_STREAM_DECODE | BASS_FX_FREESOURCE));
        if (!tempo) {
            BASS_ChannelFree(src);
        } else {
            BASS_ChannelSetAttribute(tempo.h, BASS_ATTRIB_TEMPO, 30);
            // The rate transposer (and its anti-alias filter) is the slow part: half the inputs.
            if (size & 1) BASS_ChannelSetAttribute(tempo.h, BASS_ATTRIB_TEMPO_PITCH, -3);
            drain(tempo.h, kMaxFrames / 16);
            BASS_ChannelSetPosition(tempo.h, 0, BASS_POS_BYTE);
            drain(tempo.h, kAfterSeek);
        }
    }
    if (DWORD src = open(data, size, 0)) {
        Handle reverse(BASS_FX_ReverseCreate(src, 0.25f, BASS_STREAM_DECODE | BASS_FX_FREESOURCE));
        if (!reverse) BASS_ChannelFree(src);
        else drain(reverse.h, kMaxFrames / 8);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    setUp();
    {
        // Tags and info as opened; a file that does not open stops here.
        Handle h(open(data, size, BASS_SAMPLE_FLOAT));
        if (!h) return 0;
        readTags(h.h);
        readInfo(h.h);
        // A spectrum read takes whatever channel count the file has.
        float fft[1024];
        BASS_ChannelGetData(h.h, fft, BASS_DATA_FFT2048);
    }
    decodeThrough(data, size, BASS_SAMPLE_FLOAT, 1 << 14);
    decodeThrough(data, size, 0, 4099);
    decodeThrough(data, size, BASS_SAMPLE_MONO | BASS_SAMPLE_8BITS, 1000);
    seekAround(data, size, 0);
    seekAround(data, size, BASS_STREAM_PRESCAN);
    loop(data, size);
    stages(data, size);
    return 0;
}
