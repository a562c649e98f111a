// Access to the private sound server that scripts/test starts: recording its
// null sink's monitor and loading extra modules.
#pragma once

#include <pulse/simple.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace tavro::test {

inline bool soundServerConfigured() { return std::getenv("PULSE_SERVER") != nullptr; }

#define SKIP_WITHOUT_SOUND_SERVER()                                                                              \
    do {                                                                                                         \
        if (!::tavro::test::soundServerConfigured()) GTEST_SKIP() << "no test sound server (run scripts/test)"; \
    } while (0)

// Records a source in 2 ms reads and dates every recorded frame on the
// steady clock: each read returns no earlier than its last frame was
// rendered, so the earliest return over all reads fixes the timeline.
class TimedRecorder {
  public:
    static constexpr double kRate = 48000;
    TimedRecorder(double seconds, const std::string& source) : frames_(static_cast<size_t>(seconds * kRate) * 2) {
        pa_sample_spec ss{PA_SAMPLE_FLOAT32LE, 48000, 2};
        pa_buffer_attr attr{static_cast<uint32_t>(-1), 0, 0, 0, kChunk * 8};
        int err = 0;
        s_ = pa_simple_new(nullptr, "tavro-test", PA_STREAM_RECORD, source.c_str(), "monitor", &ss, nullptr, &attr, &err);
        if (!s_) return;
        thread_ = std::thread([this] {
            for (size_t at = 0; at + kChunk * 2 <= frames_.size(); at += kChunk * 2) {
                if (pa_simple_read(s_, frames_.data() + at, kChunk * 2 * sizeof(float), nullptr) < 0) break;
                const double now = std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
                start_ = std::min(start_, now - static_cast<double>(at / 2 + kChunk) / kRate);
            }
        });
    }
    ~TimedRecorder() {
        if (thread_.joinable()) thread_.join();
        if (s_) pa_simple_free(s_);
    }
    bool ok() const { return s_ != nullptr; }
    // Waits for the end of the recording; interleaved stereo.
    const std::vector<float>& finish() {
        if (thread_.joinable()) thread_.join();
        return frames_;
    }
    // Steady-clock seconds at which recorded frame i was rendered by the sink.
    double timeOf(double frame) const { return start_ + frame / kRate; }
    static double now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

  private:
    static constexpr uint32_t kChunk = 96; // 2 ms: the null sink renders in blocks no longer than this asks
    pa_simple* s_ = nullptr;
    std::vector<float> frames_;
    double start_ = 1e300;
    std::thread thread_;
};

inline std::string pactl(const std::string& args) {
    std::string out;
    if (FILE* p = popen(("pactl " + args + " 2>/dev/null").c_str(), "r")) {
        char buf[256];
        while (fgets(buf, sizeof buf, p)) out += buf;
        pclose(p);
    }
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
    return out;
}

} // namespace tavro::test
