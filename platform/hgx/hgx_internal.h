// Internals of libhgx shared by its read side (hgx_objects.h and the files
// it serves), its write side (hgx_write.cpp, hgx_check.cpp) and its stores:
// the store seam, the composed view, wern syntax and the thread's last
// error (hgx_store.cpp). The stores themselves are hgx_sqlite.cpp (a file)
// and hgx_etcd*.cpp (an etcd cluster).
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "hgx.h"

namespace hgx_detail {

enum OwnerKind : int {
    OWNER_SERVICE = 0,
    OWNER_INSTANCE = 1,
    OWNER_SNAPSHOT = 2,
    OWNER_PG = 3,
};

constexpr size_t WERN_LIMIT = 1024;
constexpr size_t PG_TYPE_LIMIT = 63;
constexpr size_t VALUE_LIMIT = 4096;

void set_error(hgx_error_t code);
// As set_error, with a text that says more of this failure than the code's
// (the file or the wern at fault); hgx_strerror gives it for this code until
// the thread's next failure.
void set_error_text(hgx_error_t code, std::string text);
hgx_error_t get_error();
// The text set with the thread's last failure, where that was of code and
// came with one; null otherwise.
const char* last_error_text(hgx_error_t code);
// The general text of a code, whatever failed last: for messages that name
// the file or wern themselves.
const char* error_text(hgx_error_t code);

// Sets the thread's error and gives the failure value of int operations.
inline int fail(hgx_error_t code) {
    set_error(code);
    return -1;
}

// Runs the body of an API call. Nothing may cross the C interface: an
// exhausted heap becomes HGX_ERROR_NO_MEMORY, and any other exception of the
// standard library (a checked accessor such as .at() meeting an id or a
// document the store does not hold, a JSON value of another type than read)
// HGX_ERROR_INTERNAL, each with the call's failure value.
template <typename R, typename F>
R guarded(R failure, F&& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        set_error(HGX_ERROR_NO_MEMORY);
        return failure;
    } catch (const std::exception&) {
        set_error(HGX_ERROR_INTERNAL);
        return failure;
    }
}

// Where a new group goes: its owner and the objects it lies below.
struct PgPlace {
    int kind = OWNER_SERVICE;
    int64_t owner = 0;
    int64_t service = 0, instance = 0, snapshot = 0;
};

struct Row {
    int64_t id = 0;
    std::string name;
    std::string text;  // group type, or the values blob of a property
    int type = 0;      // property type
};

// The store seam: everything libhgx keeps, read and written through one
// narrow interface, so that werns, the composed view, snapshots, iteration
// and the write operations above it are written once for every store.
//
// Objects are named by ids that the store hands out (never 0, and stable
// for the life of the store object). Lists come in ascending byte order of
// their names. Lookups of one object give 1 with *out set, 0 where there is
// none, -1 on failure; lists and changes give 0 or -1 (ids: the id or -1).
// A failure sets the thread's error (hgx_error) and may leave a text of the
// store's own in message().
//
// A store opened for reading sees one state of the repository for its whole
// life. One opened for writing holds one transaction: nothing it changes is
// seen by anyone before commit(), and destroying it without a commit leaves
// the repository as it was.
class Store {
  public:
    virtual ~Store() = default;

    // Reading. Every list replaces *out on success; on failure *out and the
    // lookups' *out are unspecified. A writing store's reads see its own
    // changes.
    virtual int services(std::vector<Row>* out) = 0;
    virtual int service_by_name(std::string_view name, Row* out) = 0;
    virtual int instances(int64_t service, std::vector<Row>* out) = 0;
    virtual int instance_by_name(int64_t service, std::string_view name, Row* out) = 0;
    virtual int snapshots(int64_t instance, std::vector<Row>* out) = 0;
    virtual int snapshot_by_name(int64_t instance, std::string_view name, Row* out) = 0;
    // Groups of an owner (kind OWNER_*): text is the type.
    virtual int pgs(int kind, int64_t owner, std::vector<Row>* out) = 0;
    virtual int pg_by_name(int kind, int64_t owner, std::string_view name, Row* out) = 0;
    // Properties: text is the values blob, type the hgx_type_t.
    virtual int props(int64_t pg, std::vector<Row>* out) = 0;
    virtual int prop_by_name(int64_t pg, std::string_view name, Row* out) = 0;

    // Changes; names and values are checked by the caller. An add gives the
    // new id, and of a name the owner has already fails with
    // HGX_ERROR_EXISTS; the others give 0. A store opened for reading
    // refuses every change.
    virtual int64_t add_service(std::string_view name) = 0;
    // Removes the service with its instances, snapshots, groups, properties.
    virtual int delete_service(int64_t service) = 0;
    virtual int64_t add_instance(int64_t service, std::string_view name) = 0;
    virtual int delete_instance(int64_t service, int64_t instance) = 0;
    virtual int64_t add_snapshot(int64_t service, int64_t instance, std::string_view name) = 0;
    virtual int delete_snapshot(int64_t service, int64_t instance, int64_t snapshot) = 0;
    // A group below an owner, which lies below the service, the instance (0
    // for a service's own groups) and the snapshot (0 for live groups).
    virtual int64_t add_pg(const PgPlace& place, std::string_view name, std::string_view type) = 0;
    // Removes a group with its nested groups and their properties.
    virtual int delete_pg(int64_t pg) = 0;
    // replace: a property of that name is replaced; else one fails (EXISTS).
    virtual int put_prop(int64_t pg, std::string_view name, int type, std::string_view blob,
                         bool replace) = 0;
    // 1 removed, 0 there was none, -1 failure.
    virtual int delete_prop(int64_t pg, std::string_view name) = 0;
    // Makes every change visible at once and returns 0; -1 where none of
    // them became visible (HGX_ERROR_CONFLICT where another writer committed
    // first; then the whole work may be done again on a new store). The
    // store is not used for changes after it.
    virtual int commit() = 0;
    // Starts the next transaction of a store whose last one committed: 0,
    // or -1 (HGX_ERROR_INVALID_ARGUMENT for a store that cannot, or did not
    // commit).
    virtual int begin() { return fail(HGX_ERROR_INVALID_ARGUMENT); }
    // Whether a commit waits until it is on the disk (the default): not
    // durable, a power loss may take back the last commits whole, never
    // part of one. 0, or -1 (HGX_ERROR_INVALID_ARGUMENT where the store
    // has no such choice).
    virtual int set_durable(bool) { return fail(HGX_ERROR_INVALID_ARGUMENT); }

    // A store's own records beside the repository (a mirror keeps where it
    // comes from and how far it got): 1 with *value set, 0 none, -1 failure.
    // A store that keeps none fails with HGX_ERROR_INVALID_ARGUMENT.
    virtual int meta_get(std::string_view key, std::string* value) = 0;
    virtual int meta_set(std::string_view key, std::string_view value) = 0;

    // Where this state comes from: for a cluster its id and prefix and the
    // revision read. A file has none: empty and 0.
    virtual std::string source() const { return ""; }
    virtual int64_t revision() const { return 0; }

    // What a mirror follows a cluster with. A store that cannot tell (a
    // file) gives *all = true from changes() and HGX_ERROR_INVALID_ARGUMENT
    // from the others.
    //
    // What the commit that made this state changed: 0 with *all set, or with
    // *out the (service, instance) pairs it changed, instance "" for the
    // service's own groups and "*" for anything of the service; -1 failure.
    virtual int changes(std::vector<std::pair<std::string, std::string>>* out, bool* all) {
        out->clear();
        *all = true;
        return 0;
    }
    // A text that changes whenever the service's own groups (instance "")
    // or the instance with its snapshots does: 1 with *out set, 0 where
    // there is none, -1 failure.
    virtual int version(std::string_view, std::string_view, std::string*) {
        return fail(HGX_ERROR_INVALID_ARGUMENT);
    }
    // Every instance of a service with its version: 1 with *out replaced, 0
    // where there is no such service, -1 failure.
    virtual int instance_versions(std::string_view,
                                  std::vector<std::pair<std::string, std::string>>*) {
        return fail(HGX_ERROR_INVALID_ARGUMENT);
    }
    // The instance werns the store's user has been granted to read, where
    // the store's access is limited to them: 0 with *out replaced, -1.
    virtual int granted(std::vector<std::string>*) { return fail(HGX_ERROR_INVALID_ARGUMENT); }

    // The store's own text for the last failure, or empty; set_message
    // gives it the text of a failure found above it (a copy's checks).
    const std::string& message() const { return message_; }
    void set_message(std::string text) { message_ = std::move(text); }

  protected:
    std::string message_;
};

// How a store is opened.
enum class OpenMode {
    // One consistent state, read-only, within a short budget of time.
    READ,
    // As READ, and a file is read without any write to it or beside it; a
    // writer of the file cannot open in this process while the store lives.
    READ_NO_WRITES,
    // As READ, however long it takes while the cluster answers.
    COPY,
    // One transaction on an existing repository.
    WRITE,
    // As WRITE, creating an empty repository where there is none.
    CREATE,
};

// Opens the repository that `where` names: an etcd URL (etcd:// or
// etcds://) or a file. Null on failure, with the error set and, where
// message is given, a line for the user in it. The caller owns the store.
// at_revision (reading a cluster only; 0: the newest) pins the revision read.
std::unique_ptr<Store> open_store(const std::string& where, OpenMode mode, std::string* message,
                                  int64_t at_revision = 0);
bool is_cluster_url(std::string_view where);
// For what only a cluster has: 0 when where is an etcd URL; else -1 with
// HGX_ERROR_INVALID_ARGUMENT set and "where: what" in *message.
int cluster_only(const std::string& where, std::string_view what, std::string* message);
// The two stores behind open_store. A file that CREATE makes gets the
// permission bits file_mode exactly, or (negative) 0644 under the umask.
std::unique_ptr<Store> open_file_store(const std::string& file, OpenMode mode, std::string* message,
                                       int file_mode = -1);
std::unique_ptr<Store> open_cluster_store(const std::string& url, OpenMode mode,
                                          std::string* message, int64_t at_revision = 0);

// Converts the repository below a cluster's prefix from the first layout
// of its keys to this one, in one switch: 0 converted, 1 it needed nothing,
// -1 with the error set and a line for the user in *message.
int upgrade_cluster(const std::string& url, std::string* message);
// Gives the existing etcd user a role of its own that reads the instances
// werns name and their services' own groups, and nothing else of the
// repository (with host non-empty, it also writes that host's status key);
// replaces what the role granted before. 0 with the werns of instances
// that the repository does not hold (yet) in *missing, or -1 with the error
// set and a line in *message.
int grant_cluster_role(const std::string& url, const std::string& user, const std::string& host,
                       const std::vector<std::string>& werns, std::vector<std::string>* missing,
                       std::string* message);
// Bytes this process has read from etcd clusters, answers and watches.
int64_t cluster_bytes_read();

// Follows the commits of the repository in a cluster: calls on_commit with
// the revision of each, in order, from the one after `after`. Returns 0 when
// keep_going or on_commit says stop, -1 with the error set and message
// filled when the stream breaks (HGX_ERROR_REVISION_COMPACTED where `after`
// is gone).
int follow_cluster(const std::string& url, int64_t after,
                   const std::function<bool(int64_t)>& on_commit,
                   const std::function<bool()>& keep_going, std::string* message);

// A group of the composed view of an instance: the instance's group and the
// service's group at the same path, either of which may be missing (0).
struct ComposedPg {
    int64_t inst = 0;
    int64_t svc = 0;
    std::string name;
    std::string type;
};

// Composed children of a composed group (inst/svc pair; either may be 0), the
// top level of an instance's composed view, and a composed group's
// properties (the instance's hide the service's of the same name). 0 with
// *out replaced, in name order, or -1 with the store's failure.
int composed_children(Store& s, int64_t inst_pg, int64_t svc_pg, std::vector<ComposedPg>* out);
int composed_top(Store& s, int64_t service, int64_t instance, std::vector<ComposedPg>* out);
int composed_props(Store& s, int64_t inst_pg, int64_t svc_pg, std::vector<Row>* out);
// An owner's own groups (kind OWNER_*) as the same entries, the service's
// side 0: walked like a composed view, they give the own groups alone. 0
// with *out replaced, or -1.
int own_pgs(Store& s, int kind, int64_t owner, std::vector<ComposedPg>* out);

// Syntax of names and werns: whether a name is valid; they never fail.
bool valid_segment(std::string_view s);
bool valid_service_name(std::string_view s);

struct WernParts {
    bool has_scope = false;
    std::string scope;  // "localhost" unless written out otherwise
    bool scope_only = false;
    std::string service;
    bool has_instance = false;
    std::string instance;
    std::vector<std::string> path;  // parts behind the separator
};
// 0, or -1 for a wern that is not well-formed (error INVALID_ARGUMENT set,
// with a text that shows what a wern looks like).
int split_wern(std::string_view wern, WernParts* out);

// The short werns of a service and an instance (the names are not checked).
std::string service_wern(std::string_view service);
std::string instance_wern(std::string_view service, std::string_view instance);

}  // namespace hgx_detail
