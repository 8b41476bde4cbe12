// Evaluation internals that the program's output cannot show: the shape of
// the output tree, the state of the stencil around an evaluation, the
// composition of section transforms, substitution results and the writer.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "hgxrepo.h"
#include "stencil_internal.h"

namespace {

constexpr char kManifest[] = R"({"services": {"net/foo": {"instances": {"default": {"groups": {
  "net": {"properties": {"host": "h1", "port": "80"}}}}}}}})";

// A repository file, a view on it, and stencils loaded from text.
class Eval : public ::testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/stencil_eval_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        std::string error;
        ASSERT_EQ(hgxrepo_import_text(dir_ + "/repo.db", kManifest, true, &error), 0) << error;
        setenv("HGX_REPOSITORY", (dir_ + "/repo.db").c_str(), 1);
        unsetenv("QRM_METHOD");
        unsetenv("QRM_RESTARTER");
        ASSERT_EQ(repository_create("wrn:/net/foo:default", nullptr, &repository_), REPOSITORY_SUCCESS);
    }
    void TearDown() override {
        stencil_destroy(stencil_);
        repository_destroy(repository_);
        std::remove((dir_ + "/stencil").c_str());
        std::remove((dir_ + "/repo.db").c_str());
        std::remove((dir_ + "/repo.db-wal").c_str());
        std::remove((dir_ + "/repo.db-shm").c_str());
        rmdir(dir_.c_str());
    }

    stencil_t* load(const std::string& text) {
        const std::string path = dir_ + "/stencil";
        FILE* f = std::fopen(path.c_str(), "w");
        std::fputs(text.c_str(), f);
        std::fclose(f);
        stencil_destroy(stencil_);
        stencil_ = nullptr;
        EXPECT_EQ(stencil_load(path.c_str(), &stencil_, nullptr), STENCIL_SUCCESS);
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

    std::string dir_;
    repository_t* repository_ = nullptr;
    stencil_t* stencil_ = nullptr;
};

TEST_F(Eval, TreeHasOneSlotPerChild) {
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
}

TEST_F(Eval, SectionsAndMacrosAreFlattened) {
    stencil_t* s = load("$%/net/(.*)/ {$%1;}$%define m a {<$%a>}$%[m z]");
    stencil_output_buffer_t* out = nullptr;
    ASSERT_EQ(stencil_apply(s, repository_, STENCIL_OUTPUT_NORMAL, &out), STENCIL_SUCCESS);
    EXPECT_EQ(flatten(out), "host;port;<z>");
    for (int i = 0; i < out->num; i++) {
        EXPECT_EQ(out->chained[i].num, 0) << "slot " << i;
    }
    stencil_output_buffer_destroy(out);
}

TEST_F(Eval, ListModeLeavesLiteralsNull) {
    stencil_t* s = load("abc$%{net/host}def");
    stencil_output_buffer_t* out = nullptr;
    ASSERT_EQ(stencil_apply(s, repository_, STENCIL_OUTPUT_LIST_PROPERTIES, &out), STENCIL_SUCCESS);
    ASSERT_EQ(out->num, 3);
    EXPECT_EQ(out->chained[0].buffer, nullptr);
    EXPECT_STREQ(out->chained[1].buffer, "net/host\n");
    EXPECT_EQ(out->chained[2].buffer, nullptr);
    stencil_output_buffer_destroy(out);
}

TEST_F(Eval, EmptyStencilWritesNothing) {
    stencil_t* s = load("");
    stencil_output_buffer_t* out = nullptr;
    ASSERT_EQ(stencil_apply(s, repository_, STENCIL_OUTPUT_NORMAL, &out), STENCIL_SUCCESS);
    EXPECT_EQ(flatten(out), "");
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(stencil_output_buffer_emit(out, fds[1]), STENCIL_SUCCESS);
    close(fds[1]);
    char byte;
    EXPECT_EQ(read(fds[0], &byte, 1), 0);
    close(fds[0]);
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

// Transforms of nested sections: an outer one with prefix "pre" and suffix
// "post" around an inner one that replaces "a" by "b".
TEST(TransformWern, PrefixesNestOutsideInReplacementsSkipOuterPrefixes) {
    match_t outer{};
    outer.transform = PT_PREFIX_SUFFIX;
    match_t inner{};
    inner.transform = PT_REPLACE_FIRST;
    char pre[] = "pre", post[] = "post", a[] = "a", b[] = "b";
    regex_context_t outer_ctx{};
    outer_ctx.regex = &outer;
    outer_ctx.first_transform = pre;
    outer_ctx.second_transform = post;
    regex_context_t inner_ctx{};
    inner_ctx.regex = &inner;
    inner_ctx.prev = &outer_ctx;
    inner_ctx.first_transform = a;
    inner_ctx.second_transform = b;

    EXPECT_STREQ(transform_wern("aXa", &inner_ctx, 0), "prebXapost");
    EXPECT_EQ(outer_ctx.mark, 3u);
    EXPECT_EQ(inner_ctx.mark, 3u);
    EXPECT_STREQ(transform_wern("aXa", &inner_ctx, 1), "^prebXapost$");
    EXPECT_EQ(outer_ctx.mark, 4u);
    EXPECT_EQ(inner_ctx.mark, 4u);

    // Absolute names are taken as written; a null name adds nothing.
    EXPECT_STREQ(transform_wern("wrn:/s:i/:properties/g/aXa", &inner_ctx, 0),
                 "wrn:/s:i/:properties/g/aXa");
    EXPECT_STREQ(transform_wern(nullptr, &inner_ctx, 1), "^prepost$");
    EXPECT_STREQ(transform_wern("a|b", nullptr, 1), "^a|b$");
    EXPECT_EQ(is_absolute_wern("wrn:/s/:properties"), 0);
    EXPECT_EQ(is_absolute_wern(nullptr), 0);
}

TEST(Substitution, GrabsAcrossContexts) {
    // Outer section: one grab; inner: one grab numbered 2. Name "ab/cd".
    char wern[] = "ab/cd";
    property_info_t info{wern, REPO_TYPE_PROPERTY, nullptr, HGX_TYPE_ASTRING, 0, nullptr};
    regmatch_t outer_m[3] = {{0, 5}, {0, 2}, {-1, -1}};
    regmatch_t inner_m[3] = {{0, 5}, {3, 5}, {-1, -1}};
    property_list_node_t outer_node{nullptr, outer_m, &info};
    property_list_node_t inner_node{nullptr, inner_m, &info};
    match_t outer{};
    outer.grabs = 1;
    match_t inner{};
    inner.grabs = 1;
    inner.grab_start = 1;
    regex_context_t outer_ctx{};
    outer_ctx.regex = &outer;
    outer_ctx.match = &outer_node;
    regex_context_t inner_ctx{};
    inner_ctx.regex = &inner;
    inner_ctx.match = &inner_node;
    inner_ctx.prev = &outer_ctx;

    struct Case {
        const char* text;
        const char* result;
    };
    const Case cases[] = {
        {"$%1-$%2", "ab-cd"}, {"$%3", "$%3"},       {"$%0", "$%0"},   {"$%1abc", "ababc"},
        {"$%02", "cd"},       {"$%0x1", "ab"},       {"$%12", "$%12"}, {"$$%1", "$$%1"},
    };
    for (const Case& c : cases) {
        string_buffer_t sb;
        string_buffer_init(&sb);
        EXPECT_EQ(translate_grabs(c.text, &sb, &inner_ctx, nullptr), 0) << c.text;
        EXPECT_STREQ(string_buffer_get_str(&sb), c.result) << c.text;
        string_buffer_free(&sb);
    }
    EXPECT_EQ(translate_grabs("x", nullptr, nullptr, nullptr), STENCIL_ERROR_INTERNAL_ERROR);
}

TEST(Substitution, MethodAndRestarterMissing) {
    // A view whose accessors have nothing: both forms fail the translation.
    repository_t view{};
    stencil_t stencil{};
    stencil.repository = &view;
    string_buffer_t sb;
    string_buffer_init(&sb);
    EXPECT_EQ(translate_grabs("$%m", &sb, nullptr, &stencil), STENCIL_ERROR_NO_METHOD);
    EXPECT_EQ(translate_grabs("$%r", &sb, nullptr, &stencil), STENCIL_ERROR_NO_RESTARTER);
    string_buffer_clear(&sb);
    EXPECT_EQ(translate_grabs("[$%i]", &sb, nullptr, &stencil), 0);
    EXPECT_STREQ(string_buffer_get_str(&sb), "[]");
    string_buffer_free(&sb);
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
