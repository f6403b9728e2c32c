// Parsing and naming helpers of the command-line tool.
#ifndef TEVASH_CLI_UTIL_H
#define TEVASH_CLI_UTIL_H

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/tev_host.h"

namespace tevash_cli {

// Numbers are decimal or 0x-hex; a leading zero is decimal (010 is ten).
// Parses a 32-bit unsigned number; false when malformed.
bool parse_u32(const std::string& text, unsigned int* out);
// parse_u32 of a command argument; when malformed, prints "malformed <what> '<text>'".
bool parse_arg(const std::string& text, unsigned int* out, const char* what);
// Parses a number with an optional '-' (magnitude below 2^32); false when malformed.
bool parse_number(const std::string& text, long long* out);
// Parses a number in [lo, hi]; false when malformed or out of range.
bool parse_ranged(const std::string& text, long long lo, long long hi, long long* out);

// Parses a category by name (AUTH, APLJOB, JOBSET_03, ...) or number.
bool parse_category(const std::string& text, unsigned int* out);
// The display name of a category: AUTH, APLSVC_IMG, APLJOB, SUBJOB(0x400000), JOBSET_xx.
std::string category_name(unsigned int category);
// A name parse_category reads back: AUTH, SUBJOB, JOBSET_xx, else 0x-hex.
std::string category_token(unsigned int category);

// Member kinds: "i8" ... "u32", "bytes".
const char* kind_name(tevhost::member_kind kind);
bool parse_kind(const std::string& name, tevhost::member_kind* out);
// The value range of an integer kind (its width is tevhost::member_width).
void kind_range(tevhost::member_kind kind, long long* lo, long long* hi);
// An integer value from its little-endian bytes, as its kind reads it.
long long decode_value(tevhost::member_kind kind, const std::vector<unsigned char>& bytes);
// Little-endian bytes of an integer value of `width` bytes.
std::vector<unsigned char> encode_value(long long value, unsigned int width);
// "0x" followed by two upper-case hex digits per byte; and back (false when malformed).
std::string hex_bytes(const std::vector<unsigned char>& bytes);
bool parse_hex_bytes(const std::string& text, std::vector<unsigned char>* out);

std::string hex32(unsigned int value);
// "a JOBSET_03", "an APLJOB": the article the word's sound takes.
std::string with_article(const std::string& word);

// Trace line text without its pointer values (the ", &name:0x7ffd..." fields).
std::string without_pointers(const std::string& text);

// Whether the tree allows a handler of category `child` below one of `parent`:
// "" when it does, else why not in words. A child's level is its parent's or
// deeper (AUTH 0 and only a root, APLSVC_IMG 1, APLJOB 2, SUBJOB 3, job sets 4).
std::string category_pair_refusal(unsigned int parent, unsigned int child);

// {"member":"0x00360000","kind":"i32","size":4,"value":42}; bytes as a 0x-hex string.
nlohmann::ordered_json member_json(const tevhost::member_value& m);

// The rules a member value must meet before it is stored, shared by set and import.
// Each returns "" when the rule is met, else the refusal in words.
//
// A member stored on a handler of `category` itself: in the member table, and of
// that category ("no member 0x0000000A in the member table").
std::string member_owner_refusal(unsigned int member_id, unsigned int category);
// A value of `kind` for `member_id`: an integer kind takes a number (parse_number)
// in its range; bytes take `text`'s characters, or with `hex` the bytes of its
// 0x-hex digits (at least one byte for a member without a value). When the member has a value
// already (`stored`), the kinds must match and bytes may not be longer than it (they are padded
// with zeros to its width). On "" *out holds the value to store.
std::string member_value_refusal(unsigned int member_id, tevhost::member_kind kind,
                                 const std::string& text, bool hex,
                                 const tevhost::member_value* stored, tevhost::member_value* out);

// Members by schema (tevhost::store_schema of the open store).
//
// The declaration of `member_id` in `schema`, or null.
const tevhost::member_schema* find_declared(const std::vector<tevhost::member_schema>& schema,
                                            unsigned int member_id);
// A member given by id or by its schema name: "" with *out set, else the refusal
// in words. With a schema, an id it does not declare is refused.
std::string member_arg_refusal(const std::string& text, unsigned int* out);
// "member 0x00360000 (copies)", or without the name when it has none.
std::string member_label(unsigned int member_id);
// "" when `v` lies in its declared range (or none is declared), else the refusal.
std::string schema_range_refusal(const tevhost::member_value& v);
// A declared member's initial value as a member value.
tevhost::member_value initial_value(const tevhost::member_schema& m);

// A JSON pointer's token for `key` ('~' -> "~0", '/' -> "~1").
std::string pointer_token(const std::string& key);
// Whether two paths name one existing file (same device and inode).
bool same_file(const std::string& a, const std::string& b);

}  // namespace tevash_cli

#endif  // TEVASH_CLI_UTIL_H
