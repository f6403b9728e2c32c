// The record store's lock (platform/host/store_lock.h) under ThreadSanitizer:
// writers exclude readers and each other.
#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "store_lock.h"

namespace {

using lock_type = tevhost::detail::sharded_shared_mutex;

TEST(StoreLockConcurrency, WritersExcludeReadersAndEachOther) {
    lock_type mtx;
    long value = 0;  // plain: a race on it is what ThreadSanitizer reports
    std::atomic<int> writers{0}, readers{0}, faults{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                if (t % 3 == 0) {
                    std::unique_lock<lock_type> lock(mtx);
                    faults += writers.fetch_add(1) != 0 || readers.load() != 0;
                    ++value;
                    writers.fetch_sub(1);
                } else {
                    std::shared_lock<lock_type> lock(mtx);
                    readers.fetch_add(1);
                    faults += writers.load() != 0 || value < 0;
                    readers.fetch_sub(1);
                }
            }
        });
    }
    {
        std::shared_lock<lock_type> reading(mtx);
        std::thread([&] { faults += mtx.try_lock() ? (mtx.unlock(), 1) : 0; }).join();
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(0, faults.load());
    EXPECT_EQ(2 * 2000, value);
}

}  // namespace
