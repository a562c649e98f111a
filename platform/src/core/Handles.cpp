#include "core/Handles.hpp"

#include <mutex>
#include <unordered_map>
#include <vector>

namespace tavro::platform {

namespace {
struct Table {
    std::mutex mutex;
    std::unordered_map<DWORD, std::shared_ptr<Object>> objects;
    DWORD next = 1;
};
Table& table() {
    // Never destroyed: device threads may still be mixing channels while the
    // process exits without freeing them.
    static Table* t = new Table();
    return *t;
}
DWORD nextLocked(Table& t) {
    for (;;) {
        const DWORD h = t.next++;
        if (h != 0 && h != 0xFFFFFFFF && !t.objects.count(h)) return h;
    }
}
} // namespace

DWORD Handles::add(std::shared_ptr<Object> object) {
    Table& t = table();
    std::lock_guard lock(t.mutex);
    const DWORD h = nextLocked(t);
    object->handle_ = h;
    t.objects.emplace(h, std::move(object));
    return h;
}

DWORD Handles::allocate() {
    Table& t = table();
    std::lock_guard lock(t.mutex);
    return nextLocked(t);
}

std::shared_ptr<Object> Handles::find(DWORD handle) {
    Table& t = table();
    std::lock_guard lock(t.mutex);
    auto it = t.objects.find(handle);
    return it == t.objects.end() ? nullptr : it->second;
}

std::shared_ptr<Object> Handles::remove(DWORD handle) {
    Table& t = table();
    std::lock_guard lock(t.mutex);
    auto it = t.objects.find(handle);
    if (it == t.objects.end()) return nullptr;
    auto obj = std::move(it->second);
    t.objects.erase(it);
    return obj;
}

std::vector<std::shared_ptr<Object>> Handles::all(ObjectKind kind) {
    Table& t = table();
    std::lock_guard lock(t.mutex);
    std::vector<std::shared_ptr<Object>> out;
    for (auto& [h, o] : t.objects)
        if (o->objectKind() == kind) out.push_back(o);
    return out;
}

} // namespace tavro::platform
