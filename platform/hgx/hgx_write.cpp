// libhgx's write side: opening a repository for writing, the schema, and the
// operations hgxrepo builds on.
#include "hgx_write.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "hgx_internal.h"

using namespace hgx_detail;

struct hgx_writer {
    sqlite3* db = nullptr;
    Store store;
    std::string path;
    bool created = false;  // the file did not exist before this writer
    bool committed = false;
    std::string message;

    ~hgx_writer() {
        store.clear();
        if (db) {
            if (!committed) sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
            sqlite3_close_v2(db);
        }
        if (created && !committed) {
            // Nothing of a failed first write may stay behind.
            for (const char* suffix : {"", "-wal", "-shm", "-journal"})
                unlink((path + suffix).c_str());
        }
    }
};

namespace {

// Records the store's failure text for the writer and gives -1.
int store_fail(hgx_writer* w) {
    w->message = sqlite3_errmsg(w->db);
    set_error(w->store.fail_code());
    return -1;
}

// Steps a statement that returns no rows, then resets it.
int run(hgx_writer* w, sqlite3_stmt* st) {
    if (!st) return store_fail(w);
    int rc = sqlite3_step(st);
    sqlite3_reset(st);
    return rc == SQLITE_DONE ? 0 : store_fail(w);
}

int exec(sqlite3* db, const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr); }

int owner_kind(const hgx_owner& o) {
    switch (o.kind) {
        case hgx_owner::SERVICE:
            return OWNER_SERVICE;
        case hgx_owner::INSTANCE:
            return OWNER_INSTANCE;
        default:
            return OWNER_PG;
    }
}

bool digits(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}

// Whether a decimal digit string fits below or at the limit's text.
bool fits(std::string_view d, std::string_view limit) {
    while (d.size() > 1 && d[0] == '0') d.remove_prefix(1);
    return d.size() < limit.size() || (d.size() == limit.size() && d <= limit);
}

bool valid_utf8(std::string_view s) {
    size_t i = 0;
    while (i < s.size()) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        size_t n;
        uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            n = 1;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            n = 2;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            n = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        for (size_t k = 1; k <= n; ++k) {
            if (i + k >= s.size()) return false;
            unsigned char cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        static const uint32_t min[] = {0, 0x80, 0x800, 0x10000};
        if (cp < min[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        i += n + 1;
    }
    return true;
}

bool valid_hostname(std::string_view s) {
    if (!s.empty() && s.back() == '.') s.remove_suffix(1);
    if (s.empty() || s.size() > 253) return false;
    size_t start = 0;
    while (start <= s.size()) {
        size_t dot = s.find('.', start);
        std::string_view label =
            s.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start);
        if (label.empty() || label.size() > 63 || label.front() == '-' || label.back() == '-')
            return false;
        for (char c : label)
            if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '-'))
                return false;
        if (dot == std::string_view::npos) break;
        start = dot + 1;
    }
    return true;
}

// An address of the family, with an optional "/prefix" length.
bool valid_address(std::string_view s, int family) {
    std::string addr(s);
    size_t slash = addr.find('/');
    if (slash != std::string::npos) {
        std::string_view bits = std::string_view(addr).substr(slash + 1);
        if (!digits(bits) || bits.size() > 3) return false;
        int n = std::stoi(std::string(bits));
        if (n > (family == AF_INET ? 32 : 128)) return false;
        addr.resize(slash);
    }
    unsigned char buf[sizeof(struct in6_addr)];
    return inet_pton(family, addr.c_str(), buf) == 1;
}

}  // namespace

int hgx_wern_split(const char* wern, hgx_wern_parts* parts) {
    return guarded(-1, [&]() -> int {
        if (!wern || !parts) return fail(HGX_ERROR_INVALID_ARGUMENT);
        WernParts w;
        if (split_wern(wern, &w) < 0) return -1;
        parts->scope_only = w.scope_only;
        parts->scope = w.scope;
        parts->service = w.service;
        parts->has_instance = w.has_instance;
        parts->instance = w.instance;
        parts->path = w.path;
        return 0;
    });
}

bool hgx_valid_name(std::string_view name) { return valid_segment(name); }
bool hgx_valid_service_name(std::string_view name) { return valid_service_name(name); }

int hgx_value_check(hgx_type_t type, std::string_view v, const char** why) {
    const char* reason = nullptr;
    if (v.size() > VALUE_LIMIT) {
        reason = "is longer than 4096 bytes";
    } else if (v.find('\0') != std::string_view::npos) {
        reason = "holds a NUL byte";
    } else {
        switch (type) {
            case HGX_TYPE_BOOLEAN:
                if (v != "true" && v != "false") reason = "is not true or false";
                break;
            case HGX_TYPE_COUNT:
                if (!digits(v))
                    reason = "is not an unsigned decimal number";
                else if (!fits(v, "18446744073709551615"))
                    reason = "is out of range for a count";
                break;
            case HGX_TYPE_INTEGER: {
                bool neg = !v.empty() && v[0] == '-';
                std::string_view d = neg ? v.substr(1) : v;
                if (!digits(d))
                    reason = "is not a decimal integer";
                else if (!fits(d, neg ? "9223372036854775808" : "9223372036854775807"))
                    reason = "is out of range for an integer";
                break;
            }
            case HGX_TYPE_TIME: {
                std::string_view t = !v.empty() && v[0] == '-' ? v.substr(1) : v;
                size_t dot = t.find('.');
                std::string_view frac =
                    dot == std::string_view::npos ? std::string_view("0") : t.substr(dot + 1);
                if (!digits(t.substr(0, dot)) || !digits(frac) || frac.size() > 9 ||
                    !fits(t.substr(0, dot), "9223372036854775807"))
                    reason = "is not a time in seconds (with up to 9 decimals)";
                break;
            }
            case HGX_TYPE_ASTRING:
                break;
            case HGX_TYPE_USTRING:
                if (!valid_utf8(v)) reason = "is not valid UTF-8";
                break;
            case HGX_TYPE_OPAQUE: {
                bool ok = v.size() % 2 == 0;
                for (char c : v)
                    ok = ok && ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') ||
                                (c >= 'A' && c <= 'F'));
                if (!ok) reason = "is not an even number of hexadecimal digits";
                break;
            }
            case HGX_TYPE_HOSTNAME:
                if (!valid_hostname(v)) reason = "is not a host name";
                break;
            case HGX_TYPE_HOST:
                if (!valid_hostname(v) && !valid_address(v, AF_INET) && !valid_address(v, AF_INET6))
                    reason = "is not a host name or address";
                break;
            case HGX_TYPE_NET_ADDRESS:
                if (!valid_address(v, AF_INET) && !valid_address(v, AF_INET6))
                    reason = "is not a network address";
                break;
            case HGX_TYPE_NET_ADDRESS_V4:
                if (!valid_address(v, AF_INET)) reason = "is not an IPv4 address";
                break;
            case HGX_TYPE_NET_ADDRESS_V6:
                if (!valid_address(v, AF_INET6)) reason = "is not an IPv6 address";
                break;
            case HGX_TYPE_WERN: {
                WernParts w;
                if (split_wern(v, &w) < 0) reason = "is not a wern";
                break;
            }
            case HGX_TYPE_URI: {
                size_t colon = v.find(':');
                bool ok = colon != std::string_view::npos && colon > 0 &&
                          ((v[0] >= 'a' && v[0] <= 'z') || (v[0] >= 'A' && v[0] <= 'Z'));
                for (size_t i = 1; ok && i < colon; ++i) {
                    char c = v[i];
                    ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                         (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
                }
                if (!ok) reason = "is not a URI";
                break;
            }
            default:
                reason = "has no valid type";
                break;
        }
    }
    if (why) *why = reason;
    return reason ? fail(HGX_ERROR_INVALID_VALUE) : 0;
}

std::string hgx_values_blob(const std::vector<std::string>& values) {
    std::string blob;
    for (const std::string& v : values) {
        blob += v;
        blob += '\0';
    }
    return blob;
}

hgx_writer_t* hgx_writer_open(const char* path, bool create, std::string* message) {
    return guarded<hgx_writer_t*>(nullptr, [&]() -> hgx_writer_t* {
        std::string file = path ? path : "";
        auto refuse = [&](hgx_error_t code, const std::string& text) -> hgx_writer_t* {
            set_error(code);
            if (message) *message = file + ": " + text;
            return nullptr;
        };
        if (file.empty()) return refuse(HGX_ERROR_INVALID_ARGUMENT, "no repository file named");
        struct stat st;
        bool exists = stat(file.c_str(), &st) == 0;
        if (!exists && errno != ENOENT)
            return refuse(HGX_ERROR_REPOSITORY_ACCESS, std::strerror(errno));
        if (!exists && !create)
            return refuse(HGX_ERROR_NO_REPOSITORY, hgx_strerror(HGX_ERROR_NO_REPOSITORY));
        if (exists && S_ISDIR(st.st_mode))
            return refuse(HGX_ERROR_REPOSITORY_ACCESS, "is a directory");

        std::unique_ptr<hgx_writer> w(new hgx_writer);
        w->path = file;
        int flags = SQLITE_OPEN_READWRITE | (exists ? 0 : SQLITE_OPEN_CREATE);
        int rc = sqlite3_open_v2(file.c_str(), &w->db, flags, nullptr);
        w->created = !exists && rc == SQLITE_OK;
        if (rc != SQLITE_OK) {
            std::string text = w->db ? sqlite3_errmsg(w->db) : "cannot open";
            return refuse(HGX_ERROR_REPOSITORY_ACCESS, "cannot be opened: " + text);
        }
        sqlite3_busy_timeout(w->db, 10000);
        sqlite3* db = w->db;
        auto db_refuse = [&](int code) -> hgx_writer_t* {
            code &= 0xff;  // the primary code of an extended one
            if (code == SQLITE_NOTADB || code == SQLITE_CORRUPT)
                return refuse(HGX_ERROR_NOT_A_REPOSITORY, hgx_strerror(HGX_ERROR_NOT_A_REPOSITORY));
            return refuse(HGX_ERROR_REPOSITORY_ACCESS, sqlite3_errmsg(db));
        };

        // A fresh file, or an existing one that is still empty, gets the
        // schema. Anything else must be a repository of this schema, checked
        // before the journal mode is touched, so that a foreign database is
        // left exactly as it was.
        bool fresh = !exists || st.st_size == 0;
        if (!fresh) {
            int version = -1, app = -1;
            int e = pragma_int(db, "PRAGMA user_version", &version);
            if (!e) e = pragma_int(db, "PRAGMA application_id", &app);
            if (e) return db_refuse(e);
            if (version != HGX_SCHEMA_VERSION || app != HGX_APPLICATION_ID)
                return refuse(HGX_ERROR_SCHEMA_MISMATCH, hgx_strerror(HGX_ERROR_SCHEMA_MISMATCH));
        }
        // WAL, so that readers holding their snapshot and this writer do not
        // block each other.
        if (exec(db, "PRAGMA journal_mode=WAL") != SQLITE_OK) return db_refuse(sqlite3_errcode(db));
        // The -wal and -shm files stay when the writer closes (the log cut
        // to nothing), created like the file itself: a reader that cannot
        // create files in the directory, such as another user reading a
        // repository that root wrote, needs them to read a WAL database.
        int persist = 1;
        sqlite3_file_control(db, "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
        exec(db, "PRAGMA journal_size_limit=0");
        exec(db, "PRAGMA cache_size=-262144");
        exec(db, "PRAGMA temp_store=MEMORY");
        if (exec(db, "BEGIN IMMEDIATE") != SQLITE_OK) return db_refuse(sqlite3_errcode(db));
        if (fresh) {
            std::string schema = SCHEMA_SQL;
            schema += "PRAGMA user_version=" + std::to_string(HGX_SCHEMA_VERSION) + ";";
            schema += "PRAGMA application_id=" + std::to_string(HGX_APPLICATION_ID) + ";";
            if (exec(db, schema.c_str()) != SQLITE_OK) return db_refuse(sqlite3_errcode(db));
        }
        w->store.attach(db);
        return w.release();
    });
}

int hgx_writer_commit(hgx_writer_t* w) {
    if (!w || !w->db) return fail(HGX_ERROR_INVALID_ARGUMENT);
    if (exec(w->db, "COMMIT") != SQLITE_OK) return store_fail(w);
    w->committed = true;
    return 0;
}

void hgx_writer_close(hgx_writer_t* w) { delete w; }

const char* hgx_writer_message(const hgx_writer_t* w) { return w ? w->message.c_str() : ""; }

hgx_id_t hgx_writer_find_service(hgx_writer_t* w, std::string_view name) {
    return guarded<hgx_id_t>(-1, [&]() -> hgx_id_t {
        Row r;
        int rc = w->store.service_by_name(name, &r);
        return rc < 0 ? store_fail(w) : rc ? r.id : 0;
    });
}

hgx_id_t hgx_writer_add_service(hgx_writer_t* w, std::string_view name) {
    return guarded<hgx_id_t>(-1, [&]() -> hgx_id_t {
        if (!valid_service_name(name) || name.size() + 5 > WERN_LIMIT)
            return fail(HGX_ERROR_INVALID_ARGUMENT);
        sqlite3_stmt* st = w->store.stmt("INSERT INTO services(name) VALUES(?1)");
        if (!st) return store_fail(w);
        bind_text(st, 1, name);
        if (run(w, st) < 0) return -1;
        return sqlite3_last_insert_rowid(w->db);
    });
}

int hgx_writer_delete_service(hgx_writer_t* w, hgx_id_t service) {
    static const char* const sql[] = {
        "DELETE FROM props WHERE pg_id IN (SELECT id FROM pgs WHERE service_id = ?1)",
        "DELETE FROM pgs WHERE service_id = ?1",
        ("DELETE FROM snapshots WHERE instance_id IN"
         " (SELECT id FROM instances WHERE service_id = ?1)"),
        "DELETE FROM instances WHERE service_id = ?1",
        "DELETE FROM services WHERE id = ?1",
    };
    for (const char* q : sql) {
        sqlite3_stmt* st = w->store.stmt(q);
        if (!st) return store_fail(w);
        sqlite3_bind_int64(st, 1, service);
        if (run(w, st) < 0) return -1;
    }
    return 0;
}

int hgx_writer_instances(hgx_writer_t* w, hgx_id_t service, std::vector<hgx_id_t>* out) {
    return guarded(-1, [&]() -> int {
        std::vector<Row> rows;
        if (w->store.instances(service, &rows) < 0) return store_fail(w);
        out->clear();
        for (const Row& r : rows) out->push_back(r.id);
        return 0;
    });
}

hgx_id_t hgx_writer_find_instance(hgx_writer_t* w, hgx_id_t service, std::string_view name) {
    return guarded<hgx_id_t>(-1, [&]() -> hgx_id_t {
        Row r;
        int rc = w->store.instance_by_name(service, name, &r);
        return rc < 0 ? store_fail(w) : rc ? r.id : 0;
    });
}

hgx_id_t hgx_writer_add_instance(hgx_writer_t* w, hgx_id_t service, std::string_view name) {
    return guarded<hgx_id_t>(-1, [&]() -> hgx_id_t {
        if (!valid_segment(name)) return fail(HGX_ERROR_INVALID_ARGUMENT);
        sqlite3_stmt* st = w->store.stmt("INSERT INTO instances(service_id, name) VALUES(?1, ?2)");
        if (!st) return store_fail(w);
        sqlite3_bind_int64(st, 1, service);
        bind_text(st, 2, name);
        if (run(w, st) < 0) return -1;
        return sqlite3_last_insert_rowid(w->db);
    });
}

int hgx_writer_delete_instance(hgx_writer_t* w, hgx_id_t service, hgx_id_t instance) {
    static const char* const sql[] = {
        ("DELETE FROM props WHERE pg_id IN"
         " (SELECT id FROM pgs WHERE service_id = ?1 AND instance_id = ?2)"),
        "DELETE FROM pgs WHERE service_id = ?1 AND instance_id = ?2",
        "DELETE FROM snapshots WHERE instance_id = ?2",
        "DELETE FROM instances WHERE id = ?2",
    };
    for (const char* q : sql) {
        sqlite3_stmt* st = w->store.stmt(q);
        if (!st) return store_fail(w);
        sqlite3_bind_int64(st, 1, service);
        sqlite3_bind_int64(st, 2, instance);
        if (run(w, st) < 0) return -1;
    }
    return 0;
}

int hgx_writer_find_pg(hgx_writer_t* w, const hgx_owner& owner, std::string_view name,
                       hgx_owner* pg) {
    return guarded(-1, [&]() -> int {
        Row r;
        int rc = w->store.pg_by_name(owner_kind(owner), owner.id, name, &r);
        if (rc < 0) return store_fail(w);
        if (rc && pg) *pg = {hgx_owner::PG, r.id, owner.service, owner.instance};
        return rc;
    });
}

namespace {

// Inserts a group row below an owner; snapshot 0 for live groups.
hgx_id_t insert_pg(hgx_writer* w, int kind, hgx_id_t owner, std::string_view name,
                   std::string_view type, hgx_id_t service, hgx_id_t instance, hgx_id_t snapshot) {
    sqlite3_stmt* st = w->store.stmt(
        "INSERT INTO pgs(owner_kind, owner_id, name, type, service_id, instance_id, snapshot_id)"
        " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)");
    if (!st) return store_fail(w);
    sqlite3_bind_int(st, 1, kind);
    sqlite3_bind_int64(st, 2, owner);
    bind_text(st, 3, name);
    bind_text(st, 4, type);
    sqlite3_bind_int64(st, 5, service);
    sqlite3_bind_int64(st, 6, instance);
    sqlite3_bind_int64(st, 7, snapshot);
    if (run(w, st) < 0) return -1;
    return sqlite3_last_insert_rowid(w->db);
}

int insert_prop(hgx_writer* w, hgx_id_t pg, std::string_view name, int type,
                std::string_view blob) {
    sqlite3_stmt* st =
        w->store.stmt("INSERT INTO props(pg_id, name, type, vals) VALUES(?1, ?2, ?3, ?4)");
    if (!st) return store_fail(w);
    sqlite3_bind_int64(st, 1, pg);
    bind_text(st, 2, name);
    sqlite3_bind_int(st, 3, type);
    sqlite3_bind_blob(st, 4, blob.data(), static_cast<int>(blob.size()), SQLITE_TRANSIENT);
    return run(w, st);
}

// Copies one group of a composed view, with its properties and nested groups,
// into a snapshot.
int copy_composed(hgx_writer* w, const ComposedPg& g, int kind, hgx_id_t owner, hgx_id_t service,
                  hgx_id_t instance, hgx_id_t snapshot) {
    hgx_id_t id = insert_pg(w, kind, owner, g.name, g.type, service, instance, snapshot);
    if (id < 0) return -1;
    std::vector<Row> props;
    if (composed_props(w->store, g.inst, g.svc, &props) < 0) return store_fail(w);
    for (const Row& p : props)
        if (insert_prop(w, id, p.name, p.type, p.text) < 0) return -1;
    std::vector<ComposedPg> children;
    if (composed_children(w->store, g.inst, g.svc, &children) < 0) return store_fail(w);
    for (const ComposedPg& c : children)
        if (copy_composed(w, c, OWNER_PG, id, service, instance, snapshot) < 0) return -1;
    return 0;
}

}  // namespace

int hgx_writer_add_pg(hgx_writer_t* w, const hgx_owner& owner, std::string_view name,
                      std::string_view type, hgx_owner* pg) {
    return guarded(-1, [&]() -> int {
        if (!valid_segment(name) || type.size() > PG_TYPE_LIMIT ||
            type.find('\0') != std::string_view::npos)
            return fail(HGX_ERROR_INVALID_ARGUMENT);
        hgx_id_t id =
            insert_pg(w, owner_kind(owner), owner.id, name, type, owner.service, owner.instance, 0);
        if (id < 0) return -1;
        if (pg) *pg = {hgx_owner::PG, id, owner.service, owner.instance};
        return 0;
    });
}

int hgx_writer_delete_pg(hgx_writer_t* w, const hgx_owner& pg) {
    static const char* const sql[] = {
        ("WITH RECURSIVE sub(id) AS (SELECT ?1 UNION ALL SELECT p.id FROM pgs p, sub"
         " WHERE p.owner_kind = 3 AND p.owner_id = sub.id)"
         " DELETE FROM props WHERE pg_id IN sub"),
        ("WITH RECURSIVE sub(id) AS (SELECT ?1 UNION ALL SELECT p.id FROM pgs p, sub"
         " WHERE p.owner_kind = 3 AND p.owner_id = sub.id)"
         " DELETE FROM pgs WHERE id IN sub"),
    };
    static_assert(OWNER_PG == 3, "the recursive deletes name the group owner kind");
    for (const char* q : sql) {
        sqlite3_stmt* st = w->store.stmt(q);
        if (!st) return store_fail(w);
        sqlite3_bind_int64(st, 1, pg.id);
        if (run(w, st) < 0) return -1;
    }
    return 0;
}

int hgx_writer_find_property(hgx_writer_t* w, const hgx_owner& pg, std::string_view name,
                             hgx_type_t* type) {
    return guarded(-1, [&]() -> int {
        Row r;
        int rc = w->store.prop_by_name(pg.id, name, &r);
        if (rc < 0) return store_fail(w);
        if (rc && type) *type = static_cast<hgx_type_t>(r.type);
        return rc;
    });
}

int hgx_writer_add_property(hgx_writer_t* w, const hgx_owner& pg, std::string_view name,
                            hgx_type_t type, std::string_view blob) {
    return guarded(-1, [&]() -> int { return insert_prop(w, pg.id, name, type, blob); });
}

int hgx_writer_set_property(hgx_writer_t* w, const hgx_owner& pg, std::string_view name,
                            hgx_type_t type, const std::vector<std::string>& values) {
    return guarded(-1, [&]() -> int {
        if (!valid_segment(name) || !hgx_type_to_string(type))
            return fail(HGX_ERROR_INVALID_ARGUMENT);
        for (const std::string& v : values)
            if (hgx_value_check(type, v) < 0) return -1;
        sqlite3_stmt* st = w->store.stmt(
            "INSERT INTO props(pg_id, name, type, vals) VALUES(?1, ?2, ?3, ?4)"
            " ON CONFLICT(pg_id, name) DO UPDATE SET type = excluded.type, vals = excluded.vals");
        if (!st) return store_fail(w);
        std::string blob = hgx_values_blob(values);
        sqlite3_bind_int64(st, 1, pg.id);
        bind_text(st, 2, name);
        sqlite3_bind_int(st, 3, type);
        sqlite3_bind_blob(st, 4, blob.data(), static_cast<int>(blob.size()), SQLITE_TRANSIENT);
        return run(w, st);
    });
}

int hgx_writer_delete_property(hgx_writer_t* w, const hgx_owner& pg, std::string_view name) {
    sqlite3_stmt* st = w->store.stmt("DELETE FROM props WHERE pg_id = ?1 AND name = ?2");
    if (!st) return store_fail(w);
    sqlite3_bind_int64(st, 1, pg.id);
    bind_text(st, 2, name);
    if (run(w, st) < 0) return -1;
    return sqlite3_changes(w->db) ? 0 : fail(HGX_ERROR_NOT_FOUND);
}

int hgx_writer_take_snapshot(hgx_writer_t* w, hgx_id_t service, hgx_id_t instance,
                             std::string_view name) {
    return guarded(-1, [&]() -> int {
        if (!valid_segment(name)) return fail(HGX_ERROR_INVALID_ARGUMENT);
        Row old;
        int rc = w->store.snapshot_by_name(instance, name, &old);
        if (rc < 0) return store_fail(w);
        if (rc) {
            static const char* const sql[] = {
                ("DELETE FROM props WHERE pg_id IN (SELECT id FROM pgs WHERE service_id = ?1"
                 " AND instance_id = ?2 AND snapshot_id = ?3)"),
                "DELETE FROM pgs WHERE service_id = ?1 AND instance_id = ?2 AND snapshot_id = ?3",
                "DELETE FROM snapshots WHERE id = ?3",
            };
            for (const char* q : sql) {
                sqlite3_stmt* st = w->store.stmt(q);
                if (!st) return store_fail(w);
                sqlite3_bind_int64(st, 1, service);
                sqlite3_bind_int64(st, 2, instance);
                sqlite3_bind_int64(st, 3, old.id);
                if (run(w, st) < 0) return -1;
            }
        }
        sqlite3_stmt* st = w->store.stmt("INSERT INTO snapshots(instance_id, name) VALUES(?1, ?2)");
        if (!st) return store_fail(w);
        sqlite3_bind_int64(st, 1, instance);
        bind_text(st, 2, name);
        if (run(w, st) < 0) return -1;
        hgx_id_t snap = sqlite3_last_insert_rowid(w->db);
        std::vector<ComposedPg> top;
        if (composed_top(w->store, service, instance, &top) < 0) return store_fail(w);
        for (const ComposedPg& g : top)
            if (copy_composed(w, g, OWNER_SNAPSHOT, snap, service, instance, snap) < 0) return -1;
        return 0;
    });
}
