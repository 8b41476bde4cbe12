// libhgx's own write operations, beyond the read interface of hgx.h. They are
// what hgxrepo fills and edits the repository with.
//
// A writer opens the repository file read-write and holds one write
// transaction from hgx_writer_open to hgx_writer_commit; closing a writer that
// did not commit rolls everything back. A file that a writer creates appears
// at its commit, complete, or not at all; a writer never removes a file. Objects are named by ids
// (hgx_id_t, 0 = none); functions that return an id give -1 on failure, others 0 or -1, with
// hgx_error() set and hgx_writer_message() telling more where the store failed.
//
// Every operation on a writer needs a writer that hgx_writer_open (or a
// hgx_reader_open*) returned and that is not closed; a null writer is the
// caller's fault and is not checked except where said. Out-parameters are
// written only on success unless said otherwise. A writer is used by one
// thread at a time. Ids are valid for the writer that handed them out, until
// it is closed or the object is deleted.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "hgx.h"

typedef struct hgx_writer hgx_writer_t;
typedef int64_t hgx_id_t;

// Owner of groups: a service, an instance, or a group (nested groups). For an
// instance and its groups, `instance` is set; `service` always is.
struct hgx_owner {
    enum Kind { SERVICE, INSTANCE, PG } kind = SERVICE;
    hgx_id_t id = 0;  // of the service, instance or group
    hgx_id_t service = 0;
    hgx_id_t instance = 0;
};

// The parts of a well-formed wern, by syntax alone.
struct hgx_wern_parts {
    bool scope_only = false;  // "wrn://localhost"
    std::string scope;        // "localhost" unless written otherwise
    std::string service;
    bool has_instance = false;
    std::string instance;
    std::vector<std::string> path;  // group path and property behind the separator
};

// 0 with *parts set, or -1 with HGX_ERROR_INVALID_ARGUMENT for a null
// argument or a wern that is not well-formed (*parts then unspecified).
int hgx_wern_split(const char* wern, hgx_wern_parts* parts);

// Names: a segment starts with a letter or digit and holds letters, digits
// and "_.,+-"; a service name is segments joined by '/'.
// Give whether the name is valid; never fail, and set no error.
bool hgx_valid_name(std::string_view name);
bool hgx_valid_service_name(std::string_view name);
// Whether a repository's name is an etcd URL (etcd:// or etcds://) rather
// than a file's path; never fails.
bool hgx_is_cluster_url(std::string_view where);

// 0 when the value fits the type (and the value length limit), else -1 with
// HGX_ERROR_INVALID_VALUE; *why (if given) receives a short reason, a static
// text to put after the value in a message ("is not a host name"), or null
// when the value fits. -1 with HGX_ERROR_NO_MEMORY (*why null) when the
// check itself ran out of memory.
int hgx_value_check(hgx_type_t type, std::string_view value, const char** why = nullptr);

// Values as stored: each followed by a NUL byte, so that an empty list and a
// list of one empty value differ. 0 with *blob replaced, or -1 with
// HGX_ERROR_NO_MEMORY (*blob then unspecified).
int hgx_values_blob(const std::vector<std::string>& values, std::string* blob);

// Opens the file and begins the write transaction. Where the file does not
// exist and create is set, the writer builds it (mode 0644 under the umask)
// beside its place and links it there at the commit: readers find no file
// until then, and where another writer's file appeared meanwhile the commit
// fails with HGX_ERROR_CONFLICT. An empty file, or an SQLite file with no
// table and no schema version, is given the schema in place. Null on
// failure; a message for the user is in *message (message may be null). The
// caller owns the writer and releases it with hgx_writer_close (or an
// HgxPtr).
//
// path names a file or an etcd cluster (etcd://, etcds://). On a cluster,
// hgx_writer_commit fails with HGX_ERROR_CONFLICT when another writer
// committed first; the whole command may then be run again on a new writer.
hgx_writer_t* hgx_writer_open(const char* path, bool create, std::string* message);
// As hgx_writer_open with create set, where a file it creates gets exactly
// the permission bits mode (at most 0777; the umask does not apply). A file
// that exists keeps its mode. Null with HGX_ERROR_INVALID_ARGUMENT for
// another mode.
hgx_writer_t* hgx_writer_create(const char* path, unsigned mode, std::string* message);
// Opens a repository for reading only, through the same interface: one
// state of it for the writer's life; changes fail, commit is never needed.
// Null on failure, with a line for the user in *message.
hgx_writer_t* hgx_reader_open(const char* path, std::string* message);
// Starts the next transaction on a writer of a file whose last one committed,
// so that one writer (one open of the file) serves a process's successive
// transactions: 0, or -1 with HGX_ERROR_INVALID_ARGUMENT for a writer that
// did not commit, a reader or a cluster, or the store's failure (the writer
// is then only good for closing).
int hgx_writer_begin(hgx_writer_t* w);
// Whether the commits of a writer of a file wait until they are on the disk,
// as they do unless told otherwise. Not durable, a power loss or a crash of
// the system may take back the last commits, each whole, never a part of
// one: for a copy whose source keeps every state (a mirror of a cluster).
// Takes effect from the next transaction (hgx_writer_begin) on. 0, or -1
// with HGX_ERROR_INVALID_ARGUMENT for a cluster (whose durability is its
// own).
int hgx_writer_set_durable(hgx_writer_t* w, bool durable);
// Makes every change of the writer visible at once and returns 0; -1 with
// HGX_ERROR_INVALID_ARGUMENT for a null writer, HGX_ERROR_CONFLICT (a
// cluster) or the store's failure, and
// then nothing of the changes is visible. A writer holds one transaction: it
// is not used for changes after its commit.
int hgx_writer_commit(hgx_writer_t* w);
// Ends the writer, rolling back what it did not commit (and removing the
// file again if it created it and did not commit); accepts null.
void hgx_writer_close(hgx_writer_t* w);
// The store's text for the last failure of this writer, or ""; owned by the
// writer, valid until its next operation. "" for a null writer.
const char* hgx_writer_message(const hgx_writer_t* w);

// The service's id, 0 where there is none, -1 on failure.
hgx_id_t hgx_writer_find_service(hgx_writer_t* w, std::string_view name);
// The new service's id; -1 with HGX_ERROR_INVALID_ARGUMENT for a name that
// is not valid or whose wern would be too long, HGX_ERROR_EXISTS, or the
// store's failure (a reader refuses every change).
hgx_id_t hgx_writer_add_service(hgx_writer_t* w, std::string_view name);
// Removes a service with its instances, snapshots, groups and properties.
int hgx_writer_delete_service(hgx_writer_t* w, hgx_id_t service);
// Ids of a service's instances, in name order; *out is replaced.
int hgx_writer_instances(hgx_writer_t* w, hgx_id_t service, std::vector<hgx_id_t>* out);

// As for services: find gives the id, 0 where there is none, or -1; add the
// new id or -1 (HGX_ERROR_INVALID_ARGUMENT, HGX_ERROR_EXISTS, ...); delete
// removes the instance with its snapshots and groups.
hgx_id_t hgx_writer_find_instance(hgx_writer_t* w, hgx_id_t service, std::string_view name);
hgx_id_t hgx_writer_add_instance(hgx_writer_t* w, hgx_id_t service, std::string_view name);
int hgx_writer_delete_instance(hgx_writer_t* w, hgx_id_t service, hgx_id_t instance);

// Own groups only; nothing is composed on the write side. find gives 1 with
// *pg set, 0 if there is none, -1 on failure. add gives 0 with *pg set to the
// new group, or -1 (HGX_ERROR_INVALID_ARGUMENT for a name or type that is not
// valid or too long, HGX_ERROR_EXISTS).
int hgx_writer_find_pg(hgx_writer_t* w, const hgx_owner& owner, std::string_view name,
                       hgx_owner* pg);
int hgx_writer_add_pg(hgx_writer_t* w, const hgx_owner& owner, std::string_view name,
                      std::string_view type, hgx_owner* pg);
// Removes a group with its nested groups and all their properties.
int hgx_writer_delete_pg(hgx_writer_t* w, const hgx_owner& pg);

// 1 with *type set, 0 if the group has no property of that name, -1 failure.
int hgx_writer_find_property(hgx_writer_t* w, const hgx_owner& pg, std::string_view name,
                             hgx_type_t* type);
// Adds a property that the group does not have yet; blob as hgx_values_blob
// gives, values not checked (the caller did).
int hgx_writer_add_property(hgx_writer_t* w, const hgx_owner& pg, std::string_view name,
                            hgx_type_t type, std::string_view blob);
// Sets a property, replacing one of that name; checks the values.
int hgx_writer_set_property(hgx_writer_t* w, const hgx_owner& pg, std::string_view name,
                            hgx_type_t type, const std::vector<std::string>& values);
// 0, or -1 with HGX_ERROR_NOT_FOUND where the group has no such property.
int hgx_writer_delete_property(hgx_writer_t* w, const hgx_owner& pg, std::string_view name);

// Takes the snapshot `name` of an instance: a frozen copy of its composed
// view now, replacing a snapshot of that name.
int hgx_writer_take_snapshot(hgx_writer_t* w, hgx_id_t service, hgx_id_t instance,
                             std::string_view name);

// Names of all services, in byte order; *out is replaced.
int hgx_writer_services(hgx_writer_t* w, std::vector<std::string>* out);

// Copies the service `name` of `from` into `to` with its groups, instances
// and snapshots exactly, replacing a service of that name in `to`.
// HGX_ERROR_NOT_FOUND where `from` has no such service.
int hgx_writer_copy_service(hgx_writer_t* to, hgx_writer_t* from, std::string_view name);

// ---- mirrors -------------------------------------------------------------
// What hgxrepo sync builds a host's mirror of a cluster with.

// As hgx_reader_open, for a cluster at the given revision (0: the newest).
// A reader takes as long as its reading takes while the cluster answers:
// only a silent member ends a request.
hgx_writer_t* hgx_reader_open_at(const char* url, int64_t revision, std::string* message);
// The cluster and prefix the repository comes from ("" for a file), owned
// by the writer for its life, and the revision it was read at (0 for a
// file).
const char* hgx_writer_source(const hgx_writer_t* w);
int64_t hgx_writer_revision(const hgx_writer_t* w);
// What the commit that made a cluster's state changed: 0 with *all set
// where it cannot be told (a file, a commit that changed very much, or a
// user that may not read the record of it), else with *out the (service,
// instance) pairs it changed: instance "" for the service's own groups,
// "*" for anything of the service. -1 on failure.
int hgx_writer_changes(hgx_writer_t* w, std::vector<std::pair<std::string, std::string>>* out,
                       bool* all);
// A text that changes whenever the service's own groups (instance "") or the
// instance with its snapshots change in a cluster: 1 with *version set, 0
// where there is no such service or instance, -1 on failure (a file:
// HGX_ERROR_INVALID_ARGUMENT).
int hgx_writer_version(hgx_writer_t* w, std::string_view service, std::string_view instance,
                       std::string* version);
// Every instance of a service in a cluster with its version: 1 with *out
// replaced, 0 where there is no such service, -1 on failure.
int hgx_writer_instance_versions(hgx_writer_t* w, std::string_view service,
                                 std::vector<std::pair<std::string, std::string>>* out);
// The werns of the instances that the cluster's user (HGX_ETCD_USER) has
// been granted with hgx_grant: 0 with *werns replaced (empty without a
// user), -1 on failure.
int hgx_writer_granted(hgx_writer_t* w, std::vector<std::string>* werns);
// Makes the service's own groups in `to` those of `from`, adding the service
// to `to` where it lacks it and keeping its instances; where `from` has no
// such service, removes it from `to`. 0 or -1.
int hgx_writer_copy_own(hgx_writer_t* to, hgx_writer_t* from, std::string_view service);
// Makes the instance in `to` (with its groups and snapshots) that of
// `from`, or removes it where `from` has none or is null; the service must
// be in `to` (HGX_ERROR_NOT_FOUND). 0 or -1.
int hgx_writer_copy_instance(hgx_writer_t* to, hgx_writer_t* from, std::string_view service,
                             std::string_view instance);
// Bytes this process has read from etcd clusters so far.
int64_t hgx_cluster_bytes_read();

// Converts the repository below a cluster's prefix (url) from the first
// layout of its keys, in one switch: 0 converted, 1 there was nothing to
// convert, -1 with hgx_error() set and a line for the user in *message.
int hgx_upgrade(const char* url, std::string* message);
// Gives the existing etcd user a role of its own that reads the instances
// that werns name (wrn:/SERVICE:INSTANCE) and their services' own groups,
// and nothing else of the repository at url; with a host name, also writes
// that host's status key. Replaces what that role granted before. Needs the
// etcd root user's credentials. 0 with the werns of instances that the
// repository does not hold yet in *missing (granted all the same), or -1
// with hgx_error() set and a line in *message.
int hgx_grant(const char* url, const std::string& user, const std::string& host,
              const std::vector<std::string>& werns, std::vector<std::string>* missing,
              std::string* message);
// Records kept beside the repository in a file (a cluster keeps none):
// get gives 1 with *value set, 0 where there is none, -1 on failure.
int hgx_writer_meta_get(hgx_writer_t* w, std::string_view key, std::string* value);
int hgx_writer_meta_set(hgx_writer_t* w, std::string_view key, std::string_view value);
// For each instance of the service, a text that differs exactly when what
// kelvo reads of the instance differs: its snapshot "running" where it has
// one, else its own groups (their nested groups composed with the
// service's), and in either case the group "general" of its current
// composed view in place of the one the view holds. Other snapshots, and a
// change of a group that the view does not show, leave it as it was. An
// absent service gives no instances.
int hgx_writer_instance_texts(hgx_writer_t* w, std::string_view service,
                              std::map<std::string, std::string>* out);
// The same for one instance: 1 with *text set, 0 where there is no such
// service or instance, -1 on failure.
int hgx_writer_instance_text(hgx_writer_t* w, std::string_view service, std::string_view instance,
                             std::string* text);
// ---- a host's status in a cluster ------------------------------------------
// What hgxrepo sync keeps of its host below a cluster's prefix (the key
// P/hosts/NAME), and what hgxrepo hosts reads of every host.

// The last commit of a repository in a cluster as of some revision.
struct hgx_commit_info {
    int64_t revision = 0;  // the etcd revision that made it
    int64_t number = 0;    // how many commits the repository has had, this one included
    int64_t time = 0;      // when it was made (seconds since the epoch); 0: not recorded
};

typedef struct hgx_status_key hgx_status_key_t;

// The status key of host `name` in the cluster at url, kept by this process
// with a client of its own: written under an etcd lease of ttl seconds, so
// that the key goes when its keeper stops renewing the lease (a host that
// dies disappears). Nothing of the key is sent before the first put. Null with
// HGX_ERROR_INVALID_ARGUMENT for a url that is no cluster's, a name that is
// not a valid name, or a ttl below 2; or with the client's failure; a line
// for the user in *message. The caller owns the key and ends it with
// hgx_status_key_close. One thread at a time uses a key.
hgx_status_key_t* hgx_status_key_open(const char* url, std::string_view name, int ttl,
                                      std::string* message);
// Writes record on the key under its lease, granting a lease first where
// the key holds none or the cluster let it lapse: 0, or -1 with the error set
// and hgx_status_key_message saying what failed.
int hgx_status_key_put(hgx_status_key_t* k, std::string_view record);
// Renews the lease, and where the cluster let it lapse meanwhile writes the
// last record again under a new one: 0 (also before the first put, when
// there is nothing to renew), or -1 as put.
int hgx_status_key_renew(hgx_status_key_t* k);
// The last commit of the repository as of revision (0: now), read by the
// key's client: 1 with *commit set, 0 where the prefix holds no repository
// then, -1 as put (HGX_ERROR_REVISION_COMPACTED for a revision compacted
// away).
int hgx_status_key_commit(hgx_status_key_t* k, int64_t revision, hgx_commit_info* commit);
// The store's text for the key's last failure, or ""; owned by the key.
const char* hgx_status_key_message(const hgx_status_key_t* k);
// Revokes the lease, so that the key goes at once, and ends the client;
// accepts null. Waits for the cluster a few seconds at most.
void hgx_status_key_close(hgx_status_key_t* k);

// Every host's status record below the prefix of the cluster at url, by the
// host's name as its key holds it (any bytes; records as written, not
// checked), and the repository's last commit, both as of one revision: 0
// with *records replaced and *head set (head->revision 0 where there is no
// repository), or -1 with the error set and a line for the user in *message.
int hgx_hosts_read(const char* url, std::map<std::string, std::string>* records,
                   hgx_commit_info* head, std::string* message);
// The repository's last commit now: 1 with *last set, 0 where the prefix
// holds no repository, -1 as hgx_hosts_read.
int hgx_last_commit(const char* url, hgx_commit_info* last, std::string* message);
// The first commit of the repository after revision `after`: 1 with *next
// set, 0 where there is none, -1 as hgx_hosts_read. Where the cluster has
// compacted away the revisions just after `after`, the first commit it
// still knows of stands for it.
int hgx_commit_after(const char* url, int64_t after, hgx_commit_info* next, std::string* message);

// Follows a cluster's commits from the one after revision `after`, calling
// on_commit(revision) for each in order, until on_commit or keep_going (asked
// about once a second) says stop: then 0. -1 with hgx_error() set and
// *message filled when the stream breaks; HGX_ERROR_REVISION_COMPACTED when
// the revision after `after` is gone.
int hgx_follow(const char* url, int64_t after, const std::function<bool(int64_t)>& on_commit,
               const std::function<bool()>& keep_going, std::string* message);
