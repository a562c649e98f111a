// Ends the test binary with a message if a scope is still running after a
// time limit: a deadlock fails the test instead of hanging it until CTest's
// own timeout.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

namespace tavro::test {

class Watchdog {
  public:
    Watchdog(std::chrono::seconds limit, std::string what)
        : thread_([this, limit, what = std::move(what)] {
              std::unique_lock lock(mutex_);
              if (cv_.wait_for(lock, limit, [this] { return done_; })) return;
              std::fprintf(stderr, "watchdog: %s still running after %lld s: deadlock\n", what.c_str(),
                           static_cast<long long>(limit.count()));
              std::abort();
          }) {}
    ~Watchdog() {
        {
            std::lock_guard lock(mutex_);
            done_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread thread_;
};

} // namespace tavro::test
