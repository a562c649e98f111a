/// @file
/// A concurrent queue: a small pool of worker threads taking tasks in posting
/// order, running several at once. Offline analysis uses the global one.
///
/// Threading: async() may be called from any thread, including from a task.
/// Tasks run on the pool's threads in no guaranteed order relative to each
/// other once started; they must not throw. A private pool's destructor runs
/// what is queued and joins its threads (never destroy one from its own task);
/// the global pool lives until the process ends.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dispatch/TavroTask.hpp>

#include <cstddef>
#include <memory>

class TAVRO_API TavroConcurrentQueue {
  public:
    explicit TavroConcurrentQueue(size_t threadCount);
    ~TavroConcurrentQueue();
    TavroConcurrentQueue(const TavroConcurrentQueue&) = delete;
    TavroConcurrentQueue& operator=(const TavroConcurrentQueue&) = delete;

    /// The process-wide pool for user-initiated background work.
    static TavroConcurrentQueue& globalQueue();

    void async(TavroTask task);
    size_t threadCount() const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};
