// The cluster store through the library itself, where a program cannot
// show it: a bound handle keeps reading its revision while others write,
// and fails with its own code when that revision is compacted away or the
// prefix holds a repository of another schema.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

#include "etcd_gtest.h"
#include "hgx.h"
#include "hgx_ptr.h"
#include "hgx_write.h"

namespace {

using Handle = HgxPtr<hgx_handle_t>;

class HgxEtcd : public ::testing::Test {
  protected:
    void SetUp() override {
        ETCD_START_OR_SKIP(server, etcd_testing::Options{});
        url = server.url("unit");
    }

    // Adds a service with one instance in a transaction of its own.
    void add_service(const std::string& name) {
        std::string message;
        hgx_writer_t* w = hgx_writer_open(url.c_str(), true, &message);
        ASSERT_NE(w, nullptr) << message;
        hgx_id_t s = hgx_writer_add_service(w, name);
        ASSERT_GT(s, 0);
        ASSERT_GT(hgx_writer_add_instance(w, s, "default"), 0);
        ASSERT_EQ(hgx_writer_commit(w), 0) << hgx_writer_message(w);
        hgx_writer_close(w);
    }

    Handle bind() {
        Handle h(hgx_handle_create(HGX_VERSION));
        EXPECT_EQ(hgx_handle_bind_path(h.get(), url.c_str()), 0) << hgx_strerror(hgx_error());
        return h;
    }

    // Resolves a wern with the handle: 0, or the error code.
    static int decode(hgx_handle_t* h, const char* wern) {
        hgx_service_t* s = hgx_service_create(h);
        int rc = hgx_handle_decode_wern(h, wern, nullptr, s, nullptr, nullptr, nullptr, 0);
        hgx_service_destroy(s);
        return rc == 0 ? 0 : hgx_error();
    }

    etcd_testing::EtcdServer server;
    std::string url;
};

// A handle reads the revision of its first read, until compaction takes it.
TEST_F(HgxEtcd, AHandleReadsTheRevisionOfItsFirstReadUntilItIsCompacted) {
    add_service("a");
    Handle h = bind();
    add_service("b");
    EXPECT_EQ(decode(h.get(), "wrn:/a"), 0);
    EXPECT_EQ(decode(h.get(), "wrn:/b"), HGX_ERROR_NOT_FOUND) << "a later commit showed";
    EXPECT_EQ(decode(bind().get(), "wrn:/b"), 0);
    server.compact();
    EXPECT_EQ(decode(h.get(), "wrn:/a:default"), HGX_ERROR_REVISION_COMPACTED);
    EXPECT_EQ(decode(bind().get(), "wrn:/a"), 0);
}

TEST_F(HgxEtcd, AnotherSchemaOrSomethingElseBelowThePrefixIsRefused) {
    struct Case {
        const char* head;
        hgx_error_t code;
    } cases[] = {
        {"{\"schema\":3,\"epoch\":\"x\"}", HGX_ERROR_CLUSTER_SCHEMA},
        {"{\"schema\":1,\"epoch\":\"x\"}", HGX_ERROR_CLUSTER_OLD_SCHEMA},
        {"not json", HGX_ERROR_CLUSTER_FOREIGN},
    };
    for (const Case& c : cases) {
        server.put("unit/repository", c.head);
        Handle h(hgx_handle_create(HGX_VERSION));
        EXPECT_EQ(hgx_handle_bind_path(h.get(), url.c_str()), -1);
        EXPECT_EQ(hgx_error(), c.code) << c.head;
        std::string message;
        EXPECT_EQ(hgx_writer_open(url.c_str(), true, &message), nullptr) << c.head;
        EXPECT_NE(message.find(hgx_strerror(c.code)), std::string::npos) << message;
    }
}

// Every key of a service's documents and pointers overwritten with what no
// writer makes: reading the service fails with a code, never a crash.
TEST_F(HgxEtcd, AMalformedDocumentIsAnErrorCode) {
    add_service("a");
    ASSERT_EQ(decode(bind().get(), "wrn:/a:default"), 0);
    const std::string ctl = "ETCDCTL_API=3 etcdctl --endpoints=" + server.endpoints() + " ";
    std::unique_ptr<FILE, int (*)(FILE*)> keys(
        popen((ctl + "get --prefix unit/o/ --keys-only").c_str(), "r"), pclose);
    ASSERT_NE(keys, nullptr);
    int overwritten = 0;
    for (char line[512]; fgets(line, sizeof line, keys.get()) != nullptr;) {
        std::string key(line);
        key.erase(key.find_last_not_of("\r\n") + 1);
        if (key.empty()) continue;
        server.put(key, "{\"doc\":5}");
        ++overwritten;
    }
    ASSERT_GT(overwritten, 0);
    const int code = decode(bind().get(), "wrn:/a:default");
    EXPECT_NE(code, 0);
    EXPECT_NE(code, HGX_ERROR_NOT_FOUND) << "a malformed document is not a missing one";
}

}  // namespace
