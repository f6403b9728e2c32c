// The handler control layer: handler records through the handler service and
// the record store, links and tree navigation, and the resolution of the handler
// that owns a member. Member access lives in tev_ash_control_member.cpp, the
// tree copy in tev_ash_control_copy.cpp, the tables in
// tev_ash_control_tables.cpp.
//
// Every store call passes its inputs as locals with TEV_ASH_CMP_ID first; a
// non-zero store result becomes 0xC1030001 with one trace line.
#include "tev_ash_control.h"

#include "tev_ash_handler_facade.h"
#include "tev_ash_trace.h"
#include "wud_wud_service_info.h"

namespace velmora {

namespace {

using tev_ash_trace::FILE_CONTROL;
using tev_ash_trace::lx;
using store = wud_wud_service_info;

constexpr unsigned int OWN_CMP_ID = TEV_ASH_CMP_ID;
constexpr unsigned char MAKE_FLAG = 0;

// reset_info and remove_info: one store call on one record, worded alike.
unsigned int on_record(const char* function,
                       unsigned int (*store_call)(const unsigned int&, const unsigned int&),
                       unsigned int handler_id) {
    const unsigned int id = handler_id;
    const unsigned int wud_rc = store_call(OWN_CMP_ID, id);
    if (wud_rc == 0) return TEV_ASH_RC_OK;
    return TEV_ASH_CONTROL_FAILED(function, "[Error]wud_rc:%#.8lx, handler_id:%#.8X", lx(wud_rc),
                                  id);
}

}  // namespace

tev_ash_control::tev_ash_control()
    : handler_facade_(tev_ash_handler_facade::tev_ash_handler_get_instance()) {}

tev_ash_control::~tev_ash_control() = default;

// ---------------------------------------------------------------------------
// Handlers through the handler service.

unsigned int tev_ash_control::create(TEV_ASH_CATEGORY category, TEV_ASH_APP_TYPE app_type,
                                     TEV_ASH_SERVICE_TYPE service_type, unsigned int* handler_id,
                                     unsigned int src_handler_id) {
    const unsigned int rc = handler_facade_->tev_ash_handler_create(
        category, app_type, service_type, handler_id, src_handler_id);
    if (rc != TEV_ASH_RC_OK) TEV_ASH_TRACE(FILE_CONTROL, "create", "[Error]rc:%#.8lx", lx(rc));
    return rc;
}

unsigned int tev_ash_control::remove(TEV_ASH_APP_TYPE app_type, unsigned int handler_id) {
    const unsigned int rc = handler_facade_->tev_ash_handler_remove(app_type, handler_id);
    if (rc != TEV_ASH_RC_OK) TEV_ASH_TRACE(FILE_CONTROL, "remove", "[Error]rc:%#.8lx", lx(rc));
    return rc;
}

unsigned int tev_ash_control::reset(TEV_ASH_APP_TYPE app_type, TEV_ASH_SERVICE_TYPE service_type,
                                    unsigned int handler_id) {
    const unsigned int rc =
        handler_facade_->tev_ash_handler_reset(app_type, service_type, handler_id);
    if (rc != TEV_ASH_RC_OK) TEV_ASH_TRACE(FILE_CONTROL, "reset", "[Error]rc:%#.8lx", lx(rc));
    return rc;
}

// ---------------------------------------------------------------------------
// Handler records in the record store.

unsigned int tev_ash_control::create_info(TEV_ASH_CATEGORY category, unsigned int* handler_id,
                                          unsigned int src_handler_id) {
    const unsigned int cat = category;
    const unsigned int src = src_handler_id;
    const unsigned int wud_rc =
        src == 0 ? store::wud_wud_service_info_make_current(OWN_CMP_ID, cat, MAKE_FLAG, handler_id)
                 : store::wud_wud_service_info_make_and_copy_current(OWN_CMP_ID, cat, MAKE_FLAG,
                                                                     src, handler_id);
    if (wud_rc == 0) return TEV_ASH_RC_OK;
    return TEV_ASH_CONTROL_FAILED(
        "create_info", "[Error]wud_rc:%#.8lx, category:%d, &handler_id:%p, src_handler_id:%#.8X",
        lx(wud_rc), static_cast<int>(cat), static_cast<void*>(handler_id), src);
}

unsigned int tev_ash_control::copy_info(unsigned int src_handler_id, unsigned int dst_handler_id) {
    const unsigned int src = src_handler_id;
    const unsigned int dst = dst_handler_id;
    const unsigned int wud_rc = store::wud_wud_service_info_copy_current(OWN_CMP_ID, src, dst);
    if (wud_rc == 0) return TEV_ASH_RC_OK;
    return TEV_ASH_CONTROL_FAILED(
        "copy_info", "[Error]wud_rc:%#.8lx, src_handler_id:%#.8X, dst_handler_id:%#.8X", lx(wud_rc),
        src, dst);
}

unsigned int tev_ash_control::reset_info(unsigned int handler_id) {
    return on_record("reset_info", store::wud_wud_service_info_init_current, handler_id);
}

unsigned int tev_ash_control::remove_info(unsigned int handler_id) {
    return on_record("remove_info", store::wud_wud_service_info_delete_current, handler_id);
}

// ---------------------------------------------------------------------------
// Links and navigation.

unsigned int tev_ash_control::set_link(TEV_ASH_CATEGORY parent_category,
                                       unsigned int parent_handler_id,
                                       TEV_ASH_CATEGORY child_category,
                                       unsigned int child_handler_id) {
    const unsigned int pc = parent_category;
    const unsigned int pid = parent_handler_id;
    const unsigned int cc = child_category;
    const unsigned int cid = child_handler_id;
    const unsigned int wud_rc = store::wud_wud_service_info_set_link(OWN_CMP_ID, pc, pid, cc, cid);
    if (wud_rc == 0) return TEV_ASH_RC_OK;
    return TEV_ASH_CONTROL_FAILED(
        "set_link",
        "[Error]wud_rc:%.8lx, parent_category:%u, parent_handler_id:%#.8X, "
        "child_category:%u, child_handler_id:%#.8X",
        lx(wud_rc), pc, pid, cc, cid);
}

unsigned int tev_ash_control::delete_link(TEV_ASH_CATEGORY category, unsigned int handler_id) {
    const unsigned int cat = category;
    const unsigned int id = handler_id;
    const unsigned int wud_rc = store::wud_wud_service_info_delete_link(OWN_CMP_ID, cat, id);
    if (wud_rc == 0) return TEV_ASH_RC_OK;
    return TEV_ASH_CONTROL_FAILED(
        "delete_link", "[Error]wud_rc:%#.8lx, category:%u, handler_id:%#.8X", lx(wud_rc), cat, id);
}

unsigned int tev_ash_control::get_child_count(unsigned int parent_handler_id, unsigned int* count) {
    const unsigned int pid = parent_handler_id;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_child_link_num_direct(OWN_CMP_ID, pid, count);
    if (wud_rc == 0) return TEV_ASH_RC_OK;
    return TEV_ASH_CONTROL_FAILED("get_child_count",
                                  "[Error]wud_rc:%#.8lx, parent_handler_id:%#.8X, &count:%p",
                                  lx(wud_rc), pid, static_cast<void*>(count));
}

unsigned int tev_ash_control::get_child_count(unsigned int parent_handler_id, unsigned int* count,
                                              TEV_ASH_CATEGORY child_category) {
    const unsigned int pid = parent_handler_id;
    const unsigned int cc = child_category;
    TEV_ASH_CATEGORY parent_category = static_cast<TEV_ASH_CATEGORY>(0);
    if (get_category(pid, &parent_category) != TEV_ASH_RC_OK) {
        return TEV_ASH_CONTROL_FAILED(
            "get_child_count",
            "[Error](get_category) rc:%#.8lx, parent_handler_id:%#.8X, &count:%p, "
            "child_category:%#.8X",
            lx(TEV_ASH_RC_FAILURE), pid, static_cast<void*>(count), cc);
    }
    const unsigned int pc = parent_category;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_child_link_num(OWN_CMP_ID, pc, pid, cc, count);
    if (wud_rc == 0) return TEV_ASH_RC_OK;
    return TEV_ASH_CONTROL_FAILED("get_child_count",
                                  "[Error](wud_wud_service_info_get_child_link_num) wud_rc:%#.8lx, "
                                  "parent_handler_id:%#.8X, &count:%p, child_category:%#.8x",
                                  lx(wud_rc), pid, static_cast<void*>(count), cc);
}

unsigned int tev_ash_control::get_child_id_direct(unsigned int parent_handler_id,
                                                  unsigned int order,
                                                  unsigned int* child_handler_id) {
    const unsigned int pid = parent_handler_id;
    const unsigned int ord = order;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_child_link_direct(OWN_CMP_ID, pid, ord, child_handler_id);
    if (wud_rc == 0) return TEV_ASH_RC_OK;
    return TEV_ASH_CONTROL_FAILED(
        "get_child_id_direct",
        "wud_rc:%#.8lX, parent_handler_id:%#.8X, order:%u, &child_handler_id:%p", lx(wud_rc), pid,
        ord, static_cast<void*>(child_handler_id));
}

unsigned int tev_ash_control::get_child_id(unsigned int parent_handler_id,
                                           TEV_ASH_CATEGORY child_category,
                                           unsigned int* child_handler_id, unsigned int order) {
    const unsigned int pid = parent_handler_id;
    const unsigned int cc = child_category;
    const unsigned int ord = order;
    TEV_ASH_CATEGORY parent_category = static_cast<TEV_ASH_CATEGORY>(0);
    if (get_category(pid, &parent_category) != TEV_ASH_RC_OK) {
        return TEV_ASH_CONTROL_FAILED("get_child_id",
                                      "[Error](get_category) rc:%#.8lX, parent_handler_id:%#.8X, "
                                      "child_category:%u, &child_handler_id:%p, order:%u",
                                      lx(TEV_ASH_RC_FAILURE), pid, cc,
                                      static_cast<void*>(child_handler_id), ord);
    }
    const unsigned int pc = parent_category;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_child_link(OWN_CMP_ID, pc, pid, cc, ord, child_handler_id);
    if (wud_rc == 0) return TEV_ASH_RC_OK;
    return TEV_ASH_CONTROL_FAILED(
        "get_child_id",
        "[Error](wud_wud_service_info_get_child_link) wud_rc:%#.8lx, "
        "parent_handler_id:%#.8X, child_category:%u, &child_handler_id:%p, "
        "order:%u",
        lx(wud_rc), pid, cc, static_cast<void*>(child_handler_id), ord);
}

unsigned int tev_ash_control::get_parent_id(unsigned int child_handler_id,
                                            unsigned int* parent_handler_id) {
    const unsigned int cid = child_handler_id;
    TEV_ASH_CATEGORY child_category = static_cast<TEV_ASH_CATEGORY>(0);
    if (get_category(cid, &child_category) != TEV_ASH_RC_OK) {
        return TEV_ASH_CONTROL_FAILED("get_parent_id",
                                      "[Error](get_category) rc:%#.8lx, child_handler_id:%#.8X, "
                                      "&parent_handler_id:%p",
                                      lx(TEV_ASH_RC_FAILURE), cid,
                                      static_cast<void*>(parent_handler_id));
    }
    const unsigned int cc = child_category;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_parent_link(OWN_CMP_ID, cc, cid, parent_handler_id);
    if (wud_rc == 0) return TEV_ASH_RC_OK;
    return TEV_ASH_CONTROL_FAILED("get_parent_id",
                                  "[Error](wud_wud_service_info_get_parent_link) wud_rc:%#.8lx, "
                                  "child_handler_id:%#.8X, &parent_handler_id:%p",
                                  lx(wud_rc), cid, static_cast<void*>(parent_handler_id));
}

unsigned int tev_ash_control::get_category(unsigned int handler_id, TEV_ASH_CATEGORY* category) {
    const unsigned int id = handler_id;
    // TEV_ASH_CATEGORY has unsigned int as its underlying type, so the store
    // writes the category straight into the caller's variable.
    const unsigned int wud_rc = store::wud_wud_service_info_get_job_category_by_id(
        OWN_CMP_ID, id, reinterpret_cast<unsigned int*>(category));
    if (wud_rc == 0) return TEV_ASH_RC_OK;
    return TEV_ASH_CONTROL_FAILED("get_category",
                                  "[Error] wud_rc:%#.8lx, handler_id:%#.8X, &category:%p",
                                  lx(wud_rc), id, static_cast<void*>(category));
}

// ---------------------------------------------------------------------------
// Target handler resolution.

unsigned int tev_ash_control::search_target_handler_id(unsigned int handler_id,
                                                       unsigned int member_id,
                                                       unsigned int* target_handler_id,
                                                       unsigned int order) {
    TEV_ASH_CATEGORY hc = static_cast<TEV_ASH_CATEGORY>(0);
    unsigned int rc = get_category(handler_id, &hc);
    if (rc != TEV_ASH_RC_OK) return rc;
    TEV_ASH_CATEGORY mc = static_cast<TEV_ASH_CATEGORY>(0);
    rc = get_member_category(member_id, &mc);
    if (rc != TEV_ASH_RC_OK) return rc;

    // Every failure line of the resolution carries the same fields.
    const auto refuse = [&](const char* label, unsigned int code) {
        TEV_ASH_TRACE(FILE_CONTROL, "search_target_handler_id",
                      "[Error](%s) rc:%#.8lx, handler_id:%#.8X, member_id:%#.8X, order:%u, "
                      "&target_handler_id:%p, handler_id_category:%u, member_category:%u",
                      label, lx(code), handler_id, member_id, order,
                      static_cast<void*>(target_handler_id), static_cast<unsigned int>(hc),
                      static_cast<unsigned int>(mc));
        return code;
    };

    // Access itself.
    if (hc == mc) {
        *target_handler_id = handler_id;
        return TEV_ASH_RC_OK;
    }

    if (hc == TEV_ASH_CAT_APLSVC_IMG || hc == TEV_ASH_CAT_APLJOB || hc == TEV_ASH_CAT_SUBJOB) {
        // Access child: the job-set child of the member's category at `order`.
        if (is_category_job_set(mc) == 1) {
            if (get_child_id(handler_id, mc, target_handler_id, order) == TEV_ASH_RC_OK) {
                return TEV_ASH_RC_OK;
            }
            return refuse("Existence Error:child", TEV_ASH_RC_NOT_EXIST);
        }
        // Access AUTH: the root, as many parent links up as the levels differ.
        if (mc == TEV_ASH_CAT_AUTH) {
            unsigned int lh = 0;
            unsigned int lm = 0;
            const unsigned int rc_h = get_category_level(hc, &lh);
            const unsigned int rc_m = get_category_level(mc, &lm);
            if (rc_h != TEV_ASH_RC_OK || rc_m != TEV_ASH_RC_OK) {
                return refuse("Get category_level", TEV_ASH_RC_FAILURE);
            }
            const unsigned int links = lh - lm;
            unsigned int current = handler_id;
            for (unsigned int i = 0; i < links; ++i) {
                unsigned int parent = 0;
                if (get_parent_id(current, &parent) != TEV_ASH_RC_OK) {
                    return refuse("Existence Error:AUTH", TEV_ASH_RC_NOT_EXIST);
                }
                current = parent;
            }
            *target_handler_id = current;
            return TEV_ASH_RC_OK;
        }
    }

    return refuse("Invalid Access:other", TEV_ASH_RC_FAILURE);
}

}  // namespace velmora
