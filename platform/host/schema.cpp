// The schema file's text (parse_member_schema, member_schema_text) and the
// schema a store keeps (make_kept_schema). Safe from any thread.
//
//   {"tevash_schema":1,"members":[
//     {"id":"0x00360000","name":"copies","kind":"u16","initial":1,"min":1,"max":999,
//      "description":"Copies to print"},
//     {"id":"0x00460000","name":"title","kind":"bytes","size":16,"initial":"0x4142"}]}
//
// id: a number or a 0x-hex string; name: a letter then letters, digits, '_' or
// '-', unique; kind: i8 u8 i16 u16 i32 u32 bytes; size: bytes only (1..65535);
// initial: a number in the kind's range (and in min..max), or for bytes a 0x-hex
// string of at most size bytes (zero-padded); min/max: integer kinds only, both
// or neither. Every key but id and kind may be left out; unknown keys, a
// repeated key, id or name are refused.
#include <cctype>
#include <cstdio>
#include <set>
#include <unordered_set>

#include <nlohmann/json.hpp>

#include "member_rules.h"
#include "store_backend.h"

namespace tevhost {
namespace {

using nlohmann::json;

struct refused {
    std::string why;
};

[[noreturn]] void refuse(const std::string& where, const std::string& why) {
    throw refused{where + ": " + why};
}

long long integer(const json& v, const std::string& where, long long lo, long long hi) {
    if (!v.is_number_integer()) refuse(where, "not an integer");
    long long n = 0;
    if (v.is_number_unsigned()) {
        const auto u = v.get<unsigned long long>();
        if (u > static_cast<unsigned long long>(hi)) refuse(where, v.dump() + " is out of range");
        n = static_cast<long long>(u);
    } else {
        n = v.get<long long>();
    }
    if (n < lo || n > hi) {
        refuse(where, std::to_string(n) + " is outside [" + std::to_string(lo) + ", " +
                          std::to_string(hi) + "]");
    }
    return n;
}

unsigned int member_id_of(const json& v, const std::string& where) {
    if (v.is_string()) {
        const std::string t = v.get<std::string>();
        unsigned long long n = 0;
        const bool hex =
            t.size() > 2 && t.size() <= 10 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X');
        for (std::size_t i = 2; hex && i < t.size(); ++i) {
            if (!std::isxdigit(static_cast<unsigned char>(t[i])))
                refuse(where, "'" + t + "' is not a member id");
            n = n * 16 + static_cast<unsigned long long>(std::stoi(t.substr(i, 1), nullptr, 16));
        }
        if (!hex) refuse(where, "'" + t + "' is not a member id (a number or 0x-hex)");
        return static_cast<unsigned int>(n);
    }
    return static_cast<unsigned int>(integer(v, where, 0, 4294967295LL));
}

std::vector<unsigned char> hex_of(const json& v, const std::string& where) {
    const std::string t = v.is_string() ? v.get<std::string>() : std::string();
    if (t.size() < 4 || t.size() % 2 != 0 || t[0] != '0' || (t[1] != 'x' && t[1] != 'X') ||
        t.find_first_not_of("0123456789abcdefABCDEF", 2) != std::string::npos) {
        refuse(where, "bytes are a 0x-hex string of whole bytes");
    }
    std::vector<unsigned char> out;
    for (std::size_t i = 2; i < t.size(); i += 2) {
        out.push_back(static_cast<unsigned char>(std::stoi(t.substr(i, 2), nullptr, 16)));
    }
    return out;
}

bool name_ok(const std::string& n) {
    if (n.empty() || n.size() > 64 || !std::isalpha(static_cast<unsigned char>(n[0]))) return false;
    for (char c : n) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-') return false;
    }
    return true;
}

member_schema member_of(const json& m, const std::string& where) {
    if (!m.is_object()) refuse(where, "a member is an object");
    static const std::set<std::string> keys = {"id",      "name", "kind", "size",
                                               "initial", "min",  "max",  "description"};
    for (auto it = m.begin(); it != m.end(); ++it) {
        if (keys.count(it.key()) == 0) refuse(where, "unknown key '" + it.key() + "'");
    }
    if (!m.contains("id")) refuse(where, "no id");
    if (!m.contains("kind")) refuse(where, "no kind");
    member_schema out;
    out.member_id = member_id_of(m["id"], where + ".id");
    const json& kind = m["kind"];
    const member_kind_info* k = nullptr;
    for (const member_kind_info& row : MEMBER_KINDS) {
        if (kind.is_string() && kind.get<std::string>() == row.name) k = &row;
    }
    if (k == nullptr)
        refuse(where + ".kind", kind.dump() + " is not a kind (i8 u8 i16 u16 i32 u32 bytes)");
    out.kind = k->kind;
    if (m.contains("name")) {
        if (!m["name"].is_string() || !name_ok(m["name"].get<std::string>())) {
            refuse(where + ".name", "a name is a letter then letters, digits, '_' or '-'");
        }
        out.name = m["name"].get<std::string>();
    }
    if (m.contains("description")) {
        if (!m["description"].is_string()) refuse(where + ".description", "not a string");
        out.description = m["description"].get<std::string>();
    }
    if (out.kind == member_kind::bytes) {
        if (!m.contains("size")) refuse(where, "bytes need a size");
        out.size = static_cast<unsigned int>(integer(m["size"], where + ".size", 1, 65535));
        if (m.contains("min") || m.contains("max")) refuse(where, "bytes take no range");
        if (m.contains("initial")) {
            out.initial = hex_of(m["initial"], where + ".initial");
            if (out.initial.size() > out.size) refuse(where + ".initial", "longer than its size");
        }
        out.initial.resize(out.size, 0);
        return out;
    }
    out.size = member_width(out.kind);
    if (m.contains("size") && integer(m["size"], where + ".size", 0, 65535) != out.size) {
        refuse(where + ".size",
               std::string("a ") + k->name + " is " + std::to_string(out.size) + " byte(s)");
    }
    if (m.contains("min") != m.contains("max")) refuse(where, "a range needs both min and max");
    long long lo = k->lo, hi = k->hi;
    if (m.contains("min")) {
        out.ranged = true;
        out.min = lo = integer(m["min"], where + ".min", k->lo, k->hi);
        out.max = hi = integer(m["max"], where + ".max", lo, k->hi);
    }
    long long initial = lo <= 0 && hi >= 0 ? 0 : lo;
    if (m.contains("initial")) initial = integer(m["initial"], where + ".initial", lo, hi);
    const auto u = static_cast<unsigned long long>(initial);
    for (unsigned int i = 0; i < out.size; ++i) {
        out.initial.push_back(static_cast<unsigned char>(u >> (8 * i)));
    }
    return out;
}

// Parses `text`, noting in *repeated the first key given twice in one object
// (the parser would keep the last).
json parse_strict(const std::string& text, std::string* repeated) {
    std::vector<std::unordered_set<std::string>> seen;
    json::parser_callback_t cb = [&](int, json::parse_event_t event, json& parsed) {
        if (event == json::parse_event_t::object_start) seen.emplace_back();
        if (event == json::parse_event_t::object_end && !seen.empty()) seen.pop_back();
        if (event == json::parse_event_t::key && !seen.empty() &&
            !seen.back().insert(parsed.get<std::string>()).second && repeated->empty()) {
            *repeated = "key '" + parsed.get<std::string>() + "' given twice";
        }
        return true;
    };
    return json::parse(text, cb, false);
}

std::string hex_text(const std::vector<unsigned char>& bytes) {
    std::string out = "0x";
    char two[3];
    for (unsigned char b : bytes) {
        std::snprintf(two, sizeof two, "%02X", b);
        out += two;
    }
    return out;
}

}  // namespace

bool parse_member_schema(const std::string& text, std::vector<member_schema>* out,
                         std::string* error) {
    std::string why;
    const json doc = parse_strict(text, &why);
    try {
        if (doc.is_discarded()) throw refused{"not JSON"};
        if (!why.empty()) throw refused{why};
        if (!doc.is_object()) throw refused{"a schema is a JSON object"};
        for (auto it = doc.begin(); it != doc.end(); ++it) {
            if (it.key() != "tevash_schema" && it.key() != "members") {
                refuse(it.key(), "unknown key (a schema has \"tevash_schema\": 1 and \"members\")");
            }
        }
        if (!doc.contains("tevash_schema")) throw refused{"no \"tevash_schema\" version"};
        if (doc["tevash_schema"] != 1) {
            throw refused{"schema version " + doc["tevash_schema"].dump() + " is not 1"};
        }
        if (!doc.contains("members") || !doc["members"].is_array()) {
            throw refused{"\"members\" is an array"};
        }
        std::vector<member_schema> members;
        std::set<unsigned int> ids;
        std::set<std::string> names;
        for (std::size_t i = 0; i < doc["members"].size(); ++i) {
            const std::string where = "members[" + std::to_string(i) + "]";
            member_schema m = member_of(doc["members"][i], where);
            if (!ids.insert(m.member_id).second) refuse(where + ".id", "declared twice");
            if (!m.name.empty() && !names.insert(m.name).second) {
                refuse(where + ".name", "'" + m.name + "' names two members");
            }
            members.push_back(std::move(m));
        }
        *out = std::move(members);
        return true;
    } catch (const refused& r) {
        if (error != nullptr) *error = r.why;
        return false;
    }
}

std::string member_schema_text(const std::vector<member_schema>& members) {
    std::string out = "{\"tevash_schema\":1,\"members\":[";
    char id[16];
    for (std::size_t i = 0; i < members.size(); ++i) {
        const member_schema& m = members[i];
        nlohmann::ordered_json j;
        std::snprintf(id, sizeof id, "0x%08X", m.member_id);
        j["id"] = id;
        if (!m.name.empty()) j["name"] = m.name;
        j["kind"] = member_kind_of(m.kind).name;
        if (m.kind == member_kind::bytes) {
            j["size"] = m.size;
            j["initial"] = hex_text(m.initial);
        } else {
            j["initial"] = detail::integer_of(m.kind, m.initial.data(),
                                              static_cast<unsigned int>(m.initial.size()));
            if (m.ranged) {
                j["min"] = m.min;
                j["max"] = m.max;
            }
        }
        if (!m.description.empty()) j["description"] = m.description;
        out += (i == 0 ? "\n" : ",\n") + j.dump();
    }
    return out + "\n]}\n";
}

namespace detail {

std::shared_ptr<const kept_schema> make_kept_schema(std::vector<member_schema> members) {
    auto out = std::make_shared<kept_schema>();
    for (const member_schema& m : members) out->decls.emplace(m.member_id, decl_of(m));
    out->members = std::move(members);
    return out;
}

}  // namespace detail
}  // namespace tevhost
