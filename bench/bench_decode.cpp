// Decoding speed against the ffmpeg command-line decoder on the same files,
// and the time to open a five-minute MP3 and start playing it.
// Media is made at start-up with ffmpeg (a minute of music-like signal).
#include <bass.h>
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

const std::string kDir = "/tmp/tavro-bench-media";

std::string makeFile(const std::string& name, const std::string& args, int seconds) {
    const std::string path = kDir + "/" + name;
    const std::string cmd = "mkdir -p " + kDir + " && [ -s " + path + " ] || ffmpeg -nostdin -v error -y -f lavfi -i " +
                            "\"aevalsrc='0.3*sin(2*PI*220*t*(1+0.1*sin(t)))+0.1*sin(2*PI*3000*t)|0.3*sin(2*PI*330*t)':s=44100:d=" +
                            std::to_string(seconds) + "\" " + args + " " + path;
    if (std::system(cmd.c_str()) != 0) return "";
    return path;
}

// Seconds ffmpeg itself takes to decode the file to float PCM (best of three).
double ffmpegSeconds(const std::string& path) {
    double best = 1e9;
    for (int i = 0; i < 3; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        const std::string cmd = "ffmpeg -nostdin -v error -threads 1 -i " + path + " -f f32le -y /dev/null";
        if (std::system(cmd.c_str()) != 0) return 0;
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    return best;
}

void decodeAgainstFfmpeg(benchmark::State& state, const char* name, const char* args, const char* plugin) {
    BASS_Init(0, 44100, 0, nullptr, nullptr);
    if (plugin) BASS_PluginLoad(plugin, 0);
    const std::string path = makeFile(name, args, 60);
    if (path.empty()) {
        state.SkipWithError("could not make the test file");
        return;
    }
    std::vector<float> buf(1 << 15);
    double frames = 0;
    const auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        HSTREAM h = BASS_StreamCreateFile(FALSE, path.c_str(), 0, 0, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT);
        for (;;) {
            const DWORD got = BASS_ChannelGetData(h, buf.data(), static_cast<DWORD>(buf.size() * 4) | BASS_DATA_FLOAT);
            if (got == 0 || got == 0xFFFFFFFF) break;
            frames += got / 8.0;
        }
        BASS_StreamFree(h);
    }
    const auto elapsed = std::chrono::steady_clock::now() - t0;
    state.counters["x_realtime"] = benchmark::Counter(frames / 44100.0, benchmark::Counter::kIsRate);
    const double ff = ffmpegSeconds(path);
    // Ours against ffmpeg's own throughput on the same file (ffmpeg's time
    // includes starting the process, so this leans in ffmpeg's favour).
    const double ours = state.iterations() ? frames / 44100.0 / state.iterations() : 0; // audio seconds per pass
    const double oursSeconds = state.iterations() ? std::chrono::duration<double>(elapsed).count() / state.iterations() : 0;
    state.counters["ffmpeg_x_realtime"] = ff > 0 ? 60.0 / ff : 0;
    if (ff > 0 && oursSeconds > 0) state.counters["ratio_vs_ffmpeg"] = (ours / oursSeconds) / (60.0 / ff);
    BASS_PluginFree(0);
    BASS_Free();
}

void BM_DecodeMP3(benchmark::State& s) { decodeAgainstFfmpeg(s, "music.mp3", "-c:a libmp3lame -b:a 192k", nullptr); }
void BM_DecodeFLAC(benchmark::State& s) { decodeAgainstFfmpeg(s, "music.flac", "-c:a flac", "bassflac"); }
void BM_DecodeOpus(benchmark::State& s) { decodeAgainstFfmpeg(s, "music.opus", "-c:a libopus -b:a 128k", "bassopus"); }
void BM_DecodeAAC(benchmark::State& s) { decodeAgainstFfmpeg(s, "music.m4a", "-c:a aac -b:a 192k", nullptr); }

BENCHMARK(BM_DecodeMP3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodeFLAC)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodeOpus)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodeAAC)->Unit(benchmark::kMillisecond)->UseRealTime();

// Open a five-minute MP3 (no prescan) and start it playing on the no-sound device.
void BM_OpenAndPlayMP3(benchmark::State& state) {
    BASS_Init(0, 44100, 0, nullptr, nullptr);
    const std::string path = makeFile("five-minutes.mp3", "-c:a libmp3lame -b:a 192k", 300);
    for (auto _ : state) {
        HSTREAM h = BASS_StreamCreateFile(FALSE, path.c_str(), 0, 0, BASS_SAMPLE_FLOAT);
        BASS_ChannelPlay(h, FALSE);
        state.PauseTiming();
        BASS_StreamFree(h);
        state.ResumeTiming();
    }
    BASS_Free();
}
BENCHMARK(BM_OpenAndPlayMP3)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
