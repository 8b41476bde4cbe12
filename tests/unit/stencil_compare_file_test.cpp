// Comparing an output tree with a file: page-multiple sizes (where the byte
// behind the text is not mapped), shorter and longer files, a 0 byte behind
// the text, empty files and files that are not regular.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "stencil_internal.h"

namespace {

class TempFile {
  public:
    explicit TempFile(const std::string& content) {
        char name[] = "/tmp/stencil_cmp_XXXXXX";
        fd_ = mkstemp(name);
        path_ = name;
        EXPECT_GE(fd_, 0);
        EXPECT_EQ(write(fd_, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    }
    ~TempFile() {
        close(fd_);
        unlink(path_.c_str());
    }
    int fd() const { return fd_; }

  private:
    int fd_ = -1;
    std::string path_;
};

// A tree whose root has no text and one chained node per piece; the piece
// NONE stands for a node without text.
const std::string NONE = "<no text>";
class Tree {
  public:
    explicit Tree(const std::vector<std::string>& pieces) {
        for (const std::string& piece : pieces) {
            stencil_output_buffer_t* slot = grow_chain(&root_);
            slot->buffer = piece != NONE ? strdup(piece.c_str()) : nullptr;
        }
    }
    ~Tree() { free_output_buffer(&root_); }
    stencil_output_buffer_t* root() { return &root_; }

  private:
    stencil_output_buffer_t root_{};
};

int compare(Tree& tree, int fd, stencil_error_t* error) {
    *error = STENCIL_ERROR_INTERNAL_ERROR;  // must be overwritten
    return stencil_output_buffer_cmp(tree.root(), fd, error);
}

TEST(OutputCompare, ContentCases) {
    const std::string page(static_cast<size_t>(getpagesize()), 'p');
    const std::string two_pages = page + page;
    struct Case {
        const char* what;
        std::string file;
        std::vector<std::string> pieces;
        bool same;
    };
    const std::vector<Case> cases = {
        {"exact", "hello world\n", {"hello ", "world\n"}, true},
        {"exact, one page", page, {page.substr(0, 100), page.substr(100)}, true},
        {"exact, two pages", two_pages, {two_pages}, true},
        {"tree is a prefix of the file", "hello world\n", {"hello"}, false},
        {"page file, tree one byte short", page, {page.substr(1)}, false},
        {"file is a prefix of the text", "hello", {"hello", " world"}, false},
        {"page file, text one byte longer", page, {page + "q"}, false},
        {"text longer inside one node", "hel", {"hello"}, false},
        {"zero byte behind the text", std::string("hello\0trailing", 14), {"hello"}, true},
        {"different byte", "hellO", {"hello"}, false},
        // Nodes without text between texts are passed over, but a further
        // node once the file is used up makes it differ.
        {"node without text between", "abc", {"a", NONE, "bc"}, true},
        {"node without text behind", "abc", {"abc", NONE}, false},
        {"empty file, empty tree", "", {}, false},
        {"empty file, text", "", {"x"}, false},
    };
    for (const Case& c : cases) {
        TempFile file(c.file);
        Tree tree(c.pieces);
        stencil_error_t error;
        const int r = compare(tree, file.fd(), &error);
        EXPECT_EQ(error, STENCIL_SUCCESS) << c.what;
        EXPECT_EQ(r == 0, c.same) << c.what;
    }
}

TEST(OutputCompare, DescriptorIsNotMoved) {
    TempFile file("abc");
    lseek(file.fd(), 1, SEEK_SET);
    Tree tree({"abc"});
    stencil_error_t error;
    EXPECT_EQ(compare(tree, file.fd(), &error), 0);
    EXPECT_EQ(lseek(file.fd(), 0, SEEK_CUR), 1);
}

TEST(OutputCompare, NotRegularFiles) {
    Tree tree({"x"});
    stencil_error_t error;

    int dir = open("/tmp", O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dir, 0);
    EXPECT_NE(compare(tree, dir, &error), 0);
    EXPECT_EQ(error, STENCIL_SUCCESS);
    close(dir);

    // A FIFO with a writer that has written something: a read would consume
    // it, so the byte still being there shows that none took place.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    EXPECT_NE(compare(tree, fds[0], &error), 0);
    EXPECT_EQ(error, STENCIL_SUCCESS);
    char byte = 0;
    EXPECT_EQ(read(fds[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    close(fds[0]);
    close(fds[1]);
}

TEST(OutputCompare, Failures) {
    Tree tree({"x"});
    stencil_error_t error;
    EXPECT_EQ(compare(tree, -1, &error), 0);
    EXPECT_EQ(error, STENCIL_SUCCESS);
    // A descriptor that is not open: fstat fails.
    EXPECT_EQ(compare(tree, 1000000, &error), 0);
    EXPECT_EQ(error, STENCIL_ERROR_IO);
}

}  // namespace
