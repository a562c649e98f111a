// The loudness add-on: a DSP-chain entry that feeds libebur128 and publishes
// its readings after every block.
#include "bassloud.h"
#include "channel/Channel.hpp"
#include "core/Error.hpp"
#include "core/Handles.hpp"

#include <ebur128.h>

#include <algorithm>
#include <atomic>
#include <cmath>

using namespace tavro::platform;

namespace {

constexpr DWORD kMeasureFlags =
    BASS_LOUDNESS_INTEGRATED | BASS_LOUDNESS_RANGE | BASS_LOUDNESS_PEAK | BASS_LOUDNESS_TRUEPEAK;
constexpr unsigned kMomentaryMs = 400;

// Owned by the render thread from the moment it is in the chain; the
// application side only reads the published values.
class LoudnessEntry : public DspEntry {
  public:
    LoudnessEntry(ebur128_state* st, DWORD measures, unsigned windowMs)
        : st_(st), measures_(measures), windowMs_(windowMs) {}
    ~LoudnessEntry() override { ebur128_destroy(&st_); }

    void process(Channel&, float* frames, size_t count) override {
        if (count == 0) return;
        ebur128_add_frames_float(st_, frames, count);
        double v = 0;
        if (ebur128_loudness_window(st_, windowMs_, &v) == EBUR128_SUCCESS) publish(0, v);
        if ((measures_ & BASS_LOUDNESS_INTEGRATED) && ebur128_loudness_global(st_, &v) == EBUR128_SUCCESS)
            publish(1, v);
        if ((measures_ & BASS_LOUDNESS_RANGE) && ebur128_loudness_range(st_, &v) == EBUR128_SUCCESS)
            publish(2, v);
        if (measures_ & BASS_LOUDNESS_PEAK) publish(3, highest(&ebur128_sample_peak));
        if (measures_ & BASS_LOUDNESS_TRUEPEAK) publish(4, highest(&ebur128_true_peak));
    }

    bool read(DWORD mode, float& out) const {
        int slot = -1;
        switch (mode) {
        case BASS_LOUDNESS_CURRENT:
            slot = 0;
            break;
        case BASS_LOUDNESS_INTEGRATED:
            slot = 1;
            break;
        case BASS_LOUDNESS_RANGE:
            slot = 2;
            break;
        case BASS_LOUDNESS_PEAK:
            slot = 3;
            break;
        case BASS_LOUDNESS_TRUEPEAK:
            slot = 4;
            break;
        default:
            return false;
        }
        if (mode != BASS_LOUDNESS_CURRENT && !(measures_ & mode)) return false;
        out = readings_[slot].load(std::memory_order_relaxed);
        return true;
    }

  private:
    void publish(int slot, double v) {
        readings_[slot].store(static_cast<float>(v), std::memory_order_relaxed);
    }
    double highest(int (*peak)(ebur128_state*, unsigned int, double*)) {
        double best = 0;
        for (unsigned c = 0; c < st_->channels; ++c) {
            double p = 0;
            if (peak(st_, c, &p) == EBUR128_SUCCESS) best = std::max(best, p);
        }
        return best;
    }

    ebur128_state* st_;
    const DWORD measures_;
    const unsigned windowMs_;
    std::atomic<float> readings_[5] = {-HUGE_VALF, -HUGE_VALF, 0.0f, 0.0f, 0.0f};
};

class LoudnessMeter : public Object {
  public:
    ObjectKind objectKind() const override { return ObjectKind::Meter; }
    std::weak_ptr<Channel> channel;
    std::shared_ptr<LoudnessEntry> entry;
    HDSP dsp = 0;
};

} // namespace

extern "C" {

HLOUDNESS BASS_Loudness_Start(DWORD handle, DWORD flags, int priority) {
    auto ch = Handles::get<Channel>(handle);
    if (!ch || ch->isFreed()) return failWith<HLOUDNESS>(BASS_ERROR_HANDLE, 0);
    const DWORD measures = flags & 0xFFFF;
    if (measures & ~kMeasureFlags) return failWith<HLOUDNESS>(BASS_ERROR_ILLPARAM, 0);
    const unsigned windowMs = (flags >> 16) ? (flags >> 16) : kMomentaryMs;

    // Histograms keep integrated and range readings constant-time per block,
    // however long the measurement runs.
    int mode = EBUR128_MODE_M;
    if (measures & BASS_LOUDNESS_INTEGRATED) mode |= EBUR128_MODE_I | EBUR128_MODE_HISTOGRAM;
    if (measures & BASS_LOUDNESS_RANGE) mode |= EBUR128_MODE_LRA | EBUR128_MODE_HISTOGRAM;
    if (measures & BASS_LOUDNESS_PEAK) mode |= EBUR128_MODE_SAMPLE_PEAK;
    if (measures & BASS_LOUDNESS_TRUEPEAK) mode |= EBUR128_MODE_TRUE_PEAK;
    ebur128_state* st = ebur128_init(ch->chans(), ch->freq(), mode);
    if (!st) return failWith<HLOUDNESS>(BASS_ERROR_FORMAT, 0);
    if (windowMs > kMomentaryMs && ebur128_set_max_window(st, windowMs) != EBUR128_SUCCESS) {
        ebur128_destroy(&st);
        return failWith<HLOUDNESS>(BASS_ERROR_ILLPARAM, 0);
    }

    auto meter = std::make_shared<LoudnessMeter>();
    meter->channel = ch;
    meter->entry = std::make_shared<LoudnessEntry>(st, measures, windowMs);
    meter->entry->priority = priority;
    meter->dsp = ch->addDspEntry(meter->entry);
    if (!meter->dsp) return failWith<HLOUDNESS>(BASS_ERROR_UNKNOWN, 0);
    return succeedWith(Handles::add(meter));
}

BOOL BASS_Loudness_GetLevel(HLOUDNESS handle, DWORD mode, float* level) {
    auto meter = Handles::get<LoudnessMeter>(handle);
    if (!meter) return fail(BASS_ERROR_HANDLE);
    if (!level) return fail(BASS_ERROR_ILLPARAM);
    float v = 0;
    if (!meter->entry->read(mode, v)) return fail(BASS_ERROR_NOTAVAIL);
    *level = v;
    return succeed();
}

BOOL BASS_Loudness_Stop(HLOUDNESS handle) {
    auto meter = Handles::get<LoudnessMeter>(handle);
    if (!meter) return fail(BASS_ERROR_HANDLE);
    Handles::remove(handle);
    // Once the channel has gone its chain went with it.
    if (auto ch = meter->channel.lock(); ch && !ch->isFreed()) ch->removeDsp(meter->dsp);
    return succeed();
}

} // extern "C"
