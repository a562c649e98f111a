#include "bpm/LiveBpm.hpp"

#include "bpm/BeatAnalysis.hpp"
#include "channel/Channel.hpp"
#include "core/Error.hpp"
#include "core/Handles.hpp"
#include "core/LockFree.hpp"
#include "output/Voice.hpp"

#include <algorithm>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <limits>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace tavro::platform::bpm {

namespace {

constexpr uint64_t kNoRing = std::numeric_limits<uint64_t>::max();
constexpr double kWindowSeconds = 10.0;
constexpr auto kPollInterval = std::chrono::milliseconds(5);
// A beat is settled about half a period after it; with a short playback
// buffer that can be after it was heard. One found later than this plus
// 0.6 periods after it was heard is no longer reported.
constexpr double kLateBeatSeconds = 0.1;

// True on the analysis thread: stop() called from one of its callbacks must
// not wait for the callback in flight (itself).
thread_local bool tlsAnalysisThread = false;

// Where one hop of analysed audio lies: on the timeline (frames; `rate`
// timeline frames per output frame) and in the playback ring.
struct HopPoint {
    double timeline = 0;
    double rate = 1;
    uint64_t ring = kNoRing;
    uint32_t gen = 0;
};

struct EnvelopeItem {
    float value = 0;
    bool reset = false; // the timeline jumped: everything before is void
    HopPoint at;        // the start of the hop the value stands for
};

// Runs in the channel's DSP chain on the render thread: no allocation, no lock.
class DetectorEntry : public DspEntry {
  public:
    DetectorEntry(double rate, unsigned chans) : detector(rate, chans), queue(16384), sampleRate(rate) {}

    void process(Channel& ch, float* frames, size_t count) override {
        const double start = ch.blockTimelineStart();
        const double rate = ch.blockTimelineRate();
        const uint64_t ring = ch.blockRingIndex();
        Voice* v = ch.voice();
        voice.store(v, std::memory_order_release);
        const uint32_t gen = v ? v->flushGeneration() : 0;
        // A jump on the timeline or a flush breaks the audio; a new tempo or
        // direction does not (the output runs on, only its mapping changes).
        if (started_ && (std::fabs(start - expected_) > 0.5 || gen != gen_)) {
            detector.reset();
            hopsFed_ = 0;
            valuesOut_ = 0;
            inHop_ = 0;
            pendingReset_ = true;
        }
        started_ = true;
        expected_ = start + static_cast<double>(count) * rate;
        gen_ = gen;

        const size_t hop = detector.hop();
        const unsigned chans = ch.chans();
        size_t done = 0;
        while (done < count) {
            if (inHop_ == 0) {
                const auto off = static_cast<double>(done);
                points_[hopsFed_ % kPoints] = {start + off * rate, rate, ring == kNoRing ? kNoRing : ring + done, gen};
                ++hopsFed_;
            }
            const size_t n = std::min(count - done, hop - inHop_);
            detector.process(frames + done * chans, n, [this](float value) { emit(value); });
            inHop_ = (inHop_ + n) % hop;
            done += n;
        }
    }

    OnsetDetector detector;
    SpscQueue<EnvelopeItem> queue;
    std::atomic<Voice*> voice{nullptr};
    const double sampleRate;

  private:
    void emit(float value) {
        // Value i stands for hop i; look its start up among the recent hops.
        const uint64_t i = valuesOut_++;
        HopPoint at = points_[(hopsFed_ - 1) % kPoints];
        if (hopsFed_ - i <= kPoints) at = points_[i % kPoints];
        queue.push({std::isfinite(value) ? value : 0.0f, pendingReset_, at});
        pendingReset_ = false;
    }

    static constexpr uint64_t kPoints = 64;
    HopPoint points_[kPoints];
    uint64_t hopsFed_ = 0, valuesOut_ = 0;
    size_t inHop_ = 0;
    bool started_ = false, pendingReset_ = false;
    double expected_ = 0;
    uint32_t gen_ = 0;
};

struct PendingBeat {
    double seconds;
    uint64_t ring;
    uint32_t gen;
};

struct Job {
    DWORD channel = 0;
    LiveRequest request;
    std::weak_ptr<Channel> ch;
    std::shared_ptr<DetectorEntry> entry;
    HDSP dsp = 0;
    HSYNC freeSync = 0;
    // Set under the registry lock; read without it by the analysis thread
    // between callbacks.
    std::atomic<bool> removed{false};

    // Analysis thread only.
    std::unique_ptr<LiveTracker> tracker;
    std::deque<HopPoint> points; // hop starts since the last reset, oldest first
    uint64_t pointsBase = 0;     // hop index of points.front()
    uint64_t nextReport = 0;     // hop at which the next tempo is due
    std::deque<PendingBeat> pending;
    double lastBeat = -1;      // seconds, the last beat located
    double beatInterval = 0.5; // seconds between the last two
    std::vector<float> values;
    std::vector<double> beats;
};

class Registry {
  public:
    static Registry& instance() {
        static Registry* r = new Registry(); // lives for the process, as its thread does
        return *r;
    }

    bool start(DWORD handle, const LiveRequest& req) {
        auto ch = Handles::get<Channel>(handle);
        if (!ch || ch->isFreed()) return fail(BASS_ERROR_HANDLE);

        auto job = std::make_shared<Job>();
        job->channel = handle;
        job->request = req;
        job->ch = ch;
        job->entry = std::make_shared<DetectorEntry>(ch->freq(), ch->chans());
        job->entry->priority = INT_MIN;
        const OnsetDetector& d = job->entry->detector;
        job->tracker = std::make_unique<LiveTracker>(d.frameRate(), d.latencySeconds(), kWindowSeconds);
        job->nextReport = periodHops(*job);
        // The FREE sync goes on before the job is listed: a free from now on
        // either finds the job listed or has marked the channel freed first.
        job->freeSync = ch->addSync(BASS_SYNC_FREE, 0, &Registry::onChannelFree, nullptr);
        job->dsp = ch->addDspEntry(job->entry);
        if (!job->freeSync || !job->dsp) {
            detach(*job, *ch);
            return fail(BASS_ERROR_UNKNOWN);
        }
        std::vector<std::shared_ptr<Job>> replaced;
        bool freed = false;
        {
            std::unique_lock lock(mutex_);
            take(lock, handle, req.kind, replaced);
            freed = ch->isFreed();
            if (!freed) jobs_.push_back(job);
        }
        for (const auto& old : replaced) detach(*old, *ch);
        if (freed) return fail(BASS_ERROR_HANDLE);
        wake_.notify_one();
        ensureThread();
        return succeed();
    }

    // Removes the job; waits for a callback of it in flight unless called
    // from one. Also waits on a freed handle (whose jobs the free removed but
    // could not wait for), then reports it as not live.
    bool stop(DWORD handle, LiveKind kind, bool checkHandle) {
        auto ch = Handles::get<Channel>(handle);
        std::vector<std::shared_ptr<Job>> gone;
        {
            std::unique_lock lock(mutex_);
            take(lock, handle, kind, gone);
        }
        if (checkHandle && (!ch || ch->isFreed())) return fail(BASS_ERROR_HANDLE);
        // The channel's locks are taken only outside the registry lock.
        if (ch)
            for (const auto& job : gone) detach(*job, *ch);
        return succeed();
    }

  private:
    Registry() = default;

    static uint64_t periodHops(const Job& job) {
        const double hops = job.request.period * job.entry->detector.frameRate();
        return hops >= 1 ? static_cast<uint64_t>(hops) : 1;
    }

    // Unlists the channel's job of that kind into `out` and waits (the lock
    // released meanwhile) until no callback of such a job is in flight,
    // unless this is the analysis thread: the only callback that can be in
    // flight then is the caller's own.
    void take(std::unique_lock<std::mutex>& lock, DWORD channel, LiveKind kind,
              std::vector<std::shared_ptr<Job>>& out) {
        for (auto it = jobs_.begin(); it != jobs_.end(); ++it) {
            if ((*it)->channel == channel && (*it)->request.kind == kind) {
                (*it)->removed.store(true);
                out.push_back(*it);
                jobs_.erase(it);
                break;
            }
        }
        if (tlsAnalysisThread) return;
        idle_.wait(lock, [&] {
            return !inFlight_ || inFlight_->channel != channel || inFlight_->request.kind != kind;
        });
    }

    // Takes the job's entries off a live channel (its render lock; never
    // called under the registry lock).
    static void detach(const Job& job, Channel& ch) {
        if (ch.isFreed()) return;
        if (job.dsp) ch.removeDsp(job.dsp);
        if (job.freeSync) ch.removeSync(job.freeSync);
    }

    // FREE sync: runs on the thread freeing the channel, holding its render
    // lock; its DSP entries die with it. It must not wait for a callback in
    // flight, which may itself be waiting for that render lock (a seek, say):
    // a callback already running may finish after the free returns, and the
    // job stays alive for it through the analysis thread's snapshot.
    static void onChannelFree(HSYNC, DWORD channel, DWORD, void*) {
        Registry& r = instance();
        std::lock_guard lock(r.mutex_);
        for (auto it = r.jobs_.begin(); it != r.jobs_.end();) {
            if ((*it)->channel == channel) {
                (*it)->removed.store(true);
                it = r.jobs_.erase(it);
            } else {
                ++it;
            }
        }
    }

    void ensureThread() {
        std::call_once(threadOnce_, [this] {
            std::thread([this] { run(); }).detach();
        });
    }

    // Services each job with the registry lock released: callbacks run with
    // no lock of ours held, so they may call anything, and stop() waits on
    // `inFlight_` instead.
    void run() {
        tlsAnalysisThread = true;
        std::vector<std::shared_ptr<Job>> snapshot;
        for (;;) {
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, [this] { return !jobs_.empty(); });
                snapshot = jobs_;
            }
            for (const auto& job : snapshot) {
                {
                    std::lock_guard lock(mutex_);
                    if (job->removed.load()) continue;
                    inFlight_ = job.get();
                }
                service(*job);
                {
                    std::lock_guard lock(mutex_);
                    inFlight_ = nullptr;
                }
                idle_.notify_all();
            }
            snapshot.clear();
            std::this_thread::sleep_for(kPollInterval);
        }
    }

    // Envelope that piled up (a decoding channel read faster than real time)
    // is taken a quarter of a second at a time, so that no beat falls out of
    // the tracker's window before it has been asked for.
    void service(Job& job) {
        auto ch = job.ch.lock();
        if (!ch || ch->isFreed()) return;
        DetectorEntry& e = *job.entry;
        const auto chunk = static_cast<size_t>(std::max(1.0, 0.25 * e.detector.frameRate()));
        for (;;) {
            job.values.clear();
            bool reset = false;
            const size_t before = job.points.size();
            while (const EnvelopeItem* item = e.queue.front()) {
                if (item->reset && !job.values.empty()) break; // finish what came before first
                if (item->reset) reset = true;
                job.values.push_back(item->value);
                job.points.push_back(item->at);
                e.queue.pop();
                if (job.values.size() >= chunk) break;
            }
            if (job.values.empty()) break;
            if (reset) restart(job, before);
            job.tracker->push(job.values.data(), job.values.size());
            report(job, *ch);
            if (job.removed) return;
        }
        releaseHeardBeats(job);
        // Keep the hop positions of the tracker's window and a margin.
        const auto keep = static_cast<size_t>((kWindowSeconds + 4.0) * e.detector.frameRate());
        while (job.points.size() > keep) {
            job.points.pop_front();
            ++job.pointsBase;
        }
    }

    // The timeline jumped: the hops from `firstNew` on begin a new analysis.
    static void restart(Job& job, size_t firstNew) {
        job.points.erase(job.points.begin(), job.points.begin() + static_cast<std::ptrdiff_t>(firstNew));
        job.tracker->reset();
        job.pointsBase = 0;
        job.nextReport = periodHops(job);
        job.pending.clear();
        job.lastBeat = -1;
    }

    static void report(Job& job, const Channel& ch) {
        const LiveRequest& req = job.request;
        if (req.kind == LiveKind::Tempo) {
            // Every envelope value has its point: hops since the reset.
            const uint64_t hops = job.pointsBase + job.points.size();
            if (hops < job.nextReport) return;
            job.nextReport = hops + periodHops(job);
            const double bpm = job.tracker->tempo(req.minBpm, req.maxBpm);
            if (bpm > 0 && !job.removed) req.tempoProc(job.channel, static_cast<float>(bpm), req.user);
            return;
        }
        job.beats.clear();
        job.tracker->takeNewBeats(job.beats);
        for (double t : job.beats) {
            if (auto b = locate(job, ch, t)) {
                if (job.lastBeat >= 0 && b->seconds > job.lastBeat) job.beatInterval = b->seconds - job.lastBeat;
                job.lastBeat = b->seconds;
                job.pending.push_back(*b);
            }
        }
        releaseHeardBeats(job);
    }

    // Beats go out once heard. Those flushed before they were heard never do,
    // and neither do those found only well after they were heard (the first
    // lock onto a tempo finds the beats of the seconds before it): a beat
    // report says "now", or it misleads. With a playback buffer shorter than
    // half a beat, beats come out up to that much late.
    static void releaseHeardBeats(Job& job) {
        if (job.request.kind != LiveKind::Beat) return;
        Voice* v = job.entry->voice.load(std::memory_order_acquire);
        const auto stale = static_cast<uint64_t>((kLateBeatSeconds + 0.6 * job.beatInterval) * job.entry->sampleRate);
        while (!job.pending.empty() && !job.removed) {
            const PendingBeat b = job.pending.front();
            if (v && b.ring != kNoRing) {
                const uint64_t heard = v->heardRingIndex();
                if (b.gen != v->flushGeneration() || heard > b.ring + stale) {
                    job.pending.pop_front();
                    continue;
                }
                if (heard < b.ring) break;
            }
            job.pending.pop_front();
            job.request.beatProc(job.channel, b.seconds, job.request.user);
        }
    }

    // A beat `t` seconds after the first hop since the last reset, on the
    // channel's timeline and in its ring.
    static std::optional<PendingBeat> locate(const Job& job, const Channel& ch, double t) {
        if (job.points.empty() || !(t >= 0)) return std::nullopt;
        const DetectorEntry& e = *job.entry;
        const double frame = t * static_cast<double>(ch.freq());
        const auto hop = static_cast<double>(e.detector.hop());
        auto k = static_cast<int64_t>(std::floor(frame / hop));
        k = std::clamp<int64_t>(k - static_cast<int64_t>(job.pointsBase), 0,
                                static_cast<int64_t>(job.points.size()) - 1);
        const HopPoint& p = job.points[static_cast<size_t>(k)];
        const double into = frame - static_cast<double>(job.pointsBase + static_cast<uint64_t>(k)) * hop;
        const double timeline = p.timeline + into * p.rate;
        uint64_t ring = kNoRing;
        if (p.ring != kNoRing) ring = p.ring + static_cast<uint64_t>(std::max(0.0, std::round(into)));
        return PendingBeat{std::max(0.0, timeline) / static_cast<double>(ch.freq()), ring, p.gen};
    }

    std::mutex mutex_;
    std::condition_variable wake_;  // jobs listed
    std::condition_variable idle_;  // inFlight_ cleared
    std::vector<std::shared_ptr<Job>> jobs_;
    const Job* inFlight_ = nullptr; // the job being serviced (registry lock)
    std::once_flag threadOnce_;
};

} // namespace

bool startLive(DWORD channel, const LiveRequest& request) {
    return Registry::instance().start(channel, request);
}

bool stopLive(DWORD channel, LiveKind kind) {
    return Registry::instance().stop(channel, kind, true);
}

} // namespace tavro::platform::bpm
