// The export format of handler trees, and the mark an import leaves on the
// handlers it has made until it links them.
//
// Format 2, written by export: a flat list of nodes, one per line, the root
// first; every other node names its parent by its index in the list, which is
// below its own, and siblings follow each other in child order. A node without
// a parent after the first starts another tree (an export of every tree):
//
//   {"tevash_tree":2,"nodes":[
//   {"category":"APLJOB","members":{"0x00360000":{"kind":"i32","size":4,"value":42}}},
//   {"parent":0,"category":"JOBSET_03","members":{"0x00460000":{"kind":"bytes","size":2,"value":"0x4142"}}}
//   ]}
//
// Format 1 (read only): {"tevash_tree":1,"root":NODE}, NODE {"category":..,
// "members":[{"member":"0x00360000","kind":..,"size":..,"value":..}],
// "children":[NODE...]}.
//
// An export of a store with a member schema carries it after the nodes, as the
// schema file's object: {"tevash_tree":2,"nodes":[...],"schema":{"tevash_schema":1,...}}.
//
// Handler ids are not part of an export. Reading trusts nothing: a duplicate or
// unknown key, a value of the wrong type, a member that set would refuse or a
// category pair that link would refuse (set's and link's own rules, util.h)
// refuses the whole document, naming the JSON pointer of the bad value.
#ifndef TEVASH_CLI_TRANSFER_H
#define TEVASH_CLI_TRANSFER_H

#include <ostream>
#include <string>
#include <vector>

#include "host/tev_host.h"

namespace tevash_cli {

// One handler an import makes: its category, its parent's index in the plan (-1:
// a root, always the first entry and perhaps others; always below its own
// index) and its member values.
struct planned {
    unsigned int category;
    long parent;
    std::vector<tevhost::member_value> members;
};

// Reads an export (format 1 or 2). False with *why ("<JSON pointer>: <words>")
// when anything in it is refused; *plan is then unspecified. The schema it
// carries goes to *schema (left empty when none; ignored when null).
bool read_export(const std::string& text, std::vector<planned>* plan, std::string* why,
                 std::vector<tevhost::member_schema>* schema = nullptr);

// Writes the tree below `root` in format 2, with the store's schema if any. 0, or the first failing
// result code of the facade (nothing is written then).
unsigned int write_export(unsigned int root, std::ostream& out);
// The trees below each of `roots` in one document, one after another.
unsigned int write_exports(const std::vector<unsigned int>& roots, std::ostream& out);

// While an import through a handler service in another process runs, each
// handler it has made carries this member (outside the member table, so get
// and set never reach it) until the import's last step clears it and links the
// handler: the bytes of the importing process's id and start time.
constexpr unsigned int IMPORT_MARK = 0xFFFF0001;
// This process's mark.
tevhost::member_value import_mark();
// Whether the process that wrote `mark` still runs.
bool import_running(const tevhost::member_value& mark);

}  // namespace tevash_cli

#endif  // TEVASH_CLI_TRANSFER_H
