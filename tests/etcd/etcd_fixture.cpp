// Starts or stops the etcd that a whole test run shares, for CTest's
// fixtures: `etcd_fixture start DIR [MEMBERS [tls]]` starts one member (or
// MEMBERS) with its data below DIR and writes DIR/endpoint (the members'
// host:port, comma-separated) and DIR/pid (their process ids, one a line,
// in the same order); with tls the members speak only TLS and ask for a
// client certificate: DIR/data/ca.pem, client.pem and client.key.
// `etcd_fixture stop DIR` stops them by those process ids and removes DIR.
// Where etcd is missing outside CI, the endpoint file says why, and the
// tests that need it skip.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "etcd_server.h"

int main(int argc, char** argv) {
    if (argc < 3 || argc > 5 || (argc == 5 && std::string(argv[4]) != "tls")) {
        std::fprintf(stderr, "usage: etcd_fixture start|stop DIR [MEMBERS [tls]]\n");
        return 2;
    }
    const std::string verb = argv[1], dir = argv[2];
    std::error_code ec;
    if (verb == "stop") {
        std::ifstream pidfile(dir + "/pid");
        for (long pid = 0; pidfile >> pid;)
            if (pid > 0) {
                kill(static_cast<pid_t>(pid), SIGCONT);
                kill(static_cast<pid_t>(pid), SIGKILL);
            }
        std::filesystem::remove_all(dir, ec);
        return 0;
    }
    std::filesystem::remove_all(dir, ec);
    std::filesystem::create_directories(dir);
    etcd_testing::Options options;
    options.dir = dir + "/data";
    if (argc >= 4) options.members = std::atoi(argv[3]);
    options.tls = argc == 5;
    etcd_testing::EtcdServer server;
    std::string why;
    if (!server.start(options, &why)) {
        std::fprintf(stderr, "etcd_fixture: %s\n", why.c_str());
        std::ofstream(dir + "/endpoint") << "skip: " << why << '\n';
        return etcd_testing::may_skip(why) ? 0 : 1;
    }
    std::ofstream pids(dir + "/pid");
    for (int m = 0; m < options.members; ++m) pids << server.pid(m) << '\n';
    std::ofstream(dir + "/endpoint") << server.endpoints() << '\n';
    std::printf("etcd at %s\n", server.endpoints().c_str());
    server.detach();
    return 0;
}
