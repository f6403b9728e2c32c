// The in-process message service: delivery, bounded replies, unregistering
// while a delivery runs, and concurrent senders.
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "facade_template.h"
#include "gen_ipc.h"
#include "host/tev_host_testing.h"
#include "vlq_mc_client.h"

namespace {

using namespace tevhost;
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

TEST(Message, DeliversInTheSendersThreadNestedSendsTooAndBoundsTheReply) {
    std::thread::id seen;
    test_facade inner(reverse_echo);
    test_facade outer([&](long, char* b, unsigned int n, gen_ipc_msghdr h) {
        seen = std::this_thread::get_id();
        std::string reply;
        EXPECT_EQ(MSG_OK, send("INNER", 1, 9, std::string(b, n), &reply));
        gen_ipc_reply(h, reply.data(), static_cast<unsigned int>(reply.size() - 1));
    });
    ASSERT_TRUE(register_object("INNER", 1, &inner));
    ASSERT_TRUE(register_object("OUTER", 1, &outer));
    std::string reply;  // the reply and the byte after it
    ASSERT_EQ(MSG_OK, send("OUTER", 1, 0, "abc", &reply));
    EXPECT_EQ(std::this_thread::get_id(), seen);
    EXPECT_EQ("cba\x09x", reply);
    ASSERT_EQ(MSG_OK, send("OUTER", 1, 0, "abc", &reply, 2));
    EXPECT_EQ("cbx", reply);
    test_facade silent([](long, char*, unsigned int, gen_ipc_msghdr) {});
    ASSERT_TRUE(register_object("SILENT", 1, &silent));
    EXPECT_EQ(MSG_NO_REPLY, send("SILENT", 1, 0, ""));
    EXPECT_EQ(MSG_NO_OBJECT, send("SILENT", 2, 0, ""));
    for (const char* name : {"INNER", "OUTER", "SILENT"}) EXPECT_TRUE(unregister_object(name, 1));
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
