/// @file
/// The main queue: a FIFO of tasks and delayed tasks served by the
/// application's main thread.
///
/// Threading: async(), after() and stop() may be called from any thread,
/// including from inside a task. Tasks run only on the thread that serves the
/// queue through run(), drain(), runFor() or runUntil(); that thread is "the
/// main thread". One thread serves the queue at a time; serving again from
/// inside a task (a nested runFor, say) is allowed and simply continues the
/// same FIFO. Tasks must not throw: an exception leaves drain() with the rest
/// of the due work still queued.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dispatch/TavroTask.hpp>

#include <chrono>
#include <cstdint>
#include <functional>

class TAVRO_API TavroMainQueue {
  public:
    TavroMainQueue() = delete;

    /// Runs `task` after everything already posted.
    static void async(TavroTask task);
    /// Runs `task` once `nanoseconds` have passed. Tasks due at the same time run
    /// in the order they were posted.
    static void after(uint64_t nanoseconds, TavroTask task);

    /// @name Serves tasks and timers until stop()
    /// A stop() that arrives while nobody is serving makes the next run() return as soon as it has run what
    /// is due, so a stop posted from another thread just before run() is never lost.
    /// @{
    static void run();
    static void stop();
    /// @}

    /// For applications with their own event loop: fd() becomes readable when
    /// work is due; drain() then runs it without blocking. The descriptor
    /// belongs to the library: poll it, never read or close it.
    static int fd();
    /// Runs what is due now, in order. Tasks posted by those tasks wait for the
    /// next drain, so a task that re-posts itself cannot starve the caller.
    /// Returns the number of tasks run.
    static size_t drain();

    /// Serve the queue for a while on the calling thread (tests, simple tools).
    static void runFor(std::chrono::nanoseconds duration);
    /// Serves until `predicate` holds (checked after each batch of work and at
    /// least every few milliseconds) or `timeout` passes; returns whether it held.
    static bool runUntil(const std::function<bool()>& predicate, std::chrono::nanoseconds timeout);

    /// True on the thread that last served the queue; before anyone has, on the
    /// thread that loaded the library.
    static bool isMainThread();
};
