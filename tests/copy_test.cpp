// Tree copy: what the destination looks like afterwards, the pairs refused
// before anything changes, the whole line of each failing step, and a sweep
// that fails every store call of a copy in turn and checks that the source tree
// never changes.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tev_test_support.h"

namespace {

using namespace velmora;
using namespace tevtest;
using tevhost::store_op;

// One i32 member per category used here; a record's value is the one of its category.
unsigned int value_member(unsigned int category) {
    const unsigned int members[][2] = {
        {0x1, 0x00182000}, {0x4, 0x00360000}, {0x8, 0x00460000}, {0x10, 0x00560000}};
    for (const auto& m : members) {
        if (m[0] == category) return m[1];
    }
    return 0;
}

class Copy : public library_test {
protected:
    void SetUp() override {
        for (unsigned int c : {0x1, 0x4, 0x8, 0x10}) {
            tevhost::declare_member(value_member(c), tevhost::member_kind::i32);
        }
    }
    long value_of(unsigned int id) {  // 0 for the root, which has no value here
        const unsigned int member = value_member(records::category_of(id));
        long v = 0;
        EXPECT_EQ(0u, member == 0 ? 0 : facade->tev_ash_get_member(7, id, member, &v, 0));
        return v;
    }
    // Everything below a handler: ids, categories and values, in link order.
    std::string snap(unsigned int id) {
        std::string n = std::to_string(id) + "/" + std::to_string(records::category_of(id)) + "/" +
                        std::to_string(value_of(id)) + "[";
        for (unsigned int child : records::children(id)) n += snap(child) + " ";
        return n + "]";
    }
    // A job tree whose records carry distinct values: image base, job base+1,
    // children base+10, base+11, ...
    job_tree tree(const std::vector<unsigned int>& categories, long base) {
        job_tree t = make_job_tree(categories);
        std::vector<std::pair<unsigned int, long>> values = {{t.image, base}, {t.job, base + 1}};
        for (std::size_t i = 0; i < t.children.size(); ++i)
            values.emplace_back(t.children[i], base + 10 + long(i));
        for (const auto& [id, v] : values) {
            EXPECT_EQ(0u, facade->tev_ash_set_member(7, id, value_member(records::category_of(id)),
                                                     v, 0));
        }
        return t;
    }
    // The destination's records after a copy of `src` onto it: values and
    // categories of the source, new ids, none of the old children left.
    void expect_copied(const job_tree& src, const job_tree& dst, long base) {
        EXPECT_EQ(base, value_of(dst.image));
        EXPECT_EQ(base + 1, value_of(dst.job));
        for (unsigned int old : dst.children) EXPECT_FALSE(records::exists(old));
        const std::vector<unsigned int> now = records::children(dst.job);
        ASSERT_EQ(src.children.size(), now.size());
        for (std::size_t i = 0; i < now.size(); ++i) {
            EXPECT_EQ(records::category_of(src.children[i]), records::category_of(now[i]));
            EXPECT_EQ(base + 10 + long(i), value_of(now[i]));
            EXPECT_NE(src.children[i], now[i]);
        }
    }
};

TEST_F(Copy, JobsImagesAndEmptySources) {
    const struct {
        std::vector<unsigned int> src, dst;
        bool images;
    } cases[] = {{{0x8, 0x10, 0x8}, {0x10, 0x10, 0x8, 0x8, 0x10}, false},
                 {{0x8}, {0x10, 0x10}, true},  // through the image's first child
                 {{}, {0x8, 0x8}, false}};
    for (const auto& c : cases) {
        const job_tree src = tree(c.src, 100), dst = tree(c.dst, 200);
        const std::string before = snap(src.auth);
        ASSERT_EQ(0u, c.images ? facade->tev_ash_copy(src.image, dst.image)
                               : facade->tev_ash_copy(src.job, dst.job));
        EXPECT_EQ(before, snap(src.auth));
        expect_copied(src, dst, 100);
    }
    EXPECT_TRUE(trace_calls().empty());
}

TEST_F(Copy, RefusedPairsChangeNothing) {
    const job_tree a = tree({0x8, 0x10}, 700), b = tree({0x8}, 800);
    const unsigned int nested = records::make(TEV_ASH_CAT_APLJOB);  // a job below a job
    records::link(b.job, nested);
    const std::string before_a = snap(a.auth), before_b = snap(b.auth);
    const std::string categories = "(get_category) rc:0xc1030008, src_category:",
                      overlap = "(overlapping trees) rc:0xc1030008, src_work_handler_id:";
    const struct {
        unsigned int src, dst;
        std::string line;
    } pairs[] = {
        {a.job, b.image, categories + "0X00000004, dst_category:0X00000001"},
        {a.auth, b.auth, categories + "0X00000002, dst_category:0X00000002"},
        {a.children[0], b.children[0], categories + "0X00000008, dst_category:0X00000008"},
        {a.job, a.job, overlap + hex8(a.job) + ", dst_work_handler_id:" + hex8(a.job)},
        {a.image, a.image, overlap + hex8(a.job) + ", dst_work_handler_id:" + hex8(a.job)},
        {nested, b.job, overlap + hex8(nested) + ", dst_work_handler_id:" + hex8(b.job)},
        {b.job, nested, overlap + hex8(b.job) + ", dst_work_handler_id:" + hex8(nested)},
    };
    for (const auto& p : pairs) {
        trace_.clear();
        tevhost::store_log_begin();
        EXPECT_EQ(0xC1030008u, facade->tev_ash_copy(p.src, p.dst));
        EXPECT_EQ(lines{"tev_ash_control::copy,[Error]" + p.line}, trace_calls());
        for (const std::string& call : store_calls()) EXPECT_EQ(0u, call.rfind("get_", 0)) << call;
        EXPECT_EQ(before_a, snap(a.auth));
        EXPECT_EQ(before_b, snap(b.auth));
    }
}

// The copy's own line when the `nth` call of `op` fails, for one call of each
// step (in a copy of {8, 0x10, ...} onto {0x10, 8}); "" for the others.
std::string step_line(bool images, store_op op, unsigned int nth, const job_tree& src,
                      const job_tree& dst) {
    using O = store_op;
    // Work handlers, their parents, second children, the newest record.
    const std::string S = hex8(src.job), D = hex8(dst.job), s = hex8(src.image),
                      d = hex8(dst.image), sb = hex8(src.children[1]), db = hex8(dst.children[1]),
                      N = hex8(tevhost::store_records().back().handler_id), zero = ":00000000";
    const struct {
        bool images;
        store_op op;
        unsigned int nth;
        std::string line;
    } steps[] = {
        {false, O::get_job_category_by_id, 1,
         "get_category) dst_handler_id:" + D + ", dst_category" + zero},
        {false, O::get_job_category_by_id, 2,
         "get_category) src_handler_id:" + S + ", src_category" + zero},
        {true, O::get_child_link_direct, 1, "get_child_id_direct) src_handler_id:" + s},
        {true, O::get_child_link_direct, 2, "get_child_id_direct) dst_handler_id:" + d},
        {false, O::copy_current, 1,
         "copy_info) src_work_handler_id:" + S + ", dst_work_handler_id:" + D},
        {false, O::get_parent_link, 3,
         "get_parent_id) dst_work_handler_id:" + D + ", dst_parent_handler_id" + zero},
        {false, O::get_parent_link, 4,
         "get_parent_id) src_work_handler_id:" + S + ", src_parent_handler_id" + zero},
        {false, O::copy_current, 2,
         "copy_info) src_parent_handler_id:" + s + ", dst_parent_handler_id:" + d},
        {false, O::get_child_link_num_direct, 1,
         "get_child_count) dst_work_handler_id:" + D + ", dst_child_link_count" + zero},
        {false, O::get_child_link_direct, 1, "get_child_id_direct) dst_work_handler_id:" + D},
        {false, O::delete_current, 2, "remove_info) dst_child_handler_id:" + db},
        {false, O::get_child_link_num_direct, 2,
         "get_child_count) src_work_handler_id:" + S + ", src_child_link_count" + zero},
        {false, O::get_child_link_direct, 3, "get_child_id_direct) src_work_handler_id:" + S},
        {false, O::get_job_category_by_id, 6,
         "get_category) src_child_handler_id:" + sb + ", src_child_category" + zero},
        {false, O::make_and_copy_current, 1,
         "create_info) src_child_category:0X00000008, src_child_handler_id:" +
             hex8(src.children[0])},
        {false, O::set_link, 2,
         "set_link) dst_work_handler_id:" + D +
             ", src_child_category:0X00000010, dst_copy_child_handler_id:" + N},
    };
    for (const auto& step : steps) {
        if (step.images != images || step.op != op || step.nth != nth) continue;
        std::string line = step.line;
        return "tev_ash_control::copy,[Error](" +
               line.insert(line.find(") ") + 2, "rc:0xc1030001, ");
    }
    return "";
}

// Fails each store call of a copy in turn. The source tree must come out
// unchanged every time; a failed copy returns 0xC1030001 with the copy's own
// line last, whole for one failure of each step. (A failed overlap lookup only
// means "no overlap", so the copy may still complete then.)
TEST_F(Copy, FaultSweepNeverChangesTheSource) {
    for (const bool images : {false, true}) {
        std::vector<tevhost::store_call> calls;
        for (unsigned int n = 0; n <= calls.size(); ++n) {
            SCOPED_TRACE(std::string(images ? "image" : "job") + " pair, failing call " +
                         std::to_string(n));
            fresh_store store;
            SetUp();
            const job_tree src = tree({0x8, 0x10, 0x8}, 100), dst = tree({0x10, 0x8}, 200);
            const std::string before = snap(src.auth);
            trace_.clear();
            tevhost::store_log_begin();
            if (n > 0) tevhost::store_fail_nth_call(n);
            const unsigned int rc = images ? facade->tev_ash_copy(src.image, dst.image)
                                           : facade->tev_ash_copy(src.job, dst.job);
            tevhost::store_fail_clear();
            if (n == 0) {  // the dry run lists the calls to fail
                ASSERT_EQ(0u, rc);
                calls = tevhost::store_log();
                continue;
            }
            tevhost::store_log_end();
            EXPECT_EQ(before, snap(src.auth));
            if (rc == 0) {
                expect_copied(src, dst, 100);
                continue;
            }
            EXPECT_EQ(0xC1030001u, rc);
            const store_op op = calls[n - 1].op;
            unsigned int nth = 0;
            for (unsigned int i = 0; i < n; ++i) nth += calls[i].op == op ? 1 : 0;
            const std::string want = step_line(images, op, nth, src, dst);
            const lines got = trace_calls();
            ASSERT_GE(got.size(), 2u);
            EXPECT_EQ(0u, got.back().find("tev_ash_control::copy,[Error]("));
            if (!want.empty()) {
                EXPECT_EQ(want, got.back());
            }
        }
    }
}

}  // namespace
