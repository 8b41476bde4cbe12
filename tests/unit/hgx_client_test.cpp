// The repository client against real repository files built with the
// library's writer: wern decoding, composed views, snapshots,
// read consistency while another process writes, and bind failures.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/temp_dir.h"
#include "hgx.h"
#include "hgx_ptr.h"
#include "hgx_write.h"

namespace {

using testing_support::read_file, testing_support::TempDir, testing_support::write_file;

hgx_owner pg(hgx_writer_t* w, const hgx_owner& owner, const char* name,
             const char* type = "application") {
    hgx_owner out;
    EXPECT_EQ(hgx_writer_add_pg(w, owner, name, type, &out), 0) << name;
    return out;
}

void prop(hgx_writer_t* w, const hgx_owner& g, const char* name, hgx_type_t type,
          std::vector<std::string> values) {
    EXPECT_EQ(hgx_writer_set_property(w, g, name, type, values), 0) << name;
}

// net/foo has groups of its own and two instances; "default" overrides some
// of the service's groups and properties and lacks others.
void build(const std::string& path) {
    std::string msg;
    hgx_writer_t* w = hgx_writer_open(path.c_str(), true, &msg);
    ASSERT_NE(w, nullptr) << msg;
    for (const char* name : {"a", "Zed", "net/bar"}) ASSERT_GT(hgx_writer_add_service(w, name), 0);
    hgx_id_t s = hgx_writer_add_service(w, "net/foo");
    hgx_owner so{hgx_owner::SERVICE, s, s, 0};
    hgx_owner sg = pg(w, so, "general", "framework");
    prop(w, sg, "enabled", HGX_TYPE_BOOLEAN, {"true"});
    prop(w, sg, "svc_only", HGX_TYPE_ASTRING, {"x"});
    hgx_owner sc = pg(w, so, "config");
    prop(w, sc, "port", HGX_TYPE_COUNT, {"80"});
    prop(w, sc, "svconly", HGX_TYPE_ASTRING, {"s"});
    hgx_owner stls = pg(w, sc, "tls");
    prop(w, stls, "cert", HGX_TYPE_ASTRING, {"x"});
    pg(w, sc, "svcnest");
    hgx_owner shared = pg(w, so, "shared_only");
    prop(w, shared, "a", HGX_TYPE_ASTRING, {"1"});

    hgx_id_t i = hgx_writer_add_instance(w, s, "default");
    ASSERT_GT(hgx_writer_add_instance(w, s, "other"), 0);
    hgx_owner io{hgx_owner::INSTANCE, i, s, i};
    hgx_owner ic = pg(w, io, "config");
    prop(w, ic, "port", HGX_TYPE_COUNT, {"8080"});
    prop(w, ic, "hosts", HGX_TYPE_ASTRING, {"c", "a", "b"});
    prop(w, ic, "none", HGX_TYPE_ASTRING, {});
    prop(w, ic, "dual", HGX_TYPE_ASTRING, {"prop"});
    hgx_owner dual = pg(w, ic, "dual");
    prop(w, dual, "inner", HGX_TYPE_ASTRING, {"i"});
    hgx_owner itls = pg(w, ic, "tls");
    prop(w, itls, "on", HGX_TYPE_BOOLEAN, {"false"});
    hgx_owner ig = pg(w, io, "general", "framework");
    prop(w, ig, "enabled", HGX_TYPE_BOOLEAN, {"false"});
    pg(w, io, "inst_only");
    ASSERT_EQ(hgx_writer_take_snapshot(w, s, i, "running"), 0);
    ASSERT_EQ(hgx_writer_commit(w), 0);
    hgx_writer_close(w);
}

// Changes to "default" after its snapshot: a new port and general/enabled.
void change(const std::string& path) {
    std::string msg;
    hgx_writer_t* w = hgx_writer_open(path.c_str(), false, &msg);
    ASSERT_NE(w, nullptr) << msg;
    hgx_id_t s = hgx_writer_find_service(w, "net/foo");
    hgx_id_t i = hgx_writer_find_instance(w, s, "default");
    hgx_owner io{hgx_owner::INSTANCE, i, s, i}, g;
    ASSERT_EQ(hgx_writer_find_pg(w, io, "config", &g), 1);
    prop(w, g, "port", HGX_TYPE_COUNT, {"9999"});
    ASSERT_EQ(hgx_writer_find_pg(w, io, "general", &g), 1);
    prop(w, g, "enabled", HGX_TYPE_BOOLEAN, {"true"});
    ASSERT_GT(hgx_writer_add_service(w, "late"), 0);
    ASSERT_EQ(hgx_writer_commit(w), 0);
    hgx_writer_close(w);
}

class Client : public ::testing::Test {
  protected:
    void SetUp() override {
        path = dir.path() + "/repo.db";
        build(path);
        h = bind(path);
        ASSERT_NE(h, nullptr);
    }
    void TearDown() override {
        owned.clear();
        hgx_handle_destroy(h);
    }
    // An object made for h, released before h.
    template <typename T>
    T* keep(T* object) {
        owned.emplace_back(object, [](void* o) { HgxDeleter()(static_cast<T*>(o)); });
        return object;
    }

    static hgx_handle_t* bind(const std::string& p) {
        hgx_handle_t* handle = hgx_handle_create(HGX_VERSION);
        if (hgx_handle_bind_path(handle, p.c_str()) != 0) {
            ADD_FAILURE() << "bind: " << hgx_strerror(hgx_error());
            hgx_handle_destroy(handle);
            return nullptr;
        }
        return handle;
    }

    hgx_instance_t* instance(const char* wern) {
        auto* inst = keep(hgx_instance_create(h));
        EXPECT_EQ(hgx_handle_decode_wern(h, wern, nullptr, nullptr, inst, nullptr, nullptr,
                                         HGX_DECODE_INSTANCE_ONLY),
                  0);
        return inst;
    }

    // Names of a group walk, "name" for groups and "name=v1,v2" for
    // properties, each group followed by its properties and nested groups.
    void dump_pg(hgx_propertygroup_t* g, bool composed, const hgx_snapshot_t* snap,
                 std::vector<std::string>& out, const std::string& prefix) {
        char buf[1100];
        ASSERT_GE(hgx_pg_get_name(g, buf, sizeof buf), 0);
        std::string name = prefix + buf;
        out.push_back(name + "/");
        auto* it = keep(hgx_iter_create(h));
        auto* vit = keep(hgx_iter_create(h));
        auto* p = keep(hgx_property_create(h));
        auto* v = keep(hgx_value_create(h));
        ASSERT_EQ(hgx_iter_pg_properties(it, g), 0);
        while (hgx_iter_next_property(it, p) == 1) {
            hgx_property_get_name(p, buf, sizeof buf);
            std::string line = name + "/" + buf + "=";
            ASSERT_EQ(hgx_iter_property_values(vit, p), 0);
            for (int n = 0; hgx_iter_next_value(vit, v) == 1; ++n) {
                hgx_value_get_as_string(v, buf, sizeof buf);
                if (n) line += ',';
                line += buf;
            }
            out.push_back(line);
        }
        auto* child = keep(hgx_pg_create(h));
        ASSERT_EQ(composed ? hgx_iter_pg_pgs_composed(it, g, snap) : hgx_iter_pg_pgs(it, g), 0);
        while (hgx_iter_next_pg(it, child) == 1) dump_pg(child, composed, snap, out, name + "/");
    }

    std::vector<std::string> dump_instance(hgx_instance_t* inst, bool composed,
                                           const hgx_snapshot_t* snap) {
        std::vector<std::string> out;
        auto* it = keep(hgx_iter_create(h));
        auto* g = keep(hgx_pg_create(h));
        EXPECT_EQ(composed ? hgx_iter_instance_pgs_composed(it, inst, snap)
                           : hgx_iter_instance_pgs(it, inst),
                  0);
        while (hgx_iter_next_pg(it, g) == 1) dump_pg(g, composed, snap, out, "");
        return out;
    }

    TempDir dir;
    std::string path;
    hgx_handle_t* h = nullptr;
    std::vector<std::unique_ptr<void, void (*)(void*)>> owned;
};

TEST_F(Client, DecodeWernForms) {
    constexpr int IO = HGX_DECODE_INSTANCE_ONLY, SO = HGX_DECODE_SERVICE_ONLY;
    const std::string sp = "wrn:/net/foo/:properties/", ip = "wrn:/net/foo:default/:properties/";
    auto* scope = keep(hgx_scope_create(h));
    auto* svc = keep(hgx_service_create(h));
    auto* inst = keep(hgx_instance_create(h));
    auto* g = keep(hgx_pg_create(h));
    auto* p = keep(hgx_property_create(h));
    // What is set beside the service (and the instance where one is named).
    enum Names { OWNER, GROUP, PROPERTY };
    auto found = [&](Names names, int flags, std::initializer_list<std::string> werns) {
        char buf[1100];
        for (const std::string& wern : werns) {
            SCOPED_TRACE(wern);
            if (hgx_handle_decode_wern(h, wern.c_str(), scope, svc, inst, g, p, flags) != 0) {
                ADD_FAILURE() << hgx_strerror(hgx_error());
                continue;
            }
            std::string named = wern;  // named back without the local host
            if (named.starts_with("wrn://localhost/")) named.erase(4, 11);
            auto back = [&](int rc) { return rc >= 0 ? std::string(buf) : "-"; };
            const std::string instance =
                named.find(":default") != std::string::npos ? "wrn:/net/foo:default" : "-";
            const std::string group = names == GROUP ? named : named.substr(0, named.rfind('/'));
            EXPECT_NE(back(hgx_service_to_wern(svc, buf, sizeof buf)), "-");
            EXPECT_EQ(back(hgx_instance_to_wern(inst, buf, sizeof buf)), instance);
            EXPECT_EQ(back(hgx_pg_to_wern(g, buf, sizeof buf)), names == OWNER ? "-" : group);
            EXPECT_EQ(back(hgx_property_to_wern(p, buf, sizeof buf)),
                      names == PROPERTY ? named : "-");
        }
    };
    found(OWNER, 0, {"wrn:/net/foo", "wrn://localhost/net/foo", "wrn://localhost/net/foo:default"});
    found(OWNER, IO, {"wrn:/net/foo:default"});
    found(OWNER, SO, {"wrn:/net/foo"});
    // An instance's groups resolve in its composed view. A property and a
    // nested group of one name (config/dual): the property wins, and the
    // group is reached through its own properties.
    found(GROUP, 0, {sp + "config", sp + "config/tls", ip + "shared_only"});
    found(PROPERTY, 0,
          {sp + "config/port", "wrn://localhost/net/foo/:properties/config/tls/cert",
           ip + "config/svconly", ip + "config/tls/cert", ip + "config/dual",
           ip + "config/dual/inner"});

    const std::string at_limit = "wrn:/" + std::string(1024 - 5, 'a');
    auto refused = [&](int error, int flags, std::initializer_list<std::string> werns) {
        for (const std::string& wern : werns) {
            EXPECT_EQ(hgx_handle_decode_wern(h, wern.c_str(), scope, svc, inst, g, p, flags), -1);
            EXPECT_EQ(hgx_error(), error) << wern << ": " << hgx_strerror(hgx_error());
        }
    };
    refused(HGX_ERROR_NOT_FOUND, 0,
            {"wrn:/nope", "wrn:/net/foo:nope", sp + "nope", sp + "config/nope",
             sp + "config/port/x", sp + "inst_only", "wrn://otherhost/net/foo", at_limit});
    refused(HGX_ERROR_NOT_FOUND, IO, {"wrn:/net/foo:nope"});
    refused(HGX_ERROR_INVALID_ARGUMENT, 0,
            {at_limit + "a", "", "wrn:", "wrn:/", "wrn:net/foo", "svc:/net/foo", "wrn:/net//foo",
             "wrn:/net/foo/", "wrn:/-net", "wrn:/net/foo:", "wrn:/net/foo:a:b", sp,
             "wrn:/net/foo/:props/config", sp + "config//port"});
    refused(HGX_ERROR_CONSTRAINT_VIOLATED, SO,
            {"wrn:/net/foo:default", "wrn:/nope:x", sp + "config"});
    refused(HGX_ERROR_CONSTRAINT_VIOLATED, IO, {"wrn:/net/foo", ip + "config"});
}

TEST_F(Client, ComposedViewAddsServiceGroupsRecursively) {
    hgx_instance_t* inst = instance("wrn:/net/foo:default");
    std::vector<std::string> composed = {
        "config/",          "config/dual=prop",      "config/hosts=c,a,b", "config/none=",
        "config/port=8080", "config/svconly=s",      "config/dual/",       "config/dual/inner=i",
        "config/svcnest/",  "config/tls/",           "config/tls/cert=x",  "config/tls/on=false",
        "general/",         "general/enabled=false", "general/svc_only=x", "inst_only/",
        "shared_only/",     "shared_only/a=1",
    };
    EXPECT_EQ(dump_instance(inst, true, nullptr), composed);
    // Its own view lacks what only the service holds.
    const std::set<std::string> service_only = {"config/svconly=s",  "config/svcnest/",
                                                "config/tls/cert=x", "general/svc_only=x",
                                                "shared_only/",      "shared_only/a=1"};
    std::vector<std::string> own;
    std::copy_if(composed.begin(), composed.end(), std::back_inserter(own),
                 [&](const std::string& line) { return !service_only.count(line); });
    EXPECT_EQ(dump_instance(inst, false, nullptr), own);

    // The snapshot taken at build time is the composed view of that moment.
    auto* snap = keep(hgx_snapshot_create(h));
    ASSERT_EQ(hgx_instance_get_snapshot(inst, "running", snap), 0);
    EXPECT_EQ(dump_instance(inst, true, snap), composed);
    EXPECT_EQ(hgx_instance_get_snapshot(inst, "nope", snap), -1);
    EXPECT_EQ(hgx_error(), HGX_ERROR_NOT_FOUND);

    // An instance's own group joins the composed view in a composed walk
    // of its nested groups.
    auto* g = keep(hgx_pg_create(h));
    ASSERT_EQ(hgx_instance_get_pg(inst, "config", g), 0);
    std::vector<std::string> out;
    dump_pg(g, true, nullptr, out, "");
    EXPECT_NE(std::find(out.begin(), out.end(), "config/svcnest/"), out.end());
    EXPECT_EQ(std::find(out.begin(), out.end(), "config/svconly=s"), out.end());
    EXPECT_EQ(hgx_instance_get_pg(inst, "shared_only", g), -1);
    EXPECT_EQ(hgx_error(), HGX_ERROR_NOT_FOUND);
    ASSERT_EQ(hgx_instance_get_pg_composed(inst, nullptr, "shared_only", g), 0);
    char buf[100];
    ASSERT_EQ(hgx_pg_get_type(g, buf, sizeof buf), 11);
    EXPECT_STREQ(buf, "application");
}

// The services a walk of the local scope finds.
size_t service_count(hgx_handle_t* h) {
    HgxPtr<hgx_scope_t> scope(hgx_scope_create(h));
    HgxPtr<hgx_iter_t> it(hgx_iter_create(h));
    HgxPtr<hgx_service_t> s(hgx_service_create(h));
    EXPECT_EQ(hgx_handle_get_scope(h, "localhost", scope.get()), 0);
    EXPECT_EQ(hgx_iter_scope_services(it.get(), scope.get()), 0);
    size_t n = 0;
    int rc;
    while ((rc = hgx_iter_next_service(it.get(), s.get())) == 1) ++n;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(hgx_iter_next_service(it.get(), s.get()), 0) << "an ended walk stays ended";
    return n;
}

// A bound handle keeps its state while another process writes; a handle
// bound after sees the change outside the snapshot taken before it, and the
// snapshot as it was.
TEST_F(Client, BoundHandleKeepsItsStateWhileAnotherProcessWritesAndSnapshotsStayFrozen) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // The writer must not wait for the reader's open transaction.
        change(path);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
    auto seen = dump_instance(instance("wrn:/net/foo:default"), false, nullptr);
    EXPECT_NE(std::find(seen.begin(), seen.end(), "config/port=8080"), seen.end());
    EXPECT_EQ(service_count(h), 4u);

    owned.clear();
    hgx_handle_destroy(h);
    h = bind(path);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(service_count(h), 5u);
    hgx_instance_t* inst = instance("wrn:/net/foo:default");
    auto* snap = keep(hgx_snapshot_create(h));
    ASSERT_EQ(hgx_instance_get_snapshot(inst, "running", snap), 0);
    auto frozen = dump_instance(inst, true, snap);
    EXPECT_NE(std::find(frozen.begin(), frozen.end(), "config/port=8080"), frozen.end());
    EXPECT_NE(std::find(frozen.begin(), frozen.end(), "general/enabled=false"), frozen.end());
    auto current = dump_instance(inst, true, nullptr);
    EXPECT_NE(std::find(current.begin(), current.end(), "config/port=9999"), current.end());

    auto* g = keep(hgx_pg_create(h));
    for (const auto& [from, enabled] : {std::pair{snap, "false"}, {nullptr, "true"}}) {
        std::vector<std::string> out;
        ASSERT_EQ(hgx_instance_get_pg_composed(inst, from, "general", g), 0);
        dump_pg(g, true, nullptr, out, "");
        EXPECT_EQ(out,
                  (std::vector<std::string>{"general/", std::string("general/enabled=") + enabled,
                                            "general/svc_only=x"}));
    }
}

// Each way a file is no repository has its own code and text, to a reader
// and to a writer. What a first writer killed before its commit could leave
// (an empty file, an SQLite file with no table and no schema version) is a
// new repository to the next writer; anything else it refuses and leaves
// exactly as it was.
TEST(Bind, EachFailureHasItsOwnCodeAndText) {
    TempDir dir;
    auto sqlite = [&](const std::string& path, const char* sql) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
    };
    const std::string text = dir / "text", other = dir / "other.db", empty = dir / "empty",
                      sub = dir / "sub", bare = dir / "bare.db", foreign = dir / "foreign.db";
    write_file(text, "this is not a database at all, just some text that is long enough\n");
    write_file(empty, "");
    std::filesystem::create_directory(sub);
    sqlite(other, "CREATE TABLE t(x); PRAGMA user_version=7;");
    sqlite(bare, "PRAGMA journal_mode=WAL; BEGIN; CREATE TABLE t(x); ROLLBACK;");
    sqlite(foreign, "CREATE TABLE t(x);");
    struct {
        std::string file;
        hgx_error_t code;
        hgx_error_t written;  // a writer's refusal, or HGX_ERROR_NONE where it fills the file
    } cases[] = {
        {dir / "missing.db", HGX_ERROR_NO_REPOSITORY, HGX_ERROR_NONE},
        {dir / "missing/deeper.db", HGX_ERROR_NO_REPOSITORY, HGX_ERROR_REPOSITORY_ACCESS},
        {text, HGX_ERROR_NOT_A_REPOSITORY, HGX_ERROR_NOT_A_REPOSITORY},
        {other, HGX_ERROR_SCHEMA_MISMATCH, HGX_ERROR_SCHEMA_MISMATCH},
        {foreign, HGX_ERROR_SCHEMA_MISMATCH, HGX_ERROR_SCHEMA_MISMATCH},
        {empty, HGX_ERROR_NO_REPOSITORY, HGX_ERROR_NONE},  // nothing in it yet
        {bare, HGX_ERROR_NO_REPOSITORY, HGX_ERROR_NONE},
        {sub, HGX_ERROR_REPOSITORY_ACCESS, HGX_ERROR_REPOSITORY_ACCESS},
    };
    std::set<std::string> texts;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const std::string before = c.file == sub ? "" : read_file(c.file);
        HgxPtr<hgx_handle_t> h(hgx_handle_create(HGX_VERSION));
        ASSERT_NE(h, nullptr);
        // Through the environment, as a reader finds its repository.
        setenv("HGX_REPOSITORY", c.file.c_str(), 1);
        EXPECT_EQ(hgx_handle_bind(h.get()), -1);
        EXPECT_EQ(hgx_error(), c.code);
        std::string said = hgx_strerror(hgx_error());
        // A missing file is named: the text says which one was looked for.
        if (c.code == HGX_ERROR_NO_REPOSITORY) {
            EXPECT_EQ(said, "Repository file does not exist: " + c.file);
            said.resize(said.size() - c.file.size());
        }
        texts.insert(said);
        // A failed bind leaves the handle unbound.
        HgxPtr<hgx_scope_t> scope(hgx_scope_create(h.get()));
        EXPECT_EQ(hgx_handle_get_scope(h.get(), "localhost", scope.get()), -1);
        EXPECT_EQ(hgx_error(), HGX_ERROR_NOT_BOUND);

        std::string message;
        hgx_writer_t* w = hgx_writer_open(c.file.c_str(), true, &message);
        EXPECT_EQ(w != nullptr, c.written == HGX_ERROR_NONE) << message;
        if (w) {
            EXPECT_GT(hgx_writer_add_service(w, "s"), 0);
            EXPECT_EQ(hgx_writer_commit(w), 0) << hgx_writer_message(w);
            hgx_writer_close(w);
            HgxPtr<hgx_handle_t> filled(hgx_handle_create(HGX_VERSION));
            EXPECT_EQ(hgx_handle_bind(filled.get()), 0);
        } else {
            EXPECT_EQ(hgx_error(), c.written) << message;
            EXPECT_EQ(c.file == sub ? "" : read_file(c.file), before);
        }
    }
    unsetenv("HGX_REPOSITORY");
    EXPECT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts.count(hgx_strerror(HGX_ERROR_INTERNAL)), 0u);
    EXPECT_EQ(hgx_handle_create(2), nullptr);
    EXPECT_EQ(hgx_error(), HGX_ERROR_VERSION_MISMATCH);
}

TEST(Writer, RefusesValuesThatDoNotFitTheirType) {
    struct {
        hgx_type_t type;
        std::vector<std::string> good, bad;
    } cases[] = {
        {HGX_TYPE_BOOLEAN, {"true"}, {"yes"}},
        {HGX_TYPE_COUNT, {"18446744073709551615"}, {"18446744073709551616", "-1", ""}},
        {HGX_TYPE_INTEGER, {"-9223372036854775808"}, {"9223372036854775808", "1x"}},
        {HGX_TYPE_NET_ADDRESS_V4, {"10.1.2.3", "10.1.2.0/24"}, {"10.1.2", "::1"}},
        {HGX_TYPE_NET_ADDRESS_V6, {"::1"}, {"fe80::/129"}},
        {HGX_TYPE_NET_ADDRESS, {"10.0.0.1"}, {"host"}},
        {HGX_TYPE_HOSTNAME, {"a-b.example."}, {"-a.example"}},
        {HGX_TYPE_USTRING, {"\xc3\xa9"}, {"\xc3"}},
        {HGX_TYPE_OPAQUE, {"0aFf"}, {"0a0"}},
        {HGX_TYPE_TIME, {"12.5"}, {"12."}},
        {HGX_TYPE_WERN, {"wrn:/a:b"}, {"wrn:a"}},
        {HGX_TYPE_URI, {"https://x/"}, {"//x"}},
        {HGX_TYPE_ASTRING,
         {"anything at all", std::string(4096, 'x')},
         {std::string(4097, 'x'), std::string("a\0b", 3)}},
    };
    for (const auto& c : cases) {
        for (const std::string& v : c.good)
            EXPECT_EQ(hgx_value_check(c.type, v), 0) << hgx_type_to_string(c.type) << " " << v;
        for (const std::string& v : c.bad) {
            EXPECT_EQ(hgx_value_check(c.type, v), -1) << hgx_type_to_string(c.type) << " " << v;
            EXPECT_EQ(hgx_error(), HGX_ERROR_INVALID_VALUE);
        }
    }
}

// A store written by others (a cluster anyone with its keys can write) may
// hold what no import would take: a copy into a file refuses it, names it
// on one line, and leaves the file as it was.
TEST(Writer, ACopyRefusesWhatNoImportWouldTake) {
    struct Case {
        const char* sql;
        const char* service;
        const char* says;
    } cases[] = {
        {"UPDATE services SET name = 'x$(touch P)' || char(10) || 'wrn:/injected/line:default'"
         " WHERE name = 'net/foo'",
         "x$(touch P)\nwrn:/injected/line:default",
         "bad service name \"x$(touch P)\\nwrn:/injected/line:default\""},
        {"UPDATE instances SET name = 'a b' WHERE name = 'other'", "net/foo",
         "wrn:/net/foo: bad instance name \"a b\""},
        {"UPDATE snapshots SET name = '-x'", "net/foo",
         "wrn:/net/foo:default: bad snapshot name \"-x\""},
        {"UPDATE pgs SET name = 'a:b' WHERE name = 'tls' AND instance_id = 0", "net/foo",
         "wrn:/net/foo/:properties/config: bad group name \"a:b\""},
        {"UPDATE pgs SET type = '' WHERE name = 'general' AND instance_id = 0", "net/foo",
         "wrn:/net/foo/:properties/general: bad group type \"\""},
        {"UPDATE props SET name = 'p q' WHERE name = 'cert'", "net/foo",
         "wrn:/net/foo/:properties/config/tls: bad property name \"p q\""},
        {"UPDATE props SET type = 99 WHERE name = 'svconly'", "net/foo",
         "wrn:/net/foo/:properties/config/svconly: unknown type 99"},
        {"UPDATE props SET vals = CAST('x' || char(0) AS BLOB) WHERE name = 'port'", "net/foo",
         "wrn:/net/foo/:properties/config/port: value \"x\" is not an unsigned decimal number"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sql);
        TempDir dir;
        const std::string from = dir.path() + "/from.db", to = dir.path() + "/to.db";
        build(from);
        build(to);
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(from.c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, c.sql, nullptr, nullptr, nullptr), SQLITE_OK);
        ASSERT_GE(sqlite3_changes(db), 1);
        sqlite3_close(db);
        std::string msg;
        hgx_writer_t* src = hgx_reader_open(from.c_str(), &msg);
        hgx_writer_t* dst = hgx_writer_open(to.c_str(), false, &msg);
        ASSERT_TRUE(src && dst) << msg;
        EXPECT_EQ(hgx_writer_copy_service(dst, src, c.service), -1);
        EXPECT_TRUE(hgx_error() == HGX_ERROR_INVALID_ARGUMENT ||
                    hgx_error() == HGX_ERROR_INVALID_VALUE);
        EXPECT_STREQ(hgx_writer_message(dst), c.says);
        hgx_writer_close(dst);
        hgx_writer_close(src);
    }
}

}  // namespace
