// The persistent record store: what survives reopening, other processes and a
// killed writer, and which files it refuses to open.
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
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
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr unsigned int CMP = 0xC103;
constexpr unsigned char FLAG = 0;
constexpr unsigned int ROOT = 0x2, JOB = 0x4, SET_A = 0x8, SET_B = 0x10;
constexpr unsigned int SENTINEL = 0xDEADBEEF;

class FileStore : public ::testing::Test {
protected:
    FileStore() {
        char dir[] = "/tmp/tevash_file_store_XXXXXX";
        if (mkdtemp(dir) != nullptr) dir_ = dir;
    }
    ~FileStore() override {
        store_use_memory();
        for (const char* suffix : {"", "-wal", "-shm", "-journal"})
            unlink((path() + suffix).c_str());
        rmdir(dir_.c_str());
    }
    void SetUp() override { ASSERT_FALSE(dir_.empty()); }

    std::string path() const { return dir_ + "/store.db"; }
    void open() {
        std::string error;
        ASSERT_TRUE(store_use_file(path(), &error)) << error;
    }
    // Closes the database and opens it again, as a new process would.
    void reopen() {
        store_use_memory();
        open();
    }

    tevtest::fresh_store store_;
    std::string dir_;
};

unsigned int make(unsigned int category) {
    unsigned int id = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_make_current(CMP, category, FLAG, &id));
    return id;
}

std::vector<unsigned int> children(unsigned int parent) {
    std::vector<unsigned int> out;
    unsigned int n = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link_num_direct(CMP, parent, &n));
    for (unsigned int i = 0; i < n; ++i) {
        unsigned int id = 0;
        EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link_direct(CMP, parent, i, &id));
        out.push_back(id);
    }
    return out;
}

std::vector<unsigned char> read_bytes(unsigned int id, unsigned int member, size_t size) {
    std::vector<unsigned char> buf(size + 1, 0xAA);
    EXPECT_EQ(0u, S::wud_wud_service_info_get_current(CMP, id, member, buf.data()));
    EXPECT_EQ(0xAA, buf[size]) << "read wrote past the member's width";
    buf.resize(size);
    return buf;
}

std::string file_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs `sql` on the file through a connection of its own; returns the first
// column of every row, or "error: ..." on failure.
std::vector<std::string> raw_sql(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    std::vector<std::string> rows;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
        sqlite3_close(db);
        return {"error: cannot open"};
    }
    char* error = nullptr;
    auto collect = [](void* out, int, char** values, char**) {
        static_cast<std::vector<std::string>*>(out)->push_back(values[0] ? values[0] : "NULL");
        return 0;
    };
    if (sqlite3_exec(db, sql.c_str(), collect, &rows, &error) != SQLITE_OK) {
        rows = {std::string("error: ") + (error ? error : "?")};
        sqlite3_free(error);
    }
    sqlite3_close(db);
    return rows;
}

TEST_F(FileStore, RecordsLinksAndMembersSurviveReopening) {
    open();
    ASSERT_TRUE(declare_member(60, member_kind::bytes, 5));
    unsigned int root = make(ROOT), job = make(JOB);
    unsigned int a1 = make(SET_A), b1 = make(SET_B), a2 = make(SET_A), gone = make(SET_B);
    ASSERT_EQ(0u, S::wud_wud_service_info_set_link(CMP, ROOT, root, JOB, job));
    for (unsigned int c : {a1, b1, gone, a2}) {
        unsigned int category = 0;
        ASSERT_EQ(0u, S::wud_wud_service_info_get_job_category_by_id(CMP, c, &category));
        ASSERT_EQ(0u, S::wud_wud_service_info_set_link(CMP, JOB, job, category, c));
    }
    ASSERT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, gone));
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, a1, 1, static_cast<short>(-3)));
    char text[] = "hello";
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, a2, 60, static_cast<void*>(text)));

    clear_schema();  // widths now come from the stored values alone
    reopen();
    EXPECT_THAT(children(job), ElementsAre(a1, b1, a2));
    unsigned int second_a = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link(CMP, JOB, job, SET_A, 1, &second_a));
    EXPECT_EQ(a2, second_a);
    unsigned int parent = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_parent_link(CMP, JOB, job, &parent));
    EXPECT_EQ(root, parent);
    EXPECT_EQ((std::vector<unsigned char>{0xFD, 0xFF}), read_bytes(a1, 1, 2));
    EXPECT_EQ((std::vector<unsigned char>{'h', 'e', 'l', 'l', 'o'}), read_bytes(a2, 60, 5));
    EXPECT_EQ(STORE_WIDTH, S::wud_wud_service_info_set_current(CMP, a1, 1, 1ul));
    unsigned int category = SENTINEL;
    EXPECT_EQ(STORE_NO_RECORD,
              S::wud_wud_service_info_get_job_category_by_id(CMP, gone, &category));
    EXPECT_EQ(SENTINEL, category);
}

TEST_F(FileStore, IdsAreNeverReusedAcrossOpeningsAndProcesses) {
    open();
    unsigned int a = make(JOB), b = make(JOB);
    ASSERT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, b));
    store_clear();
    reopen();
    unsigned int c = make(JOB);
    EXPECT_GT(c, b);

    // Another process takes ids from the same file; this one continues after them.
    store_use_memory();
    int pipe_fd[2];
    ASSERT_EQ(0, pipe(pipe_fd));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(pipe_fd[0]);
        unsigned int last = 0;
        bool ok = store_use_file(path());
        for (int i = 0; ok && i < 5; ++i) {
            ok = S::wud_wud_service_info_make_current(CMP, JOB, FLAG, &last) == 0;
        }
        ok = ok && write(pipe_fd[1], &last, sizeof last) == sizeof last;
        _exit(ok ? 0 : 1);
    }
    close(pipe_fd[1]);
    unsigned int child_last = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof child_last),
              read(pipe_fd[0], &child_last, sizeof child_last));
    close(pipe_fd[0]);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_GT(child_last, c);

    open();
    EXPECT_GT(make(JOB), child_last);
    EXPECT_NE(a, 0u);
}

TEST_F(FileStore, TheLastIdIsHandedOutOnceThenMakingFails) {
    open();
    store_use_memory();
    ASSERT_THAT(raw_sql(path(), "UPDATE meta SET value = 4294967295 WHERE key = 'next_id'"),
                ElementsAre());
    // Using up the ids would spoil this process for later tests: a child does it.
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        unsigned int last = 0, none = SENTINEL;
        bool ok = store_use_file(path()) &&
                  S::wud_wud_service_info_make_current(CMP, JOB, FLAG, &last) == 0 &&
                  last == 0xFFFFFFFFu &&
                  S::wud_wud_service_info_make_current(CMP, JOB, FLAG, &none) == STORE_IO &&
                  S::wud_wud_service_info_make_and_copy_current(CMP, JOB, FLAG, last, &none) ==
                      STORE_IO &&
                  none == SENTINEL && store_records().size() == 1;
        store_use_memory();
        ok = ok && S::wud_wud_service_info_make_current(CMP, JOB, FLAG, &none) == STORE_IO;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(FileStore, FilesThatAreNotRecordStoresAreRefusedUntouched) {
    unsigned int kept = make(JOB);  // in the memory store, which must stay in use
    std::string text_file = dir_ + "/notes.txt";
    std::string foreign = dir_ + "/foreign.db";
    std::string newer = dir_ + "/newer.db";
    { std::ofstream(text_file) << "not a database at all, but long enough to look like one\n"; }
    ASSERT_THAT(raw_sql(foreign, "CREATE TABLE t(x); INSERT INTO t VALUES(5)"), ElementsAre());
    open();
    store_use_memory();
    kept = make(JOB);
    ASSERT_THAT(raw_sql(path(), "PRAGMA user_version = 9"), ElementsAre());
    ASSERT_EQ(0, rename(path().c_str(), newer.c_str()));

    struct {
        std::string path;
        const char* reason;
    } cases[] = {
        {"", "empty path"},
        {dir_ + "/missing/store.db", "unable to open"},
        {dir_, "unable to open"},
        {text_file, "not a database"},
        {foreign, "not a record store"},
        {newer, "version 9 is not supported"},
    };
    for (const auto& c : cases) {
        std::string before = file_text(c.path);
        std::string error;
        EXPECT_FALSE(store_use_file(c.path, &error)) << c.path;
        EXPECT_THAT(error, HasSubstr(c.reason)) << c.path;
        EXPECT_EQ(before, file_text(c.path)) << c.path;
        struct stat st;
        EXPECT_NE(0, stat((c.path + "-wal").c_str(), &st)) << c.path;
    }
    EXPECT_THAT(raw_sql(foreign, "SELECT x FROM t"), ElementsAre("5"));
    EXPECT_THAT(raw_sql(foreign, "PRAGMA journal_mode"), ElementsAre("delete"));
    unsigned int category = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_job_category_by_id(CMP, kept, &category));
    for (const char* suffix : {"", "-wal", "-shm"}) {
        unlink((text_file + suffix).c_str());
        unlink((foreign + suffix).c_str());
        unlink((newer + suffix).c_str());
    }
}

TEST_F(FileStore, DatabaseFailuresRollBackAndWriteNoOutValue) {
    open();
    unsigned int src = make(SET_A), dst = make(SET_A), job = make(JOB);
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, src, 7, 70ul));
    ASSERT_EQ(0u, S::wud_wud_service_info_set_link(CMP, JOB, job, SET_A, dst));
    std::vector<record_info> before = store_records();

    // Another writer breaks the member table under the store.
    ASSERT_THAT(raw_sql(path(), "ALTER TABLE members RENAME TO members_away"), ElementsAre());
    unsigned int out = SENTINEL;
    unsigned char value[4] = {1, 2, 3, 4};
    EXPECT_EQ(STORE_IO, S::wud_wud_service_info_make_and_copy_current(CMP, SET_B, FLAG, src, &out));
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
    EXPECT_EQ((std::vector<unsigned char>{70, 0, 0, 0}), read_bytes(src, 7, 4));
}

// Makes `count` records linked below `root`, each holding its own id in member 1.
bool make_linked(unsigned int root, int count) {
    for (int i = 0; i < count; ++i) {
        unsigned int id = 0;
        if (S::wud_wud_service_info_make_current(CMP, SET_A, FLAG, &id) != 0 ||
            S::wud_wud_service_info_set_link(CMP, JOB, root, SET_A, id) != 0 ||
            S::wud_wud_service_info_set_current(CMP, id, 1, static_cast<unsigned long>(id)) != 0) {
            return false;
        }
    }
    return true;
}

TEST_F(FileStore, TwoProcessesWriteOneFileAtOnce) {
    open();
    unsigned int root = make(JOB);
    store_use_memory();  // no open connection crosses the fork
    constexpr int kEach = 150;
    int go[2];
    ASSERT_EQ(0, pipe(go));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(go[1]);
        char byte = 0;
        bool ok = store_use_file(path()) && read(go[0], &byte, 1) == 1 && make_linked(root, kEach);
        _exit(ok ? 0 : 1);
    }
    close(go[0]);
    open();
    char byte = 1;
    ASSERT_EQ(1, write(go[1], &byte, 1));
    close(go[1]);
    EXPECT_TRUE(make_linked(root, kEach));
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    std::vector<unsigned int> linked = children(root);
    EXPECT_EQ(2u * kEach, linked.size());
    EXPECT_EQ(2u * kEach, std::set<unsigned int>(linked.begin(), linked.end()).size());
    for (unsigned int id : linked) {
        std::vector<unsigned char> v = read_bytes(id, 1, 4);
        EXPECT_EQ(id, v[0] | v[1] << 8 | v[2] << 16 | static_cast<unsigned int>(v[3]) << 24);
    }
}

// Makes, links, writes and removes records below `root` until killed; writes a
// byte to `progress` after the first rounds.
[[noreturn]] void write_until_killed(const std::string& path, unsigned int root, int progress) {
    if (!store_use_file(path)) _exit(2);
    for (unsigned int i = 0; i < 1000000; ++i) {
        unsigned int id = 0;
        const unsigned int category = i % 2 ? SET_A : SET_B;
        if (S::wud_wud_service_info_make_current(CMP, category, FLAG, &id) != 0 ||
            S::wud_wud_service_info_set_link(CMP, JOB, root, category, id) != 0 ||
            S::wud_wud_service_info_set_current(CMP, id, 1, static_cast<unsigned long>(id)) != 0) {
            _exit(3);
        }
        if (i % 3 == 0 && S::wud_wud_service_info_delete_current(CMP, id) != 0) _exit(4);
        if (i == 20) {
            char byte = 1;
            if (write(progress, &byte, 1) != 1) _exit(5);
        }
    }
    _exit(0);
}

TEST_F(FileStore, KilledWriterLeavesASoundDatabase) {
    open();
    unsigned int root = make(JOB);
    store_use_memory();  // no open connection crosses the fork

    for (int round = 0; round < 3; ++round) {
        int pipe_fd[2];
        ASSERT_EQ(0, pipe(pipe_fd));
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(pipe_fd[0]);
            write_until_killed(path(), root, pipe_fd[1]);
        }
        close(pipe_fd[1]);
        char byte = 0;
        ssize_t got = read(pipe_fd[0], &byte, 1);
        close(pipe_fd[0]);
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        ASSERT_EQ(1, got) << "the writer stopped early, status " << status;
        ASSERT_TRUE(WIFSIGNALED(status));

        EXPECT_THAT(raw_sql(path(), "PRAGMA integrity_check"), ElementsAre("ok"));
        open();
        std::map<unsigned int, record_info> by_id;
        for (const record_info& r : store_records()) by_id[r.handler_id] = r;
        std::vector<unsigned int> linked = children(root);
        std::set<unsigned int> expected;
        for (const auto& entry : by_id) {
            if (entry.first == root) continue;
            // Every record is linked below the root, except possibly the last one
            // made, when the kill came between its making and its linking.
            if (entry.second.parent_id == root) {
                expected.insert(entry.first);
            } else {
                EXPECT_EQ(0u, entry.second.parent_id);
                EXPECT_EQ(entry.first, by_id.rbegin()->first);
            }
            unsigned char value[4];
            unsigned int rc = S::wud_wud_service_info_get_current(CMP, entry.first, 1, value);
            if (rc == 0) {
                EXPECT_EQ(entry.first, value[0] | value[1] << 8 | value[2] << 16 |
                                           static_cast<unsigned int>(value[3]) << 24);
            }
        }
        EXPECT_EQ(expected, std::set<unsigned int>(linked.begin(), linked.end()));
        EXPECT_EQ(expected.size(), linked.size());
        EXPECT_GT(linked.size(), 10u);
        // A record the kill left unlinked would break the next round's check.
        for (const auto& entry : by_id) {
            if (entry.first != root && entry.second.parent_id == 0) {
                EXPECT_EQ(0u, S::wud_wud_service_info_delete_current(CMP, entry.first));
            }
        }
        store_use_memory();
    }
}

}  // namespace
