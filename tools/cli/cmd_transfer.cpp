// export, import: a handler tree as JSON and back (the format: transfer.h);
// backup: a copy of the store file.
//
// Export writes the tree below a handler, or every tree of the store. Import
// makes new handlers through the handler service and the director, as create
// does, then stores each member value with its kind and links them in order,
// and prints each new root's id. An export of the imported tree is the same
// text as the export it came from.
//
// All or nothing: the document is read and checked whole before anything is
// made. Then each handler is created (one request each), and last, in one store
// transaction, every member is stored and every link made, children before
// their parents, so each link's cycle check sees a parent not yet linked (cost
// linear in the handlers, whatever the shape). Embedded, the whole command is
// one transaction besides. Through a service in another process, each created
// handler carries the import's mark (transfer.h) until that last transaction
// (the first is marked once made, the others are made as copies of it);
// when the import fails it removes what it made, and after a kill only unlinked
// marked handlers remain, which `tevash check --repair` removes.
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "processes.h"
#include "tev_ash_control.h"
#include "transfer.h"
#include "util.h"

namespace tevash_cli {

namespace {

using tevhost::member_value;

struct export_options {
    std::string handler;
    bool json = false;  // the output is JSON either way
};

int run_export(context& ctx, const export_options& o) {
    std::vector<unsigned int> roots;
    if (o.handler.empty()) {
        for (const auto& r : tevhost::store_records())
            if (r.parent_id == 0) roots.push_back(r.handler_id);
    } else {
        unsigned int root = 0;
        if (!parse_arg(o.handler, &root, "handler id")) return EXIT_USAGE;
        if (int rc = ctx.check_handler(root)) return rc;
        roots.push_back(root);
    }
    if (unsigned int rc = write_exports(roots, std::cout))
        return ctx.fail_code(
            o.handler.empty() ? "the trees could not be read whole"
                              : "the tree below handler " + o.handler + " could not be read whole",
            rc);
    return 0;
}

struct import_options {
    std::string file, parent;
    bool json = false;
};

// Removes the handlers an import made through another process, in one store
// transaction (they are unlinked and childless): `ids`, and any carrying its
// `mark` (one whose create was carried out but not answered). 0 or the store's result.
unsigned int remove_made(std::vector<unsigned int> ids, const member_value& mark) {
    std::unordered_set<unsigned int> made(ids.begin(), ids.end());
    for (const auto& r : tevhost::store_records()) {
        member_value m;
        if (r.parent_id == 0 && made.count(r.handler_id) == 0 &&
            tevhost::member_info(r.handler_id, IMPORT_MARK, &m) == 0 && m.value == mark.value)
            ids.push_back(r.handler_id);
    }
    velmora::tev_ash_control control;
    tevhost::store_transaction txn;
    for (unsigned int id : ids)
        if (unsigned int rc = control.remove_info(id)) return rc;
    return txn.commit();
}

// The last step: members and links in one store transaction. `marked`: clear
// the import's mark first. 0, or the failing result with *what in words.
unsigned int fill_and_link(const std::vector<planned>& plan, const std::vector<unsigned int>& ids,
                           bool marked, unsigned int parent, unsigned int parent_category,
                           std::string* what) {
    velmora::tev_ash_control control;
    auto* f = context::facade();
    // Children lists in child order: first[k], then next[c] ... (0: none; indexes + 1).
    std::vector<size_t> first(plan.size()), last(plan.size()), next(plan.size());
    for (size_t k = 1; k < plan.size(); ++k) {
        if (plan[k].parent < 0) continue;
        const auto up = static_cast<size_t>(plan[k].parent);
        (first[up] == 0 ? first[up] : next[last[up] - 1]) = k + 1;
        last[up] = k + 1;
    }
    tevhost::store_transaction txn;
    unsigned int rc = 0;
    // Parents in descending index: a node's children are linked before it is.
    for (size_t k = plan.size(); k-- > 0;) {
        const unsigned int id = ids[k];
        if (marked && (rc = control.reset_info(id)) != 0)
            return *what = "cannot clear the import's mark on handler " + std::to_string(id), rc;
        for (const member_value& m : plan[k].members) {
            if ((rc = tevhost::set_member_value(id, m)) != 0)
                return *what = "cannot store member " + hex32(m.member_id) + " on handler " +
                               std::to_string(id),
                       rc;
        }
        for (size_t c = first[k]; c != 0; c = next[c - 1]) {
            if ((rc = f->tev_ash_set_link(plan[k].category, id, plan[c - 1].category, ids[c - 1])))
                return *what = "cannot link handler " + std::to_string(ids[c - 1]) + " below " +
                               std::to_string(id),
                       rc;
        }
    }
    for (size_t k = 0; parent != 0 && k < plan.size(); ++k) {
        if (plan[k].parent < 0 &&
            (rc = f->tev_ash_set_link(parent_category, parent, plan[k].category, ids[k])))
            return *what = "cannot link handler " + std::to_string(ids[k]) + " below " +
                           std::to_string(parent),
                   rc;
    }
    if ((rc = txn.commit()) != 0) *what = "the store did not keep the import";
    return rc;
}

int run_import(context& ctx, const import_options& o) {
    std::ifstream file;
    if (o.file != "-") file.open(o.file, std::ios::binary);
    if (o.file != "-" && !file) return context::fail("cannot read '" + o.file + "'");
    std::istream& in = o.file == "-" ? std::cin : file;
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<planned> plan;
    std::vector<tevhost::member_schema> schema;
    std::string why;
    if (!read_export(text, &plan, &why, &schema)) return context::fail("'" + o.file + "': " + why);
    // The schema the export carries comes first, so the members meet it.
    if (!schema.empty()) {
        if (const unsigned int rc = tevhost::store_load_schema(schema, &why))
            return ctx.fail_code("'" + o.file + "': its schema was not loaded: " + why, rc);
    }
    unsigned int parent = 0, parent_category = 0;
    if (!o.parent.empty()) {
        if (!parse_arg(o.parent, &parent, "parent id")) return EXIT_USAGE;
        if (int rc = ctx.check_handler(parent, &parent_category)) return rc;
        for (const auto& p : plan) {
            if (p.parent >= 0) continue;
            const std::string pair = category_pair_refusal(parent_category, p.category);
            if (!pair.empty())
                return context::fail("cannot import below handler " + o.parent + ": " + pair);
        }
    }
    // Through a service elsewhere the creates are not part of this process's
    // transaction: mark them, and remove them again on failure.
    const bool elsewhere = !ctx.system;
    const member_value mark = import_mark();
    std::vector<unsigned int> ids;
    ids.reserve(plan.size());
    const auto undo = [&](int exit_code) {
        if (!elsewhere || ids.empty()) return exit_code;
        if (const unsigned int rc = remove_made(ids, mark))
            ctx.fail_code(std::to_string(ids.size()) +
                              " handlers the import made could not be removed; `tevash check "
                              "--repair` removes them",
                          rc);
        return exit_code;
    };
    auto* f = context::facade();
    for (const auto& p : plan) {
        // After the first, each is made as a copy of the first: it carries the
        // mark from the director's own transaction on, so a kill leaves none
        // unmarked but (in the moment before the first is marked) the first.
        const unsigned int src = elsewhere && !ids.empty() ? ids.front() : 0;
        unsigned int id = 0;
        unsigned int rc =
            f->tev_ash_create(p.category, ctx.app(), velmora::TEV_ASH_SERVICE_TYPE_NONE, &id, src);
        if (rc != 0 || !ctx.reached_service())
            return undo(
                ctx.fail_service("cannot create a " + category_name(p.category) + " handler", rc));
        ids.push_back(id);
        if (elsewhere && src == 0 && (rc = tevhost::set_member_value(id, mark)) != 0)
            return undo(ctx.fail_code("cannot mark handler " + std::to_string(id), rc));
    }
    std::string what;
    if (unsigned int rc = fill_and_link(plan, ids, elsewhere, parent, parent_category, &what))
        return undo(ctx.fail_code(what, rc));
    std::vector<unsigned int> roots;
    for (size_t k = 0; k < plan.size(); ++k)
        if (plan[k].parent < 0) roots.push_back(ids[k]);
    if (o.json) {
        std::cout << nlohmann::ordered_json{{"roots", roots}, {"handlers", ids.size()}}.dump()
                  << '\n';
    } else {
        for (unsigned int id : roots) std::cout << id << '\n';
    }
    return 0;
}

struct backup_options {
    std::string file;
    bool json = false;
};

int run_backup(context& ctx, const backup_options& o) {
    if (ctx.store.empty() && !ctx.runtime_dir.empty()) {
        std::string error;
        tevhost::set_runtime_dir(ctx.runtime_dir);
        if (!tevash_tools::shared_store_path("", &ctx.store, &error)) return context::fail(error);
    }
    if (ctx.store.empty()) return context::usage("backup needs --store FILE (or --runtime-dir)");
    if (int rc = ctx.open_store(READS)) return rc;
    std::string error;
    if (!tevhost::store_backup(o.file, &error))
        return context::fail("cannot back up the store to '" + o.file + "': " + error);
    if (o.json)
        std::cout << nlohmann::ordered_json{{"store", ctx.store}, {"file", o.file}}.dump() << '\n';
    return 0;
}

}  // namespace

void add_transfer_commands(CLI::App& app, context& ctx) {
    auto e = std::make_shared<export_options>();
    auto* exp =
        app.add_subcommand("export", "Write the tree below a handler, or every tree, as JSON");
    exp->add_option("handler", e->handler, "Root handler id (default: every tree)");
    exp->add_flag("--json", e->json, "JSON output (the default: accepted for uniformity)");
    run_with_system(exp, ctx, READS, run_mode::store_only,
                    [&ctx, e] { return run_export(ctx, *e); });

    auto o = std::make_shared<import_options>();
    auto* imp =
        app.add_subcommand("import", "Make trees from an export; prints each new root's id");
    imp->add_option("file", o->file, "Export file (-: standard input)")->required();
    imp->add_option("--parent", o->parent, "Link each new root below this handler");
    imp->add_flag("--json", o->json, "JSON output");
    run_with_system(imp, ctx, WRITES, run_mode::sends, [&ctx, o] { return run_import(ctx, *o); });

    // Backup needs the store only, not the handler service.
    auto b = std::make_shared<backup_options>();
    auto* backup = app.add_subcommand(
        "backup",
        "Write a consistent copy of the --store file to a new FILE, even while others write");
    backup->add_option("file", b->file, "New file")->required();
    backup->add_flag("--json", b->json, "JSON output");
    backup->callback([&ctx, b] { ctx.exit_code = run_backup(ctx, *b); });
}

}  // namespace tevash_cli
