// Message service: served objects are registered under (connection name, object
// id) and a send to an object of this process runs its dispatch in the sender's
// thread; the reply travels through gen_ipc_reply into the sender's buffer. A
// send to a connection name nothing in this process is registered under goes to
// the process serving that name (ipc_client.cpp), which delivers it here through
// deliver_served.
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "facade_template.h"
#include "gen_ipc.h"
#include "host/tev_host_testing.h"
#include "message_internal.h"
#include "observer_template.h"
#include "vlq_mc_client.h"

namespace {

using tevhost::detail::connection_name;

uint32_t object_key(long object_id) {
    return static_cast<uint32_t>(static_cast<unsigned long>(object_id));
}

struct registration {
    velmora::facade_template* facade = nullptr;
    velmora::observer_template* observer = nullptr;
    int in_flight = 0;  // deliveries running now; guarded by the registry lock
};

using registry_key = std::pair<std::string, uint32_t>;

// A send waiting for its reply.
struct pending_call {
    char* buffer;
    unsigned int capacity;
    unsigned int written = 0;
    bool replied = false;
};

struct message_state {
    std::mutex registry_mtx;
    std::condition_variable delivery_done;
    std::map<registry_key, std::shared_ptr<registration>> registry;

    std::mutex calls_mtx;
    std::map<unsigned long long, pending_call*> calls;
    std::atomic<unsigned long long> next_call_id{1};

    std::mutex spy_mtx;
    // Set and cleared under spy_mtx; a send that finds it clear skips the spy.
    std::atomic<bool> spying{false};
    tevhost::message_script script;
    std::vector<tevhost::sent_message> spied;
    tevhost::check_script checker;
};

message_state& state() {
    static message_state* s = new message_state;  // never destroyed: served until exit
    return *s;
}

// Deliveries running in this thread, so that a dispatch may unregister its own object.
thread_local std::vector<const registration*> t_deliveries;
// The result of this thread's last send.
thread_local int t_last_status = tevhost::MSG_OK;
// The deadline of the request from another process this thread dispatches (0: none).
thread_local long long t_request_deadline_us = 0;
// The pid of the process whose request this thread dispatches (0: none).
thread_local int t_request_peer_pid = 0;

int send(long object_id, long func_id, char* req, unsigned int req_len, char* rpl,
         unsigned int* rpl_len, const char* connection);

int this_thread_deliveries(const registration* reg) {
    return static_cast<int>(std::count(t_deliveries.begin(), t_deliveries.end(), reg));
}

bool register_any(const char* connection, long object_id, velmora::facade_template* facade,
                  velmora::observer_template* observer) {
    if (connection == nullptr || (facade == nullptr && observer == nullptr)) return false;
    auto reg = std::make_shared<registration>();
    reg->facade = facade;
    reg->observer = observer;
    message_state& s = state();
    std::lock_guard<std::mutex> lock(s.registry_mtx);
    return s.registry.emplace(registry_key(connection_name(connection), object_key(object_id)), reg)
        .second;
}

// REQUIRES: the registry lock is held.
bool name_registered(const message_state& s, const std::string& connection) {
    auto it = s.registry.lower_bound(registry_key(connection, 0));
    return it != s.registry.end() && it->first.first == connection;
}

// Where a send or check goes.
enum class route { here, missing_here, other_process };

// Finds the registration of (connection, object_id) and counts a delivery on it;
// *where says whether the connection name belongs to this process.
std::shared_ptr<registration> begin_delivery(const std::string& connection, long object_id,
                                             route* where = nullptr) {
    message_state& s = state();
    std::lock_guard<std::mutex> lock(s.registry_mtx);
    auto it = s.registry.find(registry_key(connection, object_key(object_id)));
    if (it == s.registry.end()) {
        if (where != nullptr) {
            *where = name_registered(s, connection) ? route::missing_here : route::other_process;
        }
        return nullptr;
    }
    if (where != nullptr) *where = route::here;
    ++it->second->in_flight;
    return it->second;
}

void end_delivery(registration& reg) {
    message_state& s = state();
    {
        std::lock_guard<std::mutex> lock(s.registry_mtx);
        --reg.in_flight;
    }
    s.delivery_done.notify_all();
}

// Runs the object's dispatch with a header that names `call`. Returns true when
// the dispatch answered.
bool deliver(const std::shared_ptr<registration>& reg, long func_id, std::vector<char>& request,
             pending_call& call) {
    message_state& s = state();
    gen_ipc_msghdr hdr{s.next_call_id.fetch_add(1)};
    {
        std::lock_guard<std::mutex> lock(s.calls_mtx);
        s.calls.emplace(hdr.call_id, &call);
    }
    t_deliveries.push_back(reg.get());
    char* data = request.empty() ? nullptr : request.data();
    unsigned int size = static_cast<unsigned int>(request.size());
    if (reg->facade != nullptr) {
        reg->facade->dispatch(func_id, data, size, hdr);
    } else {
        reg->observer->dispatch(func_id, data, size, hdr);
    }
    t_deliveries.pop_back();
    std::lock_guard<std::mutex> lock(s.calls_mtx);
    s.calls.erase(hdr.call_id);
    return call.replied;
}

}  // namespace

int gen_ipc_reply(const gen_ipc_msghdr& hdr, const char* rpl, unsigned int rpl_len) {
    if (rpl == nullptr && rpl_len > 0) return 1;
    message_state& s = state();
    std::lock_guard<std::mutex> lock(s.calls_mtx);
    auto it = s.calls.find(hdr.call_id);
    if (it == s.calls.end() || it->second->replied) return 1;
    pending_call& call = *it->second;
    unsigned int n = std::min(rpl_len, call.capacity);
    if (n > 0) std::memcpy(call.buffer, rpl, n);
    call.written = n;
    call.replied = true;
    return 0;
}

namespace velmora {

facade_template::facade_template() = default;
facade_template::~facade_template() = default;
void facade_template::dispatch(long, char*, unsigned int, gen_ipc_msghdr) {}

observer_template::observer_template() = default;
observer_template::~observer_template() = default;
void observer_template::dispatch(long, char*, unsigned int, gen_ipc_msghdr) {}

vlq_mc_client::vlq_mc_client() = default;
vlq_mc_client::~vlq_mc_client() = default;

int vlq_mc_client::vlq_mc_check_facade(const char* connection, long object_id) {
    if (connection == nullptr) return 0;
    std::string name = connection_name(connection);
    message_state& s = state();
    tevhost::check_script checker;
    {
        std::lock_guard<std::mutex> lock(s.spy_mtx);
        checker = s.checker;
    }
    if (checker) return checker(name, object_id);
    {
        std::lock_guard<std::mutex> lock(s.registry_mtx);
        if (s.registry.count(registry_key(name, object_key(object_id))) != 0) return 1;
        if (name_registered(s, name)) return 0;
    }
    return tevhost::detail::remote_check(name, object_id);
}

int vlq_mc_client::vlq_mc_send_sync_message(long object_id, long func_id, char* req,
                                            unsigned int req_len, char* rpl, unsigned int* rpl_len,
                                            const char* connection) {
    t_last_status = send(object_id, func_id, req, req_len, rpl, rpl_len, connection);
    return t_last_status;
}

}  // namespace velmora

namespace {

int send(long object_id, long func_id, char* req, unsigned int req_len, char* rpl,
         unsigned int* rpl_len, const char* connection) {
    if (rpl_len == nullptr || connection == nullptr) return tevhost::MSG_BAD_ARG;
    if ((rpl == nullptr && *rpl_len > 0) || (req == nullptr && req_len > 0)) {
        return tevhost::MSG_BAD_ARG;
    }
    std::string name = connection_name(connection);
    message_state& s = state();

    tevhost::message_script script;
    tevhost::sent_message sent;
    bool spying = s.spying.load(std::memory_order_acquire);
    if (spying) {
        std::lock_guard<std::mutex> lock(s.spy_mtx);
        spying = s.spying.load(std::memory_order_relaxed);
        if (spying) {
            sent = tevhost::sent_message{object_id, func_id, name,
                                         std::vector<unsigned char>(req, req + req_len), *rpl_len};
            s.spied.push_back(sent);
            script = s.script;
        }
    }
    if (spying && script) {
        std::vector<unsigned char> reply;
        if (script(sent, reply)) {
            unsigned int n = std::min(static_cast<unsigned int>(reply.size()), *rpl_len);
            if (n > 0) std::memcpy(rpl, reply.data(), n);
            *rpl_len = n;
            return tevhost::MSG_OK;
        }
    }

    route where = route::here;
    std::shared_ptr<registration> reg = begin_delivery(name, object_id, &where);
    if (where == route::other_process) {
        return tevhost::detail::remote_send(name, object_id, func_id, req, req_len, rpl, rpl_len);
    }
    if (!reg) return tevhost::MSG_NO_OBJECT;
    std::vector<char> request(req, req + req_len);
    pending_call call{rpl, *rpl_len};
    bool replied = deliver(reg, func_id, request, call);
    end_delivery(*reg);
    if (!replied) return tevhost::MSG_NO_REPLY;
    *rpl_len = call.written;
    return tevhost::MSG_OK;
}

}  // namespace

namespace tevhost {

namespace detail {

int deliver_served(const std::string& connection, long object_id, long func_id,
                   const unsigned char* request, uint32_t request_size, uint32_t capacity,
                   long long deadline_us, std::vector<unsigned char>* reply) {
    reply->clear();
    std::shared_ptr<registration> reg = begin_delivery(connection, object_id);
    if (!reg) return MSG_NO_OBJECT;
    std::vector<char> bytes(request, request + request_size);
    std::vector<char> buffer(capacity);
    pending_call call{buffer.data(), capacity};
    const long long outer_deadline = t_request_deadline_us;
    t_request_deadline_us = deadline_us;
    bool replied = deliver(reg, func_id, bytes, call);
    t_request_deadline_us = outer_deadline;
    end_delivery(*reg);
    if (!replied) return MSG_NO_REPLY;
    reply->assign(buffer.begin(), buffer.begin() + call.written);
    return MSG_OK;
}

request_peer_scope::request_peer_scope(int pid) : outer_(t_request_peer_pid) {
    t_request_peer_pid = pid;
}
request_peer_scope::~request_peer_scope() {
    t_request_peer_pid = outer_;
}

int registered_here(const std::string& connection, long object_id) {
    message_state& s = state();
    std::lock_guard<std::mutex> lock(s.registry_mtx);
    return s.registry.count(registry_key(connection, object_key(object_id))) != 0 ? 1 : 0;
}

}  // namespace detail

int last_send_status() {
    return t_last_status;
}

bool send_outcome_unknown(int status) {
    // The transport answers MSG_PEER_GONE only once the request was written; a
    // server gone before that is MSG_NOT_LISTENING.
    return status == MSG_TIMEOUT || status == MSG_PEER_GONE;
}

long long request_deadline_us() {
    return t_request_deadline_us;
}

int request_peer_pid() {
    return t_request_peer_pid;
}

bool request_expired() {
    return t_request_deadline_us != 0 && detail::monotonic_us() >= t_request_deadline_us;
}

const char* send_status_text(int status) {
    switch (status) {
        case MSG_OK: return "delivered";
        case MSG_NO_OBJECT: return "no such object";
        case MSG_NO_REPLY: return "no reply from the object";
        case MSG_BAD_ARG: return "bad argument";
        case MSG_NOT_LISTENING: return "nothing listening";
        case MSG_PEER_GONE: return "peer gone";
        case MSG_TIMEOUT: return "timed out";
        case MSG_BAD_FRAME: return "bad frame";
        case MSG_EXPIRED: return "expired before dispatch";
        case MSG_BUSY: return "service busy";
        default: return "unknown result";
    }
}

bool register_object(const char* connection, long object_id, velmora::facade_template* obj) {
    return register_any(connection, object_id, obj, nullptr);
}

bool register_object(const char* connection, long object_id, velmora::observer_template* obj) {
    return register_any(connection, object_id, nullptr, obj);
}

bool unregister_object(const char* connection, long object_id) {
    if (connection == nullptr) return false;
    message_state& s = state();
    std::unique_lock<std::mutex> lock(s.registry_mtx);
    auto it = s.registry.find(registry_key(connection_name(connection), object_key(object_id)));
    if (it == s.registry.end()) return false;
    std::shared_ptr<registration> reg = it->second;
    s.registry.erase(it);
    int own = this_thread_deliveries(reg.get());
    s.delivery_done.wait(lock, [&] { return reg->in_flight <= own; });
    return true;
}

void message_spy_begin(message_script script) {
    message_state& s = state();
    std::lock_guard<std::mutex> lock(s.spy_mtx);
    s.spying = true;
    s.script = std::move(script);
    s.spied.clear();
}

void message_spy_end() {
    message_state& s = state();
    std::lock_guard<std::mutex> lock(s.spy_mtx);
    s.spying = false;
    s.script = nullptr;
}

std::vector<sent_message> spied_messages() {
    message_state& s = state();
    std::lock_guard<std::mutex> lock(s.spy_mtx);
    return s.spied;
}

void set_check_script(check_script script) {
    message_state& s = state();
    std::lock_guard<std::mutex> lock(s.spy_mtx);
    s.checker = std::move(script);
}

}  // namespace tevhost
