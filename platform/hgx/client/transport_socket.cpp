// The transport of hgx-etcd.so: HTTP/1.1 over TCP sockets to etcd's plain
// gateway, with nothing loaded beside the C library. Each exchange runs as
// a small state machine on a non-blocking socket (connect, send, receive),
// and pump() polls them all at once.
//
// Idle connections are kept in one pool for the whole process, by member,
// so that every client (one per repository handle or writer) of a process
// reuses them. A pooled connection may have been closed by its member in
// the meantime: a request whose reused connection breaks before any byte
// of an answer is sent again once on a new connection.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "../hgx_etcd_client.h"
#include "http.h"
#include "transport.h"

namespace hgx_client {

namespace {

// Idle connections kept per member; more are closed.
constexpr size_t IDLE_PER_MEMBER = 4;

// The connections of the process that made them: a child made by fork
// has copies of them, which it closes unused, since its parent's requests
// run on them.
struct Pool {
    std::mutex lock;
    pid_t owner = getpid();
    std::vector<std::pair<std::string, int>> idle;  // member, connection

    void own() {
        if (owner == getpid()) return;
        for (const auto& [m, fd] : idle) close(fd);
        idle.clear();
        owner = getpid();
    }
};

Pool& pool() {
    static Pool& p = *new Pool;  // never destroyed: other threads may still use it at exit
    return p;
}

// An idle connection to the member, or -1. A connection with something to
// read was closed by the member (or holds what nobody asked for).
int take_idle(const std::string& member) {
    Pool& p = pool();
    std::lock_guard<std::mutex> hold(p.lock);
    p.own();
    for (size_t i = p.idle.size(); i-- > 0;) {
        if (p.idle[i].first != member) continue;
        int fd = p.idle[i].second;
        p.idle.erase(p.idle.begin() + static_cast<long>(i));
        pollfd q{fd, POLLIN, 0};
        if (poll(&q, 1, 0) == 0) return fd;
        close(fd);
    }
    return -1;
}

void give_idle(const std::string& member, int fd) {
    Pool& p = pool();
    std::lock_guard<std::mutex> hold(p.lock);
    p.own();
    size_t kept = 0;
    for (const auto& [m, f] : p.idle) kept += m == member;
    if (kept >= IDLE_PER_MEMBER) {
        close(fd);
        return;
    }
    p.idle.emplace_back(member, fd);
}

struct Address {
    sockaddr_storage address;
    socklen_t size;
};

// The addresses of "host:port" (a name, an IPv4 address or a bracketed
// IPv6 one); false when the name has none. Numbers are taken as they are,
// without the resolver.
bool resolve(const std::string& member, std::vector<Address>* out) {
    out->clear();
    size_t colon = member.rfind(':');
    if (colon == std::string::npos) return false;
    std::string host = member.substr(0, colon), port = member.substr(colon + 1);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    Address a{};
    auto* v4 = reinterpret_cast<sockaddr_in*>(&a.address);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&a.address);
    uint16_t p = htons(static_cast<uint16_t>(std::atoi(port.c_str())));
    if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = p;
        a.size = sizeof *v4;
        out->push_back(a);
        return true;
    }
    if (inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = p;
        a.size = sizeof *v6;
        out->push_back(a);
        return true;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | AI_ADDRCONFIG;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) return false;
    for (addrinfo* i = found; i; i = i->ai_next) {
        if (i->ai_addrlen > sizeof a.address) continue;
        Address one{};
        std::memcpy(&one.address, i->ai_addr, i->ai_addrlen);
        one.size = i->ai_addrlen;
        out->push_back(one);
    }
    freeaddrinfo(found);
    return !out->empty();
}

struct SocketExchange : Exchange {
    enum Phase { IDLE, CONNECTING, SENDING, RECEIVING, ENDED };
    Phase phase = IDLE;
    int fd = -1;
    bool reused = false;   // the connection came from the pool
    bool retried = false;  // sent again on a new connection already
    std::vector<Address> addresses;
    size_t next_address = 0;
    int last_errno = 0;
    std::string out;  // the request's bytes
    size_t sent = 0;
    ResponseReader reader;
    Clock::time_point connect_by, deadline;

    ~SocketExchange() override { drop(); }
    void drop() {
        if (fd >= 0) close(fd);
        fd = -1;
    }
};

bool to_sink(void* context, const char* data, size_t size) {
    auto* e = static_cast<SocketExchange*>(context);
    return e->sink(e->sink_context, data, size) != 0;
}

class SocketTransport : public Transport {
  public:
    explicit SocketTransport(Settings settings) : settings_(std::move(settings)) {}

    std::unique_ptr<Exchange> exchange() override { return std::make_unique<SocketExchange>(); }

    void start(Exchange* base) override {
        auto* e = static_cast<SocketExchange*>(base);
        e->busy = true;
        e->started = Clock::now();
        e->deadline = e->timeout_ms > 0 ? e->started + std::chrono::milliseconds(e->timeout_ms)
                                        : Clock::time_point::max();
        e->status = HGX_ETCD_OK;
        e->http = 0;
        e->response.clear();
        e->detail.clear();
        e->retried = false;
        e->out = http_request(member(e), e->path, e->token, e->body);
        e->sent = 0;
        active_.push_back(e);
        e->fd = take_idle(member(e));
        e->reused = e->fd >= 0;
        if (e->reused) {
            begin_sending(e);
        } else {
            e->addresses.clear();
            connect_anew(e);
        }
    }

    void stop(Exchange* base) override {
        auto* e = static_cast<SocketExchange*>(base);
        if (!e->busy) return;
        e->drop();
        e->phase = SocketExchange::IDLE;
        e->busy = false;
        active_.erase(std::remove(active_.begin(), active_.end(), e), active_.end());
    }

    void pump(long wait_ms, std::vector<Exchange*>* done) override {
        done->clear();
        Clock::time_point until = Clock::now() + std::chrono::milliseconds(std::max(wait_ms, 0L));
        std::vector<pollfd> fds;
        std::vector<SocketExchange*> polled;
        while (true) {
            harvest(done);
            Clock::time_point now = Clock::now();
            if (!done->empty() || now >= until) return;
            Clock::time_point wake = until;
            fds.clear();
            polled.clear();
            for (SocketExchange* e : active_) {
                wake = std::min(wake, e->deadline);
                if (e->phase == SocketExchange::CONNECTING) wake = std::min(wake, e->connect_by);
                short events = e->phase == SocketExchange::RECEIVING ? POLLIN : POLLOUT;
                fds.push_back(pollfd{e->fd, events, 0});
                polled.push_back(e);
            }
            long ms = std::chrono::duration_cast<std::chrono::milliseconds>(wake - now).count();
            // Rounded up, so that a deadline is past when poll returns.
            if (wake > now + std::chrono::milliseconds(ms)) ++ms;
            int ready = poll(fds.data(), fds.size(), static_cast<int>(std::max(ms, 0L)));
            now = Clock::now();
            for (size_t i = 0; ready > 0 && i < fds.size(); ++i)
                if (fds[i].revents && polled[i]->phase != SocketExchange::ENDED) advance(polled[i]);
            for (SocketExchange* e : active_) {
                if (e->phase == SocketExchange::ENDED) continue;
                if (now >= e->deadline ||
                    (e->phase == SocketExchange::CONNECTING && now >= e->connect_by))
                    end(e, HGX_ETCD_TIMEOUT, "");
            }
        }
    }

  private:
    const std::string& member(const SocketExchange* e) const {
        return settings_.members[e->member];
    }

    void harvest(std::vector<Exchange*>* done) {
        for (SocketExchange* e : active_)
            if (e->phase == SocketExchange::ENDED) {
                e->phase = SocketExchange::IDLE;
                e->busy = false;
                done->push_back(e);
            }
        active_.erase(std::remove_if(active_.begin(), active_.end(),
                                     [](SocketExchange* e) { return !e->busy; }),
                      active_.end());
    }

    void end(SocketExchange* e, int status, std::string detail) {
        e->drop();
        e->phase = SocketExchange::ENDED;
        e->status = status;
        e->detail = std::move(detail);
    }

    // Connects to the member's next address, from the first when none was
    // tried yet; the exchange ends when none is left.
    void connect_anew(SocketExchange* e) {
        e->drop();
        e->reused = false;
        if (e->addresses.empty()) {
            e->next_address = 0;
            e->last_errno = 0;
            if (!resolve(member(e), &e->addresses))
                return end(e, HGX_ETCD_UNREACHABLE, member(e) + ": no such host");
        }
        long connect_ms =
            e->timeout_ms > 0 && e->timeout_ms < CONNECT_MS ? e->timeout_ms : CONNECT_MS;
        e->connect_by = Clock::now() + std::chrono::milliseconds(connect_ms);
        while (e->next_address < e->addresses.size()) {
            const Address& a = e->addresses[e->next_address++];
            e->fd = socket(a.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            if (e->fd < 0) {
                e->last_errno = errno;
                continue;
            }
            // A watch may be silent for long: the kernel finds a member
            // that went away with the machine.
            int on = 1, idle = 5;
            setsockopt(e->fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            setsockopt(e->fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
            setsockopt(e->fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
            setsockopt(e->fd, IPPROTO_TCP, TCP_KEEPINTVL, &idle, sizeof idle);
            if (connect(e->fd, reinterpret_cast<const sockaddr*>(&a.address), a.size) == 0)
                return begin_sending(e);
            if (errno == EINPROGRESS) {
                e->phase = SocketExchange::CONNECTING;
                return;
            }
            e->last_errno = errno;
            e->drop();
        }
        e->addresses.clear();  // named again on the next connection
        end(e, HGX_ETCD_UNREACHABLE,
            member(e) + ": " + (e->last_errno ? std::strerror(e->last_errno) : "cannot connect"));
    }

    void begin_sending(SocketExchange* e) {
        e->phase = SocketExchange::SENDING;
        e->sent = 0;
        if (e->sink)
            e->reader.reset(to_sink, e);
        else
            e->reader.reset();
        advance(e);
    }

    // The connection broke: a reused one before any answer is taken for
    // one its member had closed, and the request goes again on a new one.
    void broken(SocketExchange* e) {
        if (e->reused && !e->retried && !e->reader.started()) {
            e->retried = true;
            e->addresses.clear();
            return connect_anew(e);
        }
        end(e, HGX_ETCD_UNREACHABLE, member(e) + ": the connection broke");
    }

    void advance(SocketExchange* e) {
        if (e->phase == SocketExchange::CONNECTING) {
            int error = 0;
            socklen_t size = sizeof error;
            if (getsockopt(e->fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
            if (error == EINPROGRESS || error == EALREADY) return;
            if (error != 0) {
                e->last_errno = error;
                return connect_anew(e);
            }
            return begin_sending(e);
        }
        if (e->phase == SocketExchange::SENDING) {
            while (e->sent < e->out.size()) {
                ssize_t n =
                    send(e->fd, e->out.data() + e->sent, e->out.size() - e->sent, MSG_NOSIGNAL);
                if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                    if (errno == EINTR) continue;
                    return;
                }
                if (n < 0) return broken(e);
                e->sent += static_cast<size_t>(n);
            }
            // The answer is waited for by poll, not by a read that would fail.
            e->phase = SocketExchange::RECEIVING;
            return;
        }
        if (e->phase != SocketExchange::RECEIVING) return;
        char buffer[65536];
        while (true) {
            ssize_t n = recv(e->fd, buffer, sizeof buffer, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
            if (n <= 0) return broken(e);  // an answer cut short
            size_t used = 0;
            switch (e->reader.feed(buffer, static_cast<size_t>(n), &used)) {
                case ResponseReader::MORE:
                    continue;
                case ResponseReader::COMPLETE:
                    // Bytes beyond the answer were never asked for.
                    return answered(e, used == static_cast<size_t>(n) && e->reader.reusable());
                case ResponseReader::STOPPED:
                    return end(e, HGX_ETCD_STOPPED, "");
                case ResponseReader::TOO_LARGE:
                    return end(e, HGX_ETCD_UNREACHABLE,
                               member(e) + ": the member's answer is larger than allowed");
                case ResponseReader::MALFORMED:
                    return end(e, HGX_ETCD_UNREACHABLE,
                               member(e) + ": the member's answer is not the HTTP expected");
            }
        }
    }

    void answered(SocketExchange* e, bool reusable) {
        if (reusable) {
            give_idle(member(e), e->fd);
            e->fd = -1;
        }
        e->http = e->reader.status();
        e->response = std::move(e->reader.body());
        end(e, HGX_ETCD_OK, "");
    }

    Settings settings_;
    std::vector<SocketExchange*> active_;  // busy, in the order started
};

}  // namespace

std::unique_ptr<Transport> make_transport(const Settings& settings, int* status, std::string* why) {
    if (settings.tls) {
        *status = HGX_ETCD_TLS;
        *why = "hgx-etcd.so speaks no TLS: etcds:// is served by hgx-etcd-tls.so";
        return nullptr;
    }
    return std::make_unique<SocketTransport>(settings);
}

}  // namespace hgx_client
