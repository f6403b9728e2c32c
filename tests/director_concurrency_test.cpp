// The director manager under concurrent use: registrations racing routed
// notifications, and removals racing a notification that is still running.
// Missing locks in the manager show as data races under ThreadSanitizer.
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tev_ash_director_manager.h"
#include "tev_test_support.h"

namespace {

using namespace velmora;
using tevtest::test_observer;

TEV_ASH_APP_TYPE type(int t) {
    return static_cast<TEV_ASH_APP_TYPE>(t);
}

TEST(DirectorManagerConcurrency, RegistrationsRaceRoutedNotifications) {
    constexpr int TYPES = 4, ROUNDS = 300, ROUTERS = 3;
    auto* manager = tev_ash_director_manager::get_instance();
    std::atomic<int> live{0}, bad_results{0};
    std::atomic<bool> done{false};
    std::vector<std::thread> routers, registrars;
    for (int r = 0; r < ROUTERS; ++r) {
        routers.emplace_back([&, r] {
            for (unsigned int i = 0; !done.load(); ++i) {
                const int t = 200 + static_cast<int>((i + r) % TYPES);
                unsigned int id = 0;
                const unsigned int rc =
                    manager->create(TEV_ASH_CAT_AUTH, type(t), TEV_ASH_SERVICE_TYPE_NONE, &id, 0);
                // Either the type's observer answered with its tag, or none was registered.
                if (!(rc == 0 && id / 1000 == static_cast<unsigned int>(t)) && rc != 0xC1030006u) {
                    ++bad_results;
                }
                const unsigned int rc2 = manager->reset(type(t), TEV_ASH_SERVICE_TYPE_NONE, 1);
                if (rc2 != 0 && rc2 != 0xC1030006u) ++bad_results;
            }
        });
    }
    for (int t = 0; t < TYPES; ++t) {
        registrars.emplace_back([&, t] {
            const int app = 200 + t;
            for (int i = 0; i < ROUNDS; ++i) {
                auto* o = new test_observer(&live);
                o->reply_handler_id = static_cast<unsigned int>(app * 1000 + i);
                if (manager->add_observer(type(app), o) != 0) {
                    ++bad_results;
                    delete o;
                } else if (manager->remove_observer(o->get_obj_id()) != 0) {
                    ++bad_results;
                }
            }
        });
    }
    for (auto& t : registrars) t.join();
    done = true;
    for (auto& t : routers) t.join();
    EXPECT_EQ(0, bad_results.load());
    EXPECT_EQ(0, live.load());  // every observer destroyed, none twice
}

// A removal waits for a notification still running on the observer, also when
// the observer is registered under two types and the notification came through
// the second one: destroyed too early, the end of the notification would touch
// freed memory (AddressSanitizer) and the remover would not wait.
TEST(DirectorManagerConcurrency, RemovalWaitsForARunningNotification) {
    auto* manager = tev_ash_director_manager::get_instance();
    for (const std::vector<int>& types : {std::vector<int>{300}, std::vector<int>{310, 311}}) {
        SCOPED_TRACE(types.size());
        std::atomic<int> live{0};
        std::promise<void> entered, release;
        std::shared_future<void> released = release.get_future().share();
        auto* o = new test_observer(&live);
        o->on_remove = [&](long&) {
            entered.set_value();
            released.wait();
        };
        const long id = o->get_obj_id();
        for (int t : types) ASSERT_EQ(0u, manager->add_observer(type(t), o));

        unsigned int routed_rc = 1, remove_rc = 1;
        std::thread router([&] { routed_rc = manager->remove(type(types.back()), 7); });
        entered.get_future().wait();
        std::atomic<bool> removed{false};
        std::thread remover([&] {
            remove_rc = manager->remove_observer(id);
            removed = true;
        });
        // Once the first registration is gone the remover is waiting for the
        // notification, and every other registration is gone with it.
        while (manager->reset(type(types.front()), TEV_ASH_SERVICE_TYPE_NONE, 1) != 0xC1030006u) {
            std::this_thread::yield();
        }
        for (int t : types)
            EXPECT_EQ(0xC1030006u, manager->reset(type(t), TEV_ASH_SERVICE_TYPE_NONE, 1));
        EXPECT_FALSE(removed.load());
        EXPECT_FALSE(o->finished.load());
        release.set_value();
        router.join();
        remover.join();
        EXPECT_EQ(0u, routed_rc);
        EXPECT_EQ(0u, remove_rc);
        EXPECT_TRUE(test_observer::finished_at_destruction.load());
        EXPECT_EQ(0, live.load());
    }
}

}  // namespace
