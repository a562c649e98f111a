// Media that changes format mid-stream, files that broke the opener, and
// calls that used to take the process down: each must decode, seek, play and
// stop without a crash, an over-read or a hang, and keep its announced format.
#include "MediaFixtures.hpp"
#include "PlatformFixture.hpp"

#include <bass_fx.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <future>

using namespace tavro::test;

namespace {

constexpr unsigned kRate = 44100;

class HostileMediaTest : public MediaTest {
  protected:
    static void SetUpTestSuite() {
        MediaTest::SetUpTestSuite();
        writeWav16(media_->path("stereo.wav"), testSignal(kRate, 2, kRate), kRate, 2);
        writeWav16(media_->path("mono.wav"), testSignal(kRate / 2, 1, kRate), kRate, 1);
        writeWav16(media_->path("mono22k.wav"), testSignal(kRate / 4, 1, kRate / 2), kRate / 2, 1);
        writeWav16(media_->path("six.wav"), testSignal(kRate / 2, 6, kRate), kRate, 6);
    }
    void SetUp() override {
        NoSoundTest::SetUp();
        for (const char* p : {"bassflac", "bassopus", "basswv"}) ASSERT_NE(BASS_PluginLoad(p, 0), 0u);
    }
    void TearDown() override {
        BASS_PluginFree(0);
        NoSoundTest::TearDown();
    }

    // Two encodings of the stereo and the mono (or six-channel) file, byte for byte one after the other.
    static std::string spliced(const std::string& name, const std::string& first, const std::string& second,
                               const std::string& args) {
        const auto a = readFile(media_->encode(media_->path(first), "a-" + name, args));
        const auto b = readFile(media_->encode(media_->path(second), "b-" + name, args));
        std::vector<uint8_t> all(a);
        all.insert(all.end(), b.begin(), b.end());
        writeFile(media_->path(name), all);
        return media_->path(name);
    }

    // Decodes in 16-bit, in reads whose buffers are exactly as long as asked
    // (an over-long write shows under AddressSanitizer); returns frames, and
    // the RMS level (full scale 1) in `rms` when given.
    static size_t decode16(HSTREAM h, DWORD chans, double* rms = nullptr) {
        size_t frames = 0;
        double squares = 0;
        for (int i = 0; i < 100000; ++i) {
            std::vector<int16_t> buf(1000 * chans);
            const DWORD got = BASS_ChannelGetData(h, buf.data(), static_cast<DWORD>(buf.size() * 2));
            if (got == 0xFFFFFFFF || got == 0) break;
            frames += got / (2 * chans);
            for (size_t k = 0; k < got / 2; ++k) squares += (buf[k] / 32768.0) * (buf[k] / 32768.0);
        }
        if (rms) *rms = frames ? std::sqrt(squares / static_cast<double>(frames * chans)) : 0.0;
        return frames;
    }
};

std::string sharedHostile(const char* name) { return std::string(TAVRO_TEST_SOURCE_DIR) + "/data/fuzz/opener/" + name; }

// Whatever the frames carry, the stream keeps the layout and rate it opened with.
TEST_F(HostileMediaTest, FormatChangesMidStreamKeepTheAnnouncedFormat) {
    struct Case {
        const char* name;
        const char* first;
        const char* second;
        const char* args;
        DWORD chans;
        size_t minFrames; // at least the first part and some of the second
    } cases[] = {
        {"cat.mp3", "stereo.wav", "mono.wav", "-c:a libmp3lame -b:a 128k", 2, kRate + kRate / 4},
        {"cat.aac", "stereo.wav", "mono.wav", "-c:a aac -f adts", 2, kRate + kRate / 4},
        {"cat.ogg", "stereo.wav", "mono22k.wav", "-c:a libvorbis", 2, kRate + kRate / 5},
        {"cat.opus", "stereo.wav", "mono.wav", "-c:a libopus -ar 48000", 2, 48000 + 48000 / 2},
        {"six-two.ogg", "six.wav", "stereo.wav", "-c:a libvorbis", 6, kRate},
        // A decoder made for one Opus link's channels cannot decode another's.
        {"six-two.opus", "six.wav", "stereo.wav", "-c:a libopus -ar 48000", 6, 48000},
        {"two-six.opus", "stereo.wav", "six.wav", "-c:a libopus -ar 48000", 2, 48000 + 48000 / 4},
        {"cat.flac", "stereo.wav", "mono.wav", "-c:a flac", 2, kRate},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = spliced(c.name, c.first, c.second, c.args);
        for (DWORD flags : {DWORD(0), DWORD(BASS_SAMPLE_MONO)}) {
            HSTREAM h = BASS_StreamCreateFile(FALSE, path.c_str(), 0, 0, BASS_STREAM_DECODE | flags);
            ASSERT_NE(h, 0u) << BASS_ErrorGetCode();
            BASS_CHANNELINFO info{};
            ASSERT_TRUE(BASS_ChannelGetInfo(h, &info));
            const DWORD chans = flags ? 1 : c.chans;
            EXPECT_EQ(info.chans, chans);
            double rms = 0;
            EXPECT_GE(decode16(h, chans, &rms), c.minFrames);
            // The sources' level, not noise near full scale.
            EXPECT_LT(rms, 0.6);
            // And back to the start, to decode the same again.
            EXPECT_TRUE(BASS_ChannelSetPosition(h, 0, BASS_POS_BYTE));
            EXPECT_GE(decode16(h, chans), c.minFrames);
            BASS_StreamFree(h);
        }
    }
    // A chained file cut inside its last link (a download that broke off):
    // it plays to where it can, and can still be sought back to the start.
    {
        auto bytes = readFile(media_->path("two-six.opus"));
        const size_t first = readFile(media_->path("a-two-six.opus")).size();
        bytes.resize(first + (bytes.size() - first) / 3);
        writeFile(media_->path("cut.opus"), bytes);
        HSTREAM h = BASS_StreamCreateFile(FALSE, media_->path("cut.opus").c_str(), 0, 0, BASS_STREAM_DECODE);
        ASSERT_NE(h, 0u);
        const size_t frames = decode16(h, 2);
        EXPECT_GE(frames, 48000u);
        ASSERT_TRUE(BASS_ChannelSetPosition(h, 0, BASS_POS_BYTE));
        EXPECT_EQ(decode16(h, 2), frames);
        BASS_StreamFree(h);
    }
    // A chained file whose second link also carries video: its sound plays,
    // and a seek into it lands there.
    {
        const std::string av = media_->path("av.ogg");
        ASSERT_EQ(std::system(("ffmpeg -nostdin -v error -y -f lavfi -i testsrc=d=1:s=64x48:r=10 -i '" + media_->path("stereo.wav") +
                               "' -c:v libtheora -c:a libvorbis '" + av + "'").c_str()), 0);
        auto bytes = readFile(media_->encode(media_->path("stereo.wav"), "plain.ogg", "-c:a libvorbis"));
        const auto second = readFile(av);
        bytes.insert(bytes.end(), second.begin(), second.end());
        writeFile(media_->path("then-av.ogg"), bytes);
        HSTREAM h = BASS_StreamCreateFile(FALSE, media_->path("then-av.ogg").c_str(), 0, 0, BASS_STREAM_DECODE);
        ASSERT_NE(h, 0u);
        EXPECT_EQ(decode16(h, 2), 2 * kRate);
        ASSERT_TRUE(BASS_ChannelSetPosition(h, BASS_ChannelSeconds2Bytes(h, 1.5), BASS_POS_BYTE));
        EXPECT_EQ(decode16(h, 2), kRate / 2);
        BASS_StreamFree(h);
    }
    // Recorded from the middle of a stream: its headers, then pages whose
    // granule positions count from a start the file does not have. Its
    // length is what it holds, not the stream's position at its end.
    {
        writeWav16(media_->path("four.wav"), testSignal(kRate * 4, 2, kRate), kRate, 2);
        const auto ogg = readFile(media_->encode(media_->path("four.wav"), "whole.ogg", "-c:a libvorbis"));
        std::vector<uint8_t> cut;
        for (size_t at = 0; at + 27 < ogg.size();) {
            size_t end = at + 27 + ogg[at + 26];
            for (size_t i = 0; i < ogg[at + 26]; ++i) end += ogg[at + 27 + i];
            int64_t granule = 0;
            std::memcpy(&granule, &ogg[at + 6], 8);
            if (granule == 0 || granule >= 2 * kRate) cut.insert(cut.end(), ogg.begin() + at, ogg.begin() + end);
            at = end;
        }
        writeFile(media_->path("capture.ogg"), cut);
        HSTREAM h = BASS_StreamCreateFile(FALSE, media_->path("capture.ogg").c_str(), 0, 0, BASS_STREAM_DECODE);
        ASSERT_NE(h, 0u);
        const QWORD length = BASS_ChannelGetLength(h, BASS_POS_BYTE) / 4;
        EXPECT_LT(length, kRate * 35 / 10); // the stream ran 4 s; the file holds less
        EXPECT_NEAR(static_cast<double>(decode16(h, 2)), static_cast<double>(length), 2048.0);
        BASS_StreamFree(h);
    }
    // Played, the update thread renders through the change and the channel ends.
    const std::string mp3 = media_->path("cat.mp3");
    HSTREAM h = BASS_StreamCreateFile(FALSE, mp3.c_str(), 0, 0, BASS_SAMPLE_FLOAT);
    ASSERT_NE(h, 0u);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    ASSERT_TRUE(BASS_ChannelSetPosition(h, BASS_ChannelSeconds2Bytes(h, 0.9), BASS_POS_BYTE));
    EXPECT_TRUE(waitFor([&] { return BASS_ChannelIsActive(h) == BASS_ACTIVE_STOPPED; }, std::chrono::seconds(5)));
    BASS_StreamFree(h);
}

// A looping file whose restart yields no audio ends instead of spinning,
// played too: stopping it returns, and other channels keep playing meanwhile.
// (Decoding, seeking and looping every saved hostile input is the fuzz replay's.)
TEST_F(HostileMediaTest, ALoopThatYieldsNothingEndsAndOthersPlayOn) {
    const auto wv = readFile(sharedHostile("wv_loop_hang.wv"));
    HSTREAM d = BASS_StreamCreateFile(TRUE, wv.data(), 0, wv.size(), BASS_SAMPLE_LOOP | BASS_STREAM_DECODE);
    ASSERT_NE(d, 0u);
    BASS_CHANNELINFO info{};
    BASS_ChannelGetInfo(d, &info);
    decode16(d, info.chans);
    EXPECT_EQ(BASS_ChannelIsActive(d), static_cast<DWORD>(BASS_ACTIVE_STOPPED));
    BASS_StreamFree(d);
    HSTREAM h = BASS_StreamCreateFile(TRUE, wv.data(), 0, wv.size(), BASS_SAMPLE_LOOP);
    ASSERT_NE(h, 0u);
    HSTREAM other = pushStream(44100, 2, 0, sine(440, 44100, 44100 * 3, 2, 0.1f), true);
    ASSERT_TRUE(BASS_ChannelPlay(other, FALSE));
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    const QWORD before = BASS_ChannelGetPosition(other, BASS_POS_BYTE);
    EXPECT_TRUE(waitFor([&] { return BASS_ChannelGetPosition(other, BASS_POS_BYTE) > before; }, std::chrono::seconds(2)));
    auto stop = std::async(std::launch::async, [&] { return BASS_ChannelStop(h); });
    ASSERT_EQ(stop.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    BASS_StreamFree(h);
    BASS_StreamFree(other);
}

// A seek that scans an MPEG stream opened without a prescan lands on the same
// frame as one with the prescan, and reads no memory it does not own.
TEST_F(HostileMediaTest, ScanningSeekDecodesToTheSameFrameAsAPrescan) {
    const std::string mp3 = media_->encode(media_->path("stereo.wav"), "plain.mp3", "-c:a libmp3lame");
    HSTREAM scanned = BASS_StreamCreateFile(FALSE, mp3.c_str(), 0, 0, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT);
    HSTREAM prescanned =
        BASS_StreamCreateFile(FALSE, mp3.c_str(), 0, 0, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT | BASS_STREAM_PRESCAN);
    ASSERT_NE(scanned, 0u);
    ASSERT_NE(prescanned, 0u);
    std::vector<float> warm(4096 * 2);
    BASS_ChannelGetData(scanned, warm.data(), static_cast<DWORD>(warm.size() * 4)); // something pending before the scan
    const QWORD at = BASS_ChannelSeconds2Bytes(scanned, 0.6);
    ASSERT_TRUE(BASS_ChannelSetPosition(scanned, at, BASS_POS_BYTE | BASS_POS_SCAN | BASS_POS_DECODETO));
    ASSERT_TRUE(BASS_ChannelSetPosition(prescanned, at, BASS_POS_BYTE));
    std::vector<float> a(2048 * 2), b(2048 * 2);
    ASSERT_EQ(BASS_ChannelGetData(scanned, a.data(), static_cast<DWORD>(a.size() * 4)), a.size() * 4);
    ASSERT_EQ(BASS_ChannelGetData(prescanned, b.data(), static_cast<DWORD>(b.size() * 4)), b.size() * 4);
    EXPECT_EQ(a, b);
    BASS_StreamFree(scanned);
    BASS_StreamFree(prescanned);
}

// A tempo stage above SoundTouch's own rate limit works instead of throwing
// through the caller; more channels than it takes are refused with an error.
TEST_F(HostileMediaTest, TempoStageTakesHighRatesAndRefusesWhatItCannotDo) {
    const std::string hi = media_->path("384k.wav");
    writeWav16(hi, sine(1000, 384000, 384000 / 2, 2, 0.5f), 384000, 2);
    HSTREAM src = BASS_StreamCreateFile(FALSE, hi.c_str(), 0, 0, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT);
    ASSERT_NE(src, 0u);
    HSTREAM tempo = BASS_FX_TempoCreate(src, BASS_STREAM_DECODE | BASS_FX_FREESOURCE);
    ASSERT_NE(tempo, 0u) << BASS_ErrorGetCode();
    ASSERT_TRUE(BASS_ChannelSetAttribute(tempo, BASS_ATTRIB_TEMPO, 25));
    EXPECT_NEAR(static_cast<double>(decodeAll(tempo, 2).size() / 2), 384000 / 2 / 1.25, 384000 * 0.05);
    BASS_StreamFree(tempo);

    HSTREAM wide = BASS_StreamCreate(48000, 20, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT, STREAMPROC_DUMMY, nullptr);
    ASSERT_NE(wide, 0u);
    EXPECT_EQ(BASS_FX_TempoCreate(wide, BASS_STREAM_DECODE), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_FORMAT);
    BASS_StreamFree(wide);
}

// Sync procedures that set or remove syncs on their own channel while syncs
// of that kind are being fired.
TEST_F(HostileMediaTest, SyncProceduresMayChangeTheSyncList) {
    HSTREAM h = pushStream(44100, 2, 0, sine(440, 44100, 44100, 2, 0.1f), true);
    ASSERT_NE(h, 0u);
    static std::atomic<int> fired;
    fired = 0;
    SYNCPROC* addMore = [](HSYNC, DWORD ch, DWORD, void*) {
        fired++;
        for (int i = 0; i < 8; ++i) BASS_ChannelSetSync(ch, BASS_SYNC_SLIDE, 0, [](HSYNC, DWORD, DWORD, void*) {}, nullptr);
    };
    ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_SLIDE, 0, addMore, nullptr), 0u);
    ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_SLIDE, 0, addMore, nullptr), 0u);
    ASSERT_TRUE(BASS_ChannelSlideAttribute(h, BASS_ATTRIB_VOL, 0.5f, 20));
    EXPECT_TRUE(waitFor([] { return fired == 2; }, std::chrono::seconds(2)));
    // FREE syncs that remove their siblings and add new ones as the channel goes.
    SYNCPROC* removeOthers = [](HSYNC self, DWORD ch, DWORD, void*) {
        fired++;
        for (HSYNC s = self - 8; s < self + 8; ++s)
            if (s != self) BASS_ChannelRemoveSync(ch, s);
        BASS_ChannelSetSync(ch, BASS_SYNC_FREE, 0, [](HSYNC, DWORD, DWORD, void*) {}, nullptr);
    };
    for (int i = 0; i < 3; ++i) ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_FREE, 0, removeOthers, nullptr), 0u);
    EXPECT_TRUE(BASS_StreamFree(h));
    EXPECT_GE(fired.load(), 3);
}

// Formats beyond the documented limits are refused before anything is
// allocated for them; values that would poison the output are refused.
TEST_F(HostileMediaTest, DeclaredFormatsAndValuesBeyondTheLimitsAreRefused) {
    auto header = [&](uint32_t rate, uint16_t chans) {
        std::vector<float> pcm(64 * chans, 0.0f);
        const std::string path = media_->path("declared.wav");
        writeWav16(path, pcm, rate, chans);
        return readFile(path);
    };
    for (auto [rate, chans] : {std::pair<uint32_t, uint16_t>{1536000, 32}, {768000, 8}}) {
        SCOPED_TRACE(rate);
        const auto wav = header(rate, chans);
        EXPECT_EQ(BASS_StreamCreateFile(TRUE, wav.data(), 0, wav.size(), 0), 0u);
        EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_FORMAT);
    }
    const auto ok = header(384000, 8);
    HSTREAM h = BASS_StreamCreateFile(TRUE, ok.data(), 0, ok.size(), 0);
    ASSERT_NE(h, 0u) << BASS_ErrorGetCode();
    EXPECT_FALSE(BASS_ChannelSetAttribute(h, BASS_ATTRIB_VOL, INFINITY));
    EXPECT_FALSE(BASS_ChannelSlideAttribute(h, BASS_ATTRIB_PAN, -INFINITY, 10));
    EXPECT_EQ(BASS_ChannelSeconds2Bytes(h, 1e300), static_cast<QWORD>(-1));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
    BASS_StreamFree(h);
    EXPECT_EQ(BASS_StreamCreate(768000, 32, 0, STREAMPROC_PUSH, nullptr), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_FORMAT);

    // Empty input is no format, from memory as from a file.
    const uint8_t none = 0;
    EXPECT_EQ(BASS_StreamCreateFile(TRUE, &none, 0, 0, 0), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_FILEFORM);
}

} // namespace
