// Cached statements, row readers, the composed view and wern syntax, shared by
// the read and the write side.
#include "hgx_internal.h"

namespace hgx_detail {

const char* const SCHEMA_SQL =
    "CREATE TABLE services(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE);"
    "CREATE TABLE instances(id INTEGER PRIMARY KEY, service_id INTEGER NOT NULL,"
    " name TEXT NOT NULL, UNIQUE(service_id, name));"
    "CREATE TABLE snapshots(id INTEGER PRIMARY KEY, instance_id INTEGER NOT NULL,"
    " name TEXT NOT NULL, UNIQUE(instance_id, name));"
    "CREATE TABLE pgs(id INTEGER PRIMARY KEY, owner_kind INTEGER NOT NULL,"
    " owner_id INTEGER NOT NULL, name TEXT NOT NULL, type TEXT NOT NULL,"
    " service_id INTEGER NOT NULL, instance_id INTEGER NOT NULL,"
    " snapshot_id INTEGER NOT NULL, UNIQUE(owner_kind, owner_id, name));"
    "CREATE INDEX pgs_root ON pgs(service_id, instance_id, snapshot_id);"
    "CREATE TABLE props(id INTEGER PRIMARY KEY, pg_id INTEGER NOT NULL,"
    " name TEXT NOT NULL, type INTEGER NOT NULL, vals BLOB NOT NULL, UNIQUE(pg_id, name));";

namespace {
thread_local hgx_error_t last_error = HGX_ERROR_NONE;
}

void set_error(hgx_error_t code) { last_error = code; }
hgx_error_t get_error() { return last_error; }

void Store::clear() {
    for (auto& [sql, st] : cache_) sqlite3_finalize(st);
    cache_.clear();
}

sqlite3_stmt* Store::stmt(const char* sql) {
    auto it = cache_.find(sql);
    if (it != cache_.end()) {
        sqlite3_reset(it->second);
        sqlite3_clear_bindings(it->second);
        return it->second;
    }
    sqlite3_stmt* st = nullptr;
    if (!db_ ||
        sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &st, nullptr) != SQLITE_OK) {
        sqlite3_finalize(st);
        set_error(fail_code());
        return nullptr;
    }
    cache_.emplace(sql, st);
    return st;
}

hgx_error_t Store::fail_code() const {
    if (!db_) return HGX_ERROR_NOT_BOUND;
    switch (sqlite3_errcode(db_)) {
        case SQLITE_NOMEM:
            return HGX_ERROR_NO_MEMORY;
        case SQLITE_CONSTRAINT:
            return HGX_ERROR_EXISTS;
        case SQLITE_READONLY:
            return HGX_ERROR_PERMISSION_DENIED;
        default:
            return HGX_ERROR_CONNECTION_BROKEN;
    }
}

static void read_row(sqlite3_stmt* st, Row* r, int text_col, int type_col) {
    r->id = sqlite3_column_int64(st, 0);
    const unsigned char* n = sqlite3_column_text(st, 1);
    r->name.assign(n ? reinterpret_cast<const char*>(n) : "",
                   static_cast<size_t>(sqlite3_column_bytes(st, 1)));
    if (text_col >= 0) {
        const void* b = sqlite3_column_blob(st, text_col);
        r->text.assign(b ? static_cast<const char*>(b) : "",
                       static_cast<size_t>(sqlite3_column_bytes(st, text_col)));
    }
    if (type_col >= 0) r->type = sqlite3_column_int(st, type_col);
}

int Store::rows(sqlite3_stmt* st, std::vector<Row>* out, int text_col, int type_col) {
    out->clear();
    int rc;
    while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
        out->emplace_back();
        read_row(st, &out->back(), text_col, type_col);
    }
    sqlite3_reset(st);
    if (rc != SQLITE_DONE) {
        set_error(fail_code());
        return -1;
    }
    return 0;
}

int Store::row(sqlite3_stmt* st, Row* out, int text_col, int type_col) {
    int rc = sqlite3_step(st);
    if (rc == SQLITE_ROW) {
        read_row(st, out, text_col, type_col);
        sqlite3_reset(st);
        return 1;
    }
    sqlite3_reset(st);
    if (rc == SQLITE_DONE) return 0;
    set_error(fail_code());
    return -1;
}

void bind_text(sqlite3_stmt* st, int i, std::string_view s) {
    sqlite3_bind_text(st, i, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
}

int pragma_int(sqlite3* db, const char* sql, int* out) {
    sqlite3_stmt* st = nullptr;
    int rc = sqlite3_prepare_v2(db, sql, -1, &st, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_step(st);
    if (rc == SQLITE_ROW) *out = sqlite3_column_int(st, 0);
    sqlite3_finalize(st);
    return rc == SQLITE_ROW ? 0 : sqlite3_extended_errcode(db);
}

int Store::services(std::vector<Row>* out) {
    sqlite3_stmt* st = stmt("SELECT id, name FROM services ORDER BY name");
    return st ? rows(st, out) : -1;
}

int Store::service_by_name(std::string_view name, Row* out) {
    sqlite3_stmt* st = stmt("SELECT id, name FROM services WHERE name = ?1");
    if (!st) return -1;
    bind_text(st, 1, name);
    return row(st, out);
}

int Store::instances(int64_t service, std::vector<Row>* out) {
    sqlite3_stmt* st = stmt("SELECT id, name FROM instances WHERE service_id = ?1 ORDER BY name");
    if (!st) return -1;
    sqlite3_bind_int64(st, 1, service);
    return rows(st, out);
}

int Store::instance_by_name(int64_t service, std::string_view name, Row* out) {
    sqlite3_stmt* st = stmt("SELECT id, name FROM instances WHERE service_id = ?1 AND name = ?2");
    if (!st) return -1;
    sqlite3_bind_int64(st, 1, service);
    bind_text(st, 2, name);
    return row(st, out);
}

int Store::snapshot_by_name(int64_t instance, std::string_view name, Row* out) {
    sqlite3_stmt* st = stmt("SELECT id, name FROM snapshots WHERE instance_id = ?1 AND name = ?2");
    if (!st) return -1;
    sqlite3_bind_int64(st, 1, instance);
    bind_text(st, 2, name);
    return row(st, out);
}

int Store::pgs(int kind, int64_t owner, std::vector<Row>* out) {
    sqlite3_stmt* st = stmt(
        "SELECT id, name, type FROM pgs WHERE owner_kind = ?1 AND owner_id = ?2 ORDER BY name");
    if (!st) return -1;
    sqlite3_bind_int(st, 1, kind);
    sqlite3_bind_int64(st, 2, owner);
    return rows(st, out, 2);
}

int Store::pg_by_name(int kind, int64_t owner, std::string_view name, Row* out) {
    sqlite3_stmt* st = stmt(
        "SELECT id, name, type FROM pgs WHERE owner_kind = ?1 AND owner_id = ?2 AND name = ?3");
    if (!st) return -1;
    sqlite3_bind_int(st, 1, kind);
    sqlite3_bind_int64(st, 2, owner);
    bind_text(st, 3, name);
    return row(st, out, 2);
}

int Store::props(int64_t pg, std::vector<Row>* out) {
    sqlite3_stmt* st =
        stmt("SELECT id, name, vals, type FROM props WHERE pg_id = ?1 ORDER BY name");
    if (!st) return -1;
    sqlite3_bind_int64(st, 1, pg);
    return rows(st, out, 2, 3);
}

int Store::prop_by_name(int64_t pg, std::string_view name, Row* out) {
    sqlite3_stmt* st =
        stmt("SELECT id, name, vals, type FROM props WHERE pg_id = ?1 AND name = ?2");
    if (!st) return -1;
    sqlite3_bind_int64(st, 1, pg);
    bind_text(st, 2, name);
    return row(st, out, 2, 3);
}

namespace {

// Merges two lists sorted by name: every entry of `own` stands, and entries of
// `inherited` whose name `own` lacks are added. The result stays sorted.
std::vector<ComposedPg> merge_pgs(const std::vector<Row>& own, const std::vector<Row>& inherited) {
    std::vector<ComposedPg> out;
    out.reserve(own.size() + inherited.size());
    size_t i = 0, j = 0;
    while (i < own.size() || j < inherited.size()) {
        int c = i == own.size()         ? 1
                : j == inherited.size() ? -1
                                        : own[i].name.compare(inherited[j].name);
        if (c < 0) {
            out.push_back({own[i].id, 0, own[i].name, own[i].text});
            ++i;
        } else if (c > 0) {
            out.push_back({0, inherited[j].id, inherited[j].name, inherited[j].text});
            ++j;
        } else {
            out.push_back({own[i].id, inherited[j].id, own[i].name, own[i].text});
            ++i;
            ++j;
        }
    }
    return out;
}

std::vector<Row> merge_props(std::vector<Row> own, const std::vector<Row>& inherited) {
    if (inherited.empty()) return own;
    std::vector<Row> out;
    out.reserve(own.size() + inherited.size());
    size_t i = 0, j = 0;
    while (i < own.size() || j < inherited.size()) {
        int c = i == own.size()         ? 1
                : j == inherited.size() ? -1
                                        : own[i].name.compare(inherited[j].name);
        if (c <= 0) {
            out.push_back(std::move(own[i]));
            ++i;
            if (c == 0) ++j;
        } else {
            out.push_back(inherited[j]);
            ++j;
        }
    }
    return out;
}

}  // namespace

int composed_children(Store& s, int64_t inst_pg, int64_t svc_pg, std::vector<ComposedPg>* out) {
    std::vector<Row> a, b;
    if (inst_pg && s.pgs(OWNER_PG, inst_pg, &a) < 0) return -1;
    if (svc_pg && s.pgs(OWNER_PG, svc_pg, &b) < 0) return -1;
    *out = merge_pgs(a, b);
    return 0;
}

int composed_top(Store& s, int64_t service, int64_t instance, std::vector<ComposedPg>* out) {
    std::vector<Row> a, b;
    if (s.pgs(OWNER_INSTANCE, instance, &a) < 0 || s.pgs(OWNER_SERVICE, service, &b) < 0) return -1;
    *out = merge_pgs(a, b);
    return 0;
}

int composed_props(Store& s, int64_t inst_pg, int64_t svc_pg, std::vector<Row>* out) {
    std::vector<Row> a, b;
    if (inst_pg && s.props(inst_pg, &a) < 0) return -1;
    if (svc_pg && s.props(svc_pg, &b) < 0) return -1;
    *out = merge_props(std::move(a), b);
    return 0;
}

static bool alnum(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool valid_segment(std::string_view s) {
    // Not strchr: it would take a NUL byte in the name for the set's terminator.
    constexpr std::string_view punctuation = "_.,+-";
    if (s.empty() || !alnum(s[0])) return false;
    for (char c : s)
        if (!alnum(c) && punctuation.find(c) == std::string_view::npos) return false;
    return true;
}

bool valid_service_name(std::string_view s) {
    if (s.empty()) return false;
    size_t start = 0;
    while (true) {
        size_t slash = s.find('/', start);
        if (!valid_segment(
                s.substr(start, slash == std::string_view::npos ? slash : slash - start)))
            return false;
        if (slash == std::string_view::npos) return true;
        start = slash + 1;
    }
}

int split_wern(std::string_view w, WernParts* out) {
    *out = WernParts{};
    out->scope = "localhost";
    auto bad = [] {
        set_error(HGX_ERROR_INVALID_ARGUMENT);
        return -1;
    };
    if (w.size() > WERN_LIMIT || w.substr(0, 4) != "wrn:") return bad();
    std::string_view rest = w.substr(4);
    if (rest.substr(0, 2) == "//") {
        size_t end = rest.find('/', 2);
        std::string_view scope = rest.substr(2, end == std::string_view::npos ? end : end - 2);
        if (!valid_segment(scope)) return bad();
        out->has_scope = true;
        out->scope = scope;
        if (end == std::string_view::npos || end + 1 == rest.size()) {
            // "wrn://localhost" and "wrn://localhost/" name the scope alone.
            out->scope_only = true;
            return 0;
        }
        rest = rest.substr(end);
    }
    if (rest.empty() || rest[0] != '/') return bad();
    std::string_view body = rest.substr(1);
    std::string_view head = body, rel;
    bool has_rel = false;
    size_t sep = body.find("/:");
    if (sep != std::string_view::npos) {
        constexpr std::string_view SEP = HGX_WERN_PG_SEPARATOR;
        if (body.substr(sep, SEP.size()) != SEP) return bad();
        head = body.substr(0, sep);
        rel = body.substr(sep + SEP.size());
        has_rel = true;
    }
    size_t colon = head.find(':');
    std::string_view svc = head.substr(0, colon);
    if (!valid_service_name(svc)) return bad();
    out->service = svc;
    if (colon != std::string_view::npos) {
        std::string_view inst = head.substr(colon + 1);
        if (!valid_segment(inst)) return bad();
        out->has_instance = true;
        out->instance = inst;
    }
    if (has_rel) {
        size_t start = 0;
        while (true) {
            size_t slash = rel.find('/', start);
            std::string_view part =
                rel.substr(start, slash == std::string_view::npos ? slash : slash - start);
            if (!valid_segment(part)) return bad();
            out->path.emplace_back(part);
            if (slash == std::string_view::npos) break;
            start = slash + 1;
        }
    }
    return 0;
}

std::string service_wern(std::string_view service) {
    std::string s = "wrn:/";
    s += service;
    return s;
}

std::string instance_wern(std::string_view service, std::string_view instance) {
    std::string s = service_wern(service);
    s += ':';
    s += instance;
    return s;
}

}  // namespace hgx_detail
