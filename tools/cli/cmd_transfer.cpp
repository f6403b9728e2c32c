// export, import: a handler tree as JSON and back; backup: a copy of the store file.
//
//   {"tevash_tree": 1,
//    "root": {"category": "APLJOB",
//             "members": [{"member": "0x00360000", "kind": "i32", "size": 4, "value": 42},
//                         {"member": "0x00360001", "kind": "bytes", "size": 2, "value": "0x4142"}],
//             "children": [ ...nodes like root, in child order... ]}}
//
// Handler ids are not part of an export: import makes new handlers (through the
// handler service and the director, as create does), links them in order and
// stores each member value with its kind, then prints the new root's id. An
// export of the imported tree is the same text as the export it came from.
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "tree_model.h"
#include "util.h"

namespace tevash_cli {

namespace {

using json = nlohmann::ordered_json;
using tevhost::member_kind;
using tevhost::member_value;

constexpr int FORMAT = 1;

int run_export(context& ctx, const std::string& text) {
    unsigned int root = 0;
    if (!parse_arg(text, &root, "handler id")) return 1;
    if (int rc = ctx.check_handler(root)) return rc;
    std::vector<tree_entry> entries;
    if (unsigned int rc = walk_tree(root, &entries))
        return ctx.fail_code("the tree below handler " + text + " could not be read whole", rc);
    const json tree = nest_json(entries, [](const tree_entry& e) {
        json node = {{"category", category_token(e.category)},
                     {"members", json::array()},
                     {"children", json::array()}};
        for (const auto& m : tevhost::record_members(e.id))
            node["members"].push_back(member_json(m));
        return node;
    });
    const json doc = {{"tevash_tree", FORMAT}, {"root", tree}};
    std::cout << doc.dump(2) << '\n';
    return 0;
}

// One handler to make: its category, its parent's index in the plan (-1: the
// root) and its member values.
struct planned {
    unsigned int category;
    long parent;
    std::vector<member_value> members;
};

// Reads one member value; false with *why set when it is malformed.
bool read_member(const json& row, member_value* m, std::string* why) {
    if (!row.is_object() || !row.contains("member") || !row.contains("kind") ||
        !row.contains("value") || !row["member"].is_string() || !row["kind"].is_string())
        return *why = "a member needs \"member\", \"kind\" and \"value\"", false;
    const std::string id = row["member"].get<std::string>();
    if (!parse_u32(id, &m->member_id)) return *why = "malformed member id '" + id + "'", false;
    const std::string kind = row["kind"].get<std::string>();
    if (!parse_kind(kind, &m->kind)) return *why = "unknown kind '" + kind + "'", false;
    const json& v = row["value"];
    if (m->kind == member_kind::bytes) {
        if (!v.is_string() || !parse_hex_bytes(v.get<std::string>(), &m->value) || m->value.empty())
            return *why = "member " + id + ": bytes are a 0x-hex string", false;
    } else {
        long long lo = 0, hi = 0;
        kind_range(m->kind, &lo, &hi);
        if (!v.is_number_integer() || v.get<long long>() < lo || v.get<long long>() > hi)
            return *why = "member " + id + ": value is not a " + kind + " number", false;
        m->value = encode_value(v.get<long long>(), tevhost::member_width(m->kind));
    }
    m->size = static_cast<unsigned int>(m->value.size());
    if (row.contains("size") && row["size"] != m->size)
        return *why = "member " + id + ": size does not match its value", false;
    return true;
}

// The whole document checked and flattened in pre-order before anything is made.
bool read_plan(const json& doc, std::vector<planned>* plan, std::string* why) {
    if (!doc.is_object() || doc.value("tevash_tree", 0) != FORMAT || !doc.contains("root"))
        return *why = "not a tevash tree export (format " + std::to_string(FORMAT) + ")", false;
    std::vector<std::pair<const json*, long>> stack{{&doc["root"], -1}};
    while (!stack.empty()) {
        const json& node = *stack.back().first;
        planned p{0, stack.back().second, {}};
        stack.pop_back();
        if (!node.is_object() || !node.contains("category") || !node["category"].is_string() ||
            !parse_category(node["category"].get<std::string>(), &p.category))
            return *why = "a handler needs a known \"category\"", false;
        const json empty = json::array();
        const json& members = node.contains("members") ? node["members"] : empty;
        const json& children = node.contains("children") ? node["children"] : empty;
        if (!members.is_array() || !children.is_array())
            return *why = "\"members\" and \"children\" are arrays", false;
        for (const auto& row : members) {
            p.members.emplace_back();
            if (!read_member(row, &p.members.back(), why)) return false;
        }
        plan->push_back(std::move(p));
        for (auto it = children.rbegin(); it != children.rend(); ++it)
            stack.emplace_back(&*it, static_cast<long>(plan->size() - 1));
    }
    return true;
}

struct import_options {
    std::string file, parent;
};

int run_import(context& ctx, const import_options& o) {
    std::ifstream in(o.file);
    if (!in) return context::fail("cannot read '" + o.file + "'");
    const json doc = json::parse(in, nullptr, false);
    if (doc.is_discarded()) return context::fail("'" + o.file + "' is not JSON");
    std::vector<planned> plan;
    std::string why;
    if (!read_plan(doc, &plan, &why)) return context::fail("'" + o.file + "': " + why);
    unsigned int parent = 0, parent_category = 0;
    if (!o.parent.empty()) {
        if (!parse_arg(o.parent, &parent, "parent id")) return 1;
        if (int rc = ctx.check_handler(parent, &parent_category)) return rc;
    }
    auto* f = context::facade();
    std::vector<unsigned int> ids;
    for (const auto& p : plan) {
        unsigned int id = 0;
        unsigned int rc =
            f->tev_ash_create(p.category, ctx.app(), velmora::TEV_ASH_SERVICE_TYPE_NONE, &id, 0);
        if (rc != 0)
            return ctx.fail_service("cannot create a " + category_name(p.category) + " handler",
                                    rc);
        ids.push_back(id);
        const bool below_parent = p.parent >= 0 || !o.parent.empty();
        const unsigned int up = p.parent >= 0 ? ids[p.parent] : parent;
        const unsigned int up_category = p.parent >= 0 ? plan[p.parent].category : parent_category;
        if (below_parent && (rc = f->tev_ash_set_link(up_category, up, p.category, id)) != 0)
            return ctx.fail_code(
                "cannot link handler " + std::to_string(id) + " below " + std::to_string(up), rc);
        for (const auto& m : p.members) {
            if ((rc = tevhost::set_member_value(id, m)) != 0)
                return ctx.fail_code("cannot store member " + hex32(m.member_id) + " on handler " +
                                         std::to_string(id),
                                     rc);
        }
    }
    std::cout << ids.front() << '\n';
    return 0;
}

int run_backup(context& ctx, const std::string& file) {
    if (int rc = ctx.open_store(READS)) return rc;
    std::string error;
    if (!tevhost::store_backup(file, &error))
        return context::fail("cannot back up the store to '" + file + "': " + error);
    return 0;
}

}  // namespace

void add_transfer_commands(CLI::App& app, context& ctx) {
    auto h = std::make_shared<std::string>();
    auto* exp = app.add_subcommand("export", "Write the tree below a handler as JSON");
    exp->add_option("handler", *h, "Root handler id")->required();
    run_with_system(exp, ctx, READS, run_mode::store_only,
                    [&ctx, h] { return run_export(ctx, *h); });

    auto o = std::make_shared<import_options>();
    auto* imp = app.add_subcommand("import", "Make a tree from an export; prints its root's id");
    imp->add_option("file", o->file, "Export file")->required();
    imp->add_option("--parent", o->parent, "Link the new root below this handler");
    run_with_system(imp, ctx, WRITES, run_mode::sends, [&ctx, o] { return run_import(ctx, *o); });

    // Backup needs the store only, not the handler service.
    auto f = std::make_shared<std::string>();
    auto* backup = app.add_subcommand(
        "backup",
        "Write a consistent copy of the --store file to a new FILE, even while others write");
    backup->add_option("file", *f, "New file")->required();
    backup->callback([&ctx, f] { ctx.exit_code = run_backup(ctx, *f); });
}

}  // namespace tevash_cli
