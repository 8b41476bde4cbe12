// Myers' O((N+M)D) greedy algorithm: for each number of differences d, the
// furthest point reached on every diagonal k = x - y is kept; the saved
// frontiers of every d then lead back from the end to the start.
#include "line_diff.h"

#include <algorithm>
#include <cstdint>

namespace line_diff {

std::vector<std::string_view> split_lines(std::string_view text) {
    std::vector<std::string_view> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        end = end == std::string_view::npos ? text.size() : end + 1;
        lines.push_back(text.substr(start, end - start));
        start = end;
    }
    return lines;
}

std::vector<Edit> shortest_edit(const std::vector<std::string_view>& a,
                                const std::vector<std::string_view>& b) {
    const auto n = static_cast<int64_t>(a.size());
    const auto m = static_cast<int64_t>(b.size());
    const int64_t max = n + m;
    const int64_t offset = max + 1;
    // v[k + offset]: the furthest x on diagonal k; trace[d]: v after step d.
    std::vector<int64_t> v(static_cast<size_t>(2 * max + 3), 0);
    std::vector<std::vector<int64_t>> trace;
    int64_t found = -1;
    for (int64_t d = 0; d <= max && found < 0; ++d) {
        for (int64_t k = -d; k <= d; k += 2) {
            int64_t x;
            // Down (an addition) from k+1, or right (a removal) from k-1,
            // whichever got further.
            if (k == -d || (k != d && v[k - 1 + offset] < v[k + 1 + offset]))
                x = v[k + 1 + offset];
            else
                x = v[k - 1 + offset] + 1;
            int64_t y = x - k;
            while (x < n && y < m && a[static_cast<size_t>(x)] == b[static_cast<size_t>(y)]) {
                ++x;
                ++y;
            }
            v[k + offset] = x;
            if (x >= n && y >= m) {
                found = d;
                break;
            }
        }
        trace.push_back(v);
    }

    std::vector<Edit> edits;
    int64_t x = n, y = m;
    for (int64_t d = found; d >= 0; --d) {
        const int64_t k = x - y;
        int64_t prev_k = 0, prev_x = 0, prev_y = 0;
        if (d > 0) {
            const std::vector<int64_t>& vp = trace[static_cast<size_t>(d - 1)];
            prev_k =
                (k == -d || (k != d && vp[k - 1 + offset] < vp[k + 1 + offset])) ? k + 1 : k - 1;
            prev_x = vp[prev_k + offset];
            prev_y = prev_x - prev_k;
        }
        while (x > prev_x && y > prev_y) {
            --x;
            --y;
            edits.push_back({Edit::KEEP, static_cast<size_t>(x), static_cast<size_t>(y)});
        }
        if (d == 0) break;
        if (x == prev_x)
            edits.push_back({Edit::ADD, static_cast<size_t>(x), static_cast<size_t>(prev_y)});
        else
            edits.push_back({Edit::REMOVE, static_cast<size_t>(prev_x), static_cast<size_t>(y)});
        x = prev_x;
        y = prev_y;
    }
    std::reverse(edits.begin(), edits.end());
    return edits;
}

namespace {

void append_line(std::string& out, char mark, std::string_view line) {
    out += mark;
    out += line;
    if (line.empty() || line.back() != '\n') out += "\n\\ No newline at end of file\n";
}

// "start,count" of one side of a hunk header; an empty side names the line
// before it, as the format wants.
std::string range(size_t first, size_t count) {
    size_t shown = count == 0 ? first : first + 1;
    return count == 1 ? std::to_string(shown) : std::to_string(shown) + "," + std::to_string(count);
}

}  // namespace

std::string unified_hunks(std::string_view old_text, std::string_view new_text, size_t context) {
    const std::vector<std::string_view> a = split_lines(old_text);
    const std::vector<std::string_view> b = split_lines(new_text);
    const std::vector<Edit> edits = shortest_edit(a, b);
    std::string out;
    size_t i = 0;
    while (i < edits.size()) {
        if (edits[i].kind == Edit::KEEP) {
            ++i;
            continue;
        }
        // A hunk: from `context` kept lines before the first change to
        // `context` after the last one, joining changes whose gap of kept
        // lines is at most twice the context.
        size_t begin = i >= context ? i - context : 0;
        while (begin < i && edits[begin].kind != Edit::KEEP) ++begin;
        size_t end = i;
        for (;;) {
            while (end < edits.size() && edits[end].kind != Edit::KEEP) ++end;
            size_t kept = end;
            while (kept < edits.size() && edits[kept].kind == Edit::KEEP) ++kept;
            if (kept < edits.size() && kept - end <= 2 * context) {
                end = kept;
                continue;
            }
            end = std::min(kept, end + context);
            break;
        }
        size_t old_count = 0, new_count = 0;
        std::string body;
        for (size_t e = begin; e < end; ++e) {
            const Edit& edit = edits[e];
            if (edit.kind != Edit::ADD) ++old_count;
            if (edit.kind != Edit::REMOVE) ++new_count;
            if (edit.kind == Edit::KEEP)
                append_line(body, ' ', a[edit.old_line]);
            else if (edit.kind == Edit::REMOVE)
                append_line(body, '-', a[edit.old_line]);
            else
                append_line(body, '+', b[edit.new_line]);
        }
        out += "@@ -" + range(edits[begin].old_line, old_count) + " +" +
               range(edits[begin].new_line, new_count) + " @@\n" + body;
        i = end;
    }
    return out;
}

}  // namespace line_diff
