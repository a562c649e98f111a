// tavro-analyze: loudness, tempo, beats and tags of audio files, built on
// TavroCore.
//
//   tavro-analyze [--json] [--jobs N] [--all-beats] [--] FILE|FOLDER...
//     --json        one JSON object per file and line instead of a table
//     --jobs N      analyse N files at a time (default: the number of cores)
//     --all-beats   list every beat instead of the first few
//
// Folders are searched recursively for files of the formats the engine plays.
// Results come in the order of the arguments (a folder's files sorted by
// path). A file that cannot be read is reported on stderr as "name: reason"
// and makes the exit status 1; the others are still analysed.
//
// How the work is shared: a file is analysed in three steps, one at a time.
// The loudness step decodes the file on a worker of our own pool; the tempo
// and beat steps are the library's offline calls, which decode on its own
// background pool and report on the main queue. Every step ends on the main
// thread, which starts the next one; at most --jobs files are under way.
#include <tavro/tavro.hpp>

#include <bass.h> // error codes

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr size_t kFirstBeats = 8;    // beats listed without --all-beats
constexpr size_t kTableBeats = 4;    // of which the table shows
constexpr uint64_t kReadFrames = 16384;

struct Options {
    bool json = false, allBeats = false;
    size_t jobs = 0;
    std::vector<std::string> inputs;
};

struct Result {
    std::string path;
    std::string error; // empty when the file was read
    double duration = 0;
    std::string format;
    uint64_t sampleRate = 0, channels = 0;
    std::map<std::string, std::string> tags;
    double integratedLUFS = NAN, rangeLU = NAN, truePeakDBTP = NAN;
    double bpm = NAN;
    std::vector<double> beats;
    int steps = 0; // 0 to 3: loudness, tempo, beats done
};

// Decodes the whole file once with a loudness meter attached: one pass gives
// the integrated loudness, the range and the true peak (the offline scan,
// TavroLoudness::scanIntegratedLoudnessForSource, gives only the first).
// Runs on a worker thread, which owns the stream and the meter throughout.
Result measure(const std::string& path) {
    Result r;
    r.path = path;
    std::error_code ec;
    if (!fs::exists(path, ec)) {
        r.error = "no such file or directory";
        return r;
    }
    auto source = TavroFileSource::initWithFileURL(TavroURL::fileURLWithPath(path));
    TavroError error;
    auto stream = TavroStream::streamWithSource(source, TavroSourceFlagDecode | TavroSourceFlagFloat, &error);
    if (!stream) {
        r.error = error.localizedDescription();
        // A format whose plug-in module could not be loaded fails like a file
        // that is no audio: say which module it needs.
        const std::string module = TavroEngine::pluginForFile(path);
        if (error.code() == BASS_ERROR_FILEFORM && !module.empty() &&
            !TavroEngine::sharedEngine()->loadedPlugins().count(module))
            r.error += " (needs the " + module + " plug-in, which is not loaded)";
        return r;
    }
    r.duration = stream->duration();
    r.sampleRate = stream->sampleRate();
    r.channels = stream->channelCount();
    std::string ext = fs::path(path).extension().string();
    if (!ext.empty()) ext.erase(0, 1);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    r.format = ext.empty() ? "?" : ext;
    r.tags = stream->readTags();

    // Reading a decoding stream through an analyser pulls its audio through
    // the meter, which sits in the stream's chain.
    auto meter = TavroLoudness::initWithStream(stream);
    if (meter->startMeasuring(true, true, false, true)) {
        auto analyzer = TavroAnalyzer::initWithStream(stream);
        std::vector<float> buffer(kReadFrames * std::max<uint64_t>(r.channels, 1));
        while (analyzer->readWaveformFloats(buffer.data(), kReadFrames) > 0) {
        }
        const TavroLoudnessLevels levels = meter->readCurrentLevels();
        meter->stop();
        // Silence and audio too short to measure read minus infinity.
        if (std::isfinite(levels.integratedLUFS)) r.integratedLUFS = levels.integratedLUFS;
        // Audio too short for an integrated loudness is too short for a range.
        if (std::isfinite(levels.integratedLUFS)) r.rangeLU = levels.shortTermLUFS;
        // The meter gives the true peak as a linear amplitude.
        if (levels.truePeakDB > 0) r.truePeakDBTP = 20 * std::log10(static_cast<double>(levels.truePeakDB));
    }
    stream->free();
    return r;
}

// Regular files of a folder and its subfolders whose extension the engine
// plays, sorted by path.
std::vector<std::string> filesUnder(const fs::path& folder, const std::set<std::string>& extensions) {
    std::vector<std::string> files;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(folder, fs::directory_options::skip_permission_denied, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (!it->is_regular_file(ec)) continue;
        std::string ext = it->path().extension().string();
        if (ext.empty()) continue;
        std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
        if (extensions.count(ext.substr(1))) files.push_back(it->path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

// A JSON string, with anything that is not valid UTF-8 replaced by U+FFFD.
std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
        for (size_t k = 1; k < len; ++k)
            if (i + k >= s.size() || (static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) len = 0;
        if (len == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
            continue;
        }
        if (len > 1) {
            out.append(s, i, len);
        } else if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7F) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
        i += len;
    }
    return out + "\"";
}

std::string number(double v, int decimals) {
    if (!std::isfinite(v)) return "";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

std::string jsonNumber(double v, int decimals) {
    return std::isfinite(v) ? number(v, decimals) : "null";
}

std::string jsonLine(const Result& r, bool allBeats) {
    std::string o = "{\"file\":" + jsonString(r.path);
    if (!r.error.empty()) return o + ",\"error\":" + jsonString(r.error) + "}";
    o += ",\"duration_s\":" + jsonNumber(r.duration, 3) + ",\"format\":" + jsonString(r.format) +
         ",\"sample_rate\":" + std::to_string(r.sampleRate) + ",\"channels\":" + std::to_string(r.channels) +
         ",\"tags\":{";
    bool first = true;
    for (const char* key : {"title", "artist", "album"}) {
        const auto it = r.tags.find(key);
        if (it == r.tags.end() || it->second.empty()) continue;
        if (!first) o += ',';
        o += jsonString(key) + ":" + jsonString(it->second);
        first = false;
    }
    o += "},\"integrated_lufs\":" + jsonNumber(r.integratedLUFS, 2) + ",\"loudness_range_lu\":" +
         jsonNumber(r.rangeLU, 2) + ",\"true_peak_dbtp\":" + jsonNumber(r.truePeakDBTP, 2) +
         ",\"bpm\":" + jsonNumber(r.bpm, 2) + ",\"beat_count\":" + std::to_string(r.beats.size()) + ",\"beats\":[";
    const size_t shown = allBeats ? r.beats.size() : std::min(r.beats.size(), kFirstBeats);
    for (size_t i = 0; i < shown; ++i) {
        if (i) o += ',';
        o += number(r.beats[i], 3);
    }
    return o + "]}";
}

std::string clock(double s) {
    if (!(s > 0)) return "-";
    const auto tenths = static_cast<long long>(std::llround(s * 10));
    char buf[32];
    std::snprintf(buf, sizeof buf, "%lld:%02lld.%lld", tenths / 600, tenths / 10 % 60, tenths % 10);
    return buf;
}

// Characters on screen: UTF-8 continuation bytes take no column.
size_t columns(const std::string& s) {
    return static_cast<size_t>(std::count_if(s.begin(), s.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

void printTable(const std::vector<Result>& results, bool allBeats) {
    std::vector<std::vector<std::string>> rows = {
        {"FILE", "DURATION", "FORMAT", "LUFS", "LRA LU", "PEAK dBTP", "BPM", "TITLE / ARTIST / ALBUM", "BEATS (s)"}};
    for (const Result& r : results) {
        if (!r.error.empty()) continue;
        std::string beats;
        const size_t shown = allBeats ? r.beats.size() : std::min(r.beats.size(), kTableBeats);
        for (size_t i = 0; i < shown; ++i) {
            if (i) beats += ' ';
            beats += number(r.beats[i], 2);
        }
        if (shown < r.beats.size()) beats += " ... (" + std::to_string(r.beats.size()) + ")";
        std::string tags;
        for (const char* key : {"title", "artist", "album"}) {
            const auto it = r.tags.find(key);
            if (it == r.tags.end() || it->second.empty()) continue;
            if (!tags.empty()) tags += " / ";
            tags += it->second;
        }
        const std::string format = r.format + " " + std::to_string(r.sampleRate) + " Hz " +
                                   (r.channels == 1 ? "mono" : r.channels == 2 ? "stereo" : std::to_string(r.channels) + " ch");
        auto orDash = [](std::string s) { return s.empty() ? std::string("-") : s; };
        rows.push_back({r.path, clock(r.duration), format, orDash(number(r.integratedLUFS, 1)),
                        orDash(number(r.rangeLU, 1)), orDash(number(r.truePeakDBTP, 1)), orDash(number(r.bpm, 1)),
                        orDash(tags), orDash(beats)});
    }
    if (rows.size() == 1) return;
    std::vector<size_t> width(rows[0].size(), 0);
    for (const auto& row : rows)
        for (size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], columns(row[c]));
    for (const auto& row : rows) {
        std::string line;
        for (size_t c = 0; c < row.size(); ++c) {
            const std::string pad(width[c] - columns(row[c]), ' ');
            // Figures align right, text left; the last column is not padded.
            const bool figure = c >= 1 && c != 2 && c <= 6;
            if (c) line += "  ";
            if (c + 1 == row.size()) line += row[c];
            else line += figure ? pad + row[c] : row[c] + pad;
        }
        std::printf("%s\n", line.c_str());
    }
}

class Progress {
  public:
    explicit Progress(size_t total) : total_(total), shown_(isatty(STDERR_FILENO) && total > 0) {}
    void draw(size_t steps, size_t done) {
        if (!shown_) return;
        constexpr size_t kWidth = 30;
        const size_t filled = steps * kWidth / (3 * total_);
        if (filled == filled_ && done == done_) return;
        filled_ = filled;
        done_ = done;
        std::fprintf(stderr, "\r[%s%s] %zu/%zu files", std::string(filled, '#').c_str(),
                     std::string(kWidth - filled, '-').c_str(), done, total_);
        std::fflush(stderr);
    }
    // Before anything else is written to the terminal, and at the end.
    void clear() {
        if (!shown_) return;
        std::fprintf(stderr, "\r\033[K");
        filled_ = done_ = SIZE_MAX;
    }

  private:
    size_t total_;
    bool shown_;
    size_t filled_ = SIZE_MAX, done_ = SIZE_MAX;
};

int usage(FILE* to) {
    std::fprintf(to, "usage: tavro-analyze [--json] [--jobs N] [--all-beats] [--] FILE|FOLDER...\n"
                     "  --json       one JSON object per file and line instead of a table\n"
                     "  --jobs N     analyse N files at a time (default: the number of cores)\n"
                     "  --all-beats  list every beat instead of the first few\n");
    return to == stdout ? 0 : 2;
}

} // namespace

int main(int argc, char** argv) {
    Options opt;
    bool optionsEnded = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (optionsEnded || a.size() < 2 || a[0] != '-') opt.inputs.push_back(a);
        else if (a == "--") optionsEnded = true;
        else if (a == "--json") opt.json = true;
        else if (a == "--all-beats") opt.allBeats = true;
        else if (a == "--jobs" && i + 1 < argc) {
            const long n = std::strtol(argv[++i], nullptr, 10);
            if (n < 1) return usage(stderr);
            opt.jobs = static_cast<size_t>(n);
        } else if (a == "--help" || a == "-h") return usage(stdout);
        else return usage(stderr);
    }
    if (opt.inputs.empty()) return usage(stderr);
    if (opt.jobs == 0) opt.jobs = std::max(1u, std::thread::hardware_concurrency());

    // Analysis plays nothing: the no-sound device needs no sound server.
    auto engine = TavroEngine::sharedEngine();
    TavroError error;
    if (!engine->startWithDevice(0, &error)) {
        std::fprintf(stderr, "tavro-analyze: cannot start the engine: %s\n", error.localizedDescription().c_str());
        return 1;
    }
    engine->loadAllPlugins();
    std::set<std::string> extensions;
    for (const auto& e : engine->supportedPlaybackFileExtensions()) extensions.insert(e);

    std::vector<Result> results;
    auto add = [&results](const std::string& path) {
        results.emplace_back();
        results.back().path = path;
    };
    for (const auto& input : opt.inputs) {
        std::error_code ec;
        if (fs::is_directory(input, ec)) {
            for (const auto& f : filesUnder(input, extensions)) add(f);
        } else {
            add(input);
        }
    }

    const size_t total = results.size();
    Progress progress(total);
    size_t next = 0, inFlight = 0, done = 0, steps = 0, printed = 0;
    int status = 0;
    // Prints the results that are complete and come before any unfinished one.
    auto flush = [&] {
        for (; printed < total && results[printed].steps == 3; ++printed) {
            const Result& r = results[printed];
            if (r.error.empty() && !opt.json) continue;
            progress.clear();
            if (!r.error.empty()) std::fprintf(stderr, "%s: %s\n", r.path.c_str(), r.error.c_str());
            if (opt.json) std::printf("%s\n", jsonLine(r, opt.allBeats).c_str());
            std::fflush(stdout);
        }
    };
    TavroConcurrentQueue workers(opt.jobs);
    std::function<void()> startMore;
    auto finish = [&](size_t i, int stepsLeft) {
        results[i].steps = 3;
        steps += static_cast<size_t>(stepsLeft);
        ++done;
        --inFlight;
        if (!results[i].error.empty()) status = 1;
        flush();
        startMore();
    };
    auto beats = [&](size_t i) {
        TavroBPM::detectBeatsForFileURL(TavroURL::fileURLWithPath(results[i].path), 0, 0,
                                        [&, i](const std::vector<double>& found) {
                                            results[i].beats = found;
                                            finish(i, 1);
                                        });
    };
    auto tempo = [&](size_t i) {
        TavroBPM::detectBPMForFileURL(TavroURL::fileURLWithPath(results[i].path), 0, 0, 0, 0, [&, i](float bpm) {
            if (bpm > 0) results[i].bpm = bpm;
            results[i].steps = 2;
            ++steps;
            beats(i);
        });
    };
    startMore = [&] {
        for (; inFlight < opt.jobs && next < total; ++next, ++inFlight) {
            workers.async([&, i = next, path = results[next].path] {
                Result r = measure(path);
                TavroMainQueue::async([&, i, r = std::move(r)]() mutable {
                    results[i] = std::move(r);
                    if (!results[i].error.empty()) return finish(i, 3);
                    results[i].steps = 1;
                    ++steps;
                    tempo(i);
                });
            });
        }
    };
    startMore();
    progress.draw(steps, done);
    while (!TavroMainQueue::runUntil([&] { return done == total; }, std::chrono::milliseconds(100)))
        progress.draw(steps, done);
    progress.clear();
    if (!opt.json) printTable(results, opt.allBeats);
    engine->stop();
    return status;
}
