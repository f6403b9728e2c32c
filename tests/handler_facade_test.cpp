// The handler facade on the wire: the bytes and lengths of every request, the
// reply fields it reads (whatever the result), its argument checks, and the
// start-up wait for the handler service (in child processes, so that each
// start-up is a process's first).
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "tev_ash_handler_facade.h"
#include "tev_ash_observer.h"
#include "tev_lib_support.h"

namespace {

using tevtest::bytes;
using tevtest::le32;
using velmora::tev_ash_handler_facade;

bytes zeros(std::size_t n) {
    return bytes(n, 0);
}
bytes name16(const char* s) {
    bytes out(16, 0);
    for (std::size_t i = 0; i < 16 && s[i] != '\0'; ++i) out[i] = static_cast<unsigned char>(s[i]);
    return out;
}

// Answers every send with `reply` and keeps what was sent.
struct scripted_service {
    explicit scripted_service(bytes reply)
        : spy([reply](const tevhost::sent_message&, bytes& out) {
              out = reply;
              return true;
          }) {}
    tevhost::sent_message only() const {
        const auto sent = spy.messages();
        EXPECT_EQ(1u, sent.size());
        return sent.empty() ? tevhost::sent_message{} : sent.front();
    }
    tevhost::message_spy spy;
};

void expect_addressed_to_service(const tevhost::sent_message& m, long func_id,
                                 unsigned int capacity) {
    EXPECT_EQ(1, m.object_id);
    EXPECT_EQ("TEV_ASH_SRV", m.connection);
    EXPECT_EQ(func_id, m.func_id);
    EXPECT_EQ(capacity, m.reply_capacity);
}

class test_observer : public velmora::tev_ash_observer {
public:
    test_observer(long id, const char* name) : tev_ash_observer(id, name) {}
    void notify_create(velmora::TEV_ASH_CATEGORY, velmora::TEV_ASH_SERVICE_TYPE, unsigned int&,
                       unsigned int, long&) override {}
    void notify_remove(unsigned int, long&) override {}
    void notify_reset(velmora::TEV_ASH_SERVICE_TYPE, unsigned int, long&) override {}
};

// ---------------------------------------------------------------------------
// Start-up. Each scenario runs in a child process whose first call creates the
// singleton; the child exits 0 when every expectation held.

int startup_child(int answer_at_check) {
    tevhost::counted_sleep sleeps;
    tevhost::trace_capture trace;
    int checks = 0;
    tevhost::set_check_script([&](const std::string& connection, long object_id) {
        ++checks;
        if (connection != "TEV_ASH_SRV" || object_id != 1) return 0;
        return checks == answer_at_check ? 1 : 0;
    });
    tev_ash_handler_facade* a = tev_ash_handler_facade::tev_ash_handler_get_instance();
    tev_ash_handler_facade* b = tev_ash_handler_facade::tev_ash_handler_get_instance();
    const bool answered = answer_at_check >= 1 && answer_at_check <= 200;
    const std::vector<int> slept = sleeps.sleeps();
    const std::size_t want_sleeps = answered ? static_cast<std::size_t>(answer_at_check - 1) : 200;
    bool ok = a != nullptr && a == b && slept.size() == want_sleeps &&
              checks == (answered ? answer_at_check : 200);
    for (int s : slept) ok = ok && s == 300;
    const auto lines = tevtest::trace_calls();
    const auto notes = trace.notifications();
    if (answered) {
        ok = ok && lines.empty() && notes.empty();
    } else {
        ok = ok && lines.size() == 1 &&
             lines[0] == "tev_ash_handler_facade::initialize_facade,[Error]rc=0xc1030007" &&
             notes.size() == 1 && notes[0].code == 0xE926 && notes[0].detail1 == 0 &&
             notes[0].detail2 == 0 && notes[0].file == "tev_ash_handler_facade" &&
             notes[0].function == "initialize_facade";
        // A later request still goes through the client that was made.
        tevhost::message_spy spy;
        a->tev_ash_handler_remove(static_cast<velmora::TEV_ASH_APP_TYPE>(1), 2);
        ok = ok && spy.messages().size() == 1;
    }
    return ok ? 0 : 1;
}

TEST(HandlerFacadeStartup, ServiceAnsweringAtOnceCostsNoSleep) {
    EXPECT_EXIT(std::exit(startup_child(1)), ::testing::ExitedWithCode(0), "");
}

TEST(HandlerFacadeStartup, ServiceAnsweringAtTheLastCheckCosts199Sleeps) {
    EXPECT_EXIT(std::exit(startup_child(200)), ::testing::ExitedWithCode(0), "");
}

TEST(HandlerFacadeStartup, SilentServiceIsReportedAndTheSingletonStillPublished) {
    EXPECT_EXIT(std::exit(startup_child(0)), ::testing::ExitedWithCode(0), "");
}

// ---------------------------------------------------------------------------
// Requests, in this process (the service check answers at once).

class HandlerFacadeWire : public ::testing::Test {
protected:
    HandlerFacadeWire() : facade(get()) {}
    static tev_ash_handler_facade* get() {
        tevtest::answer_service_checks();
        return tev_ash_handler_facade::tev_ash_handler_get_instance();
    }
    tev_ash_handler_facade* facade;
    tevhost::trace_capture trace;
};

TEST_F(HandlerFacadeWire, ConnectionControlRequestsAndTheStateKeptByNotifyStart) {
    // Nothing kept before the first successful start.
    EXPECT_EQ(0, facade->tev_ash_handler_ctrl_get_connecter_id());
    EXPECT_EQ(zeros(16), name16(facade->tev_ash_handler_ctrl_get_connection_name()));

    unsigned char conn_id = 0;
    {  // A refused start: conn_id from the reply, nothing kept.
        scripted_service service(tevtest::join({zeros(12), le32(0xC1039999), {7}, zeros(19)}));
        EXPECT_EQ(0xC1039999u, facade->tev_ash_handler_ctrl_notify_start(conn_id, "refused"));
        const auto m = service.only();
        expect_addressed_to_service(m, 5, 36);
        EXPECT_EQ(zeros(72), m.request);
    }
    EXPECT_EQ(7, conn_id);
    EXPECT_EQ(0, facade->tev_ash_handler_ctrl_get_connecter_id());
    EXPECT_EQ(zeros(16), name16(facade->tev_ash_handler_ctrl_get_connection_name()));

    {  // An accepted start with a name of more than 16 characters.
        scripted_service service(tevtest::join({zeros(12), le32(0), {42}, zeros(19)}));
        EXPECT_EQ(0u, facade->tev_ash_handler_ctrl_notify_start(conn_id, "CONNECTER_NAME_0123"));
        EXPECT_EQ(zeros(72), service.only().request);
    }
    EXPECT_EQ(42, conn_id);
    EXPECT_EQ(42, facade->tev_ash_handler_ctrl_get_connecter_id());
    EXPECT_EQ(
        0, std::memcmp(facade->tev_ash_handler_ctrl_get_connection_name(), "CONNECTER_NAME_0", 16));

    for (long func : {6L, 7L}) {
        scripted_service service(tevtest::join({zeros(12), le32(0xC1030042)}));
        const unsigned int rc = func == 6 ? facade->tev_ash_handler_ctrl_notify_init_end(0xAB)
                                          : facade->tev_ash_handler_ctrl_notify_stop(0xAB);
        EXPECT_EQ(0xC1030042u, rc);
        const auto m = service.only();
        expect_addressed_to_service(m, func, 16);
        EXPECT_EQ(tevtest::join({zeros(72), {0xAB, 0, 0, 0}}), m.request);
    }
    // Stopping does not clear what the start kept.
    EXPECT_EQ(42, facade->tev_ash_handler_ctrl_get_connecter_id());
}

TEST_F(HandlerFacadeWire, DirectorObserverIsReadFromTheReplyWhateverItsResult) {
    scripted_service service(tevtest::join(
        {zeros(12), le32(0xC1030006), le32(0xFFFFFFFB), name16("DIRECTOR_CONN_XYZ")}));
    long obj_id = 0;
    char name[17];
    std::memset(name, '#', sizeof name);
    EXPECT_EQ(0xC1030006u, facade->tev_ash_handler_ctrl_get_director_observer(
                               3, static_cast<velmora::TEV_ASH_APP_TYPE>(-2), obj_id, name));
    const auto m = service.only();
    expect_addressed_to_service(m, 8, 36);
    EXPECT_EQ(tevtest::join({zeros(72), {3, 0, 0, 0}, le32(static_cast<std::uint32_t>(-2))}),
              m.request);
    EXPECT_EQ(-5, obj_id);
    EXPECT_EQ(0, std::memcmp(name, "DIRECTOR_CONN_XY", 16));
    EXPECT_EQ('#', name[16]);  // never written past 16 bytes
}

TEST_F(HandlerFacadeWire, HandlerRequestsCarryTheirFieldsLittleEndian) {
    {
        scripted_service service(tevtest::join({le32(0x1234), le32(0xC1035555)}));
        unsigned int handler_id = 0;
        EXPECT_EQ(0xC1035555u,
                  facade->tev_ash_handler_create(
                      velmora::TEV_ASH_CAT_APLJOB, static_cast<velmora::TEV_ASH_APP_TYPE>(-1),
                      static_cast<velmora::TEV_ASH_SERVICE_TYPE>(9), &handler_id, 0x01020304));
        EXPECT_EQ(0x1234u, handler_id);  // stored although the result is a failure
        const auto m = service.only();
        expect_addressed_to_service(m, 2, 8);
        EXPECT_EQ(tevtest::join({le32(4), le32(0xFFFFFFFF), le32(9), le32(0x01020304)}), m.request);
    }
    {
        scripted_service service(le32(0xC1030077));
        EXPECT_EQ(0xC1030077u,
                  facade->tev_ash_handler_remove(static_cast<velmora::TEV_ASH_APP_TYPE>(0), 0));
        const auto m = service.only();
        expect_addressed_to_service(m, 3, 4);
        EXPECT_EQ(zeros(8), m.request);
    }
    {
        scripted_service service(le32(0));
        EXPECT_EQ(0u, facade->tev_ash_handler_reset(static_cast<velmora::TEV_ASH_APP_TYPE>(5),
                                                    static_cast<velmora::TEV_ASH_SERVICE_TYPE>(-3),
                                                    0xCAFE));
        const auto m = service.only();
        expect_addressed_to_service(m, 4, 4);
        EXPECT_EQ(tevtest::join({le32(5), le32(static_cast<std::uint32_t>(-3)), le32(0xCAFE)}),
                  m.request);
    }
    EXPECT_TRUE(tevtest::trace_calls().empty());
}

TEST_F(HandlerFacadeWire, ObserversTravelAsTheirAddressAndConnectionName) {
    test_observer observer(777, "DIRECTOR_PROCESS_NAME");
    const auto address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&observer));
    {
        scripted_service service(tevtest::join({zeros(12), le32(0xC1030005)}));
        EXPECT_EQ(0xC1030005u, facade->tev_ash_handler_add_observer(
                                   static_cast<velmora::TEV_ASH_APP_TYPE>(6), &observer));
        const auto m = service.only();
        expect_addressed_to_service(m, 0, 16);
        EXPECT_EQ(tevtest::join({le32(6), le32(address), name16("DIRECTOR_PROCESS_NAME")}),
                  m.request);
    }
    {
        scripted_service service(tevtest::join({zeros(12), le32(0)}));
        EXPECT_EQ(0u, facade->tev_ash_handler_remove_observer(&observer));
        const auto m = service.only();
        expect_addressed_to_service(m, 1, 16);
        EXPECT_EQ(le32(address), m.request);
    }
    {  // No check on removal: a null observer is sent as object id 0.
        scripted_service service(tevtest::join({zeros(12), le32(0xC1030006)}));
        EXPECT_EQ(0xC1030006u, facade->tev_ash_handler_remove_observer(nullptr));
        EXPECT_EQ(zeros(4), service.only().request);
    }
}

TEST_F(HandlerFacadeWire, NullArgumentsAreRefusedWithoutSending) {
    tevhost::message_spy spy;
    EXPECT_EQ(0xC1030008u,
              facade->tev_ash_handler_create(
                  velmora::TEV_ASH_CAT_APLJOB, static_cast<velmora::TEV_ASH_APP_TYPE>(1),
                  static_cast<velmora::TEV_ASH_SERVICE_TYPE>(1), nullptr, 0));
    EXPECT_TRUE(trace.notifications().empty());
    EXPECT_EQ(0xC1030008u, facade->tev_ash_handler_add_observer(
                               static_cast<velmora::TEV_ASH_APP_TYPE>(1), nullptr));
    EXPECT_TRUE(spy.messages().empty());
    EXPECT_EQ((std::vector<std::string>{
                  "tev_ash_handler_facade::tev_ash_handler_create,[Error]handler_id is NULL",
                  "tev_ash_handler_facade::tev_ash_handler_add_observer,Error:observer in NULL]"}),
              tevtest::trace_calls());
    const auto notes = trace.notifications();
    ASSERT_EQ(1u, notes.size());
    EXPECT_EQ(0xE924u, notes[0].code);
    EXPECT_EQ("tev_ash_handler_add_observer", notes[0].function);
}

TEST_F(HandlerFacadeWire, UnansweredRequestsReadAsZeros) {
    // Nothing serves "TEV_ASH_SRV" here, so the reply buffer stays as zero-filled.
    tevhost::message_spy spy;
    unsigned int handler_id = 99;
    EXPECT_EQ(0u, facade->tev_ash_handler_create(
                      velmora::TEV_ASH_CAT_APLJOB, static_cast<velmora::TEV_ASH_APP_TYPE>(1),
                      static_cast<velmora::TEV_ASH_SERVICE_TYPE>(1), &handler_id, 0));
    EXPECT_EQ(0u, handler_id);
    long obj_id = 5;
    char name[16] = {'x'};
    EXPECT_EQ(0u, facade->tev_ash_handler_ctrl_get_director_observer(
                      1, static_cast<velmora::TEV_ASH_APP_TYPE>(1), obj_id, name));
    EXPECT_EQ(0, obj_id);
    EXPECT_EQ(zeros(16), name16(name));
    EXPECT_EQ(2u, spy.messages().size());
}

}  // namespace
