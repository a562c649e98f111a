#include "music/MusicChannel.hpp"

#include "core/Error.hpp"
#include "file/MediaInput.hpp"

#include <libopenmpt/libopenmpt.h>

#include <algorithm>
#include <cmath>

namespace tavro::platform {

namespace {

// Frames dropped per libopenmpt call on the way to a seek target.
constexpr size_t kDiscardFrames = 4096;
// First step back when libopenmpt's seek lands after the target (it goes to
// the next row start); doubled until it lands at or before it.
constexpr double kSeekBackoffSeconds = 0.05;

std::string takeString(const char* s) {
    std::string out = s ? s : "";
    openmpt_free_string(s);
    return out;
}

std::string metadata(openmpt_module* m, const char* key) {
    return takeString(openmpt_module_get_metadata(m, key));
}

DWORD formatType(const std::string& type) {
    if (type == "mtm") return BASS_CTYPE_MUSIC_MTM;
    if (type == "s3m") return BASS_CTYPE_MUSIC_S3M;
    if (type == "xm") return BASS_CTYPE_MUSIC_XM;
    if (type == "it" || type == "mptm") return BASS_CTYPE_MUSIC_IT;
    return BASS_CTYPE_MUSIC_MOD; // MOD and every other tracker format
}

// A packed MO3 reports the format it was packed from as its original type;
// a container (UMX) reports the module inside it as the type.
DWORD channelType(openmpt_module* m) {
    const std::string type = metadata(m, "type");
    if (type == "mo3") return formatType(metadata(m, "originaltype")) | BASS_CTYPE_MUSIC_MO3;
    return formatType(type);
}

struct Created {
    openmpt_module* mod = nullptr;
    int error = OPENMPT_ERROR_OK;
};

Created create(const uint8_t* data, size_t size, const openmpt_module_initial_ctl* ctls) {
    Created c;
    c.mod = openmpt_module_create_from_memory2(data, size, openmpt_log_func_silent, nullptr, nullptr, nullptr,
                                               &c.error, nullptr, ctls);
    return c;
}

// The exact length in frames at `rate`: the song rendered once, as cheaply as
// libopenmpt allows. Without samples, interpolation or a second channel the
// rows still take the same number of frames, which is all that is counted.
int64_t scanLength(const uint8_t* data, size_t size, int32_t rate) {
    const openmpt_module_initial_ctl ctls[] = {
        {"load.skip_samples", "1"}, {"load.skip_plugins", "1"}, {"play.at_end", "stop"}, {nullptr, nullptr}};
    Created c = create(data, size, ctls);
    if (!c.mod) return -1;
    openmpt_module_set_render_param(c.mod, OPENMPT_MODULE_RENDER_INTERPOLATIONFILTER_LENGTH, 1);
    openmpt_module_set_render_param(c.mod, OPENMPT_MODULE_RENDER_VOLUMERAMPING_STRENGTH, 0);
    std::vector<float> buf(kDiscardFrames);
    int64_t total = 0;
    while (const size_t n = openmpt_module_read_float_mono(c.mod, rate, buf.size(), buf.data()))
        total += static_cast<int64_t>(n);
    openmpt_module_destroy(c.mod);
    return total;
}

void collectNames(std::map<DWORD, std::string>& tags, DWORD base, int32_t count,
                  const char* (*name)(openmpt_module*, int32_t), openmpt_module* m) {
    // The tag numbers leave room for 256 of each.
    for (int32_t i = 0; i < std::min<int32_t>(count, 256); ++i)
        tags[base + static_cast<DWORD>(i)] = takeString(name(m, i));
}

} // namespace

void MusicChannel::ModuleDeleter::operator()(openmpt_module* m) const {
    openmpt_module_destroy(m);
}

MusicChannel::MusicChannel(ModulePtr mod, DWORD freq, DWORD flags, DWORD ctype,
                           std::shared_ptr<Device> device)
    : Channel(freq, (flags & BASS_SAMPLE_MONO) ? 1 : 2, flags, ctype, std::move(device)),
      mod_(std::move(mod)), rate_(static_cast<int32_t>(freq)), discard_(kDiscardFrames * chans()) {}

MusicChannel::~MusicChannel() = default;

std::shared_ptr<MusicChannel> MusicChannel::loadFile(const char* path, QWORD offset, QWORD length,
                                                     DWORD flags, DWORD freq,
                                                     std::shared_ptr<Device> device) {
    using Result = std::shared_ptr<MusicChannel>;
    auto in = MediaInput::openFile(path, offset, length);
    if (!in) return nullptr;
    const int64_t size = in->size();
    if (size <= 0) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    // Look at the head first, so that a large file of another kind is turned
    // away without being read whole.
    const size_t probeSize =
        std::min<size_t>(static_cast<size_t>(size), openmpt_probe_file_header_get_recommended_size());
    const std::vector<uint8_t> head = in->readAt(0, probeSize);
    if (head.size() != probeSize) return failWith<Result>(BASS_ERROR_FILEOPEN, nullptr);
    if (openmpt_probe_file_header(OPENMPT_PROBE_FILE_HEADER_FLAGS_DEFAULT, head.data(), head.size(),
                                  static_cast<uint64_t>(size), openmpt_log_func_silent, nullptr, nullptr,
                                  nullptr, nullptr, nullptr) == OPENMPT_PROBE_FILE_HEADER_RESULT_FAILURE)
        return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    const std::vector<uint8_t> all = in->readAt(0, static_cast<size_t>(size));
    if (all.size() != static_cast<size_t>(size)) return failWith<Result>(BASS_ERROR_FILEOPEN, nullptr);
    return load(all.data(), all.size(), path, flags, freq, std::move(device));
}

std::shared_ptr<MusicChannel> MusicChannel::loadMemory(const void* data, size_t size, DWORD flags, DWORD freq,
                                                       std::shared_ptr<Device> device) {
    return load(static_cast<const uint8_t*>(data), size, {}, flags, freq, std::move(device));
}

std::shared_ptr<MusicChannel> MusicChannel::load(const uint8_t* data, size_t size, std::string path,
                                                 DWORD flags, DWORD freq, std::shared_ptr<Device> device) {
    using Result = std::shared_ptr<MusicChannel>;
    if (!data || size == 0) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    // "continue": at the song's end libopenmpt reports the end once and then
    // carries on from the song's own loop point, which is how looping works
    // without a seek on the render thread. Sample positions follow seeks.
    const openmpt_module_initial_ctl ctls[] = {
        {"play.at_end", "continue"}, {"seek.sync_samples", "1"}, {nullptr, nullptr}};
    Created c = create(data, size, ctls);
    if (!c.mod)
        return failWith<Result>(c.error == OPENMPT_ERROR_OUT_OF_MEMORY ? BASS_ERROR_MEM : BASS_ERROR_FILEFORM,
                                nullptr);
    ModulePtr mod(c.mod);
    openmpt_module* m = mod.get();

    // Only the output formats this channel offers: float or 16-bit.
    flags &= ~static_cast<DWORD>(BASS_SAMPLE_8BITS);
    // Without ramps, volume and note changes are instant (the old trackers'
    // hard attacks); with them, libopenmpt's own ramp lengths.
    openmpt_module_set_render_param(m, OPENMPT_MODULE_RENDER_VOLUMERAMPING_STRENGTH,
                                    (flags & BASS_MUSIC_RAMPS) ? -1 : 0);

    const DWORD ctype = channelType(m);
    auto music = Result(new MusicChannel(std::move(mod), freq, flags, ctype, std::move(device)));
    m = music->mod_.get();
    // A read of no frames sets libopenmpt's mixer to this rate and layout, so
    // that a seek before the first render already works in frames of it.
    float none[2];
    if (music->chans() == 1)
        openmpt_module_read_float_mono(m, music->rate_, 0, none);
    else
        openmpt_module_read_interleaved_float_stereo(m, music->rate_, 0, none);

    // libopenmpt's duration comes from tempo arithmetic, not from counted
    // frames: near (and exact whenever a tick is a whole number of frames),
    // but only a render gives the frame count. Asking for it also has
    // libopenmpt keep the song's layout, which later seeks rely on.
    const double seconds = openmpt_module_get_duration_seconds(m);
    if (flags & BASS_MUSIC_PRESCAN)
        music->length_ = scanLength(data, size, music->rate_);
    else if (std::isfinite(seconds) && seconds >= 0)
        music->length_ = std::llround(seconds * music->rate_);

    music->path_ = std::move(path);
    auto& tags = music->tags_;
    tags[BASS_TAG_MUSIC_NAME] = metadata(m, "title");
    if (std::string s = metadata(m, "artist"); !s.empty()) tags[BASS_TAG_MUSIC_AUTH] = std::move(s);
    // The song text itself: libopenmpt's "message" falls back to the sample
    // names, which have tags of their own.
    if (std::string s = metadata(m, "message_raw"); !s.empty()) tags[BASS_TAG_MUSIC_MESSAGE] = std::move(s);
    collectNames(tags, BASS_TAG_MUSIC_INST, openmpt_module_get_num_instruments(m),
                 openmpt_module_get_instrument_name, m);
    collectNames(tags, BASS_TAG_MUSIC_SAMPLE, openmpt_module_get_num_samples(m),
                 openmpt_module_get_sample_name, m);
    return music;
}

void MusicChannel::fillInfo(BASS_CHANNELINFO& info) const {
    Channel::fillInfo(info);
    // Module samples are at most 16-bit; float output does not change that.
    info.origres = 16;
    info.filename = path_.empty() ? nullptr : path_.c_str();
}

const char* MusicChannel::tags(DWORD type) const {
    const auto it = tags_.find(type);
    return it == tags_.end() ? nullptr : it->second.c_str();
}

size_t MusicChannel::render(float* out, size_t frames) {
    openmpt_module* m = mod_.get();
    return chans() == 1 ? openmpt_module_read_float_mono(m, rate_, frames, out)
                        : openmpt_module_read_interleaved_float_stereo(m, rate_, frames, out);
}

size_t MusicChannel::produce(float* out, size_t frames) {
    if (!mod_ || songEnded_) return 0;
    size_t done = 0;
    while (done < frames) {
        const size_t n = render(out + done * chans(), frames - done);
        if (n == 0) {
            songEnded_ = true;
            break;
        }
        done += n;
    }
    passFrames_ += done;
    if (done) idleLoops_ = 0;
    return done;
}

bool MusicChannel::seekSource(uint64_t frame, DWORD) {
    if (!mod_) return fail(BASS_ERROR_HANDLE);
    if (frame == 0 && songEnded_ && currentRenderChannel() == this) {
        // The end of a pass, looping (or a sync at the end sending us back to
        // the start). libopenmpt already stands at the song's loop point, so
        // carrying on loops seamlessly, the way the module itself loops.
        if (passFrames_ > 0) {
            songEnded_ = false;
            passFrames_ = 0;
            return true;
        }
        // Nothing rendered since the last start: a real seek, but only once,
        // or a song with nothing in it would loop forever inside one render.
        if (++idleLoops_ > 1) return fail(BASS_ERROR_ENDED);
    }
    return seekExact(frame);
}

bool MusicChannel::seekExact(uint64_t frame) {
    openmpt_module* m = mod_.get();
    const double target = static_cast<double>(frame) / rate_;
    double back = 0;
    uint64_t landed = 0;
    for (;;) {
        const double at = std::max(0.0, target - back);
        const double got = openmpt_module_set_position_seconds(m, at);
        landed = got > 0 ? static_cast<uint64_t>(std::llround(got * rate_)) : 0;
        if (landed <= frame || at == 0.0) break;
        back = back == 0 ? kSeekBackoffSeconds : back * 2;
    }
    songEnded_ = false;
    passFrames_ = 0;
    // libopenmpt stands on a row start at or before the target: render the
    // rest of the way so that the next frame is exactly `frame`.
    uint64_t skip = frame > landed ? frame - landed : 0;
    const size_t block = discard_.size() / chans();
    while (skip > 0) {
        const size_t n = render(discard_.data(), static_cast<size_t>(std::min<uint64_t>(skip, block)));
        if (n == 0) {
            songEnded_ = true;
            break;
        }
        skip -= n;
    }
    return true;
}

void MusicChannel::onFree() {
    // The module's memory goes with the handle, even while someone still
    // holds the channel object.
    std::lock_guard lock(renderMutex_);
    mod_.reset();
}

} // namespace tavro::platform
