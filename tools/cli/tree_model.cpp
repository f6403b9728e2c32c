#include "tree_model.h"

#include <string>

#include "context.h"
#include "util.h"

namespace tevash_cli {

unsigned int walk_tree(unsigned int root, std::vector<tree_entry>* out) {
    auto* f = context::facade();
    unsigned int failed = 0;
    std::vector<tree_entry> stack{{root, 0, 0, true}};
    while (!stack.empty()) {
        tree_entry e = stack.back();
        stack.pop_back();
        unsigned int rc = f->tev_ash_get_category(e.id, &e.category);
        out->push_back(e);
        unsigned int count = 0;
        if (rc == 0) rc = f->tev_ash_get_child_count(e.id, &count);
        const size_t first = stack.size();
        for (unsigned int i = 0; rc == 0 && i < count; ++i) {
            unsigned int child = 0;
            rc = f->tev_ash_get_child_id_direct(e.id, i, &child);
            stack.push_back({child, 0, e.depth + 1, i + 1 == count});
        }
        if (rc != 0) {
            stack.resize(first);
            if (failed == 0) failed = rc;
            continue;
        }
        // Children go on the stack last first, so the first is drawn first.
        for (size_t lo = first, hi = stack.size(); lo + 1 < hi; ++lo, --hi)
            std::swap(stack[lo], stack[hi - 1]);
    }
    return failed;
}

void draw_tree(const std::vector<tree_entry>& entries, std::ostream& out) {
    std::vector<bool> last_at;  // per depth: the ancestor there is its parent's last child
    for (const auto& e : entries) {
        last_at.resize(e.depth + 1);
        last_at[e.depth] = e.last;
        std::string prefix;
        for (unsigned int d = 1; d < e.depth; ++d) prefix += last_at[d] ? "    " : "|   ";
        if (e.depth > 0) prefix += e.last ? "`-- " : "|-- ";
        out << prefix << e.id << ' ' << category_name(e.category) << '\n';
    }
}

nlohmann::ordered_json nest_json(
    const std::vector<tree_entry>& entries,
    const std::function<nlohmann::ordered_json(const tree_entry&)>& node) {
    nlohmann::ordered_json root;
    // path[d]: the object made last at depth d (its ancestors' arrays no longer grow).
    std::vector<nlohmann::ordered_json*> path;
    for (const auto& e : entries) {
        path.resize(e.depth);
        auto& slot = e.depth == 0 ? root : path.back()->at("children").emplace_back();
        slot = node(e);
        path.push_back(&slot);
    }
    return root;
}

nlohmann::ordered_json tree_json(const std::vector<tree_entry>& entries) {
    return nest_json(entries, [](const tree_entry& e) {
        return nlohmann::ordered_json{{"id", e.id},
                                      {"category", e.category},
                                      {"name", category_name(e.category)},
                                      {"children", nlohmann::ordered_json::array()}};
    });
}

unsigned int draw_tree(unsigned int root, std::ostream& out) {
    std::vector<tree_entry> entries;
    unsigned int rc = walk_tree(root, &entries);
    draw_tree(entries, out);
    return rc;
}

}  // namespace tevash_cli
