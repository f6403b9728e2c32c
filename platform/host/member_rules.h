// The rules both record store backends apply to a member's value: what a write
// may store (its width and kind) and what a read reports (the stored value, else
// the declared initial value). Pure functions; safe from any thread.
#ifndef TEVASH_HOST_MEMBER_RULES_H
#define TEVASH_HOST_MEMBER_RULES_H

#include <string>
#include <vector>

#include "host/tev_host.h"

namespace tevhost {
namespace detail {

// What the schema says about a member: its width in bytes and its initial value
// (exactly `width` bytes, little-endian).
// With `ranged`, an integer write must lie in [min, max] as `kind` reads it.
struct member_decl {
    member_kind kind;
    unsigned int width;
    std::vector<unsigned char> initial;
    bool ranged = false;
    long long min = 0;
    long long max = 0;
};

// "i8" ... "u32", "bytes".
const char* kind_word(member_kind kind);
// The declaration a schema member makes.
member_decl decl_of(const member_schema& m);
// The integer `bytes` (`width` bytes, little-endian) hold, as `kind` reads it.
long long integer_of(member_kind kind, const unsigned char* bytes, unsigned int width);
// 0, or STORE_RANGE when `decl` is ranged and the `width` bytes it is given
// (the declared width) lie outside its range.
unsigned int range_rule(const member_decl* decl, const unsigned char* bytes, unsigned int width);
// Why a stored value contradicts its declaration (another kind or size), in
// words naming the record; "" when it does not.
std::string schema_conflict(const member_schema& m, unsigned int handler_id, member_kind kind,
                            unsigned int size);
// Why a schema member is malformed (a width that does not fit its kind, an
// initial value of another size, a range on bytes or min above max); "" when
// it is sound.
std::string schema_fault(const member_schema& m);

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
