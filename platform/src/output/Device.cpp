#include "output/Device.hpp"

#include "channel/Channel.hpp"
#include "core/Config.hpp"
#include "core/Error.hpp"
#include "core/Handles.hpp"
#include "output/PulseDirectory.hpp"
#include "output/Voice.hpp"
#include "runtime/RealTime.hpp"
#include "runtime/SyncThread.hpp"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <map>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace tavro::platform {

namespace {

struct Registry {
    std::mutex mutex;
    std::map<int, std::shared_ptr<Device>> devices;
    int lastInitialised = -1;
    std::mutex slideMutex;
    std::vector<std::weak_ptr<Channel>> sliding;
};

Registry& registry() {
    static Registry* r = new Registry(); // used by threads that outlive static destruction
    return *r;
}

thread_local int tlsDevice = -1;

} // namespace

void raiseAudioThreadPriority() {
    sched_param param{};
    param.sched_priority = std::max(1, sched_get_priority_min(SCHED_FIFO) + 4);
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0) return;
    // No real-time rights: a better nice value, where that is allowed.
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), -11);
}

namespace {
std::atomic<int64_t> busyNs{0};
std::atomic<uint64_t> underrunCount{0};
} // namespace

void addAudioBusyNs(int64_t ns) { busyNs.fetch_add(ns, std::memory_order_relaxed); }
int64_t audioBusyNs() { return busyNs.load(std::memory_order_relaxed); }

void countUnderrun() { underrunCount.fetch_add(1, std::memory_order_relaxed); }
uint64_t underruns() { return underrunCount.load(std::memory_order_relaxed); }

namespace {

// Renders playing channels ahead into their rings, on as many threads as
// BASS_CONFIG_UPDATETHREADS says (0 counts as 1). A channel always goes to
// the same thread (by its handle), so each ring has one producer and the
// threads share nothing but the channel list; each takes no lock on the mix
// path beyond its channels' own render locks. A thread with nothing to play
// sleeps until a channel starts.
class Updater {
  public:
    static constexpr unsigned kMaxThreads = 8;
    Updater() { ensureThreads(); }
    // Threads that are rendering come round within a period anyway, and a
    // channel that starts has its first audio in its ring already; only
    // threads asleep for want of work are woken. Waking busy ones would only
    // let them (real-time) take the cores from the caller.
    void wake() {
        ensureThreads();
        bool sleeping;
        {
            std::lock_guard lock(mutex_);
            ++wakes_;
            sleeping = idle_ > 0;
        }
        if (sleeping) cv_.notify_all();
    }

  private:
    static unsigned wanted() { return std::clamp<unsigned>(Config::value(BASS_CONFIG_UPDATETHREADS), 1, kMaxThreads); }

    // Threads are started as the setting asks for more and never stopped:
    // one beyond the setting finds nothing of its own and sleeps.
    void ensureThreads() {
        std::lock_guard lock(startMutex_);
        for (unsigned k = started_.load(); k < wanted(); ++k) {
            std::thread([this, k] { run(k); }).detach();
            started_.store(k + 1);
        }
    }

    void run(unsigned index) {
        raiseAudioThreadPriority();
        // Both keep their capacity from pass to pass: a pass allocates
        // nothing once they have grown to the number of channels.
        std::vector<std::shared_ptr<Device>> devices;
        std::vector<std::shared_ptr<Channel>> work;
        uint64_t seen = 0;
        for (;;) {
            const unsigned threads = wanted();
            Device::all(devices);
            for (auto& d : devices)
                d->appendChannels(work, [&](const Channel& c) {
                    return c.handle() % threads == index && c.state() == ChannelState::Playing;
                });
            devices.clear();
            const DWORD bufferMs = Config::value(BASS_CONFIG_BUFFER);
            const int64_t start = monotonicNs();
            bool playing = false;
            for (auto& ch : work) {
                if (ch->state() != ChannelState::Playing || ch->isFreed()) continue;
                playing = true; // an ended one still plays out its ring
                if (!ch->ended()) ch->fillRing(ch->ringTarget());
            }
            addAudioBusyNs(monotonicNs() - start);
            work.clear(); // release references before sleeping
            DWORD period = Config::value(BASS_CONFIG_UPDATEPERIOD);
            // Never sleep longer than a third of the buffer, or it would run dry.
            period = std::clamp<DWORD>(period == 0 ? 10 : period, 5, std::max<DWORD>(5, bufferMs / 3));
            std::unique_lock lock(mutex_);
            const auto woken = [&] { return wakes_ != seen; };
            if (playing) {
                cv_.wait_for(lock, std::chrono::milliseconds(period), woken);
            } else {
                ++idle_;
                cv_.wait(lock, woken);
                --idle_;
            }
            seen = wakes_;
        }
    }
    std::mutex startMutex_;
    std::atomic<unsigned> started_{0};
    std::mutex mutex_;
    std::condition_variable cv_;
    uint64_t wakes_ = 0; // mutex_: every wake() counts, so each thread sees it
    unsigned idle_ = 0;  // mutex_: threads waiting for work
};

Updater& updater() {
    static Updater* u = new Updater();
    return *u;
}

} // namespace

Device::Device(int number, DWORD rate, DWORD flags) : number_(number), rate_(rate), flags_(flags) {
    live_.store(new std::vector<Channel*>());
}

Device::~Device() {
    if (backend_) backend_->stop();
    backend_.reset();
    retired_.clear(); // no callback runs any more
    delete live_.load();
}

std::shared_ptr<Device> Device::open(int number, DWORD rate, DWORD flags) {
    if (rate == 0) rate = 44100;
    if (rate < 1000 || rate > 384000) return failWith<std::shared_ptr<Device>>(BASS_ERROR_FREQ, nullptr);
    std::shared_ptr<Device> d(new Device(number, rate, flags));
    if (number == 0) {
        d->backend_ = makeNoSoundBackend(*d);
    } else {
        const ServerDevices sd = PulseDirectory::snapshot();
        if (number < 1 || static_cast<size_t>(number) > sd.sinks.size())
            return failWith<std::shared_ptr<Device>>(BASS_ERROR_DEVICE, nullptr);
        const ServerDevice& sink = sd.sinks[static_cast<size_t>(number - 1)];
        if (!sink.present) return failWith<std::shared_ptr<Device>>(BASS_ERROR_DEVICE, nullptr);
        d->backend_ = makePulseBackend(*d, sink.name);
        if (!d->backend_) return failWith<std::shared_ptr<Device>>(BASS_ERROR_DRIVER, nullptr);
    }
    updater(); // make sure the update thread runs
    return d;
}

void Device::render(float* out, size_t frames, int64_t delayNs) {
    RealTimeScope rt;
    callbackSeq_.fetch_add(1, std::memory_order_acq_rel);
    std::fill(out, out + frames * 2, 0.0f);
    const std::vector<Channel*>* list = live_.load(std::memory_order_acquire);
    const int64_t now = monotonicNs();
    const uint64_t index = framesRendered_.load(std::memory_order_relaxed);
    // Where the previous block puts this one, when the output keeps its pace.
    BlockClock prev = heardClock_.load();
    if (resumeDue_.exchange(false, std::memory_order_acq_rel)) {
        // A new output: its timing starts afresh, and what was held plays on.
        prev.heardNs = 0;
        lost_.store(false, std::memory_order_release);
    }
    const int64_t predicted = prev.heardNs + static_cast<int64_t>(static_cast<double>(index - prev.index) * 1e9 / rate_);
    int64_t heardNs = now + std::max<int64_t>(0, delayNs);
    if (prev.heardNs != 0 && delayNs < 0) {
        heardNs = predicted; // the output could not say: keep the pace
    } else if (prev.heardNs != 0 && std::abs(heardNs - predicted) < 20'000'000) {
        // The output's reports jitter by a few milliseconds: follow them slowly.
        heardNs = predicted + (heardNs - predicted) / 8;
    }
    const BlockClock clock{index, heardNs, static_cast<double>(rate_)};
    heardClock_.store(clock);
    const float gStream = static_cast<float>(Config::value(BASS_CONFIG_GVOL_STREAM)) / 10000.0f;
    const float gMusic = static_cast<float>(Config::value(BASS_CONFIG_GVOL_MUSIC)) / 10000.0f;
    const float gSample = static_cast<float>(Config::value(BASS_CONFIG_GVOL_SAMPLE)) / 10000.0f;
    bool playing = false;
    for (Channel* ch : *list) {
        Voice* v = ch->voice();
        if (!v || ch->state() != ChannelState::Playing) continue;
        playing = true;
        const DWORD ct = ch->ctype();
        const float g = (ct & BASS_CTYPE_MUSIC_MOD) ? gMusic : (ct == BASS_CTYPE_SAMPLE) ? gSample : gStream;
        v->mix(out, frames, clock, now, g);
    }
    playing_.store(playing, std::memory_order_release);
    for (size_t i = 0; i < frames * 2; ++i) out[i] = std::clamp(out[i], -1.0f, 1.0f);
    framesRendered_.fetch_add(frames, std::memory_order_acq_rel);
    callbackSeq_.fetch_add(1, std::memory_order_acq_rel);
    addAudioBusyNs(monotonicNs() - now);
}

void Device::outputLost() {
    const double heard = std::min(frameHeardAt(monotonicNs()), static_cast<double>(framesRendered()));
    frozenHeard_.store(std::max(0.0, heard), std::memory_order_relaxed);
    lost_.store(true, std::memory_order_release);
}

void Device::outputRestored() {
    for (auto& ch : attachedChannels()) ch->rewindToHeard();
    resumeDue_.store(true, std::memory_order_release);
}

double Device::frameHeardAt(int64_t nowNs) const {
    if (lost_.load(std::memory_order_acquire)) return frozenHeard_.load(std::memory_order_relaxed);
    const BlockClock c = heardClock_.load();
    return static_cast<double>(c.index) + static_cast<double>(nowNs - c.heardNs) * 1e-9 * c.rate;
}

std::vector<Device::Retired> Device::publishLocked(std::vector<std::shared_ptr<Channel>> keep) {
    auto next = std::make_unique<std::vector<Channel*>>();
    next->reserve(owners_.size());
    for (auto& c : owners_) next->push_back(c.get());
    const std::vector<Channel*>* old = live_.exchange(next.release(), std::memory_order_acq_rel);
    retired_.push_back({std::unique_ptr<const std::vector<Channel*>>(old), callbackSeq_.load(std::memory_order_acquire),
                        std::move(keep)});
    return reclaimLocked(false);
}

// A list replaced while no callback ran (an even count), or before a callback
// that has finished since (the count moved on), is no longer read.
std::vector<Device::Retired> Device::reclaimLocked(bool all) {
    const uint64_t seq = callbackSeq_.load(std::memory_order_acquire);
    std::vector<Retired> done;
    for (auto it = retired_.begin(); it != retired_.end();) {
        if (!all && (it->seq & 1u) && it->seq == seq) {
            ++it;
            continue;
        }
        done.push_back(std::move(*it));
        it = retired_.erase(it);
    }
    return done;
}

void Device::attach(const std::shared_ptr<Channel>& ch) {
    std::vector<Retired> released; // dropped after the lock
    {
        std::lock_guard lock(writerMutex_);
        if (std::find(owners_.begin(), owners_.end(), ch) == owners_.end()) {
            owners_.push_back(ch);
            released = publishLocked();
        }
    }
    // Only once the channel is in the list the output reads: an output woken
    // earlier could render a pass without it, find nothing playing and go
    // back to sleep for good.
    if (backend_) backend_->wake();
}

void Device::detach(Channel& ch) {
    std::vector<Retired> released; // dropped after the lock, outside the device's view
    std::lock_guard lock(writerMutex_);
    auto it = std::find_if(owners_.begin(), owners_.end(), [&](auto& c) { return c.get() == &ch; });
    if (it == owners_.end()) return;
    std::vector<std::shared_ptr<Channel>> leaving{std::move(*it)};
    owners_.erase(it);
    released = publishLocked(std::move(leaving));
}

std::vector<std::shared_ptr<Channel>> Device::attachedChannels() {
    std::lock_guard lock(writerMutex_);
    return owners_;
}

bool Device::startOutput() {
    if (!backend_) return false;
    if (backend_->failed()) return fail(BASS_ERROR_REINIT);
    if (!backend_->start()) return fail(BASS_ERROR_DRIVER);
    running_.store(true);
    return true;
}

void Device::stopOutput() {
    if (backend_) backend_->stop();
    running_.store(false);
}

void Device::shutdown() {
    stopOutput();
    for (auto& obj : Handles::all(ObjectKind::Channel)) {
        auto ch = std::static_pointer_cast<Channel>(obj);
        if (ch->device().get() != this) continue;
        Handles::remove(ch->handle());
        ch->free();
    }
    std::vector<Retired> released;
    std::unique_ptr<Backend> backend;
    {
        std::lock_guard lock(writerMutex_);
        released = publishLocked(std::exchange(owners_, {}));
        backend = std::move(backend_);
    }
    // Closed outside the lock: its threads may be listing our channels.
    backend.reset();
    // The device thread has stopped: nothing reads the old lists any more.
    std::lock_guard lock(writerMutex_);
    auto rest = reclaimLocked(true);
    std::move(rest.begin(), rest.end(), std::back_inserter(released));
}

bool Device::registerInitialised(const std::shared_ptr<Device>& d) {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    if (r.devices.count(d->number())) return false;
    r.devices[d->number()] = d;
    r.lastInitialised = d->number();
    tlsDevice = d->number();
    return true;
}

std::shared_ptr<Device> Device::byNumber(int number) {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    auto it = r.devices.find(number);
    return it == r.devices.end() ? nullptr : it->second;
}

std::shared_ptr<Device> Device::current() {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    auto it = r.devices.find(tlsDevice);
    if (it != r.devices.end()) return it->second;
    // A thread that never chose a device uses the one initialised last.
    it = r.devices.find(r.lastInitialised);
    if (it != r.devices.end()) return it->second;
    return r.devices.empty() ? nullptr : r.devices.begin()->second;
}

void Device::setCurrent(int number) { tlsDevice = number; }

std::shared_ptr<Device> Device::unregisterCurrent() {
    auto d = current();
    if (!d) return nullptr;
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    r.devices.erase(d->number());
    if (r.lastInitialised == d->number()) r.lastInitialised = r.devices.empty() ? -1 : r.devices.rbegin()->first;
    return d;
}

std::vector<std::shared_ptr<Device>> Device::all() {
    std::vector<std::shared_ptr<Device>> out;
    all(out);
    return out;
}

void Device::all(std::vector<std::shared_ptr<Device>>& out) {
    out.clear();
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    for (auto& [n, d] : r.devices) out.push_back(d);
}

void Device::watchSlides(const std::shared_ptr<Channel>& ch) {
    Registry& r = registry();
    std::lock_guard lock(r.slideMutex);
    for (auto& w : r.sliding)
        if (w.lock() == ch) return;
    r.sliding.push_back(ch);
    SyncThread::wake(); // the sync thread finishes slides; make sure it runs
}

void Device::forEachSliding(const std::function<void(Channel&, int64_t)>& fn) {
    Registry& r = registry();
    std::vector<std::shared_ptr<Channel>> live;
    {
        std::lock_guard lock(r.slideMutex);
        for (auto& w : r.sliding)
            if (auto c = w.lock()) live.push_back(c);
    }
    const int64_t now = monotonicNs();
    for (auto& c : live) fn(*c, now);
    std::lock_guard lock(r.slideMutex);
    std::erase_if(r.sliding, [&](const std::weak_ptr<Channel>& w) {
        auto c = w.lock();
        if (!c || c->isFreed()) return true;
        return !c->isSliding(0);
    });
}

void Device::wakeUpdater() { updater().wake(); }

} // namespace tavro::platform
