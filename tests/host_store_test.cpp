// The host record store: records, links, members, failure codes and seams.
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/tev_host.h"
#include "tev_test_support.h"
#include "wud_wud_service_info.h"

namespace {

using S = velmora::wud_wud_service_info;
using namespace tevhost;
using ::testing::ElementsAre;

constexpr unsigned int CMP = 0xC103;
constexpr unsigned char FLAG = 0;
constexpr unsigned int ROOT = 0x2, JOB = 0x4, SET_A = 0x8, SET_B = 0x10;
constexpr unsigned int SENTINEL = 0xDEADBEEF;

unsigned int make(unsigned int category) {
    unsigned int id = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_make_current(CMP, category, FLAG, &id));
    return id;
}

void link(unsigned int parent, unsigned int child) {
    unsigned int pc = 0, cc = 0;
    ASSERT_EQ(0u, S::wud_wud_service_info_get_job_category_by_id(CMP, parent, &pc));
    ASSERT_EQ(0u, S::wud_wud_service_info_get_job_category_by_id(CMP, child, &cc));
    ASSERT_EQ(0u, S::wud_wud_service_info_set_link(CMP, pc, parent, cc, child));
}

std::vector<unsigned int> children(unsigned int parent) {
    std::vector<unsigned int> out;
    unsigned int n = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link_num_direct(CMP, parent, &n));
    for (unsigned int i = 0; i < n; ++i) {
        unsigned int id = 0;
        EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link_direct(CMP, parent, i, &id));
        out.push_back(id);
    }
    unsigned int past = SENTINEL;
    EXPECT_EQ(STORE_NO_LINK, S::wud_wud_service_info_get_child_link_direct(CMP, parent, n, &past));
    EXPECT_EQ(SENTINEL, past);
    return out;
}

std::vector<unsigned int> children_of(unsigned int parent, unsigned int parent_cat,
                                      unsigned int cat) {
    std::vector<unsigned int> out;
    unsigned int n = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link_num(CMP, parent_cat, parent, cat, &n));
    for (unsigned int i = 0; i <= n; ++i) {
        unsigned int id = 0;
        unsigned int rc =
            S::wud_wud_service_info_get_child_link(CMP, parent_cat, parent, cat, i, &id);
        if (i == n) {
            EXPECT_EQ(STORE_NO_LINK, rc);
        } else {
            EXPECT_EQ(0u, rc);
            out.push_back(id);
        }
    }
    return out;
}

uint32_t read32(unsigned int id, unsigned int member) {
    unsigned char buf[8];
    std::memset(buf, 0xAA, sizeof buf);
    EXPECT_EQ(0u, S::wud_wud_service_info_get_current(CMP, id, member, buf));
    EXPECT_EQ(0xAA, buf[4]) << "read wrote past the member's width";
    return buf[0] | buf[1] << 8 | buf[2] << 16 | static_cast<uint32_t>(buf[3]) << 24;
}

enum class backend { memory, file };

std::string backend_name(const ::testing::TestParamInfo<backend>& info) {
    return info.param == backend::memory ? "Memory" : "File";
}

// A database path of its own for one test; the file and its companions go away
// with it.
class temp_db {
public:
    temp_db() {
        char dir[] = "/tmp/tevash_store_XXXXXX";
        if (mkdtemp(dir) != nullptr) dir_ = dir;
    }
    ~temp_db() {
        for (const char* suffix : {"", "-wal", "-shm", "-journal"})
            unlink((path() + suffix).c_str());
        rmdir(dir_.c_str());
    }
    temp_db(const temp_db&) = delete;
    temp_db& operator=(const temp_db&) = delete;
    std::string path() const { return dir_ + "/store.db"; }
    std::string dir() const { return dir_; }

private:
    std::string dir_;
};

// Every test of the store semantics runs on a fresh store of each backend.
class Store : public ::testing::TestWithParam<backend> {
protected:
    void SetUp() override {
        if (GetParam() == backend::file) {
            std::string error;
            ASSERT_TRUE(store_use_file(db_.path(), &error)) << error;
        }
    }
    void TearDown() override { store_use_memory(); }  // closes the database

    tevtest::fresh_store store_;
    temp_db db_;
};

INSTANTIATE_TEST_SUITE_P(Backends, Store, ::testing::Values(backend::memory, backend::file),
                         backend_name);

TEST_P(Store, IdsIncreaseAndAreNeverReused) {
    unsigned int a = make(ROOT);
    unsigned int b = make(ROOT);
    EXPECT_NE(0u, a);
    EXPECT_GT(b, a);
    ASSERT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, b));
    store_clear();
    EXPECT_GT(make(ROOT), b);
    store_use_memory();
    unsigned int c = make(ROOT);
    EXPECT_GT(c, b);
    std::vector<record_info> records = store_records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(c, records[0].handler_id);
}

TEST_P(Store, ChildrenKeepLinkOrderAmongAllAndPerCategory) {
    unsigned int job = make(JOB);
    unsigned int a1 = make(SET_A), b1 = make(SET_B), a2 = make(SET_A), b2 = make(SET_B);
    for (unsigned int c : {a1, b1, a2, b2}) link(job, c);

    EXPECT_THAT(children(job), ElementsAre(a1, b1, a2, b2));
    EXPECT_THAT(children_of(job, JOB, SET_A), ElementsAre(a1, a2));
    EXPECT_THAT(children_of(job, JOB, SET_B), ElementsAre(b1, b2));
    EXPECT_TRUE(children_of(job, JOB, ROOT).empty());

    unsigned int parent = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_parent_link(CMP, SET_B, b2, &parent));
    EXPECT_EQ(job, parent);

    unsigned int out = SENTINEL;
    EXPECT_EQ(STORE_BAD_CATEGORY,
              S::wud_wud_service_info_get_child_link(CMP, ROOT, job, SET_A, 0, &out));
    EXPECT_EQ(STORE_BAD_CATEGORY, S::wud_wud_service_info_get_parent_link(CMP, SET_A, b2, &out));
    EXPECT_EQ(STORE_NO_LINK, S::wud_wud_service_info_get_parent_link(CMP, JOB, job, &out));
    EXPECT_EQ(SENTINEL, out);
}

TEST_P(Store, DeleteLeavesParentsListAndFreesChildren) {
    unsigned int root = make(ROOT), job = make(JOB);
    unsigned int a1 = make(SET_A), a2 = make(SET_A), a3 = make(SET_A);
    link(root, job);
    for (unsigned int c : {a1, a2, a3}) link(job, c);

    ASSERT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, a2));
    EXPECT_THAT(children(job), ElementsAre(a1, a3));
    EXPECT_THAT(children_of(job, JOB, SET_A), ElementsAre(a1, a3));

    ASSERT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, job));
    EXPECT_TRUE(children(root).empty());
    unsigned int parent = SENTINEL;
    EXPECT_EQ(STORE_NO_LINK, S::wud_wud_service_info_get_parent_link(CMP, SET_A, a1, &parent));
    link(root, a1);  // a freed child can be linked again

    unsigned int category = SENTINEL;
    EXPECT_EQ(STORE_NO_RECORD, S::wud_wud_service_info_get_job_category_by_id(CMP, job, &category));
    EXPECT_EQ(STORE_NO_RECORD, S::wud_wud_service_info_delete_current(CMP, job));
    EXPECT_EQ(SENTINEL, category);
}

TEST_P(Store, LinkRules) {
    unsigned int root = make(ROOT), job = make(JOB), set = make(SET_A), other = make(JOB);
    link(root, job);
    link(job, set);
    struct {
        unsigned int pc, p, cc, c, rc;
    } cases[] = {
        {ROOT, root, JOB, 999999, STORE_NO_RECORD},  {ROOT, 0, JOB, other, STORE_NO_RECORD},
        {JOB, root, JOB, other, STORE_BAD_CATEGORY}, {ROOT, root, SET_A, other, STORE_BAD_CATEGORY},
        {JOB, other, SET_A, set, STORE_HAS_PARENT},  {JOB, other, JOB, other, STORE_CYCLE},
        {SET_A, set, ROOT, root, STORE_CYCLE},
    };
    std::vector<record_info> before = store_records();
    for (const auto& c : cases) {
        EXPECT_EQ(c.rc, S::wud_wud_service_info_set_link(CMP, c.pc, c.p, c.cc, c.c))
            << c.pc << " " << c.p << " " << c.cc << " " << c.c;
    }
    EXPECT_EQ(before.size(), store_records().size());
    EXPECT_THAT(children(job), ElementsAre(set));
    EXPECT_TRUE(children(other).empty());

    EXPECT_EQ(STORE_BAD_CATEGORY, S::wud_wud_service_info_delete_link(CMP, JOB, set));
    EXPECT_EQ(STORE_NO_LINK, S::wud_wud_service_info_delete_link(CMP, ROOT, root));
    EXPECT_EQ(0u, S::wud_wud_service_info_delete_link(CMP, SET_A, set));
    EXPECT_TRUE(children(job).empty());
    link(other, set);
    EXPECT_THAT(children(other), ElementsAre(set));
}

TEST_P(Store, CopyAndInitWorkOnMembersOnly) {
    ASSERT_TRUE(declare_member(100, member_kind::u32, 0, {0x07}));
    unsigned int parent = make(JOB), src = make(SET_A), dst = make(SET_A);
    link(parent, src);
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, src, 100, 41ul));
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, dst, 200, 5ul));

    unsigned int made = 0;
    ASSERT_EQ(0u, S::wud_wud_service_info_make_and_copy_current(CMP, SET_B, FLAG, src, &made));
    EXPECT_EQ(41u, read32(made, 100));
    unsigned int parent_of_made = SENTINEL, category = 0;
    EXPECT_EQ(STORE_NO_LINK,
              S::wud_wud_service_info_get_parent_link(CMP, SET_B, made, &parent_of_made));
    EXPECT_EQ(0u, S::wud_wud_service_info_get_job_category_by_id(CMP, made, &category));
    EXPECT_EQ(SET_B, category);

    ASSERT_EQ(0u, S::wud_wud_service_info_copy_current(CMP, src, dst));
    EXPECT_EQ(41u, read32(dst, 100));
    unsigned char buf[4];
    EXPECT_EQ(STORE_NO_MEMBER, S::wud_wud_service_info_get_current(CMP, dst, 200, buf));
    EXPECT_TRUE(children(dst).empty());

    ASSERT_EQ(0u, S::wud_wud_service_info_init_current(CMP, src));
    EXPECT_EQ(7u, read32(src, 100));
    EXPECT_THAT(children(parent), ElementsAre(src));
}

TEST_P(Store, TypedWritesHaveTheirWidths) {
    unsigned int id = make(JOB);
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, id, 1, static_cast<char>(-2)));
    ASSERT_EQ(0u,
              S::wud_wud_service_info_set_current(CMP, id, 2, static_cast<unsigned char>(0xFE)));
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, id, 3, static_cast<short>(-2)));
    ASSERT_EQ(0u,
              S::wud_wud_service_info_set_current(CMP, id, 4, static_cast<unsigned short>(0x1234)));
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, id, 5, -2l));
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, id, 6, 0x1234567890ul));
    struct {
        unsigned int member, width;
        std::vector<unsigned char> bytes;
    } expected[] = {
        {1, 1, {0xFE}},
        {2, 1, {0xFE}},
        {3, 2, {0xFE, 0xFF}},
        {4, 2, {0x34, 0x12}},
        {5, 4, {0xFE, 0xFF, 0xFF, 0xFF}},
        {6, 4, {0x90, 0x78, 0x56, 0x34}},
    };
    for (const auto& e : expected) {
        std::vector<unsigned char> buf(8, 0xAA);
        ASSERT_EQ(0u, S::wud_wud_service_info_get_current(CMP, id, e.member, buf.data()));
        std::vector<unsigned char> want = e.bytes;
        want.resize(8, 0xAA);
        EXPECT_EQ(want, buf) << "member " << e.member;
        // The first typed write fixed the width; another width is refused.
        EXPECT_EQ(STORE_WIDTH, e.width == 4
                                   ? S::wud_wud_service_info_set_current(CMP, id, e.member, 'x')
                                   : S::wud_wud_service_info_set_current(CMP, id, e.member, 1l));
    }
}

TEST_P(Store, DeclaredMembersAndByteStrings) {
    EXPECT_FALSE(declare_member(50, member_kind::bytes, 0));
    ASSERT_TRUE(declare_member(50, member_kind::bytes, 6, {'a', 'b'}));
    ASSERT_TRUE(declare_member(51, member_kind::u16));
    unsigned int id = make(JOB);

    char buf[8] = "zzzzzzz";
    ASSERT_EQ(0u, S::wud_wud_service_info_get_current(CMP, id, 50, buf));
    EXPECT_EQ(0, std::memcmp(buf, "ab\0\0\0\0z", 7));

    char value[8] = "hello!?";
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, id, 50, static_cast<void*>(value)));
    ASSERT_EQ(0u, S::wud_wud_service_info_get_current(CMP, id, 50, buf));
    EXPECT_EQ(0, std::memcmp(buf, "hello!z", 7));

    EXPECT_EQ(STORE_WIDTH, S::wud_wud_service_info_set_current(CMP, id, 51, 1ul));
    EXPECT_EQ(STORE_WIDTH, S::wud_wud_service_info_set_current(CMP, id, 50, 1ul));
    EXPECT_EQ(0u, S::wud_wud_service_info_set_current(CMP, id, 51, static_cast<short>(3)));
    EXPECT_EQ(STORE_NO_MEMBER,
              S::wud_wud_service_info_set_current(CMP, id, 52, static_cast<void*>(value)));
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, id, 52, 9l));
    EXPECT_EQ(0u, S::wud_wud_service_info_set_current(CMP, id, 52, static_cast<void*>(value)));
    EXPECT_EQ(0x6C6C6568u, read32(id, 52));
}

TEST_P(Store, FailedCallsChangeNothingAndWriteNoOutValue) {
    unsigned int job = make(JOB), set = make(SET_A);
    link(job, set);
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, set, 7, 77ul));
    std::vector<record_info> before = store_records();

    unsigned int out = SENTINEL;
    unsigned int* null_out = nullptr;
    unsigned int rcs[] = {
        S::wud_wud_service_info_make_current(CMP, 0, FLAG, &out),
        S::wud_wud_service_info_make_current(CMP, JOB, FLAG, null_out),
        S::wud_wud_service_info_make_and_copy_current(CMP, JOB, FLAG, 999999, &out),
        S::wud_wud_service_info_make_and_copy_current(CMP, 0, FLAG, set, &out),
        S::wud_wud_service_info_copy_current(CMP, 999999, set),
        S::wud_wud_service_info_init_current(CMP, 999999),
        S::wud_wud_service_info_get_child_link(CMP, JOB, job, SET_A, 1, &out),
        S::wud_wud_service_info_get_child_link(CMP, JOB, job, SET_A, 0, null_out),
        S::wud_wud_service_info_get_child_link_num(CMP, SET_A, job, SET_A, &out),
        S::wud_wud_service_info_get_child_link_num_direct(CMP, 999999, &out),
        S::wud_wud_service_info_get_child_link_num_direct(CMP, job, null_out),
        S::wud_wud_service_info_get_parent_link(CMP, JOB, job, &out),
        S::wud_wud_service_info_get_job_category_by_id(CMP, 0, &out),
        S::wud_wud_service_info_get_current(CMP, set, 8, &out),
        S::wud_wud_service_info_get_current(CMP, set, 7, nullptr),
        S::wud_wud_service_info_set_current(CMP, set, 7, 'c'),
        S::wud_wud_service_info_set_current(CMP, 999999, 7, 1ul),
        S::wud_wud_service_info_set_current(CMP, set, 7, static_cast<void*>(nullptr)),
    };
    for (unsigned int rc : rcs) EXPECT_NE(0u, rc);
    EXPECT_EQ(SENTINEL, out);
    std::vector<record_info> after = store_records();
    ASSERT_EQ(before.size(), after.size());
    for (size_t i = 0; i < before.size(); ++i) {
        EXPECT_EQ(before[i].handler_id, after[i].handler_id);
        EXPECT_EQ(before[i].parent_id, after[i].parent_id);
    }
    EXPECT_EQ(77u, read32(set, 7));
}

TEST_P(Store, LogKeepsEveryCallWithItsComponent) {
    unsigned int id = make(JOB);
    store_log_begin();
    unsigned int out = 0;
    S::wud_wud_service_info_get_job_category_by_id(0x1234, id, &out);
    S::wud_wud_service_info_get_current(0x5678, 999999, 1, &out);  // fails, still logged
    S::wud_wud_service_info_set_current(CMP, id, 1, 1ul);
    store_log_end();
    S::wud_wud_service_info_set_current(CMP, id, 1, 2ul);

    std::vector<store_call> log = store_log();
    ASSERT_EQ(3u, log.size());
    EXPECT_EQ(store_op::get_job_category_by_id, log[0].op);
    EXPECT_EQ(0x1234u, log[0].cmp_id);
    EXPECT_EQ(store_op::get_current, log[1].op);
    EXPECT_EQ(0x5678u, log[1].cmp_id);
    EXPECT_STREQ("set_current", store_op_name(log[2].op));
}

TEST_P(Store, InjectedFailuresHitTheChosenCallAndChangeNothing) {
    unsigned int job = make(JOB), a = make(SET_A), b = make(SET_A);
    store_fail_op(store_op::set_link, 2, 0xE1234567);
    link(job, a);
    EXPECT_EQ(0xE1234567u, S::wud_wud_service_info_set_link(CMP, JOB, job, SET_A, b));
    EXPECT_THAT(children(job), ElementsAre(a));
    link(job, b);  // the failure fires once

    store_fail_nth_call(3);
    unsigned int out = SENTINEL;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_job_category_by_id(CMP, a, &out));
    EXPECT_EQ(0u, S::wud_wud_service_info_set_current(CMP, a, 1, 5ul));
    out = SENTINEL;
    EXPECT_EQ(STORE_INJECTED, S::wud_wud_service_info_make_current(CMP, JOB, FLAG, &out));
    EXPECT_EQ(SENTINEL, out);
    EXPECT_EQ(3u, store_records().size());

    store_fail_op(store_op::delete_current);
    store_fail_clear();
    EXPECT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, b));
}

class StoreConcurrency : public Store {};
INSTANTIATE_TEST_SUITE_P(Backends, StoreConcurrency,
                         ::testing::Values(backend::memory, backend::file), backend_name);

TEST_P(StoreConcurrency, WritersAndReadersKeepTreesConsistent) {
    unsigned int root = make(JOB);
    constexpr int kThreads = 4, kPerThread = 200;
    std::vector<std::vector<unsigned int>> made(kThreads);
    std::atomic<bool> reading{true};
    std::thread reader([&] {
        while (reading.load()) {
            unsigned int n = 0, id = 0, category = 0;
            ASSERT_EQ(0u, S::wud_wud_service_info_get_child_link_num_direct(CMP, root, &n));
            if (n > 0 &&
                S::wud_wud_service_info_get_child_link_direct(CMP, root, n - 1, &id) == 0 &&
                S::wud_wud_service_info_get_job_category_by_id(CMP, id, &category) == 0) {
                EXPECT_TRUE(category == SET_A || category == SET_B);
            }
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([&, t] {
            const unsigned int category = t % 2 ? SET_A : SET_B;
            for (int i = 0; i < kPerThread; ++i) {
                unsigned int id = 0;
                ASSERT_EQ(0u, S::wud_wud_service_info_make_current(CMP, category, FLAG, &id));
                ASSERT_EQ(0u, S::wud_wud_service_info_set_link(CMP, JOB, root, category, id));
                ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, id, 1,
                                                                  static_cast<unsigned long>(id)));
                if (i % 4 == 0) {
                    ASSERT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, id));
                } else {
                    made[t].push_back(id);
                }
            }
        });
    }
    for (std::thread& w : writers) w.join();
    reading = false;
    reader.join();

    std::set<unsigned int> expected;
    for (const auto& ids : made) expected.insert(ids.begin(), ids.end());
    std::vector<unsigned int> linked = children(root);
    EXPECT_EQ(expected, std::set<unsigned int>(linked.begin(), linked.end()));
    EXPECT_EQ(expected.size(), linked.size());
    for (unsigned int id : linked) EXPECT_EQ(id, read32(id, 1));
    EXPECT_EQ(children_of(root, JOB, SET_A).size() + children_of(root, JOB, SET_B).size(),
              linked.size());
}

}  // namespace
