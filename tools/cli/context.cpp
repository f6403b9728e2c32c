#include "context.h"

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "processes.h"
#include "util.h"
#include "vlq_mc_client.h"

namespace tevash_cli {

int context::open_store(tevhost::store_access access) {
    if (!verbose) tevhost::set_trace_sink("none");
    if (store.empty() && read_only) {
        // The store the host platform opens by itself, if one is named.
        const char* env = std::getenv("TEVASH_HOST_STORE");
        if (env == nullptr || *env == '\0')
            return usage(
                "--read-only needs --store FILE: without it the store is a fresh "
                "in-memory one");
        store = env;
    }
    if (store.empty()) return 0;
    std::string error;
    if (!tevhost::store_use_file(store, &error,
                                 read_only ? tevhost::store_access::read_only : access))
        return fail("cannot open store '" + store + "': " + error);
    if (access == tevhost::store_access::read_write && tevhost::store_read_only())
        return fail("store '" + store + "' is read-only");
    return 0;
}

int context::start_system(tevhost::store_access access) {
    if (!runtime_dir.empty()) {
        tevhost::set_runtime_dir(runtime_dir);
        // First whether anything serves there: a directory nothing serves is
        // neither made nor read.
        if (velmora::vlq_mc_client::vlq_mc_check_facade(velmora::TEV_ASH_SRV_NAME,
                                                        velmora::TEV_ASH_SRV_OBJ_ID) == 0) {
            // A read needs no service: the store the service left behind is read as it is.
            if (access == tevhost::store_access::read_only && store.empty())
                if (int rc = open_stopped_service_store(); rc >= 0) return rc;
            fail("handler service not reachable: nothing listening in " + runtime_dir +
                 " (start `tevash serve` there)");
            return EXIT_NOT_RUNNING;
        }
        std::string error;
        // The service's store only: another would be written by the service and
        // read here.
        std::string shared;
        if (!tevash_tools::shared_store_path("", &shared, &error)) return fail(error);
        if (!store.empty() && !same_file(store, shared))
            return usage("--store " + store + " is not the store of the handler service in " +
                         runtime_dir + " (" + shared + "); leave out --store with --runtime-dir");
        store = shared;
        if (int rc = open_store(access)) return rc;
        capture.reset(new tevhost::trace_capture);
        return 0;
    }
    if (int rc = open_store(access)) return rc;
    system.reset(new tevash_tools::host_system(app()));
    if (system->status() != 0)
        return fail("cannot start the handler service and director: result " +
                    hex32(system->status()));
    capture.reset(new tevhost::trace_capture);
    return 0;
}

int context::open_stopped_service_store() {
    std::error_code ec;
    if (!std::filesystem::is_directory(runtime_dir, ec)) return -1;
    std::string shared, error;
    if (!tevash_tools::shared_store_path("", &shared, &error) ||
        !std::filesystem::is_regular_file(shared, ec))
        return -1;
    std::cerr << "tevash: no handler service in " << runtime_dir << "; reading its store " << shared
              << '\n';
    store = shared;
    if (int rc = open_store(tevhost::store_access::read_only)) return rc;
    capture.reset(new tevhost::trace_capture);
    return 0;
}

int context::fail(const std::string& message) {
    std::cerr << "tevash: " << message << '\n';
    return 1;
}

int context::usage(const std::string& message) {
    fail(message);
    return EXIT_USAGE;
}

int context::fail_code(const std::string& words, unsigned int rc) const {
    fail(words);
    std::cerr << "  result " << hex32(rc) << '\n';
    if (capture) {
        for (const auto& line : capture->lines()) {
            std::string t = verbose ? line.text : without_pointers(line.text);
            while (!t.empty() && (t.back() == '\n' || t.back() == '\r')) t.pop_back();
            std::cerr << "  trace: " << t << '\n';
        }
    }
    return 1;
}

int context::fail_service(const std::string& words, unsigned int rc) const {
    const int sent = tevhost::last_send_status();
    if (sent != tevhost::MSG_OK) {
        const std::string why = tevhost::send_status_text(sent);
        // The request may have been carried out although no answer came back.
        if (tevhost::send_outcome_unknown(sent))
            return fail_code(
                "no answer from the handler service (" + why + "): the outcome is unknown", rc);
        if (sent == tevhost::MSG_BUSY)
            return fail_code("handler service busy: nothing was done", rc);
        return fail_code("handler service not reachable (" + why + ")", rc);
    }
    std::string meaning;
    if (rc == velmora::TEV_ASH_RC_NO_OBSERVER)
        meaning = " (no director registered for application type " + std::to_string(app_type) + ")";
    else if (const char* host = tevhost::host_code_text(rc); *host != '\0')
        meaning = std::string(" (") + host + ")";
    return fail_code(words + meaning, rc);
}

int context::check_handler(unsigned int id, unsigned int* category) const {
    unsigned int c = 0;
    const unsigned int rc = facade()->tev_ash_get_category(id, &c);
    if (rc != 0) return fail_code("no handler " + std::to_string(id), rc);
    if (category != nullptr) *category = c;
    return 0;
}

void run_with_system(CLI::App* sub, context& ctx, tevhost::store_access access, run_mode mode,
                     std::function<int()> body) {
    run_with_system(
        sub, ctx, [access] { return access; }, mode, std::move(body));
}

void run_with_system(CLI::App* sub, context& ctx, std::function<tevhost::store_access()> access,
                     run_mode mode, std::function<int()> body) {
    sub->callback([&ctx, access, mode, body] {
        if (mode == run_mode::own_embedded) ctx.runtime_dir.clear();
        ctx.exit_code = ctx.start_system(access());
        if (ctx.exit_code != 0) return;
        if (mode == run_mode::own_embedded || (mode == run_mode::sends && !ctx.system)) {
            ctx.exit_code = body();
            return;
        }
        std::ostringstream held;
        std::streambuf* out = std::cout.rdbuf(held.rdbuf());
        unsigned int rc = 0;
        {
            tevhost::store_transaction txn;
            ctx.exit_code = body();
            if (ctx.exit_code == 0) rc = txn.commit();
        }
        std::cout.rdbuf(out);
        if (rc != 0)
            ctx.exit_code = ctx.fail_code("the store did not keep the command's changes", rc);
        else
            std::cout << held.str() << std::flush;
    });
}

}  // namespace tevash_cli
