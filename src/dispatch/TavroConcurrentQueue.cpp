#include <tavro/dispatch/TavroConcurrentQueue.hpp>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

struct TavroConcurrentQueue::State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<TavroTask> tasks;
    bool stopping = false;
    std::vector<std::thread> workers;

    void serve() {
        std::unique_lock lock(mutex);
        for (;;) {
            wake.wait(lock, [&] { return stopping || !tasks.empty(); });
            if (tasks.empty()) return;
            TavroTask task = std::move(tasks.front());
            tasks.pop_front();
            lock.unlock();
            if (task) task();
            task = nullptr;
            lock.lock();
        }
    }
};

TavroConcurrentQueue::TavroConcurrentQueue(size_t threadCount) : state_(std::make_unique<State>()) {
    const size_t n = std::max<size_t>(threadCount, 1);
    state_->workers.reserve(n);
    for (size_t i = 0; i < n; ++i) state_->workers.emplace_back([s = state_.get()] { s->serve(); });
}

TavroConcurrentQueue::~TavroConcurrentQueue() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->wake.notify_all();
    for (auto& t : state_->workers) t.join();
}

TavroConcurrentQueue& TavroConcurrentQueue::globalQueue() {
    // Small on purpose: it carries offline analysis beside the audio threads,
    // and must not crowd them out. Never destroyed, so work still running at
    // exit finds its queue.
    static TavroConcurrentQueue* queue =
        new TavroConcurrentQueue(std::clamp<size_t>(std::thread::hardware_concurrency(), 2, 4));
    return *queue;
}

void TavroConcurrentQueue::async(TavroTask task) {
    {
        std::lock_guard lock(state_->mutex);
        state_->tasks.push_back(std::move(task));
    }
    state_->wake.notify_one();
}

size_t TavroConcurrentQueue::threadCount() const { return state_->workers.size(); }
