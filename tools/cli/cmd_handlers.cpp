// create, link, unlink, copy, reset, remove: handlers and the links between them.
#include <iostream>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "util.h"

namespace tevash_cli {

namespace {

using velmora::TEV_ASH_SERVICE_TYPE_NONE;

std::string handler_text(unsigned int id, unsigned int category) {
    return std::to_string(id) + " (" + category_name(category) + ")";
}

// Why linking `child` below `parent` is or was refused, in words; "" when
// nothing the tool can see stands in the way.
std::string link_refusal(unsigned int parent, unsigned int pc, unsigned int child,
                         unsigned int cc) {
    const std::string pair = category_pair_refusal(pc, cc);
    if (!pair.empty())
        return "cannot link handler " + handler_text(child, cc) + " below handler " +
               handler_text(parent, pc) + ": " + pair;
    auto* f = context::facade();
    unsigned int up = 0;
    if (f->tev_ash_get_parent_id(child, &up) == 0)
        return "handler " + std::to_string(child) + " already has a parent (" + std::to_string(up) +
               ")";
    for (unsigned int at = parent; at != 0; at = f->tev_ash_get_parent_id(at, &up) == 0 ? up : 0)
        if (at == child)
            return "linking " + std::to_string(child) + " below " + std::to_string(parent) +
                   " would make a cycle";
    return "";
}

// Prints `row` as one JSON line with --json.
void print_json(bool json, const nlohmann::ordered_json& row) {
    if (json) std::cout << row.dump() << '\n';
}

struct create_options {
    std::string category, parent;
    bool json = false;
};

struct pair_options {
    std::string a, b;
    bool json = false;
};

struct one_options {
    std::string handler;
    bool json = false;
};

int run_create(context& ctx, const create_options& o) {
    auto* f = context::facade();
    unsigned int category = 0, parent = 0, parent_category = 0, id = 0;
    if (!parse_category(o.category, &category))
        return context::usage("unknown category '" + o.category + "'");
    if (!o.parent.empty()) {
        if (!parse_arg(o.parent, &parent, "parent id")) return EXIT_USAGE;
        if (int rc = ctx.check_handler(parent, &parent_category)) return rc;
        const std::string pair = category_pair_refusal(parent_category, category);
        if (!pair.empty())
            return context::fail("cannot create " + with_article(category_name(category)) +
                                 " handler below handler " + handler_text(parent, parent_category) +
                                 ": " + pair);
    }
    unsigned int rc = f->tev_ash_create(category, ctx.app(), TEV_ASH_SERVICE_TYPE_NONE, &id, 0);
    if (rc != 0 || !ctx.reached_service())
        return ctx.fail_service(
            "cannot create " + with_article(category_name(category)) + " handler", rc);
    if (!o.parent.empty()) {
        rc = f->tev_ash_set_link(parent_category, parent, category, id);
        if (rc != 0) {
            std::string why = link_refusal(parent, parent_category, id, category);
            if (why.empty())
                why = "cannot link handler " + std::to_string(id) + " below handler " +
                      handler_text(parent, parent_category);
            // Leave no half-made handler behind.
            f->tev_ash_remove(ctx.app(), id);
            return ctx.fail_code(why, rc);
        }
    }
    if (o.json)
        print_json(true, {{"id", id}, {"category", category_token(category)}, {"parent", parent}});
    else
        std::cout << id << '\n';
    return 0;
}

int run_link(context& ctx, const pair_options& o) {
    unsigned int parent = 0, child = 0, pc = 0, cc = 0;
    if (!parse_arg(o.a, &parent, "parent id") || !parse_arg(o.b, &child, "child id"))
        return EXIT_USAGE;
    if (int rc = ctx.check_handler(parent, &pc)) return rc;
    if (int rc = ctx.check_handler(child, &cc)) return rc;
    std::string why = link_refusal(parent, pc, child, cc);
    if (!why.empty()) return context::fail(why);
    const unsigned int rc = context::facade()->tev_ash_set_link(pc, parent, cc, child);
    if (rc != 0)
        return ctx.fail_code("cannot link handler " + handler_text(child, cc) + " below handler " +
                                 handler_text(parent, pc),
                             rc);
    print_json(o.json, {{"parent", parent}, {"child", child}});
    return 0;
}

int run_unlink(context& ctx, const one_options& o) {
    unsigned int id = 0, category = 0, parent = 0;
    if (!parse_arg(o.handler, &id, "handler id")) return EXIT_USAGE;
    if (int rc = ctx.check_handler(id, &category)) return rc;
    auto* f = context::facade();
    if (f->tev_ash_get_parent_id(id, &parent) != 0)
        return context::fail("handler " + std::to_string(id) + " has no parent");
    const unsigned int rc = f->tev_ash_delete_link(category, id);
    if (rc != 0) return ctx.fail_code("cannot unlink handler " + std::to_string(id), rc);
    print_json(o.json, {{"handler", id}, {"parent", parent}});
    return 0;
}

// Why the library would refuse to copy `src` onto `dst`, in words; "" when
// nothing is seen. A copy works on two jobs (of two APLSVC_IMG handlers, their
// first children), each below a parent whose record is copied too, and not one
// the other or its direct child.
std::string copy_refusal(unsigned int src, unsigned int sc, unsigned int dst, unsigned int dc) {
    using namespace velmora;
    const bool jobs = sc == TEV_ASH_CAT_APLJOB && dc == TEV_ASH_CAT_APLJOB;
    if (!jobs && !(sc == TEV_ASH_CAT_APLSVC_IMG && dc == TEV_ASH_CAT_APLSVC_IMG))
        return "copy needs two APLJOB or two APLSVC_IMG handlers, not " + handler_text(src, sc) +
               " and " + handler_text(dst, dc);
    auto* f = context::facade();
    unsigned int work[2] = {src, dst}, up[2] = {0, 0};
    const unsigned int given[2] = {src, dst}, category[2] = {sc, dc};
    for (int i = 0; i < 2; ++i) {
        if (!jobs && f->tev_ash_get_child_id_direct(given[i], 0, &work[i]) != 0)
            return "copy of APLSVC_IMG handlers needs a job below each: handler " +
                   handler_text(given[i], category[i]) + " has no child";
        if (f->tev_ash_get_parent_id(work[i], &up[i]) != 0)
            return "copy needs a parent above each job: handler " + std::to_string(work[i]) +
                   " (APLJOB) has no parent (link it below an APLSVC_IMG handler first)";
    }
    if (work[0] == work[1] || up[0] == work[1] || up[1] == work[0])
        return "cannot copy handler " + std::to_string(work[0]) + " onto " +
               std::to_string(work[1]) + ": one tree holds the other";
    return "";
}

int run_copy(context& ctx, const pair_options& o) {
    unsigned int src = 0, dst = 0, sc = 0, dc = 0;
    if (!parse_arg(o.a, &src, "source id") || !parse_arg(o.b, &dst, "destination id"))
        return EXIT_USAGE;
    if (int rc = ctx.check_handler(src, &sc)) return rc;
    if (int rc = ctx.check_handler(dst, &dc)) return rc;
    const std::string why = copy_refusal(src, sc, dst, dc);
    if (!why.empty()) return context::fail(why);
    const unsigned int rc = context::facade()->tev_ash_copy(src, dst);
    if (rc != 0)
        return ctx.fail_code(
            "cannot copy handler " + std::to_string(src) + " onto " + std::to_string(dst), rc);
    print_json(o.json, {{"source", src}, {"destination", dst}});
    return 0;
}

int run_reset_or_remove(context& ctx, const one_options& o, bool reset) {
    unsigned int id = 0;
    if (!parse_arg(o.handler, &id, "handler id")) return EXIT_USAGE;
    if (int rc = ctx.check_handler(id)) return rc;
    auto* f = context::facade();
    const unsigned int rc = reset ? f->tev_ash_reset(ctx.app(), TEV_ASH_SERVICE_TYPE_NONE, id)
                                  : f->tev_ash_remove(ctx.app(), id);
    if (rc != 0 || !ctx.reached_service())
        return ctx.fail_service(std::string("cannot ") + (reset ? "reset" : "remove") +
                                    " handler " + std::to_string(id),
                                rc);
    print_json(o.json, {{"handler", id}});
    return 0;
}

}  // namespace

void add_handler_commands(CLI::App& app, context& ctx) {
    auto c = std::make_shared<create_options>();
    auto* create =
        app.add_subcommand("create", "Create a handler, optionally linked below a parent");
    create->add_option("category", c->category, "Category name or number")->required();
    create->add_option("--parent", c->parent, "Parent handler id");
    create->add_flag("--json", c->json, "JSON output");
    run_with_system(create, ctx, WRITES, run_mode::sends,
                    [&ctx, c] { return run_create(ctx, *c); });

    auto l = std::make_shared<pair_options>();
    auto* link = app.add_subcommand("link", "Link CHILD below PARENT");
    link->add_option("parent", l->a, "Parent handler id")->required();
    link->add_option("child", l->b, "Child handler id")->required();
    link->add_flag("--json", l->json, "JSON output");
    run_with_system(link, ctx, WRITES, run_mode::store_only,
                    [&ctx, l] { return run_link(ctx, *l); });

    auto u = std::make_shared<one_options>();
    auto* unlink = app.add_subcommand("unlink", "Unlink a handler from its parent");
    unlink->add_option("handler", u->handler, "Handler id")->required();
    unlink->add_flag("--json", u->json, "JSON output");
    run_with_system(unlink, ctx, WRITES, run_mode::store_only,
                    [&ctx, u] { return run_unlink(ctx, *u); });

    auto p = std::make_shared<pair_options>();
    auto* copy = app.add_subcommand("copy", "Copy a job's handler tree onto another");
    copy->add_option("src", p->a, "Source handler id")->required();
    copy->add_option("dst", p->b, "Destination handler id")->required();
    copy->add_flag("--json", p->json, "JSON output");
    run_with_system(copy, ctx, WRITES, run_mode::store_only,
                    [&ctx, p] { return run_copy(ctx, *p); });

    for (const bool is_reset : {true, false}) {
        auto h = std::make_shared<one_options>();
        auto* sub = app.add_subcommand(
            is_reset ? "reset" : "remove",
            is_reset ? "Reset a handler" : "Remove a handler and every handler below it");
        sub->add_option("handler", h->handler, "Handler id")->required();
        sub->add_flag("--json", h->json, "JSON output");
        run_with_system(sub, ctx, WRITES, run_mode::sends,
                        [&ctx, h, is_reset] { return run_reset_or_remove(ctx, *h, is_reset); });
    }
}

}  // namespace tevash_cli
