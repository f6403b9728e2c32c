#include "util.h"

#include <sys/stat.h>

#include <cstdio>
#include <iostream>
#include <regex>

#include "tev_ash_control.h"
#include "tev_ash_types.h"

namespace tevash_cli {

namespace {

using namespace velmora;
using tevhost::member_kind;

// The categories with a name of their own; the others are JOBSET_xx by bit
// number. `name` is what create accepts (none for DETACHED, a member's category only).
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

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

bool parse_number(const std::string& text, long long* out) {
    size_t i = 0;
    const bool negative = !text.empty() && text[0] == '-';
    if (negative) ++i;
    int base = 10;
    if (text.compare(i, 2, "0x") == 0 || text.compare(i, 2, "0X") == 0) {
        base = 16;
        i += 2;
    }
    if (i == text.size()) return false;
    unsigned long long value = 0;
    for (; i < text.size(); ++i) {
        const int d = hex_digit(text[i]);
        if (d < 0 || d >= base) return false;
        value = value * base + d;
        if (value > 0xFFFFFFFFULL) return false;
    }
    *out = negative ? -static_cast<long long>(value) : static_cast<long long>(value);
    return true;
}

bool parse_ranged(const std::string& text, long long lo, long long hi, long long* out) {
    long long value = 0;
    if (!parse_number(text, &value) || value < lo || value > hi) return false;
    *out = value;
    return true;
}

bool parse_u32(const std::string& text, unsigned int* out) {
    long long value = 0;
    if (!parse_ranged(text, 0, 0xFFFFFFFFLL, &value)) return false;
    *out = static_cast<unsigned int>(value);
    return true;
}

bool parse_arg(const std::string& text, unsigned int* out, const char* what) {
    if (parse_u32(text, out)) return true;
    std::cerr << "tevash: malformed " << what << " '" << text << "'\n";
    return false;
}

bool parse_category(const std::string& text, unsigned int* out) {
    for (const auto& n : NAMED)
        if (!text.empty() && text == n.name) return *out = n.category, true;
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
    for (const auto& n : NAMED)
        if (category == n.category) return n.shown;
    for (int bit = JOBSET_FIRST_BIT; bit <= JOBSET_LAST_BIT; ++bit) {
        if (category == (1u << bit) && is_jobset_bit(bit)) {
            char buf[32];
            std::snprintf(buf, sizeof buf, "JOBSET_%02d", bit);
            return buf;
        }
    }
    return "CATEGORY(" + hex32(category) + ")";
}

std::string category_token(unsigned int category) {
    for (const auto& n : NAMED)
        if (category == n.category) return n.name[0] ? n.name : hex32(category);
    std::string name = category_name(category);
    return name.rfind("JOBSET_", 0) == 0 ? name : hex32(category);
}

const char* kind_name(member_kind kind) {
    return tevhost::member_kind_of(kind).name;
}

bool parse_kind(const std::string& name, member_kind* out) {
    for (const auto& r : tevhost::MEMBER_KINDS)
        if (name == r.name) return *out = r.kind, true;
    return false;
}

void kind_range(member_kind kind, long long* lo, long long* hi) {
    *lo = tevhost::member_kind_of(kind).lo;
    *hi = tevhost::member_kind_of(kind).hi;
}

long long decode_value(member_kind kind, const std::vector<unsigned char>& bytes) {
    unsigned long long raw = 0;
    const unsigned int width = tevhost::member_width(kind);
    for (unsigned int i = 0; i < width && i < bytes.size(); ++i)
        raw |= static_cast<unsigned long long>(bytes[i]) << (8 * i);
    long long lo = 0, hi = 0;
    kind_range(kind, &lo, &hi);
    // Signed kinds: the top bit of the width is the sign.
    if (lo < 0 && width > 0 && (raw >> (8 * width - 1)) != 0)
        return static_cast<long long>(raw) - (1LL << (8 * width));
    return static_cast<long long>(raw);
}

std::vector<unsigned char> encode_value(long long value, unsigned int width) {
    std::vector<unsigned char> bytes(width);
    const auto raw = static_cast<unsigned long long>(value);
    for (unsigned int i = 0; i < width; ++i) bytes[i] = static_cast<unsigned char>(raw >> (8 * i));
    return bytes;
}

std::string hex_bytes(const std::vector<unsigned char>& bytes) {
    std::string hex = "0x";
    char b[4];
    for (unsigned char c : bytes) {
        std::snprintf(b, sizeof b, "%02X", c);
        hex += b;
    }
    return hex;
}

bool parse_hex_bytes(const std::string& text, std::vector<unsigned char>* out) {
    if (text.compare(0, 2, "0x") != 0 || text.size() % 2 != 0) return false;
    out->clear();
    for (size_t i = 2; i < text.size(); i += 2) {
        const int hi = hex_digit(text[i]), lo = hex_digit(text[i + 1]);
        if (hi < 0 || lo < 0) return false;
        out->push_back(static_cast<unsigned char>(hi * 16 + lo));
    }
    return true;
}

std::string hex32(unsigned int value) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%08X", value);
    return buf;
}

std::string with_article(const std::string& word) {
    const bool vowel =
        !word.empty() && std::string("AEIOUaeiou").find(word[0]) != std::string::npos;
    return (vowel ? "an " : "a ") + word;
}

std::string without_pointers(const std::string& text) {
    static const std::regex pointer(R"((, )?&\w+:(0[xX][0-9a-fA-F]+|\(nil\)))");
    return std::regex_replace(text, pointer, "");
}

std::string category_pair_refusal(unsigned int parent, unsigned int child) {
    static velmora::tev_ash_control control;  // its tables only
    unsigned int lp = 0, lc = 0;
    const std::string p = category_name(parent), c = category_name(child);
    if (control.get_category_level(static_cast<TEV_ASH_CATEGORY>(parent), &lp) != 0)
        return p + " is not a handler category";
    if (control.get_category_level(static_cast<TEV_ASH_CATEGORY>(child), &lc) != 0)
        return c + " is not a handler category";
    if (child == TEV_ASH_CAT_AUTH) return "an AUTH handler is a root: it has no parent";
    if (lc < lp)
        return with_article(c) + " handler (level " + std::to_string(lc) + ") cannot be below " +
               with_article(p) + " handler (level " + std::to_string(lp) + ")";
    return "";
}

nlohmann::ordered_json member_json(const tevhost::member_value& m) {
    nlohmann::ordered_json row = {
        {"member", hex32(m.member_id)}, {"kind", kind_name(m.kind)}, {"size", m.size}};
    if (m.kind == member_kind::bytes)
        row["value"] = hex_bytes(m.value);
    else
        row["value"] = decode_value(m.kind, m.value);
    return row;
}

std::string member_owner_refusal(unsigned int member_id, unsigned int category) {
    static velmora::tev_ash_control control;  // its tables only
    TEV_ASH_CATEGORY owner{};
    if (control.get_member_category(member_id, &owner) != 0)
        return "no member " + hex32(member_id) + " in the member table";
    if (owner != category)
        return "member " + hex32(member_id) + " belongs to " + with_article(category_name(owner)) +
               " handler, not " + category_name(category);
    return "";
}

std::string member_value_refusal(unsigned int member_id, member_kind kind, const std::string& text,
                                 bool hex, const tevhost::member_value* stored,
                                 tevhost::member_value* out) {
    const std::string member = "member " + hex32(member_id);
    if (stored != nullptr && stored->kind != kind)
        return member + " is " + kind_name(stored->kind) + ", not " + kind_name(kind);
    out->member_id = member_id;
    out->kind = kind;
    if (kind == member_kind::bytes) {
        if (hex) {
            if (!parse_hex_bytes(text, &out->value))
                return member + ": bytes are a 0x-hex string, not '" + text + "'";
        } else {
            out->value.assign(text.begin(), text.end());
        }
        if (stored == nullptr && out->value.empty())
            return member + ": bytes need at least one byte";
        if (stored != nullptr) {
            if (out->value.size() > stored->size)
                return "a value of " + std::to_string(out->value.size()) + " bytes does not fit " +
                       member + " (" + std::to_string(stored->size) + " bytes)";
            out->value.resize(stored->size, 0);
        }
    } else {
        long long v = 0, lo = 0, hi = 0;
        kind_range(kind, &lo, &hi);
        // A decimal too long for 32 bits is out of range, not malformed.
        const size_t sign = !text.empty() && text[0] == '-' ? 1 : 0;
        const bool decimal =
            sign < text.size() && text.find_first_not_of("0123456789", sign) == std::string::npos;
        const bool parsed = parse_number(text, &v);
        if (!parsed && !decimal)
            return std::string("malformed ") + kind_name(kind) + " value '" + text + "'";
        if (!parsed || v < lo || v > hi)
            return "value " + text + " is out of range for " + kind_name(kind) + " (" +
                   std::to_string(lo) + ".." + std::to_string(hi) + ")";
        out->value = encode_value(v, tevhost::member_width(kind));
    }
    out->size = static_cast<unsigned int>(out->value.size());
    return "";
}

const tevhost::member_schema* find_declared(const std::vector<tevhost::member_schema>& schema,
                                            unsigned int member_id) {
    for (const auto& m : schema)
        if (m.member_id == member_id) return &m;
    return nullptr;
}

std::string member_arg_refusal(const std::string& text, unsigned int* out) {
    const std::vector<tevhost::member_schema> schema = tevhost::store_schema();
    if (!parse_u32(text, out)) {
        for (const auto& m : schema) {
            if (!m.name.empty() && m.name == text) {
                *out = m.member_id;
                return "";
            }
        }
        return schema.empty() ? "malformed member id '" + text + "' (no schema names members)"
                              : "no member named '" + text + "' in the schema";
    }
    if (!schema.empty() && find_declared(schema, *out) == nullptr)
        return "member " + hex32(*out) + " is not in the schema";
    return "";
}

std::string member_label(unsigned int member_id) {
    const std::vector<tevhost::member_schema> schema = tevhost::store_schema();
    const tevhost::member_schema* m = find_declared(schema, member_id);
    std::string out = "member " + hex32(member_id);
    return m == nullptr || m->name.empty() ? out : out + " (" + m->name + ")";
}

std::string schema_range_refusal(const tevhost::member_value& v) {
    const std::vector<tevhost::member_schema> schema = tevhost::store_schema();
    const tevhost::member_schema* m = find_declared(schema, v.member_id);
    if (m == nullptr || !m->ranged || v.kind == member_kind::bytes) return "";
    const long long n = decode_value(v.kind, v.value);
    if (n >= m->min && n <= m->max) return "";
    return "value " + std::to_string(n) + " is outside the range of " + member_label(v.member_id) +
           " (" + std::to_string(m->min) + ".." + std::to_string(m->max) + ")";
}

tevhost::member_value initial_value(const tevhost::member_schema& m) {
    return tevhost::member_value{m.member_id, m.kind, m.size, m.initial};
}

std::string pointer_token(const std::string& key) {
    std::string token;
    for (char c : key) token += c == '~' ? "~0" : c == '/' ? "~1" : std::string(1, c);
    return token;
}

bool same_file(const std::string& a, const std::string& b) {
    struct stat sa {
    }, sb{};
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

}  // namespace tevash_cli
