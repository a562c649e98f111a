#include <tavro/analysis/TavroBPM.hpp>

#include "analysis/BPMProcs.hpp"

#include <tavro/dispatch/TavroConcurrentQueue.hpp>
#include <tavro/dispatch/TavroMainQueue.hpp>
#include <tavro/sources/TavroFileSource.hpp>

#include <bass.h>
#include <bass_fx.h>

std::shared_ptr<TavroBPM> TavroBPM::initWithStream(const std::shared_ptr<TavroStream>& stream) {
    std::shared_ptr<TavroBPM> bpm(new TavroBPM());
    bpm->stream_ = stream;
    return bpm;
}

TavroBPM::~TavroBPM() {
    stopAll();
}

uint32_t TavroBPM::handle() const {
    const auto s = stream_.lock();
    return s ? s->handle() : 0;
}

uint32_t TavroBPM::rangeWordForMinBPM(uint64_t minBPM, uint64_t maxBPM) {
    const uint32_t low = minBPM == 0 ? 60 : static_cast<uint32_t>(minBPM & 0xFFFF);
    const uint32_t high = maxBPM == 0 ? 180 : static_cast<uint32_t>(maxBPM & 0xFFFF);
    return high * 65536 + low;
}

std::shared_ptr<TavroStream> TavroBPM::decodeStreamForURL(const TavroURL& url) {
    auto source = TavroFileSource::initWithFileURL(url);
    if (!source) return nullptr;
    return TavroStream::streamWithSource(source, TavroSourceFlagDecode | TavroSourceFlagFloat);
}

namespace {
double endOf(const TavroStream& stream, double endSeconds) {
    return endSeconds > 0 ? endSeconds : stream.duration();
}
} // namespace

void TavroBPM::detectBPMForFileURL(const TavroURL& url, double startSeconds, double endSeconds, uint64_t minBPM,
                                   uint64_t maxBPM, std::function<void(float)> completion) {
    TavroConcurrentQueue::globalQueue().async([=, completion = std::move(completion)]() mutable {
        float bpm = 0;
        if (auto stream = decodeStreamForURL(url)) {
            const uint32_t h = stream->handle();
            bpm = BASS_FX_BPM_DecodeGet(h, startSeconds, endOf(*stream, endSeconds), rangeWordForMinBPM(minBPM, maxBPM),
                                        0, nullptr, nullptr);
            if (bpm < 0) bpm = 0; // refused: the platform's -1 is no tempo here
            BASS_FX_BPM_Free(h);
            stream->free();
        }
        TavroMainQueue::async([bpm, completion = std::move(completion)] {
            if (completion) completion(bpm);
        });
    });
}

void TavroBPM::detectBeatsForFileURL(const TavroURL& url, double startSeconds, double endSeconds,
                                     std::function<void(const std::vector<double>&)> completion) {
    TavroConcurrentQueue::globalQueue().async([=, completion = std::move(completion)]() mutable {
        std::vector<double> beats;
        if (auto stream = decodeStreamForURL(url)) {
            const uint32_t h = stream->handle();
            BASS_FX_BPM_BeatDecodeGet(h, startSeconds, endOf(*stream, endSeconds), 0, &TavroBeatCollectProc, &beats);
            BASS_FX_BPM_BeatFree(h);
            stream->free();
        }
        TavroMainQueue::async([beats = std::move(beats), completion = std::move(completion)] {
            if (completion) completion(beats);
        });
    });
}

bool TavroBPM::startLiveBPMWithPeriod(double period, uint64_t minBPM, uint64_t maxBPM,
                                      std::function<void(float)> block) {
    const uint32_t h = handle();
    if (h == 0) return false;
    stopLiveBPM();
    setLiveBPMBlock(std::move(block));
    const bool ok = BASS_FX_BPM_CallbackSet(h, &TavroLiveBPMProc, period, rangeWordForMinBPM(minBPM, maxBPM), 0, this);
    liveBPMRunning_ = ok;
    if (ok) {
        liveBPMChannel_ = h;
        livePeriod_ = period;
        liveMinBPM_ = minBPM;
        liveMaxBPM_ = maxBPM;
    } else {
        setLiveBPMBlock(nullptr);
    }
    return ok;
}

// Freeing by the recorded handle also waits for a report in flight when the
// channel has been freed meanwhile (the call then fails, harmlessly).
void TavroBPM::stopLiveBPM() {
    if (liveBPMChannel_) BASS_FX_BPM_Free(liveBPMChannel_);
    liveBPMChannel_ = 0;
    liveBPMRunning_ = false;
    setLiveBPMBlock(nullptr);
}

bool TavroBPM::startBeatDetectionWithBlock(std::function<void(double)> block) {
    const uint32_t h = handle();
    if (h == 0) return false;
    stopBeatDetection();
    setBeatBlock(std::move(block));
    const bool ok = BASS_FX_BPM_BeatCallbackSet(h, &TavroLiveBeatProc, this);
    beatDetectionRunning_ = ok;
    if (ok) beatChannel_ = h;
    else setBeatBlock(nullptr);
    return ok;
}

void TavroBPM::stopBeatDetection() {
    if (beatChannel_) BASS_FX_BPM_BeatFree(beatChannel_);
    beatChannel_ = 0;
    beatDetectionRunning_ = false;
    setBeatBlock(nullptr);
}

void TavroBPM::stopAll() {
    stopLiveBPM();
    stopBeatDetection();
}

void TavroBPM::setStream(std::weak_ptr<TavroStream> stream) {
    if (!stream_.owner_before(stream) && !stream.owner_before(stream_)) return; // the same stream
    const bool tempo = liveBPMChannel_ != 0, beats = beatChannel_ != 0;
    std::function<void(float)> tempoBlock;
    std::function<void(double)> beatBlock;
    {
        std::lock_guard lock(blockMutex_);
        tempoBlock = liveBPMBlock_;
        beatBlock = beatBlock_;
    }
    stopAll();
    stream_ = std::move(stream);
    if (tempo) startLiveBPMWithPeriod(livePeriod_, liveMinBPM_, liveMaxBPM_, std::move(tempoBlock));
    if (beats) startBeatDetectionWithBlock(std::move(beatBlock));
}

void TavroBPM::setLiveBPMBlock(std::function<void(float)> block) {
    std::lock_guard lock(blockMutex_);
    liveBPMBlock_.swap(block);
    // The old block is destroyed after the lock is released.
}

void TavroBPM::setBeatBlock(std::function<void(double)> block) {
    std::lock_guard lock(blockMutex_);
    beatBlock_.swap(block);
}

// On the platform's analysis thread.
void TavroBPM::deliverLiveBPM(float bpm) {
    std::function<void(float)> block;
    {
        std::lock_guard lock(blockMutex_);
        block = liveBPMBlock_;
    }
    if (!block) return;
    TavroMainQueue::async([block = std::move(block), bpm] { block(bpm); });
}

void TavroBPM::deliverBeatAt(double seconds) {
    std::function<void(double)> block;
    {
        std::lock_guard lock(blockMutex_);
        block = beatBlock_;
    }
    if (!block) return;
    TavroMainQueue::async([block = std::move(block), seconds] { block(seconds); });
}

void TavroBeatCollectProc(uint32_t, double beatSeconds, void* user) {
    static_cast<std::vector<double>*>(user)->push_back(beatSeconds);
}

void TavroLiveBPMProc(uint32_t, float bpm, void* user) {
    static_cast<TavroBPM*>(user)->deliverLiveBPM(bpm);
}

void TavroLiveBeatProc(uint32_t, double beatSeconds, void* user) {
    static_cast<TavroBPM*>(user)->deliverBeatAt(beatSeconds);
}
