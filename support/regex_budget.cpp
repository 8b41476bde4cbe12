// The measure follows how the compiler builds its tree: an atom is one node;
// a group adds an opening and a closing node; a branch of an alternation one
// node; `*` and `?` one node around the atom; `+` is the atom followed by a
// starred copy of it; `{m,n}` is m copies followed by n - m nested optional
// copies (`{m,}`: m copies and a starred one). Every node that is passed
// without a character counts as epsilon too, since each such node carries a
// closure that can reach all the others. Anchors are counted apart: the
// compiler copies the closures through them once per combination of the
// conditions they set, which is exponential as soon as several of them can
// be passed in a loop (`(\b|\B|^|$)*` alone does not compile in minutes).
// A back-reference is no part of extended POSIX expressions; the library's
// own matcher for it takes time exponential in the length of the name
// (`(a*)\1b` against a long name of a's runs for minutes).

#include "regex_budget.h"

#include <cctype>
#include <cstring>
#include <vector>

#include "support_internal.h"

namespace {

constexpr uint64_t SATURATED = uint64_t{1} << 62;

uint64_t add(uint64_t a, uint64_t b) { return a + b > SATURATED ? SATURATED : a + b; }

uint64_t mul(uint64_t a, uint64_t b) {
    if (a == 0 || b == 0) return 0;
    return a > SATURATED / b ? SATURATED : a * b;
}

struct Cost {
    uint64_t nodes = 0;
    uint64_t epsilon = 0;
    uint64_t anchors = 0;
};

Cost plus(Cost a, Cost b) {
    return {add(a.nodes, b.nodes), add(a.epsilon, b.epsilon), add(a.anchors, b.anchors)};
}

Cost times(Cost a, uint64_t n) { return {mul(a.nodes, n), mul(a.epsilon, n), mul(a.anchors, n)}; }

constexpr Cost CHAR_NODE{1, 0, 0};
constexpr Cost ANCHOR_NODE{1, 1, 1};
constexpr Cost JOINT_NODE{1, 1, 0};   // a branch, a loop or an optional copy
constexpr Cost GROUP_NODES{2, 2, 0};  // opening and closing node

// One level of parentheses: the finished branches, the current branch up to
// its last atom, and that atom (kept apart because a quantifier may follow).
struct Frame {
    Cost branches;
    uint64_t branch_count = 1;
    Cost sequence;
    Cost atom;
    bool has_atom = false;

    void push_atom(Cost c) {
        if (has_atom) sequence = plus(sequence, atom);
        atom = c;
        has_atom = true;
    }
    Cost branch() const { return has_atom ? plus(sequence, atom) : sequence; }
    void next_branch() {
        branches = plus(branches, branch());
        branch_count++;
        sequence = Cost{};
        atom = Cost{};
        has_atom = false;
    }
    // The whole level, one node per further branch.
    Cost total() const {
        return plus(plus(branches, branch()), times(JOINT_NODE, branch_count - 1));
    }
};

// Reads a decimal count at p, clamped far above the compiler's own maximum
// (which refuses it anyway). False when there is no digit.
bool read_count(const char*& p, uint64_t* value) {
    if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
    uint64_t v = 0;
    while (std::isdigit(static_cast<unsigned char>(*p))) {
        v = v > 1000000 ? v : v * 10 + static_cast<uint64_t>(*p - '0');
        ++p;
    }
    *value = v;
    return true;
}

// An interval at p (on its '{'): true with the bounds and p behind the '}',
// or false with p unmoved when the text is no interval. An absent upper
// bound of `{m,}` comes back as max = UINT64_MAX.
bool read_interval(const char*& p, uint64_t* min, uint64_t* max) {
    const char* q = p + 1;
    uint64_t lo = 0;
    uint64_t hi = 0;
    bool have_lo = read_count(q, &lo);
    if (*q == '}') {
        if (!have_lo) return false;
        hi = lo;
    } else if (*q == ',') {
        ++q;
        if (!read_count(q, &hi)) hi = UINT64_MAX;
        if (*q != '}') return false;
    } else {
        return false;
    }
    p = q + 1;
    *min = lo;
    *max = hi < lo ? lo : hi;
    return true;
}

Cost repeat(Cost atom, uint64_t min, uint64_t max) {
    if (max == UINT64_MAX) {
        // m copies, then one starred copy.
        return plus(times(atom, min + 1), JOINT_NODE);
    }
    if (max == 0) return JOINT_NODE;
    return plus(times(atom, max), times(JOINT_NODE, max - min));
}

// Steps over a bracket expression at p (on its '['); one atom however long.
const char* skip_bracket(const char* p) {
    const char* q = p + 1;
    if (*q == '^') ++q;
    if (*q == ']') ++q;  // a leading ']' is a member
    while (*q != '\0' && *q != ']') {
        if (*q == '[' && (q[1] == ':' || q[1] == '.' || q[1] == '=')) {
            const char kind = q[1];
            const char* r = q + 2;
            while (*r != '\0' && !(r[0] == kind && r[1] == ']')) ++r;
            if (*r == '\0') return r;
            q = r + 2;
            continue;
        }
        ++q;
    }
    return *q == ']' ? q + 1 : q;
}

}  // namespace

regex_measure_result_t regex_measure(const char* pattern) {
    regex_measure_result_t result{};
    if (pattern == nullptr) return result;
    std::vector<Frame> frames(1);
    const char* p = pattern;
    while (*p != '\0') {
        Frame& frame = frames.back();
        const char c = *p;
        switch (c) {
            case '(':
                // Past the limit the pattern is refused whatever follows.
                if (frames.size() > REGEX_BUDGET_DEPTH) {
                    result.depth = frames.size();
                    return result;
                }
                frames.emplace_back();
                if (frames.size() - 1 > result.depth) result.depth = frames.size() - 1;
                ++p;
                continue;
            case ')':
                if (frames.size() > 1) {
                    Cost inner = frame.total();
                    frames.pop_back();
                    frames.back().push_atom(plus(inner, GROUP_NODES));
                } else {
                    frame.push_atom(CHAR_NODE);
                }
                ++p;
                continue;
            case '|':
                frame.next_branch();
                ++p;
                continue;
            case '*':
            case '?':
            case '+':
                if (!frame.has_atom) {
                    frame.push_atom(CHAR_NODE);
                } else if (frame.atom.anchors != 0) {
                    result.repeated_anchor = 1;
                    frame.atom = repeat(frame.atom, 1, UINT64_MAX);
                } else if (c == '+') {
                    frame.atom = repeat(frame.atom, 1, UINT64_MAX);
                } else {
                    frame.atom = plus(frame.atom, JOINT_NODE);
                }
                ++p;
                continue;
            case '{': {
                uint64_t min = 0;
                uint64_t max = 0;
                if (frame.has_atom && read_interval(p, &min, &max)) {
                    if (frame.atom.anchors != 0) result.repeated_anchor = 1;
                    frame.atom = repeat(frame.atom, min, max);
                } else {
                    frame.push_atom(CHAR_NODE);
                    ++p;
                }
                continue;
            }
            case '[':
                frame.push_atom(CHAR_NODE);
                p = skip_bracket(p);
                continue;
            case '\\':
                // Word boundaries and buffer anchors match no character.
                if (p[1] == '\0') {
                    frame.push_atom(CHAR_NODE);
                    ++p;
                    continue;
                }
                if (p[1] >= '1' && p[1] <= '9') result.backreferences++;
                frame.push_atom(std::strchr("bB<>`'", p[1]) != nullptr ? ANCHOR_NODE : CHAR_NODE);
                p += 2;
                continue;
            case '^':
            case '$':
                frame.push_atom(ANCHOR_NODE);
                ++p;
                continue;
            default:
                frame.push_atom(CHAR_NODE);
                ++p;
                continue;
        }
    }
    // Open groups are closed where the text ends; the compiler refuses them.
    while (frames.size() > 1) {
        Cost inner = frames.back().total();
        frames.pop_back();
        frames.back().push_atom(plus(inner, GROUP_NODES));
    }
    Cost whole = frames.back().total();
    result.nodes = whole.nodes;
    result.epsilon = whole.epsilon;
    result.anchors = whole.anchors;
    return result;
}

int regex_within_budget(const char* pattern) {
    const regex_measure_result_t m = regex_measure(pattern);
    return m.nodes <= REGEX_BUDGET_NODES && m.epsilon <= REGEX_BUDGET_EPSILON &&
                   m.depth <= REGEX_BUDGET_DEPTH && m.anchors <= REGEX_BUDGET_ANCHORS &&
                   m.repeated_anchor == 0 && m.backreferences == 0
               ? 1
               : 0;
}

int regcomp_bounded(regex_t* regex, const char* pattern, int cflags) {
    if (pattern == nullptr || regex_within_budget(pattern) == 0) return REG_ESPACE;
    return regcomp(regex, pattern, cflags);
}
