// Tracker modules: a MOD made here byte by byte, and S3M/IT files from a
// game's data package. Loading, formats, exact lengths and seeks, ramping,
// looping, freeing and clean failures.
#include "MediaFixtures.hpp"
#include "PlatformFixture.hpp"

#include "core/Handles.hpp"
#include "music/MusicChannel.hpp"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>

using namespace tavro::test;

namespace {

constexpr DWORD kRate = 44100;
constexpr size_t kRowFrames = 5292; // speed 6, tempo 125: a tick is 882 frames at 44100 Hz
constexpr DWORD kFloat = BASS_SAMPLE_FLOAT | BASS_MUSIC_PRESCAN;

// Four channels, one looping 64-byte sine. Channel 0 (left) starts a note
// every second row, channel 1 (right) every fourth; patterns break after `rows`.
std::vector<uint8_t> makeMod(int orders, int rows) {
    static const int periods[] = {428, 381, 339, 320, 285, 254, 226, 214};
    std::vector<uint8_t> m(1084, 0);
    std::memcpy(&m[0], "test song", 9), std::memcpy(&m[20], "sine", 4);
    m[43] = 32, m[45] = 64, m[49] = 32; // length and loop length in words, volume
    m[950] = static_cast<uint8_t>(orders), m[951] = 127;
    for (int i = 0; i < orders; ++i)
        m[952 + i] = static_cast<uint8_t>(i);
    std::memcpy(&m[1080], "M.K.", 4);
    for (int p = 0; p < orders; ++p) {
        std::vector<uint8_t> pat(1024, 0);
        for (int r = 0; r < rows; ++r)
            for (int ch : {0, 1})
                if (r % (2 + 2 * ch) == 0) {
                    const int period = periods[(r / (2 + 2 * ch) + p + 3 * ch) % 8];
                    uint8_t* c = &pat[static_cast<size_t>(r * 16 + ch * 4)];
                    c[0] = static_cast<uint8_t>(period >> 8), c[1] = static_cast<uint8_t>(period),
                    c[2] = 0x10;
                }
        if (rows < 64) pat[static_cast<size_t>((rows - 1) * 16 + 14)] = 0x0D; // pattern break on channel 3
        m.insert(m.end(), pat.begin(), pat.end());
    }
    for (int i = 0; i < 64; ++i)
        m.push_back(static_cast<uint8_t>(std::lrint(100 * std::sin(2 * M_PI * i / 64))));
    return m;
}

std::string gameModule(const char* name) {
    const std::string path = std::string("/usr/share/games/pingus/data/music/") + name;
    return readFile(path).empty() ? "" : path;
}

float maxDiff(const std::vector<float>& a, const std::vector<float>& b, size_t bFrom = 0) {
    float d = 0;
    for (size_t i = 0; i < a.size() && bFrom + i < b.size(); ++i)
        d = std::max(d, std::fabs(a[i] - b[bFrom + i]));
    return d;
}

class MusicTest : public MediaTest {
  protected:
    static void SetUpTestSuite() { MediaTest::SetUpTestSuite(), writeFile(media_->path("song.mod"), makeMod(2, 16)); }
    static HMUSIC load(const std::string& path, DWORD flags = kFloat, DWORD freq = kRate) {
        return BASS_MusicLoad(FALSE, path.c_str(), 0, 0, flags | BASS_STREAM_DECODE, freq);
    }
    static std::string song() { return media_->path("song.mod"); }
};

} // namespace

TEST_F(MusicTest, FileMemoryAndFileRegionGiveTheSameAudio) {
    const std::vector<float> reference = decodeAll(load(song()), 2);
    EXPECT_GT(maxDiff(reference, std::vector<float>(reference.size())), 0.05f); // not silent
    // The memory block is overwritten once loaded: nothing may still point into it.
    std::vector<uint8_t> bytes = readFile(song());
    const HMUSIC mem = BASS_MusicLoad(TRUE, bytes.data(), 0, static_cast<DWORD>(bytes.size()),
                                      kFloat | BASS_STREAM_DECODE, kRate);
    std::fill(bytes.begin(), bytes.end(), 0xAA);
    EXPECT_EQ(decodeAll(mem, 2), reference);
    // Inside a larger file, with bytes before and after.
    std::vector<uint8_t> wrapped(100, 0x55), mod = readFile(song());
    wrapped.insert(wrapped.end(), mod.begin(), mod.end()), wrapped.resize(wrapped.size() + 5000, 0x33);
    writeFile(media_->path("wrapped.bin"), wrapped);
    const HMUSIC region = BASS_MusicLoad(FALSE, media_->path("wrapped.bin").c_str(), 100,
                                         static_cast<DWORD>(mod.size()), kFloat | BASS_STREAM_DECODE, kRate);
    EXPECT_EQ(decodeAll(region, 2), reference);
}

TEST_F(MusicTest, InfoTextsAndOutputFormats) {
    const std::pair<std::string, DWORD> formats[] = {{song(), BASS_CTYPE_MUSIC_MOD},
                                                     {gameModule("gd-giirm.s3m"), BASS_CTYPE_MUSIC_S3M},
                                                     {gameModule("gd-matth.it"), BASS_CTYPE_MUSIC_IT}};
    for (const auto& [path, ctype] : formats) {
        if (path.empty()) continue; // no game data package: MOD only
        BASS_CHANNELINFO info{};
        ASSERT_TRUE(BASS_ChannelGetInfo(load(path, BASS_SAMPLE_FLOAT | BASS_SAMPLE_3D), &info)) << path;
        EXPECT_EQ(info.ctype, ctype) << path; // carries BASS_CTYPE_MUSIC_MOD: the library's kind 1
        EXPECT_EQ(info.chans, 2u);
        EXPECT_EQ(info.freq, kRate);
        EXPECT_EQ(info.origres, 16u);
        EXPECT_EQ(info.flags & (BASS_SAMPLE_3D | BASS_STREAM_DECODE),
                  DWORD{BASS_SAMPLE_3D | BASS_STREAM_DECODE});
        EXPECT_STREQ(info.filename, path.c_str());
    }
    // Module texts, kept for the tag reader.
    auto music = tavro::platform::Handles::get<tavro::platform::MusicChannel>(load(song()));
    EXPECT_STREQ(music->tags(BASS_TAG_MUSIC_NAME), "test song");
    EXPECT_STREQ(music->tags(BASS_TAG_MUSIC_SAMPLE), "sine");
    EXPECT_EQ(music->tags(BASS_TAG_MUSIC_AUTH), nullptr);    // MOD has no author field
    EXPECT_EQ(music->tags(BASS_TAG_MUSIC_MESSAGE), nullptr); // nor a song text

    const std::vector<float> stereo = decodeAll(load(song()), 2);
    const size_t frames = stereo.size() / 2;
    const HMUSIC s16 = load(song(), BASS_MUSIC_PRESCAN);
    EXPECT_EQ(BASS_ChannelGetLength(s16, BASS_POS_BYTE), frames * 4);
    std::vector<int16_t> pcm16(frames * 2 + 100);
    ASSERT_EQ(BASS_ChannelGetData(s16, pcm16.data(), static_cast<DWORD>(pcm16.size() * 2)), frames * 4);
    for (size_t i = 0; i < frames * 2; ++i)
        ASSERT_NEAR(pcm16[i], stereo[i] * 32768.0f, 1.0f) << i;
    // Mono mixes both sides down, not one side alone.
    const HMUSIC mono = load(song(), kFloat | BASS_SAMPLE_MONO);
    EXPECT_EQ(BASS_ChannelGetLength(mono, BASS_POS_BYTE), frames * 4);
    const std::vector<float> m = decodeAll(mono, 1);
    std::vector<float> sum(frames), left(frames);
    for (size_t i = 0; i < frames; ++i)
        sum[i] = stereo[2 * i] + stereo[2 * i + 1], left[i] = stereo[2 * i];
    EXPECT_EQ(m.size(), frames);
    EXPECT_GT(correlation(m, sum), 0.99);
    EXPECT_LT(correlation(m, left), 0.95);
}

TEST_F(MusicTest, PrescannedLengthIsTheDecodedLength) {
    // 32 rows of whole-frame ticks; then a tempo whose ticks are not whole frames,
    // where libopenmpt's own duration is some frames off.
    EXPECT_EQ(BASS_ChannelGetLength(load(song()), BASS_POS_BYTE), 32 * kRowFrames * 8);
    for (const std::string& path : {song(), gameModule("success_2.it")})
        for (DWORD freq : {kRate, 22050u}) {
            if (path.empty()) continue;
            const HMUSIC h = load(path, kFloat, freq);
            EXPECT_EQ(BASS_ChannelGetLength(h, BASS_POS_BYTE), decodeAll(h, 2).size() * 4)
                << path << " at " << freq;
        }
    // Without a prescan: libopenmpt's estimate, there and near.
    EXPECT_NEAR(BASS_ChannelGetLength(load(song(), BASS_SAMPLE_FLOAT), BASS_POS_BYTE), 32.0 * kRowFrames * 8,
                3000.0);
}

TEST_F(MusicTest, SeeksLandWhereDecodingFromTheStartArrives) {
    const HMUSIC h = load(song());
    const std::vector<float> reference = decodeAll(h, 2);
    const size_t total = reference.size() / 2, span = 3000;
    // Mid-row, on a row start, just before one, backwards, near the end, the start.
    for (size_t frame :
         {size_t{70001}, kRowFrames * 7, kRowFrames * 7 - 1, size_t{1}, total - span, size_t{0}}) {
        ASSERT_TRUE(BASS_ChannelSetPosition(h, frame * 8, BASS_POS_BYTE)) << frame;
        EXPECT_EQ(BASS_ChannelGetPosition(h, BASS_POS_BYTE), frame * 8);
        const std::vector<float> got = decodeAll(h, 2, span);
        // libopenmpt restores voices that began rows before the landing row to
        // within a fraction of a frame; a frame off differs several times more.
        EXPECT_LT(maxDiff(got, reference, frame * 2), 0.004f) << frame;
        if (frame > 0) {
            EXPECT_GT(maxDiff(got, reference, frame * 2 - 2), 0.008f) << frame;
        }
        EXPECT_GT(maxDiff(got, reference, frame * 2 + 2), 0.008f) << frame;
    }
    EXPECT_FALSE(BASS_ChannelSetPosition(h, (total + 1) * 8, BASS_POS_BYTE));
}

TEST_F(MusicTest, RampingSoftensNoteChanges) {
    // Each note cuts the one before wherever its wave stood: a step without ramping.
    auto largestStep = [&](DWORD flags) {
        const std::vector<float> pcm = decodeAll(load(song(), BASS_SAMPLE_FLOAT | flags), 2);
        float step = 0;
        for (size_t i = 2; i < pcm.size(); i += 2)
            step = std::max(step, std::fabs(pcm[i] - pcm[i - 2]));
        return step;
    };
    EXPECT_GT(largestStep(0), 3 * largestStep(BASS_MUSIC_RAMPS));
}

TEST_F(MusicTest, LoopingCarriesOnPastTheEnd) {
    const HMUSIC h = load(song(), kFloat | BASS_SAMPLE_LOOP);
    const size_t length = BASS_ChannelGetLength(h, BASS_POS_BYTE) / 8, half = length / 2;
    std::atomic<int> ends{0};
    BASS_ChannelSetSync(
        h, BASS_SYNC_END | BASS_SYNC_MIXTIME, 0,
        [](HSYNC, DWORD, DWORD, void* u) { ++*static_cast<std::atomic<int>*>(u); }, &ends);
    const std::vector<float> pcm = decodeAll(h, 2, length + half);
    ASSERT_EQ(pcm.size(), (length + half) * 2);
    EXPECT_EQ(ends.load(), 1);
    EXPECT_EQ(BASS_ChannelGetPosition(h, BASS_POS_BYTE), half * 8);
    const std::vector<float> first(pcm.begin(), pcm.begin() + static_cast<std::ptrdiff_t>(2 * half));
    EXPECT_GT(correlation(first, std::vector<float>(pcm.begin() + static_cast<std::ptrdiff_t>(2 * length),
                                                    pcm.end())),
              0.99);
    BASS_ChannelFlags(h, 0, BASS_SAMPLE_LOOP); // the pass under way is the last
    EXPECT_EQ(decodeAll(h, 2).size() / 2, length - half);
    EXPECT_EQ(ends.load(), 2);
}

TEST_F(MusicTest, FreedByEitherFreeCallAndMusicFreeTakesOnlyMusic) {
    BASS_CHANNELINFO info{};
    const HMUSIC a = load(song()), b = load(song());
    EXPECT_TRUE(BASS_MusicFree(a));
    EXPECT_FALSE(BASS_MusicFree(a));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
    EXPECT_TRUE(BASS_StreamFree(b));
    EXPECT_FALSE(BASS_ChannelGetInfo(b, &info));
    const HSTREAM stream = BASS_StreamCreate(kRate, 2, BASS_STREAM_DECODE, STREAMPROC_PUSH, nullptr);
    EXPECT_FALSE(BASS_MusicFree(stream));
    EXPECT_TRUE(BASS_ChannelGetInfo(stream, &info));
    // Played at the device's rate, a four-row song frees itself at its end.
    writeFile(media_->path("short.mod"), makeMod(1, 4));
    const HMUSIC played =
        BASS_MusicLoad(FALSE, media_->path("short.mod").c_str(), 0, 0, BASS_MUSIC_AUTOFREE, 0);
    ASSERT_TRUE(BASS_ChannelGetInfo(played, &info));
    EXPECT_EQ(info.freq, kRate);
    ASSERT_TRUE(BASS_ChannelPlay(played, FALSE));
    EXPECT_TRUE(waitFor([&] { return !BASS_ChannelGetInfo(played, &info); }, std::chrono::seconds(5)));
}

TEST_F(MusicTest, LoadFailuresSetTheRightError) {
    const std::vector<uint8_t> mod = readFile(song());
    std::vector<uint8_t> noise(64 * 1024);
    std::mt19937 rng(7);
    for (auto& b : noise)
        b = static_cast<uint8_t>(rng());
    writeFile(media_->path("noise.mod"), noise), writeFile(media_->path("empty.mod"), {});
    writeFile(media_->path("cut.mod"),
              std::vector<uint8_t>(mod.begin(), mod.begin() + 600)); // in the sample headers
    writeWav16(media_->path("tone.wav"), sine(440, kRate, kRate, 2, 0.5f), kRate, 2);
    // The thread's code right after each call; -100 marks a load that should have failed.
    auto code = [](HMUSIC h) { return h ? (BASS_MusicFree(h), -100) : BASS_ErrorGetCode(); };
    const std::pair<int, int> cases[] = {
        {code(load(media_->path("missing.mod"))), BASS_ERROR_FILEOPEN},
        {code(load(media_->path(""))), BASS_ERROR_FILEOPEN}, // a folder
        {code(load(media_->path("empty.mod"))), BASS_ERROR_FILEFORM},
        {code(load(media_->path("noise.mod"))), BASS_ERROR_FILEFORM},
        {code(BASS_MusicLoad(TRUE, noise.data(), 0, static_cast<DWORD>(noise.size()), 0, 0)),
         BASS_ERROR_FILEFORM},
        {code(load(media_->path("tone.wav"))), BASS_ERROR_FILEFORM},
        {code(load(media_->path("cut.mod"))), BASS_ERROR_FILEFORM},
        {code(BASS_MusicLoad(FALSE, song().c_str(), mod.size() + 10, 0, 0, 0)), BASS_ERROR_FILEFORM},
        {code(BASS_MusicLoad(TRUE, mod.data(), 0, 0, 0, 0)), BASS_ERROR_ILLPARAM},
        {code(load(song(), 0, 100)), BASS_ERROR_FREQ},
        {code(load(song(), 0, 1000000)), BASS_ERROR_FREQ}};
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
    if (const std::vector<uint8_t> it = readFile(gameModule("gd-matth.it")); !it.empty()) {
        EXPECT_EQ(code(BASS_MusicLoad(TRUE, it.data(), 0, 80, 0, 0)),
                  BASS_ERROR_FILEFORM); // IT cut in its header
    }
    // A module cut inside its sample data still plays what it has.
    EXPECT_NE(BASS_MusicLoad(TRUE, mod.data(), 0, static_cast<DWORD>(mod.size() - 10), BASS_STREAM_DECODE, 0),
              0u);
    BASS_Free();
    EXPECT_EQ(code(load(song())), BASS_ERROR_INIT);
}
