// Handler trees as the tool shows them: walked depth first in child order with
// an explicit stack, so a tree of any depth is drawn whole.
#ifndef TEVASH_CLI_TREE_MODEL_H
#define TEVASH_CLI_TREE_MODEL_H

#include <functional>
#include <ostream>
#include <vector>

#include <nlohmann/json.hpp>

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
// The tree as nested JSON objects, one made by `node` per entry; each object's
// "children" array (which `node` makes, empty) gets its children's in order.
nlohmann::ordered_json nest_json(
    const std::vector<tree_entry>& entries,
    const std::function<nlohmann::ordered_json(const tree_entry&)>& node);
// {"id":..,"category":..,"name":..,"children":[..]}
nlohmann::ordered_json tree_json(const std::vector<tree_entry>& entries);

// walk_tree, then draw_tree.
unsigned int draw_tree(unsigned int root, std::ostream& out);

}  // namespace tevash_cli

#endif  // TEVASH_CLI_TREE_MODEL_H
