// The persistent record store: ids and writes shared by two processes, a killed
// writer, and the files it refuses to open.
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
// 1, and deletes every third one again; writes a byte to `progress` (unless -1)
// after the first twenty.
bool write_records(unsigned int root, unsigned int count, int progress = -1) {
    for (unsigned int i = 0; i < count; ++i) {
        unsigned int id = 0;
        const unsigned int category = i % 2 ? SET_A : SET_B;
        if (S::wud_wud_service_info_make_current(CMP, category, 0, &id) != 0 ||
            S::wud_wud_service_info_set_link(CMP, JOB, root, category, id) != 0 ||
            S::wud_wud_service_info_set_current(CMP, id, 1, static_cast<unsigned long>(id)) != 0 ||
            (i % 3 == 0 && S::wud_wud_service_info_delete_current(CMP, id) != 0)) {
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
        return store_use_file(path()) && read(go[0], &byte, 1) == 1 && write_records(root, kEach);
    });
    ASSERT_GE(pid, 0);
    open();
    ASSERT_EQ(1, write(go[1], "x", 1));
    EXPECT_TRUE(write_records(root, kEach));
    EXPECT_TRUE(exited_ok(pid));
    close(go[0]);
    close(go[1]);

    std::vector<unsigned int> linked = children(root);
    EXPECT_EQ(2 * (kEach - kEach / 3), linked.size());
    EXPECT_EQ(linked.size(), std::set<unsigned int>(linked.begin(), linked.end()).size());
    for (unsigned int id : linked) EXPECT_EQ(id, read_u32(id, 1));
    EXPECT_GT(make(JOB), *std::max_element(linked.begin(), linked.end()));
}

TEST_F(FileStore, FilesThatAreNotRecordStoresAreRefusedUntouched) {
    const std::string text = dir_.path("notes.txt"), foreign = dir_.path("foreign.db");
    std::ofstream(text) << "not a database at all, but long enough to look like one\n";
    ASSERT_THAT(raw_sql(foreign, "CREATE TABLE t(x); INSERT INTO t VALUES(5)"), ElementsAre());
    unsigned int kept = make(JOB);  // in the memory store, which must stay in use

    const std::pair<std::string, const char*> cases[] = {
        {dir_.path("missing/store.db"), "unable to open"},
        {text, "not a database"},
        {foreign, "not a record store"},
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

TEST_F(FileStore, KilledWriterLeavesASoundDatabase) {
    open();
    unsigned int root = make(JOB);
    store_use_memory();  // no open connection crosses the fork

    for (int round = 0; round < 3; ++round) {
        int progress[2];
        ASSERT_EQ(0, pipe(progress));
        pid_t pid = spawn(
            [&] { return store_use_file(path()) && write_records(root, 1000000, progress[1]); });
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
