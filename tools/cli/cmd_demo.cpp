// demo: a guided run of the typical flows on a fresh in-memory store, with the
// sample member schema (examples/schema/demo-schema.json, built in) loaded.
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "demo_schema.h"
#include "tree_model.h"
#include "util.h"

namespace tevash_cli {

namespace {

using namespace velmora;

// The tree below `root` as nested JSON (tree_model.h), parsed back for the report.
nlohmann::ordered_json tree_json(unsigned int root) {
    std::vector<tree_entry> entries;
    walk_tree(root, &entries);
    std::ostringstream text;
    write_tree_json(entries, text);
    return nlohmann::ordered_json::parse(text.str());
}

int run_demo(context& ctx, bool json) {
    tevhost::store_use_memory();
    std::vector<tevhost::member_schema> schema;
    std::string why;
    if (!tevhost::parse_member_schema(TEVASH_DEMO_SCHEMA, &schema, &why) ||
        tevhost::store_load_schema(schema, &why) != 0)
        return context::fail("demo: the sample schema: " + why);
    auto* f = context::facade();
    // With --json the words go nowhere and one object is printed at the end.
    std::ostringstream unused;
    std::ostream& out = json ? unused : std::cout;
    nlohmann::ordered_json report = {{"created", nlohmann::ordered_json::array()},
                                     {"links", nlohmann::ordered_json::array()}};
    auto create = [&](TEV_ASH_CATEGORY category, unsigned int* id, const char* why = "") {
        const unsigned int rc =
            f->tev_ash_create(category, ctx.app(), TEV_ASH_SERVICE_TYPE_NONE, id, 0);
        if (rc != 0)
            return ctx.fail_code("demo: cannot create " + category_name(category), rc), false;
        out << "  create " << category_name(category) << why << " -> " << *id << '\n';
        report["created"].push_back({{"id", *id}, {"category", category_token(category)}});
        return true;
    };
    auto link = [&](TEV_ASH_CATEGORY pc, unsigned int parent, TEV_ASH_CATEGORY cc,
                    unsigned int child) {
        const unsigned int rc = f->tev_ash_set_link(pc, parent, cc, child);
        if (rc != 0)
            return ctx.fail_code("demo: cannot link " + std::to_string(child) + " below " +
                                     std::to_string(parent),
                                 rc),
                   false;
        out << "  link " << parent << ' ' << category_name(pc) << " -> " << child << ' '
            << category_name(cc) << '\n';
        report["links"].push_back({{"parent", parent}, {"child", child}});
        return true;
    };
    out << "Building a handler tree through the director\n";
    unsigned int auth = 0, img = 0, job = 0, job2 = 0, set0 = 0, set1 = 0;
    const bool ok = create(TEV_ASH_CAT_AUTH, &auth) && create(TEV_ASH_CAT_APLSVC_IMG, &img) &&
                    create(TEV_ASH_CAT_APLJOB, &job) && create(TEV_ASH_CAT_JOBSET_03, &set0) &&
                    create(TEV_ASH_CAT_JOBSET_03, &set1) &&
                    create(TEV_ASH_CAT_APLJOB, &job2, " (copy destination)") &&
                    link(TEV_ASH_CAT_AUTH, auth, TEV_ASH_CAT_APLSVC_IMG, img) &&
                    link(TEV_ASH_CAT_APLSVC_IMG, img, TEV_ASH_CAT_APLJOB, job) &&
                    link(TEV_ASH_CAT_APLSVC_IMG, img, TEV_ASH_CAT_APLJOB, job2) &&
                    link(TEV_ASH_CAT_APLJOB, job, TEV_ASH_CAT_JOBSET_03, set0) &&
                    link(TEV_ASH_CAT_APLJOB, job, TEV_ASH_CAT_JOBSET_03, set1);
    if (!ok) return EXIT_FAILED;
    draw_tree(auth, out);
    report["tree"] = tree_json(auth);

    out << "Writing and reading members through job handler " << job << '\n';
    struct access {
        unsigned int member;
        unsigned int order;
        long value;
        const char* owner;
    };
    const access accesses[] = {{0x00360000, 0, 42, "the job itself"},
                               {0x00460000, 1, 7, "second JOBSET_03 child"},
                               {0x00260000, 0, 1234, "AUTH, two links up"}};
    report["members"] = nlohmann::ordered_json::array();
    for (const auto& a : accesses) {
        unsigned int rc = f->tev_ash_set_member(APP_CMP_ID, job, a.member, a.value, a.order);
        long back = 0;
        if (rc == 0) rc = f->tev_ash_get_member(APP_CMP_ID, job, a.member, &back, a.order);
        if (rc != 0) return ctx.fail_code("demo: member " + hex32(a.member), rc);
        out << "  " << member_label(a.member) << " order " << a.order << " (" << a.owner
            << ") = " << back << '\n';
        report["members"].push_back(
            {{"handler", job}, {"member", hex32(a.member)}, {"order", a.order}, {"value", back}});
    }

    out << "Copying job " << job << " onto job " << job2 << '\n';
    unsigned int rc = f->tev_ash_copy(job, job2);
    if (rc != 0) return ctx.fail_code("demo: copy", rc);
    draw_tree(job2, out);
    long copied = 0;
    rc = f->tev_ash_get_member(APP_CMP_ID, job2, 0x00360000, &copied, 0);
    if (rc != 0) return ctx.fail_code("demo: member of the copy", rc);
    long copied_child = 0;
    rc = f->tev_ash_get_member(APP_CMP_ID, job2, 0x00460000, &copied_child, 1);
    if (rc != 0) return ctx.fail_code("demo: member of the copy's child", rc);
    out << "  " << member_label(0x00360000) << " of job " << job2 << " = " << copied << ", "
        << member_label(0x00460000) << " of its second child = " << copied_child << '\n';
    report["copy"] = {{"source", job}, {"destination", job2}, {"tree", tree_json(job2)}};

    out << "A refused access: " << member_label(0x00182000) << " of APLSVC_IMG through job handler "
        << job << '\n';
    long refused = 0;
    const auto refused_trace = [&](unsigned int code) {
        out << "  result " << hex32(code) << '\n';
        nlohmann::ordered_json trace = nlohmann::ordered_json::array();
        for (const auto& line : ctx.capture->lines()) {
            std::string t = ctx.verbose ? line.text : without_pointers(line.text);
            while (!t.empty() && (t.back() == '\n' || t.back() == '\r')) t.pop_back();
            out << "  trace: " << t << '\n';
            trace.push_back(t);
        }
        ctx.capture->clear();
        return trace;
    };
    ctx.capture->clear();
    rc = f->tev_ash_get_member(APP_CMP_ID, job, 0x00182000, &refused, 0);
    report["refused"] = {{"handler", job},
                         {"member", "0x00182000"},
                         {"code", hex32(rc)},
                         {"trace", refused_trace(rc)}};
    out << "A refused value: " << member_label(0x00360000)
        << " = 5000 (the schema allows 1..999)\n";
    rc = f->tev_ash_set_member(APP_CMP_ID, job, 0x00360000, 5000L, 0);
    report["out_of_range"] = {{"handler", job},
                              {"member", "0x00360000"},
                              {"code", hex32(rc)},
                              {"trace", refused_trace(rc)}};
    out << "Demo finished\n";
    if (json) std::cout << report.dump() << '\n';
    return 0;
}

}  // namespace

void add_demo_commands(CLI::App& app, context& ctx) {
    auto* demo =
        app.add_subcommand("demo", "Guided run of the typical flows on a fresh in-memory store");
    auto json = std::make_shared<bool>(false);
    demo->add_flag("--json", *json, "One JSON object: what was made, read, copied and refused");
    run_with_system(demo, ctx, WRITES, run_mode::own_embedded,
                    [&ctx, json] { return run_demo(ctx, *json); });
}

}  // namespace tevash_cli
