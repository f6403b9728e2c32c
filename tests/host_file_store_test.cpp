// The persistent record store: killed writers, read-only files, the file after
// exit, backups while two processes write, and the files it refuses to open.
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <tuple>
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

// Forks a child process that runs `body` and exits 0 when it returned true.
pid_t spawn(const std::function<bool()>& body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body() ? 0 : 1);
    return pid;
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
// newer) and no database at all are refused, left byte for byte as they were.
TEST_F(FileStore, FilesThatAreNotRecordStoresAreRefusedUntouched) {
    const std::string text = dir_.path("notes.txt"), foreign = dir_.path("foreign.db");
    const std::string older = dir_.path("v1.db"), newer = dir_.path("v3.db");
    std::ofstream(text) << "not a database at all, but long enough to look like one\n";
    ASSERT_THAT(raw_sql(foreign, "CREATE TABLE t(x); INSERT INTO t VALUES(5)"), ElementsAre());
    open();
    store_use_memory();  // closed: the file alone holds the store
    for (const auto& [file, version] : {std::pair{older, "1"}, std::pair{newer, "3"}}) {
        std::ofstream(file, std::ios::binary) << file_text(path());
        ASSERT_THAT(raw_sql(file, std::string("PRAGMA user_version = ") + version), ElementsAre());
    }
    make(JOB);  // in the memory store, which must stay in use
    const std::tuple<std::string, store_access, const char*> cases[] = {
        {dir_.path("missing/store.db"), store_access::read_write, "unable to open"},
        {dir_.path("missing.db"), store_access::read_only, "unable to open"},
        {text, store_access::read_write, "not a database"},
        {foreign, store_access::read_write, "not a record store"},
        {foreign, store_access::read_only, "not a record store"},
        {older, store_access::read_write, "version 1 is not supported"},
        {older, store_access::read_only, "version 1 is not supported"},
        {newer, store_access::read_write, "version 3 is not supported"},
        {newer, store_access::read_only, "version 3 is not supported"},
    };
    for (const auto& [file, access, words] : cases) {
        std::string before = file_text(file), error;
        EXPECT_FALSE(store_use_file(file, &error, access)) << file;
        EXPECT_THAT(error, HasSubstr(words)) << file;
        EXPECT_EQ(before, file_text(file)) << file;
        // No log written (a read-only look at a file in WAL mode leaves an empty one).
        EXPECT_EQ("", file_text(file + "-wal")) << file;
    }
    EXPECT_THAT(raw_sql(foreign, "SELECT x FROM t"), ElementsAre("5"));
    EXPECT_THAT(raw_sql(foreign, "PRAGMA journal_mode"), ElementsAre("delete"));
    EXPECT_EQ(1u, store_records().size());
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
        pid_t pid = spawn([&] {
            if (!store_use_file(path())) return false;
            for (unsigned int g = 1;; ++g) {
                if (!generation(g) || write(progress[1], "x", 1) != 1) return false;
            }
        });
        ASSERT_GE(pid, 0);
        close(progress[1]);
        char bytes[8];
        ssize_t got = read(progress[0], bytes, 1 + round % 8);  // a few commits in
        kill(pid, SIGKILL);
        close(progress[0]);
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
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
    int status = 0;
    waitpid(spawn([&] {
                if (!store_use_file(path()) || !write_records(root, 60)) return false;
                std::exit(0);  // a normal exit, with its exit handlers
            }),
            &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_NE(0, access((path() + "-wal").c_str(), F_OK));
    const std::string copy = dir_.path("copy.db"), backup = dir_.path("backup.db");
    std::ofstream(copy, std::ios::binary) << file_text(path());
    ASSERT_TRUE(store_use_file(copy));
    EXPECT_EQ(40u, children(root).size());

    ASSERT_TRUE(store_use_file(path()));
    int progress[2];
    ASSERT_EQ(0, pipe(progress));
    pid_t writer =
        spawn([&] { return store_use_file(path()) && write_records(root, 1000000, progress[1]); });
    close(progress[1]);
    char byte = 0;
    ASSERT_EQ(1, read(progress[0], &byte, 1));
    EXPECT_TRUE(write_records(root, 60));  // two processes writing at once
    std::string error;
    EXPECT_TRUE(store_backup(backup, &error)) << error;
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    close(progress[0]);
    EXPECT_FALSE(store_backup(backup, &error));  // never over an existing file
    EXPECT_THAT(error, HasSubstr("exists"));
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

}  // namespace
