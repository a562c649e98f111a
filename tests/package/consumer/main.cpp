// Starts the engine on the no-sound device, plays a short tone made in memory
// through a player to its end, and finds the format plug-ins of the installation.
#include <tavro/tavro.hpp>

#include <bass.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

struct Tone : TavroSource {
    std::vector<float> pcm = std::vector<float>(44100 / 5);
    uint32_t createStreamWithFlags(TavroSourceFlags flags, TavroError* error) override {
        for (size_t i = 0; i < pcm.size(); ++i) pcm[i] = 0.3f * static_cast<float>(std::sin(i * 0.0627));
        const HSTREAM h = BASS_StreamCreate(44100, 1, BASS_SAMPLE_FLOAT | ((flags & TavroSourceFlagDecode) ? BASS_STREAM_DECODE : 0),
                                            STREAMPROC_PUSH, nullptr);
        if (h) BASS_StreamPutData(h, pcm.data(), static_cast<DWORD>(pcm.size() * sizeof(float)) | BASS_STREAMPROC_END);
        else if (error) *error = TavroError::currentError();
        return h;
    }
    std::string displayName() const override { return "tone"; }
};

int main() {
    if (std::string(TavroCoreVersionString) != TAVRO_VERSION_STRING) return std::puts("version mismatch"), 1;
    auto engine = TavroEngine::sharedEngine();
    TavroError error;
    if (!engine->startWithDevice(0, &error)) return std::printf("start: %s\n", error.localizedDescription().c_str()), 1;
    engine->loadAllPlugins();
    if (engine->loadedPlugins().size() != TavroEngine::pluginNames().size()) return std::puts("plug-ins not found"), 1;
    auto player = TavroPlayer::init();
    bool ended = false;
    player->setOnEnd([&] { ended = true; });
    if (!player->loadSource(std::make_shared<Tone>(), &error) || !player->play(&error))
        return std::printf("play: %s\n", error.localizedDescription().c_str()), 1;
    TavroMainQueue::runUntil([&] { return ended; }, std::chrono::seconds(5));
    engine->stop();
    std::printf("consumer: TavroCore %s, tone %s\n", TavroCoreVersionString, ended ? "played" : "did not end");
    return ended ? 0 : 1;
}
