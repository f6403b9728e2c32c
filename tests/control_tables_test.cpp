// The lookups over the built-in tables of tev_ash_control (the tables
// themselves are checked by their generator): the member lookup through its
// index against a plain scan of the member table, job sets, failed lookups.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tev_test_support.h"

namespace {

using namespace velmora;
using tevtest::hex8;
using tevtest::lines;
using tevtest::ptr;
using tevtest::trace_calls;

constexpr unsigned int FAILURE = 0xC1030001, UNTOUCHED = 0xDEADBEEF;

using ControlTables = tevtest::library_test;

// A failed lookup leaves the out-value alone and traces the id and out-pointer.
TEST_F(ControlTables, MemberLookupAgreesWithAScanForEveryIdAndItsNeighbours) {
    std::vector<unsigned int> ids = {0x1A000000, 0xFFFFFFFF};
    for (unsigned int key = 0; key <= 0x1B; ++key)
        ids.insert(ids.end(), {key << 20, key << 20 | 0xFFFFF});
    for (const auto& row : tev_ash_control::s_member_table) {
        ids.insert(ids.end(), {row.member_id - 1, row.member_id, row.member_id + 1});
    }
    for (unsigned int id : ids) {
        unsigned int want = UNTOUCHED;
        for (const auto& row : tev_ash_control::s_member_table) {
            if (row.member_id == id) want = row.category;
        }
        auto got = static_cast<TEV_ASH_CATEGORY>(UNTOUCHED);
        trace_.clear();
        EXPECT_EQ(want == UNTOUCHED ? FAILURE : 0u, control.get_member_category(id, &got))
            << hex8(id);
        EXPECT_EQ(want, static_cast<unsigned int>(got)) << hex8(id);
        EXPECT_EQ(want != UNTOUCHED ? lines{}
                                    : lines{"tev_ash_control::get_member_category,[Error](Member "
                                            "Not Found) rc:0xc1030001, member_id:" +
                                            hex8(id) + ", &category:" + ptr(&got)},
                  trace_calls());
    }
}

// Levels are seen through the resolution of members; the job sets here, and a
// category without a level.
TEST_F(ControlTables, JobSetsAreTheSingleBitsOfTheLowerLevels) {
    for (unsigned int bit = 0; bit < 32; ++bit) {
        const bool job_set = bit >= 2 && bit <= 24 && bit != 15 && bit != 22;
        EXPECT_EQ(job_set ? 1u : 0u, control.is_category_job_set(TEV_ASH_CATEGORY(1u << bit)))
            << bit;
    }
    for (unsigned int category : {0x0u, 0xCu, 0xFFFFFFFFu}) {
        EXPECT_EQ(0u, control.is_category_job_set(TEV_ASH_CATEGORY(category)));
    }
    unsigned int level = UNTOUCHED;
    EXPECT_EQ(FAILURE, control.get_category_level(TEV_ASH_CATEGORY(0x8000), &level));
    EXPECT_EQ(UNTOUCHED, level);
    EXPECT_EQ(lines{"tev_ash_control::get_category_level,[Error](Category Not Found) "
                    "rc:0xc1030001, category:32768, &level:" +
                    ptr(&level)},
              trace_calls());
}

}  // namespace
