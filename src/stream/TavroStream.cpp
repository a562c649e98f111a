#include <tavro/stream/TavroStream.hpp>

#include <bass.h>
#include <bass_fx.h>

#include <cctype>
#include <cstring>

namespace {

uint32_t millisecondsOf(double seconds) { return static_cast<uint32_t>(seconds * 1000.0); }

bool validUtf8(const std::string& s) {
    size_t i = 0;
    while (i < s.size()) {
        const auto c = static_cast<unsigned char>(s[i]);
        size_t n = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : 99;
        if (n == 99 || i + n >= s.size()) return false;
        for (size_t k = 1; k <= n; ++k)
            if ((static_cast<unsigned char>(s[i + k]) >> 6) != 2) return false;
        i += n + 1;
    }
    return true;
}

std::string latin1ToUtf8(const std::string& s) {
    std::string out;
    for (unsigned char c : s) {
        if (c < 0x80) out += static_cast<char>(c);
        else out += static_cast<char>(0xC0 | (c >> 6)), out += static_cast<char>(0x80 | (c & 0x3F));
    }
    return out;
}

// White space and line breaks at both ends go; NUL padding is not white space.
std::string trim(const std::string& s) {
    const char* ws = " \t\r\n\v\f";
    const auto b = s.find_first_not_of(ws);
    if (b == std::string::npos) return "";
    return s.substr(b, s.find_last_not_of(ws) - b + 1);
}

std::string id3Field(const char* block, size_t offset, size_t length) {
    const std::string raw(block + offset, length);
    return trim(validUtf8(raw) ? raw : latin1ToUtf8(raw));
}

} // namespace

std::shared_ptr<TavroStream> TavroStream::streamWithSource(std::shared_ptr<TavroSource> source, TavroSourceFlags flags,
                                                           TavroError* error) {
    return streamWithSource(std::move(source), flags, 0, error);
}

std::shared_ptr<TavroStream> TavroStream::streamWithSource(std::shared_ptr<TavroSource> source, TavroSourceFlags flags,
                                                           TavroStreamOptions options, TavroError* error) {
    if (!source) return nullptr;
    // Stages pull from their source, so it must be a decoding channel.
    if (options & (TavroStreamOptionFXChain | TavroStreamOptionReverseChain)) flags |= TavroSourceFlagDecode;
    const uint32_t src = source->createStreamWithFlags(flags, error);
    if (!src) return nullptr;
    uint32_t top = src;
    if (options & TavroStreamOptionReverseChain) {
        const HSTREAM rev = BASS_FX_ReverseCreate(src, 2.0f, BASS_STREAM_DECODE | BASS_FX_FREESOURCE);
        if (!rev) {
            if (error) *error = TavroError::currentError();
            BASS_StreamFree(src);
            return nullptr;
        }
        top = rev;
    }
    if (options & TavroStreamOptionFXChain) {
        DWORD fxFlags = BASS_FX_FREESOURCE;
        if (options & TavroStreamOptionTempoLinear) fxFlags |= BASS_FX_TEMPO_ALGO_LINEAR;
        if (options & TavroStreamOptionTempoShannon) fxFlags |= BASS_FX_TEMPO_ALGO_SHANNON;
        const HSTREAM tempo = BASS_FX_TempoCreate(top, fxFlags);
        if (!tempo) {
            if (error) *error = TavroError::currentError();
            BASS_StreamFree(top);
            return nullptr;
        }
        top = tempo;
    }
    std::shared_ptr<TavroStream> s(new TavroStream());
    s->handle_ = top;
    s->sourceHandle_ = src;
    s->source_ = std::move(source);
    s->createOptions_ = options;
    BASS_CHANNELINFO info;
    if (BASS_ChannelGetInfo(src, &info)) s->kind_ = (info.ctype & BASS_CTYPE_MUSIC_MOD) ? 1 : (info.ctype & 2);
    return s;
}

TavroStream::~TavroStream() { free(); }

void TavroStream::free() {
    if (handle_ == 0) return;
    // Music is freed as music; a stage stacked on music is a stream to the
    // platform, and freeing it releases the music beneath.
    if (kind_ != 1 || !BASS_MusicFree(handle_)) BASS_StreamFree(handle_);
    handle_ = 0;
    sourceHandle_ = 0;
}

bool TavroStream::play(bool restart) { return BASS_ChannelPlay(handle_, restart ? TRUE : FALSE); }
bool TavroStream::pause() { return BASS_ChannelPause(handle_); }
bool TavroStream::resume() { return BASS_ChannelStart(handle_); }
bool TavroStream::stop() { return BASS_ChannelStop(handle_); }

double TavroStream::position() const {
    const QWORD p = BASS_ChannelGetPosition(handle_, BASS_POS_BYTE);
    return p == static_cast<QWORD>(-1) ? 0.0 : BASS_ChannelBytes2Seconds(handle_, p);
}

double TavroStream::duration() const {
    const QWORD l = BASS_ChannelGetLength(handle_, BASS_POS_BYTE);
    return l == static_cast<QWORD>(-1) ? 0.0 : BASS_ChannelBytes2Seconds(handle_, l);
}

bool TavroStream::seekToSeconds(double seconds) {
    return BASS_ChannelSetPosition(handle_, BASS_ChannelSeconds2Bytes(handle_, seconds), BASS_POS_BYTE);
}

bool TavroStream::seekToSeconds(double seconds, TavroSeekFlags flags) {
    DWORD mode = BASS_POS_BYTE;
    if (flags & TavroSeekDecodeTo) mode |= BASS_POS_DECODETO;
    if (flags & TavroSeekScan) mode |= BASS_POS_SCAN;
    if (flags & TavroSeekFlush) mode |= BASS_POS_FLUSH;
    return BASS_ChannelSetPosition(handle_, BASS_ChannelSeconds2Bytes(handle_, seconds), mode);
}

int64_t TavroStream::rawBytePosition() const { return static_cast<int64_t>(BASS_ChannelGetPosition(handle_, 6)); }

uint64_t TavroStream::sampleRate() const {
    BASS_CHANNELINFO i;
    return BASS_ChannelGetInfo(handle_, &i) ? i.freq : 0;
}
uint64_t TavroStream::channelCount() const {
    BASS_CHANNELINFO i;
    return BASS_ChannelGetInfo(handle_, &i) ? i.chans : 0;
}
uint64_t TavroStream::originalSampleRate() const {
    BASS_CHANNELINFO i;
    if (!BASS_ChannelGetInfo(handle_, &i)) return 0;
    return i.origres ? i.origres : i.freq;
}
bool TavroStream::isDecoding() const {
    BASS_CHANNELINFO i;
    return BASS_ChannelGetInfo(handle_, &i) && (i.flags & BASS_STREAM_DECODE);
}
bool TavroStream::isLooping() const {
    BASS_CHANNELINFO i;
    return BASS_ChannelGetInfo(handle_, &i) && (i.flags & BASS_SAMPLE_LOOP);
}
void TavroStream::setLooping(bool looping) { BASS_ChannelFlags(handle_, looping ? BASS_SAMPLE_LOOP : 0, BASS_SAMPLE_LOOP); }
bool TavroStream::isLive() const {
    const QWORD l = BASS_ChannelGetLength(handle_, BASS_POS_BYTE);
    return l == 0 || l == static_cast<QWORD>(-1);
}

float TavroStream::attribute(uint32_t attrib) const {
    float v = 0;
    BASS_ChannelGetAttribute(handle_, attrib, &v);
    return v;
}
float TavroStream::volume() const { return attribute(BASS_ATTRIB_VOL); }
void TavroStream::setVolume(float volume) { BASS_ChannelSetAttribute(handle_, BASS_ATTRIB_VOL, volume); }
float TavroStream::pan() const { return attribute(BASS_ATTRIB_PAN); }
void TavroStream::setPan(float pan) { BASS_ChannelSetAttribute(handle_, BASS_ATTRIB_PAN, pan); }
float TavroStream::tempoFrequency() const { return attribute(BASS_ATTRIB_FREQ); }
void TavroStream::setTempoFrequency(float frequency) { BASS_ChannelSetAttribute(handle_, BASS_ATTRIB_FREQ, frequency); }

bool TavroStream::slideVolumeTo(float volume, double duration) {
    return BASS_ChannelSlideAttribute(handle_, BASS_ATTRIB_VOL, volume, millisecondsOf(duration));
}
bool TavroStream::slidePanTo(float pan, double duration) {
    return BASS_ChannelSlideAttribute(handle_, BASS_ATTRIB_PAN, pan, millisecondsOf(duration));
}
bool TavroStream::slideFrequencyTo(float frequency, double duration) {
    return BASS_ChannelSlideAttribute(handle_, BASS_ATTRIB_FREQ, frequency, millisecondsOf(duration));
}
bool TavroStream::isSlidingVolume() const { return BASS_ChannelIsSliding(handle_, BASS_ATTRIB_VOL) != 0; }

void TavroStream::TavroLoopSyncProc(uint32_t, uint32_t channel, uint32_t, void* user) {
    // On the mixing thread, at the loop's end frame: jump back in place.
    const auto* self = static_cast<const TavroStream*>(user);
    BASS_ChannelSetPosition(channel, self->loopStartBytes_, BASS_POS_FLUSH);
}

bool TavroStream::setLoopFromSeconds(double start, double end) {
    clearLoop();
    if (!(end > start)) return false;
    loopStartBytes_ = BASS_ChannelSeconds2Bytes(handle_, start);
    const QWORD endBytes = BASS_ChannelSeconds2Bytes(handle_, end);
    loopSync_ = BASS_ChannelSetSync(handle_, BASS_SYNC_POS | BASS_SYNC_MIXTIME, endBytes, &TavroLoopSyncProc, this);
    return loopSync_ != 0;
}

void TavroStream::clearLoop() {
    if (loopSync_ == 0) return;
    BASS_ChannelRemoveSync(handle_, loopSync_);
    loopSync_ = 0;
}

std::map<std::string, std::string> TavroStream::readTags() const {
    std::map<std::string, std::string> tags;
    const uint32_t ch = sourceHandle_ ? sourceHandle_ : handle_;
    if (const char* id3 = BASS_ChannelGetTags(ch, BASS_TAG_ID3); id3 && std::memcmp(id3, "TAG", 3) == 0) {
        tags["title"] = id3Field(id3, 3, 30);
        tags["artist"] = id3Field(id3, 33, 30);
        tags["album"] = id3Field(id3, 63, 30);
        tags["year"] = id3Field(id3, 93, 4);
    }
    for (DWORD type : {BASS_TAG_OGG, BASS_TAG_APE, BASS_TAG_MP4, BASS_TAG_RIFF_INFO}) {
        const char* p = BASS_ChannelGetTags(ch, type);
        for (; p && *p; p += std::strlen(p) + 1) {
            const std::string entry = p;
            const auto eq = entry.find('=');
            if (eq == std::string::npos || !validUtf8(entry)) continue;
            std::string key = entry.substr(0, eq);
            for (auto& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            tags[key] = entry.substr(eq + 1);
        }
    }
    return tags;
}
