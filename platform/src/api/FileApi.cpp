// File streams and tags.
#include "file/FileStream.hpp"
#include "music/MusicChannel.hpp"
#include "core/Error.hpp"
#include "output/Device.hpp"

using namespace tavro::platform;

extern "C" {

HSTREAM BASS_StreamCreateFile(BOOL mem, const void* file, QWORD offset, QWORD length, DWORD flags) {
    auto dev = Device::current();
    if (!dev) return failWith<HSTREAM>(BASS_ERROR_INIT, 0);
    if (!file) return failWith<HSTREAM>(BASS_ERROR_FILEOPEN, 0);
    auto input = mem ? MediaInput::openMemory(file, length) : MediaInput::openFile(static_cast<const char*>(file), offset, length);
    if (!input) return 0;
    auto fs = FileStream::open(std::move(input), flags, dev);
    if (!fs) return 0;
    return succeedWith(Handles::add(fs));
}

const char* BASS_ChannelGetTags(DWORD handle, DWORD tags) {
    auto obj = Handles::find(handle);
    if (!obj || obj->objectKind() != ObjectKind::Channel) return failWith<const char*>(BASS_ERROR_HANDLE, nullptr);
    if (auto fs = std::dynamic_pointer_cast<FileStream>(obj)) {
        if (const char* t = fs->tags(tags)) return succeedWith(t);
    }
    if (auto mc = std::dynamic_pointer_cast<MusicChannel>(obj)) {
        if (const char* t = mc->tags(tags)) return succeedWith(t);
    }
    return failWith<const char*>(BASS_ERROR_NOTAVAIL, nullptr);
}

} // extern "C"
