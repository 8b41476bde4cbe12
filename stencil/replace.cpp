// Replacement patterns: globs with optional anchors, used by the `:'` and
// `:''` transforms of properties and sections.
//
// match_glob gives exactly one end for each start position: a star inside a
// pattern takes the fewest characters it can, and only a star that ends the
// pattern takes the rest. replace_string never retries a rejected match in
// another length. A malformed pattern (open set, trailing backslash) is no
// error; it simply matches nothing.

#include <cstring>

#include "emit_local.h"
#include "stencil_internal.h"

namespace {

// Holds the result of the last replace_string call.
thread_local string_buffer_t replace_scratch;

// Reads one set member at *p (a backslash quotes the next character).
// False when the pattern ends inside the member.
bool read_member(const char*& p, char* member) {
    if (*p == '\\') {
        if (p[1] == '\0') {
            return false;
        }
        *member = p[1];
        p += 2;
        return true;
    }
    if (*p == '\0') {
        return false;
    }
    *member = *p++;
    return true;
}

// Matches the set that begins at pattern (on its '[') against c. Returns the
// pattern position behind the closing ']', or null when the set does not
// accept c or is not closed before the pattern ends.
const char* match_set(char c, const char* pattern) {
    const char* p = pattern + 1;
    bool negate = false;
    if (*p == '!') {
        negate = true;
        p++;
    }
    bool found = false;
    bool first = true;
    for (;;) {
        if (*p == '\0') {
            return nullptr;  // an open set never matches; '[' is not literal
        }
        // The first member may be ']' itself; only later does ']' close.
        if (!first && *p == ']') {
            p++;
            break;
        }
        first = false;
        char member;
        if (!read_member(p, &member)) {
            return nullptr;
        }
        if (member == c) {
            found = true;
        }
        // A '-' between two members makes a range; one right before the
        // closing ']' is a plain member (read on the next round). The upper
        // bound serves as the lower one of a further '-'.
        while (*p == '-' && p[1] != ']' && p[1] != '\0') {
            p++;
            char upper;
            if (!read_member(p, &upper)) {
                return nullptr;
            }
            const auto lo = static_cast<signed char>(member);
            const auto hi = static_cast<signed char>(upper);
            const auto ch = static_cast<signed char>(c);
            if (lo <= hi ? (ch >= lo && ch <= hi) : ch == hi) {
                found = true;
            }
            member = upper;
        }
    }
    return found != negate ? p : nullptr;
}

}  // namespace

const char* match_glob(const char* source, const char* pattern) {
    if (pattern == nullptr) {
        return nullptr;
    }
    const char* s = source != nullptr ? source : "";
    const char* p = pattern;
    for (;;) {
        switch (*p) {
            case '\0':
                return s;
            case '?':
                if (*s == '\0') {
                    return nullptr;
                }
                s++;
                p++;
                break;
            case '\\':
                if (p[1] == '\0' || *s != p[1]) {
                    return nullptr;
                }
                s++;
                p += 2;
                break;
            case '[':
                if (*s == '\0') {
                    return nullptr;
                }
                p = match_set(*s, p);
                if (p == nullptr) {
                    return nullptr;
                }
                s++;
                break;
            case '*': {
                while (*p == '*') {
                    p++;
                }
                if (*p == '\0') {
                    return s + std::strlen(s);
                }
                // Fewest characters first; the first success is the match.
                for (; *s != '\0'; s++) {
                    const char* end = match_glob(s, p);
                    if (end != nullptr) {
                        return end;
                    }
                }
                return nullptr;
            }
            default:
                if (*s != *p) {
                    return nullptr;
                }
                s++;
                p++;
                break;
        }
    }
}

const char* replace_string(const char* source, const char* pattern, const char* replacement,
                           int all) {
    if (stencil_eval::scratch_ready(&replace_scratch) != 0) {
        return nullptr;
    }
    string_buffer_clear(&replace_scratch);

    // Anchors are looked for at the head of the pattern only.
    bool start_anchor = false;
    bool end_anchor = false;
    if ((pattern[0] == '%' && pattern[1] == '#') || (pattern[0] == '#' && pattern[1] == '%')) {
        start_anchor = end_anchor = true;
        pattern += 2;
    } else if (pattern[0] == '#') {
        start_anchor = true;
        pattern += 1;
    } else if (pattern[0] == '%') {
        end_anchor = true;
        pattern += 1;
    }

    // An empty value is never matched, not even by '*'.
    const char* pos = source;
    while (*pos != '\0') {
        const char* end = match_glob(pos, pattern);
        const bool accepted = end != nullptr && (!start_anchor || pos == source) &&
                              (!end_anchor || *end == '\0');
        if (!accepted) {
            if (string_buffer_append_char(&replace_scratch, *pos) < 0) {
                return nullptr;
            }
            pos++;
            continue;
        }
        if (string_buffer_append_string(&replace_scratch, replacement) < 0) {
            return nullptr;
        }
        // Only a pattern that is empty once its anchors are stripped matches
        // without taking a character. Such a match is accepted once, at the
        // first position, whatever `all` says: repeating it would never move
        // the walk on. So "" and "#" with all=1 put the replacement in front
        // of the text exactly as all=0 does.
        const bool empty_match = end == pos;
        pos = end;
        if (all == 0 || empty_match) {
            break;
        }
    }
    if (string_buffer_append_string(&replace_scratch, pos) < 0) {
        return nullptr;
    }
    return string_buffer_get_str(&replace_scratch);
}
