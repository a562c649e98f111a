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
        st_ = std::make_unique<soundtouch::SoundTouch>();
        TransposerBase::setAlgorithm(TransposerBase::CUBIC);
    }
    // SoundTouch takes rates up to 192 kHz. Above that it is told 192 kHz:
    // the rate only scales its analysis windows, which then span a shorter
    // time (half at 384 kHz) and still work.
    st_->setSampleRate(std::min<DWORD>(freq(), kMaxTempoRate));
    st_->setChannels(chans());
    tempoFreq_.store(static_cast<float>(freq()));
    aaFilter_.store(st_->getSetting(SETTING_USE_AA_FILTER));
    aaLength_.store(st_->getSetting(SETTING_AA_FILTER_LENGTH));
    quickSeek_.store(st_->getSetting(SETTING_USE_QUICKSEEK));
    sequenceMs_.store(st_->getSetting(SETTING_SEQUENCE_MS));
    seekWindowMs_.store(st_->getSetting(SETTING_SEEKWINDOW_MS));
    overlapMs_.store(st_->getSetting(SETTING_OVERLAP_MS));
    feed_.assign(kFeedFrames * chans(), 0.0f);
    zeros_.assign(kFeedFrames * chans(), 0.0f);
    prime();
}

TempoStage::~TempoStage() = default;

// SoundTouch's buffers grow to what a setting needs the first time it runs.
// Running it once at the corners of the usual range (half to double tempo,
// an octave down or up) means it does not allocate later, on the render
// thread, for settings within it. The far corners would need tens of
// megabytes for every stream, so they grow on first use instead.
void TempoStage::prime() {
    std::vector<float> out(kMaxBlockFrames * chans());
    for (double tempo : {0.5, 2.0})
        for (double pitch : {0.5, 2.0}) {
            st_->setTempo(tempo);
            st_->setPitch(pitch);
            const double ratio = tempo;
            uint64_t fed = 0, got = 0;
            // Fed the way the renderer feeds, until full blocks come out.
            while (got < 2 * kMaxBlockFrames && fed < kMaxDrainZeros) {
                if (st_->numSamples() > 0) {
                    got += st_->receiveSamples(out.data(), static_cast<unsigned>(kMaxBlockFrames));
                    continue;
                }
                const auto n = std::clamp<size_t>(static_cast<size_t>(std::ceil(kMaxBlockFrames * ratio)),
                                                  kMinFeed, kFeedFrames);
                st_->putSamples(zeros_.data(), static_cast<unsigned>(n));
                fed += n;
            }
            st_->clear();
        }
    st_->setTempo(1);
    st_->setRate(1);
    st_->setPitch(1);
    stRatio_ = 1;
    ratio_ = 1;
}

// ---------------------------------------------------------------- settings

bool TempoStage::neutral() const {
    return tempo_.load() == 0 && pitch_.load() == 0 && tempoFreq_.load() == static_cast<float>(freq()) &&
           preventClick_.load() == 0;
}

void TempoStage::applyRatioLocked() {
    stRatio_ = (1.0 + tempo_.load() / 100.0) * (tempoFreq_.load() / static_cast<double>(freq()));
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
    const auto flag = [&](std::atomic<int>& a, int setting) {
        if (value != 0 && value != 1) return false;
        a.store(static_cast<int>(value));
        if (setting >= 0) st_->setSetting(setting, static_cast<int>(value));
        return true;
    };
    const auto whole = [&](std::atomic<int>& a, int setting, float lo, float hi) {
        if (!isWhole(value) || !inRange(value, lo, hi)) return false;
        a.store(static_cast<int>(value));
        st_->setSetting(setting, static_cast<int>(value));
        return true;
    };
    std::lock_guard lock(settingsMutex_);
    bool ok = true;
    switch (attrib) {
    case BASS_ATTRIB_TEMPO:
        if ((ok = inRange(value, kTempoMin, kTempoMax))) {
            tempo_.store(value);
            st_->setTempo(1.0 + value / 100.0);
        }
        break;
    case BASS_ATTRIB_TEMPO_PITCH:
        if ((ok = inRange(value, -kPitchMax, kPitchMax))) {
            pitch_.store(value);
            st_->setPitchSemiTones(static_cast<double>(value));
        }
        break;
    case BASS_ATTRIB_TEMPO_FREQ: {
        const double src = freq();
        if (value == 0) value = static_cast<float>(src);
        if ((ok = inRange(value, static_cast<float>(src / kFreqSpan), static_cast<float>(src * kFreqSpan)))) {
            tempoFreq_.store(value);
            st_->setRate(value / src);
        }
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
            st_->setSetting(SETTING_AA_FILTER_LENGTH, taps);
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
        ok = flag(preventClick_, -1);
        break;
    default:
        return fail(BASS_ERROR_ILLTYPE);
    }
    if (!ok) return fail(BASS_ERROR_ILLPARAM);
    applyRatioLocked();
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
    fed_ = 0;
    expectedOut_ = 0;
    received_ = 0;
    ratio_ = stRatio_;
    drainZeros_ = 0;
    nextSrc_ = -1;
    segHead_ = segCount_ = 0;
}

// Neutral settings switch SoundTouch out of the path, and anything else back
// in, at the start of a block. Leaving it first gives back what it holds, so
// no audio is skipped.
void TempoStage::beginBlock() {
    const bool passThrough = neutral();
    if (mode_ == Mode::PassThrough && !passThrough) {
        std::lock_guard lock(settingsMutex_);
        st_->clear();
        resetAccounting();
        mode_ = Mode::Processing;
    } else if (mode_ == Mode::Processing && passThrough) {
        startDrain(false);
    }
}

void TempoStage::startDrain(bool toEnd) {
    mode_ = Mode::Draining;
    drainToEnd_ = toEnd;
    drainZeros_ = 0;
}

bool TempoStage::sourceEnded() const {
    return mode_ == Mode::PassThrough ? sourceDone() : drained_;
}

bool TempoStage::seekSource(uint64_t frame, DWORD mode) {
    // Inside its own render the channel is moved by a mixtime sync (a loop
    // jump): SoundTouch keeps what it holds, so the audio runs on seamlessly.
    const bool fromRender = currentRenderChannel() == this;
    if (!Stage::seekSource(frame, mode)) return false;
    drained_ = false;
    if (!fromRender) {
        std::lock_guard lock(settingsMutex_);
        st_->clear();
        resetAccounting();
        mode_ = neutral() ? Mode::PassThrough : Mode::Processing;
    }
    return true;
}

Channel::Span TempoStage::produceSpan(float* out, size_t frames, uint64_t maxTimeline) {
    if (mode_ == Mode::PassThrough) return passThrough(out, frames, maxTimeline);
    const Span span = process(out, frames, maxTimeline);
    // A drain that finished before giving anything hands over at once.
    if (span.frames == 0 && !span.starved && mode_ == Mode::PassThrough)
        return passThrough(out, frames, maxTimeline);
    return span;
}

// A new ratio counts what SoundTouch still holds in the new one, so that the
// reported position runs on without a jump.
void TempoStage::rebaseLocked() {
    if (stRatio_ == ratio_) return;
    const double heldSource = (expectedOut_ - static_cast<double>(received_)) * ratio_;
    expectedOut_ = static_cast<double>(received_) + heldSource / stRatio_;
    ratio_ = stRatio_;
}

// The source frame, counted in frames fed, that the next output frame stands for.
double TempoStage::outputIndex() const {
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
        segments_[(segHead_ + segCount_) % segments_.size()] = {fed_, before, dir};
        ++segCount_;
    }
    nextSrc_ = after;
}

Channel::Span TempoStage::process(float* out, size_t frames, uint64_t maxTimeline) {
    std::unique_lock lock(settingsMutex_);
    rebaseLocked();
    const unsigned ch = chans();
    Span span;
    span.rate = ratio_;
    bool started = false;
    uint64_t read = 0;
    size_t got = 0;
    while (got < frames) {
        size_t avail = st_->numSamples();
        if (mode_ == Mode::Draining) {
            const int64_t left = owed();
            if (left <= 0 || drainZeros_ >= kMaxDrainZeros) {
                st_->clear();
                resetAccounting();
                if (drainToEnd_) {
                    drained_ = true; // a loop or a seek starts over from here
                    span.starved = true;
                    mode_ = Mode::Processing;
                } else {
                    mode_ = Mode::PassThrough;
                }
                break;
            }
            if (avail == 0) {
                const auto n =
                    std::clamp<size_t>(static_cast<size_t>(std::ceil(static_cast<double>(left) * ratio_)),
                                       kMinFeed, kFeedFrames);
                st_->putSamples(zeros_.data(), static_cast<unsigned>(n));
                drainZeros_ += n;
                continue;
            }
            avail = std::min<size_t>(avail, static_cast<size_t>(left));
        }
        if (avail > 0) {
            const double index = outputIndex();
            while (segCount_ > 1 &&
                   static_cast<double>(segments_[(segHead_ + 1) % segments_.size()].fedStart) <= index) {
                segHead_ = (segHead_ + 1) % segments_.size();
                --segCount_;
            }
            size_t n = std::min(frames - got, avail);
            // A span has one mapping onto the source: it ends where the audio
            // fed after a jump comes out.
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
            const unsigned taken = st_->receiveSamples(out + got * ch, static_cast<unsigned>(n));
            got += taken;
            received_ += taken;
            if (boundary) break;
            continue;
        }
        // SoundTouch wants more of the source; never past the next position sync.
        if (read >= maxTimeline) break;
        const auto want = static_cast<size_t>(std::min<uint64_t>(
            maxTimeline - read,
            std::clamp<size_t>(static_cast<size_t>(std::ceil(static_cast<double>(frames - got) * ratio_)),
                               kMinFeed, kFeedFrames)));
        // The source is read without the settings lock: its syncs and DSPs
        // are the application's code and may well change these settings.
        lock.unlock();
        const double before = source_->outputPosition();
        const size_t r = source_->read(feed_.data(), want);
        const double after = source_->outputPosition();
        lock.lock();
        // A span keeps one rate: a change made meanwhile ends it.
        const bool rateChanged = stRatio_ != ratio_ && started;
        rebaseLocked();
        if (r) {
            noteFed(before, after);
            st_->putSamples(feed_.data(), static_cast<unsigned>(r));
            fed_ += r;
            expectedOut_ += static_cast<double>(r) / ratio_;
            read += r;
        }
        if (r < want) {
            if (sourceDone()) {
                startDrain(true);
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
