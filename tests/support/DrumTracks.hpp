// Synthesised drum tracks with known tempo and beat times, and the scoring of
// detected beats against them: kick, snare and hats in hip-hop, rock,
// four-on-the-floor and drum-and-bass patterns, with swing, accents, slight
// timing jitter and sections 10 dB quieter and 6 dB louder.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace tavro::test {

constexpr double kDrumRate = 44100.0;
constexpr double kBeatTolerance = 0.030; // seconds, for beat matching

enum class DrumStyle { HipHop, Rock, FourFloor, DrumAndBass };

struct DrumTrack {
    std::string name;
    double bpm = 0.0;
    unsigned channels = 1;
    std::vector<float> samples; // interleaved
    std::vector<double> beats;  // true quarter-note onsets
};

struct DrumHit {
    double time;
    int voice; // 0 kick, 1 snare, 2 closed hat, 3 open hat
    float gain;
};

// Drum voices, rendered once per track and mixed in at each hit.
struct DrumKit {
    std::vector<float> kick, snare, hat, openHat;
    explicit DrumKit(std::mt19937& rng, double rate = kDrumRate) {
        std::uniform_real_distribution<float> noise(-1.0f, 1.0f);
        auto len = [rate](double s) { return static_cast<size_t>(s * rate); };
        kick.resize(len(0.4));
        double phase = 0.0;
        for (size_t i = 0; i < kick.size(); ++i) {
            const double t = i / rate;
            phase += 2.0 * M_PI * (50.0 + 70.0 * std::exp(-t / 0.04)) / rate;
            kick[i] = static_cast<float>(std::sin(phase) * std::exp(-t / 0.18));
        }
        snare.resize(len(0.3));
        for (size_t i = 0; i < snare.size(); ++i) {
            const double t = i / rate;
            snare[i] = static_cast<float>(0.6 * noise(rng) * std::exp(-t / 0.07) +
                                          0.5 * std::sin(2.0 * M_PI * 200.0 * t) * std::exp(-t / 0.09));
        }
        // Second difference of white noise: a cheap steep high-pass.
        auto hatVoice = [&](double seconds, double decay) {
            std::vector<float> v(len(seconds));
            float x1 = 0.0f, x2 = 0.0f;
            for (size_t i = 0; i < v.size(); ++i) {
                const float x = noise(rng);
                v[i] = static_cast<float>(0.35 * (x - 2.0f * x1 + x2) * std::exp(-(i / rate) / decay));
                x2 = x1;
                x1 = x;
            }
            return v;
        };
        hat = hatVoice(0.06, 0.012);
        openHat = hatVoice(0.25, 0.07);
    }
    const std::vector<float>& voice(int v) const {
        return v == 0 ? kick : v == 1 ? snare : v == 2 ? hat : openHat;
    }
};

// A pattern with swing, accents, humanised timing and level sections
// (-10 dB / +6 dB around the base level).
inline DrumTrack makeDrumTrack(DrumStyle style, double bpm, double seconds, double swing, unsigned channels, unsigned seed) {
    std::mt19937 rng(seed);
    DrumKit kit(rng);
    std::uniform_real_distribution<double> jitter(-0.0015, 0.0015);
    std::uniform_real_distribution<float> accent(0.75f, 1.1f);
    const double beat = 60.0 / bpm, step = beat / 4.0, start = 0.3;
    const double end = seconds - 0.6;
    DrumTrack tr;
    tr.bpm = bpm;
    tr.channels = channels;
    const char* names[] = {"hiphop", "rock", "4floor", "dnb"};
    char buf[64];
    std::snprintf(buf, sizeof buf, "%s %g%s", names[static_cast<int>(style)], bpm, swing > 0.5 ? " swing" : "");
    tr.name = buf;

    std::vector<DrumHit> hits;
    const float sectionGain[] = {1.0f, 0.316f, 1.0f, 2.0f};
    for (int bar = 0;; ++bar) {
        const double barStart = start + bar * 16 * step;
        if (barStart + 16 * step > end) break;
        const float level = 0.45f * sectionGain[(bar / 4) % 4];
        for (int b = 0; b < 4; ++b) tr.beats.push_back(barStart + b * beat);
        for (int s = 0; s < 16; ++s) {
            double t = barStart + s * step;
            const bool eighthSwing = style == DrumStyle::Rock || style == DrumStyle::DrumAndBass;
            if (swing > 0.5) {
                if (!eighthSwing && s % 2 == 1) t += (2.0 * swing - 1.0) * step;
                if (eighthSwing && s % 4 == 2) t += (4.0 * swing - 2.0) * step;
            }
            auto add = [&](int voice, float g) {
                const double jt = s % 4 == 0 ? 0.0 : jitter(rng);
                hits.push_back({t + jt, voice, g * level * accent(rng)});
            };
            switch (style) {
            case DrumStyle::HipHop:
                if (s == 0 || s == 8 || (s == 10 && bar % 2 == 1)) add(0, 0.9f);
                if (s == 4 || s == 12) add(1, 0.8f);
                add(2, s % 2 == 0 ? 0.45f : 0.25f);
                break;
            case DrumStyle::Rock:
                if (s == 0 || s == 8 || (s == 10 && bar % 2 == 1)) add(0, 0.9f);
                if (s == 4 || s == 12) add(1, 0.85f);
                if (s % 2 == 0) add(2, s % 4 == 0 ? 0.5f : 0.35f);
                break;
            case DrumStyle::FourFloor:
                if (s % 4 == 0) add(0, 0.9f);
                if (s == 4 || s == 12) add(1, 0.6f);
                if (s % 4 == 2) add(3, 0.35f);
                if (bpm > 125.0 && bpm < 135.0 && s % 2 == 1) add(2, 0.2f);
                break;
            case DrumStyle::DrumAndBass:
                if (s == 0 || s == 10) add(0, 0.9f);
                if (s == 4 || s == 12) add(1, 0.85f);
                if (s % 2 == 0) add(2, 0.35f);
                break;
            }
        }
    }

    tr.samples.assign(static_cast<size_t>(seconds * kDrumRate) * channels, 0.0f);
    const size_t frames = tr.samples.size() / channels;
    for (const DrumHit& h : hits) {
        const std::vector<float>& v = kit.voice(h.voice);
        const size_t at = static_cast<size_t>(std::lround(h.time * kDrumRate));
        // Hats sit off to one side in stereo files.
        const float pan = h.voice >= 2 ? 0.3f : 0.0f;
        for (size_t i = 0; i < v.size() && at + i < frames; ++i) {
            const float x = v[i] * h.gain;
            if (channels == 1) {
                tr.samples[at + i] += x;
            } else {
                tr.samples[(at + i) * channels] += x * (1.0f - pan);
                tr.samples[(at + i) * channels + 1] += x * (1.0f + pan);
            }
        }
    }
    return tr;
}

inline const std::vector<DrumTrack>& drumTracks() {
    static const std::vector<DrumTrack> all = [] {
        std::vector<DrumTrack> v;
        v.push_back(makeDrumTrack(DrumStyle::HipHop, 70, 34, 0.58, 1, 1));
        v.push_back(makeDrumTrack(DrumStyle::HipHop, 90, 32, 0.5, 2, 2));
        v.push_back(makeDrumTrack(DrumStyle::Rock, 100, 32, 0.62, 2, 3));
        v.push_back(makeDrumTrack(DrumStyle::Rock, 120, 30, 0.5, 1, 4));
        v.push_back(makeDrumTrack(DrumStyle::FourFloor, 120, 30, 0.5, 1, 5));
        v.push_back(makeDrumTrack(DrumStyle::FourFloor, 128, 30, 0.5, 2, 6));
        v.push_back(makeDrumTrack(DrumStyle::FourFloor, 140, 30, 0.57, 1, 7));
        v.push_back(makeDrumTrack(DrumStyle::DrumAndBass, 174, 30, 0.5, 2, 8));
        return v;
    }();
    return all;
}

struct BeatScore {
    double hit = 0.0;   // fraction of true beats matched
    double extra = 0.0; // fraction of detected beats matching nothing
    double meanAbsMs = 0.0;
};

// Beats are scored within [from, to]; detected beats just outside it count
// only if they match nothing inside.
inline BeatScore scoreBeats(const std::vector<double>& truth, const std::vector<double>& found, double from = -1e9,
                 double to = 1e9) {
    BeatScore s;
    size_t hits = 0, counted = 0;
    double err = 0.0;
    auto nearest = [](const std::vector<double>& v, double t) {
        double best = std::numeric_limits<double>::infinity();
        for (double x : v) best = std::min(best, std::abs(x - t));
        return best;
    };
    for (double t : truth) {
        if (t < from || t > to) continue;
        ++counted;
        const double d = nearest(found, t);
        if (d <= kBeatTolerance) {
            ++hits;
            err += d;
        }
    }
    size_t extra = 0, detected = 0;
    for (double f : found) {
        if (f < from - kBeatTolerance || f > to + kBeatTolerance) continue;
        ++detected;
        if (nearest(truth, f) > kBeatTolerance) ++extra;
    }
    s.hit = counted ? static_cast<double>(hits) / counted : 0.0;
    s.extra = detected ? static_cast<double>(extra) / detected : 1.0;
    s.meanAbsMs = hits ? 1000.0 * err / hits : 0.0;
    return s;
}

} // namespace tavro::test
