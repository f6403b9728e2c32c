// The width/kind write rule and the read fallback of the record store's members
// (member_rules.h). Pure functions; safe from any thread.
#include "member_rules.h"

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

}  // namespace detail
}  // namespace tevhost
