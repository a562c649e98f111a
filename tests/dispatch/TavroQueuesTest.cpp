// Serial and concurrent queues: order, mutual exclusion under sync from many
// threads, re-entrant sync, teardown, parallelism.
#include <tavro/dispatch/TavroConcurrentQueue.hpp>
#include <tavro/dispatch/TavroSerialQueue.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

TEST(TavroSerialQueueTest, SyncFromManyThreadsIsExclusiveAndAfterEarlierAsyncWork) {
    TavroSerialQueue queue("registry");
    std::vector<int> order; // deliberately unguarded: the queue is the lock
    long counter = 0;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    for (int i = 0; i < 100; ++i) queue.async([&, i] { order.push_back(i); });
    std::vector<std::thread> callers;
    callers.reserve(8);
    for (int t = 0; t < 8; ++t)
        callers.emplace_back([&] {
            for (int i = 0; i < 300; ++i)
                queue.sync([&] {
                    overlapped = overlapped || inside.fetch_add(1) != 0;
                    ++counter;
                    inside.fetch_sub(1);
                });
        });
    for (auto& c : callers) c.join();
    EXPECT_EQ(counter, 8 * 300);
    EXPECT_FALSE(overlapped.load());
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(order[i], i);
}

TEST(TavroSerialQueueTest, SyncFromInsideItsOwnTaskRunsInline) {
    TavroSerialQueue queue, other;
    std::vector<int> order;
    EXPECT_FALSE(queue.isCurrent());
    queue.sync([&] {
        order.push_back(1);
        queue.sync([&] { order.push_back(2); });
        other.sync([&] { EXPECT_FALSE(queue.isCurrent()); }); // another queue still waits
        order.push_back(3);
    });
    std::atomic<bool> done{false};
    queue.async([&] { queue.sync([&] { done = true; }); });
    queue.sync([] {});
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(done.load());
}

TEST(TavroSerialQueueTest, ItsLastOwnerMayDestroyItFromInsideATask) {
    // The worker must neither join itself nor touch the freed queue, and
    // async() must not either on its way out.
    auto* queue = new TavroSerialQueue("self-destroying");
    std::atomic<bool> destroyed{false};
    queue->async([&, queue] {
        delete queue;
        destroyed = true;
    });
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (!destroyed && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(destroyed.load());
}

TEST(TavroConcurrentQueueTest, GlobalQueueRunsTasksOffTheCallerAndSideBySide) {
    auto& global = TavroConcurrentQueue::globalQueue();
    EXPECT_EQ(&global, &TavroConcurrentQueue::globalQueue());
    // Two tasks that wait for each other only both finish when run at once.
    std::mutex m;
    std::condition_variable cv;
    int arrived = 0, met = 0, onCaller = 0;
    const auto caller = std::this_thread::get_id();
    for (int i = 0; i < 2; ++i)
        global.async([&] {
            std::unique_lock lock(m);
            onCaller += std::this_thread::get_id() == caller;
            ++arrived;
            cv.notify_all();
            met += cv.wait_for(lock, 5s, [&] { return arrived == 2; });
            cv.notify_all();
        });
    std::unique_lock lock(m);
    EXPECT_TRUE(cv.wait_for(lock, 10s, [&] { return met == 2; }));
    EXPECT_EQ(onCaller, 0);
}

} // namespace
