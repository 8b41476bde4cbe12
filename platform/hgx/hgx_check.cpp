// The checks that the write side applies before a change: werns and names
// by their syntax, and values by their type, as kelvo later reads a value
// by its type.
#include <arpa/inet.h>

#include <string>
#include <string_view>

#include "hgx_internal.h"
#include "hgx_write.h"

using namespace hgx_detail;

namespace {

bool digits(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}

// Whether a decimal digit string fits below or at the limit's text.
bool fits(std::string_view d, std::string_view limit) {
    while (d.size() > 1 && d[0] == '0') d.remove_prefix(1);
    return d.size() < limit.size() || (d.size() == limit.size() && d <= limit);
}

bool valid_utf8(std::string_view s) {
    size_t i = 0;
    while (i < s.size()) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        size_t n;
        uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            n = 1;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            n = 2;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            n = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        for (size_t k = 1; k <= n; ++k) {
            if (i + k >= s.size()) return false;
            unsigned char cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        static const uint32_t MIN_OF_LENGTH[] = {0, 0x80, 0x800, 0x10000};
        if (cp < MIN_OF_LENGTH[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        i += n + 1;
    }
    return true;
}

bool valid_hostname(std::string_view s) {
    if (!s.empty() && s.back() == '.') s.remove_suffix(1);
    if (s.empty() || s.size() > 253) return false;
    size_t start = 0;
    while (start <= s.size()) {
        size_t dot = s.find('.', start);
        std::string_view label =
            s.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start);
        if (label.empty() || label.size() > 63 || label.front() == '-' || label.back() == '-')
            return false;
        for (char c : label)
            if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '-'))
                return false;
        if (dot == std::string_view::npos) break;
        start = dot + 1;
    }
    return true;
}

// An address of the family, with an optional "/prefix" length.
bool valid_address(std::string_view s, int family) {
    std::string addr(s);
    size_t slash = addr.find('/');
    if (slash != std::string::npos) {
        std::string_view bits = std::string_view(addr).substr(slash + 1);
        if (!digits(bits) || bits.size() > 3) return false;
        int n = std::stoi(std::string(bits));
        if (n > (family == AF_INET ? 32 : 128)) return false;
        addr.resize(slash);
    }
    unsigned char buf[sizeof(struct in6_addr)];
    return inet_pton(family, addr.c_str(), buf) == 1;
}

}  // namespace

int hgx_wern_split(const char* wern, hgx_wern_parts* parts) {
    return guarded(-1, [&]() -> int {
        if (!wern || !parts) return fail(HGX_ERROR_INVALID_ARGUMENT);
        WernParts w;
        if (split_wern(wern, &w) < 0) return -1;
        parts->scope_only = w.scope_only;
        parts->scope = w.scope;
        parts->service = w.service;
        parts->has_instance = w.has_instance;
        parts->instance = w.instance;
        parts->path = w.path;
        return 0;
    });
}

bool hgx_valid_name(std::string_view name) { return valid_segment(name); }
bool hgx_valid_service_name(std::string_view name) { return valid_service_name(name); }
bool hgx_is_cluster_url(std::string_view where) { return is_cluster_url(where); }

namespace {

// The numeric types: decimal digits within the range of the type; a time is
// seconds with up to nine decimals.
const char* number_reason(hgx_type_t type, std::string_view v) {
    bool neg = !v.empty() && v[0] == '-';
    std::string_view d = neg ? v.substr(1) : v;
    if (type == HGX_TYPE_COUNT) {
        if (!digits(v)) return "is not an unsigned decimal number";
        return fits(v, "18446744073709551615") ? nullptr : "is out of range for a count";
    }
    if (type == HGX_TYPE_INTEGER) {
        if (!digits(d)) return "is not a decimal integer";
        return fits(d, neg ? "9223372036854775808" : "9223372036854775807")
                   ? nullptr
                   : "is out of range for an integer";
    }
    size_t dot = d.find('.');
    std::string_view frac =
        dot == std::string_view::npos ? std::string_view("0") : d.substr(dot + 1);
    if (!digits(d.substr(0, dot)) || !digits(frac) || frac.size() > 9 ||
        !fits(d.substr(0, dot), "9223372036854775807"))
        return "is not a time in seconds (with up to 9 decimals)";
    return nullptr;
}

bool valid_opaque(std::string_view v) {
    bool ok = v.size() % 2 == 0;
    for (char c : v)
        ok = ok && ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'));
    return ok;
}

// A scheme (a letter, then letters, digits, '+', '-', '.') and a colon.
bool valid_uri(std::string_view v) {
    size_t colon = v.find(':');
    bool ok = colon != std::string_view::npos && colon > 0 &&
              ((v[0] >= 'a' && v[0] <= 'z') || (v[0] >= 'A' && v[0] <= 'Z'));
    for (size_t i = 1; ok && i < colon; ++i) {
        char c = v[i];
        ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
             c == '+' || c == '-' || c == '.';
    }
    return ok;
}

bool valid_ip(std::string_view v) {
    return valid_address(v, AF_INET) || valid_address(v, AF_INET6);
}

// Why a value does not fit its type, or null where it does.
const char* type_reason(hgx_type_t type, std::string_view v) {
    WernParts w;
    switch (type) {
        case HGX_TYPE_BOOLEAN:
            return v == "true" || v == "false" ? nullptr : "is not true or false";
        case HGX_TYPE_COUNT:
        case HGX_TYPE_INTEGER:
        case HGX_TYPE_TIME:
            return number_reason(type, v);
        case HGX_TYPE_ASTRING:
            return nullptr;
        case HGX_TYPE_USTRING:
            return valid_utf8(v) ? nullptr : "is not valid UTF-8";
        case HGX_TYPE_OPAQUE:
            return valid_opaque(v) ? nullptr : "is not an even number of hexadecimal digits";
        case HGX_TYPE_HOSTNAME:
            return valid_hostname(v) ? nullptr : "is not a host name";
        case HGX_TYPE_HOST:
            return valid_hostname(v) || valid_ip(v) ? nullptr : "is not a host name or address";
        case HGX_TYPE_NET_ADDRESS:
            return valid_ip(v) ? nullptr : "is not a network address";
        case HGX_TYPE_NET_ADDRESS_V4:
            return valid_address(v, AF_INET) ? nullptr : "is not an IPv4 address";
        case HGX_TYPE_NET_ADDRESS_V6:
            return valid_address(v, AF_INET6) ? nullptr : "is not an IPv6 address";
        case HGX_TYPE_WERN:
            return split_wern(v, &w) < 0 ? "is not a wern" : nullptr;
        case HGX_TYPE_URI:
            return valid_uri(v) ? nullptr : "is not a URI";
        default:
            return "has no valid type";
    }
}

}  // namespace

int hgx_value_check(hgx_type_t type, std::string_view v, const char** why) {
    if (why) *why = nullptr;
    return guarded(-1, [&]() -> int {
        const char* reason = nullptr;
        if (v.size() > VALUE_LIMIT)
            reason = "is longer than 4096 bytes";
        else if (v.find('\0') != std::string_view::npos)
            reason = "holds a NUL byte";
        else
            reason = type_reason(type, v);
        if (why) *why = reason;
        return reason ? fail(HGX_ERROR_INVALID_VALUE) : 0;
    });
}
