#include "output/PulseDirectory.hpp"

#include "core/Config.hpp"

#include <pulse/pulseaudio.h>

#include <chrono>
#include <mutex>

namespace tavro::platform {

namespace {

using Clock = std::chrono::steady_clock;

class Directory {
  public:
    ServerDevices snapshot() {
        ensureConnected();
        std::lock_guard lock(mutex_);
        return state_;
    }

    void notify(DWORD code) {
        if (auto* proc = Config::deviceNotify()) proc(code);
    }

  private:
    void ensureConnected() {
        std::unique_lock guard(connectMutex_);
        if (connected()) return;
        const auto now = Clock::now();
        if (attempted_ && now - lastAttempt_ < std::chrono::seconds(1)) return;
        attempted_ = true;
        lastAttempt_ = now;
        teardown();
        connect();
    }

    bool connected() {
        if (!loop_) return false;
        pa_threaded_mainloop_lock(loop_);
        const bool ok = ctx_ && pa_context_get_state(ctx_) == PA_CONTEXT_READY;
        pa_threaded_mainloop_unlock(loop_);
        return ok;
    }

    void connect() {
        loop_ = pa_threaded_mainloop_new();
        if (!loop_) return;
        ctx_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "TavroCore device list");
        pa_context_set_state_callback(ctx_, &Directory::onContextState, this);
        if (pa_context_connect(ctx_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 ||
            pa_threaded_mainloop_start(loop_) < 0) {
            teardown();
            return;
        }
        pa_threaded_mainloop_lock(loop_);
        for (;;) {
            const pa_context_state_t st = pa_context_get_state(ctx_);
            if (st == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(st)) break;
            pa_threaded_mainloop_wait(loop_);
        }
        const bool ready = pa_context_get_state(ctx_) == PA_CONTEXT_READY;
        if (ready) {
            pa_context_set_subscribe_callback(ctx_, &Directory::onEvent, this);
            pa_operation_unref(pa_context_subscribe(
                ctx_, static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SOURCE |
                                                          PA_SUBSCRIPTION_MASK_SERVER),
                nullptr, nullptr));
            pending_ = 0;
            refreshLocked(false);
            while (pending_ > 0) pa_threaded_mainloop_wait(loop_);
        }
        pa_threaded_mainloop_unlock(loop_);
        if (!ready) teardown();
    }

    void teardown() {
        if (!loop_) return;
        pa_threaded_mainloop_stop(loop_);
        if (ctx_) {
            pa_context_disconnect(ctx_);
            pa_context_unref(ctx_);
            ctx_ = nullptr;
        }
        pa_threaded_mainloop_free(loop_);
        loop_ = nullptr;
        std::lock_guard lock(mutex_);
        state_.reachable = false;
        for (auto& d : state_.sinks) d.present = false;
        for (auto& d : state_.sources) d.present = false;
    }

    // Runs on the server thread (or with its lock held).
    void refreshLocked(bool announce) {
        announce_ = announce;
        scratchSinks_.clear();
        scratchSources_.clear();
        pending_ = 3;
        pa_operation_unref(pa_context_get_server_info(ctx_, &Directory::onServer, this));
        pa_operation_unref(pa_context_get_sink_info_list(ctx_, &Directory::onSink, this));
        pa_operation_unref(pa_context_get_source_info_list(ctx_, &Directory::onSource, this));
    }

    void finishOne() {
        if (--pending_ > 0) return;
        // Merge: known devices keep their numbers; new ones are appended.
        std::vector<DWORD> codes;
        {
            std::lock_guard lock(mutex_);
            const bool defaultChanged = state_.reachable && newDefaultSink_ != state_.defaultSink;
            mergeLocked(state_.sinks, scratchSinks_, codes);
            mergeLocked(state_.sources, scratchSources_, codes);
            state_.defaultSink = newDefaultSink_;
            state_.defaultSource = newDefaultSource_;
            state_.reachable = true;
            if (defaultChanged) codes.push_back(3);
        }
        if (announce_)
            for (DWORD c : codes) notify(c);
        pa_threaded_mainloop_signal(loop_, 0);
        if (again_) {
            again_ = false;
            refreshLocked(true);
        }
    }

    static void mergeLocked(std::vector<ServerDevice>& known, const std::vector<ServerDevice>& now,
                            std::vector<DWORD>& codes) {
        for (auto& k : known) {
            bool found = false;
            for (const auto& n : now)
                if (n.name == k.name) found = true;
            if (k.present && !found) codes.push_back(2);
            k.present = found;
        }
        for (const auto& n : now) {
            ServerDevice* match = nullptr;
            for (auto& k : known)
                if (k.name == n.name) match = &k;
            if (!match) {
                known.push_back(n);
                codes.push_back(1);
            } else {
                if (!match->present) codes.push_back(1);
                match->description = n.description;
                match->present = true;
            }
        }
    }

    static void onContextState(pa_context*, void* ud) {
        auto* self = static_cast<Directory*>(ud);
        pa_threaded_mainloop_signal(self->loop_, 0);
    }

    static void onEvent(pa_context*, pa_subscription_event_type_t t, uint32_t, void* ud) {
        auto* self = static_cast<Directory*>(ud);
        const auto type = t & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
        if (type == PA_SUBSCRIPTION_EVENT_CHANGE && (t & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) != PA_SUBSCRIPTION_EVENT_SERVER)
            return; // volume and state changes: the list is the same
        if (self->pending_ > 0) {
            self->again_ = true;
            return;
        }
        self->refreshLocked(true);
    }

    static void onServer(pa_context*, const pa_server_info* i, void* ud) {
        auto* self = static_cast<Directory*>(ud);
        if (i) {
            self->newDefaultSink_ = i->default_sink_name ? i->default_sink_name : "";
            self->newDefaultSource_ = i->default_source_name ? i->default_source_name : "";
        }
        self->finishOne();
    }

    static void onSink(pa_context*, const pa_sink_info* i, int eol, void* ud) {
        auto* self = static_cast<Directory*>(ud);
        if (eol) return self->finishOne();
        self->scratchSinks_.push_back({i->name, i->description ? i->description : i->name, true, false});
    }

    static void onSource(pa_context*, const pa_source_info* i, int eol, void* ud) {
        auto* self = static_cast<Directory*>(ud);
        if (eol) return self->finishOne();
        self->scratchSources_.push_back({i->name, i->description ? i->description : i->name, true,
                                         i->monitor_of_sink != PA_INVALID_INDEX});
    }

    std::mutex connectMutex_;
    bool attempted_ = false;
    Clock::time_point lastAttempt_{};
    pa_threaded_mainloop* loop_ = nullptr;
    pa_context* ctx_ = nullptr;

    // Server-thread state.
    int pending_ = 0;
    bool announce_ = false, again_ = false;
    std::vector<ServerDevice> scratchSinks_, scratchSources_;
    std::string newDefaultSink_, newDefaultSource_;

    std::mutex mutex_;
    ServerDevices state_;
};

Directory& directory() {
    static Directory* d = new Directory(); // its server thread may outlive static destruction
    return *d;
}

} // namespace

ServerDevices PulseDirectory::snapshot() { return directory().snapshot(); }

void PulseDirectory::reportStreamFailure() { directory().notify(4); }

} // namespace tavro::platform
