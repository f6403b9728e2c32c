// The persistent record store: killed writers, read-only files, the file after
// exit, backups while two processes write, and the files it refuses to open.
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "tev_test_support.h"
#include "wud_wud_service_info.h"

namespace {

using tevtest::file_text;

using S = velmora::wud_wud_service_info;
using namespace tevhost;
using namespace tevtest::records;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class FileStore : public ::testing::Test {
protected:
    ~FileStore() override { store_use_memory(); }  // closes the database
    std::string path() const { return dir_.path("store.db"); }
    void open() {
        std::string error;
        ASSERT_TRUE(store_use_file(path(), &error)) << error;
    }

    tevtest::fresh_store store_;
    tevtest::temp_dir dir_;
};

// Runs `sql` on the file through a connection of its own; returns the first
// column of every row, or "error: ..." on failure.
std::vector<std::string> raw_sql(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    std::vector<std::string> rows;
    auto collect = [](void* out, int, char** values, char**) {
        static_cast<std::vector<std::string>*>(out)->push_back(values[0] ? values[0] : "NULL");
        return 0;
    };
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
        sqlite3_exec(db, sql.c_str(), collect, &rows, nullptr) != SQLITE_OK) {
        rows = {std::string("error: ") + sqlite3_errmsg(db)};
    }
    sqlite3_close(db);
    return rows;
}

// A child process that runs `body` and exits 0 when it returned true.
tevtest::child_process spawn(const std::function<bool()>& body) {
    return tevtest::child_process([&] { return body() ? 0 : 1; });
}

// Makes `count` records linked below `root`, each holding its own id in member
// 1, and deletes every third one again; writes a byte to `progress` (unless -1)
// after the first twenty.
bool write_records(unsigned int root, unsigned int count, int progress = -1) {
    for (unsigned int i = 0; i < count; ++i) {
        store_transaction txn;  // a record is seen whole, or not at all
        unsigned int id = 0;
        const unsigned int category = i % 2 ? SET_A : SET_B;
        unsigned int rc = S::wud_wud_service_info_make_current(CMP, category, 0, &id);
        rc |= S::wud_wud_service_info_set_link(CMP, JOB, root, category, id);
        rc |= S::wud_wud_service_info_set_current(CMP, id, 1, static_cast<unsigned long>(id));
        if (i % 3 == 0) rc |= S::wud_wud_service_info_delete_current(CMP, id);
        if ((rc | txn.commit()) != 0) return false;
        if (i == 20 && progress != -1 && write(progress, "x", 1) != 1) return false;
    }
    return true;
}

// Files of another application, of another record store version (older and
// newer), empty files and no database at all are refused, left byte for byte as
// they were; no store is made through a dangling link.
TEST_F(FileStore, FilesThatAreNotRecordStoresAreRefusedUntouched) {
    const std::string text = dir_.path("notes.txt"), foreign = dir_.path("foreign.db");
    const std::string older = dir_.path("v1.db"), newer = dir_.path("v6.db");
    const std::string empty = dir_.path("empty.db"), dangling = dir_.path("dangling.db");
    std::ofstream(text) << "not a database at all, but long enough to look like one\n";
    std::ofstream{empty};
    ASSERT_EQ(0, symlink(dir_.path("nowhere.db").c_str(), dangling.c_str()));
    ASSERT_THAT(raw_sql(foreign, "CREATE TABLE t(x); INSERT INTO t VALUES(5)"), ElementsAre());
    open();
    store_use_memory();  // closed: the file alone holds the store
    for (const auto& [file, version] : {std::pair{older, "1"}, std::pair{newer, "6"}}) {
        std::ofstream(file, std::ios::binary) << file_text(path());
        ASSERT_THAT(raw_sql(file, std::string("PRAGMA user_version = ") + version), ElementsAre());
    }
    make(JOB);  // in the memory store, which must stay in use
    const std::tuple<std::string, store_access, const char*> cases[] = {
        {dir_.path("missing/store.db"), store_access::read_write, "unable to open"},
        {dir_.path("missing.db"), store_access::read_only, "unable to open"},
        {text, store_access::read_write, "not a database"},
        {empty, store_access::read_write, "not a record store"},
        {empty, store_access::read_only, "not a record store"},
        {dangling, store_access::read_write, "symbolic link to a missing file"},
        {foreign, store_access::read_write, "not a record store"},
        {foreign, store_access::read_only, "not a record store"},
        {older, store_access::read_write, "version 1 is not supported"},
        {older, store_access::read_only, "version 1 is not supported"},
        {newer, store_access::read_write, "version 6 is not supported"},
        {newer, store_access::read_only, "version 6 is not supported"},
    };
    for (const auto& [file, access, words] : cases) {
        std::string before = file_text(file), error;
        EXPECT_FALSE(store_use_file(file, &error, access)) << file;
        EXPECT_THAT(error, HasSubstr(words)) << file;
        EXPECT_EQ(before, file_text(file)) << file;
        // No log written (a read-only look at a file in WAL mode leaves an empty one).
        EXPECT_EQ("", file_text(file + "-wal")) << file;
    }
    EXPECT_NE(0, access(dir_.path("nowhere.db").c_str(), F_OK));
    EXPECT_THAT(raw_sql(foreign, "SELECT x FROM t"), ElementsAre("5"));
    EXPECT_THAT(raw_sql(foreign, "PRAGMA journal_mode"), ElementsAre("delete"));
    EXPECT_EQ(1u, store_records().size());
}

// A store of version 2 (built here as that release wrote it: next_id
// the first id not handed out, every record indexed) reads as it is when opened
// read-only, and is migrated when opened to write: records, order and members
// stay, and no id it handed out is handed out again, nor the largest one after
// it is removed.
TEST_F(FileStore, PreviousVersionFilesAreReadAndMigrated) {
    const std::string v2 = std::string(
        "PRAGMA journal_mode = WAL; PRAGMA application_id = 1413830227;"
        "PRAGMA user_version = 2; CREATE TABLE meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL);"
        "CREATE TABLE records(id INTEGER PRIMARY KEY, category INTEGER NOT NULL,"
        " parent INTEGER NOT NULL DEFAULT 0, slot INTEGER NOT NULL DEFAULT 0,"
        " category_slot INTEGER NOT NULL DEFAULT 0);"
        "CREATE INDEX records_by_slot ON records(parent, slot);"
        "CREATE INDEX records_by_category_slot ON records(parent, category, category_slot);"
        "CREATE TABLE lists(parent INTEGER NOT NULL, category INTEGER NOT NULL, used INTEGER NOT"
        " NULL, live INTEGER NOT NULL, top INTEGER NOT NULL, skipped INTEGER NOT NULL, head"
        " INTEGER NOT NULL, PRIMARY KEY(parent, category)) WITHOUT ROWID;"
        "CREATE TABLE holes(parent INTEGER NOT NULL, category INTEGER NOT NULL, node INTEGER NOT"
        " NULL, count INTEGER NOT NULL, PRIMARY KEY(parent, category, node)) WITHOUT ROWID;"
        "CREATE TABLE members(record INTEGER NOT NULL, member INTEGER NOT NULL, kind INTEGER NOT"
        " NULL, value BLOB NOT NULL, PRIMARY KEY(record, member)) WITHOUT ROWID;"
        "INSERT INTO meta VALUES('next_id', 90000);"  // 4 made, 5..89999 made and removed
        "INSERT INTO records VALUES(1, 4, 0, 0, 0), (2, 8, 1, 1, 1), (3, 16, 1, 2, 1),"
        " (4, 8, 1, 4, 2);"  // a hole at slot 3
        "INSERT INTO lists VALUES(1, 0, 4, 3, 4, 0, 1), (1, 8, 2, 2, 2, 0, 1), (1, 16, 1, 1, 1, 0, "
        "1); INSERT INTO holes VALUES(1, 0, 3, 1), (1, 0, 4, 1);"
        "INSERT INTO members VALUES(4, 1, 5, x'07000000');");
    ASSERT_THAT(raw_sql(path(), v2), ElementsAre("wal"));
    for (store_access access : {store_access::read_only, store_access::read_write}) {
        std::string error;
        ASSERT_TRUE(store_use_file(path(), &error, access)) << error;
        unsigned int second_a = 0;
        EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link(CMP, JOB, 1, SET_A, 1, &second_a));
        EXPECT_EQ(4u, second_a);
        EXPECT_THAT(children(1), ElementsAre(2u, 3u, 4u));
        EXPECT_EQ(7u, read_u32(4, 1));
        store_use_memory();
        EXPECT_THAT(raw_sql(path(), "PRAGMA user_version"),
                    ElementsAre(access == store_access::read_only ? "2" : "5"));
    }
    EXPECT_THAT(
        raw_sql(path(), "SELECT count(*) FROM sqlite_master WHERE sql LIKE '%WHERE % != 0'"),
        ElementsAre("2"));
    open();
    const unsigned int made = make(SET_B);
    EXPECT_GE(made, 90000u);
    EXPECT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, made));
    EXPECT_THAT(raw_sql(path(), "SELECT value FROM meta"), ElementsAre(std::to_string(made + 1)));
    {  // nor inside one transaction, after the largest record made in it went
        store_transaction txn;
        const unsigned int before = make(SET_B), last = make(SET_B);
        EXPECT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, last));
        const unsigned int after = make(SET_B);
        EXPECT_GT(after, last);
        EXPECT_EQ(0u, txn.commit());
        EXPECT_EQ(SET_B, category_of(before));
        EXPECT_EQ(SET_B, category_of(after));
    }
}

// Lists with holes cross the small list limit both ways (packed, large, holes
// counted in batches, packed small again, large again), and through version 4
// and 3 files, read as they are, then migrated. Every child by order and count
// stays right all along.
TEST_F(FileStore, ListsCrossTheSmallListLimitAndMigrate) {
    open();
    const unsigned int job = make(JOB);
    std::vector<unsigned int> model;
    auto check = [&](const char* when, const char* large) {  // large: lists with a row
        ASSERT_EQ(model, children(job)) << when;
        for (unsigned int category : {SET_A, SET_B}) {
            unsigned int n = 0, id = 0, order = 0;
            EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link_num(CMP, JOB, job, category, &n));
            for (unsigned int want : model) {
                if (category_of(want) != category) continue;
                EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link(CMP, JOB, job, category,
                                                                     order++, &id));
                EXPECT_EQ(want, id) << when << " category " << category;
            }
            EXPECT_EQ(order, n) << when << " category " << category;
        }
        const char* const rows = "SELECT count(*) FROM lists WHERE top != 0";
        EXPECT_THAT(raw_sql(path(), rows), ElementsAre(large)) << when;
    };
    auto step = [&](int links, unsigned int unlinks, const char* when, const char* large) {
        store_transaction txn;
        for (int i = 0; i < links; ++i) link(job, model.emplace_back(make(i % 2 ? SET_A : SET_B)));
        for (unsigned int i = 0; i < unlinks; ++i) {
            const auto at = model.begin() + (i * 97) % model.size();
            ASSERT_EQ(0u, S::wud_wud_service_info_delete_link(CMP, category_of(*at), *at));
            model.erase(at);
        }
        EXPECT_EQ(0u, txn.commit());
        check(when, large);
    };
    // A file as an older release left it, read as it is, then migrated.
    auto as_version = [&](const char* version, const char* change, const char* large_read,
                          const char* large_migrated) {
        store_use_memory();
        ASSERT_THAT(raw_sql(path(), std::string("DROP TRIGGER records_removed;"
                                                "DROP TRIGGER records_removed_parent;") +
                                        change + "PRAGMA user_version = " + version),
                    ElementsAre());
        for (store_access access : {store_access::read_only, store_access::read_write}) {
            std::string error;
            ASSERT_TRUE(store_use_file(path(), &error, access)) << error;
            const bool read = access == store_access::read_only;
            check(version, read ? large_read : large_migrated);
            store_use_memory();
            EXPECT_THAT(raw_sql(path(), "PRAGMA user_version"), ElementsAre(read ? version : "5"));
        }
        open();
    };
    step(400, 120, "small with holes", "0");
    EXPECT_THAT(raw_sql(path(), "SELECT count(*) FROM records WHERE category_slot != 0"),
                ElementsAre("0"));
    // Version 4 numbered every linked child in its category.
    as_version("4",
               "UPDATE records SET category_slot = (SELECT count(*) FROM records s"
               " WHERE s.parent = records.parent AND s.category = records.category"
               " AND s.slot <= records.slot) WHERE parent != 0;",
               "0", "0");
    EXPECT_THAT(raw_sql(path(), "SELECT count(*) FROM records WHERE category_slot != 0"),
                ElementsAre("0"));
    step(1000, 200, "large with holes", "3");
    // Version 3 kept a row for every list; its small ones go when migrated.
    as_version("3", "", "3", "3");
    step(0, 900, "packed small again", "0");
    step(600, 0, "large again", "1");
}

// A writer killed at many points while it replaces a job's children inside
// transactions (the store work of a copy) and makes and links a record (that
// of a create with a parent): every round leaves the job with exactly the old
// or exactly the new children, and no record made but not linked.
TEST_F(FileStore, KilledTransactionsLeaveAllOrNothing) {
    open();
    const unsigned int root = make(ROOT), job = make(JOB);
    link(root, job);
    store_use_memory();  // no open connection crosses the fork
    constexpr unsigned int kChildren = 40;
    auto generation = [&](unsigned int g) {  // nonzero rc: some call failed
        store_transaction txn;
        unsigned int n = 0, child = 0, made = 0;
        unsigned int rc = S::wud_wud_service_info_get_child_link_num_direct(CMP, job, &n);
        for (unsigned int i = 0; i < n; ++i) {
            rc |= S::wud_wud_service_info_get_child_link_direct(CMP, job, 0, &child);
            rc |= S::wud_wud_service_info_delete_current(CMP, child);
        }
        for (unsigned int i = 0; i < kChildren; ++i) {
            rc |= S::wud_wud_service_info_make_current(CMP, SET_A, 0, &child);
            rc |= S::wud_wud_service_info_set_current(CMP, child, 1, static_cast<unsigned long>(g));
            rc |= S::wud_wud_service_info_set_link(CMP, JOB, job, SET_A, child);
        }
        rc |= S::wud_wud_service_info_make_current(CMP, SET_B, 0, &made);
        rc |= S::wud_wud_service_info_set_link(CMP, ROOT, root, SET_B, made);
        return rc == 0 && txn.commit() == 0;
    };
    for (int round = 0; round < 12; ++round) {
        int progress[2];
        ASSERT_EQ(0, pipe(progress));
        tevtest::child_process writer = spawn([&] {
            if (!store_use_file(path())) return false;
            for (unsigned int g = 1;; ++g) {
                if (!generation(g) || write(progress[1], "x", 1) != 1) return false;
            }
        });
        ASSERT_TRUE(writer.started());
        close(progress[1]);
        char bytes[8];
        ssize_t got = read(progress[0], bytes, 1 + round % 8);  // a few commits in
        const int status = writer.kill(SIGKILL);
        close(progress[0]);
        ASSERT_GE(got, 1) << "the writer stopped early, status " << status;

        EXPECT_THAT(raw_sql(path(), "PRAGMA integrity_check"), ElementsAre("ok"));
        open();
        std::vector<unsigned int> kids = children(job);
        ASSERT_EQ(kChildren, kids.size()) << round;
        for (unsigned int id : kids) EXPECT_EQ(read_u32(kids[0], 1), read_u32(id, 1)) << round;
        for (const record_info& r : store_records()) {
            EXPECT_TRUE(r.handler_id == root || r.parent_id != 0) << round << " " << r.handler_id;
        }
        store_use_memory();
    }
}

// A read-only store reads and refuses every change with STORE_READ_ONLY,
// leaving the file as it was: opened so on request, or when the user may not
// write the file.
TEST_F(FileStore, ReadOnlyStoresReadAndRefuseChanges) {
    open();
    const unsigned int job = make(JOB), set = make(SET_A);
    link(job, set);
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, set, 1, 5ul));
    store_use_memory();  // closed: the file alone holds everything
    const std::string before = file_text(path());
    for (bool by_mode : {false, true}) {
        if (by_mode && geteuid() == 0) continue;  // root may write any file
        ASSERT_EQ(0, chmod(path().c_str(), by_mode ? 0444 : 0644));
        std::string error;
        ASSERT_TRUE(store_use_file(path(), &error,
                                   by_mode ? store_access::read_write : store_access::read_only))
            << error;
        EXPECT_TRUE(store_read_only());
        store_transaction txn;  // reads one snapshot
        unsigned int out = SENTINEL;
        const unsigned int refused[] = {
            S::wud_wud_service_info_make_current(CMP, JOB, 0, &out),
            S::wud_wud_service_info_set_current(CMP, set, 1, 6ul),
            S::wud_wud_service_info_delete_link(CMP, SET_A, set),
            S::wud_wud_service_info_delete_current(CMP, set),
            set_member_value(set, {2, member_kind::u8, 1, {1}}),
        };
        for (unsigned int rc : refused) EXPECT_EQ(STORE_READ_ONLY, rc);
        EXPECT_EQ(SENTINEL, out);
        EXPECT_THAT(children(job), ElementsAre(set));
        EXPECT_EQ(5u, read_u32(set, 1));
        EXPECT_EQ(0u, txn.commit());
    }
    store_use_memory();
    EXPECT_FALSE(store_read_only());
    EXPECT_EQ(before, file_text(path()));
}

// A process that exits normally leaves the file whole (the log written back),
// and a backup taken while another process writes is a sound, consistent store.
TEST_F(FileStore, ExitLeavesTheFileWholeAndBackupsAreConsistent) {
    open();
    const unsigned int root = make(JOB);
    store_use_memory();
    ASSERT_EQ(0, spawn([&] {
                     if (!store_use_file(path()) || !write_records(root, 60)) return false;
                     std::exit(0);  // a normal exit, with its exit handlers
                 }).wait());
    EXPECT_NE(0, access((path() + "-wal").c_str(), F_OK));
    const std::string copy = dir_.path("copy.db"), backup = dir_.path("backup.db");
    std::ofstream(copy, std::ios::binary) << file_text(path());
    ASSERT_TRUE(store_use_file(copy));
    EXPECT_EQ(40u, children(root).size());

    ASSERT_TRUE(store_use_file(path()));
    const std::string copy_text = file_text(copy);
    // A name planted where a copy used to be made first is never written through.
    ASSERT_EQ(0, symlink(copy.c_str(), (backup + ".part").c_str()));
    ASSERT_EQ(0, symlink(dir_.path("nowhere.db").c_str(), dir_.path("link.db").c_str()));
    int progress[2];
    ASSERT_EQ(0, pipe(progress));
    tevtest::child_process writer =
        spawn([&] { return store_use_file(path()) && write_records(root, 1000000, progress[1]); });
    close(progress[1]);
    char byte = 0;
    ASSERT_EQ(1, read(progress[0], &byte, 1));
    EXPECT_TRUE(write_records(root, 60));  // two processes writing at once
    std::string error;
    EXPECT_TRUE(store_backup(backup, &error)) << error;
    writer.kill(SIGKILL);
    close(progress[0]);
    for (const std::string& taken : {backup, dir_.path("link.db")}) {
        EXPECT_FALSE(store_backup(taken, &error));  // never over an existing name
        EXPECT_THAT(error, HasSubstr("exists"));
    }
    EXPECT_NE(0, access(dir_.path("nowhere.db").c_str(), F_OK));
    EXPECT_EQ(copy_text, file_text(copy));
    store_use_memory();
    EXPECT_FALSE(store_backup(dir_.path("other.db"), &error));
    EXPECT_NE(0, access(dir_.path("other.db").c_str(), F_OK));

    EXPECT_THAT(raw_sql(backup, "PRAGMA integrity_check"), ElementsAre("ok"));
    ASSERT_TRUE(store_use_file(backup));
    std::vector<unsigned int> linked = children(root);
    EXPECT_GT(linked.size(), 80u);
    EXPECT_EQ(linked.size(), std::set<unsigned int>(linked.begin(), linked.end()).size());
    for (unsigned int id : linked) EXPECT_EQ(id, read_u32(id, 1));
    EXPECT_GT(make(JOB), *std::max_element(linked.begin(), linked.end()));  // ids never reused
}

// Eight processes opening one brand-new store file at once all open it, whatever
// the timing: one makes it, the others open that one.
TEST_F(FileStore, ProcessesCreatingOneStoreAtOnceAllOpenIt) {
    for (int round = 0; round < 20; ++round) {
        const std::string file = dir_.path(std::to_string(round) + ".db");
        int gate[2];
        ASSERT_EQ(0, pipe(gate));
        std::vector<tevtest::child_process> openers;
        for (int p = 0; p < 8; ++p) {
            openers.push_back(spawn([&] {
                char byte = 0;
                unsigned int id = 0;
                std::string error;
                close(gate[1]);
                const bool ok = read(gate[0], &byte, 1) == 0 && store_use_file(file, &error) &&
                                S::wud_wud_service_info_make_current(CMP, JOB, 0, &id) == 0;
                std::fprintf(stderr, "%s", error.c_str());
                store_use_memory();
                return ok;
            }));
        }
        close(gate[0]);
        close(gate[1]);  // opens the gate
        for (tevtest::child_process& opener : openers) EXPECT_EQ(0, opener.wait()) << round;
        ASSERT_TRUE(store_use_file(file));
        EXPECT_EQ(8u, store_records().size()) << round;
    }
}

// A full disk (here the file size limit of a child process) is said in words
// with STORE_IO; no new store or backup is left half made, and the store closed
// after the failure leaves nothing beside it.
TEST_F(FileStore, DiskFullIsSaidInWordsAndLeavesNothingBehind) {
    open();
    const unsigned int job = make(JOB);
    store_use_memory();
    EXPECT_EQ(
        0, spawn([&] {
               trace_capture trace;
               std::string made, copied, said;
               rlimit limit{};
               if (!store_use_file(path()) || getrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
               signal(SIGXFSZ, SIG_IGN);
               const rlim_t was = std::exchange(limit.rlim_cur, 16 * 1024);  // below the store
               setrlimit(RLIMIT_FSIZE, &limit);
               const bool refused =
                   !store_use_file(dir_.path("new.db"), &made) &&
                   !store_backup(dir_.path("copy.db"), &copied) &&
                   set_member_value(job, {1, member_kind::bytes, 9000,
                                          std::vector<unsigned char>(9000)}) == STORE_IO;
               limit.rlim_cur = was;  // room again
               setrlimit(RLIMIT_FSIZE, &limit);
               store_use_memory();
               for (const trace_line& line : trace.lines()) said += line.text;
               std::fprintf(stderr, "%s\n%s\n%s", made.c_str(), copied.c_str(), said.c_str());
               return refused &&
                      said.find("disk full while writing store " + path()) != std::string::npos &&
                      made.find("disk full while writing store ") == 0 &&
                      copied.find("disk full while writing backup ") == 0;
           }).wait());
    EXPECT_EQ(0, system(("test \"$(ls -A " + dir_.dir() + ")\" = store.db").c_str()));
    EXPECT_THAT(raw_sql(path(), "PRAGMA integrity_check"), ElementsAre("ok"));
    open();
    EXPECT_EQ(JOB, category_of(job));
}

}  // namespace
