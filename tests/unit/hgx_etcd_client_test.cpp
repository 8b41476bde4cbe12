// The lean etcd client of hgx-etcd.so, linked in: HTTP as a real etcd's
// gateway speaks it (lengths, chunks, a watch's stream), connections kept
// from client to client, and what a member that does not speak it right
// gets: refused answers, broken connections, silence. The reader of
// answers is checked against malformed and oversized ones in any pieces.
#include "../hgx_etcd_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "etcd_gtest.h"
#include "http.h"

namespace {

using hgx_client::ResponseReader;

// Feeds text in pieces of at most `piece` bytes, as a socket might give it.
std::tuple<ResponseReader::State, std::string, bool> read_in_pieces(const std::string& text,
                                                                    size_t piece) {
    ResponseReader r;
    r.reset();
    for (size_t at = 0; at < text.size() && r.state() == ResponseReader::MORE; at += piece) {
        size_t used = 0;
        r.feed(text.data() + at, std::min(piece, text.size() - at), &used);
    }
    return {r.state(), r.body(), r.reusable()};
}

TEST(HttpReader, TakesWellFormedAnswersAndRefusesTheRest) {
    const std::string ok = "HTTP/1.1 200 OK\r\n", te = ok + "Transfer-Encoding: ";
    constexpr auto DONE = ResponseReader::COMPLETE, BAD = ResponseReader::MALFORMED,
                   BIG = ResponseReader::TOO_LARGE;
    std::string long_head = ok;
    for (int i = 0; i < 1000; ++i)
        long_head += "X-" + std::to_string(i) + ": " + std::string(80, 'a') + "\r\n";
    struct Case {
        const char* name;
        ResponseReader::State state;
        std::string body;
        bool reusable;
        std::string text;
    } cases[] = {
        {"length", DONE, "hello", true, ok + "Content-Length: 5\r\n\r\nhello"},
        {"chunks", DONE, "hello", true,
         ok + "Transfer-Encoding: Chunked\r\n\r\n3;x=y\r\nhel\r\n2\r\nlo\r\n0\r\nT: 1\r\n\r\n"},
        {"interim", DONE, "", true,
         "HTTP/1.1 100 Continue\r\n\r\n" + ok + "Content-Length: 0\r\n\r\n"},
        {"close", DONE, "ok", false,
         ok + "Connection: keep-alive, Close\r\nContent-Length: 2\r\n\r\nok"},
        {"1.0", DONE, "ok", false, "HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\nok"},
        {"no content", DONE, "", true, "HTTP/1.1 204 No Content\r\n\r\n"},
        {"unfinished", ResponseReader::MORE, "hel", false, ok + "Content-Length: 5\r\n\r\nhel"},
        {"not http", BAD, "", false, "SSH-2.0-OpenSSH_9.2\r\n"},
        {"bare newlines", BAD, "", false, "HTTP/1.1 200 OK\nContent-Length: 0\n\n"},
        {"short status", BAD, "", false, "HTTP/1.1 20 OK\r\n\r\n"},
        {"switching", BAD, "", false, "HTTP/1.1 101 Switching\r\n\r\n"},
        {"no length", BAD, "", false, ok + "\r\nbody"},
        {"two lengths", BAD, "", false, ok + "Content-Length: 1\r\nContent-Length: 1\r\n\r\nx"},
        {"length and chunks", BAD, "", false,
         ok + "Content-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n"},
        {"other coding", BAD, "", false, te + "gzip, chunked\r\n\r\n"},
        {"signed length", BAD, "", false, ok + "Content-Length: +5\r\n\r\nhello"},
        {"folded header", BAD, "", false, ok + "X: a\r\n b\r\nContent-Length: 0\r\n\r\n"},
        {"control in value", BAD, "", false, ok + "X: a\x01z\r\nContent-Length: 0\r\n\r\n"},
        {"chunk overrun", BAD, "hel", false, te + "chunked\r\n\r\n3\r\nhello\r\n0\r\n\r\n"},
        {"chunk size", BAD, "", false, te + "chunked\r\n\r\n zz\r\n"},
        {"long line", BIG, "", false, ok + "X: " + std::string(9000, 'a') + "\r\n\r\n"},
        {"long head", BIG, "", false, long_head},
        {"huge length", BIG, "", false, ok + "Content-Length: 2000000000\r\n\r\n"},
        {"huge chunk", BIG, "", false, te + "chunked\r\n\r\nffffffffffffffff\r\n"},
    };
    for (const Case& c : cases)
        for (size_t piece : {c.text.size(), size_t{1}, size_t{7}})
            EXPECT_EQ(read_in_pieces(c.text, piece), std::tuple(c.state, c.body, c.reusable))
                << c.name << ", pieces of " << piece;
}

// A socket listening on a free port of loopback; its port in *port.
int listen_loopback(int* port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), size) != 0 || listen(fd, 8) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &size) != 0)
        ADD_FAILURE() << "no loopback socket";
    *port = ntohs(a.sin_port);
    return fd;
}

// A member on loopback that serves the connections it accepts one at a
// time, answering each request with the next of its canned answers and
// closing the connection after each answer when told to; an empty answer is
// none at all (the member hangs). Counts the connections it accepted.
class FakeMember {
  public:
    explicit FakeMember(std::vector<std::string> answers, bool close_after = false)
        : answers_(std::move(answers)), close_after_(close_after) {
        listener_ = listen_loopback(&port_);
        acceptor_ = std::thread([this] {
            for (int fd; (fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;
                 close(fd)) {
                ++accepted_;
                // Clients keep their connections: the wait for a request
                // looks up every 50 ms whether the member is going.
                timeval tick{0, 50000};
                setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof tick);
                serve(fd);
            }
        });
    }
    ~FakeMember() {
        stopping_ = true;
        shutdown(listener_, SHUT_RDWR);
        acceptor_.join();
        close(listener_);
    }
    std::string endpoint() const { return "127.0.0.1:" + std::to_string(port_); }
    int accepted() const { return accepted_; }

  private:
    // Requests on one connection: a head to its blank line, then its body.
    void serve(int fd) {
        std::string in;
        char buffer[4096];
        while (true) {
            size_t head = in.find("\r\n\r\n");
            if (head != std::string::npos) {
                size_t at = in.find("Content-Length: ");
                size_t length = at < head ? std::stoul(in.substr(at + 16)) : 0;
                if (in.size() >= head + 4 + length) {
                    in.erase(0, head + 4 + length);
                    std::string answer = next_ < answers_.size() ? answers_[next_++] : "";
                    if (answer.empty()) continue;  // hangs: the client gives up
                    if (send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) < 0 || close_after_)
                        break;
                    continue;
                }
            }
            ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n < 0 && errno == EAGAIN && !stopping_) continue;
            if (n <= 0) break;
            in.append(buffer, static_cast<size_t>(n));
        }
    }

    std::vector<std::string> answers_;
    bool close_after_;
    size_t next_ = 0;  // the connections are served in turn
    int listener_ = -1, port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> accepted_{0};
    std::thread acceptor_;
};

struct Posted {
    int status;
    long http;
    std::string body, error;
};

// One client of the endpoints for the requests, one POST each, and then the
// stream if one is given; the client's open failing is a status like the others.
std::vector<Posted> post(const std::string& endpoints, std::vector<std::string> bodies,
                         long timeout_ms = 5000, const char* path = "/v3/kv/range",
                         hgx_etcd_stream* stream = nullptr) {
    const hgx_etcd_client_api* api = hgx_etcd_client();
    hgx_etcd_options o{endpoints.c_str(), 0, nullptr, nullptr, nullptr, nullptr, nullptr};
    int status = 0;
    char error[512] = "";
    void* c = api->open(&o, &status, error, sizeof error);
    std::vector<Posted> out;
    if (!c) return {{status, 0, "", error}};
    for (const std::string& body : bodies) {
        hgx_etcd_reply r{0, nullptr, 0};
        error[0] = '\0';
        int s = api->post(c, path, body.data(), body.size(), timeout_ms, HGX_ETCD_READ, &r, error,
                          sizeof error);
        out.push_back({s, r.http_status, r.body ? std::string(r.body, r.size) : "", error});
        api->release(&r);
    }
    if (stream) out.push_back({api->stream(c, stream, error, sizeof error), 0, "", error});
    api->close(c);
    return out;
}

const std::string ANSWER = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}";

TEST(LeanClient, ClientsInTurnShareOneConnectionAndReplaceOneTheMemberClosed) {
    {
        FakeMember m({ANSWER, ANSWER, ANSWER});
        for (const Posted& p : post(m.endpoint(), {"{}"})) EXPECT_EQ(p.body, "{}") << p.error;
        for (const Posted& p : post(m.endpoint(), {"{}", "{}"})) EXPECT_EQ(p.body, "{}") << p.error;
        EXPECT_EQ(m.accepted(), 1);
    }
    FakeMember m({ANSWER, ANSWER}, true);
    for (const Posted& p : post(m.endpoint(), {"{}", "{}"})) EXPECT_EQ(p.body, "{}") << p.error;
    EXPECT_EQ(m.accepted(), 2);
}

TEST(LeanClient, AMemberThatDoesNotAnswerRightFailsTheCallWithWhatWentWrong) {
    struct Case {
        const char* name;
        std::string answer;
        int status;
        const char* error;
    } cases[] = {
        {"no length", "HTTP/1.1 200 OK\r\n\r\n{}", HGX_ETCD_UNREACHABLE, "not the HTTP expected"},
        {"cut short", "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n{}", HGX_ETCD_UNREACHABLE,
         "the connection broke"},
        {"too large", "HTTP/1.1 200 OK\r\nX: " + std::string(10000, 'x') + "\r\n",
         HGX_ETCD_UNREACHABLE, "larger than allowed"},
        {"silent", "", HGX_ETCD_TIMEOUT, ""},
    };
    for (const Case& c : cases) {
        FakeMember m({c.answer}, true);
        std::vector<Posted> p = post(m.endpoint(), {"{}"}, 500);
        EXPECT_EQ(p[0].status, c.status) << c.name;
        EXPECT_NE(p[0].error.find(c.error), std::string::npos) << c.name << ": " << p[0].error;
    }
    // A port nobody listens on; the descriptor is closed before the call.
    int port = 0;
    close(listen_loopback(&port));
    std::vector<Posted> p = post("127.0.0.1:" + std::to_string(port), {"{}"});
    EXPECT_EQ(p[0].status, HGX_ETCD_UNREACHABLE);
    EXPECT_NE(p[0].error.find("Connection refused"), std::string::npos) << p[0].error;
}

TEST(LeanClient, SpeaksToARealEtcdInLengthsChunksAndAStream) {
    etcd_testing::EtcdServer server;
    ETCD_START_OR_SKIP(server, etcd_testing::Options{});
    const std::string big(200000, 'v');
    std::vector<Posted> p = post(server.endpoints(),
                                 {"{\"key\":\"" + etcd_testing::b64("k/big") + "\",\"value\":\"" +
                                      etcd_testing::b64(big) + "\"}",
                                  "{\"key\":\"" + etcd_testing::b64("k/small") + "\",\"value\":\"" +
                                      etcd_testing::b64("s") + "\"}"},
                                 5000, "/v3/kv/put");
    for (const Posted& r : p) ASSERT_EQ(r.http, 200) << r.body << r.error;
    // Above a few kilobytes the gateway sends chunks.
    p = post(server.endpoints(), {"{\"key\":\"" + etcd_testing::b64("k/") + "\",\"range_end\":\"" +
                                      etcd_testing::b64("k0") + "\"}",
                                  "{\"key\":\"" + etcd_testing::b64("k/small") + "\"}"});
    ASSERT_EQ(p[0].http, 200) << p[0].error;
    EXPECT_NE(p[0].body.find(etcd_testing::b64(big)), std::string::npos);
    EXPECT_NE(p[1].body.find("\"count\":\"1\""), std::string::npos) << p[1].body;

    // A watch from the first revision hands on both puts as they stream in.
    std::string seen;
    const std::string body = "{\"create_request\":{\"key\":\"" + etcd_testing::b64("k/") +
                             "\",\"range_end\":\"" + etcd_testing::b64("k0") +
                             "\",\"start_revision\":\"1\"}}";
    hgx_etcd_stream s{};
    s.path = "/v3/watch";
    s.body = body.data();
    s.size = body.size();
    s.probe_path = "/v3/kv/range";
    s.probe_body = "{}";
    s.probe_size = 2;
    s.idle_ms = 1500;
    s.on_data = [](void* p, const char* data, size_t size) {
        auto* seen = static_cast<std::string*>(p);
        seen->append(data, size);
        return seen->find(etcd_testing::b64("k/small")) == std::string::npos ? 1 : 0;
    };
    s.keep_going = [](void*) { return 1; };
    s.context = &seen;
    p = post(server.endpoints(), {}, 5000, "", &s);
    EXPECT_EQ(p[0].status, HGX_ETCD_STOPPED) << p[0].error;
    EXPECT_NE(seen.find(etcd_testing::b64(big)), std::string::npos);
}

}  // namespace
