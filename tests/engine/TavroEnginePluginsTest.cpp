// Format plug-ins through the engine: loading by name, the extension list,
// the version text.
#include <tavro/engine/TavroEngine.hpp>

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

TEST(TavroEnginePluginsTest, VersionTextHasFourParts) {
    TavroEngine engine;
    const DWORD v = BASS_GetVersion();
    EXPECT_EQ(engine.bassVersionString(), std::to_string(v >> 24) + "." + std::to_string((v >> 16) & 0xFF) + "." +
                                              std::to_string((v >> 8) & 0xFF) + "." + std::to_string(v & 0xFF));
    EXPECT_EQ(engine.bassVersionString(), "2.4.17.0");
}
