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

run_result run(const std::string& args) {
    char err_path[] = "/tmp/tevash_cli_errXXXXXX";
    int fd = mkstemp(err_path);
    close(fd);
    std::string cmd = std::string(TEVASH_CLI_PATH) + " " + args + " 2>" + err_path;
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

TEST(Cli, PersistentStoreAcrossInvocations) {
    if (!have_cli()) GTEST_SKIP() << "tevash was not built";
    std::string db = "/tmp/tevash_cli_test_" + std::to_string(getpid()) + ".db";
    std::string s = "--store " + db + " ";
    run_result job = run(s + "create APLJOB");
    if (job.status != 0 && job.err.find("cannot open store") != std::string::npos)
        GTEST_SKIP() << "no persistent store: " << job.err;
    ASSERT_EQ(job.status, 0) << job.err;
    std::string src = job.out.substr(0, job.out.find('\n'));
    run_result dst = run(s + "create APLJOB");
    ASSERT_EQ(dst.status, 0) << dst.err;
    std::string dst_id = dst.out.substr(0, dst.out.find('\n'));
    ASSERT_EQ(run(s + "create JOBSET_03 --parent " + src).status, 0);
    EXPECT_EQ(run(s + "set " + src + " 0x00360000 77 --type i32").status, 0);
    run_result got = run(s + "get " + src + " 0x00360000 --type i32");
    EXPECT_EQ(got.out, "77\n") << got.err;
    EXPECT_EQ(run(s + "copy " + src + " " + dst_id).status, 0);
    EXPECT_EQ(run(s + "get " + dst_id + " 0x00360000 --type i32").out, "77\n");
    run_result tree = run(s + "tree " + src);
    EXPECT_NE(tree.out.find("JOBSET_03"), std::string::npos) << tree.out;
    unlink(db.c_str());
}

}  // namespace
