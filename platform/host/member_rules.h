// The rules both record store backends apply to a member's value: what a write
// may store (its width and kind) and what a read reports (the stored value, else
// the declared initial value). Pure functions; safe from any thread.
#ifndef TEVASH_HOST_MEMBER_RULES_H
#define TEVASH_HOST_MEMBER_RULES_H

#include <vector>

#include "host/tev_host.h"

namespace tevhost {
namespace detail {

// What the schema says about a member: its width in bytes and its initial value
// (exactly `width` bytes, little-endian).
struct member_decl {
    member_kind kind;
    unsigned int width;
    std::vector<unsigned char> initial;
};

// A member's value as a backend holds it (the bytes stay the backend's).
struct member_view {
    member_kind kind;
    const unsigned char* data;
    unsigned int size;
};

// The width and kind a write stores, given the value stored already (`stored`,
// null when none) and the declaration (`decl`, null when undeclared). `*width`
// 0 asks for the member's own size (stored, else declared); a value stored
// already keeps its kind, else it takes the declared kind, else `*kind`; with
// `exact` the value takes `*kind` whatever it had. Returns 0 with *width and
// *kind set to what to store; STORE_NO_MEMBER when the size is asked for and
// the member has none; STORE_WIDTH when a width is given and the member has
// another one.
unsigned int write_rule(const member_view* stored, const member_decl* decl, bool exact,
                        unsigned int* width, member_kind* kind);

// What a read reports: `stored` (null when the record holds no value), else the
// declared initial value. Returns 0 with *out set (pointing into `stored` or
// `decl`), or STORE_NO_MEMBER when the member is neither stored nor declared.
unsigned int read_rule(const member_view* stored, const member_decl* decl, member_view* out);

// `v` as the store reports it for member `member_id`.
member_value to_member_value(unsigned int member_id, const member_view& v);

}  // namespace detail
}  // namespace tevhost

#endif  // TEVASH_HOST_MEMBER_RULES_H
