// The host trace sink: lines and notifications go to the file TEVASH_HOST_TRACE
// names, and are kept while a capture is on.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tev_test_support.h"
#include "tiv_trace.h"

namespace {

using texts = std::vector<std::string>;

TEST(Trace, NotificationsAreWrittenToTheSinkAndKept) {
    const std::string path = ::testing::TempDir() + "host_trace_test.log";
    std::remove(path.c_str());
    ASSERT_EQ(0, setenv("TEVASH_HOST_TRACE", path.c_str(), 1));
    {
        tevhost::trace_capture capture;
        put_lib_svccall_notify(0xE924, 0, 0, "tev_ash_observer", "notify_create", 77);
        tivGENTrcPrintf(0xC103, 0x102, 0, "line %d\n", 2);
        EXPECT_EQ(texts{"0xe924 tev_ash_observer::notify_create 0,0"}, tevtest::notifications());
        EXPECT_EQ(77, capture.notifications().at(0).line);
    }
    ASSERT_EQ(0, setenv("TEVASH_HOST_TRACE", "none", 1));
    tivGENTrcPrintf(0, 0, 0, "not written\n");
    EXPECT_EQ("notify code=0xE924 detail=0,0 at tev_ash_observer:notify_create:77\nline 2\n",
              tevtest::file_text(path));
    std::remove(path.c_str());
}

}  // namespace
