// HTTP/1.1 as the lean transport speaks it to etcd's JSON gateway: one
// request form (a POST with a JSON body and its length) and a strict reader
// of responses (a length or chunks; a bounded head). Nothing here touches a
// socket, so that the reader can be fed anything, in any pieces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace hgx_client {

// The bytes of a POST of a JSON body to path on host ("name:port"), with
// etcd's token when one is given. The caller vouches that host, path and
// token hold no control characters.
std::string http_request(std::string_view host, std::string_view path, std::string_view token,
                         std::string_view body);

// Bounds of what a response may hold before it is refused.
constexpr size_t HTTP_MAX_LINE = 8192;     // a status line, a header, a chunk's size
constexpr size_t HTTP_MAX_HEAD = 65536;    // the status line and headers, or the trailers
constexpr size_t HTTP_MAX_BODY = 1 << 30;  // a body kept whole (not for a stream)

// Reads one response, fed as it arrives. The body is kept whole, or, with a
// sink, handed to it piece by piece as it arrives (a stream that may never
// end). Everything but a complete, well-formed response of HTTP/1.0 or 1.1
// with a Content-Length or chunked body is refused: a head or line over its
// bound, a body over HTTP_MAX_BODY, a length that is not digits, two
// lengths, a length beside chunks, other transfer codings, a chunk that does
// not end where its size says. Interim (1xx) responses are passed over.
class ResponseReader {
  public:
    enum State {
        MORE,       // the response goes on: feed the next bytes
        COMPLETE,   // the response ended; status(), body(), reusable()
        MALFORMED,  // not a response this reader takes
        TOO_LARGE,  // a bound above was passed
        STOPPED,    // the sink asked to stop
    };
    // Receives pieces of a body; false ends the response with STOPPED.
    using Sink = bool (*)(void* context, const char* data, size_t size);

    ResponseReader() = default;
    // Ready for the next response; sink null: the body is kept.
    void reset(Sink sink = nullptr, void* context = nullptr);

    // Takes the next bytes, *used set to how many of them belong to the
    // response (all of them unless it completed or failed within them).
    // Once it left MORE, further bytes change nothing.
    State feed(const char* data, size_t size, size_t* used);

    State state() const { return state_; }
    // Whether any byte was fed since reset().
    bool started() const { return started_; }
    int status() const { return status_; }
    // The body kept (without a sink); the caller may move it out once the
    // response completed.
    std::string& body() { return body_; }
    // Whether the connection may carry the next request: the response
    // completed and neither side's version nor a Connection header says
    // otherwise.
    bool reusable() const { return state_ == COMPLETE && keep_alive_; }

  private:
    enum Phase { STATUS, HEADERS, BODY, CHUNK_SIZE, CHUNK_DATA, CHUNK_END, TRAILERS, DONE };

    State fail(State s) { return state_ = s; }
    // A complete line of the head or of the chunked framing.
    State line(std::string_view text);
    State status_line(std::string_view text);
    State header(std::string_view text);
    State end_of_head();
    State body_bytes(const char* data, size_t size);

    Sink sink_ = nullptr;
    void* context_ = nullptr;
    State state_ = MORE;
    Phase phase_ = STATUS;
    bool started_ = false;
    std::string line_;
    size_t head_bytes_ = 0;
    int status_ = 0;
    bool keep_alive_ = true;
    bool chunked_ = false;
    bool has_length_ = false;
    uint64_t left_ = 0;  // bytes left of the body or of the chunk
    std::string body_;
};

}  // namespace hgx_client
