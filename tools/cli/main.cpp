// tevash: drives the handler library, the handler service and a sample director
// in one process over a record store.
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "host/tev_host_testing.h"
#include "system.h"
#include "tev_ash_facade.h"
#include "util.h"

using velmora::tev_ash_facade;
using namespace tevash_cli;

namespace {

constexpr unsigned int APP_CMP_ID = 0x1000;

struct options {
    std::string store;
    bool verbose = false;
    int app_type = 1;
};

// Collects the trace lines of one operation for an error message.
std::string last_trace(const tevhost::trace_capture& capture) {
    auto lines = capture.lines();
    std::string text;
    for (const auto& line : lines) {
        std::string t = line.text;
        while (!t.empty() && (t.back() == '\n' || t.back() == '\r')) t.pop_back();
        if (!text.empty()) text += " | ";
        text += t;
    }
    return text;
}

int fail(const std::string& message) {
    std::cerr << "tevash: " << message << '\n';
    return 1;
}

int fail_code(const std::string& what, unsigned int rc, const tevhost::trace_capture& capture) {
    std::string trace = last_trace(capture);
    return fail(what + " failed: result " + hex32(rc) + (trace.empty() ? "" : ": " + trace));
}

tev_ash_facade* facade() {
    return tev_ash_facade::tev_ash_get_instance();
}

// Creates through the handler service and the director of `app_type`.
unsigned int create_handler(unsigned int category, int app_type, unsigned int* id) {
    return facade()->tev_ash_create(category, static_cast<velmora::TEV_ASH_APP_TYPE>(app_type),
                                    velmora::TEV_ASH_SERVICE_TYPE_NONE, id, 0);
}

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
    const unsigned int rc = facade()->tev_ash_get_member(APP_CMP_ID, handler, member, &x, order);
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
            rc = facade()->tev_ash_get_member(APP_CMP_ID, handler, member, size, buf.data(), order);
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
    return facade()->tev_ash_set_member(APP_CMP_ID, handler, member, static_cast<T>(v), order);
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
            std::vector<char> buf(value.begin(), value.end());
            if (buf.empty()) return ~0u;
            return facade()->tev_ash_set_member(APP_CMP_ID, handler, member,
                                                static_cast<unsigned int>(buf.size()), buf.data(),
                                                order);
        }
    }
    return ~0u;
}

struct node {
    unsigned int id;
    unsigned int category;
    std::vector<node> children;
};

node build_node(unsigned int id, int depth) {
    node n{id, 0, {}};
    facade()->tev_ash_get_category(id, &n.category);
    unsigned int count = 0;
    if (depth < 32 && facade()->tev_ash_get_child_count(id, &count) == 0) {
        for (unsigned int i = 0; i < count; ++i) {
            unsigned int child = 0;
            if (facade()->tev_ash_get_child_id_direct(id, i, &child) == 0)
                n.children.push_back(build_node(child, depth + 1));
        }
    }
    return n;
}

void draw(const node& n, const std::string& prefix, bool last, bool top, std::ostream& out) {
    out << (top ? "" : prefix + (last ? "`-- " : "|-- ")) << n.id << ' '
        << category_name(n.category) << '\n';
    std::string next = top ? "" : prefix + (last ? "    " : "|   ");
    for (size_t i = 0; i < n.children.size(); ++i)
        draw(n.children[i], next, i + 1 == n.children.size(), false, out);
}

std::string to_json(const node& n) {
    std::string s = "{\"id\":" + std::to_string(n.id) +
                    ",\"category\":" + std::to_string(n.category) + ",\"name\":\"" +
                    json_escape(category_name(n.category)) + "\",\"children\":[";
    for (size_t i = 0; i < n.children.size(); ++i) s += (i ? "," : "") + to_json(n.children[i]);
    return s + "]}";
}

std::vector<unsigned int> roots() {
    std::vector<unsigned int> ids;
    for (const auto& r : tevhost::store_records())
        if (r.parent_id == 0) ids.push_back(r.handler_id);
    return ids;
}

// ---- demo

int run_demo(int app_type) {
    tevhost::store_use_memory();
    tevhost::trace_capture capture;
    auto* f = facade();
    auto step = [&](const std::string& what, unsigned int rc) {
        std::cout << "  " << what << " -> " << hex32(rc) << '\n';
        return rc == 0;
    };
    std::cout << "Building a handler tree through the director\n";
    unsigned int auth = 0, img = 0, job = 0, job2 = 0, set0 = 0, set1 = 0;
    bool ok = step("create AUTH", create_handler(0x2, app_type, &auth)) &&
              step("create APLSVC_IMG", create_handler(0x1, app_type, &img)) &&
              step("create APLJOB", create_handler(0x4, app_type, &job)) &&
              step("create JOBSET_03", create_handler(0x8, app_type, &set0)) &&
              step("create JOBSET_03", create_handler(0x8, app_type, &set1)) &&
              step("create APLJOB (copy destination)", create_handler(0x4, app_type, &job2)) &&
              step("link AUTH -> APLSVC_IMG", f->tev_ash_set_link(0x2, auth, 0x1, img)) &&
              step("link APLSVC_IMG -> APLJOB", f->tev_ash_set_link(0x1, img, 0x4, job)) &&
              step("link APLSVC_IMG -> APLJOB", f->tev_ash_set_link(0x1, img, 0x4, job2)) &&
              step("link APLJOB -> JOBSET_03", f->tev_ash_set_link(0x4, job, 0x8, set0)) &&
              step("link APLJOB -> JOBSET_03", f->tev_ash_set_link(0x4, job, 0x8, set1));
    if (!ok) return fail_code("demo tree", 1, capture);
    draw(build_node(auth, 0), "", true, true, std::cout);

    std::cout << "Writing and reading members through job handler " << job << '\n';
    struct access {
        unsigned int member;
        unsigned int order;
        long value;
        const char* owner;
    };
    const access accesses[] = {{0x00360000, 0, 42, "the job itself"},
                               {0x00460000, 1, 7, "second JOBSET_03 child"},
                               {0x00260000, 0, 1234, "AUTH, two links up"}};
    for (const auto& a : accesses) {
        unsigned int rc = f->tev_ash_set_member(APP_CMP_ID, job, a.member, a.value, a.order);
        long back = 0;
        if (rc == 0) rc = f->tev_ash_get_member(APP_CMP_ID, job, a.member, &back, a.order);
        if (rc != 0) return fail_code("member " + hex32(a.member), rc, capture);
        std::cout << "  member " << hex32(a.member) << " order " << a.order << " (" << a.owner
                  << ") = " << back << '\n';
    }

    std::cout << "Copying job " << job << " onto job " << job2 << '\n';
    unsigned int rc = f->tev_ash_copy(job, job2);
    if (rc != 0) return fail_code("copy", rc, capture);
    draw(build_node(job2, 0), "", true, true, std::cout);
    long copied = 0;
    rc = f->tev_ash_get_member(APP_CMP_ID, job2, 0x00360000, &copied, 0);
    if (rc != 0) return fail_code("member of the copy", rc, capture);
    long copied_child = 0;
    rc = f->tev_ash_get_member(APP_CMP_ID, job2, 0x00460000, &copied_child, 1);
    if (rc != 0) return fail_code("member of the copy's child", rc, capture);
    std::cout << "  member 0x00360000 of job " << job2 << " = " << copied
              << ", member 0x00460000 of its second child = " << copied_child << '\n';

    std::cout << "A refused access: member 0x00182000 (APLSVC_IMG) through job handler " << job
              << '\n';
    capture.clear();
    long refused = 0;
    rc = f->tev_ash_get_member(APP_CMP_ID, job, 0x00182000, &refused, 0);
    std::cout << "  result " << hex32(rc) << '\n';
    for (const auto& line : capture.lines()) std::cout << "  trace: " << line.text;
    std::cout << "Demo finished\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"tevash: handler trees, members and copies over a record store"};
    app.require_subcommand(1);
    app.failure_message([](const CLI::App*, const CLI::Error& e) {
        return std::string("tevash: ") + e.what() + " (see --help)\n";
    });
    options opt;
    app.add_option("--store", opt.store,
                   "Persistent record store file (default: fresh in-memory store)");
    app.add_flag("-v,--verbose", opt.verbose, "Also write trace lines to standard error");
    app.add_option("--app-type", opt.app_type, "Application type of the director")
        ->capture_default_str();

    std::function<int()> action;
    auto* demo =
        app.add_subcommand("demo", "Guided run of the typical flows on a fresh in-memory store");

    bool json = false;
    std::string category_text, parent_text;
    auto* create =
        app.add_subcommand("create", "Create a handler, optionally linked below a parent");
    create->add_option("category", category_text, "Category name or number")->required();
    create->add_option("--parent", parent_text, "Parent handler id");
    create->add_flag("--json", json, "JSON output");

    std::string a_text, b_text, member_text, type_text, value_text, order_text = "0",
                                                                    size_text = "0";
    auto* link = app.add_subcommand("link", "Link CHILD below PARENT");
    link->add_option("parent", a_text, "Parent handler id")->required();
    link->add_option("child", b_text, "Child handler id")->required();

    auto* tree = app.add_subcommand("tree", "Draw handler trees");
    tree->add_option("handler", a_text, "Root of the drawing (default: every tree)");
    tree->add_flag("--json", json, "JSON output");

    auto* get = app.add_subcommand("get", "Read a member");
    get->add_option("handler", a_text, "Handler id")->required();
    get->add_option("member", member_text, "Member id")->required();
    get->add_option("-t,--type", type_text, "i8,u8,i16,u16,i32,u32,bytes")->required();
    get->add_option("--order", order_text, "Child order for job-set members");
    get->add_option("--size", size_text, "Byte count for bytes");
    get->add_flag("--json", json, "JSON output");

    auto* set = app.add_subcommand("set", "Write a member");
    set->add_option("handler", a_text, "Handler id")->required();
    set->add_option("member", member_text, "Member id")->required();
    set->add_option("value", value_text, "Value (bytes: the text's characters)")->required();
    set->add_option("-t,--type", type_text, "i8,u8,i16,u16,i32,u32,bytes")->required();
    set->add_option("--order", order_text, "Child order for job-set members");

    auto* copy = app.add_subcommand("copy", "Copy a job's handler tree onto another");
    copy->add_option("src", a_text, "Source handler id")->required();
    copy->add_option("dst", b_text, "Destination handler id")->required();
    auto* reset = app.add_subcommand("reset", "Reset a handler");
    reset->add_option("handler", a_text, "Handler id")->required();
    auto* remove = app.add_subcommand("remove", "Remove a handler");
    remove->add_option("handler", a_text, "Handler id")->required();

    CLI11_PARSE(app, argc, argv);

    if (!opt.verbose) setenv("TEVASH_HOST_TRACE", "none", 1);
    if (!opt.store.empty()) {
        std::string error;
        if (!tevhost::store_use_file(opt.store, &error))
            return fail("cannot open store '" + opt.store + "': " + error);
    }
    system_runtime runtime(static_cast<velmora::TEV_ASH_APP_TYPE>(opt.app_type));
    if (runtime.status() != 0)
        return fail("cannot start the handler service and director: result " +
                    hex32(runtime.status()));
    if (*demo) return run_demo(opt.app_type);

    tevhost::trace_capture capture;
    auto* f = facade();
    unsigned int a = 0, b = 0, member = 0, order = 0, size = 0;
    auto num = [](const std::string& text, unsigned int* out, const char* what) {
        if (parse_u32(text, out)) return true;
        std::cerr << "tevash: malformed " << what << " '" << text << "'\n";
        return false;
    };

    if (*create) {
        unsigned int category = 0, parent = 0, parent_cat = 0, id = 0;
        if (!parse_category(category_text, &category))
            return fail("unknown category '" + category_text + "'");
        if (!parent_text.empty()) {
            if (!num(parent_text, &parent, "parent id")) return 1;
            unsigned int rc = f->tev_ash_get_category(parent, &parent_cat);
            if (rc != 0) return fail_code("parent " + std::to_string(parent), rc, capture);
        }
        unsigned int rc = create_handler(category, opt.app_type, &id);
        if (rc != 0) return fail_code("create", rc, capture);
        if (parent != 0) {
            rc = f->tev_ash_set_link(parent_cat, parent, category, id);
            if (rc != 0) {
                // Leave no half-made handler behind.
                f->tev_ash_remove(static_cast<velmora::TEV_ASH_APP_TYPE>(opt.app_type), id);
                return fail_code("link", rc, capture);
            }
        }
        if (json)
            std::cout << "{\"id\":" << id << ",\"category\":" << category
                      << ",\"parent\":" << parent << "}\n";
        else
            std::cout << id << '\n';
        return 0;
    }
    if (*link) {
        if (!num(a_text, &a, "parent id") || !num(b_text, &b, "child id")) return 1;
        unsigned int pc = 0, cc = 0;
        unsigned int rc = f->tev_ash_get_category(a, &pc);
        if (rc == 0) rc = f->tev_ash_get_category(b, &cc);
        if (rc == 0) rc = f->tev_ash_set_link(pc, a, cc, b);
        return rc ? fail_code("link", rc, capture) : 0;
    }
    if (*tree) {
        std::vector<unsigned int> tops;
        if (!a_text.empty()) {
            if (!num(a_text, &a, "handler id")) return 1;
            unsigned int cat = 0;
            unsigned int rc = f->tev_ash_get_category(a, &cat);
            if (rc != 0) return fail_code("tree", rc, capture);
            tops.push_back(a);
        } else {
            tops = roots();
        }
        if (json) std::cout << '[';
        for (size_t i = 0; i < tops.size(); ++i) {
            node n = build_node(tops[i], 0);
            if (json)
                std::cout << (i ? "," : "") << to_json(n);
            else
                draw(n, "", true, true, std::cout);
        }
        if (json) std::cout << "]\n";
        return 0;
    }
    if (*get || *set) {
        vtype type;
        if (!parse_type(type_text, &type)) return fail("unknown type '" + type_text + "'");
        if (!num(a_text, &a, "handler id") || !num(member_text, &member, "member id") ||
            !num(order_text, &order, "order") || !num(size_text, &size, "size"))
            return 1;
        if (*set) {
            unsigned int rc = set_value(type, a, member, order, value_text);
            if (rc == ~0u) return fail("malformed " + type_text + " value '" + value_text + "'");
            return rc ? fail_code("set " + hex32(member), rc, capture) : 0;
        }
        if (type == vtype::bytes && size == 0) return fail("bytes needs --size");
        std::string text;
        unsigned int rc = get_value(type, a, member, order, size, &text);
        if (rc != 0) return fail_code("get " + hex32(member), rc, capture);
        if (json)
            std::cout << "{\"handler\":" << a << ",\"member\":" << member << ",\"type\":\""
                      << type_text
                      << "\",\"value\":" << (type == vtype::bytes ? "\"" + text + "\"" : text)
                      << "}\n";
        else
            std::cout << text << '\n';
        return 0;
    }
    if (*copy) {
        if (!num(a_text, &a, "source id") || !num(b_text, &b, "destination id")) return 1;
        unsigned int rc = f->tev_ash_copy(a, b);
        return rc ? fail_code("copy", rc, capture) : 0;
    }
    if (*reset || *remove) {
        if (!num(a_text, &a, "handler id")) return 1;
        auto app_type = static_cast<velmora::TEV_ASH_APP_TYPE>(opt.app_type);
        unsigned int rc = *reset ? f->tev_ash_reset(app_type, velmora::TEV_ASH_SERVICE_TYPE_NONE, a)
                                 : f->tev_ash_remove(app_type, a);
        return rc ? fail_code(*reset ? "reset" : "remove", rc, capture) : 0;
    }
    return fail("no subcommand");
}
