// schema load, schema show: the member schema the store keeps (names, kinds,
// sizes, initial values, ranges and descriptions of members), which the store
// applies to every write and the tool uses to name members.
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "util.h"

namespace tevash_cli {

namespace {

struct schema_options {
    std::string action, file;
    bool json = false;
};

int run_load(context& ctx, const schema_options& o) {
    std::string text;
    if (o.file == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
        std::ifstream in(o.file, std::ios::binary);
        if (!in) return context::fail("cannot read schema file '" + o.file + "'");
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    std::vector<tevhost::member_schema> members;
    std::string why;
    if (!tevhost::parse_member_schema(text, &members, &why))
        return context::fail("schema file '" + o.file + "': " + why);
    const unsigned int rc = tevhost::store_load_schema(members, &why);
    if (rc != 0) return ctx.fail_code("schema not loaded: " + why, rc);
    if (ctx.store.empty() && ctx.runtime_dir.empty())
        std::cerr << "tevash: the schema went into this command's in-memory store, which ends "
                     "with it; give --store FILE to keep it\n";
    if (o.json) std::cout << nlohmann::ordered_json{{"members", members.size()}}.dump() << '\n';
    return 0;
}

int run_show(const schema_options& o) {
    const std::vector<tevhost::member_schema> schema = tevhost::store_schema();
    if (o.json) {
        std::cout << tevhost::member_schema_text(schema);
        return 0;
    }
    if (schema.empty()) {
        std::cout << "no schema (a member's first typed write fixes its kind)\n";
        return 0;
    }
    std::cout << std::left << std::setw(12) << "MEMBER" << std::setw(18) << "NAME" << std::setw(7)
              << "KIND" << std::setw(7) << "WIDTH" << std::setw(20) << "INITIAL" << std::setw(24)
              << "RANGE"
              << "DESCRIPTION\n";
    for (const auto& m : schema) {
        const tevhost::member_value initial = initial_value(m);
        const std::string shown = m.kind == tevhost::member_kind::bytes
                                      ? hex_bytes(initial.value)
                                      : std::to_string(decode_value(m.kind, initial.value));
        std::cout << std::setw(12) << hex32(m.member_id) << std::setw(18)
                  << (m.name.empty() ? "-" : m.name) << std::setw(7) << kind_name(m.kind)
                  << std::setw(7) << m.size << std::setw(20) << shown << std::setw(24)
                  << (m.ranged ? std::to_string(m.min) + ".." + std::to_string(m.max) : "-")
                  << m.description << '\n';
    }
    return 0;
}

}  // namespace

void add_schema_commands(CLI::App& app, context& ctx) {
    auto o = std::make_shared<schema_options>();
    auto* schema = app.add_subcommand(
        "schema", "Keep a schema file in the store (load FILE) or print the store's (show)");
    schema->add_option("action", o->action, "load or show")
        ->required()
        ->check(CLI::IsMember({"load", "show"}));
    schema->add_option("file", o->file, "load: the schema file (JSON), or - for standard input");
    schema->add_flag("--json", o->json, "load: a count; show: the schema file text");
    // load writes; show only reads (so it works on a read-only store).
    run_with_system(
        schema, ctx, [o] { return o->action == "load" ? WRITES : READS; }, run_mode::store_only,
        [&ctx, o] {
            if (o->action == "show") return run_show(*o);
            if (o->file.empty()) return context::usage("schema load needs a FILE");
            return run_load(ctx, *o);
        });
}

}  // namespace tevash_cli
