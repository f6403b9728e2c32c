// Directors on the serving side: the observer base, the observer proxy on the
// wire, the connecter's proxy cache and the director manager's routing, with
// their trace lines and notifications.
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tev_ash_connecter.h"
#include "tev_ash_director_manager.h"
#include "tev_ash_observer_impl.h"
#include "tev_test_support.h"

namespace {

using namespace velmora;
using namespace tevtest;

std::string field(const char* name16) {
    return std::string(name16, 16);
}
std::string padded(const std::string& s) {
    return s + std::string(16 - s.size(), '\0');
}
TEV_ASH_APP_TYPE type(int t) {
    return static_cast<TEV_ASH_APP_TYPE>(t);
}

class Traced : public ::testing::Test {
protected:
    tevhost::trace_capture capture_;
};

using Observer = Traced;

// An observer, or a proxy, is the one its object id names and no other; a null
// name is reported and left empty.
TEST_F(Observer, EqualToItsOwnObjectIdOnlyANullNameReportedAndLeftEmpty) {
    test_observer unnamed(42, nullptr), own;  // own: its address as object id
    tev_ash_observer_impl proxy(0x1234, "DIR");
    const long self = reinterpret_cast<long>(&own);
    const struct {
        tev_ash_observer* observer;
        long id;
        bool same;
    } cases[] = {{&unnamed, 42, true}, {&unnamed, 43, false}, {&unnamed, 0, false},
                 {&own, self, true},   {&own, 42, false},     {&proxy, 0x1234, true},
                 {&proxy, self, false}};
    for (const auto& c : cases) EXPECT_EQ(c.same, c.observer->equal(c.id)) << c.id;
    EXPECT_EQ(42, unnamed.get_obj_id());
    EXPECT_EQ(padded(""), field(unnamed.get_connection_name()));
    EXPECT_EQ(lines{"tev_ash_observer::tev_ash_observer,[Error:connection_name is NULL]"},
              trace_calls());
    EXPECT_EQ(lines{"0xe924 tev_ash_observer::tev_ash_observer 0,0"}, notifications());
}

// ---- Observer proxy on the wire

class ObserverProxy : public Traced {
protected:
    // Answers every send with `reply_` and keeps what was sent.
    tevhost::message_spy spy_{[this](const tevhost::sent_message&, bytes& out) {
        out = reply_;
        return true;
    }};
    bytes reply_;
};

TEST_F(ObserverProxy, EachNotificationSendsItsRequestAndTakesTheReply) {
    // A full sixteen-byte name goes out without running past it.
    tev_ash_observer_impl proxy(0x1234, "0123456789ABCDEFXYZ");
    unsigned int handler_id = 0xDEADBEEF;  // never sent
    long result = -1;
    reply_ = join({le32(517), le32(0xE100000F)});
    proxy.notify_create(TEV_ASH_CAT_APLJOB, TEV_ASH_SERVICE_TYPE(-2), handler_id, 9, result);
    EXPECT_EQ(517u, handler_id);  // a director failure keeps both its code and handler id
    EXPECT_EQ(0xE100000FL, result);
    reply_ = le32(0xC1030001);
    proxy.notify_reset(TEV_ASH_SERVICE_TYPE(3), 513, result);
    EXPECT_EQ(0xC1030001L, result);
    reply_ = le32(0);
    proxy.notify_remove(0xA1B2C3D4, result);
    EXPECT_EQ(0, result);
    const struct {
        long func_id;
        bytes request;
        unsigned int reply_capacity;
    } expected[] = {{2, join({le32(4), le32(0), le32(0xFFFFFFFE), le32(9)}), 8},
                    {4, join({le32(0), le32(3), le32(513)}), 4},
                    {3, join({le32(0), le32(0xA1B2C3D4)}), 4}};
    const auto sent = spy_.messages();
    ASSERT_EQ(std::size(expected), sent.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(0x1234, sent[i].object_id) << i;
        EXPECT_EQ("0123456789ABCDEF", sent[i].connection) << i;
        EXPECT_EQ(expected[i].func_id, sent[i].func_id) << i;
        EXPECT_EQ(expected[i].request, sent[i].request) << i;
        EXPECT_EQ(expected[i].reply_capacity, sent[i].reply_capacity) << i;
    }
    EXPECT_TRUE(trace_calls().empty());

    tevhost::message_spy_end();  // nothing answers: nothing is registered under "NOBODY"
    tev_ash_observer_impl unanswered(77, "NOBODY");
    unanswered.notify_create(TEV_ASH_CAT_AUTH, TEV_ASH_SERVICE_TYPE_NONE, handler_id, 0, result);
    EXPECT_EQ(0u, handler_id);  // an unanswered send reads as zero
    EXPECT_EQ(0, result);
}

// Each pointer of a send is checked on its own, and a proxy without a client
// refuses every notification with 0xC1030008: each refusal leaves its line and
// notification and sends nothing. (With empty buffers the host client would take
// the send, so "nothing sent" shows the proxy's own check.)
TEST_F(ObserverProxy, RefusedSendsAndNotificationsAreReportedAndSendNothing) {
    tev_ash_observer_impl proxy(1, "D"), unbound;
    EXPECT_EQ(reinterpret_cast<long>(&unbound), unbound.get_obj_id());
    char q[4] = {}, r[4] = {};
    unsigned int empty = 0, handler_id = 33;
    long result = 0;
    auto send = [&](tev_ash_observer_impl& p, char* req, char* rpl, unsigned int* len) {
        return [&p, req, rpl, len] { p.send_sync_message(2, req, 0, rpl, len); };
    };
    const std::string s = "send_sync_message,[Error] ", no_client = ",[Error] client_";
    const struct {
        std::function<void()> call;
        lines fails;  // trace lines after the file name, without " is NULL"
    } cases[] = {
        {send(proxy, nullptr, r, &empty), {s + "req_buf"}},
        {send(proxy, q, nullptr, &empty), {s + "rpl_buf"}},
        {send(proxy, q, r, nullptr), {s + "rpl_buf_len"}},
        {send(proxy, nullptr, nullptr, nullptr), {s + "req_buf", s + "rpl_buf", s + "rpl_buf_len"}},
        {send(unbound, q, r, &empty), {"send_sync_message" + no_client}},
        {[&] {
             unbound.notify_create(TEV_ASH_CAT_AUTH, TEV_ASH_SERVICE_TYPE_NONE, handler_id, 0,
                                   result);
         },
         {"notify_create" + no_client}},
        {[&] { unbound.notify_remove(1, result); }, {"notify_remove" + no_client}},
        {[&] { unbound.notify_reset(TEV_ASH_SERVICE_TYPE_NONE, 1, result); },
         {"notify_reset" + no_client}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fails.back());
        capture_.clear();
        result = 0;
        c.call();
        lines want, notes;
        for (const std::string& f : c.fails) {
            want.push_back("tev_ash_observer_impl::" + f + " is NULL");
            notes.push_back("0xe924 tev_ash_observer_impl::" + f.substr(0, f.find(',')) + " 0,0");
        }
        EXPECT_EQ(want, trace_calls());
        EXPECT_EQ(notes, notifications());
        EXPECT_EQ(c.fails[0].find("notify") == 0 ? 0xC1030008L : 0L, result);
        EXPECT_TRUE(spy_.messages().empty());
    }
    EXPECT_EQ(33u, handler_id);
    proxy.send_sync_message(2, q, 0, r, &empty);  // all given: it goes out
    EXPECT_EQ(1u, spy_.messages().size());
}

// ---- Connecter

TEST(Connecter, OneProxyPerTypeMadeFromTheFirstRequestItsNameReturnedToFifteenBytes) {
    tev_ash_connecter c(1, "ABCDEFGHIJKLMNOPQRST");
    EXPECT_EQ("ABCDEFGHIJKLMNOP", field(c.get_connection_name()));
    const struct {
        int type;
        long id;
        const char* name;
        std::string returned;  // the last byte is left as it was
    } cases[] = {{4, 1001, "DIR_ONE", "DIR_ONE" + std::string(8, '\0') + "#"},
                 {-4, 3003, "0123456789ABCDEF", "0123456789ABCDE#"}};
    for (const auto& k : cases) {
        long id = k.id, again = 2002;
        char name[17] = {}, out[16];
        std::memcpy(name, k.name, std::strlen(k.name));
        std::memset(out, '#', sizeof out);
        EXPECT_EQ(0u, c.get_director_observer(type(k.type), id, name));
        EXPECT_EQ(0u, c.get_director_observer(type(k.type), again, out));
        auto* proxy = reinterpret_cast<tev_ash_observer_impl*>(id);
        EXPECT_EQ(k.id, proxy->get_obj_id());
        EXPECT_EQ(padded(k.name), field(proxy->get_connection_name()));
        EXPECT_EQ(id, again);
        EXPECT_EQ(k.returned, field(out));
    }
    long id = 11;
    EXPECT_EQ(0xC1030008u, c.get_director_observer(type(1), id, nullptr));
    EXPECT_EQ(11, id);
}

// ---- Director manager

class DirectorManager : public Traced {
protected:
    tev_ash_director_manager* manager_ = tev_ash_director_manager::get_instance();
    std::atomic<int> live_{0};
};

TEST_F(DirectorManager, RefusalsCarryTheirCodesAndTraceLines) {
    EXPECT_EQ(0xC1030008u, manager_->add_observer(type(100), nullptr));
    auto* a = new test_observer(&live_);
    auto b = std::make_unique<test_observer>(&live_);
    const long obj = a->get_obj_id();
    ASSERT_EQ(0u, manager_->add_observer(type(104), a));
    EXPECT_EQ(0xC1030005u, manager_->add_observer(type(104), b.get()));
    EXPECT_EQ(0xC1030008u,
              manager_->create(TEV_ASH_CAT_AUTH, type(104), TEV_ASH_SERVICE_TYPE_NONE, nullptr, 0));
    EXPECT_EQ(0u, manager_->remove(type(104), 5));
    EXPECT_EQ(lines{"remove 5"}, a->calls());
    EXPECT_TRUE(b->calls().empty());
    EXPECT_EQ(0u, manager_->remove_observer(obj));
    EXPECT_EQ(1, live_.load());  // the refused one stays the caller's

    unsigned int id = 1234;
    EXPECT_EQ(0xC1030006u,
              manager_->create(TEV_ASH_CAT_AUTH, type(104), TEV_ASH_SERVICE_TYPE_NONE, &id, 0));
    EXPECT_EQ(1234u, id);
    EXPECT_EQ(0xC1030006u, manager_->remove(type(104), 1));
    EXPECT_EQ(0xC1030006u, manager_->reset(type(104), TEV_ASH_SERVICE_TYPE_NONE, 1));
    EXPECT_EQ(0xC1030006u, manager_->remove_observer(obj));
    const std::string m = "tev_ash_director_manager::";
    EXPECT_EQ(
        (lines{m + "add_observer,Error:observer in NULL]", m + "add_observer,[Error]rc=0xc1030005",
               m + "create,[Error]handler_id is NULL", m + "create,[Error]rc:0xc1030006",
               m + "remove,[Error]rc:0xc1030006", m + "reset,[Error]rc:0xc1030006",
               m + "remove_observer,[Error]rc=0xc1030006"}),
        trace_calls());
    EXPECT_EQ((lines{"0xe924 " + m + "add_observer 0,0", "0xe924 " + m + "create 0,0"}),
              notifications());
}

TEST_F(DirectorManager, RoutesWithTheArgumentsAndReturnsTheDirectorsResultUnchanged) {
    for (const long reply : {0L, 0xC1030001L}) {
        SCOPED_TRACE(reply);
        capture_.clear();
        auto* o = new test_observer(&live_);
        o->reply_handler_id = 517;
        o->reply_result = reply;
        ASSERT_EQ(0u, manager_->add_observer(type(101), o));
        unsigned int id = 9;
        EXPECT_EQ(reply, manager_->create(TEV_ASH_CAT_APLJOB, type(101), TEV_ASH_SERVICE_TYPE(7),
                                          &id, 21));
        EXPECT_EQ(517u, id);
        EXPECT_EQ(reply, manager_->remove(type(101), 33));
        EXPECT_EQ(reply, manager_->reset(type(101), TEV_ASH_SERVICE_TYPE(-1), 44));
        EXPECT_EQ((lines{"create 4 7 9 21", "remove 33", "reset -1 44"}), o->calls());
        lines want;
        for (const char* f : {"create", "remove", "reset"}) {
            if (reply != 0)
                want.push_back(std::string("tev_ash_director_manager::") + f +
                               ",[Error]result:0xc1030001");
        }
        EXPECT_EQ(want, trace_calls());
        EXPECT_EQ(0u, manager_->remove_observer(o->get_obj_id()));
        EXPECT_EQ(0, live_.load());
    }
}

// A director that withdraws itself from inside its own notification.
TEST_F(DirectorManager, RemovalFromInsideAnOwnNotificationDestroysItAfterward) {
    auto* o = new test_observer(&live_);
    o->on_remove = [o](long& result) {
        result = static_cast<long>(
            tev_ash_director_manager::get_instance()->remove_observer(o->get_obj_id()));
    };
    ASSERT_EQ(0u, manager_->add_observer(type(130), o));
    EXPECT_EQ(0u, manager_->remove(type(130), 1));
    EXPECT_EQ(0, live_.load());
    EXPECT_TRUE(test_observer::finished_at_destruction.load());
    EXPECT_EQ(0xC1030006u, manager_->remove(type(130), 1));
}

}  // namespace
