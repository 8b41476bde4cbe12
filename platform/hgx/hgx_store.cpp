// What every store shares: the thread's error, the choice of store, the
// composed view and wern syntax.
#include <utility>

#include "hgx_internal.h"

namespace hgx_detail {

namespace {
thread_local hgx_error_t last_error = HGX_ERROR_NONE;
// The text of the last failure where it says more than its code's; empty
// otherwise.
thread_local std::string last_text;
}  // namespace

void set_error(hgx_error_t code) {
    last_error = code;
    last_text.clear();
}
void set_error_text(hgx_error_t code, std::string text) {
    last_error = code;
    last_text = std::move(text);
}
hgx_error_t get_error() { return last_error; }
const char* last_error_text(hgx_error_t code) {
    return code == last_error && !last_text.empty() ? last_text.c_str() : nullptr;
}

bool is_cluster_url(std::string_view where) {
    return where.substr(0, 7) == "etcd://" || where.substr(0, 8) == "etcds://";
}

int cluster_only(const std::string& where, std::string_view what, std::string* message) {
    if (is_cluster_url(where)) return 0;
    *message = where + ": ";
    *message += what;
    return fail(HGX_ERROR_INVALID_ARGUMENT);
}

std::unique_ptr<Store> open_store(const std::string& where, OpenMode mode, std::string* message,
                                  int64_t at_revision) {
    if (is_cluster_url(where)) {
        if (mode == OpenMode::READ_NO_WRITES) mode = OpenMode::READ;
        return open_cluster_store(where, mode, message, at_revision);
    }
    // A file is read in one read transaction however long the reading takes.
    return open_file_store(where, mode == OpenMode::COPY ? OpenMode::READ : mode, message);
}

namespace {

// Walks two lists sorted by name together, in name order: each name once,
// with the entry of `own` and of `inherited` that has it (null where that
// list lacks it).
template <typename Visit>
void merge_by_name(std::vector<Row>& own, const std::vector<Row>& inherited, Visit&& visit) {
    size_t i = 0, j = 0;
    while (i < own.size() || j < inherited.size()) {
        int c = i == own.size()         ? 1
                : j == inherited.size() ? -1
                                        : own[i].name.compare(inherited[j].name);
        visit(c <= 0 ? &own[i] : nullptr, c >= 0 ? &inherited[j] : nullptr);
        if (c <= 0) ++i;
        if (c >= 0) ++j;
    }
}

// Groups: every group of `own` stands, joined by the inherited group of the
// same name; inherited groups whose name `own` lacks are added.
std::vector<ComposedPg> merge_pgs(std::vector<Row>& own, const std::vector<Row>& inherited) {
    std::vector<ComposedPg> out;
    out.reserve(own.size() + inherited.size());
    merge_by_name(own, inherited, [&](Row* o, const Row* in) {
        const Row& named = o ? *o : *in;
        out.push_back({o ? o->id : 0, in ? in->id : 0, named.name, named.text});
    });
    return out;
}

// Properties: a property of `own` hides the inherited one of its name.
std::vector<Row> merge_props(std::vector<Row> own, const std::vector<Row>& inherited) {
    if (inherited.empty()) return own;
    std::vector<Row> out;
    out.reserve(own.size() + inherited.size());
    merge_by_name(own, inherited,
                  [&](Row* o, const Row* in) { out.push_back(o ? std::move(*o) : *in); });
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

int own_pgs(Store& s, int kind, int64_t owner, std::vector<ComposedPg>* out) {
    std::vector<Row> rows;
    if (s.pgs(kind, owner, &rows) < 0) return -1;
    out->clear();
    out->reserve(rows.size());
    for (const Row& r : rows) out->push_back({r.id, 0, r.name, r.text});
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
    constexpr std::string_view PUNCTUATION = "_.,+-";
    if (s.empty() || !alnum(s[0])) return false;
    for (char c : s)
        if (!alnum(c) && PUNCTUATION.find(c) == std::string_view::npos) return false;
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
        set_error_text(HGX_ERROR_INVALID_ARGUMENT,
                       "Malformed wern; a wern looks like wrn:/SERVICE, wrn:/SERVICE:INSTANCE or "
                       "wrn:/SERVICE:INSTANCE/:properties/GROUP/PROPERTY");
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
