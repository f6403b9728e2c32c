// Copy of a job's handler tree: the work handler's record and its parent's are
// copied onto the destination's, the destination's direct children are deleted
// and the source's direct children re-created under it, in order, as new
// records. A failure stops the copy where it is; nothing is rolled back.
//
// Pairs in which one work handler's tree contains the other's at the first
// level (the same handler, or one a direct child of the other) are refused with
// 0xC1030008 before anything is changed: clearing the destination would delete
// records the copy still has to read, or the copy would overwrite the source.
#include "tev_ash_control.h"
#include "tev_ash_trace.h"
#include "wud_wud_service_info.h"

namespace velmora {

namespace {

using tev_ash_trace::FILE_CONTROL;
using tev_ash_trace::lx;
using store = wud_wud_service_info;

// The parent of `handler_id` read straight from the record store, without trace
// lines: 0 when it has none or cannot be read. `category` is the handler's
// category when the caller knows it, else 0.
unsigned int quiet_parent_of(unsigned int handler_id, unsigned int category) {
    const unsigned int cmp_id = TEV_ASH_CMP_ID;
    const unsigned int id = handler_id;
    unsigned int cat = category;
    if (cat == 0 && store::wud_wud_service_info_get_job_category_by_id(cmp_id, id, &cat) != 0) {
        return 0;
    }
    const unsigned int known_cat = cat;
    unsigned int parent = 0;
    if (store::wud_wud_service_info_get_parent_link(cmp_id, known_cat, id, &parent) != 0) return 0;
    return parent;
}

}  // namespace

unsigned int tev_ash_control::copy(unsigned int src_handler_id, unsigned int dst_handler_id) {
    constexpr unsigned int FAILED = TEV_ASH_RC_FAILURE;

    // 1. Categories of both sides.
    TEV_ASH_CATEGORY dst_category = static_cast<TEV_ASH_CATEGORY>(0);
    if (get_category(dst_handler_id, &dst_category) != TEV_ASH_RC_OK) {
        return TEV_ASH_CONTROL_FAILED(
            "copy", "[Error](get_category) rc:%#.8lx, dst_handler_id:%#.8X, dst_category:%#.8X",
            lx(FAILED), dst_handler_id, static_cast<unsigned int>(dst_category));
    }
    TEV_ASH_CATEGORY src_category = static_cast<TEV_ASH_CATEGORY>(0);
    if (get_category(src_handler_id, &src_category) != TEV_ASH_RC_OK) {
        return TEV_ASH_CONTROL_FAILED(
            "copy", "[Error](get_category) rc:%#.8lx, src_handler_id:%#.8X, src_category:%#.8X",
            lx(FAILED), src_handler_id, static_cast<unsigned int>(src_category));
    }

    // 2. Work handlers: the job handlers themselves, or the first direct
    // children of two service image handlers.
    unsigned int src_work_handler_id = 0;
    unsigned int dst_work_handler_id = 0;
    unsigned int work_category = 0;  // known only for a pair of job handlers
    if (src_category == TEV_ASH_CAT_APLJOB && dst_category == TEV_ASH_CAT_APLJOB) {
        src_work_handler_id = src_handler_id;
        dst_work_handler_id = dst_handler_id;
        work_category = TEV_ASH_CAT_APLJOB;
    } else if (src_category == TEV_ASH_CAT_APLSVC_IMG && dst_category == TEV_ASH_CAT_APLSVC_IMG) {
        if (get_child_id_direct(src_handler_id, 0, &src_work_handler_id) != TEV_ASH_RC_OK) {
            return TEV_ASH_CONTROL_FAILED(
                "copy", "[Error](get_child_id_direct) rc:%#.8lx, src_handler_id:%#.8X", lx(FAILED),
                src_handler_id);
        }
        if (get_child_id_direct(dst_handler_id, 0, &dst_work_handler_id) != TEV_ASH_RC_OK) {
            return TEV_ASH_CONTROL_FAILED(
                "copy", "[Error](get_child_id_direct) rc:%#.8lx, dst_handler_id:%#.8X", lx(FAILED),
                dst_handler_id);
        }
    } else {
        return TEV_ASH_FAIL(
            TEV_ASH_RC_BAD_ARG, FILE_CONTROL, "copy",
            "[Error](get_category) rc:%#.8lx, src_category:%#.8X, dst_category:%#.8X",
            lx(TEV_ASH_RC_BAD_ARG), static_cast<unsigned int>(src_category),
            static_cast<unsigned int>(dst_category));
    }

    // Overlapping trees would lose source data in step 5 or change the source
    // in steps 3 and 4: refuse them while nothing has been touched.
    if (src_work_handler_id == dst_work_handler_id ||
        quiet_parent_of(src_work_handler_id, work_category) == dst_work_handler_id ||
        quiet_parent_of(dst_work_handler_id, work_category) == src_work_handler_id) {
        return TEV_ASH_FAIL(TEV_ASH_RC_BAD_ARG, FILE_CONTROL, "copy",
                            "[Error](overlapping trees) rc:%#.8lx, src_work_handler_id:%#.8X, "
                            "dst_work_handler_id:%#.8X",
                            lx(TEV_ASH_RC_BAD_ARG), src_work_handler_id, dst_work_handler_id);
    }

    // 3. The work handler's own record.
    if (copy_info(src_work_handler_id, dst_work_handler_id) != TEV_ASH_RC_OK) {
        return TEV_ASH_CONTROL_FAILED("copy",
                                      "[Error](copy_info) rc:%#.8lx, src_work_handler_id:%#.8X, "
                                      "dst_work_handler_id:%#.8X",
                                      lx(FAILED), src_work_handler_id, dst_work_handler_id);
    }

    // 4. The parents' records.
    unsigned int dst_parent_handler_id = 0;
    if (get_parent_id(dst_work_handler_id, &dst_parent_handler_id) != TEV_ASH_RC_OK) {
        return TEV_ASH_CONTROL_FAILED(
            "copy",
            "[Error](get_parent_id) rc:%#.8lx, dst_work_handler_id:%#.8X, "
            "dst_parent_handler_id:%#.8X",
            lx(FAILED), dst_work_handler_id, dst_parent_handler_id);
    }
    unsigned int src_parent_handler_id = 0;
    if (get_parent_id(src_work_handler_id, &src_parent_handler_id) != TEV_ASH_RC_OK) {
        return TEV_ASH_CONTROL_FAILED(
            "copy",
            "[Error](get_parent_id) rc:%#.8lx, src_work_handler_id:%#.8X, "
            "src_parent_handler_id:%#.8X",
            lx(FAILED), src_work_handler_id, src_parent_handler_id);
    }
    if (copy_info(src_parent_handler_id, dst_parent_handler_id) != TEV_ASH_RC_OK) {
        return TEV_ASH_CONTROL_FAILED("copy",
                                      "[Error](copy_info) rc:%#.8lx, src_parent_handler_id:%#.8X, "
                                      "dst_parent_handler_id:%#.8X",
                                      lx(FAILED), src_parent_handler_id, dst_parent_handler_id);
    }

    // 5. Clear the destination: a deleted record leaves its parent's list, so
    // position 0 always holds the next child.
    unsigned int dst_child_link_count = 0;
    if (get_child_count(dst_work_handler_id, &dst_child_link_count) != TEV_ASH_RC_OK) {
        return TEV_ASH_CONTROL_FAILED(
            "copy",
            "[Error](get_child_count) rc:%#.8lx, dst_work_handler_id:%#.8X, "
            "dst_child_link_count:%#.8X",
            lx(FAILED), dst_work_handler_id, dst_child_link_count);
    }
    for (unsigned int i = 0; i < dst_child_link_count; ++i) {
        unsigned int dst_child_handler_id = 0;
        if (get_child_id_direct(dst_work_handler_id, 0, &dst_child_handler_id) != TEV_ASH_RC_OK) {
            return TEV_ASH_CONTROL_FAILED(
                "copy", "[Error](get_child_id_direct) rc:%#.8lx, dst_work_handler_id:%#.8X",
                lx(FAILED), dst_work_handler_id);
        }
        if (remove_info(dst_child_handler_id) != TEV_ASH_RC_OK) {
            return TEV_ASH_CONTROL_FAILED(
                "copy", "[Error](remove_info) rc:%#.8lx, dst_child_handler_id:%#.8X", lx(FAILED),
                dst_child_handler_id);
        }
    }

    // 6. Re-create the source's direct children under the destination.
    unsigned int src_child_link_count = 0;
    if (get_child_count(src_work_handler_id, &src_child_link_count) != TEV_ASH_RC_OK) {
        return TEV_ASH_CONTROL_FAILED(
            "copy",
            "[Error](get_child_count) rc:%#.8lx, src_work_handler_id:%#.8X, "
            "src_child_link_count:%#.8X",
            lx(FAILED), src_work_handler_id, src_child_link_count);
    }
    for (unsigned int i = 0; i < src_child_link_count; ++i) {
        unsigned int src_child_handler_id = 0;
        if (get_child_id_direct(src_work_handler_id, i, &src_child_handler_id) != TEV_ASH_RC_OK) {
            return TEV_ASH_CONTROL_FAILED(
                "copy", "[Error](get_child_id_direct) rc:%#.8lx, src_work_handler_id:%#.8X",
                lx(FAILED), src_work_handler_id);
        }
        TEV_ASH_CATEGORY src_child_category = static_cast<TEV_ASH_CATEGORY>(0);
        if (get_category(src_child_handler_id, &src_child_category) != TEV_ASH_RC_OK) {
            return TEV_ASH_CONTROL_FAILED(
                "copy",
                "[Error](get_category) rc:%#.8lx, src_child_handler_id:%#.8X, "
                "src_child_category:%#.8X",
                lx(FAILED), src_child_handler_id, static_cast<unsigned int>(src_child_category));
        }
        unsigned int dst_copy_child_handler_id = 0;
        if (create_info(src_child_category, &dst_copy_child_handler_id, src_child_handler_id) !=
            TEV_ASH_RC_OK) {
            return TEV_ASH_CONTROL_FAILED(
                "copy",
                "[Error](create_info) rc:%#.8lx, src_child_category:%#.8X, "
                "src_child_handler_id:%#.8X",
                lx(FAILED), static_cast<unsigned int>(src_child_category), src_child_handler_id);
        }
        if (set_link(TEV_ASH_CAT_APLJOB, dst_work_handler_id, src_child_category,
                     dst_copy_child_handler_id) != TEV_ASH_RC_OK) {
            return TEV_ASH_CONTROL_FAILED(
                "copy",
                "[Error](set_link) rc:%#.8lx, dst_work_handler_id:%#.8X, "
                "src_child_category:%#.8X, dst_copy_child_handler_id:%#.8X",
                lx(FAILED), dst_work_handler_id, static_cast<unsigned int>(src_child_category),
                dst_copy_child_handler_id);
        }
    }
    return TEV_ASH_RC_OK;
}

}  // namespace velmora
