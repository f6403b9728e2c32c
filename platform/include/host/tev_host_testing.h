// Test seams of the host platform: trace capture, counted sleep, message spy
// with scripted replies, store call log and failure injection. Installed with
// the host platform, for the tests of this project and of applications that
// embed the library; never used by the library itself or in production paths.
//
// Every function here is safe to call from any thread. Seams are process-wide:
// a test that turns one on turns it off again (the RAII helpers do this).
#ifndef TEV_HOST_TESTING_H
#define TEV_HOST_TESTING_H

#include <functional>
#include <string>
#include <vector>

#include "host/tev_host.h"

namespace tevhost {

// ---------------------------------------------------------------------------
// Trace capture. While a capture is active, trace lines and notifications are
// also kept in memory.

struct trace_line {
    unsigned int module;
    unsigned int level;
    unsigned int flag;
    std::string text;  // the formatted line, as written (ends with '\n' when the format does)
};

struct notification {
    unsigned int code;
    unsigned int detail1;
    unsigned int detail2;
    std::string file;
    std::string function;
    int line;
};

// Starts keeping trace lines and notifications in memory (clearing earlier ones).
void trace_capture_begin();
// Stops keeping them; what was kept stays readable until the next begin.
void trace_capture_end();
std::vector<trace_line> captured_trace();
std::vector<notification> captured_notifications();
void trace_capture_clear();

// Keeps trace lines and notifications for its lifetime.
class trace_capture {
public:
    trace_capture() { trace_capture_begin(); }
    ~trace_capture() { trace_capture_end(); }
    trace_capture(const trace_capture&) = delete;
    trace_capture& operator=(const trace_capture&) = delete;
    std::vector<trace_line> lines() const { return captured_trace(); }
    std::vector<notification> notifications() const { return captured_notifications(); }
    void clear() { trace_capture_clear(); }
};

// ---------------------------------------------------------------------------
// Sleep. When counting is on, tivZofSleep records its argument and returns at
// once instead of sleeping.

void sleep_counting_begin();  // clears the record
void sleep_counting_end();
std::vector<int> counted_sleeps();

class counted_sleep {
public:
    counted_sleep() { sleep_counting_begin(); }
    ~counted_sleep() { sleep_counting_end(); }
    counted_sleep(const counted_sleep&) = delete;
    counted_sleep& operator=(const counted_sleep&) = delete;
    std::vector<int> sleeps() const { return counted_sleeps(); }
};

// ---------------------------------------------------------------------------
// Message spy.

// One message as a sender handed it to the message service.
struct sent_message {
    long object_id;
    long func_id;
    std::string connection;  // at most 16 bytes of the destination name
    std::vector<unsigned char> request;
    unsigned int reply_capacity;  // *rpl_len on entry
};

// A script sees every send while a spy is active. Returning true answers the send
// with `reply` (copied bounded by the capacity) without delivering it; false lets
// it go to the registered object as usual.
using message_script =
    std::function<bool(const sent_message& msg, std::vector<unsigned char>& reply)>;
// Answers vlq_mc_check_facade while set (return its result).
using check_script = std::function<int(const std::string& connection, long object_id)>;

void message_spy_begin(message_script script = nullptr);  // clears the record
void message_spy_end();
std::vector<sent_message> spied_messages();
void set_check_script(check_script script);  // nullptr: back to the registry

class message_spy {
public:
    explicit message_spy(message_script script = nullptr) { message_spy_begin(std::move(script)); }
    ~message_spy() { message_spy_end(); }
    message_spy(const message_spy&) = delete;
    message_spy& operator=(const message_spy&) = delete;
    std::vector<sent_message> messages() const { return spied_messages(); }
};

// ---------------------------------------------------------------------------
// Record store call log and failure injection.

enum class store_op {
    make_current,
    make_and_copy_current,
    copy_current,
    init_current,
    delete_current,
    set_link,
    delete_link,
    get_child_link,
    get_child_link_num,
    get_child_link_direct,
    get_child_link_num_direct,
    get_parent_link,
    get_job_category_by_id,
    get_current,
    set_current,
};
const char* store_op_name(store_op op);

struct store_call {
    store_op op;
    unsigned int cmp_id;
    unsigned int handler_id = 0;  // the record the call names (0 when none)
    unsigned int member_id = 0;   // the member a member call names
    unsigned int result = 0;      // what the call returned
    unsigned int found = 0;       // on success, what a lookup gave: child,
                                  // parent or category
};

// Call log: every store operation, in call order, while logging is on (this is
// also what `tevash get --explain` shows of the library's walk).
void store_log_begin();  // clears the log
void store_log_end();
std::vector<store_call> store_log();

// Failure injection. The `nth` next call of `op` (1 = the next one) fails with
// `code` and changes nothing; fail_nth_call counts calls of any operation.
void store_fail_op(store_op op, unsigned int nth = 1, unsigned int code = STORE_INJECTED);
void store_fail_nth_call(unsigned int nth, unsigned int code = STORE_INJECTED);
void store_fail_clear();

}  // namespace tevhost

#endif  // TEV_HOST_TESTING_H
