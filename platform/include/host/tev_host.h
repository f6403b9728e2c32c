// Host-only extras of the Linux platform: configuration, registration of served
// objects, and the test seams (trace capture, counted sleep, store call log and
// failure injection, message spy with scripted replies, store schema and
// backends). The library itself never includes this header; host tools, tests
// and applications that embed the library on a host do.
//
// Every function here is safe to call from any thread. Seams are process-wide:
// a test that turns one on turns it off again (the RAII helpers do this).
#ifndef TEV_HOST_H
#define TEV_HOST_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace velmora {
class facade_template;
class observer_template;
}  // namespace velmora

namespace tevhost {

// ---------------------------------------------------------------------------
// Trace. Lines go to the sink chosen by the environment variable
// TEVASH_HOST_TRACE: unset or "stderr" -> standard error, "none" or "off" ->
// nowhere, anything else -> appended to that file. While a capture is active,
// lines and notifications are also kept in memory.

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
// Message service, in-process. An object is registered under (connection name,
// object id); names are compared on at most 16 bytes and object ids on their low
// 32 bits (ids travel as 32-bit values). A send runs the object's dispatch in
// the sender's thread and returns when dispatch has answered through
// gen_ipc_reply or has returned without answering. Concurrent sends, to the same
// object too, are delivered concurrently.

// Result codes of vlq_mc_send_sync_message on the host.
constexpr int MSG_OK = 0;
constexpr int MSG_NO_OBJECT = 1;   // nothing registered under (connection, id)
constexpr int MSG_NO_REPLY = 2;    // dispatch returned without answering
constexpr int MSG_BAD_ARG = 3;     // null reply length, or null buffer with a length

// Registers `obj`; returns false when the (connection, id) pair is taken.
bool register_object(const char* connection, long object_id, velmora::facade_template* obj);
bool register_object(const char* connection, long object_id, velmora::observer_template* obj);
// Removes the registration and waits until no delivery to the object is running
// (other than one in the calling thread). Returns false when nothing was registered.
bool unregister_object(const char* connection, long object_id);

// One message as a sender handed it to the message service.
struct sent_message {
    long object_id;
    long func_id;
    std::string connection;          // at most 16 bytes of the destination name
    std::vector<unsigned char> request;
    unsigned int reply_capacity;     // *rpl_len on entry
};

// A script sees every send while a spy is active. Returning true answers the send
// with `reply` (copied bounded by the capacity) without delivering it; false lets
// it go to the registered object as usual.
using message_script = std::function<bool(const sent_message& msg, std::vector<unsigned char>& reply)>;
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
// Record store.

enum class member_kind { i8, u8, i16, u16, i32, u32, bytes };

// Declares a member: its kind, its size in bytes for `bytes` (ignored otherwise)
// and its initial value (little-endian bytes; shorter is zero-padded, empty is
// all zero). A member not declared takes the width of its first typed write; a
// byte-string write or a read of such a member before that fails.
// Returns false when the declaration is malformed (bytes of size 0).
bool declare_member(unsigned int member_id, member_kind kind, unsigned int byte_size = 0,
                    std::vector<unsigned char> initial = {});
void clear_schema();

// Failure codes of the host record store (each distinct, never 0).
constexpr unsigned int STORE_NO_RECORD = 0xE1000001;      // no record with that id
constexpr unsigned int STORE_BAD_CATEGORY = 0xE1000002;   // category 0 or not the record's
constexpr unsigned int STORE_NO_MEMBER = 0xE1000003;      // member unknown to record and schema
constexpr unsigned int STORE_WIDTH = 0xE1000004;          // typed write of another width
constexpr unsigned int STORE_HAS_PARENT = 0xE1000005;     // child already linked
constexpr unsigned int STORE_CYCLE = 0xE1000006;          // link would make a cycle
constexpr unsigned int STORE_NO_LINK = 0xE1000007;        // no parent / no child at order
constexpr unsigned int STORE_BAD_ARG = 0xE1000008;        // null out-pointer or buffer
constexpr unsigned int STORE_IO = 0xE1000009;  // persistent backend failed, or ids used up
constexpr unsigned int STORE_INJECTED = 0xE100000F;       // default code of an injected failure

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
};

// Call log: every store operation, in call order, while logging is on.
void store_log_begin();  // clears the log
void store_log_end();
std::vector<store_call> store_log();

// Failure injection. The `nth` next call of `op` (1 = the next one) fails with
// `code` and changes nothing; fail_nth_call counts calls of any operation.
void store_fail_op(store_op op, unsigned int nth = 1, unsigned int code = STORE_INJECTED);
void store_fail_nth_call(unsigned int nth, unsigned int code = STORE_INJECTED);
void store_fail_clear();

// Backends. The in-memory store is the default. TEVASH_HOST_STORE=<file> in the
// environment opens a persistent store on that file at first use; when the file
// cannot be opened a trace line says why and the in-memory store is used.
//
// The persistent store is one SQLite database file (WAL mode, with its -wal and
// -shm companions while open). Each store operation is one transaction, so the
// file stays sound when a process dies at any point, and several processes may
// share it (a writer waits up to 10 s for another's transaction, then fails with
// STORE_IO). Its ids are never reused, by this or any later process.
void store_use_memory();  // a fresh, empty in-memory store (ids still never reused)
// Opens (creating if needed) a persistent store on `path` and uses it from now
// on. Returns false with *error set, and keeps the current store, when the path
// cannot be opened or holds something other than a record store of this version;
// such a file is left unchanged.
bool store_use_file(const std::string& path, std::string* error = nullptr);
// Drops every record (the schema stays).
void store_clear();

// Read-only views for tools and tests (not part of the device contract).
struct record_info {
    unsigned int handler_id;
    unsigned int category;
    unsigned int parent_id;  // 0 when unlinked
};
std::vector<record_info> store_records();  // ascending handler id

}  // namespace tevhost

#endif  // TEV_HOST_H
