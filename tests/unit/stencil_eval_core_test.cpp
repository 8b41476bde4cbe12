// Evaluation internals that the program's output cannot show: the shape of
// the output tree, the state of the stencil around an evaluation, and the
// writer.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "hgxrepo.h"
#include "stencil_internal.h"
#include "unit_util.h"

namespace {

constexpr char MANIFEST[] = R"({"services": {"net/foo": {"instances": {"default": {"groups": {
  "net": {"properties": {"host": "h1", "port": "80"}}}}}}}})";

// A repository file, a view on it, and stencils loaded from text.
class Eval : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string error;
        ASSERT_EQ(hgxrepo_import_text(dir_ / "repo.db", MANIFEST, true, &error), 0) << error;
        setenv("HGX_REPOSITORY", (dir_ / "repo.db").c_str(), 1);
        unsetenv("QRM_METHOD");
        unsetenv("QRM_RESTARTER");
        ASSERT_EQ(repository_create("wrn:/net/foo:default", nullptr, &repository_),
                  REPOSITORY_SUCCESS);
    }
    void TearDown() override {
        stencil_destroy(stencil_);
        repository_destroy(repository_);
    }

    stencil_t* load(const std::string& text) {
        unit::write_file(dir_ / "stencil", text);
        stencil_destroy(stencil_);
        stencil_ = nullptr;
        EXPECT_EQ(stencil_load((dir_ / "stencil").c_str(), &stencil_, nullptr), STENCIL_SUCCESS);
        return stencil_;
    }

    static std::string flatten(const stencil_output_buffer_t* tree) {
        string_buffer_t sb;
        string_buffer_init(&sb);
        EXPECT_EQ(coalesce_buffer_chain(tree, &sb), 0);
        std::string text = string_buffer_get_str(&sb);
        string_buffer_free(&sb);
        return text;
    }

    unit::TempDir dir_;
    repository_t* repository_ = nullptr;
    stencil_t* stencil_ = nullptr;
};

TEST_F(Eval, TreeHasOneSlotPerChildSectionsAndMacrosFlattened) {
    stencil_t* s = load("abc$%{net/host}def");
    stencil_output_buffer_t* out = nullptr;
    ASSERT_EQ(stencil_apply(s, repository_, STENCIL_OUTPUT_NORMAL, &out), STENCIL_SUCCESS);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->buffer, nullptr);
    ASSERT_EQ(out->num, 3);
    EXPECT_STREQ(out->chained[0].buffer, "abc");
    EXPECT_STREQ(out->chained[1].buffer, "h1");
    EXPECT_STREQ(out->chained[2].buffer, "def");
    stencil_output_buffer_destroy(out);
    // At rest again.
    EXPECT_EQ(s->repository, nullptr);
    EXPECT_EQ(s->mode, STENCIL_OUTPUT_INVALID);
    EXPECT_EQ(s->context, nullptr);
    EXPECT_EQ(s->macro, nullptr);

    s = load("$%/net/(.*)/ {$%1;}$%define m a {<$%a>}$%[m z]");
    ASSERT_EQ(stencil_apply(s, repository_, STENCIL_OUTPUT_NORMAL, &out), STENCIL_SUCCESS);
    EXPECT_EQ(flatten(out), "host;port;<z>");
    for (int i = 0; i < out->num; i++) {
        EXPECT_EQ(out->chained[i].num, 0) << "slot " << i;
    }
    stencil_output_buffer_destroy(out);
}

TEST_F(Eval, RefusedAndFailedApply) {
    stencil_output_buffer_t* out = reinterpret_cast<stencil_output_buffer_t*>(0x1);
    EXPECT_EQ(stencil_apply(nullptr, repository_, STENCIL_OUTPUT_NORMAL, &out),
              STENCIL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(out, reinterpret_cast<stencil_output_buffer_t*>(0x1));  // untouched
    stencil_t* s = load("x");
    EXPECT_EQ(stencil_apply(s, repository_, STENCIL_OUTPUT_NORMAL, nullptr),
              STENCIL_ERROR_INVALID_ARGUMENT);
    // A stencil with syntax errors on record is not evaluated at all.
    stencil_t broken{};
    broken.errors = reinterpret_cast<stencil_syntax_error_list_t*>(0x1);
    broken.mode = STENCIL_OUTPUT_INVALID;
    EXPECT_EQ(stencil_apply(&broken, repository_, STENCIL_OUTPUT_NORMAL, &out),
              STENCIL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(broken.repository, nullptr);

    // A failure deep inside a section and a macro: no tree, state reset.
    s = load("$%define m a {$%a$%r}$%/net/(.*)/ {$%[m $%1]}");
    out = reinterpret_cast<stencil_output_buffer_t*>(0x1);
    EXPECT_EQ(stencil_apply(s, repository_, STENCIL_OUTPUT_NORMAL, &out),
              STENCIL_ERROR_NO_RESTARTER);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(s->repository, nullptr);
    EXPECT_EQ(s->mode, STENCIL_OUTPUT_INVALID);
    EXPECT_EQ(s->context, nullptr);
    EXPECT_EQ(s->macro, nullptr);
}

TEST_F(Eval, OperandsAreEvaluatedInNormalModeDuringListing) {
    stencil_t* s = load("$%{net/host:+[$%{net/port}]}");
    s->repository = repository_;
    s->mode = STENCIL_OUTPUT_LIST_PROPERTIES;
    auto* property = reinterpret_cast<property_t*>(s->base.sub_expressions[1]);
    char* text = nullptr;
    ASSERT_EQ(expression_to_string(&property->first_expression, s, &text), 0);
    EXPECT_STREQ(text, "[80]");
    std::free(text);
    EXPECT_EQ(s->mode, STENCIL_OUTPUT_LIST_PROPERTIES);
    s->repository = nullptr;
    s->mode = STENCIL_OUTPUT_INVALID;
}

TEST(Writer, LongTextThroughAPipeComesOutWhole) {
    // Larger than a pipe's buffer, so the write is taken in pieces.
    const std::string big(1 << 20, 'w');
    stencil_output_buffer_t root{};
    stencil_output_buffer_t* slot = grow_chain(&root);
    slot->buffer = strdup(big.c_str());
    slot = grow_chain(&root);
    slot->buffer = strdup("end");
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::string received;
    std::thread reader([&] {
        char chunk[4096];
        ssize_t n;
        while ((n = read(fds[0], chunk, sizeof chunk)) > 0) {
            received.append(chunk, static_cast<size_t>(n));
        }
    });
    EXPECT_EQ(stencil_output_buffer_emit(&root, fds[1]), STENCIL_SUCCESS);
    close(fds[1]);
    reader.join();
    close(fds[0]);
    EXPECT_EQ(received, big + "end");
    free_output_buffer(&root);
}

TEST(Writer, ManyPiecesGoOutInOneWrite) {
    // A packet socket keeps each write call apart: one packet is one write.
    stencil_output_buffer_t root{};
    root.buffer = strdup("a");
    for (const char* piece : {"b", "", "cd"}) grow_chain(&root)->buffer = strdup(piece);
    grow_chain(grow_chain(&root))->buffer = strdup("e");
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
    EXPECT_EQ(stencil_output_buffer_emit(&root, fds[1]), STENCIL_SUCCESS);
    close(fds[1]);
    std::vector<std::string> packets;
    char chunk[64];
    for (ssize_t n; (n = read(fds[0], chunk, sizeof chunk)) > 0;)
        packets.emplace_back(chunk, static_cast<size_t>(n));
    close(fds[0]);
    EXPECT_EQ(packets, std::vector<std::string>{"abcde"});
    free_output_buffer(&root);
}

TEST(Writer, FullDevice) {
    int fd = open("/dev/full", O_WRONLY);
    if (fd < 0) {
        GTEST_SKIP() << "no /dev/full";
    }
    stencil_output_buffer_t root{};
    root.buffer = strdup("text");
    EXPECT_EQ(stencil_output_buffer_emit(&root, fd), STENCIL_ERROR_NO_SPACE);
    // A node whose text is empty (an undefined property) still gets its
    // write call, and the device's refusal is reported; only a node without
    // text is passed over.
    std::free(root.buffer);
    root.buffer = strdup("");
    EXPECT_EQ(stencil_output_buffer_emit(&root, fd), STENCIL_ERROR_NO_SPACE);
    std::free(root.buffer);
    root.buffer = nullptr;
    EXPECT_EQ(stencil_output_buffer_emit(&root, fd), STENCIL_SUCCESS);
    close(fd);
    free_output_buffer(&root);
}

}  // namespace
