// Line differences between two texts, shown as a unified diff.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace line_diff {

// One step of an edit script that turns the old lines into the new ones.
struct Edit {
    enum Kind { KEEP, REMOVE, ADD } kind;
    size_t old_line;  // 0-based; for ADD, the old line the addition stands before
    size_t new_line;  // 0-based; for REMOVE, the new line the removal stands before
};

// A shortest edit script (fewest removals plus additions) between two lists
// of lines, in text order. Lines compare as whole byte strings.
std::vector<Edit> shortest_edit(const std::vector<std::string_view>& old_lines,
                                const std::vector<std::string_view>& new_lines);

// The texts' lines; each keeps its '\n', so a last line without one differs
// from the same line with one.
std::vector<std::string_view> split_lines(std::string_view text);

// The hunks of a unified diff ("@@ -a,b +c,d @@" and the lines), with
// `context` unchanged lines around each change; empty when the texts are
// equal. A line without a final newline is followed by the usual
// "\ No newline at end of file". The "---"/"+++" header is the caller's.
std::string unified_hunks(std::string_view old_text, std::string_view new_text, size_t context = 3);

}  // namespace line_diff
