// The in-process handler service for applications: with it, create is answered
// by the sample director; a second one in the same process is refused with its
// code and a trace line and leaves the first serving; once the first is gone
// the service starts again.
#include <string>

#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "tev_ash_facade.h"
#include "tevhost/embedded_service.h"

namespace {

using namespace velmora;

constexpr auto APP = static_cast<TEV_ASH_APP_TYPE>(3);

unsigned int create_job(unsigned int* id) {
    return tev_ash_facade::tev_ash_get_instance()->tev_ash_create(TEV_ASH_CAT_APLJOB, APP,
                                                                  TEV_ASH_SERVICE_TYPE_NONE, id, 0);
}

TEST(EmbeddedService, ServesOneAtATimeAndStartsAgain) {
    tevhost::store_use_memory();
    for (int round = 0; round < 2; ++round) {
        tevhost::embedded_service service(APP);
        ASSERT_EQ(0u, service.status()) << "round " << round << ": " << service.status_text();
        EXPECT_STREQ("running", service.status_text());
        {
            tevhost::trace_capture capture;
            tevhost::embedded_service second(APP);
            EXPECT_NE(0u, second.status());
            EXPECT_STREQ("a handler service already runs in this process", second.status_text());
            ASSERT_EQ(1u, capture.lines().size());
            EXPECT_NE(std::string::npos, capture.lines()[0].text.find("already runs"));
        }
        unsigned int id = 0;
        EXPECT_EQ(0u, create_job(&id)) << "round " << round;
        EXPECT_NE(0u, id);
    }
}

}  // namespace
