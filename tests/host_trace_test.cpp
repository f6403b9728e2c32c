// The host trace sink: lines and notifications go where set_trace_sink says (a
// file, nowhere, standard error), and are kept while a capture is on.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tev_test_support.h"
#include "tiv_trace.h"

namespace {

using texts = std::vector<std::string>;

TEST(Trace, LinesAndNotificationsGoToTheChosenSinkAndAreKept) {
    const std::string path = ::testing::TempDir() + "host_trace_test.log";
    const std::string err = ::testing::TempDir() + "host_trace_test.stderr";
    std::remove(path.c_str());
    int saved_stderr = dup(2), to_err = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(to_err, 2);
    close(to_err);
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
    dup2(saved_stderr, 2);
    close(saved_stderr);
    tevhost::set_trace_sink("none");
    EXPECT_EQ("notify code=0xE924 detail=0,0 at tev_ash_observer:notify_create:77\nto '" + path +
                  "'\nto '" + path + "'\n",
              tevtest::file_text(path));
    EXPECT_EQ("to ''\nto 'stderr'\nto ''\n", tevtest::file_text(err));
    std::remove(path.c_str());
    std::remove(err.c_str());
}

}  // namespace
