#!/usr/bin/env python3
"""Generates cmn_src/tev_ash_control_tables.cpp, the built-in tables of tev_ash_control.

The member table is kept here as runs of consecutive member ids per category;
the script expands them, checks them, and writes the table sorted by member id
(which is also ascending category order, since bits 31..20 of an id give the
category's bit number plus one). Beside it the script writes the index that
get_member_category reads (cmn_src/tev_ash_member_index.h): the runs of
consecutive ids, each inside one block of 4096 ids, and a slot table that
hashes a block to its first run, with a multiplier that gives every block a
slot of its own.

Rerun from the repository root after editing the data below:
    python3 tools/gen_member_table.py
"""

import pathlib
import sys

OUTPUT = pathlib.Path(__file__).resolve().parent.parent / "cmn_src" / "tev_ash_control_tables.cpp"

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

EXPECTED_MEMBERS = 910
EXPECTED_RUNS = 112


def fail(message):
    sys.exit("gen_member_table: " + message)


def expand_members():
    """Rows (member_id, category) sorted by member_id, after checking the run list."""
    rows = []
    run_count = 0
    for category, member_count, runs in MEMBER_RUNS:
        if category not in CATEGORY_NAMES:
            fail("unknown category %#x" % category)
        ids = []
        for first, last, count in runs:
            if last < first or last - first + 1 != count:
                fail("run %#010x-%#010x does not hold %d ids" % (first, last, count))
            ids.extend(range(first, last + 1))
            run_count += 1
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
    if len(rows) != EXPECTED_MEMBERS or run_count != EXPECTED_RUNS:
        fail("%d members in %d runs, expected %d in %d"
             % (len(rows), run_count, EXPECTED_MEMBERS, EXPECTED_RUNS))
    return rows


# Must match cmn_src/tev_ash_member_index.h.
RUN_COUNT = 112
BLOCK_SHIFT = 12
SLOT_BITS = 10
NO_RUN = 0xFF


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
    if len(runs) != RUN_COUNT:
        fail("%d runs, the index expects %d" % (len(runs), RUN_COUNT))
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


def render(rows):
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
    emit("const tev_ash_member_row tev_ash_control::s_member_table[%d] = {" % len(rows))
    current = None
    for member_id, category in rows:
        if category != current:
            count = sum(1 for _, c in rows if c == category)
            emit("    // %s (%#x): %d members" % (CATEGORY_NAMES[category], category, count))
            current = category
        emit("    {0x%08X, %s}," % (member_id, CATEGORY_NAMES[category]))
    emit("};")
    emit("")
    emit("const unsigned int tev_ash_control::MEMBER_MAX =")
    emit("    sizeof(tev_ash_control::s_member_table) / sizeof(tev_ash_member_row);")
    emit("")
    runs, multiplier, slots = member_index(rows)
    emit("namespace tev_ash_member_index {")
    emit("")
    emit("const run s_runs[RUN_COUNT] = {")
    for first, last, row in runs:
        emit("    {0x%08X, 0x%08X, %d}," % (first, last, row))
    emit("};")
    emit("")
    emit("const std::uint32_t s_slot_multiplier = 0x%08X;" % multiplier)
    emit("")
    emit("const unsigned char s_slots[1u << SLOT_BITS] = {")
    for i in range(0, len(slots), 16):
        emit("    " + " ".join("%d," % v for v in slots[i:i + 16]))
    emit("};")
    emit("")
    emit("}  // namespace tev_ash_member_index")
    emit("")
    emit("const tev_ash_category_row tev_ash_control::s_category_table[%d] = {"
         % len(CATEGORY_TABLE))
    for category, level in CATEGORY_TABLE:
        emit("    {%s, %d}," % (CATEGORY_NAMES[category], level))
    emit("};")
    emit("")
    emit("const unsigned int tev_ash_control::CATEGORY_MAX =")
    emit("    sizeof(tev_ash_control::s_category_table) / sizeof(tev_ash_category_row);")
    emit("")
    emit("const unsigned int tev_ash_control::s_job_set_list[%d] = {" % len(JOB_SET_LIST))
    for category in JOB_SET_LIST:
        emit("    %s," % CATEGORY_NAMES[category])
    emit("};")
    emit("")
    emit("const unsigned int tev_ash_control::ALL_JOB_SET_NUM =")
    emit("    sizeof(tev_ash_control::s_job_set_list) / sizeof(unsigned int);")
    emit("// clang-format on")
    emit("")
    emit("}  // namespace velmora")
    return "\n".join(out) + "\n"


def main():
    if len(CATEGORY_TABLE) != 24 or len(JOB_SET_LIST) != 21:
        fail("category table or job-set list has the wrong size")
    OUTPUT.write_text(render(expand_members()))


if __name__ == "__main__":
    main()
