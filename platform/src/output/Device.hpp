// Output devices: the no-sound device (0) and the sound server's outputs.
//
// A device owns a backend that pulls the mix, and the list of channels that
// play on it. The device thread reads that list through an immutable snapshot;
// a writer publishes a new one and waits for the callback in flight (bounded
// by one callback) before releasing the old, so the device thread never waits.
//
// Threading: create/free/start/stop and the registry on application threads;
// render() on the backend's thread; attachedChannels() on the update thread.
#pragma once

#include "bass.h"
#include "core/LockFree.hpp"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tavro::platform {

class Channel;
class Device;

// Where a device block lies in time: its first frame's device index, when
// that frame is heard, and the device rate.
struct BlockClock {
    uint64_t index;
    int64_t heardNs;
    double rate;
};

class Backend {
  public:
    virtual ~Backend() = default;
    virtual bool start() = 0;
    virtual void stop() = 0;
    virtual bool failed() const { return false; }
    virtual DWORD latencyMs() const { return 0; }
    // A channel started: an output that idles while nothing plays runs again.
    virtual void wake() {}
};

// Time the audio threads spend rendering and mixing, for BASS_GetCPU.
void addAudioBusyNs(int64_t ns);
int64_t audioBusyNs();
// Device blocks in which a playing channel that had more to give ran dry
// (its ring empty before the device had what it needed), since start-up.
void countUnderrun();
uint64_t underruns();

class Device : public std::enable_shared_from_this<Device> {
  public:
    // Opens device `number` (already resolved, not -1). Sets the error on failure.
    static std::shared_ptr<Device> open(int number, DWORD rate, DWORD flags);
    ~Device();

    int number() const { return number_; }
    DWORD rate() const { return rate_; }
    DWORD initFlags() const { return flags_; }
    bool isRunning() const { return running_.load(); }
    bool failed() const { return backend_ && backend_->failed(); }
    // The output broke (the sound server went away): its channels are held,
    // paused by the device, at what the listener last heard, until the
    // backend has a new output and the first block goes out on it.
    bool isOutputLost() const { return lost_.load(std::memory_order_acquire); }
    // Backend side.
    void outputLost();
    // Before the new output runs: puts the channels back to what was heard.
    void outputRestored();
    DWORD latencyMs() const { return backend_ ? backend_->latencyMs() : 0; }

    // Device thread: mixes every playing channel into interleaved stereo.
    // `delayNs` is how long the output takes to play what it already holds:
    // the first frame of this block is heard that much later.
    void render(float* out, size_t frames, int64_t delayNs = 0);
    uint64_t framesRendered() const { return framesRendered_.load(std::memory_order_acquire); }
    // Whether the last block had a playing channel to mix.
    bool anyPlaying() const { return playing_.load(std::memory_order_acquire); }
    // The device frame (an index counted like framesRendered) being heard at `nowNs`.
    double frameHeardAt(int64_t nowNs) const;

    void attach(const std::shared_ptr<Channel>& ch);
    void detach(Channel& ch);
    std::vector<std::shared_ptr<Channel>> attachedChannels();
    // Appends the attached channels that `take` accepts to `out`, whose
    // capacity is kept by the caller: nothing is allocated once it has grown.
    template <class Pred> void appendChannels(std::vector<std::shared_ptr<Channel>>& out, Pred take) {
        std::lock_guard lock(writerMutex_);
        for (auto& c : owners_)
            if (take(*c)) out.push_back(c);
    }

    bool startOutput();
    void stopOutput();
    // Frees every channel made on this device and closes the backend.
    void shutdown();

    // Registry of initialised devices and each thread's current device.
    static bool registerInitialised(const std::shared_ptr<Device>& d);
    static std::shared_ptr<Device> byNumber(int number);
    static std::shared_ptr<Device> current();
    static void setCurrent(int number);
    static std::shared_ptr<Device> unregisterCurrent();
    static std::vector<std::shared_ptr<Device>> all();
    static void all(std::vector<std::shared_ptr<Device>>& out); // replaces out's contents, keeps its capacity

    // Channels with slides in progress, for the sync thread.
    static void watchSlides(const std::shared_ptr<Channel>& ch);
    static void forEachSliding(const std::function<void(Channel&, int64_t)>& fn);

    // Wakes the update thread so a newly played channel fills at once.
    static void wakeUpdater();

  private:
    Device(int number, DWORD rate, DWORD flags);
    struct Retired {
        std::unique_ptr<const std::vector<Channel*>> list;
        uint64_t seq; // callbackSeq_ when it was replaced
        std::vector<std::shared_ptr<Channel>> keep; // channels it still names
    };
    // Publishes owners_ to the device thread without waiting for it: the
    // list it replaces (and `keep`, channels leaving it) is released by a
    // later publish once no callback can be reading it. Returns what can be
    // released now, for the caller to drop after the lock (a channel's
    // destructor may come back here).
    [[nodiscard]] std::vector<Retired> publishLocked(std::vector<std::shared_ptr<Channel>> keep = {});
    std::vector<Retired> reclaimLocked(bool all);

    const int number_;
    const DWORD rate_, flags_;
    std::unique_ptr<Backend> backend_;
    std::atomic<bool> running_{false};

    std::mutex writerMutex_;
    std::vector<std::shared_ptr<Channel>> owners_;
    std::atomic<const std::vector<Channel*>*> live_{nullptr};
    std::vector<Retired> retired_; // writerMutex_
    std::atomic<uint64_t> callbackSeq_{0}; // odd while render() runs
    std::atomic<uint64_t> framesRendered_{0};
    SeqLocked<BlockClock> heardClock_{BlockClock{0, 0, 1}}; // the last block's: updated at every block
    std::atomic<bool> lost_{false}, resumeDue_{false}, playing_{false};
    std::atomic<double> frozenHeard_{0}; // the device frame heard when the output broke
};

// Gives the calling audio thread (rendering or mixing) real-time scheduling
// where the system allows it, or at least a higher priority, so that other
// busy processes cannot make the output run dry. Best effort.
void raiseAudioThreadPriority();

std::unique_ptr<Backend> makeNoSoundBackend(Device& device);
// Null when the server cannot be reached or refuses the stream.
std::unique_ptr<Backend> makePulseBackend(Device& device, const std::string& sinkName);

} // namespace tavro::platform
