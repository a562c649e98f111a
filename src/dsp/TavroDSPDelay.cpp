#include <tavro/dsp/TavroDSPDelay.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>

TavroDSPDelay::~TavroDSPDelay() {
    std::free(buf_);
}

bool TavroDSPDelay::prepareLine(uint64_t slots, uint64_t channels) {
    if (channels == 0) return false;
    const uint64_t need = slots * channels;
    if (buf_ && bufSize_ >= need && bufChannels_ == channels) {
        // The line still holds the new time: follow the knob at once rather
        // than keep echoing at a time nobody set any more.
        if (slots < delaySamples_) {
            delaySamples_ = slots;
            writeIdx_ %= slots;
        } else if (slots > delaySamples_) {
            // Slots coming back into the ring hold audio from before the
            // last shortening; they must not replay it.
            std::fill(buf_ + delaySamples_ * channels, buf_ + need, 0.0f);
            delaySamples_ = slots;
        }
        return true;
    }
    const bool oldLineFits = buf_ && bufChannels_ == channels;
    if (need == failedSize_ && channels == failedChannels_) return oldLineFits;
    // calloc: large lines come as fresh zero pages, with no clearing pass
    // on the audio thread.
    auto* fresh = static_cast<float*>(std::calloc(need, sizeof(float)));
    if (!fresh) {
        failedSize_ = need, failedChannels_ = channels;
        return oldLineFits;
    }
    std::free(buf_);
    buf_ = fresh;
    bufSize_ = need, bufChannels_ = channels, writeIdx_ = 0, delaySamples_ = slots;
    failedSize_ = failedChannels_ = 0;
    return true;
}

void TavroDSPDelay::processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                            uint64_t sampleRate) {
    if (!enabled()) return;
    double seconds = delaySeconds_.get();
    if (std::isnan(seconds)) seconds = 0;
    seconds = std::min(seconds, kMaxDelaySeconds);
    const double product = static_cast<double>(sampleRate) * seconds;
    uint64_t slots = product > 0 ? static_cast<uint64_t>(product) : 0;
    if (slots < 2) slots = 1;
    if (!prepareLine(slots, channels)) return;
    if (frames == 0) return;

    const uint64_t length = delaySamples_;
    uint64_t w = writeIdx_;
    for (uint64_t i = 0; i < frames; ++i) {
        // Reading the slot after the one written takes the oldest sample, so
        // the echo lands length - 1 frames after its source.
        const uint64_t r = w + 1 == length ? 0 : w + 1;
        float* frame = samples + i * channels;
        float* line = buf_ + w * channels;
        const float* delayed = buf_ + r * channels;
        for (uint64_t ch = 0; ch < channels; ++ch) {
            const float d = delayed[ch];
            const float x = frame[ch];
            line[ch] = x + d * feedback_.get();
            const float mix = mix_.get();
            frame[ch] = x * (1.0f - mix) + d * mix;
        }
        w = r;
    }
    writeIdx_ = w;
}

std::shared_ptr<TavroDSPNode> TavroDSPDelay::copy() const {
    auto node = init();
    node->setEnabled(enabled());
    node->setDelaySeconds(delaySeconds());
    node->setFeedback(feedback());
    node->setMix(mix());
    return node;
}
