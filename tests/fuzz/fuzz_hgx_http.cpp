// The etcd client's reader of HTTP answers: whatever the bytes, and however
// they are cut into pieces, it ends in the same state with the same body,
// within its bounds. The first byte chooses the pieces' size and whether
// the body goes to a sink (a stream) or is kept.

#include <cstddef>
#include <cstdint>
#include <string>

#include "http.h"

namespace {

using hgx_client::ResponseReader;

struct Outcome {
    ResponseReader::State state;
    std::string body;
    bool reusable;
};

// A stream's reader that stops at its first '!'; what came with it in the
// same piece differs with the pieces, and is cut off below.
bool to_string(void* context, const char* data, size_t size) {
    auto* s = static_cast<std::string*>(context);
    s->append(data, size);
    return s->find('!') == std::string::npos;
}

Outcome read(const uint8_t* data, size_t size, size_t piece, bool streamed) {
    ResponseReader r;
    std::string streamed_body;
    if (streamed)
        r.reset(to_string, &streamed_body);
    else
        r.reset();
    for (size_t at = 0; at < size; at += piece) {
        size_t n = std::min(piece, size - at), used = 0;
        ResponseReader::State s = r.feed(reinterpret_cast<const char*>(data) + at, n, &used);
        if (used > n) __builtin_trap();
        if (s != ResponseReader::MORE) break;
        if (used != n) __builtin_trap();  // a response that goes on takes every byte
    }
    if (r.body().size() > hgx_client::HTTP_MAX_BODY) __builtin_trap();
    if (streamed && !r.body().empty()) __builtin_trap();
    if (r.state() == ResponseReader::STOPPED) streamed_body.resize(streamed_body.find('!') + 1);
    return {r.state(), streamed ? streamed_body : r.body(), r.reusable()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    size_t piece = 1 + data[0] % 16;
    bool streamed = data[0] & 0x80;
    Outcome whole = read(data + 1, size - 1, size, streamed);
    Outcome cut = read(data + 1, size - 1, piece, streamed);
    if (whole.state != cut.state || whole.body != cut.body || whole.reusable != cut.reusable)
        __builtin_trap();
    return 0;
}
