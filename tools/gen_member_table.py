#!/usr/bin/env python3
"""Generates the built-in tables of tev_ash_control and the index over them.

The member table is kept here as runs of consecutive member ids per category;
the script expands them, checks them, and writes two files:

- cmn_src/tev_ash_control_tables.cpp: the member table sorted by member id
  (which is also ascending category order, since bits 31..20 of an id give the
  category's bit number plus one), the category table, the job-set list, and
  the index that get_member_category reads: the runs of consecutive ids, each
  inside one block of 4096 ids, and a slot table that hashes a block to its
  first run, with a multiplier that gives every block a slot of its own;
- cmn_src/tev_ash_member_index.h: the one definition of the tables' sizes and
  of the index's shape (row counts, run count, block shift, slot bits,
  multiplier), which the C++ sources use and check with static_assert.

Rerun from the repository root after editing the data below:
    python3 tools/gen_member_table.py
With --check it writes nothing: it checks the data and the index, and that both
files are exactly what it would write (CTest runs it that way).
"""

import argparse
import difflib
import pathlib
import sys

SOURCES = pathlib.Path(__file__).resolve().parent.parent / "cmn_src"
TABLES = SOURCES / "tev_ash_control_tables.cpp"
INDEX = SOURCES / "tev_ash_member_index.h"

# The shape of the member index: a block is an id shifted right by BLOCK_SHIFT,
# and the slot table has 1 << SLOT_BITS entries of one byte (a run number, or
# NO_RUN).
BLOCK_SHIFT = 12
SLOT_BITS = 10
NO_RUN = 0xFF

# Names of the category values in include/tev_ash_types.h.
CATEGORY_NAMES = {
    0x1: "TEV_ASH_CAT_APLSVC_IMG",
    0x2: "TEV_ASH_CAT_AUTH",
    0x4: "TEV_ASH_CAT_APLJOB",
    0x8: "TEV_ASH_CAT_JOBSET_03",
    0x10: "TEV_ASH_CAT_JOBSET_04",
    0x20: "TEV_ASH_CAT_JOBSET_05",
    0x40: "TEV_ASH_CAT_JOBSET_06",
    0x80: "TEV_ASH_CAT_JOBSET_07",
    0x100: "TEV_ASH_CAT_JOBSET_08",
    0x200: "TEV_ASH_CAT_JOBSET_09",
    0x400: "TEV_ASH_CAT_JOBSET_10",
    0x800: "TEV_ASH_CAT_JOBSET_11",
    0x1000: "TEV_ASH_CAT_JOBSET_12",
    0x2000: "TEV_ASH_CAT_JOBSET_13",
    0x4000: "TEV_ASH_CAT_JOBSET_14",
    0x8000: "TEV_ASH_CAT_DETACHED",
    0x10000: "TEV_ASH_CAT_JOBSET_16",
    0x20000: "TEV_ASH_CAT_JOBSET_17",
    0x40000: "TEV_ASH_CAT_JOBSET_18",
    0x80000: "TEV_ASH_CAT_JOBSET_19",
    0x100000: "TEV_ASH_CAT_JOBSET_20",
    0x200000: "TEV_ASH_CAT_JOBSET_21",
    0x400000: "TEV_ASH_CAT_SUBJOB",
    0x800000: "TEV_ASH_CAT_JOBSET_23",
    0x1000000: "TEV_ASH_CAT_JOBSET_24",
}

# Category table, in lookup order: (category, level). 0x8000 has no level.
LEVEL4 = [0x8, 0x10, 0x20, 0x40, 0x80, 0x100, 0x200, 0x400, 0x800, 0x1000, 0x2000, 0x4000,
          0x10000, 0x20000, 0x40000, 0x80000, 0x100000, 0x200000, 0x800000, 0x1000000]
CATEGORY_TABLE = [(0x2, 0), (0x1, 1), (0x4, 2), (0x400000, 3)] + [(c, 4) for c in LEVEL4]

# Job-set categories, in lookup order: the job handler's own and every level-4 one.
JOB_SET_LIST = [0x4] + LEVEL4

# Members: (category, member count, runs), each run (first id, last id, id count).
MEMBER_RUNS = [
    (0x1, 11, [
        (0x00118000, 0x00118000, 1),
        (0x00142000, 0x00142000, 1),
        (0x00160000, 0x00160001, 2),
        (0x00171000, 0x00171000, 1),
        (0x00182000, 0x00182005, 6),
    ]),
    (0x2, 42, [
        (0x00217000, 0x00217000, 1),
        (0x00218000, 0x00218003, 4),
        (0x0021800A, 0x0021800A, 1),
        (0x0021F000, 0x0021F00A, 11),
        (0x00260000, 0x0026000C, 13),
        (0x00271000, 0x00271006, 7),
        (0x00282000, 0x00282004, 5),
    ]),
    (0x4, 207, [
        (0x00313000, 0x00313015, 22),
        (0x00314000, 0x00314000, 1),
        (0x00315000, 0x00315006, 7),
        (0x00317000, 0x00317000, 1),
        (0x00318000, 0x00318002, 3),
        (0x00318008, 0x0031800A, 3),
        (0x0031F000, 0x0031F00E, 15),
        (0x00342000, 0x00342000, 1),
        (0x00360000, 0x00360064, 101),
        (0x00371000, 0x0037100F, 16),
        (0x00382000, 0x00382024, 37),
    ]),
    (0x8, 43, [
        (0x00460000, 0x00460021, 34),
        (0x00471000, 0x00471002, 3),
        (0x00482000, 0x00482005, 6),
    ]),
    (0x10, 30, [
        (0x00518000, 0x00518001, 2),
        (0x00560000, 0x00560017, 24),
        (0x00582000, 0x00582003, 4),
    ]),
    (0x20, 128, [
        (0x0061F000, 0x0061F002, 3),
        (0x00620000, 0x00620000, 1),
        (0x00631000, 0x00631006, 7),
        (0x00660000, 0x00660060, 97),
        (0x00671000, 0x0067100A, 11),
        (0x00682000, 0x00682008, 9),
    ]),
    (0x40, 49, [
        (0x00742000, 0x00742003, 4),
        (0x00760000, 0x00760020, 33),
        (0x00760025, 0x00760027, 3),
        (0x00771000, 0x00771007, 8),
        (0x00782000, 0x00782000, 1),
    ]),
    (0x80, 41, [
        (0x0081F000, 0x0081F007, 8),
        (0x00860000, 0x0086001F, 32),
        (0x00871000, 0x00871000, 1),
    ]),
    (0x100, 36, [
        (0x00916000, 0x00916000, 1),
        (0x00918000, 0x00918000, 1),
        (0x0091F000, 0x0091F001, 2),
        (0x00960000, 0x00960017, 24),
        (0x00971000, 0x00971003, 4),
        (0x00982000, 0x00982003, 4),
    ]),
    (0x200, 7, [
        (0x00A60000, 0x00A60006, 7),
    ]),
    (0x400, 12, [
        (0x00B60000, 0x00B60003, 4),
        (0x00B82000, 0x00B82007, 8),
    ]),
    (0x800, 17, [
        (0x00C17000, 0x00C17001, 2),
        (0x00C18000, 0x00C18000, 1),
        (0x00C1F000, 0x00C1F001, 2),
        (0x00C60000, 0x00C60001, 2),
        (0x00C60003, 0x00C60007, 5),
        (0x00C71000, 0x00C71000, 1),
        (0x00C82000, 0x00C82003, 4),
    ]),
    (0x1000, 19, [
        (0x00D17000, 0x00D17001, 2),
        (0x00D18001, 0x00D18001, 1),
        (0x00D1F000, 0x00D1F006, 7),
        (0x00D60000, 0x00D60002, 3),
        (0x00D71000, 0x00D71001, 2),
        (0x00D82000, 0x00D82003, 4),
    ]),
    (0x2000, 17, [
        (0x00E16000, 0x00E16002, 3),
        (0x00E1F000, 0x00E1F002, 3),
        (0x00E60000, 0x00E60003, 4),
        (0x00E71000, 0x00E71002, 3),
        (0x00E82000, 0x00E82003, 4),
    ]),
    (0x4000, 57, [
        (0x00F16000, 0x00F16000, 1),
        (0x00F17000, 0x00F17001, 2),
        (0x00F1F000, 0x00F1F00C, 13),
        (0x00F42000, 0x00F42001, 2),
        (0x00F60000, 0x00F60010, 17),
        (0x00F71000, 0x00F71001, 2),
        (0x00F82000, 0x00F82013, 20),
    ]),
    (0x8000, 20, [
        (0x01018000, 0x01018000, 1),
        (0x0101F000, 0x0101F002, 3),
        (0x01060000, 0x01060006, 7),
        (0x01071000, 0x01071000, 1),
        (0x01082000, 0x01082007, 8),
    ]),
    (0x10000, 12, [
        (0x01114000, 0x01114000, 1),
        (0x01117000, 0x01117002, 3),
        (0x0111F000, 0x0111F000, 1),
        (0x01160000, 0x01160002, 3),
        (0x01182000, 0x01182003, 4),
    ]),
    (0x20000, 3, [
        (0x0121F000, 0x0121F002, 3),
    ]),
    (0x40000, 10, [
        (0x01313000, 0x01313000, 1),
        (0x01314000, 0x01314000, 1),
        (0x0131F000, 0x0131F000, 1),
        (0x01360000, 0x01360001, 2),
        (0x01382000, 0x01382004, 5),
    ]),
    (0x80000, 8, [
        (0x01413000, 0x01413000, 1),
        (0x01414000, 0x01414000, 1),
        (0x01460000, 0x01460001, 2),
        (0x01482000, 0x01482003, 4),
    ]),
    (0x100000, 6, [
        (0x01514000, 0x01514000, 1),
        (0x01560000, 0x01560000, 1),
        (0x01582000, 0x01582003, 4),
    ]),
    (0x200000, 6, [
        (0x01614000, 0x01614000, 1),
        (0x01660000, 0x01660000, 1),
        (0x01682000, 0x01682003, 4),
    ]),
    (0x400000, 11, [
        (0x01717000, 0x01717000, 1),
        (0x01760000, 0x01760003, 4),
        (0x01782000, 0x01782004, 5),
        (0x01782006, 0x01782006, 1),
    ]),
    (0x800000, 2, [
        (0x01817000, 0x01817001, 2),
    ]),
    (0x1000000, 116, [
        (0x0191F000, 0x0191F008, 9),
        (0x01931000, 0x0193100E, 15),
        (0x01960000, 0x01960058, 89),
        (0x01982000, 0x01982002, 3),
    ]),
]


def fail(message):
    sys.exit("gen_member_table: " + message)


def expand_members():
    """Rows (member_id, category) sorted by member_id, after checking the run list."""
    rows = []
    for category, member_count, runs in MEMBER_RUNS:
        if category not in CATEGORY_NAMES:
            fail("unknown category %#x" % category)
        ids = []
        for first, last, count in runs:
            if last < first or last - first + 1 != count:
                fail("run %#010x-%#010x does not hold %d ids" % (first, last, count))
            ids.extend(range(first, last + 1))
        if len(ids) != member_count:
            fail("category %#x has %d ids, expected %d" % (category, len(ids), member_count))
        for member_id in ids:
            if 1 << ((member_id >> 20) - 1) != category:
                fail("member %#010x does not belong to category %#x" % (member_id, category))
        rows.extend((member_id, category) for member_id in ids)
    rows.sort()
    for (a, _), (b, _) in zip(rows, rows[1:]):
        if a == b:
            fail("member %#010x listed twice" % a)
    if [c for _, c in rows] != sorted(c for _, c in rows):
        fail("sorting by member id does not group the categories in ascending order")
    return rows


def check_categories():
    """The category table and the job-set list name known, distinct categories."""
    categories = [c for c, _ in CATEGORY_TABLE]
    if len(set(categories)) != len(categories) or len(set(JOB_SET_LIST)) != len(JOB_SET_LIST):
        fail("a category is listed twice in the category table or the job-set list")
    for category in categories + JOB_SET_LIST:
        if category not in CATEGORY_NAMES:
            fail("unknown category %#x" % category)
    if not set(JOB_SET_LIST) <= set(categories):
        fail("a job-set category has no level")


def slot_of(block, multiplier):
    return ((block * multiplier) & 0xFFFFFFFF) >> (32 - SLOT_BITS)


def member_index(rows):
    """The runs (first id, last id, first row) of consecutive ids inside one
    block, the multiplier that gives every block its own slot, and the slots."""
    runs = []
    for index, (member_id, _) in enumerate(rows):
        if runs and runs[-1][1] + 1 == member_id and (member_id >> BLOCK_SHIFT) == (
                runs[-1][0] >> BLOCK_SHIFT):
            runs[-1][1] = member_id
        else:
            runs.append([member_id, member_id, index])
    if len(runs) >= NO_RUN:
        fail("%d runs do not fit a slot of one byte" % len(runs))
    blocks = {}
    for index, (first, _, _) in enumerate(runs):
        blocks.setdefault(first >> BLOCK_SHIFT, index)
    multiplier = 0x9E3779B1  # odd; stepped by 2 until no two blocks share a slot
    while len({slot_of(b, multiplier) for b in blocks}) != len(blocks):
        multiplier += 2
    slots = [NO_RUN] * (1 << SLOT_BITS)
    for block, first_run in blocks.items():
        slots[slot_of(block, multiplier)] = first_run
    return runs, multiplier, slots


def look_up(member_id, rows, runs, multiplier, slots):
    """get_member_category as the C++ lookup does it: the category, or None."""
    block = member_id >> BLOCK_SHIFT
    run = slots[slot_of(block, multiplier)]
    if run == NO_RUN:
        return None
    while run < len(runs) and runs[run][0] >> BLOCK_SHIFT == block:
        first, last, row = runs[run]
        if first <= member_id <= last:
            return rows[row + member_id - first][1]
        run += 1
    return None


def check_index(rows, runs, multiplier, slots):
    """Every member is found with its category through the index, and the ids
    around every run, which are no members, are not."""
    members = dict(rows)
    probes = {0, 0xFFFFFFFF}
    for first, last, _ in runs:
        probes.update((first - 1, first, last, last + 1))
    for member_id in sorted(members.keys() | probes):
        if not 0 <= member_id <= 0xFFFFFFFF:
            continue
        found = look_up(member_id, rows, runs, multiplier, slots)
        if found != members.get(member_id):
            fail("the index finds %s for %#010x, the table says %s"
                 % (found, member_id, members.get(member_id)))


def render_index(rows, runs, multiplier):
    return """\
// Generated by tools/gen_member_table.py: do not edit. To change a table, edit
// the data in that script and rerun it from the repository root:
//     python3 tools/gen_member_table.py
//
// The sizes of the built-in tables of tev_ash_control, and the index over
// s_member_table that get_member_category reads (tev_ash_control_tables.cpp).
// The table is sorted by member_id and its ids come in runs of consecutive ids,
// each inside one block of 4096 ids (an id shifted right by BLOCK_SHIFT). A slot
// table hashes a block to its first run, so a lookup reads one slot and one or
// two runs instead of bisecting all %(members)d rows; the multiplier gives every
// block a slot of its own.
#ifndef TEV_ASH_MEMBER_INDEX_H
#define TEV_ASH_MEMBER_INDEX_H

#include <cstdint>

namespace velmora {
namespace tev_ash_member_index {

// Rows of s_member_table, s_category_table and s_job_set_list.
constexpr unsigned int MEMBER_ROWS = %(members)d;
constexpr unsigned int CATEGORY_ROWS = %(categories)d;
constexpr unsigned int JOB_SET_ROWS = %(job_sets)d;

constexpr unsigned int RUN_COUNT = %(runs)d;
constexpr unsigned int BLOCK_SHIFT = %(block_shift)d;
constexpr unsigned int SLOT_BITS = %(slot_bits)d;
constexpr unsigned char NO_RUN = 0x%(no_run)02X;
constexpr std::uint32_t SLOT_MULTIPLIER = 0x%(multiplier)08X;

// Rows s_member_table[row] .. s_member_table[row + last_id - first_id] hold
// the ids first_id .. last_id.
struct run {
    std::uint32_t first_id;
    std::uint32_t last_id;
    std::uint32_t row;
};

// The runs in id order; the runs of one block follow each other.
extern const run s_runs[RUN_COUNT];
// For each slot, the first run of the block hashed to it, or NO_RUN.
extern const unsigned char s_slots[1u << SLOT_BITS];

inline unsigned int slot_of(std::uint32_t block) {
    return static_cast<std::uint32_t>(block * SLOT_MULTIPLIER) >> (32 - SLOT_BITS);
}

}  // namespace tev_ash_member_index
}  // namespace velmora

#endif  // TEV_ASH_MEMBER_INDEX_H
""" % {"members": len(rows), "categories": len(CATEGORY_TABLE), "job_sets": len(JOB_SET_LIST),
       "runs": len(runs), "block_shift": BLOCK_SHIFT, "slot_bits": SLOT_BITS, "no_run": NO_RUN,
       "multiplier": multiplier}


def render_tables(rows, runs, slots):
    out = []
    emit = out.append
    emit("// Generated by tools/gen_member_table.py: do not edit. To change a table, edit")
    emit("// the data in that script and rerun it from the repository root:")
    emit("//     python3 tools/gen_member_table.py")
    emit("//")
    emit("// The built-in tables of tev_ash_control. s_member_table is sorted by member_id;")
    emit("// get_member_category finds its rows through the runs and slots of")
    emit("// tev_ash_member_index.h. The category table and the job-set list are scanned")
    emit("// in row order.")
    emit("#include \"tev_ash_control.h\"")
    emit("#include \"tev_ash_member_index.h\"")
    emit("")
    emit("namespace velmora {")
    emit("")
    emit("// clang-format off")
    emit("const tev_ash_member_row "
         "tev_ash_control::s_member_table[tev_ash_member_index::MEMBER_ROWS] = {")
    current = None
    for member_id, category in rows:
        if category != current:
            count = sum(1 for _, c in rows if c == category)
            emit("    // %s (%#x): %d members" % (CATEGORY_NAMES[category], category, count))
            current = category
        emit("    {0x%08X, %s}," % (member_id, CATEGORY_NAMES[category]))
    emit("};")
    emit("")
    emit("const unsigned int tev_ash_control::MEMBER_MAX = tev_ash_member_index::MEMBER_ROWS;")
    emit("")
    emit("namespace tev_ash_member_index {")
    emit("")
    emit("const run s_runs[RUN_COUNT] = {")
    for first, last, row in runs:
        emit("    {0x%08X, 0x%08X, %d}," % (first, last, row))
    emit("};")
    emit("")
    emit("const unsigned char s_slots[1u << SLOT_BITS] = {")
    for i in range(0, len(slots), 16):
        emit("    " + " ".join("%d," % v for v in slots[i:i + 16]))
    emit("};")
    emit("")
    emit("}  // namespace tev_ash_member_index")
    emit("")
    emit("const tev_ash_category_row "
         "tev_ash_control::s_category_table[tev_ash_member_index::CATEGORY_ROWS] = {")
    for category, level in CATEGORY_TABLE:
        emit("    {%s, %d}," % (CATEGORY_NAMES[category], level))
    emit("};")
    emit("")
    emit("const unsigned int tev_ash_control::CATEGORY_MAX = tev_ash_member_index::CATEGORY_ROWS;")
    emit("")
    emit("const unsigned int "
         "tev_ash_control::s_job_set_list[tev_ash_member_index::JOB_SET_ROWS] = {")
    for category in JOB_SET_LIST:
        emit("    %s," % CATEGORY_NAMES[category])
    emit("};")
    emit("")
    emit("const unsigned int tev_ash_control::ALL_JOB_SET_NUM = "
         "tev_ash_member_index::JOB_SET_ROWS;")
    emit("// clang-format on")
    emit("")
    emit("}  // namespace velmora")
    return "\n".join(out) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true",
                        help="write nothing; fail unless the data checks out and the "
                             "committed files are exactly what would be written")
    args = parser.parse_args()

    check_categories()
    rows = expand_members()
    runs, multiplier, slots = member_index(rows)
    check_index(rows, runs, multiplier, slots)
    outputs = {
        TABLES: render_tables(rows, runs, slots),
        INDEX: render_index(rows, runs, multiplier),
    }
    if not args.check:
        for path, text in outputs.items():
            path.write_text(text)
        return
    stale = []
    for path, text in outputs.items():
        committed = path.read_text() if path.exists() else ""
        if committed != text:
            stale.append(path)
            sys.stderr.writelines(difflib.unified_diff(
                committed.splitlines(True), text.splitlines(True),
                str(path) + " (committed)", str(path) + " (generated)", n=1))
    if stale:
        fail("%s not what the generator writes; rerun python3 tools/gen_member_table.py"
             % ", ".join(p.name for p in stale))
    print("gen_member_table: %d members in %d runs, %d categories, %d job-set categories: "
          "generated files up to date" % (len(rows), len(runs), len(CATEGORY_TABLE),
                                          len(JOB_SET_LIST)))


if __name__ == "__main__":
    main()
