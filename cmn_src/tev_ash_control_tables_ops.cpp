// Lookups in the built-in tables of tev_ash_control (tev_ash_control_tables.cpp).
// They read constants only: no store access, no allocation, no lock.
#include <algorithm>
#include <iterator>

#include "tev_ash_control.h"
#include "tev_ash_trace.h"

namespace velmora {

namespace {
using tev_ash_trace::FILE_CONTROL;
}  // namespace

unsigned int tev_ash_control::get_member_category(unsigned int member_id,
                                                  TEV_ASH_CATEGORY* category) {
    // The member table is sorted by member_id and its ids are unique, so the
    // bisection finds the same row a scan from the front would.
    const tev_ash_member_row* const end = std::end(s_member_table);
    const tev_ash_member_row* const row = std::lower_bound(
        std::begin(s_member_table), end, member_id,
        [](const tev_ash_member_row& r, unsigned int id) { return r.member_id < id; });
    if (row == end || row->member_id != member_id) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member_category",
                      "[Error](Member Not Found) rc:%#.8lx, member_id:%#.8X, &category:%p",
                      static_cast<unsigned long>(TEV_ASH_RC_FAILURE), member_id,
                      static_cast<void*>(category));
        return TEV_ASH_RC_FAILURE;
    }
    *category = static_cast<TEV_ASH_CATEGORY>(row->category);
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::get_category_level(TEV_ASH_CATEGORY category, unsigned int* level) {
    for (const tev_ash_category_row& row : s_category_table) {
        if (row.category == category) {
            *level = row.level;
            return TEV_ASH_RC_OK;
        }
    }
    TEV_ASH_TRACE(FILE_CONTROL, "get_category_level",
                  "[Error](Category Not Found) rc:%#.8lx, category:%u, &level:%p",
                  static_cast<unsigned long>(TEV_ASH_RC_FAILURE),
                  static_cast<unsigned int>(category), static_cast<void*>(level));
    return TEV_ASH_RC_FAILURE;
}

unsigned int tev_ash_control::is_category_job_set(TEV_ASH_CATEGORY category) {
    for (unsigned int job_set : s_job_set_list) {
        if (job_set == category) return 1;
    }
    return 0;
}

}  // namespace velmora
