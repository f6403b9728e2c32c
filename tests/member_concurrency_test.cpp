// Member reads and writes through one handler tree from several threads while
// records of the same store are made, linked and removed: every access resolves
// the right handler and every value read is one that was written whole.
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tev_ash_facade.h"
#include "tev_lib_support.h"

namespace {

using namespace velmora;
using tevhost::member_kind;

constexpr unsigned int JOB_MEMBER = 0x00360000;     // APLJOB: one per thread from here on
constexpr unsigned int JOBSET_MEMBER = 0x00460000;  // job set 0x8
constexpr unsigned int AUTH_MEMBER = 0x00260000;    // AUTH, two links above the job
constexpr int THREADS = 4;
constexpr int ROUNDS = 300;

// A value that names its writer and round, so a reader can tell a whole write
// from a torn or invented one.
long value_of(int thread, int round) {
    return static_cast<long>(thread) << 16 | round;
}
bool is_written_value(long v) {
    return v >= 0 && (v >> 16) < THREADS && (v & 0xFFFF) < ROUNDS;
}

class MemberConcurrency : public tevtest::library_test {
protected:
    MemberConcurrency() {
        for (int i = 0; i < THREADS; ++i) {
            tevhost::declare_member(JOB_MEMBER + static_cast<unsigned int>(i), member_kind::i32);
        }
        tevhost::declare_member(JOBSET_MEMBER, member_kind::i32);
        tevhost::declare_member(AUTH_MEMBER, member_kind::i32);
    }
    tev_ash_facade* facade = tev_ash_facade::tev_ash_get_instance();
    tevtest::job_tree t = tevtest::make_job_tree({0x8, 0x8});
};

TEST_F(MemberConcurrency, ReadsAndWritesThroughTheTreeFromManyThreads) {
    std::atomic<int> ready{0};
    std::atomic<int> faults{0};
    auto expect = [&](bool ok) {
        if (!ok) faults.fetch_add(1);
    };
    std::vector<std::thread> threads;
    for (int n = 0; n < THREADS; ++n) {
        threads.emplace_back([&, n] {
            const unsigned int own = JOB_MEMBER + static_cast<unsigned int>(n);
            const unsigned int order = static_cast<unsigned int>(n % 2);  // two threads a child
            ready.fetch_add(1);
            while (ready.load() < THREADS) std::this_thread::yield();
            for (int round = 0; round < ROUNDS; ++round) {
                const long v = value_of(n, round);
                long got = -1;
                // The job handler itself: nobody else writes this member.
                expect(facade->tev_ash_set_member(5, t.job, own, v, 0) == 0);
                expect(facade->tev_ash_get_member(5, t.job, own, &got, 0) == 0 && got == v);
                // The job-set child at `order`, shared with another thread.
                expect(facade->tev_ash_set_member(5, t.job, JOBSET_MEMBER, v, order) == 0);
                got = -1;
                expect(facade->tev_ash_get_member(5, t.job, JOBSET_MEMBER, &got, order) == 0 &&
                       is_written_value(got));
                // The AUTH root, written by every thread.
                expect(facade->tev_ash_set_member(5, t.job, AUTH_MEMBER, v, 0) == 0);
                got = -1;
                expect(facade->tev_ash_get_member(5, t.job, AUTH_MEMBER, &got, 0) == 0 &&
                       is_written_value(got));
                // Meanwhile the job gains and loses a child behind the two.
                if (round % 10 == 0) {
                    unsigned int extra = 0;
                    expect(facade->tev_ash_create_info(0x8, &extra, 0) == 0);
                    expect(facade->tev_ash_set_link(0x4, t.job, 0x8, extra) == 0);
                    expect(facade->tev_ash_remove_info(extra) == 0);
                }
            }
        });
    }
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(0, faults.load());

    for (int n = 0; n < THREADS; ++n) {
        long last = -1;
        ASSERT_EQ(0u, facade->tev_ash_get_member(
                          5, t.job, JOB_MEMBER + static_cast<unsigned int>(n), &last, 0));
        EXPECT_EQ(value_of(n, ROUNDS - 1), last);
    }
    EXPECT_EQ(t.children, tevtest::children_of(t.job));
    EXPECT_TRUE(tevtest::trace_calls().empty());
}

}  // namespace
