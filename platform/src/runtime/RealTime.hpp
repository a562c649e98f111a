// Marks the stretches of an audio thread that must not allocate, lock for
// long or wait: the device's mix and a channel's DSP and effect chain. The
// mark costs a thread-local increment; tests use it to check that nothing in
// those stretches reaches the allocator.
#pragma once

namespace tavro::platform {

inline thread_local int realTimeDepth = 0;

struct RealTimeScope {
    RealTimeScope() { ++realTimeDepth; }
    ~RealTimeScope() { --realTimeDepth; }
    RealTimeScope(const RealTimeScope&) = delete;
    RealTimeScope& operator=(const RealTimeScope&) = delete;
};

inline bool inRealTimeScope() { return realTimeDepth > 0; }

} // namespace tavro::platform
