#include "transfer.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <unordered_set>

#include <nlohmann/json.hpp>

#include "context.h"
#include "tree_model.h"
#include "util.h"

namespace tevash_cli {

namespace {

// Read unordered (objects by std::map: many keys stay cheap), written in order.
using json = nlohmann::json;
using ordered = nlohmann::ordered_json;
using tevhost::member_kind;
using tevhost::member_value;

// The DOM parser's events, passed on after keeping the pointer of the value
// being read and refusing duplicate keys. (The parser callback of nlohmann-json
// scans the parent array at the end of every object, which is quadratic in the
// nodes of an export.)
class strict_sax {
public:
    explicit strict_sax(json* doc) : dom_(*doc, false) {}
    const std::string& error() const { return error_; }

    bool null() { return element(), dom_.null(); }
    bool boolean(bool v) { return element(), dom_.boolean(v); }
    bool number_integer(json::number_integer_t v) { return element(), dom_.number_integer(v); }
    bool number_unsigned(json::number_unsigned_t v) { return element(), dom_.number_unsigned(v); }
    bool number_float(json::number_float_t v, const std::string& s) {
        return element(), dom_.number_float(v, s);
    }
    bool string(json::string_t& v) { return element(), dom_.string(v); }
    bool binary(json::binary_t& v) { return element(), dom_.binary(v); }
    bool start_object(std::size_t n) { return open(false), dom_.start_object(n); }
    bool start_array(std::size_t n) { return open(true), dom_.start_array(n); }
    bool end_object() { return stack_.pop_back(), dom_.end_object(); }
    bool end_array() { return stack_.pop_back(), dom_.end_array(); }
    bool key(json::string_t& k) {
        frame& f = stack_.back();
        f.token = pointer_token(k);
        if (!f.keys.insert(f.token).second && error_.empty()) {
            for (const auto& up : stack_) error_ += "/" + up.token;
            error_ += ": duplicate key";
        }
        return dom_.key(k);
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) {
        error_ = std::string("not JSON: ") + e.what();
        return false;
    }

private:
    struct frame {
        bool array = false;
        size_t next = 0;    // arrays: the index of the next element
        std::string token;  // the element or member being read
        std::unordered_set<std::string> keys;
    };
    void element() {
        if (!stack_.empty() && stack_.back().array)
            stack_.back().token = std::to_string(stack_.back().next++);
    }
    void open(bool array) {
        element();
        stack_.emplace_back();
        stack_.back().array = array;
    }

    nlohmann::detail::json_sax_dom_parser<json> dom_;
    std::vector<frame> stack_;
    std::string error_;
};

// Parses `text`, refusing a duplicate key with its pointer. Each open object or
// array keeps only its own token, so the pointer is made only for a refusal and
// deep nesting costs no more than its length.
bool parse_strict(const std::string& text, json* doc, std::string* why) {
    strict_sax sax(doc);
    const bool parsed = json::sax_parse(text, &sax);
    if (!sax.error().empty()) return *why = sax.error(), false;
    if (!parsed) return *why = "not JSON", false;
    return true;
}

// Refuses keys of `object` other than `allowed`; false with *why.
bool known_keys(const json& object, const std::string& path,
                std::initializer_list<const char*> allowed, std::string* why) {
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (std::none_of(allowed.begin(), allowed.end(),
                         [&](const char* k) { return it.key() == k; }))
            return *why = path + "/" + pointer_token(it.key()) + ": unknown key", false;
    }
    return true;
}

// The format number, 0 when `v` is not exactly an integer 1 or 2.
int format_of(const json& v) {
    if (!v.is_number_integer()) return 0;
    const std::string text = v.dump();
    return text == "1" ? 1 : text == "2" ? 2 : 0;
}

// One member value of a handler of `category`, by set's rules. `id` is the
// member id as the export wrote it; `path` the pointer of its object.
bool read_member(const json& row, const std::string& id, unsigned int category, bool v1,
                 const std::string& path, member_value* m, std::string* why) {
    if (!row.is_object()) return *why = path + ": a member is an object", false;
    if (v1 ? !known_keys(row, path, {"member", "kind", "size", "value"}, why)
           : !known_keys(row, path, {"kind", "size", "value"}, why))
        return false;
    const std::string id_path = v1 ? path + "/member" : path;
    unsigned int member = 0;
    if (!parse_u32(id, &member))
        return *why = id_path + ": malformed member id '" + id + "'", false;
    std::string refusal = member_owner_refusal(member, category);
    if (!refusal.empty()) return *why = id_path + ": " + refusal, false;
    const auto kind = row.find("kind");
    if (kind == row.end() || !kind->is_string() || !parse_kind(kind->get<std::string>(), &m->kind))
        return *why = path + "/kind: one of i8, u8, i16, u16, i32, u32, bytes", false;
    const auto value = row.find("value");
    const bool bytes = m->kind == member_kind::bytes;
    if (value == row.end() || (bytes ? !value->is_string() : !value->is_number_integer()))
        return *why = path + "/value: " + (bytes ? "a 0x-hex string" : "an integer"), false;
    refusal = member_value_refusal(
        member, m->kind, bytes ? value->get<std::string>() : value->dump(), true, nullptr, m);
    if (!refusal.empty()) return *why = path + "/value: " + refusal, false;
    const auto size = row.find("size");
    if (size != row.end() &&
        (!size->is_number_integer() || size->dump() != std::to_string(m->size)))
        return *why = path + "/size: the value has " + std::to_string(m->size) + " bytes", false;
    return true;
}

// The members of a node: an array of rows (format 1) or an object by member id.
bool read_members(const json* node, unsigned int category, bool v1, const std::string& path,
                  planned* p, std::string* why) {
    const auto it = node->find("members");
    if (it == node->end()) return true;
    if (v1 ? !it->is_array() : !it->is_object())
        return *why = path + "/members: " + (v1 ? "an array" : "an object"), false;
    std::unordered_set<unsigned int> seen;
    size_t i = 0;
    for (auto m = it->begin(); m != it->end(); ++m, ++i) {
        const std::string at =
            path + "/members/" + (v1 ? std::to_string(i) : pointer_token(m.key()));
        std::string id;
        if (!v1) {
            id = m.key();
        } else {
            const auto field = m->is_object() ? m->find("member") : m->end();
            if (field == m->end() || !field->is_string())
                return *why = at + "/member: a member id string", false;
            id = field->get<std::string>();
        }
        p->members.emplace_back();
        if (!read_member(*m, id, category, v1, at, &p->members.back(), why)) return false;
        if (!seen.insert(p->members.back().member_id).second)
            return *why = at + ": member " + hex32(p->members.back().member_id) + " appears twice",
                   false;
    }
    return true;
}

bool read_category(const json* node, const std::string& path, unsigned int* category,
                   std::string* why) {
    const auto it = node->find("category");
    if (it == node->end() || !it->is_string() || !parse_category(it->get<std::string>(), category))
        return *why = path + "/category: a known category name", false;
    return true;
}

bool read_v2(const json& doc, std::vector<planned>* plan, std::string* why) {
    if (!known_keys(doc, "", {"tevash_tree", "nodes", "schema"}, why)) return false;
    const auto nodes = doc.find("nodes");
    if (nodes == doc.end() || !nodes->is_array() || nodes->empty())
        return *why = "/nodes: an array of at least one node", false;
    for (size_t i = 0; i < nodes->size(); ++i) {
        const json& node = (*nodes)[i];
        const std::string path = "/nodes/" + std::to_string(i);
        if (!node.is_object()) return *why = path + ": a node is an object", false;
        if (!known_keys(node, path, {"parent", "category", "members"}, why)) return false;
        planned p{0, -1, {}};
        const auto parent = node.find("parent");
        if (i == 0 && parent != node.end())
            return *why = path + "/parent: the first node is the root", false;
        // A node without a parent after the first is the root of another tree.
        if (i > 0 && parent != node.end()) {
            long long up = -1;
            if (!parent->is_number_integer() ||
                !parse_ranged(parent->dump(), 0, static_cast<long long>(i) - 1, &up))
                return *why = path + "/parent: the index of an earlier node", false;
            p.parent = static_cast<long>(up);
        }
        if (!read_category(&node, path, &p.category, why) ||
            !read_members(&node, p.category, false, path, &p, why))
            return false;
        const std::string pair =
            p.parent < 0 ? "" : category_pair_refusal((*plan)[p.parent].category, p.category);
        if (!pair.empty()) return *why = path + "/category: " + pair, false;
        plan->push_back(std::move(p));
    }
    return true;
}

// Format 1: nested nodes, walked with an explicit stack into pre-order.
bool read_v1(const json& doc, std::vector<planned>* plan, std::string* why) {
    if (!known_keys(doc, "", {"tevash_tree", "root"}, why)) return false;
    if (doc.find("root") == doc.end()) return *why = "/root: missing", false;
    // Per plan entry: its place among its parent's children, for the pointer.
    std::vector<size_t> place;
    const auto path_of = [&](size_t k) {
        std::vector<size_t> up;
        for (long at = static_cast<long>(k); (*plan)[at].parent >= 0; at = (*plan)[at].parent)
            up.push_back(place[at]);
        std::string path = "/root";
        for (auto it = up.rbegin(); it != up.rend(); ++it)
            path += "/children/" + std::to_string(*it);
        return path;
    };
    struct pending {
        const json* node;
        long parent;
        size_t place;
    };
    std::vector<pending> stack{{&*doc.find("root"), -1, 0}};
    while (!stack.empty()) {
        const pending at = stack.back();
        stack.pop_back();
        plan->push_back({0, at.parent, {}});
        place.push_back(at.place);
        planned& p = plan->back();
        const json& node = *at.node;
        // The pointers of refusals are relative to the node's, made only for a refusal.
        const auto refuse = [&](const std::string& words) {
            *why = path_of(plan->size() - 1) + words;
            return false;
        };
        if (!node.is_object()) return refuse(": a node is an object");
        if (!known_keys(node, "", {"category", "members", "children"}, why) ||
            !read_category(&node, "", &p.category, why) ||
            !read_members(&node, p.category, true, "", &p, why))
            return refuse(*why);
        if (p.parent >= 0) {
            const std::string pair = category_pair_refusal((*plan)[p.parent].category, p.category);
            if (!pair.empty()) return refuse("/category: " + pair);
        }
        const auto children = node.find("children");
        if (children == node.end()) continue;
        if (!children->is_array()) return refuse("/children: an array");
        for (size_t i = children->size(); i-- > 0;)
            stack.push_back({&(*children)[i], static_cast<long>(plan->size() - 1), i});
    }
    return true;
}

unsigned long long start_time_of(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // Field 22, counted after the command name (which may hold spaces) closes.
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    for (int i = 3; i <= 22 && fields >> field; ++i) {
    }
    return std::strtoull(field.c_str(), nullptr, 10);
}

}  // namespace

bool read_export(const std::string& text, std::vector<planned>* plan, std::string* why,
                 std::vector<tevhost::member_schema>* schema) {
    json doc;
    if (!parse_strict(text, &doc, why)) return false;
    if (!doc.is_object()) return *why = "not a JSON object", false;
    const auto format = doc.find("tevash_tree");
    const int v = format == doc.end() ? 0 : format_of(*format);
    if (v == 0) return *why = "/tevash_tree: a tevash tree export, format 1 or 2", false;
    plan->clear();
    if (schema != nullptr) schema->clear();
    const auto declared = doc.find("schema");
    if (v == 2 && declared != doc.end()) {
        std::vector<tevhost::member_schema> members;
        std::string words;
        if (!tevhost::parse_member_schema(declared->dump(), &members, &words))
            return *why = "/schema: " + words, false;
        if (schema != nullptr) *schema = std::move(members);
    }
    return v == 1 ? read_v1(doc, plan, why) : read_v2(doc, plan, why);
}

unsigned int write_export(unsigned int root, std::ostream& out) {
    return write_exports({root}, out);
}

unsigned int write_exports(const std::vector<unsigned int>& roots, std::ostream& out) {
    std::vector<tree_entry> entries;
    for (unsigned int root : roots) {
        std::vector<tree_entry> tree;
        if (unsigned int rc = walk_tree(root, &tree)) return rc;
        entries.insert(entries.end(), tree.begin(), tree.end());
    }
    out << "{\"tevash_tree\":2,\"nodes\":[\n";
    // at_depth[d]: the index of the last node written at depth d.
    std::vector<size_t> at_depth;
    for (size_t i = 0; i < entries.size(); ++i) {
        const tree_entry& e = entries[i];
        at_depth.resize(e.depth);
        ordered node = ordered::object();
        if (e.depth > 0) node["parent"] = at_depth.back();
        node["category"] = category_token(e.category);
        ordered members = ordered::object();
        for (const auto& m : tevhost::record_members(e.id)) {
            if (m.member_id == IMPORT_MARK) continue;
            ordered row = member_json(m);
            row.erase("member");
            members[hex32(m.member_id)] = std::move(row);
        }
        node["members"] = std::move(members);
        out << node.dump() << (i + 1 < entries.size() ? ",\n" : "\n");
        at_depth.push_back(i);
    }
    const std::vector<tevhost::member_schema> schema = tevhost::store_schema();
    if (!schema.empty()) {
        std::string text = tevhost::member_schema_text(schema);
        while (!text.empty() && text.back() == '\n') text.pop_back();
        out << "],\"schema\":" << text << "}\n";
        return 0;
    }
    out << "]}\n";
    return 0;
}

member_value import_mark() {
    const auto pid = static_cast<unsigned int>(getpid());
    std::vector<unsigned char> bytes = encode_value(pid, 4);
    const unsigned long long start = start_time_of(getpid());
    for (int i = 0; i < 8; ++i) bytes.push_back(static_cast<unsigned char>(start >> (8 * i)));
    return {IMPORT_MARK, member_kind::bytes, static_cast<unsigned int>(bytes.size()), bytes};
}

bool import_running(const member_value& mark) {
    if (mark.kind != member_kind::bytes || mark.value.size() != 12) return false;
    const auto pid = static_cast<pid_t>(decode_value(member_kind::u32, mark.value));
    unsigned long long start = 0;
    for (int i = 0; i < 8; ++i)
        start |= static_cast<unsigned long long>(mark.value[4 + i]) << (8 * i);
    if (pid <= 0 || (kill(pid, 0) != 0 && errno != EPERM)) return false;
    return start_time_of(pid) == start;
}

}  // namespace tevash_cli
