#include "tev_ash_director_manager.h"

#include <algorithm>
#include <condition_variable>
#include <iterator>
#include <mutex>
#include <vector>

#include "tev_ash_observer.h"
#include "tev_ash_singleton.h"
#include "tev_ash_trace.h"

namespace velmora {

namespace {

constexpr const char* FILE_NAME = tev_ash_trace::FILE_DIRECTOR_MANAGER;

// Notifications running in this thread, innermost last. A removal asked for from
// inside a notification on the same observer cannot wait for that notification.
thread_local std::vector<const tev_ash_observer*> t_notifying;

class notification_scope {
public:
    explicit notification_scope(const tev_ash_observer* observer) {
        t_notifying.push_back(observer);
    }
    ~notification_scope() { t_notifying.pop_back(); }
    notification_scope(const notification_scope&) = delete;
    notification_scope& operator=(const notification_scope&) = delete;
};

bool notifying_in_this_thread(const tev_ash_observer* observer) {
    return std::find(t_notifying.begin(), t_notifying.end(), observer) != t_notifying.end();
}

// One request routed to `observer`, the one registered for its application
// type (null when there is none: 0xC1030006), through `notify(observer,
// result)`. The director's non-zero result is returned unchanged. Either failure
// writes one trace line under `function`.
template <typename Notify>
unsigned int route(const char* function, const std::shared_ptr<tev_ash_observer>& observer,
                   Notify&& notify) {
    if (!observer) {
        return TEV_ASH_FAIL(TEV_ASH_RC_NO_OBSERVER, FILE_NAME, function, "[Error]rc:%#.8lx",
                            static_cast<unsigned long>(TEV_ASH_RC_NO_OBSERVER));
    }
    long result = 0;
    {
        notification_scope scope(observer.get());
        notify(*observer, result);
    }
    if (result == 0) return TEV_ASH_RC_OK;
    return TEV_ASH_FAIL(static_cast<unsigned int>(result), FILE_NAME, function,
                        "[Error]result:%#.8lx", static_cast<unsigned long>(result));
}

}  // namespace

// Runs when the last reference to a registered observer is dropped: the
// registrations are gone and no notification on it is running any more. The
// remover waits for this and then destroys the observer itself; when the removal
// came from inside one of the observer's own notifications, the observer is
// destroyed here instead, as that notification returns.
struct tev_ash_director_manager::release_signal {
    struct state {
        std::mutex mtx;
        std::condition_variable cv;
        bool released = false;
        bool destroy_on_release = false;
    };
    std::shared_ptr<state> st = std::make_shared<state>();

    void operator()(tev_ash_observer* observer) const {
        std::unique_lock<std::mutex> lock(st->mtx);
        if (st->destroy_on_release) {
            lock.unlock();
            delete observer;
            return;
        }
        st->released = true;
        st->cv.notify_all();
    }
};

std::atomic<tev_ash_director_manager*> tev_ash_director_manager::the_instance_{nullptr};
std::atomic<Zof_Mutex_Semaphore*> tev_ash_director_manager::mtx_{nullptr};

tev_ash_director_manager* tev_ash_director_manager::get_instance() {
    return tev_ash_singleton::get_or_create(the_instance_, mtx_,
                                            [] { return new tev_ash_director_manager(); });
}

tev_ash_director_manager::tev_ash_director_manager() : registry_mtx_(1), lookup_mtx_(1) {}

tev_ash_director_manager::~tev_ash_director_manager() {
    // Dropping the references leaves the observers alive: only remove_observer
    // destroys one.
    Zof_Guard guard(lookup_mtx_);
    observers_.clear();
}

std::shared_ptr<tev_ash_observer> tev_ash_director_manager::find(TEV_ASH_APP_TYPE app_type) {
    Zof_Guard guard(lookup_mtx_);
    auto it = observers_.find(app_type);
    if (it == observers_.end()) return nullptr;
    return it->second;
}

unsigned int tev_ash_director_manager::add_observer(TEV_ASH_APP_TYPE app_type,
                                                    tev_ash_observer* observer) {
    Zof_Guard registry_guard(registry_mtx_);
    if (observer == nullptr) {
        TEV_ASH_TRACE(FILE_NAME, "add_observer", "Error:observer in NULL]");
        TEV_ASH_NOTIFY(TEV_ASH_NOTIFY_NULL_ARG, FILE_NAME, "add_observer");
        return TEV_ASH_RC_BAD_ARG;
    }
    // Only add_observer and remove_observer change the map, and both hold
    // registry_mtx_, so reading it here needs no lookup lock.
    if (observers_.count(app_type) != 0) {
        TEV_ASH_TRACE(FILE_NAME, "add_observer", "[Error]rc=%#.8lx",
                      static_cast<unsigned long>(TEV_ASH_RC_OBSERVER_EXISTS));
        return TEV_ASH_RC_OBSERVER_EXISTS;
    }
    // An observer registered under several application types has one owner.
    std::shared_ptr<tev_ash_observer> owner;
    for (const auto& entry : observers_) {
        if (entry.second.get() == observer) {
            owner = entry.second;
            break;
        }
    }
    if (!owner) owner = std::shared_ptr<tev_ash_observer>(observer, release_signal());
    Zof_Guard lookup_guard(lookup_mtx_);
    observers_.emplace(app_type, std::move(owner));
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_director_manager::remove_observer(long obj_id) {
    Zof_Guard registry_guard(registry_mtx_);
    std::shared_ptr<tev_ash_observer> victim;
    for (const auto& entry : observers_) {
        if (entry.second->get_obj_id() == obj_id) {
            victim = entry.second;
            break;
        }
    }
    if (!victim) {
        TEV_ASH_TRACE(FILE_NAME, "remove_observer", "[Error]rc=%#.8lx",
                      static_cast<unsigned long>(TEV_ASH_RC_NO_OBSERVER));
        return TEV_ASH_RC_NO_OBSERVER;
    }
    {
        // Every entry holding the observer goes, so none is left referring to it.
        Zof_Guard lookup_guard(lookup_mtx_);
        for (auto it = observers_.begin(); it != observers_.end();) {
            it = it->second == victim ? observers_.erase(it) : std::next(it);
        }
    }
    tev_ash_observer* observer = victim.get();
    std::shared_ptr<release_signal::state> st = std::get_deleter<release_signal>(victim)->st;
    if (notifying_in_this_thread(observer)) {
        std::lock_guard<std::mutex> lock(st->mtx);
        st->destroy_on_release = true;
    }
    victim.reset();
    std::unique_lock<std::mutex> lock(st->mtx);
    if (st->destroy_on_release) return TEV_ASH_RC_OK;
    // Wait for notifications still running on the observer in other threads.
    st->cv.wait(lock, [&] { return st->released; });
    lock.unlock();
    delete observer;
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_director_manager::create(TEV_ASH_CATEGORY category, TEV_ASH_APP_TYPE app_type,
                                              TEV_ASH_SERVICE_TYPE service_type,
                                              unsigned int* handler_id,
                                              unsigned int src_handler_id) {
    if (handler_id == nullptr) {
        TEV_ASH_TRACE(FILE_NAME, "create", "[Error]handler_id is NULL");
        TEV_ASH_NOTIFY(TEV_ASH_NOTIFY_NULL_ARG, FILE_NAME, "create");
        return TEV_ASH_RC_BAD_ARG;
    }
    return route("create", find(app_type), [&](tev_ash_observer& observer, long& result) {
        observer.notify_create(category, service_type, *handler_id, src_handler_id, result);
    });
}

unsigned int tev_ash_director_manager::remove(TEV_ASH_APP_TYPE app_type, unsigned int handler_id) {
    return route("remove", find(app_type), [&](tev_ash_observer& observer, long& result) {
        observer.notify_remove(handler_id, result);
    });
}

unsigned int tev_ash_director_manager::reset(TEV_ASH_APP_TYPE app_type,
                                             TEV_ASH_SERVICE_TYPE service_type,
                                             unsigned int handler_id) {
    return route("reset", find(app_type), [&](tev_ash_observer& observer, long& result) {
        observer.notify_reset(service_type, handler_id, result);
    });
}

}  // namespace velmora
