// First calls of the library's singletons from many threads at once: every
// thread gets the same object, and the handler service is checked once. Each
// test needs a process in which the singletons do not exist yet; ctest runs
// every test in its own process.
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "tev_ash_director_manager.h"
#include "tev_ash_facade.h"
#include "tev_ash_handler_facade.h"

namespace {

template <typename T, typename F>
std::vector<T*> first_calls_from_threads(F get) {
    constexpr int THREADS = 8;
    std::atomic<int> ready{0};
    std::vector<T*> got(THREADS, nullptr);
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

TEST(SingletonConcurrency, FacadeAndHandlerFacadeAreMadeOnce) {
    std::atomic<int> checks{0};
    tevhost::set_check_script([&](const std::string&, long) {
        checks.fetch_add(1);
        return 1;
    });
    const auto got = first_calls_from_threads<velmora::tev_ash_facade>(
        [] { return velmora::tev_ash_facade::tev_ash_get_instance(); });
    for (velmora::tev_ash_facade* f : got) EXPECT_EQ(got[0], f);
    EXPECT_NE(nullptr, got[0]);
    EXPECT_EQ(1, checks.load());
    EXPECT_EQ(got[0], velmora::tev_ash_facade::tev_ash_get_instance());
    tevhost::set_check_script(nullptr);
}

TEST(SingletonConcurrency, HandlerFacadeAloneIsMadeOnce) {
    std::atomic<int> checks{0};
    tevhost::set_check_script([&](const std::string&, long) {
        checks.fetch_add(1);
        return 1;
    });
    const auto got = first_calls_from_threads<velmora::tev_ash_handler_facade>(
        [] { return velmora::tev_ash_handler_facade::tev_ash_handler_get_instance(); });
    for (velmora::tev_ash_handler_facade* f : got) EXPECT_EQ(got[0], f);
    EXPECT_LE(checks.load(), 1);  // 0 when another test of this process made it already
    tevhost::set_check_script(nullptr);
}

TEST(SingletonConcurrency, DirectorManagerIsMadeOnce) {
    const auto got = first_calls_from_threads<velmora::tev_ash_director_manager>(
        [] { return velmora::tev_ash_director_manager::get_instance(); });
    for (velmora::tev_ash_director_manager* m : got) EXPECT_EQ(got[0], m);
    EXPECT_NE(nullptr, got[0]);
}

}  // namespace
