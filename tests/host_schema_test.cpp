// The member schema: its file's parser, loading it, and what the store applies.
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "tev_test_support.h"
#include "wud_wud_service_info.h"

namespace {

using S = velmora::wud_wud_service_info;
using namespace tevhost;
using tevtest::temp_dir;

constexpr unsigned int CMP = 0x1000, JOB = 0x00360000, TITLE = 0x00360001;
const std::string SCHEMA =
    R"({"tevash_schema":1,"members":[{"id":"0x00360000","name":"copies","kind":"i16",)"
    R"("initial":3,"min":1,"max":999,"description":"Copies"},)"
    R"({"id":3538945,"kind":"bytes","size":3,"initial":"0x41"}]})";

std::vector<member_schema> parsed(const std::string& text) {
    std::vector<member_schema> out;
    std::string why;
    EXPECT_TRUE(parse_member_schema(text, &out, &why)) << why;
    return out;
}

TEST(SchemaFile, ReadsBackWhatItWritesAndRefusesBadInputInWords) {
    const std::vector<member_schema> m = parsed(SCHEMA);
    EXPECT_TRUE(m.size() == 2 && m[0].ranged && m[0].min == 1 && m[1].member_id == TITLE);
    EXPECT_EQ(member_schema_text(parsed(member_schema_text(m))), member_schema_text(m));
    const std::string head = R"({"tevash_schema":1,"members":[{"id":1,)";
    const std::pair<std::string, std::string> bad[] = {
        {"[", "not JSON"},
        {R"({"tevash_schema":2,"members":[]})", "schema version 2 is not 1"},
        {head + R"("kind":"u64"}]})", "members[0].kind: \"u64\" is not a kind"},
        {head + R"("kind":"u8","initial":256}]})", "members[0].initial: 256 is out of range"},
        {head + R"("kind":"u8","min":5,"max":9,"initial":4}]})",
         "members[0].initial: 4 is outside [5, 9]"},
        {head + R"("kind":"bytes","size":2,"initial":"0x010203"}]})", "members[0].initial: longer"},
        {head + R"("kind":"u8","kind":"u8"}]})", "key 'kind' given twice"},
        {head + R"("kind":"u8"},{"id":"0x1","kind":"u8"}]})", "members[1].id: declared twice"},
    };
    for (const auto& b : bad) {
        std::vector<member_schema> out;
        std::string why;
        EXPECT_FALSE(parse_member_schema(b.first, &out, &why)) << b.first;
        EXPECT_EQ(why.rfind(b.second, 0), 0u) << b.first << " -> " << why;
    }
}

class Schema : public ::testing::TestWithParam<bool> {  // true: the file store
protected:
    void SetUp() override {
        if (GetParam())
            ASSERT_TRUE(store_use_file(file_));
        else
            store_use_memory();
        ASSERT_EQ(0u, S::wud_wud_service_info_make_current(CMP, 0x20, 0, &job_));
    }
    void TearDown() override { store_use_memory(); }
    temp_dir dir_;
    const std::string file_ = dir_.path("store.db");
    unsigned int job_ = 0;
};

// Declared members read as their initial value, take the declared kind and
// width from any write, and refuse values outside the range (library and tools
// alike); a schema that contradicts a stored value is refused, nothing changed.
TEST_P(Schema, AppliesToEveryWriteAndRefusesContradictions) {
    ASSERT_EQ(0u, S::wud_wud_service_info_set_current(CMP, job_, 0x00460000, 7L));
    std::vector<member_schema> contradicts =
        parsed(R"({"tevash_schema":1,"members":[{"id":"0x00460000","kind":"u8"}]})");
    std::string why;
    EXPECT_EQ(STORE_WIDTH, store_load_schema(contradicts, &why));
    EXPECT_NE(why.find("holds i32 of 4 byte(s), the schema declares u8 of 1"), std::string::npos)
        << why;
    EXPECT_TRUE(store_schema().empty());
    {
        store_transaction txn;  // rolled back: the schema goes with it
        ASSERT_EQ(0u, store_load_schema(parsed(SCHEMA), &why)) << why;
    }
    EXPECT_TRUE(store_schema().empty());
    ASSERT_EQ(0u, store_load_schema(parsed(SCHEMA), &why)) << why;

    short copies = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_current(CMP, job_, JOB, &copies));
    EXPECT_EQ(copies, 3);
    member_value v{};
    EXPECT_EQ(0u, member_info(job_, TITLE, &v));
    EXPECT_EQ(v.value, (std::vector<unsigned char>{0x41, 0, 0}));
    EXPECT_EQ(STORE_RANGE, S::wud_wud_service_info_set_current(CMP, job_, JOB, short{1000}));
    EXPECT_EQ(STORE_RANGE, set_member_value(job_, {JOB, member_kind::i16, 2, {0xE8, 0x03}}));
    EXPECT_EQ(STORE_WIDTH, S::wud_wud_service_info_set_current(CMP, job_, JOB, 5L));
    EXPECT_EQ(0u, S::wud_wud_service_info_set_current(CMP, job_, JOB, short{999}));
    char title[] = "XYZ";
    EXPECT_EQ(0u, S::wud_wud_service_info_set_current(CMP, job_, TITLE, static_cast<void*>(title)));
    EXPECT_EQ(0u, member_info(job_, JOB, &v));
    EXPECT_EQ(v.kind, member_kind::i16);
    EXPECT_EQ(v.value, (std::vector<unsigned char>{0xE7, 0x03}));
}

// The file keeps the schema: another process loading one is seen by this one
// at its next call, and a later opening of the file finds it.
TEST_P(Schema, TheFileKeepsItForEveryProcess) {
    if (!GetParam()) GTEST_SKIP() << "the in-memory store has no file";
    EXPECT_TRUE(store_schema().empty());  // read now, and so cached
    const pid_t child = fork();
    if (child == 0) {  // its own connection; exits without closing it
        const bool ok = store_use_file(file_) && store_load_schema(parsed(SCHEMA), nullptr) == 0;
        _exit(ok ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_EQ(0, status);
    EXPECT_EQ(STORE_RANGE, S::wud_wud_service_info_set_current(CMP, job_, JOB, short{1000}));
    store_use_memory();
    ASSERT_TRUE(store_use_file(file_, nullptr, store_access::read_only));
    ASSERT_EQ(store_schema().size(), 2u);
    EXPECT_EQ(store_schema()[0].description, "Copies");
}

INSTANTIATE_TEST_SUITE_P(Backends, Schema, ::testing::Bool());

}  // namespace
