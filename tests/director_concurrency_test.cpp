// The director manager under concurrent use: registrations racing routed
// notifications, and a removal racing a notification that is still running.
#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tev_ash_director_manager.h"
#include "tev_ash_observer.h"

namespace {

using namespace velmora;

TEV_ASH_APP_TYPE type(int t) {
    return static_cast<TEV_ASH_APP_TYPE>(t);
}

// Answers create with its tag as handler id and counts live objects. Given
// them, its remove notification sets `entered` and then waits for `release`.
class test_observer : public tev_ash_observer {
public:
    test_observer(unsigned int tag, std::atomic<int>& live, std::promise<void>* entered = nullptr,
                  std::shared_future<void>* release = nullptr)
        : tag_(tag), live_(live), entered_(entered), release_(release) {
        ++live_;
    }
    ~test_observer() override {
        finished_before_destruction = finished.load();
        --live_;
    }
    void notify_create(TEV_ASH_CATEGORY, TEV_ASH_SERVICE_TYPE, unsigned int& handler_id,
                       unsigned int, long& result) override {
        handler_id = tag_;
        result = 0;
    }
    void notify_remove(unsigned int, long& result) override {
        if (entered_ != nullptr) {
            entered_->set_value();
            release_->wait();
        }
        result = 0;
        finished = true;
    }
    void notify_reset(TEV_ASH_SERVICE_TYPE, unsigned int, long& result) override { result = 0; }

    std::atomic<bool> finished{false};
    static std::atomic<bool> finished_before_destruction;

private:
    const unsigned int tag_;
    std::atomic<int>& live_;
    std::promise<void>* entered_;
    std::shared_future<void>* release_;
};
std::atomic<bool> test_observer::finished_before_destruction{false};

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
                auto* o = new test_observer(static_cast<unsigned int>(app * 1000 + i), live);
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

TEST(DirectorManagerConcurrency, RemovalWaitsForARunningNotification) {
    auto* manager = tev_ash_director_manager::get_instance();
    std::atomic<int> live{0};
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    auto* o = new test_observer(0, live, &entered, &released);
    const long id = o->get_obj_id();
    ASSERT_EQ(0u, manager->add_observer(type(300), o));

    unsigned int routed_rc = 1, remove_rc = 1;
    std::thread router([&] { routed_rc = manager->remove(type(300), 7); });
    entered.get_future().wait();
    std::atomic<bool> removed{false};
    std::thread remover([&] {
        remove_rc = manager->remove_observer(id);
        removed = true;
    });
    // Once the registration is gone, the remover is waiting for the notification.
    while (manager->reset(type(300), TEV_ASH_SERVICE_TYPE_NONE, 1) != 0xC1030006u) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(removed.load());
    EXPECT_FALSE(o->finished.load());
    release.set_value();
    router.join();
    remover.join();
    EXPECT_EQ(0u, routed_rc);
    EXPECT_EQ(0u, remove_rc);
    EXPECT_TRUE(test_observer::finished_before_destruction.load());
    EXPECT_EQ(0, live.load());
}

}  // namespace
