// Drives the built tevash binary as a user would.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#ifndef TEVASH_CLI_PATH
// Built without the command-line tool: every test skips.
#define TEVASH_CLI_PATH ""
#endif

namespace {

bool have_cli() {
    return TEVASH_CLI_PATH[0] != '\0';
}

struct run_result {
    int status;
    std::string out;
    std::string err;
};

// Runs tevash with `args`, the command prefixed by `env` (VAR=value assignments).
run_result run_with(const std::string& env, const std::string& args) {
    char err_path[] = "/tmp/tevash_cli_errXXXXXX";
    int fd = mkstemp(err_path);
    close(fd);
    std::string cmd = env + std::string(TEVASH_CLI_PATH) + " " + args + " 2>" + err_path;
    run_result r{-1, {}, {}};
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr) return r;
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    if (FILE* e = fopen(err_path, "r")) {
        while ((n = fread(buf, 1, sizeof buf, e)) > 0) r.err.append(buf, n);
        fclose(e);
    }
    unlink(err_path);
    return r;
}

run_result run(const std::string& args) {
    return run_with("", args);
}

int count_lines(const std::string& text) {
    int lines = 0;
    for (char c : text) lines += c == '\n';
    return lines;
}

TEST(Cli, DemoRunsTheTypicalFlows) {
    if (!have_cli()) GTEST_SKIP() << "tevash was not built";
    run_result r = run("demo");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("member 0x00360000"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("member 0x00460000"), std::string::npos);
    EXPECT_NE(r.out.find("member 0x00260000"), std::string::npos);
    EXPECT_NE(r.out.find("result 0xC1030001"), std::string::npos);
    EXPECT_NE(r.out.find("trace: "), std::string::npos);
    EXPECT_NE(r.out.find("JOBSET_03"), std::string::npos);
}

TEST(Cli, HelpAtEveryLevel) {
    if (!have_cli()) GTEST_SKIP() << "tevash was not built";
    for (const char* args : {"--help", "get --help", "tree --help", "demo --help"}) {
        run_result r = run(args);
        EXPECT_EQ(r.status, 0) << args;
        EXPECT_NE(r.out.find("Usage"), std::string::npos) << args;
    }
}

TEST(Cli, BadInputExitsNonZeroWithOneLine) {
    if (!have_cli()) GTEST_SKIP() << "tevash was not built";
    for (const char* args : {"get 1 0x00360000 --type i33", "get x 0x00360000 --type i32",
                             "get 999 0x00360000 --type i32", "create NOPE", "copy 0 1", "get 1"}) {
        run_result r = run(args);
        EXPECT_NE(r.status, 0) << args;
        EXPECT_EQ(count_lines(r.err), 1) << args << ": " << r.err;
    }
}

// A database file of its own for one test, removed with its companions.
struct temp_store {
    std::string path = "/tmp/tevash_cli_test_" + std::to_string(getpid()) + ".db";
    temp_store() { remove_files(); }
    ~temp_store() { remove_files(); }
    void remove_files() const {
        for (const char* suffix : {"", "-wal", "-shm"}) unlink((path + suffix).c_str());
    }
};

// Runs `create` and returns the new id as printed; empty on failure.
std::string create(const std::string& store_args, const std::string& what) {
    run_result r = run(store_args + "create " + what);
    EXPECT_EQ(r.status, 0) << what << ": " << r.err;
    EXPECT_EQ(count_lines(r.out), 1) << r.out;
    return r.status == 0 ? r.out.substr(0, r.out.find('\n')) : "";
}

TEST(Cli, PersistentStoreAcrossInvocations) {
    if (!have_cli()) GTEST_SKIP() << "tevash was not built";
    temp_store db;
    const std::string s = "--store " + db.path + " ";
    std::string auth = create(s, "AUTH");
    std::string img = create(s, "APLSVC_IMG --parent " + auth);
    std::string src = create(s, "APLJOB --parent " + img);
    std::string dst = create(s, "APLJOB --parent " + img);
    std::string src_set = create(s, "JOBSET_03 --parent " + src);
    std::string old_set = create(s, "JOBSET_03 --parent " + dst);
    ASSERT_FALSE(old_set.empty());

    // The job's own member, and one of its first JOBSET_03 child.
    EXPECT_EQ(run(s + "set " + src + " 0x00360000 -77 --type i32").status, 0);
    EXPECT_EQ(run(s + "set " + src + " 0x00460000 5 --type i32 --order 0").status, 0);
    EXPECT_EQ(run(s + "get " + src + " 0x00360000 --type i32").out, "-77\n");
    run_result before = run(s + "get " + dst + " 0x00360000 --type i32");
    EXPECT_NE(before.status, 0) << "the destination has no value before the copy";

    run_result copied = run(s + "copy " + src + " " + dst);
    ASSERT_EQ(copied.status, 0) << copied.err;
    EXPECT_EQ(run(s + "get " + dst + " 0x00360000 --type i32").out, "-77\n");
    EXPECT_EQ(run(s + "get " + dst + " 0x00460000 --type i32 --order 0").out, "5\n");

    // The destination's old child is gone; a fresh copy of the source's took its place.
    run_result tree = run(s + "tree");
    ASSERT_EQ(tree.status, 0) << tree.err;
    const unsigned long new_set = std::stoul(old_set) + 1;
    EXPECT_EQ(tree.out, auth + " AUTH\n`-- " + img + " APLSVC_IMG\n    |-- " + src +
                            " APLJOB\n    |   `-- " + src_set + " JOBSET_03\n    `-- " + dst +
                            " APLJOB\n        `-- " + std::to_string(new_set) + " JOBSET_03\n");

    // Reset goes through the director: the job's own values are gone, its links stay.
    EXPECT_EQ(run(s + "reset " + dst).status, 0);
    EXPECT_NE(run(s + "get " + dst + " 0x00360000 --type i32").status, 0);
    EXPECT_EQ(run(s + "tree").out, tree.out);

    // Remove goes through the director, which takes the subtree with it.
    EXPECT_EQ(run(s + "remove " + img).status, 0);
    EXPECT_EQ(run(s + "tree").out, auth + " AUTH\n");
    EXPECT_NE(run(s + "get " + src + " 0x00360000 --type i32").status, 0);
    EXPECT_EQ(create(s, "APLJOB"), std::to_string(new_set + 1)) << "ids are never reused";
}

TEST(Cli, StoreFromTheEnvironment) {
    if (!have_cli()) GTEST_SKIP() << "tevash was not built";
    temp_store db;
    const std::string env = "TEVASH_HOST_STORE=" + db.path + " ";
    run_result made = run_with(env, "create APLJOB --json");
    ASSERT_EQ(made.status, 0) << made.err;
    run_result tree = run("--store " + db.path + " tree --json");
    EXPECT_EQ(tree.out, "[{\"id\":1,\"category\":4,\"name\":\"APLJOB\",\"children\":[]}]\n");
    EXPECT_EQ(run_with(env, "tree").out, "1 APLJOB\n");
}

TEST(Cli, StoreThatCannotBeUsedIsRefusedUntouched) {
    if (!have_cli()) GTEST_SKIP() << "tevash was not built";
    temp_store db;
    {
        FILE* f = fopen(db.path.c_str(), "w");
        ASSERT_NE(f, nullptr);
        fputs("these are somebody's notes, not a record store of handlers\n", f);
        fclose(f);
    }
    for (const std::string& path : {db.path, std::string("/nonexistent/dir/x.db")}) {
        run_result r = run("--store " + path + " create APLJOB");
        EXPECT_NE(r.status, 0) << path;
        EXPECT_EQ(count_lines(r.err), 1) << r.err;
        EXPECT_NE(r.err.find("cannot open store"), std::string::npos) << r.err;
    }
    FILE* f = fopen(db.path.c_str(), "r");
    ASSERT_NE(f, nullptr);
    char text[128] = {};
    size_t n = fread(text, 1, sizeof text - 1, f);
    fclose(f);
    EXPECT_EQ(std::string(text, n), "these are somebody's notes, not a record store of handlers\n");
}

}  // namespace
