// The storage behind the host record store: the interface both backends (in
// memory, in an SQLite file) implement. A backend may be read by several
// threads at once and changed by one at a time: the public store operations
// call it under the store's lock (store_lock.h), shared for the methods that
// only read (child, child_count, child_direct, child_count_direct, parent,
// category, get, member, members, records), exclusive for the others. A backend
// adds what else it needs (the file backend keeps other processes out with
// transactions).
//
// The public operations check their seams (call log, failure injection), the
// member schema and their out-pointers (never null here). Every method returns
// 0 or one of the tevhost::STORE_* codes and, on failure, changes nothing and
// writes no out-value.
#ifndef TEVASH_HOST_STORE_BACKEND_H
#define TEVASH_HOST_STORE_BACKEND_H

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/tev_host.h"
#include "member_rules.h"

namespace tevhost {
namespace detail {

// The schema a store keeps: its members and their declarations.
struct kept_schema {
    std::vector<member_schema> members;  // ascending member id
    std::unordered_map<unsigned int, member_decl> decls;
};
// `members` as a kept schema.
std::shared_ptr<const kept_schema> make_kept_schema(std::vector<member_schema> members);

class store_backend {
public:
    virtual ~store_backend() = default;

    virtual unsigned int make(unsigned int category, unsigned int* handler_id) = 0;
    virtual unsigned int make_and_copy(unsigned int category, unsigned int src_handler_id,
                                       unsigned int* handler_id) = 0;
    virtual unsigned int copy(unsigned int src_handler_id, unsigned int dst_handler_id) = 0;
    virtual unsigned int init(unsigned int handler_id) = 0;
    virtual unsigned int remove(unsigned int handler_id) = 0;
    virtual unsigned int set_link(unsigned int parent_category, unsigned int parent_handler_id,
                                  unsigned int child_category, unsigned int child_handler_id) = 0;
    virtual unsigned int delete_link(unsigned int category, unsigned int handler_id) = 0;
    virtual unsigned int child(unsigned int parent_category, unsigned int parent_handler_id,
                               unsigned int child_category, unsigned int order,
                               unsigned int* child_handler_id) = 0;
    virtual unsigned int child_count(unsigned int parent_category, unsigned int parent_handler_id,
                                     unsigned int child_category, unsigned int* count) = 0;
    virtual unsigned int child_direct(unsigned int parent_handler_id, unsigned int order,
                                      unsigned int* child_handler_id) = 0;
    virtual unsigned int child_count_direct(unsigned int parent_handler_id,
                                            unsigned int* count) = 0;
    virtual unsigned int parent(unsigned int child_category, unsigned int child_handler_id,
                                unsigned int* parent_handler_id) = 0;
    virtual unsigned int category(unsigned int handler_id, unsigned int* category) = 0;
    // Writes what read_rule reports into `value` (member_rules.h). `decl` is
    // null for an undeclared member.
    virtual unsigned int get(unsigned int handler_id, unsigned int member_id,
                             const member_decl* decl, void* value) = 0;
    // Stores `width` bytes of `kind`, as write_rule settles them (member_rules.h).
    virtual unsigned int set(unsigned int handler_id, unsigned int member_id,
                             const member_decl* decl, const unsigned char* bytes,
                             unsigned int width, member_kind kind, bool exact) = 0;
    // What read_rule reports, with its kind (`decl` null when undeclared).
    virtual unsigned int member(unsigned int handler_id, unsigned int member_id,
                                const member_decl* decl, member_value* out) = 0;
    // The stored values, ascending member id; empty when there is no such record.
    virtual std::vector<member_value> members(unsigned int handler_id) = 0;

    // A transaction that the following calls join (see store_transaction):
    // begin returns 0 or STORE_IO; commit returns 0, or STORE_IO after rolling
    // back; rollback undoes everything since begin (nothing when none is open).
    virtual unsigned int begin() = 0;
    virtual unsigned int commit() = 0;
    virtual void rollback() = 0;

    virtual void clear() = 0;
    // Whether every change fails with STORE_READ_ONLY.
    virtual bool read_only() const { return false; }
    // Writes a consistent copy of the store to a new file at `path`; false with
    // *error set when it cannot (nothing is left at `path` then).
    virtual bool backup(const std::string& path, std::string* error) {
        (void)path;
        *error = "the in-memory store has no file to back up";
        return false;
    }
    virtual std::vector<record_info> records() = 0;

    // The schema the store keeps (never null; empty when none): the one another
    // process sharing the store kept last. Called under the shared lock.
    virtual std::shared_ptr<const kept_schema> schema() = 0;
    // Keeps `members` (sound, ascending id, unique) as the schema, in one
    // transaction: STORE_WIDTH with *error set when a stored value contradicts
    // it (schema_conflict), else 0 or STORE_READ_ONLY/STORE_IO.
    virtual unsigned int keep_schema(const std::vector<member_schema>& members,
                                     std::string* error) = 0;
};

class sqlite_db;

// The schema of one store file, as its connection last read it
// (file_store_schema.cpp). Another process's schema is seen at the next call
// after it committed (the connection's data version tells). Every method runs
// inside the connection's mutex, which guards the cache too.
class file_schema {
public:
    // The kept schema (empty when the file keeps none or cannot be read).
    std::shared_ptr<const kept_schema> current(sqlite_db& db);
    // store_backend::keep_schema on the file.
    unsigned int keep(sqlite_db& db, const std::vector<member_schema>& members, std::string* error);

private:
    std::shared_ptr<const kept_schema> cached_;  // null: read it again
    long long version_ = -1;                     // the data version it was read at
};

// A fresh in-memory backend.
std::unique_ptr<store_backend> make_memory_backend();

// Opens the persistent backend on `path` (creating the file when missing); null
// with *error set when it cannot. A file this user may not write (or that sits
// in a directory this user may not write), or `read_only`, is opened read-only:
// it must exist and nothing is written to it.
std::unique_ptr<store_backend> make_file_backend(const std::string& path, std::string* error,
                                                 bool read_only = false);

}  // namespace detail
}  // namespace tevhost

#endif  // TEVASH_HOST_STORE_BACKEND_H
