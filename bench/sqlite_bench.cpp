// The persistent record store (SQLite backend) against a minimal hand-written
// SQLite program doing the same logical work on its own file in the same run:
// the same pragmas (WAL, synchronous NORMAL, 32 MiB page cache, busy timeout),
// its statements prepared once, and a minimal schema (records with a parent and
// a slot, one partial index on (parent, slot), members keyed by record and
// member). Every operation runs autocommit (txn:0) and inside one transaction
// (txn:1, committed and begun again untimed every kBatch operations).
// `scripts/bench_report.py` prints each BM_sqlite_* row beside its
// BM_raw_sqlite_* row with the ratio store / raw.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "child_process.h"
#include "host/tev_host_testing.h"
#include "wud_wud_service_info.h"

namespace {

using S = velmora::wud_wud_service_info;

// Figures are taken in a threaded process, as any application is (the C
// library's locks become atomic operations once a thread has started).
const bool g_threads_started = [] {
    std::thread([] {}).join();
    return true;
}();

constexpr unsigned int CMP = 5;
constexpr unsigned int ROOT = 0x4, NODE = 0x8, LEAF = 0x10;  // categories
constexpr unsigned int M1 = 0x00460000, M2 = 0x00460001;     // members
constexpr unsigned int kBatch = 256;
constexpr unsigned int kChildren = 16;  // of each of two categories, for child by order

// The position in a batch of the i-th record an unlink or remove takes: a
// stride through the batch, so that the front, the back and the middle of a
// parent's children are all taken.
unsigned int spread(unsigned int i) {
    return (i * 97) % kBatch;
}

const tevtest::temp_dir& files() {
    static const tevtest::temp_dir dir("tevash_sqlite_bench_");
    return dir;
}

// ---- The hand-written program: one connection, statements prepared once.

class raw_db {
public:
    raw_db() {
        const std::string path = files().path("raw.db");
        ok_ = sqlite3_open_v2(path.c_str(), &db_,
                              SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                              nullptr) == SQLITE_OK;
        sqlite3_busy_timeout(db_, 10000);
        ok_ = ok_ &&
              sqlite3_exec(db_,
                           "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
                           "PRAGMA cache_size = -32768;"
                           "CREATE TABLE records(id INTEGER PRIMARY KEY, category INTEGER NOT NULL,"
                           " parent INTEGER NOT NULL DEFAULT 0, slot INTEGER NOT NULL DEFAULT 0);"
                           "CREATE INDEX children ON records(parent, slot) WHERE parent != 0;"
                           "CREATE TABLE members(record INTEGER NOT NULL, member INTEGER NOT NULL,"
                           " kind INTEGER NOT NULL, value BLOB NOT NULL,"
                           " PRIMARY KEY(record, member)) WITHOUT ROWID;",
                           nullptr, nullptr, nullptr) == SQLITE_OK;
    }
    ~raw_db() {
        for (auto& entry : cache_) sqlite3_finalize(entry.second);
        sqlite3_close(db_);
    }
    bool ok() const { return ok_; }

    // The statement for `sql` (a string literal), prepared on first use.
    sqlite3_stmt* prepared(const char* sql) {
        for (auto& entry : cache_) {
            if (entry.first == sql) return entry.second;
        }
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) !=
            SQLITE_OK) {
            ok_ = false;
            return nullptr;
        }
        cache_.emplace_back(sql, stmt);
        return stmt;
    }
    // Runs `sql` with integer `args`; the first column of its first row, else -1.
    template <typename... Args>
    long long run(const char* sql, Args... args) {
        sqlite3_stmt* stmt = prepared(sql);
        if (stmt == nullptr) return -1;
        int index = 0;
        (sqlite3_bind_int64(stmt, ++index, static_cast<long long>(args)), ...);
        return finish(stmt);
    }
    long long finish(sqlite3_stmt* stmt) {
        long long out = -1;
        const int rc = sqlite3_step(stmt);
        if (rc == SQLITE_ROW) out = sqlite3_column_int64(stmt, 0);
        if (rc != SQLITE_ROW && rc != SQLITE_DONE) ok_ = false;
        sqlite3_reset(stmt);
        return out;
    }
    void begin() { run("BEGIN IMMEDIATE"); }
    void commit() { run("COMMIT"); }
    unsigned int make(unsigned int category) {
        run("INSERT INTO records(category) VALUES(?)", category);
        return static_cast<unsigned int>(sqlite3_last_insert_rowid(db_));
    }
    void link(unsigned int parent, unsigned int child) {
        run("UPDATE records SET parent = ?1, slot = (SELECT coalesce(max(slot), 0) + 1"
            " FROM records WHERE parent = ?1 AND parent != 0) WHERE id = ?2",
            parent, child);
    }
    void set(unsigned int record, unsigned int member, std::uint32_t value) {
        sqlite3_stmt* stmt = prepared(
            "INSERT INTO members(record, member, kind, value) VALUES(?, ?, ?, ?)"
            " ON CONFLICT(record, member) DO UPDATE SET value = excluded.value");
        if (stmt == nullptr) return;
        sqlite3_bind_int64(stmt, 1, record);
        sqlite3_bind_int64(stmt, 2, member);
        sqlite3_bind_int64(stmt, 3, static_cast<long long>(tevhost::member_kind::u32));
        sqlite3_bind_blob(stmt, 4, &value, sizeof value, SQLITE_TRANSIENT);
        finish(stmt);
    }
    std::uint32_t get(unsigned int record, unsigned int member) {
        sqlite3_stmt* stmt =
            prepared("SELECT kind, value FROM members WHERE record = ? AND member = ?");
        std::uint32_t value = 0;
        if (stmt == nullptr) return value;
        sqlite3_bind_int64(stmt, 1, record);
        sqlite3_bind_int64(stmt, 2, member);
        if (sqlite3_step(stmt) == SQLITE_ROW &&
            sqlite3_column_bytes(stmt, 1) == static_cast<int>(sizeof value)) {
            std::memcpy(&value, sqlite3_column_blob(stmt, 1), sizeof value);
        }
        sqlite3_reset(stmt);
        return value;
    }
    void remove(unsigned int record) {
        run("DELETE FROM members WHERE record = ?", record);
        run("UPDATE records SET parent = 0, slot = 0 WHERE parent = ?1 AND parent != 0", record);
        run("DELETE FROM records WHERE id = ?", record);
    }

private:
    sqlite3* db_ = nullptr;
    bool ok_ = false;
    std::vector<std::pair<const char*, sqlite3_stmt*>> cache_;
};

raw_db& raw() {
    static raw_db db;
    return db;
}

// ---- The record store on its own file, through its public operations.

bool store_open() {
    static const bool ok = tevhost::store_use_file(files().path("store.db"));
    return ok;
}

unsigned int make(unsigned int category) {
    unsigned int id = 0;
    S::wud_wud_service_info_make_current(CMP, category, 0, &id);
    return id;
}
void link(unsigned int parent_category, unsigned int parent, unsigned int category,
          unsigned int child) {
    S::wud_wud_service_info_set_link(CMP, parent_category, parent, category, child);
}

// What one side of a figure needs: an open transaction while in one.
struct store_side {
    std::optional<tevhost::store_transaction> txn;
    void begin() { txn.emplace(); }
    void commit() {
        txn->commit();
        txn.reset();
    }
    // Runs `fn` in a transaction of its own (setting up, untimed).
    template <typename Fn>
    void batch(Fn fn) {
        tevhost::store_transaction t;
        fn();
        t.commit();
    }
};
struct raw_side {
    void begin() { raw().begin(); }
    void commit() { raw().commit(); }
    template <typename Fn>
    void batch(Fn fn) {
        raw().begin();
        fn();
        raw().commit();
    }
};

// Runs `op(i)` each iteration, i the position in the current batch. Untimed,
// before each batch of kBatch: the open transaction (txn:1) is committed,
// `refill()` readies the batch in a transaction of its own, and a new one begins.
template <typename Side, typename Refill, typename Op>
void measure(benchmark::State& st, Side& side, Refill refill, Op op) {
    const bool txn = st.range(0) != 0;
    unsigned int i = 0;
    for (auto _ : st) {
        if (i == kBatch || i == 0) {
            st.PauseTiming();
            if (txn && i != 0) side.commit();
            side.batch(refill);
            if (txn) side.begin();
            i = 0;
            st.ResumeTiming();
        }
        op(i++);
    }
    if (txn) side.commit();
}

bool ready(benchmark::State& st) {
    if (store_open() && raw().ok()) return true;
    st.SkipWithError("cannot open the store or the raw database");
    return false;
}

// The records of the previous batch (removed by the next refill), and the
// parent every benchmark links below.
struct records {
    unsigned int root = 0;
    std::vector<unsigned int> ids = std::vector<unsigned int>(kBatch);
    std::vector<unsigned int> extra;  // children left unlinked by a remove
};

// ---- Member read and write of one record.

void BM_sqlite_member_read(benchmark::State& st) {
    if (!ready(st)) return;
    store_side side;
    unsigned int rec = 0;
    std::uint32_t v = 0;
    measure(
        st, side,
        [&] {
            if (rec != 0) return;
            rec = make(LEAF);
            S::wud_wud_service_info_set_current(CMP, rec, M1, 7ul);
        },
        [&](unsigned int) {
            benchmark::DoNotOptimize(S::wud_wud_service_info_get_current(CMP, rec, M1, &v));
        });
}
void BM_raw_sqlite_member_read(benchmark::State& st) {
    if (!ready(st)) return;
    raw_side side;
    unsigned int rec = 0;
    measure(
        st, side,
        [&] {
            if (rec != 0) return;
            rec = raw().make(LEAF);
            raw().set(rec, M1, 7);
        },
        [&](unsigned int) { benchmark::DoNotOptimize(raw().get(rec, M1)); });
}

void BM_sqlite_member_write(benchmark::State& st) {
    if (!ready(st)) return;
    store_side side;
    unsigned int rec = 0;
    unsigned long v = 0;
    measure(
        st, side, [&] { rec = rec != 0 ? rec : make(LEAF); },
        [&](unsigned int) {
            benchmark::DoNotOptimize(S::wud_wud_service_info_set_current(CMP, rec, M1, ++v));
        });
}
void BM_raw_sqlite_member_write(benchmark::State& st) {
    if (!ready(st)) return;
    raw_side side;
    unsigned int rec = 0;
    std::uint32_t v = 0;
    measure(
        st, side, [&] { rec = rec != 0 ? rec : raw().make(LEAF); },
        [&](unsigned int) { raw().set(rec, M1, ++v); });
}

// ---- Create, and create with a link below a parent.

void BM_sqlite_create(benchmark::State& st) {
    if (!ready(st)) return;
    store_side side;
    records r;
    measure(
        st, side,
        [&] {
            for (unsigned int& id : r.ids) S::wud_wud_service_info_delete_current(CMP, id);
        },
        [&](unsigned int i) { r.ids[i] = make(LEAF); });
}
void BM_raw_sqlite_create(benchmark::State& st) {
    if (!ready(st)) return;
    raw_side side;
    records r;
    measure(
        st, side,
        [&] {
            for (unsigned int& id : r.ids) raw().remove(id);
        },
        [&](unsigned int i) { r.ids[i] = raw().make(LEAF); });
}

void BM_sqlite_create_and_link(benchmark::State& st) {
    if (!ready(st)) return;
    store_side side;
    records r;
    measure(
        st, side,
        [&] {
            if (r.root == 0) r.root = make(ROOT);
            for (unsigned int& id : r.ids) S::wud_wud_service_info_delete_current(CMP, id);
        },
        [&](unsigned int i) {
            r.ids[i] = make(LEAF);
            link(ROOT, r.root, LEAF, r.ids[i]);
        });
}
void BM_raw_sqlite_create_and_link(benchmark::State& st) {
    if (!ready(st)) return;
    raw_side side;
    records r;
    measure(
        st, side,
        [&] {
            if (r.root == 0) r.root = raw().make(ROOT);
            for (unsigned int& id : r.ids) raw().remove(id);
        },
        [&](unsigned int i) {
            r.ids[i] = raw().make(LEAF);
            raw().link(r.root, r.ids[i]);
        });
}

// ---- Unlink: a batch of linked children, taken out in a stride.

void BM_sqlite_unlink(benchmark::State& st) {
    if (!ready(st)) return;
    store_side side;
    records r;
    measure(
        st, side,
        [&] {
            if (r.root == 0) r.root = make(ROOT);
            for (unsigned int& id : r.ids) {
                S::wud_wud_service_info_delete_current(CMP, id);
                id = make(LEAF);
                link(ROOT, r.root, LEAF, id);
            }
        },
        [&](unsigned int i) {
            benchmark::DoNotOptimize(
                S::wud_wud_service_info_delete_link(CMP, LEAF, r.ids[spread(i)]));
        });
}
void BM_raw_sqlite_unlink(benchmark::State& st) {
    if (!ready(st)) return;
    raw_side side;
    records r;
    measure(
        st, side,
        [&] {
            if (r.root == 0) r.root = raw().make(ROOT);
            for (unsigned int& id : r.ids) {
                raw().remove(id);
                id = raw().make(LEAF);
                raw().link(r.root, id);
            }
        },
        [&](unsigned int i) {
            // As the store's, it unlinks only a linked record of the category given.
            raw().run(
                "UPDATE records SET parent = 0, slot = 0 WHERE id = ?1 AND category = ?2"
                " AND parent != 0",
                r.ids[spread(i)], LEAF);
        });
}

// ---- Copy of a record's four members onto another record.

void BM_sqlite_copy(benchmark::State& st) {
    if (!ready(st)) return;
    store_side side;
    unsigned int src = 0, dst = 0;
    measure(
        st, side,
        [&] {
            if (src != 0) return;
            src = make(LEAF);
            dst = make(LEAF);
            for (unsigned int m = 0; m < 4; ++m)
                S::wud_wud_service_info_set_current(CMP, src, M1 + m,
                                                    static_cast<unsigned long>(m));
        },
        [&](unsigned int) {
            benchmark::DoNotOptimize(S::wud_wud_service_info_copy_current(CMP, src, dst));
        });
}
void BM_raw_sqlite_copy(benchmark::State& st) {
    if (!ready(st)) return;
    raw_side side;
    const bool txn = st.range(0) != 0;
    unsigned int src = 0, dst = 0;
    measure(
        st, side,
        [&] {
            if (src != 0) return;
            src = raw().make(LEAF);
            dst = raw().make(LEAF);
            for (unsigned int m = 0; m < 4; ++m) raw().set(src, M1 + m, m);
        },
        [&](unsigned int) {
            if (!txn) raw().begin();
            raw().run("DELETE FROM members WHERE record = ?", dst);
            raw().run(
                "INSERT INTO members(record, member, kind, value)"
                " SELECT ?1, member, kind, value FROM members WHERE record = ?2",
                dst, src);
            if (!txn) raw().commit();
        });
}

// ---- Child by order among the children of one category (a parent with
// kChildren of each of two categories, interleaved).

void BM_sqlite_child_by_order(benchmark::State& st) {
    if (!ready(st)) return;
    store_side side;
    unsigned int parent = 0, child = 0;
    measure(
        st, side,
        [&] {
            if (parent != 0) return;
            parent = make(ROOT);
            for (unsigned int k = 0; k < 2 * kChildren; ++k) {
                const unsigned int category = k % 2 ? NODE : LEAF;
                link(ROOT, parent, category, make(category));
            }
        },
        [&](unsigned int i) {
            benchmark::DoNotOptimize(S::wud_wud_service_info_get_child_link(CMP, ROOT, parent, LEAF,
                                                                            i % kChildren, &child));
        });
}
void BM_raw_sqlite_child_by_order(benchmark::State& st) {
    if (!ready(st)) return;
    raw_side side;
    unsigned int parent = 0;
    measure(
        st, side,
        [&] {
            if (parent != 0) return;
            parent = raw().make(ROOT);
            for (unsigned int k = 0; k < 2 * kChildren; ++k) {
                raw().link(parent, raw().make(k % 2 ? NODE : LEAF));
            }
        },
        [&](unsigned int i) {
            benchmark::DoNotOptimize(raw().run(
                "SELECT id FROM records WHERE parent = ?1 AND parent != 0 AND category = ?2"
                " ORDER BY slot LIMIT 1 OFFSET ?3",
                parent, LEAF, i % kChildren));
        });
}

// ---- Remove of a node of a tree: linked below a parent, with two members and
// four children (left unlinked).

void BM_sqlite_remove(benchmark::State& st) {
    if (!ready(st)) return;
    store_side side;
    records r;
    measure(
        st, side,
        [&] {
            if (r.root == 0) r.root = make(ROOT);
            for (unsigned int id : r.extra) S::wud_wud_service_info_delete_current(CMP, id);
            r.extra.clear();
            for (unsigned int& id : r.ids) {
                id = make(NODE);
                link(ROOT, r.root, NODE, id);
                S::wud_wud_service_info_set_current(CMP, id, M1, 1ul);
                S::wud_wud_service_info_set_current(CMP, id, M2, 2ul);
                for (int k = 0; k < 4; ++k) {
                    r.extra.push_back(make(LEAF));
                    link(NODE, id, LEAF, r.extra.back());
                }
            }
        },
        [&](unsigned int i) {
            benchmark::DoNotOptimize(S::wud_wud_service_info_delete_current(CMP, r.ids[spread(i)]));
        });
}
void BM_raw_sqlite_remove(benchmark::State& st) {
    if (!ready(st)) return;
    raw_side side;
    const bool txn = st.range(0) != 0;
    records r;
    measure(
        st, side,
        [&] {
            if (r.root == 0) r.root = raw().make(ROOT);
            for (unsigned int id : r.extra) raw().remove(id);
            r.extra.clear();
            for (unsigned int& id : r.ids) {
                id = raw().make(NODE);
                raw().link(r.root, id);
                raw().set(id, M1, 1);
                raw().set(id, M2, 2);
                for (int k = 0; k < 4; ++k) {
                    r.extra.push_back(raw().make(LEAF));
                    raw().link(id, r.extra.back());
                }
            }
        },
        [&](unsigned int i) {
            if (!txn) raw().begin();
            raw().remove(r.ids[spread(i)]);
            if (!txn) raw().commit();
        });
}

// The fastest and slowest repetitions, beside the median.
double fastest(const std::vector<double>& v) {
    return *std::min_element(v.begin(), v.end());
}
double slowest(const std::vector<double>& v) {
    return *std::max_element(v.begin(), v.end());
}

#define SQLITE_FIGURE(fn)                   \
    BENCHMARK(fn)                           \
        ->ArgName("txn")                    \
        ->Arg(0)                            \
        ->Arg(1)                            \
        ->ComputeStatistics("min", fastest) \
        ->ComputeStatistics("max", slowest)
#define SQLITE_PAIR(name)            \
    SQLITE_FIGURE(BM_sqlite_##name); \
    SQLITE_FIGURE(BM_raw_sqlite_##name)

SQLITE_PAIR(member_read);
SQLITE_PAIR(member_write);
SQLITE_PAIR(create);
SQLITE_PAIR(create_and_link);
SQLITE_PAIR(unlink);
SQLITE_PAIR(copy);
SQLITE_PAIR(child_by_order);
SQLITE_PAIR(remove);

}  // namespace

BENCHMARK_MAIN();
