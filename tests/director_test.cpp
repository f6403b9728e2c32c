// Directors on the serving side: the observer base, the observer proxy on the
// wire, the connecter's proxy cache and the director manager's routing, with
// their trace lines and notifications.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "tev_ash_connecter.h"
#include "tev_ash_director_manager.h"
#include "tev_ash_observer.h"
#include "tev_ash_observer_impl.h"
#include "tev_lib_support.h"

namespace {

using namespace velmora;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using tevtest::bytes;
using tevtest::join;
using tevtest::le32;

std::vector<std::string> notifications() {
    std::vector<std::string> out;
    for (const auto& n : tevhost::captured_notifications()) {
        char code[16];
        std::snprintf(code, sizeof code, "%#x", n.code);
        out.push_back(std::string(code) + " " + n.file + "::" + n.function + " " +
                      std::to_string(n.detail1) + "," + std::to_string(n.detail2));
    }
    return out;
}

std::string field(const char* name16) {
    return std::string(name16, 16);
}
std::string padded(const std::string& s) {
    return s + std::string(16 - s.size(), '\0');
}

// An observer that answers every notification with a fixed result (and handler
// id for create), records its calls and reports its destruction.
class test_observer : public tev_ash_observer {
public:
    explicit test_observer(int* destroyed = nullptr) : destroyed_(destroyed) {}
    test_observer(long obj_id, const char* name, int* destroyed = nullptr)
        : tev_ash_observer(obj_id, name), destroyed_(destroyed) {}
    ~test_observer() override {
        if (destroyed_ != nullptr) ++*destroyed_;
    }
    void notify_create(TEV_ASH_CATEGORY category, TEV_ASH_SERVICE_TYPE service_type,
                       unsigned int& handler_id, unsigned int src_handler_id,
                       long& result) override {
        calls.push_back("create " + std::to_string(category) + " " + std::to_string(service_type) +
                        " " + std::to_string(handler_id) + " " + std::to_string(src_handler_id));
        handler_id = reply_handler_id;
        result = reply_result;
    }
    void notify_remove(unsigned int handler_id, long& result) override {
        calls.push_back("remove " + std::to_string(handler_id));
        result = reply_result;
    }
    void notify_reset(TEV_ASH_SERVICE_TYPE service_type, unsigned int handler_id,
                      long& result) override {
        calls.push_back("reset " + std::to_string(service_type) + " " + std::to_string(handler_id));
        result = reply_result;
    }

    std::vector<std::string> calls;
    unsigned int reply_handler_id = 0;
    long reply_result = 0;

private:
    int* destroyed_;
};

class Traced : public ::testing::Test {
protected:
    tevhost::trace_capture capture_;
};

// ---- Observer

using Observer = Traced;

TEST_F(Observer, NullNameIsReportedAndLeftEmpty) {
    test_observer unnamed(42, nullptr);
    EXPECT_EQ(42, unnamed.get_obj_id());
    EXPECT_EQ(padded(""), field(unnamed.get_connection_name()));
    EXPECT_THAT(tevtest::trace_calls(), ElementsAre("tev_ash_observer::tev_ash_observer,"
                                                    "[Error:connection_name is NULL]"));
    EXPECT_THAT(notifications(), ElementsAre("0xe924 tev_ash_observer::tev_ash_observer 0,0"));
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
    proxy.notify_create(TEV_ASH_CAT_APLJOB, static_cast<TEV_ASH_SERVICE_TYPE>(-2), handler_id, 9,
                        result);
    EXPECT_EQ(517u, handler_id);  // a director failure keeps both its code and handler id
    EXPECT_EQ(0xE100000FL, result);
    reply_ = le32(0xC1030001);
    proxy.notify_reset(static_cast<TEV_ASH_SERVICE_TYPE>(3), 513, result);
    EXPECT_EQ(0xC1030001L, result);
    reply_ = le32(0);
    proxy.notify_remove(0xA1B2C3D4, result);
    EXPECT_EQ(0, result);

    const struct {
        long func_id;
        bytes request;
        unsigned int reply_capacity;
    } expected[] = {
        {2, join({le32(4), le32(0), le32(0xFFFFFFFE), le32(9)}), 8},
        {4, join({le32(0), le32(3), le32(513)}), 4},
        {3, join({le32(0), le32(0xA1B2C3D4)}), 4},
    };
    const auto sent = spy_.messages();
    ASSERT_EQ(std::size(expected), sent.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(0x1234, sent[i].object_id) << i;
        EXPECT_EQ("0123456789ABCDEF", sent[i].connection) << i;
        EXPECT_EQ(expected[i].func_id, sent[i].func_id) << i;
        EXPECT_EQ(expected[i].request, sent[i].request) << i;
        EXPECT_EQ(expected[i].reply_capacity, sent[i].reply_capacity) << i;
    }
    EXPECT_THAT(tevtest::trace_calls(), IsEmpty());

    tevhost::message_spy_end();  // nothing answers: nothing is registered under "NOBODY"
    tev_ash_observer_impl unanswered(77, "NOBODY");
    unanswered.notify_create(TEV_ASH_CAT_AUTH, TEV_ASH_SERVICE_TYPE_NONE, handler_id, 0, result);
    EXPECT_EQ(0u, handler_id);  // an unanswered send reads as zero
    EXPECT_EQ(0, result);
    result = -1;
    unanswered.notify_reset(TEV_ASH_SERVICE_TYPE_NONE, 1, result);
    EXPECT_EQ(0, result);
}

TEST_F(ObserverProxy, NullPointersAreEachReportedInOrderAndNothingIsSent) {
    tev_ash_observer_impl proxy(1, "D");
    proxy.send_sync_message(2, nullptr, 16, nullptr, nullptr);
    const std::string where = "tev_ash_observer_impl::send_sync_message,";
    EXPECT_THAT(tevtest::trace_calls(),
                ElementsAre(where + "[Error] req_buf is NULL", where + "[Error] rpl_buf is NULL",
                            where + "[Error] rpl_buf_len is NULL"));
    const std::string one = "0xe924 tev_ash_observer_impl::send_sync_message 0,0";
    EXPECT_THAT(notifications(), ElementsAre(one, one, one));
    EXPECT_THAT(spy_.messages(), IsEmpty());
}

TEST_F(ObserverProxy, WithoutClientNotificationsSendNothingAndReportBadArgument) {
    tev_ash_observer_impl proxy;
    EXPECT_EQ(reinterpret_cast<long>(&proxy), proxy.get_obj_id());
    unsigned int handler_id = 33;
    long results[3] = {};
    proxy.notify_create(TEV_ASH_CAT_AUTH, TEV_ASH_SERVICE_TYPE_NONE, handler_id, 0, results[0]);
    proxy.notify_remove(1, results[1]);
    proxy.notify_reset(TEV_ASH_SERVICE_TYPE_NONE, 1, results[2]);
    EXPECT_THAT(results, ElementsAre(0xC1030008L, 0xC1030008L, 0xC1030008L));
    EXPECT_EQ(33u, handler_id);
    char buf[4] = {};
    unsigned int len = 4;
    proxy.send_sync_message(3, buf, 4, buf, &len);
    EXPECT_THAT(tevtest::trace_calls(),
                ElementsAre("tev_ash_observer_impl::notify_create,[Error] client_ is NULL",
                            "tev_ash_observer_impl::notify_remove,[Error] client_ is NULL",
                            "tev_ash_observer_impl::notify_reset,[Error] client_ is NULL",
                            "tev_ash_observer_impl::send_sync_message,[Error] client_ is NULL"));
    const std::string code = "0xe924 tev_ash_observer_impl::";
    EXPECT_THAT(notifications(),
                ElementsAre(code + "notify_create 0,0", code + "notify_remove 0,0",
                            code + "notify_reset 0,0", code + "send_sync_message 0,0"));
    EXPECT_THAT(spy_.messages(), IsEmpty());
}

// ---- Connecter

TEV_ASH_APP_TYPE type(int t) {
    return static_cast<TEV_ASH_APP_TYPE>(t);
}
tev_ash_observer_impl* proxy_at(long id) {
    return reinterpret_cast<tev_ash_observer_impl*>(id);
}

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
        long id = k.id;
        char name[17] = {};
        std::memcpy(name, k.name, std::strlen(k.name));
        EXPECT_EQ(0u, c.get_director_observer(type(k.type), id, name));
        EXPECT_EQ(k.id, proxy_at(id)->get_obj_id());
        EXPECT_EQ(padded(k.name), field(proxy_at(id)->get_connection_name()));

        long again = 2002;
        char out[16];
        std::memset(out, '#', sizeof out);
        EXPECT_EQ(0u, c.get_director_observer(type(k.type), again, out));
        EXPECT_EQ(id, again);
        EXPECT_EQ(k.returned, field(out));
        EXPECT_EQ(k.id, proxy_at(id)->get_obj_id());
    }
    long id = 11;
    EXPECT_EQ(0xC1030008u, c.get_director_observer(type(1), id, nullptr));
    EXPECT_EQ(11, id);
}

// ---- Director manager

class DirectorManager : public Traced {
protected:
    tev_ash_director_manager* manager_ = tev_ash_director_manager::get_instance();
};

TEST_F(DirectorManager, RefusalsCarryTheirCodesAndTraceLines) {
    EXPECT_EQ(0xC1030008u, manager_->add_observer(type(100), nullptr));
    int destroyed_a = 0, destroyed_b = 0;
    auto* a = new test_observer(&destroyed_a);
    auto b = std::make_unique<test_observer>(&destroyed_b);
    const long obj = a->get_obj_id();
    ASSERT_EQ(0u, manager_->add_observer(type(104), a));
    EXPECT_EQ(0xC1030005u, manager_->add_observer(type(104), b.get()));
    EXPECT_EQ(0xC1030008u,
              manager_->create(TEV_ASH_CAT_AUTH, type(104), TEV_ASH_SERVICE_TYPE_NONE, nullptr, 0));
    EXPECT_EQ(0u, manager_->remove(type(104), 5));
    EXPECT_THAT(a->calls, ElementsAre("remove 5"));
    EXPECT_THAT(b->calls, IsEmpty());
    EXPECT_EQ(0u, manager_->remove_observer(obj));
    EXPECT_EQ(1, destroyed_a);
    EXPECT_EQ(0, destroyed_b);  // the refused one stays the caller's

    unsigned int id = 1234;
    EXPECT_EQ(0xC1030006u,
              manager_->create(TEV_ASH_CAT_AUTH, type(104), TEV_ASH_SERVICE_TYPE_NONE, &id, 0));
    EXPECT_EQ(1234u, id);
    EXPECT_EQ(0xC1030006u, manager_->remove(type(104), 1));
    EXPECT_EQ(0xC1030006u, manager_->reset(type(104), TEV_ASH_SERVICE_TYPE_NONE, 1));
    EXPECT_EQ(0xC1030006u, manager_->remove_observer(obj));
    const std::string m = "tev_ash_director_manager::";
    EXPECT_THAT(
        tevtest::trace_calls(),
        ElementsAre(m + "add_observer,Error:observer in NULL]",
                    m + "add_observer,[Error]rc=0xc1030005", m + "create,[Error]handler_id is NULL",
                    m + "create,[Error]rc:0xc1030006", m + "remove,[Error]rc:0xc1030006",
                    m + "reset,[Error]rc:0xc1030006", m + "remove_observer,[Error]rc=0xc1030006"));
    EXPECT_THAT(notifications(),
                ElementsAre("0xe924 " + m + "add_observer 0,0", "0xe924 " + m + "create 0,0"));
}

TEST_F(DirectorManager, RoutesWithTheArgumentsAndReturnsTheDirectorsResultUnchanged) {
    for (const long reply : {0L, 0xC1030001L}) {
        SCOPED_TRACE(reply);
        capture_.clear();
        int destroyed = 0;
        auto* o = new test_observer(&destroyed);
        o->reply_handler_id = 517;
        o->reply_result = reply;
        ASSERT_EQ(0u, manager_->add_observer(type(101), o));
        unsigned int id = 9;
        EXPECT_EQ(reply, manager_->create(TEV_ASH_CAT_APLJOB, type(101),
                                          static_cast<TEV_ASH_SERVICE_TYPE>(7), &id, 21));
        EXPECT_EQ(517u, id);
        EXPECT_EQ(reply, manager_->remove(type(101), 33));
        EXPECT_EQ(reply, manager_->reset(type(101), static_cast<TEV_ASH_SERVICE_TYPE>(-1), 44));
        EXPECT_THAT(o->calls, ElementsAre("create 4 7 9 21", "remove 33", "reset -1 44"));
        if (reply == 0) {
            EXPECT_THAT(tevtest::trace_calls(), IsEmpty());
        } else {
            EXPECT_THAT(tevtest::trace_calls(),
                        ElementsAre("tev_ash_director_manager::create,[Error]result:0xc1030001",
                                    "tev_ash_director_manager::remove,[Error]result:0xc1030001",
                                    "tev_ash_director_manager::reset,[Error]result:0xc1030001"));
        }
        EXPECT_EQ(0u, manager_->remove_observer(o->get_obj_id()));
        EXPECT_EQ(1, destroyed);
    }
}

TEST_F(DirectorManager, OneObjectUnderSeveralTypesIsRemovedEverywhereAndDestroyedOnce) {
    int destroyed = 0;
    auto* o = new test_observer(&destroyed);
    for (int t : {121, 122, 123}) ASSERT_EQ(0u, manager_->add_observer(type(t), o));
    EXPECT_EQ(0u, manager_->remove(type(122), 1));
    EXPECT_EQ(0u, manager_->remove_observer(o->get_obj_id()));
    EXPECT_EQ(1, destroyed);
    for (int t : {121, 122, 123}) EXPECT_EQ(0xC1030006u, manager_->remove(type(t), 1));
}

// A director that withdraws itself from inside its own notification.
class self_removing : public test_observer {
public:
    using test_observer::test_observer;
    void notify_remove(unsigned int, long& result) override {
        result = static_cast<long>(
            tev_ash_director_manager::get_instance()->remove_observer(get_obj_id()));
    }
};

TEST_F(DirectorManager, RemovalFromInsideAnOwnNotificationDestroysItAfterward) {
    int destroyed = 0;
    ASSERT_EQ(0u, manager_->add_observer(type(130), new self_removing(&destroyed)));
    EXPECT_EQ(0u, manager_->remove(type(130), 1));
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(0xC1030006u, manager_->remove(type(130), 1));
}

}  // namespace
