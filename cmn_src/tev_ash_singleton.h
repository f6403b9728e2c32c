// Double-checked creation shared by the library's singletons. The instance
// pointer is read with acquire and published with release, so a caller that
// sees it sees the whole object. The class's own mutex is created once under
// the process-wide thread guard, then held while `make` runs: whatever `make`
// locks in turn (another singleton's creation) is always taken after it.
#ifndef TEV_ASH_SINGLETON_H
#define TEV_ASH_SINGLETON_H

#include <atomic>

#include "zof.h"

namespace velmora {
namespace tev_ash_singleton {

template <typename T, typename Make>
T* get_or_create(std::atomic<T*>& instance, std::atomic<Zof_Mutex_Semaphore*>& mtx, Make&& make) {
    T* existing = instance.load(std::memory_order_acquire);
    if (existing != nullptr) return existing;

    if (mtx.load(std::memory_order_acquire) == nullptr) {
        Zof_Thread_Guard thread_guard;
        if (mtx.load(std::memory_order_relaxed) == nullptr) {
            mtx.store(new Zof_Mutex_Semaphore(1), std::memory_order_release);
        }
    }

    Zof_Guard guard(*mtx.load(std::memory_order_acquire));
    existing = instance.load(std::memory_order_relaxed);
    if (existing == nullptr) {
        existing = make();
        instance.store(existing, std::memory_order_release);
    }
    return existing;
}

}  // namespace tev_ash_singleton
}  // namespace velmora

#endif  // TEV_ASH_SINGLETON_H
