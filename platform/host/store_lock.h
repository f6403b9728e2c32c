// The record store's reader-writer lock: readers do not share a cache line, so
// store reads from several threads scale instead of contending on one counter.
// Safe for concurrent use from any number of threads; usable with
// std::shared_lock and std::unique_lock.
#ifndef TEVASH_HOST_STORE_LOCK_H
#define TEVASH_HOST_STORE_LOCK_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

namespace tevhost {
namespace detail {

// Each thread reads under its own slot's mutex, a writer takes every slot
// (always in the same order). There are as many slots as hardware threads (at
// most 16), since every slot costs a writer a lock and an unlock.
class sharded_shared_mutex {
public:
    sharded_shared_mutex() : used_(slot_count()) {}
    sharded_shared_mutex(const sharded_shared_mutex&) = delete;
    sharded_shared_mutex& operator=(const sharded_shared_mutex&) = delete;

    void lock() {
        for (std::size_t i = 0; i < used_; ++i) slots_[i].mtx.lock();
    }
    bool try_lock() {
        for (std::size_t i = 0; i < used_; ++i) {
            if (slots_[i].mtx.try_lock()) continue;
            while (i > 0) slots_[--i].mtx.unlock();
            return false;
        }
        return true;
    }
    void unlock() {
        for (std::size_t i = 0; i < used_; ++i) slots_[i].mtx.unlock();
    }
    void lock_shared() { slots_[own_slot() % used_].mtx.lock(); }
    void unlock_shared() { slots_[own_slot() % used_].mtx.unlock(); }

private:
    static constexpr std::size_t MAX_SLOTS = 16;
    struct alignas(64) slot {
        std::mutex mtx;
    };
    static std::size_t slot_count() {
        const std::size_t n = std::thread::hardware_concurrency();
        return n == 0 ? 1 : (n < MAX_SLOTS ? n : MAX_SLOTS);
    }
    // The thread's number, taken on its first read: the lowest number no live
    // thread holds, handed back when the thread ends. Threads alive at the same
    // time therefore read under different slots, up to the number of slots.
    static std::size_t own_slot() {
        // initial-exec and a constant initializer: the host platform is linked,
        // never loaded later, so the number is read without a TLS lookup call
        // or an initialisation guard.
        __attribute__((tls_model("initial-exec"))) static thread_local std::size_t mine = UNSET;
        if (mine == UNSET) {
            mine = take_number();
            static thread_local const struct releaser {
                ~releaser() { give_back(mine); }
            } release_at_thread_end;
            (void)release_at_thread_end;
        }
        return mine;
    }
    static constexpr std::size_t UNSET = ~std::size_t{0};
    static constexpr std::size_t SHARED_NUMBER = 64;  // when all 64 are taken
    static std::atomic<std::uint64_t>& numbers_in_use() {
        static std::atomic<std::uint64_t> bits{0};
        return bits;
    }
    static std::size_t take_number() {
        std::atomic<std::uint64_t>& bits = numbers_in_use();
        std::uint64_t seen = bits.load();
        for (;;) {
            if (~seen == 0) return SHARED_NUMBER;
            const std::size_t n = static_cast<std::size_t>(__builtin_ctzll(~seen));
            if (bits.compare_exchange_weak(seen, seen | std::uint64_t{1} << n)) return n;
        }
    }
    static void give_back(std::size_t n) {
        if (n < SHARED_NUMBER) numbers_in_use().fetch_and(~(std::uint64_t{1} << n));
    }

    const std::size_t used_;
    slot slots_[MAX_SLOTS];
};

}  // namespace detail
}  // namespace tevhost

#endif  // TEVASH_HOST_STORE_LOCK_H
