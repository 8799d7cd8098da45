// A formatter and a writer for signal handlers. glibc's stdio takes a lock
// on every stream call, so a handler that formats or writes through it while
// the interrupted code is inside the same call waits for ever; this one
// needs nothing that a handler could find held.
#include "sigsafe.h"

#include <unistd.h>
#include <cerrno>
#include <cstdint>

namespace {

struct sink {
    char* buf;
    size_t len;
    size_t pos;  // what the whole text needs so far
};

void put(sink* s, char c)
{
    if (s->len > 0 && s->pos < s->len - 1)
        s->buf[s->pos] = c;
    ++s->pos;
}

void put_padded(sink* s, const char* text, size_t n, size_t width, bool left, char pad)
{
    if (!left)
        for (size_t i = n; i < width; ++i)
            put(s, pad);
    for (size_t i = 0; i < n; ++i)
        put(s, text[i]);
    if (left)
        for (size_t i = n; i < width; ++i)
            put(s, ' ');
}

// Digits of v in base, most significant first, into out (at least 24 bytes).
size_t digits(uintmax_t v, unsigned base, bool upper, char* out)
{
    const char* set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char rev[24];
    size_t n = 0;
    do {
        rev[n++] = set[v % base];
        v /= base;
    } while (v != 0);
    for (size_t i = 0; i < n; ++i)
        out[i] = rev[n - 1 - i];
    return n;
}

void put_number(sink* s, uintmax_t mag, bool neg, unsigned base, bool upper, const char* prefix, size_t width,
                bool left, bool zero)
{
    char num[24];
    const size_t nd = digits(mag, base, upper, num);
    size_t plen = 0;
    while (prefix[plen] != '\0')
        ++plen;
    const size_t total = nd + plen + (neg ? 1 : 0);
    if (zero && !left) {
        if (neg)
            put(s, '-');
        for (size_t i = 0; i < plen; ++i)
            put(s, prefix[i]);
        for (size_t i = total; i < width; ++i)
            put(s, '0');
        for (size_t i = 0; i < nd; ++i)
            put(s, num[i]);
        return;
    }
    if (!left)
        for (size_t i = total; i < width; ++i)
            put(s, ' ');
    if (neg)
        put(s, '-');
    for (size_t i = 0; i < plen; ++i)
        put(s, prefix[i]);
    for (size_t i = 0; i < nd; ++i)
        put(s, num[i]);
    if (left)
        for (size_t i = total; i < width; ++i)
            put(s, ' ');
}

enum length_mod { LEN_INT, LEN_CHAR, LEN_SHORT, LEN_LONG, LEN_LLONG, LEN_SIZE, LEN_MAX, LEN_PTRDIFF };

intmax_t signed_arg(length_mod lm, va_list* ap)
{
    switch (lm) {
    case LEN_CHAR: return (signed char)va_arg(*ap, int);
    case LEN_SHORT: return (short)va_arg(*ap, int);
    case LEN_LONG: return va_arg(*ap, long);
    case LEN_LLONG: return va_arg(*ap, long long);
    case LEN_SIZE: return va_arg(*ap, ssize_t);
    case LEN_MAX: return va_arg(*ap, intmax_t);
    case LEN_PTRDIFF: return va_arg(*ap, ptrdiff_t);
    default: return va_arg(*ap, int);
    }
}

uintmax_t unsigned_arg(length_mod lm, va_list* ap)
{
    switch (lm) {
    case LEN_CHAR: return (unsigned char)va_arg(*ap, unsigned);
    case LEN_SHORT: return (unsigned short)va_arg(*ap, unsigned);
    case LEN_LONG: return va_arg(*ap, unsigned long);
    case LEN_LLONG: return va_arg(*ap, unsigned long long);
    case LEN_SIZE: return va_arg(*ap, size_t);
    case LEN_MAX: return va_arg(*ap, uintmax_t);
    case LEN_PTRDIFF: return (uintmax_t)va_arg(*ap, ptrdiff_t);
    default: return va_arg(*ap, unsigned);
    }
}

}  // namespace

int sigs_vformat(char* buf, size_t len, const char* fmt, va_list ap_in)
{
    sink s{buf, len, 0};
    va_list ap;
    va_copy(ap, ap_in);
    int rc = 0;
    for (const char* p = fmt; *p != '\0'; ++p) {
        if (*p != '%') {
            put(&s, *p);
            continue;
        }
        ++p;
        bool left = false, zero = false;
        for (;; ++p) {
            if (*p == '-')
                left = true;
            else if (*p == '0')
                zero = true;
            else
                break;
        }
        size_t width = 0;
        while (*p >= '0' && *p <= '9')
            width = width * 10 + (size_t)(*p++ - '0');
        bool has_prec = false;
        size_t prec = 0;
        if (*p == '.') {
            has_prec = true;
            ++p;
            while (*p >= '0' && *p <= '9')
                prec = prec * 10 + (size_t)(*p++ - '0');
        }
        length_mod lm = LEN_INT;
        if (*p == 'h') {
            lm = (p[1] == 'h') ? (++p, LEN_CHAR) : LEN_SHORT;
            ++p;
        } else if (*p == 'l') {
            lm = (p[1] == 'l') ? (++p, LEN_LLONG) : LEN_LONG;
            ++p;
        } else if (*p == 'z') {
            lm = LEN_SIZE;
            ++p;
        } else if (*p == 'j') {
            lm = LEN_MAX;
            ++p;
        } else if (*p == 't') {
            lm = LEN_PTRDIFF;
            ++p;
        }
        switch (*p) {
        case 'd':
        case 'i': {
            const intmax_t v = signed_arg(lm, &ap);
            const uintmax_t mag = v < 0 ? (uintmax_t)0 - (uintmax_t)v : (uintmax_t)v;
            put_number(&s, mag, v < 0, 10, false, "", width, left, zero);
            break;
        }
        case 'u':
            put_number(&s, unsigned_arg(lm, &ap), false, 10, false, "", width, left, zero);
            break;
        case 'x':
        case 'X':
            put_number(&s, unsigned_arg(lm, &ap), false, 16, *p == 'X', "", width, left, zero);
            break;
        case 'p': {
            const void* v = va_arg(ap, void*);
            if (v == nullptr)
                put_padded(&s, "(nil)", 5, width, left, ' ');
            else
                put_number(&s, (uintptr_t)v, false, 16, false, "0x", width, left, false);
            break;
        }
        case 'c': {
            const char c = (char)va_arg(ap, int);
            put_padded(&s, &c, 1, width, left, ' ');
            break;
        }
        case 's': {
            const char* str = va_arg(ap, const char*);
            if (str == nullptr)
                str = "(null)";
            size_t n = 0;
            while (str[n] != '\0' && (!has_prec || n < prec))
                ++n;
            put_padded(&s, str, n, width, left, ' ');
            break;
        }
        case '%':
            put(&s, '%');
            break;
        default:
            rc = -1;
            break;
        }
        if (rc != 0 || *p == '\0')
            break;
    }
    va_end(ap);
    if (len > 0)
        buf[s.pos < len ? s.pos : len - 1] = '\0';
    return rc != 0 ? -1 : (int)s.pos;
}

int sigs_format(char* buf, size_t len, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int n = sigs_vformat(buf, len, fmt, ap);
    va_end(ap);
    return n;
}

int sigs_write_all(int fd, const char* buf, size_t len)
{
    size_t done = 0;
    while (done < len) {
        const ssize_t n = write(fd, buf + done, len - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        if (n == 0) {
            errno = EIO;  // a descriptor that takes nothing would hold us here for good
            return -1;
        }
        done += (size_t)n;
    }
    return 0;
}
