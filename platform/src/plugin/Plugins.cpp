#include "plugin/Plugins.hpp"

#include "channel/Channel.hpp"
#include "core/Error.hpp"
#include "core/Handles.hpp"
#include "tavro_plugin.h"

#include <dlfcn.h>
#include <mutex>
#include <sys/stat.h>
#include <vector>

namespace tavro::platform {

namespace {

class PluginModule final : public Object {
  public:
    PluginModule(void* lib, const TAVRO_PLUGIN* desc, std::string path)
        : lib_(lib), desc_(desc), path_(std::move(path)) {}
    ~PluginModule() override { dlclose(lib_); }
    ObjectKind objectKind() const override { return ObjectKind::Plugin; }
    const TAVRO_PLUGIN* descriptor() const { return desc_; }
    const std::string& path() const { return path_; }
    bool adds(const std::string& family) const {
        for (const char* const* f = desc_->families; f && *f; ++f)
            if (family == *f) return true;
        return false;
    }

  private:
    void* lib_;
    const TAVRO_PLUGIN* desc_;
    std::string path_;
};

std::mutex& loadMutex() {
    static std::mutex m;
    return m;
}

bool isFile(const std::string& p) {
    struct stat st {};
    return stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Modules live in their own folder under the folder of the code that holds the
// platform: the platform library's folder, or for an executable that carries
// the platform itself, the library folder beside its own (bin/../lib, which is
// also where the build tree keeps them for the tests). A module beside the
// library is still taken; last comes the folder the build installs them in,
// for a statically linked application that lives outside the installation.
// A name with a slash is taken as a path.
std::string resolve(const std::string& name) {
    if (name.find('/') != std::string::npos) return isFile(name) ? name : "";
    Dl_info info{};
    std::string dir = ".";
    if (dladdr(reinterpret_cast<void*>(&BASS_PluginLoad), &info) && info.dli_fname) {
        dir = info.dli_fname;
        const auto slash = dir.rfind('/');
        dir = slash == std::string::npos ? "." : dir.substr(0, slash);
    }
    const std::string file = name.ends_with(".so") ? name : "lib" + name + ".so";
    const std::string sub = TAVRO_PLUGIN_SUBDIR "/";
    for (const std::string& candidate :
         {dir + "/" + sub + file, dir + "/" TAVRO_LIBDIR_FROM_BINDIR "/" + sub + file, dir + "/" + file,
          TAVRO_INSTALLED_PLUGIN_DIR "/" + file})
        if (isFile(candidate)) return candidate;
    return "";
}

std::vector<std::shared_ptr<PluginModule>> loaded() {
    std::vector<std::shared_ptr<PluginModule>> out;
    for (auto& o : Handles::all(ObjectKind::Plugin)) out.push_back(std::static_pointer_cast<PluginModule>(o));
    return out;
}

} // namespace

HPLUGIN Plugins::load(const char* file) {
    if (!file || !*file) return failWith<HPLUGIN>(BASS_ERROR_ILLPARAM, 0);
    std::lock_guard lock(loadMutex());
    const std::string path = resolve(file);
    if (path.empty()) return failWith<HPLUGIN>(BASS_ERROR_FILEOPEN, 0);
    for (auto& p : loaded())
        if (p->path() == path) return failWith<HPLUGIN>(BASS_ERROR_ALREADY, 0);
    void* lib = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!lib) return failWith<HPLUGIN>(BASS_ERROR_FILEFORM, 0);
    auto* entry = reinterpret_cast<TAVRO_PLUGIN_ENTRY*>(dlsym(lib, "tavro_plugin_entry"));
    const TAVRO_PLUGIN* desc = entry ? entry() : nullptr;
    if (!desc || desc->abi != TAVRO_PLUGIN_ABI) {
        dlclose(lib);
        return failWith<HPLUGIN>(desc ? BASS_ERROR_VERSION : BASS_ERROR_FILEFORM, 0);
    }
    return succeedWith(Handles::add(std::make_shared<PluginModule>(lib, desc, path)));
}

bool Plugins::free(HPLUGIN handle) {
    std::lock_guard lock(loadMutex());
    std::vector<std::shared_ptr<PluginModule>> victims;
    if (handle == 0) {
        victims = loaded();
    } else {
        auto p = Handles::get<PluginModule>(handle);
        if (!p) return fail(BASS_ERROR_HANDLE);
        victims.push_back(p);
    }
    // Streams opened through a plug-in go with it.
    for (auto& obj : Handles::all(ObjectKind::Channel)) {
        auto ch = std::static_pointer_cast<Channel>(obj);
        BASS_CHANNELINFO info;
        ch->fillInfo(info);
        for (auto& v : victims)
            if (info.plugin == v->handle()) {
                Handles::remove(ch->handle());
                ch->free();
            }
    }
    for (auto& v : victims) Handles::remove(v->handle());
    return succeed();
}

const BASS_PLUGININFO* Plugins::info(HPLUGIN handle) {
    auto p = Handles::get<PluginModule>(handle);
    if (!p) return failWith<const BASS_PLUGININFO*>(BASS_ERROR_HANDLE, nullptr);
    return succeedWith(&p->descriptor()->info);
}

HPLUGIN Plugins::providerOf(const std::string& family) {
    for (auto& p : loaded())
        if (p->adds(family)) return p->handle();
    return 0;
}

} // namespace tavro::platform

using tavro::platform::Plugins;

extern "C" HPLUGIN BASS_PluginLoad(const char* file, DWORD) { return Plugins::load(file); }
extern "C" BOOL BASS_PluginFree(HPLUGIN handle) { return Plugins::free(handle) ? TRUE : FALSE; }
extern "C" const BASS_PLUGININFO* BASS_PluginGetInfo(HPLUGIN handle) { return Plugins::info(handle); }
