// An index over tev_ash_control::s_member_table for get_member_category, kept
// beside the table in the generated tev_ash_control_tables.cpp. The table is
// sorted by member_id and its ids come in runs of consecutive ids, each inside
// one block of 4096 ids (an id shifted right by 12). A slot table hashes a
// block to its first run, so a lookup reads one slot and one or two runs
// instead of bisecting all 910 rows. tools/gen_member_table.py picks the
// multiplier that gives every block a slot of its own.
#ifndef TEV_ASH_MEMBER_INDEX_H
#define TEV_ASH_MEMBER_INDEX_H

#include <cstdint>

namespace velmora {
namespace tev_ash_member_index {

// Rows s_member_table[row] .. s_member_table[row + last_id - first_id] hold
// the ids first_id .. last_id.
struct run {
    std::uint32_t first_id;
    std::uint32_t last_id;
    std::uint32_t row;
};

constexpr unsigned int RUN_COUNT = 112;
constexpr unsigned int BLOCK_SHIFT = 12;
constexpr unsigned int SLOT_BITS = 10;
constexpr unsigned char NO_RUN = 0xFF;

// The runs in id order; the runs of one block follow each other.
extern const run s_runs[RUN_COUNT];
// For each slot, the first run of the block hashed to it, or NO_RUN.
extern const unsigned char s_slots[1u << SLOT_BITS];
extern const std::uint32_t s_slot_multiplier;

inline unsigned int slot_of(std::uint32_t block) {
    return static_cast<std::uint32_t>(block * s_slot_multiplier) >> (32 - SLOT_BITS);
}

}  // namespace tev_ash_member_index
}  // namespace velmora

#endif  // TEV_ASH_MEMBER_INDEX_H
