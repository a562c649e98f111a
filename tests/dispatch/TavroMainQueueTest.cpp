// Main queue and its timers: ordering, thread affinity, loop integration,
// timing within leeway and cancellation.
#include <tavro/dispatch/TavroMainQueue.hpp>
#include <tavro/dispatch/TavroTimer.hpp>

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

uint64_t ns(std::chrono::nanoseconds d) { return static_cast<uint64_t>(d.count()); }

bool readable(int fd, int timeoutMs = 0) {
    pollfd pfd{fd, POLLIN, 0};
    return ::poll(&pfd, 1, timeoutMs) > 0;
}

// The queue is process-wide: each test starts and ends with it quiet.
class MainQueueTest : public ::testing::Test {
  protected:
    void SetUp() override { TavroMainQueue::runFor(5ms); }
    void TearDown() override { TavroMainQueue::runFor(20ms); }
};

TEST_F(MainQueueTest, TasksFromAnyThreadRunOnTheServingThreadInEachPostersOrder) {
    constexpr int kThreads = 4, kPerThread = 200;
    std::vector<std::pair<int, int>> seen; // touched only on the main thread
    std::atomic<int> offMain{0};
    std::vector<std::thread> posters;
    posters.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t)
        posters.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i)
                TavroMainQueue::async([&, t, i] {
                    offMain += !TavroMainQueue::isMainThread();
                    seen.emplace_back(t, i);
                });
        });
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return seen.size() == kThreads * kPerThread; }, 10s));
    for (auto& p : posters) p.join();
    EXPECT_EQ(offMain.load(), 0);
    std::vector<int> next(kThreads, 0);
    for (auto [t, i] : seen) ASSERT_EQ(i, next[t]++) << "poster " << t;
}

TEST_F(MainQueueTest, DelayedTasksRunByDeadlineNeverEarlyAndEqualDelaysInPostingOrder) {
    std::vector<int> order;
    const auto posted = Clock::now();
    Clock::duration firstAfter{};
    TavroMainQueue::after(ns(60ms), [&] { order.push_back(3); });
    TavroMainQueue::after(ns(30ms), [&] {
        firstAfter = Clock::now() - posted;
        order.push_back(1);
    });
    TavroMainQueue::after(ns(30ms), [&] { order.push_back(2); });
    TavroMainQueue::async([&] { order.push_back(0); });
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return order.size() == 4; }, 5s));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_GE(firstAfter, 30ms);
}

TEST_F(MainQueueTest, DrainRunsWhatIsDueAndTheDescriptorTellsWhenMoreIs) {
    const int fd = TavroMainQueue::fd();
    EXPECT_FALSE(readable(fd));
    int runs = 0;
    // Work posted by a task waits for the next drain (no starving the caller's
    // loop) but leaves the descriptor readable.
    TavroMainQueue::async([&] { TavroMainQueue::async([&] { ++runs; }); });
    EXPECT_TRUE(readable(fd));
    EXPECT_EQ(TavroMainQueue::drain(), 1u);
    EXPECT_EQ(runs, 0);
    EXPECT_TRUE(readable(fd));
    EXPECT_EQ(TavroMainQueue::drain(), 1u);
    EXPECT_EQ(runs, 1);
    EXPECT_FALSE(readable(fd));

    // Delayed work wakes the descriptor by itself when it falls due.
    TavroMainQueue::after(ns(40ms), [&] { ++runs; });
    EXPECT_FALSE(readable(fd, 10));
    EXPECT_TRUE(readable(fd, 5000));
    EXPECT_EQ(TavroMainQueue::drain(), 1u);
    EXPECT_EQ(runs, 2);
}

TEST_F(MainQueueTest, RunServesUntilStopAndAnEarlyStopIsNotLost) {
    int runs = 0;
    std::thread([&] { TavroMainQueue::after(ns(20ms), [&] {
        ++runs;
        TavroMainQueue::stop();
    }); }).join();
    TavroMainQueue::run();
    EXPECT_EQ(runs, 1);
    TavroMainQueue::stop();
    TavroMainQueue::run(); // returns at once
}

TEST_F(MainQueueTest, WeakTaskDoesNothingOnceItsObjectIsGone) {
    auto alive = std::make_shared<int>(0);
    auto gone = std::make_shared<int>(0);
    int goneHits = 0;
    TavroMainQueue::async(TavroBindWeak(std::weak_ptr(alive), [](int& n) { ++n; }));
    TavroMainQueue::after(ns(5ms), TavroBindWeak(std::weak_ptr(gone), [&](int&) { ++goneHits; }));
    gone.reset();
    TavroMainQueue::runFor(30ms);
    EXPECT_EQ(*alive, 1);
    EXPECT_EQ(goneHits, 0);
}

TEST_F(MainQueueTest, TimerFiresAfterItsStartDelayThenOncePerPeriodNeverEarly) {
    constexpr auto kDelay = 50ms, kPeriod = 30ms;
    std::vector<Clock::time_point> ticks;
    auto timer = TavroTimer::create(ns(kDelay), ns(kPeriod), ns(3ms), [&] { ticks.push_back(Clock::now()); });
    TavroMainQueue::runFor(20ms);
    EXPECT_TRUE(ticks.empty()); // idle until started
    const auto started = Clock::now();
    timer->start();
    timer->start(); // a second schedule would double the rate
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return ticks.size() >= 6; }, 10s));
    timer->cancel();
    // Ticks are scheduled from their deadlines: tick k may be late but never
    // precedes start + delay + k periods. Upper bounds are loose (small machine,
    // sanitizers).
    for (size_t k = 0; k < ticks.size(); ++k) EXPECT_GE(ticks[k] - started, kDelay + k * kPeriod) << k;
    EXPECT_LT(ticks[0] - started, kDelay + 250ms);
    EXPECT_GT(ticks[5] - ticks[0], 5 * kPeriod - 40ms);
    EXPECT_LT(ticks[5] - ticks[0], 5 * kPeriod + 400ms);
}

TEST_F(MainQueueTest, NoTickRunsAfterCancelReturnsOnTheMainThread) {
    int ticks = 0;
    std::shared_ptr<TavroTimer> selfCancelling;
    selfCancelling = TavroTimer::create(0, ns(5ms), 0, [&] {
        if (++ticks == 3) selfCancelling->cancel();
    });
    selfCancelling->start();
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return ticks >= 3; }, 5s));
    // Cancelling withdrew the queued next tick: nothing wakes the main thread.
    EXPECT_FALSE(readable(TavroMainQueue::fd(), 30));
    TavroMainQueue::runFor(50ms);
    EXPECT_EQ(ticks, 3);

    // A tick already due and queued when cancel() runs must not run either.
    auto due = TavroTimer::create(0, ns(1ms), 0, [&] { ++ticks; });
    due->start();
    std::this_thread::sleep_for(30ms);
    due->cancel();
    TavroMainQueue::runFor(30ms);
    EXPECT_EQ(ticks, 3);
}

} // namespace
