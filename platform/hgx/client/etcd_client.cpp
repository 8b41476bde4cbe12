// hgx-etcd.so: the network client of libhgx's etcd store, over libcurl.
//
// One client keeps one curl multi handle, one transfer per member (so that
// the connection to a member is reused from call to call) and one for a
// stream, and the index of the member that answered last. Requests run on
// the multi handle, so that a read can be asked of a second member while
// the first is silent, and a stream can be watched over while it is quiet.
// Nothing here throws: the interface is C, and every allocation failure
// becomes HGX_ETCD_NO_MEMORY.
#include <curl/curl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
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

namespace {

using Clock = std::chrono::steady_clock;

// How long the members asked for a read may be silent before the next one
// is asked too. An answer from a live member takes milliseconds; a member
// that hangs costs a reader this much once, not its whole budget.
constexpr long HEDGE_MS = 300;
// Time to make a connection, within a call's own time.
constexpr long CONNECT_MS = 1000;

long since_ms(Clock::time_point t) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

long until_ms(Clock::time_point t) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(t - Clock::now()).count());
}

// One request to one member: a curl easy handle, the texts it reads and
// fills, and curl's words on its failure.
struct Transfer {
    CURL* curl = nullptr;
    curl_slist* headers = nullptr;
    size_t member = 0;
    bool busy = false;  // on the multi handle
    Clock::time_point started;
    std::string request;
    std::string response;
    char detail[CURL_ERROR_SIZE] = "";

    Transfer() = default;
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer() {
        curl_slist_free_all(headers);
        if (curl) curl_easy_cleanup(curl);
    }
};

struct Client {
    std::vector<std::string> members;  // "host:port"
    size_t current = 0;                // the member asked first
    bool tls = false;
    std::string cacert, cert, key, user, password;
    std::string token;  // etcd's authentication token, once authenticated
    CURLM* multi = nullptr;
    std::vector<std::unique_ptr<Transfer>> requests;  // one per member
    Transfer watch;                                   // a stream's

    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() {
        for (auto& t : requests)
            if (t->busy) curl_multi_remove_handle(multi, t->curl);
        if (watch.busy) curl_multi_remove_handle(multi, watch.curl);
        requests.clear();
        if (multi) curl_multi_cleanup(multi);
    }
};

void say(char* error, size_t size, const std::string& text) {
    if (size) std::snprintf(error, size, "%s", text.c_str());
}

size_t collect(char* data, size_t one, size_t n, void* out) {
    try {
        static_cast<std::string*>(out)->append(data, one * n);
        return one * n;
    } catch (...) {
        return 0;  // curl ends the transfer with a write error
    }
}

// Sets up a transfer of a body to a member's path; timeout_ms 0: no limit.
void prepare(Client* c, Transfer* t, size_t member, const char* path, std::string body,
             long timeout_ms) {
    CURL* h = t->curl;
    curl_easy_reset(h);
    t->member = member;
    t->request = std::move(body);
    t->response.clear();
    t->detail[0] = '\0';
    std::string url = (c->tls ? "https://" : "http://") + c->members[member] + path;
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_PRIVATE, t);
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, t->request.data());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t->request.size()));
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &t->response);
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, t->detail);
    curl_easy_setopt(h, CURLOPT_PROXY, "");  // a cluster is reached directly
    curl_easy_setopt(h, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(h, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(h, CURLOPT_TCP_KEEPIDLE, 5L);
    curl_easy_setopt(h, CURLOPT_TCP_KEEPINTVL, 5L);
    long connect_ms = timeout_ms > 0 && timeout_ms < CONNECT_MS ? timeout_ms : CONNECT_MS;
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, connect_ms);
    if (timeout_ms > 0) curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, timeout_ms);
    if (c->tls) {
        if (!c->cacert.empty()) curl_easy_setopt(h, CURLOPT_CAINFO, c->cacert.c_str());
        if (!c->cert.empty()) curl_easy_setopt(h, CURLOPT_SSLCERT, c->cert.c_str());
        if (!c->key.empty()) curl_easy_setopt(h, CURLOPT_SSLKEY, c->key.c_str());
    }
    curl_slist_free_all(t->headers);
    t->headers = curl_slist_append(nullptr, "Content-Type: application/json");
    if (!c->token.empty())
        t->headers = curl_slist_append(t->headers, ("Authorization: " + c->token).c_str());
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, t->headers);
}

void start(Client* c, Transfer* t) {
    t->started = Clock::now();
    t->busy = curl_multi_add_handle(c->multi, t->curl) == CURLM_OK;
}

void stop(Client* c, Transfer* t) {
    if (t->busy) curl_multi_remove_handle(c->multi, t->curl);
    t->busy = false;
}

void stop_all(Client* c) {
    for (auto& t : c->requests) stop(c, t.get());
    stop(c, &c->watch);
}

struct Done {
    Transfer* transfer;
    CURLcode result;
};

// Drives the transfers under way, waiting up to wait_ms for one to finish;
// *done receives those that did.
void pump(Client* c, long wait_ms, std::vector<Done>* done) {
    done->clear();
    auto harvest = [&] {
        int running = 0, left = 0;
        curl_multi_perform(c->multi, &running);
        while (CURLMsg* m = curl_multi_info_read(c->multi, &left)) {
            if (m->msg != CURLMSG_DONE) continue;
            Transfer* t = nullptr;
            curl_easy_getinfo(m->easy_handle, CURLINFO_PRIVATE, reinterpret_cast<char**>(&t));
            if (t) done->push_back({t, m->data.result});
        }
    };
    harvest();
    if (!done->empty() || wait_ms <= 0) return;
    curl_multi_poll(c->multi, nullptr, 0, static_cast<int>(wait_ms), nullptr);
    harvest();
}

// With TLS 1.3 a member that refuses the client's certificate does so after
// the handshake: the connection is dropped before any answer, and curl's
// words for it vary. A handshake that completed and then got no answer is
// that.
bool certificate_refused(const Client* c, const Transfer* t, CURLcode rc) {
    if (!c->tls || (rc != CURLE_RECV_ERROR && rc != CURLE_SEND_ERROR && rc != CURLE_GOT_NOTHING))
        return false;
    curl_off_t handshake = 0;
    curl_easy_getinfo(t->curl, CURLINFO_APPCONNECT_TIME_T, &handshake);
    return handshake > 0 || std::strstr(t->detail, "alert");
}

// Status of a failed transfer: whether the next member may do better.
int classify(const Client* c, const Transfer* t, CURLcode rc) {
    if (certificate_refused(c, t, rc)) return HGX_ETCD_TLS;
    switch (rc) {
        case CURLE_OPERATION_TIMEDOUT:
            return HGX_ETCD_TIMEOUT;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
            return HGX_ETCD_TLS;
        case CURLE_OUT_OF_MEMORY:
            return HGX_ETCD_NO_MEMORY;
        default:
            return HGX_ETCD_UNREACHABLE;
    }
}

std::string cacert_named(const Client* c) {
    return c->cacert.empty() ? "the system's CA certificates" : "HGX_ETCD_CACERT " + c->cacert;
}

// What failed in a TLS failure, in our words: the file, the verification or
// the host name.
std::string tls_failure(const Client* c, const Transfer* t, CURLcode rc) {
    const std::string& m = c->members[t->member];
    std::string detail = t->detail;
    if (certificate_refused(c, t, rc))
        return m + ": the member refused the client certificate" +
               (c->cert.empty() ? " (none is named by HGX_ETCD_CERT)"
                                : " HGX_ETCD_CERT " + c->cert);
    switch (rc) {
        case CURLE_SSL_CACERT_BADFILE:
            return cacert_named(c) + ": not a CA certificate in PEM form";
        case CURLE_SSL_CERTPROBLEM:
            return "HGX_ETCD_CERT " + c->cert + " and HGX_ETCD_KEY " + c->key +
                   ": not a client certificate and its key in PEM form";
        case CURLE_PEER_FAILED_VERIFICATION:
            if (detail.find("host name") != std::string::npos ||
                detail.find("subject name") != std::string::npos)
                return m + ": the member's certificate does not name the host " +
                       m.substr(0, m.rfind(':'));
            break;
        default:
            if (detail.find("wrong version number") != std::string::npos)
                return m + ": the member does not speak TLS";
            return m + ": the TLS handshake failed";
    }
    // The certificate verification's own reason, as OpenSSL gives it.
    const char* problem = "certificate problem: ";
    size_t at = detail.find(problem);
    std::string reason = at == std::string::npos ? "" : ": " + detail.substr(at + strlen(problem));
    return m + ": the member's certificate was not verified with " + cacert_named(c) + reason;
}

// A failed transfer in our words: the member and why.
std::string failure(const Client* c, const Transfer* t, CURLcode rc, int status) {
    if (status == HGX_ETCD_TLS) return tls_failure(c, t, rc);
    const std::string& m = c->members[t->member];
    switch (rc) {
        case CURLE_COULDNT_CONNECT: {
            long os = 0;
            curl_easy_getinfo(t->curl, CURLINFO_OS_ERRNO, &os);
            return m + ": " + (os ? std::strerror(static_cast<int>(os)) : "cannot connect");
        }
        case CURLE_COULDNT_RESOLVE_HOST:
            return m + ": no such host";
        case CURLE_OUT_OF_MEMORY:
            return "out of memory";
        default:
            return m + ": the connection broke";
    }
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
    size_t n = c->members.size();
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
    std::vector<Done> done;
    auto running = [&] {
        size_t k = 0;
        for (auto& t : c->requests) k += t->busy;
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
                Transfer* t = c->requests[(cursor + k) % n].get();
                if (t->busy || now < ready[t->member]) continue;
                prepare(c, t, t->member, path, body, until_ms(deadline));
                start(c, t);
                last_start = t->started;
                cursor = t->member + 1;
                ++busy;
                break;
            }
        }
        failed = false;
        // The next moment something is due: a member ready again, the next
        // read to send beside those under way, a write's share.
        Clock::time_point due = deadline;
        for (auto& t : c->requests)
            if (!t->busy && ready[t->member] > now) due = std::min(due, ready[t->member]);
        if (busy == 0) {
            if (!alive || until_ms(deadline) < 200) {
                if (status == HGX_ETCD_TIMEOUT) why->clear();
                return status;
            }
            std::this_thread::sleep_for(milliseconds(std::max(until_ms(due), 1L)));
            continue;
        }
        if (read && busy < n) due = std::min(due, last_start + milliseconds(HEDGE_MS));
        if (!read) due = std::min(due, last_start + milliseconds(share));
        pump(c, until_ms(due), &done);
        now = Clock::now();
        for (const Done& d : done) {
            Transfer* t = d.transfer;
            stop(c, t);
            failed = true;
            ready[t->member] = now + milliseconds(100);
            if (d.result == CURLE_OK) {
                curl_easy_getinfo(t->curl, CURLINFO_RESPONSE_CODE, http);
                if (*http < 500) {
                    stop_all(c);
                    c->current = t->member;
                    *out = std::move(t->response);
                    return HGX_ETCD_OK;
                }
                // A member without a leader (an election under way) says so.
                alive = true;
                *why = c->members[t->member] + ": HTTP " + std::to_string(*http) + ": " +
                       etcd_text(t->response);
                continue;
            }
            int s = classify(c, t, d.result);
            if (s == HGX_ETCD_NO_MEMORY || s == HGX_ETCD_TLS) {
                *why = failure(c, t, d.result, s);
                stop_all(c);
                return s;
            }
            if (s == HGX_ETCD_TIMEOUT) {
                alive = true;
                status = HGX_ETCD_TIMEOUT;
            } else {
                *why = failure(c, t, d.result, s);
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
    // {"header":{...},"token":"..."}; the token holds no quote.
    size_t at = out.find("\"token\":\"");
    if (http != 200 || at == std::string::npos) {
        // A cluster that does not authenticate serves everyone.
        if (out.find("authentication is not enabled") != std::string::npos) return HGX_ETCD_OK;
        why->clear();
        return HGX_ETCD_CREDENTIALS;
    }
    at += 9;
    size_t end = out.find('"', at);
    c->token = out.substr(at, end == std::string::npos ? std::string::npos : end - at);
    return HGX_ETCD_OK;
}

bool token_refused(long http, const std::string& body) {
    return http >= 400 && (body.find("invalid auth token") != std::string::npos ||
                           body.find("user name is empty") != std::string::npos);
}

// A TLS file that cannot be read is named before anything is sent.
bool readable(const std::string& file, const char* variable, std::string* why) {
    if (file.empty() || access(file.c_str(), R_OK) == 0) return true;
    *why = std::string(variable) + " " + file + ": " + std::strerror(errno);
    return false;
}

std::once_flag curl_ready;

void* client_open(const hgx_etcd_options* o, int* status, char* error, size_t size) {
    *status = HGX_ETCD_NO_MEMORY;
    try {
        std::call_once(curl_ready, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
        auto c = std::make_unique<Client>();
        c->tls = o->tls != 0;
        std::string list = o->endpoints ? o->endpoints : "";
        size_t start = 0;
        while (start <= list.size()) {
            size_t comma = list.find(',', start);
            std::string one =
                list.substr(start, comma == std::string::npos ? comma : comma - start);
            if (!one.empty()) c->members.push_back(one);
            if (comma == std::string::npos) break;
            start = comma + 1;
        }
        if (c->members.empty()) {
            *status = HGX_ETCD_UNREACHABLE;
            say(error, size, "no endpoint named");
            return nullptr;
        }
        if (c->tls) {
            if (o->cacert) c->cacert = o->cacert;
            if (o->cert) c->cert = o->cert;
            if (o->key) c->key = o->key;
            std::string why;
            if (!readable(c->cacert, "HGX_ETCD_CACERT", &why) ||
                !readable(c->cert, "HGX_ETCD_CERT", &why) ||
                !readable(c->key, "HGX_ETCD_KEY", &why)) {
                *status = HGX_ETCD_TLS;
                say(error, size, why);
                return nullptr;
            }
        }
        c->multi = curl_multi_init();
        bool made = c->multi && (c->watch.curl = curl_easy_init());
        for (size_t m = 0; made && m < c->members.size(); ++m) {
            c->requests.push_back(std::make_unique<Transfer>());
            c->requests.back()->member = m;
            made = (c->requests.back()->curl = curl_easy_init()) != nullptr;
        }
        if (!made) {
            say(error, size, "out of memory");
            return nullptr;
        }
        if (o->user && o->password) {
            c->user = o->user;
            c->password = o->password;
            std::string why;
            *status = authenticate(c.get(), 5000, &why);
            if (*status != HGX_ETCD_OK) {
                say(error, size, why);
                return nullptr;
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
    bool stopped = false;
};

size_t stream_data(char* data, size_t one, size_t n, void* p) {
    StreamState* s = static_cast<StreamState*>(p);
    if (!s->request->on_data(s->request->context, data, one * n)) {
        s->stopped = true;
        return 0;
    }
    // After the caller's work on the data, however long that took.
    s->heard = Clock::now();
    return one * n;
}

int client_stream(void* handle, const hgx_etcd_stream* request, char* error, size_t error_size) {
    Client* c = static_cast<Client*>(handle);
    size_t m = c->current;
    try {
        StreamState s{request, Clock::now()};
        Transfer* w = &c->watch;
        Transfer* probe = c->requests[m].get();
        prepare(c, w, m, request->path, std::string(request->body, request->size), 0);
        curl_easy_setopt(w->curl, CURLOPT_WRITEFUNCTION, stream_data);
        curl_easy_setopt(w->curl, CURLOPT_WRITEDATA, &s);
        start(c, w);
        int status = HGX_ETCD_OK;
        std::string why;
        std::vector<Done> done;
        bool ended = false;
        while (!ended) {
            pump(c, 200, &done);
            for (const Done& d : done) {
                if (d.transfer == w) {
                    stop(c, w);
                    if (s.stopped) {
                        stop_all(c);
                        return HGX_ETCD_STOPPED;
                    }
                    ended = true;
                    if (d.result == CURLE_OK) {
                        why = c->members[m] + ": the member ended the stream";
                    } else {
                        status = classify(c, w, d.result);
                        why = failure(c, w, d.result, status);
                    }
                    continue;
                }
                stop(c, probe);
                long http = 0;
                if (d.result == CURLE_OK)
                    curl_easy_getinfo(probe->curl, CURLINFO_RESPONSE_CODE, &http);
                if (d.result == CURLE_OK && http < 500) {
                    s.heard = Clock::now();
                    if (request->on_alive) request->on_alive(request->context);
                } else if (s.heard < probe->started && !ended) {
                    // Nothing from the member since the probe went out.
                    ended = true;
                    status = HGX_ETCD_TIMEOUT;
                    why = c->members[m] + ": the member does not answer";
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
                start(c, probe);
            }
        }
        stop_all(c);
        c->current = (m + 1) % c->members.size();
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

extern "C" __attribute__((visibility("default"))) const hgx_etcd_client_api* hgx_etcd_client(void) {
    return &API;
}
