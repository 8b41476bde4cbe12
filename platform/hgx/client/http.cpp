#include "http.h"

#include <algorithm>
#include <cstring>

namespace hgx_client {

namespace {

bool is_token_char(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           std::strchr("!#$%&'*+-.^_`|~", c) != nullptr;
}

// Text of a header's value or a reason: visible characters, blanks and
// bytes above ASCII; no other control character.
bool is_field_text(std::string_view s) {
    return std::all_of(s.begin(), s.end(), [](char ch) {
        unsigned char c = static_cast<unsigned char>(ch);
        return c == '\t' || (c >= 0x20 && c != 0x7f);
    });
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool same_ci(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (lower(a[i]) != lower(b[i])) return false;
    return true;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

// Whether a comma-separated list of tokens holds the token.
bool lists(std::string_view list, std::string_view token) {
    while (!list.empty()) {
        size_t comma = list.find(',');
        if (same_ci(trim(list.substr(0, comma)), token)) return true;
        if (comma == std::string_view::npos) break;
        list.remove_prefix(comma + 1);
    }
    return false;
}

}  // namespace

std::string http_request(std::string_view host, std::string_view path, std::string_view token,
                         std::string_view body) {
    std::string r;
    r.reserve(128 + host.size() + path.size() + token.size() + body.size());
    r.append("POST ").append(path).append(" HTTP/1.1\r\nHost: ").append(host);
    r.append("\r\nContent-Type: application/json\r\n");
    if (!token.empty()) r.append("Authorization: ").append(token).append("\r\n");
    r.append("Content-Length: ").append(std::to_string(body.size())).append("\r\n\r\n");
    r.append(body);
    return r;
}

void ResponseReader::reset(Sink sink, void* context) {
    *this = ResponseReader();
    sink_ = sink;
    context_ = context;
}

ResponseReader::State ResponseReader::feed(const char* data, size_t size, size_t* used) {
    *used = 0;
    if (state_ != MORE) return state_;
    if (size) started_ = true;
    size_t i = 0;
    auto refuse = [&](State s) {
        *used = i;
        return fail(s);
    };
    while (i < size && state_ == MORE) {
        if (phase_ == BODY || phase_ == CHUNK_DATA) {
            size_t n = static_cast<size_t>(std::min<uint64_t>(size - i, left_));
            if (body_bytes(data + i, n) != MORE) break;
            i += n;
            left_ -= n;
            if (left_ == 0) {
                if (phase_ == BODY) {
                    phase_ = DONE;
                    state_ = COMPLETE;
                } else {
                    phase_ = CHUNK_END;
                }
            }
            continue;
        }
        const char* lf = static_cast<const char*>(std::memchr(data + i, '\n', size - i));
        size_t take = lf ? static_cast<size_t>(lf - (data + i)) + 1 : size - i;
        if (line_.size() + take > HTTP_MAX_LINE + 2) return refuse(TOO_LARGE);
        if (phase_ == STATUS || phase_ == HEADERS || phase_ == TRAILERS) {
            head_bytes_ += take;
            if (head_bytes_ > HTTP_MAX_HEAD) return refuse(TOO_LARGE);
        }
        line_.append(data + i, take);
        i += take;
        if (!lf) continue;
        if (line_.size() < 2 || line_[line_.size() - 2] != '\r') return refuse(MALFORMED);
        line(std::string_view(line_.data(), line_.size() - 2));
        line_.clear();
    }
    *used = i;
    return state_;
}

ResponseReader::State ResponseReader::line(std::string_view text) {
    switch (phase_) {
        case STATUS:
            return status_line(text);
        case HEADERS:
            return text.empty() ? end_of_head() : header(text);
        case CHUNK_SIZE: {
            size_t digits = 0;
            uint64_t n = 0;
            for (; digits < text.size(); ++digits) {
                char c = text[digits];
                int v = c >= '0' && c <= '9'   ? c - '0'
                        : c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                               : -1;
                if (v < 0) break;
                if (digits == 15) return fail(TOO_LARGE);
                n = n << 4 | static_cast<uint64_t>(v);
            }
            // A chunk extension is allowed and means nothing here.
            if (digits == 0 || (digits < text.size() && text[digits] != ';') ||
                !is_field_text(text))
                return fail(MALFORMED);
            if (!sink_ && n > HTTP_MAX_BODY - body_.size()) return fail(TOO_LARGE);
            left_ = n;
            phase_ = n ? CHUNK_DATA : TRAILERS;
            return MORE;
        }
        case CHUNK_END:
            if (!text.empty()) return fail(MALFORMED);
            phase_ = CHUNK_SIZE;
            return MORE;
        case TRAILERS:
            if (!text.empty()) {
                size_t colon = text.find(':');
                if (colon == 0 || colon == std::string_view::npos ||
                    !std::all_of(
                        text.begin(), text.begin() + static_cast<long>(colon),
                        [](char c) { return is_token_char(static_cast<unsigned char>(c)); }) ||
                    !is_field_text(text))
                    return fail(MALFORMED);
                return MORE;
            }
            phase_ = DONE;
            return state_ = COMPLETE;
        default:
            return fail(MALFORMED);
    }
}

ResponseReader::State ResponseReader::status_line(std::string_view text) {
    // HTTP/1.x NNN[ reason]
    if (text.size() < 12 || text.substr(0, 7) != "HTTP/1." || (text[7] != '0' && text[7] != '1') ||
        text[8] != ' ' || (text.size() > 12 && text[12] != ' ') || !is_field_text(text))
        return fail(MALFORMED);
    int code = 0;
    for (size_t k = 9; k < 12; ++k) {
        if (text[k] < '0' || text[k] > '9') return fail(MALFORMED);
        code = code * 10 + (text[k] - '0');
    }
    if (code < 100) return fail(MALFORMED);
    status_ = code;
    keep_alive_ = text[7] == '1';
    phase_ = HEADERS;
    return MORE;
}

ResponseReader::State ResponseReader::header(std::string_view text) {
    size_t colon = text.find(':');
    if (colon == 0 || colon == std::string_view::npos) return fail(MALFORMED);
    std::string_view name = text.substr(0, colon);
    for (char c : name)
        if (!is_token_char(static_cast<unsigned char>(c))) return fail(MALFORMED);
    std::string_view value = trim(text.substr(colon + 1));
    if (!is_field_text(value)) return fail(MALFORMED);
    if (same_ci(name, "content-length")) {
        if (has_length_ || value.empty() || value.size() > 18) return fail(MALFORMED);
        uint64_t n = 0;
        for (char c : value) {
            if (c < '0' || c > '9') return fail(MALFORMED);
            n = n * 10 + static_cast<uint64_t>(c - '0');
        }
        has_length_ = true;
        left_ = n;
    } else if (same_ci(name, "transfer-encoding")) {
        if (chunked_ || !same_ci(value, "chunked")) return fail(MALFORMED);
        chunked_ = true;
    } else if (same_ci(name, "connection")) {
        if (lists(value, "close")) keep_alive_ = false;
    }
    return MORE;
}

ResponseReader::State ResponseReader::end_of_head() {
    if (status_ < 200) {
        // 101 would switch protocols, which was never asked for.
        if (status_ == 101) return fail(MALFORMED);
        has_length_ = chunked_ = false;
        left_ = 0;
        phase_ = STATUS;
        return MORE;
    }
    if (chunked_ && has_length_) return fail(MALFORMED);
    if (status_ == 204 || status_ == 304) {
        phase_ = DONE;
        return state_ = COMPLETE;
    }
    if (chunked_) {
        phase_ = CHUNK_SIZE;
        return MORE;
    }
    if (!has_length_) return fail(MALFORMED);
    if (!sink_ && left_ > HTTP_MAX_BODY) return fail(TOO_LARGE);
    if (left_ == 0) {
        phase_ = DONE;
        return state_ = COMPLETE;
    }
    if (!sink_) body_.reserve(static_cast<size_t>(std::min<uint64_t>(left_, 1 << 20)));
    phase_ = BODY;
    return MORE;
}

ResponseReader::State ResponseReader::body_bytes(const char* data, size_t size) {
    if (sink_) return sink_(context_, data, size) ? MORE : fail(STOPPED);
    if (size > HTTP_MAX_BODY - body_.size()) return fail(TOO_LARGE);
    body_.append(data, size);
    return MORE;
}

}  // namespace hgx_client
