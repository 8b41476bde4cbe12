// hgxrepo import: manifests loaded into the repository in one transaction,
// with a warning for each group or instance that the import removes without
// the manifests saying so.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "hgxrepo_internal.h"

namespace hgxrepo {

namespace {

void write_groups(hgx_writer_t* w, const std::string& path, const hgx_owner& owner,
                  const std::vector<manifest::Group>& groups) {
    for (const manifest::Group& g : groups) {
        hgx_owner pg;
        if (hgx_writer_add_pg(w, owner, g.name, g.type, &pg) < 0) write_failed(w, path);
        for (const manifest::Property& p : g.properties)
            if (hgx_writer_add_property(w, pg, p.name, p.type, p.blob) < 0) write_failed(w, path);
        write_groups(w, path, pg, g.groups);
    }
}

// Writes the services of docs; a service named again replaces what was
// stored, also what an earlier manifest of the same run stored. Returns the
// names of the services written.
std::set<std::string> write_services(hgx_writer_t* w, const std::string& path,
                                     const std::vector<manifest::Document>& docs) {
    std::set<std::string> names;
    for (const manifest::Document& doc : docs) {
        for (const manifest::Service& s : doc.services) {
            hgx_id_t old = hgx_writer_find_service(w, s.name);
            if (old < 0 || (old > 0 && hgx_writer_delete_service(w, old) < 0))
                write_failed(w, path);
            hgx_id_t sid = hgx_writer_add_service(w, s.name);
            if (sid < 0) write_failed(w, path);
            write_groups(w, path, {hgx_owner::SERVICE, sid, sid, 0}, s.groups);
            for (const manifest::Instance& in : s.instances) {
                hgx_id_t iid = hgx_writer_add_instance(w, sid, in.name);
                if (iid < 0) write_failed(w, path);
                write_groups(w, path, {hgx_owner::INSTANCE, iid, sid, iid}, in.groups);
            }
            names.insert(s.name);
        }
    }
    return names;
}

// Groups of an iteration that `kept` (a manifest's groups at the same place)
// no longer has, nested groups included, as lines for *out.
void dropped_groups(hgx_handle_t* h, hgx_iter_t* it, const std::vector<manifest::Group>& kept,
                    const std::string& owner, const std::string& prefix,
                    std::vector<std::string>* out) {
    Pg pg(hgx_pg_create(h));
    if (!pg) throw Failure{lib_error()};
    int rc;
    while ((rc = hgx_iter_next_pg(it, pg.get())) == 1) {
        const std::string name = text_of(hgx_pg_get_name, pg.get());
        auto found = std::find_if(kept.begin(), kept.end(),
                                  [&](const manifest::Group& g) { return g.name == name; });
        if (found == kept.end()) {
            out->push_back(owner + ": group " + manifest::quote(prefix + name) +
                           " is not in the manifest; the import removes it");
            continue;
        }
        Iter inner(hgx_iter_create(h));
        if (!inner || hgx_iter_pg_pgs(inner.get(), pg.get()) < 0)
            throw Failure{failed_to("read groups")};
        dropped_groups(h, inner.get(), found->groups, owner, prefix + name + "/", out);
    }
    if (rc < 0) throw Failure{failed_to("read groups")};
}

// What the import removes from the stored service `svc` (named wern) that
// `described` replaces, as lines for *out.
void dropped_from_service(hgx_handle_t* h, const std::string& path, hgx_service_t* svc,
                          const std::string& wern, const manifest::Service& described,
                          std::vector<std::string>* out) {
    Instance inst(hgx_instance_create(h));
    Iter groups(hgx_iter_create(h));
    Iter instances(hgx_iter_create(h));
    if (!inst || !groups || !instances) throw Failure{lib_error()};
    if (hgx_iter_service_pgs(groups.get(), svc) < 0 ||
        hgx_iter_service_instances(instances.get(), svc) < 0)
        read_failed(path);
    dropped_groups(h, groups.get(), described.groups, wern, "", out);
    int rc;
    while ((rc = hgx_iter_next_instance(instances.get(), inst.get())) == 1) {
        const std::string instance = text_of(hgx_instance_get_name, inst.get());
        const std::string owner = wern + ":" + instance;
        auto found = std::find_if(described.instances.begin(), described.instances.end(),
                                  [&](const manifest::Instance& i) { return i.name == instance; });
        if (found == described.instances.end()) {
            out->push_back(owner + ": instance is not in the manifest; the import removes it");
            continue;
        }
        Iter own(hgx_iter_create(h));
        if (!own || hgx_iter_instance_pgs(own.get(), inst.get()) < 0) read_failed(path);
        dropped_groups(h, own.get(), found->groups, owner, "", out);
    }
    if (rc < 0) read_failed(path);
}

// What importing docs removes from the services it replaces without the
// manifests naming it: their groups and instances that are stored but no
// longer described. Read before the write; a file that cannot be read yet
// has nothing to lose (the write then says what is wrong with it).
std::vector<std::string> dropped_by_import(const std::string& path,
                                           const std::vector<manifest::Document>& docs) {
    std::vector<std::string> out;
    Handle h(hgx_handle_create(HGX_VERSION));
    if (!h || hgx_handle_bind_path(h.get(), path.c_str()) < 0) return out;
    // The last description of a service in the run is the one that stays.
    std::map<std::string, const manifest::Service*> last;
    for (const manifest::Document& doc : docs)
        for (const manifest::Service& s : doc.services) last[s.name] = &s;
    for (const auto& [name, described] : last) {
        const std::string wern = "wrn:/" + name;
        Service svc(hgx_service_create(h.get()));
        if (!svc) throw Failure{lib_error()};
        if (hgx_handle_decode_wern(h.get(), wern.c_str(), nullptr, svc.get(), nullptr, nullptr,
                                   nullptr, 0) < 0)
            continue;  // a new service
        dropped_from_service(h.get(), path, svc.get(), wern, *described, &out);
    }
    return out;
}

// The text of a manifest file, or of standard input for "-": read no
// further than the size limit, and a file whose size says it is larger is
// not read at all.
std::string read_input(const std::string& file) {
    const bool from_stdin = file == "-";
    const std::string name = from_stdin ? "<stdin>" : file;
    int fd = from_stdin ? 0 : open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw Failure{name + ": cannot read: " + std::strerror(errno)};
    struct Closer {
        int fd;
        ~Closer() {
            if (fd > 0) close(fd);
        }
    } closer{fd};
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
        static_cast<uint64_t>(st.st_size) > manifest::MANIFEST_SIZE_LIMIT)
        throw Failure{manifest::too_large(name, static_cast<size_t>(st.st_size))};
    std::string text;
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw Failure{name + ": cannot read: " + std::strerror(errno)};
        if (n == 0) return text;
        if (text.size() + static_cast<size_t>(n) > manifest::MANIFEST_SIZE_LIMIT)
            throw Failure{manifest::too_large(name, 0)};
        text.append(buf, static_cast<size_t>(n));
    }
}

}  // namespace

void import_documents(const std::string& path, const std::vector<manifest::Document>& docs,
                      bool snapshot, std::vector<std::string>* dropped) {
    if (dropped) *dropped = dropped_by_import(path, docs);
    Writer w = open_writer(path, true);
    std::set<std::string> names = write_services(w.get(), path, docs);
    if (snapshot) {
        for (const std::string& name : names) {
            hgx_id_t sid = hgx_writer_find_service(w.get(), name);
            std::vector<hgx_id_t> instances;
            if (sid <= 0 || hgx_writer_instances(w.get(), sid, &instances) < 0)
                write_failed(w.get(), path);
            for (hgx_id_t iid : instances)
                if (hgx_writer_take_snapshot(w.get(), sid, iid, "running") < 0)
                    write_failed(w.get(), path);
        }
    }
    commit(w.get(), path);
}

int cmd_import(const Invocation& inv) {
    std::vector<std::string> files = inv.words;
    bool take = true;
    if (!files.empty() && files[0] == "--no-snapshot") {
        take = false;
        files.erase(files.begin());
    }
    if (files.empty()) throw Usage{"import: missing MANIFEST"};
    std::vector<manifest::Document> docs(files.size());
    for (size_t k = 0; k < files.size(); ++k) {
        std::string error;
        std::string name = files[k] == "-" ? "<stdin>" : files[k];
        if (manifest::parse(read_input(files[k]), name, &docs[k], &error) < 0) throw Failure{error};
    }
    std::vector<std::string> dropped;
    until_committed(inv.path, [&] {
        dropped.clear();
        import_documents(inv.path, docs, take, &dropped);
    });
    for (const std::string& line : dropped) std::cerr << PROG << one_line(line) << '\n';
    return 0;
}

}  // namespace hgxrepo
