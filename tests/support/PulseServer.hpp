// Access to the private sound server that scripts/test starts: recording its
// null sink's monitor and loading extra modules.
#pragma once

#include <pulse/simple.h>

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

// Records stereo float frames at 48 kHz from a source, in a thread.
class MonitorRecorder {
  public:
    explicit MonitorRecorder(size_t frames, const char* source = "tavro_test.monitor") : frames_(frames * 2) {
        pa_sample_spec ss{PA_SAMPLE_FLOAT32LE, 48000, 2};
        pa_buffer_attr attr{static_cast<uint32_t>(-1), 0, 0, 0, 480 * 8};
        int err = 0;
        s_ = pa_simple_new(nullptr, "tavro-test", PA_STREAM_RECORD, source, "monitor", &ss, nullptr, &attr, &err);
        if (s_) thread_ = std::thread([this] { pa_simple_read(s_, frames_.data(), frames_.size() * sizeof(float), nullptr); });
    }
    ~MonitorRecorder() {
        if (thread_.joinable()) thread_.join();
        if (s_) pa_simple_free(s_);
    }
    bool ok() const { return s_ != nullptr; }
    const std::vector<float>& finish() {
        if (thread_.joinable()) thread_.join();
        return frames_;
    }

  private:
    pa_simple* s_ = nullptr;
    std::vector<float> frames_;
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
