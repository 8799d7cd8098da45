// The URL work of a streaming service: request paths that name a source
// and a destination, percent coding, playlist queries, HLS URLs. Several
// behaviours are deliberate and kept: %2f decodes to the letter O, a dot in
// a query hides the extension, a playlist query must hold one of three
// keys, and uri_split_alias terminates at twice the copied length.
#include "uri.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "log.h"
#include "syswrap.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

bool is_alias_char(char c)
{
    return c != '\0' && strchr(URI_ALIAS_CHARS, c) != nullptr;
}

// Copies at most n bytes of src and terminates; false when it did not fit
// in len.
bool copy_n(char* dst, size_t len, const char* src, size_t n)
{
    if (len == 0 || n >= len)
        return false;
    memcpy(dst, src, n);
    dst[n] = '\0';
    return true;
}

// A segment less its leading and trailing slash.
void word_of(const char* seg, size_t len, const char** w, size_t* wlen)
{
    if (len > 0 && seg[0] == '/') {
        ++seg;
        --len;
    }
    if (len > 0 && seg[len - 1] == '/')
        --len;
    *w = seg;
    *wlen = len;
}

bool word_is(const char* w, size_t wlen, const char* what)
{
    return wlen == strlen(what) && strncasecmp(w, what, wlen) == 0;
}

void clear(char* dst, size_t len)
{
    if (len > 0)
        dst[0] = '\0';
}

int endpts_src_dst(const char* rest, char* src, size_t slength, char* dst, size_t dlength)
{
    int depth = 1;
    const char* seg = nullptr;
    size_t seglen = 0;
    for (const char* at = rest; (at = uri_xseg(at, SLASHES, &seg, &seglen)) != nullptr; at = seg + seglen) {
        const char* w;
        size_t wlen;
        word_of(seg, seglen, &w, &wlen);
        if (word_is(w, wlen, "src"))
            ++depth;
        else if (word_is(w, wlen, "dst"))
            --depth;
        if (depth != 0)
            continue;
        const char* s_from;
        size_t s_len;
        word_of(rest, (size_t)(seg - rest), &s_from, &s_len);
        if (!copy_n(src, slength, s_from, s_len))
            return -1;
        const char* behind = seg + seglen;
        if (*behind == '/')
            ++behind;
        if (*behind != '\0') {
            strncpy(dst, behind, dlength - 1);
            dst[dlength - 1] = '\0';
        }
        return 0;
    }
    return depth;
}

int hex_value(char c)
{
    // The letters a to f go through the same subtraction as A to F.
    return (c >= '0' && c <= '9') ? c - '0' : c - 55;
}

void free_value(void* data)
{
    free(data);
}

}  // namespace

const char* uri_xseg(const char* s, const char* dlm, const char** pbuf, size_t* buflen)
{
    if (s == nullptr || *s == '\0')
        return nullptr;
    if (*s == dlm[0])
        ++s;
    if (*s == '\0')
        return nullptr;
    const char* end = strchr(s, dlm[1]);
    const size_t len = (end != nullptr) ? (size_t)(end - s) + 1 : strlen(s);
    *pbuf = s;
    *buflen = len;
    return s;
}

int uri_extract_endpts_ext(const char* s, char* src, size_t slength, char* dst, size_t dlength, uri_parse_ctx* ctx)
{
    if (strchr(s, '/') == nullptr) {
        if (!is_alias_char(s[0]))
            return URI_EP_NOSLASH;
        strncpy(src, s, slength - 1);
        src[slength - 1] = '\0';
        return 0;
    }
    const char* seg = nullptr;
    size_t seglen = 0;
    if (uri_xseg(s, SLASHES, &seg, &seglen) == nullptr)
        return URI_EP_NOSLASH;
    const char* w;
    size_t wlen;
    word_of(seg, seglen, &w, &wlen);
    const char* rest = seg + seglen;

    if (is_alias_char(w[0]))
        return copy_n(src, slength, w, wlen) ? 0 : URI_EP_TOOLONG;
    if (ctx != nullptr && wlen < 15) {
        memcpy(ctx->udpfx, w, wlen);
        ctx->udpfx[wlen] = '\0';
    }
    if (word_is(w, wlen, "udp") || word_is(w, wlen, "rtp")) {
        char scheme[8];
        if (!copy_n(scheme, sizeof(scheme), w, wlen))
            return URI_EP_WORDLONG;
        const char* nseg = nullptr;
        size_t nlen = 0;
        if (uri_xseg(rest, SLASHES, &nseg, &nlen) == nullptr)
            return URI_EP_NOADDR;
        const char* addr;
        size_t alen;
        word_of(nseg, nlen, &addr, &alen);
        const int n = snprintf(src, slength, "%s://%.*s", scheme, (int)alen, addr);
        if (n < 0 || (size_t)n >= slength)
            return URI_EP_TOOLONG;
        clear(dst, dlength);
        return 0;
    }
    if (word_is(w, wlen, HLS_M3U)) {
        strncpy(src, rest, slength - 1);
        src[slength - 1] = '\0';
        clear(dst, dlength);
        return 0;
    }
    if (word_is(w, wlen, HLS_FRA)) {
        const char* root = (ctx != nullptr && ctx->root_dir != nullptr) ? ctx->root_dir : "";
        const size_t rlen = strlen(root);
        const char* sep = (rlen != 0 && root[rlen - 1] != '/') ? "/" : "";
        const int n = snprintf(src, slength, "file://%s%s%s", root, sep, rest);
        if (n < 0 || (size_t)n >= slength)
            return URI_EP_NOROOM;
        clear(dst, dlength);
        return 0;
    }
    if (word_is(w, wlen, "src"))
        return endpts_src_dst(rest, src, slength, dst, dlength);
    return URI_EP_UNKNOWN;
}

char* uri_decode(char* s, size_t len)
{
    if (len == 0) {
        *s = '\0';
        return s;
    }
    size_t i = 0;
    size_t o = 0;
    while (i < len && s[i] != '\0') {
        const char c = s[i];
        if (c == '+') {
            s[o++] = ' ';
            ++i;
            continue;
        }
        if (c != '%') {
            s[o++] = c;
            ++i;
            continue;
        }
        if (i + 2 >= len || s[i + 1] == '\0' || s[i + 2] == '\0')
            return nullptr;
        const char h = s[i + 1];
        const char l = s[i + 2];
        i += 3;
        if (!isxdigit((unsigned char)h) || !isxdigit((unsigned char)l))
            continue;
        const int v = hex_value(h) * 16 + hex_value(l);
        s[o++] = (v >= 128 || !isprint(v)) ? '?' : (char)v;
    }
    if (o < len)
        s[o] = '\0';
    else
        s[len - 1] = '\0';
    return s;
}

char* uri_encode(char* s, size_t len)
{
    if (len == 0)
        return s;
    const size_t n = strnlen(s, len - 1);
    char* copy = static_cast<char*>(W_calloc("uri_encode", n + 1, 1));
    if (copy == nullptr)
        return nullptr;
    memcpy(copy, s, n);
    // Thirteen entries with the terminator, as memchr reads the list.
    static constexpr char k_reserved[] = ";/?:@&=+$,* ";
    static constexpr char k_hex[] = "0123456789ABCDEF";
    size_t o = 0;
    for (size_t i = 0; i < n && o < len - 1; ++i) {
        const auto c = (unsigned char)copy[i];
        const bool plain = c >= 0x20 && c < 0x7f && memchr(k_reserved, c, sizeof(k_reserved)) == nullptr;
        if (plain) {
            s[o++] = (char)c;
            continue;
        }
        if (len - 1 - o < 3)
            break;
        s[o++] = '%';
        s[o++] = k_hex[c >> 4];
        s[o++] = k_hex[c & 15];
    }
    s[o] = '\0';
    free(copy);
    return s;
}

int uri_query_parse(const char* query, skht_t* ht)
{
    if (query == nullptr || *query == '\0')
        return 0;
    skht_t tbl = nullptr;
    int rc = skht_create(&tbl, URI_QITEMS_MAX, plHash, nullptr, 0);
    if (rc != 0)
        return rc;
    size_t items = 0;
    for (const char* item = query; rc == 0 && item != nullptr && *item != '\0';) {
        const char* amp = strchr(item, '&');
        const size_t ilen = (amp != nullptr) ? (size_t)(amp - item) : strlen(item);
        if (++items > URI_QITEMS_MAX) {
            LOG_AT(ERR_level, "%s: too many query parameters: [%ld]\n", "uri_query_parse", (long)items);
            rc = -1;
            break;
        }
        const char* eq = static_cast<const char*>(memchr(item, '=', ilen));
        const size_t nlen = (eq != nullptr) ? (size_t)(eq - item) : 0;
        if (eq == nullptr || nlen == 0 || nlen >= URI_QNAME_MAX) {
            rc = -1;
            break;
        }
        char name[URI_QNAME_MAX];
        memcpy(name, item, nlen);
        name[nlen] = '\0';
        const size_t vlen = ilen - nlen - 1;
        if (vlen > URI_QVALUE_MAX) {
            LOG_AT(ERR_level, "%s: argument for query parameter [%s] is too long [%ld]\n", "uri_query_parse", name,
                   (long)vlen);
            rc = -1;
            break;
        }
        char* value = nullptr;
        if (vlen != 0) {
            // Room for the terminator of a value of exactly 32 characters.
            value = static_cast<char*>(W_calloc("uri_query_parse", URI_QVALUE_MAX + 1, 1));
            if (value == nullptr) {
                rc = ENOMEM;
                break;
            }
            memcpy(value, eq + 1, vlen);
        }
        if (ht != nullptr) {
            uri_decode(name, URI_QNAME_MAX);
            // Decoded within its block, so that a value of 32 characters
            // keeps its last one.
            if (value != nullptr)
                uri_decode(value, URI_QVALUE_MAX + 1);
        }
        void* pdat = value;
        rc = skht_add(tbl, name, &pdat);
        if (rc == EBUSY) {
            LOG_AT(ERR_level, "%s: duplicate query parameter [%s]\n", "uri_query_parse", name);
            free(value);
        } else if (rc != 0) {
            free(value);
        }
        item = (amp != nullptr) ? amp + 1 : nullptr;
    }
    if (rc != 0 || ht == nullptr) {
        skht_destroy(tbl, free_value);
        if (ht != nullptr)
            *ht = nullptr;
        return rc;
    }
    *ht = tbl;
    return 0;
}

int uri_m3u_extract(const char* uri, char* path, hls_uri_info* inf)
{
    uri_layout lay{};
    if (uri_parse(uri, &lay) != 0) {
        LOG_AT(ERR_level, "%s: URI parse ERROR: [%s]\n", "uri_m3u_extract", uri);
        return -1;
    }
    if (uri_get_path(&lay, path, URI_PATH_MAX) == nullptr) {
        LOG_AT(ERR_level, "%s: path ERROR\n", "uri_m3u_extract");
        return -1;
    }
    hls_uri_info got{0, PL_LIVE};
    if (lay.query != nullptr) {
        char query[URI_QUERY_MAX];
        if (uri_get_query(&lay, query, sizeof(query) - 1) == nullptr) {
            LOG_AT(ERR_level, "%s: query ERROR\n", "uri_m3u_extract");
            return -1;
        }
        skht_t ht = nullptr;
        int rc = uri_query_parse(query, &ht);
        if (rc != 0) {
            LOG_AT(ERR_level, "%s: uri_query_parse(%s,..) ERROR(%d)\n", "uri_m3u_extract", query, rc);
            return -1;
        }
        void* value = nullptr;
        bool ok = true;
        rc = skht_get(ht, "utime", &value);
        if (rc == 0) {
            const char* text = value != nullptr ? static_cast<const char*>(value) : "";
            got.utime = atol(text);
            if (got.utime == 0 && strcmp(text, "0") != 0) {
                LOG_AT(ERR_level, "%s: invalid timestamp: %s\n", "uri_m3u_extract", text);
                ok = false;
            } else {
                LOG_AT(DEBUG_level, "%s: utime=%ld\n", "uri_m3u_extract", got.utime);
            }
        } else if (rc != ESRCH) {
            LOG_AT(ERR_level, "%s: skht_get/ts ERROR(%d)\n", "uri_m3u_extract", rc);
            ok = false;
        } else if ((rc = skht_get(ht, "vod", &value)) == 0) {
            got = hls_uri_info{-1, PL_VOD};
            LOG_AT(DEBUG_level, "%s: got VOD request\n", "uri_m3u_extract");
        } else if (rc == ESRCH && (rc = skht_get(ht, "event", &value)) == 0) {
            got = hls_uri_info{-1, PL_EVENT};
            LOG_AT(DEBUG_level, "%s: got EVENT request\n", "uri_m3u_extract");
        } else if (rc != ESRCH) {
            LOG_AT(ERR_level, "%s: skht_get/vod ERROR(%d)\n", "uri_m3u_extract", rc);
            ok = false;
        } else {
            // A query must hold one of the three keys.
            LOG_AT(DEBUG_level, "%s: request treated is %s\n", "uri_m3u_extract", got.pl_type.sym);
            ok = false;
        }
        skht_destroy(ht, free_value);
        if (!ok)
            return -1;
        LOG_AT(DEBUG_level, "%s: timestamp=%ld\n", "uri_m3u_extract", got.utime);
    }
    if (inf != nullptr)
        *inf = got;
    return URI_HLS;
}

int uri_split_alias(const char* src, char* alias, size_t alen, const char** pquery)
{
    size_t n = 0;
    while (n + 1 < alen && src[n] != '\0' && src[n] != '?') {
        alias[n] = src[n];
        ++n;
    }
    // Deliberately at twice the length copied.
    alias[2 * n] = '\0';
    const char* q = strchr(src, '?');
    if (pquery != nullptr)
        *pquery = (q != nullptr) ? q + 1 : nullptr;
    return 0;
}

const char* uri_ensure_schema(const char* schema, const char* str, char* buf, size_t len)
{
    const size_t slen = strlen(schema);
    if (strncasecmp(str, schema, slen) == 0)
        return str;
    if (slen + strlen(str) >= len) {
        errno = E2BIG;
        return nullptr;
    }
    snprintf(buf, len, "%s%s", schema, str);
    return buf;
}

const char* uri_pre_path(const char* url)
{
    const char* p = strchr(url, '/');
    if (p != nullptr && p > url && p[-1] == ':' && p[1] == '/')
        return strchr(p + 2, '/');
    return p;
}

bool url_ends_with(const char* url, const char* ext)
{
    const char* dot = strrchr(url, '.');
    if (dot == nullptr)
        return false;
    char tail[32];
    strncpy(tail, dot, sizeof(tail) - 1);
    tail[sizeof(tail) - 1] = '\0';
    if (char* q = strchr(tail, '?'); q != nullptr)
        *q = '\0';
    return strcasecmp(tail, ext) == 0;
}

bool is_m3u_url(const char* url)
{
    return strstr(url, "/hls-m3u/") != nullptr && (url_ends_with(url, ".m3u") || url_ends_with(url, ".m3u8"));
}

bool is_fra_url(const char* url)
{
    return strstr(url, "/hls-fra/") != nullptr && url_ends_with(url, ".ts");
}

bool is_hls_url(const char* url)
{
    return is_m3u_url(url) || is_fra_url(url);
}

int mk_hls_item_url(const char* m3u_url, const char* path, char* buf, size_t buflen)
{
    static constexpr char k_http[] = "http://";
    constexpr size_t k_http_len = sizeof(k_http) - 1;
    const size_t plen = strlen(path);
    if (strncasecmp(path, k_http, k_http_len) == 0) {
        if (plen >= buflen) {
            LOG_AT(ERR_level, "%s: item URL too long for %ld bytes: %s\n", "mk_hls_item_url", (long)buflen, path);
            return EINVAL;
        }
        memcpy(buf, path, plen + 1);
        return 0;
    }
    if (strncasecmp(m3u_url, k_http, k_http_len) != 0) {
        LOG_AT(ERR_level, "%s: non-http M3U url: %s\n", "mk_hls_item_url", m3u_url);
        return EINVAL;
    }
    const char* slash = strrchr(m3u_url, '/');
    const size_t n = (size_t)(slash - m3u_url);
    // The prefix up to and including the slash, the path, a terminator.
    if (n < 8 || n + plen + 2 > buflen) {
        LOG_AT(ERR_level, "%s: pfx-len=%ld bad m3u URL: %s\n", "mk_hls_item_url", (long)n, m3u_url);
        return EINVAL;
    }
    memset(buf, 0, buflen);
    memcpy(buf, m3u_url, n + 1);
    memcpy(buf + n + 1, path, plen);
    return 0;
}
