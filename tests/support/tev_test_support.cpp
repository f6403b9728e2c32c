#include "tev_test_support.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "wud_wud_service_info.h"

namespace tevtest {

void answer_service_checks() {
    tevhost::set_check_script([](const std::string& connection, long object_id) {
        return connection == "TEV_ASH_SRV" && object_id == 1 ? 1 : 0;
    });
}

std::vector<std::string> trace_texts() {
    std::vector<std::string> texts;
    for (const tevhost::trace_line& line : tevhost::captured_trace()) texts.push_back(line.text);
    return texts;
}

bytes le32(std::uint32_t v) {
    return {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8),
            static_cast<unsigned char>(v >> 16), static_cast<unsigned char>(v >> 24)};
}

bytes join(std::initializer_list<bytes> parts) {
    bytes out;
    for (const bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

std::string file_text(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

fresh_store::fresh_store() {
    tevhost::store_use_memory();
    tevhost::clear_schema();
    tevhost::store_fail_clear();
}

fresh_store::~fresh_store() {
    tevhost::store_fail_clear();
    tevhost::store_log_end();
}

namespace records {

using S = velmora::wud_wud_service_info;

unsigned int make(unsigned int category) {
    unsigned int id = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_make_current(CMP, category, 0, &id));
    return id;
}

void link(unsigned int parent, unsigned int child) {
    unsigned int pc = 0, cc = 0;
    ASSERT_EQ(0u, S::wud_wud_service_info_get_job_category_by_id(CMP, parent, &pc));
    ASSERT_EQ(0u, S::wud_wud_service_info_get_job_category_by_id(CMP, child, &cc));
    ASSERT_EQ(0u, S::wud_wud_service_info_set_link(CMP, pc, parent, cc, child));
}

std::vector<unsigned int> children(unsigned int parent) {
    std::vector<unsigned int> out;
    unsigned int n = 0, past = SENTINEL;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link_num_direct(CMP, parent, &n));
    for (unsigned int i = 0; i < n; ++i) {
        out.push_back(0);
        EXPECT_EQ(0u, S::wud_wud_service_info_get_child_link_direct(CMP, parent, i, &out.back()));
    }
    EXPECT_EQ(tevhost::STORE_NO_LINK,
              S::wud_wud_service_info_get_child_link_direct(CMP, parent, n, &past));
    EXPECT_EQ(SENTINEL, past);
    return out;
}

uint32_t read_u32(unsigned int id, unsigned int member) {
    unsigned char buf[5] = {0, 0, 0, 0, 0xAA};
    EXPECT_EQ(0u, S::wud_wud_service_info_get_current(CMP, id, member, buf));
    EXPECT_EQ(0xAA, buf[4]) << "the read wrote past the member's width";
    return buf[0] | buf[1] << 8 | buf[2] << 16 | static_cast<uint32_t>(buf[3]) << 24;
}

}  // namespace records

temp_dir::temp_dir() {
    char dir[] = "/tmp/tevash_test_XXXXXX";
    EXPECT_NE(nullptr, mkdtemp(dir));
    dir_ = dir;
}

temp_dir::~temp_dir() {
    if (DIR* d = opendir(dir_.c_str())) {
        while (dirent* entry = readdir(d)) unlink(path(entry->d_name).c_str());
        closedir(d);
    }
    rmdir(dir_.c_str());
}

}  // namespace tevtest
