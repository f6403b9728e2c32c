// watch: each change to the shared store file as it happens. It reads the file
// only (its change counter, then the records when that moved), so writers pay
// nothing for it.
#include <sqlite3.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "commands.h"
#include "live.h"
#include "processes.h"
#include "util.h"

namespace tevash_cli {

namespace {

using json = nlohmann::ordered_json;

struct watch_options {
    std::string handler;
    bool json = false;
};

// How often the file's change counter is read (a read of shared memory; the
// records are read again only when it moved).
constexpr std::chrono::milliseconds POLL(10);

struct snapshot {
    std::map<unsigned int, tevhost::record_info> records;
    std::map<unsigned int, std::vector<tevhost::member_value>> members;
};

// The store's records as one read (one snapshot of the file).
snapshot take_snapshot() {
    snapshot s;
    tevhost::store_transaction txn;
    for (const auto& r : tevhost::store_records()) {
        s.records[r.handler_id] = r;
        s.members[r.handler_id] = tevhost::record_members(r.handler_id);
    }
    txn.commit();
    return s;
}

// Whether `id` is `top` or below it in `s` (always with top 0).
bool below(const snapshot& s, unsigned int id, unsigned int top) {
    if (top == 0) return true;
    for (std::size_t steps = 0; steps <= s.records.size(); ++steps) {
        if (id == top) return true;
        auto it = s.records.find(id);
        if (it == s.records.end() || it->second.parent_id == 0) return false;
        id = it->second.parent_id;
    }
    return false;  // a cycle: never in a sound store
}

json value_json(const tevhost::member_value& m) {
    if (m.kind == tevhost::member_kind::bytes) return hex_bytes(m.value);
    return decode_value(m.kind, m.value);
}

// Prints the changes from `was` to `now` below `top`.
void print_changes(const snapshot& was, const snapshot& now, unsigned int top, bool as_json) {
    const long long at = now_us();
    auto say = [&](json change, const std::string& text) {
        if (as_json) {
            json line = {{"time_us", at}};
            line.update(change);
            std::cout << json_line(line) << '\n';
        } else {
            std::cout << clock_text(at, false) << "  " << text << '\n';
        }
    };
    std::set<unsigned int> ids;
    for (const auto& r : was.records)
        if (below(was, r.first, top)) ids.insert(r.first);
    for (const auto& r : now.records)
        if (below(now, r.first, top)) ids.insert(r.first);
    for (unsigned int id : ids) {
        const auto old_it = was.records.find(id);
        const auto new_it = now.records.find(id);
        const std::string h = std::to_string(id);
        if (new_it == now.records.end()) {
            say({{"change", "removed"}, {"handler", id}}, "removed " + h);
            continue;
        }
        const unsigned int parent = new_it->second.parent_id;
        const unsigned int old_parent = old_it == was.records.end() ? 0 : old_it->second.parent_id;
        if (old_it == was.records.end())
            say({{"change", "made"},
                 {"handler", id},
                 {"category", category_name(new_it->second.category)}},
                "made " + h + " " + category_name(new_it->second.category));
        if (old_parent != 0 && old_parent != parent)
            say({{"change", "unlinked"}, {"handler", id}, {"parent", old_parent}},
                "unlinked " + h + " from " + std::to_string(old_parent));
        if (parent != 0 && old_parent != parent)
            say({{"change", "linked"}, {"handler", id}, {"parent", parent}},
                "linked " + h + " under " + std::to_string(parent));
        std::map<unsigned int, tevhost::member_value> before, after;
        if (old_it != was.records.end())
            for (const auto& m : was.members.at(id)) before[m.member_id] = m;
        for (const auto& m : now.members.at(id)) after[m.member_id] = m;
        if (!before.empty() && after.empty()) {
            say({{"change", "reset"}, {"handler", id}}, "reset " + h);
            continue;
        }
        for (const auto& a : after) {
            auto b = before.find(a.first);
            if (b != before.end() && b->second.kind == a.second.kind &&
                b->second.value == a.second.value)
                continue;
            json change = {{"change", "set"},
                           {"handler", id},
                           {"member", hex32(a.first)},
                           {"kind", kind_name(a.second.kind)},
                           {"old", b == before.end() ? json(nullptr) : value_json(b->second)},
                           {"new", value_json(a.second)}};
            const std::string old_text = b == before.end() ? "(none)" : json_line(change["old"]);
            say(change, "set " + h + " " + hex32(a.first) + " " + kind_name(a.second.kind) + " " +
                            old_text + " -> " + json_line(change["new"]));
        }
        for (const auto& b : before)
            if (after.count(b.first) == 0)
                say({{"change", "dropped"}, {"handler", id}, {"member", hex32(b.first)}},
                    "dropped " + h + " " + hex32(b.first));
    }
    std::cout.flush();
}

// The file's change counter through a read-only connection of its own.
class change_counter {
public:
    explicit change_counter(const std::string& path) {
        if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK ||
            sqlite3_prepare_v2(db_, "PRAGMA data_version", -1, &st_, nullptr) != SQLITE_OK) {
            sqlite3_close(db_);
            db_ = nullptr;
        }
    }
    ~change_counter() {
        sqlite3_finalize(st_);
        sqlite3_close(db_);
    }
    change_counter(const change_counter&) = delete;
    change_counter& operator=(const change_counter&) = delete;
    bool ok() const { return db_ != nullptr; }
    long long value() {
        long long v = -1;
        if (sqlite3_step(st_) == SQLITE_ROW) v = sqlite3_column_int64(st_, 0);
        sqlite3_reset(st_);
        return v;
    }

private:
    sqlite3* db_ = nullptr;
    sqlite3_stmt* st_ = nullptr;
};

// The store file at `file` (a symlink followed): "" with *id set, else why it
// cannot be watched.
std::string store_file_problem(const std::string& file, std::pair<dev_t, ino_t>* id) {
    struct stat st {};
    if (::stat(file.c_str(), &st) != 0) return std::strerror(errno);
    if (!S_ISREG(st.st_mode)) return "not a file";
    *id = {st.st_dev, st.st_ino};
    return "";
}

// Opens `file` for reading as the store and its change counter.
std::string open_watched(const std::string& file, std::unique_ptr<change_counter>* counter) {
    std::string error;
    if (!tevhost::store_use_file(file, &error, tevhost::store_access::read_only))
        return "cannot open store '" + file + "': " + error;
    *counter = std::make_unique<change_counter>(file);
    if (!(*counter)->ok()) return "cannot read the change counter of '" + file + "'";
    return "";
}

// How long the watched file may be missing before watch says it was removed
// (a file replaced by removing it and writing a new one is followed).
constexpr std::chrono::seconds GONE_AFTER(1);

int run_watch(context& ctx, const watch_options& o) {
    const std::string dir = prepare_live(ctx);
    std::string file = ctx.store, error;
    std::error_code ec;
    if (file.empty() && !ctx.runtime_dir.empty() && !std::filesystem::is_directory(dir, ec))
        return context::fail("no runtime directory " + dir + ": no shared store file to watch");
    if (file.empty() && !tevash_tools::shared_store_path("", &file, &error))
        return context::fail(error);
    std::pair<dev_t, ino_t> id;
    const std::string problem = store_file_problem(file, &id);
    if (!problem.empty() && !ctx.store.empty())
        return context::fail("cannot watch store file " + file + ": " + problem);
    if (!problem.empty())
        return context::fail("no shared store file " + file +
                             ": only a store file can be watched (a process's in-memory store "
                             "cannot); start `tevash serve` in " +
                             dir + " or give --store FILE");
    std::unique_ptr<change_counter> counter;
    error = open_watched(file, &counter);
    if (!error.empty()) return context::fail(error);
    unsigned int top = 0;
    if (!o.handler.empty()) {
        if (!parse_arg(o.handler, &top, "handler id")) return 1;
        if (int rc = ctx.check_handler(top)) return rc;
    }
    stop_on_signals();
    long long version = counter->value();
    snapshot was = take_snapshot();
    std::cerr << "tevash watch: watching " << file << (top ? " below handler " + o.handler : "")
              << " (Ctrl-C stops)\n";
    auto missing_since = std::chrono::steady_clock::time_point::max();
    while (!stop_asked()) {
        std::this_thread::sleep_for(POLL);
        // The file at the path may be another one now: removed, or replaced
        // (renamed over, written anew, a symlink pointed elsewhere).
        std::pair<dev_t, ino_t> now_id;
        const std::string gone = store_file_problem(file, &now_id);
        const auto now_time = std::chrono::steady_clock::now();
        if (!gone.empty()) {
            if (missing_since == std::chrono::steady_clock::time_point::max())
                missing_since = now_time;
            if (now_time - missing_since < GONE_AFTER) continue;
            std::cout.flush();
            return context::fail("store file " + file + " is gone (" + gone + "): watch ends");
        }
        missing_since = std::chrono::steady_clock::time_point::max();
        if (now_id != id) {
            id = now_id;
            std::cout.flush();
            std::cerr << "tevash watch: " << file
                      << " was replaced by another file; watching that one\n";
            error = open_watched(file, &counter);
            if (!error.empty()) return context::fail(error);
            version = -2;  // the new file's changes since the old one are shown below
        }
        const long long v = counter->value();
        if (v == version) continue;
        version = v;
        snapshot now = take_snapshot();
        print_changes(was, now, top, o.json);
        was = std::move(now);
    }
    return 0;
}

}  // namespace

void add_watch_command(CLI::App& app, context& ctx) {
    auto wo = std::make_shared<watch_options>();
    auto* watch = app.add_subcommand("watch", "Show each change to the shared store as it happens");
    watch->add_option("handler", wo->handler, "Only changes at or below this handler");
    watch->add_flag("--json", wo->json, "One JSON object per change");
    watch->footer(
        "Reads the shared store file (or --store FILE) again whenever another process changed it "
        "(looked at every 10 ms; changes within one look show as their net effect): records made "
        "and removed, links made and unlinked, member values old -> new, "
        "and a reset (every member value of a record dropped at once).");
    watch->callback([&ctx, wo] { ctx.exit_code = run_watch(ctx, *wo); });
}

}  // namespace tevash_cli
