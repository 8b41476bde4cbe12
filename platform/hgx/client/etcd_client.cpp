// hgx-etcd.so: the network client of libhgx's etcd store, over libcurl.
//
// One client keeps one curl handle, so that its connection to a member is
// reused from call to call (keep-alive), and the index of the member that
// answered last. Nothing here throws: the interface is C, and every
// allocation failure becomes HGX_ETCD_NO_MEMORY.
#include <curl/curl.h>

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

// A curl easy handle and its header list, released together.
struct Easy {
    CURL* curl = nullptr;
    curl_slist* headers = nullptr;
    ~Easy() {
        curl_slist_free_all(headers);
        if (curl) curl_easy_cleanup(curl);
    }
};

struct Client {
    std::vector<std::string> members;  // base URLs, "http://host:port"
    size_t current = 0;                // the member tried first
    bool tls = false;
    std::string cacert, cert, key, user, password;
    std::string token;  // etcd's authentication token, once authenticated
    Easy easy;
    char detail[CURL_ERROR_SIZE] = "";  // curl's own words for the last failure
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

// Status of a failed transfer: whether the next member may do better. With
// TLS 1.3 a member that refuses the client's certificate does so after the
// handshake: the connection is dropped before any answer, and curl's words
// for it vary. A handshake that completed and then got no answer is that.
int classify(const Client* c, CURLcode rc) {
    if (c->tls && (rc == CURLE_RECV_ERROR || rc == CURLE_SEND_ERROR || rc == CURLE_GOT_NOTHING)) {
        curl_off_t handshake = 0;
        curl_easy_getinfo(c->easy.curl, CURLINFO_APPCONNECT_TIME_T, &handshake);
        if (handshake > 0 || std::strstr(c->detail, "alert")) return HGX_ETCD_TLS;
    }
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

// Sets up the client's handle for one request to one member.
void prepare(Client* c, const std::string& url, const std::string& body, std::string* out,
             long timeout_ms) {
    CURL* h = c->easy.curl;
    curl_easy_reset(h);
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, out);
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    c->detail[0] = '\0';
    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, c->detail);
    curl_easy_setopt(h, CURLOPT_PROXY, "");  // a cluster is reached directly
    curl_easy_setopt(h, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(h, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(h, CURLOPT_TCP_KEEPIDLE, 5L);
    curl_easy_setopt(h, CURLOPT_TCP_KEEPINTVL, 5L);
    long connect_ms = timeout_ms < 1000 ? timeout_ms : 1000;
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, connect_ms > 0 ? connect_ms : 1L);
    if (timeout_ms > 0) curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, timeout_ms);
    if (c->tls) {
        if (!c->cacert.empty()) curl_easy_setopt(h, CURLOPT_CAINFO, c->cacert.c_str());
        if (!c->cert.empty()) curl_easy_setopt(h, CURLOPT_SSLCERT, c->cert.c_str());
        if (!c->key.empty()) curl_easy_setopt(h, CURLOPT_SSLKEY, c->key.c_str());
    }
    curl_slist_free_all(c->easy.headers);
    c->easy.headers = curl_slist_append(nullptr, "Content-Type: application/json");
    if (!c->token.empty())
        c->easy.headers =
            curl_slist_append(c->easy.headers, ("Authorization: " + c->token).c_str());
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, c->easy.headers);
}

long remaining_ms(Clock::time_point deadline) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
}

// One pass over the members from the current one: HGX_ETCD_OK when one
// answered below 5xx; else the failure, and *alive tells whether any member
// was there at all (answered 5xx or hung) rather than refusing.
int one_pass(Client* c, const std::string& path, const std::string& body,
             Clock::time_point deadline, long share, long* http, std::string* out, std::string* why,
             bool* alive) {
    int status = HGX_ETCD_UNREACHABLE;
    size_t n = c->members.size();
    for (size_t tried = 0; tried < n; ++tried) {
        long left = remaining_ms(deadline);
        if (left <= 0) return HGX_ETCD_TIMEOUT;
        size_t m = (c->current + tried) % n;
        out->clear();
        prepare(c, c->members[m] + path, body, out, left < share ? left : share);
        CURLcode rc = curl_easy_perform(c->easy.curl);
        if (rc == CURLE_OK) {
            curl_easy_getinfo(c->easy.curl, CURLINFO_RESPONSE_CODE, http);
            if (*http < 500) {
                c->current = m;
                return HGX_ETCD_OK;
            }
            // A member without a leader (an election under way) says so.
            *alive = true;
            *why = c->members[m] + ": HTTP " + std::to_string(*http) + ": " + *out;
            continue;
        }
        int s = classify(c, rc);
        *why = c->members[m] + ": " + (c->detail[0] ? c->detail : curl_easy_strerror(rc));
        if (s == HGX_ETCD_NO_MEMORY || s == HGX_ETCD_TLS) return s;
        // A timeout anywhere makes the whole call one that timed out,
        // rather than one that found nobody.
        if (s == HGX_ETCD_TIMEOUT) *alive = true;
        if (s == HGX_ETCD_TIMEOUT || status == HGX_ETCD_TIMEOUT) status = HGX_ETCD_TIMEOUT;
    }
    return status;
}

// One request, trying the members in turn from the current one until one
// answers with less than 5xx or the time runs out. While some member is
// there but cannot answer yet (the cluster is electing a new leader), the
// members are tried again after a short pause; when every member refuses
// the connection, the call fails at once.
int post_to_members(Client* c, const std::string& path, const std::string& body, long timeout_ms,
                    long* http, std::string* out, std::string* why) {
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    // Each member gets a fair share of the time, and at least a second, so
    // that one that hangs does not use up the time of those behind it.
    long share = timeout_ms / static_cast<long>(c->members.size());
    if (share < 1000) share = 1000;
    while (true) {
        bool alive = false;
        int status = one_pass(c, path, body, deadline, share, http, out, why, &alive);
        if (status == HGX_ETCD_OK || status == HGX_ETCD_NO_MEMORY || status == HGX_ETCD_TLS ||
            !alive || remaining_ms(deadline) < 200)
            return status;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
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
    int s = post_to_members(c, "/v3/auth/authenticate", body, timeout_ms, &http, &out, why);
    if (s != HGX_ETCD_OK) return s;
    // {"header":{...},"token":"..."}; the token holds no quote.
    size_t at = out.find("\"token\":\"");
    if (http != 200 || at == std::string::npos) {
        *why = "authentication refused: " + out;
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
            if (!one.empty()) c->members.push_back((c->tls ? "https://" : "http://") + one);
            if (comma == std::string::npos) break;
            start = comma + 1;
        }
        if (c->members.empty()) {
            *status = HGX_ETCD_UNREACHABLE;
            say(error, size, "no endpoint named");
            return nullptr;
        }
        if (o->cacert) c->cacert = o->cacert;
        if (o->cert) c->cert = o->cert;
        if (o->key) c->key = o->key;
        c->easy.curl = curl_easy_init();
        if (!c->easy.curl) {
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
                hgx_etcd_reply* reply, char* error, size_t error_size) {
    try {
        Client* c = static_cast<Client*>(handle);
        Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
        std::string request(body, size), out, why;
        long http = 0;
        int s = post_to_members(c, path, request, timeout_ms, &http, &out, &why);
        // A token lapses after a while; one new one is worth a try.
        if (s == HGX_ETCD_OK && !c->user.empty() && token_refused(http, out)) {
            s = authenticate(c, remaining_ms(deadline), &why);
            if (s == HGX_ETCD_OK)
                s = post_to_members(c, path, request, remaining_ms(deadline), &http, &out, &why);
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

struct StreamContext {
    int (*on_data)(void*, const char*, size_t);
    int (*keep_going)(void*);
    void* context;
    bool stopped = false;
};

size_t stream_data(char* data, size_t one, size_t n, void* p) {
    StreamContext* s = static_cast<StreamContext*>(p);
    if (!s->on_data(s->context, data, one * n)) {
        s->stopped = true;
        return 0;
    }
    return one * n;
}

int stream_progress(void* p, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    StreamContext* s = static_cast<StreamContext*>(p);
    if (!s->keep_going(s->context)) {
        s->stopped = true;
        return 1;
    }
    return 0;
}

int client_stream(void* handle, const char* path, const char* body, size_t size,
                  int (*on_data)(void*, const char*, size_t), int (*keep_going)(void*),
                  void* context, char* error, size_t error_size) {
    try {
        Client* c = static_cast<Client*>(handle);
        std::string request(body, size), unused;
        StreamContext s{on_data, keep_going, context};
        const std::string& member = c->members[c->current];
        prepare(c, member + path, request, &unused, 0);
        CURL* h = c->easy.curl;
        curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, 0L);
        curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, 2000L);
        curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, stream_data);
        curl_easy_setopt(h, CURLOPT_WRITEDATA, &s);
        curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, stream_progress);
        curl_easy_setopt(h, CURLOPT_XFERINFODATA, &s);
        CURLcode rc = curl_easy_perform(h);
        if (s.stopped) return HGX_ETCD_STOPPED;
        if (rc == CURLE_OK) return HGX_ETCD_OK;
        say(error, error_size, member + ": " + (c->detail[0] ? c->detail : curl_easy_strerror(rc)));
        c->current = (c->current + 1) % c->members.size();
        return classify(c, rc) == HGX_ETCD_TLS ? HGX_ETCD_TLS : HGX_ETCD_UNREACHABLE;
    } catch (const std::bad_alloc&) {
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
