// Application threads editing channels while they play. Run under
// ThreadSanitizer by scripts/test.
#include "PlatformFixture.hpp"
#include "RampChannel.hpp"

#include <atomic>
#include <thread>

using namespace tavro::test;

namespace {
class ConcurrencyTest : public NoSoundTest {};
} // namespace

TEST_F(ConcurrencyTest, ChainsSyncsAndAttributesChangeWhilePlaying) {
    BASS_SetConfig(BASS_CONFIG_BUFFER, 50);
    DWORD h = RampChannel::create(44100, 2, 0, -1);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    std::atomic<int> dspCalls{0};
    auto dsp = [](HDSP, DWORD, void* buf, DWORD len, void* u) {
        static_cast<std::atomic<int>*>(u)->fetch_add(1);
        auto* f = static_cast<float*>(buf);
        for (DWORD i = 0; i < len / 4; ++i) f[i] *= 0.5f;
    };
    auto sync = [](HSYNC, DWORD, DWORD, void*) {};
    std::thread editor([&] {
        runFor(std::chrono::milliseconds(800), [&] {
            HDSP d = BASS_ChannelSetDSP(h, dsp, &dspCalls, dspCalls % 3);
            HSYNC s = BASS_ChannelSetSync(h, BASS_SYNC_POS | BASS_SYNC_MIXTIME, 1000, sync, nullptr);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
            EXPECT_TRUE(BASS_ChannelRemoveDSP(h, d));
            EXPECT_TRUE(BASS_ChannelRemoveSync(h, s));
        });
    });
    std::thread tweaker([&] {
        float v = 0;
        runFor(std::chrono::milliseconds(800), [&] {
            v = v > 1 ? 0 : v + 0.01f;
            BASS_ChannelSetAttribute(h, BASS_ATTRIB_VOL, v);
            BASS_ChannelSlideAttribute(h, BASS_ATTRIB_PAN, v - 0.5f, 5);
            BASS_ChannelSetAttribute(h, BASS_ATTRIB_FREQ, 22050 + v * 44100);
            float got;
            BASS_ChannelGetAttribute(h, BASS_ATTRIB_PAN, &got);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        });
    });
    std::thread seeker([&] {
        runFor(std::chrono::milliseconds(800), [&] {
            BASS_ChannelSetPosition(h, 44100 * 8, BASS_POS_BYTE);
            float lv[2];
            BASS_ChannelGetLevelEx(h, lv, 0.02f, BASS_LEVEL_STEREO);
            BASS_ChannelGetPosition(h, BASS_POS_BYTE);
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        });
    });
    editor.join();
    tweaker.join();
    seeker.join();
    EXPECT_GT(dspCalls.load(), 0);
    EXPECT_TRUE(BASS_StreamFree(h));
    BASS_SetConfig(BASS_CONFIG_BUFFER, 40);
}

TEST_F(ConcurrencyTest, PushedDataFromSeveralThreadsIsNeitherLostNorTorn) {
    HSTREAM h = BASS_StreamCreate(44100, 2, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT, STREAMPROC_PUSH, nullptr);
    constexpr int kThreads = 3, kBlocks = 200, kFrames = 64;
    std::vector<std::thread> pushers;
    for (int t = 0; t < kThreads; ++t)
        pushers.emplace_back([&, t] {
            std::vector<float> block(kFrames * 2, static_cast<float>(t + 1));
            for (int b = 0; b < kBlocks; ++b) BASS_StreamPutData(h, block.data(), kFrames * 8);
        });
    size_t frames = 0;
    std::vector<float> buf(1024);
    std::atomic<bool> pushing{true};
    std::thread reader([&] {
        for (;;) {
            // Read the flag before the data: an empty read after the last push
            // then really means everything was taken.
            const bool stillPushing = pushing;
            const DWORD got = BASS_ChannelGetData(h, buf.data(), 4096 | BASS_DATA_FLOAT);
            if (got == 0xFFFFFFFF) break;
            for (DWORD i = 0; i < got / 8; ++i) EXPECT_EQ(buf[2 * i], buf[2 * i + 1]);
            frames += got / 8;
            if (!stillPushing && got == 0) break;
        }
    });
    for (auto& p : pushers) p.join();
    pushing = false;
    reader.join();
    EXPECT_EQ(frames, size_t(kThreads * kBlocks * kFrames));
    BASS_StreamFree(h);
}

TEST_F(ConcurrencyTest, StreamsComeAndGoWhileOthersPlay) {
    std::vector<std::thread> workers;
    for (int t = 0; t < 3; ++t)
        workers.emplace_back([] {
            runFor(std::chrono::milliseconds(600), [] {
                DWORD h = RampChannel::create(22050 + 11025 * (rand() % 3), 1 + rand() % 2, 0, 2000);
                BASS_ChannelSetSync(h, BASS_SYNC_END, 0, [](HSYNC, DWORD, DWORD, void*) {}, nullptr);
                BASS_ChannelPlay(h, FALSE);
                std::this_thread::sleep_for(std::chrono::milliseconds(rand() % 20));
                if (rand() % 2) BASS_ChannelStop(h);
                BASS_StreamFree(h);
            });
        });
    for (auto& w : workers) w.join();
}

// The output sleeps while nothing plays; a start must wake it even when the
// starting thread is held up (here by threads that keep the cores busy)
// between waking the output and handing it the channel.
TEST_F(ConcurrencyTest, EveryStartIsHeardAfterTheOutputHasGoneToSleep) {
    std::atomic<bool> done{false};
    std::vector<std::thread> hogs;
    for (int t = 0; t < 3; ++t)
        hogs.emplace_back([&] {
            while (!done.load(std::memory_order_relaxed)) {
            }
        });
    DWORD h = RampChannel::create(44100, 2, 0, -1);
    int unheard = 0;
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(BASS_ChannelPlay(h, TRUE));
        if (!waitFor([&] { return BASS_ChannelGetPosition(h, BASS_POS_BYTE) > 0; }, std::chrono::milliseconds(1500)))
            ++unheard;
        BASS_ChannelStop(h);
        std::this_thread::sleep_for(std::chrono::milliseconds(12)); // time for the output to go idle
    }
    done = true;
    for (auto& t : hogs) t.join();
    EXPECT_EQ(unheard, 0);
    BASS_StreamFree(h);
}
