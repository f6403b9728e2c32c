// The import's reader on arbitrary bytes: any document is read and checked
// whole, refused in words or planned, without a crash, and a plan it accepts
// holds only what import can make (each parent before its children). The member
// schema an export carries is read by the schema file's own parser: what it
// accepts is sound and reads back as itself.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "host/tev_host_testing.h"
#include "transfer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const bool quiet = [] {
        tevhost::set_trace_sink("none");
        // The member table's owner asks once for a handler service: say it answers.
        tevhost::set_check_script([](const std::string&, long) { return 1; });
        return true;
    }();
    (void)quiet;
    std::vector<tevash_cli::planned> plan;
    std::vector<tevhost::member_schema> schema, again;
    std::string why;
    if (!tevash_cli::read_export(std::string(reinterpret_cast<const char*>(bytes), size), &plan,
                                 &why, &schema)) {
        if (why.empty()) std::abort();  // a refusal always says why
        return 0;
    }
    for (std::size_t i = 0; i < plan.size(); ++i) {
        if ((i == 0) != (plan[i].parent < 0) || plan[i].parent >= static_cast<long>(i))
            std::abort();
        for (const auto& m : plan[i].members)
            if (m.size == 0 || m.value.size() != m.size) std::abort();
    }
    for (const auto& m : schema)
        if (m.size == 0 || m.initial.size() != m.size || (m.ranged && m.min > m.max)) std::abort();
    const std::string text = tevhost::member_schema_text(schema);
    if (!tevhost::parse_member_schema(text, &again, &why) ||
        tevhost::member_schema_text(again) != text)
        std::abort();
    return 0;
}
