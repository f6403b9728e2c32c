// The facade and the control layer over the host record store: argument checks
// that stop before the store, the store calls each operation makes and with
// which component id, how store and handler service failures come back, and the
// trace lines each layer leaves.
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
using tevhost::store_op;
using tevtest::hex8;
using tevtest::ptr;
using tevtest::store_calls;
using tevtest::trace_calls;
using lines = std::vector<std::string>;

class FacadeChecks : public tevtest::library_test {
protected:
    template <typename T>
    unsigned int null_read(unsigned int job) {
        return facade->tev_ash_get_member(5, job, 0x00360000, static_cast<T*>(nullptr), 0);
    }
    tev_ash_facade* facade = tev_ash_facade::tev_ash_get_instance();
};

TEST_F(FacadeChecks, InitializeFacadeExaminesOnlyItsArgument) {
    EXPECT_EQ(0u, facade->initialize_facade(facade));
    EXPECT_TRUE(trace_calls().empty());
    EXPECT_EQ(0xC1030008u, facade->initialize_facade(nullptr));
    EXPECT_EQ(lines{"tev_ash_facade::initialize_facade,[Error]obj_facade is NULL"}, trace_calls());
    const auto notes = trace_.notifications();
    ASSERT_EQ(1u, notes.size());
    EXPECT_EQ(0xE926u, notes[0].code);
    EXPECT_EQ("tev_ash_facade", notes[0].file);
    EXPECT_EQ(facade, tev_ash_facade::tev_ash_get_instance());
}

TEST_F(FacadeChecks, RefusedArgumentsLeaveOneLineAndReachNeitherStoreNorService) {
    const unsigned int job = tevtest::make_record(TEV_ASH_CAT_APLJOB);
    unsigned int out = 0;
    long value = 0;
    const std::vector<std::pair<std::function<unsigned int()>, std::string>> refused = {
        {[&] {
             return facade->tev_ash_create(4, TEV_ASH_APP_TYPE(1), TEV_ASH_SERVICE_TYPE(1), nullptr,
                                           0);
         },
         "tev_ash_create,[Error]handler_id is NULL"},
        {[&] { return facade->tev_ash_copy(0, job); }, "tev_ash_copy,[Error]handler_id is NULL"},
        {[&] { return facade->tev_ash_copy(job, 0); }, "tev_ash_copy,[Error]handler_id is NULL"},
        {[&] { return facade->tev_ash_create_info(4, nullptr, 0); },
         "tev_ash_create_info,[Error]handler_id is NULL"},
        {[&] { return facade->tev_ash_get_child_count(job, nullptr); },
         "tev_ash_get_child_count,[Error]count pointer is NULL"},
        {[&] { return facade->tev_ash_get_child_count(job, nullptr, 8); },
         "tev_ash_get_child_count,[Error]count pointer is NULL"},
        {[&] { return facade->tev_ash_get_parent_id(job, nullptr); },
         "tev_ash_get_parent_id,[Error]parent_handler_id is NULL"},
        {[&] { return facade->tev_ash_get_child_id(job, 8, nullptr, 0); },
         "tev_ash_get_child_id,[Error]child_handler_id is NULL"},
        {[&] { return facade->tev_ash_get_child_id_direct(job, 0, nullptr); },
         "tev_ash_get_child_id_direct,[Error]child_handler_id is NULL"},
        {[&] { return facade->tev_ash_get_category(job, nullptr); },
         "tev_ash_get_category,[Error]category pointer is NULL"},
        {[&] {
             return facade->tev_ash_set_member(5, job, 0x00360000, static_cast<char*>(nullptr), 0);
         },
         "tev_ash_set_member,[Error]val_p is NULL"},
        {[&] { return facade->tev_ash_set_member(5, job, 0x00360000, 4u, nullptr, 0); },
         "tev_ash_set_member,[Error]val_p is NULL"},
        {[&] { return facade->tev_ash_get_member(job, 0x00360000, nullptr, 0); },
         "tev_ash_get_member,[Error]ret_p is NULL"},
        {[&] { return null_read<long>(job); }, "tev_ash_get_member,[Error]ret_p is NULL"},
        {[&] { return null_read<unsigned long>(job); }, "tev_ash_get_member,[Error]ret_p is NULL"},
        {[&] { return null_read<short>(job); }, "tev_ash_get_member,[Error]ret_p is NULL"},
        {[&] { return null_read<unsigned short>(job); }, "tev_ash_get_member,[Error]ret_p is NULL"},
        {[&] { return null_read<char>(job); }, "tev_ash_get_member,[Error]ret_p is NULL"},
        {[&] { return null_read<unsigned char>(job); }, "tev_ash_get_member,[Error]ret_p is NULL"},
        {[&] { return facade->tev_ash_get_member(5, job, 0x00360000, 4u, nullptr, 0); },
         "tev_ash_get_member,[Error]ret_p is NULL or size is Zero"},
        {[&] {
             return facade->tev_ash_get_member(5, job, 0x00360000, 0u,
                                               reinterpret_cast<char*>(&value), 0);
         },
         "tev_ash_get_member,[Error]ret_p is NULL or size is Zero"},
    };
    tevhost::message_spy spy;
    for (const auto& [call, line] : refused) {
        SCOPED_TRACE(line);
        trace_.clear();
        tevhost::store_log_begin();
        EXPECT_EQ(0xC1030008u, call());
        EXPECT_EQ(lines{"tev_ash_facade::" + line}, trace_calls());
        EXPECT_TRUE(store_calls().empty());
    }
    EXPECT_TRUE(spy.messages().empty());
    EXPECT_EQ(0u, out);
}

// Every operation reaches the layer below with its arguments unchanged; those
// without a check pass zero ids on, and a sized write of size 0 is not the
// facade's to refuse.
TEST_F(FacadeChecks, EveryOperationForwardsToTheControlLayer) {
    tevhost::message_spy spy([](const tevhost::sent_message& m, std::vector<unsigned char>& r) {
        r = m.func_id == 2 ? std::vector<unsigned char>{0x44, 0, 0, 0, 0, 0, 0, 0}
                           : std::vector<unsigned char>{0, 0, 0, 0};
        return true;
    });
    unsigned int id = 0;
    EXPECT_EQ(0u, facade->tev_ash_create(4, TEV_ASH_APP_TYPE(1), TEV_ASH_SERVICE_TYPE(2), &id, 0));
    EXPECT_EQ(0x44u, id);
    EXPECT_EQ(0u, facade->tev_ash_remove(TEV_ASH_APP_TYPE(1), 0));
    EXPECT_EQ(0u, facade->tev_ash_reset(TEV_ASH_APP_TYPE(1), TEV_ASH_SERVICE_TYPE(0), 0));
    EXPECT_EQ(3u, spy.messages().size());

    tevhost::store_log_begin();
    EXPECT_EQ(0xC1030001u, facade->tev_ash_copy_info(0, 0));
    EXPECT_EQ(0xC1030001u, facade->tev_ash_set_link(0, 0, 0, 0));
    EXPECT_EQ(0xC1030001u, facade->tev_ash_delete_link(0, 0));
    EXPECT_EQ((lines{"copy_current/c103", "set_link/c103", "delete_link/c103"}), store_calls());
    trace_.clear();

    const tevtest::job_tree t = tevtest::make_job_tree({0x8, 0x10});
    unsigned int made = 0;
    ASSERT_EQ(0u, facade->tev_ash_create_info(8, &made, t.children[0]));
    ASSERT_EQ(0u, facade->tev_ash_set_link(4, t.job, 8, made));
    unsigned int n = 0;
    ASSERT_EQ(0u, facade->tev_ash_get_child_count(t.job, &n));
    EXPECT_EQ(3u, n);
    ASSERT_EQ(0u, facade->tev_ash_get_child_count(t.job, &n, 8));
    EXPECT_EQ(2u, n);
    ASSERT_EQ(0u, facade->tev_ash_get_child_count(t.job, &n, 2));
    EXPECT_EQ(0u, n);
    unsigned int child = 0;
    ASSERT_EQ(0u, facade->tev_ash_get_child_id(t.job, 8, &child, 1));
    EXPECT_EQ(made, child);
    ASSERT_EQ(0u, facade->tev_ash_get_child_id_direct(t.job, 1, &child));
    EXPECT_EQ(t.children[1], child);
    unsigned int parent = 0;
    ASSERT_EQ(0u, facade->tev_ash_get_parent_id(made, &parent));
    EXPECT_EQ(t.job, parent);
    unsigned int category = 0;
    ASSERT_EQ(0u, facade->tev_ash_get_category(made, &category));
    EXPECT_EQ(8u, category);
    // Unlinked and linked again, a child goes to the end of the list.
    ASSERT_EQ(0u, facade->tev_ash_delete_link(0x10, t.children[1]));
    ASSERT_EQ(0u, facade->tev_ash_set_link(4, t.job, 0x10, t.children[1]));
    EXPECT_EQ((std::vector<unsigned int>{t.children[0], made, t.children[1]}),
              tevtest::children_of(t.job));
    ASSERT_EQ(0u, facade->tev_ash_copy_info(t.children[0], made));
    ASSERT_EQ(0u, facade->tev_ash_reset_info(made));
    ASSERT_EQ(0u, facade->tev_ash_remove_info(made));
    EXPECT_FALSE(tevtest::exists(made));
    EXPECT_EQ((std::vector<unsigned int>{t.children[0], t.children[1]}),
              tevtest::children_of(t.job));

    tevhost::declare_member(0x00360001, tevhost::member_kind::i32);
    long value = 0x01020304;
    EXPECT_EQ(0u, facade->tev_ash_set_member(5, t.job, 0x00360001, 0u,
                                             reinterpret_cast<char*>(&value), 0));
    EXPECT_TRUE(trace_calls().empty());
}

// ---------------------------------------------------------------------------

class ControlRecords : public tevtest::library_test {
protected:
    tev_ash_control control;
};

TEST_F(ControlRecords, RecordOperationsMakeOneStoreCallWithTheLibrarysComponentId) {
    tevhost::declare_member(0x00360002, tevhost::member_kind::u16, 0, {0x34, 0x12});
    tevhost::store_log_begin();
    unsigned int fresh = 0;
    unsigned int copied = 0;
    ASSERT_EQ(0u, control.create_info(TEV_ASH_CAT_APLJOB, &fresh, 0));
    ASSERT_EQ(0u, control.set_member(9, fresh, 0x00360002, static_cast<unsigned short>(0xBEEF), 0));
    ASSERT_EQ(0u, control.create_info(TEV_ASH_CAT_APLJOB, &copied, fresh));
    EXPECT_NE(0u, fresh);
    EXPECT_NE(fresh, copied);
    unsigned short value = 0;
    ASSERT_EQ(0u, control.get_member(9, copied, 0x00360002, &value, 0));
    EXPECT_EQ(0xBEEF, value);
    ASSERT_EQ(0u, control.reset_info(copied));
    ASSERT_EQ(0u, control.get_member(9, copied, 0x00360002, &value, 0));
    EXPECT_EQ(0x1234, value);
    ASSERT_EQ(0u, control.copy_info(fresh, copied));
    ASSERT_EQ(0u, control.remove_info(fresh));
    EXPECT_FALSE(tevtest::exists(fresh));
    EXPECT_EQ((lines{"make_current/c103", "get_job_category_by_id/c103", "set_current/9",
                     "make_and_copy_current/c103", "get_job_category_by_id/c103", "get_current/9",
                     "init_current/c103", "get_job_category_by_id/c103", "get_current/9",
                     "copy_current/c103", "delete_current/c103"}),
              store_calls());
    EXPECT_TRUE(trace_calls().empty());
}

TEST_F(ControlRecords, StoreFailuresBecomeOneCodeWithTheStoresCodeInTheLine) {
    unsigned int id = 0x55;
    tevhost::store_fail_op(store_op::make_current, 1, 0xE1000042);
    EXPECT_EQ(0xC1030001u, control.create_info(TEV_ASH_CAT_APLJOB, &id, 0));
    EXPECT_EQ(0xC1030001u, control.create_info(TEV_ASH_CAT_AUTH, &id, 0x77));  // no such source
    EXPECT_EQ(0xC1030001u, control.copy_info(0x10, 0x11));
    EXPECT_EQ(0xC1030001u, control.reset_info(0x12));
    EXPECT_EQ(0xC1030001u, control.remove_info(0x13));
    EXPECT_EQ(0x55u, id);
    const std::string p = ptr(&id);
    EXPECT_EQ(
        (lines{"tev_ash_control::create_info,[Error]wud_rc:0xe1000042, category:4, &handler_id:" +
                   p + ", src_handler_id:00000000",
               "tev_ash_control::create_info,[Error]wud_rc:0xe1000001, category:2, &handler_id:" +
                   p + ", src_handler_id:0X00000077",
               "tev_ash_control::copy_info,[Error]wud_rc:0xe1000001, src_handler_id:0X00000010, "
               "dst_handler_id:0X00000011",
               "tev_ash_control::reset_info,[Error]wud_rc:0xe1000001, handler_id:0X00000012",
               "tev_ash_control::remove_info,[Error]wud_rc:0xe1000001, handler_id:0X00000013"}),
        trace_calls());
}

TEST_F(ControlRecords, HandlerServiceResultsPassThroughUnchanged) {
    std::vector<unsigned char> reply;
    tevhost::message_spy spy([&](const tevhost::sent_message& m, std::vector<unsigned char>& r) {
        r = m.func_id == 2 ? std::vector<unsigned char>{0x21, 0, 0, 0, 0x34, 0x12, 0x03, 0xC1}
                           : std::vector<unsigned char>{0x78, 0x56, 0x03, 0xC1};
        return true;
    });
    unsigned int id = 0;
    EXPECT_EQ(0xC1031234u, control.create(TEV_ASH_CAT_APLJOB, TEV_ASH_APP_TYPE(3),
                                          TEV_ASH_SERVICE_TYPE(4), &id, 0));
    EXPECT_EQ(0x21u, id);
    EXPECT_EQ(0xC1035678u, control.remove(TEV_ASH_APP_TYPE(3), id));
    EXPECT_EQ(0xC1035678u, control.reset(TEV_ASH_APP_TYPE(3), TEV_ASH_SERVICE_TYPE(4), id));
    EXPECT_EQ((lines{"tev_ash_control::create,[Error]rc:0xc1031234",
                     "tev_ash_control::remove,[Error]rc:0xc1035678",
                     "tev_ash_control::reset,[Error]rc:0xc1035678"}),
              trace_calls());
}

// ---------------------------------------------------------------------------

class ControlLinks : public tevtest::library_test {
protected:
    tev_ash_control control;
};

TEST_F(ControlLinks, TwoStepLookupsStopAfterAFailedCategoryRead) {
    const unsigned int missing = 0x0BAD;
    unsigned int out = 0;
    tevhost::store_log_begin();
    EXPECT_EQ(0xC1030001u, control.get_child_id(missing, TEV_ASH_CAT_JOBSET_03, &out, 2));
    EXPECT_EQ(0xC1030001u, control.get_parent_id(missing, &out));
    EXPECT_EQ(0xC1030001u, control.get_child_count(missing, &out, TEV_ASH_CAT_JOBSET_03));
    EXPECT_EQ(lines(3, "get_job_category_by_id/c103"), store_calls());
    const std::string p = ptr(&out);
    const std::string cat_line =
        "tev_ash_control::get_category,[Error] wud_rc:0xe1000001, "
        "handler_id:0X00000BAD, &category:";
    const lines got = trace_calls();
    ASSERT_EQ(6u, got.size());
    EXPECT_EQ(0u, got[0].rfind(cat_line, 0));
    EXPECT_EQ(
        "tev_ash_control::get_child_id,[Error](get_category) rc:0XC1030001, "
        "parent_handler_id:0X00000BAD, child_category:8, &child_handler_id:" +
            p + ", order:2",
        got[1]);
    EXPECT_EQ(0u, got[2].rfind(cat_line, 0));
    EXPECT_EQ(
        "tev_ash_control::get_parent_id,[Error](get_category) rc:0xc1030001, "
        "child_handler_id:0X00000BAD, &parent_handler_id:" +
            p,
        got[3]);
    EXPECT_EQ(0u, got[4].rfind(cat_line, 0));
    EXPECT_EQ(
        "tev_ash_control::get_child_count,[Error](get_category) rc:0xc1030001, "
        "parent_handler_id:0X00000BAD, &count:" +
            p + ", child_category:0X00000008",
        got[5]);
}

TEST_F(ControlLinks, LinkLookupFailuresCarryTheStoresCode) {
    const tevtest::job_tree t = tevtest::make_job_tree({0x8});
    const unsigned int orphan = tevtest::make_record(TEV_ASH_CAT_AUTH);
    unsigned int out = 0;
    const std::string p = ptr(&out);
    EXPECT_EQ(0xC1030001u, control.get_child_id(t.job, TEV_ASH_CAT_JOBSET_03, &out, 1));
    EXPECT_EQ(0xC1030001u, control.get_child_id_direct(t.job, 1, &out));
    EXPECT_EQ(0xC1030001u, control.get_parent_id(orphan, &out));
    tevhost::store_fail_op(store_op::get_child_link_num, 1, 0xE1000077);
    EXPECT_EQ(0xC1030001u, control.get_child_count(t.job, &out, TEV_ASH_CAT_JOBSET_03));
    tevhost::store_fail_op(store_op::get_child_link_num_direct, 1, 0xE1000078);
    EXPECT_EQ(0xC1030001u, control.get_child_count(t.job, &out));
    EXPECT_EQ(0xC1030001u, control.set_link(TEV_ASH_CAT_APLJOB, t.job, TEV_ASH_CAT_JOBSET_03,
                                            t.children[0]));                // already linked
    EXPECT_EQ(0xC1030001u, control.delete_link(TEV_ASH_CAT_AUTH, orphan));  // not linked
    const std::string id = hex8(t.job);
    const std::string child = hex8(t.children[0]);
    const std::string orphan_id = hex8(orphan);
    EXPECT_EQ(
        (lines{"tev_ash_control::get_child_id,[Error](wud_wud_service_info_get_child_link) "
               "wud_rc:0xe1000007, parent_handler_id:" +
                   id + ", child_category:8, &child_handler_id:" + p + ", order:1",
               "tev_ash_control::get_child_id_direct,wud_rc:0XE1000007, parent_handler_id:" + id +
                   ", order:1, &child_handler_id:" + p,
               "tev_ash_control::get_parent_id,[Error](wud_wud_service_info_get_parent_link) "
               "wud_rc:0xe1000007, child_handler_id:" +
                   orphan_id + ", &parent_handler_id:" + p,
               "tev_ash_control::get_child_count,[Error](wud_wud_service_info_get_child_link_num) "
               "wud_rc:0xe1000077, parent_handler_id:" +
                   id + ", &count:" + p + ", child_category:0x00000008",
               "tev_ash_control::get_child_count,[Error]wud_rc:0xe1000078, parent_handler_id:" +
                   id + ", &count:" + p,
               "tev_ash_control::set_link,[Error]wud_rc:e1000005, parent_category:4, "
               "parent_handler_id:" +
                   id + ", child_category:8, child_handler_id:" + child,
               "tev_ash_control::delete_link,[Error]wud_rc:0xe1000007, category:2, handler_id:" +
                   orphan_id}),
        trace_calls());
}

}  // namespace
