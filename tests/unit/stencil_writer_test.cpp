// The writer: whole text through a pipe, one write for many pieces, and a
// full device reported.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "stencil_internal.h"

namespace {

TEST(Writer, LongTextThroughAPipeComesOutWhole) {
    // Larger than a pipe's buffer, so the write is taken in pieces.
    const std::string big(1 << 20, 'w');
    stencil_output_buffer_t root{};
    grow_chain(&root)->buffer = strdup(big.c_str());
    grow_chain(&root)->buffer = strdup("end");
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::string received;
    std::thread reader([&] {
        char chunk[4096];
        for (ssize_t n; (n = read(fds[0], chunk, sizeof chunk)) > 0;)
            received.append(chunk, static_cast<size_t>(n));
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

TEST(Writer, AFullDeviceIsReported) {
    int fd = open("/dev/full", O_WRONLY);
    if (fd < 0) {
        GTEST_SKIP() << "no /dev/full";
    }
    stencil_output_buffer_t root{};
    root.buffer = strdup("text");
    EXPECT_EQ(stencil_output_buffer_emit(&root, fd), STENCIL_ERROR_NO_SPACE);
    close(fd);
    free_output_buffer(&root);
}

}  // namespace
