#include <tavro/dispatch/TavroTimer.hpp>

#include "dispatch/MainQueueState.hpp"

#include <limits>

using tavro::dispatch::Clock;
using tavro::dispatch::MainQueueState;

namespace {

// Deadlines saturate instead of wrapping: a period of "forever" must not
// come round to the past and fire at once.
Clock::time_point addSaturating(Clock::time_point t, uint64_t ns) {
    const auto room = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::time_point::max() - t).count());
    if (ns >= room) return Clock::time_point::max();
    return t + std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(static_cast<int64_t>(ns)));
}

} // namespace

std::shared_ptr<TavroTimer> TavroTimer::create(uint64_t startDelayNs, uint64_t periodNs, uint64_t leewayNs,
                                               TavroTask handler) {
    return std::shared_ptr<TavroTimer>(new TavroTimer(startDelayNs, periodNs, leewayNs, std::move(handler)));
}

std::shared_ptr<TavroTimer> TavroTimer::createRepeating(double seconds, TavroTask handler) {
    const double ns = seconds * 1'000'000'000.0;
    uint64_t period = 0;
    if (ns >= static_cast<double>(std::numeric_limits<uint64_t>::max())) period = std::numeric_limits<uint64_t>::max();
    else if (ns > 0) period = static_cast<uint64_t>(ns);
    return create(period, period, period / 10, std::move(handler));
}

TavroTimer::TavroTimer(uint64_t startDelayNs, uint64_t periodNs, uint64_t leewayNs, TavroTask handler)
    : startDelayNs_(startDelayNs), periodNs_(periodNs), leewayNs_(leewayNs),
      handler_(std::make_shared<const TavroTask>(std::move(handler))) {}

TavroTimer::~TavroTimer() { cancel(); }

void TavroTimer::start() {
    if (cancelled_.load() || started_.exchange(true)) return;
    schedule(addSaturating(Clock::now(), startDelayNs_));
}

void TavroTimer::cancel() {
    cancelled_.store(true);
    std::shared_ptr<const TavroTask> released;
    {
        std::lock_guard lock(mutex_);
        released.swap(handler_);
        if (hasPending_) MainQueueState::instance().cancelDelayed({pendingDeadline_, pendingSequence_});
        hasPending_ = false;
    }
    // `released` dies here, outside the lock, in case the handler's captures
    // do something heavy (or touch this timer) on destruction. A tick that is
    // running holds its own reference, so cancelling from inside the handler
    // does not pull the function out from under itself.
}

void TavroTimer::schedule(Clock::time_point deadline) {
    // Posted under our lock so that a concurrent cancel() either sees this tick
    // and withdraws it or comes after and finds the timer cancelled.
    std::lock_guard lock(mutex_);
    if (cancelled_.load()) return;
    const auto key = MainQueueState::instance().postAt(deadline, [weak = weak_from_this(), deadline] {
        if (auto self = weak.lock()) self->tick(deadline);
    });
    hasPending_ = true;
    pendingDeadline_ = key.first;
    pendingSequence_ = key.second;
}

void TavroTimer::tick(Clock::time_point deadline) {
    if (cancelled_.load()) return;
    std::shared_ptr<const TavroTask> handler;
    {
        std::lock_guard lock(mutex_);
        handler = handler_;
        hasPending_ = false; // this very tick
    }
    if (periodNs_ == 0) {
        cancel();
    } else {
        // Next deadline from the previous one, not from now, so the period does
        // not drift by the handler's run time. Ticks missed while the main thread
        // was busy are merged into one rather than fired in a burst.
        auto next = addSaturating(deadline, periodNs_);
        const auto now = Clock::now();
        if (next <= now) {
            const auto late = static_cast<uint64_t>(
                std::chrono::duration_cast<std::chrono::nanoseconds>(now - deadline).count());
            const uint64_t periods = late / periodNs_ + 1;
            next = periods > UINT64_MAX / periodNs_ ? Clock::time_point::max()
                                                     : addSaturating(deadline, periods * periodNs_);
        }
        schedule(next);
    }
    if (handler && *handler) (*handler)();
}
