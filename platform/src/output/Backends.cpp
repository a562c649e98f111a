// The two output backends: the no-sound device, which consumes the mix in
// real time against the monotonic clock, and a sound-server playback stream.
#include "channel/Channel.hpp"
#include "output/Device.hpp"
#include "output/PulseDirectory.hpp"

#include <pulse/pulseaudio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
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
    // Only a thread asleep for want of work is woken: a running one comes
    // round within 5 ms, and waking it would let it (real-time) take the
    // core from the caller.
    void wake() override {
        bool sleeping;
        {
            std::lock_guard lock(mutex_);
            woken_ = true;
            sleeping = idle_;
        }
        if (sleeping) cv_.notify_all();
    }

  private:
    static size_t kPeriodFrames(DWORD rate) { return rate / 100 + 1; }

    void run() {
        raiseAudioThreadPriority();
        // Frames due are computed from the elapsed time, so the long-run rate
        // is exact whatever the scheduling jitter.
        using namespace std::chrono;
        auto t0 = steady_clock::now();
        uint64_t done = 0;
        const double rate = device_.rate();
        bool justWoken = false;
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
            // Nothing to play: sleep until a channel starts (the first pass
            // after waking has rendered nothing yet, so it does not count),
            // and count time afresh from then.
            if (!justWoken && !device_.anyPlaying() && !woken_) {
                idle_ = true;
                cv_.wait(lock, [this] { return quit_ || woken_; });
                idle_ = false;
                t0 = steady_clock::now();
                done = 0;
                justWoken = true;
            } else {
                justWoken = false;
                cv_.wait_for(lock, milliseconds(5), [this] { return quit_; });
            }
            woken_ = false;
        }
    }

    Device& device_;
    std::vector<float> buffer_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool quit_ = false, woken_ = false, idle_ = false;
    std::thread thread_;
};

// A playback stream on the sound server that outlives the server: when the
// connection or the stream breaks, the device is told (it holds its channels,
// paused by the device, at what was heard), and a watcher thread reconnects
// with a growing pause between tries. Once a new stream runs, the device takes
// up where its channels stood; nothing is asked of the application.
//
// Threading: open/start/stop/latencyMs on application threads, under
// connMutex_, which the watcher also holds while it replaces the connection.
// The server's callbacks run on its mainloop thread and never take connMutex_
// (closing joins that thread while holding it); they only flag a loss and wake
// the watcher, which also delivers the loss notification, so an application
// that restarts the output from inside it cannot deadlock against a
// reconnection.
class PulseBackend final : public Backend {
  public:
    PulseBackend(Device& d, std::string sink) : device_(d), sink_(std::move(sink)) {}
    ~PulseBackend() override {
        {
            std::lock_guard lock(watchMutex_);
            quit_ = true;
        }
        watchCv_.notify_all();
        if (watcher_.joinable()) watcher_.join();
        std::lock_guard lock(connMutex_);
        closeLocked();
    }

    bool open() {
        {
            std::lock_guard lock(connMutex_);
            if (!connectLocked()) {
                closeLocked();
                return false;
            }
        }
        watcher_ = std::thread([this] { watch(); });
        return true;
    }

    bool start() override {
        std::lock_guard lock(connMutex_);
        wantRunning_ = true;
        return !lost_.load() && corkLocked(false);
    }
    void stop() override {
        std::lock_guard lock(connMutex_);
        wantRunning_ = false;
        corkLocked(true);
    }
    bool failed() const override { return lost_.load(); }
    DWORD latencyMs() const override {
        std::lock_guard lock(connMutex_);
        if (!stream_ || lost_.load()) return 0;
        pa_threaded_mainloop_lock(loop_);
        pa_usec_t usec = 0;
        int neg = 0;
        const bool ok = pa_stream_get_latency(stream_, &usec, &neg) == 0;
        pa_threaded_mainloop_unlock(loop_);
        return ok ? static_cast<DWORD>(usec / 1000) : 0;
    }

  private:
    static constexpr std::chrono::milliseconds kFirstRetry{50};
    // Short enough that sound is back within a second of the server.
    static constexpr std::chrono::milliseconds kLongestRetry{800};

    bool corkLocked(bool c) {
        if (!stream_) return false;
        pa_threaded_mainloop_lock(loop_);
        pa_operation* op = pa_stream_cork(stream_, c ? 1 : 0, nullptr, nullptr);
        if (op) pa_operation_unref(op);
        if (op && !c) {
            prefill_ = false;
            wakeSinkLocked();
        }
        pa_threaded_mainloop_unlock(loop_);
        return op != nullptr;
    }

    // A null sink (a virtual output) with nothing to play sleeps up to two
    // seconds at a time, and a new stream does not wake it: the first audio
    // would wait for that sleep to end. Cycling it through suspend restarts
    // its clock. Only done when no other stream plays on it, so that nobody
    // else's sound is touched; hardware sinks wake by themselves.
    void wakeSinkLocked() {
        if (auto* op = pa_context_get_sink_info_by_index(ctx_, pa_stream_get_device_index(stream_),
                                                         &PulseBackend::onSinkToWake, this))
            pa_operation_unref(op);
    }
    static void onSinkToWake(pa_context* c, const pa_sink_info* i, int eol, void* ud) {
        auto* self = static_cast<PulseBackend*>(ud);
        if (eol || !i || !i->driver || !std::strstr(i->driver, "null-sink")) return;
        self->wakeSink_ = i->index;
        self->otherInputs_ = 0;
        if (auto* op = pa_context_get_sink_input_info_list(c, &PulseBackend::onInputOfSinkToWake, self))
            pa_operation_unref(op);
    }
    static void onInputOfSinkToWake(pa_context* c, const pa_sink_input_info* i, int eol, void* ud) {
        auto* self = static_cast<PulseBackend*>(ud);
        if (!eol) {
            if (i && i->sink == self->wakeSink_ && !i->corked && self->stream_ &&
                i->index != pa_stream_get_index(self->stream_))
                ++self->otherInputs_;
            return;
        }
        if (self->otherInputs_ > 0) return;
        if (auto* op = pa_context_suspend_sink_by_index(c, self->wakeSink_, 1, nullptr, nullptr)) pa_operation_unref(op);
        if (auto* op = pa_context_suspend_sink_by_index(c, self->wakeSink_, 0, nullptr, nullptr)) pa_operation_unref(op);
    }

    // A context and a stream on the chosen sink, or on the server's default
    // when that sink is not there (now), left corked.
    bool connectLocked() {
        loop_ = pa_threaded_mainloop_new();
        if (!loop_) return false;
        ctx_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "TavroCore");
        if (!ctx_) return false;
        pa_context_set_state_callback(ctx_, &PulseBackend::onState, this);
        if (pa_context_connect(ctx_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) return false;
        if (pa_threaded_mainloop_start(loop_) < 0) return false;
        pa_threaded_mainloop_lock(loop_);
        bool ok = waitContext();
        if (ok) {
            // The chosen sink coming back takes the stream back from wherever
            // the server moved it meanwhile.
            pa_context_set_subscribe_callback(ctx_, &PulseBackend::onSinkEvent, this);
            if (auto* op = pa_context_subscribe(ctx_, PA_SUBSCRIPTION_MASK_SINK, nullptr, nullptr))
                pa_operation_unref(op);
            ok = connectStream(sink_.empty() ? nullptr : sink_.c_str()) || (!sink_.empty() && connectStream(nullptr));
        }
        if (ok) live_.store(true);
        pa_threaded_mainloop_unlock(loop_);
        return ok;
    }

    bool connectStream(const char* sink) {
        if (stream_) {
            pa_stream_set_state_callback(stream_, nullptr, nullptr);
            pa_stream_set_write_callback(stream_, nullptr, nullptr);
            pa_stream_unref(stream_);
        }
        pa_sample_spec format{PA_SAMPLE_FLOAT32LE, device_.rate(), 2};
        stream_ = pa_stream_new(ctx_, "playback", &format, nullptr);
        if (!stream_) return false;
        pa_stream_set_state_callback(stream_, &PulseBackend::onStreamState, this);
        pa_stream_set_write_callback(stream_, &PulseBackend::onWrite, this);
        prefill_ = true;
        // Explicit small buffering: the server's defaults add seconds of
        // latency and swallow the start of playback.
        const uint32_t frameBytes = 2 * sizeof(float);
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<uint32_t>(-1);
        attr.tlength = device_.rate() * 45 / 1000 * frameBytes;
        attr.prebuf = static_cast<uint32_t>(-1);
        attr.minreq = device_.rate() * 5 / 1000 * frameBytes;
        attr.fragsize = static_cast<uint32_t>(-1);
        const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE |
                                                          PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_START_CORKED);
        return pa_stream_connect_playback(stream_, sink, &attr, flags, nullptr, nullptr) == 0 && waitStream();
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

    void closeLocked() {
        live_.store(false);
        if (!loop_) return;
        pa_threaded_mainloop_lock(loop_);
        if (stream_) {
            pa_stream_set_write_callback(stream_, nullptr, nullptr);
            pa_stream_set_state_callback(stream_, nullptr, nullptr);
            pa_stream_disconnect(stream_);
            pa_stream_unref(stream_);
            stream_ = nullptr;
        }
        if (ctx_) {
            pa_context_set_state_callback(ctx_, nullptr, nullptr);
            pa_context_set_subscribe_callback(ctx_, nullptr, nullptr);
        }
        pa_threaded_mainloop_unlock(loop_);
        pa_threaded_mainloop_stop(loop_);
        if (ctx_) {
            pa_context_disconnect(ctx_);
            pa_context_unref(ctx_);
            ctx_ = nullptr;
        }
        pa_threaded_mainloop_free(loop_);
        loop_ = nullptr;
        raised_ = false;
    }

    // Server thread: a connection that was running broke.
    void lose() {
        if (!live_.exchange(false)) return;
        lost_.store(true);
        device_.outputLost();
        {
            std::lock_guard lock(watchMutex_);
            lossPending_ = true;
        }
        watchCv_.notify_all();
    }

    void watch() {
        std::unique_lock lock(watchMutex_);
        for (;;) {
            watchCv_.wait(lock, [this] { return quit_ || lossPending_; });
            if (quit_) return;
            lossPending_ = false;
            lock.unlock();
            PulseDirectory::reportStreamFailure();
            lock.lock();
            auto pause = kFirstRetry;
            while (!quit_) {
                if (watchCv_.wait_for(lock, pause, [this] { return quit_; })) return;
                lock.unlock();
                const bool back = reconnect();
                lock.lock();
                if (back) break;
                pause = std::min(pause * 2, kLongestRetry);
            }
        }
    }

    bool reconnect() {
        {
            std::lock_guard lock(connMutex_);
            closeLocked();
            if (!connectLocked()) {
                closeLocked();
                return false;
            }
        }
        // The channels are put back while the new stream is still corked,
        // without connMutex_: their render lock is held around application
        // code that may ask the output for its latency.
        device_.outputRestored();
        {
            std::lock_guard lock(connMutex_);
            lost_.store(false);
            if (wantRunning_) corkLocked(false);
        }
        PulseDirectory::snapshot(); // the device list follows the server back
        return true;
    }

    static void onState(pa_context* c, void* ud) {
        auto* self = static_cast<PulseBackend*>(ud);
        if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(c))) self->lose();
        pa_threaded_mainloop_signal(self->loop_, 0);
    }
    static void onStreamState(pa_stream* s, void* ud) {
        auto* self = static_cast<PulseBackend*>(ud);
        if (!PA_STREAM_IS_GOOD(pa_stream_get_state(s))) self->lose();
        pa_threaded_mainloop_signal(self->loop_, 0);
    }
    static void onSinkEvent(pa_context* c, pa_subscription_event_type_t t, uint32_t index, void* ud) {
        auto* self = static_cast<PulseBackend*>(ud);
        if ((t & PA_SUBSCRIPTION_EVENT_TYPE_MASK) != PA_SUBSCRIPTION_EVENT_NEW || self->sink_.empty()) return;
        if (auto* op = pa_context_get_sink_info_by_index(c, index, &PulseBackend::onNewSink, self))
            pa_operation_unref(op);
    }
    static void onNewSink(pa_context* c, const pa_sink_info* i, int eol, void* ud) {
        auto* self = static_cast<PulseBackend*>(ud);
        if (eol || !i || !self->stream_ || self->sink_ != i->name) return;
        const char* now = pa_stream_get_device_name(self->stream_);
        if (now && self->sink_ == now) return;
        if (auto* op = pa_context_move_sink_input_by_index(c, pa_stream_get_index(self->stream_), i->index, nullptr,
                                                           nullptr))
            pa_operation_unref(op);
    }
    static void onWrite(pa_stream* s, size_t nbytes, void* ud) {
        auto* self = static_cast<PulseBackend*>(ud);
        // What the server still has to play before this write is heard.
        pa_usec_t usec = 0;
        int negative = 0;
        int64_t delayNs = -1; // unknown until the server has sent its timing
        if (pa_stream_get_latency(s, &usec, &negative) == 0) delayNs = negative ? 0 : static_cast<int64_t>(usec) * 1000;
        if (!self->raised_) {
            raiseAudioThreadPriority(); // the mix runs on this thread
            self->raised_ = true;
        }
        const size_t frameBytes = 2 * sizeof(float);
        while (nbytes > 0) {
            void* data = nullptr;
            size_t n = nbytes;
            if (pa_stream_begin_write(s, &data, &n) < 0 || !data) return;
            const size_t frames = n / (2 * sizeof(float));
            if (frames == 0) {
                pa_stream_cancel_write(s);
                return;
            }
            // A new stream asks for its whole buffer while it is corked; that
            // is filled with silence, so that the channels' rings (a few
            // periods deep) are not drained at once by one large request
            // when sound comes back after a reconnection.
            if (self->prefill_)
                std::memset(data, 0, frames * frameBytes);
            else
                self->device_.render(static_cast<float*>(data), frames, delayNs);
            if (delayNs >= 0) delayNs += static_cast<int64_t>(frames) * 1'000'000'000 / self->device_.rate();
            pa_stream_write(s, data, frames * frameBytes, nullptr, 0, PA_SEEK_RELATIVE);
            nbytes -= std::min(nbytes, frames * 2 * sizeof(float));
        }
    }

    Device& device_;
    const std::string sink_; // the server's name of the chosen output

    mutable std::mutex connMutex_;
    pa_threaded_mainloop* loop_ = nullptr;
    pa_context* ctx_ = nullptr;
    pa_stream* stream_ = nullptr;
    bool wantRunning_ = false;        // connMutex_
    std::atomic<bool> live_{false};   // a connection is up and has not broken
    std::atomic<bool> lost_{false};   // broken and not yet replaced
    bool raised_ = false;             // the mainloop thread's priority (that thread only)
    bool prefill_ = false;            // corked since connecting (loop lock)
    uint32_t wakeSink_ = 0;           // mainloop thread: the null sink being woken
    int otherInputs_ = 0;             // and the inputs on it that are not ours

    std::mutex watchMutex_;
    std::condition_variable watchCv_;
    bool quit_ = false, lossPending_ = false;
    std::thread watcher_;
};

} // namespace

std::unique_ptr<Backend> makeNoSoundBackend(Device& device) { return std::make_unique<NoSoundBackend>(device); }

std::unique_ptr<Backend> makePulseBackend(Device& device, const std::string& sinkName) {
    auto b = std::make_unique<PulseBackend>(device, sinkName);
    if (!b->open()) return nullptr;
    return b;
}

} // namespace tavro::platform
