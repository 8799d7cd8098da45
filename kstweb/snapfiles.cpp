// The snapshot directory: which names may be served, how kst names its
// files, and the listing of what is there.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <cstring>

#include "kstweb.h"

namespace {

bool name_char(char c)
{
    return isalnum((unsigned char)c) || c == '.' || c == '_' || c == '-';
}

// Digits backwards from end (exclusive) down to at least min: the position
// of the first digit, or end when there is none.
const char* digits_before(const char* min, const char* end)
{
    const char* p = end;
    while (p > min && isdigit((unsigned char)p[-1]))
        --p;
    return p;
}

}  // namespace

int kw_check_name(const char* name)
{
    const size_t n = strlen(name);
    if (n < 4 || n >= KW_PATH_MAX || name[0] == '.' || strcmp(name + n - 3, ".ts") != 0)
        return 403;
    for (const char* p = name; *p != '\0'; ++p)
        if (!name_char(*p))
            return 403;
    return strstr(name, "..") != nullptr ? 403 : 0;
}

bool kw_prefix_ok(const char* pfx)
{
    const size_t n = strlen(pfx);
    if (n > KW_PREFIX_MAX || pfx[0] == '.' || strstr(pfx, "..") != nullptr)
        return false;
    for (const char* p = pfx; *p != '\0'; ++p)
        if (!name_char(*p))
            return false;
    return true;
}

// Read from the end: ".ts", the cause, "-", COUNT, "_", FIRST, "-p", PID.
bool kw_snap_parse(const char* name, size_t* pfx_len, long* pid)
{
    const size_t n = strlen(name);
    if (n < 12 || strcmp(name + n - 3, ".ts") != 0)
        return false;
    const char* p = name + n - 3;
    const char* cause = p;
    while (cause > name && isupper((unsigned char)cause[-1]))
        --cause;
    if (cause == p || cause == name || cause[-1] != '-')
        return false;
    p = cause - 1;
    const char* count = digits_before(name, p);
    if (count == p || count == name || count[-1] != '_')
        return false;
    p = count - 1;
    const char* first = digits_before(name, p);
    if (first == p || first - name < 2 || first[-1] != 'p' || first[-2] != '-')
        return false;
    p = first - 2;
    const char* pidp = digits_before(name, p);
    if (pidp == p || p - pidp > 9)
        return false;
    *pfx_len = (size_t)(pidp - name);
    *pid = strtol(pidp, nullptr, 10);
    return *pfx_len <= KW_PREFIX_MAX;
}

std::vector<kw_snap> kw_list_snapshots()
{
    std::vector<kw_snap> out;
    const int fd = openat(g_kw.dirfd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* d = (fd >= 0) ? fdopendir(fd) : nullptr;
    if (d == nullptr) {
        if (fd >= 0)
            close(fd);
        return out;
    }
    for (dirent* e; (e = readdir(d)) != nullptr;) {
        struct stat st;
        if (kw_check_name(e->d_name) != 0 || fstatat(g_kw.dirfd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(st.st_mode))
            continue;
        out.push_back({e->d_name, st.st_size, st.st_mtime});
    }
    closedir(d);
    std::sort(out.begin(), out.end(), [](const kw_snap& a, const kw_snap& b) {
        return a.mtime != b.mtime ? a.mtime > b.mtime : a.name > b.name;
    });
    return out;
}
