// Helpers for the library's own tests: trace lines without their source line
// numbers, the record store call log as text, and handler trees built straight
// in the record store.
#ifndef TEV_LIB_SUPPORT_H
#define TEV_LIB_SUPPORT_H

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "tev_test_support.h"

namespace tevtest {

// Captured trace lines as "file::function,message" (source line and the final
// newline removed), in order.
std::vector<std::string> trace_calls();

// A value as the trace shows it with "%#.8X", a pointer as with "%p".
std::string hex8(unsigned int value);
std::string ptr(const void* p);

// The store call log as "operation/cmp_id" with cmp_id in hex ("get_current/c103").
std::vector<std::string> store_calls();

// Raw record store helpers (component id 0xC103); each fails the test on error.
unsigned int make_record(unsigned int category);
void link(unsigned int parent, unsigned int child);
unsigned int parent_of(unsigned int handler_id);  // 0 when unlinked
std::vector<unsigned int> children_of(unsigned int handler_id);
unsigned int category_of(unsigned int handler_id);
bool exists(unsigned int handler_id);

// AUTH -> APLSVC_IMG -> APLJOB, with job-set children of the given categories
// under the job handler, in order.
struct job_tree {
    unsigned int auth = 0;
    unsigned int image = 0;
    unsigned int job = 0;
    std::vector<unsigned int> children;
};
job_tree make_job_tree(const std::vector<unsigned int>& child_categories = {});

// A test with a fresh in-memory store, the handler service check answered, and
// trace capture on. Library singletons are created on first use.
class library_test : public ::testing::Test {
protected:
    library_test();
    ~library_test() override;

    fresh_store store_;
    tevhost::trace_capture trace_;
};

}  // namespace tevtest

#endif  // TEV_LIB_SUPPORT_H
