// get, set: one member of one handler, in the type the user names.
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "util.h"

namespace tevash_cli {

namespace {

// A member value in the type the user named.
enum class vtype { i8, u8, i16, u16, i32, u32, bytes };

bool parse_type(const std::string& name, vtype* out) {
    static const std::map<std::string, vtype> names = {
        {"i8", vtype::i8},   {"u8", vtype::u8},   {"i16", vtype::i16},    {"u16", vtype::u16},
        {"i32", vtype::i32}, {"u32", vtype::u32}, {"bytes", vtype::bytes}};
    auto it = names.find(name);
    if (it == names.end()) return false;
    *out = it->second;
    return true;
}

// Reads the member as T (the facade's overload) and gives the value as the
// user's type shows it (S).
template <typename T, typename S>
unsigned int read_as(unsigned int handler, unsigned int member, unsigned int order, long long* v) {
    T x = 0;
    const unsigned int rc =
        context::facade()->tev_ash_get_member(APP_CMP_ID, handler, member, &x, order);
    *v = static_cast<S>(x);
    return rc;
}

unsigned int get_value(vtype type, unsigned int handler, unsigned int member, unsigned int order,
                       unsigned int size, std::string* text) {
    unsigned int rc = 0;
    long long v = 0;
    switch (type) {
        case vtype::i8: rc = read_as<char, signed char>(handler, member, order, &v); break;
        case vtype::u8:
            rc = read_as<unsigned char, unsigned char>(handler, member, order, &v);
            break;
        case vtype::i16: rc = read_as<short, short>(handler, member, order, &v); break;
        case vtype::u16:
            rc = read_as<unsigned short, unsigned short>(handler, member, order, &v);
            break;
        case vtype::i32: rc = read_as<long, int>(handler, member, order, &v); break;
        case vtype::u32:
            rc = read_as<unsigned long, unsigned int>(handler, member, order, &v);
            break;
        case vtype::bytes: {
            std::vector<char> buf(size ? size : 1);
            rc = context::facade()->tev_ash_get_member(APP_CMP_ID, handler, member, size,
                                                       buf.data(), order);
            std::string hex = "0x";
            char b[4];
            for (unsigned int i = 0; i < size; ++i) {
                std::snprintf(b, sizeof b, "%02X", static_cast<unsigned char>(buf[i]));
                hex += b;
            }
            *text = hex;
            return rc;
        }
    }
    *text = std::to_string(v);
    return rc;
}

// Writes the value text as T when it lies within T's range; ~0u when it does
// not or is malformed.
template <typename T>
unsigned int write_as(unsigned int handler, unsigned int member, unsigned int order,
                      const std::string& value, long long lo, long long hi) {
    long long v = 0;
    if (!parse_ranged(value, lo, hi, &v)) return ~0u;
    return context::facade()->tev_ash_set_member(APP_CMP_ID, handler, member, static_cast<T>(v),
                                                 order);
}

// Returns 0 on success, a result code, or ~0u when the value text is malformed.
unsigned int set_value(vtype type, unsigned int handler, unsigned int member, unsigned int order,
                       const std::string& value) {
    switch (type) {
        case vtype::i8: return write_as<char>(handler, member, order, value, -128, 127);
        case vtype::u8: return write_as<unsigned char>(handler, member, order, value, 0, 255);
        case vtype::i16: return write_as<short>(handler, member, order, value, -32768, 32767);
        case vtype::u16: return write_as<unsigned short>(handler, member, order, value, 0, 65535);
        case vtype::i32:
            return write_as<long>(handler, member, order, value, -2147483648LL, 2147483647LL);
        case vtype::u32:
            return write_as<unsigned long>(handler, member, order, value, 0, 0xFFFFFFFFLL);
        case vtype::bytes: {
            std::string buf = value;
            if (buf.empty()) return ~0u;
            return context::facade()->tev_ash_set_member(
                APP_CMP_ID, handler, member, static_cast<unsigned int>(buf.size()), &buf[0], order);
        }
    }
    return ~0u;
}

struct member_options {
    std::string handler, member, type, value, order = "0", size = "0";
    bool json = false;
};

// The parsed common part of get and set; false when something was malformed.
bool parse_access(const member_options& o, vtype* type, unsigned int* handler, unsigned int* member,
                  unsigned int* order, unsigned int* size) {
    if (!parse_type(o.type, type)) return context::fail("unknown type '" + o.type + "'"), false;
    return parse_arg(o.handler, handler, "handler id") &&
           parse_arg(o.member, member, "member id") && parse_arg(o.order, order, "order") &&
           parse_arg(o.size, size, "size");
}

int run_get(context& ctx, const member_options& o) {
    vtype type;
    unsigned int handler = 0, member = 0, order = 0, size = 0;
    if (!parse_access(o, &type, &handler, &member, &order, &size)) return 1;
    if (type == vtype::bytes && size == 0) return context::fail("bytes needs --size");
    std::string text;
    unsigned int rc = get_value(type, handler, member, order, size, &text);
    if (rc != 0) return ctx.fail_code("get " + hex32(member), rc);
    if (o.json)
        std::cout << "{\"handler\":" << handler << ",\"member\":" << member << ",\"type\":\""
                  << o.type << "\",\"value\":" << (type == vtype::bytes ? "\"" + text + "\"" : text)
                  << "}\n";
    else
        std::cout << text << '\n';
    return 0;
}

int run_set(context& ctx, const member_options& o) {
    vtype type;
    unsigned int handler = 0, member = 0, order = 0, size = 0;
    if (!parse_access(o, &type, &handler, &member, &order, &size)) return 1;
    unsigned int rc = set_value(type, handler, member, order, o.value);
    if (rc == ~0u) return context::fail("malformed " + o.type + " value '" + o.value + "'");
    return rc ? ctx.fail_code("set " + hex32(member), rc) : 0;
}

}  // namespace

void add_member_commands(CLI::App& app, context& ctx) {
    auto g = std::make_shared<member_options>();
    auto* get = app.add_subcommand("get", "Read a member");
    get->add_option("handler", g->handler, "Handler id")->required();
    get->add_option("member", g->member, "Member id")->required();
    get->add_option("-t,--type", g->type, "i8,u8,i16,u16,i32,u32,bytes")->required();
    get->add_option("--order", g->order, "Child order for job-set members");
    get->add_option("--size", g->size, "Byte count for bytes");
    get->add_flag("--json", g->json, "JSON output");
    run_with_system(get, ctx, [&ctx, g] { return run_get(ctx, *g); });

    auto s = std::make_shared<member_options>();
    auto* set = app.add_subcommand("set", "Write a member");
    set->add_option("handler", s->handler, "Handler id")->required();
    set->add_option("member", s->member, "Member id")->required();
    set->add_option("value", s->value, "Value (bytes: the text's characters)")->required();
    set->add_option("-t,--type", s->type, "i8,u8,i16,u16,i32,u32,bytes")->required();
    set->add_option("--order", s->order, "Child order for job-set members");
    run_with_system(set, ctx, [&ctx, s] { return run_set(ctx, *s); });
}

}  // namespace tevash_cli
