// The handler facade on the wire: the bytes and lengths of every request, the
// reply fields it reads (whatever the result), its argument checks, and the
// start-up wait for the handler service (in child processes, so that each
// start-up is a process's first).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tev_ash_handler_facade.h"
#include "tev_test_support.h"

namespace {

using namespace velmora;
using namespace tevtest;

bytes zeros(std::size_t n) {
    return bytes(n, 0);
}
bytes name16(const char* s) {
    bytes out(16, 0);
    for (std::size_t i = 0; i < 16 && s[i] != '\0'; ++i) out[i] = static_cast<unsigned char>(s[i]);
    return out;
}

// ---------------------------------------------------------------------------
// Start-up. Each scenario runs in a child process whose first call creates the
// singleton; the child writes its failed expectations to standard error, which
// the test shows, and exits 1.

void startup_child(int answer_at_check) {
    const ::testing::TestResult& result =
        *::testing::UnitTest::GetInstance()->current_test_info()->result();
    const int earlier = result.total_part_count();
    tevhost::counted_sleep sleeps;
    tevhost::trace_capture trace;
    int checks = 0;
    tevhost::set_check_script([&](const std::string& connection, long object_id) {
        ++checks;
        return connection == "TEV_ASH_SRV" && object_id == 1 && checks == answer_at_check ? 1 : 0;
    });
    tev_ash_handler_facade* a = tev_ash_handler_facade::tev_ash_handler_get_instance();
    const bool answered = answer_at_check >= 1 && answer_at_check <= 200;
    EXPECT_NE(nullptr, a);
    EXPECT_EQ(a, tev_ash_handler_facade::tev_ash_handler_get_instance());
    EXPECT_EQ(answered ? answer_at_check : 200, checks);
    EXPECT_EQ(std::vector<int>(answered ? answer_at_check - 1 : 200, 300), sleeps.sleeps());
    EXPECT_EQ(answered ? lines{}
                       : lines{"tev_ash_handler_facade::initialize_facade,[Error]rc=0xc1030007"},
              trace_calls());
    EXPECT_EQ(answered ? lines{} : lines{"0xe926 tev_ash_handler_facade::initialize_facade 0,0"},
              notifications());
    tevhost::message_spy spy;  // a later request still goes through the client that was made
    a->tev_ash_handler_remove(TEV_ASH_APP_TYPE(1), 2);
    EXPECT_EQ(1u, spy.messages().size());
    for (int i = earlier; i < result.total_part_count(); ++i)
        std::fprintf(stderr, "%s\n", result.GetTestPartResult(i).message());
    std::exit(result.total_part_count() == earlier ? 0 : 1);
}

// The service answering at once costs no sleep, at the last check 199; a
// silent one is reported and the singleton still published.
TEST(HandlerFacadeStartup, WaitsUpTo200ChecksForTheService) {
    for (const int answer_at_check : {1, 200, 0}) {
        EXPECT_EXIT(startup_child(answer_at_check), ::testing::ExitedWithCode(0), "")
            << "service answering at check " << answer_at_check;
    }
}

// ---------------------------------------------------------------------------
// Requests, in this process (the service check answers at once).

class HandlerFacadeWire : public ::testing::Test {
protected:
    HandlerFacadeWire()
        : facade(
              (answer_service_checks(), tev_ash_handler_facade::tev_ash_handler_get_instance())) {}
    // Sends through `call` with the service answering `reply`; checks that one
    // message went to object 1 of "TEV_ASH_SRV" and returns it.
    tevhost::sent_message send(const std::function<void()>& call, const bytes& reply) {
        tevhost::message_spy spy([&](const tevhost::sent_message&, bytes& out) {
            out = reply;
            return true;
        });
        call();
        const auto sent = spy.messages();
        EXPECT_EQ(1u, sent.size());
        if (sent.empty()) return {};
        EXPECT_EQ(1, sent[0].object_id);
        EXPECT_EQ("TEV_ASH_SRV", sent[0].connection);
        return sent[0];
    }
    tev_ash_handler_facade* facade;
    tevhost::trace_capture trace;
};

// Every request: function id, request bytes, reply length offered, and the
// result taken from the reply whatever it says.
TEST_F(HandlerFacadeWire, EveryRequestCarriesItsFieldsLittleEndian) {
    test_observer observer(777, "DIRECTOR_PROCESS_NAME");
    const auto address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&observer));
    unsigned int handler_id = 0, rc = 0;
    long obj_id = 0;
    char name[17];
    std::memset(name, '#', sizeof name);
    const bytes ctrl = zeros(12);
    const struct {
        std::function<unsigned int()> call;
        bytes reply;
        long func_id;
        unsigned int capacity;
        bytes request;
    } requests[] = {
        {[&] {
             return facade->tev_ash_handler_create(TEV_ASH_CAT_APLJOB, TEV_ASH_APP_TYPE(-1),
                                                   TEV_ASH_SERVICE_TYPE(9), &handler_id,
                                                   0x01020304);
         },
         join({le32(0x1234), le32(0xC1035555)}), 2, 8,
         join({le32(4), le32(0xFFFFFFFF), le32(9), le32(0x01020304)})},
        {[&] { return facade->tev_ash_handler_remove(TEV_ASH_APP_TYPE(3), 0xBEEF); },
         le32(0xC1030077), 3, 4, join({le32(3), le32(0xBEEF)})},
        {[&] {
             return facade->tev_ash_handler_reset(TEV_ASH_APP_TYPE(5), TEV_ASH_SERVICE_TYPE(-3),
                                                  0xCAFE);
         },
         le32(0), 4, 4, join({le32(5), le32(0xFFFFFFFD), le32(0xCAFE)})},
        {[&] { return facade->tev_ash_handler_add_observer(TEV_ASH_APP_TYPE(6), &observer); },
         join({ctrl, le32(0xC1030005)}), 0, 16,
         join({le32(6), le32(address), name16("DIRECTOR_PROCESS_NAME")})},
        {[&] { return facade->tev_ash_handler_remove_observer(&observer); }, join({ctrl, le32(0)}),
         1, 16, le32(address)},
        // No check on removal: a null observer is sent as object id 0.
        {[&] { return facade->tev_ash_handler_remove_observer(nullptr); },
         join({ctrl, le32(0xC1030006)}), 1, 16, zeros(4)},
        {[&] { return facade->tev_ash_handler_ctrl_notify_init_end(0xAB); },
         join({ctrl, le32(0xC1030042)}), 6, 16, join({zeros(72), {0xAB, 0, 0, 0}})},
        {[&] { return facade->tev_ash_handler_ctrl_notify_stop(0xAB); },
         join({ctrl, le32(0xC1030043)}), 7, 16, join({zeros(72), {0xAB, 0, 0, 0}})},
        {[&] {
             return facade->tev_ash_handler_ctrl_get_director_observer(3, TEV_ASH_APP_TYPE(-2),
                                                                       obj_id, name);
         },
         join({ctrl, le32(0xC1030006), le32(0xFFFFFFFB), name16("DIRECTOR_CONN_XYZ")}), 8, 36,
         join({zeros(72), {3, 0, 0, 0}, le32(0xFFFFFFFE)})},
    };
    for (const auto& r : requests) {
        SCOPED_TRACE(r.func_id);
        const tevhost::sent_message m = send([&] { rc = r.call(); }, r.reply);
        EXPECT_EQ(r.func_id, m.func_id);
        EXPECT_EQ(r.capacity, m.reply_capacity);
        EXPECT_EQ(r.request, m.request);
        const std::size_t at = r.reply.size() > 8 ? 12 : r.reply.size() - 4;  // the result field
        EXPECT_EQ(bytes(r.reply.begin() + at, r.reply.begin() + at + 4), le32(rc));
    }
    EXPECT_EQ(0x1234u, handler_id);  // read although the result is a failure
    EXPECT_EQ(-5, obj_id);
    EXPECT_EQ(0, std::memcmp(name, "DIRECTOR_CONN_XY", 16));
    EXPECT_EQ('#', name[16]);  // never written past 16 bytes
    EXPECT_TRUE(trace_calls().empty());
}

TEST_F(HandlerFacadeWire, NotifyStartKeepsTheConnectionOnlyWhenAccepted) {
    EXPECT_EQ(0, facade->tev_ash_handler_ctrl_get_connecter_id());  // nothing kept before
    EXPECT_EQ(zeros(16), name16(facade->tev_ash_handler_ctrl_get_connection_name()));
    unsigned char conn_id = 0;
    unsigned int rc = 0;
    for (const unsigned int result : {0xC1039999u, 0u}) {
        const unsigned char given = result == 0 ? 42 : 7;
        const auto m = send(
            [&] { rc = facade->tev_ash_handler_ctrl_notify_start(conn_id, "CONNECTER_NAME_0123"); },
            join({zeros(12), le32(result), {given}, zeros(19)}));
        EXPECT_EQ(5, m.func_id);
        EXPECT_EQ(36u, m.reply_capacity);
        EXPECT_EQ(zeros(72), m.request);
        EXPECT_EQ(result, rc);
        EXPECT_EQ(given, conn_id);  // from the reply either way
        EXPECT_EQ(result == 0 ? 42 : 0, facade->tev_ash_handler_ctrl_get_connecter_id());
        EXPECT_EQ(result == 0 ? name16("CONNECTER_NAME_0") : zeros(16),
                  name16(facade->tev_ash_handler_ctrl_get_connection_name()));
    }
    send([&] { facade->tev_ash_handler_ctrl_notify_stop(42); }, zeros(16));
    EXPECT_EQ(42, facade->tev_ash_handler_ctrl_get_connecter_id());  // stopping keeps it
}

TEST_F(HandlerFacadeWire, NullArgumentsAreRefusedWithoutSending) {
    tevhost::message_spy spy;
    EXPECT_EQ(0xC1030008u, facade->tev_ash_handler_create(TEV_ASH_CAT_APLJOB, TEV_ASH_APP_TYPE(1),
                                                          TEV_ASH_SERVICE_TYPE(1), nullptr, 0));
    EXPECT_EQ(0xC1030008u, facade->tev_ash_handler_add_observer(TEV_ASH_APP_TYPE(1), nullptr));
    EXPECT_TRUE(spy.messages().empty());
    EXPECT_EQ(
        (lines{"tev_ash_handler_facade::tev_ash_handler_create,[Error]handler_id is NULL",
               "tev_ash_handler_facade::tev_ash_handler_add_observer,Error:observer in NULL]"}),
        trace_calls());
    EXPECT_EQ(lines{"0xe924 tev_ash_handler_facade::tev_ash_handler_add_observer 0,0"},
              notifications());
}

}  // namespace
