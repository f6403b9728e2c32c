#include "tev_test_support.h"

#include "host/tev_host.h"

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

fresh_store::fresh_store() {
    tevhost::store_use_memory();
    tevhost::clear_schema();
    tevhost::store_fail_clear();
}

fresh_store::~fresh_store() {
    tevhost::store_fail_clear();
    tevhost::store_log_end();
}

}  // namespace tevtest
