// The engine's format plug-ins, playable extensions and version text.
#include <tavro/engine/TavroEngine.hpp>

#include <bass.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <set>
#include <string_view>
#include <syslog.h>

void TavroEngine::loadAllPlugins() {
    for (const auto& name : pluginNames()) {
        if (plugins_.count(name)) continue;
        const HPLUGIN h = BASS_PluginLoad(name.c_str(), 0);
        if (!h) {
            syslog(LOG_NOTICE, "[BASS_ENGINE] plugin '%s' failed to load (BASS_ErrorGetCode: %d)", name.c_str(),
                   BASS_ErrorGetCode());
            continue;
        }
        plugins_[name] = h;
    }
    // The names in the dictionary's own (sorted) order, as a bracketed list.
    std::string list = "[";
    for (const auto& [name, handle] : plugins_) list += (list.size() > 1 ? ", " : "") + name;
    list += "]";
    syslog(LOG_NOTICE, "[BASS_ENGINE] loaded plugins: %s", list.c_str());
}

namespace {

// What each module adds, by extension and by the bytes a file of it starts
// with (after an ID3v2 tag, which some of these formats may carry).
struct ModuleFormats {
    const char* name;
    std::vector<std::string> exts;
    bool (*starts)(std::string_view head);
};

bool at(std::string_view head, size_t offset, std::string_view magic) {
    return head.size() >= offset + magic.size() && head.substr(offset, magic.size()) == magic;
}
// The first page of an Ogg stream holds its first codec header.
bool oggCarries(std::string_view head, std::string_view codec) {
    return at(head, 0, "OggS") && head.substr(0, std::min<size_t>(head.size(), 256)).find(codec) != std::string_view::npos;
}

const std::vector<ModuleFormats>& moduleFormats() {
    static const std::vector<ModuleFormats> table = {
        {"bassflac", {"flac", "fla", "oga"}, [](std::string_view h) { return at(h, 0, "fLaC") || oggCarries(h, "\x7F" "FLAC"); }},
        {"basswv", {"wv"}, [](std::string_view h) { return at(h, 0, "wvpk"); }},
        {"bassopus", {"opus"}, [](std::string_view h) { return oggCarries(h, "OpusHead"); }},
        {"bassdsd", {"dsf", "dff"}, [](std::string_view h) { return at(h, 0, "DSD ") || at(h, 0, "FRM8"); }},
        {"bassape", {"ape", "apl"}, [](std::string_view h) { return at(h, 0, "MAC "); }},
        {"basswebm", {"webm", "weba", "mka", "mkv"}, [](std::string_view h) { return at(h, 0, "\x1A\x45\xDF\xA3"); }},
        {"basshls", {"m3u8"}, [](std::string_view h) { return at(h, 0, "#EXTM3U") && h.find("#EXT-X-") != std::string_view::npos; }},
        {"bassmidi", {"mid", "midi", "rmi", "kar"}, [](std::string_view h) { return at(h, 0, "MThd") || (at(h, 0, "RIFF") && at(h, 8, "RMID")); }},
        {"bass_mpc", {"mpc", "mpp", "mp+"}, [](std::string_view h) { return at(h, 0, "MPCK") || at(h, 0, "MP+"); }},
        {"bass_tta", {"tta"}, [](std::string_view h) { return at(h, 0, "TTA1"); }},
    };
    return table;
}

// The file's first bytes, past an ID3v2 tag; empty when it cannot be read.
std::string fileHead(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return {};
    std::string head(4096, '\0');
    size_t n = std::fread(head.data(), 1, head.size(), f);
    if (n >= 10 && head.compare(0, 3, "ID3") == 0) {
        const auto b = [&](size_t i) { return static_cast<long>(static_cast<unsigned char>(head[i]) & 0x7F); };
        const long size = 10 + (b(6) << 21 | b(7) << 14 | b(8) << 7 | b(9)) + ((head[5] & 0x10) ? 10 : 0);
        n = std::fseek(f, size, SEEK_SET) == 0 ? std::fread(head.data(), 1, head.size(), f) : 0;
    }
    std::fclose(f);
    head.resize(n);
    return head;
}

} // namespace

// The fixed list, in the order loadAllPlugins loads it.
const std::vector<std::string>& TavroEngine::pluginNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> v;
        for (const auto& m : moduleFormats()) v.push_back(m.name);
        return v;
    }();
    return names;
}

std::string TavroEngine::pluginForFile(const std::string& path) {
    const std::string head = fileHead(path);
    for (const auto& m : moduleFormats())
        if (m.starts(head)) return m.name;
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return {};
    std::string ext = path.substr(dot + 1);
    for (auto& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const auto& m : moduleFormats())
        if (std::find(m.exts.begin(), m.exts.end(), ext) != m.exts.end()) return m.name;
    return {};
}

std::vector<std::string> TavroEngine::builtInPlaybackFileExtensions() {
    return {"wav", "aif", "aiff", "mp3", "mp2", "mp1", "ogg", "xm",  "it",   "s3m", "mod", "mtm",
            "umx", "mo3", "m4a",  "m4b", "mp4", "aac", "adts", "caf", "alac", "ac3", "3gp", "3g2"};
}

std::vector<std::string> TavroEngine::supportedPlaybackFileExtensions() const {
    const auto built = builtInPlaybackFileExtensions();
    std::set<std::string> exts(built.begin(), built.end());
    for (const auto& [name, handle] : plugins_) {
        const BASS_PLUGININFO* info = BASS_PluginGetInfo(handle);
        if (!info || info->formatc == 0) continue;
        for (DWORD f = 0; f < info->formatc; ++f) {
            if (!info->formats[f].exts) continue;
            const std::string all = info->formats[f].exts;
            size_t start = 0;
            while (start <= all.size()) {
                const size_t semi = std::min(all.find(';', start), all.size());
                std::string piece = all.substr(start, semi - start);
                start = semi + 1;
                // Spaces and tabs go; line breaks do not count as either.
                const auto b = piece.find_first_not_of(" \t");
                piece = b == std::string::npos ? "" : piece.substr(b, piece.find_last_not_of(" \t") - b + 1);
                if (piece.rfind("*.", 0) == 0) piece.erase(0, 2);
                else if (piece.rfind('.', 0) == 0) piece.erase(0, 1);
                if (piece.empty()) continue;
                for (auto& c : piece) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                exts.insert(piece);
            }
        }
    }
    return {exts.begin(), exts.end()};
}

std::string TavroEngine::bassVersionString() const {
    const unsigned long v = BASS_GetVersion();
    char buf[48];
    std::snprintf(buf, sizeof buf, "%lu.%lu.%lu.%lu", v >> 24, (v >> 16) & 0xFF, (v >> 8) & 0xFF, v & 0xFF);
    return buf;
}
