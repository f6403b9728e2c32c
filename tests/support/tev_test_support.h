// Helpers shared by the test suites, on top of the host test seams in
// host/tev_host_testing.h: wire bytes, files, a fresh record store, records made
// straight in the store, and the trace, notifications and store calls as text;
// with child processes and temporary directories (child_process.h).
#ifndef TEV_TEST_SUPPORT_H
#define TEV_TEST_SUPPORT_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "child_process.h"
#include "host/tev_host_testing.h"
#include "tev_ash_control.h"
#include "tev_ash_facade.h"
#include "tev_ash_observer.h"

namespace tevtest {

// Makes vlq_mc_check_facade answer 1 for object 1 of "TEV_ASH_SRV" (and 0 for
// anything else), so the first use of the handler facade does not wait for a
// handler service. Stays in force until tevhost::set_check_script(nullptr).
void answer_service_checks();

// Wire bytes: a value as four little-endian bytes, and parts put end to end.
using bytes = std::vector<unsigned char>;
bytes le32(std::uint32_t v);
bytes join(std::initializer_list<bytes> parts);

// The whole content of a file ("" when it cannot be read).
std::string file_text(const std::string& path);

// A fresh, empty in-memory record store with no schema and no armed failure for
// its lifetime; call logging and armed failures are switched off again at the end.
struct fresh_store {
    fresh_store();
    ~fresh_store();
};

// Records made and read straight in the record store, as component CMP; each
// call is expected to succeed.
namespace records {

constexpr unsigned int CMP = 0xC103, ROOT = 0x2, JOB = 0x4, SET_A = 0x8, SET_B = 0x10;
// An out-value that a failed call must leave as it was.
constexpr unsigned int SENTINEL = 0xDEADBEEF;

unsigned int make(unsigned int category);
void link(unsigned int parent, unsigned int child);  // each under its own category
unsigned int category_of(unsigned int id);
bool exists(unsigned int id);
// The direct children of `parent` in link order; also checks that the order past
// the last one is refused without writing the out-value.
std::vector<unsigned int> children(unsigned int parent);
// A four-byte member as a little-endian value; checks the read wrote no more.
uint32_t read_u32(unsigned int id, unsigned int member);

}  // namespace records

// AUTH -> APLSVC_IMG -> APLJOB, with job-set children of the given categories
// under the job handler, in order.
struct job_tree {
    unsigned int auth = 0, image = 0, job = 0;
    std::vector<unsigned int> children;
};
job_tree make_job_tree(const std::vector<unsigned int>& child_categories = {});

using lines = std::vector<std::string>;

// Captured trace lines as "file::function,message" (source line and the final
// newline removed), in order.
std::vector<std::string> trace_calls();
// Captured notifications as "0xe924 file::function 0,0".
std::vector<std::string> notifications();
// The store call log as "operation/cmp_id" with cmp_id in hex ("get_current/c103").
std::vector<std::string> store_calls();

// A value as the trace shows it with "%#.8X", a pointer as with "%p".
std::string hex8(unsigned int value);
std::string ptr(const void* p);

// A director's observer. Answers every notification with reply_result (create
// also with reply_handler_id), keeps one line per call ("create 4 7 9 21",
// "remove 33", "reset -1 44") and counts itself in *live while it exists.
// on_remove runs inside notify_remove, after the answer is set.
class test_observer : public velmora::tev_ash_observer {
public:
    explicit test_observer(std::atomic<int>* live = nullptr) : live_(live) { count(1); }
    test_observer(long obj_id, const char* name) : tev_ash_observer(obj_id, name) {}
    ~test_observer() override {
        finished_at_destruction = finished.load();
        count(-1);
    }
    void notify_create(velmora::TEV_ASH_CATEGORY category, velmora::TEV_ASH_SERVICE_TYPE service,
                       unsigned int& handler_id, unsigned int src, long& result) override {
        log("create " + std::to_string(category) + " " + std::to_string(service) + " " +
            std::to_string(handler_id) + " " + std::to_string(src));
        handler_id = reply_handler_id;
        result = reply_result;
    }
    void notify_remove(unsigned int handler_id, long& result) override {
        log("remove " + std::to_string(handler_id));
        result = reply_result;
        if (on_remove) on_remove(result);
        finished = true;
    }
    void notify_reset(velmora::TEV_ASH_SERVICE_TYPE service, unsigned int handler_id,
                      long& result) override {
        log("reset " + std::to_string(service) + " " + std::to_string(handler_id));
        result = reply_result;
    }
    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> lock(mtx_);
        return calls_;
    }

    unsigned int reply_handler_id = 0;
    long reply_result = 0;
    std::function<void(long& result)> on_remove;
    std::atomic<bool> finished{false};                               // a notify_remove has returned
    static inline std::atomic<bool> finished_at_destruction{false};  // of the last one destroyed

private:
    void log(std::string line) {
        std::lock_guard<std::mutex> lock(mtx_);
        calls_.push_back(std::move(line));
    }
    void count(int n) {
        if (live_ != nullptr) *live_ += n;
    }
    std::atomic<int>* live_ = nullptr;
    std::mutex mtx_;
    std::vector<std::string> calls_;
};

// A test of the library with a fresh in-memory store, the handler service
// check answered and trace capture on; with the facade, and a control layer
// of its own.
class library_test : public ::testing::Test {
protected:
    fresh_store store_;
    tevhost::trace_capture trace_;
    velmora::tev_ash_facade* facade =
        (answer_service_checks(), velmora::tev_ash_facade::tev_ash_get_instance());
    velmora::tev_ash_control control;
};

}  // namespace tevtest

#endif  // TEV_TEST_SUPPORT_H
