// The host trace sink: lines and notifications go where set_trace_sink says (a file, with time
// and pid; nowhere; standard error, with priorities when it is the journal's) and are kept.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/tev_host.h"
#include "tev_test_support.h"
#include "tiv_trace.h"

namespace {

using texts = std::vector<std::string>;

// One test: JOURNAL_STREAM is read once, before the first line to standard error.
TEST(Trace, LinesAndNotificationsGoToTheChosenSinkAndAreKept) {
    const std::string path = ::testing::TempDir() + "host_trace_test.log";
    const std::string err = ::testing::TempDir() + "host_trace_test.stderr";
    std::remove(path.c_str());
    int saved_stderr = dup(2);
    ASSERT_NE(nullptr, std::freopen(err.c_str(), "w", stderr));  // descriptor 2 still
    struct stat st;
    ASSERT_EQ(0, fstat(2, &st));
    setenv("JOURNAL_STREAM", (std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino)).c_str(),
           1);
    tevhost::set_trace_sink(path);
    {
        tevhost::trace_capture capture;
        put_lib_svccall_notify(0xE924, 0, 0, "tev_ash_observer", "notify_create", 77);
        EXPECT_EQ(texts{"0xe924 tev_ash_observer::notify_create 0,0"}, tevtest::notifications());
        EXPECT_EQ(77, capture.notifications().at(0).line);
    }
    for (const char* sink : {"", path.c_str(), "none", "stderr", "off", "", path.c_str()}) {
        tevhost::set_trace_sink(sink);
        tivGENTrcPrintf(0xC103, 0x102, 0, "to '%s'\n", sink);
    }
    tevhost::set_trace_sink("stderr");
    put_lib_svccall_notify(0xE924, 0, 0, "f", "g", 7);
    tivGENTrcPrintf(0xC103, 0x102, 0, "two\nlines\n");
    tevhost::log_line(tevhost::log_priority::info, "told");
    // Another standard error than the journal's (a child's, say): no priorities.
    std::freopen((err + "2").c_str(), "w", stderr);
    tevhost::log_line(tevhost::log_priority::error, "said");
    dup2(saved_stderr, 2);
    close(saved_stderr);
    tevhost::set_trace_sink("none");
    const std::regex head(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \[)" +
                          std::to_string(getpid()) + R"(\] )");
    EXPECT_EQ("@notify code=0xE924 detail=0,0 at tev_ash_observer:notify_create:77\n@to '" + path +
                  "'\n@to '" + path + "'\n",
              std::regex_replace(tevtest::file_text(path), head, "@"));
    EXPECT_EQ(
        "<4>to ''\n<4>to 'stderr'\n<4>to ''\n<3>notify code=0xE924 detail=0,0 at f:g:7\n"
        "<4>two\n<4>lines\n<6>told\n",
        tevtest::file_text(err));
    EXPECT_EQ("said\n", tevtest::file_text(err + "2"));
    for (const std::string& f : {path, err, err + "2"}) std::remove(f.c_str());
}

}  // namespace
