// The host handler service with the sample director, end to end: requests from
// the handler facade and the public facade travel through the service and the
// director manager to the director, which works in the record store; connecters
// and malformed requests are answered by the service.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "handler_service.h"
#include "host/tev_host.h"
#include "host_system.h"
#include "sample_director.h"
#include "tev_ash_facade.h"
#include "tev_ash_handler_facade.h"
#include "tev_ash_messages.h"
#include "tev_test_support.h"
#include "vlq_mc_client.h"
#include "wud_wud_service_info.h"

namespace {

using namespace velmora;
using store = wud_wud_service_info;
using bytes = std::vector<char>;

constexpr TEV_ASH_APP_TYPE APP = static_cast<TEV_ASH_APP_TYPE>(7);
constexpr TEV_ASH_APP_TYPE OTHER_APP = static_cast<TEV_ASH_APP_TYPE>(8);
constexpr unsigned int CMP = TEV_ASH_CMP_ID;
constexpr unsigned int MEMBER = 0x5001;
constexpr std::uint32_t MEMBER_INITIAL = 7;

std::vector<unsigned int> record_ids() {
    std::vector<unsigned int> ids;
    for (const auto& r : tevhost::store_records()) ids.push_back(r.handler_id);
    return ids;
}

bool exists(unsigned int id) {
    unsigned int category = 0;
    return store::wud_wud_service_info_get_job_category_by_id(CMP, id, &category) == 0;
}

std::uint32_t member_of(unsigned int id) {
    std::uint32_t value = 0xFFFFFFFF;
    EXPECT_EQ(0u, store::wud_wud_service_info_get_current(CMP, id, MEMBER, &value));
    return value;
}

class HandlerService : public ::testing::Test {
protected:
    HandlerService() {
        tevhost::declare_member(MEMBER, tevhost::member_kind::u32, 0,
                                {static_cast<unsigned char>(MEMBER_INITIAL), 0, 0, 0});
    }
    void SetUp() override { ASSERT_EQ(0u, system_.status()); }

    unsigned int make_record(unsigned int category) {
        unsigned int id = 0;
        EXPECT_EQ(0u, store::wud_wud_service_info_make_current(CMP, category, 0, &id));
        return id;
    }
    void link(unsigned int parent_category, unsigned int parent, unsigned int child_category,
              unsigned int child) {
        ASSERT_EQ(0u, store::wud_wud_service_info_set_link(CMP, parent_category, parent,
                                                           child_category, child));
    }

    // Sends `request` to the service and returns the client's result; the reply
    // (zero-filled first) goes to `reply`, sized by the caller.
    int send(long func_id, bytes request, bytes& reply) {
        std::fill(reply.begin(), reply.end(), '\0');
        unsigned int len = static_cast<unsigned int>(reply.size());
        return client_.vlq_mc_send_sync_message(
            TEV_ASH_SRV_OBJ_ID, func_id, request.empty() ? nullptr : request.data(),
            static_cast<unsigned int>(request.size()), reply.data(), &len, TEV_ASH_SRV_NAME);
    }

    tev_ash_handler_facade* handler() {
        return tev_ash_handler_facade::tev_ash_handler_get_instance();
    }

    tevtest::fresh_store store_;
    tevhost::trace_capture trace_;
    tevash_tools::host_system system_{APP};
    vlq_mc_client client_;
};

// ---- Handler requests through the handler facade

TEST_F(HandlerService, CreateMakesARecordOfTheCategory) {
    unsigned int id = 0;
    ASSERT_EQ(0u, handler()->tev_ash_handler_create(TEV_ASH_CAT_APLJOB, APP,
                                                    TEV_ASH_SERVICE_TYPE_NONE, &id, 0));
    ASSERT_NE(0u, id);
    unsigned int category = 0;
    ASSERT_EQ(0u, store::wud_wud_service_info_get_job_category_by_id(CMP, id, &category));
    EXPECT_EQ(TEV_ASH_CAT_APLJOB, category);
    EXPECT_EQ(1u, system_.director().notifications());
}

TEST_F(HandlerService, CreateWithASourceCopiesItsValues) {
    const unsigned int src = make_record(TEV_ASH_CAT_AUTH);
    ASSERT_EQ(0u, store::wud_wud_service_info_set_current(CMP, src, MEMBER, 99UL));
    unsigned int id = 0;
    ASSERT_EQ(0u, handler()->tev_ash_handler_create(TEV_ASH_CAT_AUTH, APP,
                                                    TEV_ASH_SERVICE_TYPE_NONE, &id, src));
    EXPECT_NE(src, id);
    EXPECT_EQ(99u, member_of(id));
}

TEST_F(HandlerService, ResetGivesMembersTheirInitialValues) {
    const unsigned int id = make_record(TEV_ASH_CAT_AUTH);
    ASSERT_EQ(0u, store::wud_wud_service_info_set_current(CMP, id, MEMBER, 1234UL));
    EXPECT_EQ(0u, handler()->tev_ash_handler_reset(APP, TEV_ASH_SERVICE_TYPE_NONE, id));
    EXPECT_EQ(MEMBER_INITIAL, member_of(id));
}

TEST_F(HandlerService, RemoveDeletesTheHandlerAndEverythingBelowIt) {
    const unsigned int keep = make_record(TEV_ASH_CAT_AUTH);
    const unsigned int job = make_record(TEV_ASH_CAT_APLJOB);
    const unsigned int a = make_record(TEV_ASH_CAT_JOBSET_03);
    const unsigned int b = make_record(TEV_ASH_CAT_JOBSET_04);
    const unsigned int a1 = make_record(TEV_ASH_CAT_JOBSET_05);
    link(TEV_ASH_CAT_AUTH, keep, TEV_ASH_CAT_APLJOB, job);
    link(TEV_ASH_CAT_APLJOB, job, TEV_ASH_CAT_JOBSET_03, a);
    link(TEV_ASH_CAT_APLJOB, job, TEV_ASH_CAT_JOBSET_04, b);
    link(TEV_ASH_CAT_JOBSET_03, a, TEV_ASH_CAT_JOBSET_05, a1);

    EXPECT_EQ(0u, handler()->tev_ash_handler_remove(APP, job));
    EXPECT_EQ(std::vector<unsigned int>{keep}, record_ids());
    unsigned int count = 1;
    EXPECT_EQ(0u, store::wud_wud_service_info_get_child_link_num_direct(CMP, keep, &count));
    EXPECT_EQ(0u, count);
}

TEST_F(HandlerService, DirectorFailureCodesArriveUnchanged) {
    EXPECT_EQ(tevhost::STORE_NO_RECORD, handler()->tev_ash_handler_remove(APP, 4242));
    EXPECT_EQ(tevhost::STORE_NO_RECORD,
              handler()->tev_ash_handler_reset(APP, TEV_ASH_SERVICE_TYPE_NONE, 4242));

    tevhost::store_fail_op(tevhost::store_op::make_current, 1, 0x12345678);
    unsigned int id = 55;
    EXPECT_EQ(0x12345678u, handler()->tev_ash_handler_create(TEV_ASH_CAT_AUTH, APP,
                                                             TEV_ASH_SERVICE_TYPE_NONE, &id, 0));
    EXPECT_EQ(0u, id);
    EXPECT_TRUE(record_ids().empty());
}

TEST_F(HandlerService, UnknownApplicationTypeIsAnsweredByTheManager) {
    unsigned int id = 0;
    EXPECT_EQ(0xC1030006u, handler()->tev_ash_handler_create(TEV_ASH_CAT_AUTH, OTHER_APP,
                                                             TEV_ASH_SERVICE_TYPE_NONE, &id, 0));
    EXPECT_EQ(0xC1030006u, handler()->tev_ash_handler_remove(OTHER_APP, 1));
    EXPECT_EQ(0u, system_.director().notifications());
    EXPECT_TRUE(record_ids().empty());
}

// ---- Through the public facade

TEST_F(HandlerService, FacadeCreateResetRemoveReachTheStore) {
    tev_ash_facade* facade = tev_ash_facade::tev_ash_get_instance();
    unsigned int root = 0;
    ASSERT_EQ(0u,
              facade->tev_ash_create(TEV_ASH_CAT_AUTH, APP, TEV_ASH_SERVICE_TYPE_NONE, &root, 0));
    ASSERT_TRUE(exists(root));
    ASSERT_EQ(0u, store::wud_wud_service_info_set_current(CMP, root, MEMBER, 5UL));
    EXPECT_EQ(0u, facade->tev_ash_reset(APP, TEV_ASH_SERVICE_TYPE_NONE, root));
    EXPECT_EQ(MEMBER_INITIAL, member_of(root));
    EXPECT_EQ(0u, facade->tev_ash_remove(APP, root));
    EXPECT_FALSE(exists(root));
    EXPECT_EQ(tevhost::STORE_NO_RECORD, facade->tev_ash_remove(APP, root));
}

// ---- Director registration

TEV_ASH_APP_TYPE app(int t) {
    return static_cast<TEV_ASH_APP_TYPE>(t);
}

TEST_F(HandlerService, SecondDirectorForATypeIsRefusedAndAWithdrawnOneStopsReceiving) {
    tevash_tools::sample_director second("TEV_ASH_DIR2");
    EXPECT_EQ(0xC1030005u, second.start(APP));
    EXPECT_FALSE(second.started());

    ASSERT_EQ(0u, second.start(app(9)));
    unsigned int id = 0;
    ASSERT_EQ(0u, handler()->tev_ash_handler_create(TEV_ASH_CAT_AUTH, app(9),
                                                    TEV_ASH_SERVICE_TYPE_NONE, &id, 0));
    EXPECT_EQ(1u, second.notifications());
    EXPECT_EQ(0u, second.stop());
    EXPECT_EQ(0xC1030006u, handler()->tev_ash_handler_remove(app(9), id));
    EXPECT_EQ(0xC1030006u, handler()->tev_ash_handler_remove_observer(&second));
}

// ---- Connecters

TEST_F(HandlerService, ConnecterStartsAndIsAnsweredWithTheDirector) {
    unsigned char conn = 0;
    ASSERT_EQ(0u, handler()->tev_ash_handler_ctrl_notify_start(conn, "CONNECTER"));
    EXPECT_NE(0, conn);
    EXPECT_EQ(0u, handler()->tev_ash_handler_ctrl_notify_init_end(conn));

    long obj_id = 0;
    char name[16];
    std::memset(name, '#', sizeof name);
    ASSERT_EQ(0u, handler()->tev_ash_handler_ctrl_get_director_observer(conn, APP, obj_id, name));
    EXPECT_NE(0, obj_id);
    EXPECT_EQ(std::string("TEV_ASH_DIR") + std::string(5, '\0'), std::string(name, 16));

    long again = 0;
    ASSERT_EQ(0u, handler()->tev_ash_handler_ctrl_get_director_observer(conn, APP, again, name));
    EXPECT_EQ(obj_id, again);  // the connecter keeps one proxy per type

    EXPECT_EQ(0xC1030006u,
              handler()->tev_ash_handler_ctrl_get_director_observer(conn, OTHER_APP, again, name));
    EXPECT_EQ(0u, handler()->tev_ash_handler_ctrl_notify_stop(conn));

    unsigned char second = 0;
    ASSERT_EQ(0u, handler()->tev_ash_handler_ctrl_notify_start(second, "CONNECTER2"));
    EXPECT_NE(conn, second);
}

TEST_F(HandlerService, UnknownConnecterIsRefused) {
    long obj_id = 0;
    char name[16] = {};
    EXPECT_EQ(0xC1030008u, handler()->tev_ash_handler_ctrl_notify_init_end(250));
    EXPECT_EQ(0xC1030008u, handler()->tev_ash_handler_ctrl_notify_stop(250));
    EXPECT_EQ(0xC1030008u,
              handler()->tev_ash_handler_ctrl_get_director_observer(250, APP, obj_id, name));
}

// ---- Malformed requests

std::uint32_t le32_at(const bytes& b, std::size_t offset) {
    return tev_ash_wire::get_u32(b.data() + offset);
}

TEST_F(HandlerService, ShortRequestsAreAnsweredWithBadArgument) {
    bytes ctrl(tev_ash_ctrl_rpl::SIZE);
    EXPECT_EQ(0, send(TEV_ASH_FUNC_ADD_OBSERVER, bytes(23), ctrl));
    EXPECT_EQ(0xC1030008u, le32_at(ctrl, 12));
    EXPECT_EQ(0, send(TEV_ASH_FUNC_REMOVE_OBSERVER, bytes(), ctrl));
    EXPECT_EQ(0xC1030008u, le32_at(ctrl, 12));
    EXPECT_EQ(0, send(TEV_ASH_FUNC_CTRL_NOTIFY_INIT_END, bytes(72), ctrl));
    EXPECT_EQ(0xC1030008u, le32_at(ctrl, 12));
    EXPECT_EQ(0, send(TEV_ASH_FUNC_CTRL_NOTIFY_STOP, bytes(3), ctrl));
    EXPECT_EQ(0xC1030008u, le32_at(ctrl, 12));
    EXPECT_EQ(0, send(TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER, bytes(76), ctrl));
    EXPECT_EQ(0xC1030008u, le32_at(ctrl, 12));

    bytes create_rpl(tev_ash_create_rpl::SIZE);
    EXPECT_EQ(0, send(TEV_ASH_FUNC_CREATE, bytes(15), create_rpl));
    EXPECT_EQ(0u, le32_at(create_rpl, 0));
    EXPECT_EQ(0xC1030008u, le32_at(create_rpl, 4));
    bytes result(tev_ash_result_rpl::SIZE);
    EXPECT_EQ(0, send(TEV_ASH_FUNC_REMOVE, bytes(7), result));
    EXPECT_EQ(0xC1030008u, le32_at(result, 0));
    EXPECT_EQ(0, send(TEV_ASH_FUNC_RESET, bytes(), result));
    EXPECT_EQ(0xC1030008u, le32_at(result, 0));

    EXPECT_EQ(0u, system_.director().notifications());
    EXPECT_TRUE(record_ids().empty());
}

TEST_F(HandlerService, UnknownFunctionIsNotAnswered) {
    bytes reply(36);
    EXPECT_EQ(tevhost::MSG_NO_REPLY, send(9, bytes(80), reply));
    EXPECT_EQ(tevhost::MSG_NO_REPLY, send(-1, bytes(), reply));
}

TEST_F(HandlerService, DirectorAnswersShortNotificationsWithBadArgument) {
    const auto& director = system_.director();
    char name[17] = {};
    tev_ash_wire::get_name(name, director.get_connection_name());
    bytes reply(tev_ash_create_rpl::SIZE);
    for (long func : {TEV_ASH_FUNC_CREATE, TEV_ASH_FUNC_REMOVE, TEV_ASH_FUNC_RESET}) {
        std::fill(reply.begin(), reply.end(), '\0');
        unsigned int len = func == TEV_ASH_FUNC_CREATE ? 8 : 4;
        char req[2] = {};
        ASSERT_EQ(0, client_.vlq_mc_send_sync_message(director.get_obj_id(), func, req, 2,
                                                      reply.data(), &len, name));
        EXPECT_EQ(0xC1030008u, le32_at(reply, func == TEV_ASH_FUNC_CREATE ? 4 : 0)) << func;
    }
    unsigned int len = 8;
    EXPECT_EQ(tevhost::MSG_NO_REPLY,
              client_.vlq_mc_send_sync_message(director.get_obj_id(), 0, nullptr, 0, reply.data(),
                                               &len, name));
    EXPECT_EQ(0u, director.notifications());
}

// ---- Starting and stopping

TEST(HostSystem, SecondSystemInOneProcessReportsTheServiceTaken) {
    tevtest::fresh_store store;
    tevhost::trace_capture trace;
    tevash_tools::host_system first(APP);
    ASSERT_EQ(0u, first.status());
    tevash_tools::host_system second(OTHER_APP, "TEV_ASH_DIR2");
    EXPECT_EQ(0xC1030005u, second.status());
    EXPECT_EQ(nullptr, second.service());
}

TEST(HostSystem, StoppingWithdrawsTheDirector) {
    tevtest::fresh_store store;
    tevhost::trace_capture trace;
    { tevash_tools::host_system system(APP); }
    tevash_tools::host_system again(APP);
    EXPECT_EQ(0u, again.status());
    unsigned int id = 0;
    EXPECT_EQ(0u, tev_ash_handler_facade::tev_ash_handler_get_instance()->tev_ash_handler_create(
                      TEV_ASH_CAT_AUTH, APP, TEV_ASH_SERVICE_TYPE_NONE, &id, 0));
}

}  // namespace
