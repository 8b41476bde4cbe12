// Starts or stops the etcd that a whole test run shares, for CTest's
// fixtures: `etcd_fixture start DIR` starts one member with its data below
// DIR and writes DIR/endpoint and DIR/pid; `etcd_fixture stop DIR` stops it
// by that process id and removes DIR. Where etcd is missing outside CI, the
// endpoint file says why, and the tests that need it skip.
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "etcd_server.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: etcd_fixture start|stop DIR\n");
        return 2;
    }
    std::string verb = argv[1], dir = argv[2];
    if (verb == "stop") {
        std::ifstream pidfile(dir + "/pid");
        long pid = 0;
        if (pidfile >> pid && pid > 0) kill(static_cast<pid_t>(pid), SIGKILL);
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
        return 0;
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    std::filesystem::create_directories(dir);
    etcd_testing::EtcdServer server;
    std::string why;
    etcd_testing::Options options;
    options.dir = dir + "/data";
    if (!server.start(options, &why)) {
        std::fprintf(stderr, "etcd_fixture: %s\n", why.c_str());
        std::ofstream(dir + "/endpoint") << "skip: " << why << '\n';
        return etcd_testing::may_skip(why) ? 0 : 1;
    }
    std::ofstream(dir + "/pid") << server.pid(0) << '\n';
    std::ofstream(dir + "/endpoint") << server.endpoints() << '\n';
    std::printf("etcd at %s, pid %d\n", server.endpoints().c_str(),
                static_cast<int>(server.pid(0)));
    server.detach();
    return 0;
}
