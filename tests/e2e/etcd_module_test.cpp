// Which etcd client modules the programs agree to load: one owned by root
// or by the user who runs them, writable by nobody else, and never the one
// $HGX_ETCD_MODULE names to a program that holds more than its user's
// rights. The module under test announces being loaded by making a file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

// Nothing answers there; the module is loaded before any request.
const char* const URL = "etcd://127.0.0.1:9/module-test";

class ModuleProvenance : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "giving files owners needs root";
        // Reachable for an unprivileged user: the programs are run as one.
        ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
        ASSERT_EQ(mkdir(bin.c_str(), 0755), 0);
        ASSERT_EQ(mkdir(drop.c_str(), 0777), 0);
        ASSERT_EQ(chmod(drop.c_str(), 0777), 0);  // past the umask
        kelvo = copy(e2e::kelvo_bin(), "kelvo", 0755);
    }
    // A copy of file at bin/name, with no client module beside it.
    std::string copy(const std::string& file, const std::string& name, mode_t mode) {
        const std::string to = bin + "/" + name;
        e2e::write_file(to, e2e::read_file(file));
        EXPECT_EQ(chmod(to.c_str(), mode), 0);
        return to;
    }
    e2e::Result run(std::vector<std::string> args, const std::string& module,
                    std::vector<std::string> wrapper = {}) {
        e2e::Run r;
        r.args = std::move(args);
        r.wrapper = std::move(wrapper);
        r.env = {{"HGX_REPOSITORY", URL},
                 {"HGX_ETCD_MODULE", module},
                 {"HOSTILE_MARKER", marker},
                 {"QRM_WERN", std::nullopt}};
        return e2e::run(r);
    }
    e2e::TempDir dir;
    const std::string bin = dir / "bin", drop = dir / "drop", marker = drop + "/loaded";
    std::string kelvo;
};

TEST_F(ModuleProvenance, OnlyModulesOfRootOrTheUserAreLoaded) {
    const std::string hgxrepo = copy(e2e::hgxrepo_bin(), "hgxrepo", 0755);
    struct Case {
        uid_t owner;
        mode_t mode;
        const char* refusal;  // null: loaded
    };
    const Case cases[] = {
        {0, 0644, nullptr},
        {0, 0664, "not loaded: writable by group or others"},
        {0, 0646, "not loaded: writable by group or others"},
        {65534, 0644, "not loaded: owned by uid 65534, neither root nor this user"},
    };
    for (const Case& c : cases) {
        const std::string module = copy(HOSTILE_MODULE, "module.so", c.mode);
        ASSERT_EQ(chown(module.c_str(), c.owner, 0), 0);
        unlink(marker.c_str());
        e2e::Result r = run({kelvo, "-f", "wrn:/a:b"}, module);
        EXPECT_EQ(r.status, 3) << r.err;
        EXPECT_EQ(e2e::exists(marker), c.refusal == nullptr) << c.owner << " " << c.mode;
        unlink(marker.c_str());
        // hgxrepo says why.
        r = run({hgxrepo, "-r", URL, "delete", "wrn:/a"}, module);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(e2e::exists(marker), c.refusal == nullptr);
        const std::string why =
            c.refusal != nullptr ? module + ": " + c.refusal : module + ": not a client";
        EXPECT_NE(r.err.find(why), std::string::npos) << r.err;
    }
}

// A copy of kelvo holding capabilities, run by an unprivileged user who
// names a module of their own: the module is not loaded.
TEST_F(ModuleProvenance, ProgramWithCapabilitiesIgnoresTheEnvironment) {
    const char* const caps = "cap_dac_override,cap_sys_admin+p";
    const std::string cat = copy("/bin/cat", "cat", 0755);
    e2e::Run setcap;
    setcap.args = {"setcap", caps, kelvo};
    e2e::Result r = e2e::run(setcap);
    if (r.status != 0) GTEST_SKIP() << "file capabilities cannot be set here: " << r.err;
    setcap.args = {"setcap", caps, cat};
    ASSERT_EQ(e2e::run(setcap).status, 0);
    const std::vector<std::string> as_nobody = {"setpriv", "--reuid", "65534",
                                                "--regid", "65534",   "--clear-groups"};
    r = run({cat, "/proc/self/status"}, "", as_nobody);
    ASSERT_EQ(r.status, 0) << r.err;
    if (r.out.find("CapPrm:\t0000000000000000") != std::string::npos)
        GTEST_SKIP() << "file capabilities take no effect here (a nosuid mount?)";

    // The user's own module, as the user would plant it; not even root's own
    // module is taken from the environment.
    const std::string module = copy(HOSTILE_MODULE, "module.so", 0644);
    for (uid_t owner : {65534u, 0u}) {
        ASSERT_EQ(chown(module.c_str(), owner, owner), 0);
        r = run({kelvo, "-f", "wrn:/a:b"}, module, as_nobody);
        EXPECT_EQ(r.status, 3) << r.err;
        EXPECT_FALSE(e2e::exists(marker))
            << "uid " << owner << "'s module ran with the capabilities";
    }
}

}  // namespace
