// The tool's own host helpers: the mount table reader, and outputs kept
// below the root (with openat2 and with the walk for older kernels).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "common/temp_dir.h"
#include "host.h"
#include "kelvo.h"

namespace {

TEST(ToolHost, MountinfoPaths) {
    EXPECT_EQ(mountinfo_unescape("/a\\040b\\011c\\134d"), "/a b\tc\\d");
    EXPECT_EQ(mountinfo_unescape("/x\\04"), "/x\\04");  // cut escape stays
    const std::string table =
        "22 1 0:21 / /proc rw,nosuid - proc proc rw\n"
        "63 43 254:0 /tmp/src /srv/my\\040file ro,nosuid - ext4 /dev/vda rw\n"
        "64 43 254:0 /tmp/src /etc/x.conf rw - ext4 /dev/vda rw";
    EXPECT_TRUE(mountinfo_has_mount_point(table, "/srv/my file"));
    EXPECT_TRUE(mountinfo_has_mount_point(table, "/etc/x.conf"));
    EXPECT_TRUE(mountinfo_has_mount_point(table, "/proc"));
    // The root field of an entry is no mount point; prefixes do not match.
    EXPECT_FALSE(mountinfo_has_mount_point(table, "/tmp/src"));
    EXPECT_FALSE(mountinfo_has_mount_point(table, "/etc/x"));
    EXPECT_FALSE(mountinfo_has_mount_point(table, "/srv/my\\040file"));
    // Against this process's own table: whatever its first entry mounts is
    // a mount point (in a chroot even "/" may be none), and a scratch
    // directory is none.
    std::ifstream own("/proc/self/mountinfo");
    std::string first;
    if (!std::getline(own, first)) GTEST_SKIP() << "no /proc/self/mountinfo here";
    std::istringstream fields(first);
    std::string field, mount_point;
    for (int i = 0; i < 5 && fields >> field; ++i) mount_point = field;
    EXPECT_EQ(host_is_mount_point(mountinfo_unescape(mount_point).c_str()), 1) << first;
    testing_support::TempDir dir;
    EXPECT_EQ(host_is_mount_point(dir.path().c_str()), 0);
}

// Names below a root resolve as though the root were "/", with openat2 and
// with the walk that stands in for it on older kernels alike.
TEST(ToolHost, OutputRootKeepsPathsInside) {
    struct Case {
        const char* path;
        const char* lands;  // below the root, or null when the open fails
        int err;
    };
    const Case cases[] = {
        {"a", "a", 0},
        {"/a", "a", 0},
        {"../../a", "a", 0},
        {"abs/f", "x/f", 0},        // abs -> /x
        {"rel/f", "x/f", 0},        // rel -> ../../../x
        {"abs/../b", "b", 0},       // ".." of the link's target, not of the name
        {"deep/../c", "x/c", 0},    // deep -> /x/y
        {"dangling", "x/made", 0},  // dangling -> /x/made: made inside
        {"loop", nullptr, ELOOP},   // loop -> loop
        {"x/plain/f", nullptr, ENOTDIR},
        {"missing/f", nullptr, ENOENT},
    };
    for (bool walk : {false, true}) {
        testing_support::TempDir dir;
        const std::string root = dir / "root";
        ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
        ASSERT_EQ(mkdir((root + "/x").c_str(), 0755), 0);
        ASSERT_EQ(mkdir((root + "/x/y").c_str(), 0755), 0);
        testing_support::write_file(root + "/x/plain", "");
        // The same names outside the root: a lookup that escapes finds these.
        ASSERT_EQ(mkdir((dir / "x").c_str(), 0755), 0);
        for (const auto& [name, target] : {std::pair{"abs", "/x"},
                                           {"rel", "../../../x"},
                                           {"deep", "/x/y"},
                                           {"dangling", "/x/made"},
                                           {"loop", "loop"}})
            ASSERT_EQ(symlink(target, (root + "/" + name).c_str()), 0);
        output_root_force_walk(walk);
        OutputRoot below(root.c_str());
        for (const Case& c : cases) {
            errno = 0;
            int fd = below.open_file(c.path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            if (fd >= 0) close(fd);
            if (c.lands == nullptr) {
                EXPECT_EQ(fd, -1) << c.path << (walk ? " (walk)" : "");
                EXPECT_EQ(errno, c.err) << c.path << (walk ? " (walk)" : "");
            } else {
                EXPECT_GE(fd, 0) << c.path << (walk ? " (walk)" : "") << ": " << strerror(errno);
                EXPECT_EQ(access((root + "/" + c.lands).c_str(), F_OK), 0) << c.path;
            }
        }
        EXPECT_NE(access((dir / "x/f").c_str(), F_OK), 0);
        EXPECT_NE(access((dir / "x/made").c_str(), F_OK), 0);

        // Directories are made, and names removed, inside the root as well;
        // a link at the end is removed itself.
        EXPECT_EQ(below.make_directories("abs/new/deeper", 0755), 0);
        EXPECT_EQ(access((root + "/x/new/deeper").c_str(), F_OK), 0);
        errno = 0;
        EXPECT_EQ(below.make_directories("/rel/new", 0755), -1);
        EXPECT_EQ(errno, EEXIST);
        EXPECT_EQ(below.unlink_file("rel/f"), 0);
        EXPECT_NE(access((root + "/x/f").c_str(), F_OK), 0);
        EXPECT_EQ(below.unlink_file("dangling"), 0);
        EXPECT_EQ(access((root + "/x/made").c_str(), F_OK), 0);
        EXPECT_EQ(below.unlink_file("../dangling"), -1);
    }
    output_root_force_walk(false);

    // A root that is no directory fails every operation with its own errno.
    OutputRoot missing("/nonexistent-kelvo-root");
    errno = 0;
    EXPECT_EQ(missing.open_file("a", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
