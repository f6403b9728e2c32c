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
using tevtest::hex8;
using tevtest::ptr;
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
    const unsigned int sub = tevtest::make_record(TEV_ASH_CAT_SUBJOB);
    tevtest::link(t.job, sub);
    const struct {
        unsigned int handler, member, order, want;
    } cases[] = {
        {t.job, JOB_MEMBER, 7, t.job},  // its own, whatever the order, though 0x4 is a job set
        {t.auth, AUTH_MEMBER, 0, t.auth},
        {sub, SUBJOB_MEMBER, 0, sub},
        {t.job, JOBSET_MEMBER, 0, t.children[0]},  // by position among that category's children
        {t.job, JOBSET_MEMBER, 1, t.children[2]},
        {t.image, JOB_MEMBER, 0, t.job},    // APLJOB is a job set below the image
        {t.image, AUTH_MEMBER, 5, t.auth},  // AUTH: as many links up as the levels differ
        {t.job, AUTH_MEMBER, 0, t.auth},
        {sub, AUTH_MEMBER, 0, t.auth},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(0u, resolve(c.handler, c.member, c.order));
        EXPECT_EQ(c.want, target) << std::hex << c.handler << " " << c.member;
    }
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

// Every overload, both failure kinds. A refused resolution passes its code on
// with the overload's own line after the resolution's; a store failure is
// 0xC1030001 with only the overload's store line, which never shows the
// store's own code. Each overload has its own wording: the misspelt "serch",
// the prefixes some lines lack, the widths of the value.
TEST_F(MemberAccess, EveryOverloadReportsBothFailureKindsInItsOwnWords) {
    char buf[8] = {};
    unsigned long ul = 0;
    long l = 0;
    unsigned short us = 0;
    short s = 0;
    unsigned char uc = 0;
    const std::string job = hex8(t.job);
    const std::string set = "tev_ash_control::set_member,";
    const std::string get = "tev_ash_control::get_member,";
    const std::string rc1 = "rc:0XC1030001, ";
    const std::string w_ctx = "cmp_id:5, handler_id:" + job +
                              ", order:0, target_handler_id:" + job + ", member_id:0X00360006, ";
    const std::string r_ctx =
        "handler_id:" + job + ", target_handler_id:" + job + ", member_id:0X00360006, &ret_p:";
    struct overload {
        std::function<unsigned int(unsigned int member)> call;
        std::string refused;     // start of the overload's line after a refused resolution
        std::string store_line;  // the whole line of a failed store call
        store_op op;
    };
    auto w = [&](auto value) {
        return [&, value](unsigned int m) {
            return facade->tev_ash_set_member(5, t.job, m, value, 0);
        };
    };
    auto r = [&](auto* out) {
        return [&, out](unsigned int m) { return facade->tev_ash_get_member(5, t.job, m, out, 0); };
    };
    const std::vector<overload> overloads = {
        {[&](unsigned int m) { return facade->tev_ash_set_member(5, t.job, m, 8u, buf, 0); },
         set + "[Error](serch_target_handler_id) " + rc1,
         set + "[Error](set_current) " + rc1 + w_ctx + "val_p:" + ptr(buf), store_op::set_current},
        {w(0xFFFFFFFEUL), set + "[Error](serch_target_handler_id) " + rc1,
         set + "[Error](set_current) " + rc1 + w_ctx + "val:0XFFFFFFFE", store_op::set_current},
        {w(-2L), set + "[Error](serch_target_handler_id) " + rc1,
         set + "[Error](set_current) " + rc1 + w_ctx + "val:0XFFFFFFFE", store_op::set_current},
        {w(static_cast<unsigned short>(0xFFFE)), set + "[Error](serch_target_handler_id) " + rc1,
         set + "[Error](set_current) " + rc1 + w_ctx + "val:0XFFFE", store_op::set_current},
        {w(static_cast<short>(-2)), set + "(serch_target_handler_id) " + rc1,
         set + "(set_current) " + rc1 + w_ctx + "val:0XFFFE", store_op::set_current},
        {w(static_cast<unsigned char>(0xFE)), set + "(serch_target_handler_id) " + rc1,
         set + "[Error](set_current) " + rc1 + w_ctx + "val:0XFE", store_op::set_current},
        {w(static_cast<char>(-2)), set + "[Error](serch_target_handler_id) " + rc1,
         set + "[Error](set_current) " + rc1 + w_ctx + "val:0XFE", store_op::set_current},
        {[&](unsigned int m) { return facade->tev_ash_set_member(5, t.job, m, buf, 0); },
         set + "[Error](search_target_handler_id) " + rc1,
         set + "[Error](set_current) rc:0xc1030001, " + w_ctx + "&val_p:" + ptr(buf),
         store_op::set_current},
        {[&](unsigned int m) { return facade->tev_ash_get_member(5, t.job, m, 8u, buf, 0); },
         get + "[Error](serch_target_handler_id) " + rc1,
         get + "[Error](set_current) " + rc1 + r_ctx + ptr(buf), store_op::get_current},
        {r(&ul), get + "[Error](serch_target_handler_id) " + rc1,
         get + "[Error](set_current) " + rc1 + r_ctx + ptr(&ul), store_op::get_current},
        {r(&l), get + "[Error](serch_target_handler_id) " + rc1,
         get + "[Error](set_current) " + rc1 + r_ctx + ptr(&l), store_op::get_current},
        {r(&us), get + "[Error](serch_target_handler_id) " + rc1,
         get + "[Error](set_current) " + rc1 + r_ctx + ptr(&us), store_op::get_current},
        {r(&s), get + "[Error](serch_target_handler_id) " + rc1,
         get + "[Error](set_current) " + rc1 + r_ctx + ptr(&s), store_op::get_current},
        {r(&uc), get + "[Error](serch_target_handler_id) " + rc1,
         get + "[Error](set_current) " + rc1 + r_ctx + ptr(&uc), store_op::get_current},
        {r(buf), get + "[Error](serch_target_handler_id) " + rc1,
         get + "[Error](set_current) " + rc1 + r_ctx + ptr(buf), store_op::get_current},
        {[&](unsigned int m) { return facade->tev_ash_get_member(t.job, m, buf, 0); },
         get + "[Error](search_target_handler_id) " + rc1,
         get + "[Error](set_current) " + rc1 + r_ctx + ptr(buf), store_op::get_current},
    };
    for (std::size_t i = 0; i < overloads.size(); ++i) {
        SCOPED_TRACE("overload " + std::to_string(i + 1));
        const overload& o = overloads[i];
        trace_.clear();
        EXPECT_EQ(0xC1030001u, o.call(IMAGE_MEMBER));  // refused through a job handler
        lines got = trace_calls();
        ASSERT_EQ(2u, got.size());
        // The refused line shows what the store line shows of the value.
        const std::string value = o.store_line.substr(o.store_line.rfind(", ") + 2);
        const bool write = o.refused.rfind(set, 0) == 0;
        EXPECT_EQ(o.refused + (write ? "cmp_id:5, " : "") + "handler_id:" + job + ", member_id:" +
                      hex8(IMAGE_MEMBER) + ", order:0, target_handler_id:00000000, " + value,
                  got[1]);

        trace_.clear();
        tevhost::store_fail_op(o.op, 1, 0xE1000099);
        EXPECT_EQ(0xC1030001u, o.call(JOB_MEMBER + 6));
        EXPECT_EQ(lines{o.store_line}, trace_calls());
    }
    // A resolution that finds no target passes 0xC1030003 on.
    trace_.clear();
    EXPECT_EQ(0xC1030003u, facade->tev_ash_set_member(5, t.job, JOBSET_MEMBER, -2L, 9));
    EXPECT_EQ(set + "[Error](serch_target_handler_id) rc:0XC1030003, cmp_id:5, handler_id:" + job +
                  ", member_id:0X00460000, order:9, target_handler_id:00000000, val:0XFFFFFFFE",
              trace_calls().back());
}

// Fails each store call of a read and of a write through the tree in turn: the
// result is the resolution's or the access's code, the overload's line comes
// last, the caller's variable and the stored value stay as they were.
TEST_F(MemberAccess, FaultSweepThroughTheTreeChangesNothing) {
    ASSERT_EQ(0u, facade->tev_ash_set_member(5, t.job, AUTH_MEMBER, 11UL, 0));
    for (const bool write : {false, true}) {
        for (unsigned int n = 1; n <= 6; ++n) {
            SCOPED_TRACE(std::string(write ? "write" : "read") + ", failing call " +
                         std::to_string(n));
            trace_.clear();
            tevhost::store_fail_nth_call(n);
            unsigned long v = 99;
            const unsigned int rc = write
                                        ? facade->tev_ash_set_member(5, t.job, AUTH_MEMBER, 22UL, 0)
                                        : facade->tev_ash_get_member(5, t.job, AUTH_MEMBER, &v, 0);
            tevhost::store_fail_clear();
            // Calls 2 to 5 walk the parent links: any failure there is a missing ancestor.
            EXPECT_EQ(n >= 2 && n <= 5 ? 0xC1030003u : 0xC1030001u, rc);
            EXPECT_EQ(99UL, v);
            const lines got = trace_calls();
            ASSERT_FALSE(got.empty());
            EXPECT_EQ(0u, got.back().rfind(write ? "tev_ash_control::set_member,"
                                                 : "tev_ash_control::get_member,",
                                           0));
            ASSERT_EQ(0u, facade->tev_ash_get_member(5, t.auth, AUTH_MEMBER, &v, 0));
            EXPECT_EQ(11UL, v);
        }
    }
}

}  // namespace
