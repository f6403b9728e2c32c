// What the live tools ask of the handler service: its status and the lines of
// its monitor ring, and how both travel (the host-only requests of
// handler_service.h).
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "gen_ipc.h"
#include "handler_service.h"
#include "host/tev_host.h"
#include "service_internal.h"
#include "tev_ash_connecter.h"
#include "tev_ash_messages.h"
#include "tiv_trace.h"

namespace tevash_tools {

using namespace velmora;

namespace {

using tev_ash_wire::get_u32;
using tev_ash_wire::put_u32;

// A field of a status line: bytes that are spaces, controls, '%' or not ASCII
// as %XX; "-" for an empty one.
std::string escaped(const std::string& text) {
    if (text.empty()) return "-";
    if (text == "-") return "%2D";
    std::string out;
    for (unsigned char c : text) {
        if (c <= 0x20 || c == '%' || c >= 0x7F) {
            char hex[4];
            std::snprintf(hex, sizeof hex, "%%%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

bool unescaped(const std::string& field, std::string* out) {
    out->clear();
    if (field == "-") return true;
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] != '%') {
            *out += field[i];
            continue;
        }
        unsigned int c = 0;
        if (i + 2 >= field.size() || !std::isxdigit(static_cast<unsigned char>(field[i + 1])) ||
            !std::isxdigit(static_cast<unsigned char>(field[i + 2])) ||
            std::sscanf(field.c_str() + i + 1, "%2X", &c) != 1) {
            return false;
        }
        *out += static_cast<char>(c);
        i += 2;
    }
    return true;
}

}  // namespace

void handler_service::status(const gen_ipc_msghdr& hdr) {
    service_status s;
    s.pid = static_cast<int>(::getpid());
    s.started_us = started_us_;
    std::string store;
    if (tevhost::shared_store_file(&store)) s.store = store;
    {
        std::lock_guard<std::mutex> lock(directors_mtx_);
        for (const auto& registered : directors_) {
            const director_entry& d = registered.second;
            service_status::director out;
            out.app_type = registered.first;
            out.obj_id = d.obj_id;
            out.pid = d.pid;
            out.answering = !d.health->unresponsive.load() &&
                            (!d.health->remote || tevhost::connection_served(d.connection_name));
            out.connection = d.connection_name;
            s.directors.push_back(out);
        }
    }
    {
        std::lock_guard<std::mutex> lock(connecters_mtx_);
        for (const auto& c : connecters_) {
            service_status::connecter out;
            out.id = c.first;
            out.status = c.second->get_status();
            out.pid = connecter_pids_[c.first];
            if (out.pid == 0) out.pid = s.pid;
            char name[TEV_ASH_CONNECTION_NAME_LEN + 1];
            std::snprintf(name, sizeof name, "TEV_ASH_CON%03u", out.id);
            out.name = name;
            s.connecters.push_back(out);
        }
    }
    for (const auto& p : tevhost::served_peers(TEV_ASH_SRV_NAME)) {
        s.peers.push_back({p.pid, p.connections});
    }
    const std::string text = encode_status(s);
    gen_ipc_reply(hdr, text.data(), static_cast<unsigned int>(text.size()));
}

// Request: the sequence number after which lines are wanted (low and high
// 32 bits; all ones: from now on), the wait in ms and the most lines wanted.
// Reply: a result, the last sequence number given out (low, high), the count
// of lines, then the lines.
void handler_service::monitor(const char* req, unsigned int len, const gen_ipc_msghdr& hdr) {
    char head[16] = {};
    if (req == nullptr || len != 16) {
        // A client sending nothing but bad requests gets one trace line a second.
        static std::atomic<long long> traced_us{0};
        static std::atomic<unsigned int> untraced{0};
        const long long now = wall_us();
        long long then = traced_us.load();
        if (now - then >= 1000000 && traced_us.compare_exchange_strong(then, now)) {
            tivGENTrcPrintf(0xE200, 0x102, 0,
                            "handler_service::monitor,request of %u bytes refused (16 expected; "
                            "%u more refused since the last such line)\n",
                            len, untraced.exchange(0));
        } else {
            ++untraced;
        }
        put_u32(head, TEV_ASH_RC_BAD_ARG);
        gen_ipc_reply(hdr, head, sizeof head);
        return;
    }
    const unsigned long long after =
        get_u32(req) | (static_cast<unsigned long long>(get_u32(req + 4)) << 32);
    const unsigned int wait_ms = std::min(get_u32(req + 8), MONITOR_MAX_WAIT_MS);
    const unsigned int most = std::min(
        get_u32(req + 12), static_cast<unsigned int>((64 * 1024 - 64) / monitor_line::SIZE));
    int pid = tevhost::request_peer_pid();
    std::vector<monitor_line> lines;
    const unsigned long long last = monitor_.after(after, most, wait_ms, pid, &lines);
    std::vector<char> out(16 + lines.size() * monitor_line::SIZE);
    put_u32(out.data() + 4, static_cast<std::uint32_t>(last));
    put_u32(out.data() + 8, static_cast<std::uint32_t>(last >> 32));
    put_u32(out.data() + 12, static_cast<std::uint32_t>(lines.size()));
    for (std::size_t i = 0; i < lines.size(); ++i) {
        encode_monitor_line(lines[i], out.data() + 16 + i * monitor_line::SIZE);
    }
    gen_ipc_reply(hdr, out.data(), static_cast<unsigned int>(out.size()));
}

void handler_service::monitor_ring::add(const monitor_line& line,
                                        const std::vector<monitor_line>& then) {
    {
        std::lock_guard<std::mutex> lock(mtx_);
        const auto now = std::chrono::steady_clock::now();
        if (now - looked_ > std::chrono::seconds(1)) {
            // A monitor that stopped without a word: its process has ended.
            looked_ = now;
            pids_.erase(std::remove_if(pids_.begin(), pids_.end(), process_gone), pids_.end());
            if (pids_.empty()) {
                attached_.store(false, std::memory_order_relaxed);
                return;
            }
        }
        if (ring_.empty()) return;
        ring_[++last_seq_ % ring_.size()] = line;
        ring_[last_seq_ % ring_.size()].seq = last_seq_;
        for (const auto& l : then) {
            ring_[++last_seq_ % ring_.size()] = l;
            ring_[last_seq_ % ring_.size()].seq = last_seq_;
        }
    }
    added_.notify_all();
}

unsigned long long handler_service::monitor_ring::after(unsigned long long after, unsigned int max,
                                                        unsigned int wait_ms, int pid,
                                                        std::vector<monitor_line>* out) {
    std::unique_lock<std::mutex> lock(mtx_);
    if (ring_.empty()) ring_.resize(MONITOR_RING);
    if (std::find(pids_.begin(), pids_.end(), pid) == pids_.end()) pids_.push_back(pid);
    looked_ = std::chrono::steady_clock::now();
    attached_.store(true, std::memory_order_relaxed);
    if (after == ~0ull) return last_seq_;
    added_.wait_for(lock, std::chrono::milliseconds(wait_ms),
                    [&] { return stopping_ || last_seq_ != after; });
    if (after > last_seq_) return last_seq_;  // another service's numbers: start again
    const unsigned long long kept = ring_.size();
    const unsigned long long oldest = last_seq_ >= kept ? last_seq_ - kept + 1 : 1;
    for (unsigned long long seq = std::max(after + 1, oldest);
         seq <= last_seq_ && out->size() < max; ++seq) {
        out->push_back(ring_[seq % kept]);
    }
    return last_seq_;
}

void handler_service::monitor_ring::stop() {
    {
        std::lock_guard<std::mutex> lock(mtx_);
        stopping_ = true;
    }
    added_.notify_all();
}

std::string encode_status(const service_status& s) {
    std::string text = "service " + std::to_string(s.pid) + ' ' + std::to_string(s.started_us) +
                       ' ' + escaped(s.store) + '\n';
    for (const auto& d : s.directors) {
        text += "director " + std::to_string(d.app_type) + ' ' + std::to_string(d.obj_id) + ' ' +
                std::to_string(d.pid) + ' ' + (d.answering ? "1 " : "0 ") + escaped(d.connection) +
                '\n';
    }
    for (const auto& c : s.connecters) {
        text += "connecter " + std::to_string(c.id) + ' ' + std::to_string(c.status) + ' ' +
                std::to_string(c.pid) + ' ' + escaped(c.name) + '\n';
    }
    for (const auto& p : s.peers) {
        text += "peer " + std::to_string(p.pid) + ' ' + std::to_string(p.connections) + '\n';
    }
    return text;
}

bool decode_status(const char* text, unsigned int len, service_status* out) {
    if (text == nullptr) return false;
    *out = service_status{};
    bool service = false;
    std::string all(text, len);
    std::size_t at = 0;
    while (at < all.size()) {
        std::size_t end = all.find('\n', at);
        if (end == std::string::npos) return false;
        std::vector<std::string> f;
        for (std::size_t i = at; i < end;) {
            std::size_t sp = all.find(' ', i);
            if (sp == std::string::npos || sp > end) sp = end;
            f.push_back(all.substr(i, sp - i));
            i = sp + 1;
        }
        at = end + 1;
        try {
            if (f.size() == 4 && f[0] == "service") {
                out->pid = std::stoi(f[1]);
                out->started_us = std::stoll(f[2]);
                if (!unescaped(f[3], &out->store)) return false;
                service = true;
            } else if (f.size() == 6 && f[0] == "director") {
                service_status::director d;
                d.app_type = std::stoi(f[1]);
                d.obj_id = std::stol(f[2]);
                d.pid = std::stoi(f[3]);
                d.answering = f[4] == "1";
                if (!unescaped(f[5], &d.connection)) return false;
                out->directors.push_back(d);
            } else if (f.size() == 5 && f[0] == "connecter") {
                service_status::connecter c;
                c.id = static_cast<unsigned int>(std::stoul(f[1]));
                c.status = std::stoi(f[2]);
                c.pid = std::stoi(f[3]);
                if (!unescaped(f[4], &c.name)) return false;
                out->connecters.push_back(c);
            } else if (f.size() == 3 && f[0] == "peer") {
                out->peers.push_back({std::stoi(f[1]), std::stoi(f[2])});
            } else {
                return false;
            }
        } catch (const std::exception&) {
            return false;
        }
    }
    return service;
}

// The line on the wire: 16 little-endian 32-bit fields, then the name's 16 bytes.
void encode_monitor_line(const monitor_line& l, char* out) {
    const std::uint32_t fields[16] = {
        static_cast<std::uint32_t>(l.seq),
        static_cast<std::uint32_t>(l.seq >> 32),
        static_cast<std::uint32_t>(static_cast<unsigned long long>(l.time_us)),
        static_cast<std::uint32_t>(static_cast<unsigned long long>(l.time_us) >> 32),
        l.latency_us,
        static_cast<std::uint32_t>(l.pid),
        static_cast<std::uint32_t>(l.func_id),
        l.fields,
        l.app_type,
        l.service_type,
        l.category,
        l.handler_id,
        l.source_id,
        l.connecter,
        l.result,
        static_cast<std::uint32_t>(tev_ash_wire::object_id_to_wire(l.obj_id))};
    for (int i = 0; i < 16; ++i) put_u32(out + 4 * i, fields[i]);
    tev_ash_wire::put_name(out + 64, l.name);
}

monitor_line decode_monitor_line(const char* in) {
    monitor_line l;
    auto u = [in](int i) { return get_u32(in + 4 * i); };
    l.seq = u(0) | (static_cast<unsigned long long>(u(1)) << 32);
    l.time_us = static_cast<long long>(u(2) | (static_cast<unsigned long long>(u(3)) << 32));
    l.latency_us = u(4);
    l.pid = static_cast<int>(u(5));
    l.func_id = static_cast<std::int32_t>(u(6));
    l.fields = u(7);
    l.app_type = u(8);
    l.service_type = u(9);
    l.category = u(10);
    l.handler_id = u(11);
    l.source_id = u(12);
    l.connecter = u(13);
    l.result = u(14);
    l.obj_id = tev_ash_wire::object_id_from_wire(static_cast<std::int32_t>(u(15)));
    std::memcpy(l.name, in + 64, TEV_ASH_CONNECTION_NAME_LEN);
    l.name[TEV_ASH_CONNECTION_NAME_LEN] = '\0';
    return l;
}

std::string function_name(long func_id, bool notification) {
    static const char* const names[] = {
        "add_observer",    "remove_observer", "create",
        "remove",          "reset",           "notify_start",
        "notify_init_end", "notify_stop",     "get_director_observer"};
    if (notification && func_id >= TEV_ASH_FUNC_CREATE && func_id <= TEV_ASH_FUNC_RESET) {
        return std::string("notify_") + names[func_id];
    }
    if (!notification && func_id >= 0 && func_id <= TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER) {
        return names[func_id];
    }
    return "function " + std::to_string(func_id);
}

std::string result_words(unsigned int code) {
    switch (code) {
        case TEV_ASH_RC_OK: return "";
        case TEV_ASH_RC_FAILURE: return "failure";
        case TEV_ASH_RC_NOT_EXIST: return "does not exist";
        case TEV_ASH_RC_OBSERVER_EXISTS: return "a director is registered for the type";
        case TEV_ASH_RC_NO_OBSERVER: return "no director for the type";
        case TEV_ASH_RC_NO_SERVICE: return "no handler service";
        case TEV_ASH_RC_BAD_ARG: return "bad argument";
        default: return tevhost::host_code_text(code);
    }
}

}  // namespace tevash_tools
