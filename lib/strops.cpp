// Numbers from configuration text, with the K/M/G suffixes every setting
// accepts, and a few string jobs.
#include "strops.h"

#include <cctype>
#include <cstdint>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "vrassert.h"

namespace {

struct mult_row {
    const char* suffix;
    double mult;
};

constexpr mult_row k_mults[] = {
    {"K", 1024.0}, {"Kb", 1024.0}, {"M", 1048576.0}, {"Mb", 1048576.0}, {"G", 1073741824.0}, {"Gb", 1073741824.0},
};

int parse_double(const char* s, double* out)
{
    errno = 0;
    double v = strtod(s, nullptr);
    if (errno != 0)
        return ERR_NUMFMT;
    *out = v;
    return 0;
}

int a2int(const char* str, int64_t* out)
{
    double v = 0;
    int rc = a2double(str, &v);
    if (rc != 0)
        return rc;
    if (v > 9223372036854775808.0 || v < -9223372036854775808.0)
        return ERR_OVFLW;
    // 2^63 itself passes the range check but has no int64 value; the
    // conversion of the hardware gives INT64_MIN for it, so do that without
    // relying on an undefined cast.
    *out = v >= 9223372036854775808.0 ? INT64_MIN : (int64_t)v;
    return 0;
}

// One replacement of tag in buf: 0 done, 1 no tag found, else an error.
int repl_ulm(char* buf, size_t len, const char* tag, unsigned long ul)
{
    if (strstr(buf, tag) == nullptr)
        return 1;
    char* copy = strdup(buf);
    if (copy == nullptr) {
        perror("strdup");
        return ENOMEM;
    }
    char* at = strstr(copy, tag);
    *at = '\0';
    const char* rest = at + strlen(tag);
    char num[24] = "";
    if (ul != 0)
        snprintf(num, sizeof(num), "%lu", ul);
    int n = snprintf(buf, len, "%s%s%s", copy, num, rest);
    free(copy);
    if (n < 0 || (size_t)n >= len)
        return -ERANGE;
    return 0;
}

}  // namespace

int a2double(const char* str, double* pval)
{
    VRX_ASSERT(str);
    const char* alpha = str;
    while (*alpha != '\0' && !isalpha((unsigned char)*alpha))
        ++alpha;

    double v = 0;
    if (*alpha == '\0') {
        int rc = parse_double(str, &v);
        if (rc != 0)
            return rc;
        if (pval)
            *pval = v;
        return 0;
    }

    double mult = 0;
    for (const auto& m : k_mults)
        if (strcasecmp(alpha, m.suffix) == 0)
            mult = m.mult;
    if (mult == 0)
        return ERR_BADMULT;

    const size_t numlen = (size_t)(alpha - str);
    if (numlen > 63)
        return ERR_OVERRUN;
    char num[64] = {};
    memcpy(num, str, numlen);
    int rc = parse_double(num, &v);
    if (rc != 0)
        return rc;
    if (pval)
        *pval = v * mult;
    return 0;
}

int a2int64(const char* str, int64_t* pval)
{
    int64_t v = 0;
    int rc = a2int(str, &v);
    if (rc == 0 && pval)
        *pval = v;
    return rc;
}

int a2size(const char* str, ssize_t* pval)
{
    int64_t v = 0;
    int rc = a2int(str, &v);
    if (rc == 0 && pval)
        *pval = (ssize_t)v;
    return rc;
}

void chomp(char* s)
{
    for (int i = 0; i < 2; ++i) {
        size_t n = strlen(s);
        if (n == 0 || (s[n - 1] != '\n' && s[n - 1] != '\r'))
            return;
        s[n - 1] = '\0';
    }
}

size_t marker_count(const char* s, const char* marker)
{
    const size_t mlen = strlen(marker);
    if (*s == '\0' || mlen == 0)
        return 0;
    const bool counted = marker[mlen - 1] == ':';
    size_t total = 0;
    for (const char* p = strstr(s, marker); p != nullptr; p = strstr(p, marker)) {
        p += mlen;
        if (!counted) {
            ++total;
            continue;
        }
        size_t num = 0;
        for (const char* d = p; *d >= '0' && *d <= '9'; ++d)
            num = num * 10 + (size_t)(*d - '0');
        total += num;
    }
    return total;
}

size_t hex_to_bin(const char* str, uint8_t* out, size_t len)
{
    static constexpr char k_digits[] = "0123456789ABCDEF";
    auto value = [](char c) -> unsigned {
        if (c == '\0')
            return 16;  // the end of an odd-length text
        const char* p = strchr(k_digits, toupper((unsigned char)c));
        return (p != nullptr && *p != '\0') ? (unsigned)(p - k_digits) : 0;
    };
    size_t n = 0;
    for (const char* p = str; *p != '\0' && n < len; p += (p[1] ? 2 : 1)) {
        out[n++] = (uint8_t)((value(p[0]) << 4) | value(p[1]));
        if (p[1] == '\0')
            break;
    }
    return n;
}

size_t bin_to_dhex(const uint8_t* bin, size_t blen, char* s, size_t slen, const char* delim)
{
    if (delim == nullptr)
        delim = "";
    const size_t step = 2 + strlen(delim);
    if (slen < step + 1 || blen == 0) {
        if (slen > 0)
            s[slen - 1] = '\0';
        return 0;
    }
    size_t pos = 0, done = 0;
    while (done < blen && slen - pos >= step + 1) {
        int n = snprintf(s + pos, slen - pos, "%02x%s", bin[done], delim);
        if (n != (int)step)
            break;
        pos += step;
        ++done;
    }
    s[slen - 1] = '\0';
    return done;
}

void mk_trk_tag(int* count, n64_tag* tag, char pfx, int max)
{
    if (*count >= max)
        *count = 0;
    ++*count;
    tag->num64 = 0;
    tag->sym8[0] = pfx;
    // Five digits fit; a sixth is cut off, and a count of seven digits is a
    // caller's max gone wrong.
    ssize_t n = snprintf(tag->sym8 + 1, sizeof(tag->sym8) - 2, "%d", *count);
    VRX_ASSERT(n > 0 && n <= (ssize_t)sizeof(tag->sym8) - 2);
}

int replace_ul_macro(char* buf, size_t len, const char* tag, unsigned long ul)
{
    for (int pass = 0; pass < 32; ++pass) {
        int rc = repl_ulm(buf, len, tag, ul);
        if (rc == 1)
            return 0;
        if (rc != 0)
            return rc;
    }
    // Every pass found one: there may be more than the limit.
    return -ERANGE;
}
