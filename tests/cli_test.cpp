// Drives the built tevash binary as a user would.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tev_ash_control.h"
#include "tev_test_support.h"
#include "util.h"

#ifndef TEVASH_CLI_PATH
// Built without the command-line tool: every test skips.
#define TEVASH_CLI_PATH ""
#endif

namespace {

using tevtest::file_text;
using tevtest::run_result;

int count_lines(const std::string& text) {
    int lines = 0;
    for (char c : text) lines += c == '\n';
    return lines;
}

std::string line(const std::string& text, int n) {
    size_t at = 0;
    for (; n > 0 && at != std::string::npos; --n) at = text.find('\n', at) + 1;
    return at == 0 && n > 0 ? "" : text.substr(at, text.find('\n', at) - at);
}

// A tree export: a job with three members of different kinds and `depth`
// JOBSET_03 handlers chained below it.
std::string job_export(int depth) {
    std::string nodes = "[]";
    for (int i = 0; i < depth; ++i)
        nodes = R"([{"category":"JOBSET_03","members":[],"children":)" + nodes + "}]";
    return R"({"tevash_tree":1,"root":{"category":"APLJOB","members":[)"
           R"({"member":"0x00360000","kind":"i32","size":4,"value":300},)"
           R"({"member":"0x00360001","kind":"bytes","size":4,"value":"0x41424344"},)"
           R"({"member":"0x00360002","kind":"u8","size":1,"value":7}],"children":)" +
           nodes + "}}";
}

TEST(CliNumbers, DecimalOrHexALeadingZeroIsDecimal) {
    std::istringstream good(
        "010=10 08=8 0=0 0x10=16 0X1f=31 4294967295=4294967295 "
        "0xFFFFFFFF=4294967295 -2147483648=-2147483648");
    for (std::string g; good >> g;) {
        long long v = -99;
        EXPECT_TRUE(tevash_cli::parse_number(g.substr(0, g.find('=')), &v)) << g;
        EXPECT_EQ(std::to_string(v), g.substr(g.find('=') + 1)) << g;
    }
    for (const char* bad : {"4294967296", "0x100000000", "", "0x", "-", "1x", " 1", "+1", "0x0x1",
                            "1e3", "09a", "12 "}) {
        long long v = -99;
        EXPECT_FALSE(tevash_cli::parse_number(bad, &v)) << bad;
        EXPECT_EQ(v, -99) << bad;
    }
    unsigned int u = 5;
    EXPECT_FALSE(tevash_cli::parse_u32("-1", &u));
    EXPECT_EQ(u, 5u);
}

class Cli : public ::testing::Test {
protected:
    void SetUp() override {
        if (TEVASH_CLI_PATH[0] == '\0') GTEST_SKIP() << "tevash was not built";
    }
    // Runs tevash with `args`, split at spaces.
    static run_result run(const std::string& args, const std::vector<std::string>& env = {}) {
        std::vector<std::string> argv{TEVASH_CLI_PATH};
        std::istringstream words(args);
        for (std::string word; words >> word;) argv.push_back(word);
        return tevtest::run_child(argv, env);
    }
    // Runs a command on the test's store that prints one line (an id); returns it.
    std::string one_line(const std::string& args) {
        run_result r = run(store_ + args);
        EXPECT_EQ(r.status, 0) << args << ": " << r.err;
        EXPECT_EQ(count_lines(r.out), 1) << r.out;
        return r.status == 0 ? r.out.substr(0, r.out.find('\n')) : "";
    }
    std::string create(const std::string& what) { return one_line("create " + what); }
    std::string import(const std::string& json, const std::string& extra = "") {
        std::ofstream(dir_.path("in.json")) << json;
        return one_line("import " + dir_.path("in.json") + extra);
    }

    tevtest::temp_dir dir_;
    const std::string db_ = dir_.path("store.db");
    const std::string store_ = "--store " + db_ + " ";
};

// The tour is deterministic on its fresh in-memory store, apart from the trace
// lines' source line numbers; it shows no pointer values.
TEST_F(Cli, DemoPrintsTheWholeTourAndHelpAndVersionAnswer) {
    run_result r = run("demo");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    const std::string out = std::regex_replace(r.out, std::regex(R"(\[\d+\]::)"), "[LINE]::");
    EXPECT_EQ(out, R"(Building a handler tree through the director
  create AUTH -> 1
  create APLSVC_IMG -> 2
  create APLJOB -> 3
  create JOBSET_03 -> 4
  create JOBSET_03 -> 5
  create APLJOB (copy destination) -> 6
  link 1 AUTH -> 2 APLSVC_IMG
  link 2 APLSVC_IMG -> 3 APLJOB
  link 2 APLSVC_IMG -> 6 APLJOB
  link 3 APLJOB -> 4 JOBSET_03
  link 3 APLJOB -> 5 JOBSET_03
1 AUTH
`-- 2 APLSVC_IMG
    |-- 3 APLJOB
    |   |-- 4 JOBSET_03
    |   `-- 5 JOBSET_03
    `-- 6 APLJOB
Writing and reading members through job handler 3
  member 0x00360000 (copies) order 0 (the job itself) = 42
  member 0x00460000 (set-pages) order 1 (second JOBSET_03 child) = 7
  member 0x00260000 (auth-quota) order 0 (AUTH, two links up) = 1234
Copying job 3 onto job 6
6 APLJOB
|-- 7 JOBSET_03
`-- 8 JOBSET_03
  member 0x00360000 (copies) of job 6 = 42, member 0x00460000 (set-pages) of its second child = 7
A refused access: member 0x00182000 (image-resolution) of APLSVC_IMG through job handler 3
  result 0xC1030001
  trace: tev_ash_control[LINE]::search_target_handler_id,[Error](Invalid Access:other) rc:0xc1030001, handler_id:0X00000003, member_id:0X00182000, order:0, handler_id_category:4, member_category:1
  trace: tev_ash_control[LINE]::get_member,[Error](serch_target_handler_id) rc:0XC1030001, handler_id:0X00000003, member_id:0X00182000, order:0, target_handler_id:00000000
A refused value: member 0x00360000 (copies) = 5000 (the schema allows 1..999)
  result 0xC1030001
  trace: host store: member 0x00360000: 5000 is outside [1, 999]
  trace: tev_ash_control[LINE]::set_member,[Error](set_current) rc:0XC1030001, cmp_id:4096, handler_id:0X00000003, order:0, target_handler_id:0X00000003, member_id:0X00360000, val:0X00001388
Demo finished
)");
    for (const auto& shown :
         {std::pair<const char*, const char*>{"--help", "Usage: tevash [OPTIONS] SUBCOMMAND"},
          {"help get", "Usage: tevash get [OPTIONS] handler member"},
          {"--version", "tevash 1."}}) {
        r = run(shown.first);
        EXPECT_EQ(r.status, 0) << shown.first;
        EXPECT_NE(r.out.find(shown.second), std::string::npos) << shown.first << ": " << r.out;
    }
    EXPECT_EQ(run("--read-only tree").status, 2);  // no store file to read
}

// Each failure says what is wrong in its first line; a result code and the
// trace lines follow only where the library answered. Exit codes: 1 failed, 2
// usage errors (nothing tried), 3 no service running.
TEST_F(Cli, FailuresSayWhatIsWrongFirst) {
    const std::string auth = create("AUTH"), img = create("APLSVC_IMG --parent " + auth);
    const std::string job = create("APLJOB --parent " + img), lone = create("APLJOB");
    const std::string set = create("JOBSET_03"), below = create("JOBSET_03 --parent " + set);
    ASSERT_EQ(run(store_ + "set " + job + " 0x00360000 5 --type i32").status, 0);
    const std::string notes = dir_.path("notes.db");
    std::ofstream(notes) << "these are somebody's notes, not a record store of handlers\n";
    const std::string none = dir_.path("none");
    struct {
        std::string args, first, second;
        int status = 1;
    } const cases[] = {
        {"get " + job + " 0x00182000",
         "member 0x00182000 of an APLSVC_IMG handler is not reachable from handler 3 (APLJOB)",
         "  result 0xC1030001"},
        {"get 99 0x00360000 --type i32", "no handler 99", "  result 0xC1030001"},
        {"get " + job + " 0x00360000 --type u8", "member 0x00360000 is i32, not u8", ""},
        {"get " + job + " 0x00460000 --type i32",
         "handler 3 has no JOBSET_03 handler for member 0x00460000 at order 0",
         "  result 0xC1030003"},
        {"get " + job + " 0x0000000A --type i32", "no member 0x0000000A in the member table",
         "  result 0xC1030001"},
        {"frob", "unknown subcommand 'frob' (see --help)", "", 2},
        {"help frob", "unknown command 'frob' (see tevash help)", "", 2},
        {"director --app-type 1 --connection 17_BYTES_ARE_MORE",
         "--connection: '17_BYTES_ARE_MORE' is longer than 16 bytes (see --help)", "", 2},
        {"--runtime-dir " + none + " create APLJOB",
         "handler service not reachable: nothing listening in " + none +
             " (start `tevash serve` there)",
         "", 3},
        {"create NOPE", "unknown category 'NOPE'", "", 2},
        {"create APLJOB --parent 010", "no handler 10", "  result 0xC1030001"},
        {"get " + job + " 0x00360000 --type i33", "unknown type 'i33'", "", 2},
        {"unlink " + auth, "handler 1 has no parent", ""},
        {"link " + below + " " + set, "linking 5 below 6 would make a cycle", ""},
        {"link " + auth + " " + job, "handler 3 already has a parent (2)", ""},
        {"link " + job + " " + auth,
         "cannot link handler 1 (AUTH) below handler 3 (APLJOB): an AUTH handler is a root: it "
         "has no parent",
         ""},
        {"create APLSVC_IMG --parent " + set,
         "cannot create an APLSVC_IMG handler below handler 5 (JOBSET_03): an APLSVC_IMG "
         "handler (level 1) cannot be below a JOBSET_03 handler (level 4)",
         ""},
        {"copy " + auth + " " + job,
         "copy needs two APLJOB or two APLSVC_IMG handlers, not 1 (AUTH) and 3 (APLJOB)", ""},
        {"copy " + job + " " + lone,
         "copy needs a parent above each job: handler 4 (APLJOB) has no parent (link it below an "
         "APLSVC_IMG handler first)",
         ""},
        {"remove 77", "no handler 77", "  result 0xC1030001"},
        {"members 0x4D", "no handler 77", "  result 0xC1030001"},
        {"tree 08", "no handler 8", "  result 0xC1030001"},
        {"export 9", "no handler 9", "  result 0xC1030001"},
    };
    const std::string before = run(store_ + "tree").out;
    for (const auto& c : cases) {
        run_result r = run(store_ + c.args);
        EXPECT_EQ(r.status, c.status) << c.args;
        EXPECT_EQ(line(r.err, 0), "tevash: " + c.first) << c.args;
        EXPECT_EQ(line(r.err, 1), c.second) << c.args;
    }
    EXPECT_EQ(run(store_ + "tree").out, before);
    EXPECT_FALSE(std::ifstream(none).good()) << "a runtime directory nothing serves is not made";
    // Trace lines show pointer values only with -v.
    EXPECT_EQ(run(store_ + "get " + job + " 0x00182000").err.find("&"), std::string::npos);
    EXPECT_NE(run("-v " + store_ + "get " + job + " 0x00182000").err.find("&"), std::string::npos);
    run_result r = run("--store " + notes + " create APLJOB");
    EXPECT_EQ(r.err.rfind("tevash: cannot open store '" + notes + "': ", 0), 0u) << r.err;
    EXPECT_EQ(file_text(notes), "these are somebody's notes, not a record store of handlers\n");
}

// Every command speaks JSON in one vocabulary: handler ids are numbers, member
// ids and codes "0x%08X" strings, categories names that create accepts.
TEST_F(Cli, EveryCommandSpeaksOneJsonVocabulary) {
    for (const char* made :
         {"AUTH", "APLSVC_IMG --parent 1", "APLJOB --parent 2", "APLJOB --parent 2"})
        create(made);
    std::ofstream(dir_.path("in.json")) << job_export(1);
    // "command=a field of its output", as they run in turn.
    std::istringstream commands(std::regex_replace(
        "demo=refused;create JOBSET_03 --parent 3=category;create JOBSET_03=id;link 3 6=child;"
        "unlink 6=parent;copy 3 4=destination;set 3 0x00360000 5 --type i32=order;"
        "get 3 0x00360000=value;set 3 0x00360000 6=kind;members 3=size;tree=children;"
        "export=nodes;import DIR/in.json=roots;backup DIR/b.db=file;check=findings;"
        "reset 6=handler;remove 6=handler;--runtime-dir DIR/none status=runtime_dir",
        std::regex("DIR/"), dir_.path("")));
    const std::regex hex("0x[0-9A-F]{8}"), ids("id|handler|parent|child|owner|source|destination");
    for (std::string c; std::getline(commands, c, ';');) {
        const std::string args = c.substr(0, c.find('=')), field = c.substr(c.find('=') + 1);
        const run_result r = run(store_ + args + " --json");
        EXPECT_EQ(r.status, args.find("status") == std::string::npos ? 0 : 3) << args << r.err;
        const auto doc = nlohmann::json::parse(r.out, nullptr, false);
        ASSERT_FALSE(doc.is_discarded()) << args << ": " << r.out;
        EXPECT_TRUE((doc.is_array() ? doc[0] : doc).contains(field)) << args << ": " << r.out;
        const auto flat = doc.flatten();
        for (const auto& value : flat.items()) {
            const std::string key = value.key().substr(value.key().rfind('/') + 1);
            const std::string text = value.value().is_string() ? value.value() : "";
            unsigned int category = 0;
            EXPECT_TRUE((!std::regex_match(key, ids) || value.value().is_number_unsigned()) &&
                        ((key != "member" && key != "code") || std::regex_match(text, hex)) &&
                        (key != "category" || tevash_cli::parse_category(text, &category)))
                << args << ": " << value.key() << " " << value.value();
        }
    }
    // Every tree exports at once and reads back from standard input: a root a line.
    const std::string cli = std::string(TEVASH_CLI_PATH) + " --store " + db_;
    run_result back = tevtest::run_child({"/bin/sh", "-c", cli + " export | " + cli + " import -"});
    EXPECT_EQ(back.status, 0) << back.err;
    EXPECT_EQ(count_lines(back.out), 2) << back.out;  // the AUTH tree and the imported job
}

// Every command and option --help lists is in the man page (in that command's
// entry) and in both completion scripts (on that command's line).
TEST_F(Cli, HelpManPageAndCompletionAgree) {
    const std::string bash = run("completion bash").out;
    const std::string man =
        std::regex_replace(file_text(TEVASH_MAN_PAGE), std::regex(R"(\\-)"), "-");
    const std::string zsh = run("completion zsh").out, top = run("--help").out;
    // The words of one section of a --help: "Subcommands:" names, "Options:" long names.
    const auto listed = [](const std::string& help, const std::string& section) {
        std::vector<std::string> words;
        const std::regex word(section == "Options:" ? R"(\s+(?:-\w,)?(--[\w-]+).*)"
                                                    : R"(  (\w+)\s.*)");
        std::istringstream in(help.substr(std::min(help.find(section), help.size())));
        std::smatch m;
        for (std::string l; std::getline(in, l) && (words.empty() || !l.empty());)
            if (std::regex_match(l, m, word) && m[1] != "--help") words.push_back(m[1]);
        return words;
    };
    const auto commands = listed(top, "Subcommands:");
    std::string any;
    for (const auto& command : commands) any += "|" + command;
    // A part of `text` from `start` to the next match of `stop` ("" when no start).
    const auto part = [](const std::string& text, const std::regex& start, const std::regex& stop) {
        std::smatch m;
        if (!std::regex_search(text, m, start)) return std::string();
        const std::string rest = m.suffix();
        return std::regex_search(rest, m, stop) ? rest.substr(0, m.position(0)) : rest;
    };
    const auto header = [](const std::string& n) { return "\n\\.TP\n\\.B[IR]? \"?(" + n + ")\\b"; };
    for (const auto& command : commands) {
        const std::string entry = part(man, std::regex(header(command)),
                                       std::regex(R"(\n\.S[HS]|)" + header(any.substr(1))));
        const std::string b = part(bash, std::regex("\n +" + command + "\\)"), std::regex("\n"));
        const std::string z = part(zsh, std::regex("\n +\\(" + command + "\\)"), std::regex("\n"));
        const auto options = listed(run(command + " --help").out, "Options:");
        EXPECT_FALSE(entry.empty() || b.empty() || z.empty()) << command;
        EXPECT_TRUE(command == "help" || std::count(options.begin(), options.end(), "--json"))
            << command;
        for (const auto& option : options)
            EXPECT_NE(std::max({entry.find(option), b.find(option), z.find(option)}),
                      std::string::npos)
                << command << " " << option;
    }
    const std::string global = part(man, std::regex(".SH OPTIONS"), std::regex(".SH COMMANDS"));
    for (const auto& option : listed(top, "Options:"))
        EXPECT_NE(global.find(option), std::string::npos) << option;
}

// With a schema in the store file, names work where ids do, ids it does not
// declare are refused, get and set take the declared kind; exports carry it.
TEST_F(Cli, SchemaNamesKindsRangesAndInitialValues) {
    const std::string job = import(job_export(0)), file = dir_.path("schema.json");
    std::ofstream(file) << R"({"tevash_schema":1,"members":[{"id":"0x00360000","name":"copies",)"
                        << R"("kind":"i32","min":0,"max":999,"description":"Copies"},)"
                        << R"({"id":"0x00360005","name":"speed","kind":"u16","initial":5}]})";
    ASSERT_EQ(run(store_ + "schema load " + file).status, 0);
    const std::string show = run(store_ + "schema show --json").out;
    struct {
        std::string args, out, err;
    } const cases[] = {
        {"get " + job + " copies", "300\n", ""},
        {"get " + job + " speed --json",
         R"({"handler":1,"member":"0x00360005","kind":"u16","size":2,"value":5,"order":0,"owner":1})"
         "\n",
         ""},
        {"set " + job + " speed 7", "", ""},
        {"get " + job + " speed --explain",
         "7\nwalk: the store calls the library made, in order\n"
         "  get_job_category_by_id   handler 1  -> APLJOB\n"
         "  get_current              handler 1  member 0x00360005 (speed)  -> ok\n"
         "value from handler 1\n",
         ""},
        {"set " + job + " copies 1000", "",
         "tevash: value 1000 is outside the range of member 0x00360000 (copies) (0..999)\n"},
        {"get " + job + " 0x00360002", "", "tevash: member 0x00360002 is not in the schema\n"},
        {"get " + job + " pages", "", "tevash: no member named 'pages' in the schema\n"},
        {"describe speed --json",
         R"({"member":"0x00360005","name":"speed","category":"APLJOB","level":2,"declared":true,)"
         R"("kind":"u16","size":2,"initial":5})"
         "\n",
         ""},
        {"members " + job + " --all",
         "MEMBER      NAME              KIND   WIDTH  VALUE               INITIAL\n"
         "0x00360000  copies            i32    4      300                 0\n"
         "0x00360001  -                 bytes  4      0x41424344          -\n"
         "0x00360002  -                 u8     1      7                   -\n"
         "0x00360005  speed             u16    2      7                   5\n",
         ""},
    };
    for (const auto& c : cases) {
        const run_result r = run(store_ + c.args);
        EXPECT_EQ(r.out, c.out) << c.args;
        EXPECT_EQ(line(r.err, 0) + (r.err.empty() ? "" : "\n"), c.err) << c.args;
    }
    // An export carries the schema to the store it is imported into.
    std::ofstream(dir_.path("in.json")) << run(store_ + "export").out;
    const std::string other = "--store " + dir_.path("other.db") + " ";
    EXPECT_EQ(run(other + "import " + dir_.path("in.json")).status, 0);
    EXPECT_EQ(run(other + "schema show --json").out, show);
    EXPECT_EQ(run(other + "get 1 speed").out, "7\n");
}

// get and set know the member's kind and width first (--type is only a check
// then): a mismatched type, a value out of range or too long, or a size beyond
// the member is refused before the library is called, and the member keeps its
// value. Without a value the kind is unknown until a typed write fixes it.
TEST_F(Cli, RefusedTypesValuesAndSizesChangeNothing) {
    const std::string job = import(job_export(0));
    const std::string members = run(store_ + "members " + job + " --json").out;
    EXPECT_EQ(members, R"([{"member":"0x00360000","kind":"i32","size":4,"value":300},)"
                       R"({"member":"0x00360001","kind":"bytes","size":4,"value":"0x41424344"},)"
                       R"({"member":"0x00360002","kind":"u8","size":1,"value":7}])"
                       "\n");
    const std::string on = job + " 0x0036000";
    struct {
        std::string args, first;
    } const cases[] = {
        {"get " + on + "0 --type i8", "member 0x00360000 is i32, not i8"},
        {"set " + on + "0 44 --type i8", "member 0x00360000 is i32, not i8"},
        {"set " + on + "0 44 --type u32", "member 0x00360000 is i32, not u32"},
        {"set " + on + "0 abc --type bytes", "member 0x00360000 is i32, not bytes"},
        {"set " + on + "0 2147483648 --type i32",
         "value 2147483648 is out of range for i32 (-2147483648..2147483647)"},
        {"set " + on + "0 12x --type i32", "malformed i32 value '12x'"},
        {"set " + on + "2 256 --type u8", "value 256 is out of range for u8 (0..255)"},
        {"set " + on + "2 -1 --type u8", "value -1 is out of range for u8 (0..255)"},
        {"set " + on + "1 hello --type bytes --text",
         "a value of 5 bytes does not fit member 0x00360001 (4 bytes)"},
        {"set " + on + "1 AB", "member 0x00360001: bytes are a 0x-hex string, not 'AB'"},
        {"set " + on + "3 5",
         "member 0x00360003 of handler 1 has no value yet, so its kind is not known: give --type "
         "(the first typed write fixes the member's kind in this store)"},
        {"get " + on + "1 --type bytes --size 100000000",
         "--size 100000000 does not fit member 0x00360001 (4 bytes)"},
        {"get " + on + "1 --type bytes --size 4294967295",
         "--size 4294967295 does not fit member 0x00360001 (4 bytes)"},
        {"get 99 0x00360001 --type bytes --size 100000000", "no handler 99"},
    };
    for (const auto& c : cases) {
        run_result r = run(store_ + c.args);
        EXPECT_NE(r.status, 0) << c.args;
        EXPECT_EQ(r.out, "") << c.args;
        EXPECT_EQ(line(r.err, 0), "tevash: " + c.first) << c.args;
    }
    EXPECT_EQ(run(store_ + "members " + job + " --json").out, members);

    // What fits is written in the member's kind: a shorter byte string is padded
    // with zeros; hex both ways, text only when asked for.
    EXPECT_EQ(run(store_ + "set " + on + "1 0x4142").status, 0);
    EXPECT_EQ(run(store_ + "get " + on + "1").out, "0x41420000\n");
    EXPECT_EQ(run(store_ + "get " + on + "1 --type bytes --size 2").out, "0x4142\n");
    EXPECT_EQ(run(store_ + "get " + on + "1 --text").out, "AB\n");
    EXPECT_EQ(run(store_ + "set " + on + "2 255").status, 0);
    EXPECT_EQ(run(store_ + "set " + on + "0 -2147483648 --type i32").status, 0);
    run_result fixed = run(store_ + "set " + on + "3 9 --type u16");
    EXPECT_EQ(fixed.err,
              "tevash: member 0x00360003 of handler 1 is now u16 in this store (the "
              "first typed write fixes a member's kind)\n");
    EXPECT_EQ(run(store_ + "members " + job).out,
              "MEMBER      KIND   WIDTH  VALUE\n"
              "0x00360000  i32    4      -2147483648\n"
              "0x00360001  bytes  4      0x41420000\n"
              "0x00360002  u8     1      255\n"
              "0x00360003  u16    2      9\n");
}

// Import trusts nothing: each refusal names the JSON pointer of the bad value,
// exits 1 without a crash and changes nothing.
TEST_F(Cli, ImportRefusesHostileInputsNamingThePath) {
    const std::string job = import(job_export(1));
    const std::string before = run(store_ + "tree").out;
    const auto v2 = [](const std::string& members, const std::string& more = "") {
        return R"({"tevash_tree":2,"nodes":[{"category":"APLJOB","members":{)" + members + "}}" +
               more + "]}";
    };
    const auto i32 = [](const std::string& value) {
        return R"("0x00360000":{"kind":"i32","value":)" + value + "}";
    };
    const std::string format = "/tevash_tree: a tevash tree export, format 1 or 2";
    const std::string range = "/nodes/0/members/0x00360000/value: value ";
    const std::pair<std::string, std::string> cases[] = {
        {R"({"tevash_tree":"1","root":{}})", format},
        {R"({"tevash_tree":null,"root":{}})", format},
        {R"({"tevash_tree":true,"root":{}})", format},
        {R"({"tevash_tree":1.9,"root":{}})", format},
        {R"({"tevash_tree":4294967297,"root":{}})", format},
        {"[1]", "not a JSON object"},
        {std::string(100000, '[') + std::string(100000, ']'), "not a JSON object"},
        {v2(i32("18446744073709551615")),
         range + "18446744073709551615 is out of range for i32 (-2147483648..2147483647)"},
        {v2(i32("1.5")), "/nodes/0/members/0x00360000/value: an integer"},
        {v2(R"("0x0000000A":{"kind":"u8","value":1})"),
         "/nodes/0/members/0x0000000A: no member 0x0000000A in the member table"},
        {v2(R"("0x00460000":{"kind":"u8","value":1})"),
         "/nodes/0/members/0x00460000: member 0x00460000 belongs to a JOBSET_03 handler, not "
         "APLJOB"},
        {v2(R"("0x00360001":{"kind":"bytes","value":"ABCD"})"),
         "/nodes/0/members/0x00360001/value: member 0x00360001: bytes are a 0x-hex string, not "
         "'ABCD'"},
        {v2(R"("0x00360001":{"kind":"bytes","size":3,"value":"0x4142"})"),
         "/nodes/0/members/0x00360001/size: the value has 2 bytes"},
        {v2(i32("1") + "," + i32("2")), "/nodes/0/members/0x00360000: duplicate key"},
        {v2(R"("0x00360000":{"kind":"i32","value":1},"0x360000":{"kind":"u8","value":1})"),
         "/nodes/0/members/0x360000: member 0x00360000 appears twice"},
        {v2(i32("1") + R"(},"colour":{)"), "/nodes/0/colour: unknown key"},
        {v2("", R"(,{"parent":1,"category":"JOBSET_03"})"),
         "/nodes/1/parent: the index of an earlier node"},
        {v2("", R"(,{"parent":0,"category":"APLSVC_IMG"})"),
         "/nodes/1/category: an APLSVC_IMG handler (level 1) cannot be below an APLJOB handler "
         "(level 2)"},
        {R"({"tevash_tree":2,"nodes":[{"parent":0,"category":"APLJOB"}]})",
         "/nodes/0/parent: the first node is the root"},
        {R"({"tevash_tree":1,"root":{"category":"APLJOB","members":[)"
         R"({"member":"0x00360000","kind":"i32","value":1},)"
         R"({"member":"0x00360000","kind":"u8","value":1}]}})",
         "/root/members/1: member 0x00360000 appears twice"},
        {R"({"tevash_tree":1,"root":{"category":"APLJOB","children":[{"category":"JOBSET_03",)"
         R"("children":[{"category":"JOBSET_03"},{"category":"NOPE"}]}]}})",
         "/root/children/0/children/1/category: a known category name"},
    };
    const std::string file = dir_.path("in.json");
    for (const auto& c : cases) {
        std::ofstream(file) << c.first;
        run_result r = run(store_ + "import " + file);
        EXPECT_EQ(r.status, 1) << c.first.substr(0, 200);
        EXPECT_EQ(line(r.err, 0), "tevash: '" + file + "': " + c.second) << c.first.substr(0, 200);
    }
    std::ofstream(file) << R"({"tevash_tree":)";
    EXPECT_EQ(
        line(run(store_ + "import " + file).err, 0).rfind("tevash: '" + file + "': not JSON: ", 0),
        0u);
    EXPECT_EQ(run(store_ + "tree").out, before);
    // A user's unlinked root is never a finding; an AUTH linked below a job (by
    // the library: the tool refuses it) is.
    EXPECT_EQ(run(store_ + "check").status, 0);
    const std::string auth = create("AUTH");
    tevhost::set_trace_sink("none");
    ASSERT_TRUE(tevhost::store_use_file(db_));
    using velmora::TEV_ASH_CAT_APLJOB, velmora::TEV_ASH_CAT_AUTH;
    EXPECT_EQ(velmora::tev_ash_control().set_link(TEV_ASH_CAT_APLJOB, 1, TEV_ASH_CAT_AUTH, 3), 0u);
    tevhost::store_use_memory();
    run_result found = run(store_ + "check");
    EXPECT_EQ(found.status, 1);
    EXPECT_EQ(found.out, "handler " + auth + " (AUTH): linked below handler " + job +
                             " (APLJOB), a deeper level\n");
}

// Through a service in another process an import is all or nothing too: killed
// or failed at any point, it leaves its tree whole or unlinked handlers only,
// which check lists and check --repair removes (never a user's own root).
TEST_F(Cli, ImportThroughTheServiceIsAllOrNothing) {
    const std::string rt = dir_.path("rt");
    const std::vector<std::string> env{"TEVASH_RUNTIME_DIR=" + rt};
    tevtest::child_options opt;
    opt.env = env;
    opt.log = dir_.path("log");
    // A service on a store of its own: directors and commands use that one.
    tevtest::child_process serve({TEVASH_CLI_PATH, "serve", "--store", dir_.path("svc.db")}, opt);
    for (int i = 0; i < 1000 && count_lines(file_text(opt.log)) < 1; ++i) usleep(20000);
    tevtest::child_process director({TEVASH_CLI_PATH, "director", "--app-type", "1"}, opt);
    for (int i = 0; i < 1000 && count_lines(file_text(opt.log)) < 2; ++i) usleep(20000);
    const std::string mine = line(run("create JOBSET_03", env).out, 0);
    // Another store is refused (usage); a name never served leaves no file behind.
    EXPECT_EQ(run(store_ + "tree", env).status, 2);
    EXPECT_EQ(run("--app-type 7 create APLJOB", env).status, 1);
    EXPECT_FALSE(std::ifstream(rt + "/TEV_ASH_DIR7.lock").good());
    std::string wide = R"({"tevash_tree":2,"nodes":[{"category":"APLJOB"})";
    for (int i = 0; i < 20000; ++i) wide += R"(,{"parent":0,"category":"JOBSET_03"})";
    std::ofstream(dir_.path("wide.json")) << wide << "]}";
    tevtest::child_process killed({TEVASH_CLI_PATH, "import", dir_.path("wide.json")}, opt);
    usleep(1500000);
    killed.kill(SIGKILL);
    // The tree of the killed import is whole or not linked at all.
    const int lines = count_lines(run("tree", env).out);
    EXPECT_TRUE(lines == 20002 || count_lines(run("check", env).out) == lines - 1) << lines;
    EXPECT_EQ(run("check --repair", env).status, 0);
    EXPECT_EQ(run("check", env).status, 0);
    const std::string left = run("tree", env).out;
    EXPECT_EQ(line(left, 0), mine + " JOBSET_03");
    EXPECT_TRUE(count_lines(left) == 1 || count_lines(left) == 20002) << count_lines(left);
    // Failed half-way (its director gone): what it made is removed again.
    tevtest::child_process failing({TEVASH_CLI_PATH, "import", dir_.path("wide.json")}, opt);
    usleep(1500000);
    director.kill(SIGKILL);
    const int status = failing.wait();
    EXPECT_EQ(run("check", env).status, 0);
    EXPECT_EQ(count_lines(run("tree", env).out), count_lines(left) + (status == 0 ? 20001 : 0));
}

// A chain deeper than any fixed limit is drawn, exported and imported whole, in
// output linear in its handlers: the drawing's guides stop at DRAWN_LEVELS, the
// export is one line per handler. Format 1 (nested) still imports.
TEST_F(Cli, DeepTreesAreDrawnWholeInLinearOutput) {
    const int depth = 3000;
    const std::string root = import(job_export(depth));
    run_result tree = run(store_ + "tree " + root);
    ASSERT_EQ(tree.status, 0) << tree.err;
    std::string expected = root + " APLJOB\n";
    for (int d = 1; d <= 40; ++d)
        expected += (d > 32 ? "[" + std::to_string(d) + "] " : std::string(4 * (d - 1), ' ')) +
                    "`-- " + std::to_string(std::stoi(root) + d) + " JOBSET_03\n";
    EXPECT_EQ(tree.out.substr(0, expected.size()), expected);
    EXPECT_LT(tree.out.size(), 40u * depth);
    const std::string exported = run(store_ + "export " + root).out;
    EXPECT_EQ(line(exported, 0), R"({"tevash_tree":2,"nodes":[)");
    EXPECT_EQ(line(exported, 2), R"({"parent":0,"category":"JOBSET_03","members":{}},)");
    EXPECT_LT(exported.size(), 60u * depth);
    const std::string again = import(exported);
    EXPECT_EQ(run(store_ + "export " + again).out, exported);
    const std::string json = run(store_ + "tree --json " + again).out;
    EXPECT_EQ(nlohmann::json::parse(json)[0]["children"][0]["children"][0]["id"],
              std::stoi(again) + 2);
    EXPECT_LT(json.size(), 80u * depth);
}

// Siblings keep their order (child order, as created) through export and
// import: three of one category, told apart by a member, among others.
TEST_F(Cli, ExportAndImportKeepTheOrderOfSiblings) {
    const char* kids[] = {"JOBSET_03", "JOBSET_04", "JOBSET_03", "JOBSET_05", "JOBSET_03"};
    const std::string job = create("APLJOB");
    for (const char* kid : kids) create(kid + (" --parent " + job));
    for (const std::string order : {"0", "1", "2"})
        ASSERT_EQ(
            run(store_ + "set 1 0x00460000 1" + order + " --type i32 --order " + order).status, 0);
    const std::string exported = run(store_ + "export " + job).out;
    const auto doc = nlohmann::json::parse(exported);
    std::string listed;
    for (const auto& kid : doc["nodes"]) {
        if (kid.value("parent", -1) != 0) continue;
        listed += kid["category"].get<std::string>() + " ";
        for (const auto& m : kid["members"]) listed += m["value"].dump() + " ";
    }
    EXPECT_EQ(listed, "JOBSET_03 10 JOBSET_04 JOBSET_03 11 JOBSET_05 JOBSET_03 12 ");
    const std::string copy = import(exported);
    EXPECT_EQ(run(store_ + "export " + copy).out, exported);
}

TEST_F(Cli, PersistentStoreAcrossInvocations) {
    const std::string auth = create("AUTH"), img = create("APLSVC_IMG --parent " + auth);
    const std::string src = create("APLJOB --parent " + img), dst = create("APLJOB --parent 2");
    const std::string src_set = create("JOBSET_03 --parent 3"),
                      old_set = create("JOBSET_03 --parent 4");
    const std::string& s = store_;

    // The job's own member, and one of its first JOBSET_03 child.
    EXPECT_EQ(run(s + "set " + src + " 0x00360000 -77 --type i32").status, 0);
    EXPECT_EQ(run(s + "set " + src + " 0x00460000 5 --type i32 --order 0").status, 0);
    EXPECT_EQ(run(s + "get " + src + " 0x00360000 --type i32").out, "-77\n");
    ASSERT_EQ(run(s + "copy " + src + " " + dst).status, 0);
    EXPECT_EQ(run(s + "get " + dst + " 0x00360000 --type i32").out, "-77\n");
    EXPECT_EQ(run(s + "get " + dst + " 0x00460000 --type i32 --order 0").out, "5\n");

    // The destination's old child is gone; a fresh copy of the source's took its place.
    run_result tree = run(s + "tree");
    ASSERT_EQ(tree.status, 0) << tree.err;
    const unsigned long new_set = std::stoul(old_set) + 1;
    EXPECT_EQ(tree.out, auth + " AUTH\n`-- " + img + " APLSVC_IMG\n    |-- " + src +
                            " APLJOB\n    |   `-- " + src_set + " JOBSET_03\n    `-- " + dst +
                            " APLJOB\n        `-- " + std::to_string(new_set) + " JOBSET_03\n");

    // Import below a parent; unlink takes the copy out again.
    const std::string copy = import(run(s + "export " + src).out, " --parent " + img);
    EXPECT_EQ(run(s + "unlink " + copy).status, 0);
    EXPECT_EQ(run(s + "tree").out, tree.out + copy + " APLJOB\n`-- " +
                                       std::to_string(std::stoul(copy) + 1) + " JOBSET_03\n");
    EXPECT_EQ(run(s + "remove " + copy).status, 0);

    // Reset goes through the director: the job's own values are gone, its links stay.
    EXPECT_EQ(run(s + "reset " + dst).status, 0);
    EXPECT_NE(run(s + "get " + dst + " 0x00360000 --type i32").status, 0);
    EXPECT_EQ(run(s + "tree").out, tree.out);

    // A backup is a store of its own; --read-only refuses writes; a read never
    // makes a store file.
    const std::string backup = dir_.path("backup.db"), none = dir_.path("none.db");
    EXPECT_EQ(run(s + "backup " + backup).status, 0);
    EXPECT_EQ(run("--read-only --store " + backup + " tree").out, tree.out);
    EXPECT_EQ(run(s + "backup " + backup).err.rfind("tevash: cannot back up the store to '", 0),
              0u);
    EXPECT_EQ(line(run("--read-only --store " + backup + " create AUTH").err, 0),
              "tevash: store '" + backup + "' is read-only");
    EXPECT_NE(run("--store " + none + " tree").status, 0);
    EXPECT_FALSE(std::ifstream(none).good());

    // Remove goes through the director, which takes the subtree with it.
    EXPECT_EQ(run(s + "remove " + img).status, 0);
    EXPECT_EQ(run(s + "tree").out, auth + " AUTH\n");
}

}  // namespace
