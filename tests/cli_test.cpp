// Drives the built tevash binary as a user would.
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tev_test_support.h"

#ifndef TEVASH_CLI_PATH
// Built without the command-line tool: every test skips.
#define TEVASH_CLI_PATH ""
#endif

namespace {

using tevtest::file_text;

struct run_result {
    int status;
    std::string out, err;
};

int count_lines(const std::string& text) {
    int lines = 0;
    for (char c : text) lines += c == '\n';
    return lines;
}

class Cli : public ::testing::Test {
protected:
    void SetUp() override {
        if (TEVASH_CLI_PATH[0] == '\0') GTEST_SKIP() << "tevash was not built";
    }
    // Runs tevash with `args`, the command prefixed by `env` (VAR=value assignments).
    run_result run(const std::string& args, const std::string& env = "") {
        const std::string err_path = dir_.path("stderr");
        std::string cmd = env + TEVASH_CLI_PATH + " " + args + " 2>" + err_path;
        run_result r{-1, {}, {}};
        FILE* p = popen(cmd.c_str(), "r");
        if (p == nullptr) return r;
        char buf[512];
        for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
        int st = pclose(p);
        r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
        r.err = file_text(err_path);
        return r;
    }
    // Runs `create` and returns the new id as printed; empty on failure.
    std::string create(const std::string& what) {
        run_result r = run(store_ + "create " + what);
        EXPECT_EQ(r.status, 0) << what << ": " << r.err;
        EXPECT_EQ(count_lines(r.out), 1) << r.out;
        return r.status == 0 ? r.out.substr(0, r.out.find('\n')) : "";
    }

    tevtest::temp_dir dir_;
    const std::string db_ = dir_.path("store.db");
    const std::string store_ = "--store " + db_ + " ";
};

// The tour is deterministic on its fresh in-memory store, apart from the trace
// lines' source line numbers and addresses.
TEST_F(Cli, DemoPrintsTheWholeTourAndHelpAnswersAtEveryLevel) {
    run_result r = run("demo");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    std::string out = std::regex_replace(r.out, std::regex(R"((&\w+):0x[0-9a-fA-F]+)"), "$1:ADDR");
    out = std::regex_replace(out, std::regex(R"(\[\d+\]::)"), "[LINE]::");
    EXPECT_EQ(out, R"(Building a handler tree through the director
  create AUTH -> 0x00000000
  create APLSVC_IMG -> 0x00000000
  create APLJOB -> 0x00000000
  create JOBSET_03 -> 0x00000000
  create JOBSET_03 -> 0x00000000
  create APLJOB (copy destination) -> 0x00000000
  link AUTH -> APLSVC_IMG -> 0x00000000
  link APLSVC_IMG -> APLJOB -> 0x00000000
  link APLSVC_IMG -> APLJOB -> 0x00000000
  link APLJOB -> JOBSET_03 -> 0x00000000
  link APLJOB -> JOBSET_03 -> 0x00000000
1 AUTH
`-- 2 APLSVC_IMG
    |-- 3 APLJOB
    |   |-- 4 JOBSET_03
    |   `-- 5 JOBSET_03
    `-- 6 APLJOB
Writing and reading members through job handler 3
  member 0x00360000 order 0 (the job itself) = 42
  member 0x00460000 order 1 (second JOBSET_03 child) = 7
  member 0x00260000 order 0 (AUTH, two links up) = 1234
Copying job 3 onto job 6
6 APLJOB
|-- 7 JOBSET_03
`-- 8 JOBSET_03
  member 0x00360000 of job 6 = 42, member 0x00460000 of its second child = 7
A refused access: member 0x00182000 (APLSVC_IMG) through job handler 3
  result 0xC1030001
  trace: tev_ash_control[LINE]::search_target_handler_id,[Error](Invalid Access:other) rc:0xc1030001, handler_id:0X00000003, member_id:0X00182000, order:0, &target_handler_id:ADDR, handler_id_category:4, member_category:1
  trace: tev_ash_control[LINE]::get_member,[Error](serch_target_handler_id) rc:0XC1030001, handler_id:0X00000003, member_id:0X00182000, order:0, target_handler_id:00000000, &ret_p:ADDR
Demo finished
)");
    for (const char* args : {"--help", "get --help"}) {
        r = run(args);
        EXPECT_EQ(r.status, 0) << args;
        EXPECT_NE(r.out.find("Usage"), std::string::npos) << args;
    }
}

TEST_F(Cli, BadInputAndUnusableStoresExitNonZeroWithOneLine) {
    std::ofstream(db_) << "these are somebody's notes, not a record store of handlers\n";
    for (const std::string& args :
         std::vector<std::string>{"get 1 0x00360000 --type i33", "get 999 0x00360000 --type i32",
                                  "create NOPE", "--store " + db_ + " create APLJOB"}) {
        run_result r = run(args);
        EXPECT_NE(r.status, 0) << args;
        EXPECT_EQ(count_lines(r.err), 1) << args << ": " << r.err;
        if (args.rfind("--store", 0) == 0) {
            EXPECT_NE(r.err.find("cannot open store"), std::string::npos) << r.err;
        }
    }
    EXPECT_EQ(file_text(db_), "these are somebody's notes, not a record store of handlers\n");
}

TEST_F(Cli, PersistentStoreAcrossInvocations) {
    std::string auth = create("AUTH");
    std::string img = create("APLSVC_IMG --parent " + auth);
    std::string src = create("APLJOB --parent " + img);
    std::string dst = create("APLJOB --parent " + img);
    std::string src_set = create("JOBSET_03 --parent " + src);
    std::string old_set = create("JOBSET_03 --parent " + dst);
    ASSERT_FALSE(old_set.empty());
    const std::string& s = store_;

    // The job's own member, and one of its first JOBSET_03 child.
    EXPECT_EQ(run(s + "set " + src + " 0x00360000 -77 --type i32").status, 0);
    EXPECT_EQ(run(s + "set " + src + " 0x00460000 5 --type i32 --order 0").status, 0);
    EXPECT_EQ(run(s + "get " + src + " 0x00360000 --type i32").out, "-77\n");
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
}

}  // namespace
