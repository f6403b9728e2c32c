// Members through real handler trees: which handler of a tree owns a member,
// the refused and missing cases with their lines, the component id each store
// call carries, and the width and sign of values on the way in and out.
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tev_ash_control.h"
#include "tev_ash_facade.h"
#include "tev_lib_support.h"

namespace {

using namespace velmora;
using tevhost::member_kind;
using tevhost::store_op;
using tevtest::store_calls;
using tevtest::trace_calls;
using lines = std::vector<std::string>;

// Member ids of the built-in table, one per category used here.
constexpr unsigned int JOB_MEMBER = 0x00360000;     // APLJOB
constexpr unsigned int JOBSET_MEMBER = 0x00460000;  // job set 0x8
constexpr unsigned int AUTH_MEMBER = 0x00260000;    // AUTH
constexpr unsigned int IMAGE_MEMBER = 0x00182000;   // APLSVC_IMG
constexpr unsigned int SUBJOB_MEMBER = 0x01717000;  // 0x400000
constexpr unsigned int DETACHED_MEMBER = 0x01018000;

std::string hex8(unsigned int v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%#.8X", v);
    return buf;
}
std::string ptr(const void* p) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

class Resolution : public tevtest::library_test {
protected:
    unsigned int resolve(unsigned int handler, unsigned int member, unsigned int order = 0) {
        target = 0xFFFF;
        return control.search_target_handler_id(handler, member, &target, order);
    }
    tev_ash_control control;
    unsigned int target = 0;
};

TEST_F(Resolution, EachMemberIsFoundWhereItsCategoryLives) {
    const tevtest::job_tree t = tevtest::make_job_tree({0x8, 0x10, 0x8});
    // Itself, whatever the order: APLJOB members are its own although 0x4 is a job set.
    ASSERT_EQ(0u, resolve(t.job, JOB_MEMBER, 7));
    EXPECT_EQ(t.job, target);
    ASSERT_EQ(0u, resolve(t.auth, AUTH_MEMBER));
    EXPECT_EQ(t.auth, target);
    // A job-set child by position among the children of its category.
    ASSERT_EQ(0u, resolve(t.job, JOBSET_MEMBER, 0));
    EXPECT_EQ(t.children[0], target);
    ASSERT_EQ(0u, resolve(t.job, JOBSET_MEMBER, 1));
    EXPECT_EQ(t.children[2], target);
    // From the image handler, APLJOB is a job-set child.
    ASSERT_EQ(0u, resolve(t.image, JOB_MEMBER));
    EXPECT_EQ(t.job, target);
    // AUTH: as many parent links up as the levels differ.
    ASSERT_EQ(0u, resolve(t.image, AUTH_MEMBER, 5));
    EXPECT_EQ(t.auth, target);
    ASSERT_EQ(0u, resolve(t.job, AUTH_MEMBER));
    EXPECT_EQ(t.auth, target);
    const unsigned int sub = tevtest::make_record(TEV_ASH_CAT_SUBJOB);
    tevtest::link(t.job, sub);
    ASSERT_EQ(0u, resolve(sub, AUTH_MEMBER));
    EXPECT_EQ(t.auth, target);
    ASSERT_EQ(0u, resolve(sub, SUBJOB_MEMBER));
    EXPECT_EQ(sub, target);
    EXPECT_TRUE(trace_calls().empty());
}

TEST_F(Resolution, RefusedCombinationsAreFailuresWithTheInvalidAccessLine) {
    const tevtest::job_tree t = tevtest::make_job_tree({0x8});
    const unsigned int detached = tevtest::make_record(TEV_ASH_CAT_DETACHED);
    struct refused_case {
        unsigned int handler;
        unsigned int member;
        unsigned int hc;
        unsigned int mc;
    };
    const refused_case cases[] = {
        {t.job, IMAGE_MEMBER, 0x4, 0x1},         // the image is the parent, but refused
        {t.job, DETACHED_MEMBER, 0x4, 0x8000},   // 0x8000 only through its own handlers
        {t.job, SUBJOB_MEMBER, 0x4, 0x400000},   // not a job set
        {t.auth, JOB_MEMBER, 0x2, 0x4},          // the root reaches only its own
        {t.children[0], AUTH_MEMBER, 0x8, 0x2},  // level-4 handlers reach only their own
        {detached, JOB_MEMBER, 0x8000, 0x4},
    };
    for (const refused_case& c : cases) {
        trace_.clear();
        EXPECT_EQ(0xC1030001u, resolve(c.handler, c.member));
        EXPECT_EQ(0xFFFFu, target);
        EXPECT_EQ(lines{"tev_ash_control::search_target_handler_id,[Error](Invalid Access:other) "
                        "rc:0xc1030001, handler_id:" +
                        hex8(c.handler) + ", member_id:" + hex8(c.member) +
                        ", order:0, &target_handler_id:" + ptr(&target) + ", handler_id_category:" +
                        std::to_string(c.hc) + ", member_category:" + std::to_string(c.mc)},
                  trace_calls());
    }
}

TEST_F(Resolution, MissingTargetsAreNotExistWithTheLookupsLineFirst) {
    const tevtest::job_tree t = tevtest::make_job_tree({0x10});
    // No child of category 0x8 at all.
    EXPECT_EQ(0xC1030003u, resolve(t.job, JOBSET_MEMBER, 0));
    lines got = trace_calls();
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(0u, got[0].rfind("tev_ash_control::get_child_id,[Error](wud_wud_service_info_"
                               "get_child_link) wud_rc:0xe1000007",
                               0));
    EXPECT_EQ(
        "tev_ash_control::search_target_handler_id,[Error](Existence Error:child) "
        "rc:0xc1030003, handler_id:" +
            hex8(t.job) +
            ", member_id:0X00460000, order:0, "
            "&target_handler_id:" +
            ptr(&target) + ", handler_id_category:4, member_category:8",
        got[1]);

    // A job handler whose image handler has no parent: the chain is too short.
    trace_.clear();
    const unsigned int image = tevtest::make_record(TEV_ASH_CAT_APLSVC_IMG);
    const unsigned int job = tevtest::make_record(TEV_ASH_CAT_APLJOB);
    tevtest::link(image, job);
    EXPECT_EQ(0xC1030003u, resolve(job, AUTH_MEMBER, 3));
    EXPECT_EQ(0xFFFFu, target);
    got = trace_calls();
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(0u, got[0].rfind("tev_ash_control::get_parent_id,[Error](wud_wud_service_info_"
                               "get_parent_link) wud_rc:0xe1000007, child_handler_id:" +
                                   hex8(image),
                               0));
    EXPECT_EQ(
        "tev_ash_control::search_target_handler_id,[Error](Existence Error:AUTH) "
        "rc:0xc1030003, handler_id:" +
            hex8(job) +
            ", member_id:0X00260000, order:3, "
            "&target_handler_id:" +
            ptr(&target) + ", handler_id_category:4, member_category:2",
        got[1]);
}

TEST_F(Resolution, UnknownHandlersAndMembersFailBeforeAnyWalk) {
    const tevtest::job_tree t = tevtest::make_job_tree();
    tevhost::store_log_begin();
    EXPECT_EQ(0xC1030001u, resolve(t.job, 0x00360065));  // fits the rule, not in the table
    EXPECT_EQ(0xFFFFu, target);
    EXPECT_EQ(lines{"get_job_category_by_id/c103"}, store_calls());
    const lines got = trace_calls();
    ASSERT_EQ(1u, got.size());
    EXPECT_NE(std::string::npos, got[0].find("get_member_category,[Error](Member Not Found)"));
    trace_.clear();
    EXPECT_EQ(0xC1030001u, resolve(0x0BAD, JOB_MEMBER));
    ASSERT_EQ(1u, trace_calls().size());
    EXPECT_EQ(0u, trace_calls()[0].rfind("tev_ash_control::get_category,", 0));
}

// ---------------------------------------------------------------------------

class MemberAccess : public tevtest::library_test {
protected:
    MemberAccess() {
        tevhost::declare_member(JOB_MEMBER, member_kind::i32);
        tevhost::declare_member(JOB_MEMBER + 1, member_kind::u32);
        tevhost::declare_member(JOB_MEMBER + 2, member_kind::i16);
        tevhost::declare_member(JOB_MEMBER + 3, member_kind::u16);
        tevhost::declare_member(JOB_MEMBER + 4, member_kind::i8);
        tevhost::declare_member(JOB_MEMBER + 5, member_kind::u8);
        tevhost::declare_member(JOB_MEMBER + 6, member_kind::bytes, 8);
        tevhost::declare_member(JOBSET_MEMBER, member_kind::i32);
        tevhost::declare_member(AUTH_MEMBER, member_kind::u32);
    }
    tev_ash_facade* facade = tev_ash_facade::tev_ash_get_instance();
    tevtest::job_tree t = tevtest::make_job_tree({0x8, 0x8});
};

TEST_F(MemberAccess, ValuesKeepTheirWidthAndSign) {
    ASSERT_EQ(0u, facade->tev_ash_set_member(5, t.job, JOB_MEMBER, -2L, 0));
    ASSERT_EQ(0u, facade->tev_ash_set_member(5, t.job, JOB_MEMBER + 1, 0xFFFFFFFEUL, 0));
    ASSERT_EQ(0u, facade->tev_ash_set_member(5, t.job, JOB_MEMBER + 2, static_cast<short>(-3), 0));
    ASSERT_EQ(0u, facade->tev_ash_set_member(5, t.job, JOB_MEMBER + 3,
                                             static_cast<unsigned short>(0xFFFD), 0));
    ASSERT_EQ(0u, facade->tev_ash_set_member(5, t.job, JOB_MEMBER + 4, static_cast<char>(-4), 0));
    ASSERT_EQ(0u, facade->tev_ash_set_member(5, t.job, JOB_MEMBER + 5,
                                             static_cast<unsigned char>(0xFC), 0));
    char text[8] = {'s', 'e', 't', 't', 'i', 'n', 'g', 0};
    ASSERT_EQ(0u, facade->tev_ash_set_member(5, t.job, JOB_MEMBER + 6, text, 0));

    // 32-bit members read into 64-bit longs: sign- and zero-extended over
    // whatever the variable held.
    long l = 0x7777777777777777L;
    ASSERT_EQ(0u, facade->tev_ash_get_member(5, t.job, JOB_MEMBER, &l, 0));
    EXPECT_EQ(-2L, l);
    unsigned long ul = ~0UL;
    ASSERT_EQ(0u, facade->tev_ash_get_member(5, t.job, JOB_MEMBER + 1, &ul, 0));
    EXPECT_EQ(0xFFFFFFFEUL, ul);
    short s = 0;
    ASSERT_EQ(0u, facade->tev_ash_get_member(5, t.job, JOB_MEMBER + 2, &s, 0));
    EXPECT_EQ(-3, s);
    unsigned short us = 0;
    ASSERT_EQ(0u, facade->tev_ash_get_member(5, t.job, JOB_MEMBER + 3, &us, 0));
    EXPECT_EQ(0xFFFD, us);
    char c = 0;
    ASSERT_EQ(0u, facade->tev_ash_get_member(5, t.job, JOB_MEMBER + 4, &c, 0));
    EXPECT_EQ(-4, c);
    unsigned char uc = 0;
    ASSERT_EQ(0u, facade->tev_ash_get_member(5, t.job, JOB_MEMBER + 5, &uc, 0));
    EXPECT_EQ(0xFC, uc);
    char back[8] = {};
    ASSERT_EQ(0u, facade->tev_ash_get_member(t.job, JOB_MEMBER + 6, back, 0));
    EXPECT_STREQ("setting", back);
    char sized[8] = {};
    ASSERT_EQ(0u, facade->tev_ash_get_member(5, t.job, JOB_MEMBER + 6, 8u, sized, 0));
    EXPECT_STREQ("setting", sized);

    // A failed read leaves the caller's variable as it was.
    l = 0x1234;
    EXPECT_EQ(0xC1030003u, facade->tev_ash_get_member(5, t.job, JOBSET_MEMBER, &l, 5));
    EXPECT_EQ(0x1234, l);
    tevhost::store_fail_op(store_op::get_current);
    EXPECT_EQ(0xC1030001u, facade->tev_ash_get_member(5, t.job, JOB_MEMBER, &l, 0));
    EXPECT_EQ(0x1234, l);
}

TEST_F(MemberAccess, OnlyTheFinalAccessCarriesTheApplicationsComponentId) {
    tevhost::store_log_begin();
    ASSERT_EQ(0u, facade->tev_ash_set_member(5, t.job, AUTH_MEMBER, 77UL, 0));
    EXPECT_EQ(
        (lines{"get_job_category_by_id/c103", "get_job_category_by_id/c103", "get_parent_link/c103",
               "get_job_category_by_id/c103", "get_parent_link/c103", "set_current/5"}),
        store_calls());
    // Written in the root, two links up; read back through the job handler.
    unsigned long v = 0;
    ASSERT_EQ(0u, facade->tev_ash_get_member(5, t.job, AUTH_MEMBER, &v, 0));
    EXPECT_EQ(77UL, v);
    tevhost::store_log_begin();
    char buf[4] = {};
    ASSERT_EQ(0u, facade->tev_ash_get_member(t.auth, AUTH_MEMBER, buf, 0));
    ASSERT_EQ(0u, facade->tev_ash_get_member(5, t.auth, AUTH_MEMBER, buf, 0));
    ASSERT_EQ(0u, facade->tev_ash_set_member(6, t.job, JOBSET_MEMBER, 9L, 1));
    EXPECT_EQ((lines{"get_job_category_by_id/c103", "get_current/c103",
                     "get_job_category_by_id/c103", "get_current/5", "get_job_category_by_id/c103",
                     "get_job_category_by_id/c103", "get_child_link/c103", "set_current/6"}),
              store_calls());
    long in_child = 0;
    ASSERT_EQ(0u, facade->tev_ash_get_member(5, t.children[1], JOBSET_MEMBER, &in_child, 0));
    EXPECT_EQ(9, in_child);
}

TEST_F(MemberAccess, EachOverloadWritesItsOwnFailureLines) {
    const unsigned int missing_order = 9;
    unsigned int calls = 0;
    auto lines_of = [&](auto&& call) {
        trace_.clear();
        ++calls;
        call();
        return trace_calls();
    };
    const std::string job = hex8(t.job);
    const std::string head = "tev_ash_control::set_member,";
    // Resolution failures: the resolution's lines, then the overload's own.
    auto w1 = lines_of([&] {
        EXPECT_EQ(0xC1030003u, facade->tev_ash_set_member(5, t.job, JOBSET_MEMBER,
                                                          static_cast<short>(-2), missing_order));
    });
    ASSERT_EQ(3u, w1.size());
    EXPECT_EQ(head + "(serch_target_handler_id) rc:0XC1030003, cmp_id:5, handler_id:" + job +
                  ", member_id:0X00460000, order:9, target_handler_id:00000000, val:0XFFFE",
              w1[2]);
    w1 = lines_of([&] {
        EXPECT_EQ(0xC1030001u, facade->tev_ash_set_member(5, t.job, IMAGE_MEMBER,
                                                          static_cast<unsigned char>(0x80), 0));
    });
    ASSERT_EQ(2u, w1.size());
    EXPECT_EQ(head + "(serch_target_handler_id) rc:0XC1030001, cmp_id:5, handler_id:" + job +
                  ", member_id:0X00182000, order:0, target_handler_id:00000000, val:0X80",
              w1[1]);
    w1 = lines_of([&] {
        EXPECT_EQ(0xC1030001u, facade->tev_ash_set_member(5, t.job, IMAGE_MEMBER, -1L, 0));
    });
    EXPECT_EQ(head + "[Error](serch_target_handler_id) rc:0XC1030001, cmp_id:5, handler_id:" + job +
                  ", member_id:0X00182000, order:0, target_handler_id:00000000, val:0XFFFFFFFF",
              w1.back());
    char bytes[4] = {};
    w1 = lines_of([&] {
        EXPECT_EQ(0xC1030001u, facade->tev_ash_set_member(5, t.job, IMAGE_MEMBER, bytes, 0));
    });
    EXPECT_EQ(
        head + "[Error](search_target_handler_id) rc:0XC1030001, cmp_id:5, handler_id:" + job +
            ", member_id:0X00182000, order:0, target_handler_id:00000000, &val_p:" + ptr(bytes),
        w1.back());
    auto r1 = lines_of(
        [&] { EXPECT_EQ(0xC1030001u, facade->tev_ash_get_member(t.job, IMAGE_MEMBER, bytes, 0)); });
    EXPECT_EQ(
        "tev_ash_control::get_member,[Error](search_target_handler_id) rc:0XC1030001, "
        "handler_id:" +
            job +
            ", member_id:0X00182000, order:0, "
            "target_handler_id:00000000, &ret_p:" +
            ptr(bytes),
        r1.back());
    r1 = lines_of([&] {
        EXPECT_EQ(0xC1030001u, facade->tev_ash_get_member(5, t.job, IMAGE_MEMBER, bytes, 0));
    });
    EXPECT_EQ(0u, r1.back().find("tev_ash_control::get_member,[Error](serch_target_handler_id) "));

    // Store failures: only the overload's line, with 0xC1030001 in place of the
    // store's code.
    tevhost::store_fail_op(store_op::set_current, 1, 0xE1000055);
    auto w2 = lines_of([&] {
        EXPECT_EQ(0xC1030001u,
                  facade->tev_ash_set_member(5, t.job, JOB_MEMBER + 2, static_cast<short>(-2), 0));
    });
    EXPECT_EQ((lines{head + "(set_current) rc:0XC1030001, cmp_id:5, handler_id:" + job +
                     ", order:0, target_handler_id:" + job + ", member_id:0X00360002, val:0XFFFE"}),
              w2);
    tevhost::store_fail_op(store_op::set_current);
    w2 = lines_of([&] {
        EXPECT_EQ(0xC1030001u, facade->tev_ash_set_member(5, t.job, JOB_MEMBER + 6, bytes, 0));
    });
    EXPECT_EQ((lines{head + "[Error](set_current) rc:0xc1030001, cmp_id:5, handler_id:" + job +
                     ", order:0, target_handler_id:" + job +
                     ", member_id:0X00360006, &val_p:" + ptr(bytes)}),
              w2);
    tevhost::store_fail_op(store_op::get_current);
    unsigned short us = 0;
    auto r2 = lines_of([&] {
        EXPECT_EQ(0xC1030001u, facade->tev_ash_get_member(5, t.job, JOB_MEMBER + 3, &us, 0));
    });
    EXPECT_EQ(
        (lines{"tev_ash_control::get_member,[Error](set_current) rc:0XC1030001, handler_id:" + job +
               ", target_handler_id:" + job + ", member_id:0X00360003, &ret_p:" + ptr(&us)}),
        r2);
    EXPECT_EQ(9u, calls);
}

// Every overload, both failure kinds: the resolution's failure passes its code
// through with the overload's own line last; a store failure is 0xC1030001 with
// the overload's store line only.
TEST_F(MemberAccess, EveryOverloadReportsBothFailureKinds) {
    char buf[8] = {};
    struct overload {
        std::function<unsigned int(unsigned int member)> call;
        std::string resolution_line;  // start of the overload's own line
        std::string store_line;
        store_op op;
    };
    const std::string set = "tev_ash_control::set_member,";
    const std::string get = "tev_ash_control::get_member,";
    const std::string serch = "(serch_target_handler_id) rc:0XC1030001, ";
    const std::vector<overload> overloads = {
        {[&](unsigned int m) { return facade->tev_ash_set_member(5, t.job, m, 8u, buf, 0); },
         set + "[Error]" + serch, set + "[Error](set_current) rc:0XC1030001",
         store_op::set_current},
        {[&](unsigned int m) { return facade->tev_ash_set_member(5, t.job, m, 1UL, 0); },
         set + "[Error]" + serch, set + "[Error](set_current) rc:0XC1030001",
         store_op::set_current},
        {[&](unsigned int m) { return facade->tev_ash_set_member(5, t.job, m, 1L, 0); },
         set + "[Error]" + serch, set + "[Error](set_current) rc:0XC1030001",
         store_op::set_current},
        {[&](unsigned int m) {
             return facade->tev_ash_set_member(5, t.job, m, static_cast<unsigned short>(1), 0);
         },
         set + "[Error]" + serch, set + "[Error](set_current) rc:0XC1030001",
         store_op::set_current},
        {[&](unsigned int m) {
             return facade->tev_ash_set_member(5, t.job, m, static_cast<short>(1), 0);
         },
         set + serch, set + "(set_current) rc:0XC1030001", store_op::set_current},
        {[&](unsigned int m) {
             return facade->tev_ash_set_member(5, t.job, m, static_cast<unsigned char>(1), 0);
         },
         set + serch, set + "[Error](set_current) rc:0XC1030001", store_op::set_current},
        {[&](unsigned int m) {
             return facade->tev_ash_set_member(5, t.job, m, static_cast<char>(1), 0);
         },
         set + "[Error]" + serch, set + "[Error](set_current) rc:0XC1030001",
         store_op::set_current},
        {[&](unsigned int m) { return facade->tev_ash_set_member(5, t.job, m, buf, 0); },
         set + "[Error](search_target_handler_id) rc:0XC1030001, ",
         set + "[Error](set_current) rc:0xc1030001", store_op::set_current},
        {[&](unsigned int m) { return facade->tev_ash_get_member(5, t.job, m, 8u, buf, 0); },
         get + "[Error]" + serch, get + "[Error](set_current) rc:0XC1030001",
         store_op::get_current},
        {[&](unsigned int m) {
             unsigned long v = 0;
             return facade->tev_ash_get_member(5, t.job, m, &v, 0);
         },
         get + "[Error]" + serch, get + "[Error](set_current) rc:0XC1030001",
         store_op::get_current},
        {[&](unsigned int m) {
             long v = 0;
             return facade->tev_ash_get_member(5, t.job, m, &v, 0);
         },
         get + "[Error]" + serch, get + "[Error](set_current) rc:0XC1030001",
         store_op::get_current},
        {[&](unsigned int m) {
             unsigned short v = 0;
             return facade->tev_ash_get_member(5, t.job, m, &v, 0);
         },
         get + "[Error]" + serch, get + "[Error](set_current) rc:0XC1030001",
         store_op::get_current},
        {[&](unsigned int m) {
             short v = 0;
             return facade->tev_ash_get_member(5, t.job, m, &v, 0);
         },
         get + "[Error]" + serch, get + "[Error](set_current) rc:0XC1030001",
         store_op::get_current},
        {[&](unsigned int m) {
             unsigned char v = 0;
             return facade->tev_ash_get_member(5, t.job, m, &v, 0);
         },
         get + "[Error]" + serch, get + "[Error](set_current) rc:0XC1030001",
         store_op::get_current},
        {[&](unsigned int m) { return facade->tev_ash_get_member(5, t.job, m, buf, 0); },
         get + "[Error]" + serch, get + "[Error](set_current) rc:0XC1030001",
         store_op::get_current},
        {[&](unsigned int m) { return facade->tev_ash_get_member(t.job, m, buf, 0); },
         get + "[Error](search_target_handler_id) rc:0XC1030001, ",
         get + "[Error](set_current) rc:0XC1030001", store_op::get_current},
    };
    for (std::size_t i = 0; i < overloads.size(); ++i) {
        SCOPED_TRACE("overload " + std::to_string(i + 1));
        const overload& o = overloads[i];
        trace_.clear();
        EXPECT_EQ(0xC1030001u, o.call(IMAGE_MEMBER));  // refused through a job handler
        lines got = trace_calls();
        ASSERT_EQ(2u, got.size());
        EXPECT_EQ(0u, got[1].rfind(o.resolution_line, 0)) << got[1];

        trace_.clear();
        tevhost::store_fail_op(o.op, 1, 0xE1000099);
        EXPECT_EQ(0xC1030001u, o.call(JOB_MEMBER + 6));
        got = trace_calls();
        ASSERT_EQ(1u, got.size());
        EXPECT_EQ(0u, got[0].rfind(o.store_line, 0)) << got[0];
        EXPECT_EQ(std::string::npos, got[0].find("E1000099"));
        tevhost::store_fail_clear();
    }
}

}  // namespace
