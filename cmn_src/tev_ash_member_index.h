// An index over tev_ash_control::s_member_table for get_member_category, kept
// beside the table in the generated tev_ash_control_tables.cpp. The table is
// sorted by member_id, and the id's bits 31..20 (its key) name the category, so
// the rows of one key are a few runs of consecutive ids: a lookup reads the
// key's runs (eleven at most) instead of bisecting all 910 rows.
#ifndef TEV_ASH_MEMBER_INDEX_H
#define TEV_ASH_MEMBER_INDEX_H

namespace velmora {
namespace tev_ash_member_index {

// Rows s_member_table[row] .. s_member_table[row + last_id - first_id] hold
// the ids first_id .. last_id.
struct run {
    unsigned int first_id;
    unsigned int last_id;
    unsigned int row;
};

constexpr unsigned int KEY_SHIFT = 20;
constexpr unsigned int KEY_COUNT = 26;  // keys 0 to 25; no member has a higher one

// The runs in id order; those of key k are s_runs[s_run_begin[k]] up to
// s_runs[s_run_begin[k + 1]].
extern const run s_runs[];
extern const unsigned char s_run_begin[KEY_COUNT + 1];

}  // namespace tev_ash_member_index
}  // namespace velmora

#endif  // TEV_ASH_MEMBER_INDEX_H
