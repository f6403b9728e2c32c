// The built-in member, category and job-set tables of tev_ash_control and the
// three lookups over them: the table content against an independent copy of the
// run list, and each lookup's results and trace lines.
#include <cstdio>
#include <iterator>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "tev_ash_control.h"
#include "tev_lib_support.h"
#include "tev_test_support.h"

namespace {

using tevtest::hex8;
using velmora::TEV_ASH_CATEGORY;
using velmora::tev_ash_category_row;
using velmora::tev_ash_control;

constexpr unsigned int FAILURE = 0xC1030001;
constexpr unsigned int UNTOUCHED = 0xDEADBEEF;

// The members of every category in ascending id order, as runs of consecutive
// ids: first id, count, first id, count, ...
struct category_runs {
    unsigned int category;
    std::vector<unsigned int> runs;
};
const category_runs kRuns[] = {
    {0x1, {0x118000, 1, 0x142000, 1, 0x160000, 2, 0x171000, 1, 0x182000, 6}},
    {0x2,
     {0x217000, 1, 0x218000, 4, 0x21800A, 1, 0x21F000, 11, 0x260000, 13, 0x271000, 7, 0x282000, 5}},
    {0x4, {0x313000, 22, 0x314000, 1, 0x315000, 7,   0x317000, 1,  0x318000, 3, 0x318008, 3,
           0x31F000, 15, 0x342000, 1, 0x360000, 101, 0x371000, 16, 0x382000, 37}},
    {0x8, {0x460000, 34, 0x471000, 3, 0x482000, 6}},
    {0x10, {0x518000, 2, 0x560000, 24, 0x582000, 4}},
    {0x20, {0x61F000, 3, 0x620000, 1, 0x631000, 7, 0x660000, 97, 0x671000, 11, 0x682000, 9}},
    {0x40, {0x742000, 4, 0x760000, 33, 0x760025, 3, 0x771000, 8, 0x782000, 1}},
    {0x80, {0x81F000, 8, 0x860000, 32, 0x871000, 1}},
    {0x100, {0x916000, 1, 0x918000, 1, 0x91F000, 2, 0x960000, 24, 0x971000, 4, 0x982000, 4}},
    {0x200, {0xA60000, 7}},
    {0x400, {0xB60000, 4, 0xB82000, 8}},
    {0x800,
     {0xC17000, 2, 0xC18000, 1, 0xC1F000, 2, 0xC60000, 2, 0xC60003, 5, 0xC71000, 1, 0xC82000, 4}},
    {0x1000, {0xD17000, 2, 0xD18001, 1, 0xD1F000, 7, 0xD60000, 3, 0xD71000, 2, 0xD82000, 4}},
    {0x2000, {0xE16000, 3, 0xE1F000, 3, 0xE60000, 4, 0xE71000, 3, 0xE82000, 4}},
    {0x4000,
     {0xF16000, 1, 0xF17000, 2, 0xF1F000, 13, 0xF42000, 2, 0xF60000, 17, 0xF71000, 2, 0xF82000,
      20}},
    {0x8000, {0x1018000, 1, 0x101F000, 3, 0x1060000, 7, 0x1071000, 1, 0x1082000, 8}},
    {0x10000, {0x1114000, 1, 0x1117000, 3, 0x111F000, 1, 0x1160000, 3, 0x1182000, 4}},
    {0x20000, {0x121F000, 3}},
    {0x40000, {0x1313000, 1, 0x1314000, 1, 0x131F000, 1, 0x1360000, 2, 0x1382000, 5}},
    {0x80000, {0x1413000, 1, 0x1414000, 1, 0x1460000, 2, 0x1482000, 4}},
    {0x100000, {0x1514000, 1, 0x1560000, 1, 0x1582000, 4}},
    {0x200000, {0x1614000, 1, 0x1660000, 1, 0x1682000, 4}},
    {0x400000, {0x1717000, 1, 0x1760000, 4, 0x1782000, 5, 0x1782006, 1}},
    {0x800000, {0x1817000, 2}},
    {0x1000000, {0x191F000, 9, 0x1931000, 15, 0x1960000, 89, 0x1982000, 3}},
};

// A table row's two columns: {member_id, category} or {category, level}.
using row_pair = std::pair<unsigned int, unsigned int>;

// ---- The tables themselves

TEST(ControlTables, MemberTableHoldsExactlyTheRunsInIdOrder) {
    std::vector<row_pair> expected;
    std::size_t runs = 0;
    for (const category_runs& c : kRuns) {
        runs += c.runs.size() / 2;
        for (std::size_t i = 0; i + 1 < c.runs.size(); i += 2) {
            for (unsigned int id = c.runs[i]; id < c.runs[i] + c.runs[i + 1]; ++id) {
                expected.emplace_back(id, c.category);
            }
        }
    }
    ASSERT_EQ(112u, runs);
    ASSERT_EQ(910u, tev_ash_control::MEMBER_MAX);
    ASSERT_EQ(std::size(tev_ash_control::s_member_table), tev_ash_control::MEMBER_MAX);
    std::vector<row_pair> actual;
    for (const auto& row : tev_ash_control::s_member_table) {
        actual.emplace_back(row.member_id, row.category);
    }
    EXPECT_EQ(expected, actual);
}

TEST(ControlTables, CategoryTableInLookupOrderAndTheJobSetList) {
    const std::vector<row_pair> categories = {
        {0x2, 0},     {0x1, 1},     {0x4, 2},      {0x400000, 3}, {0x8, 4},      {0x10, 4},
        {0x20, 4},    {0x40, 4},    {0x80, 4},     {0x100, 4},    {0x200, 4},    {0x400, 4},
        {0x800, 4},   {0x1000, 4},  {0x2000, 4},   {0x4000, 4},   {0x10000, 4},  {0x20000, 4},
        {0x40000, 4}, {0x80000, 4}, {0x100000, 4}, {0x200000, 4}, {0x800000, 4}, {0x1000000, 4},
    };
    EXPECT_EQ(categories.size(), tev_ash_control::CATEGORY_MAX);
    std::vector<row_pair> actual;
    for (const tev_ash_category_row& row : tev_ash_control::s_category_table) {
        actual.emplace_back(row.category, row.level);
    }
    EXPECT_EQ(categories, actual);

    // The job sets leave out the upper levels and the levelless category.
    const std::vector<unsigned int> job_sets = {
        0x4,     0x8,     0x10,    0x20,     0x40,     0x80,     0x100,
        0x200,   0x400,   0x800,   0x1000,   0x2000,   0x4000,   0x10000,
        0x20000, 0x40000, 0x80000, 0x100000, 0x200000, 0x800000, 0x1000000,
    };
    EXPECT_EQ(job_sets.size(), tev_ash_control::ALL_JOB_SET_NUM);
    EXPECT_EQ(job_sets, std::vector<unsigned int>(std::begin(tev_ash_control::s_job_set_list),
                                                  std::end(tev_ash_control::s_job_set_list)));
}

// ---- The lookups

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

    // Checks the one trace line written: module, level, file and function, and
    // the message, whatever the source line.
    void expect_single_trace(const std::string& function, const std::string& message) {
        const auto lines = capture_.lines();
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

    static tev_ash_control* control_;
    tevhost::trace_capture capture_;
};

tev_ash_control* ControlTableLookups::control_ = nullptr;

TEST_F(ControlTableLookups, MemberLookupAgreesWithAScanForEveryIdAndItsNeighbours) {
    std::vector<unsigned int> ids = {0x1A000000, 0xFFFFFFFF};
    for (unsigned int key = 0; key <= 0x1B; ++key) {  // both ends of every category's id range
        ids.push_back(key << 20);
        ids.push_back((key << 20) | 0xFFFFF);
    }
    for (const auto& row : tev_ash_control::s_member_table) {
        for (unsigned int id : {row.member_id - 1, row.member_id, row.member_id + 1}) {
            ids.push_back(id);
        }
    }
    for (unsigned int id : ids) {
        unsigned int expected = UNTOUCHED, expected_rc = FAILURE;
        for (const auto& row : tev_ash_control::s_member_table) {
            if (row.member_id == id) {
                expected = row.category;
                expected_rc = 0;
                break;
            }
        }
        auto category = static_cast<TEV_ASH_CATEGORY>(UNTOUCHED);
        EXPECT_EQ(expected_rc, control_->get_member_category(id, &category)) << hex8(id);
        EXPECT_EQ(expected, static_cast<unsigned int>(category)) << hex8(id);
    }
}

TEST_F(ControlTableLookups, NotFoundTracesTheValueAndOutPointer) {
    auto category = static_cast<TEV_ASH_CATEGORY>(UNTOUCHED);
    EXPECT_EQ(FAILURE, control_->get_member_category(0x00218004, &category));
    char message[160];
    std::snprintf(message, sizeof message,
                  "[Error](Member Not Found) rc:0xc1030001, member_id:0X00218004, &category:%p",
                  static_cast<void*>(&category));
    expect_single_trace("get_member_category", message);

    capture_.clear();
    unsigned int level = UNTOUCHED;
    EXPECT_EQ(FAILURE, control_->get_category_level(static_cast<TEV_ASH_CATEGORY>(0x8000), &level));
    EXPECT_EQ(UNTOUCHED, level);
    std::snprintf(message, sizeof message,
                  "[Error](Category Not Found) rc:0xc1030001, category:32768, &level:%p",
                  static_cast<void*>(&level));
    expect_single_trace("get_category_level", message);
}

TEST_F(ControlTableLookups, CategoryLevelsAndJobSetsAmongAllBits) {
    for (const tev_ash_category_row& row : tev_ash_control::s_category_table) {
        unsigned int level = UNTOUCHED;
        EXPECT_EQ(
            0u, control_->get_category_level(static_cast<TEV_ASH_CATEGORY>(row.category), &level));
        EXPECT_EQ(row.level, level) << hex8(row.category);
    }
    for (unsigned int category : {0x0u, 0x3u, 0xFFFFFFFFu}) {
        unsigned int level = UNTOUCHED;
        EXPECT_EQ(FAILURE,
                  control_->get_category_level(static_cast<TEV_ASH_CATEGORY>(category), &level));
    }
    capture_.clear();
    for (unsigned int bit = 0; bit < 32; ++bit) {
        const unsigned int category = 1u << bit;
        const bool job_set = bit >= 2 && bit <= 24 && bit != 15 && bit != 22;
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
