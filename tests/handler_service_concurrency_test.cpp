// The handler service under concurrent senders: handler requests routed to a
// director while another director registers and withdraws and connecters start
// and ask for directors.
#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/tev_host.h"
#include "host_system.h"
#include "sample_director.h"
#include "tev_ash_handler_facade.h"
#include "tev_test_support.h"

namespace {

using namespace velmora;

constexpr TEV_ASH_APP_TYPE APP = static_cast<TEV_ASH_APP_TYPE>(7);
constexpr TEV_ASH_APP_TYPE CHURN_APP = static_cast<TEV_ASH_APP_TYPE>(8);

TEST(HandlerServiceConcurrency, RequestsRaceRegistrationsAndConnecters) {
    tevtest::fresh_store store;
    tevhost::trace_capture trace;
    tevash_tools::host_system system(APP);
    ASSERT_EQ(0u, system.status());
    tev_ash_handler_facade* handler = tev_ash_handler_facade::tev_ash_handler_get_instance();

    constexpr int WORKERS = 3, PER_WORKER = 60;
    constexpr TEV_ASH_SERVICE_TYPE NONE = TEV_ASH_SERVICE_TYPE_NONE;
    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
    std::vector<std::vector<unsigned int>> made(WORKERS);
    std::vector<std::thread> workers;
    for (int w = 0; w < WORKERS; ++w) {
        workers.emplace_back([&, w] {
            for (int i = 0; i < PER_WORKER; ++i) {
                unsigned int id = 0, other = 0;
                if (handler->tev_ash_handler_create(TEV_ASH_CAT_AUTH, APP, NONE, &id, 0) != 0 ||
                    handler->tev_ash_handler_reset(APP, NONE, id) != 0) {
                    ++failures;
                }
                made[w].push_back(id);
                // The churning type answers 0 when its director is in, else 0xC1030006;
                // a removal goes to whichever director now holds the type, if any.
                unsigned int rc =
                    handler->tev_ash_handler_create(TEV_ASH_CAT_AUTH, CHURN_APP, NONE, &other, 0);
                if (rc == 0) rc = handler->tev_ash_handler_remove(CHURN_APP, other);
                if (rc != 0 && rc != 0xC1030006u) ++failures;
            }
        });
    }
    std::thread churn([&] {
        while (!done.load()) {
            tevash_tools::sample_director director("TEV_ASH_CHURN");
            if (director.start(CHURN_APP) != 0) ++failures;
            if (director.stop() != 0) ++failures;
        }
    });
    std::thread connecters([&] {
        for (int i = 0; i < 20; ++i) {
            unsigned char conn = 0;
            long obj_id = 0;
            char name[16] = {};
            if (handler->tev_ash_handler_ctrl_notify_start(conn, "CON") != 0 ||
                handler->tev_ash_handler_ctrl_get_director_observer(conn, APP, obj_id, name) != 0 ||
                handler->tev_ash_handler_ctrl_notify_stop(conn) != 0) {
                ++failures;
            }
        }
    });
    for (auto& t : workers) t.join();
    done = true;
    churn.join();
    connecters.join();

    EXPECT_EQ(0, failures.load());
    std::set<unsigned int> ids;
    for (const auto& v : made) ids.insert(v.begin(), v.end());
    EXPECT_EQ(static_cast<std::size_t>(WORKERS * PER_WORKER), ids.size());
    EXPECT_EQ(static_cast<unsigned int>(WORKERS * PER_WORKER * 2),
              system.director().notifications());
}

}  // namespace
