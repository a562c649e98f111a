// The two output backends: the no-sound device, which consumes the mix in
// real time against the monotonic clock, and a sound-server playback stream.
#include "channel/Channel.hpp"
#include "output/Device.hpp"
#include "output/PulseDirectory.hpp"

#include <pulse/pulseaudio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <thread>
#include <vector>

namespace tavro::platform {

namespace {

class NoSoundBackend final : public Backend {
  public:
    explicit NoSoundBackend(Device& d) : device_(d), buffer_(kPeriodFrames(d.rate()) * 2 + 64) {}
    ~NoSoundBackend() override { stop(); }

    bool start() override {
        std::lock_guard lock(mutex_);
        if (thread_.joinable()) return true;
        quit_ = false;
        thread_ = std::thread([this] { run(); });
        return true;
    }
    void stop() override {
        {
            std::lock_guard lock(mutex_);
            if (!thread_.joinable()) return;
            quit_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }
    DWORD latencyMs() const override { return 10; }

  private:
    static size_t kPeriodFrames(DWORD rate) { return rate / 100 + 1; }

    void run() {
        raiseAudioThreadPriority();
        // Frames due are computed from the elapsed time, so the long-run rate
        // is exact whatever the scheduling jitter.
        using namespace std::chrono;
        const auto t0 = steady_clock::now();
        uint64_t done = 0;
        const double rate = device_.rate();
        std::unique_lock lock(mutex_);
        while (!quit_) {
            lock.unlock();
            const double elapsed = duration<double>(steady_clock::now() - t0).count();
            uint64_t due = static_cast<uint64_t>(elapsed * rate);
            while (done < due) {
                const size_t n = std::min<uint64_t>(due - done, buffer_.size() / 2);
                device_.render(buffer_.data(), n);
                done += n;
            }
            lock.lock();
            cv_.wait_for(lock, milliseconds(5), [this] { return quit_; });
        }
    }

    Device& device_;
    std::vector<float> buffer_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool quit_ = false;
    std::thread thread_;
};

class PulseBackend final : public Backend {
  public:
    explicit PulseBackend(Device& d) : device_(d) {}
    ~PulseBackend() override { close(); }

    bool open(const std::string& sink) {
        loop_ = pa_threaded_mainloop_new();
        if (!loop_) return false;
        ctx_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "TavroCore");
        pa_context_set_state_callback(ctx_, &PulseBackend::onState, this);
        if (pa_context_connect(ctx_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) return false;
        if (pa_threaded_mainloop_start(loop_) < 0) return false;
        pa_threaded_mainloop_lock(loop_);
        bool ok = waitContext();
        if (ok) {
            pa_sample_spec format{PA_SAMPLE_FLOAT32LE, device_.rate(), 2};
            stream_ = pa_stream_new(ctx_, "playback", &format, nullptr);
            ok = stream_ != nullptr;
        }
        if (ok) {
            pa_stream_set_state_callback(stream_, &PulseBackend::onStreamState, this);
            pa_stream_set_write_callback(stream_, &PulseBackend::onWrite, this);
            // Explicit small buffering: the server's defaults add seconds of
            // latency and swallow the start of playback.
            const uint32_t frameBytes = 2 * sizeof(float);
            pa_buffer_attr attr{};
            attr.maxlength = static_cast<uint32_t>(-1);
            attr.tlength = device_.rate() * 60 / 1000 * frameBytes;
            attr.prebuf = static_cast<uint32_t>(-1);
            attr.minreq = device_.rate() * 10 / 1000 * frameBytes;
            attr.fragsize = static_cast<uint32_t>(-1);
            const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE |
                                                              PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_START_CORKED);
            ok = pa_stream_connect_playback(stream_, sink.empty() ? nullptr : sink.c_str(), &attr, flags, nullptr,
                                            nullptr) == 0 &&
                 waitStream();
        }
        pa_threaded_mainloop_unlock(loop_);
        return ok;
    }

    bool start() override { return cork(false); }
    void stop() override { cork(true); }
    bool failed() const override { return failed_.load(); }
    DWORD latencyMs() const override {
        if (!stream_) return 0;
        pa_threaded_mainloop_lock(loop_);
        pa_usec_t usec = 0;
        int neg = 0;
        const bool ok = pa_stream_get_latency(stream_, &usec, &neg) == 0;
        pa_threaded_mainloop_unlock(loop_);
        return ok ? static_cast<DWORD>(usec / 1000) : 0;
    }

  private:
    bool cork(bool c) {
        if (!stream_ || failed_) return false;
        pa_threaded_mainloop_lock(loop_);
        pa_operation* op = pa_stream_cork(stream_, c ? 1 : 0, nullptr, nullptr);
        if (op) pa_operation_unref(op);
        pa_threaded_mainloop_unlock(loop_);
        return op != nullptr;
    }

    bool waitContext() {
        for (;;) {
            const pa_context_state_t st = pa_context_get_state(ctx_);
            if (st == PA_CONTEXT_READY) return true;
            if (!PA_CONTEXT_IS_GOOD(st)) return false;
            pa_threaded_mainloop_wait(loop_);
        }
    }
    bool waitStream() {
        for (;;) {
            const pa_stream_state_t st = pa_stream_get_state(stream_);
            if (st == PA_STREAM_READY) return true;
            if (!PA_STREAM_IS_GOOD(st)) return false;
            pa_threaded_mainloop_wait(loop_);
        }
    }

    void close() {
        if (!loop_) return;
        pa_threaded_mainloop_lock(loop_);
        if (stream_) {
            pa_stream_set_write_callback(stream_, nullptr, nullptr);
            pa_stream_set_state_callback(stream_, nullptr, nullptr);
            pa_stream_disconnect(stream_);
            pa_stream_unref(stream_);
            stream_ = nullptr;
        }
        if (ctx_) pa_context_set_state_callback(ctx_, nullptr, nullptr);
        pa_threaded_mainloop_unlock(loop_);
        pa_threaded_mainloop_stop(loop_);
        if (ctx_) {
            pa_context_disconnect(ctx_);
            pa_context_unref(ctx_);
        }
        pa_threaded_mainloop_free(loop_);
        loop_ = nullptr;
    }

    static void onState(pa_context* c, void* ud) {
        auto* self = static_cast<PulseBackend*>(ud);
        if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(c))) self->markFailed();
        pa_threaded_mainloop_signal(self->loop_, 0);
    }
    static void onStreamState(pa_stream* s, void* ud) {
        auto* self = static_cast<PulseBackend*>(ud);
        if (!PA_STREAM_IS_GOOD(pa_stream_get_state(s))) self->markFailed();
        pa_threaded_mainloop_signal(self->loop_, 0);
    }
    void markFailed() {
        if (!failed_.exchange(true) && everReady_) PulseDirectory::reportStreamFailure();
    }
    static void onWrite(pa_stream* s, size_t nbytes, void* ud) {
        auto* self = static_cast<PulseBackend*>(ud);
        self->everReady_ = true;
        // What the server still has to play before this write is heard.
        pa_usec_t usec = 0;
        int negative = 0;
        int64_t delayNs = -1; // unknown until the server has sent its timing
        if (pa_stream_get_latency(s, &usec, &negative) == 0) delayNs = negative ? 0 : static_cast<int64_t>(usec) * 1000;
        if (!self->raised_) {
            raiseAudioThreadPriority(); // the mix runs on this thread
            self->raised_ = true;
        }
        while (nbytes > 0) {
            void* data = nullptr;
            size_t n = nbytes;
            if (pa_stream_begin_write(s, &data, &n) < 0 || !data) return;
            const size_t frames = n / (2 * sizeof(float));
            if (frames == 0) {
                pa_stream_cancel_write(s);
                return;
            }
            self->device_.render(static_cast<float*>(data), frames, delayNs);
            if (delayNs >= 0) delayNs += static_cast<int64_t>(frames) * 1'000'000'000 / self->device_.rate();
            pa_stream_write(s, data, frames * 2 * sizeof(float), nullptr, 0, PA_SEEK_RELATIVE);
            nbytes -= std::min(nbytes, frames * 2 * sizeof(float));
        }
    }

    Device& device_;
    pa_threaded_mainloop* loop_ = nullptr;
    pa_context* ctx_ = nullptr;
    pa_stream* stream_ = nullptr;
    std::atomic<bool> failed_{false};
    std::atomic<bool> everReady_{false};
    bool raised_ = false; // the mainloop thread's priority (that thread only)
};

} // namespace

std::unique_ptr<Backend> makeNoSoundBackend(Device& device) { return std::make_unique<NoSoundBackend>(device); }

std::unique_ptr<Backend> makePulseBackend(Device& device, const std::string& sinkName) {
    auto b = std::make_unique<PulseBackend>(device);
    if (!b->open(sinkName)) return nullptr;
    return b;
}

} // namespace tavro::platform
