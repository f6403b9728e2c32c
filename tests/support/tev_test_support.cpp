#include "tev_test_support.h"

#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>

#include "wud_wud_service_info.h"

namespace tevtest {

void answer_service_checks() {
    tevhost::set_check_script([](const std::string& connection, long object_id) {
        return connection == "TEV_ASH_SRV" && object_id == 1 ? 1 : 0;
    });
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
    tevhost::store_log_end();
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
    EXPECT_EQ(0u, S::wud_wud_service_info_set_link(CMP, category_of(parent), parent,
                                                   category_of(child), child));
}

unsigned int category_of(unsigned int id) {
    unsigned int category = 0;
    EXPECT_EQ(0u, S::wud_wud_service_info_get_job_category_by_id(CMP, id, &category));
    return category;
}

bool exists(unsigned int id) {
    for (const tevhost::record_info& r : tevhost::store_records()) {
        if (r.handler_id == id) return true;
    }
    return false;
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

job_tree make_job_tree(const std::vector<unsigned int>& child_categories) {
    job_tree t;
    t.auth = records::make(0x2);
    t.image = records::make(0x1);
    t.job = records::make(0x4);
    records::link(t.auth, t.image);
    records::link(t.image, t.job);
    for (unsigned int category : child_categories) {
        t.children.push_back(records::make(category));
        records::link(t.job, t.children.back());
    }
    return t;
}

std::vector<std::string> trace_calls() {
    static const std::regex line_number(R"(\[\d{4,}\]::)");
    std::vector<std::string> out;
    for (const tevhost::trace_line& line : tevhost::captured_trace()) {
        EXPECT_EQ(0xC103u, line.module);
        EXPECT_EQ(0x102u, line.level);
        EXPECT_EQ(0u, line.flag);
        std::string text = std::regex_replace(line.text, line_number,
                                              "::", std::regex_constants::format_first_only);
        if (!text.empty() && text.back() == '\n') text.pop_back();
        out.push_back(text);
    }
    return out;
}

std::vector<std::string> notifications() {
    std::vector<std::string> out;
    for (const tevhost::notification& n : tevhost::captured_notifications()) {
        char code[16];
        std::snprintf(code, sizeof code, "%#x", n.code);
        out.push_back(std::string(code) + " " + n.file + "::" + n.function + " " +
                      std::to_string(n.detail1) + "," + std::to_string(n.detail2));
    }
    return out;
}

std::vector<std::string> store_calls() {
    std::vector<std::string> out;
    for (const tevhost::store_call& call : tevhost::store_log()) {
        char cmp[16];
        std::snprintf(cmp, sizeof cmp, "%x", call.cmp_id);
        out.push_back(std::string(tevhost::store_op_name(call.op)) + "/" + cmp);
    }
    return out;
}

std::string hex8(unsigned int value) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%#.8X", value);
    return buf;
}

std::string ptr(const void* p) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

}  // namespace tevtest
