// tev_ash_director_manager: the registry of directors in the process that serves
// handler requests. It maps each application type to the one observer registered
// for it and routes create, remove and reset to that observer's notification,
// returning the director's result unchanged. It owns registered observers.
//
// Safe for concurrent use: registrations are serialised; routed notifications run
// concurrently with each other and with registrations, and an observer removed
// while one of its notifications runs is destroyed only after it returns.
#ifndef TEV_ASH_DIRECTOR_MANAGER_H
#define TEV_ASH_DIRECTOR_MANAGER_H

#include <atomic>
#include <map>
#include <memory>

#include "tev_ash_types.h"
#include "zof.h"

namespace velmora {

class tev_ash_observer;

class TEV_ASH_API tev_ash_director_manager {
public:
    // The process's manager, created on the first call. Never null.
    static tev_ash_director_manager* get_instance();

    tev_ash_director_manager();
    // Forgets every registration; the registered observers stay alive.
    ~tev_ash_director_manager();

    tev_ash_director_manager(const tev_ash_director_manager&) = delete;
    tev_ash_director_manager& operator=(const tev_ash_director_manager&) = delete;

    // Registers `observer` for `app_type` and takes ownership of it. 0xC1030008 for
    // a null observer, 0xC1030005 when the type already has one (the caller keeps
    // `observer`).
    unsigned int add_observer(TEV_ASH_APP_TYPE app_type, tev_ash_observer* observer);
    // Removes every registration of the first observer (by ascending application
    // type) whose object id is `obj_id`, and destroys it once. Waits for
    // notifications on it that run in other threads; when called from inside one
    // of its own notifications, the observer is destroyed as that notification
    // returns. 0xC1030006 when no observer has the id.
    unsigned int remove_observer(long obj_id);

    // Route to the observer registered for `app_type`: 0xC1030006 when there is
    // none, else the director's result. create refuses a null `handler_id` with
    // 0xC1030008 (one trace line, one 0xE924 notification) and notifies nobody.
    unsigned int create(TEV_ASH_CATEGORY category, TEV_ASH_APP_TYPE app_type,
                        TEV_ASH_SERVICE_TYPE service_type, unsigned int* handler_id,
                        unsigned int src_handler_id);
    unsigned int remove(TEV_ASH_APP_TYPE app_type, unsigned int handler_id);
    unsigned int reset(TEV_ASH_APP_TYPE app_type, TEV_ASH_SERVICE_TYPE service_type,
                       unsigned int handler_id);

private:
    struct release_signal;

    // The observer registered for `app_type` (null when none), shared with the caller.
    std::shared_ptr<tev_ash_observer> find(TEV_ASH_APP_TYPE app_type);

    static std::atomic<tev_ash_director_manager*> the_instance_;
    static std::atomic<Zof_Mutex_Semaphore*> mtx_;

    // Held for the whole of add_observer and remove_observer.
    Zof_Mutex_Semaphore registry_mtx_;
    // Held only while observers_ is read by a lookup or changed by a registration.
    Zof_Mutex_Semaphore lookup_mtx_;
    // Registered observers, shared with the notifications running on them.
    std::map<TEV_ASH_APP_TYPE, std::shared_ptr<tev_ash_observer>> observers_;
};

}  // namespace velmora

#endif  // TEV_ASH_DIRECTOR_MANAGER_H
