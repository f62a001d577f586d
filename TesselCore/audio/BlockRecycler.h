// Memory blocks handed back by the thread that is done with them, for the
// audio threads to take again: a steady stream of buffers allocates nothing
// and never returns memory to another thread's allocator arena. One thread
// gives; any thread may take. Wait-free for the giver, lock-free for takers.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <new>

namespace tessel {

class BlockRecycler {
public:
    static constexpr std::size_t capacity = 128; // blocks kept for reuse at most

    BlockRecycler() = default;
    ~BlockRecycler() {
        std::size_t size = 0;
        while (void* block = take(0, size)) {
            ::operator delete(block);
        }
    }
    BlockRecycler(const BlockRecycler&) = delete;
    BlockRecycler& operator=(const BlockRecycler&) = delete;

    // A block of at least `size` bytes, or null; `size` becomes its real size.
    // A kept block that is too small is freed here.
    void* take(std::size_t wanted, std::size_t& size) noexcept {
        std::size_t tail = tail_.load(std::memory_order_acquire);
        for (;;) {
            if (tail == head_.load(std::memory_order_acquire)) {
                return nullptr;
            }
            Slot& slot = slots_[tail % capacity];
            void* block = slot.block.load(std::memory_order_relaxed);
            const std::size_t blockSize = slot.size.load(std::memory_order_relaxed);
            if (tail_.compare_exchange_weak(tail, tail + 1, std::memory_order_acq_rel)) {
                if (blockSize >= wanted) {
                    size = blockSize;
                    return block;
                }
                ::operator delete(block);
                return nullptr;
            }
        }
    }

    // The giving thread only. False when enough blocks are kept already; the
    // caller frees the block then.
    bool give(void* block, std::size_t size) noexcept {
        const std::size_t head = head_.load(std::memory_order_relaxed);
        if (head - tail_.load(std::memory_order_acquire) >= capacity) {
            return false;
        }
        slots_[head % capacity].block.store(block, std::memory_order_relaxed);
        slots_[head % capacity].size.store(size, std::memory_order_relaxed);
        head_.store(head + 1, std::memory_order_release);
        return true;
    }

private:
    struct Slot {
        std::atomic<void*> block{nullptr};
        std::atomic<std::size_t> size{0};
    };
    std::array<Slot, capacity> slots_;
    alignas(64) std::atomic<std::size_t> head_{0}; // next slot to give into
    alignas(64) std::atomic<std::size_t> tail_{0}; // next slot to take from
};

} // namespace tessel
