/// @file
/// The unit of work every queue of the library runs.
///
/// Threading: a task runs on whichever thread serves the queue it was posted
/// to; TavroBindWeak's wrapper may be called on any thread and only touches
/// the object when it is still alive at that moment.
#pragma once

#include <functional>
#include <memory>
#include <utility>

using TavroTask = std::function<void()>;

/// Objects never keep themselves alive through queued work: a task or timer
/// handler holds a weak reference and does nothing once its object is gone.
/// This wraps `fn(T&)` in exactly that check.
template <class T, class F> TavroTask TavroBindWeak(std::weak_ptr<T> weak, F fn) {
    return [weak = std::move(weak), fn = std::move(fn)]() mutable {
        if (auto strong = weak.lock()) fn(*strong);
    };
}
