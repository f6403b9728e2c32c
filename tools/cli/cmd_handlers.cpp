// create, link, unlink, copy, reset, remove: handlers and the links between them.
#include <iostream>
#include <memory>
#include <string>

#include "commands.h"
#include "util.h"

namespace tevash_cli {

namespace {

using velmora::TEV_ASH_SERVICE_TYPE_NONE;

std::string handler_text(unsigned int id, unsigned int category) {
    return std::to_string(id) + " (" + category_name(category) + ")";
}

// Why linking `child` below `parent` was refused, in words.
std::string link_refusal(unsigned int parent, unsigned int pc, unsigned int child,
                         unsigned int cc) {
    auto* f = context::facade();
    unsigned int up = 0;
    if (f->tev_ash_get_parent_id(child, &up) == 0)
        return "handler " + std::to_string(child) + " already has a parent (" + std::to_string(up) +
               ")";
    for (unsigned int at = parent; at != 0; at = f->tev_ash_get_parent_id(at, &up) == 0 ? up : 0)
        if (at == child)
            return "linking " + std::to_string(child) + " below " + std::to_string(parent) +
                   " would make a cycle";
    return "cannot link handler " + handler_text(child, cc) + " below " + handler_text(parent, pc);
}

struct create_options {
    std::string category, parent;
    bool json = false;
};

int run_create(context& ctx, const create_options& o) {
    auto* f = context::facade();
    unsigned int category = 0, parent = 0, parent_category = 0, id = 0;
    if (!parse_category(o.category, &category))
        return context::fail("unknown category '" + o.category + "'");
    if (!o.parent.empty()) {
        if (!parse_arg(o.parent, &parent, "parent id")) return 1;
        if (int rc = ctx.check_handler(parent, &parent_category)) return rc;
    }
    unsigned int rc = f->tev_ash_create(category, ctx.app(), TEV_ASH_SERVICE_TYPE_NONE, &id, 0);
    if (rc != 0 || !ctx.reached_service())
        return ctx.fail_service("cannot create a " + category_name(category) + " handler", rc);
    if (!o.parent.empty()) {
        rc = f->tev_ash_set_link(parent_category, parent, category, id);
        if (rc != 0) {
            const std::string why = link_refusal(parent, parent_category, id, category);
            // Leave no half-made handler behind.
            f->tev_ash_remove(ctx.app(), id);
            return ctx.fail_code(why, rc);
        }
    }
    if (o.json)
        std::cout << "{\"id\":" << id << ",\"category\":" << category << ",\"parent\":" << parent
                  << "}\n";
    else
        std::cout << id << '\n';
    return 0;
}

struct pair_options {
    std::string a, b;
};

int run_link(context& ctx, const pair_options& o) {
    unsigned int parent = 0, child = 0, pc = 0, cc = 0;
    if (!parse_arg(o.a, &parent, "parent id") || !parse_arg(o.b, &child, "child id")) return 1;
    if (int rc = ctx.check_handler(parent, &pc)) return rc;
    if (int rc = ctx.check_handler(child, &cc)) return rc;
    const unsigned int rc = context::facade()->tev_ash_set_link(pc, parent, cc, child);
    return rc ? ctx.fail_code(link_refusal(parent, pc, child, cc), rc) : 0;
}

int run_unlink(context& ctx, const std::string& text) {
    unsigned int id = 0, category = 0, parent = 0;
    if (!parse_arg(text, &id, "handler id")) return 1;
    if (int rc = ctx.check_handler(id, &category)) return rc;
    auto* f = context::facade();
    if (f->tev_ash_get_parent_id(id, &parent) != 0)
        return context::fail("handler " + std::to_string(id) + " has no parent");
    const unsigned int rc = f->tev_ash_delete_link(category, id);
    return rc ? ctx.fail_code("cannot unlink handler " + std::to_string(id), rc) : 0;
}

int run_copy(context& ctx, const pair_options& o) {
    unsigned int src = 0, dst = 0, sc = 0, dc = 0;
    if (!parse_arg(o.a, &src, "source id") || !parse_arg(o.b, &dst, "destination id")) return 1;
    if (int rc = ctx.check_handler(src, &sc)) return rc;
    if (int rc = ctx.check_handler(dst, &dc)) return rc;
    const unsigned int rc = context::facade()->tev_ash_copy(src, dst);
    if (rc == velmora::TEV_ASH_RC_BAD_ARG)
        return ctx.fail_code("copy needs two APLJOB or two APLSVC_IMG handlers, not " +
                                 handler_text(src, sc) + " and " + handler_text(dst, dc),
                             rc);
    return rc ? ctx.fail_code(
                    "cannot copy handler " + std::to_string(src) + " onto " + std::to_string(dst),
                    rc)
              : 0;
}

int run_reset_or_remove(context& ctx, const std::string& text, bool reset) {
    unsigned int id = 0;
    if (!parse_arg(text, &id, "handler id")) return 1;
    if (int rc = ctx.check_handler(id)) return rc;
    auto* f = context::facade();
    const unsigned int rc = reset ? f->tev_ash_reset(ctx.app(), TEV_ASH_SERVICE_TYPE_NONE, id)
                                  : f->tev_ash_remove(ctx.app(), id);
    return rc != 0 || !ctx.reached_service()
               ? ctx.fail_service(std::string("cannot ") + (reset ? "reset" : "remove") +
                                      " handler " + std::to_string(id),
                                  rc)
               : 0;
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
    run_with_system(link, ctx, WRITES, run_mode::store_only,
                    [&ctx, l] { return run_link(ctx, *l); });

    auto h = std::make_shared<std::string>();
    auto* unlink = app.add_subcommand("unlink", "Unlink a handler from its parent");
    unlink->add_option("handler", *h, "Handler id")->required();
    run_with_system(unlink, ctx, WRITES, run_mode::store_only,
                    [&ctx, h] { return run_unlink(ctx, *h); });

    auto p = std::make_shared<pair_options>();
    auto* copy = app.add_subcommand("copy", "Copy a job's handler tree onto another");
    copy->add_option("src", p->a, "Source handler id")->required();
    copy->add_option("dst", p->b, "Destination handler id")->required();
    run_with_system(copy, ctx, WRITES, run_mode::store_only,
                    [&ctx, p] { return run_copy(ctx, *p); });

    auto* reset = app.add_subcommand("reset", "Reset a handler");
    reset->add_option("handler", *h, "Handler id")->required();
    run_with_system(reset, ctx, WRITES, run_mode::sends,
                    [&ctx, h] { return run_reset_or_remove(ctx, *h, true); });
    auto* remove = app.add_subcommand("remove", "Remove a handler");
    remove->add_option("handler", *h, "Handler id")->required();
    run_with_system(remove, ctx, WRITES, run_mode::sends,
                    [&ctx, h] { return run_reset_or_remove(ctx, *h, false); });
}

}  // namespace tevash_cli
