// The persistent record store: ids and writes shared by two processes, a killed
// writer, database failures, and the files it refuses to open.
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/tev_host.h"
#include "tev_test_support.h"
#include "wud_wud_service_info.h"

namespace {

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

std::string file_text(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// Runs `sql` on the file through a connection of its own; returns the first
// column of every row, or "error: ..." on failure.
std::vector<std::string> raw_sql(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    std::vector<std::string> rows;
    char* error = nullptr;
    auto collect = [](void* out, int, char** values, char**) {
        static_cast<std::vector<std::string>*>(out)->push_back(values[0] ? values[0] : "NULL");
        return 0;
    };
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
        sqlite3_exec(db, sql.c_str(), collect, &rows, &error) != SQLITE_OK) {
        rows = {std::string("error: ") + (error ? error : sqlite3_errmsg(db))};
        sqlite3_free(error);
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

bool exited_ok(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Makes `count` records linked below `root`, each holding its own id in member
// 1, and deletes every third one again when `delete_some`; writes a byte to
// `progress` (unless -1) after the first twenty.
bool write_records(unsigned int root, unsigned int count, bool delete_some, int progress = -1) {
    for (unsigned int i = 0; i < count; ++i) {
        unsigned int id = 0;
        const unsigned int category = i % 2 ? SET_A : SET_B;
        if (S::wud_wud_service_info_make_current(CMP, category, 0, &id) != 0 ||
            S::wud_wud_service_info_set_link(CMP, JOB, root, category, id) != 0 ||
            S::wud_wud_service_info_set_current(CMP, id, 1, static_cast<unsigned long>(id)) != 0 ||
            (delete_some && i % 3 == 0 && S::wud_wud_service_info_delete_current(CMP, id) != 0)) {
            return false;
        }
        if (i == 20 && progress != -1 && write(progress, "x", 1) != 1) return false;
    }
    return true;
}

TEST_F(FileStore, TwoProcessesShareIdsAndWritesOfOneFile) {
    open();
    unsigned int root = make(JOB);
    store_use_memory();  // no open connection crosses the fork
    constexpr unsigned int kEach = 150;
    int go[2];
    ASSERT_EQ(0, pipe(go));
    pid_t pid = spawn([&] {
        char byte = 0;
        return store_use_file(path()) && read(go[0], &byte, 1) == 1 &&
               write_records(root, kEach, false);
    });
    ASSERT_GE(pid, 0);
    open();
    ASSERT_EQ(1, write(go[1], "x", 1));
    EXPECT_TRUE(write_records(root, kEach, false));
    EXPECT_TRUE(exited_ok(pid));
    close(go[0]);
    close(go[1]);

    std::vector<unsigned int> linked = children(root);
    EXPECT_EQ(2 * kEach, linked.size());
    EXPECT_EQ(2 * kEach, std::set<unsigned int>(linked.begin(), linked.end()).size());
    for (unsigned int id : linked) EXPECT_EQ(id, read_u32(id, 1));
    EXPECT_GT(make(JOB), *std::max_element(linked.begin(), linked.end()));
}

TEST_F(FileStore, TheLastIdIsHandedOutOnceThenMakingFails) {
    open();
    store_use_memory();
    ASSERT_THAT(raw_sql(path(), "UPDATE meta SET value = 4294967295 WHERE key = 'next_id'"),
                ElementsAre());
    // Using up the ids would spoil this process for later tests: a child does it.
    EXPECT_TRUE(exited_ok(spawn([&] {
        unsigned int last = 0, none = SENTINEL;
        bool ok =
            store_use_file(path()) &&
            S::wud_wud_service_info_make_current(CMP, JOB, 0, &last) == 0 && last == 0xFFFFFFFFu &&
            S::wud_wud_service_info_make_current(CMP, JOB, 0, &none) == STORE_IO &&
            S::wud_wud_service_info_make_and_copy_current(CMP, JOB, 0, last, &none) == STORE_IO &&
            none == SENTINEL && store_records().size() == 1;
        store_use_memory();
        return ok && S::wud_wud_service_info_make_current(CMP, JOB, 0, &none) == STORE_IO;
    })));
}

TEST_F(FileStore, FilesThatAreNotRecordStoresAreRefusedUntouched) {
    const std::string text = dir_.path("notes.txt"), foreign = dir_.path("foreign.db");
    const std::string newer = dir_.path("newer.db");
    std::ofstream(text) << "not a database at all, but long enough to look like one\n";
    ASSERT_THAT(raw_sql(foreign, "CREATE TABLE t(x); INSERT INTO t VALUES(5)"), ElementsAre());
    open();
    store_use_memory();
    unsigned int kept = make(JOB);  // in the memory store, which must stay in use
    ASSERT_THAT(raw_sql(path(), "PRAGMA user_version = 9"), ElementsAre());
    ASSERT_EQ(0, rename(path().c_str(), newer.c_str()));

    const std::pair<std::string, const char*> cases[] = {
        {"", "empty path"},
        {dir_.path("missing/store.db"), "unable to open"},
        {dir_.dir(), "unable to open"},
        {text, "not a database"},
        {foreign, "not a record store"},
        {newer, "version 9 is not supported"},
    };
    for (const auto& c : cases) {
        std::string before = file_text(c.first), error;
        struct stat st;
        EXPECT_FALSE(store_use_file(c.first, &error)) << c.first;
        EXPECT_THAT(error, HasSubstr(c.second)) << c.first;
        EXPECT_EQ(before, file_text(c.first)) << c.first;
        EXPECT_NE(0, stat((c.first + "-wal").c_str(), &st)) << c.first;
    }
    EXPECT_THAT(raw_sql(foreign, "SELECT x FROM t"), ElementsAre("5"));
    EXPECT_THAT(raw_sql(foreign, "PRAGMA journal_mode"), ElementsAre("delete"));
    unsigned int category = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_job_category_by_id(CMP, kept, &category));
}

TEST_F(FileStore, DatabaseFailuresRollBackAndWriteNoOutValue) {
    open();
    unsigned int src = make(SET_A), dst = make(SET_A), job = make(JOB), out = SENTINEL;
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, src, 7, 70ul));
    link(job, dst);
    std::vector<record_info> before = store_records();

    // Another writer breaks the member table under the store.
    ASSERT_THAT(raw_sql(path(), "ALTER TABLE members RENAME TO members_away"), ElementsAre());
    unsigned char value[4] = {1, 2, 3, 4};
    EXPECT_EQ(STORE_IO, S::wud_wud_service_info_make_and_copy_current(CMP, SET_B, 0, src, &out));
    EXPECT_EQ(STORE_IO, S::wud_wud_service_info_get_current(CMP, src, 7, value));
    EXPECT_EQ(STORE_IO, S::wud_wud_service_info_delete_current(CMP, dst));
    EXPECT_EQ(STORE_IO, S::wud_wud_service_info_copy_current(CMP, src, dst));
    EXPECT_EQ(SENTINEL, out);
    EXPECT_EQ(1, value[0]);

    std::vector<record_info> after = store_records();
    ASSERT_EQ(before.size(), after.size());
    for (size_t i = 0; i < before.size(); ++i) {
        EXPECT_EQ(before[i].handler_id, after[i].handler_id);
        EXPECT_EQ(before[i].parent_id, after[i].parent_id);
    }
    ASSERT_THAT(raw_sql(path(), "ALTER TABLE members_away RENAME TO members"), ElementsAre());
    EXPECT_EQ(70u, read_u32(src, 7));
}

TEST_F(FileStore, KilledWriterLeavesASoundDatabase) {
    open();
    unsigned int root = make(JOB);
    store_use_memory();  // no open connection crosses the fork

    for (int round = 0; round < 3; ++round) {
        int progress[2];
        ASSERT_EQ(0, pipe(progress));
        pid_t pid = spawn([&] {
            return store_use_file(path()) && write_records(root, 1000000, true, progress[1]);
        });
        ASSERT_GE(pid, 0);
        close(progress[1]);
        char byte = 0;
        ssize_t got = read(progress[0], &byte, 1);
        close(progress[0]);
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        ASSERT_EQ(1, got) << "the writer stopped early, status " << status;
        ASSERT_TRUE(WIFSIGNALED(status));

        EXPECT_THAT(raw_sql(path(), "PRAGMA integrity_check"), ElementsAre("ok"));
        open();
        std::vector<record_info> records = store_records();
        std::set<unsigned int> expected;
        for (const record_info& r : records) {
            if (r.handler_id == root) continue;
            unsigned char value[4];
            if (S::wud_wud_service_info_get_current(CMP, r.handler_id, 1, value) == 0) {
                EXPECT_EQ(r.handler_id, read_u32(r.handler_id, 1));
            }
            if (r.parent_id == root) {
                expected.insert(r.handler_id);
                continue;
            }
            // Only the last record made may be unlinked, when the kill came between
            // its making and its linking; it would spoil the next round's check.
            EXPECT_EQ(0u, r.parent_id);
            EXPECT_EQ(r.handler_id, records.back().handler_id);
            EXPECT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, r.handler_id));
        }
        std::vector<unsigned int> linked = children(root);
        EXPECT_EQ(expected, std::set<unsigned int>(linked.begin(), linked.end()));
        EXPECT_EQ(expected.size(), linked.size());
        EXPECT_GT(linked.size(), 10u);
        store_use_memory();
    }
}

}  // namespace
