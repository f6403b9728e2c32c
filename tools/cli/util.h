// Parsing and naming helpers of the command-line tool.
#ifndef TEVASH_CLI_UTIL_H
#define TEVASH_CLI_UTIL_H

#include <string>

namespace tevash_cli {

// Parses a 32-bit unsigned number (decimal or 0x-hex); false when malformed.
bool parse_u32(const std::string& text, unsigned int* out);
// parse_u32 of a command argument; when malformed, prints "malformed <what> '<text>'".
bool parse_arg(const std::string& text, unsigned int* out, const char* what);
// Parses a signed number in [lo, hi]; false when malformed or out of range.
bool parse_ranged(const std::string& text, long long lo, long long hi, long long* out);
// Parses a category by name (AUTH, APLJOB, JOBSET_03, ...) or number.
bool parse_category(const std::string& text, unsigned int* out);
// The display name of a category: AUTH, APLSVC_IMG, APLJOB, SUBJOB(0x400000), JOBSET_xx.
std::string category_name(unsigned int category);
std::string hex32(unsigned int value);
std::string json_escape(const std::string& text);

}  // namespace tevash_cli

#endif  // TEVASH_CLI_UTIL_H
