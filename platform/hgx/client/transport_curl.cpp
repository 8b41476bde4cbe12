// The transport of hgx-etcd-tls.so: HTTPS through libcurl, for etcds://.
// Exchanges are curl easy handles run on one multi handle. Connections
// live in the multi handle's cache; a transport hands its multi handle to
// the process's pool when it goes, so that the next client's requests reuse
// the connections (curl reuses one only for the same TLS settings).
#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>

#include "../hgx_etcd_client.h"
#include "transport.h"

namespace hgx_client {

namespace {

constexpr size_t IDLE_MULTIS = 4;  // multi handles kept; more are cleaned up

// The multi handles of the process that made them: a child made by fork
// forgets its copies unused (cleaning one up would end its parent's TLS
// sessions).
struct Pool {
    std::mutex lock;
    pid_t owner = getpid();
    std::vector<CURLM*> idle;

    void own() {
        if (owner == getpid()) return;
        idle.clear();
        owner = getpid();
    }
};

Pool& pool() {
    static Pool& p = *new Pool;  // never destroyed: other threads may still use it at exit
    return p;
}

CURLM* take_multi() {
    Pool& p = pool();
    std::lock_guard<std::mutex> hold(p.lock);
    p.own();
    if (p.idle.empty()) return curl_multi_init();
    CURLM* m = p.idle.back();
    p.idle.pop_back();
    return m;
}

void give_multi(CURLM* m) {
    Pool& p = pool();
    std::lock_guard<std::mutex> hold(p.lock);
    p.own();
    if (p.idle.size() < IDLE_MULTIS) {
        p.idle.push_back(m);
        return;
    }
    curl_multi_cleanup(m);
}

struct CurlExchange : Exchange {
    CURL* curl = nullptr;
    curl_slist* headers = nullptr;
    bool added = false;  // on the multi handle
    bool ended = false;  // failed to start: reported by the next pump
    char error[CURL_ERROR_SIZE] = "";

    CurlExchange() = default;
    CurlExchange(const CurlExchange&) = delete;
    CurlExchange& operator=(const CurlExchange&) = delete;
    ~CurlExchange() override {
        curl_slist_free_all(headers);
        if (curl) curl_easy_cleanup(curl);
    }
};

size_t collect(char* data, size_t one, size_t n, void* out) {
    try {
        static_cast<std::string*>(out)->append(data, one * n);
        return one * n;
    } catch (...) {
        return 0;  // curl ends the transfer with a write error
    }
}

size_t to_sink(char* data, size_t one, size_t n, void* context) {
    auto* e = static_cast<CurlExchange*>(context);
    return e->sink(e->sink_context, data, one * n) ? one * n : 0;
}

// A TLS file that cannot be read is named before anything is sent.
bool readable(const std::string& file, const char* variable, std::string* why) {
    if (file.empty() || access(file.c_str(), R_OK) == 0) return true;
    *why = std::string(variable) + " " + file + ": " + std::strerror(errno);
    return false;
}

class CurlTransport : public Transport {
  public:
    CurlTransport(Settings settings, CURLM* multi)
        : settings_(std::move(settings)), multi_(multi) {}
    ~CurlTransport() override {
        for (CurlExchange* e : added_) curl_multi_remove_handle(multi_, e->curl);
        give_multi(multi_);
    }

    std::unique_ptr<Exchange> exchange() override {
        auto e = std::make_unique<CurlExchange>();
        e->curl = curl_easy_init();
        if (!e->curl) throw std::bad_alloc();
        return e;
    }

    void start(Exchange* base) override {
        auto* e = static_cast<CurlExchange*>(base);
        prepare(e);
        e->busy = true;
        e->started = Clock::now();
        e->ended = curl_multi_add_handle(multi_, e->curl) != CURLM_OK;
        if (e->ended) {
            e->status = HGX_ETCD_NO_MEMORY;
            e->detail = "out of memory";
        } else {
            e->added = true;
            added_.push_back(e);
        }
        starting_.push_back(e);
    }

    void stop(Exchange* base) override {
        auto* e = static_cast<CurlExchange*>(base);
        remove(e);
        e->busy = false;
    }

    void pump(long wait_ms, std::vector<Exchange*>* done) override {
        done->clear();
        // Those that could not even start.
        for (CurlExchange* e : starting_)
            if (e->ended && e->busy) {
                e->busy = false;
                done->push_back(e);
            }
        starting_.clear();
        if (!done->empty()) return;
        harvest(done);
        if (!done->empty() || wait_ms <= 0) return;
        curl_multi_poll(multi_, nullptr, 0, static_cast<int>(wait_ms), nullptr);
        harvest(done);
    }

  private:
    void remove(CurlExchange* e) {
        if (!e->added) return;
        curl_multi_remove_handle(multi_, e->curl);
        e->added = false;
        added_.erase(std::find(added_.begin(), added_.end(), e));
    }

    void prepare(CurlExchange* e) {
        CURL* h = e->curl;
        curl_easy_reset(h);
        e->status = HGX_ETCD_OK;
        e->http = 0;
        e->response.clear();
        e->detail.clear();
        e->error[0] = '\0';
        e->ended = false;
        const Settings& s = settings_;
        std::string url = "https://" + s.members[e->member] + e->path;
        curl_easy_setopt(h, CURLOPT_URL, url.c_str());
        curl_easy_setopt(h, CURLOPT_PRIVATE, e);
        curl_easy_setopt(h, CURLOPT_POST, 1L);
        curl_easy_setopt(h, CURLOPT_POSTFIELDS, e->body.data());
        curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(e->body.size()));
        if (e->sink) {
            curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, to_sink);
            curl_easy_setopt(h, CURLOPT_WRITEDATA, e);
        } else {
            curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
            curl_easy_setopt(h, CURLOPT_WRITEDATA, &e->response);
        }
        curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(h, CURLOPT_ERRORBUFFER, e->error);
        curl_easy_setopt(h, CURLOPT_PROXY, "");  // a cluster is reached directly
        curl_easy_setopt(h, CURLOPT_TCP_NODELAY, 1L);
        curl_easy_setopt(h, CURLOPT_TCP_KEEPALIVE, 1L);
        curl_easy_setopt(h, CURLOPT_TCP_KEEPIDLE, 5L);
        curl_easy_setopt(h, CURLOPT_TCP_KEEPINTVL, 5L);
        long timeout_ms = e->timeout_ms;
        long connect_ms = timeout_ms > 0 && timeout_ms < CONNECT_MS ? timeout_ms : CONNECT_MS;
        curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, connect_ms);
        if (timeout_ms > 0) curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, timeout_ms);
        if (!s.cacert.empty()) curl_easy_setopt(h, CURLOPT_CAINFO, s.cacert.c_str());
        if (!s.cert.empty()) curl_easy_setopt(h, CURLOPT_SSLCERT, s.cert.c_str());
        if (!s.key.empty()) curl_easy_setopt(h, CURLOPT_SSLKEY, s.key.c_str());
        curl_slist_free_all(e->headers);
        e->headers = curl_slist_append(nullptr, "Content-Type: application/json");
        if (!e->token.empty())
            e->headers = curl_slist_append(e->headers, ("Authorization: " + e->token).c_str());
        curl_easy_setopt(h, CURLOPT_HTTPHEADER, e->headers);
    }

    void harvest(std::vector<Exchange*>* done) {
        int running = 0, left = 0;
        curl_multi_perform(multi_, &running);
        while (CURLMsg* m = curl_multi_info_read(multi_, &left)) {
            if (m->msg != CURLMSG_DONE) continue;
            CurlExchange* e = nullptr;
            curl_easy_getinfo(m->easy_handle, CURLINFO_PRIVATE, reinterpret_cast<char**>(&e));
            if (!e) continue;
            CURLcode rc = m->data.result;
            remove(e);  // m is not read after this
            e->busy = false;
            if (rc == CURLE_OK) {
                curl_easy_getinfo(e->curl, CURLINFO_RESPONSE_CODE, &e->http);
                e->status = HGX_ETCD_OK;
            } else if (e->sink && rc == CURLE_WRITE_ERROR) {
                e->status = HGX_ETCD_STOPPED;
            } else {
                e->status = classify(e, rc);
                e->detail = e->status == HGX_ETCD_TIMEOUT ? "" : failure(e, rc, e->status);
            }
            done->push_back(e);
        }
    }

    // With TLS 1.3 a member that refuses the client's certificate does so
    // after the handshake: the connection is dropped before any answer, and
    // curl's words for it vary. A handshake that completed and then got no
    // answer is that.
    static bool certificate_refused(const CurlExchange* e, CURLcode rc) {
        if (rc != CURLE_RECV_ERROR && rc != CURLE_SEND_ERROR && rc != CURLE_GOT_NOTHING)
            return false;
        curl_off_t handshake = 0;
        curl_easy_getinfo(e->curl, CURLINFO_APPCONNECT_TIME_T, &handshake);
        return handshake > 0 || std::strstr(e->error, "alert");
    }

    // Status of a failed exchange: whether the next member may do better.
    static int classify(const CurlExchange* e, CURLcode rc) {
        if (certificate_refused(e, rc)) return HGX_ETCD_TLS;
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

    std::string cacert_named() const {
        return settings_.cacert.empty() ? "the system's CA certificates"
                                        : "HGX_ETCD_CACERT " + settings_.cacert;
    }

    // What failed in a TLS failure, in our words: the file, the
    // verification or the host name.
    std::string tls_failure(const CurlExchange* e, CURLcode rc) const {
        const Settings& s = settings_;
        const std::string& m = s.members[e->member];
        std::string detail = e->error;
        if (certificate_refused(e, rc))
            return m + ": the member refused the client certificate" +
                   (s.cert.empty() ? " (none is named by HGX_ETCD_CERT)"
                                   : " HGX_ETCD_CERT " + s.cert);
        switch (rc) {
            case CURLE_SSL_CACERT_BADFILE:
                return cacert_named() + ": not a CA certificate in PEM form";
            case CURLE_SSL_CERTPROBLEM:
                return "HGX_ETCD_CERT " + s.cert + " and HGX_ETCD_KEY " + s.key +
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
        std::string reason =
            at == std::string::npos ? "" : ": " + detail.substr(at + std::strlen(problem));
        return m + ": the member's certificate was not verified with " + cacert_named() + reason;
    }

    // A failed exchange in our words: the member and why.
    std::string failure(const CurlExchange* e, CURLcode rc, int status) const {
        if (status == HGX_ETCD_TLS) return tls_failure(e, rc);
        const std::string& m = settings_.members[e->member];
        switch (rc) {
            case CURLE_COULDNT_CONNECT: {
                long os = 0;
                curl_easy_getinfo(e->curl, CURLINFO_OS_ERRNO, &os);
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

    Settings settings_;
    CURLM* multi_;
    std::vector<CurlExchange*> added_;     // on the multi handle
    std::vector<CurlExchange*> starting_;  // started since the last pump
};

std::once_flag curl_ready;

}  // namespace

std::unique_ptr<Transport> make_transport(const Settings& settings, int* status, std::string* why) {
    if (!settings.tls) {
        *status = HGX_ETCD_UNREACHABLE;
        *why = "hgx-etcd-tls.so speaks TLS only: etcd:// is served by hgx-etcd.so";
        return nullptr;
    }
    if (!readable(settings.cacert, "HGX_ETCD_CACERT", why) ||
        !readable(settings.cert, "HGX_ETCD_CERT", why) ||
        !readable(settings.key, "HGX_ETCD_KEY", why)) {
        *status = HGX_ETCD_TLS;
        return nullptr;
    }
    std::call_once(curl_ready, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    CURLM* multi = take_multi();
    if (!multi) {
        *status = HGX_ETCD_NO_MEMORY;
        *why = "out of memory";
        return nullptr;
    }
    return std::make_unique<CurlTransport>(settings, multi);
}

}  // namespace hgx_client
