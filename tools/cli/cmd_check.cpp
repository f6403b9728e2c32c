// check: lists what is not sound in the store, and with --repair removes the
// handlers an import left behind, in the command's one store transaction.
//
// Findings, one line each:
//   - a leftover of an import: a handler without parent and children that
//     carries the mark of an import whose process no longer runs (transfer.h).
//     A user's own handlers never carry the mark (get and set cannot reach it,
//     and an import clears it in the transaction that links its handlers), so a
//     tree a user made is never one; an import still running is left alone;
//   - a parent that does not exist;
//   - a category that is not a handler category, or a child whose category's
//     level is above its parent's (AUTH 0, APLSVC_IMG 1, APLJOB 2, SUBJOB 3,
//     job sets 4; AUTH is only a root);
//   - a child list that does not match the children's parent links, as a whole
//     or by category (each child once, in one order in both lists);
//   - for a store file, whatever SQLite's integrity check reports.
#include <sqlite3.h>

#include <iostream>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "tev_ash_control.h"
#include "transfer.h"
#include "util.h"

namespace tevash_cli {

namespace {

using velmora::TEV_ASH_CATEGORY;

// SQLite's integrity check of the store file, on a connection of its own that
// only reads; each line it reports other than "ok".
std::vector<std::string> file_problems(const std::string& path) {
    std::vector<std::string> problems;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        problems.push_back(std::string("cannot open it: ") + sqlite3_errmsg(db));
    } else {
        sqlite3_busy_timeout(db, 10000);
        sqlite3_stmt* st = nullptr;
        int rc = sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &st, nullptr);
        while (rc == SQLITE_OK && (rc = sqlite3_step(st)) == SQLITE_ROW) {
            const auto* line = reinterpret_cast<const char*>(sqlite3_column_text(st, 0));
            if (line != nullptr && std::string(line) != "ok") problems.emplace_back(line);
            rc = SQLITE_OK;
        }
        if (rc != SQLITE_DONE) problems.push_back(sqlite3_errmsg(db));
        sqlite3_finalize(st);
    }
    sqlite3_close(db);
    return problems;
}

struct check_options {
    bool repair = false;
    bool json = false;
};

int run_check(context& ctx, const check_options& o) {
    auto* f = context::facade();
    velmora::tev_ash_control control;
    int found = 0;
    std::vector<std::string> findings, repaired;
    const auto say = [&](const std::string& line) {
        if (!o.json) std::cout << line << '\n';
        findings.push_back(line);
        ++found;
    };
    if (!ctx.store.empty())
        for (const auto& p : file_problems(ctx.store)) say("store '" + ctx.store + "': " + p);

    const auto records = tevhost::store_records();
    std::unordered_map<unsigned int, size_t> index;
    for (size_t i = 0; i < records.size(); ++i) index[records[i].handler_id] = i;
    const auto level = [&control](unsigned int category, unsigned int* out) {
        return control.get_category_level(static_cast<TEV_ASH_CATEGORY>(category), out) == 0;
    };
    const auto text = [](const tevhost::record_info& r) {
        return "handler " + std::to_string(r.handler_id) + " (" + category_name(r.category) + ")";
    };
    // Children by parent, from the children's links.
    std::vector<std::vector<unsigned int>> linked(records.size());
    for (const auto& r : records) {
        unsigned int lc = 0, lp = 0;
        if (!level(r.category, &lc)) say(text(r) + ": not a handler category");
        if (r.parent_id == 0) continue;
        const auto up = index.find(r.parent_id);
        if (up == index.end()) {
            say(text(r) + ": its parent " + std::to_string(r.parent_id) + " does not exist");
            continue;
        }
        linked[up->second].push_back(r.handler_id);
        const auto& p = records[up->second];
        if (level(r.category, &lc) && level(p.category, &lp) &&
            (lc < lp || r.category == velmora::TEV_ASH_CAT_AUTH))
            say(text(r) + ": linked below " + text(p) + ", a deeper level");
    }
    std::vector<unsigned int> leftovers;
    for (size_t i = 0; i < records.size(); ++i) {
        const auto& r = records[i];
        // The child list, whole and by category, against the links.
        std::unordered_map<unsigned int, std::vector<unsigned int>> by_category;
        for (unsigned int c : linked[i]) by_category[records[index[c]].category].push_back(c);
        unsigned int count = 0;
        bool sound = f->tev_ash_get_child_count(r.handler_id, &count) == 0;
        std::unordered_map<unsigned int, unsigned int> seen;
        for (unsigned int k = 0; sound && k < count; ++k) {
            unsigned int c = 0;
            sound = f->tev_ash_get_child_id_direct(r.handler_id, k, &c) == 0 &&
                    index.count(c) != 0 && records[index[c]].parent_id == r.handler_id &&
                    ++seen[c] == 1;
        }
        sound = sound && count == linked[i].size();
        for (const auto& cat : by_category) {
            unsigned int n = 0;
            const auto category = static_cast<TEV_ASH_CATEGORY>(cat.first);
            sound = sound && f->tev_ash_get_child_count(r.handler_id, &n, category) == 0 &&
                    n == cat.second.size();
            // Per category, in the order of the whole list.
            std::vector<unsigned int> in_order;
            for (unsigned int k = 0; sound && k < count; ++k) {
                unsigned int c = 0;
                f->tev_ash_get_child_id_direct(r.handler_id, k, &c);
                if (records[index[c]].category == cat.first) in_order.push_back(c);
            }
            for (unsigned int k = 0; sound && k < n; ++k) {
                unsigned int c = 0;
                sound =
                    f->tev_ash_get_child_id(r.handler_id, category, &c, k) == 0 && c == in_order[k];
            }
        }
        if (!sound)
            say(text(r) + ": its child list does not match its " +
                std::to_string(linked[i].size()) + " children's links");
        tevhost::member_value mark;
        if (r.parent_id == 0 && linked[i].empty() &&
            tevhost::member_info(r.handler_id, IMPORT_MARK, &mark) == 0 && !import_running(mark))
            leftovers.push_back(r.handler_id);
    }
    for (unsigned int id : leftovers) {
        const std::string what =
            text(records[index[id]]) + ": unlinked, left by an import that no longer runs";
        if (!o.repair) {
            say(what);
            continue;
        }
        if (unsigned int rc = control.remove_info(id))
            return ctx.fail_code("cannot remove " + text(records[index[id]]), rc);
        if (!o.json) std::cout << what << ": removed\n";
        repaired.push_back(what);
    }
    if (o.json)
        std::cout << nlohmann::ordered_json{{"findings", findings}, {"repaired", repaired}}.dump()
                  << '\n';
    return found == 0 ? 0 : 1;
}

}  // namespace

void add_check_commands(CLI::App& app, context& ctx) {
    auto o = std::make_shared<check_options>();
    auto* check = app.add_subcommand(
        "check", "List what is not sound in the store (exit 1 when something is found)");
    check->add_flag("--repair", o->repair,
                    "Remove the handlers an import left behind (one store transaction)");
    check->add_flag("--json", o->json, "JSON output: {findings, repaired}");
    check->footer(
        "Lists, one line each: handlers an import left unlinked (an import killed or failed "
        "through a handler service in another process); parents that do not exist; categories "
        "that are not handler categories or are linked below a deeper level; child lists that "
        "do not match the children's links; and SQLite's integrity check of a store file.");
    // Read-only unless it repairs.
    run_with_system(
        check, ctx, [o] { return o->repair ? WRITES : READS; }, run_mode::store_only,
        [&ctx, o] { return run_check(ctx, *o); });
}

}  // namespace tevash_cli
