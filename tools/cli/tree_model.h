// Handler trees as the tool shows them: walked depth first in child order with
// an explicit stack, so a tree of any depth is drawn whole.
#ifndef TEVASH_CLI_TREE_MODEL_H
#define TEVASH_CLI_TREE_MODEL_H

#include <ostream>
#include <vector>

namespace tevash_cli {

struct tree_entry {
    unsigned int id;
    unsigned int category;
    unsigned int depth;  // 0 for the root
    bool last;           // last child of its parent
};

// The tree below `root` in pre-order. 0, or the first failing result code of
// the facade (then *out holds what could be read).
unsigned int walk_tree(unsigned int root, std::vector<tree_entry>* out);

// "1 AUTH" / "`-- 2 APLSVC_IMG" lines.
void draw_tree(const std::vector<tree_entry>& entries, std::ostream& out);
// {"id":..,"category":..,"name":..,"children":[..]}
void tree_json(const std::vector<tree_entry>& entries, std::ostream& out);

// walk_tree, then draw_tree.
unsigned int draw_tree(unsigned int root, std::ostream& out);

}  // namespace tevash_cli

#endif  // TEVASH_CLI_TREE_MODEL_H
