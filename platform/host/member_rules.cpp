// The width/kind write rule and the read fallback of the record store's members
// (member_rules.h). Pure functions; safe from any thread.
#include "member_rules.h"

#include <cstdio>

namespace tevhost {
namespace detail {

unsigned int write_rule(const member_view* stored, const member_decl* decl, bool exact,
                        unsigned int* width, member_kind* kind) {
    unsigned int known = 0;  // 0: the member has no size yet
    if (stored != nullptr) {
        known = stored->size;
        if (!exact) *kind = stored->kind;
    } else if (decl != nullptr) {
        known = decl->width;
        if (!exact) *kind = decl->kind;
    }
    if (*width == 0) {
        if (known == 0) return STORE_NO_MEMBER;
        *width = known;
    } else if (known != 0 && known != *width) {
        return STORE_WIDTH;
    }
    return 0;
}

unsigned int read_rule(const member_view* stored, const member_decl* decl, member_view* out) {
    if (stored != nullptr) {
        *out = *stored;
    } else if (decl != nullptr) {
        *out = member_view{decl->kind, decl->initial.data(),
                           static_cast<unsigned int>(decl->initial.size())};
    } else {
        return STORE_NO_MEMBER;
    }
    return 0;
}

member_value to_member_value(unsigned int member_id, const member_view& v) {
    return member_value{member_id, v.kind, v.size,
                        std::vector<unsigned char>(v.data, v.data + v.size)};
}

const char* kind_word(member_kind kind) {
    switch (kind) {
        case member_kind::i8: return "i8";
        case member_kind::u8: return "u8";
        case member_kind::i16: return "i16";
        case member_kind::u16: return "u16";
        case member_kind::i32: return "i32";
        case member_kind::u32: return "u32";
        case member_kind::bytes: return "bytes";
    }
    return "bytes";
}

member_decl decl_of(const member_schema& m) {
    return member_decl{m.kind, m.size, m.initial, m.ranged, m.min, m.max};
}

long long integer_of(member_kind kind, const unsigned char* bytes, unsigned int width) {
    unsigned long long u = 0;
    for (unsigned int i = width; i > 0; --i) u = (u << 8) | bytes[i - 1];
    const bool is_signed =
        kind == member_kind::i8 || kind == member_kind::i16 || kind == member_kind::i32;
    if (is_signed && width > 0 && width < 8 && (u >> (8 * width - 1)) != 0) {
        return static_cast<long long>(u) - (1LL << (8 * width));
    }
    return static_cast<long long>(u);
}

unsigned int range_rule(const member_decl* decl, const unsigned char* bytes, unsigned int width) {
    if (decl == nullptr || !decl->ranged || decl->kind == member_kind::bytes ||
        width != decl->width) {
        return 0;
    }
    const long long v = integer_of(decl->kind, bytes, width);
    return v < decl->min || v > decl->max ? STORE_RANGE : 0u;
}

namespace {

std::string member_hex(unsigned int id) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", id);
    return text;
}

}  // namespace

std::string schema_conflict(const member_schema& m, unsigned int handler_id, member_kind kind,
                            unsigned int size) {
    if (size == m.size && (kind == m.kind || size == 0)) return "";
    return "member " + member_hex(m.member_id) + " of record " + std::to_string(handler_id) +
           " holds " + kind_word(kind) + " of " + std::to_string(size) +
           " byte(s), the schema declares " + kind_word(m.kind) + " of " + std::to_string(m.size);
}

std::string schema_fault(const member_schema& m) {
    const std::string member = "member " + member_hex(m.member_id);
    if (m.size == 0 || member_width(m.kind, m.size) != m.size) {
        return member + ": a width of " + std::to_string(m.size) + " does not fit its kind";
    }
    if (m.initial.size() != m.size) return member + ": initial value of another size";
    if (m.ranged && (m.kind == member_kind::bytes || m.min > m.max)) {
        return member + ": a range needs an integer kind and min <= max";
    }
    return "";
}

}  // namespace detail
}  // namespace tevhost
