// A real etcd for tests: members on 127.0.0.1 with free ports and a
// temporary data directory, started as child processes and stopped by their
// process ids when the object goes.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace etcd_testing {

struct Options {
    int members = 1;
    bool tls = false;  // https for clients, with certificates made by openssl
    // The names the members' certificate is made for (openssl's
    // subjectAltName form).
    std::string tls_names = "IP:127.0.0.1,DNS:localhost";
    std::string dir;  // where data, logs and certificates go; empty: a new one
};

class EtcdServer {
  public:
    EtcdServer() = default;
    ~EtcdServer();
    EtcdServer(const EtcdServer&) = delete;
    EtcdServer& operator=(const EtcdServer&) = delete;

    // Starts the members and waits until the cluster answers; false with
    // *why set when etcd is missing or does not come up.
    bool start(const Options& options, std::string* why);
    // Stops every member (SIGKILL) and removes the data directory it made.
    void stop();
    // Leaves the members running when the object goes (a fixture process
    // that starts etcd for others to stop by pid).
    void detach();

    // "127.0.0.1:port,..." of the members still running (all: with stopped).
    std::string endpoints(bool with_stopped = false) const;
    // etcd[s]://endpoints/prefix
    std::string url(const std::string& prefix) const;
    int client_port(int member) const { return members_[member].client_port; }
    pid_t pid(int member) const { return members_[member].pid; }
    int leader() const;  // the member that leads, or -1
    void kill_member(int member);
    // SIGSTOP / SIGCONT: members that hang instead of refusing; every
    // member (-1), or one.
    void freeze(bool frozen, int member = -1);
    void restart_member(int member);

    // Certificates of a TLS cluster: CA, client certificate and key.
    std::string ca() const { return dir_ + "/ca.pem"; }
    std::string client_cert() const { return dir_ + "/client.pem"; }
    std::string client_key() const { return dir_ + "/client.key"; }

    // A plain HTTP POST to a member's gateway (no TLS); the response body,
    // or "" when it could not be sent.
    std::string post(int member, const std::string& path, const std::string& body) const;
    // Writes a key through the gateway (key and value given plainly).
    void put(const std::string& key, const std::string& value) const;
    // Compacts the history up to the current revision, physically.
    void compact() const;
    // How many keys start with prefix (0 when none, or no answer).
    long count(const std::string& prefix) const;
    // Creates the user root with the password and turns authentication on.
    bool enable_auth(const std::string& password);

  private:
    struct Member {
        std::string name;
        int client_port = 0, peer_port = 0;
        pid_t pid = -1;
    };
    bool launch(int m, bool existing);
    bool make_certificates(std::string* why);
    bool wait_ready(std::string* why) const;

    Options options_;
    std::string dir_;
    bool own_dir_ = false;
    std::vector<Member> members_;
};

// True (with why) where etcd tests may be skipped: etcd is not installed and
// this is not CI, where they must run.
bool may_skip(const std::string& why);

// A child running argv with its standard streams on /dev/null; -1 when
// none could be made. The caller waits for it.
pid_t spawn(const std::vector<std::string>& argv);

// base64 of a text, for requests to the gateway.
std::string b64(const std::string& s);

}  // namespace etcd_testing
