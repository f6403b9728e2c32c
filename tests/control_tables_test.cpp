// The built-in member, category and job-set tables of tev_ash_control and the
// three lookups over them: the table content against an independent copy of the
// run list, and each lookup's results and trace lines.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <map>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "host/tev_host.h"
#include "tev_ash_control.h"
#include "tev_test_support.h"

namespace {

using velmora::TEV_ASH_CATEGORY;
using velmora::tev_ash_category_row;
using velmora::tev_ash_control;

constexpr unsigned int FAILURE = 0xC1030001;
constexpr unsigned int UNTOUCHED = 0xDEADBEEF;

// Consecutive member ids first..last, all of `category`.
struct run {
    unsigned int category;
    unsigned int first;
    unsigned int last;
};

// The members of every category, in ascending order.
const run kRuns[] = {
    // 0x1: 11 members
    {0x1, 0x00118000, 0x00118000},
    {0x1, 0x00142000, 0x00142000},
    {0x1, 0x00160000, 0x00160001},
    {0x1, 0x00171000, 0x00171000},
    {0x1, 0x00182000, 0x00182005},
    // 0x2: 42 members
    {0x2, 0x00217000, 0x00217000},
    {0x2, 0x00218000, 0x00218003},
    {0x2, 0x0021800A, 0x0021800A},
    {0x2, 0x0021F000, 0x0021F00A},
    {0x2, 0x00260000, 0x0026000C},
    {0x2, 0x00271000, 0x00271006},
    {0x2, 0x00282000, 0x00282004},
    // 0x4: 207 members
    {0x4, 0x00313000, 0x00313015},
    {0x4, 0x00314000, 0x00314000},
    {0x4, 0x00315000, 0x00315006},
    {0x4, 0x00317000, 0x00317000},
    {0x4, 0x00318000, 0x00318002},
    {0x4, 0x00318008, 0x0031800A},
    {0x4, 0x0031F000, 0x0031F00E},
    {0x4, 0x00342000, 0x00342000},
    {0x4, 0x00360000, 0x00360064},
    {0x4, 0x00371000, 0x0037100F},
    {0x4, 0x00382000, 0x00382024},
    // 0x8: 43 members
    {0x8, 0x00460000, 0x00460021},
    {0x8, 0x00471000, 0x00471002},
    {0x8, 0x00482000, 0x00482005},
    // 0x10: 30 members
    {0x10, 0x00518000, 0x00518001},
    {0x10, 0x00560000, 0x00560017},
    {0x10, 0x00582000, 0x00582003},
    // 0x20: 128 members
    {0x20, 0x0061F000, 0x0061F002},
    {0x20, 0x00620000, 0x00620000},
    {0x20, 0x00631000, 0x00631006},
    {0x20, 0x00660000, 0x00660060},
    {0x20, 0x00671000, 0x0067100A},
    {0x20, 0x00682000, 0x00682008},
    // 0x40: 49 members
    {0x40, 0x00742000, 0x00742003},
    {0x40, 0x00760000, 0x00760020},
    {0x40, 0x00760025, 0x00760027},
    {0x40, 0x00771000, 0x00771007},
    {0x40, 0x00782000, 0x00782000},
    // 0x80: 41 members
    {0x80, 0x0081F000, 0x0081F007},
    {0x80, 0x00860000, 0x0086001F},
    {0x80, 0x00871000, 0x00871000},
    // 0x100: 36 members
    {0x100, 0x00916000, 0x00916000},
    {0x100, 0x00918000, 0x00918000},
    {0x100, 0x0091F000, 0x0091F001},
    {0x100, 0x00960000, 0x00960017},
    {0x100, 0x00971000, 0x00971003},
    {0x100, 0x00982000, 0x00982003},
    // 0x200: 7 members
    {0x200, 0x00A60000, 0x00A60006},
    // 0x400: 12 members
    {0x400, 0x00B60000, 0x00B60003},
    {0x400, 0x00B82000, 0x00B82007},
    // 0x800: 17 members
    {0x800, 0x00C17000, 0x00C17001},
    {0x800, 0x00C18000, 0x00C18000},
    {0x800, 0x00C1F000, 0x00C1F001},
    {0x800, 0x00C60000, 0x00C60001},
    {0x800, 0x00C60003, 0x00C60007},
    {0x800, 0x00C71000, 0x00C71000},
    {0x800, 0x00C82000, 0x00C82003},
    // 0x1000: 19 members
    {0x1000, 0x00D17000, 0x00D17001},
    {0x1000, 0x00D18001, 0x00D18001},
    {0x1000, 0x00D1F000, 0x00D1F006},
    {0x1000, 0x00D60000, 0x00D60002},
    {0x1000, 0x00D71000, 0x00D71001},
    {0x1000, 0x00D82000, 0x00D82003},
    // 0x2000: 17 members
    {0x2000, 0x00E16000, 0x00E16002},
    {0x2000, 0x00E1F000, 0x00E1F002},
    {0x2000, 0x00E60000, 0x00E60003},
    {0x2000, 0x00E71000, 0x00E71002},
    {0x2000, 0x00E82000, 0x00E82003},
    // 0x4000: 57 members
    {0x4000, 0x00F16000, 0x00F16000},
    {0x4000, 0x00F17000, 0x00F17001},
    {0x4000, 0x00F1F000, 0x00F1F00C},
    {0x4000, 0x00F42000, 0x00F42001},
    {0x4000, 0x00F60000, 0x00F60010},
    {0x4000, 0x00F71000, 0x00F71001},
    {0x4000, 0x00F82000, 0x00F82013},
    // 0x8000: 20 members
    {0x8000, 0x01018000, 0x01018000},
    {0x8000, 0x0101F000, 0x0101F002},
    {0x8000, 0x01060000, 0x01060006},
    {0x8000, 0x01071000, 0x01071000},
    {0x8000, 0x01082000, 0x01082007},
    // 0x10000: 12 members
    {0x10000, 0x01114000, 0x01114000},
    {0x10000, 0x01117000, 0x01117002},
    {0x10000, 0x0111F000, 0x0111F000},
    {0x10000, 0x01160000, 0x01160002},
    {0x10000, 0x01182000, 0x01182003},
    // 0x20000: 3 members
    {0x20000, 0x0121F000, 0x0121F002},
    // 0x40000: 10 members
    {0x40000, 0x01313000, 0x01313000},
    {0x40000, 0x01314000, 0x01314000},
    {0x40000, 0x0131F000, 0x0131F000},
    {0x40000, 0x01360000, 0x01360001},
    {0x40000, 0x01382000, 0x01382004},
    // 0x80000: 8 members
    {0x80000, 0x01413000, 0x01413000},
    {0x80000, 0x01414000, 0x01414000},
    {0x80000, 0x01460000, 0x01460001},
    {0x80000, 0x01482000, 0x01482003},
    // 0x100000: 6 members
    {0x100000, 0x01514000, 0x01514000},
    {0x100000, 0x01560000, 0x01560000},
    {0x100000, 0x01582000, 0x01582003},
    // 0x200000: 6 members
    {0x200000, 0x01614000, 0x01614000},
    {0x200000, 0x01660000, 0x01660000},
    {0x200000, 0x01682000, 0x01682003},
    // 0x400000: 11 members
    {0x400000, 0x01717000, 0x01717000},
    {0x400000, 0x01760000, 0x01760003},
    {0x400000, 0x01782000, 0x01782004},
    {0x400000, 0x01782006, 0x01782006},
    // 0x800000: 2 members
    {0x800000, 0x01817000, 0x01817001},
    // 0x1000000: 116 members
    {0x1000000, 0x0191F000, 0x0191F008},
    {0x1000000, 0x01931000, 0x0193100E},
    {0x1000000, 0x01960000, 0x01960058},
    {0x1000000, 0x01982000, 0x01982002},
};

// A member table row as {member_id, category}.
using member = std::pair<unsigned int, unsigned int>;

std::vector<member> expanded_runs() {
    std::vector<member> rows;
    for (const run& r : kRuns) {
        for (unsigned int id = r.first; id <= r.last; ++id) rows.push_back({id, r.category});
    }
    return rows;
}

std::vector<member> member_table() {
    std::vector<member> rows;
    for (unsigned int i = 0; i < tev_ash_control::MEMBER_MAX; ++i) {
        rows.emplace_back(tev_ash_control::s_member_table[i].member_id,
                          tev_ash_control::s_member_table[i].category);
    }
    return rows;
}

// Reference lookup: the first row with the id, scanning from the front.
bool scan_for_member(unsigned int member_id, unsigned int* category) {
    for (unsigned int i = 0; i < tev_ash_control::MEMBER_MAX; ++i) {
        if (tev_ash_control::s_member_table[i].member_id == member_id) {
            *category = tev_ash_control::s_member_table[i].category;
            return true;
        }
    }
    return false;
}

std::string hex8(unsigned int value) {
    char text[16];
    std::snprintf(text, sizeof text, "%#.8X", value);
    return text;
}

// ---- The tables themselves ------------------------------------------------------------

TEST(ControlTables, SizesMatchTheArrays) {
    EXPECT_EQ(910u, tev_ash_control::MEMBER_MAX);
    EXPECT_EQ(24u, tev_ash_control::CATEGORY_MAX);
    EXPECT_EQ(21u, tev_ash_control::ALL_JOB_SET_NUM);
    EXPECT_EQ(std::size(tev_ash_control::s_member_table), tev_ash_control::MEMBER_MAX);
    EXPECT_EQ(std::size(tev_ash_control::s_category_table), tev_ash_control::CATEGORY_MAX);
    EXPECT_EQ(std::size(tev_ash_control::s_job_set_list), tev_ash_control::ALL_JOB_SET_NUM);
}

TEST(ControlTables, MemberTableHoldsExactlyTheRunsInIdOrder) {
    ASSERT_EQ(112u, std::size(kRuns));
    std::vector<member> table = member_table();
    EXPECT_EQ(expanded_runs(), table);

    ASSERT_FALSE(table.empty());
    EXPECT_EQ(0x00118000u, table.front().first);
    EXPECT_EQ(0x01982002u, table.back().first);
    for (std::size_t i = 1; i < table.size(); ++i) {
        EXPECT_LT(table[i - 1].first, table[i].first) << "row " << i;
        EXPECT_LE(table[i - 1].second, table[i].second) << "row " << i;
    }
}

TEST(ControlTables, EveryMemberBelongsToTheCategoryItsIdNames) {
    for (const member& row : member_table()) {
        unsigned int n = row.first >> 20;
        ASSERT_GE(n, 1u) << hex8(row.first);
        ASSERT_LE(n, 25u) << hex8(row.first);
        EXPECT_EQ(1u << (n - 1), row.second) << hex8(row.first);
    }
}

TEST(ControlTables, MembersPerCategory) {
    const std::map<unsigned int, unsigned int> expected = {
        {0x1, 11},     {0x2, 42},     {0x4, 207},     {0x8, 43},     {0x10, 30},
        {0x20, 128},   {0x40, 49},    {0x80, 41},     {0x100, 36},   {0x200, 7},
        {0x400, 12},   {0x800, 17},   {0x1000, 19},   {0x2000, 17},  {0x4000, 57},
        {0x8000, 20},  {0x10000, 12}, {0x20000, 3},   {0x40000, 10}, {0x80000, 8},
        {0x100000, 6}, {0x200000, 6}, {0x400000, 11}, {0x800000, 2}, {0x1000000, 116},
    };
    std::map<unsigned int, unsigned int> counted;
    for (const member& row : member_table()) ++counted[row.second];
    EXPECT_EQ(expected, counted);
}

TEST(ControlTables, CategoryTableInLookupOrder) {
    const std::vector<std::pair<unsigned int, unsigned int>> expected = {
        {0x2, 0},     {0x1, 1},     {0x4, 2},      {0x400000, 3}, {0x8, 4},      {0x10, 4},
        {0x20, 4},    {0x40, 4},    {0x80, 4},     {0x100, 4},    {0x200, 4},    {0x400, 4},
        {0x800, 4},   {0x1000, 4},  {0x2000, 4},   {0x4000, 4},   {0x10000, 4},  {0x20000, 4},
        {0x40000, 4}, {0x80000, 4}, {0x100000, 4}, {0x200000, 4}, {0x800000, 4}, {0x1000000, 4},
    };
    std::vector<std::pair<unsigned int, unsigned int>> actual;
    for (const tev_ash_category_row& row : tev_ash_control::s_category_table) {
        actual.emplace_back(row.category, row.level);
    }
    EXPECT_EQ(expected, actual);
}

TEST(ControlTables, JobSetListLeavesOutTheUpperLevelsAndTheLevellessCategory) {
    const std::vector<unsigned int> expected = {
        0x4,     0x8,     0x10,    0x20,     0x40,     0x80,     0x100,
        0x200,   0x400,   0x800,   0x1000,   0x2000,   0x4000,   0x10000,
        0x20000, 0x40000, 0x80000, 0x100000, 0x200000, 0x800000, 0x1000000,
    };
    EXPECT_EQ(expected, std::vector<unsigned int>(std::begin(tev_ash_control::s_job_set_list),
                                                  std::end(tev_ash_control::s_job_set_list)));
}

// ---- The lookups ----------------------------------------------------------------------

class ControlTableLookups : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        tevtest::answer_service_checks();
        control_ = new tev_ash_control();
        tevhost::set_check_script(nullptr);
    }
    static void TearDownTestSuite() {
        delete control_;
        control_ = nullptr;
    }

    // Looks `member_id` up; UNTOUCHED when the out-value was not written.
    unsigned int category_of(unsigned int member_id, unsigned int* rc) {
        auto category = static_cast<TEV_ASH_CATEGORY>(UNTOUCHED);
        *rc = control_->get_member_category(member_id, &category);
        return category;
    }

    static tev_ash_control* control_;
    tevhost::trace_capture capture_;
};

tev_ash_control* ControlTableLookups::control_ = nullptr;

// Checks the one trace line written: module, level, file and function, and the
// message, whatever the source line.
void expect_single_trace(const std::vector<tevhost::trace_line>& lines, const std::string& function,
                         const std::string& message) {
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(0xC103u, lines[0].module);
    EXPECT_EQ(0x102u, lines[0].level);
    EXPECT_EQ(0u, lines[0].flag);
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(lines[0].text, parts,
                                 std::regex(R"(tev_ash_control\[\d{4}\]::([^\n]*)\n)")))
        << lines[0].text;
    EXPECT_EQ(function + "," + message, parts[1].str());
}

TEST_F(ControlTableLookups, MemberLookupAgreesWithAScanForEveryIdAndItsNeighbours) {
    std::vector<unsigned int> ids = {0x0,        0x1,        0x00100000, 0x00117FFF,
                                     0x01982003, 0x01A00000, 0x1A000000, 0xFFFFFFFF};
    for (const member& row : member_table()) {
        ids.push_back(row.first - 1);
        ids.push_back(row.first);
        ids.push_back(row.first + 1);
    }
    for (unsigned int id : ids) {
        unsigned int expected = UNTOUCHED;
        bool listed = scan_for_member(id, &expected);
        unsigned int rc = 0;
        EXPECT_EQ(expected, category_of(id, &rc)) << hex8(id);
        EXPECT_EQ(listed ? 0u : FAILURE, rc) << hex8(id);
    }
}

TEST_F(ControlTableLookups, IdsBetweenRunsAreUnknown) {
    for (std::size_t i = 1; i < std::size(kRuns); ++i) {
        for (unsigned int id : {kRuns[i - 1].last + 1, kRuns[i].first - 1}) {
            unsigned int rc = 0;
            EXPECT_EQ(UNTOUCHED, category_of(id, &rc)) << hex8(id);
            EXPECT_EQ(FAILURE, rc) << hex8(id);
        }
    }
}

TEST_F(ControlTableLookups, KnownMembers) {
    const std::pair<unsigned int, unsigned int> cases[] = {
        {0x00160000, 0x1},      {0x0021F008, 0x2},       {0x00360064, 0x4}, {0x01018000, 0x8000},
        {0x01782006, 0x400000}, {0x01960058, 0x1000000}, {0x00118000, 0x1}, {0x01982002, 0x1000000},
    };
    for (const auto& [id, category] : cases) {
        unsigned int rc = FAILURE;
        EXPECT_EQ(category, category_of(id, &rc)) << hex8(id);
        EXPECT_EQ(0u, rc) << hex8(id);
    }
    EXPECT_TRUE(capture_.lines().empty());
}

TEST_F(ControlTableLookups, UnknownMemberTracesItsIdAndOutPointer) {
    const std::pair<unsigned int, const char*> cases[] = {
        {0x00218004, "0X00218004"},
        {0x00760021, "0X00760021"},
        {0x00C60002, "0X00C60002"},
        {0x0, "00000000"},
    };
    for (const auto& [id, id_text] : cases) {
        capture_.clear();
        auto category = static_cast<TEV_ASH_CATEGORY>(UNTOUCHED);
        EXPECT_EQ(FAILURE, control_->get_member_category(id, &category));
        EXPECT_EQ(UNTOUCHED, static_cast<unsigned int>(category));
        char message[160];
        std::snprintf(message, sizeof message,
                      "[Error](Member Not Found) rc:0xc1030001, member_id:%s, &category:%p",
                      id_text, static_cast<void*>(&category));
        expect_single_trace(capture_.lines(), "get_member_category", message);
    }
}

TEST_F(ControlTableLookups, LevelsOfTheKnownCategories) {
    for (const tev_ash_category_row& row : tev_ash_control::s_category_table) {
        unsigned int level = UNTOUCHED;
        EXPECT_EQ(
            0u, control_->get_category_level(static_cast<TEV_ASH_CATEGORY>(row.category), &level));
        EXPECT_EQ(row.level, level) << hex8(row.category);
    }
    unsigned int level = UNTOUCHED;
    EXPECT_EQ(0u, control_->get_category_level(velmora::TEV_ASH_CAT_AUTH, &level));
    EXPECT_EQ(0u, level);
    EXPECT_EQ(0u, control_->get_category_level(velmora::TEV_ASH_CAT_SUBJOB, &level));
    EXPECT_EQ(3u, level);
    EXPECT_EQ(0u, control_->get_category_level(velmora::TEV_ASH_CAT_JOBSET_24, &level));
    EXPECT_EQ(4u, level);
    EXPECT_TRUE(capture_.lines().empty());
}

TEST_F(ControlTableLookups, CategoryWithoutLevelTracesItAndTheOutPointer) {
    for (unsigned int category : {0x8000u, 0x0u, 0x3u, 0x2000000u, 0xFFFFFFFFu}) {
        capture_.clear();
        unsigned int level = UNTOUCHED;
        EXPECT_EQ(FAILURE,
                  control_->get_category_level(static_cast<TEV_ASH_CATEGORY>(category), &level));
        EXPECT_EQ(UNTOUCHED, level);
        char message[160];
        std::snprintf(message, sizeof message,
                      "[Error](Category Not Found) rc:0xc1030001, category:%u, &level:%p", category,
                      static_cast<void*>(&level));
        expect_single_trace(capture_.lines(), "get_category_level", message);
    }
}

TEST_F(ControlTableLookups, JobSetCategoriesAmongAllBitsAndOtherValues) {
    for (unsigned int bit = 0; bit < 32; ++bit) {
        unsigned int category = 1u << bit;
        bool job_set = bit >= 2 && bit <= 24 && bit != 15 && bit != 22;
        EXPECT_EQ(job_set ? 1u : 0u,
                  control_->is_category_job_set(static_cast<TEV_ASH_CATEGORY>(category)))
            << hex8(category);
    }
    for (unsigned int category : {0x0u, 0xCu, 0xFFFFFFFFu}) {
        EXPECT_EQ(0u, control_->is_category_job_set(static_cast<TEV_ASH_CATEGORY>(category)));
    }
    EXPECT_TRUE(capture_.lines().empty());
}

}  // namespace
