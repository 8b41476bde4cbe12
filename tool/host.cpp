// Host services of the tool: bounded string copies, directory creation,
// capabilities and the mount table.
#include "host.h"

#include <sys/capability.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

extern "C" size_t strlcpy(char* dst, const char* src, size_t size) {
    size_t len = std::strlen(src);
    if (size != 0) {
        size_t n = len < size - 1 ? len : size - 1;
        std::memcpy(dst, src, n);
        dst[n] = '\0';
    }
    return len;
}

extern "C" size_t strlcat(char* dst, const char* src, size_t size) {
    // A dst without a terminator inside size counts as size long, and nothing
    // is appended: the text is already as cut as it can be.
    size_t dlen = strnlen(dst, size);
    if (dlen == size) return size + std::strlen(src);
    return dlen + strlcpy(dst + dlen, src, size - dlen);
}

namespace {

bool is_directory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

int mkdirp(const char* path, mode_t mode) {
    std::string p(path);
    // Trailing slashes name the same directory; dropping them keeps the last
    // mkdir from failing on an empty component.
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    if (is_directory(p)) {
        errno = EEXIST;
        return -1;
    }
    // Create each ancestor in turn; one that exists already (made by someone
    // else in between, too) is no failure.
    for (size_t pos = p.find('/', 1); pos != std::string::npos; pos = p.find('/', pos + 1)) {
        if (p[pos - 1] == '/') continue;  // "a//b": the ancestor was just handled
        std::string prefix = p.substr(0, pos);
        if (mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) return -1;
    }
    return mkdir(p.c_str(), mode) == 0 ? 0 : -1;
}

int host_privilege_acquire(HostPrivilege privilege) {
    // sys_mount needs CAP_SYS_ADMIN on Linux; file_dac_write is what
    // CAP_DAC_OVERRIDE grants.
    cap_value_t value = privilege == HOST_PRIV_SYS_MOUNT ? CAP_SYS_ADMIN : CAP_DAC_OVERRIDE;
    std::unique_ptr<void, int (*)(void*)> caps(cap_get_proc(), cap_free);
    if (!caps) return -1;
    cap_t c = static_cast<cap_t>(caps.get());
    if (cap_set_flag(c, CAP_EFFECTIVE, 1, &value, CAP_SET) != 0) return -1;
    // cap_set_proc refuses (EPERM) an effective bit outside the permitted set.
    if (cap_set_proc(c) != 0) {
        int saved = errno;
        caps.reset();
        errno = saved;
        return -1;
    }
    return 0;
}

std::string mountinfo_unescape(std::string_view field) {
    std::string out;
    out.reserve(field.size());
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' &&
            field[i + 1] <= '3' && field[i + 2] >= '0' && field[i + 2] <= '7' &&
            field[i + 3] >= '0' && field[i + 3] <= '7') {
            out.push_back(static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                            (field[i + 3] - '0')));
            i += 3;
        } else {
            out.push_back(field[i]);
        }
    }
    return out;
}

bool mountinfo_has_mount_point(std::string_view text, std::string_view path) {
    // Each line: id parent major:minor root mount-point options ...; fields
    // are separated by single blanks, and blanks inside paths are escaped.
    while (!text.empty()) {
        size_t eol = text.find('\n');
        std::string_view line = text.substr(0, eol);
        text = eol == std::string_view::npos ? std::string_view() : text.substr(eol + 1);
        size_t start = 0;
        for (int field = 0; field < 4 && start != std::string_view::npos; ++field) {
            start = line.find(' ', start);
            if (start != std::string_view::npos) ++start;
        }
        if (start == std::string_view::npos) continue;
        size_t end = line.find(' ', start);
        std::string_view mount_point =
            line.substr(start, end == std::string_view::npos ? end : end - start);
        if (mountinfo_unescape(mount_point) == path) return true;
    }
    return false;
}

int host_is_mount_point(const char* path) {
    std::unique_ptr<FILE, int (*)(FILE*)> table(fopen("/proc/self/mountinfo", "re"), fclose);
    if (!table) return -1;
    std::string text;
    char buf[8192];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, table.get())) > 0) text.append(buf, n);
    if (ferror(table.get())) return -1;
    if (mountinfo_has_mount_point(text, path)) return 1;
    // The table holds canonical paths; a path spelled with "//", "." or a
    // symbolic link in it still names the same mount point.
    HeapText resolved(realpath(path, nullptr));
    return resolved && mountinfo_has_mount_point(text, resolved.get()) ? 1 : 0;
}
