// Replacement patterns: globs with optional anchors, used by the `:'` and
// `:''` transforms of properties and sections.
//
// match_glob gives exactly one end for each start position: a star inside a
// pattern takes the fewest characters it can, and only a star that ends the
// pattern takes the rest. replace_string never retries a rejected match in
// another length.
//
// The stars cut the pattern into pieces of fixed length, so the first star's
// shortest take is simply the earliest place where the next piece matches:
// were any later placement of that piece followed by a match of the rest, the
// earliest one would be too. Each piece is therefore placed once, earliest
// first, with no backtracking: O(source x pattern) for one start position.
//
// A malformed pattern (open set, trailing backslash) is no error; it simply
// matches nothing.

#include <cstring>

#include "emit_local.h"
#include "stencil_internal.h"

namespace {

// Holds the result of the last replace_string call.
thread_local stencil_eval::ThreadScratch replace_scratch;

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

// Matches the piece of pattern that begins at p and ends at the next star
// (or the end) against the source at s. Every element takes exactly one
// character, so a piece has one length wherever it is tried. Returns the
// source position behind the piece and sets *rest to the star or the end, or
// returns null when the piece does not match here.
const char* match_piece(const char* s, const char* p, const char** rest) {
    for (;;) {
        switch (*p) {
            case '\0':
            case '*':
                *rest = p;
                return s;
            case '?':
                if (*s == '\0') {
                    return nullptr;
                }
                p++;
                break;
            case '\\':
                if (p[1] == '\0' || *s != p[1]) {
                    return nullptr;
                }
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
                break;
            default:
                if (*s != *p) {
                    return nullptr;
                }
                p++;
                break;
        }
        s++;
    }
}

}  // namespace

const char* match_glob(const char* source, const char* pattern) {
    if (pattern == nullptr) {
        return nullptr;
    }
    const char* s = source != nullptr ? source : "";
    const char* p = pattern;
    // The head, up to the first star, is anchored at the start.
    s = match_piece(s, p, &p);
    if (s == nullptr) {
        return nullptr;
    }
    while (*p == '*') {
        while (*p == '*') {
            p++;
        }
        if (*p == '\0') {
            return s + std::strlen(s);
        }
        // The earliest place where the next piece matches. Every piece takes
        // at least one character, so the walk stops at the end of the source.
        const char* end = nullptr;
        const char* next = p;
        for (; *s != '\0'; s++) {
            end = match_piece(s, p, &next);
            if (end != nullptr) {
                break;
            }
        }
        if (end == nullptr) {
            return nullptr;
        }
        s = end;
        p = next;
    }
    return s;
}

const char* replace_string(const char* source, const char* pattern, const char* replacement,
                           int all) {
    if (stencil_eval::scratch_ready(&replace_scratch) != 0) {
        return nullptr;
    }
    string_buffer_clear(&replace_scratch.sb);

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
        const bool accepted =
            end != nullptr && (!start_anchor || pos == source) && (!end_anchor || *end == '\0');
        if (!accepted) {
            if (string_buffer_append_char(&replace_scratch.sb, *pos) < 0) {
                return nullptr;
            }
            pos++;
            continue;
        }
        if (string_buffer_append_string(&replace_scratch.sb, replacement) < 0) {
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
    if (string_buffer_append_string(&replace_scratch.sb, pos) < 0) {
        return nullptr;
    }
    return string_buffer_get_str(&replace_scratch.sb);
}
