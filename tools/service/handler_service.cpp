#include "handler_service.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <set>
#include <vector>

#include "gen_ipc.h"
#include "host/tev_host.h"
#include "service_internal.h"
#include "tev_ash_connecter.h"
#include "tev_ash_director_manager.h"
#include "tev_ash_messages.h"
#include "tev_ash_observer_impl.h"
#include "tiv_trace.h"
#include "vlq_mc_client.h"

namespace tevash_tools {

using namespace velmora;

namespace {

// The monitor line of the request this thread is answering, while a monitor is
// attached: the reply helpers note the answer in it.
thread_local monitor_line* t_line = nullptr;
// The notifications that request sent, written to the ring after it.
thread_local std::vector<monitor_line>* t_notes = nullptr;

void note_result(unsigned int rc) {
    if (t_line == nullptr) return;
    t_line->result = rc;
    t_line->fields |= monitor_line::RESULT;
}

void reply_ctrl(const gen_ipc_msghdr& hdr, long func_id, const tev_ash_ctrl_rpl& rpl) {
    if (t_line != nullptr) {
        note_result(rpl.ret);
        if (rpl.ret == TEV_ASH_RC_OK && func_id == TEV_ASH_FUNC_CTRL_NOTIFY_START) {
            t_line->connecter = rpl.connecter_id;
            t_line->fields |= monitor_line::CONNECTER;
        } else if (rpl.ret == TEV_ASH_RC_OK && func_id == TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER) {
            t_line->obj_id = tev_ash_wire::object_id_from_wire(rpl.obj_id);
            std::memcpy(t_line->name, rpl.connection_name, TEV_ASH_CONNECTION_NAME_LEN);
            t_line->fields |= monitor_line::OBJECT_ID | monitor_line::NAME;
        }
    }
    char buf[tev_ash_ctrl_rpl::SIZE];
    encode(rpl, func_id, buf);
    gen_ipc_reply(hdr, buf, ctrl_rpl_length(func_id));
}

void reply_ctrl_ret(const gen_ipc_msghdr& hdr, long func_id, unsigned int ret) {
    tev_ash_ctrl_rpl rpl;
    rpl.ret = ret;
    reply_ctrl(hdr, func_id, rpl);
}

void reply_result(const gen_ipc_msghdr& hdr, unsigned int rc) {
    note_result(rc);
    tev_ash_result_rpl rpl;
    rpl.rc = rc;
    char buf[tev_ash_result_rpl::SIZE];
    encode(rpl, buf);
    gen_ipc_reply(hdr, buf, sizeof buf);
}

// A 16-byte name field as a terminated string.
void terminated_name(char (&dst)[TEV_ASH_CONNECTION_NAME_LEN + 1], const char* field) {
    tev_ash_wire::put_name(dst, field);
    dst[TEV_ASH_CONNECTION_NAME_LEN] = '\0';
}

unsigned int micros_since(std::chrono::steady_clock::time_point start) {
    return static_cast<unsigned int>(std::chrono::duration_cast<std::chrono::microseconds>(
                                         std::chrono::steady_clock::now() - start)
                                         .count());
}

// One notification to a director as a monitor line, when a monitor is attached.
class noted_notification {
public:
    noted_notification(handler_service::monitor_ring* ring, long func_id, int app_type,
                       const handler_service::director_entry& to)
        : ring_(ring), on_(ring->attached()) {
        if (!on_) return;
        line.time_us = wall_us();
        line.pid = to.pid;
        line.func_id = func_id;
        line.app_type = static_cast<unsigned int>(app_type);
        line.obj_id = to.obj_id;
        std::memcpy(line.name, to.connection_name, sizeof line.name);
        line.fields = monitor_line::NOTIFICATION | monitor_line::APP_TYPE |
                      monitor_line::OBJECT_ID | monitor_line::NAME;
        start_ = std::chrono::steady_clock::now();
    }
    void done(long result) {
        if (!on_) return;
        line.result = static_cast<unsigned int>(result);
        line.fields |= monitor_line::RESULT;
        line.latency_us = micros_since(start_);
        if (t_notes != nullptr) {
            t_notes->push_back(line);
        } else {
            ring_->add(line);
        }
    }
    monitor_line line;

private:
    handler_service::monitor_ring* ring_;
    bool on_;
    std::chrono::steady_clock::time_point start_;
};

// The director that a proxy found gone while this thread routed a request.
thread_local bool t_gone_set = false;
thread_local handler_service::director_entry t_gone;

// The service's proxy of a director's observer: the library's proxy, plus a look
// at the transport's outcome of each notification it sent (see the header).
class director_proxy : public tev_ash_observer_impl {
public:
    director_proxy(const handler_service::director_entry& director,
                   handler_service::monitor_ring* ring, int app_type)
        : tev_ash_observer_impl(director.obj_id, director.connection_name),
          director_(director),
          ring_(ring),
          app_type_(app_type) {}

    void notify_create(TEV_ASH_CATEGORY category, TEV_ASH_SERVICE_TYPE service_type,
                       unsigned int& handler_id, unsigned int src_handler_id,
                       long& result) override {
        noted_notification noted(ring_, TEV_ASH_FUNC_CREATE, app_type_, director_);
        noted.line.category = category;
        noted.line.service_type = static_cast<unsigned int>(service_type);
        noted.line.source_id = src_handler_id;
        noted.line.fields |=
            monitor_line::CATEGORY | monitor_line::SERVICE_TYPE | monitor_line::SOURCE_ID;
        if (!unresponsive("notify_create", result)) {
            tev_ash_observer_impl::notify_create(category, service_type, handler_id, src_handler_id,
                                                 result);
            if (reached("notify_create", result)) {
                noted.line.handler_id = handler_id;
                noted.line.fields |= monitor_line::HANDLER_ID;
                noted.done(result);
                return;
            }
        }
        handler_id = 0;
        noted.done(result);
    }
    void notify_remove(unsigned int handler_id, long& result) override {
        noted_notification noted(ring_, TEV_ASH_FUNC_REMOVE, app_type_, director_);
        noted.line.handler_id = handler_id;
        noted.line.fields |= monitor_line::HANDLER_ID;
        if (!unresponsive("notify_remove", result)) {
            tev_ash_observer_impl::notify_remove(handler_id, result);
            reached("notify_remove", result);
        }
        noted.done(result);
    }
    void notify_reset(TEV_ASH_SERVICE_TYPE service_type, unsigned int handler_id,
                      long& result) override {
        noted_notification noted(ring_, TEV_ASH_FUNC_RESET, app_type_, director_);
        noted.line.service_type = static_cast<unsigned int>(service_type);
        noted.line.handler_id = handler_id;
        noted.line.fields |= monitor_line::SERVICE_TYPE | monitor_line::HANDLER_ID;
        if (!unresponsive("notify_reset", result)) {
            tev_ash_observer_impl::notify_reset(service_type, handler_id, result);
            reached("notify_reset", result);
        }
        noted.done(result);
    }

private:
    void trace(const char* function, const char* what, const char* why) const {
        tivGENTrcPrintf(0xE200, 0x102, 0, "handler_service::%s,director \"%s\" object %#x %s: %s\n",
                        function, director_.connection_name,
                        static_cast<unsigned int>(director_.obj_id), what, why);
    }

    // True, with the result set and nothing sent, while the director is marked
    // unresponsive.
    bool unresponsive(const char* function, long& result) const {
        if (!director_.health->unresponsive.load()) return false;
        result = static_cast<long>(tevhost::HOST_DIRECTOR_UNRESPONSIVE);
        trace(function, "not asked", "it is not answering");
        return true;
    }

    bool reached(const char* function, long& result) const {
        const int status = tevhost::last_send_status();
        if (status == tevhost::MSG_OK) {
            if (director_.health->unresponsive.exchange(false)) {
                trace(function, "answers", "no longer marked unresponsive");
            }
            return true;
        }
        // Only a result that proves the director did nothing is "unreachable".
        const bool unknown = tevhost::send_outcome_unknown(status) ||
                             status == tevhost::MSG_BAD_FRAME || status == tevhost::MSG_NO_REPLY;
        result = static_cast<long>(unknown ? tevhost::HOST_OUTCOME_UNKNOWN
                                           : tevhost::HOST_DIRECTOR_UNREACHABLE);
        trace(function, unknown ? "did not answer, the outcome is unknown" : "not reached",
              tevhost::send_status_text(status));
        if (status == tevhost::MSG_TIMEOUT && !director_.health->unresponsive.exchange(true)) {
            trace(function, "marked unresponsive", "later requests are answered at once");
        }
        if (status == tevhost::MSG_NOT_LISTENING || status == tevhost::MSG_PEER_GONE ||
            status == tevhost::MSG_NO_OBJECT) {
            t_gone = director_;
            t_gone_set = true;
        }
        return false;
    }

    handler_service::director_entry director_;
    handler_service::monitor_ring* ring_;
    int app_type_;
};

}  // namespace

bool handler_service::director_entry::same_director(const director_entry& other) const {
    return obj_id == other.obj_id &&
           std::strncmp(connection_name, other.connection_name, sizeof connection_name) == 0;
}

handler_service::handler_service() : started_us_(wall_us()) {}

handler_service::~handler_service() {
    monitor_.stop();
    {
        std::lock_guard<std::mutex> lock(watch_mtx_);
        stopping_ = true;
    }
    watch_cv_.notify_all();
    if (watcher_.joinable()) watcher_.join();
    if (prober_.joinable()) prober_.join();
    std::vector<long> registered;
    {
        std::lock_guard<std::mutex> lock(directors_mtx_);
        for (const auto& entry : directors_) registered.push_back(entry.second.obj_id);
        directors_.clear();
    }
    // One proxy per registration: withdraw each exactly once, so that no
    // withdrawal asks for a proxy that is already gone.
    tev_ash_director_manager* manager = tev_ash_director_manager::get_instance();
    for (long obj_id : registered) manager->remove_observer(obj_id);
    std::lock_guard<std::mutex> lock(connecters_mtx_);
    connecters_.clear();
}

void handler_service::dispatch(long func_id, char* rcvbuf, unsigned int rcvbuf_len,
                               gen_ipc_msghdr sync_handle) {
    const unsigned int len = rcvbuf == nullptr ? 0 : rcvbuf_len;
    if (monitor_.attached() && func_id >= TEV_ASH_FUNC_ADD_OBSERVER &&
        func_id <= TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER) {
        monitored(func_id, rcvbuf, len, sync_handle);
        return;
    }
    route(func_id, rcvbuf, len, sync_handle);
}

void handler_service::route(long func_id, char* rcvbuf, unsigned int len,
                            const gen_ipc_msghdr& sync_handle) {
    switch (func_id) {
        case TEV_ASH_FUNC_ADD_OBSERVER: add_observer(rcvbuf, len, sync_handle); break;
        case TEV_ASH_FUNC_REMOVE_OBSERVER: remove_observer(rcvbuf, len, sync_handle); break;
        case TEV_ASH_FUNC_CREATE: create(rcvbuf, len, sync_handle); break;
        case TEV_ASH_FUNC_REMOVE: remove(rcvbuf, len, sync_handle); break;
        case TEV_ASH_FUNC_RESET: reset(rcvbuf, len, sync_handle); break;
        case TEV_ASH_FUNC_CTRL_NOTIFY_START: notify_start(sync_handle); break;
        case TEV_ASH_FUNC_CTRL_NOTIFY_INIT_END:
        case TEV_ASH_FUNC_CTRL_NOTIFY_STOP:
            set_connecter_status(func_id, rcvbuf, len, sync_handle);
            break;
        case TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER:
            get_director_observer(rcvbuf, len, sync_handle);
            break;
        case HOST_FUNC_STATUS: status(sync_handle); break;
        case HOST_FUNC_MONITOR: monitor(rcvbuf, len, sync_handle); break;
        default: break;  // unknown function: no reply
    }
}

void handler_service::add_observer(const char* req, unsigned int len, const gen_ipc_msghdr& hdr) {
    tev_ash_add_observer_req request;
    if (!decode(req, len, &request)) {
        reply_ctrl_ret(hdr, TEV_ASH_FUNC_ADD_OBSERVER, TEV_ASH_RC_BAD_ARG);
        return;
    }
    director_entry entry;
    entry.obj_id = tev_ash_wire::object_id_from_wire(request.observer);
    terminated_name(entry.connection_name, request.connection_name);
    auto app_type = static_cast<TEV_ASH_APP_TYPE>(request.app_type);
    {
        // The registrations of one director share what is known of it.
        std::lock_guard<std::mutex> lock(directors_mtx_);
        for (const auto& registered : directors_) {
            if (registered.second.same_director(entry)) entry.health = registered.second.health;
        }
    }
    if (!entry.health) {
        entry.health = std::make_shared<director_health>();
        entry.health->remote = tevhost::connection_served(entry.connection_name);
    }

    entry.pid = tevhost::request_peer_pid();
    if (entry.pid == 0) entry.pid = static_cast<int>(::getpid());
    auto* proxy = new director_proxy(entry, &monitor_, app_type);
    tev_ash_director_manager* manager = tev_ash_director_manager::get_instance();
    unsigned int ret = manager->add_observer(app_type, proxy);
    if (ret == TEV_ASH_RC_OBSERVER_EXISTS && withdraw_unreachable(app_type)) {
        ret = manager->add_observer(app_type, proxy);
    }
    if (ret != TEV_ASH_RC_OK) {
        delete proxy;  // refused: still ours
    } else {
        {
            std::lock_guard<std::mutex> lock(directors_mtx_);
            directors_[app_type] = entry;
        }
        start_watching();
    }
    reply_ctrl_ret(hdr, TEV_ASH_FUNC_ADD_OBSERVER, ret);
}

void handler_service::remove_observer(const char* req, unsigned int len,
                                      const gen_ipc_msghdr& hdr) {
    tev_ash_remove_observer_req request;
    if (!decode(req, len, &request)) {
        reply_ctrl_ret(hdr, TEV_ASH_FUNC_REMOVE_OBSERVER, TEV_ASH_RC_BAD_ARG);
        return;
    }
    const long obj_id = tev_ash_wire::object_id_from_wire(request.observer);
    int pid = tevhost::request_peer_pid();
    if (pid == 0) pid = static_cast<int>(::getpid());
    // A director withdraws every registration of its observer at once (those
    // its process made). An observer this service does not know is still asked
    // for, so that the director manager gives its own answer.
    const unsigned int ret =
        take_out(obj_id, [pid](const director_entry& e) { return e.pid == pid; });
    reply_ctrl_ret(hdr, TEV_ASH_FUNC_REMOVE_OBSERVER, ret);
}

void handler_service::create(const char* req, unsigned int len, const gen_ipc_msghdr& hdr) {
    tev_ash_create_req request;
    tev_ash_create_rpl rpl;
    if (!decode(req, len, &request)) {
        rpl.rc = TEV_ASH_RC_BAD_ARG;
    } else {
        unsigned int handler_id = 0;
        rpl.rc = tev_ash_director_manager::get_instance()->create(
            static_cast<TEV_ASH_CATEGORY>(request.category),
            static_cast<TEV_ASH_APP_TYPE>(request.app_type),
            static_cast<TEV_ASH_SERVICE_TYPE>(request.service_type), &handler_id,
            request.src_handler_id);
        rpl.handler_id = handler_id;
        withdraw_gone_director();
    }
    if (t_line != nullptr && rpl.rc == TEV_ASH_RC_OK) {
        t_line->handler_id = rpl.handler_id;
        t_line->fields |= monitor_line::HANDLER_ID;
    }
    note_result(rpl.rc);
    char buf[tev_ash_create_rpl::SIZE];
    encode(rpl, buf);
    gen_ipc_reply(hdr, buf, sizeof buf);
}

void handler_service::remove(const char* req, unsigned int len, const gen_ipc_msghdr& hdr) {
    tev_ash_remove_req request;
    if (!decode(req, len, &request)) {
        reply_result(hdr, TEV_ASH_RC_BAD_ARG);
        return;
    }
    const unsigned int rc = tev_ash_director_manager::get_instance()->remove(
        static_cast<TEV_ASH_APP_TYPE>(request.app_type), request.handler_id);
    withdraw_gone_director();
    reply_result(hdr, rc);
}

void handler_service::reset(const char* req, unsigned int len, const gen_ipc_msghdr& hdr) {
    tev_ash_reset_req request;
    if (!decode(req, len, &request)) {
        reply_result(hdr, TEV_ASH_RC_BAD_ARG);
        return;
    }
    const unsigned int rc = tev_ash_director_manager::get_instance()->reset(
        static_cast<TEV_ASH_APP_TYPE>(request.app_type),
        static_cast<TEV_ASH_SERVICE_TYPE>(request.service_type), request.handler_id);
    withdraw_gone_director();
    reply_result(hdr, rc);
}

template <typename Leaving>
unsigned int handler_service::take_out(long obj_id, Leaving&& leaving, unsigned int* taken) {
    std::vector<std::pair<TEV_ASH_APP_TYPE, director_entry>> staying;
    unsigned int left = 0;
    {
        std::lock_guard<std::mutex> lock(directors_mtx_);
        for (auto it = directors_.begin(); it != directors_.end();) {
            if (it->second.obj_id != obj_id) {
                ++it;
            } else if (leaving(it->second)) {
                it = directors_.erase(it);
                ++left;
            } else {
                staying.emplace_back(it->first, it->second);
                ++it;
            }
        }
    }
    if (taken != nullptr) *taken = left;
    // The manager knows a director by its object id alone, and the ids of two
    // processes' directors (the low 32 bits of their addresses) may agree: it
    // takes out every registration of the id, one per call, and those of the
    // directors that stay are made again.
    tev_ash_director_manager* manager = tev_ash_director_manager::get_instance();
    // An id the service does not know is still asked for once, so that the
    // manager gives its own answer.
    unsigned int ret = TEV_ASH_RC_OK;
    const std::size_t removals = std::max<std::size_t>(1, left + staying.size());
    for (std::size_t i = 0; i < removals; ++i) {
        const unsigned int rc = manager->remove_observer(obj_id);
        if (i == 0) ret = rc;
    }
    for (const auto& kept : staying) {
        auto* proxy = new director_proxy(kept.second, &monitor_, kept.first);
        if (manager->add_observer(kept.first, proxy) != TEV_ASH_RC_OK) delete proxy;
    }
    return ret;
}

unsigned int handler_service::withdraw(const director_entry& gone, const char* why) {
    unsigned int registrations = 0;
    take_out(
        gone.obj_id,
        [&gone](const director_entry& e) {
            return e.same_director(gone) && (!gone.health || e.health == gone.health);
        },
        &registrations);
    if (registrations != 0) {
        tivGENTrcPrintf(0xE200, 0x102, 0,
                        "handler_service::withdraw,director \"%s\" object %#x %s: %u "
                        "registration(s) withdrawn\n",
                        gone.connection_name, static_cast<unsigned int>(gone.obj_id), why,
                        registrations);
    }
    return registrations;
}

void handler_service::withdraw_gone_director() {
    if (!t_gone_set) return;
    t_gone_set = false;
    withdraw(t_gone, "is gone");
    t_gone = director_entry{};
}

bool handler_service::withdraw_unreachable(TEV_ASH_APP_TYPE app_type) {
    director_entry registered{};
    {
        std::lock_guard<std::mutex> lock(directors_mtx_);
        auto it = directors_.find(app_type);
        if (it == directors_.end()) return false;
        registered = it->second;
    }
    if (vlq_mc_client::vlq_mc_check_facade(registered.connection_name, registered.obj_id) != 0) {
        return false;
    }
    return withdraw(registered, "does not answer a check") != 0;
}

template <typename Pick>
std::vector<handler_service::director_entry> handler_service::directors_where(Pick&& pick) {
    std::vector<director_entry> found;
    std::lock_guard<std::mutex> lock(directors_mtx_);
    for (const auto& registered : directors_) {
        const director_entry& d = registered.second;
        if (!pick(d)) continue;
        bool seen = false;
        for (const auto& f : found) seen = seen || f.health == d.health;
        if (!seen) found.push_back(d);
    }
    return found;
}

void handler_service::start_watching() {
    std::lock_guard<std::mutex> lock(watch_mtx_);
    if (stopping_ || watcher_.joinable()) return;
    watcher_ = std::thread([this] { watch_deaths(); });
    prober_ = std::thread([this] { probe_unresponsive(); });
}

bool handler_service::sleep_unless_stopping(std::chrono::milliseconds period) {
    std::unique_lock<std::mutex> lock(watch_mtx_);
    return !watch_cv_.wait_for(lock, period, [this] { return stopping_; });
}

void handler_service::watch_deaths() {
    while (sleep_unless_stopping(std::chrono::milliseconds(50))) {
        for (const auto& d :
             directors_where([](const director_entry& e) { return e.health->remote; })) {
            // The check (quick when nothing listens) spares a director whose
            // object is registered in this process.
            if (!tevhost::connection_served(d.connection_name) &&
                vlq_mc_client::vlq_mc_check_facade(d.connection_name, d.obj_id) == 0) {
                withdraw(d, "is gone (its process no longer serves its connection)");
            }
        }
    }
}

void handler_service::probe_unresponsive() {
    while (sleep_unless_stopping(std::chrono::milliseconds(100))) {
        for (const auto& d : directors_where(
                 [](const director_entry& e) { return e.health->unresponsive.load(); })) {
            // Blocks up to the message timeout while the director stays silent.
            if (vlq_mc_client::vlq_mc_check_facade(d.connection_name, d.obj_id) != 0 &&
                d.health->unresponsive.exchange(false)) {
                tivGENTrcPrintf(0xE200, 0x102, 0,
                                "handler_service::probe,director \"%s\" object %#x answers again\n",
                                d.connection_name, static_cast<unsigned int>(d.obj_id));
            }
        }
    }
}

void handler_service::notify_start(const gen_ipc_msghdr& hdr) {
    tev_ash_ctrl_rpl rpl;
    rpl.ret = TEV_ASH_RC_FAILURE;
    {
        std::lock_guard<std::mutex> lock(connecters_mtx_);
        for (unsigned int i = 0; i < MAX_CONNECTERS; ++i) {
            const auto conn_id =
                static_cast<unsigned char>((next_conn_id_ - 1 + i) % MAX_CONNECTERS + 1);
            auto it = connecters_.find(conn_id);
            if (it != connecters_.end() &&
                it->second->get_status() != tev_ash_connecter::CTRL_STATUS_STOPPED &&
                !process_gone(connecter_pids_[conn_id])) {
                continue;
            }
            char name[TEV_ASH_CONNECTION_NAME_LEN + 1];
            std::snprintf(name, sizeof name, "TEV_ASH_CON%03u", static_cast<unsigned int>(conn_id));
            auto connecter = std::make_unique<tev_ash_connecter>(conn_id, name);
            connecter->set_status(tev_ash_connecter::CTRL_STATUS_STARTED);
            connecters_[conn_id] = std::move(connecter);
            connecter_pids_[conn_id] = tevhost::request_peer_pid();
            next_conn_id_ = conn_id % MAX_CONNECTERS + 1;
            rpl.ret = TEV_ASH_RC_OK;
            rpl.connecter_id = conn_id;
            break;
        }
    }
    if (rpl.ret != TEV_ASH_RC_OK) {
        tivGENTrcPrintf(0xE200, 0x102, 0,
                        "handler_service::notify_start,all %u connecter ids are in use\n",
                        MAX_CONNECTERS);
    }
    reply_ctrl(hdr, TEV_ASH_FUNC_CTRL_NOTIFY_START, rpl);
}

void handler_service::set_connecter_status(long func_id, const char* req, unsigned int len,
                                           const gen_ipc_msghdr& hdr) {
    tev_ash_ctrl_req request;
    if (len < tev_ash_ctrl_req::SIZE_CONN_ID || !decode(req, len, &request)) {
        reply_ctrl_ret(hdr, func_id, TEV_ASH_RC_BAD_ARG);
        return;
    }
    unsigned int ret = TEV_ASH_RC_OK;
    {
        std::lock_guard<std::mutex> lock(connecters_mtx_);
        auto it = connecters_.find(request.conn_id);
        if (it == connecters_.end()) {
            ret = TEV_ASH_RC_BAD_ARG;
        } else {
            it->second->set_status(func_id == TEV_ASH_FUNC_CTRL_NOTIFY_INIT_END
                                       ? tev_ash_connecter::CTRL_STATUS_READY
                                       : tev_ash_connecter::CTRL_STATUS_STOPPED);
        }
    }
    reply_ctrl_ret(hdr, func_id, ret);
}

void handler_service::get_director_observer(const char* req, unsigned int len,
                                            const gen_ipc_msghdr& hdr) {
    tev_ash_ctrl_req request;
    if (len < tev_ash_ctrl_req::SIZE_DIRECTOR || !decode(req, len, &request)) {
        reply_ctrl_ret(hdr, TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER, TEV_ASH_RC_BAD_ARG);
        return;
    }
    const auto app_type = static_cast<TEV_ASH_APP_TYPE>(request.app_type);
    director_entry director{};
    bool known_director = false;
    {
        std::lock_guard<std::mutex> lock(directors_mtx_);
        auto it = directors_.find(app_type);
        if (it != directors_.end()) {
            director = it->second;
            known_director = true;
        }
    }
    tev_ash_ctrl_rpl rpl;
    {
        std::lock_guard<std::mutex> lock(connecters_mtx_);
        auto it = connecters_.find(request.conn_id);
        if (it == connecters_.end()) {
            rpl.ret = TEV_ASH_RC_BAD_ARG;
        } else if (!known_director) {
            rpl.ret = TEV_ASH_RC_NO_OBSERVER;
        } else {
            // The connecter answers with its proxy of the director's observer.
            long obj_id = director.obj_id;
            it->second->get_director_observer(app_type, obj_id, director.connection_name);
            director.connection_name[TEV_ASH_CONNECTION_NAME_LEN - 1] = '\0';
            rpl.obj_id = tev_ash_wire::object_id_to_wire(obj_id);
            tev_ash_wire::put_name(rpl.connection_name, director.connection_name);
        }
    }
    reply_ctrl(hdr, TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER, rpl);
}

// ---------------------------------------------------------------------------
// Monitoring: each request answered, as a line for the monitor ring.

namespace {

using tev_ash_wire::get_u32;

// Fields decoded from a request of the library's protocol, for its monitor line.
void describe_request(long func_id, const char* req, unsigned int len, monitor_line* line) {
    switch (func_id) {
        case TEV_ASH_FUNC_ADD_OBSERVER: {
            tev_ash_add_observer_req r;
            if (!decode(req, len, &r)) return;
            line->app_type = static_cast<unsigned int>(r.app_type);
            line->obj_id = tev_ash_wire::object_id_from_wire(r.observer);
            std::memcpy(line->name, r.connection_name, TEV_ASH_CONNECTION_NAME_LEN);
            line->fields |= monitor_line::APP_TYPE | monitor_line::OBJECT_ID | monitor_line::NAME;
            return;
        }
        case TEV_ASH_FUNC_REMOVE_OBSERVER: {
            tev_ash_remove_observer_req r;
            if (!decode(req, len, &r)) return;
            line->obj_id = tev_ash_wire::object_id_from_wire(r.observer);
            line->fields |= monitor_line::OBJECT_ID;
            return;
        }
        case TEV_ASH_FUNC_CREATE: {
            tev_ash_create_req r;
            if (!decode(req, len, &r)) return;
            line->category = r.category;
            line->app_type = static_cast<unsigned int>(r.app_type);
            line->service_type = static_cast<unsigned int>(r.service_type);
            line->source_id = r.src_handler_id;
            line->fields |= monitor_line::CATEGORY | monitor_line::APP_TYPE |
                            monitor_line::SERVICE_TYPE | monitor_line::SOURCE_ID;
            return;
        }
        case TEV_ASH_FUNC_REMOVE: {
            tev_ash_remove_req r;
            if (!decode(req, len, &r)) return;
            line->app_type = static_cast<unsigned int>(r.app_type);
            line->handler_id = r.handler_id;
            line->fields |= monitor_line::APP_TYPE | monitor_line::HANDLER_ID;
            return;
        }
        case TEV_ASH_FUNC_RESET: {
            tev_ash_reset_req r;
            if (!decode(req, len, &r)) return;
            line->app_type = static_cast<unsigned int>(r.app_type);
            line->service_type = static_cast<unsigned int>(r.service_type);
            line->handler_id = r.handler_id;
            line->fields |=
                monitor_line::APP_TYPE | monitor_line::SERVICE_TYPE | monitor_line::HANDLER_ID;
            return;
        }
        case TEV_ASH_FUNC_CTRL_NOTIFY_INIT_END:
        case TEV_ASH_FUNC_CTRL_NOTIFY_STOP:
        case TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER: {
            tev_ash_ctrl_req r;
            if (len < tev_ash_ctrl_req::SIZE_CONN_ID || !decode(req, len, &r)) return;
            line->connecter = r.conn_id;
            line->fields |= monitor_line::CONNECTER;
            if (func_id == TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER &&
                len >= tev_ash_ctrl_req::SIZE_DIRECTOR) {
                line->app_type = static_cast<unsigned int>(r.app_type);
                line->fields |= monitor_line::APP_TYPE;
            }
            return;
        }
        default: return;
    }
}

}  // namespace

void handler_service::monitored(long func_id, char* rcvbuf, unsigned int len,
                                const gen_ipc_msghdr& hdr) {
    monitor_line line;
    line.time_us = wall_us();
    line.pid = tevhost::request_peer_pid();
    line.func_id = func_id;
    describe_request(func_id, rcvbuf, len, &line);
    std::vector<monitor_line> notes;
    const auto start = std::chrono::steady_clock::now();
    t_line = &line;
    t_notes = &notes;
    route(func_id, rcvbuf, len, hdr);
    t_line = nullptr;
    t_notes = nullptr;
    line.latency_us = micros_since(start);
    monitor_.add(line, notes);
}

}  // namespace tevash_tools
