// stencil_load: where the text comes from (files of awkward sizes, standard
// input in uneven reads) and what each failure to get it turns into.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "stencil_parse_util.h"

using namespace parse_test;

namespace {

std::string only_literal(const stencil_t* stencil) {
    EXPECT_EQ(stencil->base.num, 1);
    return reinterpret_cast<const literal_t*>(stencil->base.sub_expressions[0])->str;
}

TEST(StencilLoad, FileSizesAroundPageBoundaries) {
    const size_t page = static_cast<size_t>(getpagesize());
    for (size_t size : {size_t{0}, size_t{1}, page - 1, page, page + 1, 2 * page}) {
        std::string text(size, 'x');
        if (size > 0) text[size - 1] = 'y';
        auto loaded = load_text(text);
        ASSERT_EQ(loaded.result, STENCIL_SUCCESS) << size;
        EXPECT_EQ(only_literal(loaded.stencil.get()), text) << size;
    }
}

// Feeds the text to descriptor 0 through a pipe, in the given chunk sizes,
// and loads from standard input.
load_result load_stdin(const std::string& text, const std::vector<size_t>& chunks) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    int saved = dup(0);
    dup2(fds[0], 0);
    close(fds[0]);
    std::thread writer([&] {
        size_t at = 0;
        for (size_t i = 0; at < text.size(); ++i) {
            size_t n = std::min(chunks[i % chunks.size()], text.size() - at);
            EXPECT_EQ(write(fds[1], text.data() + at, n), static_cast<ssize_t>(n));
            at += n;
            usleep(1000);  // let each piece arrive as a read of its own
        }
        close(fds[1]);
    });
    stencil_t* stencil = nullptr;
    stencil_error_t result = stencil_load(nullptr, &stencil, nullptr);
    writer.join();
    dup2(saved, 0);
    close(saved);
    return {result, stencil_ptr(stencil)};
}

TEST(StencilLoad, StandardInputInUnevenReads) {
    std::string text;
    for (int i = 0; i < 60; ++i) text += "line " + std::to_string(i) + " $%{p" + std::to_string(i) + "}\n";
    auto whole = load_text(text);
    auto piecewise = load_stdin(text, {1, 127, 128, 129, 3, 300});
    ASSERT_EQ(piecewise.result, STENCIL_SUCCESS);
    EXPECT_EQ(dump_children(&piecewise.stencil->base), dump_children(&whole.stencil->base));
    EXPECT_EQ(piecewise.stencil->line_number, 60);

    auto empty = load_stdin("", {1});
    ASSERT_EQ(empty.result, STENCIL_SUCCESS);
    EXPECT_EQ(only_literal(empty.stencil.get()), "");
}

TEST(StencilLoad, MissingFileAndLongName) {
    temp_file file("x");
    stencil_t* stencil = reinterpret_cast<stencil_t*>(1);
    EXPECT_EQ(stencil_load((file.dir() + "/absent").c_str(), &stencil, nullptr),
              STENCIL_ERROR_NO_SUCH_FILE);
    EXPECT_EQ(stencil, nullptr);

    std::string long_name = file.dir() + "/" + std::string(300, 'n');
    EXPECT_EQ(stencil_load(long_name.c_str(), &stencil, nullptr), STENCIL_ERROR_LONG_FILENAME);
    EXPECT_EQ(stencil, nullptr);
}

TEST(StencilLoad, DirectoryAndNonDirectoryInPathAreInternalErrors) {
    temp_file file("x");
    stencil_t* stencil = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(stencil_load(file.dir().c_str(), &stencil, nullptr), STENCIL_ERROR_INTERNAL_ERROR);
    std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(printed.rfind("mmap: ", 0), 0u) << printed;
    EXPECT_EQ(stencil, nullptr);

    testing::internal::CaptureStderr();
    EXPECT_EQ(stencil_load((file.path() + "/below").c_str(), &stencil, nullptr),
              STENCIL_ERROR_INTERNAL_ERROR);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mmap: " + std::to_string(ENOTDIR) + " " + strerror(ENOTDIR) + "\n");
}

TEST(StencilLoad, NoPermission) {
    temp_file file("x");
    ASSERT_EQ(chmod(file.dir().c_str(), 0755), 0);
    ASSERT_EQ(chmod(file.path().c_str(), 0), 0);
    if (geteuid() != 0) {
        stencil_t* stencil = nullptr;
        EXPECT_EQ(stencil_load(file.path().c_str(), &stencil, nullptr), STENCIL_ERROR_PERMISSIONS);
        EXPECT_EQ(stencil, nullptr);
        return;
    }
    // Root reads a file whatever its mode bits say, so the load is tried in
    // a child that has given up root for an ordinary user.
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
        stencil_t* stencil = nullptr;
        stencil_error_t r = stencil_load(file.path().c_str(), &stencil, nullptr);
        _exit(r == STENCIL_ERROR_PERMISSIONS && stencil == nullptr ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 2) GTEST_SKIP() << "running as root and unable to drop to an ordinary user";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(StencilLoad, FailedParseStillHandsOutStencil) {
    auto loaded = load_text("ok\n$%{unterminated");
    EXPECT_EQ(loaded.result, STENCIL_ERROR_SYNTAX);
    ASSERT_NE(loaded.stencil, nullptr);
    EXPECT_NE(loaded.stencil->errors, nullptr);
    stencil_destroy(nullptr);
}

}  // namespace
