// A repository file comes into being whole or not at all, whatever kills or
// races its first writer, and with the mode it is documented to have.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "e2e_util.h"

namespace {

using e2e::hgxrepo;

// The names in dir that are not the scratch files the test wrote itself.
std::vector<std::string> entries(const std::string& dir) {
    std::vector<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        if (e.path().extension() != ".json") out.push_back(e.path().filename());
    std::sort(out.begin(), out.end());
    return out;
}

// name + number + suffix (appended: GCC 12 at -O3 takes "literal" +
// std::string&& for an overlapping copy, -Wrestrict).
std::string numbered(const char* name, unsigned number, const char* suffix = "") {
    std::string s = name;
    s += std::to_string(number);
    s += suffix;
    return s;
}

mode_t mode_of(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST(FirstImport, KilledPartWayLeavesNothingOrAWholeRepository) {
    if (e2e::on_cluster()) GTEST_SKIP() << "a file's creation: a cluster has none";
    e2e::TempDir dir;
    const std::string repo = dir / "r.db", big = dir / "big.json";
    e2e::write_file(big, e2e::generation_manifest("app/web", 1, 20000));
    auto clock = std::chrono::steady_clock::now;
    auto begin = clock();
    ASSERT_EQ(hgxrepo({"-r", dir / "timing.db", "import", big}).status, 0);
    auto took = std::chrono::duration_cast<std::chrono::microseconds>(clock() - begin);
    for (const char* suffix : {"", "-wal", "-shm"})
        std::filesystem::remove(dir / "timing.db" + suffix);

    int nothing = 0, whole = 0;
    for (int round = 0; round < 24; ++round) {
        pid_t pid = fork();
        if (pid == 0) {
            execl(e2e::hgxrepo_bin(), "hgxrepo", "-r", repo.c_str(), "import", big.c_str(),
                  static_cast<char*>(nullptr));
            _exit(127);
        }
        std::this_thread::sleep_for(took * round / 16);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        if (!e2e::exists(repo)) {
            ++nothing;
            for (const std::string& name : entries(dir.path()))
                EXPECT_EQ(name.rfind(".r.db.new-", 0), 0u) << name << " left by a killed import";
            continue;
        }
        ++whole;
        // One transaction: its first and its last property, or nothing.
        EXPECT_EQ(e2e::whole(e2e::kelvo(repo, {"-f", "wrn:/app/web:default"},
                                        "$%{config/p0} $%{config/p19999}\n")),
                  e2e::Whole(0, "g1 g1\n", ""));
        for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(repo + suffix);
    }
    std::printf("killed first imports: %d left nothing, %d a whole repository\n", nothing, whole);

    // What killed writers left is theirs alone; once old, the next writer
    // removes it.
    for (const std::string& name : entries(dir.path())) {
        auto old = std::filesystem::file_time_type::clock::now() - std::chrono::minutes(2);
        std::filesystem::last_write_time(dir / name, old);
    }
    ASSERT_EQ(hgxrepo({"-r", repo, "import", big}).status, 0);
    EXPECT_EQ(entries(dir.path()), (std::vector<std::string>{"r.db", "r.db-shm", "r.db-wal"}));
}

// Two first imports race on a missing file, round after round: each either
// lands or fails with one line, and the file holds every import that said
// it landed.
TEST(FirstImport, RacingImportsNeverLoseARepository) {
    e2e::TempDir dir;
    int both = 0;
    for (int round = 0; round < 60; ++round) {
        const std::string repo = dir / numbered("r", round, ".db");
        e2e::Result results[2];
        std::thread racers[2];
        for (int k = 0; k < 2; ++k)
            racers[k] = std::thread([&, k] {
                results[k] = hgxrepo({"-r", repo, "import", "-"},
                                     e2e::generation_manifest(numbered("s", k), 0, 50));
            });
        for (std::thread& t : racers) t.join();
        const std::string listed = hgxrepo({"-r", repo, "list"}).out;
        for (int k = 0; k < 2; ++k) {
            const e2e::Result& r = results[k];
            if (r.status == 0) {
                EXPECT_NE(listed.find(numbered("wrn:/s", k, ":default")), std::string::npos)
                    << "round " << round << ": a landed import was lost\n"
                    << listed;
            } else {
                EXPECT_EQ(r.status, 1) << r.err;
                EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
            }
        }
        both += results[0].status == 0 && results[1].status == 0;
    }
    std::printf("racing first imports: both landed in %d of 60 rounds\n", both);
}

// What a file that holds nothing is: no repository to a reader, a new one
// to a writer.
TEST(FirstImport, AnEmptyFileIsNoRepositoryUntilAWriterFillsIt) {
    if (e2e::on_cluster()) GTEST_SKIP() << "a file's creation: a cluster has none";
    e2e::TempDir dir;
    const std::string repo = dir / "r.db";
    e2e::write_file(repo, "");
    EXPECT_EQ(e2e::whole(e2e::kelvo(repo, {"-f", "wrn:/app/web:default"}, "x\n")),
              e2e::Whole(3, "",
                         "kelvo: Unable to get properties for wrn:/app/web:default: Repository "
                         "file does not exist: " +
                             repo + "\n"));
    ASSERT_EQ(
        hgxrepo({"-r", repo, "import", "-"}, e2e::generation_manifest("app/web", 2, 1)).status, 0);
    EXPECT_EQ(e2e::kelvo(repo, {"-f", "wrn:/app/web:default"}, "$%{config/p0}\n").out, "g2\n");
}

// A new file is made 0644 under the umask, the -wal and -shm files beside
// it like it; an existing file keeps its mode, and its logs give no more.
TEST(FileModes, ANewFileIs0644UnderTheUmaskAnExistingOneKeepsItsMode) {
    if (e2e::on_cluster()) GTEST_SKIP() << "file modes: a cluster has none";
    e2e::TempDir dir;
    const std::string manifest = e2e::generation_manifest("app/web", 0, 1);
    struct Case {
        mode_t umask;
        mode_t created;
    } cases[] = {{022, 0644}, {077, 0600}, {0, 0644}};
    for (const Case& c : cases) {
        const std::string repo = dir / numbered("u", c.umask, ".db");
        mode_t saved = umask(c.umask);
        e2e::Result r = hgxrepo({"-r", repo, "import", "-"}, manifest);
        umask(saved);
        ASSERT_EQ(r.status, 0) << r.err;
        for (const char* suffix : {"", "-wal", "-shm"})
            EXPECT_EQ(mode_of(repo + suffix), c.created) << std::oct << c.umask << suffix;
    }

    const std::string repo = dir / "kept.db";
    ASSERT_EQ(hgxrepo({"-r", repo, "import", "-"}, manifest).status, 0);
    ASSERT_EQ(chmod(repo.c_str(), 0640), 0);
    ASSERT_EQ(chmod((repo + "-wal").c_str(), 0666), 0);
    ASSERT_EQ(hgxrepo({"-r", repo, "import", "-"}, manifest).status, 0);
    ASSERT_EQ(hgxrepo({"-r", repo, "setprop", "--snapshot",
                       "wrn:/app/web:default/:properties/config/p0", "x"})
                  .status,
              0);
    for (const char* suffix : {"", "-wal", "-shm"})
        EXPECT_EQ(mode_of(repo + suffix), 0640u) << suffix;
}

}  // namespace
