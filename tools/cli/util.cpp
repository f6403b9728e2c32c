#include "util.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace tevash_cli {

namespace {

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

bool parse_ranged(const std::string& text, long long lo, long long hi, long long* out) {
    long long value = 0;
    if (!parse_ll(text, &value) || value < lo || value > hi) return false;
    *out = value;
    return true;
}

bool parse_category(const std::string& text, unsigned int* out) {
    if (text == "AUTH") return *out = 0x2, true;
    if (text == "APLSVC_IMG") return *out = 0x1, true;
    if (text == "APLJOB") return *out = 0x4, true;
    if (text == "SUBJOB") return *out = 0x400000, true;
    if (text.rfind("JOBSET_", 0) == 0) {
        long long bit = 0;
        if (!parse_ranged(text.substr(7), 3, 24, &bit) || bit == 15 || bit == 22) return false;
        *out = 1u << bit;
        return true;
    }
    unsigned int value = 0;
    if (!parse_u32(text, &value) || value == 0 || (value & (value - 1)) != 0 || value > 0x1000000)
        return false;
    *out = value;
    return true;
}

std::string category_name(unsigned int category) {
    switch (category) {
        case 0x2: return "AUTH";
        case 0x1: return "APLSVC_IMG";
        case 0x4: return "APLJOB";
        case 0x400000: return "SUBJOB(0x400000)";
        case 0x8000: return "DETACHED(0x8000)";
        default: break;
    }
    for (int bit = 3; bit <= 24; ++bit) {
        if (category == (1u << bit)) {
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
