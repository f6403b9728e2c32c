// Host trace capture and the trace sink with its notifications.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "tev_test_support.h"
#include "tiv_trace.h"

namespace {

using ::testing::ElementsAre;
using tevtest::trace_texts;

TEST(Trace, CapturesFormattedLinesOfAnyLengthOnlyWhileOn) {
    std::string longer(3000, 'x');
    {
        tevhost::trace_capture capture;
        tivGENTrcPrintf(0xC103, 0x102, 0, "%s[%04d]::%s,%s\n", "tev_ash_control", 42, "create_info",
                        "[Error]wud_rc:0x1");
        tivGENTrcPrintf(1, 2, 3, "%s|", longer.c_str());
        std::vector<tevhost::trace_line> lines = capture.lines();
        ASSERT_EQ(2u, lines.size());
        EXPECT_EQ("tev_ash_control[0042]::create_info,[Error]wud_rc:0x1\n", lines[0].text);
        EXPECT_EQ(0xC103u, lines[0].module);
        EXPECT_EQ(0x102u, lines[0].level);
        EXPECT_EQ(longer + "|", lines[1].text);
        EXPECT_EQ(3u, lines[1].flag);
        capture.clear();
        tivGENTrcPrintf(0, 0, 0, "kept");
    }
    tivGENTrcPrintf(0, 0, 0, "dropped");
    put_lib_svccall_notify(1, 2, 3, "f", "g", 4);
    EXPECT_THAT(trace_texts(), ElementsAre("kept"));
    EXPECT_TRUE(tevhost::captured_notifications().empty());
    tevhost::trace_capture capture;  // a new capture starts empty
    EXPECT_TRUE(trace_texts().empty());
}

TEST(Trace, NotificationsAreWrittenToTheSinkAndKept) {
    std::string path = ::testing::TempDir() + "host_trace_test.log";
    std::remove(path.c_str());
    ASSERT_EQ(0, setenv("TEVASH_HOST_TRACE", path.c_str(), 1));
    {
        tevhost::trace_capture capture;
        put_lib_svccall_notify(0xE924, 0, 0, "tev_ash_observer", "notify_create", 77);
        tivGENTrcPrintf(0xC103, 0x102, 0, "line %d\n", 2);
        std::vector<tevhost::notification> kept = capture.notifications();
        ASSERT_EQ(1u, kept.size());
        EXPECT_EQ(0xE924u, kept[0].code);
        EXPECT_EQ("tev_ash_observer", kept[0].file);
        EXPECT_EQ("notify_create", kept[0].function);
        EXPECT_EQ(77, kept[0].line);
    }
    ASSERT_EQ(0, setenv("TEVASH_HOST_TRACE", "none", 1));
    tivGENTrcPrintf(0, 0, 0, "not written\n");
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    EXPECT_EQ("notify code=0xE924 detail=0,0 at tev_ash_observer:notify_create:77\nline 2\n",
              text.str());
    std::remove(path.c_str());
}

}  // namespace
