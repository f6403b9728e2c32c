// Host-only extras of the Linux platform for host tools and for applications
// that embed the library on a host: where trace lines go, registration of served
// objects, the store schema, the store backends and read-only views of the store.
// The library itself never includes this header. The test seams are in
// tev_host_testing.h, installed beside it for applications' own tests.
//
// Every function here is safe to call from any thread.
#ifndef TEV_HOST_H
#define TEV_HOST_H

#include <string>
#include <vector>

namespace velmora {
class facade_template;
class observer_template;
}  // namespace velmora

namespace tevhost {

// ---------------------------------------------------------------------------
// Settings. A process is configured by its environment; code configures it
// through the setters. Each variable is read once, when the platform first needs
// it, and gives only the default that its setter overrides:
//
//   TEVASH_HOST_TRACE           where trace lines go: unset, "" or "stderr" ->
//                               standard error, "none" or "off" -> nowhere,
//                               anything else -> appended to that file.
//                               Setter: set_trace_sink.
//   TEVASH_RUNTIME_DIR          the runtime directory of sockets and the shared
//                               store. Default: $XDG_RUNTIME_DIR/tevash, else
//                               /tmp/tevash-<euid>. Setter: set_runtime_dir.
//   XDG_RUNTIME_DIR             gives that default. Setter: set_runtime_dir
//                               (which overrides both).
//   TEVASH_HOST_IPC_TIMEOUT_MS  milliseconds a round trip to another process may
//                               take: 1 to 86400000, else 30000.
//                               Setter: set_message_timeout_ms.
//   TEVASH_HOST_STORE           a persistent store file opened at the store's
//                               first use; default: the in-memory store.
//                               Setters: store_use_file, store_use_memory.
//   JOURNAL_STREAM              "<device>:<inode>" of the journal's stream, set by
//                               a service manager: while standard error is that
//                               stream, each line written there starts with its
//                               syslog priority (see log_line). No setter.

// Where trace lines go from the next line on: "" or "stderr", "none" or "off",
// else a file name (appended to; nowhere when it cannot be opened).
void set_trace_sink(const std::string& sink);
// The runtime directory from now on; "" brings back the default (the
// environment's, else $XDG_RUNTIME_DIR/tevash, else /tmp/tevash-<euid>).
// Connections already open stay open.
void set_runtime_dir(const std::string& dir);
// The message timeout from the next round trip on, connections already open
// included; ms <= 0 brings back the default (the environment's, else 30000).
void set_message_timeout_ms(int ms);

// Priorities of the lines a process writes to standard error.
enum class log_priority { error = 3, warning = 4, info = 6 };
// Writes `line` and a newline to standard error in one write, with "<N>" (the
// priority) in front while standard error is the journal's stream. Trace lines
// sent to standard error carry "<4>" there, failed service calls "<3>"; trace
// lines sent to a file start with the time (UTC, microseconds) and "[pid]".
void log_line(log_priority priority, const std::string& line);

// ---------------------------------------------------------------------------
// Message service, in-process. An object is registered under (connection name,
// object id); names are compared on at most 16 bytes and object ids on their low
// 32 bits (ids travel as 32-bit values). A send runs the object's dispatch in
// the sender's thread and returns when dispatch has answered through
// gen_ipc_reply or has returned without answering. Concurrent sends, to the same
// object too, are delivered concurrently.

// Result codes of vlq_mc_send_sync_message on the host.
constexpr int MSG_OK = 0;
constexpr int MSG_NO_OBJECT = 1;  // nothing registered under (connection, id)
constexpr int MSG_NO_REPLY = 2;   // dispatch returned without answering
constexpr int MSG_BAD_ARG = 3;    // null reply length, or null buffer with a length

// Registers `obj`; returns false when the (connection, id) pair is taken.
bool register_object(const char* connection, long object_id, velmora::facade_template* obj);
bool register_object(const char* connection, long object_id, velmora::observer_template* obj);
// Removes the registration and waits until no delivery to the object is running
// (other than one in the calling thread). Returns false when nothing was registered.
bool unregister_object(const char* connection, long object_id);

// ---------------------------------------------------------------------------
// Message service across processes.
//
// A send to a connection name that has an object registered in this process
// stays in this process as above (MSG_NO_OBJECT when the id is not among them).
// Any other send goes over a Unix SOCK_SEQPACKET socket to the process that
// serves the connection name (see serve_connection), where the object's
// dispatch runs in a thread of that process serving this connection; its
// gen_ipc_reply travels back as the reply. The message spy and check script
// see these sends as they see in-process ones; vlq_mc_check_facade asks the
// serving process whether the object is registered there.
//
// Frames are checked on both sides (format in platform/host/ipc_frame.h: 32-bit
// little-endian fields, at most 64 KiB): a malformed one closes its connection
// with a trace line. Each sending thread keeps one connection per connection
// name; a cached connection to a server that has gone is replaced once, so a
// restarted server is reached without a failure. A request longer than a frame
// carries (64 KiB less its 40-byte header) is refused with MSG_BAD_ARG. On
// every failure the caller's reply buffer and *rpl_len are left untouched, and
// a trace line says what happened.
//
// Every request carries a deadline: now plus the message timeout, and in a
// thread dispatching a request from another process no later than that
// request's deadline less a margin (a quarter of the time left, at most 1 s),
// so each hop gives up before its caller does. The sender waits for the reply
// until the deadline (MSG_TIMEOUT), and the server does not dispatch a request
// it reads after the deadline (MSG_EXPIRED). A thread whose own request has
// expired sends nothing onward (MSG_EXPIRED at once).

constexpr int MSG_NOT_LISTENING = 4;  // nothing serves the connection: no socket, a stale
                                      // one, or a runtime directory that is not safe
constexpr int MSG_PEER_GONE = 5;      // the serving process closed the connection or died
                                      // after the request was written, before replying
                                      // (also: it refused this peer); closed before the
                                      // request was written: MSG_NOT_LISTENING
constexpr int MSG_TIMEOUT = 6;        // no reply by the request's deadline (the message
                                      // timeout, set_message_timeout_ms, or earlier in a
                                      // dispatch, see above); the connection is dropped
constexpr int MSG_BAD_FRAME = 7;      // the peer answered with a malformed frame
constexpr int MSG_EXPIRED = 8;        // the request's deadline passed before the server could
                                      // dispatch it: not dispatched (nothing was done)
constexpr int MSG_BUSY = 9;           // the server refused the connection: too many connections
                             // from this process or in total ("service busy"); nothing was done

// Connections a server accepts per served name: at most MAX_PEER_CONNECTIONS from
// one peer process and MAX_CONNECTIONS in total. One over either bound is sent a
// refusal and closed (its sender sees MSG_BUSY); the others go on being served.
constexpr int MAX_PEER_CONNECTIONS = 64;
constexpr int MAX_CONNECTIONS = 1024;

// Whether a send with this result may have been carried out by the receiver although no
// reply came back (MSG_TIMEOUT, and MSG_PEER_GONE after the request was written): the
// outcome is unknown. False for MSG_OK and for results that prove nothing was dispatched.
bool send_outcome_unknown(int status);
// The deadline of the request the calling thread is dispatching (a dispatch running for a
// request from another process), as CLOCK_MONOTONIC microseconds; 0 when the thread is not
// dispatching a request that carries one. Sends made from such a thread give up before it.
long long request_deadline_us();
// True when the calling thread dispatches a request whose deadline has passed (its caller
// has given up): work it has not committed must be rolled back, not committed.
bool request_expired();
// The pid of the process whose request the calling thread is dispatching; 0 when the
// thread is not dispatching a request from another process (an in-process send).
int request_peer_pid();
// True when a live process serves `connection` in the runtime directory (it holds the
// name's lock). Never blocks, never takes the lock (a starting server is never refused
// because of this check). Cheap enough to call every 50 ms per name.
bool connection_served(const char* connection);
// An identity of the process instance serving `connection` (changes whenever another
// server starts serving the name, e.g. the socket file's inode with its device), 0 when none.
unsigned long long served_instance(const char* connection);
// The peer processes connected to `connection` as this process serves it, each with its
// number of open connections (one per sending thread), ascending pid; empty when this
// process does not serve the name.
struct peer_connections {
    int pid;
    int connections;
};
std::vector<peer_connections> served_peers(const char* connection);

// The words for a MSG_* result ("delivered", "nothing listening", "peer gone",
// "timed out", "bad frame", ...); "unknown result" for any other value.
const char* send_status_text(int status);
// The result of the last vlq_mc_send_sync_message made by the calling thread,
// in process or not (MSG_OK before any). The library ignores the message
// client's result by design; host tools read it here to surface a message that
// was not delivered.
int last_send_status();

// The runtime directory of the host's sockets and shared store (see Settings:
// set_runtime_dir, TEVASH_RUNTIME_DIR, else $XDG_RUNTIME_DIR/tevash, else
// /tmp/tevash-<euid>). Created (the last path component only) with mode 0700
// when missing. Returns false with *error set, and a trace line, when it cannot
// be created, is not a directory, or is owned by another user or open to
// others. Senders never create it; they refuse to connect into a directory that
// fails these checks (MSG_NOT_LISTENING).
bool runtime_dir(std::string* dir, std::string* error = nullptr);
// The record store file the processes of the runtime directory share: the one
// the last choose_shared_store made there (a handler service started on a store
// of its own), else <runtime dir>/store.db. The directory is made and checked as
// by runtime_dir, which gives the result and *error.
bool shared_store_file(std::string* path, std::string* error = nullptr);
// Makes `path` (an existing file) the store shared_store_file gives from now on,
// in every process of the runtime directory. False with *error set when it
// cannot be recorded.
bool choose_shared_store(const std::string& path, std::string* error = nullptr);

// Makes the objects registered in this process under `connection` (now or
// later) reachable from other processes of the runtime directory, through the
// socket <runtime dir>/<name>.sock; the name's bytes other than letters, digits,
// '_', '-' and '.' are written as %XX. While serving, the process holds a lock
// on <name>.lock, so a socket whose lock is free was left by a dead server and
// is replaced; a live server's is refused (false, *error says so, as it does for
// a name this process serves already or an unsafe runtime directory). Peers of
// another uid (root excepted) are closed at once with a trace line. Idle client
// connections (one per sending thread) wait in one loop thread per name; a
// request is dispatched in a worker thread started as needed, so requests of
// different connections never wait for each other. Connections past the bounds
// above are refused (MSG_BUSY). Malformed frames and refusals are traced as the
// first one, then a count at most once a second per peer.
bool serve_connection(const char* connection, std::string* error = nullptr);
// Serves `connection` as serve_connection does, but on `listen_fd`, a listening
// Unix SOCK_SEQPACKET socket bound to the name's socket file by someone else (a
// service manager's socket activation): nothing is bound, and stopping leaves
// the socket's file in place.
// The name's lock is taken all the same. On success the server owns the
// descriptor (made non-blocking and close-on-exec, closed when serving stops);
// false with *error set, the descriptor left to the caller, when it is not such
// a socket or the name cannot be served.
bool serve_connection_on(const char* connection, int listen_fd, std::string* error = nullptr);
// Stops accepting on `connection`, removes its lock file and the socket file it
// bound (not one passed to serve_connection_on), lets each connection finish the
// request it is delivering (the reply is still sent), then closes them all and
// returns. Returns false when the connection was not served.
// REQUIRES: not called from a dispatch of that connection.
bool stop_serving(const char* connection);

// Host result codes the handler service answers with when the transport, not a
// director, failed (never made by the library; distinct from its 0xC103xxxx).
// HOST_DIRECTOR_UNREACHABLE: the handler service's message to the director of
// the application type was not carried out, and provably nothing was done
// (nothing listening, expired before dispatch, busy, no such object). When the
// director's process is gone, its registrations are withdrawn before this answer,
// so later requests for its types get 0xC1030006 until a director registers again.
constexpr unsigned int HOST_DIRECTOR_UNREACHABLE = 0xE2000001;
// HOST_ALREADY_REGISTERED: the (connection, object) a host tool wanted to register
// in this process is taken, e.g. a second in-process handler service.
constexpr unsigned int HOST_ALREADY_REGISTERED = 0xE2000002;
// HOST_OUTCOME_UNKNOWN: the message reached the director but no answer came back
// (timed out, or its process died while working on it): the director may or may
// not have carried it out. A director commits nothing once the service has given
// up on the request, so a timed-out request is normally not carried out; look.
constexpr unsigned int HOST_OUTCOME_UNKNOWN = 0xE2000003;
// HOST_DIRECTOR_UNRESPONSIVE: the director stopped answering (an earlier message to
// it timed out); nothing was sent. Answered at once until the director answers a
// check again.
constexpr unsigned int HOST_DIRECTOR_UNRESPONSIVE = 0xE2000004;
// The words for a host result code (HOST_* and STORE_*): "director not answering",
// "no such record", ...; "" for any other code.
const char* host_code_text(unsigned int code);

// ---------------------------------------------------------------------------
// Record store.

enum class member_kind { i8, u8, i16, u16, i32, u32, bytes };

// The width in bytes of a value of `kind`: 1, 1, 2, 2, 4, 4, and `byte_size`
// for a byte string.
constexpr unsigned int member_width(member_kind kind, unsigned int byte_size = 0) {
    switch (kind) {
        case member_kind::i8:
        case member_kind::u8: return 1;
        case member_kind::i16:
        case member_kind::u16: return 2;
        case member_kind::i32:
        case member_kind::u32: return 4;
        case member_kind::bytes: return byte_size;
    }
    return 0;
}

// Each kind's name, as schema files and the tools write it, and for the integer
// kinds the smallest and largest value it holds (0 and 0 for a byte string).
struct member_kind_info {
    const char* name;
    member_kind kind;
    long long lo, hi;
};
inline constexpr member_kind_info MEMBER_KINDS[] = {
    {"i8", member_kind::i8, -128, 127},
    {"u8", member_kind::u8, 0, 255},
    {"i16", member_kind::i16, -32768, 32767},
    {"u16", member_kind::u16, 0, 65535},
    {"i32", member_kind::i32, -2147483648LL, 2147483647LL},
    {"u32", member_kind::u32, 0, 4294967295LL},
    {"bytes", member_kind::bytes, 0, 0}};
// The row of MEMBER_KINDS for `kind`.
constexpr const member_kind_info& member_kind_of(member_kind kind) {
    for (const member_kind_info& k : MEMBER_KINDS) {
        if (k.kind == kind) return k;
    }
    return MEMBER_KINDS[6];
}

// Declares a member: its kind, its size in bytes for `bytes` (ignored otherwise)
// and its initial value (little-endian bytes; shorter is zero-padded, empty is
// all zero). A member not declared takes the width of its first typed write; a
// byte-string write or a read of such a member before that fails.
// Returns false when the declaration is malformed (bytes of size 0).
bool declare_member(unsigned int member_id, member_kind kind, unsigned int byte_size = 0,
                    std::vector<unsigned char> initial = {});
void clear_schema();

// A member as a schema file declares it. The file is JSON (tevash(1), SCHEMA FILES):
//   {"tevash_schema":1,"members":[{"id":"0x00360000","name":"copies","kind":"u16",
//    "initial":1,"min":1,"max":999,"description":"..."}, ...]}
struct member_schema {
    unsigned int member_id = 0;
    std::string name;  // "" when unnamed
    member_kind kind = member_kind::u32;
    unsigned int size = 0;               // its width in bytes
    std::vector<unsigned char> initial;  // `size` bytes, little-endian
    bool ranged = false;                 // integer kinds only: min <= value <= max
    long long min = 0;
    long long max = 0;
    std::string description;
};
// Reads a schema file's text. False with *error in words ("members[2].kind:
// 'u64' is not a kind") when anything in it is refused; *out is then unspecified.
bool parse_member_schema(const std::string& text, std::vector<member_schema>* out,
                         std::string* error);
// The schema file text of `members` (what parse_member_schema reads back).
std::string member_schema_text(const std::vector<member_schema>& members);
// Keeps `members` in the current store as its schema, replacing the one it
// kept (the persistent store keeps it in its file, so every process sharing
// the file applies it). All or nothing: STORE_WIDTH with *error in words when a
// stored value has another kind or size than its declaration, STORE_BAD_ARG
// when a declaration is malformed, STORE_READ_ONLY or STORE_IO. Declarations
// made by declare_member in this process take precedence over the kept schema.
unsigned int store_load_schema(const std::vector<member_schema>& members, std::string* error);
// The schema the current store keeps, ascending member id (empty when none).
std::vector<member_schema> store_schema();

// Failure codes of the host record store (each distinct, never 0).
constexpr unsigned int STORE_NO_RECORD = 0xE1000001;     // no record with that id
constexpr unsigned int STORE_BAD_CATEGORY = 0xE1000002;  // category 0 or not the record's
constexpr unsigned int STORE_NO_MEMBER = 0xE1000003;     // member unknown to record and schema
constexpr unsigned int STORE_WIDTH = 0xE1000004;         // typed write of another width
constexpr unsigned int STORE_HAS_PARENT = 0xE1000005;    // child already linked
constexpr unsigned int STORE_CYCLE = 0xE1000006;         // link would make a cycle
constexpr unsigned int STORE_NO_LINK = 0xE1000007;       // no parent / no child at order
constexpr unsigned int STORE_BAD_ARG = 0xE1000008;       // null out-pointer or buffer
constexpr unsigned int STORE_IO = 0xE1000009;           // persistent backend failed, or ids used up
constexpr unsigned int STORE_ROLLED_BACK = 0xE100000A;  // the open transaction is rolled back
constexpr unsigned int STORE_READ_ONLY = 0xE100000B;    // the store is open read-only
constexpr unsigned int STORE_RANGE = 0xE100000C;        // value outside its declared range
constexpr unsigned int STORE_INJECTED = 0xE100000F;     // default code of an injected failure

// Backends. The in-memory store is the default. TEVASH_HOST_STORE=<file> in the
// environment opens a persistent store on that file at first use; when the file
// cannot be opened a trace line says why and the in-memory store is used.
//
// The persistent store is one SQLite database file (WAL mode, with its -wal and
// -shm companions while open). Each store operation is one transaction (or
// joins an open store_transaction), so the file stays sound when a process dies
// at any point, and several processes may share it (a writer waits up to 10 s
// for another's transaction, then fails with STORE_IO). Its ids are never
// reused, by this or any later process. At a normal exit (return from main, or
// exit()) the store is closed: the log is written back into the file and
// removed, so a copy of the file alone holds every record. While processes
// have it open, copy it with store_backup instead.
void store_use_memory();  // a fresh, empty in-memory store (ids still never reused)

enum class store_access { read_write, read_only };
// Opens (creating if needed) a persistent store on `path` and uses it from now
// on. Returns false with *error set, and keeps the current store, when the path
// cannot be opened or holds something other than a record store of this version;
// such a file (an empty one too) is left unchanged. A missing file is made whole
// beside `path` and linked into place, so processes creating one file at once
// all open the same store; never through a dangling symbolic link. A full disk
// is said in words ("disk full while writing store <path>"), and the failing
// call returns STORE_IO. A file this user may not write (or in a
// directory this user may not write), or `access` read_only, is opened
// read-only: it must exist, nothing is ever written to it, and every change
// fails with STORE_READ_ONLY (reads work, transactions read one snapshot).
// Refused inside a store_transaction.
bool store_use_file(const std::string& path, std::string* error = nullptr,
                    store_access access = store_access::read_write);
// Whether the current store refuses changes (a persistent store opened read-only).
bool store_read_only();
// Writes a consistent copy of the persistent store to a new file at `path`
// with SQLite's online backup (one snapshot; other processes may go on writing).
// Returns false with *error set when `path` exists (a dangling symbolic link
// too), the current store is the in-memory one, or the copy fails; nothing is
// left at `path` then. The copy is made beside `path` and linked into place.
bool store_backup(const std::string& path, std::string* error = nullptr);
// Drops every record (the schema stays).
void store_clear();

// Read-only views for tools and tests (not part of the device contract).
struct record_info {
    unsigned int handler_id;
    unsigned int category;
    unsigned int parent_id;  // 0 when unlinked
};
std::vector<record_info> store_records();  // ascending handler id

// Kind, width and value of one member of one record, as the store keeps it.
// A value keeps the kind it was first stored with: the member's declared kind,
// else the kind of the typed write that stored it first (char i8, unsigned char
// u8, short i16, unsigned short u16, long i32, unsigned long u32). Copies keep
// the kinds; the persistent store keeps them in its file, so another process
// sees them without declaring anything.
struct member_value {
    unsigned int member_id;
    member_kind kind;
    unsigned int size;                 // bytes: 1, 1, 2, 2, 4, 4, or the byte string's size
    std::vector<unsigned char> value;  // little-endian, `size` bytes
};
// Reads without changing anything. Returns 0, STORE_NO_RECORD, STORE_NO_MEMBER
// (a member that the record has no value for and the schema does not declare:
// a declared member without a value reads as its declared kind and initial
// value) or STORE_BAD_ARG (null `out`). `out` is written only on 0.
unsigned int member_info(unsigned int handler_id, unsigned int member_id, member_value* out);
// Every member the record has a value for, ascending member id; empty when
// there is no such record.
std::vector<member_value> record_members(unsigned int handler_id);
// Stores `v` on the record as it is: its kind, its size and its bytes (for
// tools that recreate records, e.g. an import). Returns 0, STORE_NO_RECORD,
// STORE_WIDTH (the record's value or the declaration has another size; a value
// kept of another kind but the same size takes the new kind), or STORE_BAD_ARG
// (size 0, a size that does not fit the kind, or value.size() != size).
unsigned int set_member_value(unsigned int handler_id, const member_value& v);

// A transaction scope on the current store: the store calls made by this
// thread while it is open are kept all together or not at all.
//
//     tevhost::store_transaction txn;
//     ... store calls, through the library or directly ...
//     if (everything_went_well) rc = txn.commit();   // else: the destructor rolls back
//
// - The calls join it: on the persistent store the scope is one SQLite
//   transaction (begun at once as a writer), on the in-memory store the changes
//   are undone when it does not commit. Each call inside still fails alone: a
//   call that fails changes nothing, and the scope goes on.
// - A scope opened inside another joins the outer one; only the outermost
//   commit keeps anything. An inner scope that ends without commit dooms the
//   whole transaction: later calls in it fail with STORE_ROLLED_BACK and the
//   outermost commit rolls back and returns STORE_ROLLED_BACK.
// - Other threads' store calls (and their scopes) wait until the outermost scope
//   ends, so keep scopes short. The owning thread's calls do not wait.
// - Nothing is kept if the process dies before the outermost commit returned.
//
// What it cannot cover: work done by another process. A call whose store work
// is carried out by another process (for example a handler service or director
// running in another process) is not part of the scope; worse, that process
// waits for this transaction (up to 10 s, then it fails with STORE_IO) while
// the scope is open on the persistent store. Hold a scope only around store
// work done in this process. Switching the backend (store_use_memory,
// store_use_file) inside a scope is refused.
class store_transaction {
public:
    store_transaction();
    ~store_transaction();
    store_transaction(const store_transaction&) = delete;
    store_transaction& operator=(const store_transaction&) = delete;
    // 0 when committed (an inner scope only marks itself done); STORE_IO when
    // the persistent backend could not begin or commit, STORE_ROLLED_BACK when
    // an inner scope ended without commit (in both cases nothing was kept);
    // STORE_BAD_ARG when this scope was committed already.
    unsigned int commit();

private:
    bool done_ = false;
};

}  // namespace tevhost

#endif  // TEV_HOST_H
