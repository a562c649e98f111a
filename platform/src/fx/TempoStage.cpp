#include "fx/TempoStage.hpp"

#include "bass_fx.h"
#include "core/Error.hpp"

#include <soundtouch/SoundTouch.h>

#include <algorithm>
#include <cmath>

// SoundTouch picks the interpolation of its rate transposer from one
// process-wide choice when an instance is made. The header declaring it is not
// installed with the library; this is the part of it used here.
namespace soundtouch {
class TransposerBase {
  public:
    enum ALGORITHM { LINEAR = 0, CUBIC, SHANNON };
    static void setAlgorithm(ALGORITHM a);
};
} // namespace soundtouch

namespace tavro::platform {

namespace {

constexpr size_t kFeedFrames = 1024; // most source frames fed to SoundTouch at once
constexpr size_t kMinFeed = 64;      // least, so that each put does some work
// Silence that may be fed to push out what SoundTouch holds: more than its
// longest latency at any setting.
constexpr uint64_t kMaxDrainZeros = uint64_t(1) << 21;

// A change SoundTouch cannot take without a cut crossfades from the old path
// to the new one over this long.
constexpr unsigned kFadeMs = 10;
// Recent source kept for a new path to start where the old one plays: more
// than SoundTouch holds at usual settings.
constexpr unsigned kQueueMs = 500;
// Larger jumps of the transposer's rate crossfade (a semitone).
constexpr double kStepOctaves = 1.0 / 12 + 1e-9;
// Keeps a transposer ratio of exactly 1 on the side of 1 it was on.
constexpr double kNudge = 1e-9;

constexpr float kTempoMin = -95, kTempoMax = 5000;
constexpr float kPitchMax = 60;
constexpr double kFreqSpan = 4; // TEMPO_FREQ from a quarter to four times the source's rate

std::mutex& algorithmMutex() {
    static std::mutex m;
    return m;
}

bool isWhole(float v) {
    return std::nearbyint(v) == v;
}
bool inRange(float v, float lo, float hi) {
    return v >= lo && v <= hi;
}

} // namespace

std::shared_ptr<TempoStage> TempoStage::create(std::shared_ptr<Channel> source, DWORD flags) {
    // SoundTouch reports what it cannot do by throwing; none of it may reach the caller.
    try {
        return std::shared_ptr<TempoStage>(new TempoStage(std::move(source), flags));
    } catch (const std::bad_alloc&) {
        return failWith<std::shared_ptr<TempoStage>>(BASS_ERROR_MEM, nullptr);
    } catch (...) {
        return failWith<std::shared_ptr<TempoStage>>(BASS_ERROR_FORMAT, nullptr);
    }
}

TempoStage::TempoStage(std::shared_ptr<Channel> source, DWORD flags)
    : Stage(std::move(source), flags, flags & BASS_FX_FREESOURCE) {
    using soundtouch::TransposerBase;
    // The best interpolation asked for wins; SoundTouch's Shannon transposer
    // handles only mono and stereo.
    TransposerBase::ALGORITHM algo = TransposerBase::CUBIC;
    if (flags & BASS_FX_TEMPO_ALGO_LINEAR) algo = TransposerBase::LINEAR;
    if (flags & BASS_FX_TEMPO_ALGO_CUBIC) algo = TransposerBase::CUBIC;
    if ((flags & BASS_FX_TEMPO_ALGO_SHANNON) && chans() <= 2) algo = TransposerBase::SHANNON;
    {
        std::lock_guard lock(algorithmMutex());
        TransposerBase::setAlgorithm(algo);
        for (auto& st : pool_)
            st = std::make_unique<soundtouch::SoundTouch>();
        TransposerBase::setAlgorithm(TransposerBase::CUBIC);
    }
    feed_.assign(kFeedFrames * chans(), 0.0f);
    zeros_.assign(kFeedFrames * chans(), 0.0f);
    fadeLen_ = std::max<size_t>(1, size_t(freq()) * kFadeMs / 1000);
    fade_.assign(fadeLen_ * chans(), 0.0f);
    queueFrames_ = size_t(freq()) * kQueueMs / 1000 + 2 * kFeedFrames;
    queue_.assign(queueFrames_ * chans(), 0.0f);
    tempoFreq_.store(static_cast<float>(freq()));
    for (auto& st : pool_) {
        // SoundTouch takes rates up to 192 kHz. Above that it is told 192 kHz:
        // the rate only scales its analysis windows, which then span a shorter
        // time (half at 384 kHz) and still work.
        st->setSampleRate(std::min<DWORD>(freq(), kMaxTempoRate));
        st->setChannels(chans());
        prime(*st);
    }
    aaFilter_.store(pool_[0]->getSetting(SETTING_USE_AA_FILTER));
    aaLength_.store(pool_[0]->getSetting(SETTING_AA_FILTER_LENGTH));
    quickSeek_.store(pool_[0]->getSetting(SETTING_USE_QUICKSEEK));
    sequenceMs_.store(pool_[0]->getSetting(SETTING_SEQUENCE_MS));
    seekWindowMs_.store(pool_[0]->getSetting(SETTING_SEEKWINDOW_MS));
    overlapMs_.store(pool_[0]->getSetting(SETTING_OVERLAP_MS));
    for (int i = 0; i < int(pool_.size()); ++i)
        setRatesLocked(i);
}

TempoStage::~TempoStage() = default;

// SoundTouch's buffers grow to what a setting needs the first time it runs.
// Running it once at the corners of the usual range (half to double tempo,
// an octave down or up) means it does not allocate later, on the render
// thread, for settings within it. The far corners would need tens of
// megabytes for every stream, so they grow on first use instead.
void TempoStage::prime(soundtouch::SoundTouch& st) {
    std::vector<float> out(kMaxBlockFrames * chans());
    for (double tempo : {0.5, 2.0})
        for (double pitch : {0.5, 2.0}) {
            st.setTempo(tempo);
            st.setPitch(pitch);
            const double ratio = tempo;
            uint64_t fed = 0, got = 0;
            // Fed the way the renderer feeds, until full blocks come out.
            while (got < 2 * kMaxBlockFrames && fed < kMaxDrainZeros) {
                if (st.numSamples() > 0) {
                    got += st.receiveSamples(out.data(), static_cast<unsigned>(kMaxBlockFrames));
                    continue;
                }
                const auto n = std::clamp<size_t>(static_cast<size_t>(std::ceil(kMaxBlockFrames * ratio)),
                                                  kMinFeed, kFeedFrames);
                st.putSamples(zeros_.data(), static_cast<unsigned>(n));
                fed += n;
            }
            st.clear();
        }
    st.setPitch(1);
}

// ---------------------------------------------------------------- settings

bool TempoStage::neutral() const {
    return tempo_.load() == 0 && pitch_.load() == 0 && tempoFreq_.load() == static_cast<float>(freq()) &&
           preventClick_.load() == 0;
}

double TempoStage::ratioOf(int path) const {
    return path < 0 ? 1.0 : stRatio_[static_cast<size_t>(path)];
}

// SoundTouch runs its transposer before its time-stretcher at rates up to 1
// and after it above 1, and when the rate crosses 1 it moves what it holds
// from one order to the other, which cuts the audio. Pitch therefore goes to
// it as rate and tempo (one call sets the rate, which never passes the other
// side of 1 on the way), and a rate of exactly 1 stays on the side it was on.
void TempoStage::setRatesLocked(int inst) {
    const auto i = static_cast<size_t>(inst);
    const double pitch = std::exp2(pitch_.load() / 12.0),
                 freqRatio = tempoFreq_.load() / static_cast<double>(freq());
    double rate = pitch * freqRatio;
    if (rate != 1)
        side_[i] = rate > 1 ? 1 : -1;
    else
        rate += side_[i] * kNudge;
    pool_[i]->setRate(rate);
    stRate_[i] = rate;
    pool_[i]->setTempo((1.0 + tempo_.load() / 100.0) / pitch);
    stRatio_[i] = (1.0 + tempo_.load() / 100.0) * freqRatio;
}

// Whether the instance would cut the audio, or audibly step, taking the
// current settings: its transposer's rate crosses 1, or jumps by more than a
// semitone (the waveform's slope steps with it). Small steps, as from a
// slider, go straight in.
bool TempoStage::needsFadeLocked(int inst) const {
    const auto i = static_cast<size_t>(inst);
    const double rate = std::exp2(pitch_.load() / 12.0) * tempoFreq_.load() / static_cast<double>(freq());
    return used_[i] && ((rate != 1 && (rate > 1 ? 1 : -1) != side_[i]) ||
                        std::fabs(std::log2(rate / stRate_[i])) > kStepOctaves);
}

void TempoStage::configureLocked(int inst) {
    auto& st = *pool_[static_cast<size_t>(inst)];
    st.setSetting(SETTING_USE_AA_FILTER, aaFilter_.load());
    st.setSetting(SETTING_AA_FILTER_LENGTH, aaLength_.load());
    st.setSetting(SETTING_USE_QUICKSEEK, quickSeek_.load());
    st.setSetting(SETTING_SEQUENCE_MS, sequenceMs_.load());
    st.setSetting(SETTING_SEEKWINDOW_MS, seekWindowMs_.load());
    st.setSetting(SETTING_OVERLAP_MS, overlapMs_.load());
    setRatesLocked(inst);
}

// After tempo, pitch or rate changed: the instance in the path takes the
// change if it can without a cut; otherwise an idle one is set up and the
// next block crossfades to it (or to pass-through).
void TempoStage::retargetLocked() {
    if (neutral()) {
        pending_ = cur_ == kPassThrough ? kNone : kPassThrough;
    } else if (cur_ >= 0 && !needsFadeLocked(cur_)) {
        setRatesLocked(cur_);
        pending_ = kNone;
    } else if (pending_ >= 0) {
        setRatesLocked(pending_);
    } else {
        int spare = 0;
        while (spare == cur_ || (fading_ && spare == old_))
            ++spare;
        pool_[static_cast<size_t>(spare)]->clear();
        used_[static_cast<size_t>(spare)] = false;
        configureLocked(spare);
        pending_ = spare;
    }
}

float TempoStage::rateRatio() const {
    return static_cast<float>(std::exp2(pitch_.load() / 12.0) * tempoFreq_.load() /
                              static_cast<double>(freq()));
}

bool TempoStage::setAttribute(DWORD attrib, float value) {
    try {
        return applyAttribute(attrib, value);
    } catch (...) {
        return fail(BASS_ERROR_ILLPARAM); // a setting SoundTouch refused
    }
}

bool TempoStage::applyAttribute(DWORD attrib, float value) {
    if (attrib < BASS_ATTRIB_TEMPO || attrib > BASS_ATTRIB_TEMPO_OPTION_PREVENT_CLICK)
        return Stage::setAttribute(attrib, value);
    if (std::isnan(value)) return fail(BASS_ERROR_ILLPARAM);
    // Options go to the instance in the path and to the one about to be;
    // an idle one is given all of them when it is set up.
    const auto setting = [&](int id, int v) {
        for (const int i : {cur_, pending_})
            if (i >= 0) pool_[static_cast<size_t>(i)]->setSetting(id, v);
    };
    const auto flag = [&](std::atomic<int>& a, int id) {
        if (value != 0 && value != 1) return false;
        a.store(static_cast<int>(value));
        if (id >= 0) setting(id, static_cast<int>(value));
        return true;
    };
    const auto whole = [&](std::atomic<int>& a, int id, float lo, float hi) {
        if (!isWhole(value) || !inRange(value, lo, hi)) return false;
        a.store(static_cast<int>(value));
        setting(id, static_cast<int>(value));
        return true;
    };
    std::lock_guard lock(settingsMutex_);
    bool ok = true, rates = false;
    switch (attrib) {
    case BASS_ATTRIB_TEMPO:
        if ((ok = rates = inRange(value, kTempoMin, kTempoMax))) tempo_.store(value);
        break;
    case BASS_ATTRIB_TEMPO_PITCH:
        if ((ok = rates = inRange(value, -kPitchMax, kPitchMax))) pitch_.store(value);
        break;
    case BASS_ATTRIB_TEMPO_FREQ: {
        const double src = freq();
        if (value == 0) value = static_cast<float>(src);
        if ((ok = rates =
                 inRange(value, static_cast<float>(src / kFreqSpan), static_cast<float>(src * kFreqSpan))))
            tempoFreq_.store(value);
        break;
    }
    case BASS_ATTRIB_TEMPO_OPTION_USE_AA_FILTER:
        ok = flag(aaFilter_, SETTING_USE_AA_FILTER);
        break;
    case BASS_ATTRIB_TEMPO_OPTION_AA_FILTER_LENGTH:
        // SoundTouch's filter runs in blocks of eight taps.
        if ((ok = inRange(value, 8, 128))) {
            const int taps = static_cast<int>(value) / 8 * 8;
            aaLength_.store(taps);
            setting(SETTING_AA_FILTER_LENGTH, taps);
        }
        break;
    case BASS_ATTRIB_TEMPO_OPTION_USE_QUICKALGO:
        ok = flag(quickSeek_, SETTING_USE_QUICKSEEK);
        break;
    case BASS_ATTRIB_TEMPO_OPTION_SEQUENCE_MS:
        ok = whole(sequenceMs_, SETTING_SEQUENCE_MS, 0, 250);
        break;
    case BASS_ATTRIB_TEMPO_OPTION_SEEKWINDOW_MS:
        ok = whole(seekWindowMs_, SETTING_SEEKWINDOW_MS, 0, 100);
        break;
    case BASS_ATTRIB_TEMPO_OPTION_OVERLAP_MS:
        ok = whole(overlapMs_, SETTING_OVERLAP_MS, 1, 50);
        break;
    case BASS_ATTRIB_TEMPO_OPTION_PREVENT_CLICK:
        ok = rates = flag(preventClick_, -1);
        break;
    default:
        return fail(BASS_ERROR_ILLTYPE);
    }
    if (!ok) return fail(BASS_ERROR_ILLPARAM);
    if (rates) retargetLocked();
    return succeed();
}

bool TempoStage::getAttribute(DWORD attrib, float& value) {
    switch (attrib) {
    case BASS_ATTRIB_TEMPO:
        value = tempo_.load();
        break;
    case BASS_ATTRIB_TEMPO_PITCH:
        value = pitch_.load();
        break;
    case BASS_ATTRIB_TEMPO_FREQ:
        value = tempoFreq_.load();
        break;
    case BASS_ATTRIB_TEMPO_OPTION_USE_AA_FILTER:
        value = static_cast<float>(aaFilter_.load());
        break;
    case BASS_ATTRIB_TEMPO_OPTION_AA_FILTER_LENGTH:
        value = static_cast<float>(aaLength_.load());
        break;
    case BASS_ATTRIB_TEMPO_OPTION_USE_QUICKALGO:
        value = static_cast<float>(quickSeek_.load());
        break;
    case BASS_ATTRIB_TEMPO_OPTION_SEQUENCE_MS:
        value = static_cast<float>(sequenceMs_.load());
        break;
    case BASS_ATTRIB_TEMPO_OPTION_SEEKWINDOW_MS:
        value = static_cast<float>(seekWindowMs_.load());
        break;
    case BASS_ATTRIB_TEMPO_OPTION_OVERLAP_MS:
        value = static_cast<float>(overlapMs_.load());
        break;
    case BASS_ATTRIB_TEMPO_OPTION_PREVENT_CLICK:
        value = static_cast<float>(preventClick_.load());
        break;
    default:
        if (attrib > BASS_ATTRIB_TEMPO && attrib <= BASS_ATTRIB_TEMPO_OPTION_PREVENT_CLICK)
            return fail(BASS_ERROR_ILLTYPE);
        return Stage::getAttribute(attrib, value);
    }
    return succeed();
}

// ---------------------------------------------------------------- rendering

void TempoStage::resetAccounting() {
    readTotal_ = 0;
    fed_ = 0;
    expectedOut_ = 0;
    received_ = 0;
    ratio_ = ratioOf(cur_);
    drainZeros_ = 0;
    nextSrc_ = -1;
    segHead_ = segCount_ = 0;
}

void TempoStage::endFade() {
    if (fading_ && old_ >= 0) {
        pool_[static_cast<size_t>(old_)]->clear();
        used_[static_cast<size_t>(old_)] = false;
    }
    fading_ = false;
    old_ = kNone;
}

// A change the path in use could not take is picked up here: the new path
// starts on the source frame the old one plays next (the queue keeps what
// was read), both run side by side, and the old one fades out.
void TempoStage::beginBlock() {
    std::lock_guard lock(settingsMutex_);
    if (pending_ == kNone || fading_) return; // a crossfade under way finishes first
    const int to = pending_;
    pending_ = kNone;
    if (!flowing_) { // nothing taken from the source yet: there is nothing to fade from
        if (cur_ >= 0) {
            pool_[static_cast<size_t>(cur_)]->clear();
            used_[static_cast<size_t>(cur_)] = false;
        }
        cur_ = to;
        resetAccounting();
        mode_ = cur_ == kPassThrough ? Mode::Direct : Mode::Queued;
        return;
    }
    uint64_t from = 0;
    if (mode_ == Mode::Direct) {
        resetAccounting();
    } else {
        const uint64_t kept = std::min<uint64_t>(readTotal_, queueFrames_ - 2 * kFeedFrames);
        from = std::clamp<uint64_t>(static_cast<uint64_t>(std::llround(outputIndex())), readTotal_ - kept,
                                    readTotal_);
    }
    old_ = cur_;
    oldNext_ = fed_;
    fading_ = true;
    fadePos_ = 0;
    cur_ = to;
    fed_ = from;
    expectedOut_ = 0;
    received_ = 0;
    ratio_ = ratioOf(cur_);
    drainZeros_ = 0;
    mode_ = Mode::Queued;
}

bool TempoStage::sourceEnded() const {
    return mode_ == Mode::Direct ? sourceDone() : drained_;
}

bool TempoStage::seekSource(uint64_t frame, DWORD mode) {
    // Inside its own render the channel is moved by a mixtime sync (a loop
    // jump): SoundTouch keeps what it holds, so the audio runs on seamlessly.
    const bool fromRender = currentRenderChannel() == this;
    if (!Stage::seekSource(frame, mode)) return false;
    drained_ = false;
    srcEnded_ = false;
    if (!fromRender) {
        std::lock_guard lock(settingsMutex_);
        endFade();
        if (cur_ >= 0) {
            pool_[static_cast<size_t>(cur_)]->clear();
            used_[static_cast<size_t>(cur_)] = false;
        }
        if (pending_ != kNone) cur_ = pending_;
        pending_ = kNone;
        resetAccounting();
        flowing_ = false;
        mode_ = cur_ == kPassThrough ? Mode::Direct : Mode::Queued;
    }
    return true;
}

Channel::Span TempoStage::produceSpan(float* out, size_t frames, uint64_t maxTimeline) {
    if (mode_ == Mode::Direct) {
        const Span span = passThrough(out, frames, maxTimeline);
        flowing_ = flowing_ || span.frames > 0;
        return span;
    }
    const Span span = process(out, frames, maxTimeline);
    // Pass-through that caught up with the reads goes straight to the source again.
    if (span.frames == 0 && !span.starved && mode_ == Mode::Direct)
        return passThrough(out, frames, maxTimeline);
    return span;
}

// A new ratio counts what SoundTouch still holds in the new one, so that the
// reported position runs on without a jump.
void TempoStage::rebaseLocked() {
    const double r = ratioOf(cur_);
    if (r == ratio_) return;
    const double heldSource = (expectedOut_ - static_cast<double>(received_)) * ratio_;
    expectedOut_ = static_cast<double>(received_) + heldSource / r;
    ratio_ = r;
}

// The queue index of the source frame the next output frame stands for.
double TempoStage::outputIndex() const {
    if (cur_ < 0) return static_cast<double>(fed_);
    return std::max(0.0,
                    static_cast<double>(fed_) - (expectedOut_ - static_cast<double>(received_)) * ratio_);
}

int64_t TempoStage::owed() const {
    return std::llround(expectedOut_) - static_cast<int64_t>(received_);
}

const TempoStage::Segment* TempoStage::segmentAt(double index) const {
    const Segment* found = segCount_ ? &segments_[segHead_] : nullptr;
    for (size_t i = 1; i < segCount_; ++i) {
        const Segment& s = segments_[(segHead_ + i) % segments_.size()];
        if (static_cast<double>(s.fedStart) > index) break;
        found = &s;
    }
    return found;
}

const TempoStage::Segment* TempoStage::segmentAfter(double index) const {
    for (size_t i = 0; i < segCount_; ++i) {
        const Segment& s = segments_[(segHead_ + i) % segments_.size()];
        if (static_cast<double>(s.fedStart) > index) return &s;
    }
    return nullptr;
}

void TempoStage::noteFed(double before, double after) {
    const int dir = after >= before ? 1 : -1;
    const Segment* last = segCount_ ? &segments_[(segHead_ + segCount_ - 1) % segments_.size()] : nullptr;
    if (!last || std::fabs(before - nextSrc_) > 0.5 || last->dir != dir) {
        if (segCount_ == segments_.size()) { // the oldest is long heard
            segHead_ = (segHead_ + 1) % segments_.size();
            --segCount_;
        }
        segments_[(segHead_ + segCount_) % segments_.size()] = {readTotal_, before, dir};
        ++segCount_;
    }
    nextSrc_ = after;
}

void TempoStage::record(const float* frames, size_t n) {
    const unsigned ch = chans();
    while (n > 0) {
        const size_t pos = static_cast<size_t>(readTotal_ % queueFrames_);
        const size_t m = std::min(n, queueFrames_ - pos);
        std::copy_n(frames, m * ch, queue_.data() + pos * ch);
        frames += m * ch;
        readTotal_ += m;
        n -= m;
    }
}

void TempoStage::copyQueued(float* out, uint64_t from, size_t n) const {
    const unsigned ch = chans();
    while (n > 0) {
        const size_t pos = static_cast<size_t>(from % queueFrames_);
        const size_t m = std::min(n, queueFrames_ - pos);
        std::copy_n(queue_.data() + pos * ch, m * ch, out);
        out += m * ch;
        from += m;
        n -= m;
    }
}

// Feeds an instance what the queue holds from `next` on, up to the ring's end.
size_t TempoStage::feedQueued(int inst, uint64_t& next) {
    const size_t pos = static_cast<size_t>(next % queueFrames_);
    const size_t n = static_cast<size_t>(
        std::min<uint64_t>({readTotal_ - next, kFeedFrames, static_cast<uint64_t>(queueFrames_ - pos)}));
    pool_[static_cast<size_t>(inst)]->putSamples(queue_.data() + pos * chans(), static_cast<unsigned>(n));
    used_[static_cast<size_t>(inst)] = true;
    next += n;
    return n;
}

// The fading path's next `n` frames, faded out under the new path's in `out`.
void TempoStage::mixFade(float* out, size_t n) {
    const unsigned ch = chans();
    if (old_ >= 0) {
        pool_[static_cast<size_t>(old_)]->receiveSamples(fade_.data(), static_cast<unsigned>(n));
    } else { // pass-through; past the source's end, silence
        const size_t have = static_cast<size_t>(std::min<uint64_t>(n, readTotal_ - oldNext_));
        copyQueued(fade_.data(), oldNext_, have);
        std::fill(fade_.begin() + static_cast<ptrdiff_t>(have * ch),
                  fade_.begin() + static_cast<ptrdiff_t>(n * ch), 0.0f);
        oldNext_ += have;
    }
    for (size_t i = 0; i < n; ++i) {
        const double g = 0.5 - 0.5 * std::cos(M_PI * (static_cast<double>(fadePos_ + i) + 0.5) /
                                              static_cast<double>(fadeLen_));
        for (unsigned c = 0; c < ch; ++c) {
            float& o = out[i * ch + c];
            o = static_cast<float>(g * o + (1 - g) * fade_[i * ch + c]);
        }
    }
    fadePos_ += n;
    if (fadePos_ >= fadeLen_) endFade();
}

size_t TempoStage::fadingAvailable() const {
    if (old_ >= 0) return pool_[static_cast<size_t>(old_)]->numSamples();
    return srcEnded_ ? SIZE_MAX : static_cast<size_t>(readTotal_ - oldNext_);
}

Channel::Span TempoStage::process(float* out, size_t frames, uint64_t maxTimeline) {
    std::unique_lock lock(settingsMutex_);
    rebaseLocked();
    const unsigned ch = chans();
    soundtouch::SoundTouch* const st = cur_ >= 0 ? pool_[static_cast<size_t>(cur_)].get() : nullptr;
    Span span;
    span.rate = ratio_;
    bool started = false;
    uint64_t read = 0;
    size_t got = 0;
    while (got < frames) {
        size_t avail = st ? st->numSamples() : static_cast<size_t>(readTotal_ - fed_);
        if (st && srcEnded_) { // SoundTouch gives back what it holds, pushed out with silence
            const int64_t left = owed();
            if ((left <= 0 && fed_ >= readTotal_) || drainZeros_ >= kMaxDrainZeros) {
                endFade();
                st->clear();
                used_[static_cast<size_t>(cur_)] = false;
                resetAccounting();
                drained_ = true; // a loop or a seek starts over from here
                span.starved = true;
                break;
            }
            avail = std::min<size_t>(avail, static_cast<size_t>(std::max<int64_t>(left, 0)));
        }
        if (fading_) avail = std::min(avail, fadingAvailable());
        if (avail > 0) {
            const double index = outputIndex();
            while (segCount_ > 1 &&
                   static_cast<double>(segments_[(segHead_ + 1) % segments_.size()].fedStart) <= index) {
                segHead_ = (segHead_ + 1) % segments_.size();
                --segCount_;
            }
            size_t n = std::min(frames - got, avail);
            if (fading_) n = std::min(n, fadeLen_ - fadePos_);
            // A span has one mapping onto the source: it ends where the audio
            // read after a jump comes out.
            bool boundary = false;
            if (const Segment* next = segmentAfter(index)) {
                const auto k = std::max<size_t>(
                    1,
                    static_cast<size_t>(std::ceil((static_cast<double>(next->fedStart) - index) / ratio_)));
                if (k <= n) n = k, boundary = true;
            }
            if (!started) {
                const Segment* seg = segmentAt(index);
                span.outStart = seg ? seg->srcStart + seg->dir * (index - static_cast<double>(seg->fedStart))
                                    : static_cast<double>(decodePositionFrames());
                span.rate = ratio_ * (seg ? seg->dir : 1);
                started = true;
            }
            if (st) {
                n = st->receiveSamples(out + got * ch, static_cast<unsigned>(n));
                received_ += n;
            } else {
                copyQueued(out + got * ch, fed_, n);
                fed_ += n;
            }
            if (fading_) mixFade(out + got * ch, n);
            got += n;
            if (boundary) break;
            continue;
        }
        // Something needs input: the path in use, or the one fading out.
        if (fading_ && fadingAvailable() == 0 && (st ? st->numSamples() : readTotal_ - fed_) > 0) {
            if (oldNext_ < readTotal_) {
                feedQueued(old_, oldNext_);
                continue;
            }
            if (srcEnded_) {
                pool_[static_cast<size_t>(old_)]->putSamples(zeros_.data(),
                                                             static_cast<unsigned>(kFeedFrames));
                continue;
            }
        } else if (st && fed_ < readTotal_) {
            expectedOut_ += static_cast<double>(feedQueued(cur_, fed_)) / ratio_;
            continue;
        } else if (srcEnded_) {
            if (st) {
                const auto n =
                    std::clamp<size_t>(static_cast<size_t>(std::ceil(static_cast<double>(owed()) * ratio_)),
                                       kMinFeed, kFeedFrames);
                st->putSamples(zeros_.data(), static_cast<unsigned>(n));
                drainZeros_ += n;
                continue;
            }
            endFade(); // pass-through gave everything
            drained_ = true;
            span.starved = true;
            break;
        } else if (!st && !fading_) { // pass-through caught up with the reads
            resetAccounting();
            mode_ = Mode::Direct;
            break;
        }
        // Both want more of the source; never past the next position sync,
        // nor over what a path has yet to take from the queue.
        if (read >= maxTimeline) break;
        const uint64_t oldest = fading_ ? std::min(fed_, oldNext_) : fed_;
        const uint64_t room = queueFrames_ - (readTotal_ - oldest);
        if (room < kMinFeed) { // an instance lags far behind: it takes its part first
            if (st && fed_ == oldest)
                expectedOut_ += static_cast<double>(feedQueued(cur_, fed_)) / ratio_;
            else if (old_ >= 0)
                feedQueued(old_, oldNext_);
            else if (fading_)
                endFade(); // not reached: pass-through starts within the queue and keeps up with it
            else
                break;
            continue;
        }
        const auto want = static_cast<size_t>(std::min<uint64_t>(
            {maxTimeline - read, room,
             std::clamp<size_t>(static_cast<size_t>(std::ceil(static_cast<double>(frames - got) * ratio_)),
                                kMinFeed, kFeedFrames)}));
        // The source is read without the settings lock: its syncs and DSPs
        // are the application's code and may well change these settings.
        lock.unlock();
        const double before = source_->outputPosition();
        const size_t r = source_->read(feed_.data(), want);
        const double after = source_->outputPosition();
        lock.lock();
        // A span keeps one rate: a change made meanwhile ends it.
        const bool rateChanged = ratioOf(cur_) != ratio_ && started;
        rebaseLocked();
        if (r) {
            noteFed(before, after);
            record(feed_.data(), r);
            read += r;
            flowing_ = true;
        }
        if (r < want) {
            if (sourceDone()) {
                srcEnded_ = true;
                if (rateChanged) break;
                continue;
            }
            span.starved = true; // stalled: the source has no data yet
            break;
        }
        if (rateChanged) break;
    }
    span.frames = got;
    span.timeline = static_cast<uint64_t>(std::llround(std::max(0.0, source_->outputPosition())));
    return span;
}

} // namespace tavro::platform
