#include "context.h"

#include <cstdlib>
#include <iostream>

#include "util.h"

namespace tevash_cli {

int context::open_store() {
    if (!verbose) setenv("TEVASH_HOST_TRACE", "none", 1);
    if (store.empty()) return 0;
    std::string error;
    if (!tevhost::store_use_file(store, &error))
        return fail("cannot open store '" + store + "': " + error);
    return 0;
}

int context::start_system() {
    if (int rc = open_store()) return rc;
    system.reset(new tevash_tools::host_system(app()));
    if (system->status() != 0)
        return fail("cannot start the handler service and director: result " +
                    hex32(system->status()));
    capture.reset(new tevhost::trace_capture);
    return 0;
}

int context::fail(const std::string& message) {
    std::cerr << "tevash: " << message << '\n';
    return 1;
}

int context::fail_code(const std::string& what, unsigned int rc) const {
    std::string text;
    if (capture) {
        for (const auto& line : capture->lines()) {
            std::string t = line.text;
            while (!t.empty() && (t.back() == '\n' || t.back() == '\r')) t.pop_back();
            if (!text.empty()) text += " | ";
            text += t;
        }
    }
    return fail(what + " failed: result " + hex32(rc) + (text.empty() ? "" : ": " + text));
}

void run_with_system(CLI::App* sub, context& ctx, std::function<int()> body) {
    sub->callback([&ctx, body] {
        ctx.exit_code = ctx.start_system();
        if (ctx.exit_code == 0) ctx.exit_code = body();
    });
}

}  // namespace tevash_cli
