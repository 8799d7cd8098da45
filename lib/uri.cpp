// Source URLs: the program's own small grammar, without escapes. The address
// and port of a network URL stand in what is called the path here, not in
// the authority.
#include "uri.h"

#include <strings.h>
#include <cstring>

#include "log.h"

LOG_UNIT(LLMOD_DEFAULT);

int uri_parse(const char* uri, uri_layout* layout)
{
    if (uri == nullptr)
        return -1;

    const char* p = uri + strspn(uri, " \t");
    const char* scheme = nullptr;
    size_t s_len = 0;
    const char* authority = nullptr;
    size_t a_len = 0;
    const char* rest = p;

    if (*p == '/') {
        // A plain path has no scheme and no authority. Its leading slash is
        // dropped: request handling takes the target /a/b as the path a/b.
        rest = p + 1;
    } else {
        const char* colon = strchr(p, ':');
        // A one-letter "scheme" would be a drive letter or a typo, not a
        // kind of source: such text stays whole.
        if (colon != nullptr && colon - p >= 2 && colon[1] == '/' && colon[2] == '/') {
            scheme = p;
            s_len = static_cast<size_t>(colon - p);
            rest = colon + 3;
            if (*rest == '\0')
                return -1;
            // The first "@" anywhere counts, even one that would otherwise
            // fall into the path or the query.
            const char* at = strchr(rest, '@');
            if (at != nullptr) {
                if (at > rest) {
                    authority = rest;
                    a_len = static_cast<size_t>(at - rest);
                }
                rest = at + 1;
                if (*rest == '\0')
                    return -1;
            }
        }
    }

    size_t rest_len = strlen(rest);
    const char* path = rest;
    size_t p_len = rest_len;
    const char* query = nullptr;
    size_t q_len = 0;

    // A URL ending in a slash has no query, whatever "?" it holds before.
    const char* qmark = strrchr(rest, '?');
    if (qmark != nullptr && !(rest_len > 0 && rest[rest_len - 1] == '/')) {
        p_len = static_cast<size_t>(qmark - rest);
        q_len = rest_len - p_len - 1;
        if (q_len > 0)
            query = qmark + 1;
    }
    if (p_len == 0)
        path = nullptr;

    if (layout != nullptr) {
        layout->scheme = scheme;
        layout->authority = authority;
        layout->path = path;
        layout->query = query;
        layout->s_len = s_len;
        layout->a_len = a_len;
        layout->p_len = p_len;
        layout->q_len = q_len;
    }
    return 0;
}

namespace {

const char* copy_segment(const char* seg, size_t seg_len, char* dest, size_t len)
{
    if (seg == nullptr || seg_len == 0) {
        if (dest != nullptr && len > 0)
            dest[0] = '\0';
        return nullptr;
    }
    if (dest == nullptr || seg_len + 1 > len)
        return nullptr;
    memcpy(dest, seg, seg_len);
    dest[seg_len] = '\0';
    return dest;
}

}  // namespace

const char* uri_get_scheme(const uri_layout* layout, char* dest, size_t len)
{
    return layout ? copy_segment(layout->scheme, layout->s_len, dest, len) : copy_segment(nullptr, 0, dest, len);
}

const char* uri_get_authority(const uri_layout* layout, char* dest, size_t len)
{
    return layout ? copy_segment(layout->authority, layout->a_len, dest, len)
                  : copy_segment(nullptr, 0, dest, len);
}

const char* uri_get_path(const uri_layout* layout, char* dest, size_t len)
{
    return layout ? copy_segment(layout->path, layout->p_len, dest, len) : copy_segment(nullptr, 0, dest, len);
}

const char* uri_get_query(const uri_layout* layout, char* dest, size_t len)
{
    return layout ? copy_segment(layout->query, layout->q_len, dest, len) : copy_segment(nullptr, 0, dest, len);
}

int uri_scheme_kind(const char* scheme)
{
    if (scheme == nullptr)
        return URI_BAD;
    for (int i = 0; URI_KIND_STR[i] != nullptr; ++i) {
        if (strcasecmp(scheme, URI_KIND_STR[i]) == 0)
            return i;
    }
    return URI_BAD;
}

int uri_extract(const char* uri, char* scheme, char* authority, char* path, char* query)
{
    static constexpr const char* fn = "extract";
    uri_layout lay{};
    char own_scheme[URI_SCHEME_MAX] = {};
    char* sch = scheme ? scheme : own_scheme;

    if (uri_parse(uri, &lay) != 0) {
        LOG_AT(ERR_level, "%s: uri_parse ERROR\n", fn);
        goto fail;
    }
    // Without the caller's buffer a missing or over-long scheme is left to
    // the look-up below, which then finds no kind.
    if (uri_get_scheme(&lay, sch, URI_SCHEME_MAX) == nullptr && scheme != nullptr) {
        LOG_AT(ERR_level, "%s: uri_get_scheme ERROR\n", fn);
        goto fail;
    }
    if (authority != nullptr && lay.authority != nullptr &&
        uri_get_authority(&lay, authority, URI_AUTH_MAX) == nullptr) {
        LOG_AT(ERR_level, "%s: uri_get_authority ERROR\n", fn);
        goto fail;
    }
    // Every source needs a path, so here an absent one is an error as well.
    if (path != nullptr && uri_get_path(&lay, path, URI_PATH_MAX) == nullptr) {
        LOG_AT(ERR_level, "%s: uri_get_path ERROR\n", fn);
        goto fail;
    }
    if (query != nullptr && lay.query != nullptr && uri_get_query(&lay, query, URI_QUERY_MAX) == nullptr) {
        LOG_AT(ERR_level, "%s: uri_get_query ERROR\n", fn);
        goto fail;
    }
    {
        int kind = uri_scheme_kind(sch);
        if (kind != URI_BAD)
            return kind;
    }

fail:
    LOG_AT(ERR_level, "%s: error parsing URI: [%s]\n", "uri_extract", uri ? uri : "");
    return URI_BAD;
}

namespace {

// Index of the first character of set in s[from, end), or end: the scan
// never reads past the capacity of the text.
size_t scan_to(const char* s, size_t from, size_t end, const char* set)
{
    size_t i = from;
    while (i < end && strchr(set, s[i]) == nullptr)
        ++i;
    return i;
}

const char* addrport_fail(const char* path)
{
    LOG_AT(ERR_level, "%s: ERROR parsing path=[%s]\n", "uri_path_addrport", path ? path : "");
    return nullptr;
}

}  // namespace

const char* uri_path_addrport(const char* path, size_t path_len, char* addr, size_t addr_len, char* port,
                              size_t port_len)
{
    if (path == nullptr)
        return addrport_fail(path);

    // The text ends at its terminator or at its capacity, whichever comes
    // first. A scan that runs into the capacity found no end inside the
    // buffer, and the parse fails rather than read past it.
    const size_t end = strnlen(path, path_len);

    size_t i = 0;
    while (i < end && strchr(" \t/", path[i]) != nullptr)
        ++i;
    if (i >= path_len)
        return addrport_fail(path);

    size_t a_beg = i;
    size_t a_end;
    // An IPv6 address has colons of its own, so it must stand in brackets.
    bool bracketed = path[i] == '[';
    if (bracketed) {
        a_beg = i + 1;
        a_end = scan_to(path, a_beg, end, "]?/");
        if (a_end >= end || path[a_end] != ']')
            return addrport_fail(path);
    } else {
        a_end = scan_to(path, a_beg, end, ":?/");
    }

    size_t pos = bracketed ? a_end + 1 : a_end;
    if (pos >= path_len)
        return addrport_fail(path);

    bool has_port = false;
    size_t p_beg = pos;
    size_t p_end = pos;
    if (pos < end && path[pos] == ':') {
        has_port = true;
        p_beg = pos + 1;
        p_end = scan_to(path, p_beg, end, "?/");
        if (p_end >= path_len)
            return addrport_fail(path);
    }

    size_t alen = a_end - a_beg;
    if (alen > 0 && addr != nullptr) {
        if (alen + 1 > addr_len)
            return addrport_fail(path);
        memcpy(addr, path + a_beg, alen);
        addr[alen] = '\0';
    }
    // Any text will do as a port here; the socket layer judges it.
    size_t plen = p_end - p_beg;
    if (plen > 0 && port != nullptr) {
        if (plen + 1 > port_len)
            return addrport_fail(path);
        memcpy(port, path + p_beg, plen);
        port[plen] = '\0';
    }

    // Without a port, a bracketed address ends at its closing bracket, so
    // the tail then begins with "]".
    return path + (has_port ? p_end : a_end);
}
