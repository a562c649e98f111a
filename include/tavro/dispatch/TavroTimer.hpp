/// @file
/// A repeating timer whose handler runs on the main queue.
///
/// Threading: create, start and cancel from any thread; the handler always runs
/// on the main thread. When cancel() returns on the main thread (including from
/// inside the handler) no further tick runs. From another thread, cancel()
/// stops every tick not yet begun; a tick already running finishes.
///
/// Ticks hold only a weak reference: a timer whose last owner lets go simply
/// stops, and destroying it cancels it.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dispatch/TavroTask.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>

class TAVRO_API TavroTimer : public std::enable_shared_from_this<TavroTimer> {
  public:
    /// A timer that, once started, first fires after `startDelayNs` and then every
    /// `periodNs` (0 = fire once). `leewayNs` is how late a tick may come; ticks
    /// are never early. The timer owns `handler` until it is cancelled.
    static std::shared_ptr<TavroTimer> create(uint64_t startDelayNs, uint64_t periodNs, uint64_t leewayNs,
                                              TavroTask handler);
    /// The periodic reporting timer: every `seconds` (converted to whole
    /// nanoseconds, truncated; not positive gives 0), first one period from
    /// start, with a leeway of a tenth of the period.
    static std::shared_ptr<TavroTimer> createRepeating(double seconds, TavroTask handler);
    ~TavroTimer();
    TavroTimer(const TavroTimer&) = delete;
    TavroTimer& operator=(const TavroTimer&) = delete;

    /// Arms the timer; the start delay counts from here. Only the first call
    /// does anything, and a cancelled timer never starts again.
    void start();
    /// Stops the ticks and releases the handler (and whatever it captured).
    void cancel();

    bool isStarted() const { return started_.load(); }
    bool isCancelled() const { return cancelled_.load(); }
    uint64_t startDelayNs() const { return startDelayNs_; }
    uint64_t periodNs() const { return periodNs_; }
    uint64_t leewayNs() const { return leewayNs_; }

  private:
    TavroTimer(uint64_t startDelayNs, uint64_t periodNs, uint64_t leewayNs, TavroTask handler);
    void schedule(std::chrono::steady_clock::time_point deadline);
    void tick(std::chrono::steady_clock::time_point deadline);

    const uint64_t startDelayNs_;
    const uint64_t periodNs_;
    const uint64_t leewayNs_;
    std::atomic<bool> started_{false};
    std::atomic<bool> cancelled_{false};
    mutable std::mutex mutex_;
    // Shared so that a tick can keep the handler alive while it runs even if the
    // handler cancels its own timer.
    std::shared_ptr<const TavroTask> handler_;
    // The queued next tick, withdrawn by cancel().
    bool hasPending_ = false;
    std::chrono::steady_clock::time_point pendingDeadline_;
    uint64_t pendingSequence_ = 0;
};
