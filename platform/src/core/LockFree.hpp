// Lock-free building blocks shared by the render, device and sync threads.
//
// Threading: each structure names its producers and consumers; none of them
// allocates or blocks after construction, so they are safe on the device thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

namespace tavro::platform {

inline size_t roundUpPow2(size_t n) {
    size_t p = 1;
    while (p < n) p <<= 1;
    return p;
}

// Single-producer single-consumer queue of trivially copyable items.
template <typename T> class SpscQueue {
    static_assert(std::is_trivially_copyable_v<T>);

  public:
    explicit SpscQueue(size_t capacity) : mask_(roundUpPow2(capacity) - 1), items_(mask_ + 1) {}

    bool push(const T& item) {
        const uint64_t w = write_.load(std::memory_order_relaxed);
        if (w - read_.load(std::memory_order_acquire) > mask_) return false;
        items_[w & mask_] = item;
        write_.store(w + 1, std::memory_order_release);
        return true;
    }
    // Looks at the oldest item without removing it.
    const T* front() const {
        const uint64_t r = read_.load(std::memory_order_relaxed);
        if (r == write_.load(std::memory_order_acquire)) return nullptr;
        return &items_[r & mask_];
    }
    void pop() { read_.store(read_.load(std::memory_order_relaxed) + 1, std::memory_order_release); }
    bool empty() const { return read_.load(std::memory_order_acquire) == write_.load(std::memory_order_acquire); }

  private:
    const uint64_t mask_;
    std::vector<T> items_;
    alignas(64) std::atomic<uint64_t> write_{0};
    alignas(64) std::atomic<uint64_t> read_{0};
};

// Bounded multi-producer multi-consumer queue (sequence-numbered cells).
template <typename T> class MpmcQueue {
    static_assert(std::is_trivially_copyable_v<T>);
    struct Cell {
        std::atomic<uint64_t> seq;
        T item;
    };

  public:
    explicit MpmcQueue(size_t capacity) : mask_(roundUpPow2(capacity) - 1), cells_(new Cell[mask_ + 1]) {
        for (uint64_t i = 0; i <= mask_; ++i) cells_[i].seq.store(i, std::memory_order_relaxed);
    }

    bool push(const T& item) {
        uint64_t pos = enqueue_.load(std::memory_order_relaxed);
        for (;;) {
            Cell& cell = cells_[pos & mask_];
            const uint64_t seq = cell.seq.load(std::memory_order_acquire);
            const int64_t diff = static_cast<int64_t>(seq) - static_cast<int64_t>(pos);
            if (diff == 0) {
                if (enqueue_.compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed)) {
                    cell.item = item;
                    cell.seq.store(pos + 1, std::memory_order_release);
                    return true;
                }
            } else if (diff < 0) {
                return false; // full
            } else {
                pos = enqueue_.load(std::memory_order_relaxed);
            }
        }
    }

    bool pop(T& out) {
        uint64_t pos = dequeue_.load(std::memory_order_relaxed);
        for (;;) {
            Cell& cell = cells_[pos & mask_];
            const uint64_t seq = cell.seq.load(std::memory_order_acquire);
            const int64_t diff = static_cast<int64_t>(seq) - static_cast<int64_t>(pos + 1);
            if (diff == 0) {
                if (dequeue_.compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed)) {
                    out = cell.item;
                    cell.seq.store(pos + mask_ + 1, std::memory_order_release);
                    return true;
                }
            } else if (diff < 0) {
                return false; // empty
            } else {
                pos = dequeue_.load(std::memory_order_relaxed);
            }
        }
    }

  private:
    const uint64_t mask_;
    std::unique_ptr<Cell[]> cells_;
    alignas(64) std::atomic<uint64_t> enqueue_{0};
    alignas(64) std::atomic<uint64_t> dequeue_{0};
};

// One writer, many readers; readers retry while a write is in progress, so a
// reader never sees half of an update. Writers must be serialised by the caller.
template <typename T> class SeqLocked {
    static_assert(std::is_trivially_copyable_v<T>);

  public:
    SeqLocked() = default;
    explicit SeqLocked(const T& v) { store(v); }

    // No fences: the words are stored with release and loaded with acquire, so
    // a reader that sees any new word also sees the odd sequence number, and
    // its second look at the sequence cannot move before the word loads.
    void store(const T& v) {
        const uint32_t s = seq_.load(std::memory_order_relaxed);
        seq_.store(s + 1, std::memory_order_relaxed);
        copyIn(v);
        seq_.store(s + 2, std::memory_order_release);
    }

    T load() const {
        T out;
        for (;;) {
            const uint32_t s1 = seq_.load(std::memory_order_acquire);
            if (s1 & 1u) continue;
            copyOut(out);
            if (seq_.load(std::memory_order_relaxed) == s1) return out;
        }
    }

  private:
    // Word-wise atomic copies keep the race benign for the memory model.
    static constexpr size_t kWords = (sizeof(T) + sizeof(uint64_t) - 1) / sizeof(uint64_t);
    void copyIn(const T& v) {
        uint64_t tmp[kWords] = {};
        std::memcpy(tmp, &v, sizeof(T));
        for (size_t i = 0; i < kWords; ++i) words_[i].store(tmp[i], std::memory_order_release);
    }
    void copyOut(T& v) const {
        uint64_t tmp[kWords];
        for (size_t i = 0; i < kWords; ++i) tmp[i] = words_[i].load(std::memory_order_acquire);
        std::memcpy(&v, tmp, sizeof(T));
    }
    std::atomic<uint32_t> seq_{0};
    std::atomic<uint64_t> words_[kWords] = {};
};

// Interleaved float frames, one producer (renderer) and one consumer (device).
class FrameRing {
  public:
    FrameRing() = default;
    void allocate(size_t frames, unsigned chans) {
        capFrames_ = roundUpPow2(frames);
        chans_ = chans;
        data_.assign(capFrames_ * chans, 0.0f);
    }
    bool allocated() const { return !data_.empty(); }
    size_t capacity() const { return capFrames_; }
    unsigned chans() const { return chans_; }

    uint64_t written() const { return write_.load(std::memory_order_acquire); }
    uint64_t readPos() const { return read_.load(std::memory_order_acquire); }
    size_t available() const { return static_cast<size_t>(written() - readPos()); }
    size_t space() const { return capFrames_ - available(); }

    // Producer: contiguous region to fill (may be shorter than asked at the wrap).
    float* writeRegion(size_t& frames) {
        const uint64_t w = write_.load(std::memory_order_relaxed);
        const size_t off = w & (capFrames_ - 1);
        frames = std::min(frames, std::min(space(), capFrames_ - off));
        return data_.data() + off * chans_;
    }
    void commitWrite(size_t frames) { write_.fetch_add(frames, std::memory_order_release); }

    // Consumer.
    size_t read(float* out, size_t frames) {
        uint64_t r = read_.load(std::memory_order_relaxed);
        frames = std::min(frames, static_cast<size_t>(written() - r));
        size_t done = 0;
        while (done < frames) {
            const size_t off = (r + done) & (capFrames_ - 1);
            const size_t n = std::min(frames - done, capFrames_ - off);
            std::memcpy(out + done * chans_, data_.data() + off * chans_, n * chans_ * sizeof(float));
            done += n;
        }
        read_.store(r + frames, std::memory_order_release);
        return frames;
    }
    void skipTo(uint64_t pos) {
        if (pos > read_.load(std::memory_order_relaxed)) read_.store(pos, std::memory_order_release);
    }

  private:
    size_t capFrames_ = 0;
    unsigned chans_ = 0;
    std::vector<float> data_;
    alignas(64) std::atomic<uint64_t> write_{0};
    alignas(64) std::atomic<uint64_t> read_{0};
};

// The most recent frames a consumer passed on, readable by anyone without
// disturbing the writer (used for levels and sample reads of what is heard).
class HistoryRing {
  public:
    void allocate(size_t frames, unsigned chans) {
        capFrames_ = roundUpPow2(frames);
        chans_ = chans;
        data_ = std::make_unique<std::atomic<float>[]>(capFrames_ * chans);
        for (size_t i = 0; i < capFrames_ * chans; ++i) data_[i].store(0.0f, std::memory_order_relaxed);
    }
    bool allocated() const { return data_ != nullptr; }
    size_t capacity() const { return capFrames_; }

    void write(const float* in, size_t frames) {
        uint64_t w = write_.load(std::memory_order_relaxed);
        for (size_t f = 0; f < frames; ++f, ++w) {
            const size_t off = (w & (capFrames_ - 1)) * chans_;
            for (unsigned c = 0; c < chans_; ++c) data_[off + c].store(in[f * chans_ + c], std::memory_order_relaxed);
        }
        write_.store(w, std::memory_order_release);
    }
    // Copies the newest `frames` frames (fewer when less was ever written).
    size_t latest(float* out, size_t frames) const {
        frames = std::min(frames, capFrames_ / 2);
        for (;;) {
            const uint64_t w = write_.load(std::memory_order_acquire);
            const size_t n = static_cast<size_t>(std::min<uint64_t>(frames, w));
            const uint64_t start = w - n;
            for (size_t f = 0; f < n; ++f) {
                const size_t off = ((start + f) & (capFrames_ - 1)) * chans_;
                for (unsigned c = 0; c < chans_; ++c) out[f * chans_ + c] = data_[off + c].load(std::memory_order_relaxed);
            }
            // Half the ring is slack, so only a writer that lapped it invalidates the copy.
            if (write_.load(std::memory_order_acquire) - w <= capFrames_ / 2) return n;
        }
    }
    uint64_t written() const { return write_.load(std::memory_order_acquire); }

  private:
    size_t capFrames_ = 0;
    unsigned chans_ = 0;
    std::unique_ptr<std::atomic<float>[]> data_;
    std::atomic<uint64_t> write_{0};
};

} // namespace tavro::platform
