// tree: draws handler trees (text or JSON).
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "tree_model.h"
#include "util.h"

namespace tevash_cli {

namespace {

struct tree_options {
    std::string handler;
    bool json = false;
};

std::vector<unsigned int> roots() {
    std::vector<unsigned int> ids;
    for (const auto& r : tevhost::store_records())
        if (r.parent_id == 0) ids.push_back(r.handler_id);
    return ids;
}

int run_tree(context& ctx, const tree_options& o) {
    std::vector<unsigned int> tops;
    if (!o.handler.empty()) {
        unsigned int id = 0;
        if (!parse_arg(o.handler, &id, "handler id")) return EXIT_USAGE;
        if (int rc = ctx.check_handler(id)) return rc;
        tops.push_back(id);
    } else {
        tops = roots();
    }
    unsigned int failed = 0;
    if (o.json) std::cout << '[';
    for (unsigned int top : tops) {
        std::vector<tree_entry> entries;
        const unsigned int rc = walk_tree(top, &entries);
        if (failed == 0) failed = rc;
        if (!o.json) {
            draw_tree(entries, std::cout);
            continue;
        }
        if (top != tops.front()) std::cout << ',';
        write_tree_json(entries, std::cout);
    }
    if (o.json) std::cout << "]\n";
    std::cout.flush();
    return failed ? ctx.fail_code("the tree could not be read whole", failed) : 0;
}

}  // namespace

void add_tree_commands(CLI::App& app, context& ctx) {
    auto o = std::make_shared<tree_options>();
    auto* tree = app.add_subcommand("tree", "Draw handler trees");
    tree->add_option("handler", o->handler, "Root of the drawing (default: every tree)");
    tree->add_flag("--json", o->json, "JSON output");
    run_with_system(tree, ctx, READS, run_mode::store_only,
                    [&ctx, o] { return run_tree(ctx, *o); });
}

}  // namespace tevash_cli
