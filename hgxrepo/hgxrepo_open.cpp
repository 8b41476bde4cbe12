// Opening the repository for a command, and the messages of its failures.
#include <string>

#include "hgxrepo_internal.h"

namespace hgxrepo {

namespace {

// What to do about a repository file that is not there, for the message
// that names the file.
std::string missing_repository_hint() {
    if (hgx_error() == HGX_ERROR_CLUSTER_NO_REPOSITORY)
        return "; name the cluster and prefix with -r URL or HGX_REPOSITORY, or create it "
               "with hgxrepo import";
    if (hgx_error() != HGX_ERROR_NO_REPOSITORY) return "";
    return "; name the file with -r FILE or HGX_REPOSITORY, or create it with hgxrepo import";
}

}  // namespace

std::string lib_error() { return hgx_strerror(hgx_error()); }

// Built by appending: GCC 12 at -O3 takes "literal" + std::string&& for an
// overlapping copy (-Wrestrict).
std::string failed_to(const char* what) {
    std::string s = "cannot ";
    s += what;
    s += ": ";
    s += lib_error();
    return s;
}

MirrorRecord mirror_record(hgx_writer_t* w, const std::string& path) {
    MirrorRecord record;
    if (hgx_is_cluster_url(path)) return record;
    // The records sync keeps of its patterns: any pattern makes a part.
    std::string patterns;
    for (const char* key : {"services", "instances"}) {
        int rc = hgx_writer_meta_get(w, key, &patterns);
        if (rc < 0) throw Failure{path + ": cannot read: " + lib_error()};
        record.partial = record.partial || (rc > 0 && !patterns.empty());
    }
    if (hgx_writer_meta_get(w, "source", &record.source) < 0 ||
        hgx_writer_meta_get(w, "url", &record.url) < 0 ||
        hgx_writer_meta_get(w, "revision", &record.revision) < 0)
        throw Failure{path + ": cannot read: " + lib_error()};
    return record;
}

Writer open_writer(const std::string& path, bool create) {
    std::string message;
    Writer w(hgx_writer_open(path.c_str(), create, &message));
    if (!w) throw Failure{message + missing_repository_hint()};
    // Decided under the writer's lock; the writer goes unused, and with it
    // the transaction.
    MirrorRecord mirror = mirror_record(w.get(), path);
    if (!mirror.source.empty())
        throw Failure{path + " is the mirror of " + mirror.origin() + "; change the cluster"};
    return w;
}

std::string writer_error(hgx_writer_t* w) {
    std::string detail = hgx_writer_message(w);
    return detail.empty() ? lib_error() : detail;
}

void write_failed(hgx_writer_t* w, const std::string& path) {
    throw Failure{path + ": cannot write: " + writer_error(w)};
}

void commit(hgx_writer_t* w, const std::string& path) {
    if (hgx_writer_commit(w) == 0) return;
    if (hgx_error() == HGX_ERROR_CONFLICT) throw Conflict{};
    write_failed(w, path);
}

Handle open_reader(const std::string& path) {
    Handle h(hgx_handle_create(HGX_VERSION));
    if (!h) throw Failure{lib_error()};
    if (hgx_handle_bind_path(h.get(), path.c_str()) < 0) {
        // The library's text of a missing file ends in its name, which this
        // message puts in front already.
        std::string text = lib_error();
        const std::string named = ": " + path;
        if (text.size() > named.size() &&
            text.compare(text.size() - named.size(), named.size(), named) == 0)
            text.resize(text.size() - named.size());
        throw Failure{path + ": " + text + missing_repository_hint()};
    }
    return h;
}

void read_failed(const std::string& path) { throw Failure{path + ": cannot read: " + lib_error()}; }

}  // namespace hgxrepo
