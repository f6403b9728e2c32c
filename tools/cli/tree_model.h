// Handler trees as the tool shows them: walked depth first in child order with
// an explicit stack, and written without recursion and without indentation that
// grows with depth, so a tree of any shape costs time and output linear in its
// handlers.
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

// The deepest level drawn with the guides of every ancestor.
constexpr unsigned int DRAWN_LEVELS = 32;
// "1 AUTH" / "`-- 2 APLSVC_IMG" lines. A line deeper than DRAWN_LEVELS starts with
// its depth in brackets instead of its ancestors' guides: "[40] `-- 41 JOBSET_03".
void draw_tree(const std::vector<tree_entry>& entries, std::ostream& out);
// The tree as one line of nested JSON objects {"id":..,"category":"APLJOB",
// "children":[..]}, written as it is walked (no document is built).
void write_tree_json(const std::vector<tree_entry>& entries, std::ostream& out);

// walk_tree, then draw_tree.
unsigned int draw_tree(unsigned int root, std::ostream& out);

}  // namespace tevash_cli

#endif  // TEVASH_CLI_TREE_MODEL_H
