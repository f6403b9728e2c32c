// Lookups in the built-in tables of tev_ash_control (tev_ash_control_tables.cpp).
// They read constants only: no store access, no allocation, no lock.
#include <cstdint>
#include <iterator>

#include "tev_ash_control.h"
#include "tev_ash_member_index.h"
#include "tev_ash_trace.h"

namespace velmora {

namespace member_index = tev_ash_member_index;

// The public declarations of the tables spell their sizes out; the generator's
// figures are the ones that hold.
static_assert(std::size(tev_ash_control::s_member_table) == member_index::MEMBER_ROWS,
              "s_member_table is declared with another size than generated");
static_assert(std::size(tev_ash_control::s_category_table) == member_index::CATEGORY_ROWS,
              "s_category_table is declared with another size than generated");
static_assert(std::size(tev_ash_control::s_job_set_list) == member_index::JOB_SET_ROWS,
              "s_job_set_list is declared with another size than generated");
static_assert(member_index::RUN_COUNT < member_index::NO_RUN,
              "a slot holds a run number below NO_RUN");
static_assert(std::size(member_index::s_slots) == 1u << member_index::SLOT_BITS &&
                  std::size(member_index::s_runs) == member_index::RUN_COUNT,
              "the index is declared with another shape than generated");

unsigned int tev_ash_control::get_member_category(unsigned int member_id,
                                                  TEV_ASH_CATEGORY* category) {
    // Only the runs of the id's block can hold it: the slot of the block names
    // its first run (or, for an id of no member, possibly another block's).
    const tev_ash_member_row* row = nullptr;
    const std::uint32_t block = member_id >> member_index::BLOCK_SHIFT;
    const unsigned char first = member_index::s_slots[member_index::slot_of(block)];
    if (first != member_index::NO_RUN) {
        const member_index::run* const end = std::end(member_index::s_runs);
        for (const member_index::run* run = member_index::s_runs + first;
             run != end && (run->first_id >> member_index::BLOCK_SHIFT) == block; ++run) {
            if (member_id >= run->first_id && member_id <= run->last_id) {
                row = &s_member_table[run->row + (member_id - run->first_id)];
                break;
            }
        }
    }
    if (row == nullptr) {
        return TEV_ASH_CONTROL_FAILED(
            "get_member_category",
            "[Error](Member Not Found) rc:%#.8lx, member_id:%#.8X, &category:%p",
            tev_ash_trace::lx(TEV_ASH_RC_FAILURE), member_id, static_cast<void*>(category));
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
    return TEV_ASH_CONTROL_FAILED("get_category_level",
                                  "[Error](Category Not Found) rc:%#.8lx, category:%u, &level:%p",
                                  tev_ash_trace::lx(TEV_ASH_RC_FAILURE),
                                  static_cast<unsigned int>(category), static_cast<void*>(level));
}

namespace {

// The job-set list as one bit mask. Every job-set category is a single bit, so
// "in the list" is "a single bit that the mask has". The list is constant-
// initialised, so it is complete before this runs.
const unsigned int JOB_SET_MASK = [] {
    unsigned int mask = 0;
    for (unsigned int job_set : tev_ash_control::s_job_set_list) mask |= job_set;
    return mask;
}();

}  // namespace

unsigned int tev_ash_control::is_category_job_set(TEV_ASH_CATEGORY category) {
    const unsigned int c = category;
    const bool single_bit = c != 0 && (c & (c - 1)) == 0;
    return single_bit && (c & JOB_SET_MASK) != 0 ? 1 : 0;
}

}  // namespace velmora
