#include "tev_lib_support.h"

#include <cstdio>
#include <regex>

#include "wud_wud_service_info.h"

namespace tevtest {

namespace {
using store = velmora::wud_wud_service_info;
const unsigned int CMP = 0xC103;
}  // namespace

std::vector<std::string> trace_calls() {
    static const std::regex line_number(R"(\[\d{4,}\]::)");
    std::vector<std::string> out;
    for (const tevhost::trace_line& line : tevhost::captured_trace()) {
        std::string text = std::regex_replace(line.text, line_number,
                                              "::", std::regex_constants::format_first_only);
        if (!text.empty() && text.back() == '\n') text.pop_back();
        out.push_back(text);
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

std::vector<std::string> store_calls() {
    std::vector<std::string> out;
    for (const tevhost::store_call& call : tevhost::store_log()) {
        char cmp[16];
        std::snprintf(cmp, sizeof cmp, "%x", call.cmp_id);
        out.push_back(std::string(tevhost::store_op_name(call.op)) + "/" + cmp);
    }
    return out;
}

unsigned int make_record(unsigned int category) {
    unsigned int id = 0;
    EXPECT_EQ(0u, store::wud_wud_service_info_make_current(CMP, category, 0, &id));
    return id;
}

void link(unsigned int parent, unsigned int child) {
    const unsigned int pc = category_of(parent);
    const unsigned int cc = category_of(child);
    EXPECT_EQ(0u, store::wud_wud_service_info_set_link(CMP, pc, parent, cc, child));
}

unsigned int parent_of(unsigned int handler_id) {
    for (const tevhost::record_info& r : tevhost::store_records()) {
        if (r.handler_id == handler_id) return r.parent_id;
    }
    return 0;
}

std::vector<unsigned int> children_of(unsigned int handler_id) {
    std::vector<unsigned int> out;
    unsigned int count = 0;
    if (store::wud_wud_service_info_get_child_link_num_direct(CMP, handler_id, &count) != 0) {
        return out;
    }
    for (unsigned int i = 0; i < count; ++i) {
        unsigned int child = 0;
        EXPECT_EQ(0u,
                  store::wud_wud_service_info_get_child_link_direct(CMP, handler_id, i, &child));
        out.push_back(child);
    }
    return out;
}

unsigned int category_of(unsigned int handler_id) {
    unsigned int category = 0;
    EXPECT_EQ(0u, store::wud_wud_service_info_get_job_category_by_id(CMP, handler_id, &category));
    return category;
}

bool exists(unsigned int handler_id) {
    for (const tevhost::record_info& r : tevhost::store_records()) {
        if (r.handler_id == handler_id) return true;
    }
    return false;
}

job_tree make_job_tree(const std::vector<unsigned int>& child_categories) {
    job_tree t;
    t.auth = make_record(0x2);
    t.image = make_record(0x1);
    t.job = make_record(0x4);
    link(t.auth, t.image);
    link(t.image, t.job);
    for (unsigned int category : child_categories) {
        const unsigned int child = make_record(category);
        link(t.job, child);
        t.children.push_back(child);
    }
    return t;
}

library_test::library_test() {
    answer_service_checks();
    tevhost::store_log_end();
}

library_test::~library_test() {
    tevhost::store_log_end();
}

}  // namespace tevtest
