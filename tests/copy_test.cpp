// Tree copy: what the destination looks like afterwards, the pairs that are
// refused before anything changes, and a sweep that fails every store call of a
// copy in turn and checks that the source tree never changes.
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tev_ash_control.h"
#include "tev_ash_facade.h"
#include "tev_lib_support.h"

namespace {

using namespace velmora;
using tevhost::member_kind;
using tevtest::trace_calls;

constexpr unsigned int JOB_VALUE = 0x00360000;    // APLJOB
constexpr unsigned int IMAGE_VALUE = 0x00182000;  // APLSVC_IMG
constexpr unsigned int SET8_VALUE = 0x00460000;   // job set 0x8
constexpr unsigned int SET10_VALUE = 0x00560000;  // job set 0x10
constexpr unsigned int CMP = 7;

// Everything a copy must not change on the source side, and everything it must
// produce on the destination side: records below a handler with their
// categories and member values, in link order.
struct snapshot_node {
    unsigned int id;
    unsigned int category;
    long value;
    std::vector<snapshot_node> children;
    bool operator==(const snapshot_node& o) const {
        return id == o.id && category == o.category && value == o.value && children == o.children;
    }
};

class Copy : public tevtest::library_test {
protected:
    Copy() {
        tevhost::declare_member(JOB_VALUE, member_kind::i32);
        tevhost::declare_member(IMAGE_VALUE, member_kind::i32);
        tevhost::declare_member(SET8_VALUE, member_kind::i32);
        tevhost::declare_member(SET10_VALUE, member_kind::i32);
    }

    static unsigned int value_member(unsigned int category) {
        switch (category) {
            case 0x1: return IMAGE_VALUE;
            case 0x4: return JOB_VALUE;
            case 0x8: return SET8_VALUE;
            case 0x10: return SET10_VALUE;
            default: return 0;
        }
    }
    long value_of(unsigned int id) {
        const unsigned int member = value_member(tevtest::category_of(id));
        long v = 0;
        if (member != 0) control.get_member(CMP, id, member, &v, 0);
        return v;
    }
    void set_value(unsigned int id, long v) {
        ASSERT_EQ(0u, control.set_member(CMP, id, value_member(tevtest::category_of(id)), v, 0));
    }
    snapshot_node snap(unsigned int id) {
        snapshot_node n{id, tevtest::category_of(id), value_of(id), {}};
        for (unsigned int child : tevtest::children_of(id)) n.children.push_back(snap(child));
        return n;
    }
    // A job tree whose records carry distinct values: base, base+1, ...
    tevtest::job_tree tree(const std::vector<unsigned int>& categories, long base) {
        tevtest::job_tree t = tevtest::make_job_tree(categories);
        set_value(t.image, base);
        set_value(t.job, base + 1);
        for (std::size_t i = 0; i < t.children.size(); ++i) {
            set_value(t.children[i], base + 10 + static_cast<long>(i));
        }
        return t;
    }

    tev_ash_control control;
    tev_ash_facade* facade = tev_ash_facade::tev_ash_get_instance();
};

TEST_F(Copy, ThreeChildrenReplaceFive) {
    const tevtest::job_tree src = tree({0x8, 0x10, 0x8}, 100);
    const tevtest::job_tree dst = tree({0x10, 0x10, 0x8, 0x8, 0x10}, 200);
    const snapshot_node before = snap(src.auth);

    ASSERT_EQ(0u, facade->tev_ash_copy(src.job, dst.job));
    EXPECT_TRUE(trace_calls().empty());
    EXPECT_EQ(before, snap(src.auth));
    EXPECT_EQ(101, value_of(dst.job));
    EXPECT_EQ(100, value_of(dst.image));  // the parents too
    for (unsigned int old : dst.children) EXPECT_FALSE(tevtest::exists(old));
    const std::vector<unsigned int> now = tevtest::children_of(dst.job);
    ASSERT_EQ(3u, now.size());
    for (std::size_t i = 0; i < now.size(); ++i) {
        EXPECT_EQ(tevtest::category_of(src.children[i]), tevtest::category_of(now[i]));
        EXPECT_EQ(110 + static_cast<long>(i), value_of(now[i]));
        EXPECT_NE(src.children[i], now[i]);
    }
}

TEST_F(Copy, ImageHandlersCopyThroughTheirFirstChild) {
    const tevtest::job_tree src = tree({0x8}, 300);
    const tevtest::job_tree dst = tree({0x10, 0x10}, 400);
    const snapshot_node before = snap(src.auth);
    ASSERT_EQ(0u, facade->tev_ash_copy(src.image, dst.image));
    EXPECT_EQ(before, snap(src.auth));
    EXPECT_EQ(300, value_of(dst.image));
    EXPECT_EQ(301, value_of(dst.job));
    const std::vector<unsigned int> now = tevtest::children_of(dst.job);
    ASSERT_EQ(1u, now.size());
    EXPECT_EQ(0x8u, tevtest::category_of(now[0]));
    EXPECT_EQ(310, value_of(now[0]));
}

TEST_F(Copy, SourceWithoutChildrenEmptiesTheDestination) {
    const tevtest::job_tree src = tree({}, 500);
    const tevtest::job_tree dst = tree({0x8, 0x8}, 600);
    ASSERT_EQ(0u, facade->tev_ash_copy(src.job, dst.job));
    EXPECT_TRUE(tevtest::children_of(dst.job).empty());
    EXPECT_EQ(501, value_of(dst.job));
}

TEST_F(Copy, RefusedPairsChangeNothing) {
    const tevtest::job_tree a = tree({0x8, 0x10}, 700);
    const tevtest::job_tree b = tree({0x8}, 800);
    // A job handler linked as a direct child of another job handler.
    const unsigned int nested = tevtest::make_record(TEV_ASH_CAT_APLJOB);
    tevtest::link(b.job, nested);
    set_value(nested, 900);
    const snapshot_node before_a = snap(a.auth);
    const snapshot_node before_b = snap(b.auth);
    struct refused_pair {
        unsigned int src;
        unsigned int dst;
        const char* why;
    };
    const refused_pair pairs[] = {
        {a.job, b.image, "job onto image"},
        {a.auth, b.auth, "two roots"},
        {a.children[0], b.children[0], "two job sets"},
        {a.job, a.job, "the same job"},
        {a.image, a.image, "the same image"},
        {nested, b.job, "source below the destination"},
        {b.job, nested, "destination below the source"},
    };
    for (const refused_pair& p : pairs) {
        SCOPED_TRACE(p.why);
        trace_.clear();
        tevhost::store_log_begin();
        EXPECT_EQ(0xC1030008u, facade->tev_ash_copy(p.src, p.dst));
        ASSERT_EQ(1u, trace_calls().size());
        EXPECT_EQ(0u, trace_calls()[0].find("tev_ash_control::copy,[Error]("));
        for (const std::string& call : tevtest::store_calls()) {
            EXPECT_TRUE(call.rfind("get_", 0) == 0) << call;  // lookups only
        }
        EXPECT_EQ(before_a, snap(a.auth));
        EXPECT_EQ(before_b, snap(b.auth));
    }
    trace_.clear();
    EXPECT_EQ(0xC1030008u, facade->tev_ash_copy(a.job, b.image));
    EXPECT_EQ(
        (std::vector<std::string>{"tev_ash_control::copy,[Error](get_category) rc:0xc1030008, "
                                  "src_category:0X00000004, dst_category:0X00000001"}),
        trace_calls());
}

// Fails each store call of a copy in turn. The source tree must come out
// unchanged every time; a failed copy returns 0xC1030001 with the copy's own
// line last. (A failed overlap lookup only means "no overlap", so the copy may
// still complete then.)
TEST_F(Copy, FaultSweepNeverChangesTheSource) {
    for (const bool image_pair : {false, true}) {
        unsigned int calls = 0;
        for (unsigned int n = 0; n <= calls; ++n) {
            SCOPED_TRACE(std::string(image_pair ? "image" : "job") + " pair, failing call " +
                         std::to_string(n));
            tevtest::fresh_store store;
            tevhost::declare_member(JOB_VALUE, member_kind::i32);
            tevhost::declare_member(IMAGE_VALUE, member_kind::i32);
            tevhost::declare_member(SET8_VALUE, member_kind::i32);
            tevhost::declare_member(SET10_VALUE, member_kind::i32);
            const tevtest::job_tree src = tree({0x8, 0x10, 0x8}, 100);
            const tevtest::job_tree dst = tree({0x10, 0x8}, 200);
            const snapshot_node before = snap(src.auth);
            trace_.clear();
            tevhost::store_log_begin();
            if (n > 0) tevhost::store_fail_nth_call(n);
            const unsigned int rc = image_pair ? facade->tev_ash_copy(src.image, dst.image)
                                               : facade->tev_ash_copy(src.job, dst.job);
            tevhost::store_fail_clear();
            if (n == 0) {  // the dry run counts the calls to fail
                ASSERT_EQ(0u, rc);
                calls = static_cast<unsigned int>(tevhost::store_log().size());
                ASSERT_GT(calls, 20u);
                continue;
            }
            tevhost::store_log_end();
            EXPECT_EQ(before, snap(src.auth));
            if (rc == 0) {
                EXPECT_EQ(3u, tevtest::children_of(dst.job).size());
                continue;
            }
            EXPECT_EQ(0xC1030001u, rc);
            const auto lines = trace_calls();
            ASSERT_GE(lines.size(), 2u);
            EXPECT_EQ(0u, lines.back().find("tev_ash_control::copy,[Error]("));
        }
    }
}

}  // namespace
