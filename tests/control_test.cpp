// The facade and the control layer over the host record store: argument checks
// that stop before the store, what every operation does to the records and
// with which component id, how store and handler service failures come back,
// and the whole trace line each layer leaves.
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tev_test_support.h"

namespace {

using namespace velmora;
using namespace tevtest;
using tevhost::store_op;

constexpr unsigned int SET8_VALUE = 0x00460000;  // a u16 member of job set 0x8, initially 7

using Facade = library_test;

// A refused argument leaves one line and reaches neither store nor service; only
// the facade's own initialisation also notifies.
TEST_F(Facade, RefusedArgumentsAreReportedAndGoNoFurther) {
    const unsigned int job = records::make(TEV_ASH_CAT_APLJOB), m = 0x00360000;
    long l = 0;
    char* const no_text = nullptr;
    const std::string id = "handler_id is NULL", ret = "tev_ash_get_member,[Error]ret_p is NULL";
    const std::string val = "tev_ash_set_member,[Error]val_p is NULL";
    // clang-format off
#define REFUSED(call, line) {[&] { return facade->call; }, line}
    // clang-format on
    const std::vector<std::pair<std::function<unsigned int()>, std::string>> refused = {
        REFUSED(initialize_facade(nullptr), "initialize_facade,[Error]obj_facade is NULL"),
        REFUSED(tev_ash_create(4, TEV_ASH_APP_TYPE(1), TEV_ASH_SERVICE_TYPE(1), nullptr, 0),
                "tev_ash_create,[Error]" + id),
        REFUSED(tev_ash_copy(0, job), "tev_ash_copy,[Error]" + id),
        REFUSED(tev_ash_copy(job, 0), "tev_ash_copy,[Error]" + id),
        REFUSED(tev_ash_create_info(4, nullptr, 0), "tev_ash_create_info,[Error]" + id),
        REFUSED(tev_ash_get_child_count(job, nullptr),
                "tev_ash_get_child_count,[Error]count pointer is NULL"),
        REFUSED(tev_ash_get_child_count(job, nullptr, 8),
                "tev_ash_get_child_count,[Error]count pointer is NULL"),
        REFUSED(tev_ash_get_parent_id(job, nullptr),
                "tev_ash_get_parent_id,[Error]parent_handler_id is NULL"),
        REFUSED(tev_ash_get_child_id(job, 8, nullptr, 0),
                "tev_ash_get_child_id,[Error]child_handler_id is NULL"),
        REFUSED(tev_ash_get_child_id_direct(job, 0, nullptr),
                "tev_ash_get_child_id_direct,[Error]child_handler_id is NULL"),
        REFUSED(tev_ash_get_category(job, nullptr),
                "tev_ash_get_category,[Error]category pointer is NULL"),
        REFUSED(tev_ash_set_member(5, job, m, no_text, 0), val),
        REFUSED(tev_ash_set_member(5, job, m, 4u, nullptr, 0), val),
        REFUSED(tev_ash_get_member(job, m, nullptr, 0), ret),
        REFUSED(tev_ash_get_member(5, job, m, static_cast<long*>(nullptr), 0), ret),
        REFUSED(tev_ash_get_member(5, job, m, static_cast<unsigned long*>(nullptr), 0), ret),
        REFUSED(tev_ash_get_member(5, job, m, static_cast<short*>(nullptr), 0), ret),
        REFUSED(tev_ash_get_member(5, job, m, static_cast<unsigned short*>(nullptr), 0), ret),
        REFUSED(tev_ash_get_member(5, job, m, no_text, 0), ret),
        REFUSED(tev_ash_get_member(5, job, m, static_cast<unsigned char*>(nullptr), 0), ret),
        REFUSED(tev_ash_get_member(5, job, m, 4u, nullptr, 0), ret + " or size is Zero"),
        REFUSED(tev_ash_get_member(5, job, m, 0u, reinterpret_cast<char*>(&l), 0),
                ret + " or size is Zero"),
    };
#undef REFUSED
    tevhost::message_spy spy;
    for (const auto& [call, line] : refused) {
        SCOPED_TRACE(line);
        trace_.clear();
        tevhost::store_log_begin();
        EXPECT_EQ(0xC1030008u, call());
        EXPECT_EQ(lines{"tev_ash_facade::" + line}, trace_calls());
        EXPECT_EQ(line.rfind("initialize", 0) == 0
                      ? lines{"0xe926 tev_ash_facade::initialize_facade 0,0"}
                      : lines{},
                  notifications());
        EXPECT_TRUE(store_calls().empty());
    }
    EXPECT_TRUE(spy.messages().empty());
    EXPECT_EQ(0u, facade->initialize_facade(facade));
    EXPECT_EQ(facade, tev_ash_facade::tev_ash_get_instance());
}

// Create, remove and reset reach the handler service with every argument, and
// its results come back unchanged, with one line of the control layer each.
TEST_F(Facade, HandlerRequestsCarryEveryArgumentAndTheServicesResult) {
    tevhost::message_spy spy([](const tevhost::sent_message& m, bytes& r) {
        r = m.func_id == 2 ? join({le32(0x44), le32(0xC1031234)}) : le32(0xC1035678);
        return true;
    });
    unsigned int id = 0;
    EXPECT_EQ(0xC1031234u,
              facade->tev_ash_create(4, TEV_ASH_APP_TYPE(1), TEV_ASH_SERVICE_TYPE(2), &id, 0x99));
    EXPECT_EQ(0x44u, id);
    EXPECT_EQ(0xC1035678u, facade->tev_ash_remove(TEV_ASH_APP_TYPE(3), 0x55));
    EXPECT_EQ(0xC1035678u,
              facade->tev_ash_reset(TEV_ASH_APP_TYPE(5), TEV_ASH_SERVICE_TYPE(6), 0x66));
    const auto sent = spy.messages();
    ASSERT_EQ(3u, sent.size());
    EXPECT_EQ(join({le32(4), le32(1), le32(2), le32(0x99)}), sent[0].request);
    EXPECT_EQ(join({le32(3), le32(0x55)}), sent[1].request);
    EXPECT_EQ(join({le32(5), le32(6), le32(0x66)}), sent[2].request);
    EXPECT_EQ((lines{"tev_ash_control::create,[Error]rc:0xc1031234",
                     "tev_ash_control::remove,[Error]rc:0xc1035678",
                     "tev_ash_control::reset,[Error]rc:0xc1035678"}),
              trace_calls());
}

// Record operations through the facade: values land where they should, and
// each makes its one store call as the library (the member access as the caller).
TEST_F(Facade, RecordOperationsMoveValuesTheRightWay) {
    tevhost::declare_member(SET8_VALUE, tevhost::member_kind::u16, 0, {7});
    const job_tree t = make_job_tree({0x8});
    auto value = [&](unsigned int id) {
        unsigned short v = 0;
        EXPECT_EQ(0u, facade->tev_ash_get_member(9, id, SET8_VALUE, &v, 0));
        return v;
    };
    auto set = [&](unsigned int id, unsigned short v) {
        ASSERT_EQ(0u, facade->tev_ash_set_member(9, id, SET8_VALUE, v, 0));
    };
    set(t.children[0], 111);
    tevhost::store_log_begin();
    unsigned int made = 0, fresh = 0;
    ASSERT_EQ(0u, facade->tev_ash_create_info(8, &made, t.children[0]));
    ASSERT_EQ(0u, facade->tev_ash_create_info(8, &fresh, 0));
    EXPECT_EQ((lines{"make_and_copy_current/c103", "make_current/c103"}), store_calls());
    EXPECT_EQ(111, value(made));  // made from the source
    EXPECT_EQ(7, value(fresh));
    EXPECT_EQ(8u, records::category_of(made));
    set(made, 222);
    tevhost::store_log_begin();
    ASSERT_EQ(0u, facade->tev_ash_copy_info(t.children[0], made));
    EXPECT_EQ(lines{"copy_current/c103"}, store_calls());
    EXPECT_EQ(111, value(made));
    EXPECT_EQ(111, value(t.children[0]));
    set(t.children[0], 333);
    tevhost::store_log_begin();
    ASSERT_EQ(0u, facade->tev_ash_reset_info(t.children[0]));
    ASSERT_EQ(0u, facade->tev_ash_remove_info(made));
    EXPECT_EQ((lines{"init_current/c103", "delete_current/c103"}), store_calls());
    EXPECT_EQ(7, value(t.children[0]));
    EXPECT_FALSE(records::exists(made));
    EXPECT_TRUE(records::exists(fresh));
    EXPECT_TRUE(trace_calls().empty());
}

TEST_F(Facade, LinksAndNavigation) {
    const job_tree t = make_job_tree({0x8, 0x10});
    const unsigned int made = records::make(8);
    ASSERT_EQ(0u, facade->tev_ash_set_link(4, t.job, 8, made));
    const struct {
        std::function<unsigned int(unsigned int*)> call;
        unsigned int want;
    } reads[] = {
        {[&](unsigned int* n) { return facade->tev_ash_get_child_count(t.job, n); }, 3},
        {[&](unsigned int* n) { return facade->tev_ash_get_child_count(t.job, n, 8); }, 2},
        {[&](unsigned int* n) { return facade->tev_ash_get_child_count(t.job, n, 2); }, 0},
        {[&](unsigned int* c) { return facade->tev_ash_get_child_id(t.job, 8, c, 1); }, made},
        {[&](unsigned int* c) { return facade->tev_ash_get_child_id_direct(t.job, 1, c); },
         t.children[1]},
        {[&](unsigned int* p) { return facade->tev_ash_get_parent_id(made, p); }, t.job},
        {[&](unsigned int* c) { return facade->tev_ash_get_category(made, c); }, 8},
    };
    for (const auto& r : reads) {
        unsigned int out = 0xFFFF;
        EXPECT_EQ(0u, r.call(&out));
        EXPECT_EQ(r.want, out);
    }
    // Unlinked and linked again, a child goes to the end of the list.
    ASSERT_EQ(0u, facade->tev_ash_delete_link(0x10, t.children[1]));
    ASSERT_EQ(0u, facade->tev_ash_set_link(4, t.job, 0x10, t.children[1]));
    EXPECT_EQ((std::vector<unsigned int>{t.children[0], made, t.children[1]}),
              records::children(t.job));
    EXPECT_TRUE(trace_calls().empty());
}

// ---------------------------------------------------------------------------

using Control = library_test;

// Failed store calls, armed or refused by the store (no such record, link or
// source; already linked), become 0xC1030001 with the store's code in the line.
TEST_F(Control, StoreFailuresBecomeOneCodeWithTheStoresCodeInTheLine) {
    unsigned int id = 0x55, out = 0;
    auto category = TEV_ASH_CATEGORY(0x55);
    tevhost::store_fail_op(store_op::make_current, 1, 0xE1000042);
    EXPECT_EQ(0xC1030001u, control.create_info(TEV_ASH_CAT_APLJOB, &id, 0));
    EXPECT_EQ(0xC1030001u, control.create_info(TEV_ASH_CAT_AUTH, &id, 0x77));  // no such source
    EXPECT_EQ(0xC1030001u, control.copy_info(0x10, 0x11));
    EXPECT_EQ(0xC1030001u, control.reset_info(0x12));
    EXPECT_EQ(0xC1030001u, control.remove_info(0x13));
    EXPECT_EQ(0xC1030001u, control.get_category(0x14, &category));
    EXPECT_EQ(0x55u, id);
    EXPECT_EQ(0x55u, category);
    const job_tree t = make_job_tree({0x8});  // only now: ids 0x10 to 0x14 were free above
    const unsigned int orphan = records::make(TEV_ASH_CAT_AUTH);
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
    const std::string c = "tev_ash_control::", e = ",[Error]wud_rc:0xe10000", pi = ptr(&id),
                      p = ptr(&out), job = hex8(t.job), orphan_id = hex8(orphan);
    EXPECT_EQ(
        (lines{c + "create_info" + e + "42, category:4, &handler_id:" + pi +
                   ", src_handler_id:00000000",
               c + "create_info" + e + "01, category:2, &handler_id:" + pi +
                   ", src_handler_id:0X00000077",
               c + "copy_info" + e + "01, src_handler_id:0X00000010, dst_handler_id:0X00000011",
               c + "reset_info" + e + "01, handler_id:0X00000012",
               c + "remove_info" + e + "01, handler_id:0X00000013",
               c + "get_category,[Error] wud_rc:0xe1000001, handler_id:0X00000014, &category:" +
                   ptr(&category),
               c +
                   "get_child_id,[Error](wud_wud_service_info_get_child_link) wud_rc:0xe1000007, "
                   "parent_handler_id:" +
                   job + ", child_category:8, &child_handler_id:" + p + ", order:1",
               c + "get_child_id_direct,wud_rc:0XE1000007, parent_handler_id:" + job +
                   ", order:1, &child_handler_id:" + p,
               c +
                   "get_parent_id,[Error](wud_wud_service_info_get_parent_link) "
                   "wud_rc:0xe1000007, child_handler_id:" +
                   orphan_id + ", &parent_handler_id:" + p,
               c +
                   "get_child_count,[Error](wud_wud_service_info_get_child_link_num) "
                   "wud_rc:0xe1000077, parent_handler_id:" +
                   job + ", &count:" + p + ", child_category:0x00000008",
               c + "get_child_count" + e + "78, parent_handler_id:" + job + ", &count:" + p,
               c + "set_link,[Error]wud_rc:e1000005, parent_category:4, parent_handler_id:" + job +
                   ", child_category:8, child_handler_id:" + hex8(t.children[0]),
               c + "delete_link" + e + "07, category:2, handler_id:" + orphan_id}),
        trace_calls());
}

// A lookup that first reads the parent's category stops there when it fails,
// after the category read's line (about a local of the lookup).
TEST_F(Control, TwoStepLookupsStopAfterAFailedCategoryRead) {
    unsigned int out = 0;
    const std::string p = ptr(&out), c = "tev_ash_control::", e = ",[Error](get_category) rc:0";
    const std::pair<std::function<unsigned int()>, std::string> lookups[] = {
        {[&] { return control.get_child_id(0xBAD, TEV_ASH_CAT_JOBSET_03, &out, 2); },
         c + "get_child_id" + e +
             "XC1030001, parent_handler_id:0X00000BAD, child_category:8, "
             "&child_handler_id:" +
             p + ", order:2"},
        {[&] { return control.get_parent_id(0xBAD, &out); },
         c + "get_parent_id" + e +
             "xc1030001, child_handler_id:0X00000BAD, &parent_handler_id:" + p},
        {[&] { return control.get_child_count(0xBAD, &out, TEV_ASH_CAT_JOBSET_03); },
         c + "get_child_count" + e + "xc1030001, parent_handler_id:0X00000BAD, &count:" + p +
             ", child_category:0X00000008"},
    };
    for (const auto& [call, line] : lookups) {
        trace_.clear();
        tevhost::store_log_begin();
        EXPECT_EQ(0xC1030001u, call());
        EXPECT_EQ(lines{"get_job_category_by_id/c103"}, store_calls());
        const lines got = trace_calls();
        ASSERT_EQ(2u, got.size());
        EXPECT_EQ(0u, got[0].rfind(
                          c + "get_category,[Error] wud_rc:0xe1000001, handler_id:0X00000BAD", 0));
        EXPECT_EQ(line, got[1]);
    }
}

}  // namespace
