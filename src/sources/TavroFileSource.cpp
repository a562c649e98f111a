#include <tavro/sources/TavroFileSource.hpp>

#include <bass.h>

std::shared_ptr<TavroFileSource> TavroFileSource::initWithFileURL(const TavroURL& fileURL) {
    return std::make_shared<TavroFileSource>(fileURL);
}

uint32_t TavroFileSource::bassFlagsFromSourceFlags(TavroSourceFlags flags) {
    uint32_t out = 0;
    if (flags & TavroSourceFlagDecode) out |= BASS_STREAM_DECODE;
    if (flags & TavroSourceFlagAutoFree) out |= BASS_STREAM_AUTOFREE;
    if (flags & TavroSourceFlagFloat) out |= BASS_SAMPLE_FLOAT;
    if (flags & TavroSourceFlagMono) out |= BASS_SAMPLE_MONO;
    if (flags & TavroSourceFlag3D) out |= BASS_SAMPLE_3D;
    if (flags & TavroSourceFlagPrescan) out |= BASS_STREAM_PRESCAN;
    if (flags & TavroSourceFlagRestrictRate) out |= BASS_STREAM_RESTRATE;
    return out;
}

uint32_t TavroFileSource::createStreamWithFlags(TavroSourceFlags flags, TavroError* error) {
    const uint32_t bassFlags = bassFlagsFromSourceFlags(flags);
    const std::string path = fileURL_.path();
    // The kind of file is found by trying, not by its extension: a stream
    // first, then a tracker module.
    if (HSTREAM h = BASS_StreamCreateFile(FALSE, path.c_str(), 0, 0, bassFlags)) return h;
    if (HMUSIC h = BASS_MusicLoad(FALSE, path.c_str(), 0, 0, bassFlags | BASS_MUSIC_RAMPS | BASS_MUSIC_PRESCAN, 0)) return h;
    if (error) *error = TavroError::currentError();
    return 0;
}

std::string TavroFileSource::displayName() const {
    const std::string last = fileURL_.lastPathComponent();
    return last.empty() ? fileURL_.absoluteString() : last;
}
