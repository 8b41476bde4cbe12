// Delivery of a stencil's output to a file (compare first, rewrite in place,
// mode, owner, group, clean-up), loopback mounts and undo.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

const char* const WERN = "wrn:/net/foo:default";

const char* const MANIFEST = R"({"services": {"net/foo": {"instances": {"default": {"groups": {
    "config": {"properties": {"port": 8080}}}}}}}})";

using e2e::whole;
using e2e::Whole;

struct stat stat_of(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

class KelvoDelivery : public e2e::ProgramTest {
  protected:
    KelvoDelivery() : ProgramTest(MANIFEST) {}
    e2e::Result run(const std::vector<std::string>& extra) {
        std::vector<std::string> args = {"-f", WERN, "-S", stencils, "-i", "s"};
        args.insert(args.end(), extra.begin(), extra.end());
        return e2e::kelvo(repo, args);
    }
};

// The output is compared with the file whole, across pages and across the
// pieces a stencil is made of: only the same text leaves the file wholly
// alone (times, mode, owner and group); any other text is written in place,
// the file cut to it, with the mode, owner and group asked for, as is a new
// file.
TEST_F(KelvoDelivery, OnlyTheSameTextLeavesTheFileAlone) {
    const std::string page = std::string(static_cast<size_t>(getpagesize()) - 5, 'p') + "8080\n";
    const struct {
        std::optional<std::string> file;  // none: no file yet
        std::string text;                 // "8080" in text comes from the property
        bool same;
    } cases[] = {
        {"a8080b\n", "a8080b\n", true},
        {page, page, true},
        {page + page, page + page, true},
        {page + "q", page, false},
        {page, page + "q", false},
        {"a8080b\nmore", "a8080b\n", false},
        {"a8080", "a8080b\n", false},
        {"a8O80b\n", "a8080b\n", false},
        {"", "8080\n", false},
        {std::nullopt, "a8080b\n", false},
    };
    const std::string out = dir / "out.conf";
    // Changing a file's owner needs root.
    const bool root_user = geteuid() == 0;
    std::vector<std::string> extra = {"-o", out, "-m", "1644"};
    if (root_user) extra.insert(extra.end(), {"-O", "nobody", "-g", "nogroup"});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.size());
        std::string stencil = c.text;
        for (size_t at; (at = stencil.find("8080")) != std::string::npos;)
            stencil.replace(at, 4, "$%{config/port}");
        e2e::write_file(stencils + "/s", stencil);
        unlink(out.c_str());
        struct stat before {};
        if (c.file) {
            e2e::write_file(out, *c.file);
            ASSERT_EQ(chmod(out.c_str(), 0600), 0);
            struct timespec old_times[2] = {{1000000, 0}, {1000000, 0}};
            ASSERT_EQ(utimensat(AT_FDCWD, out.c_str(), old_times, 0), 0);
            before = stat_of(out);
        }
        EXPECT_EQ(whole(run(extra)), Whole(0, "", ""));
        EXPECT_EQ(e2e::read_file(out), c.text);
        const struct stat after = stat_of(out);
        EXPECT_EQ(after.st_ino, c.file ? before.st_ino : after.st_ino);
        EXPECT_EQ(after.st_mtim.tv_sec == 1000000, c.same);
        EXPECT_EQ(after.st_mode & 07777, c.same ? 0600u : 01644u);
        if (root_user) {
            EXPECT_EQ(after.st_uid, c.same ? before.st_uid : 65534u);
            EXPECT_EQ(after.st_gid, c.same ? before.st_gid : 65534u);
        }
    }
}

TEST_F(KelvoDelivery, UnknownUserOrGroupRemovesTheFile) {
    const std::string out = dir / "out.conf";
    EXPECT_EQ(whole(run({"-o", out, "-O", "no-such-user-kelvo"})),
              Whole(1, "", "User no-such-user-kelvo does not exist\n"));
    EXPECT_FALSE(e2e::exists(out));

    // A changed existing file is gone as well after the failure.
    e2e::write_file(out, "old\n");
    EXPECT_EQ(whole(run({"-o", out, "-g", "no-such-group-kelvo"})),
              Whole(1, "", "Group no-such-group-kelvo does not exist\n"));
    EXPECT_FALSE(e2e::exists(out));
}

TEST_F(KelvoDelivery, OpenFailures) {
    // No directory, no -p: the open for writing reports it.
    std::string out = dir / "missing/out.conf";
    EXPECT_EQ(
        whole(run({"-o", out})),
        Whole(1, "", "Could not open output file at " + out + ": No such file or directory\n"));

    // A directory where the file should be.
    out = dir / "adir";
    ASSERT_EQ(mkdir(out.c_str(), 0755), 0);
    EXPECT_EQ(whole(run({"-o", out})), Whole(1, "", out + " exists and is a directory\n"));
    EXPECT_TRUE(e2e::exists(out));

    // Prefix and name together over 1023 bytes: refused, nothing made.
    std::string name = "/";
    name.append(1100 - root.size(), 'x');
    EXPECT_EQ(
        whole(run({"-o", name, "-R", root})),
        Whole(1, "", "Output filename " + (root + "/" + name).substr(0, 1023) + " is too long\n"));

    // A syntax error leaves an existing file as it was.
    out = dir / "keep.conf";
    e2e::write_file(out, "old\n");
    e2e::write_file(stencils + "/s", "$%[nosuch]\n");
    e2e::Result r = run({"-o", out});
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(e2e::read_file(out), "old\n");
}

TEST_F(KelvoDelivery, RootPrefixAndListMode) {
    EXPECT_EQ(whole(run({"-o", "/etc/x.conf", "-R", root, "-l", "-m", "600"})), Whole(0, "", ""));
    EXPECT_EQ(e2e::read_file(root + "/etc/x.conf"), "config/port\n");
    EXPECT_EQ(stat_of(root + "/etc/x.conf").st_mode & 07777, 0600u);
}

// A FIFO, a device and a socket where the output should be are refused and
// left as they are: no wait for a FIFO's writer, no mode given to a device,
// nothing removed after the refusal.
TEST_F(KelvoDelivery, OnlyRegularFilesAreWritten) {
    // The device has the null device's numbers, under a name of the test's
    // own; making one may need privileges a container withholds.
    std::vector<std::string> others;
    for (const auto& [name, type] :
         {std::pair{"fifo", S_IFIFO}, std::pair{"sock", S_IFSOCK}, std::pair{"null", S_IFCHR}}) {
        if (mknod((dir / name).c_str(), type | 0640, type == S_IFCHR ? makedev(1, 3) : 0) == 0)
            others.push_back(dir / name);
        else if (type != S_IFCHR)
            FAIL() << name << ": " << strerror(errno);
    }
    for (const std::string& path : others) {
        for (const std::vector<std::string>& extra :
             {std::vector<std::string>{"-o", path, "-m", "0666"},
              std::vector<std::string>{"-o", path.substr(dir.path().size()), "-R", dir.path(), "-m",
                                       "0666"}}) {
            std::vector<std::string> args = {"60", e2e::kelvo_bin(), "-f", WERN,
                                             "-S", stencils,         "-i", "s"};
            args.insert(args.end(), extra.begin(), extra.end());
            const std::string shown = extra.size() > 4 ? dir.path() + "/" + extra[1] : path;
            EXPECT_EQ(whole(e2e::program("timeout", repo, args)),
                      Whole(1, "", shown + " exists and is not a regular file\n"));
            struct stat st {};
            ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
            EXPECT_FALSE(S_ISREG(st.st_mode)) << path;
            EXPECT_EQ(st.st_mode & 07777, 0640u) << path;
        }
    }
}

// Below the root prefix a name resolves as though the root were "/": links
// at the file or at its directories, absolute or climbing with "..", lead to
// places inside the root, never outside. Without a prefix a link is followed
// as it always was.
TEST_F(KelvoDelivery, LinksBelowTheRootStayInsideIt) {
    const std::string outside = dir / "outside";  // outside every root below
    ASSERT_EQ(mkdir(outside.c_str(), 0755), 0);
    e2e::write_file(outside + "/victim", "precious\n");
    ASSERT_EQ(chmod((outside + "/victim").c_str(), 0600), 0);
    std::string climb;
    for (int i = 0; i < 20; ++i) climb += "../";
    struct Case {
        const char* name;
        const char* link;    // below the root
        std::string target;  // of the link
        bool mirror;         // the root holds the outside path's directories too
        std::string output;  // -o, below the root
        std::string lands;   // below the root; "" when the open must fail
        int undo;            // status of an undo afterwards
    };
    const Case cases[] = {
        {"file, absolute", "etc/app.conf", outside + "/victim", false, "/etc/app.conf", "", 0},
        {"file, absolute, mirrored", "etc/app.conf", outside + "/victim", true, "/etc/app.conf",
         outside + "/victim", 0},
        {"file, climbing", "etc/app.conf", climb + outside.substr(1) + "/victim", true,
         "/etc/app.conf", outside + "/victim", 0},
        {"directory, absolute", "etc", outside, true, "/etc/victim", outside + "/victim", 0},
        {"directory, climbing", "etc", climb + outside.substr(1), true, "etc/victim",
         outside + "/victim", 0},
        {"directory, absolute, missing", "etc", outside, false, "/etc/victim", "", 255},
    };
    int k = 0;
    for (const Case& c : cases) {
        const std::string r = dir / "root" + std::to_string(k++);
        ASSERT_EQ(system(("mkdir -p " + r + "/etc").c_str()), 0);
        if (std::string(c.link) == "etc") {
            ASSERT_EQ(rmdir((r + "/etc").c_str()), 0);
        }
        if (c.mirror) {
            ASSERT_EQ(system(("mkdir -p " + r + outside).c_str()), 0);
        }
        ASSERT_EQ(symlink(c.target.c_str(), (r + "/" + c.link).c_str()), 0);
        std::vector<std::string> extra = {"-o", c.output, "-R", r, "-m", "0666"};
        if (geteuid() == 0) extra.insert(extra.end(), {"-O", "nobody"});
        e2e::Result got = run(extra);
        if (c.lands.empty()) {
            EXPECT_EQ(got.status, 1) << c.name << ": " << got.err;
        } else {
            EXPECT_EQ(whole(got), Whole(0, "", "")) << c.name;
            EXPECT_EQ(e2e::read_file(r + c.lands), "port=8080\n") << c.name;
            EXPECT_EQ(stat_of(r + c.lands).st_mode & 07777, 0666u) << c.name;
        }
        // An undo removes the name below the root, never the file outside.
        got = run({"-u", "-o", c.output, "-R", r});
        EXPECT_EQ(got.status, c.undo) << c.name << ": " << got.err;
        EXPECT_EQ(e2e::read_file(outside + "/victim"), "precious\n") << c.name;
        struct stat st = stat_of(outside + "/victim");
        EXPECT_EQ(st.st_mode & 07777, 0600u) << c.name;
        EXPECT_EQ(st.st_uid, geteuid()) << c.name;
    }

    // Without a prefix the link is followed, as ever.
    ASSERT_EQ(symlink((outside + "/victim").c_str(), (dir / "link").c_str()), 0);
    EXPECT_EQ(whole(run({"-o", dir / "link", "-m", "0640"})), Whole(0, "", ""));
    EXPECT_EQ(e2e::read_file(outside + "/victim"), "port=8080\n");
    EXPECT_EQ(stat_of(outside + "/victim").st_mode & 07777, 0640u);
}

// Everything below mounts: as root, in a private mount namespace of its own,
// so nothing outlives the test.
class KelvoMount : public KelvoDelivery {
  protected:
    void SetUp() override {
        KelvoDelivery::SetUp();
        if (geteuid() != 0) GTEST_SKIP() << "mount tests need root";
        // A private namespace alone is not enough: a container may allow it
        // and still refuse bind mounts. Try the very kind of mount kelvo
        // makes, a file onto a file, so that no test below can pass or fail
        // for want of mounting.
        e2e::write_file(dir / "probe-src", "");
        e2e::write_file(dir / "probe-dst", "");
        e2e::Run probe;
        probe.wrapper = e2e::private_mount_namespace(dir.path());
        probe.args = {"mount", "--bind", dir / "probe-src", dir / "probe-dst"};
        e2e::Result r = e2e::run(probe);
        if (r.status != 0)
            GTEST_SKIP() << "cannot bind-mount a file in a private mount namespace here (status "
                         << r.status << "): " << r.err;
    }
    // Runs a shell script in one private mount namespace, so that later
    // commands see the mounts of earlier ones. $K is kelvo, $T a directory
    // of the script's own, holding "plain", a file on the test's file system.
    e2e::Result script(const std::string& text, const std::string& t) {
        e2e::Run r;
        r.wrapper = e2e::private_mount_namespace(dir.path());
        // The written files lie below the prefix at the test directory's path.
        r.args = {"sh", "-c", "mkdir -p $R$T $T && echo kept >$T/plain || exit 99\n" + text};
        r.env = {{"HGX_REPOSITORY", repo}, {"QRM_WERN", WERN}, {"K", e2e::kelvo_bin()},
                 {"S", stencils},          {"R", root},        {"T", t}};
        return e2e::run(r);
    }
};

TEST_F(KelvoMount, Scripts) {
    const struct {
        const char* name;
        std::string script;
        Whole expected;
    } cases[] = {
        // The mount point does not exist: an empty file is made for it.
        {"written file shows at its path",
         "$K -S $S -i s -o $T/m.conf -R $R -L ro || exit 9\n"
         "cat $T/m.conf\n"
         "grep -c \" $T/m.conf \" /proc/self/mountinfo\n"
         "grep \" $T/m.conf \" /proc/self/mountinfo | grep -q ' ro,' && echo readonly\n",
         {0, "port=8080\n1\nreadonly\n", ""}},
        // The later runs ask for "rw": an unchanged run leaves the "ro"
        // mount as it is, a changed one replaces it.
        {"changed content remounts, unchanged touches nothing",
         "modes() { grep \" $T/m.conf \" /proc/self/mountinfo | cut -d' ' -f6 | cut -d, -f1"
         " | tr '\\n' ' '; echo; }\n"
         "$K -S $S -i s -o $T/m.conf -R $R -L ro || exit 9\n"
         "modes\n"
         "$K -S $S -i s -o $T/m.conf -R $R -L rw || exit 8\n"
         "modes\n"
         "echo 'changed=$%{config/port}' > $S/s\n"
         "$K -S $S -i s -o $T/m.conf -R $R -L rw || exit 7\n"
         "modes\n"
         "cat $T/m.conf\n",
         {0, "ro \nro \nrw \nchanged=8080\n", ""}},
        {"undo with and without -L",
         "$K -S $S -i s -o $T/m.conf -R $R -L ro || exit 9\n"
         // Without -L the mount stays and only the file below the prefix goes.
         "$K -u -o $T/m.conf -R $R; echo undo=$?\n"
         "grep -c \" $T/m.conf \" /proc/self/mountinfo\n"
         "test -e $R$T/m.conf || echo gone\n"
         "$K -S $S -i s -o $T/m.conf -R $R -L ro || exit 8\n"
         "$K -u -o $T/m.conf -R $R -L ro; echo undo=$?\n"
         "grep -c \" $T/m.conf \" /proc/self/mountinfo\n"
         "test -e $T/m.conf && echo mount-point-stays\n"
         // A path on an ordinary file system: nothing to unmount.
         "mkdir -p $R$T && cp $T/plain $R$T/plain\n"
         "$K -u -o $T/plain -R $R -L ro; echo undo=$?\n"
         // Nothing there at all: -1, seen as 255, and no message.
         "$K -u -o $T/none -R $R -L ro; echo undo=$?\n",
         {0, "undo=0\n1\ngone\nundo=0\n0\nmount-point-stays\nundo=0\nundo=255\n", ""}},
        {"relative path refused and file removed",
         "mkdir -p $R$T/rel && cd $T && $K -S $S -i s -o rel/m.conf -R $R$T -L ro; st=$?\n"
         "test -e $R$T/rel/m.conf && echo left\n"
         "exit $st\n",
         {1, "", "Mount point is not an absolute path: rel/m.conf\n"}},
        // $R$T/lnk leads to $T/outside: inside the root that is
        // $R$T/outside, where -p makes its directories and whose file is
        // mounted; the real $T/outside gets nothing.
        {"directories and mount stay below the root",
         "mkdir -p $T/outside $R$T $T/lnk/sub && ln -s $T/outside $R$T/lnk || exit 99\n"
         "$K -S $S -i s -o $T/lnk/sub/m.conf -R $R -L ro -p || exit 9\n"
         "cat $T/lnk/sub/m.conf $R$T/outside/sub/m.conf\n"
         "test -e $T/outside/sub && echo escaped\n"
         "$K -u -o $T/lnk/sub/m.conf -R $R -L ro; echo undo=$?\n"
         "test -e $R$T/outside/sub/m.conf || echo gone\n",
         {0, "port=8080\nport=8080\nundo=0\ngone\n", ""}},
        // Again, now that the directories exist.
        {"creates intermediate directories",
         "mkdir $T/deep\n"
         "$K -S $S -i s -o $T/deep/m.conf -R $R -L rw -p || exit 9\n"
         "test -f $R$T/deep/m.conf && echo written\n"
         "$K -S $S -i s -o $T/deep/n.conf -R $R -L rw -p && echo again\n",
         {0, "written\nagain\n", ""}},
    };
    int k = 0;
    for (const auto& c : cases) {
        e2e::write_file(stencils + "/s", "port=$%{config/port}\n");
        EXPECT_EQ(whole(script(c.script, dir / ("run" + std::to_string(k++)))), c.expected)
            << c.name;
    }
}

}  // namespace
