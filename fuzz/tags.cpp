// Fuzz target: the tag readers (ID3v1, ID3v2, APE). The input is not a file:
// it supplies the tags, and the target wraps them around a small valid body
// (MPEG audio frames of silence or a PCM WAV), opens the result and reads
// every tag type. Layout:
//
//   byte 0   flags: 1 WAV body (else MPEG frames), 2 ID3v2 at the head,
//            4 ID3v2 size field taken from the input, 8 ID3v2 footer flag,
//            16 APE tag at the end, 32 APE size and count taken from the
//            input, 64 APE header too, 128 ID3v1 at the end
//   byte 1   ID3v2 major version
//   2 bytes  big-endian length n, then n bytes of ID3v2 frames
//   2 bytes  big-endian length m, then m bytes of APE items
//   the rest the ID3v1 record after "TAG" (cut or padded to 125 bytes)
#include "Harness.hpp"

#include <algorithm>
#include <vector>

using namespace tavro::fuzz;

namespace {

using Bytes = std::vector<uint8_t>;

struct Reader {
    const uint8_t* p;
    size_t left;
    uint8_t byte() { return left ? (--left, *p++) : 0; }
    Bytes take(size_t n) {
        n = std::min(n, left);
        Bytes out(p, p + n);
        p += n, left -= n;
        return out;
    }
    Bytes block() {
        const size_t n = static_cast<size_t>(byte()) << 8;
        return take(n | byte());
    }
};

void le32(Bytes& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// Eight frames of MPEG-1 layer III silence, 128 kbit/s mono at 44.1 kHz.
void mpegBody(Bytes& out) {
    for (int f = 0; f < 8; ++f) {
        const size_t at = out.size();
        out.resize(at + 417);
        out[at] = 0xFF, out[at + 1] = 0xFB, out[at + 2] = 0x90, out[at + 3] = 0xC4;
    }
}

// 0.1 s of 16-bit mono PCM silence at 8 kHz.
void wavBody(Bytes& out) {
    constexpr uint32_t data = 1600;
    const uint8_t head[] = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 16, 0, 0, 0,
                            1, 0, 1, 0, 0x40, 0x1F, 0, 0, 0x80, 0x3E, 0, 0, 2, 0, 16, 0, 'd', 'a', 't', 'a'};
    const size_t at = out.size();
    out.insert(out.end(), head, head + sizeof head);
    le32(out, data);
    out.resize(out.size() + data);
    const uint32_t riff = static_cast<uint32_t>(out.size() - at - 8);
    for (int i = 0; i < 4; ++i) out[at + 4 + static_cast<size_t>(i)] = static_cast<uint8_t>(riff >> (8 * i));
}

void apeFrame(Bytes& out, uint32_t size, uint32_t count, bool header, bool hasHeader) {
    const char* id = "APETAGEX";
    out.insert(out.end(), id, id + 8);
    le32(out, 2000);
    le32(out, size);
    le32(out, count);
    le32(out, (hasHeader ? 0x80000000u : 0) | (header ? 0x20000000u : 0));
    out.resize(out.size() + 8);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    setUp();
    Reader in{data, size};
    const uint8_t flags = in.byte();
    const uint8_t version = in.byte();
    Bytes id3 = in.block();
    Bytes ape = in.block();
    Bytes v1 = in.take(125);
    v1.resize(125);

    Bytes file;
    if (flags & 2) {
        const uint8_t head[] = {'I', 'D', '3', version, 0, static_cast<uint8_t>((flags & 8) ? 0x10 : 0)};
        file.insert(file.end(), head, head + sizeof head);
        uint32_t n = static_cast<uint32_t>(id3.size());
        if ((flags & 4) && id3.size() >= 4) {
            file.insert(file.end(), id3.begin(), id3.begin() + 4);
            id3.erase(id3.begin(), id3.begin() + 4);
        } else {
            for (int shift : {21, 14, 7, 0}) file.push_back(static_cast<uint8_t>((n >> shift) & 0x7F));
        }
        file.insert(file.end(), id3.begin(), id3.end());
        if (flags & 8) {
            file.insert(file.end(), {'3', 'D', 'I', version, 0, 0x10});
            for (int shift : {21, 14, 7, 0}) file.push_back(static_cast<uint8_t>((n >> shift) & 0x7F));
        }
    }
    if (flags & 1) wavBody(file);
    else mpegBody(file);
    if (flags & 16) {
        uint32_t tagSize = static_cast<uint32_t>(ape.size()) + 32, count = 1;
        if ((flags & 32) && ape.size() >= 8) {
            tagSize = static_cast<uint32_t>(ape[0] | ape[1] << 8 | ape[2] << 16 | uint32_t(ape[3]) << 24);
            count = static_cast<uint32_t>(ape[4] | ape[5] << 8 | ape[6] << 16 | uint32_t(ape[7]) << 24);
            ape.erase(ape.begin(), ape.begin() + 8);
        } else {
            // One item per key/value pair that the input spells out.
            count = static_cast<uint32_t>(std::count(ape.begin(), ape.end(), uint8_t{0}));
        }
        if (flags & 64) apeFrame(file, tagSize, count, true, true);
        file.insert(file.end(), ape.begin(), ape.end());
        apeFrame(file, tagSize, count, false, flags & 64);
    }
    if (flags & 128) {
        file.insert(file.end(), {'T', 'A', 'G'});
        file.insert(file.end(), v1.begin(), v1.end());
    }

    // An allocation of exactly the file's size: a read past its end is caught.
    auto bytes = std::make_unique<uint8_t[]>(file.size());
    std::memcpy(bytes.get(), file.data(), file.size());
    Handle h(BASS_StreamCreateFile(TRUE, bytes.get(), 0, file.size(), BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT));
    if (!h) return 0;
    readTags(h.h);
    readInfo(h.h);
    drain(h.h, 1 << 12);
    return 0;
}
