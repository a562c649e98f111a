// The main queue's shared state, reachable by the library's own timers.
//
// Threading: every member may be called from any thread except drain(), which
// runs tasks and so belongs to the main thread.
#pragma once

#include <tavro/dispatch/TavroTask.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace tavro::dispatch {

using Clock = std::chrono::steady_clock;
// Identifies one delayed task: its deadline, then its posting order.
using DelayedKey = std::pair<Clock::time_point, uint64_t>;

class MainQueueState {
  public:
    // Never destroyed: tasks may still be posted from other threads while the
    // process runs its static destructors.
    static MainQueueState& instance();

    void post(TavroTask task);
    DelayedKey postAt(Clock::time_point deadline, TavroTask task);
    // Forgets a delayed task that has not yet fallen due, so that a cancelled
    // timer does not wake the main thread for nothing. Does nothing when the
    // task is already due or gone.
    void cancelDelayed(const DelayedKey& key);
    size_t drain();
    // Blocks until the descriptor is readable or `until` passes.
    void waitForWork(std::optional<Clock::time_point> until);

    int fd() const { return eventFd_; }
    void requestStop();
    bool takeStopRequest() { return stopRequested_.exchange(false); }

  private:
    MainQueueState();
    void signal();
    void clearSignal();
    void promoteDueLocked(Clock::time_point now);
    void ensureTimerThreadLocked();
    void timerLoop();

    std::mutex mutex_;
    std::deque<TavroTask> ready_;
    // Ordered by deadline, then by posting order: after() is FIFO for equal
    // deadlines.
    std::map<DelayedKey, TavroTask> delayed_;
    uint64_t nextSequence_ = 0;
    std::condition_variable timerWake_;
    bool timerThreadRunning_ = false;
    int eventFd_ = -1;
    std::atomic<bool> stopRequested_{false};
};

} // namespace tavro::dispatch
