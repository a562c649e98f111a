// Plug-in table. Modules are registered here as they load.
#include "core/Error.hpp"
#include "core/Handles.hpp"

using namespace tavro::platform;

extern "C" BOOL BASS_PluginFree(HPLUGIN handle) {
    if (handle == 0) {
        for (auto& p : Handles::all(ObjectKind::Plugin)) Handles::remove(p->handle());
        return succeed();
    }
    auto p = Handles::find(handle);
    if (!p || p->objectKind() != ObjectKind::Plugin) return fail(BASS_ERROR_HANDLE);
    Handles::remove(handle);
    return succeed();
}
