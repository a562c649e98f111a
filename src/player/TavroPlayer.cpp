#include <tavro/player/TavroPlayer.hpp>

#include <tavro/dispatch/TavroMainQueue.hpp>
#include <tavro/stream/TavroSync.hpp>

#include <algorithm>

std::shared_ptr<TavroPlayer> TavroPlayer::init() { return std::shared_ptr<TavroPlayer>(new TavroPlayer()); }

std::shared_ptr<TavroPlayer> TavroPlayer::initWithSource(std::shared_ptr<TavroSource> source) {
    auto p = init();
    p->loadSource(std::move(source));
    return p;
}

std::shared_ptr<TavroPlayer> TavroPlayer::initWithSource(std::shared_ptr<TavroSource> source, TavroPlayerOptions options) {
    auto p = init();
    p->fxChainEnabled_ = options & TavroPlayerOptionFXChain;
    p->reverseEnabled_ = options & TavroPlayerOptionReverse;
    p->loadSource(std::move(source));
    return p;
}

TavroPlayer::~TavroPlayer() { releaseStream(); }

void TavroPlayer::setVolume(float volume) {
    volume_ = volume;
    if (stream_) stream_->setVolume(volume);
}

void TavroPlayer::setPan(float pan) {
    pan_ = pan;
    if (stream_) stream_->setPan(pan);
}

bool TavroPlayer::loadSource(std::shared_ptr<TavroSource> source, TavroError* error) {
    releaseStream();
    TavroStreamOptions options = (fxChainEnabled_ ? TavroStreamOptionFXChain : 0) |
                                 (reverseEnabled_ ? TavroStreamOptionReverseChain : 0);
    TavroSourceFlags flags = TavroSourceFlagFloat;
    if (spatialEnabled_) {
        flags = TavroSourceFlagFloat | TavroSourceFlagMono | TavroSourceFlag3D;
        options = 0;
    }
    // A source may fail without saying why: the caller's object would then
    // still hold whatever it held before, which must not pass for the cause.
    TavroError failure;
    auto stream = TavroStream::streamWithSource(std::move(source), flags, options, error ? &failure : nullptr);
    if (!stream) {
        if (!error || failure == TavroError()) failure = TavroError::errorWithMessage("Failed to create stream");
        if (error) *error = failure;
        deliverError(&failure);
        return false;
    }
    stream_ = std::move(stream);
    // Components in their fixed order: effects, dsp, spatial, analyzer, bpm,
    // volume normaliser, crossfeed.
    if (includesEffects_) effects_ = TavroEffects::initWithStream(stream_);
    if (includesDSP_) dsp_ = TavroDSP::initWithStream(stream_);
    if (includesAnalyzer_) analyzer_ = TavroAnalyzer::initWithStream(stream_);
    if (includesBPM_) bpm_ = TavroBPM::initWithStream(stream_);
    if (includesVolumeNormalizer_) volumeNormalizer_ = TavroVolumeNormalizer::initWithStream(stream_);
    if (includesCrossfeed_) crossfeed_ = TavroCrossfeed::initWithStream(stream_);
    stream_->setVolume(volume_);
    stream_->setPan(pan_);
    endSync_ = TavroSync::addEndSyncOnStream(stream_, TavroBindWeak(weak_from_this(), [](TavroPlayer& p) { p.handleEnd(); }));
    return true;
}

void TavroPlayer::handleEnd() {
    state_ = TavroPlayerStateEnded;
    deliverStateChange();
    if (onEnd_) onEnd_();
    if (auto d = delegate_.lock()) d->bassPlayerDidReachEnd(*this);
}

void TavroPlayer::releaseStream() {
    endProgressUpdates();
    if (stream_ && endSync_ != 0) TavroSync::removeSync(endSync_, stream_);
    endSync_ = 0;
    if (analyzer_) analyzer_->stopMonitoring();
    if (bpm_) bpm_->stopAll();
    // Components detach what they attached in their destructors.
    effects_.reset();
    dsp_.reset();
    analyzer_.reset();
    bpm_.reset();
    volumeNormalizer_.reset();
    crossfeed_.reset();
    if (stream_) {
        stream_->free();
        stream_.reset();
    }
}

bool TavroPlayer::play(TavroError* error) {
    if (!stream_) {
        if (error) *error = TavroError::errorWithMessage("No stream loaded");
        return false;
    }
    if (!stream_->play(false)) {
        if (error) *error = TavroError::currentError();
        return false;
    }
    state_ = TavroPlayerStatePlaying;
    deliverStateChange();
    return true;
}

bool TavroPlayer::pause() {
    if (!stream_ || !stream_->pause()) return false;
    state_ = TavroPlayerStatePaused;
    deliverStateChange();
    return true;
}

bool TavroPlayer::stop() {
    if (!stream_ || !stream_->stop()) return false;
    stream_->seekToSeconds(0);
    state_ = TavroPlayerStateStopped;
    deliverStateChange();
    return true;
}

bool TavroPlayer::seekToSeconds(double seconds) { return stream_ && stream_->seekToSeconds(seconds); }

bool TavroPlayer::seekBy(double delta) { return stream_ && stream_->seekToSeconds(stream_->position() + delta); }

void TavroPlayer::deliverStateChange() {
    const TavroPlayerState state = state_; // the state now, not at delivery
    TavroMainQueue::async(TavroBindWeak(weak_from_this(), [state](TavroPlayer& p) {
        if (p.onStateChange_) p.onStateChange_(state);
        if (auto d = p.delegate_.lock()) d->bassPlayerDidChangeState(p, state);
    }));
}

void TavroPlayer::deliverError(const TavroError* error) {
    if (!error) return;
    TavroMainQueue::async(TavroBindWeak(weak_from_this(), [e = *error](TavroPlayer& p) {
        if (p.onError_) p.onError_(e);
        if (auto d = p.delegate_.lock()) d->bassPlayerDidFailWithError(p, e);
    }));
}

void TavroPlayer::beginProgressUpdatesEvery(double interval) {
    endProgressUpdates();
    if (!(interval > 0)) return;
    progressTimer_ = TavroTimer::createRepeating(interval, TavroBindWeak(weak_from_this(), [](TavroPlayer& p) {
        const double position = p.position();
        if (p.onProgress_) p.onProgress_(position);
        if (auto d = p.delegate_.lock()) d->bassPlayerDidUpdatePosition(p, position);
    }));
    progressTimer_->start();
}

void TavroPlayer::endProgressUpdates() {
    if (!progressTimer_) return;
    progressTimer_->cancel();
    progressTimer_.reset();
}

bool TavroPlayer::fadeVolumeTo(float volume, double seconds) {
    if (!stream_) return false;
    volume_ = volume;
    return stream_->slideVolumeTo(volume, seconds);
}

bool TavroPlayer::fadeInOver(double seconds, TavroError* error) {
    if (!stream_) {
        if (error) *error = TavroError::errorWithMessage("No stream loaded");
        return false;
    }
    const float target = volume_;
    stream_->setVolume(0);
    if (!play(error)) return false;
    return stream_->slideVolumeTo(target, seconds);
}

bool TavroPlayer::fadeOutThen(std::function<void()> action, double seconds) {
    if (!stream_) return false;
    const float saved = volume_;
    if (!stream_->slideVolumeTo(0, seconds)) return false;
    const auto delay = static_cast<int64_t>(seconds * 1'000'000'000.0);
    TavroMainQueue::after(static_cast<uint64_t>(std::max<int64_t>(0, delay)),
                          TavroBindWeak(weak_from_this(), [action = std::move(action), saved](TavroPlayer& p) {
                              if (!p.stream_) return;
                              if (action) action();
                              // The action may have released the stream.
                              if (p.stream_) p.stream_->setVolume(saved);
                              p.volume_ = saved;
                          }));
    return true;
}

bool TavroPlayer::fadeOutAndPauseOver(double seconds) {
    // The action keeps the player alive until it has run.
    return fadeOutThen([self = shared_from_this()] { self->pause(); }, seconds);
}

bool TavroPlayer::fadeOutAndStopOver(double seconds) {
    return fadeOutThen([self = shared_from_this()] { self->stop(); }, seconds);
}
