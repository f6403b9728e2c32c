#include "sample_director.h"

#include <time.h>

#include <vector>

#include "gen_ipc.h"
#include "host/tev_host.h"
#include "tev_ash_handler_facade.h"
#include "tev_ash_messages.h"
#include "tiv_trace.h"
#include "wud_wud_service_info.h"

namespace tevash_tools {

using namespace velmora;

namespace {

using store = wud_wud_service_info;

// The flag of a new record; the record store gives it no meaning here.
constexpr unsigned char RECORD_FLAG = 0;

char* own_name(char (&dst)[TEV_ASH_CONNECTION_NAME_LEN + 1], const char* field) {
    tev_ash_wire::put_name(dst, field);
    dst[TEV_ASH_CONNECTION_NAME_LEN] = '\0';
    return dst;
}

}  // namespace

sample_director::sample_director(const char* connection_name, unsigned int cmp_id)
    : tev_ash_observer(reinterpret_cast<long>(this), connection_name), cmp_id_(cmp_id) {}

sample_director::~sample_director() {
    stop();
}

unsigned int sample_director::start(TEV_ASH_APP_TYPE app_type) {
    if (started_) return TEV_ASH_RC_BAD_ARG;
    char name[TEV_ASH_CONNECTION_NAME_LEN + 1];
    own_name(name, connection_name_);
    if (!tevhost::register_object(name, get_obj_id(), static_cast<observer_template*>(this))) {
        return tevhost::HOST_ALREADY_REGISTERED;
    }
    const unsigned int rc =
        tev_ash_handler_facade::tev_ash_handler_get_instance()->tev_ash_handler_add_observer(
            app_type, this);
    if (rc != TEV_ASH_RC_OK) {
        tevhost::unregister_object(name, get_obj_id());
        return rc;
    }
    app_type_ = app_type;
    started_ = true;
    return TEV_ASH_RC_OK;
}

unsigned int sample_director::register_again() {
    if (!started_) return TEV_ASH_RC_BAD_ARG;
    return tev_ash_handler_facade::tev_ash_handler_get_instance()->tev_ash_handler_add_observer(
        app_type_, this);
}

unsigned int sample_director::stop() {
    if (!started_) return TEV_ASH_RC_OK;
    const unsigned int rc =
        tev_ash_handler_facade::tev_ash_handler_get_instance()->tev_ash_handler_remove_observer(
            this);
    char name[TEV_ASH_CONNECTION_NAME_LEN + 1];
    tevhost::unregister_object(own_name(name, connection_name_), get_obj_id());
    started_ = false;
    return rc;
}

template <typename Notify>
long sample_director::in_transaction(const char* function, Notify&& notify) {
    // Notifications take their turns here, on one mutex, rather than all at once
    // on the store's lock, whose every slot a transaction takes: with many
    // notifications in flight that halves the sleeps and wake-ups per turn.
    std::lock_guard<std::recursive_mutex> turn(turns_);
    tevhost::store_transaction txn;
    long result = 0;
    const bool stopping = stopping_.load();
    if (!stopping && !tevhost::request_expired()) notify(result);
    if (result != 0) return result;  // the transaction rolls back
    if (stopping || stopping_.load() || tevhost::request_expired()) {
        tivGENTrcPrintf(0xE200, 0x102, 0, "sample_director::%s,rolled back: %s\n", function,
                        stopping || stopping_.load()
                            ? "the director is stopping"
                            : "the handler service gave up on the request");
        return static_cast<long>(tevhost::STORE_ROLLED_BACK);
    }
    return static_cast<long>(txn.commit());
}

long sample_director::create_together(create_job& job) {
    std::unique_lock<std::mutex> lock(creates_mutex_);
    waiting_creates_.push_back(&job);
    // Wait while another thread carries out creates: it wakes this one when it
    // has carried out this create, or when it is done and this one is the
    // first still waiting.
    job.wake.wait(lock, [&] { return job.done || !creating_; });
    if (job.done) return job.result;
    // No thread is creating: this one carries out every create waiting, its
    // own among them.
    creating_ = true;
    std::vector<create_job*> jobs;
    jobs.swap(waiting_creates_);
    lock.unlock();
    run_creates(jobs);
    lock.lock();
    creating_ = false;
    for (create_job* j : jobs) {
        j->done = true;
        if (j != &job) j->wake.notify_one();
    }
    if (!waiting_creates_.empty()) waiting_creates_.front()->wake.notify_one();
    return job.result;
}

void sample_director::run_creates(const std::vector<create_job*>& jobs) {
    std::lock_guard<std::recursive_mutex> turn(turns_);
    auto expired = [](const create_job* j) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const long long us = static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
        return j->deadline_us != 0 && us >= j->deadline_us;
    };
    auto roll_back = [](create_job* j, bool stopping) {
        tivGENTrcPrintf(
            0xE200, 0x102, 0, "sample_director::notify_create,rolled back: %s\n",
            stopping ? "the director is stopping" : "the handler service gave up on the request");
        j->result = static_cast<long>(tevhost::STORE_ROLLED_BACK);
        j->handler_id = 0;
    };
    std::vector<create_job*> todo = jobs;
    while (!todo.empty()) {
        tevhost::store_transaction txn;
        const bool stopping = stopping_.load();
        std::vector<create_job*> ran;
        for (create_job* j : todo) {
            j->result = 0;
            j->handler_id = 0;
            if (stopping || expired(j)) {
                roll_back(j, stopping);  // not carried out: nothing to undo
                continue;
            }
            notify_create(j->category, j->service_type, j->handler_id, j->src_handler_id,
                          j->result);
            if (j->result == 0) ran.push_back(j);  // a failed create changed nothing
        }
        // The records made are kept only when the director is not stopping and
        // every create that made one is still awaited; otherwise this
        // transaction rolls back, and the creates still awaited are made again
        // in a new one.
        const bool stop = stopping_.load();
        std::vector<create_job*> awaited;
        for (create_job* j : ran) {
            if (stop || expired(j)) {
                roll_back(j, stop);
            } else {
                awaited.push_back(j);
            }
        }
        if (awaited.size() != ran.size()) {
            todo = stop ? std::vector<create_job*>{} : awaited;
            continue;
        }
        if (ran.empty()) return;
        const unsigned int rc = txn.commit();
        for (create_job* j : ran) {
            if (rc != 0) {
                j->result = static_cast<long>(rc);
                j->handler_id = 0;
            }
        }
        return;
    }
}

void sample_director::dispatch(long func_id, char* rcvbuf, unsigned int rcvbuf_len,
                               gen_ipc_msghdr sync_handle) {
    switch (func_id) {
        case TEV_ASH_FUNC_CREATE: {
            tev_ash_create_req req;
            tev_ash_create_rpl rpl;
            if (!decode(rcvbuf, rcvbuf_len, &req)) {
                rpl.rc = TEV_ASH_RC_BAD_ARG;
            } else {
                create_job job;
                job.category = static_cast<TEV_ASH_CATEGORY>(req.category);
                job.service_type = static_cast<TEV_ASH_SERVICE_TYPE>(req.service_type);
                job.src_handler_id = req.src_handler_id;
                job.deadline_us = tevhost::request_deadline_us();
                long result = 0;
                if (tevhost::request_peer_pid() != 0) {
                    // From another process: this thread holds no store transaction
                    // of its own, so the create may join others.
                    result = create_together(job);
                } else {
                    result = in_transaction("notify_create", [&](long& r) {
                        notify_create(job.category, job.service_type, job.handler_id,
                                      job.src_handler_id, r);
                    });
                }
                rpl.handler_id = result == 0 ? job.handler_id : 0;
                rpl.rc = static_cast<std::uint32_t>(result);
            }
            char buf[tev_ash_create_rpl::SIZE];
            encode(rpl, buf);
            gen_ipc_reply(sync_handle, buf, sizeof buf);
            break;
        }
        case TEV_ASH_FUNC_REMOVE:
        case TEV_ASH_FUNC_RESET: {
            tev_ash_result_rpl rpl;
            long result = TEV_ASH_RC_BAD_ARG;
            if (func_id == TEV_ASH_FUNC_REMOVE) {
                tev_ash_remove_req req;
                if (decode(rcvbuf, rcvbuf_len, &req)) {
                    result = in_transaction("notify_remove",
                                            [&](long& r) { notify_remove(req.handler_id, r); });
                }
            } else {
                tev_ash_reset_req req;
                if (decode(rcvbuf, rcvbuf_len, &req)) {
                    result = in_transaction("notify_reset", [&](long& r) {
                        notify_reset(static_cast<TEV_ASH_SERVICE_TYPE>(req.service_type),
                                     req.handler_id, r);
                    });
                }
            }
            rpl.rc = static_cast<std::uint32_t>(result);
            char buf[tev_ash_result_rpl::SIZE];
            encode(rpl, buf);
            gen_ipc_reply(sync_handle, buf, sizeof buf);
            break;
        }
        default: break;  // not a notification: no reply
    }
}

void sample_director::notify_create(TEV_ASH_CATEGORY category, TEV_ASH_SERVICE_TYPE,
                                    unsigned int& handler_id, unsigned int src_handler_id,
                                    long& result) {
    ++notifications_;
    const unsigned int cat = category;
    unsigned int new_id = 0;
    const unsigned int rc =
        src_handler_id == 0
            ? store::wud_wud_service_info_make_current(cmp_id_, cat, RECORD_FLAG, &new_id)
            : store::wud_wud_service_info_make_and_copy_current(cmp_id_, cat, RECORD_FLAG,
                                                                src_handler_id, &new_id);
    handler_id = rc == 0 ? new_id : 0;
    result = static_cast<long>(rc);
}

void sample_director::notify_remove(unsigned int handler_id, long& result) {
    ++notifications_;
    result = static_cast<long>(remove_tree(handler_id));
}

void sample_director::notify_reset(TEV_ASH_SERVICE_TYPE, unsigned int handler_id, long& result) {
    ++notifications_;
    result = static_cast<long>(store::wud_wud_service_info_init_current(cmp_id_, handler_id));
}

// Deletes the record and everything below it, top down: each record's children
// are noted, then the record is deleted (which unlinks them). One worklist, no
// recursion, each record read and deleted once. A failure stops it half-way;
// the notification's transaction then keeps none of it.
unsigned int sample_director::remove_tree(unsigned int handler_id) {
    std::vector<unsigned int> pending{handler_id};
    while (!pending.empty()) {
        const unsigned int id = pending.back();
        pending.pop_back();
        unsigned int count = 0;
        unsigned int rc =
            store::wud_wud_service_info_get_child_link_num_direct(cmp_id_, id, &count);
        for (unsigned int order = 0; rc == 0 && order < count; ++order) {
            unsigned int child = 0;
            rc = store::wud_wud_service_info_get_child_link_direct(cmp_id_, id, order, &child);
            pending.push_back(child);
        }
        if (rc == 0) rc = store::wud_wud_service_info_delete_current(cmp_id_, id);
        if (rc != 0) return rc;
    }
    return 0;
}

}  // namespace tevash_tools
