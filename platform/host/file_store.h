// The persistent record store's file format, and how its two halves meet: the
// operations (file_store.cpp) and opening, classification and backup
// (file_store_open.cpp). Constants and declarations only; safe from any thread.
//
// One SQLite database file in WAL mode. Layout (PRAGMA user_version
// kSchemaVersion, PRAGMA application_id kApplicationId):
//   meta(key, value)            next_id: no id below it is handed out again;
//                               the first id not handed out yet is the larger
//                               of it and the largest record id + 1 (it is
//                               raised only when the largest record goes)
//   records(id, category, parent, slot, category_slot, list_parent, has_lists)
//                               parent 0 when unlinked; slot orders a parent's
//                               children (left as it was by an unlink: it means
//                               nothing while parent is 0). has_lists is 1 for
//                               a record with rows in lists; its children are
//                               numbered in their categories (category_slot),
//                               and name it in list_parent too. Below a parent
//                               without rows both are 0 (so while unlinked),
//                               the order within a category is that among all
//                               children, and a child takes a slot below
//                               kSmallList (a CHECK: the link that would take
//                               that slot fails and goes the full way, which
//                               gives the parent its first row). The slot index
//                               is of linked records (a query says `parent !=
//                               0` to use it), the category index of numbered
//                               ones (`list_parent != 0`): a link, an unlink
//                               and a remove below a parent without rows
//                               change no column of the category index
//   lists(parent, category, used, live, top, skipped, head, pending)
//                               one per large list of a parent: that of all its
//                               children (category 0) or of one category among
//                               them. Its order_state, and the slots of holes
//                               not counted in its nodes yet (8-byte
//                               little-endian each, at most kPendingHoles; an
//                               unlink adds one, and the nodes take them all
//                               when that many gathered). A small list has no
//                               row (the link indexes are all it keeps), or
//                               one with top 0 (a mark) once it took slot
//                               kSmallList
//   holes(parent, category, node, count)
//                               a large list's nodes that count a hole
//   members(record, member, kind, value)
//                               the stored bytes of one member (their length is
//                               the member's width) and its member_kind
// A list is small while its slots stay within kSmallList: it keeps no row (the
// link that takes that slot marks it), so a link takes the slot after the last
// one (an index seek), an unlink leaves a hole that nothing counts, and the
// child at an order and the child count are an index scan of at most
// kSmallList steps. Below a parent with no rows in lists (every list small),
// a link, an unlink and a remove are one statement each, as a program would
// write them against the records table alone, touching the slot index only:
// the link checks both categories and the cycle in its WHERE clause, the
// unlink and the remove see from the child's own row (list_parent 0) that its
// parent keeps no lists, and a trigger on records does a remove's own
// work (its members and lists go, its children are left unlinked, its id's
// mark is left). A parent's children are numbered in their categories when it
// takes its first row in lists, and lose their numbers when its last goes.
// An append past kSmallList packs a small list that has holes and
// makes it large, unless the pack left it under half that many children.
// A large list is kept as link_order.h describes: the child at an order, a
// child count and a parent each cost O(log n) index reads. It is packed when
// its holes are at least kPackHoles and more than four times its children (the
// tree stays O(children) in size, a pack is amortised O(1) per hole), and is
// small again when a pack leaves it under half of kSmallList children, or when
// its last child leaves.
#ifndef TEVASH_HOST_FILE_STORE_H
#define TEVASH_HOST_FILE_STORE_H

#include <sqlite3.h>

#include <memory>
#include <string>

#include "store_backend.h"

namespace tevhost {
namespace detail {

constexpr int kSchemaVersion = 5;
// Versions 2 to 4 are read as they are (kOldRecords, and for version 2
// kOldLists, stand in for what differs) and migrated when opened for writing:
// version 4 numbered every linked child in its category and had a trigger mark
// small lists at their limit; version 3 kept a row and nodes for every list and
// had no triggers; version 2 kept next_id as the first id not handed out,
// indexed every record and counted every hole in its nodes (no lists.pending).
constexpr int kOldestSchemaVersion = 2;
constexpr int kApplicationId = 0x54455653;  // "TEVS"
constexpr unsigned int kPendingHoles = 64;
constexpr unsigned long long kPackHoles = 64;
constexpr unsigned long long kSmallList = 512;

#define TEVASH_STORE_RECORDS(name)                                                       \
    "CREATE TABLE " name                                                                 \
    "(id INTEGER PRIMARY KEY, category INTEGER NOT NULL,"                                \
    " parent INTEGER NOT NULL DEFAULT 0, slot INTEGER NOT NULL DEFAULT 0,"               \
    " category_slot INTEGER NOT NULL DEFAULT 0, list_parent INTEGER NOT NULL DEFAULT 0," \
    " has_lists INTEGER NOT NULL DEFAULT 0,"                                             \
    " CHECK(parent = 0 OR list_parent != 0 OR slot < 512));"
// The indexes of records, and its triggers: what a remove leaves to them (the
// second only for a record with children: its update makes a temporary
// table). Their statements never meet a constraint, and say OR FAIL where one
// could be checked, so a change in a transaction needs no statement journal
// (an I/O error rolls the whole transaction back).
#define TEVASH_STORE_RECORDS_REST                                                            \
    "CREATE INDEX records_by_slot ON records(parent, slot, category) WHERE parent != 0;"     \
    "CREATE INDEX records_by_category_slot ON records(list_parent, category, category_slot)" \
    " WHERE list_parent != 0;"                                                               \
    "CREATE TRIGGER records_removed AFTER DELETE ON records BEGIN"                           \
    " DELETE FROM members WHERE record = old.id;"                                            \
    " DELETE FROM lists WHERE parent = old.id;"                                              \
    " DELETE FROM holes WHERE parent = old.id;"                                              \
    " UPDATE OR FAIL meta SET value = old.id + 1 WHERE key = 'next_id' AND value <= old.id"  \
    " AND NOT EXISTS(SELECT 1 FROM records WHERE id > old.id); END;"                         \
    "CREATE TRIGGER records_removed_parent AFTER DELETE ON records"                          \
    " WHEN EXISTS(SELECT 1 FROM records WHERE parent = old.id AND parent != 0) BEGIN"        \
    " UPDATE OR FAIL records SET parent = 0, category_slot = 0, list_parent = 0"             \
    " WHERE parent = old.id AND parent != 0; END;"

constexpr const char kCreateSchema[] =
    "CREATE TABLE meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL);"
    "INSERT INTO meta VALUES('next_id', 1);" TEVASH_STORE_RECORDS("records")
    "CREATE TABLE lists(parent INTEGER NOT NULL, category INTEGER NOT NULL,"
    " used INTEGER NOT NULL, live INTEGER NOT NULL, top INTEGER NOT NULL,"
    " skipped INTEGER NOT NULL, head INTEGER NOT NULL, pending BLOB NOT NULL DEFAULT x'',"
    " PRIMARY KEY(parent, category)) WITHOUT ROWID;"
    "CREATE TABLE holes(parent INTEGER NOT NULL, category INTEGER NOT NULL,"
    " node INTEGER NOT NULL, count INTEGER NOT NULL,"
    " PRIMARY KEY(parent, category, node)) WITHOUT ROWID;"
    "CREATE TABLE members(record INTEGER NOT NULL, member INTEGER NOT NULL,"
    " kind INTEGER NOT NULL, value BLOB NOT NULL,"
    " PRIMARY KEY(record, member)) WITHOUT ROWID;" TEVASH_STORE_RECORDS_REST;

// Makes a version 2 store a version 3 one (its next_id is a valid mark as it is).
constexpr const char kMigrateFrom2[] =
    "ALTER TABLE lists ADD COLUMN pending BLOB NOT NULL DEFAULT x'';"
    "PRAGMA user_version = 3;";
// Makes a version 3 store a version 4 one: its lists of fewer than kSmallList
// slots become small (their rows and nodes go). Always followed by
// kMigrateFrom4, which makes the triggers.
constexpr const char kMigrateFrom3[] =
    "DELETE FROM holes WHERE (parent, category) IN"
    " (SELECT parent, category FROM lists WHERE used < 512);"
    "DELETE FROM lists WHERE used < 512; PRAGMA user_version = 4;";
// Makes a version 4 store a version 5 one: records made again (its table gains
// a column and a CHECK), the children of a parent without rows in lists losing
// their category numbers (a version 4 parent without rows has every slot below
// kSmallList).
constexpr const char kMigrateFrom4[] =
    "DROP TRIGGER IF EXISTS records_removed; DROP TRIGGER IF EXISTS records_removed_parent;"
    "DROP TRIGGER IF EXISTS records_at_limit;" TEVASH_STORE_RECORDS("records_5")
    "INSERT INTO records_5(id, category, parent, slot, category_slot, list_parent, has_lists)"
    " SELECT id, category, parent, slot, CASE WHEN n THEN category_slot ELSE 0 END,"
    " CASE WHEN n THEN parent ELSE 0 END, h FROM (SELECT id, category, parent, slot,"
    " category_slot, parent != 0 AND EXISTS(SELECT 1 FROM lists l WHERE l.parent = r.parent) AS n,"
    " EXISTS(SELECT 1 FROM lists l WHERE l.parent = r.id) AS h FROM records r);"
    "DROP TABLE records; ALTER TABLE records_5 RENAME TO records;" TEVASH_STORE_RECORDS_REST
    "PRAGMA user_version = 5;";
static_assert(kSmallList == 512, "the records table and kMigrateFrom3 name the small list limit");

#undef TEVASH_STORE_RECORDS
#undef TEVASH_STORE_RECORDS_REST

// Read-only on a version 2 to 4 file: its records as this version's. Every
// linked child is numbered in its category there, so its parent stands in for
// list_parent (a query that reads that first checks has_lists, and the order
// within a category is the same in slots and category slots); the indexes
// serve as they are, which are on (parent, ...) for linked records.
constexpr const char kOldRecords[] =
    "CREATE TEMP VIEW records AS SELECT id, category, parent, slot, category_slot,"
    " parent AS list_parent, EXISTS(SELECT 1 FROM main.lists l WHERE l.parent = r.id)"
    " AS has_lists FROM main.records r";
// Read-only on a version 2 file: its lists as this version's.
constexpr const char kOldLists[] =
    "CREATE TEMP VIEW lists AS SELECT *, x'' AS pending FROM main.lists";

// The backend on `db`, an open connection to a record store of this version
// (taken, closed by the backend). With `read_only` every change fails with
// STORE_READ_ONLY.
std::unique_ptr<store_backend> file_backend_on(sqlite3* db, bool read_only);

// Writes a consistent copy of the database on `db` to a new file at `path`;
// false with *error set when it cannot (nothing is left at `path` then).
// REQUIRES: no other thread uses `db` meanwhile.
bool backup_database(sqlite3* db, const std::string& path, std::string* error);

}  // namespace detail
}  // namespace tevhost

#endif  // TEVASH_HOST_FILE_STORE_H
