// The file store: the repository as one SQLite database.
//
// Schema (version SCHEMA_VERSION in PRAGMA user_version, and APPLICATION_ID
// in PRAGMA application_id):
//
//   services (id, name UNIQUE)
//   instances(id, service_id, name, UNIQUE(service_id, name))
//   snapshots(id, instance_id, name, UNIQUE(instance_id, name))
//   pgs      (id, owner_kind, owner_id, name, type, service_id, instance_id,
//             snapshot_id, UNIQUE(owner_kind, owner_id, name))
//   props    (id, pg_id, name, type, vals, UNIQUE(pg_id, name))
//
// A group is owned by a service, an instance, a snapshot or another group
// (owner_kind), and also carries the ids of the service, instance (0 when the
// service owns it) and snapshot (0 for live groups) it lies below, so that a
// service, an instance or a snapshot can be removed with a few indexed deletes
// instead of a walk. A property's values are stored in one blob, each value
// followed by a NUL byte: values cannot hold NUL, the number of values is the
// number of NUL bytes, and no values is the empty blob. Every lookup the read
// side makes is served by one of the UNIQUE indexes, and ORDER BY name walks
// those indexes in byte order (BINARY collation), which is the iteration
// order the library documents.
//
// A reading store holds one read transaction from its opening to its end,
// so that it sees one state of the file; a writing store holds one write
// transaction (BEGIN IMMEDIATE) until commit.
//
// A repository file appears complete with its schema, or not at all: a
// writer that finds no file builds the whole first transaction in a
// temporary file of the same directory and links it into place at commit,
// which fails where another writer's file appeared meanwhile (that writer
// won; the command runs again on its file). Until then readers find no
// file. A file that exists is written in place and never removed: a writer
// removes only its own temporary file. A file that is empty, or an SQLite
// database without tables and without a schema version (what an earlier
// writer killed part-way could leave), holds nothing to lose: a writer
// gives it the schema under its write lock, and readers take it for no
// repository.
#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <random>
#include <unordered_map>

#include "hgx_internal.h"

namespace hgx_detail {

namespace {

constexpr int SCHEMA_VERSION = 1;
constexpr int APPLICATION_ID = 0x68677831;  // "hgx1"

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

int exec(sqlite3* db, const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr); }

// The settings of every connection that writes a repository in WAL mode. The
// -wal and -shm files stay when the writer closes (the log cut to nothing),
// created like the file itself: a reader that cannot create files in the
// directory, such as another user reading a repository that root wrote,
// needs them to read a WAL database.
void set_up_wal_writer(sqlite3* db) {
    int persist = 1;
    sqlite3_file_control(db, "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
    exec(db, "PRAGMA journal_size_limit=0");
    exec(db, "PRAGMA cache_size=-262144");
    exec(db, "PRAGMA temp_store=MEMORY");
}

// The schema of a new repository, with its version; run inside the
// transaction that makes it.
std::string schema_sql() {
    std::string schema = SCHEMA_SQL;
    schema += "PRAGMA user_version=" + std::to_string(SCHEMA_VERSION) + ";";
    schema += "PRAGMA application_id=" + std::to_string(APPLICATION_ID) + ";";
    return schema;
}

// Binds a text parameter; SQLite keeps its own copy.
void bind_text(sqlite3_stmt* st, int i, std::string_view s) {
    sqlite3_bind_text(st, i, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
}

// Reads the integer a PRAGMA query gives: 0 with *out set, else the
// connection's extended error code.
int pragma_int(sqlite3* db, const char* sql, int* out) {
    sqlite3_stmt* st = nullptr;
    int rc = sqlite3_prepare_v2(db, sql, -1, &st, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_step(st);
    if (rc == SQLITE_ROW) *out = sqlite3_column_int(st, 0);
    sqlite3_finalize(st);
    return rc == SQLITE_ROW ? 0 : sqlite3_extended_errcode(db);
}

// Whether the connection's database holds no table and no schema version:
// an empty file, or one that a writer killed before its first commit left.
bool holds_nothing(sqlite3* db) {
    int version = -1, app = -1, tables = -1;
    return pragma_int(db, "PRAGMA user_version", &version) == 0 &&
           pragma_int(db, "PRAGMA application_id", &app) == 0 &&
           pragma_int(db, "SELECT count(*) FROM sqlite_master", &tables) == 0 && version == 0 &&
           app == 0 && tables == 0;
}

void read_row(sqlite3_stmt* st, Row* r, int text_col, int type_col) {
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

// One argument of a statement: an integer or a text.
struct Arg {
    bool is_text = false;
    int64_t number = 0;
    std::string_view text;
    Arg(int64_t n) : number(n) {}                        // NOLINT: arguments convert implicitly
    Arg(int n) : number(n) {}                            // NOLINT
    Arg(std::string_view t) : is_text(true), text(t) {}  // NOLINT
};

class SqliteStore final : public Store {
  public:
    // A store on the file at path; or, with a temporary file (named temp,
    // open as temp_fd, which the store then owns), one that creates path at
    // its commit.
    SqliteStore(sqlite3* db, std::string path, std::string temp = "", int temp_fd = -1)
        : db_(db), path_(std::move(path)), temp_(std::move(temp)), temp_fd_(temp_fd) {}
    ~SqliteStore() override;

    int services(std::vector<Row>* out) override {
        return rows(out, "SELECT id, name FROM services ORDER BY name", {});
    }
    int service_by_name(std::string_view name, Row* out) override {
        return row(out, "SELECT id, name FROM services WHERE name = ?1", {name});
    }
    int instances(int64_t service, std::vector<Row>* out) override {
        return rows(out, "SELECT id, name FROM instances WHERE service_id = ?1 ORDER BY name",
                    {service});
    }
    int instance_by_name(int64_t service, std::string_view name, Row* out) override {
        return row(out, "SELECT id, name FROM instances WHERE service_id = ?1 AND name = ?2",
                   {service, name});
    }
    int snapshots(int64_t instance, std::vector<Row>* out) override {
        return rows(out, "SELECT id, name FROM snapshots WHERE instance_id = ?1 ORDER BY name",
                    {instance});
    }
    int snapshot_by_name(int64_t instance, std::string_view name, Row* out) override {
        return row(out, "SELECT id, name FROM snapshots WHERE instance_id = ?1 AND name = ?2",
                   {instance, name});
    }
    int pgs(int kind, int64_t owner, std::vector<Row>* out) override {
        return rows(out,
                    "SELECT id, name, type FROM pgs WHERE owner_kind = ?1 AND owner_id = ?2"
                    " ORDER BY name",
                    {kind, owner}, 2);
    }
    int pg_by_name(int kind, int64_t owner, std::string_view name, Row* out) override {
        return row(out,
                   "SELECT id, name, type FROM pgs WHERE owner_kind = ?1 AND owner_id = ?2"
                   " AND name = ?3",
                   {kind, owner, name}, 2);
    }
    int props(int64_t pg, std::vector<Row>* out) override {
        return rows(out, "SELECT id, name, vals, type FROM props WHERE pg_id = ?1 ORDER BY name",
                    {pg}, 2, 3);
    }
    int prop_by_name(int64_t pg, std::string_view name, Row* out) override {
        return row(out, "SELECT id, name, vals, type FROM props WHERE pg_id = ?1 AND name = ?2",
                   {pg, name}, 2, 3);
    }

    int64_t add_service(std::string_view name) override {
        return insert("INSERT INTO services(name) VALUES(?1)", {name});
    }
    int delete_service(int64_t service) override {
        return run_all(
            {"DELETE FROM props WHERE pg_id IN (SELECT id FROM pgs WHERE service_id = ?1)",
             "DELETE FROM pgs WHERE service_id = ?1",
             "DELETE FROM snapshots WHERE instance_id IN"
             " (SELECT id FROM instances WHERE service_id = ?1)",
             "DELETE FROM instances WHERE service_id = ?1", "DELETE FROM services WHERE id = ?1"},
            {service});
    }
    int64_t add_instance(int64_t service, std::string_view name) override {
        return insert("INSERT INTO instances(service_id, name) VALUES(?1, ?2)", {service, name});
    }
    int delete_instance(int64_t service, int64_t instance) override {
        return run_all(
            {"DELETE FROM props WHERE pg_id IN"
             " (SELECT id FROM pgs WHERE service_id = ?1 AND instance_id = ?2)",
             "DELETE FROM pgs WHERE service_id = ?1 AND instance_id = ?2",
             "DELETE FROM snapshots WHERE instance_id = ?2", "DELETE FROM instances WHERE id = ?2"},
            {service, instance});
    }
    int64_t add_snapshot(int64_t, int64_t instance, std::string_view name) override {
        return insert("INSERT INTO snapshots(instance_id, name) VALUES(?1, ?2)", {instance, name});
    }
    int delete_snapshot(int64_t service, int64_t instance, int64_t snapshot) override {
        return run_all({"DELETE FROM props WHERE pg_id IN (SELECT id FROM pgs WHERE"
                        " service_id = ?1 AND instance_id = ?2 AND snapshot_id = ?3)",
                        "DELETE FROM pgs WHERE service_id = ?1 AND instance_id = ?2"
                        " AND snapshot_id = ?3",
                        "DELETE FROM snapshots WHERE id = ?3"},
                       {service, instance, snapshot});
    }
    int64_t add_pg(const PgPlace& p, std::string_view name, std::string_view type) override {
        return insert(
            "INSERT INTO pgs(owner_kind, owner_id, name, type, service_id, instance_id,"
            " snapshot_id) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)",
            {p.kind, p.owner, name, type, p.service, p.instance, p.snapshot});
    }
    int delete_pg(int64_t pg) override {
        static_assert(OWNER_PG == 3, "the recursive deletes name the group owner kind");
        return run_all({"WITH RECURSIVE sub(id) AS (SELECT ?1 UNION ALL SELECT p.id FROM pgs p,"
                        " sub WHERE p.owner_kind = 3 AND p.owner_id = sub.id)"
                        " DELETE FROM props WHERE pg_id IN sub",
                        "WITH RECURSIVE sub(id) AS (SELECT ?1 UNION ALL SELECT p.id FROM pgs p,"
                        " sub WHERE p.owner_kind = 3 AND p.owner_id = sub.id)"
                        " DELETE FROM pgs WHERE id IN sub"},
                       {pg});
    }
    int put_prop(int64_t pg, std::string_view name, int type, std::string_view blob,
                 bool replace) override;
    int delete_prop(int64_t pg, std::string_view name) override {
        if (run_all({"DELETE FROM props WHERE pg_id = ?1 AND name = ?2"}, {pg, name}) < 0)
            return -1;
        return sqlite3_changes(db_) ? 1 : 0;
    }
    // The mirror's records live in a table of their own, made on first use,
    // so that a file that is no mirror is exactly as before.
    int meta_get(std::string_view key, std::string* value) override {
        Row r;
        int rc = row(
            &r, "SELECT 0, name FROM sqlite_master WHERE type = 'table' AND name = 'mirror'", {});
        if (rc <= 0) return rc;
        rc = row(&r, "SELECT 0, value FROM mirror WHERE key = ?1", {key});
        if (rc == 1) *value = std::move(r.name);
        return rc;
    }
    int meta_set(std::string_view key, std::string_view value) override {
        return run_all(
            {"CREATE TABLE IF NOT EXISTS mirror(key TEXT PRIMARY KEY, value TEXT NOT NULL)",
             "INSERT INTO mirror(key, value) VALUES(?1, ?2)"
             " ON CONFLICT(key) DO UPDATE SET value = excluded.value"},
            {key, value});
    }
    int commit() override {
        if (exec(db_, "COMMIT") != SQLITE_OK) return fail_store();
        if (!temp_.empty()) return publish();
        committed_ = true;
        return 0;
    }
    // SQLite takes the level of syncing between transactions only: it is
    // set as the next one begins.
    int set_durable(bool durable) override {
        durable_ = durable;
        return 0;
    }
    int begin() override {
        if (!committed_ || db_ == nullptr) return fail(HGX_ERROR_INVALID_ARGUMENT);
        if (exec(db_, durable_ ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL") !=
                SQLITE_OK ||
            exec(db_, "BEGIN IMMEDIATE") != SQLITE_OK)
            return fail_store();
        committed_ = false;
        return 0;
    }

  private:
    // A statement for the given SQL text, prepared once, reset, with the
    // arguments bound. The text must be a string literal: its address is the
    // cache key. Null on failure, with the error set.
    sqlite3_stmt* stmt(const char* sql, std::initializer_list<Arg> args);
    int rows(std::vector<Row>* out, const char* sql, std::initializer_list<Arg> args,
             int text_col = -1, int type_col = -1);
    int row(Row* out, const char* sql, std::initializer_list<Arg> args, int text_col = -1,
            int type_col = -1);
    // Runs statements that return no rows, each with the same arguments.
    int run_all(std::initializer_list<const char*> sqls, std::initializer_list<Arg> args);
    int64_t insert(const char* sql, std::initializer_list<Arg> args) {
        return run_all({sql}, args) < 0 ? -1 : sqlite3_last_insert_rowid(db_);
    }
    // Sets the error for a failed SQLite call and keeps SQLite's text; -1.
    int fail_store();
    // The commit of a store that creates its file: the temporary file, now
    // committed, is linked into place. 0, or -1 with the temporary file gone
    // (HGX_ERROR_CONFLICT where a file appeared at path meanwhile).
    int publish();
    void close_db();

    sqlite3* db_;
    std::string path_;
    std::string temp_;  // the temporary file this store creates path from, or empty
    int temp_fd_;       // open on temp_, holding its lock, while temp_ is set
    bool committed_ = false;
    bool durable_ = true;
    std::unordered_map<const char*, sqlite3_stmt*> cache_;
};

// Removes a temporary file with what SQLite may have made beside it, the
// file itself last: its name is what finds the others.
void remove_temporary(const std::string& temp) {
    for (const char* suffix : {"-wal", "-shm", "-journal", ""}) unlink((temp + suffix).c_str());
}

void SqliteStore::close_db() {
    for (auto& [sql, st] : cache_) sqlite3_finalize(st);
    cache_.clear();
    sqlite3_close_v2(db_);
    db_ = nullptr;
}

SqliteStore::~SqliteStore() {
    // A reader's transaction, or a writer's that did not commit, ends here.
    if (db_ != nullptr && !committed_) exec(db_, "ROLLBACK");
    close_db();
    if (!temp_.empty()) {
        // Nothing of a failed first write may stay behind; the file at
        // path_, if any, is not this store's.
        remove_temporary(temp_);
        close(temp_fd_);
    }
}

int SqliteStore::publish() {
    // WAL, as every repository file is; the log is folded into the file
    // when the connection closes. The file is made durable before it
    // appears under its name.
    if (exec(db_, "PRAGMA journal_mode=WAL") != SQLITE_OK) return fail_store();
    close_db();
    std::string temp = std::move(temp_);
    temp_.clear();
    bool synced = fsync(temp_fd_) == 0;
    int linked = synced ? link(temp.c_str(), path_.c_str()) : -1;
    int error = errno;
    remove_temporary(temp);
    close(temp_fd_);
    if (linked != 0) {
        if (synced && error == EEXIST) {
            message_ = path_ + ": another writer created it meanwhile";
            return fail(HGX_ERROR_CONFLICT);
        }
        message_ = path_ + ": cannot be created: " + std::strerror(error);
        return fail(HGX_ERROR_REPOSITORY_ACCESS);
    }
    committed_ = true;
    std::string dir = path_.substr(0, path_.find_last_of('/') + 1);
    int dfd = open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
        fsync(dfd);
        close(dfd);
    }
    // The -wal and -shm files that every writer leaves (set_up_wal_writer),
    // made now by a first read of the file under its name; they take the
    // file's mode. Reads after the commit, and the transactions that begin()
    // starts, go through this connection, set up as any writer's.
    if (sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
        sqlite3_busy_timeout(db_, 10000);
        set_up_wal_writer(db_);
        int version = 0;
        pragma_int(db_, "PRAGMA user_version", &version);
    } else {
        sqlite3_close_v2(db_);
        db_ = nullptr;
    }
    return 0;
}

int SqliteStore::fail_store() {
    message_ = sqlite3_errmsg(db_);
    switch (sqlite3_errcode(db_)) {
        case SQLITE_NOMEM:
            return fail(HGX_ERROR_NO_MEMORY);
        case SQLITE_CONSTRAINT:
            return fail(HGX_ERROR_EXISTS);
        case SQLITE_READONLY:
            return fail(HGX_ERROR_PERMISSION_DENIED);
        default:
            return fail(HGX_ERROR_CONNECTION_BROKEN);
    }
}

sqlite3_stmt* SqliteStore::stmt(const char* sql, std::initializer_list<Arg> args) {
    if (db_ == nullptr) {
        fail(HGX_ERROR_CONNECTION_BROKEN);
        return nullptr;
    }
    sqlite3_stmt* st;
    auto it = cache_.find(sql);
    if (it != cache_.end()) {
        st = it->second;
        sqlite3_reset(st);
        sqlite3_clear_bindings(st);
    } else {
        st = nullptr;
        if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &st, nullptr) !=
            SQLITE_OK) {
            sqlite3_finalize(st);
            fail_store();
            return nullptr;
        }
        cache_.emplace(sql, st);
    }
    int i = 1;
    for (const Arg& a : args) {
        if (a.is_text)
            bind_text(st, i, a.text);
        else
            sqlite3_bind_int64(st, i, a.number);
        ++i;
    }
    return st;
}

int SqliteStore::rows(std::vector<Row>* out, const char* sql, std::initializer_list<Arg> args,
                      int text_col, int type_col) {
    sqlite3_stmt* st = stmt(sql, args);
    if (!st) return -1;
    out->clear();
    int rc;
    while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
        out->emplace_back();
        read_row(st, &out->back(), text_col, type_col);
    }
    sqlite3_reset(st);
    return rc == SQLITE_DONE ? 0 : fail_store();
}

int SqliteStore::row(Row* out, const char* sql, std::initializer_list<Arg> args, int text_col,
                     int type_col) {
    sqlite3_stmt* st = stmt(sql, args);
    if (!st) return -1;
    int rc = sqlite3_step(st);
    if (rc == SQLITE_ROW) read_row(st, out, text_col, type_col);
    sqlite3_reset(st);
    if (rc == SQLITE_ROW) return 1;
    return rc == SQLITE_DONE ? 0 : fail_store();
}

int SqliteStore::run_all(std::initializer_list<const char*> sqls, std::initializer_list<Arg> args) {
    for (const char* sql : sqls) {
        sqlite3_stmt* st = stmt(sql, args);
        if (!st) return -1;
        int rc = sqlite3_step(st);
        sqlite3_reset(st);
        if (rc != SQLITE_DONE) return fail_store();
    }
    return 0;
}

int SqliteStore::put_prop(int64_t pg, std::string_view name, int type, std::string_view blob,
                          bool replace) {
    const char* sql = replace ? "INSERT INTO props(pg_id, name, type, vals) VALUES(?1, ?2, ?3, ?4)"
                                " ON CONFLICT(pg_id, name) DO UPDATE SET type = excluded.type,"
                                " vals = excluded.vals"
                              : "INSERT INTO props(pg_id, name, type, vals) VALUES(?1, ?2, ?3, ?4)";
    sqlite3_stmt* st = stmt(sql, {pg, name, type});
    if (!st) return -1;
    sqlite3_bind_blob(st, 4, blob.data(), static_cast<int>(blob.size()), SQLITE_TRANSIENT);
    int rc = sqlite3_step(st);
    sqlite3_reset(st);
    return rc == SQLITE_DONE ? 0 : fail_store();
}

// ---- opening ---------------------------------------------------------------

// True where the file's write-ahead log is absent or empty.
bool wal_is_empty(const std::string& file) {
    struct stat st;
    return stat((file + "-wal").c_str(), &st) != 0 || st.st_size == 0;
}

// As root, SQLite gives the -wal and -shm files the owner of the database
// with fchown on every open, also where they have that owner already. Such a
// call still changes the file (its ctime) and fails on a read-only file
// system; this one is made only where the owner or group really changes.
int fchown_if_changed(int fd, uid_t uid, gid_t gid) {
    struct stat st;
    if (fstat(fd, &st) == 0 && (uid == static_cast<uid_t>(-1) || st.st_uid == uid) &&
        (gid == static_cast<gid_t>(-1) || st.st_gid == gid))
        return 0;
    return fchown(fd, uid, gid);
}

// Process-wide settings of SQLite, made once before the first connection of
// any thread (the system-call table must not change under a connection).
void prepare_sqlite() {
    static std::once_flag once;
    std::call_once(once, [] {
        // No allocation statistics: they cost a lock and a count on every
        // allocation, and nothing reads them. (Refused harmlessly where the
        // library was set up before.)
        sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
        sqlite3_vfs* vfs = sqlite3_vfs_find(nullptr);
        if (vfs != nullptr && vfs->iVersion >= 3 && vfs->xSetSystemCall != nullptr)
            vfs->xSetSystemCall(vfs, "fchown",
                                reinterpret_cast<sqlite3_syscall_ptr>(&fchown_if_changed));
    });
}

// How a reader reaches the WAL index (-shm) beside the file.
enum class IndexAccess {
    // Mapped read-only: the reader writes nothing at all. Within the process
    // the mapping is shared by every connection to the file, so that a
    // writer cannot connect while such a reader lives. Where a writer is
    // connected it keeps the index, and the reader uses it as it is; where
    // none is, the index cannot be trusted, and SQLite builds a private one
    // in the reader's memory from the -wal file (empty after a writer that
    // closed alone). A read lock on the -shm keeps checkpoints off the pages
    // the reader reads either way.
    READ_ONLY,
    // Mapped read-write: a first reader creates or rebuilds the shared index.
    SHARED,
    // No index, no lock and no log: the main file alone.
    NONE,
};

// Opens the file read-only, begins the read transaction and checks the
// schema; HGX_ERROR_NONE with *out set, else the failure's code and nothing
// left open. The transaction starts with BEGIN and is pinned by the first read
// of the file, the header read of the schema check; from then on every
// statement of the connection sees that state.
hgx_error_t open_reading(const std::string& file, IndexAccess index, sqlite3** out) {
    // An absolute path behind an empty authority, so that one beginning
    // with "//" is not taken for a host.
    std::string uri = file.size() > 0 && file[0] == '/' ? "file://" : "file:";
    for (unsigned char c : file) {
        // Only the bytes that a URI path cannot hold as they are.
        if (c == '%' || c == '?' || c == '#' || c < 0x20 || c >= 0x7f) {
            char esc[4];
            std::snprintf(esc, sizeof esc, "%%%02X", c);
            uri += esc;
        } else {
            uri += static_cast<char>(c);
        }
    }
    uri += index == IndexAccess::READ_ONLY ? "?mode=ro&readonly_shm=1"
           : index == IndexAccess::NONE    ? "?mode=ro&immutable=1"
                                           : "?mode=ro";
    sqlite3* db = nullptr;
    // A connection is used by one thread at a time: no locking of its own.
    if (sqlite3_open_v2(uri.c_str(), &db,
                        SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        sqlite3_close_v2(db);
        return HGX_ERROR_REPOSITORY_ACCESS;
    }
    sqlite3_busy_timeout(db, 5000);
    auto give_up = [&](hgx_error_t code) {
        exec(db, "ROLLBACK");
        sqlite3_close_v2(db);
        return code;
    };
    if (exec(db, "BEGIN") != SQLITE_OK) return give_up(HGX_ERROR_REPOSITORY_ACCESS);
    int version = -1, app = -1;
    int code = pragma_int(db, "PRAGMA user_version", &version);
    if (code == 0) code = pragma_int(db, "PRAGMA application_id", &app);
    if (code != 0) {
        if ((code & 0xff) == SQLITE_NOTADB || (code & 0xff) == SQLITE_CORRUPT)
            return give_up(HGX_ERROR_NOT_A_REPOSITORY);
        // The WAL index (-shm) could not be opened, created or used.
        if (code == SQLITE_CANTOPEN || code == SQLITE_READONLY_DIRECTORY ||
            code == SQLITE_READONLY_CANTINIT || code == SQLITE_READONLY_RECOVERY)
            return give_up(HGX_ERROR_REPOSITORY_LOG);
        return give_up(HGX_ERROR_REPOSITORY_ACCESS);
    }
    // A file that holds nothing yet is no repository yet.
    if (version != SCHEMA_VERSION || app != APPLICATION_ID)
        return give_up(holds_nothing(db) ? HGX_ERROR_NO_REPOSITORY : HGX_ERROR_SCHEMA_MISMATCH);
    sqlite3_stmt* probe = nullptr;
    int rc = sqlite3_prepare_v2(db, "SELECT id FROM services LIMIT 1", -1, &probe, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_step(probe);
    sqlite3_finalize(probe);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) return give_up(HGX_ERROR_SCHEMA_MISMATCH);
    *out = db;
    return HGX_ERROR_NONE;
}

std::unique_ptr<Store> open_for_reading(const std::string& file, bool no_writes) {
    struct stat st;
    if (stat(file.c_str(), &st) != 0) {
        if (errno != ENOENT && errno != ENOTDIR) return fail(HGX_ERROR_REPOSITORY_ACCESS), nullptr;
        set_error_text(HGX_ERROR_NO_REPOSITORY,
                       std::string(error_text(HGX_ERROR_NO_REPOSITORY)) + ": " + file);
        return nullptr;
    }
    if (S_ISDIR(st.st_mode) || access(file.c_str(), R_OK) != 0)
        return fail(HGX_ERROR_REPOSITORY_ACCESS), nullptr;
    prepare_sqlite();
    // A reader that must write nothing maps the index read-only. Where the
    // -shm file is missing, or caught half made by a writer that is just
    // connecting, it takes the shared index as any other reader does,
    // creating or rebuilding it.
    sqlite3* db = nullptr;
    hgx_error_t code = HGX_ERROR_REPOSITORY_LOG;
    if (no_writes) code = open_reading(file, IndexAccess::READ_ONLY, &db);
    if (code == HGX_ERROR_REPOSITORY_LOG) code = open_reading(file, IndexAccess::SHARED, &db);
    // Where that index is missing and this user cannot create it (a
    // repository written by another user into a directory this one cannot
    // write), the file can still be read without the WAL machinery, provided
    // the WAL holds nothing: then the main file is the whole committed state.
    if (code == HGX_ERROR_REPOSITORY_LOG && wal_is_empty(file))
        code = open_reading(file, IndexAccess::NONE, &db);
    // A file that holds nothing yet is named like one that is not there.
    if (code == HGX_ERROR_NO_REPOSITORY) {
        set_error_text(code, std::string(error_text(code)) + ": " + file);
        return nullptr;
    }
    if (code != HGX_ERROR_NONE) return fail(code), nullptr;
    return std::make_unique<SqliteStore>(db, file);
}

// Where a new file's temporary files go: "<dir>/.<name>.new-<8 hex digits>".
std::string temporary_prefix(const std::string& file) {
    size_t slash = file.find_last_of('/');
    std::string dir = slash == std::string::npos ? "" : file.substr(0, slash + 1);
    std::string name = slash == std::string::npos ? file : file.substr(slash + 1);
    return dir + "." + name + ".new-";
}

// Removes the temporary files of writers that died before their commit: a
// living writer holds the lock of its own, and one younger than a minute
// may not have taken it yet.
void remove_dead_temporaries(const std::string& prefix) {
    size_t slash = prefix.find_last_of('/');
    std::string dir = slash == std::string::npos ? "." : prefix.substr(0, slash + 1);
    std::string start = slash == std::string::npos ? prefix : prefix.substr(slash + 1);
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return;
    const auto now = std::chrono::system_clock::now();
    while (const dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name.size() != start.size() + 8 || name.compare(0, start.size(), start) != 0) continue;
        std::string path = (slash == std::string::npos ? "" : dir) + name;
        int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) continue;
        struct stat st;
        if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid() &&
            now - std::chrono::system_clock::from_time_t(st.st_mtime) > std::chrono::minutes(1) &&
            flock(fd, LOCK_EX | LOCK_NB) == 0)
            remove_temporary(path);
        close(fd);
    }
    closedir(d);
}

// A writer that creates file: the schema in a temporary file beside it,
// locked for the writer's life, of mode file_mode (negative: 0644 under the
// umask). The store links it into place at its commit.
std::unique_ptr<Store> create_file(const std::string& file, int file_mode, std::string* message) {
    auto refuse = [&](hgx_error_t code, const std::string& text) -> std::unique_ptr<Store> {
        set_error(code);
        if (message) *message = file + ": " + text;
        return nullptr;
    };
    const std::string prefix = temporary_prefix(file);
    remove_dead_temporaries(prefix);
    std::random_device entropy;
    std::string temp;
    int fd = -1;
    for (int attempt = 0; fd < 0 && attempt < 100; ++attempt) {
        char tail[9];
        std::snprintf(tail, sizeof tail, "%08x", static_cast<unsigned>(entropy()));
        temp = prefix + tail;
        fd = open(temp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                  file_mode >= 0 ? 0600 : 0644);
        if (fd < 0 && errno != EEXIST) break;
    }
    if (fd < 0)
        return refuse(HGX_ERROR_REPOSITORY_ACCESS,
                      std::string("cannot be created: ") + std::strerror(errno));
    if (flock(fd, LOCK_EX) != 0 ||
        (file_mode >= 0 && fchmod(fd, static_cast<mode_t>(file_mode)) != 0)) {
        std::string why = std::strerror(errno);
        remove_temporary(temp);
        close(fd);
        return refuse(HGX_ERROR_REPOSITORY_ACCESS, "cannot be created: " + why);
    }
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(temp.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    // From here the store owns the temporary file, and removes it unless it
    // commits.
    auto store = std::make_unique<SqliteStore>(db, file, temp, fd);
    if (rc != SQLITE_OK)
        return refuse(HGX_ERROR_REPOSITORY_ACCESS,
                      std::string("cannot be created: ") + sqlite3_errmsg(db));
    sqlite3_busy_timeout(db, 10000);
    // Nobody else knows the file: the journal can stay in memory, and the
    // file is synced once, before it is linked into place.
    exec(db, "PRAGMA journal_mode=MEMORY");
    exec(db, "PRAGMA synchronous=OFF");
    exec(db, "PRAGMA cache_size=-262144");
    exec(db, "PRAGMA temp_store=MEMORY");
    if (exec(db, "BEGIN IMMEDIATE") != SQLITE_OK || exec(db, schema_sql().c_str()) != SQLITE_OK)
        return refuse(HGX_ERROR_REPOSITORY_ACCESS,
                      std::string("cannot be created: ") + sqlite3_errmsg(db));
    return store;
}

// The -wal and -shm files of an existing repository give nobody more than
// the file does: ones left by another program or an earlier mode are
// narrowed to the file's permission bits.
void narrow_log_modes(const std::string& file, mode_t file_mode) {
    for (const char* suffix : {"-wal", "-shm"}) {
        std::string log = file + suffix;
        struct stat st;
        if (lstat(log.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
            (st.st_mode & 0777 & ~file_mode) != 0)
            chmod(log.c_str(), st.st_mode & 0777 & file_mode);
    }
}

std::unique_ptr<Store> open_for_writing(const std::string& file, bool create, int file_mode,
                                        std::string* message) {
    auto refuse = [&](hgx_error_t code, const std::string& text) -> std::unique_ptr<Store> {
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
    if (!exists) {
        struct stat link;
        if (lstat(file.c_str(), &link) == 0)
            return refuse(HGX_ERROR_REPOSITORY_ACCESS, "a symbolic link to nothing");
        return create_file(file, file_mode, message);
    }
    if (S_ISDIR(st.st_mode)) return refuse(HGX_ERROR_REPOSITORY_ACCESS, "is a directory");

    prepare_sqlite();
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    if (rc != SQLITE_OK) {
        std::string text = db ? sqlite3_errmsg(db) : "cannot open";
        sqlite3_close_v2(db);
        return refuse(HGX_ERROR_REPOSITORY_ACCESS, "cannot be opened: " + text);
    }
    // From here the store owns the connection. It never removes the file.
    auto store = std::make_unique<SqliteStore>(db, file);
    sqlite3_busy_timeout(db, 10000);
    auto db_refuse = [&](int code) -> std::unique_ptr<Store> {
        code &= 0xff;  // the primary code of an extended one
        if (code == SQLITE_NOTADB || code == SQLITE_CORRUPT)
            return refuse(HGX_ERROR_NOT_A_REPOSITORY, hgx_strerror(HGX_ERROR_NOT_A_REPOSITORY));
        return refuse(HGX_ERROR_REPOSITORY_ACCESS, sqlite3_errmsg(db));
    };
    // 0: a repository of this schema; 1: a file that holds nothing yet; -1:
    // anything else, refused.
    auto check = [&]() -> int {
        int version = -1, app = -1;
        int e = pragma_int(db, "PRAGMA user_version", &version);
        if (!e) e = pragma_int(db, "PRAGMA application_id", &app);
        if (e) {
            db_refuse(e);
            return -1;
        }
        if (version == SCHEMA_VERSION && app == APPLICATION_ID) return 0;
        if (holds_nothing(db)) return 1;
        refuse(HGX_ERROR_SCHEMA_MISMATCH, hgx_strerror(HGX_ERROR_SCHEMA_MISMATCH));
        return -1;
    };
    // Checked before the journal mode is touched, so that a foreign database
    // is left exactly as it was.
    if (st.st_size > 0 && check() < 0) return nullptr;
    narrow_log_modes(file, st.st_mode);
    // WAL, so that readers holding their snapshot and this writer do not
    // block each other.
    if (exec(db, "PRAGMA journal_mode=WAL") != SQLITE_OK) return db_refuse(sqlite3_errcode(db));
    set_up_wal_writer(db);
    if (exec(db, "BEGIN IMMEDIATE") != SQLITE_OK) return db_refuse(sqlite3_errcode(db));
    // Whether the file is new is decided under the write lock: of two
    // writers that found it empty, the second finds the first one's schema.
    int state = check();
    if (state < 0) return nullptr;
    if (state == 1 && exec(db, schema_sql().c_str()) != SQLITE_OK)
        return db_refuse(sqlite3_errcode(db));
    return store;
}

}  // namespace

std::unique_ptr<Store> open_file_store(const std::string& file, OpenMode mode, std::string* message,
                                       int file_mode) {
    if (mode == OpenMode::READ || mode == OpenMode::READ_NO_WRITES) {
        std::unique_ptr<Store> s = open_for_reading(file, mode == OpenMode::READ_NO_WRITES);
        if (!s && message) *message = file + ": " + error_text(get_error());
        return s;
    }
    return open_for_writing(file, mode == OpenMode::CREATE, file_mode, message);
}

}  // namespace hgx_detail
