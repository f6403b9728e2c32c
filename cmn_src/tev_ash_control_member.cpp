// Member access: every read and write resolves the handler that owns the member,
// then makes one record store call with the caller's component id. Members are
// 32 bits at most in the store; a read into long / unsigned long goes through a
// 32-bit local and is sign- / zero-extended only when it succeeded, so a failed
// read leaves the caller's variable as it was.
#include <cstdint>

#include "tev_ash_control.h"
#include "tev_ash_trace.h"
#include "wud_wud_service_info.h"

namespace velmora {

namespace {

using tev_ash_trace::FILE_CONTROL;
using store = wud_wud_service_info;

unsigned long lx(unsigned int v) {
    return static_cast<unsigned long>(v);
}

}  // namespace

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned int /*size*/, char* ret_p,
                                         unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](serch_target_handler_id) rc:%#.8lX, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, &ret_p:%p",
                      lx(rc), handler_id, member_id, order, target_handler_id,
                      static_cast<void*>(ret_p));
        return rc;
    }
    const unsigned int store_cmp_id = cmp_id;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_current(store_cmp_id, target_handler_id, member_id, ret_p);
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](set_current) rc:%#.8lX, handler_id:%#.8X, target_handler_id:%#.8X, "
                      "member_id:%#.8X, &ret_p:%p",
                      lx(TEV_ASH_RC_FAILURE), handler_id, target_handler_id, member_id,
                      static_cast<void*>(ret_p));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned long* ret_p,
                                         unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](serch_target_handler_id) rc:%#.8lX, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, &ret_p:%p",
                      lx(rc), handler_id, member_id, order, target_handler_id,
                      static_cast<void*>(ret_p));
        return rc;
    }
    const unsigned int store_cmp_id = cmp_id;
    // The member is 32 bits wide; it is widened only once the read succeeded.
    std::uint32_t value = 0;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_current(store_cmp_id, target_handler_id, member_id, &value);
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](set_current) rc:%#.8lX, handler_id:%#.8X, target_handler_id:%#.8X, "
                      "member_id:%#.8X, &ret_p:%p",
                      lx(TEV_ASH_RC_FAILURE), handler_id, target_handler_id, member_id,
                      static_cast<void*>(ret_p));
        return TEV_ASH_RC_FAILURE;
    }
    *ret_p = static_cast<unsigned long>(value);
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, long* ret_p, unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](serch_target_handler_id) rc:%#.8lX, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, &ret_p:%p",
                      lx(rc), handler_id, member_id, order, target_handler_id,
                      static_cast<void*>(ret_p));
        return rc;
    }
    const unsigned int store_cmp_id = cmp_id;
    // The member is 32 bits wide; it is widened only once the read succeeded.
    std::int32_t value = 0;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_current(store_cmp_id, target_handler_id, member_id, &value);
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](set_current) rc:%#.8lX, handler_id:%#.8X, target_handler_id:%#.8X, "
                      "member_id:%#.8X, &ret_p:%p",
                      lx(TEV_ASH_RC_FAILURE), handler_id, target_handler_id, member_id,
                      static_cast<void*>(ret_p));
        return TEV_ASH_RC_FAILURE;
    }
    *ret_p = static_cast<long>(value);
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned short* ret_p,
                                         unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](serch_target_handler_id) rc:%#.8lX, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, &ret_p:%p",
                      lx(rc), handler_id, member_id, order, target_handler_id,
                      static_cast<void*>(ret_p));
        return rc;
    }
    const unsigned int store_cmp_id = cmp_id;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_current(store_cmp_id, target_handler_id, member_id, ret_p);
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](set_current) rc:%#.8lX, handler_id:%#.8X, target_handler_id:%#.8X, "
                      "member_id:%#.8X, &ret_p:%p",
                      lx(TEV_ASH_RC_FAILURE), handler_id, target_handler_id, member_id,
                      static_cast<void*>(ret_p));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, short* ret_p, unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](serch_target_handler_id) rc:%#.8lX, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, &ret_p:%p",
                      lx(rc), handler_id, member_id, order, target_handler_id,
                      static_cast<void*>(ret_p));
        return rc;
    }
    const unsigned int store_cmp_id = cmp_id;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_current(store_cmp_id, target_handler_id, member_id, ret_p);
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](set_current) rc:%#.8lX, handler_id:%#.8X, target_handler_id:%#.8X, "
                      "member_id:%#.8X, &ret_p:%p",
                      lx(TEV_ASH_RC_FAILURE), handler_id, target_handler_id, member_id,
                      static_cast<void*>(ret_p));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned char* ret_p,
                                         unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](serch_target_handler_id) rc:%#.8lX, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, &ret_p:%p",
                      lx(rc), handler_id, member_id, order, target_handler_id,
                      static_cast<void*>(ret_p));
        return rc;
    }
    const unsigned int store_cmp_id = cmp_id;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_current(store_cmp_id, target_handler_id, member_id, ret_p);
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](set_current) rc:%#.8lX, handler_id:%#.8X, target_handler_id:%#.8X, "
                      "member_id:%#.8X, &ret_p:%p",
                      lx(TEV_ASH_RC_FAILURE), handler_id, target_handler_id, member_id,
                      static_cast<void*>(ret_p));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, char* ret_p, unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](serch_target_handler_id) rc:%#.8lX, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, &ret_p:%p",
                      lx(rc), handler_id, member_id, order, target_handler_id,
                      static_cast<void*>(ret_p));
        return rc;
    }
    const unsigned int store_cmp_id = cmp_id;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_current(store_cmp_id, target_handler_id, member_id, ret_p);
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](set_current) rc:%#.8lX, handler_id:%#.8X, target_handler_id:%#.8X, "
                      "member_id:%#.8X, &ret_p:%p",
                      lx(TEV_ASH_RC_FAILURE), handler_id, target_handler_id, member_id,
                      static_cast<void*>(ret_p));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::get_member(unsigned int handler_id, unsigned int member_id,
                                         char* ret_p, unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](search_target_handler_id) rc:%#.8lX, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, &ret_p:%p",
                      lx(rc), handler_id, member_id, order, target_handler_id,
                      static_cast<void*>(ret_p));
        return rc;
    }
    const unsigned int store_cmp_id = TEV_ASH_CMP_ID;
    const unsigned int wud_rc =
        store::wud_wud_service_info_get_current(store_cmp_id, target_handler_id, member_id, ret_p);
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                      "[Error](set_current) rc:%#.8lX, handler_id:%#.8X, target_handler_id:%#.8X, "
                      "member_id:%#.8X, &ret_p:%p",
                      lx(TEV_ASH_RC_FAILURE), handler_id, target_handler_id, member_id,
                      static_cast<void*>(ret_p));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned int /*size*/, char* val_p,
                                         unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, val_p:%p",
                      lx(rc), cmp_id, handler_id, member_id, order, target_handler_id,
                      static_cast<void*>(val_p));
        return rc;
    }
    const unsigned int wud_rc = store::wud_wud_service_info_set_current(
        cmp_id, target_handler_id, member_id, static_cast<void*>(val_p));
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, "
                      "target_handler_id:%#.8X, member_id:%#.8X, val_p:%p",
                      lx(TEV_ASH_RC_FAILURE), cmp_id, handler_id, order, target_handler_id,
                      member_id, static_cast<void*>(val_p));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned long val,
                                         unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, val:%#.8lX",
                      lx(rc), cmp_id, handler_id, member_id, order, target_handler_id,
                      static_cast<unsigned long>(static_cast<std::uint32_t>(val)));
        return rc;
    }
    const unsigned int wud_rc = store::wud_wud_service_info_set_current(
        cmp_id, target_handler_id, member_id,
        static_cast<unsigned long>(static_cast<std::uint32_t>(val)));
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, "
                      "target_handler_id:%#.8X, member_id:%#.8X, val:%#.8lX",
                      lx(TEV_ASH_RC_FAILURE), cmp_id, handler_id, order, target_handler_id,
                      member_id, static_cast<unsigned long>(static_cast<std::uint32_t>(val)));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, long val, unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, val:%#.8lX",
                      lx(rc), cmp_id, handler_id, member_id, order, target_handler_id,
                      static_cast<unsigned long>(static_cast<std::uint32_t>(val)));
        return rc;
    }
    const unsigned int wud_rc = store::wud_wud_service_info_set_current(
        cmp_id, target_handler_id, member_id, static_cast<long>(static_cast<std::int32_t>(val)));
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, "
                      "target_handler_id:%#.8X, member_id:%#.8X, val:%#.8lX",
                      lx(TEV_ASH_RC_FAILURE), cmp_id, handler_id, order, target_handler_id,
                      member_id, static_cast<unsigned long>(static_cast<std::uint32_t>(val)));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned short val,
                                         unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, val:%#.4X",
                      lx(rc), cmp_id, handler_id, member_id, order, target_handler_id,
                      static_cast<unsigned int>(val));
        return rc;
    }
    const unsigned int wud_rc =
        store::wud_wud_service_info_set_current(cmp_id, target_handler_id, member_id, val);
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, "
                      "target_handler_id:%#.8X, member_id:%#.8X, val:%#.4X",
                      lx(TEV_ASH_RC_FAILURE), cmp_id, handler_id, order, target_handler_id,
                      member_id, static_cast<unsigned int>(val));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, short val, unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "(serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, val:%#.4X",
                      lx(rc), cmp_id, handler_id, member_id, order, target_handler_id,
                      static_cast<unsigned int>(static_cast<unsigned short>(val)));
        return rc;
    }
    const unsigned int wud_rc =
        store::wud_wud_service_info_set_current(cmp_id, target_handler_id, member_id, val);
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "(set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, "
                      "target_handler_id:%#.8X, member_id:%#.8X, val:%#.4X",
                      lx(TEV_ASH_RC_FAILURE), cmp_id, handler_id, order, target_handler_id,
                      member_id, static_cast<unsigned int>(static_cast<unsigned short>(val)));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned char val,
                                         unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "(serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, val:%#.2X",
                      lx(rc), cmp_id, handler_id, member_id, order, target_handler_id,
                      static_cast<unsigned int>(val));
        return rc;
    }
    const unsigned int wud_rc =
        store::wud_wud_service_info_set_current(cmp_id, target_handler_id, member_id, val);
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, "
                      "target_handler_id:%#.8X, member_id:%#.8X, val:%#.2X",
                      lx(TEV_ASH_RC_FAILURE), cmp_id, handler_id, order, target_handler_id,
                      member_id, static_cast<unsigned int>(val));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, char val, unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, val:%#.2X",
                      lx(rc), cmp_id, handler_id, member_id, order, target_handler_id,
                      static_cast<unsigned int>(static_cast<unsigned char>(val)));
        return rc;
    }
    const unsigned int wud_rc =
        store::wud_wud_service_info_set_current(cmp_id, target_handler_id, member_id, val);
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, "
                      "target_handler_id:%#.8X, member_id:%#.8X, val:%#.2X",
                      lx(TEV_ASH_RC_FAILURE), cmp_id, handler_id, order, target_handler_id,
                      member_id, static_cast<unsigned int>(static_cast<unsigned char>(val)));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, char* val_p, unsigned int order) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](search_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, "
                      "member_id:%#.8X, order:%u, target_handler_id:%#.8X, &val_p:%p",
                      lx(rc), cmp_id, handler_id, member_id, order, target_handler_id,
                      static_cast<void*>(val_p));
        return rc;
    }
    const unsigned int wud_rc = store::wud_wud_service_info_set_current(
        cmp_id, target_handler_id, member_id, static_cast<void*>(val_p));
    if (wud_rc != 0) {
        TEV_ASH_TRACE(FILE_CONTROL, "set_member",
                      "[Error](set_current) rc:%#.8lx, cmp_id:%u, handler_id:%#.8X, order:%u, "
                      "target_handler_id:%#.8X, member_id:%#.8X, &val_p:%p",
                      lx(TEV_ASH_RC_FAILURE), cmp_id, handler_id, order, target_handler_id,
                      member_id, static_cast<void*>(val_p));
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

}  // namespace velmora
