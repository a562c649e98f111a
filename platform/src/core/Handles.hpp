// The one table of handles for every platform object.
//
// Handles count up from 1 and wrap only after 2^32 allocations, so a freed
// handle is not handed out again soon and a stale one fails cleanly.
// Threading: any thread; the table's mutex is held only for the map operation.
#pragma once

#include "bass.h"

#include <memory>
#include <vector>

namespace tavro::platform {

enum class ObjectKind { Channel, Effect, Plugin, Font, Sample, Meter, Other };

class Object {
  public:
    virtual ~Object() = default;
    virtual ObjectKind objectKind() const = 0;
    DWORD handle() const { return handle_; }

  private:
    friend class Handles;
    DWORD handle_ = 0;
};

class Handles {
  public:
    // Registers the object and returns its new handle.
    static DWORD add(std::shared_ptr<Object> object);
    // A fresh number for things that live inside another object (DSPs, syncs).
    static DWORD allocate();
    static std::shared_ptr<Object> find(DWORD handle);
    static std::shared_ptr<Object> remove(DWORD handle);

    template <typename T> static std::shared_ptr<T> get(DWORD handle) {
        return std::dynamic_pointer_cast<T>(find(handle));
    }
    // Every object of a kind, for teardown.
    static std::vector<std::shared_ptr<Object>> all(ObjectKind kind);
};

} // namespace tavro::platform
