// The member schema in the persistent store's file: one more table, made when a
// schema is first kept (a file without it keeps none):
//   member_schema(member, name, kind, size, initial, ranged, min, max, description)
//                               one row per declared member
// Read again whenever another connection has committed since it was read.
#include <unordered_map>

#include "sqlite_db.h"
#include "store_backend.h"

namespace tevhost {
namespace detail {
namespace {

std::string text_of(const query& q, int column) {
    unsigned int size = 0;
    const unsigned char* data = q.blob(column, &size);
    return data == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
}

bool has_table(sqlite_db& db) {
    query q = db.sql(
        "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = 'member_schema'");
    return q.step() && q.integer(0) > 0;
}

std::vector<member_schema> read_rows(sqlite_db& db) {
    std::vector<member_schema> out;
    if (!has_table(db)) return out;
    query q = db.sql(
        "SELECT member, name, kind, size, initial, ranged, min, max, description"
        " FROM member_schema ORDER BY member");
    while (q.step()) {
        member_schema m;
        m.member_id = static_cast<unsigned int>(q.integer(0));
        m.name = text_of(q, 1);
        const long long kind = q.integer(2);
        m.kind = kind >= 0 && kind <= static_cast<long long>(member_kind::bytes)
                     ? static_cast<member_kind>(kind)
                     : member_kind::bytes;
        m.size = static_cast<unsigned int>(q.integer(3));
        unsigned int size = 0;
        const unsigned char* initial = q.blob(4, &size);
        m.initial.assign(initial, initial + size);
        m.ranged = q.integer(5) != 0;
        m.min = q.integer(6);
        m.max = q.integer(7);
        m.description = text_of(q, 8);
        if (schema_fault(m).empty()) out.push_back(std::move(m));  // a damaged row is skipped
    }
    return out;
}

}  // namespace

std::shared_ptr<const kept_schema> file_schema::current(sqlite_db& db) {
    std::shared_ptr<const kept_schema> out;
    const unsigned int rc = db.single(false, [&] {
        query v = db.sql("PRAGMA data_version");
        const long long version = v.step() ? v.integer(0) : -1;
        if (!cached_ || version != version_) {
            cached_ = make_kept_schema(read_rows(db));
            version_ = version;
        }
        out = cached_;
        return 0u;
    });
    return rc == 0 && out ? out : make_kept_schema({});
}

unsigned int file_schema::keep(sqlite_db& db, const std::vector<member_schema>& members,
                               std::string* error) {
    std::unordered_map<unsigned int, const member_schema*> by_id;
    for (const member_schema& m : members) by_id[m.member_id] = &m;
    const unsigned int rc = db.transact(true, [&] {
        query s = db.sql("SELECT record, member, kind, length(value) FROM members");
        while (s.step()) {
            auto it = by_id.find(static_cast<unsigned int>(s.integer(1)));
            if (it == by_id.end()) continue;
            const long long kind = s.integer(2);
            *error = schema_conflict(*it->second, static_cast<unsigned int>(s.integer(0)),
                                     kind >= 0 && kind <= static_cast<long long>(member_kind::bytes)
                                         ? static_cast<member_kind>(kind)
                                         : member_kind::bytes,
                                     static_cast<unsigned int>(s.integer(3)));
            if (!error->empty()) return STORE_WIDTH;
        }
        db.sql(
              "CREATE TABLE IF NOT EXISTS member_schema(member INTEGER PRIMARY KEY,"
              " name TEXT NOT NULL, kind INTEGER NOT NULL, size INTEGER NOT NULL,"
              " initial BLOB NOT NULL, ranged INTEGER NOT NULL, min INTEGER NOT NULL,"
              " max INTEGER NOT NULL, description TEXT NOT NULL)")
            .run();
        db.sql("DELETE FROM member_schema").run();
        for (const member_schema& m : members) {
            db.sql("INSERT INTO member_schema VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)")
                .bind(1, m.member_id)
                .bind_text(2, m.name.c_str())
                .bind(3, static_cast<long long>(m.kind))
                .bind(4, m.size)
                .bind_blob(5, m.initial.data(), static_cast<unsigned int>(m.initial.size()))
                .bind(6, m.ranged ? 1 : 0)
                .bind(7, m.min)
                .bind(8, m.max)
                .bind_text(9, m.description.c_str())
                .run();
        }
        return 0u;
    });
    // Read again at the next call: this connection's own commits leave the data
    // version as it was, and an enclosing store transaction may still roll back.
    db.with_connection([&](sqlite3*) { cached_.reset(); });
    return rc;
}

}  // namespace detail
}  // namespace tevhost
