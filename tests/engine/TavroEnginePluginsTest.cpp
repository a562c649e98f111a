// Format plug-ins through the engine: loading by name, the extension list,
// the version text.
#include "MediaFixtures.hpp"

#include <tavro/engine/TavroEngine.hpp>
#include <tavro/sources/TavroFileSource.hpp>

#include <bass.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace {
bool has(const std::vector<std::string>& v, const std::string& s) { return std::find(v.begin(), v.end(), s) != v.end(); }
} // namespace

TEST(TavroEnginePluginsTest, ExtensionsGrowWithPluginsAndShrinkAtStop) {
    auto engine = std::make_shared<TavroEngine>();
    const auto builtIn = engine->supportedPlaybackFileExtensions();
    ASSERT_EQ(builtIn.size(), 24u);
    EXPECT_TRUE(std::is_sorted(builtIn.begin(), builtIn.end()));
    EXPECT_EQ(std::vector<std::string>(builtIn.begin(), builtIn.begin() + 4),
              (std::vector<std::string>{"3g2", "3gp", "aac", "ac3"}));

    ASSERT_TRUE(engine->startWithError());
    engine->loadAllPlugins();
    const auto loaded = engine->loadedPlugins();
    EXPECT_EQ(loaded.size(), TavroEngine::pluginNames().size());
    const auto all = engine->supportedPlaybackFileExtensions();
    for (const char* ext : {"flac", "fla", "oga", "wv", "opus", "dsf", "dff", "ape", "webm", "mka", "m3u8", "mid", "mpc", "tta"})
        EXPECT_TRUE(has(all, ext)) << ext;
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end()));
    EXPECT_EQ(std::count(all.begin(), all.end(), "mp4"), 1);

    // A second call finds nothing missing and keeps the same handles.
    engine->loadAllPlugins();
    EXPECT_EQ(engine->loadedPlugins(), loaded);
    // A copy taken earlier does not change.
    engine->stop();
    EXPECT_TRUE(engine->loadedPlugins().empty());
    EXPECT_EQ(loaded.size(), TavroEngine::pluginNames().size());
    EXPECT_EQ(engine->supportedPlaybackFileExtensions(), builtIn);
    EXPECT_EQ(BASS_PluginGetInfo(loaded.begin()->second), nullptr);
}

// Every extension a module registers names that module, and a file's first
// bytes win over its name. A file of a format whose module is not loaded fails
// like one that is no audio, and pluginForFile tells the two apart.
TEST(TavroEnginePluginsTest, FilesOfPluginFormatsNameTheirModule) {
    for (const auto& name : TavroEngine::pluginNames()) {
        const HPLUGIN h = BASS_PluginLoad(name.c_str(), 0);
        ASSERT_NE(h, 0u) << name;
        const BASS_PLUGININFO* info = BASS_PluginGetInfo(h);
        for (DWORD f = 0; f < info->formatc; ++f) {
            std::string exts = info->formats[f].exts;
            for (size_t p = exts.find("*."); p != std::string::npos; p = exts.find("*.", p + 1)) {
                const std::string ext = exts.substr(p + 2, exts.find(';', p) - p - 2);
                EXPECT_EQ(TavroEngine::pluginForFile("/no/such/dir/Song." + ext), name) << ext;
            }
        }
        BASS_PluginFree(h);
    }
    EXPECT_EQ(TavroEngine::pluginForFile("/no/such/dir/song.mp3"), "");
    EXPECT_EQ(TavroEngine::pluginForFile("/no/such.flac/song"), "");

    tavro::test::MediaDir media;
    const std::string wav = media.path("tone.wav");
    tavro::test::writeWav16(wav, tavro::test::testSignal(22050, 2, 44100), 44100, 2);
    EXPECT_EQ(TavroEngine::pluginForFile(wav), "");
    // FLAC behind an ID3v2 tag of 300 bytes, as some taggers write it.
    const std::string flac = media.path("flac-inside.dat");
    {
        auto bytes = tavro::test::readFile(media.encode(wav, "plain.flac", ""));
        std::vector<uint8_t> tagged = {'I', 'D', '3', 4, 0, 0, 0, 0, 2, 44};
        tagged.resize(310, 0);
        tagged.insert(tagged.end(), bytes.begin(), bytes.end());
        tavro::test::writeFile(flac, tagged);
    }
    const std::string opus = media.encode(wav, "opus-inside.ogg", "-c:a libopus");
    const std::string vorbis = media.encode(wav, "vorbis.ogg", "-c:a libvorbis");
    const std::string wv = media.encode(wav, "wavpack.bin", "-f wv");
    EXPECT_EQ(TavroEngine::pluginForFile(flac), "bassflac");
    EXPECT_EQ(TavroEngine::pluginForFile(opus), "bassopus");
    EXPECT_EQ(TavroEngine::pluginForFile(vorbis), "");
    EXPECT_EQ(TavroEngine::pluginForFile(wv), "basswv");

    auto engine = std::make_shared<TavroEngine>();
    ASSERT_TRUE(engine->startWithDevice(0));
    auto source = TavroFileSource::initWithFileURL(TavroURL::fileURLWithPath(flac));
    TavroError error;
    EXPECT_EQ(source->createStreamWithFlags(TavroSourceFlagDecode, &error), 0u);
    EXPECT_EQ(error.code(), BASS_ERROR_FILEFORM);
    engine->loadAllPlugins();
    const uint32_t h = source->createStreamWithFlags(TavroSourceFlagDecode, &error);
    EXPECT_NE(h, 0u);
    BASS_StreamFree(h);
    engine->stop();
}

TEST(TavroEnginePluginsTest, VersionTextHasFourParts) {
    TavroEngine engine;
    const DWORD v = BASS_GetVersion();
    EXPECT_EQ(engine.bassVersionString(), std::to_string(v >> 24) + "." + std::to_string((v >> 16) & 0xFF) + "." +
                                              std::to_string((v >> 8) & 0xFF) + "." + std::to_string(v & 0xFF));
    EXPECT_EQ(engine.bassVersionString(), "2.4.17.0");
}
