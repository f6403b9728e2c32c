// The host record store on both backends: records, links, members, failure
// codes and failure injection.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "tev_test_support.h"
#include "wud_wud_service_info.h"

namespace {

using S = velmora::wud_wud_service_info;
using namespace tevhost;
using namespace tevtest::records;
using ::testing::ElementsAre;
using tevtest::fresh_store;
using tevtest::temp_dir;

constexpr unsigned char FLAG = 0;

// The children of `parent` in category `cat`, in link order, through the
// per-category calls.
std::vector<unsigned int> children_of(unsigned int parent, unsigned int parent_cat,
                                      unsigned int cat) {
    std::vector<unsigned int> out;
    unsigned int n = 0, past = SENTINEL;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link_num(CMP, parent_cat, parent, cat, &n));
    for (unsigned int i = 0; i < n; ++i) {
        out.push_back(0);
        EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link(CMP, parent_cat, parent, cat, i,
                                                             &out.back()));
    }
    EXPECT_EQ(STORE_NO_LINK,
              S::wud_wud_service_info_get_child_link(CMP, parent_cat, parent, cat, n, &past));
    return out;
}

enum class backend { memory, file };

// Every test of the store semantics runs on a fresh store of each backend.
class Store : public ::testing::TestWithParam<backend> {
protected:
    void SetUp() override {
        if (GetParam() == backend::file) open();
    }
    void TearDown() override { store_use_memory(); }  // closes the database
    void open() {
        std::string error;
        ASSERT_TRUE(store_use_file(dir_.path("store.db"), &error)) << error;
    }
    // Forgets the schema and closes and opens a database again, as a new process
    // would: what follows sees only what the store kept.
    void reopen() {
        clear_schema();
        if (GetParam() == backend::file) {
            store_use_memory();
            open();
        }
    }

    fresh_store store_;
    temp_dir dir_;
};

std::string backend_name(const ::testing::TestParamInfo<backend>& info) {
    return info.param == backend::memory ? "Memory" : "File";
}
INSTANTIATE_TEST_SUITE_P(Backends, Store, ::testing::Values(backend::memory, backend::file),
                         backend_name);

// Every record with its category, parent, children in order (all, and those of
// each category) and members: two stores with the same snapshot hold the same trees.
std::string snapshot() {
    std::string out;
    for (const record_info& r : store_records()) {
        out += std::to_string(r.handler_id) + "/" + std::to_string(r.category) + "^" +
               std::to_string(r.parent_id) + " [" + testing::PrintToString(children(r.handler_id));
        for (unsigned int cat : {JOB, SET_A, SET_B})
            out += testing::PrintToString(children_of(r.handler_id, r.category, cat));
        for (const member_value& m : record_members(r.handler_id)) {
            out += " " + std::to_string(m.member_id) + ":" + std::to_string(int(m.kind)) + "=" +
                   std::string(m.value.begin(), m.value.end());
        }
        out += "\n";
    }
    return out;
}

// One parent per child, no cycles; deleting a parent frees its children.
TEST_P(Store, OneParentPerChildNoCyclesAndDeletedParentsFreeTheirChildren) {
    unsigned int root = make(ROOT), job = make(JOB), set = make(SET_A), other = make(JOB);
    link(root, job);
    link(job, set);
    struct {
        unsigned int pc, p, cc, c, rc;
    } cases[] = {
        {ROOT, root, JOB, 999999, STORE_NO_RECORD},
        {JOB, root, JOB, other, STORE_BAD_CATEGORY},
        {JOB, other, SET_A, set, STORE_HAS_PARENT},
        {SET_A, set, ROOT, root, STORE_CYCLE},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.rc, S::wud_wud_service_info_set_link(CMP, c.pc, c.p, c.cc, c.c))
            << c.pc << " " << c.p << " " << c.cc << " " << c.c;
    }
    EXPECT_THAT(children(job), ElementsAre(set));
    EXPECT_TRUE(children(other).empty());

    EXPECT_EQ(STORE_BAD_CATEGORY, S::wud_wud_service_info_delete_link(CMP, JOB, set));
    EXPECT_EQ(STORE_NO_LINK, S::wud_wud_service_info_delete_link(CMP, ROOT, root));
    EXPECT_EQ(0u, S::wud_wud_service_info_delete_link(CMP, SET_A, set));
    EXPECT_TRUE(children(job).empty());
    link(other, set);
    link(job, other);
    EXPECT_THAT(children(other), ElementsAre(set));
    ASSERT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, job));
    reopen();
    unsigned int parent = SENTINEL;
    EXPECT_EQ(STORE_NO_LINK, S::wud_wud_service_info_get_parent_link(CMP, JOB, other, &parent));
    EXPECT_EQ(SENTINEL, parent);
    EXPECT_TRUE(children(root).empty());
    link(root, other);
    EXPECT_THAT(children(root), ElementsAre(other));
    EXPECT_EQ(STORE_NO_RECORD, S::wud_wud_service_info_delete_current(CMP, job));
}

// Declared and undeclared members: widths, byte strings, and what member_info
// and record_members report. A value keeps the kind of its first write (or of
// its declaration) through later writes, copies and a new process, where the
// widths come from the stored values alone; set_member_value stores as given.
// Copies take the members only; a reset drops them all.
TEST_P(Store, MembersKeepKindWidthAndValue) {
    EXPECT_FALSE(declare_member(50, member_kind::bytes, 0));
    ASSERT_TRUE(declare_member(50, member_kind::bytes, 6, {'a', 'b'}));
    ASSERT_TRUE(declare_member(51, member_kind::u16));
    ASSERT_TRUE(declare_member(53, member_kind::u8, 0, {9}));
    unsigned int id = make(JOB), copy = 0, parent = make(ROOT), dst = make(SET_A), up = SENTINEL;
    link(parent, id);
    link(parent, dst);
    char buf[8] = "zzzzzzz", value[8] = "hello!?";
    ASSERT_EQ(0u, S::wud_wud_service_info_get_current(CMP, id, 50, buf));
    EXPECT_EQ(0, std::memcmp(buf, "ab\0\0\0\0z", 7));
    unsigned int rc = S::wud_wud_service_info_set_current(CMP, id, 50, static_cast<void*>(value));
    rc |= S::wud_wud_service_info_set_current(CMP, id, 51, static_cast<short>(3));
    rc |= S::wud_wud_service_info_set_current(CMP, id, 61, static_cast<char>(-2));
    rc |= S::wud_wud_service_info_set_current(CMP, id, 62, 300l);
    rc |= S::wud_wud_service_info_set_current(CMP, id, 62, 7ul);
    rc |= S::wud_wud_service_info_set_current(CMP, id, 62, static_cast<void*>(value));
    rc |= set_member_value(id, {63, member_kind::bytes, 3, {'a', 'b', 'c'}});
    rc |= set_member_value(id, {64, member_kind::i16, 2, {1, 0}});
    rc |= S::wud_wud_service_info_make_and_copy_current(CMP, SET_B, FLAG, id, &copy);
    rc |= S::wud_wud_service_info_set_current(CMP, dst, 70, 5ul);
    rc |= S::wud_wud_service_info_copy_current(CMP, id, dst);  // replaces every member
    ASSERT_EQ(0u, rc);
    EXPECT_EQ(SET_B, category_of(copy));  // members copied, not the link
    EXPECT_EQ(STORE_NO_LINK, S::wud_wud_service_info_get_parent_link(CMP, SET_B, copy, &up));
    EXPECT_EQ(record_members(id).size(), record_members(dst).size());
    ASSERT_EQ(0u, S::wud_wud_service_info_init_current(CMP, dst));
    EXPECT_TRUE(record_members(dst).empty());
    EXPECT_THAT(children(parent), ElementsAre(id, dst));
    member_value v{}, untouched{7, member_kind::u8, 1, {9}};
    ASSERT_EQ(0u, member_info(copy, 53, &v));  // declared, no value
    EXPECT_EQ(member_kind::u8, v.kind);
    EXPECT_THAT(v.value, ElementsAre(9));
    reopen();
    for (unsigned int rec : {id, copy}) {
        std::string all;
        for (const member_value& m : record_members(rec)) {
            all += std::to_string(m.member_id) + ":" + std::to_string(int(m.kind)) + "/" +
                   std::to_string(m.size) + "=" + std::string(m.value.begin(), m.value.end()) + " ";
        }  // kinds: i8 0, u16 3, i16 2, i32 4, bytes 6
        EXPECT_EQ(std::string("50:6/6=hello! 51:3/2=\x03") + std::string(1, '\0') +
                      " 61:0/1=\xFE 62:4/4=hell 63:6/3=abc 64:2/2=\x01" + std::string(1, '\0') +
                      " ",
                  all);
    }
    const std::pair<unsigned int, unsigned int> refused[] = {
        {STORE_WIDTH, S::wud_wud_service_info_set_current(CMP, id, 51, 1ul)},
        {STORE_WIDTH, S::wud_wud_service_info_set_current(CMP, id, 50, 1ul)},
        {STORE_NO_MEMBER,
         S::wud_wud_service_info_set_current(CMP, id, 52, static_cast<void*>(value))},
        {STORE_NO_MEMBER, member_info(id, 53, &untouched)},  // the declaration is gone
        {STORE_NO_RECORD, member_info(999999, 61, &untouched)},
        {STORE_BAD_ARG, member_info(id, 61, nullptr)},
        {STORE_WIDTH, set_member_value(id, {62, member_kind::u16, 2, {1, 2}})},
        {STORE_BAD_ARG, set_member_value(id, {65, member_kind::u16, 4, {1, 2, 3, 4}})},
        {STORE_BAD_ARG, set_member_value(id, {65, member_kind::bytes, 2, {1}})},
        {STORE_NO_RECORD, set_member_value(999999, {65, member_kind::u8, 1, {1}})},
    };
    for (size_t i = 0; i < std::size(refused); ++i)
        EXPECT_EQ(refused[i].first, refused[i].second) << i;
    EXPECT_EQ(7u, untouched.member_id);
    EXPECT_EQ(6u, record_members(id).size());
    EXPECT_TRUE(record_members(999999).empty());
}

// Refused and injected failures alike change nothing and write no out-value.
TEST_P(Store, FailedCallsChangeNothingAndWriteNoOutValue) {
    unsigned int job = make(JOB), set = make(SET_A);
    link(job, set);
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, set, 7, 77ul));
    const std::string before = snapshot();
    unsigned int out = SENTINEL, *null_out = nullptr;
    const unsigned int cases[][2] = {
        {STORE_BAD_CATEGORY, S::wud_wud_service_info_make_current(CMP, 0, FLAG, &out)},
        {STORE_BAD_ARG, S::wud_wud_service_info_make_current(CMP, JOB, FLAG, null_out)},
        {STORE_NO_RECORD,
         S::wud_wud_service_info_make_and_copy_current(CMP, JOB, FLAG, 999999, &out)},
        {STORE_NO_RECORD, S::wud_wud_service_info_copy_current(CMP, 999999, set)},
        {STORE_NO_LINK, S::wud_wud_service_info_get_child_link(CMP, JOB, job, SET_A, 1, &out)},
        {STORE_BAD_CATEGORY, S::wud_wud_service_info_get_parent_link(CMP, SET_B, set, &out)},
        {STORE_NO_MEMBER, S::wud_wud_service_info_get_current(CMP, set, 8, &out)},
        {STORE_WIDTH, S::wud_wud_service_info_set_current(CMP, set, 7, 'c')},
        // Injected failures hit the chosen call once, and change nothing either.
        {STORE_NO_RECORD, (store_fail_op(store_op::delete_current, 2, 0xE1234567),
                           S::wud_wud_service_info_delete_current(CMP, 999999))},
        {0xE1234567, S::wud_wud_service_info_delete_current(CMP, set)},
        {STORE_NO_LINK, (store_fail_nth_call(2),
                         S::wud_wud_service_info_get_child_link(CMP, JOB, job, SET_A, 1, &out))},
        {STORE_INJECTED, S::wud_wud_service_info_make_current(CMP, JOB, FLAG, &out)},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i][0], cases[i][1]) << i;
    EXPECT_EQ(SENTINEL, out);
    EXPECT_EQ(before, snapshot());
    store_fail_op(store_op::delete_current);
    store_fail_clear();
    EXPECT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, set));
}

// Link order through random links, relinks, unlinks and deletes, saved and read
// back by a new process (the order itself: host_link_order_test.cpp).
TEST_P(Store, OrderStaysRightThroughDeletesAndRelinks) {
    const unsigned int job = make(JOB);
    std::vector<unsigned int> model, spare;  // spare: unlinked, to link again
    unsigned int seed = 7;
    auto next = [&](size_t n) { return (seed = seed * 1103515245u + 12345u) / 65536 % n; };
    std::optional<store_transaction> txn(std::in_place);  // one transaction keeps the file quick
    for (int i = 0; i < 600; ++i) {
        if (model.empty() || next(3) != 0) {
            const bool relink = !spare.empty() && next(3) == 0;
            const unsigned int id = relink ? spare.back() : make(next(4) ? SET_A : SET_B);
            if (relink) spare.pop_back();
            link(job, id);
            model.push_back(id);
            continue;
        }
        const size_t at = next(model.size());
        const unsigned int id = model[at];
        model.erase(model.begin() + at);
        const bool unlink_only = next(2);
        if (unlink_only) spare.push_back(id);
        ASSERT_EQ(0u, unlink_only ? S::wud_wud_service_info_delete_link(CMP, category_of(id), id)
                                  : S::wud_wud_service_info_delete_current(CMP, id));
    }
    ASSERT_EQ(0u, txn->commit());
    txn.reset();
    reopen();
    EXPECT_EQ(model, children(job));
    for (unsigned int cat : {SET_A, SET_B}) {
        std::vector<unsigned int> want;
        std::copy_if(model.begin(), model.end(), std::back_inserter(want),
                     [&](unsigned int id) { return category_of(id) == cat; });
        EXPECT_EQ(want, children_of(job, JOB, cat));
    }
}

TEST_P(Store, TransactionsKeepAllOrNothing) {
    unsigned int job = make(JOB), a = make(SET_A), b = make(SET_A);
    link(job, a);
    link(job, b);
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, a, 1, 5ul));
    // A command's worth of changes; a call failing inside does not spoil the rest.
    auto work = [&] {
        unsigned int made = make(SET_B), cat = 0;
        link(job, made);
        EXPECT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, a));
        EXPECT_EQ(0u, S::wud_wud_service_info_set_current(CMP, b, 2, 9ul));
        EXPECT_EQ(STORE_CYCLE, S::wud_wud_service_info_set_link(CMP, SET_B, made, JOB, job));
        EXPECT_EQ(0u, S::wud_wud_service_info_get_job_category_by_id(CMP, made, &cat));
        EXPECT_EQ(0u, S::wud_wud_service_info_copy_current(CMP, b, job));
    };
    enum { NONE, COMMIT, DROP };
    const struct {
        const char* name;
        int outer, inner;  // what each scope does
        unsigned int rc;   // of the outer commit
    } cases[] = {
        {"inner committed, outer dropped", DROP, COMMIT, 0},
        {"inner dropped, outer committed", COMMIT, DROP, STORE_ROLLED_BACK},
        {"committed", COMMIT, NONE, 0},  // last: the only one kept
    };
    const std::string before = snapshot();
    for (const auto& c : cases) {
        {
            store_transaction outer;
            {
                std::optional<store_transaction> inner;
                if (c.inner != NONE) inner.emplace();
                work();
                EXPECT_EQ(0u, c.inner == COMMIT ? inner->commit() : 0u) << c.name;
            }
            unsigned int out = SENTINEL;  // calls in a doomed scope fail
            const unsigned int rc = S::wud_wud_service_info_make_current(CMP, JOB, FLAG, &out);
            EXPECT_EQ(c.inner == DROP ? STORE_ROLLED_BACK : 0u, rc) << c.name;
            EXPECT_EQ(c.outer == COMMIT ? c.rc : 0u, c.outer == COMMIT ? outer.commit() : 0u);
        }
        reopen();
        EXPECT_EQ(c.outer == COMMIT && c.inner == NONE, before != snapshot()) << c.name;
    }
    EXPECT_EQ(9u, read_u32(job, 2));  // the last case was kept
    EXPECT_EQ(2u, children(job).size());
}

// A dropped transaction gives back every record it changed that existed before
// it, whatever the change: the whole store reads as before, here and (file) in
// the next process.
TEST_P(Store, RollbackRestoresTheRecordsThatExistedBefore) {
    ASSERT_TRUE(declare_member(5, member_kind::u32, 0, {3}));
    const unsigned int job = make(JOB), other = make(JOB), lone = make(SET_A);
    std::vector<unsigned int> kids;
    auto cat = [](size_t i) { return i % 3 ? SET_A : SET_B; };
    for (size_t i = 0; i < 48; ++i) {
        kids.push_back(make(cat(i)));
        link(job, kids.back());
        ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, kids[i], 1, i + 0ul));
    }
    auto unlink = [&](size_t end, unsigned int only) {  // enough holes to pack lists
        unsigned int rc = 0;
        for (size_t i = 1; i < end; ++i)
            if (only == 0 || cat(i) == only)
                rc |= S::wud_wud_service_info_delete_link(CMP, cat(i), kids[i]);
        return rc;
    };
    const std::pair<const char*, std::function<unsigned int()>> cases[] = {
        {"link", [&] { return S::wud_wud_service_info_set_link(CMP, JOB, other, SET_A, lone); }},
        {"relink",
         [&] {
             return unlink(kids.size() - 1, 0) |
                    S::wud_wud_service_info_set_link(CMP, JOB, other, SET_A, kids[4]);
         }},
        {"pack a category", [&] { return unlink(26, SET_A); }},
        {"remove a parent", [&] { return S::wud_wud_service_info_delete_current(CMP, job); }},
        {"members",
         [&] {
             return S::wud_wud_service_info_set_current(CMP, kids[0], 1, 99ul) |
                    S::wud_wud_service_info_set_current(CMP, lone, 5, 7ul) |
                    set_member_value(kids[1], {1, member_kind::i32, 4, {1, 2, 3, 4}}) |
                    S::wud_wud_service_info_copy_current(CMP, lone, kids[2]);
         }},
        {"reset", [&] { return S::wud_wud_service_info_init_current(CMP, kids[4]); }},
        {"clear", [] { return store_clear(), 0u; }},
    };
    const std::string before = snapshot();
    for (const auto& [name, change] : cases) {
        {
            store_transaction txn;
            EXPECT_EQ(0u, change()) << name;
            EXPECT_NE(before, snapshot()) << name;
        }
        EXPECT_EQ(before, snapshot()) << name;
    }
    reopen();
    EXPECT_EQ(before, snapshot());
    for (size_t i : {size_t{0}, kids.size() - 1})  // the records given back go on working
        ASSERT_EQ(0u, S::wud_wud_service_info_delete_link(CMP, cat(i), kids[i]));
    EXPECT_EQ(std::vector<unsigned int>(kids.begin() + 1, kids.end() - 1), children(job));
    std::vector<unsigned int> want[2];  // SET_A, SET_B
    for (size_t i = 1; i + 1 < kids.size(); ++i) want[cat(i) == SET_B].push_back(kids[i]);
    EXPECT_EQ(want[0], children_of(job, JOB, SET_A));
    EXPECT_EQ(want[1], children_of(job, JOB, SET_B));
}

// Writer threads make, link and write pairs of records under one parent, each
// pair inside a transaction that keeps every other pair, delete some pairs in
// another and write members outside one, while a reader counts the children
// and reads the last: the reader waits for each scope (it never sees half a
// pair), every call succeeds, and the parent ends with exactly the children kept.
class StoreConcurrency : public Store {};
INSTANTIATE_TEST_SUITE_P(Backends, StoreConcurrency,
                         ::testing::Values(backend::memory, backend::file), backend_name);

TEST_P(StoreConcurrency, TransactionsWritersAndReadersKeepTreesConsistent) {
    const unsigned int root = make(JOB);
    constexpr int THREADS = 3, ROUNDS = 40;
    std::vector<std::vector<unsigned int>> kept(THREADS);
    std::atomic<bool> reading{true};
    std::atomic<int> faults{0};
    std::thread reader([&] {
        while (reading.load()) {
            unsigned int n = 0, id = 0, category = 0;
            if (S::wud_wud_service_info_get_child_link_num_direct(CMP, root, &n) != 0 || n % 2) {
                faults.fetch_add(1);
            }
            if (n > 0 &&
                S::wud_wud_service_info_get_child_link_direct(CMP, root, n - 1, &id) == 0 &&
                (S::wud_wud_service_info_get_job_category_by_id(CMP, id, &category) != 0 ||
                 read_u32(id, 1) != id)) {
                faults.fetch_add(1);
            }
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < THREADS; ++t) {
        writers.emplace_back([&, t] {
            for (int round = 0; round < ROUNDS; ++round) {
                store_transaction txn;
                unsigned int pair[2] = {0, 0};
                for (unsigned int& id : pair) {
                    store_transaction nested;  // the owner's calls and scopes re-enter
                    const unsigned int category = round % 3 ? SET_A : SET_B;
                    unsigned int rc =
                        S::wud_wud_service_info_make_current(CMP, category, FLAG, &id);
                    rc |= S::wud_wud_service_info_set_current(CMP, id, 1,
                                                              static_cast<unsigned long>(id));
                    rc |= S::wud_wud_service_info_set_link(CMP, JOB, root, category, id);
                    faults += (rc | nested.commit()) != 0;
                }
                if (round % 2 == 0) continue;  // dropped: rolled back
                if (txn.commit() != 0) faults.fetch_add(1);
                for (unsigned int id : pair) {  // outside a transaction
                    faults += S::wud_wud_service_info_set_current(
                                  CMP, id, 1, static_cast<unsigned long>(id)) != 0;
                }
                if (round % 5 != 1) {
                    kept[t].insert(kept[t].end(), pair, pair + 2);
                    continue;
                }
                store_transaction drop;
                for (unsigned int id : pair)
                    faults += S::wud_wud_service_info_delete_current(CMP, id) != 0;
                faults += drop.commit() != 0;
            }
        });
    }
    for (std::thread& w : writers) w.join();
    reading = false;
    reader.join();
    EXPECT_EQ(0, faults.load());
    std::set<unsigned int> expected;
    for (const auto& ids : kept) expected.insert(ids.begin(), ids.end());
    const std::vector<unsigned int> linked = children(root);
    EXPECT_EQ(expected, std::set<unsigned int>(linked.begin(), linked.end()));
    EXPECT_EQ(expected.size(), linked.size());
    EXPECT_EQ(children_of(root, JOB, SET_A).size() + children_of(root, JOB, SET_B).size(),
              linked.size());
}

}  // namespace
