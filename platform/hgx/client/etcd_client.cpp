// The network client of libhgx's etcd store: which member is asked, when the
// next one is asked too, the watch and its probe, authentication. Requests
// go through the module's transport (transport.h), which runs several at
// once, so that a read can be asked of a second member while the first is
// silent, and a stream can be watched over while it is quiet.
//
// One client keeps one exchange per member and one for a stream, and the
// index of the member that answered last. Nothing here throws across the C
// interface: every allocation failure becomes HGX_ETCD_NO_MEMORY.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "../hgx_etcd_client.h"
#include "transport.h"

namespace hgx_client {

namespace {

// How long the members asked for a read may be silent before the next one
// is asked too. An answer from a live member takes milliseconds; a member
// that hangs costs a reader this much once, not its whole budget.
constexpr long HEDGE_MS = 300;

long since_ms(Clock::time_point t) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

long until_ms(Clock::time_point t) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(t - Clock::now()).count());
}

// Tokens taken in this process, by members and user: a process that opens
// client after client (a mirror) authenticates once, and again only when
// etcd refuses the token.
struct Tokens {
    std::mutex lock;
    std::vector<std::pair<std::string, std::string>> by_key;  // key, token
};

Tokens& tokens() {
    static Tokens& t = *new Tokens;  // never destroyed: used until the process ends
    return t;
}

struct Client {
    Settings settings;
    std::string user, password;
    std::string token;   // etcd's authentication token, once authenticated
    size_t current = 0;  // the member asked first
    std::unique_ptr<Transport> transport;
    std::vector<std::unique_ptr<Exchange>> requests;  // one per member
    std::unique_ptr<Exchange> watch;                  // a stream's

    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() {
        // The exchanges go before their transport, stopped.
        for (auto& e : requests) transport->stop(e.get());
        if (watch) transport->stop(watch.get());
        requests.clear();
        watch.reset();
    }

    const std::string& member(size_t m) const { return settings.members[m]; }
    size_t size() const { return settings.members.size(); }
    // The key of the token cache: who asks whom.
    std::string token_key() const {
        std::string k = user + '\n' + password + '\n';
        for (const std::string& m : settings.members) k += m + ',';
        return k;
    }
};

void say(char* error, size_t size, const std::string& text) {
    if (size) std::snprintf(error, size, "%s", text.c_str());
}

// Readies an exchange for a request of a body to a member's path;
// timeout_ms 0: no limit.
void prepare(Client* c, Exchange* e, size_t member, const char* path, std::string body,
             long timeout_ms) {
    e->member = member;
    e->path = path;
    e->body = std::move(body);
    e->token = c->token;
    e->timeout_ms = timeout_ms;
    e->sink = nullptr;
    e->sink_context = nullptr;
}

void stop_all(Client* c) {
    for (auto& e : c->requests) c->transport->stop(e.get());
    c->transport->stop(c->watch.get());
}

// The text etcd gives with a failure: its "error" field, else the body.
std::string etcd_text(const std::string& body) {
    size_t at = body.find("\"error\":\"");
    if (at == std::string::npos) return body.substr(0, 200);
    at += 9;
    return body.substr(at, body.find('"', at) - at);
}

// One request, asked of the members in turn from the current one, until one
// answers below 5xx or the time runs out (see post() in the interface).
// A member that refused or answered 5xx may be asked again 0.1 s later,
// while some member is there but cannot answer yet (an election is under
// way, or a member hangs); a read keeps waiting on a member it asked while
// it asks the others. When every member refuses the connection, the call
// fails at once.
int exchange(Client* c, const char* path, const std::string& body, long timeout_ms, bool read,
             long* http, std::string* out, std::string* why) {
    using std::chrono::milliseconds;
    Clock::time_point deadline = Clock::now() + milliseconds(timeout_ms);
    size_t n = c->size();
    // A write waits a fair share of the time, at least a second, for one
    // member, so that one that hangs does not use up the time of the others.
    long share = timeout_ms / static_cast<long>(n);
    if (share < 1000) share = 1000;
    // When each member may be asked (again).
    std::vector<Clock::time_point> ready(n, Clock::now());
    size_t cursor = c->current;  // where the search for the next member begins
    Clock::time_point last_start = Clock::now();
    bool alive = false;  // some member was there: it answered 5xx, or was slow
    bool failed = true;  // one just failed (or none was asked yet): ask the next at once
    int status = HGX_ETCD_UNREACHABLE;
    std::vector<Exchange*> done;
    auto running = [&] {
        size_t k = 0;
        for (auto& e : c->requests) k += e->busy;
        return k;
    };
    while (true) {
        Clock::time_point now = Clock::now();
        if (now >= deadline) {
            stop_all(c);
            why->clear();
            return HGX_ETCD_TIMEOUT;
        }
        size_t busy = running();
        if (busy == 0 || failed || (read && since_ms(last_start) >= HEDGE_MS)) {
            for (size_t k = 0; k < n; ++k) {
                Exchange* e = c->requests[(cursor + k) % n].get();
                if (e->busy || now < ready[e->member]) continue;
                prepare(c, e, e->member, path, body, until_ms(deadline));
                c->transport->start(e);
                last_start = e->started;
                cursor = e->member + 1;
                ++busy;
                break;
            }
        }
        failed = false;
        // The next moment something is due: a member ready again, the next
        // read to send beside those under way, a write's share.
        Clock::time_point due = deadline;
        bool idle_ready = false;  // a member not asked yet may be asked now
        for (auto& e : c->requests) {
            if (e->busy) continue;
            if (ready[e->member] > now)
                due = std::min(due, ready[e->member]);
            else
                idle_ready = true;
        }
        if (busy == 0) {
            if (!alive || until_ms(deadline) < 200) {
                if (status == HGX_ETCD_TIMEOUT) why->clear();
                return status;
            }
            std::this_thread::sleep_for(milliseconds(std::max(until_ms(due), 1L)));
            continue;
        }
        // (A member that is not ready yet is due when it is.)
        if (read && idle_ready) due = std::min(due, last_start + milliseconds(HEDGE_MS));
        if (!read) due = std::min(due, last_start + milliseconds(share));
        c->transport->pump(std::max(until_ms(due), 0L), &done);
        now = Clock::now();
        for (Exchange* e : done) {
            failed = true;
            ready[e->member] = now + milliseconds(100);
            if (e->status == HGX_ETCD_OK) {
                *http = e->http;
                if (*http < 500) {
                    stop_all(c);
                    c->current = e->member;
                    *out = std::move(e->response);
                    return HGX_ETCD_OK;
                }
                // A member without a leader (an election under way) says so.
                alive = true;
                *why = c->member(e->member) + ": HTTP " + std::to_string(*http) + ": " +
                       etcd_text(e->response);
                continue;
            }
            if (e->status == HGX_ETCD_NO_MEMORY || e->status == HGX_ETCD_TLS) {
                *why = e->detail;
                stop_all(c);
                return e->status;
            }
            if (e->status == HGX_ETCD_TIMEOUT) {
                alive = true;
                status = HGX_ETCD_TIMEOUT;
            } else {
                *why = e->detail;
            }
        }
        if (!read && running() && since_ms(last_start) >= share) {
            // A write that one member has left unanswered goes to the next.
            stop_all(c);
            alive = failed = true;
            status = HGX_ETCD_TIMEOUT;
        }
    }
}

// Keeps the client's token (empty: none needed) for the next client of the
// same user and members.
void keep_token(const Client* c) {
    Tokens& t = tokens();
    std::lock_guard<std::mutex> hold(t.lock);
    std::string key = c->token_key();
    for (auto& [k, v] : t.by_key)
        if (k == key) {
            v = c->token;
            return;
        }
    t.by_key.emplace_back(std::move(key), c->token);
}

// Whether this process took a token for the client's user before, and
// which (empty: none was needed).
bool known_token(const Client* c, std::string* token) {
    Tokens& t = tokens();
    std::lock_guard<std::mutex> hold(t.lock);
    std::string key = c->token_key();
    for (const auto& [k, v] : t.by_key)
        if (k == key) {
            *token = v;
            return true;
        }
    return false;
}

// Takes a token for the user; HGX_ETCD_OK, or the failure.
int authenticate(Client* c, long timeout_ms, std::string* why) {
    c->token.clear();
    std::string body = "{\"name\":\"";
    // The gateway reads JSON: the two texts are escaped for a JSON string.
    auto add = [&](const std::string& s) {
        for (unsigned char ch : s) {
            if (ch == '"' || ch == '\\') {
                body += '\\';
                body += static_cast<char>(ch);
            } else if (ch < 0x20) {
                char esc[8];
                std::snprintf(esc, sizeof esc, "\\u%04x", ch);
                body += esc;
            } else {
                body += static_cast<char>(ch);
            }
        }
    };
    add(c->user);
    body += "\",\"password\":\"";
    add(c->password);
    body += "\"}";
    long http = 0;
    std::string out;
    int s = exchange(c, "/v3/auth/authenticate", body, timeout_ms, true, &http, &out, why);
    if (s != HGX_ETCD_OK) return s;
    // {"header":{...},"token":"..."}; a token is printable and holds no
    // quote, so that it goes into a header as it is.
    size_t at = out.find("\"token\":\"");
    size_t end = at == std::string::npos ? at : out.find('"', at + 9);
    if (http != 200 || end == std::string::npos) {
        // A cluster that does not authenticate serves everyone.
        if (out.find("authentication is not enabled") != std::string::npos) {
            keep_token(c);
            return HGX_ETCD_OK;
        }
        why->clear();
        return HGX_ETCD_CREDENTIALS;
    }
    std::string token = out.substr(at + 9, end - at - 9);
    if (token.empty() || !std::all_of(token.begin(), token.end(), [](char ch) {
            return ch > 0x20 && ch < 0x7f && ch != '\\';
        })) {
        *why = "etcd's token is not a token";
        return HGX_ETCD_CREDENTIALS;
    }
    c->token = std::move(token);
    keep_token(c);
    return HGX_ETCD_OK;
}

bool token_refused(long http, const std::string& body) {
    return http >= 400 && (body.find("invalid auth token") != std::string::npos ||
                           body.find("user name is empty") != std::string::npos);
}

void* client_open(const hgx_etcd_options* o, int* status, char* error, size_t size) {
    *status = HGX_ETCD_NO_MEMORY;
    try {
        auto c = std::make_unique<Client>();
        Settings& s = c->settings;
        s.tls = o->tls != 0;
        std::string list = o->endpoints ? o->endpoints : "";
        size_t start = 0;
        while (start <= list.size()) {
            size_t comma = list.find(',', start);
            std::string one =
                list.substr(start, comma == std::string::npos ? comma : comma - start);
            if (!one.empty()) s.members.push_back(one);
            if (comma == std::string::npos) break;
            start = comma + 1;
        }
        if (s.members.empty()) {
            *status = HGX_ETCD_UNREACHABLE;
            say(error, size, "no endpoint named");
            return nullptr;
        }
        if (s.tls) {
            if (o->cacert) s.cacert = o->cacert;
            if (o->cert) s.cert = o->cert;
            if (o->key) s.key = o->key;
        }
        std::string why;
        c->transport = make_transport(s, status, &why);
        if (!c->transport) {
            say(error, size, why);
            return nullptr;
        }
        c->watch = c->transport->exchange();
        for (size_t m = 0; m < s.members.size(); ++m) {
            c->requests.push_back(c->transport->exchange());
            c->requests.back()->member = m;
        }
        if (o->user && o->password) {
            c->user = o->user;
            c->password = o->password;
            if (!known_token(c.get(), &c->token)) {
                *status = authenticate(c.get(), 5000, &why);
                if (*status != HGX_ETCD_OK) {
                    say(error, size, why);
                    return nullptr;
                }
            }
        }
        *status = HGX_ETCD_OK;
        return c.release();
    } catch (const std::bad_alloc&) {
        say(error, size, "out of memory");
        return nullptr;
    }
}

void client_close(void* c) { delete static_cast<Client*>(c); }

int client_post(void* handle, const char* path, const char* body, size_t size, long timeout_ms,
                int flags, hgx_etcd_reply* reply, char* error, size_t error_size) {
    try {
        Client* c = static_cast<Client*>(handle);
        Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
        bool read = (flags & HGX_ETCD_READ) != 0;
        std::string request(body, size), out, why;
        long http = 0;
        int s = exchange(c, path, request, timeout_ms, read, &http, &out, &why);
        // A token lapses after a while; one new one is worth a try.
        if (s == HGX_ETCD_OK && !c->user.empty() && token_refused(http, out)) {
            s = authenticate(c, until_ms(deadline), &why);
            if (s == HGX_ETCD_OK)
                s = exchange(c, path, request, until_ms(deadline), read, &http, &out, &why);
        }
        if (s != HGX_ETCD_OK) {
            say(error, error_size, why);
            return s;
        }
        char* copy = static_cast<char*>(std::malloc(out.size() + 1));
        if (!copy) return HGX_ETCD_NO_MEMORY;
        std::memcpy(copy, out.data(), out.size());
        copy[out.size()] = '\0';
        reply->http_status = http;
        reply->body = copy;
        reply->size = out.size();
        return HGX_ETCD_OK;
    } catch (const std::bad_alloc&) {
        say(error, error_size, "out of memory");
        return HGX_ETCD_NO_MEMORY;
    }
}

void client_release(hgx_etcd_reply* reply) {
    if (!reply) return;
    std::free(reply->body);
    reply->body = nullptr;
    reply->size = 0;
}

struct StreamState {
    const hgx_etcd_stream* request;
    Clock::time_point heard;  // when the member was last heard of
};

int stream_data(void* p, const char* data, size_t size) {
    StreamState* s = static_cast<StreamState*>(p);
    if (!s->request->on_data(s->request->context, data, size)) return 0;
    // After the caller's work on the data, however long that took.
    s->heard = Clock::now();
    return 1;
}

int client_stream(void* handle, const hgx_etcd_stream* request, char* error, size_t error_size) {
    Client* c = static_cast<Client*>(handle);
    size_t m = c->current;
    try {
        StreamState s{request, Clock::now()};
        Exchange* w = c->watch.get();
        Exchange* probe = c->requests[m].get();
        prepare(c, w, m, request->path, std::string(request->body, request->size), 0);
        w->sink = stream_data;
        w->sink_context = &s;
        c->transport->start(w);
        int status = HGX_ETCD_OK;
        std::string why;
        std::vector<Exchange*> done;
        bool ended = false;
        while (!ended) {
            c->transport->pump(200, &done);
            for (Exchange* e : done) {
                if (e == w) {
                    if (w->status == HGX_ETCD_STOPPED) {
                        stop_all(c);
                        return HGX_ETCD_STOPPED;
                    }
                    ended = true;
                    if (w->status == HGX_ETCD_OK) {
                        why = c->member(m) + ": the member ended the stream";
                    } else {
                        status = w->status;
                        why = w->detail;
                    }
                    continue;
                }
                if (e->status == HGX_ETCD_OK && e->http < 500) {
                    s.heard = Clock::now();
                    if (request->on_alive) request->on_alive(request->context);
                } else if (s.heard < probe->started && !ended) {
                    // Nothing from the member since the probe went out.
                    ended = true;
                    status = HGX_ETCD_TIMEOUT;
                    why = c->member(m) + ": the member does not answer";
                }
            }
            if (ended) break;
            if (!request->keep_going(request->context)) {
                stop_all(c);
                return HGX_ETCD_STOPPED;
            }
            if (!probe->busy && since_ms(s.heard) >= request->idle_ms) {
                prepare(c, probe, m, request->probe_path,
                        std::string(request->probe_body, request->probe_size), request->idle_ms);
                c->transport->start(probe);
            }
        }
        stop_all(c);
        c->current = (m + 1) % c->size();
        say(error, error_size, why);
        return status;
    } catch (const std::bad_alloc&) {
        stop_all(c);
        say(error, error_size, "out of memory");
        return HGX_ETCD_NO_MEMORY;
    }
}

const hgx_etcd_client_api API = {
    HGX_ETCD_CLIENT_ABI, client_open, client_close, client_post, client_release, client_stream,
};

}  // namespace

}  // namespace hgx_client

extern "C" __attribute__((visibility("default"))) const hgx_etcd_client_api* hgx_etcd_client(void) {
    return &hgx_client::API;
}
