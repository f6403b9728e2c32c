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
//   records(id, category, parent, slot, category_slot)
//                               parent 0 when unlinked; slot orders a parent's
//                               children, category_slot those of one category;
//                               indexed for linked records only (a query on
//                               them says `parent != 0` to use the indexes)
//   lists(parent, category, used, live, top, skipped, head, pending)
//                               one per parent with children (category 0) and
//                               per category among them: its order_state, and
//                               the slots of holes not counted in its nodes
//                               yet (8-byte little-endian each, at most
//                               kPendingHoles; an unlink adds one, and the
//                               nodes take them all when that many gathered)
//   holes(parent, category, node, count)
//                               its nodes that count a hole (others are 0)
//   members(record, member, kind, value)
//                               the stored bytes of one member (their length is
//                               the member's width) and its member_kind
// Link order is kept as link_order.h describes: the child at an order, a child
// count and a parent each cost O(log n) index reads. A list is packed when its
// holes are at least kPackHoles and more than four times its children (the
// tree stays O(children) in size, a pack is amortised O(1) per hole).
#ifndef TEVASH_HOST_FILE_STORE_H
#define TEVASH_HOST_FILE_STORE_H

#include <sqlite3.h>

#include <memory>
#include <string>

#include "store_backend.h"

namespace tevhost {
namespace detail {

constexpr int kSchemaVersion = 3;
// Version 2 kept next_id as the first id not handed out, indexed every record
// and counted every hole in its nodes (no lists.pending); it is read as it is
// (kOldLists stands in for its lists) and migrated when opened for writing.
constexpr int kOldSchemaVersion = 2;
constexpr int kApplicationId = 0x54455653;  // "TEVS"
constexpr unsigned int kPendingHoles = 64;
constexpr unsigned long long kPackHoles = 64;

constexpr const char kCreateSchema[] =
    "CREATE TABLE meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL);"
    "INSERT INTO meta VALUES('next_id', 1);"
    "CREATE TABLE records(id INTEGER PRIMARY KEY, category INTEGER NOT NULL,"
    " parent INTEGER NOT NULL DEFAULT 0, slot INTEGER NOT NULL DEFAULT 0,"
    " category_slot INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX records_by_slot ON records(parent, slot) WHERE parent != 0;"
    "CREATE INDEX records_by_category_slot ON records(parent, category, category_slot)"
    " WHERE parent != 0;"
    "CREATE TABLE lists(parent INTEGER NOT NULL, category INTEGER NOT NULL,"
    " used INTEGER NOT NULL, live INTEGER NOT NULL, top INTEGER NOT NULL,"
    " skipped INTEGER NOT NULL, head INTEGER NOT NULL, pending BLOB NOT NULL DEFAULT x'',"
    " PRIMARY KEY(parent, category)) WITHOUT ROWID;"
    "CREATE TABLE holes(parent INTEGER NOT NULL, category INTEGER NOT NULL,"
    " node INTEGER NOT NULL, count INTEGER NOT NULL,"
    " PRIMARY KEY(parent, category, node)) WITHOUT ROWID;"
    "CREATE TABLE members(record INTEGER NOT NULL, member INTEGER NOT NULL,"
    " kind INTEGER NOT NULL, value BLOB NOT NULL, PRIMARY KEY(record, member)) WITHOUT ROWID;";

// Makes a version 2 store a version 3 one (its next_id is a valid mark as it is).
constexpr const char kMigrateFrom2[] =
    "ALTER TABLE lists ADD COLUMN pending BLOB NOT NULL DEFAULT x'';"
    "DROP INDEX records_by_slot; DROP INDEX records_by_category_slot;"
    "CREATE INDEX records_by_slot ON records(parent, slot) WHERE parent != 0;"
    "CREATE INDEX records_by_category_slot ON records(parent, category, category_slot)"
    " WHERE parent != 0;"
    "PRAGMA user_version = 3;";

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
