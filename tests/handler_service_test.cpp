// The host handler service with the sample director, end to end: requests from
// the handler facade and the public facade travel through the service and the
// director manager to the director, which works in the record store; malformed
// requests are answered by the service.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "handler_service.h"
#include "host/tev_host_testing.h"
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
constexpr TEV_ASH_SERVICE_TYPE NONE = TEV_ASH_SERVICE_TYPE_NONE;
constexpr unsigned int CMP = TEV_ASH_CMP_ID;
constexpr unsigned int MEMBER = 0x5001;
constexpr std::uint32_t MEMBER_INITIAL = 7;
constexpr unsigned int BAD_ARG = 0xC1030008u;

std::vector<unsigned int> record_ids() {
    std::vector<unsigned int> ids;
    for (const auto& r : tevhost::store_records()) ids.push_back(r.handler_id);
    return ids;
}

unsigned int category_of(unsigned int id) {
    unsigned int category = 0;
    return store::wud_wud_service_info_get_job_category_by_id(CMP, id, &category) == 0 ? category
                                                                                       : 0;
}

std::uint32_t member_of(unsigned int id) {
    std::uint32_t value = 0xFFFFFFFF;
    EXPECT_EQ(0u, store::wud_wud_service_info_get_current(CMP, id, MEMBER, &value));
    return value;
}

std::uint32_t le32_at(const bytes& b, std::size_t offset) {
    return tev_ash_wire::get_u32(b.data() + offset);
}

tev_ash_handler_facade* handler() {
    return tev_ash_handler_facade::tev_ash_handler_get_instance();
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

    // Sends `request` to the service (or the given object) and returns the client's result; the
    // reply (zero-filled first) goes to `reply`, sized by the caller.
    int send(long func_id, bytes request, bytes& reply, long obj_id = TEV_ASH_SRV_OBJ_ID,
             const char* name = TEV_ASH_SRV_NAME) {
        std::fill(reply.begin(), reply.end(), '\0');
        unsigned int len = static_cast<unsigned int>(reply.size());
        return client_.vlq_mc_send_sync_message(
            obj_id, func_id, request.empty() ? nullptr : request.data(),
            static_cast<unsigned int>(request.size()), reply.data(), &len, name);
    }

    tevtest::fresh_store store_;
    tevhost::trace_capture trace_;
    tevash_tools::host_system system_{APP};
    vlq_mc_client client_;
};

// ---- Handler requests

TEST_F(HandlerService, CreateResetRemoveThroughBothFacadesReachTheStore) {
    const unsigned int src = make_record(TEV_ASH_CAT_AUTH);
    ASSERT_EQ(0u, store::wud_wud_service_info_set_current(CMP, src, MEMBER, 99UL));
    unsigned int copy = 0;
    ASSERT_EQ(0u, handler()->tev_ash_handler_create(TEV_ASH_CAT_APLJOB, APP, NONE, &copy, src));
    EXPECT_NE(src, copy);
    EXPECT_EQ(TEV_ASH_CAT_APLJOB, category_of(copy));
    EXPECT_EQ(99u, member_of(copy));
    EXPECT_EQ(1u, system_.director().notifications());

    tev_ash_facade* facade = tev_ash_facade::tev_ash_get_instance();
    unsigned int root = 0;
    ASSERT_EQ(0u, facade->tev_ash_create(TEV_ASH_CAT_AUTH, APP, NONE, &root, 0));
    ASSERT_EQ(TEV_ASH_CAT_AUTH, category_of(root));
    ASSERT_EQ(0u, store::wud_wud_service_info_set_current(CMP, root, MEMBER, 5UL));
    EXPECT_EQ(0u, facade->tev_ash_reset(APP, NONE, root));
    EXPECT_EQ(MEMBER_INITIAL, member_of(root));
    EXPECT_EQ(0u, facade->tev_ash_remove(APP, root));
    EXPECT_EQ(0u, category_of(root));
    EXPECT_EQ(tevhost::STORE_NO_RECORD, facade->tev_ash_remove(APP, root));
}

TEST_F(HandlerService, DirectorAndManagerFailureCodesArriveUnchanged) {
    EXPECT_EQ(tevhost::STORE_NO_RECORD, handler()->tev_ash_handler_remove(APP, 4242));
    EXPECT_EQ(tevhost::STORE_NO_RECORD, handler()->tev_ash_handler_reset(APP, NONE, 4242));
    tevhost::store_fail_op(tevhost::store_op::make_current, 1, 0x12345678);
    unsigned int id = 55;
    EXPECT_EQ(0x12345678u, handler()->tev_ash_handler_create(TEV_ASH_CAT_AUTH, APP, NONE, &id, 0));
    EXPECT_EQ(0u, id);
    const unsigned int notified = system_.director().notifications();

    // A type without a director is answered by the manager alone.
    EXPECT_EQ(0xC1030006u,
              handler()->tev_ash_handler_create(TEV_ASH_CAT_AUTH, OTHER_APP, NONE, &id, 0));
    EXPECT_EQ(0xC1030006u, handler()->tev_ash_handler_remove(OTHER_APP, 1));
    EXPECT_EQ(notified, system_.director().notifications());
    EXPECT_TRUE(record_ids().empty());
}

// ---- Directors that are gone

// A director whose object is gone, as when its process died: the request that
// finds it is answered with HOST_DIRECTOR_UNREACHABLE and its registration is
// withdrawn; a director that died idle gives way to a new registration.
TEST_F(HandlerService, GoneDirectorsAreWithdrawnAndDirectorsRegisterAgain) {
    const auto& dead = system_.director();
    char name[TEV_ASH_CONNECTION_NAME_LEN + 1] = {};
    tev_ash_wire::put_name(name, dead.get_connection_name());
    ASSERT_TRUE(tevhost::unregister_object(name, dead.get_obj_id()));
    unsigned int id = 5;
    EXPECT_EQ(tevhost::HOST_DIRECTOR_UNREACHABLE,
              handler()->tev_ash_handler_create(TEV_ASH_CAT_AUTH, APP, NONE, &id, 0));
    EXPECT_EQ(0u, id);
    EXPECT_EQ(0xC1030006u, handler()->tev_ash_handler_reset(APP, NONE, 1));

    tevash_tools::sample_director idle("TEV_ASH_DIR2"), again("TEV_ASH_DIR3"), back("TEV_ASH_DIR4"),
        second("TEV_ASH_DIR5");
    ASSERT_EQ(0u, idle.start(OTHER_APP));
    ASSERT_TRUE(tevhost::unregister_object("TEV_ASH_DIR2", idle.get_obj_id()));
    EXPECT_EQ(0u, again.start(OTHER_APP));
    ASSERT_EQ(0u, back.start(APP));
    EXPECT_EQ(0u, handler()->tev_ash_handler_create(TEV_ASH_CAT_AUTH, APP, NONE, &id, 0));
    EXPECT_EQ(1u, back.notifications());
    // A live director keeps its type; a second service in the process is refused
    // with the host's own code.
    EXPECT_EQ(0xC1030005u, second.start(APP));
    EXPECT_EQ(tevhost::HOST_ALREADY_REGISTERED, tevash_tools::host_system(APP).status());
}

// ---- Connecters

// A connecter announces itself, asks for the director of a type, reports its
// start-up done and stops. Unknown connecters and types without a director are
// refused.
TEST_F(HandlerService, ConnectersStartFindTheDirectorAndStop) {
    unsigned char conn_id = 0;
    ASSERT_EQ(0u, handler()->tev_ash_handler_ctrl_notify_start(conn_id, "APP_CON"));
    EXPECT_NE(0, conn_id);
    EXPECT_EQ(conn_id, handler()->tev_ash_handler_ctrl_get_connecter_id());
    EXPECT_STREQ("APP_CON", handler()->tev_ash_handler_ctrl_get_connection_name());

    long obj_id = 0;
    char name[TEV_ASH_CONNECTION_NAME_LEN + 1] = {};
    ASSERT_EQ(0u,
              handler()->tev_ash_handler_ctrl_get_director_observer(conn_id, APP, obj_id, name));
    EXPECT_STREQ(system_.director().get_connection_name(), name);
    // The connecter answers with the proxy it keeps for the type: the same one
    // every time.
    EXPECT_NE(0, obj_id);
    long again = 0;
    ASSERT_EQ(0u, handler()->tev_ash_handler_ctrl_get_director_observer(conn_id, APP, again, name));
    EXPECT_EQ(obj_id, again);
    EXPECT_EQ(0xC1030006u, handler()->tev_ash_handler_ctrl_get_director_observer(conn_id, OTHER_APP,
                                                                                 obj_id, name));
    const auto unknown = static_cast<unsigned char>(conn_id + 1);
    EXPECT_EQ(BAD_ARG,
              handler()->tev_ash_handler_ctrl_get_director_observer(unknown, APP, obj_id, name));

    EXPECT_EQ(0u, handler()->tev_ash_handler_ctrl_notify_init_end(conn_id));
    EXPECT_EQ(0u, handler()->tev_ash_handler_ctrl_notify_stop(conn_id));
    EXPECT_EQ(BAD_ARG, handler()->tev_ash_handler_ctrl_notify_init_end(unknown));
    EXPECT_EQ(BAD_ARG, handler()->tev_ash_handler_ctrl_notify_stop(unknown));

    // Ids of stopped connecters are given out again, the next one first.
    unsigned char second = 0;
    ASSERT_EQ(0u, handler()->tev_ash_handler_ctrl_notify_start(second, "APP_CON2"));
    EXPECT_EQ(unknown, second);
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(0u, handler()->tev_ash_handler_ctrl_notify_start(second, "APP_CON2")) << i;
        ASSERT_EQ(0u, handler()->tev_ash_handler_ctrl_notify_stop(second));
    }
}

// A remove takes the record and the whole tree below it, however deep, in one
// store transaction: a failure half-way keeps every record.
TEST_F(HandlerService, RemoveTakesTheWholeTreeOrNothing) {
    const unsigned int other = make_record(TEV_ASH_CAT_AUTH);
    unsigned int top = make_record(TEV_ASH_CAT_AUTH);
    for (int depth = 0; depth < 100000; ++depth) {  // built upwards: each link is cheap
        const unsigned int parent = make_record(TEV_ASH_CAT_AUTH);
        ASSERT_EQ(0u, store::wud_wud_service_info_set_link(CMP, TEV_ASH_CAT_AUTH, parent,
                                                           TEV_ASH_CAT_AUTH, top));
        top = parent;
    }
    ASSERT_EQ(0u, store::wud_wud_service_info_set_link(CMP, TEV_ASH_CAT_AUTH, top, TEV_ASH_CAT_AUTH,
                                                       make_record(TEV_ASH_CAT_AUTH)));
    tevhost::store_fail_op(tevhost::store_op::delete_current, 50000);
    EXPECT_EQ(tevhost::STORE_INJECTED, handler()->tev_ash_handler_remove(APP, top));
    EXPECT_EQ(100003u, record_ids().size());
    EXPECT_EQ(0u, handler()->tev_ash_handler_remove(APP, top));
    EXPECT_EQ(std::vector<unsigned int>{other}, record_ids());
}

// ---- Malformed requests

TEST_F(HandlerService, ShortRequestsAreAnsweredWithBadArgumentUnknownOnesNotAtAll) {
    const auto& director = system_.director();
    char director_name[17] = {};
    tev_ash_wire::put_name(director_name, director.get_connection_name());
    const struct {
        bool to_director;
        long func;
        std::size_t request_size, reply_size, result_offset;
    } cases[] = {
        {false, TEV_ASH_FUNC_ADD_OBSERVER, 23, tev_ash_ctrl_rpl::SIZE, 12},
        {false, TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER, 76, tev_ash_ctrl_rpl::SIZE, 12},
        {false, TEV_ASH_FUNC_CREATE, 15, tev_ash_create_rpl::SIZE, 4},
        {false, TEV_ASH_FUNC_RESET, 0, tev_ash_result_rpl::SIZE, 0},
        {true, TEV_ASH_FUNC_CREATE, 2, tev_ash_create_rpl::SIZE, 4},
        {true, TEV_ASH_FUNC_REMOVE, 2, tev_ash_result_rpl::SIZE, 0},
    };
    for (const auto& k : cases) {
        bytes reply(k.reply_size);
        EXPECT_EQ(0, k.to_director ? send(k.func, bytes(k.request_size), reply,
                                          director.get_obj_id(), director_name)
                                   : send(k.func, bytes(k.request_size), reply))
            << k.func;
        EXPECT_EQ(BAD_ARG, le32_at(reply, k.result_offset)) << k.func;
        if (k.func == TEV_ASH_FUNC_CREATE) {
            EXPECT_EQ(0u, le32_at(reply, 0));
        }
    }
    bytes reply(36);
    EXPECT_EQ(tevhost::MSG_NO_REPLY, send(9, bytes(80), reply));
    EXPECT_EQ(tevhost::MSG_NO_REPLY, send(-1, bytes(), reply));
    EXPECT_EQ(tevhost::MSG_NO_REPLY, send(0, bytes(), reply, director.get_obj_id(), director_name));
    EXPECT_EQ(0u, director.notifications());
    EXPECT_TRUE(record_ids().empty());
}

}  // namespace
