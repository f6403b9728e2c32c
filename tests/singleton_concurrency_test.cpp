// First calls of the library's singletons from many threads at once: every
// thread gets the same object, and the handler service is checked once. The
// first service check waits for a second one (up to a second), so creation that
// is not serialised is caught every time. Each test needs a process in which the
// singletons do not exist yet; ctest runs every test in its own process.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "tev_ash_facade.h"
#include "tev_ash_handler_facade.h"

namespace {

// Calls `get` from 8 threads released together; returns what each got.
template <typename F>
auto first_calls_from_threads(F get) {
    constexpr int THREADS = 8;
    std::atomic<int> ready{0};
    std::vector<decltype(get())> got(THREADS, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            ready.fetch_add(1);
            while (ready.load() < THREADS) std::this_thread::yield();
            got[i] = get();
        });
    }
    for (std::thread& t : threads) t.join();
    return got;
}

// Answers every service check, the first only once a second check came or a
// second passed: the window in which a second creation would begin.
struct slow_service_check {
    slow_service_check() {
        tevhost::set_check_script([this](const std::string&, long) {
            std::unique_lock<std::mutex> lock(mtx);
            if (++checks == 1)
                cv.wait_for(lock, std::chrono::seconds(1), [this] { return checks > 1; });
            cv.notify_all();
            return 1;
        });
    }
    ~slow_service_check() { tevhost::set_check_script(nullptr); }
    std::mutex mtx;
    std::condition_variable cv;
    int checks = 0;  // read once the threads are done
};

template <typename T>
void expect_one(const std::vector<T*>& got) {
    ASSERT_NE(nullptr, got[0]);
    for (T* p : got) EXPECT_EQ(got[0], p);
}

TEST(SingletonConcurrency, FacadeAndHandlerFacadeAreMadeOnce) {
    slow_service_check check;
    expect_one(
        first_calls_from_threads([] { return velmora::tev_ash_facade::tev_ash_get_instance(); }));
    EXPECT_EQ(1, check.checks);
}

TEST(SingletonConcurrency, HandlerFacadeAloneIsMadeOnce) {
    slow_service_check check;
    expect_one(first_calls_from_threads(
        [] { return velmora::tev_ash_handler_facade::tev_ash_handler_get_instance(); }));
    EXPECT_LE(check.checks, 1);  // 0 when another test of this process made it already
}

}  // namespace
