// demo: a guided run of the typical flows on a fresh in-memory store.
#include <iostream>
#include <string>

#include "commands.h"
#include "tree_model.h"
#include "util.h"

namespace tevash_cli {

namespace {

using namespace velmora;

int run_demo(context& ctx) {
    tevhost::store_use_memory();
    auto* f = context::facade();
    auto step = [](const std::string& what, unsigned int rc) {
        std::cout << "  " << what << " -> " << hex32(rc) << '\n';
        return rc == 0;
    };
    auto create = [&ctx, f](TEV_ASH_CATEGORY category, unsigned int* id) {
        return f->tev_ash_create(category, ctx.app(), TEV_ASH_SERVICE_TYPE_NONE, id, 0);
    };
    std::cout << "Building a handler tree through the director\n";
    unsigned int auth = 0, img = 0, job = 0, job2 = 0, set0 = 0, set1 = 0;
    bool ok = step("create AUTH", create(TEV_ASH_CAT_AUTH, &auth)) &&
              step("create APLSVC_IMG", create(TEV_ASH_CAT_APLSVC_IMG, &img)) &&
              step("create APLJOB", create(TEV_ASH_CAT_APLJOB, &job)) &&
              step("create JOBSET_03", create(TEV_ASH_CAT_JOBSET_03, &set0)) &&
              step("create JOBSET_03", create(TEV_ASH_CAT_JOBSET_03, &set1)) &&
              step("create APLJOB (copy destination)", create(TEV_ASH_CAT_APLJOB, &job2)) &&
              step("link AUTH -> APLSVC_IMG",
                   f->tev_ash_set_link(TEV_ASH_CAT_AUTH, auth, TEV_ASH_CAT_APLSVC_IMG, img)) &&
              step("link APLSVC_IMG -> APLJOB",
                   f->tev_ash_set_link(TEV_ASH_CAT_APLSVC_IMG, img, TEV_ASH_CAT_APLJOB, job)) &&
              step("link APLSVC_IMG -> APLJOB",
                   f->tev_ash_set_link(TEV_ASH_CAT_APLSVC_IMG, img, TEV_ASH_CAT_APLJOB, job2)) &&
              step("link APLJOB -> JOBSET_03",
                   f->tev_ash_set_link(TEV_ASH_CAT_APLJOB, job, TEV_ASH_CAT_JOBSET_03, set0)) &&
              step("link APLJOB -> JOBSET_03",
                   f->tev_ash_set_link(TEV_ASH_CAT_APLJOB, job, TEV_ASH_CAT_JOBSET_03, set1));
    if (!ok) return ctx.fail_code("demo tree", 1);
    draw_tree(auth, std::cout);

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
        if (rc != 0) return ctx.fail_code("member " + hex32(a.member), rc);
        std::cout << "  member " << hex32(a.member) << " order " << a.order << " (" << a.owner
                  << ") = " << back << '\n';
    }

    std::cout << "Copying job " << job << " onto job " << job2 << '\n';
    unsigned int rc = f->tev_ash_copy(job, job2);
    if (rc != 0) return ctx.fail_code("copy", rc);
    draw_tree(job2, std::cout);
    long copied = 0;
    rc = f->tev_ash_get_member(APP_CMP_ID, job2, 0x00360000, &copied, 0);
    if (rc != 0) return ctx.fail_code("member of the copy", rc);
    long copied_child = 0;
    rc = f->tev_ash_get_member(APP_CMP_ID, job2, 0x00460000, &copied_child, 1);
    if (rc != 0) return ctx.fail_code("member of the copy's child", rc);
    std::cout << "  member 0x00360000 of job " << job2 << " = " << copied
              << ", member 0x00460000 of its second child = " << copied_child << '\n';

    std::cout << "A refused access: member 0x00182000 (APLSVC_IMG) through job handler " << job
              << '\n';
    ctx.capture->clear();
    long refused = 0;
    rc = f->tev_ash_get_member(APP_CMP_ID, job, 0x00182000, &refused, 0);
    std::cout << "  result " << hex32(rc) << '\n';
    for (const auto& line : ctx.capture->lines()) std::cout << "  trace: " << line.text;
    std::cout << "Demo finished\n";
    return 0;
}

}  // namespace

void add_demo_commands(CLI::App& app, context& ctx) {
    auto* demo =
        app.add_subcommand("demo", "Guided run of the typical flows on a fresh in-memory store");
    run_with_system(demo, ctx, WRITES, run_mode::own_embedded, [&ctx] { return run_demo(ctx); });
}

}  // namespace tevash_cli
