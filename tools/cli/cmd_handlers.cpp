// create, link, copy, reset, remove: handlers and the links between them.
#include <iostream>
#include <memory>
#include <string>

#include "commands.h"
#include "util.h"

namespace tevash_cli {

namespace {

using velmora::TEV_ASH_SERVICE_TYPE_NONE;

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
        unsigned int rc = f->tev_ash_get_category(parent, &parent_category);
        if (rc != 0) return ctx.fail_code("parent " + std::to_string(parent), rc);
    }
    unsigned int rc = f->tev_ash_create(category, ctx.app(), TEV_ASH_SERVICE_TYPE_NONE, &id, 0);
    if (rc != 0) return ctx.fail_code("create", rc);
    if (parent != 0) {
        rc = f->tev_ash_set_link(parent_category, parent, category, id);
        if (rc != 0) {
            // Leave no half-made handler behind.
            f->tev_ash_remove(ctx.app(), id);
            return ctx.fail_code("link", rc);
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
    auto* f = context::facade();
    unsigned int parent = 0, child = 0, pc = 0, cc = 0;
    if (!parse_arg(o.a, &parent, "parent id") || !parse_arg(o.b, &child, "child id")) return 1;
    unsigned int rc = f->tev_ash_get_category(parent, &pc);
    if (rc == 0) rc = f->tev_ash_get_category(child, &cc);
    if (rc == 0) rc = f->tev_ash_set_link(pc, parent, cc, child);
    return rc ? ctx.fail_code("link", rc) : 0;
}

int run_copy(context& ctx, const pair_options& o) {
    unsigned int src = 0, dst = 0;
    if (!parse_arg(o.a, &src, "source id") || !parse_arg(o.b, &dst, "destination id")) return 1;
    unsigned int rc = context::facade()->tev_ash_copy(src, dst);
    return rc ? ctx.fail_code("copy", rc) : 0;
}

int run_reset_or_remove(context& ctx, const std::string& text, bool reset) {
    unsigned int id = 0;
    if (!parse_arg(text, &id, "handler id")) return 1;
    auto* f = context::facade();
    unsigned int rc = reset ? f->tev_ash_reset(ctx.app(), TEV_ASH_SERVICE_TYPE_NONE, id)
                            : f->tev_ash_remove(ctx.app(), id);
    return rc ? ctx.fail_code(reset ? "reset" : "remove", rc) : 0;
}

}  // namespace

void add_handler_commands(CLI::App& app, context& ctx) {
    auto c = std::make_shared<create_options>();
    auto* create =
        app.add_subcommand("create", "Create a handler, optionally linked below a parent");
    create->add_option("category", c->category, "Category name or number")->required();
    create->add_option("--parent", c->parent, "Parent handler id");
    create->add_flag("--json", c->json, "JSON output");
    run_with_system(create, ctx, [&ctx, c] { return run_create(ctx, *c); });

    auto l = std::make_shared<pair_options>();
    auto* link = app.add_subcommand("link", "Link CHILD below PARENT");
    link->add_option("parent", l->a, "Parent handler id")->required();
    link->add_option("child", l->b, "Child handler id")->required();
    run_with_system(link, ctx, [&ctx, l] { return run_link(ctx, *l); });

    auto p = std::make_shared<pair_options>();
    auto* copy = app.add_subcommand("copy", "Copy a job's handler tree onto another");
    copy->add_option("src", p->a, "Source handler id")->required();
    copy->add_option("dst", p->b, "Destination handler id")->required();
    run_with_system(copy, ctx, [&ctx, p] { return run_copy(ctx, *p); });

    auto h = std::make_shared<std::string>();
    auto* reset = app.add_subcommand("reset", "Reset a handler");
    reset->add_option("handler", *h, "Handler id")->required();
    run_with_system(reset, ctx, [&ctx, h] { return run_reset_or_remove(ctx, *h, true); });
    auto* remove = app.add_subcommand("remove", "Remove a handler");
    remove->add_option("handler", *h, "Handler id")->required();
    run_with_system(remove, ctx, [&ctx, h] { return run_reset_or_remove(ctx, *h, false); });
}

}  // namespace tevash_cli
