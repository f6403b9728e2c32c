// get, set, members: member values of handlers. get and set learn the member's
// kind and width from the store first (the stored value's: the first typed write
// fixes a member's kind in a store) and refuse a type, value or size that does
// not fit it, so the library is never handed a variable narrower than the member
// and a refused value changes nothing. --type is needed only for a member without
// a value yet; otherwise it is a check.
#include <algorithm>
#include <iomanip>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "host/tev_host_testing.h"
#include "tev_ash_control.h"
#include "util.h"

namespace tevash_cli {

namespace {

using tevhost::member_kind;
using tevhost::member_value;

struct member_options {
    std::string handler, member, type, value, order = "0", size;
    bool json = false;
    bool text = false;  // bytes as the characters of the value, not 0x-hex
    bool explain = false;
};

// The member the user named, resolved to the handler that owns it.
struct target {
    unsigned int handler = 0, member = 0, order = 0;
    unsigned int owner = 0;  // the handler whose record holds the member
    member_kind type = member_kind::i32;
    bool has_value = false;  // the store knows the member's kind and width
    member_value info;
};

std::string member_text(const target& t) {
    return member_label(t.member);
}

int resolve(context& ctx, const member_options& o, target* t) {
    if (!o.type.empty() && !parse_kind(o.type, &t->type))
        return context::usage("unknown type '" + o.type + "'");
    if (!parse_arg(o.handler, &t->handler, "handler id") || !parse_arg(o.order, &t->order, "order"))
        return EXIT_USAGE;
    const std::string refused = member_arg_refusal(o.member, &t->member);
    if (!refused.empty())
        return refused.rfind("malformed", 0) == 0 ? context::usage(refused)
                                                  : context::fail(refused);
    unsigned int hc = 0;
    if (int rc = ctx.check_handler(t->handler, &hc)) return rc;
    velmora::tev_ash_control control;
    velmora::TEV_ASH_CATEGORY mc{};
    unsigned int rc = control.get_member_category(t->member, &mc);
    if (rc != 0) return ctx.fail_code("no " + member_text(*t) + " in the member table", rc);
    rc = control.search_target_handler_id(t->handler, t->member, &t->owner, t->order);
    if (rc == velmora::TEV_ASH_RC_NOT_EXIST)
        return ctx.fail_code("handler " + std::to_string(t->handler) + " has no " +
                                 category_name(mc) + " handler for " + member_text(*t) +
                                 " at order " + std::to_string(t->order),
                             rc);
    if (rc != 0)
        return ctx.fail_code(member_text(*t) + " of " + with_article(category_name(mc)) +
                                 " handler is not reachable from handler " +
                                 std::to_string(t->handler) + " (" + category_name(hc) + ")",
                             rc);
    rc = tevhost::member_info(t->owner, t->member, &t->info);
    if (rc != 0 && rc != tevhost::STORE_NO_MEMBER)
        return ctx.fail_code(
            "cannot read " + member_text(*t) + " of handler " + std::to_string(t->owner), rc);
    t->has_value = rc == 0;
    if (t->has_value && !o.type.empty() && t->info.kind != t->type)
        return context::fail(member_text(*t) + " is " + kind_name(t->info.kind) + ", not " +
                             o.type);
    if (t->has_value) t->type = t->info.kind;
    return 0;
}

// Reads the member into a variable of its own width.
template <typename T>
unsigned int read_as(const target& t, long long* v) {
    T x = 0;
    const unsigned int rc =
        context::facade()->tev_ash_get_member(APP_CMP_ID, t.handler, t.member, &x, t.order);
    *v = static_cast<long long>(x);
    return rc;
}

unsigned int read_integer(const target& t, long long* v) {
    switch (t.type) {
        case member_kind::i8: {
            unsigned int rc = read_as<char>(t, v);
            *v = static_cast<signed char>(*v);
            return rc;
        }
        case member_kind::u8: return read_as<unsigned char>(t, v);
        case member_kind::i16: return read_as<short>(t, v);
        case member_kind::u16: return read_as<unsigned short>(t, v);
        case member_kind::i32: return read_as<long>(t, v);
        case member_kind::u32: return read_as<unsigned long>(t, v);
        case member_kind::bytes: break;
    }
    return velmora::TEV_ASH_RC_BAD_ARG;
}

// While alive, the record store logs its calls: the walk the library makes to
// read a member. Shown with the value (or, when the read fails, on standard
// error as the object goes).
class walk_log {
public:
    explicit walk_log(bool on) : on_(on) {
        if (on_) tevhost::store_log_begin();
    }
    ~walk_log() {
        if (!on_) return;
        finish();
        if (!shown_) print(std::cerr);
    }
    walk_log(const walk_log&) = delete;
    walk_log& operator=(const walk_log&) = delete;

    // The store calls in order and the handler the value came from (the last
    // record a member read succeeded on).
    nlohmann::ordered_json json() {
        finish();
        nlohmann::ordered_json calls = nlohmann::ordered_json::array();
        for (const auto& c : calls_) {
            nlohmann::ordered_json call{{"call", tevhost::store_op_name(c.op)},
                                        {"handler", c.handler_id}};
            if (c.op == tevhost::store_op::get_current || c.op == tevhost::store_op::set_current)
                call["member"] = hex32(c.member_id);
            call["code"] = hex32(c.result);
            if (c.result == 0 && found_is_handler(c.op)) call["found"] = c.found;
            if (c.result == 0 && c.op == tevhost::store_op::get_job_category_by_id)
                call["category"] = category_name(c.found);
            calls.push_back(call);
        }
        return {{"calls", calls}, {"from", from()}};
    }
    void print(std::ostream& out) {
        finish();
        shown_ = true;
        out << "walk: the store calls the library made, in order\n";
        for (const auto& c : calls_) {
            out << "  " << std::left << std::setw(24) << tevhost::store_op_name(c.op) << " handler "
                << c.handler_id;
            if (c.op == tevhost::store_op::get_current) out << "  " << member_label(c.member_id);
            out << "  -> ";
            if (c.result != 0) {
                out << hex32(c.result);
                if (const char* w = tevhost::host_code_text(c.result); *w != '\0')
                    out << " (" << w << ")";
            } else if (c.op == tevhost::store_op::get_job_category_by_id) {
                out << category_name(c.found);
            } else if (found_is_handler(c.op)) {
                out << c.found;
            } else {
                out << "ok";
            }
            out << '\n';
        }
        if (from() != 0) out << "value from handler " << from() << '\n';
    }
    void shown() { shown_ = true; }

private:
    static bool found_is_handler(tevhost::store_op op) {
        return op == tevhost::store_op::get_child_link ||
               op == tevhost::store_op::get_child_link_direct ||
               op == tevhost::store_op::get_parent_link;
    }
    void finish() {
        if (ended_) return;
        ended_ = true;
        tevhost::store_log_end();
        calls_ = tevhost::store_log();
    }
    unsigned int from() const {
        unsigned int h = 0;
        for (const auto& c : calls_)
            if (c.op == tevhost::store_op::get_current && c.result == 0) h = c.handler_id;
        return h;
    }
    bool on_;
    bool ended_ = false;
    bool shown_ = false;
    std::vector<tevhost::store_call> calls_;
};

int run_get(context& ctx, const member_options& o) {
    target t;
    if (int rc = resolve(ctx, o, &t)) return rc;
    walk_log walk(o.explain);
    if (!t.has_value)
        return context::fail(member_text(t) + " of handler " + std::to_string(t.owner) +
                             " has no value");
    nlohmann::ordered_json value;  // a 0x-hex string or a number
    if (t.type == member_kind::bytes) {
        unsigned int size = t.info.size;
        if (!o.size.empty() && !parse_arg(o.size, &size, "size")) return EXIT_USAGE;
        if (size == 0 || size > t.info.size)
            return context::fail("--size " + o.size + " does not fit " + member_text(t) + " (" +
                                 std::to_string(t.info.size) + " bytes)");
        // The store writes the member's whole value: the buffer is the member's size.
        std::vector<char> buf(t.info.size);
        const unsigned int rc = context::facade()->tev_ash_get_member(
            APP_CMP_ID, t.handler, t.member, t.info.size, buf.data(), t.order);
        if (rc != 0) return ctx.fail_code("cannot read " + member_text(t), rc);
        if (o.text) {
            // The characters up to the first zero byte (set pads with zeros).
            const auto end = std::find(buf.begin(), buf.begin() + size, '\0');
            value = std::string(buf.begin(), end);
        } else {
            value = hex_bytes(std::vector<unsigned char>(buf.begin(), buf.begin() + size));
        }
    } else {
        long long v = 0;
        const unsigned int rc = read_integer(t, &v);
        if (rc != 0) return ctx.fail_code("cannot read " + member_text(t), rc);
        value = v;
    }
    if (o.json) {
        nlohmann::ordered_json out{{"handler", t.handler},
                                   {"member", hex32(t.member)},
                                   {"kind", kind_name(t.type)},
                                   {"size", t.info.size},
                                   {"value", value},
                                   {"order", t.order},
                                   {"owner", t.owner}};
        if (o.explain) {
            out["walk"] = walk.json();
            walk.shown();
        }
        std::cout << out.dump() << '\n';
    } else {
        std::cout << (value.is_string() ? value.get<std::string>() : value.dump()) << '\n';
        if (o.explain) walk.print(std::cout);
    }
    return 0;
}

// Writes the value as a variable of the member's own width.
template <typename T>
unsigned int write_as(const target& t, long long v) {
    return context::facade()->tev_ash_set_member(APP_CMP_ID, t.handler, t.member, static_cast<T>(v),
                                                 t.order);
}

unsigned int write_integer(const target& t, long long v) {
    switch (t.type) {
        case member_kind::i8: return write_as<char>(t, v);
        case member_kind::u8: return write_as<unsigned char>(t, v);
        case member_kind::i16: return write_as<short>(t, v);
        case member_kind::u16: return write_as<unsigned short>(t, v);
        case member_kind::i32: return write_as<long>(t, v);
        case member_kind::u32: return write_as<unsigned long>(t, v);
        case member_kind::bytes: break;
    }
    return velmora::TEV_ASH_RC_BAD_ARG;
}

int run_set(context& ctx, const member_options& o) {
    target t;
    if (int rc = resolve(ctx, o, &t)) return rc;
    if (!t.has_value && o.type.empty())
        return context::fail(member_text(t) + " of handler " + std::to_string(t.owner) +
                             " has no value yet, so its kind is not known: give --type (the "
                             "first typed write fixes the member's kind in this store)");
    if (t.type == member_kind::bytes && !t.has_value)
        return context::fail(member_text(t) + " of handler " + std::to_string(t.owner) +
                             " has no size yet; bytes need a member with a value");
    member_value v;
    const std::string why = member_value_refusal(t.member, t.type, o.value, !o.text,
                                                 t.has_value ? &t.info : nullptr, &v);
    if (!why.empty()) return context::fail(why);
    const std::string out_of_range = schema_range_refusal(v);
    if (!out_of_range.empty()) return context::fail(out_of_range);
    // Bytes go as the member's whole width (the value is padded to it).
    const unsigned int rc = t.type == member_kind::bytes
                                ? context::facade()->tev_ash_set_member(
                                      APP_CMP_ID, t.handler, t.member, v.size,
                                      reinterpret_cast<char*>(v.value.data()), t.order)
                                : write_integer(t, decode_value(t.type, v.value));
    if (rc != 0) return ctx.fail_code("cannot write " + member_text(t), rc);
    if (!t.has_value)
        std::cerr << "tevash: " << member_text(t) << " of handler " << t.owner << " is now "
                  << kind_name(t.type)
                  << " in this store (the first typed write fixes a member's kind)\n";
    if (o.json) {
        nlohmann::ordered_json row = {{"handler", t.handler}};
        row.update(member_json(v));
        row["order"] = t.order;
        row["owner"] = t.owner;
        std::cout << row.dump() << '\n';
    }
    return 0;
}

std::string value_text(const member_value& m) {
    return m.kind == member_kind::bytes ? hex_bytes(m.value)
                                        : std::to_string(decode_value(m.kind, m.value));
}

// One row of members: a stored value, a declared one, or both.
struct member_row {
    unsigned int id;
    const member_value* stored;              // null: none stored
    const tevhost::member_schema* declared;  // null: not in the schema
};

int run_members(context& ctx, const std::string& text, bool json, bool all) {
    unsigned int id = 0, category = 0;
    if (!parse_arg(text, &id, "handler id")) return EXIT_USAGE;
    if (int rc = ctx.check_handler(id, &category)) return rc;
    const auto members = tevhost::record_members(id);
    const auto schema = tevhost::store_schema();
    std::vector<member_row> rows;
    for (const auto& m : members) rows.push_back({m.member_id, &m, nullptr});
    if (all) {
        // The declared members a handler of this category holds itself.
        for (const auto& d : schema)
            if (member_owner_refusal(d.member_id, category).empty())
                rows.push_back({d.member_id, nullptr, &d});
        std::sort(rows.begin(), rows.end(),
                  [](const member_row& a, const member_row& b) { return a.id < b.id; });
        std::vector<member_row> merged;
        for (const auto& r : rows) {
            if (!merged.empty() && merged.back().id == r.id) {
                if (r.declared) merged.back().declared = r.declared;
                if (r.stored) merged.back().stored = r.stored;
            } else {
                merged.push_back(r);
            }
        }
        rows = merged;
    }
    if (json) {
        nlohmann::ordered_json out = nlohmann::ordered_json::array();
        for (const auto& r : rows) {
            nlohmann::ordered_json row =
                r.stored ? member_json(*r.stored) : member_json(initial_value(*r.declared));
            if (!r.stored) row.erase("value");
            const tevhost::member_schema* d = r.declared ? r.declared : find_declared(schema, r.id);
            if (d != nullptr && !d->name.empty()) row["name"] = d->name;
            if (all) row["initial"] = d ? member_json(initial_value(*d))["value"] : nullptr;
            out.push_back(row);
        }
        std::cout << out.dump() << '\n';
        return 0;
    }
    // The NAME column only with a schema: without one the table is as it always was.
    const bool named = !schema.empty();
    std::cout << std::left << std::setw(12) << "MEMBER" << std::setw(named ? 18 : 0)
              << (named ? "NAME" : "") << std::setw(7) << "KIND" << std::setw(7) << "WIDTH"
              << (all ? "VALUE               INITIAL\n" : "VALUE\n");
    for (const auto& r : rows) {
        const tevhost::member_schema* d = r.declared ? r.declared : find_declared(schema, r.id);
        const member_value shown = r.stored ? *r.stored : initial_value(*d);
        std::cout << std::setw(12) << hex32(r.id) << std::setw(named ? 18 : 0)
                  << (!named                  ? ""
                      : d && !d->name.empty() ? d->name
                                              : "-")
                  << std::setw(7) << kind_name(shown.kind) << std::setw(7) << shown.size;
        if (all)
            std::cout << std::setw(20) << (r.stored ? value_text(*r.stored) : "-")
                      << (d ? value_text(initial_value(*d)) : "-");
        else
            std::cout << value_text(shown);
        std::cout << '\n';
    }
    return 0;
}

int run_describe(const std::string& text, bool json) {
    unsigned int id = 0;
    const std::string refused = member_arg_refusal(text, &id);
    if (!refused.empty())
        return refused.rfind("malformed", 0) == 0 ? context::usage(refused)
                                                  : context::fail(refused);
    velmora::tev_ash_control control;
    velmora::TEV_ASH_CATEGORY category{};
    unsigned int level = 0;
    if (control.get_member_category(id, &category) != 0)
        return context::fail("no member " + hex32(id) + " in the member table");
    control.get_category_level(category, &level);
    const auto schema = tevhost::store_schema();
    const tevhost::member_schema* d = find_declared(schema, id);
    nlohmann::ordered_json out = {{"member", hex32(id)}};
    if (d && !d->name.empty()) out["name"] = d->name;
    out["category"] = category_name(category);
    out["level"] = level;
    out["declared"] = d != nullptr;
    if (d) {
        out["kind"] = kind_name(d->kind);
        out["size"] = d->size;
        out["initial"] = member_json(initial_value(*d))["value"];
        if (d->ranged) {
            out["min"] = d->min;
            out["max"] = d->max;
        }
        if (!d->description.empty()) out["description"] = d->description;
    }
    if (json) {
        std::cout << out.dump() << '\n';
        return 0;
    }
    for (auto it = out.begin(); it != out.end(); ++it)
        if (it.key() != "declared")
            std::cout << std::left << std::setw(13) << it.key() + ":"
                      << (it->is_string() ? it->get<std::string>() : it->dump()) << '\n';
    if (!d)
        std::cout << "(not declared by a schema: the first typed write fixes its kind and size)\n";
    return 0;
}

void add_access_options(CLI::App* sub, member_options& o) {
    sub->add_option("handler", o.handler, "Handler id")->required();
    sub->add_option("member", o.member, "Member id or schema name")->required();
}

}  // namespace

void add_member_commands(CLI::App& app, context& ctx) {
    const char* kinds =
        "Kind check: i8,u8,i16,u16,i32,u32,bytes (needed only before the member "
        "has a value)";
    auto g = std::make_shared<member_options>();
    auto* get = app.add_subcommand("get", "Read a member in its kind");
    add_access_options(get, *g);
    get->add_option("-t,--type", g->type, kinds);
    get->add_option("--order", g->order, "Child order for job-set members");
    get->add_option("--size", g->size, "Byte count for bytes (default: the member's size)");
    get->add_flag("--text", g->text, "Bytes as text (up to the first zero byte), not 0x-hex");
    get->add_flag("--explain", g->explain,
                  "Also the walk the library made: its store calls in order and the handler "
                  "the value came from");
    get->add_flag("--json", g->json, "JSON output");
    run_with_system(get, ctx, READS, run_mode::store_only, [&ctx, g] { return run_get(ctx, *g); });

    auto s = std::make_shared<member_options>();
    auto* set = app.add_subcommand("set", "Write a member in its kind");
    add_access_options(set, *s);
    set->add_option("value", s->value, "Value: a number, or bytes as 0x-hex")->required();
    set->add_option("-t,--type", s->type, kinds);
    set->add_option("--order", s->order, "Child order for job-set members");
    set->add_flag("--text", s->text, "Bytes: the characters of the value, not 0x-hex");
    set->add_flag("--json", s->json, "JSON output");
    run_with_system(set, ctx, WRITES, run_mode::store_only, [&ctx, s] { return run_set(ctx, *s); });

    auto m = std::make_shared<member_options>();
    auto* members = app.add_subcommand("members", "List a handler's members: kind, width, value");
    members->add_option("handler", m->handler, "Handler id")->required();
    members->add_flag("--json", m->json, "JSON output");
    members->add_flag("--all", m->text,
                      "Also the members the schema declares for it, with their initial values");
    run_with_system(members, ctx, READS, run_mode::store_only,
                    [&ctx, m] { return run_members(ctx, m->handler, m->json, m->text); });

    auto d = std::make_shared<member_options>();
    auto* describe = app.add_subcommand(
        "describe", "Describe a member: category, level, kind, size, initial value, range");
    describe->add_option("member", d->member, "Member id or schema name")->required();
    describe->add_flag("--json", d->json, "JSON output");
    run_with_system(describe, ctx, READS, run_mode::store_only,
                    [d] { return run_describe(d->member, d->json); });
}

}  // namespace tevash_cli
