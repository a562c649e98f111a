// tavro-play: a small command-line player built on TavroCore.
//
//   tavro-play [options] [FILE]
//     --list-devices   list the output devices and exit
//     --device N       play on output device N
//     --no-sound       play on the no-sound device (nothing is heard)
//     --tour           run a scripted tour of the features, then quit
//     --seconds S      quit after S seconds
//
// Keys while playing: space pause/resume, left/right seek -/+5 s, up/down
// tempo +/-5 %, +/- pitch one semitone, r reverse, a/b set the loop's start
// and end (a again clears it), q quit.
#include <tavro/tavro.hpp>

// Only the tone's source makes a platform channel itself; everything else
// goes through the library's classes.
#include <bass.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <termios.h>
#include <unistd.h>
#include <vector>

namespace {

struct Options {
    std::string file;
    int64_t device = -1; // -1: the default device
    bool listOnly = false, tour = false;
    double seconds = 0;
};

class Terminal {
  public:
    Terminal() {
        if (!isatty(STDIN_FILENO)) return;
        tcgetattr(STDIN_FILENO, &saved_);
        termios raw = saved_;
        raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
        raw.c_cc[VMIN] = 0;
        raw.c_cc[VTIME] = 0;
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
        active_ = true;
    }
    ~Terminal() {
        if (active_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
    }
    bool interactive() const { return active_; }
    // One key, with arrow keys as 'U', 'D', 'L', 'R'; 0 when none.
    int key() const {
        if (!active_) return 0;
        unsigned char c[3];
        const ssize_t n = read(STDIN_FILENO, c, sizeof c);
        if (n <= 0) return 0;
        if (n == 3 && c[0] == 27 && c[1] == '[') return c[2] == 'A' ? 'U' : c[2] == 'B' ? 'D' : c[2] == 'C' ? 'R' : 'L';
        return c[0];
    }

  private:
    termios saved_{};
    bool active_ = false;
};

void listDevices(const TavroEngine& engine) {
    for (const auto& d : engine.availableOutputDevices())
        std::printf("  %2d  %-40s %s%s%s\n", d.deviceID, d.name.c_str(), d.driver ? d.driver->c_str() : "-",
                    d.isDefault ? "  [default]" : "", d.isEnabled ? "" : "  [disabled]");
}

std::string bar(double pos, double dur, int width) {
    const int filled = dur > 0 ? static_cast<int>(std::lround(width * std::min(1.0, pos / dur))) : 0;
    return std::string(static_cast<size_t>(filled), '#') + std::string(static_cast<size_t>(width - filled), '-');
}

std::string clock(double s) {
    char buf[16];
    const int t = static_cast<int>(s);
    std::snprintf(buf, sizeof buf, "%d:%02d", t / 60, t % 60);
    return buf;
}

const char* stateName(int64_t s) {
    switch (s) {
    case TavroPlayerStatePlaying: return "playing";
    case TavroPlayerStatePaused: return "paused";
    case TavroPlayerStateEnded: return "ended";
    default: return "stopped";
    }
}

// Where the sound goes, and what happens to it: the sound server may go away
// (a restart, a crash) and come back; the engine holds playback meanwhile and
// resumes it by itself, and the player only tells the listener.
class OutputWatch {
  public:
    explicit OutputWatch(TavroEngine& engine) : engine_(engine) {
        engine.setOnAudioDeviceChange([this](int64_t code) {
            if (code != 4 || lost_) return; // 4: the output failed
            lost_ = true;
            std::printf("\n[output] the sound server went away: playback is held and resumes when it returns\n");
        });
    }
    ~OutputWatch() { engine_.setOnAudioDeviceChange({}); }
    void describe(bool chosen) const {
        const int32_t device = engine_.currentOutputDevice();
        std::string name;
        for (const auto& d : engine_.availableOutputDevices())
            if (d.deviceID == device) name = d.name;
        if (device == 0 && !chosen)
            std::printf("No sound server is reachable: playing on the no-sound device, nothing will be heard.\n");
        else
            std::printf("Playing on device %d: %s\n", device, name.c_str());
    }
    // Called from the main loop: notices the output running again.
    void poll() {
        if (!lost_) return;
        if (engine_.resumeOutputNeedsReinit()) return;
        lost_ = false;
        std::printf("\n[output] the sound server is back: ");
        describe(true);
    }

  private:
    TavroEngine& engine_;
    bool lost_ = false;
};

// Two seconds of a 440 Hz tone made in memory: a source is how an application
// hands the library audio of its own.
class ToneSource final : public TavroSource {
  public:
    ToneSource() : pcm_(kRate * 2 * 2) {
        for (size_t i = 0; i < kRate * 2; ++i) {
            const float env = std::min(1.0f, std::min(static_cast<float>(i), static_cast<float>(kRate * 2 - i)) / 2000.0f);
            pcm_[2 * i] = pcm_[2 * i + 1] = 0.4f * env * static_cast<float>(std::sin(2 * M_PI * 440.0 * static_cast<double>(i) / kRate));
        }
    }
    uint32_t createStreamWithFlags(TavroSourceFlags flags, TavroError* error) override {
        const DWORD decode = (flags & TavroSourceFlagDecode) ? BASS_STREAM_DECODE : 0;
        const HSTREAM h = BASS_StreamCreate(kRate, 2, BASS_SAMPLE_FLOAT | decode, STREAMPROC_PUSH, nullptr);
        if (!h || BASS_StreamPutData(h, pcm_.data(), static_cast<DWORD>(pcm_.size() * 4) | BASS_STREAMPROC_END) == 0xFFFFFFFF) {
            if (error) *error = TavroError::currentError();
            if (h) BASS_StreamFree(h);
            return 0;
        }
        return h;
    }
    std::string displayName() const override { return "tone"; }

  private:
    static constexpr size_t kRate = 44100;
    std::vector<float> pcm_;
};

int playTone(OutputWatch& watch) {
    std::printf("No file given: a two-second tone through a push stream.\n");
    TavroError error;
    auto stream = TavroStream::streamWithSource(std::make_shared<ToneSource>(), TavroSourceFlagFloat, &error);
    if (!stream) {
        std::fprintf(stderr, "cannot make the tone: %s\n", error.localizedDescription().c_str());
        return 1;
    }
    auto analyzer = TavroAnalyzer::initWithStream(stream);
    bool done = false;
    TavroSync::addEndSyncOnStream(stream, [&done] { done = true; });
    stream->play(false);
    while (!done) {
        float left = 0;
        analyzer->readPeakLeft(&left, nullptr, nullptr, nullptr);
        const int n = static_cast<int>(left * 40);
        std::printf("\r  level L %-40s %.2f", std::string(static_cast<size_t>(n), '|').c_str(), static_cast<double>(left));
        std::fflush(stdout);
        TavroMainQueue::runFor(std::chrono::milliseconds(50));
        watch.poll();
    }
    std::printf("\n");
    stream->free();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    Options opt;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--list-devices") opt.listOnly = true;
        else if (a == "--no-sound") opt.device = 0;
        else if (a == "--device" && i + 1 < argc) opt.device = std::atoll(argv[++i]);
        else if (a == "--tour") opt.tour = true;
        else if (a == "--seconds" && i + 1 < argc) opt.seconds = std::atof(argv[++i]);
        else if (a == "--help" || a == "-h") {
            std::printf("usage: tavro-play [--list-devices] [--device N] [--no-sound] [--tour] [--seconds S] [FILE]\n");
            return 0;
        } else opt.file = a;
    }

    auto engine = TavroEngine::sharedEngine();
    std::printf("TavroCore %s, audio platform %s\n", TavroCoreVersionString, engine->bassVersionString().c_str());
    std::printf("Output devices:\n");
    listDevices(*engine);
    if (opt.listOnly) return 0;

    TavroError error;
    if (!engine->startWithDevice(opt.device, &error)) {
        if (opt.device == -1) std::fprintf(stderr, "cannot start the engine: %s\n", error.localizedDescription().c_str());
        else std::fprintf(stderr, "cannot open device %lld: %s\n", static_cast<long long>(opt.device), error.localizedDescription().c_str());
        return 1;
    }
    OutputWatch watch(*engine);
    watch.describe(opt.device != -1);
    engine->loadAllPlugins();

    int status = 0;
    if (opt.file.empty()) {
        status = playTone(watch);
    } else {
        auto player = TavroPlayer::init();
        player->setReverseEnabled(true); // tempo stage over a reverse stage
        player->setIncludesEffects(true);
        player->setIncludesAnalyzer(true);
        player->setIncludesBPM(true);
        TavroError loadError;
        const TavroURL url = TavroURL::fileURLWithPath(opt.file);
        if (!player->loadSource(TavroFileSource::initWithFileURL(url), &loadError)) {
            std::fprintf(stderr, "cannot open %s: %s\n", opt.file.c_str(), loadError.localizedDescription().c_str());
            // A format whose plug-in module could not be loaded fails like a
            // file that is no audio: say which module it needs.
            const std::string module = TavroEngine::pluginForFile(opt.file);
            if (loadError.code() == BASS_ERROR_FILEFORM && !module.empty() && !engine->loadedPlugins().count(module))
                std::fprintf(stderr, "this format needs the %s plug-in, which is not loaded\n", module.c_str());
            status = 1;
        } else {
            auto stream = player->stream();
            auto effects = player->effects();
            // A reverse stage starts at the end, playing backwards.
            effects->applyReverseEnabled(false);
            stream->seekToSeconds(0);
            auto tags = stream->readTags();
            std::printf("Title:  %s\nArtist: %s\nLength: %s\n", tags.count("title") ? tags["title"].c_str() : "-",
                        tags.count("artist") ? tags["artist"].c_str() : "-", clock(player->duration()).c_str());
            bool done = false;
            player->setOnStateChange([&](int64_t s) {
                std::printf("\n[state] %s\n", stateName(s));
                if (s == TavroPlayerStateEnded) done = true;
            });
            player->setOnError([](const TavroError& e) { std::printf("\n[error] %s\n", e.localizedDescription().c_str()); });
            double tempo = 0, pitch = 0, loopA = -1;
            bool reversed = false;
            std::string note;
            auto act = [&](int key) {
                switch (key) {
                case ' ': player->isPlaying() ? player->pause() : player->play(); break;
                case 'L': player->seekBy(-5); note = "seek -5 s"; break;
                case 'R': player->seekBy(5); note = "seek +5 s"; break;
                case 'U': case 'D':
                    tempo += key == 'U' ? 5 : -5;
                    effects->applySpeedRatio(static_cast<float>(1 + tempo / 100));
                    note = "tempo " + std::to_string(static_cast<int>(tempo)) + " %";
                    break;
                case '+': case '-':
                    pitch += key == '+' ? 1 : -1;
                    effects->applyPitchSemitones(static_cast<float>(pitch));
                    note = "pitch " + std::to_string(static_cast<int>(pitch)) + " st";
                    break;
                case 'r':
                    reversed = !reversed;
                    effects->applyReverseEnabled(reversed);
                    note = reversed ? "reverse" : "forward";
                    break;
                case 'a':
                    if (loopA >= 0 || stream->loopSync()) {
                        stream->clearLoop();
                        loopA = -1;
                        note = "loop off";
                    } else {
                        loopA = player->position();
                        note = "loop start " + clock(loopA);
                    }
                    break;
                case 'b':
                    // The end is where the listener is now; go back to the start
                    // at once so the loop is heard from its beginning.
                    if (loopA >= 0 && stream->setLoopFromSeconds(loopA, player->position())) {
                        player->seekToSeconds(loopA);
                        note = "looping";
                    }
                    break;
                case 'q': done = true; break;
                default: break;
                }
            };
            // The tour: what a person would press, at fixed times.
            const std::vector<std::pair<double, int>> tour = {
                {2.0, 'R'}, {3.0, 'U'}, {3.5, 'U'}, {4.5, '+'}, {5.5, 'D'}, {5.6, 'D'}, {5.7, '-'},
                {6.0, 'a'}, {7.0, 'b'}, {8.5, 'a'}, {9.0, 'r'}, {9.6, 'r'}, {10.0, 'q'}};
            size_t next = 0;
            Terminal term;
            if (term.interactive() && !opt.tour)
                std::printf("keys: space pause, arrows seek/tempo, +/- pitch, r reverse, a/b loop, q quit\n");
            // The file's tempo, found in the background while it plays; each
            // beat heard lights the marker for a tenth of a second.
            auto lastBeat = std::make_shared<std::chrono::steady_clock::time_point>();
            TavroBPM::detectBPMForFileURL(url, 0, 0, 60, 180, [](float bpm) {
                if (bpm > 0) std::printf("\n[tempo] %.1f BPM\n", static_cast<double>(bpm));
            });
            player->bpm()->startBeatDetectionWithBlock(
                [lastBeat](double) { *lastBeat = std::chrono::steady_clock::now(); });
            player->play();
            player->beginProgressUpdatesEvery(0.1);
            player->setOnProgress([&](double pos) {
                float left = 0, right = 0;
                player->analyzer()->readPeakLeft(&left, &right, nullptr, nullptr);
                const bool onBeat = std::chrono::steady_clock::now() - *lastBeat < std::chrono::milliseconds(100);
                std::printf("\r %s [%s] %s  L%3d%% R%3d%% %c %-20s", clock(pos).c_str(), bar(pos, player->duration(), 30).c_str(),
                            clock(player->duration()).c_str(), static_cast<int>(left * 100), static_cast<int>(right * 100),
                            onBeat ? '*' : ' ', note.c_str());
                std::fflush(stdout);
            });
            const auto t0 = std::chrono::steady_clock::now();
            while (!done) {
                TavroMainQueue::runFor(std::chrono::milliseconds(20));
                const double t = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
                if (opt.tour && next < tour.size() && t >= tour[next].first) act(tour[next++].second);
                if (int k = term.key()) act(k);
                if (opt.seconds > 0 && t >= opt.seconds) done = true;
                watch.poll();
            }
            std::printf("\n");
            player->releaseStream();
        }
    }
    engine->stop();
    return status;
}
