#include <tavro/dispatch/TavroSerialQueue.hpp>

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>

struct TavroSerialQueue::State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<TavroTask> tasks;
    bool stopping = false;
    std::thread worker;

    static void serve(const std::shared_ptr<State>& state);
};

namespace {

// The queue whose worker is the calling thread, if any: what makes a nested
// sync() run inline instead of waiting for itself.
thread_local const void* tCurrentQueue = nullptr;

} // namespace

TavroSerialQueue::TavroSerialQueue(std::string label) : label_(std::move(label)), state_(std::make_shared<State>()) {}

TavroSerialQueue::~TavroSerialQueue() {
    std::thread worker;
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
        worker = std::move(state_->worker);
    }
    state_->wake.notify_one();
    if (!worker.joinable()) return;
    // From inside our own task the worker cannot be joined; it holds the state
    // itself and ends once the queue is empty.
    if (isCurrent()) worker.detach();
    else worker.join();
}

void TavroSerialQueue::async(TavroTask task) {
    // Held locally: once the task is queued it may run and destroy this queue
    // before we have finished waking the worker.
    const auto state = state_;
    {
        std::lock_guard lock(state->mutex);
        state->tasks.push_back(std::move(task));
        if (!state->worker.joinable()) state->worker = std::thread([state] { State::serve(state); });
    }
    state->wake.notify_one();
}

void TavroSerialQueue::sync(const TavroTask& task) {
    if (isCurrent()) {
        task();
        return;
    }
    std::mutex doneMutex;
    std::condition_variable doneWake;
    bool done = false;
    std::exception_ptr failure;
    async([&] {
        try {
            task();
        } catch (...) {
            failure = std::current_exception();
        }
        // Notify under the lock: once it is released the caller may return and
        // destroy these locals.
        std::lock_guard lock(doneMutex);
        done = true;
        doneWake.notify_one();
    });
    std::unique_lock lock(doneMutex);
    doneWake.wait(lock, [&] { return done; });
    if (failure) std::rethrow_exception(failure);
}

bool TavroSerialQueue::isCurrent() const { return tCurrentQueue == state_.get(); }

void TavroSerialQueue::State::serve(const std::shared_ptr<State>& state) {
    tCurrentQueue = state.get();
    std::unique_lock lock(state->mutex);
    for (;;) {
        state->wake.wait(lock, [&] { return state->stopping || !state->tasks.empty(); });
        if (state->tasks.empty()) return;
        TavroTask task = std::move(state->tasks.front());
        state->tasks.pop_front();
        lock.unlock();
        if (task) task();
        // Drop the task's captures before taking the lock again: their
        // destructors may post to this very queue.
        task = nullptr;
        lock.lock();
    }
}
