// Message records of the handler service protocol and of director notifications,
// with their byte layouts. Every record travels as fixed-layout little-endian
// bytes: 32-bit fields at multiples of 4, names as 16 NUL-padded bytes. The
// encoders write exactly SIZE bytes and zero every byte no field sets; the
// decoders read from a buffer of `len` bytes and return false (writing nothing)
// when it is shorter than the record. Nothing here depends on the host's
// `long` width or on struct layout.
#ifndef TEV_ASH_MESSAGES_H
#define TEV_ASH_MESSAGES_H

#include <cstdint>
#include <cstring>

#include "tev_ash_types.h"

namespace velmora {
namespace tev_ash_wire {

inline void put_u32(char* p, std::uint32_t v) {
    p[0] = static_cast<char>(v & 0xFFu);
    p[1] = static_cast<char>((v >> 8) & 0xFFu);
    p[2] = static_cast<char>((v >> 16) & 0xFFu);
    p[3] = static_cast<char>((v >> 24) & 0xFFu);
}
inline void put_i32(char* p, std::int32_t v) {
    put_u32(p, static_cast<std::uint32_t>(v));
}
inline std::uint32_t get_u32(const char* p) {
    const auto* b = reinterpret_cast<const unsigned char*>(p);
    return static_cast<std::uint32_t>(b[0]) | (static_cast<std::uint32_t>(b[1]) << 8) |
           (static_cast<std::uint32_t>(b[2]) << 16) | (static_cast<std::uint32_t>(b[3]) << 24);
}
inline std::int32_t get_i32(const char* p) {
    return static_cast<std::int32_t>(get_u32(p));
}

// The one copy of a connection name into a name field: at most `len` (at most
// 16) bytes of `name`, stopping at its NUL, the rest of the `len` bytes zero; no
// terminator is added, and `name` is never read past `len` bytes, so it may be
// another (full, unterminated) name field. A null name leaves the field zero.
inline void put_name(char* field, const char* name,
                     unsigned int len = TEV_ASH_CONNECTION_NAME_LEN) {
    std::memset(field, 0, len);
    if (name == nullptr) return;
    for (unsigned int i = 0; i < len && name[i] != '\0'; ++i) field[i] = name[i];
}

// An object id as it travels: the low 32 bits, read back sign-extended.
inline std::int32_t object_id_to_wire(long id) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<unsigned long>(id)));
}
inline long object_id_from_wire(std::int32_t id) {
    return static_cast<long>(id);
}

}  // namespace tev_ash_wire

// Function 0 request, 24 bytes.
struct tev_ash_add_observer_req {
    static constexpr unsigned int SIZE = 24;
    std::int32_t app_type = 0;                               // 0
    std::int32_t observer = 0;                               // 4: object id, 32-bit
    char connection_name[TEV_ASH_CONNECTION_NAME_LEN] = {};  // 8
};
inline void encode(const tev_ash_add_observer_req& r, char* buf) {
    std::memset(buf, 0, tev_ash_add_observer_req::SIZE);
    tev_ash_wire::put_i32(buf + 0, r.app_type);
    tev_ash_wire::put_i32(buf + 4, r.observer);
    std::memcpy(buf + 8, r.connection_name, TEV_ASH_CONNECTION_NAME_LEN);
}
inline bool decode(const char* buf, unsigned int len, tev_ash_add_observer_req* r) {
    if (buf == nullptr || len < tev_ash_add_observer_req::SIZE) return false;
    r->app_type = tev_ash_wire::get_i32(buf + 0);
    r->observer = tev_ash_wire::get_i32(buf + 4);
    std::memcpy(r->connection_name, buf + 8, TEV_ASH_CONNECTION_NAME_LEN);
    return true;
}

// Function 1 request, 4 bytes.
struct tev_ash_remove_observer_req {
    static constexpr unsigned int SIZE = 4;
    std::int32_t observer = 0;  // 0
};
inline void encode(const tev_ash_remove_observer_req& r, char* buf) {
    tev_ash_wire::put_i32(buf + 0, r.observer);
}
inline bool decode(const char* buf, unsigned int len, tev_ash_remove_observer_req* r) {
    if (buf == nullptr || len < tev_ash_remove_observer_req::SIZE) return false;
    r->observer = tev_ash_wire::get_i32(buf + 0);
    return true;
}

// Function 2 request, 16 bytes.
struct tev_ash_create_req {
    static constexpr unsigned int SIZE = 16;
    std::uint32_t category = 0;        // 0
    std::int32_t app_type = 0;         // 4
    std::int32_t service_type = 0;     // 8
    std::uint32_t src_handler_id = 0;  // 12
};
inline void encode(const tev_ash_create_req& r, char* buf) {
    tev_ash_wire::put_u32(buf + 0, r.category);
    tev_ash_wire::put_i32(buf + 4, r.app_type);
    tev_ash_wire::put_i32(buf + 8, r.service_type);
    tev_ash_wire::put_u32(buf + 12, r.src_handler_id);
}
inline bool decode(const char* buf, unsigned int len, tev_ash_create_req* r) {
    if (buf == nullptr || len < tev_ash_create_req::SIZE) return false;
    r->category = tev_ash_wire::get_u32(buf + 0);
    r->app_type = tev_ash_wire::get_i32(buf + 4);
    r->service_type = tev_ash_wire::get_i32(buf + 8);
    r->src_handler_id = tev_ash_wire::get_u32(buf + 12);
    return true;
}

// Function 2 reply, 8 bytes.
struct tev_ash_create_rpl {
    static constexpr unsigned int SIZE = 8;
    std::uint32_t handler_id = 0;  // 0
    std::uint32_t rc = 0;          // 4
};
inline void encode(const tev_ash_create_rpl& r, char* buf) {
    tev_ash_wire::put_u32(buf + 0, r.handler_id);
    tev_ash_wire::put_u32(buf + 4, r.rc);
}
inline bool decode(const char* buf, unsigned int len, tev_ash_create_rpl* r) {
    if (buf == nullptr || len < tev_ash_create_rpl::SIZE) return false;
    r->handler_id = tev_ash_wire::get_u32(buf + 0);
    r->rc = tev_ash_wire::get_u32(buf + 4);
    return true;
}

// Function 3 request, 8 bytes.
struct tev_ash_remove_req {
    static constexpr unsigned int SIZE = 8;
    std::int32_t app_type = 0;     // 0
    std::uint32_t handler_id = 0;  // 4
};
inline void encode(const tev_ash_remove_req& r, char* buf) {
    tev_ash_wire::put_i32(buf + 0, r.app_type);
    tev_ash_wire::put_u32(buf + 4, r.handler_id);
}
inline bool decode(const char* buf, unsigned int len, tev_ash_remove_req* r) {
    if (buf == nullptr || len < tev_ash_remove_req::SIZE) return false;
    r->app_type = tev_ash_wire::get_i32(buf + 0);
    r->handler_id = tev_ash_wire::get_u32(buf + 4);
    return true;
}

// Function 4 request, 12 bytes.
struct tev_ash_reset_req {
    static constexpr unsigned int SIZE = 12;
    std::int32_t app_type = 0;      // 0
    std::int32_t service_type = 0;  // 4
    std::uint32_t handler_id = 0;   // 8
};
inline void encode(const tev_ash_reset_req& r, char* buf) {
    tev_ash_wire::put_i32(buf + 0, r.app_type);
    tev_ash_wire::put_i32(buf + 4, r.service_type);
    tev_ash_wire::put_u32(buf + 8, r.handler_id);
}
inline bool decode(const char* buf, unsigned int len, tev_ash_reset_req* r) {
    if (buf == nullptr || len < tev_ash_reset_req::SIZE) return false;
    r->app_type = tev_ash_wire::get_i32(buf + 0);
    r->service_type = tev_ash_wire::get_i32(buf + 4);
    r->handler_id = tev_ash_wire::get_u32(buf + 8);
    return true;
}

// Functions 3 and 4 reply, 4 bytes.
struct tev_ash_result_rpl {
    static constexpr unsigned int SIZE = 4;
    std::uint32_t rc = 0;  // 0
};
inline void encode(const tev_ash_result_rpl& r, char* buf) {
    tev_ash_wire::put_u32(buf + 0, r.rc);
}
inline bool decode(const char* buf, unsigned int len, tev_ash_result_rpl* r) {
    if (buf == nullptr || len < tev_ash_result_rpl::SIZE) return false;
    r->rc = tev_ash_wire::get_u32(buf + 0);
    return true;
}

// Functions 5 to 8 request, 80 bytes; function 5 sends the first 72, functions 6
// and 7 the first 76, function 8 all 80.
struct tev_ash_ctrl_req {
    static constexpr unsigned int SIZE = 80;
    static constexpr unsigned int SIZE_NOTIFY_START = 72;
    static constexpr unsigned int SIZE_CONN_ID = 76;
    static constexpr unsigned int SIZE_DIRECTOR = 80;
    std::uint8_t conn_id = 0;   // 72 (bytes 0..71 reserved, 73..75 padding)
    std::int32_t app_type = 0;  // 76
};
// Request length that function `func_id` (5..8) sends; 0 for other functions.
inline unsigned int ctrl_req_length(long func_id) {
    switch (func_id) {
        case TEV_ASH_FUNC_CTRL_NOTIFY_START: return tev_ash_ctrl_req::SIZE_NOTIFY_START;
        case TEV_ASH_FUNC_CTRL_NOTIFY_INIT_END:
        case TEV_ASH_FUNC_CTRL_NOTIFY_STOP: return tev_ash_ctrl_req::SIZE_CONN_ID;
        case TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER: return tev_ash_ctrl_req::SIZE_DIRECTOR;
        default: return 0;
    }
}
// Writes all 80 bytes; the sender sends the prefix of ctrl_req_length(func_id).
inline void encode(const tev_ash_ctrl_req& r, char* buf) {
    std::memset(buf, 0, tev_ash_ctrl_req::SIZE);
    buf[72] = static_cast<char>(r.conn_id);
    tev_ash_wire::put_i32(buf + 76, r.app_type);
}
// Reads the fields that lie within `len` (conn_id from 73 bytes, app_type from
// 80); false only for a null buffer. Fields beyond `len` read as 0.
inline bool decode(const char* buf, unsigned int len, tev_ash_ctrl_req* r) {
    if (buf == nullptr) return false;
    r->conn_id = len > 72 ? static_cast<std::uint8_t>(buf[72]) : 0;
    r->app_type = len >= 80 ? tev_ash_wire::get_i32(buf + 76) : 0;
    return true;
}

// Functions 0, 1 and 5 to 8 reply, 36 bytes; functions 0, 1, 6 and 7 offer only
// the first 16. Bytes 16..35 are read as connecter_id (function 5) or as obj_id
// and connection_name (function 8).
struct tev_ash_ctrl_rpl {
    static constexpr unsigned int SIZE = 36;
    static constexpr unsigned int SIZE_SHORT = 16;
    std::uint32_t ret = 0;                                   // 12 (bytes 0..11 reserved)
    std::uint8_t connecter_id = 0;                           // 16, function 5
    std::int32_t obj_id = 0;                                 // 16, function 8
    char connection_name[TEV_ASH_CONNECTION_NAME_LEN] = {};  // 20, function 8
};
// Reply length that function `func_id` offers; 0 for functions 2..4 and others.
inline unsigned int ctrl_rpl_length(long func_id) {
    switch (func_id) {
        case TEV_ASH_FUNC_ADD_OBSERVER:
        case TEV_ASH_FUNC_REMOVE_OBSERVER:
        case TEV_ASH_FUNC_CTRL_NOTIFY_INIT_END:
        case TEV_ASH_FUNC_CTRL_NOTIFY_STOP: return tev_ash_ctrl_rpl::SIZE_SHORT;
        case TEV_ASH_FUNC_CTRL_NOTIFY_START:
        case TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER: return tev_ash_ctrl_rpl::SIZE;
        default: return 0;
    }
}
// Writes all 36 bytes for function `func_id`: ret always, connecter_id for 5,
// obj_id and connection_name for 8.
inline void encode(const tev_ash_ctrl_rpl& r, long func_id, char* buf) {
    std::memset(buf, 0, tev_ash_ctrl_rpl::SIZE);
    tev_ash_wire::put_u32(buf + 12, r.ret);
    if (func_id == TEV_ASH_FUNC_CTRL_NOTIFY_START) {
        buf[16] = static_cast<char>(r.connecter_id);
    } else if (func_id == TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER) {
        tev_ash_wire::put_i32(buf + 16, r.obj_id);
        std::memcpy(buf + 20, r.connection_name, TEV_ASH_CONNECTION_NAME_LEN);
    }
}
// Reads ret, and for function 5 connecter_id, for function 8 obj_id and
// connection_name; false when `len` is shorter than the function's reply length.
inline bool decode(const char* buf, unsigned int len, long func_id, tev_ash_ctrl_rpl* r) {
    const unsigned int need = ctrl_rpl_length(func_id);
    if (buf == nullptr || need == 0 || len < need) return false;
    r->ret = tev_ash_wire::get_u32(buf + 12);
    if (func_id == TEV_ASH_FUNC_CTRL_NOTIFY_START) {
        r->connecter_id = static_cast<std::uint8_t>(buf[16]);
    } else if (func_id == TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER) {
        r->obj_id = tev_ash_wire::get_i32(buf + 16);
        std::memcpy(r->connection_name, buf + 20, TEV_ASH_CONNECTION_NAME_LEN);
    }
    return true;
}

}  // namespace velmora

#endif  // TEV_ASH_MESSAGES_H
