// The seam between the etcd client (members, failover, hedged reads, the
// watch, authentication: etcd_client.cpp) and the transport that carries
// its requests. Two transports implement it, each in a module of its own,
// and each module holds the client too: hgx-etcd.so speaks plain HTTP over
// sockets (transport_socket.cpp), hgx-etcd-tls.so HTTPS through libcurl
// (transport_curl.cpp), so that a plain cluster never loads libcurl.
//
// Connections outlive the client that made them: a transport keeps the
// connections its exchanges leave idle for any later client in the process
// that asks the same member, so that a process opening client after client
// (a mirror applying revision after revision) talks over one connection.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace hgx_client {

using Clock = std::chrono::steady_clock;

// Time to make a connection, within an exchange's own time.
constexpr long CONNECT_MS = 1000;

// What a transport is made for: the members and TLS's files.
struct Settings {
    std::vector<std::string> members;  // "host:port"
    bool tls = false;
    std::string cacert, cert, key;  // empty: none (the system's CAs for cacert)
};

// One request to one member at a time, and its outcome. The client fills in
// the request and hands the exchange to its transport's start(); the
// transport fills in the outcome. A transport's exchanges are of its own
// derived type, made by Transport::exchange().
struct Exchange {
    virtual ~Exchange() = default;

    // The request.
    size_t member = 0;  // index into Settings::members
    std::string path;   // "/v3/kv/range"
    std::string body;
    std::string token;    // etcd's token, sent as Authorization; empty: none
    long timeout_ms = 0;  // the whole exchange, connecting included; 0: no limit
    // A stream's receiver: the body goes here as it arrives instead of into
    // response, and 0 ends the exchange with HGX_ETCD_STOPPED.
    int (*sink)(void* context, const char* data, size_t size) = nullptr;
    void* sink_context = nullptr;

    // The state, kept by the transport.
    bool busy = false;  // between start() and its report by pump() or stop()
    Clock::time_point started;

    // The outcome, once pump() reported the exchange: HGX_ETCD_OK when the
    // member answered (http, response: the whole body unless streamed),
    // else the failure, with detail the member and what failed in the
    // client's words (empty for a timeout).
    int status = 0;
    long http = 0;
    std::string response;
    std::string detail;
};

class Transport {
  public:
    virtual ~Transport() = default;

    // A new exchange of this transport, idle; owned by the caller, who
    // stops it before it goes and lets it go before the transport.
    virtual std::unique_ptr<Exchange> exchange() = 0;
    // Starts an idle exchange's request: busy from now until pump() reports
    // it. A failure to start is reported by the next pump() like any other.
    virtual void start(Exchange* e) = 0;
    // Abandons an exchange under way (its connection is closed, as nothing
    // tells where the answer stands); nothing is reported for it. Accepts
    // an idle exchange.
    virtual void stop(Exchange* e) = 0;
    // Drives the exchanges under way, waiting up to wait_ms (0: not at all)
    // until one ends; *done receives those that ended, no longer busy, with
    // their outcome.
    virtual void pump(long wait_ms, std::vector<Exchange*>* done) = 0;
};

// The transport of this module for the settings: null with *status (an
// HGX_ETCD_* code) and *why when it cannot be made (a TLS file unreadable,
// TLS asked of the plain module, out of memory).
std::unique_ptr<Transport> make_transport(const Settings& settings, int* status, std::string* why);

}  // namespace hgx_client
