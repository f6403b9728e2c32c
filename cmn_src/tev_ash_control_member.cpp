// Member access: every read and write resolves the handler that owns the member,
// then makes one record store call with the caller's component id. The overloads
// share that flow (access_member) and differ in the store call and in the
// wording of their two failure lines.
#include <cstdint>
#include <type_traits>

#include "tev_ash_control.h"
#include "tev_ash_trace.h"
#include "wud_wud_service_info.h"

namespace velmora {

namespace {

using tev_ash_trace::FILE_CONTROL;
using tev_ash_trace::lx;
using store = wud_wud_service_info;

// Resolves the target handler, then makes the one store access. A refused
// resolution passes its code on after `unresolved(rc, target_handler_id)` has
// written the overload's line; a failed access is 0xC1030001 after
// `failed(target_handler_id)`, whatever code the store gave.
template <typename Access, typename Unresolved, typename Failed>
unsigned int access_member(tev_ash_control& control, unsigned int handler_id,
                           unsigned int member_id, unsigned int order, Access&& access,
                           Unresolved&& unresolved, Failed&& failed) {
    unsigned int target_handler_id = 0;
    const unsigned int rc =
        control.search_target_handler_id(handler_id, member_id, &target_handler_id, order);
    if (rc != TEV_ASH_RC_OK) {
        unresolved(rc, target_handler_id);
        return rc;
    }
    if (access(target_handler_id) != 0) {
        failed(target_handler_id);
        return TEV_ASH_RC_FAILURE;
    }
    return TEV_ASH_RC_OK;
}

// One store read into `ret_p`. Members are 32 bits at most in the store, while
// long is 64 bits on LP64 hosts: long / unsigned long go through a 32-bit local
// and are sign- / zero-extended only once the read succeeded, so a failed read
// leaves the caller's variable as it was. Every other type, and the byte
// strings read into char buffers, the store writes in place.
template <typename T>
unsigned int read_current(unsigned int cmp_id, unsigned int target_handler_id,
                          unsigned int member_id, T* ret_p) {
    if constexpr (std::is_same_v<T, long> || std::is_same_v<T, unsigned long>) {
        std::conditional_t<std::is_signed_v<T>, std::int32_t, std::uint32_t> value = 0;
        const unsigned int rc =
            store::wud_wud_service_info_get_current(cmp_id, target_handler_id, member_id, &value);
        if (rc == 0) {
            *ret_p = static_cast<T>(value);
        }
        return rc;
    } else {
        return store::wud_wud_service_info_get_current(cmp_id, target_handler_id, member_id, ret_p);
    }
}

// The two wordings of a read's resolution line (rc, handler_id, member_id,
// order, target_handler_id, &ret_p); every read words its store line alike.
constexpr const char* READ_UNRESOLVED_SERCH =
    "[Error](serch_target_handler_id) rc:%#.8lX, handler_id:%#.8X, member_id:%#.8X, order:%u, "
    "target_handler_id:%#.8X, &ret_p:%p";
constexpr const char* READ_UNRESOLVED_SEARCH =
    "[Error](search_target_handler_id) rc:%#.8lX, handler_id:%#.8X, member_id:%#.8X, order:%u, "
    "target_handler_id:%#.8X, &ret_p:%p";

template <typename T>
unsigned int read_member(tev_ash_control& control, const char* unresolved_wording,
                         unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                         T* ret_p, unsigned int order) {
    void* const shown = ret_p;
    return access_member(
        control, handler_id, member_id, order,
        [&](unsigned int target) { return read_current(cmp_id, target, member_id, ret_p); },
        [&](unsigned int rc, unsigned int target) {
            TEV_ASH_TRACE(FILE_CONTROL, "get_member", unresolved_wording, lx(rc), handler_id,
                          member_id, order, target, shown);
        },
        [&](unsigned int target) {
            TEV_ASH_TRACE(FILE_CONTROL, "get_member",
                          "[Error](set_current) rc:%#.8lX, handler_id:%#.8X, "
                          "target_handler_id:%#.8X, member_id:%#.8X, &ret_p:%p",
                          lx(TEV_ASH_RC_FAILURE), handler_id, target, member_id, shown);
        });
}

// The two failure lines of one write overload, worded as that overload words
// them. `Shown` is the type the value is printed as (the last field of both):
//   unresolved: rc, cmp_id, handler_id, member_id, order, target_handler_id, value
//   failed:     rc, cmp_id, handler_id, order, target_handler_id, member_id, value
template <typename Shown>
struct write_wording {
    const char* unresolved;
    const char* failed;
};

// Byte strings from a pointer, shown as the pointer.
constexpr write_wording<void*> WRITE_SIZED_BYTES = {
    "[Error](serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, member_id:%#.8X, "
    "order:%u, target_handler_id:%#.8X, val_p:%p",
    "[Error](set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, "
    "target_handler_id:%#.8X, member_id:%#.8X, val_p:%p"};
constexpr write_wording<void*> WRITE_BYTES = {
    "[Error](search_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, "
    "member_id:%#.8X, order:%u, target_handler_id:%#.8X, &val_p:%p",
    "[Error](set_current) rc:%#.8lx, cmp_id:%u, handler_id:%#.8X, order:%u, "
    "target_handler_id:%#.8X, member_id:%#.8X, &val_p:%p"};
// 32-bit values, shown as their 32 bits.
constexpr write_wording<unsigned long> WRITE_LONG = {
    "[Error](serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, member_id:%#.8X, "
    "order:%u, target_handler_id:%#.8X, val:%#.8lX",
    "[Error](set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, "
    "target_handler_id:%#.8X, member_id:%#.8X, val:%#.8lX"};
// 16- and 8-bit values, shown as their zero-extended bit pattern.
constexpr write_wording<unsigned int> WRITE_UNSIGNED_SHORT = {
    "[Error](serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, member_id:%#.8X, "
    "order:%u, target_handler_id:%#.8X, val:%#.4X",
    "[Error](set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, "
    "target_handler_id:%#.8X, member_id:%#.8X, val:%#.4X"};
constexpr write_wording<unsigned int> WRITE_SHORT = {
    "(serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, member_id:%#.8X, "
    "order:%u, target_handler_id:%#.8X, val:%#.4X",
    "(set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, target_handler_id:%#.8X, "
    "member_id:%#.8X, val:%#.4X"};
constexpr write_wording<unsigned int> WRITE_UNSIGNED_CHAR = {
    "(serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, member_id:%#.8X, "
    "order:%u, target_handler_id:%#.8X, val:%#.2X",
    "[Error](set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, "
    "target_handler_id:%#.8X, member_id:%#.8X, val:%#.2X"};
constexpr write_wording<unsigned int> WRITE_CHAR = {
    "[Error](serch_target_handler_id) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, member_id:%#.8X, "
    "order:%u, target_handler_id:%#.8X, val:%#.2X",
    "[Error](set_current) rc:%#.8lX, cmp_id:%u, handler_id:%#.8X, order:%u, "
    "target_handler_id:%#.8X, member_id:%#.8X, val:%#.2X"};

// Every write: `value` goes to the store overload of its type, `shown` into the
// overload's failure lines.
template <typename Value, typename Shown>
unsigned int write_member(tev_ash_control& control, const write_wording<Shown>& wording,
                          unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                          Value value, Shown shown, unsigned int order) {
    return access_member(
        control, handler_id, member_id, order,
        [&](unsigned int target) {
            return store::wud_wud_service_info_set_current(cmp_id, target, member_id, value);
        },
        [&](unsigned int rc, unsigned int target) {
            TEV_ASH_TRACE(FILE_CONTROL, "set_member", wording.unresolved, lx(rc), cmp_id,
                          handler_id, member_id, order, target, shown);
        },
        [&](unsigned int target) {
            TEV_ASH_TRACE(FILE_CONTROL, "set_member", wording.failed, lx(TEV_ASH_RC_FAILURE),
                          cmp_id, handler_id, order, target, member_id, shown);
        });
}

}  // namespace

// ---- Reads. `size` is not used: the store writes the member's whole value.

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned int /*size*/, char* ret_p,
                                         unsigned int order) {
    return read_member(*this, READ_UNRESOLVED_SERCH, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned long* ret_p,
                                         unsigned int order) {
    return read_member(*this, READ_UNRESOLVED_SERCH, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, long* ret_p, unsigned int order) {
    return read_member(*this, READ_UNRESOLVED_SERCH, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned short* ret_p,
                                         unsigned int order) {
    return read_member(*this, READ_UNRESOLVED_SERCH, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, short* ret_p, unsigned int order) {
    return read_member(*this, READ_UNRESOLVED_SERCH, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned char* ret_p,
                                         unsigned int order) {
    return read_member(*this, READ_UNRESOLVED_SERCH, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_control::get_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, char* ret_p, unsigned int order) {
    return read_member(*this, READ_UNRESOLVED_SERCH, cmp_id, handler_id, member_id, ret_p, order);
}

unsigned int tev_ash_control::get_member(unsigned int handler_id, unsigned int member_id,
                                         char* ret_p, unsigned int order) {
    return read_member(*this, READ_UNRESOLVED_SEARCH, TEV_ASH_CMP_ID, handler_id, member_id, ret_p,
                       order);
}

// ---- Writes. long / unsigned long are written as their 32-bit value.

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned int /*size*/, char* val_p,
                                         unsigned int order) {
    void* const bytes = val_p;
    return write_member(*this, WRITE_SIZED_BYTES, cmp_id, handler_id, member_id, bytes, bytes,
                        order);
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned long val,
                                         unsigned int order) {
    const unsigned long value = static_cast<std::uint32_t>(val);
    return write_member(*this, WRITE_LONG, cmp_id, handler_id, member_id, value, value, order);
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, long val, unsigned int order) {
    const long value = static_cast<std::int32_t>(val);
    const unsigned long shown = static_cast<std::uint32_t>(val);
    return write_member(*this, WRITE_LONG, cmp_id, handler_id, member_id, value, shown, order);
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned short val,
                                         unsigned int order) {
    return write_member(*this, WRITE_UNSIGNED_SHORT, cmp_id, handler_id, member_id, val,
                        static_cast<unsigned int>(val), order);
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, short val, unsigned int order) {
    return write_member(*this, WRITE_SHORT, cmp_id, handler_id, member_id, val,
                        static_cast<unsigned int>(static_cast<unsigned short>(val)), order);
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, unsigned char val,
                                         unsigned int order) {
    return write_member(*this, WRITE_UNSIGNED_CHAR, cmp_id, handler_id, member_id, val,
                        static_cast<unsigned int>(val), order);
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, char val, unsigned int order) {
    return write_member(*this, WRITE_CHAR, cmp_id, handler_id, member_id, val,
                        static_cast<unsigned int>(static_cast<unsigned char>(val)), order);
}

unsigned int tev_ash_control::set_member(unsigned int cmp_id, unsigned int handler_id,
                                         unsigned int member_id, char* val_p, unsigned int order) {
    void* const bytes = val_p;
    return write_member(*this, WRITE_BYTES, cmp_id, handler_id, member_id, bytes, bytes, order);
}

}  // namespace velmora
