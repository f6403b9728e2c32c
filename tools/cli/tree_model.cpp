#include "tree_model.h"

#include <ostream>
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
    // Per level up to DRAWN_LEVELS: the ancestor there is its parent's last child.
    std::vector<bool> last_at(DRAWN_LEVELS + 1);
    std::string prefix;
    for (const auto& e : entries) {
        prefix.clear();
        if (e.depth > DRAWN_LEVELS) {
            prefix = "[" + std::to_string(e.depth) + "] ";
        } else {
            last_at[e.depth] = e.last;
            for (unsigned int d = 1; d < e.depth; ++d) prefix += last_at[d] ? "    " : "|   ";
        }
        if (e.depth > 0) prefix += e.last ? "`-- " : "|-- ";
        out << prefix << e.id << ' ' << category_name(e.category) << '\n';
    }
}

void write_tree_json(const std::vector<tree_entry>& entries, std::ostream& out) {
    unsigned int open = 0;  // objects begun and not yet closed
    for (const auto& e : entries) {
        // Close the objects of the previous entry's subtree that this one is not in.
        for (; open > e.depth; --open) out << "]}";
        // A later sibling follows the previous entry's subtree.
        if (e.depth > 0 && (&e - 1)->depth >= e.depth) out << ',';
        out << "{\"id\":" << e.id << ",\"category\":\"" << category_token(e.category)
            << "\",\"children\":[";
        ++open;
    }
    for (; open > 0; --open) out << "]}";
}

unsigned int draw_tree(unsigned int root, std::ostream& out) {
    std::vector<tree_entry> entries;
    unsigned int rc = walk_tree(root, &entries);
    draw_tree(entries, out);
    return rc;
}

}  // namespace tevash_cli
