// The process-wide handler-id counter (handler_ids.h): one atomic, safe from
// any thread.
#include "handler_ids.h"

#include <atomic>

namespace tevhost {
namespace detail {
namespace {

// The next id to hand out in this process, by any backend; 0 once exhausted.
std::atomic<unsigned int> g_next_handler_id{1};

}  // namespace

unsigned int take_handler_id(unsigned int floor) {
    if (floor == 0) floor = 1;
    unsigned int next = g_next_handler_id.load();
    for (;;) {
        if (next == 0) return 0;
        unsigned int id = next < floor ? floor : next;
        // id + 1 wraps to 0 after the last id, which marks the counter as exhausted.
        if (g_next_handler_id.compare_exchange_weak(next, id + 1)) return id;
    }
}

}  // namespace detail
}  // namespace tevhost
