// Streams made from file sources: chains, transport, positions, the A-B loop
// at the exact frame, attributes, tags, and syncs on the main queue.
#include "MediaFixtures.hpp"
#include "PlatformFixture.hpp"
#include "RampChannel.hpp"

#include <tavro/dispatch/TavroMainQueue.hpp>
#include <tavro/sources/TavroFileSource.hpp>
#include <tavro/stream/TavroStream.hpp>
#include <tavro/stream/TavroSync.hpp>

#include <bass_fx.h>

#include <atomic>
#include <cstring>

using namespace tavro::test;

namespace {

class TavroStreamTest : public MediaTest {
  protected:
    static void SetUpTestSuite() {
        MediaTest::SetUpTestSuite();
        // A counter signal: sample n of the left channel is n / 2^24, exact in float.
        std::vector<float> pcm(kFrames * 2);
        for (size_t i = 0; i < kFrames; ++i) pcm[2 * i] = pcm[2 * i + 1] = static_cast<float>(i) / 16777216.0f;
        wavPath_ = media_->path("counter.wav");
        writeFloatWav(wavPath_, pcm, kRate, 2);
    }

    static std::shared_ptr<TavroFileSource> source() { return TavroFileSource::initWithFileURL(TavroURL::fileURLWithPath(wavPath_)); }

    static constexpr unsigned kRate = 44100;
    static constexpr size_t kFrames = 10 * kRate;
    static inline std::string wavPath_;
};

} // namespace

TEST_F(TavroStreamTest, ChainsAreStackedAndFreedTogether) {
    auto plain = TavroStream::streamWithSource(source(), TavroSourceFlagFloat, 0); // the literal 0 is options
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->handle(), plain->sourceHandle());
    EXPECT_FALSE(plain->hasFXChain());
    EXPECT_NEAR(plain->duration(), 10.0, 1e-9);
    EXPECT_EQ(plain->sampleRate(), kRate);
    EXPECT_EQ(plain->channelCount(), 2u);
    EXPECT_FALSE(plain->isLive());

    auto both = TavroStream::streamWithSource(source(), TavroSourceFlagFloat, 3);
    ASSERT_TRUE(both);
    EXPECT_NE(both->handle(), both->sourceHandle());
    EXPECT_TRUE(both->hasFXChain());
    EXPECT_TRUE(both->hasReverseChain());
    EXPECT_FALSE(both->isDecoding());
    const uint32_t src = both->sourceHandle(), top = both->handle();
    const uint32_t reverse = BASS_FX_TempoGetSource(top);
    both->free();
    BASS_CHANNELINFO info;
    EXPECT_FALSE(BASS_ChannelGetInfo(top, &info));
    EXPECT_FALSE(BASS_ChannelGetInfo(reverse, &info));
    EXPECT_FALSE(BASS_ChannelGetInfo(src, &info));
    EXPECT_EQ(both->position(), 0.0);

    auto reverseOnly = TavroStream::streamWithSource(source(), 0, TavroStreamOptionReverseChain);
    ASSERT_TRUE(reverseOnly);
    EXPECT_TRUE(reverseOnly->isDecoding());
    EXPECT_FALSE(reverseOnly->play(false));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_DECODE);

    auto recorded = TavroStream::streamWithSource(source(), 0, TavroStreamOptionTempoLinear);
    EXPECT_EQ(recorded->handle(), recorded->sourceHandle());
    EXPECT_EQ(recorded->createOptions(), TavroStreamOptionTempoLinear);
}

TEST_F(TavroStreamTest, MissingFilesFailWithTheMusicLoadersError) {
    auto missing = TavroFileSource::initWithFileURL(TavroURL::fileURLWithPath(media_->path("none.wav")));
    TavroError error;
    EXPECT_FALSE(TavroStream::streamWithSource(missing, 0, 1, &error));
    EXPECT_EQ(error.code(), BASS_ERROR_FILEOPEN);
    EXPECT_EQ(missing->displayName(), "none.wav");
    EXPECT_EQ(TavroFileSource::bassFlagsFromSourceFlags(127), 0x2E010Au);
    EXPECT_EQ(TavroFileSource::bassFlagsFromSourceFlags(128), 0u);
}

TEST_F(TavroStreamTest, LoopJumpsBackToTheExactStartFrameWhilePlaying) {
    auto s = TavroStream::streamWithSource(source(), TavroSourceFlagFloat, TavroStreamOptionFXChain);
    ASSERT_TRUE(s);
    FrameTrace trace(s->handle());
    ASSERT_TRUE(s->setLoopFromSeconds(0.5, 0.75));
    ASSERT_TRUE(s->play(false));
    ASSERT_TRUE(waitFor([&] { return trace.size() > 44100; }, std::chrono::seconds(5)));
    s->stop();
    std::lock_guard lock(trace.m);
    expectLoopedRamp(trace.frames, 44100, 22050, 33075, 1.0f / 16777216.0f);
    EXPECT_FALSE(s->setLoopFromSeconds(5, 5));
    EXPECT_EQ(s->loopSync(), 0u);
}

TEST_F(TavroStreamTest, AttributesSlidesAndSeeksGoThroughTheTopChannel) {
    auto s = TavroStream::streamWithSource(source(), TavroSourceFlagFloat, TavroStreamOptionFXChain);
    s->setVolume(0.4f);
    EXPECT_FLOAT_EQ(s->volume(), 0.4f);
    s->setPan(-0.5f);
    EXPECT_FLOAT_EQ(s->pan(), -0.5f);
    EXPECT_TRUE(s->play(false));
    EXPECT_TRUE(s->slideVolumeTo(1.0f, 0.2));
    EXPECT_TRUE(s->isSlidingVolume());
    EXPECT_TRUE(s->seekToSeconds(4.0));
    EXPECT_NEAR(s->position(), 4.0, 0.05);
    EXPECT_TRUE(s->seekToSeconds(2.0, TavroSeekFlush | TavroSeekScan));
    EXPECT_NEAR(s->position(), 2.0, 0.05);
    s->setLooping(true);
    EXPECT_TRUE(s->isLooping());
    s->free();
    s->setVolume(0.9f); // does nothing and reports nothing
    EXPECT_EQ(s->volume(), 0.0f);
    EXPECT_FALSE(s->play(false));
}

TEST_F(TavroStreamTest, TagsMergeInOrderWithLowerCaseKeys) {
    auto data = readFile(wavPath_);
    // An ID3v1 record and, before it, an APE tag whose Title overrides it.
    const auto ape = apeTag("Title", "Ape Title");
    data.insert(data.end(), ape.begin(), ape.end());
    char id3[128] = {};
    std::memcpy(id3, "TAG", 3);
    std::memcpy(id3 + 3, "  Old Title  ", 13);
    std::memcpy(id3 + 33, "Artist\n", 7);
    std::memcpy(id3 + 93, "1999", 4);
    data.insert(data.end(), id3, id3 + 128);
    const std::string path = media_->path("tagged.wav");
    writeFile(path, data);
    auto s = TavroStream::streamWithSource(TavroFileSource::initWithFileURL(TavroURL::fileURLWithPath(path)), 0);
    ASSERT_TRUE(s);
    auto tags = s->readTags();
    EXPECT_EQ(tags["title"], "Ape Title");
    EXPECT_EQ(tags["year"], "1999");
    // Trimmed at the ends only, and NUL padding is no white space: the line
    // break before the padding stays.
    EXPECT_EQ(tags["artist"], std::string("Artist\n") + std::string(23, '\0'));
    EXPECT_EQ(tags["album"], std::string(30, '\0'));
}

TEST_F(TavroStreamTest, EndAndPositionSyncsArriveOnTheMainQueue) {
    auto s = TavroStream::streamWithSource(source(), TavroSourceFlagFloat | TavroSourceFlagDecode);
    std::atomic<int> ends{0}, positions{0};
    std::atomic<bool> onMain{true};
    const uint64_t end = TavroSync::addEndSyncOnStream(s, [&] {
        ends++;
        onMain = onMain && TavroMainQueue::isMainThread();
    });
    const uint64_t pos = TavroSync::addPositionSyncOnStream(s, 1.0, [&] { positions++; });
    ASSERT_NE(end, 0u);
    ASSERT_NE(pos, 0u);
    EXPECT_EQ(TavroSync::bassSyncTypeFromKind(3), 12u);
    EXPECT_EQ(TavroSync::bassSyncTypeFromKind(-1), 2u);
    std::vector<float> buf(1 << 16);
    while (BASS_ChannelGetData(s->handle(), buf.data(), static_cast<DWORD>(buf.size() * 4)) != 0xFFFFFFFF) {
    }
    EXPECT_EQ(ends.load(), 0) << "delivered synchronously instead of on the main queue";
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return ends == 1 && positions == 1; }, std::chrono::seconds(2)));
    EXPECT_TRUE(onMain);
    // The end fires again after a seek back.
    s->seekToSeconds(9.9);
    while (BASS_ChannelGetData(s->handle(), buf.data(), static_cast<DWORD>(buf.size() * 4)) != 0xFFFFFFFF) {
    }
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return ends == 2; }, std::chrono::seconds(2)));
    const size_t before = TavroSync::registeredCount();
    TavroSync::removeSync(end, s);
    TavroSync::removeSync(pos, s);
    TavroSync::removeSync(0, s);
    EXPECT_EQ(TavroSync::registeredCount(), before - 2);
    s->free();
    EXPECT_EQ(TavroSync::addSyncOnStream(s, 1, 0, nullptr), 0u);
}

// Freeing a stream drops its registrations, after its FREE syncs have fired.
TEST_F(TavroStreamTest, FreedStreamsLeaveNoSyncsBehind) {
    const size_t syncs = TavroSync::registeredCount(), channels = TavroSync::watchedChannelCount();
    std::atomic<int> freed{0};
    for (int i = 0; i < 200; ++i) {
        auto s = TavroStream::streamWithSource(source(), TavroSourceFlagFloat | TavroSourceFlagDecode);
        ASSERT_TRUE(s);
        ASSERT_NE(TavroSync::addEndSyncOnStream(s, [] {}), 0u);
        const uint64_t pos = TavroSync::addPositionSyncOnStream(s, 1.0, [] {});
        TavroSync::addSyncOnStream(s, TavroSyncKindFree, 0, [&](std::shared_ptr<TavroStream>, uint64_t) { ++freed; });
        if (i % 3 == 0) TavroSync::removeSync(pos, s);
        if (i % 2) s->free(); // else the last reference goes and frees it
    }
    EXPECT_EQ(freed.load(), 200);
    EXPECT_EQ(TavroSync::registeredCount(), syncs);
    EXPECT_EQ(TavroSync::watchedChannelCount(), channels);
}
