// Small helpers shared by the test suites, on top of the host seams in
// host/tev_host.h.
#ifndef TEV_TEST_SUPPORT_H
#define TEV_TEST_SUPPORT_H

#include <string>
#include <vector>

namespace tevtest {

// Makes vlq_mc_check_facade answer 1 for object 1 of "TEV_ASH_SRV" (and 0 for
// anything else), so the first use of the handler facade does not wait for a
// handler service. Stays in force until tevhost::set_check_script(nullptr).
void answer_service_checks();

// The texts of the trace lines captured so far, in order.
std::vector<std::string> trace_texts();

// A fresh, empty in-memory record store with no schema and no armed failure for
// its lifetime; call logging and armed failures are switched off again at the end.
class fresh_store {
public:
    fresh_store();
    ~fresh_store();
    fresh_store(const fresh_store&) = delete;
    fresh_store& operator=(const fresh_store&) = delete;
};

}  // namespace tevtest

#endif  // TEV_TEST_SUPPORT_H
