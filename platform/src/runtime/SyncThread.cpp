#include "runtime/SyncThread.hpp"

#include "channel/Channel.hpp"
#include "core/Handles.hpp"
#include "core/LockFree.hpp"
#include "output/Device.hpp"

#include <algorithm>
#include <chrono>
#include <semaphore.h>
#include <thread>
#include <vector>

namespace tavro::platform {

namespace {

class Worker {
  public:
    Worker() : queue_(8192) {
        sem_init(&sem_, 0, 0);
        thread_ = std::thread([this] { run(); });
        thread_.detach(); // lives for the process; nothing to join at exit
    }

    void post(const SyncEvent& e) {
        if (queue_.push(e)) sem_post(&sem_);
    }
    void wake() { sem_post(&sem_); }

    bool onThread() const { return std::this_thread::get_id() == id_.load(); }

    void waitIdle(DWORD channel, HSYNC sync) {
        if (onThread()) return;
        while (firingChannel_.load() == channel && (sync == 0 || firingSync_.load() == sync))
            std::this_thread::sleep_for(std::chrono::microseconds(100));
    }

    void flush() {
        if (onThread()) return;
        const uint64_t target = posted_.fetch_add(1) + 1;
        post(SyncEvent::barrier());
        while (handled_.load() < target) std::this_thread::sleep_for(std::chrono::microseconds(200));
    }

  private:
    void run() {
        id_.store(std::this_thread::get_id());
        std::vector<SyncEvent> later; // events not heard yet, in the order they were posted
        for (;;) {
            // Wake at least every 10 ms while slides may be finishing, and
            // when the next event is due.
            int64_t waitNs = 10'000'000;
            if (!later.empty()) waitNs = std::clamp<int64_t>(later.front().dueNs - monotonicNs(), 0, waitNs);
            timespec ts{};
            clock_gettime(CLOCK_REALTIME, &ts);
            ts.tv_nsec += static_cast<long>(waitNs);
            if (ts.tv_nsec >= 1'000'000'000) ts.tv_sec += 1, ts.tv_nsec -= 1'000'000'000;
            sem_timedwait(&sem_, &ts);
            SyncEvent e{};
            while (queue_.pop(e)) {
                // Events keep their order: one behind a waiting event waits too.
                if (later.empty() && e.dueNs <= monotonicNs()) handle(e);
                else later.push_back(e);
            }
            const int64_t now = monotonicNs();
            size_t done = 0;
            while (done < later.size() && later[done].dueNs <= now) handle(later[done++]);
            later.erase(later.begin(), later.begin() + static_cast<std::ptrdiff_t>(done));
            Device::forEachSliding([](Channel& ch, int64_t t) { ch.checkSlides(t); });
        }
    }

    void handle(const SyncEvent& e) {
        switch (e.kind) {
        case SyncEvent::Fire: {
            auto ch = Handles::get<Channel>(e.channel);
            if (!ch) break;
            auto s = ch->findSync(e.sync);
            if (!s || s->removed.load()) break;
            firingSync_.store(e.sync);
            firingChannel_.store(e.channel);
            if (!s->removed.load()) {
                if (s->onetime) ch->removeSync(e.sync);
                s->proc(e.sync, e.channel, e.data, s->user);
            }
            firingChannel_.store(0);
            firingSync_.store(0);
            break;
        }
        case SyncEvent::Drained: {
            if (auto ch = Handles::get<Channel>(e.channel)) {
                if (ch->state() != ChannelState::Stopped) break; // played again since
                if (ch->device()) ch->device()->detach(*ch);
                if (ch->flags() & BASS_STREAM_AUTOFREE) {
                    Handles::remove(e.channel);
                    ch->free();
                }
            }
            break;
        }
        case SyncEvent::Barrier:
            handled_.fetch_add(1);
            break;
        }
    }

    MpmcQueue<SyncEvent> queue_;
    sem_t sem_{};
    std::thread thread_;
    std::atomic<std::thread::id> id_{};
    std::atomic<DWORD> firingChannel_{0};
    std::atomic<HSYNC> firingSync_{0};
    std::atomic<uint64_t> posted_{0}, handled_{0};
};

Worker& worker() {
    static Worker* w = new Worker(); // never destroyed: its thread outlives static destruction
    return *w;
}

} // namespace

void SyncThread::post(const SyncEvent& e) { worker().post(e); }
void SyncThread::wake() { worker().wake(); }
void SyncThread::waitIdle(DWORD channel, HSYNC sync) { worker().waitIdle(channel, sync); }
bool SyncThread::onSyncThread() { return worker().onThread(); }
void SyncThread::flushForTesting() { worker().flush(); }

} // namespace tavro::platform
