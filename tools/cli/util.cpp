#include "util.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "tev_ash_types.h"

namespace tevash_cli {

namespace {

using namespace velmora;

// The categories with a name of their own; the others are JOBSET_xx by bit number.
// `name` is what create accepts (none for DETACHED, a member's category only).
struct named_category {
    const char* name;
    const char* shown;
    unsigned int category;
};
constexpr named_category NAMED[] = {{"AUTH", "AUTH", TEV_ASH_CAT_AUTH},
                                    {"APLSVC_IMG", "APLSVC_IMG", TEV_ASH_CAT_APLSVC_IMG},
                                    {"APLJOB", "APLJOB", TEV_ASH_CAT_APLJOB},
                                    {"SUBJOB", "SUBJOB(0x400000)", TEV_ASH_CAT_SUBJOB},
                                    {"", "DETACHED(0x8000)", TEV_ASH_CAT_DETACHED}};
constexpr int JOBSET_FIRST_BIT = 3, JOBSET_LAST_BIT = 24;

bool is_jobset_bit(long long bit) {
    return bit >= JOBSET_FIRST_BIT && bit <= JOBSET_LAST_BIT &&
           (1u << bit) != TEV_ASH_CAT_DETACHED && (1u << bit) != TEV_ASH_CAT_SUBJOB;
}

bool parse_ll(const std::string& text, long long* out) {
    if (text.empty() || text[0] == ' ') return false;
    errno = 0;
    char* end = nullptr;
    long long value = std::strtoll(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0') return false;
    *out = value;
    return true;
}

}  // namespace

bool parse_u32(const std::string& text, unsigned int* out) {
    long long value = 0;
    if (!parse_ll(text, &value) || value < 0 || value > 0xFFFFFFFFLL) return false;
    *out = static_cast<unsigned int>(value);
    return true;
}

bool parse_arg(const std::string& text, unsigned int* out, const char* what) {
    if (parse_u32(text, out)) return true;
    std::cerr << "tevash: malformed " << what << " '" << text << "'\n";
    return false;
}

bool parse_ranged(const std::string& text, long long lo, long long hi, long long* out) {
    long long value = 0;
    if (!parse_ll(text, &value) || value < lo || value > hi) return false;
    *out = value;
    return true;
}

bool parse_category(const std::string& text, unsigned int* out) {
    for (const auto& n : NAMED) {
        if (!text.empty() && text == n.name) return *out = n.category, true;
    }
    if (text.rfind("JOBSET_", 0) == 0) {
        long long bit = 0;
        if (!parse_ranged(text.substr(7), JOBSET_FIRST_BIT, JOBSET_LAST_BIT, &bit) ||
            !is_jobset_bit(bit))
            return false;
        *out = 1u << bit;
        return true;
    }
    unsigned int value = 0;
    if (!parse_u32(text, &value) || value == 0 || (value & (value - 1)) != 0 ||
        value > TEV_ASH_CAT_JOBSET_24)
        return false;
    *out = value;
    return true;
}

std::string category_name(unsigned int category) {
    for (const auto& n : NAMED) {
        if (category == n.category) return n.shown;
    }
    for (int bit = JOBSET_FIRST_BIT; bit <= JOBSET_LAST_BIT; ++bit) {
        if (category == (1u << bit) && is_jobset_bit(bit)) {
            char buf[32];
            std::snprintf(buf, sizeof buf, "JOBSET_%02d", bit);
            return buf;
        }
    }
    return "CATEGORY(" + hex32(category) + ")";
}

std::string hex32(unsigned int value) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%08X", value);
    return buf;
}

std::string json_escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += c;
        }
    }
    return out;
}

}  // namespace tevash_cli
