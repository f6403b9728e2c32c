// The in-process message service: delivery, replies, registration and the spy.
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "facade_template.h"
#include "gen_ipc.h"
#include "host/tev_host.h"
#include "observer_template.h"
#include "vlq_mc_client.h"

namespace {

using namespace tevhost;
using ::testing::ElementsAre;
using client = velmora::vlq_mc_client;

// A served object whose dispatch runs `on_message`.
class test_facade : public velmora::facade_template {
public:
    using handler = std::function<void(long, char*, unsigned int, gen_ipc_msghdr)>;
    explicit test_facade(handler on_message) : on_message_(std::move(on_message)) {}
    void dispatch(long func_id, char* buf, unsigned int len, gen_ipc_msghdr hdr) override {
        on_message_(func_id, buf, len, hdr);
    }

private:
    handler on_message_;
};

// Replies with the request's bytes reversed, followed by the function id.
void reverse_echo(long func_id, char* buf, unsigned int len, gen_ipc_msghdr hdr) {
    std::string reply(buf, len);
    reply.assign(reply.rbegin(), reply.rend());
    reply.push_back(static_cast<char>(func_id));
    EXPECT_EQ(0, gen_ipc_reply(hdr, reply.data(), static_cast<unsigned int>(reply.size())));
}

// Sends `request` through one client shared by all senders and returns the result
// code; *reply gets the reply, cut to `capacity` bytes, and the byte after it.
int send(const char* connection, long id, long func, std::string request,
         std::string* reply = nullptr, unsigned int capacity = 16) {
    static client shared;
    char rpl[17];
    std::memset(rpl, 'x', sizeof rpl);
    int rc = shared.vlq_mc_send_sync_message(id, func, &request[0],
                                             static_cast<unsigned int>(request.size()), rpl,
                                             &capacity, connection);
    if (reply != nullptr) reply->assign(rpl, rc == MSG_OK ? capacity + 1 : 0);
    return rc;
}

// Registers objects for the lifetime of the test.
class Message : public ::testing::Test {
protected:
    void serve(const char* connection, long id, velmora::facade_template* obj) {
        ASSERT_TRUE(register_object(connection, id, obj));
        served_.emplace_back(connection, id);
    }
    void TearDown() override {
        for (const auto& s : served_) unregister_object(s.first.c_str(), s.second);
    }
    std::vector<std::pair<std::string, long>> served_;
};

TEST_F(Message, DeliversInTheSendersThreadNestedSendsTooAndBoundsTheReply) {
    std::thread::id seen;
    test_facade inner(reverse_echo);
    test_facade outer([&](long, char* b, unsigned int n, gen_ipc_msghdr h) {
        seen = std::this_thread::get_id();
        std::string reply;
        EXPECT_EQ(MSG_OK, send("INNER", 2, 9, std::string(b, n), &reply));
        gen_ipc_reply(h, reply.data(), static_cast<unsigned int>(reply.size() - 1));
    });
    serve("INNER", 2, &inner);
    serve("OUTER", 1, &outer);
    std::string reply;  // the reply and the byte after it
    ASSERT_EQ(MSG_OK, send("OUTER", 1, 0, "abc", &reply));
    EXPECT_EQ(std::this_thread::get_id(), seen);
    EXPECT_EQ("cba\x09x", reply);
    ASSERT_EQ(MSG_OK, send("OUTER", 1, 0, "abc", &reply, 2));
    EXPECT_EQ("cbx", reply);
}

TEST_F(Message, ResultCodes) {
    test_facade silent([](long, char*, unsigned int, gen_ipc_msghdr) {});
    test_facade twice([](long, char*, unsigned int, gen_ipc_msghdr h) {
        EXPECT_EQ(0, gen_ipc_reply(h, "1", 1));
        EXPECT_NE(0, gen_ipc_reply(h, "2", 1));
    });
    velmora::facade_template plain;  // the default dispatch ignores the message
    serve("SILENT", 1, &silent);
    serve("TWICE", 1, &twice);
    serve("PLAIN", 1, &plain);

    char rpl[4] = {};
    unsigned int len = sizeof rpl;
    EXPECT_EQ(MSG_NO_REPLY, send("SILENT", 1, 0, ""));
    EXPECT_EQ(MSG_NO_REPLY, send("PLAIN", 1, 0, ""));
    EXPECT_EQ(MSG_NO_OBJECT, send("SILENT", 2, 0, ""));
    EXPECT_EQ(MSG_NO_OBJECT, send("NOBODY", 1, 0, ""));
    EXPECT_EQ(MSG_BAD_ARG, client().vlq_mc_send_sync_message(1, 0, rpl, 0, rpl, nullptr, "SILENT"));
    EXPECT_EQ(MSG_BAD_ARG,
              client().vlq_mc_send_sync_message(1, 0, rpl, 0, nullptr, &len, "SILENT"));
    EXPECT_EQ(MSG_BAD_ARG,
              client().vlq_mc_send_sync_message(1, 0, nullptr, 4, rpl, &len, "SILENT"));
    std::string reply;
    EXPECT_EQ(MSG_OK, send("TWICE", 1, 0, "", &reply));
    EXPECT_EQ("1x", reply);
    EXPECT_NE(0, gen_ipc_reply(gen_ipc_msghdr{0}, "x", 1));
}

TEST_F(Message, NamesMatchOnSixteenBytesAndIdsOnLow32Bits) {
    test_facade echo(reverse_echo);
    serve("ABCDEFGHIJKLMNOP", 5, &echo);
    const char unterminated[20] = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J',
                                   'K', 'L', 'M', 'N', 'O', 'P', 'Q', 'R', 'S', 'T'};
    EXPECT_EQ(MSG_OK, send(unterminated, static_cast<long>((1ull << 32) | 5u), 1, ""));
    EXPECT_NE(0, client::vlq_mc_check_facade("ABCDEFGHIJKLMNOPXYZ", 5));
    EXPECT_EQ(0, client::vlq_mc_check_facade("ABCDEFGHIJKLMNO", 5));
    EXPECT_FALSE(register_object("ABCDEFGHIJKLMNOPQ", 5, &echo));
}

TEST_F(Message, RegistrationRulesAndTheCheckScript) {
    test_facade echo(reverse_echo);
    velmora::observer_template observer;
    serve("REG", 1, &echo);
    EXPECT_FALSE(register_object("REG", 1, &observer));
    EXPECT_TRUE(register_object("REG", 2, &observer));
    EXPECT_TRUE(unregister_object("REG", 2));
    EXPECT_FALSE(unregister_object("REG", 2));

    // A dispatch may remove its own object without waiting for itself.
    test_facade self_removing([](long, char*, unsigned int, gen_ipc_msghdr h) {
        EXPECT_TRUE(unregister_object("SELF", 1));
        gen_ipc_reply(h, "k", 1);
    });
    ASSERT_TRUE(register_object("SELF", 1, &self_removing));
    EXPECT_EQ(MSG_OK, send("SELF", 1, 0, ""));
    EXPECT_EQ(MSG_NO_OBJECT, send("SELF", 1, 0, ""));
    EXPECT_EQ(0, client::vlq_mc_check_facade("SELF", 1));

    // While set, a check script answers instead of the registry.
    set_check_script([](const std::string& connection, long id) {
        return connection == "TEV_ASH_SRV" && id == 1 ? 7 : 0;
    });
    EXPECT_EQ(7, client::vlq_mc_check_facade("TEV_ASH_SRV", 1));
    EXPECT_EQ(0, client::vlq_mc_check_facade("TEV_ASH_SRV", 2));
    EXPECT_EQ(0, client::vlq_mc_check_facade("REG", 1));
    set_check_script(nullptr);
    EXPECT_EQ(0, client::vlq_mc_check_facade("TEV_ASH_SRV", 1));
    EXPECT_NE(0, client::vlq_mc_check_facade("REG", 1));
}

TEST_F(Message, SpyRecordsEveryMessageAndScriptsReplies) {
    test_facade echo(reverse_echo);
    serve("ECHO", 1, &echo);
    std::string reply;
    {
        message_spy spy([](const sent_message& msg, std::vector<unsigned char>& reply) {
            if (msg.func_id != 4) return false;
            reply = {1, 2, 3, 4, 5, 6};
            return true;
        });
        ASSERT_EQ(MSG_OK, send("ECHO", 1, 4, "q", &reply, 4));
        EXPECT_EQ("\1\2\3\4x", reply);
        ASSERT_EQ(MSG_OK, send("ECHO", 1, 5, "ab", &reply));
        EXPECT_EQ("ba\x05x", reply);
        EXPECT_EQ(MSG_NO_OBJECT, send("NOBODY", 3, 6, ""));

        std::vector<sent_message> sent = spy.messages();
        ASSERT_EQ(3u, sent.size());
        EXPECT_EQ(4, sent[0].func_id);
        EXPECT_THAT(sent[0].request, ElementsAre('q'));
        EXPECT_EQ(4u, sent[0].reply_capacity);
        EXPECT_EQ("NOBODY", sent[2].connection);
        EXPECT_EQ(3, sent[2].object_id);
    }
    ASSERT_EQ(MSG_OK, send("ECHO", 1, 4, "q", &reply));
    EXPECT_EQ("q\x04x", reply);
    EXPECT_EQ(3u, spied_messages().size());  // nothing recorded after the spy ended
}

TEST(MessageConcurrency, ConcurrentSendersGetTheirOwnReplies) {
    test_facade echo(reverse_echo);
    ASSERT_TRUE(register_object("MANY", 1, &echo));
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t) {
        senders.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                std::string request = std::to_string(t * 1000 + i), reply;
                ASSERT_EQ(MSG_OK, send("MANY", 1, t, request, &reply));
                EXPECT_EQ(std::string(request.rbegin(), request.rend()) + char(t) + 'x', reply);
            }
        });
    }
    for (std::thread& s : senders) s.join();
    EXPECT_TRUE(unregister_object("MANY", 1));
}

TEST(MessageConcurrency, UnregisterWaitsForRunningDelivery) {
    std::mutex mtx;
    std::condition_variable cv;
    bool entered = false, release = false, finished = false;
    test_facade slow([&](long, char*, unsigned int, gen_ipc_msghdr h) {
        std::unique_lock<std::mutex> lock(mtx);
        entered = true;
        cv.notify_all();
        cv.wait(lock, [&] { return release; });
        gen_ipc_reply(h, "", 0);
        finished = true;
    });
    ASSERT_TRUE(register_object("SLOW", 1, &slow));
    std::thread sender([] { EXPECT_EQ(MSG_OK, send("SLOW", 1, 0, "")); });
    std::unique_lock<std::mutex> lock(mtx);
    cv.wait(lock, [&] { return entered; });
    std::thread remover([&] {
        EXPECT_TRUE(unregister_object("SLOW", 1));
        std::lock_guard<std::mutex> check(mtx);
        EXPECT_TRUE(finished);  // the delivery had ended when unregister returned
    });
    release = true;
    cv.notify_all();
    lock.unlock();
    remover.join();
    sender.join();
}

}  // namespace
