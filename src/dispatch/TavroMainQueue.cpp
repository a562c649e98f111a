#include <tavro/dispatch/TavroMainQueue.hpp>

#include "dispatch/MainQueueState.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace tavro::dispatch {
namespace {

// Set when the library is loaded, which is normally on the process's main
// thread; afterwards, whichever thread serves the queue.
std::atomic<std::thread::id> gMainThread{std::this_thread::get_id()};

// How often runUntil looks at its predicate when no work arrives: the
// predicate may depend on other threads, which don't wake the queue.
constexpr auto kPredicatePoll = std::chrono::milliseconds(5);

} // namespace

MainQueueState& MainQueueState::instance() {
    static MainQueueState* state = new MainQueueState();
    return *state;
}

MainQueueState::MainQueueState() {
    eventFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (eventFd_ < 0) {
        // Without the descriptor nothing could ever wake the main thread.
        std::perror("TavroMainQueue: eventfd");
        std::abort();
    }
}

void MainQueueState::signal() {
    const uint64_t one = 1;
    // The only failure is a counter at its maximum, which is still readable.
    [[maybe_unused]] auto n = ::write(eventFd_, &one, sizeof one);
}

void MainQueueState::clearSignal() {
    uint64_t value = 0;
    [[maybe_unused]] auto n = ::read(eventFd_, &value, sizeof value);
}

void MainQueueState::post(TavroTask task) {
    {
        std::lock_guard lock(mutex_);
        ready_.push_back(std::move(task));
    }
    signal();
}

DelayedKey MainQueueState::postAt(Clock::time_point deadline, TavroTask task) {
    std::lock_guard lock(mutex_);
    const DelayedKey key{deadline, nextSequence_++};
    const auto it = delayed_.emplace(key, std::move(task)).first;
    ensureTimerThreadLocked();
    if (it == delayed_.begin()) timerWake_.notify_one();
    return key;
}

void MainQueueState::cancelDelayed(const DelayedKey& key) {
    std::lock_guard lock(mutex_);
    // The timer thread may sleep towards this deadline; waking early with
    // nothing due costs it one more wait, which is cheaper than a notify here.
    delayed_.erase(key);
}

void MainQueueState::promoteDueLocked(Clock::time_point now) {
    auto it = delayed_.begin();
    while (it != delayed_.end() && it->first.first <= now) {
        ready_.push_back(std::move(it->second));
        it = delayed_.erase(it);
    }
}

void MainQueueState::ensureTimerThreadLocked() {
    if (timerThreadRunning_) return;
    timerThreadRunning_ = true;
    // Detached: like the state it serves, it lives as long as the process.
    std::thread([this] { timerLoop(); }).detach();
}

// Moves delayed work to the ready list when it falls due and wakes the main
// thread through the descriptor, so an application polling fd() sees delayed
// work without knowing any deadlines.
void MainQueueState::timerLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        if (delayed_.empty()) {
            timerWake_.wait(lock);
            continue;
        }
        const auto first = delayed_.begin()->first.first;
        if (Clock::now() >= first) {
            promoteDueLocked(Clock::now());
            signal();
            continue;
        }
        // Capped so a far-off deadline never reaches the clock's overflow edge.
        timerWake_.wait_until(lock, std::min(first, Clock::now() + std::chrono::hours(1)));
    }
}

size_t MainQueueState::drain() {
    gMainThread.store(std::this_thread::get_id());
    clearSignal();
    size_t due;
    {
        std::lock_guard lock(mutex_);
        promoteDueLocked(Clock::now());
        due = ready_.size();
    }
    // Whatever is left when we leave (posted by the tasks themselves, or left
    // behind by a task that threw) must keep the descriptor readable.
    struct Resignal {
        MainQueueState& self;
        ~Resignal() {
            bool pending;
            {
                std::lock_guard lock(self.mutex_);
                pending = !self.ready_.empty();
            }
            if (pending) self.signal();
        }
    } resignal{*this};

    size_t ran = 0;
    for (; ran < due; ++ran) {
        TavroTask task;
        {
            std::lock_guard lock(mutex_);
            // A nested drain inside a task may have taken our work already.
            if (ready_.empty()) break;
            task = std::move(ready_.front());
            ready_.pop_front();
        }
        if (task) task();
    }
    return ran;
}

void MainQueueState::waitForWork(std::optional<Clock::time_point> until) {
    pollfd pfd{eventFd_, POLLIN, 0};
    if (!until) {
        while (::ppoll(&pfd, 1, nullptr, nullptr) < 0 && errno == EINTR) {
        }
        return;
    }
    const auto left = *until - Clock::now();
    if (left <= Clock::duration::zero()) return;
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    timespec ts{static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
    ::ppoll(&pfd, 1, &ts, nullptr);
}

void MainQueueState::requestStop() {
    stopRequested_.store(true);
    signal();
}

} // namespace tavro::dispatch

using tavro::dispatch::Clock;
using tavro::dispatch::MainQueueState;

void TavroMainQueue::async(TavroTask task) { MainQueueState::instance().post(std::move(task)); }

void TavroMainQueue::after(uint64_t nanoseconds, TavroTask task) {
    // Saturate rather than wrap: a huge delay means "practically never".
    const auto now = Clock::now();
    const auto room = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::time_point::max() - now).count());
    const auto delay = std::chrono::nanoseconds(static_cast<int64_t>(nanoseconds < room ? nanoseconds : room));
    MainQueueState::instance().postAt(now + std::chrono::duration_cast<Clock::duration>(delay), std::move(task));
}

void TavroMainQueue::run() {
    auto& state = MainQueueState::instance();
    for (;;) {
        state.drain();
        if (state.takeStopRequest()) return;
        state.waitForWork(std::nullopt);
    }
}

void TavroMainQueue::stop() { MainQueueState::instance().requestStop(); }

int TavroMainQueue::fd() { return MainQueueState::instance().fd(); }

size_t TavroMainQueue::drain() { return MainQueueState::instance().drain(); }

void TavroMainQueue::runFor(std::chrono::nanoseconds duration) {
    auto& state = MainQueueState::instance();
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(duration);
    for (;;) {
        state.drain();
        if (Clock::now() >= end) return;
        state.waitForWork(end);
    }
}

bool TavroMainQueue::runUntil(const std::function<bool()>& predicate, std::chrono::nanoseconds timeout) {
    auto& state = MainQueueState::instance();
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(timeout);
    for (;;) {
        state.drain();
        if (predicate()) return true;
        const auto now = Clock::now();
        if (now >= end) return false;
        state.waitForWork(std::min<Clock::time_point>(end, now + tavro::dispatch::kPredicatePoll));
    }
}

bool TavroMainQueue::isMainThread() {
    return tavro::dispatch::gMainThread.load() == std::this_thread::get_id();
}
