// The network client of the etcd store, as a C interface between libhgx and
// the shared object hgx-etcd.so that implements it with libcurl. libhgx
// opens that object only when a repository is named by an etcd URL, so that
// a program reading a file never loads libcurl or TLS.
//
// The interface speaks HTTP to etcd's v3 JSON gateway and knows nothing of
// repositories: it sends request bodies, hands back response bodies, moves
// between the cluster's members and authenticates. The two sides are built
// from one tree; `abi` guards against a stale object all the same.
#pragma once

#include <cstddef>

extern "C" {

#define HGX_ETCD_CLIENT_ABI 1
#define HGX_ETCD_CLIENT_SYMBOL "hgx_etcd_client"

// Outcome of a call.
enum hgx_etcd_status {
    HGX_ETCD_OK = 0,
    HGX_ETCD_UNREACHABLE = 1,  // no member accepted a connection
    HGX_ETCD_TIMEOUT = 2,      // the call's time ran out
    HGX_ETCD_CREDENTIALS = 3,  // user and password refused
    HGX_ETCD_TLS = 4,          // TLS failed: CA, certificate or key
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

struct hgx_etcd_client_api {
    int abi;  // HGX_ETCD_CLIENT_ABI

    // Every text `error` below is a caller's buffer of error_size bytes
    // (0: none), filled with a line for the user and terminated on failure.
    // A client is used by one thread at a time.

    // Makes a client for the members named in options (copied). Null on
    // failure, with *status the reason and a line in error. Nothing is sent
    // before the first call, except authentication when a user is given.
    // The caller owns the client and ends it with close().
    void* (*open)(const hgx_etcd_options* options, int* status, char* error, size_t error_size);
    // Ends a client and its connections; accepts null. No reply body is
    // tied to the client: bodies outlive it until released.
    void (*close)(void* client);

    // POSTs a JSON body to a gateway path ("/v3/kv/range") and fills reply.
    // A member that does not answer, or answers 5xx, is left for the next;
    // the last member that answered is tried first next time. The whole call
    // takes at most timeout_ms. HGX_ETCD_OK whenever some member answered,
    // whatever the HTTP status; else the failure, with a line in error.
    int (*post)(void* client, const char* path, const char* body, size_t size, long timeout_ms,
                hgx_etcd_reply* reply, char* error, size_t error_size);
    // Frees the reply's body and empties it; accepts null and an empty reply.
    void (*release)(hgx_etcd_reply* reply);

    // POSTs a body to a streaming path ("/v3/watch") on one member and hands
    // each piece of the response to on_data as it arrives. keep_going is
    // asked about once a second; the stream ends with HGX_ETCD_STOPPED when
    // either returns 0, with HGX_ETCD_OK when the member closes the stream,
    // and with a failure when it cannot be reached (then the next member is
    // tried first next time).
    int (*stream)(void* client, const char* path, const char* body, size_t size,
                  int (*on_data)(void* context, const char* data, size_t size),
                  int (*keep_going)(void* context), void* context, char* error, size_t error_size);
};

// The one symbol of hgx-etcd.so: the table of the client's functions, static
// for the life of the loaded object; never null.
const hgx_etcd_client_api* hgx_etcd_client(void);
}
