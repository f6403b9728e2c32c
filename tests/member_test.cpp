// Members through real handler trees: which handler of a tree owns a member,
// the refused and missing cases with their lines, the component id each store
// call carries, and the width and sign of values on the way in and out.
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tev_test_support.h"

namespace {

using namespace velmora;
using namespace tevtest;
using tevhost::member_kind;
using tevhost::store_op;

// Member ids of the built-in table, one per category used here.
constexpr unsigned int JOB_MEMBER = 0x00360000;     // APLJOB
constexpr unsigned int JOBSET_MEMBER = 0x00460000;  // job set 0x8
constexpr unsigned int AUTH_MEMBER = 0x00260000;    // AUTH
constexpr unsigned int IMAGE_MEMBER = 0x00182000;   // APLSVC_IMG
constexpr unsigned int SUBJOB_MEMBER = 0x01717000;  // 0x400000
constexpr unsigned int DETACHED_MEMBER = 0x01018000;

class Resolution : public library_test {
protected:
    unsigned int resolve(unsigned int handler, unsigned int member, unsigned int order = 0) {
        target = 0xFFFF;
        return control.search_target_handler_id(handler, member, &target, order);
    }
    std::string line(const char* label, unsigned int rc, unsigned int handler, unsigned int member,
                     unsigned int order, unsigned int hc, unsigned int mc) {
        char code[16];
        std::snprintf(code, sizeof code, "%#.8x", rc);
        return std::string("tev_ash_control::search_target_handler_id,[Error](") + label +
               ") rc:" + code + ", handler_id:" + hex8(handler) + ", member_id:" + hex8(member) +
               ", order:" + std::to_string(order) + ", &target_handler_id:" + ptr(&target) +
               ", handler_id_category:" + std::to_string(hc) +
               ", member_category:" + std::to_string(mc);
    }
    unsigned int target = 0;
};

TEST_F(Resolution, EachMemberIsFoundWhereItsCategoryLives) {
    const job_tree t = make_job_tree({0x8, 0x10, 0x8});
    const unsigned int sub = records::make(TEV_ASH_CAT_SUBJOB);
    records::link(t.job, sub);
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

// A refused or missing target: the resolution's line, after the line of the
// lookup that failed (whose out-pointer may be a local, so compared up to it).
TEST_F(Resolution, FailuresCarryTheirCodeAndLines) {
    const job_tree t = make_job_tree({0x8});
    const unsigned int detached = records::make(TEV_ASH_CAT_DETACHED);
    const unsigned int image = records::make(TEV_ASH_CAT_APLSVC_IMG), job = records::make(4);
    records::link(image, job);  // an image handler without a parent: too short a chain
    const std::string c = "tev_ash_control::", invalid = "Invalid Access:other";
    const struct {
        unsigned int handler, member, order, rc;
        std::string first, label;  // start of the lookup's line, the resolution's label
        unsigned int hc, mc;
    } cases[] = {
        {t.job, IMAGE_MEMBER, 0, 0xC1030001, "", invalid, 0x4, 0x1},  // the parent, but refused
        {t.job, DETACHED_MEMBER, 0, 0xC1030001, "", invalid, 0x4, 0x8000},  // only its own
        {t.job, SUBJOB_MEMBER, 0, 0xC1030001, "", invalid, 0x4, 0x400000},  // not a job set
        {t.auth, JOB_MEMBER, 0, 0xC1030001, "", invalid, 0x2, 0x4},  // the root reaches its own
        {t.children[0], AUTH_MEMBER, 0, 0xC1030001, "", invalid, 0x8, 0x2},  // so does level 4
        {detached, JOB_MEMBER, 0, 0xC1030001, "", invalid, 0x8000, 0x4},
        {t.job, 0x00560000, 0, 0xC1030003,  // no child of category 0x10
         c +
             "get_child_id,[Error](wud_wud_service_info_get_child_link) wud_rc:0xe1000007, "
             "parent_handler_id:" +
             hex8(t.job) + ", child_category:16, &child_handler_id:" + ptr(&target) + ", order:0",
         "Existence Error:child", 0x4, 0x10},
        {job, AUTH_MEMBER, 3, 0xC1030003,
         c +
             "get_parent_id,[Error](wud_wud_service_info_get_parent_link) wud_rc:0xe1000007, "
             "child_handler_id:" +
             hex8(image) + ", &parent_handler_id:0x",
         "Existence Error:AUTH", 0x4, 0x2},
        {t.job, 0x00360065, 0, 0xC1030001,  // fits the rule, not in the table
         c + "get_member_category,[Error](Member Not Found) rc:0xc1030001, "
             "member_id:0X00360065, &category:0x",
         "", 0, 0},
        {0x0BAD, JOB_MEMBER, 0, 0xC1030001,
         c + "get_category,[Error] wud_rc:0xe1000001, handler_id:0X00000BAD, &category:0x", "", 0,
         0},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(hex8(k.member));
        trace_.clear();
        EXPECT_EQ(k.rc, resolve(k.handler, k.member, k.order));
        EXPECT_EQ(0xFFFFu, target);
        const lines got = trace_calls();
        ASSERT_EQ((k.first.empty() ? 0u : 1u) + (k.label.empty() ? 0u : 1u), got.size());
        EXPECT_EQ(0u, got[0].rfind(k.first, 0)) << got[0];  // "" for the refused ones
        if (!k.label.empty()) {
            EXPECT_EQ(line(k.label.c_str(), k.rc, k.handler, k.member, k.order, k.hc, k.mc),
                      got.back());
        }
    }
}

// ---------------------------------------------------------------------------

class MemberAccess : public library_test {
protected:
    MemberAccess() {
        const member_kind kinds[] = {member_kind::i32,  member_kind::u32, member_kind::i16,
                                     member_kind::u16,  member_kind::i8,  member_kind::u8,
                                     member_kind::bytes};
        for (unsigned int i = 0; i < 7; ++i) tevhost::declare_member(JOB_MEMBER + i, kinds[i], 8);
        tevhost::declare_member(JOBSET_MEMBER, member_kind::i32);
        tevhost::declare_member(AUTH_MEMBER, member_kind::u32);
    }
    job_tree t = make_job_tree({0x8, 0x8});
};

// Every overload: values keep their width and sign on the way in and out, its
// one store call carries the caller's component id (the read without one, the
// library's), and both failure kinds are reported in its
// own words. A refused resolution passes its code on with the overload's line
// after the resolution's; a store failure is 0xC1030001 with only the
// overload's store line, never the store's own code. The wordings differ: the
// misspelt "serch", the prefixes some lines lack, the widths of the value.
TEST_F(MemberAccess, EveryOverloadUsesTheCallersIdAndReportsInItsOwnWords) {
    char buf[8] = {'s', 'e', 't', 't', 'i', 'n', 'g', 0}, back[8] = {};
    long l = 0x7777777777777777L;  // 32-bit members extend over whatever the variable held
    unsigned long ul = ~0UL;
    unsigned short us = 0;
    short s = 0;
    unsigned char uc = 0;
    char c = 0;
    auto w = [&](auto value) {
        return [&, value](unsigned int m) {
            return facade->tev_ash_set_member(5, t.job, m, value, 0);
        };
    };
    auto r = [&](auto* out) {
        return [&, out](unsigned int m) { return facade->tev_ash_get_member(5, t.job, m, out, 0); };
    };
    const std::string e = "[Error](", serch = "serch_target_handler_id) ", p = ptr(buf);
    const struct {
        unsigned int member;  // offset from JOB_MEMBER
        std::function<unsigned int(unsigned int)> call;
        std::string refused, failed, shown;  // line starts and the value as shown
    } overloads[] = {
        {6, [&](unsigned int m) { return facade->tev_ash_set_member(5, t.job, m, 8u, buf, 0); },
         e + serch, e, "val_p:" + p},
        {1, w(0xFFFFFFFEUL), e + serch, e, "val:0XFFFFFFFE"},
        {0, w(-2L), e + serch, e, "val:0XFFFFFFFE"},
        {3, w(static_cast<unsigned short>(0xFFFE)), e + serch, e, "val:0XFFFE"},
        {2, w(short(-2)), "(" + serch, "(", "val:0XFFFE"},
        {5, w(static_cast<unsigned char>(0xFE)), "(" + serch, e, "val:0XFE"},
        {4, w(char(-2)), e + serch, e, "val:0XFE"},
        {6, [&](unsigned int m) { return facade->tev_ash_set_member(5, t.job, m, buf, 0); },
         e + "search_target_handler_id) ", e, "&val_p:" + p},
        {6, [&](unsigned int m) { return facade->tev_ash_get_member(5, t.job, m, 8u, back, 0); },
         e + serch, e, "&ret_p:" + ptr(back)},
        {1, r(&ul), e + serch, e, "&ret_p:" + ptr(&ul)},
        {0, r(&l), e + serch, e, "&ret_p:" + ptr(&l)},
        {3, r(&us), e + serch, e, "&ret_p:" + ptr(&us)},
        {2, r(&s), e + serch, e, "&ret_p:" + ptr(&s)},
        {5, r(&uc), e + serch, e, "&ret_p:" + ptr(&uc)},
        {4, r(&c), e + serch, e, "&ret_p:" + ptr(&c)},
        {6, r(back), e + serch, e, "&ret_p:" + ptr(back)},
        {6, [&](unsigned int m) { return facade->tev_ash_get_member(t.job, m, back, 0); },
         e + "search_target_handler_id) ", e, "&ret_p:" + ptr(back)},
    };
    const std::string job = hex8(t.job);
    for (const auto& o : overloads) {
        const bool write = o.shown.find("ret_p") == std::string::npos;
        const unsigned int m = JOB_MEMBER + o.member;
        const std::string head =
            write ? "tev_ash_control::set_member," : "tev_ash_control::get_member,";
        const std::string cmp = write ? "cmp_id:5, " : "";
        SCOPED_TRACE(head + o.shown);
        tevhost::store_log_begin();
        EXPECT_EQ(0u, o.call(m));
        const bool own_id = &o == &overloads[std::size(overloads) - 1];
        EXPECT_EQ(std::string(write ? "set" : "get") + "_current/" + (own_id ? "c103" : "5"),
                  store_calls().back());

        trace_.clear();
        EXPECT_EQ(0xC1030001u, o.call(IMAGE_MEMBER));  // refused through a job handler
        const lines got = trace_calls();
        ASSERT_EQ(2u, got.size());
        EXPECT_EQ(head + o.refused + "rc:0XC1030001, " + cmp + "handler_id:" + job +
                      ", member_id:" + hex8(IMAGE_MEMBER) +
                      ", order:0, target_handler_id:00000000, " + o.shown,
                  got[1]);

        trace_.clear();
        tevhost::store_fail_op(write ? store_op::set_current : store_op::get_current, 1,
                               0xE1000099);
        EXPECT_EQ(0xC1030001u, o.call(m));
        const std::string where = write
                                      ? "handler_id:" + job + ", order:0, target_handler_id:" + job
                                      : "handler_id:" + job + ", target_handler_id:" + job;
        const std::string rc = o.shown == "&val_p:" + p ? "rc:0xc1030001, " : "rc:0XC1030001, ";
        EXPECT_EQ(lines{head + o.failed + "set_current) " + rc + cmp + where +
                        ", member_id:" + hex8(m) + ", " + o.shown},
                  trace_calls());
    }
    // The values read are the ones written; the failed reads left them alone.
    EXPECT_EQ(-2L, l);
    EXPECT_EQ(0xFFFFFFFEUL, ul);
    EXPECT_EQ(-2, s);
    EXPECT_EQ(0xFFFE, us);
    EXPECT_EQ(-2, c);
    EXPECT_EQ(0xFE, uc);
    EXPECT_STREQ("setting", back);
}

}  // namespace
