// The tool's own host helpers: bounded copies, directory creation, the
// mount table reader and the -L option string.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host.h"
#include "kelvo.h"
#include "unit_util.h"

namespace {

TEST(ToolHost, StrlcpyAndStrlcat) {
    char buf[8];
    EXPECT_EQ(strlcpy(buf, "abc", sizeof buf), 3u);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(strlcpy(buf, "abcdefghij", sizeof buf), 10u);
    EXPECT_STREQ(buf, "abcdefg");
    EXPECT_EQ(strlcpy(buf, "xyz", 0), 3u);  // nothing written
    EXPECT_STREQ(buf, "abcdefg");

    strlcpy(buf, "ab", sizeof buf);
    EXPECT_EQ(strlcat(buf, "cd", sizeof buf), 4u);
    EXPECT_STREQ(buf, "abcd");
    EXPECT_EQ(strlcat(buf, "efghij", sizeof buf), 10u);
    EXPECT_STREQ(buf, "abcdefg");
    // A full buffer reports its size plus what could not be added.
    EXPECT_EQ(strlcat(buf, "xy", 4), 6u);
    EXPECT_STREQ(buf, "abcdefg");
}

TEST(ToolHost, Mkdirp) {
    unit::TempDir dir;
    const std::string& base = dir.path();
    std::string deep = base + "/a//b/c/";
    EXPECT_EQ(mkdirp(deep.c_str(), 0755), 0);
    struct stat st;
    ASSERT_EQ(stat((base + "/a/b/c").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    errno = 0;
    EXPECT_NE(mkdirp((base + "/a/b/c").c_str(), 0755), 0);
    EXPECT_EQ(errno, EEXIST);
    // A file in the way is a real failure.
    unit::write_file(dir / "f", "");
    errno = 0;
    EXPECT_NE(mkdirp((dir / "f/x").c_str(), 0755), 0);
    EXPECT_EQ(errno, ENOTDIR);
}

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
    EXPECT_EQ(host_is_mount_point("/"), 1);
    EXPECT_EQ(host_is_mount_point("/proc/self"), 0);
}

TEST(ToolHost, LofsOptionString) {
    ssize_t len = 0;
    char* options = lofs_options_create("ro", &len);
    ASSERT_NE(options, nullptr);
    EXPECT_STREQ(options, "xatrr,nosuid,ro");
    EXPECT_EQ(len, 25);
    free(options);
    options = lofs_options_create("", &len);
    EXPECT_STREQ(options, "xatrr,nosuid,");
    EXPECT_EQ(len, 23);
    free(options);
}

TEST(ToolHost, UndoBuildsPathBelowPrefix) {
    unit::TempDir dir;
    const std::string& base = dir.path();
    const std::string file = dir / "f";
    unit::write_file(file, "");
    // "/f" below the prefix gives base + "//f": the same file.
    EXPECT_EQ(undo_file("/f", base.c_str(), 0), 0);
    EXPECT_NE(access(file.c_str(), F_OK), 0);
    EXPECT_EQ(undo_file("/f", base.c_str(), 0), -1);
    // A relative mount point is refused before anything is unlinked.
    EXPECT_EQ(undo_file("f", base.c_str(), 1), -1);
}

}  // namespace
