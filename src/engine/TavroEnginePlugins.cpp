// The engine's format plug-ins, playable extensions and version text.
#include <tavro/engine/TavroEngine.hpp>

#include <bass.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <set>
#include <syslog.h>

const std::vector<std::string>& TavroEngine::pluginNames() {
    static const std::vector<std::string> names = {"bassflac", "basswv",   "bassopus", "bassdsd",  "bassape",
                                                   "basswebm", "basshls", "bassmidi", "bass_mpc", "bass_tta"};
    return names;
}

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
