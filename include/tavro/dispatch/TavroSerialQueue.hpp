/// @file
/// A private serial queue: tasks run one at a time, in order, on the queue's
/// own worker thread (started on first use).
///
/// Threading: async() and sync() may be called from any thread. sync() called
/// from a task of the same queue runs its task inline instead of waiting for
/// itself. Two queues whose tasks sync() into each other can still deadlock, as
/// with any pair of locks. The destructor runs what is queued, then joins the
/// worker; destroying a queue from inside its own task is allowed (the worker
/// finishes on its own).
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dispatch/TavroTask.hpp>

#include <memory>
#include <string>

class TAVRO_API TavroSerialQueue {
  public:
    explicit TavroSerialQueue(std::string label = {});
    ~TavroSerialQueue();
    TavroSerialQueue(const TavroSerialQueue&) = delete;
    TavroSerialQueue& operator=(const TavroSerialQueue&) = delete;

    void async(TavroTask task);
    /// Runs `task` on the queue and returns when it has finished. An exception it
    /// throws is rethrown here, on the caller's thread.
    void sync(const TavroTask& task);
    /// True when called from a task of this queue.
    bool isCurrent() const;

    const std::string& label() const { return label_; }

  private:
    struct State;
    std::string label_;
    std::shared_ptr<State> state_;
};
