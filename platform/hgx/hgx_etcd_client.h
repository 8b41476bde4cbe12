// The network client of the etcd store, as a C interface between libhgx and
// the shared objects that implement it: hgx-etcd.so over plain sockets for
// etcd://, hgx-etcd-tls.so through libcurl for etcds://. libhgx opens one
// only when a repository is named by an etcd URL, so that a program reading
// a file loads neither, and one reading a plain cluster never loads libcurl
// or TLS.
//
// The interface speaks HTTP to etcd's v3 JSON gateway and knows nothing of
// repositories: it sends request bodies, hands back response bodies, moves
// between the cluster's members and authenticates. The two sides are built
// from one tree; `abi` guards against a stale object all the same.
#pragma once

#include <cstddef>

extern "C" {

#define HGX_ETCD_CLIENT_ABI 2
#define HGX_ETCD_CLIENT_SYMBOL "hgx_etcd_client"

// Outcome of a call.
enum hgx_etcd_status {
    HGX_ETCD_OK = 0,
    HGX_ETCD_UNREACHABLE = 1,  // no member accepted a connection
    HGX_ETCD_TIMEOUT = 2,      // the call's time ran out
    HGX_ETCD_CREDENTIALS = 3,  // user and password refused
    HGX_ETCD_TLS = 4,          // TLS failed: CA, certificate, key or host name
    HGX_ETCD_NO_MEMORY = 5,
    HGX_ETCD_STOPPED = 6,  // a stream ended because its caller asked it to
};

struct hgx_etcd_options {
    const char* endpoints;  // "host:port[,host:port]..."; required
    int tls;                // https instead of http
    const char* cacert;     // files for TLS; null for the system's defaults
    const char* cert;
    const char* key;
    const char* user;  // etcd authentication where both are non-null
    const char* password;
};

// A response: the HTTP status and the body, NUL-terminated beyond size. A
// successful post() fills it; the caller then owns the body and hands the
// reply to release() when done. A failed post() leaves it as it was.
struct hgx_etcd_reply {
    long http_status;
    char* body;
    size_t size;
};

// post() flag: the request only reads, so that any member may answer it,
// and more than one may be asked at once (see post()).
#define HGX_ETCD_READ 1

// A streaming request (a watch) and what its caller hears of it.
struct hgx_etcd_stream {
    const char* path;  // "/v3/watch"
    const char* body;
    size_t size;
    // Asked of the stream's member, on a connection of its own, whenever
    // the stream has been silent for idle_ms: a member that gives no answer
    // below 5xx within idle_ms more is taken for dead or cut off, and the
    // stream ends. A silent stream is otherwise indistinguishable from one
    // whose member hangs (a stopped process still holds its connections).
    const char* probe_path;
    const char* probe_body;
    size_t probe_size;
    long idle_ms;
    // Each piece of the response as it arrives; 0 ends the stream.
    int (*on_data)(void* context, const char* data, size_t size);
    // Asked about every 200 ms; 0 ends the stream.
    int (*keep_going)(void* context);
    // Told each time a probe found the member answering; may be null.
    void (*on_alive)(void* context);
    void* context;
};

struct hgx_etcd_client_api {
    int abi;  // HGX_ETCD_CLIENT_ABI

    // Every text `error` below is a caller's buffer of error_size bytes
    // (0: none), filled on failure with the client's own words on what
    // failed (a member and why, or the TLS file, verification or host name
    // at fault), or left empty where there is nothing to add to the status
    // (a timeout). A client is used by one thread at a time.

    // Makes a client for the members named in options (copied). Null on
    // failure, with *status the reason and a line in error; a TLS file that
    // cannot be read fails here. Nothing is sent before the first call,
    // except authentication when a user is given (a cluster without
    // authentication enabled then takes no token). The caller owns the
    // client and ends it with close().
    void* (*open)(const hgx_etcd_options* options, int* status, char* error, size_t error_size);
    // Ends a client; accepts null. Its idle connections stay open for the
    // process's next client of the same members, and its token for the next
    // of the same user. No reply body is tied to the client: bodies outlive
    // it until released.
    void (*close)(void* client);

    // POSTs a JSON body to a gateway path ("/v3/kv/range") and fills reply.
    // Members are asked from the one that answered last; one that refuses
    // the connection or answers 5xx is left for the next at once. A request
    // that writes waits a share of the time for one member before it gives
    // up on it; one flagged HGX_ETCD_READ is also sent to the next member
    // whenever the members asked have been silent for a short while, and
    // the first answer wins. The whole call takes at most timeout_ms.
    // HGX_ETCD_OK whenever some member answered below 5xx, whatever the
    // HTTP status; else the failure.
    int (*post)(void* client, const char* path, const char* body, size_t size, long timeout_ms,
                int flags, hgx_etcd_reply* reply, char* error, size_t error_size);
    // Frees the reply's body and empties it; accepts null and an empty reply.
    void (*release)(hgx_etcd_reply* reply);

    // Runs a streaming request on one member, the one that answered last,
    // until it ends: HGX_ETCD_STOPPED when on_data or keep_going said so,
    // HGX_ETCD_OK when the member closed the stream, HGX_ETCD_TIMEOUT when
    // a probe went unanswered, or the failure of the connection. On every
    // ending but HGX_ETCD_STOPPED the next member is the one tried first
    // next time.
    int (*stream)(void* client, const hgx_etcd_stream* stream, char* error, size_t error_size);
};

// The one symbol of either object: the table of the client's functions,
// static for the life of the loaded object; never null.
const hgx_etcd_client_api* hgx_etcd_client(void);
}
