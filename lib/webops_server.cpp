// The server side of HTTP: a client's request head parsed into what a
// service needs, its path split into a source and a destination, and small
// responses from a table of canned ones. Header look-up is deliberately
// loose: a title is found anywhere, also inside another header's value.
#include "webops.h"

#include <cctype>
#include <cstdarg>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "fdio.h"
#include "log.h"
#include "syswrap.h"
#include "util.h"

LOG_UNIT(LLMOD_DEFAULT);

http_response g_resp_none = {};
http_response g_resp_ok = {200, nullptr, nullptr, -1, "OK", nullptr, nullptr, nullptr, nullptr, nullptr};
http_response g_resp_ok204 = {204, nullptr, nullptr, -1, "No Content", nullptr, nullptr, nullptr, nullptr, nullptr};
http_response g_resp_tmoved = {302, nullptr, nullptr, 0, "Moved Temporarily", nullptr, "close", nullptr, nullptr,
                               nullptr};
http_response g_resp_bad = {400, nullptr, nullptr, 0, "Bad request", nullptr, nullptr, nullptr, nullptr, nullptr};
http_response g_resp_denied = {403, nullptr, nullptr, 0, "Forbidden", nullptr, "close", nullptr, nullptr, nullptr};
http_response g_resp_nfound = {404, nullptr, nullptr, 0, "Not Found", nullptr, "close", nullptr, nullptr, nullptr};
http_response g_resp_unacc = {406, nullptr, nullptr, 0, "Not Acceptable", nullptr, "close", nullptr, nullptr,
                              nullptr};
http_response g_resp_timeout = {408, nullptr, nullptr, 0, "Request Timeout", nullptr, "close", nullptr, nullptr,
                                nullptr};
http_response g_resp_err = {500, nullptr, nullptr, 0, "Service error", nullptr, "close", nullptr, nullptr, nullptr};
http_response g_resp_bgw = {502, nullptr, nullptr, 0, "Bad Gateway", nullptr, "close", nullptr, nullptr, nullptr};
http_response g_resp_svcun = {503, nullptr, nullptr, 0, "Service Unavailable", nullptr, "close", nullptr, nullptr,
                              nullptr};
http_response g_resp_gwtmo = {504, nullptr, nullptr, 0, "Gateway Timeout", nullptr, "close", nullptr, nullptr,
                              nullptr};
http_response* g_resp = nullptr;

namespace {

constexpr size_t k_query_max = 256;
constexpr size_t k_field_size = 127;

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

// The value of a header copied into dst of size dstlen, cut to fit.
void copy_value(char* dst, size_t dstlen, const char* v, size_t len)
{
    snprintf(dst, dstlen, "%.*s", (int)len, v);
}

void read_headers(const char* p, http_header* hdr)
{
    size_t len = 0;
    const char* v = find_http_header("Host:", p, &len);
    if (v != nullptr && len != 0) {
        if (len < HTTP_HOST_MAX) {
            copy_value(hdr->host, sizeof(hdr->host), v, len);
            LOG_AT(DEBUG_level, "%s: Host: %s\n", "parse_http_header", hdr->host);
        } else {
            LOG_AT(ERR_level, "%s: Host length is too long: %lu\n", "parse_http_header", (unsigned long)len);
        }
    }
    v = find_http_header("User-Agent:", p, &len);
    if (v != nullptr && len != 0) {
        if (len >= HTTP_UA_MAX)
            LOG_AT(WARN_level, "%s: User-Agent length is too long: %lu\n", "parse_http_header", (unsigned long)len);
        copy_value(hdr->user_agent, HTTP_UA_MAX - 1, v, len);
        LOG_AT(DEBUG_level, "%s: User-Agent: %s\n", "parse_http_header", hdr->user_agent);
        uri_encode(hdr->user_agent, sizeof(hdr->user_agent));
    }
    v = find_http_header("Connection:", p, &len);
    if (v != nullptr && len != 0) {
        char conn[32];
        copy_value(conn, sizeof(conn), v, len);
        LOG_AT(DEBUG_level, "%s: Connection: %s\n", "parse_http_header", conn);
        // The whole value is compared: "keep-alive, close" is neither.
        if (strcasecmp(conn, "keep-alive") == 0)
            hdr->is_keep_alive = true;
        else if (strcasecmp(conn, "close") == 0)
            hdr->is_close = true;
    }
    v = find_http_header("Accept-Encoding:", p, &len);
    if (v != nullptr && len != 0) {
        copy_value(hdr->accept_enc, sizeof(hdr->accept_enc), v, len);
        LOG_AT(DEBUG_level, "%s: %s %s\n", "parse_http_header", "Accept-Encoding:", hdr->accept_enc);
        if (len >= HTTP_AENC_MAX)
            LOG_AT(WARN_level, "%s: [%s] text has been trimmed from %zu to %zu chars\n", "parse_http_header",
                   "Accept-Encoding:", len, HTTP_AENC_MAX - 1);
    }
}

// Appends one header line through a field buffer: 0, 1 when the line was
// too long and is left out, -1 when the response has no room for it.
int add_line(char* buf, size_t buflen, size_t& total, const char* fmt, ...) __attribute__((format(printf, 4, 5)));

int add_line(char* buf, size_t buflen, size_t& total, const char* fmt, ...)
{
    char field[k_field_size + 1];
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(field, k_field_size, fmt, ap);
    va_end(ap);
    if (n < 0 || (size_t)n >= k_field_size)
        return 1;
    if ((size_t)n >= buflen - total)
        return -1;
    memcpy(buf + total, field, (size_t)n);
    total += (size_t)n;
    return 0;
}

bool has_text(const char* s)
{
    return s != nullptr && *s != '\0';
}

}  // namespace

const char* find_http_header(const char* title, const char* buf, size_t* hdr_len)
{
    if (hdr_len != nullptr)
        *hdr_len = 0;
    const char* at = strcasestr(buf, title);
    if (at == nullptr)
        return nullptr;
    at += strlen(title);
    if (*at == ':')
        ++at;
    if (!isspace((unsigned char)*at))
        return nullptr;
    // Line ends too: an empty value takes the next line for its own.
    while (isspace((unsigned char)*at))
        ++at;
    const char* end = at;
    while (*end != '\0' && !iscntrl((unsigned char)*end))
        ++end;
    if (*end != '\r' && *end != '\n')
        return nullptr;
    if (hdr_len != nullptr)
        *hdr_len = (size_t)(end - at);
    return at;
}

int parse_http_header(const char* http_rq, size_t rqlen, http_header* hdr, char* urlbuf, size_t urlen)
{
    LOG_AT(DEBUG_level, "%s: %lu bytes [%s]\n", "parse_http_header", (unsigned long)rqlen, http_rq);
    *hdr = http_header{};
    const char* end = http_rq + rqlen;
    const char* p = http_rq;
    while (p < end && !is_blank(*p) && *p != '\0')
        ++p;
    const size_t mlen = (size_t)(p - http_rq);
    if (mlen < 3 || mlen > 7) {
        LOG_AT(ERR_level, "%s: failed to get HTTP method from %7s\n", "parse_http_header", http_rq);
        return -1;
    }
    char method[8];
    memcpy(method, http_rq, mlen);
    method[mlen] = '\0';
    if (strcasecmp(method, "GET") == 0) {
        hdr->type = RQTYPE_GET;
    } else if (strcasecmp(method, "HEAD") == 0) {
        hdr->type = RQTYPE_HEAD;
        LOG_AT(DEBUG_level, "%s: identified as HEAD\n", "parse_http_header");
    } else {
        LOG_AT(ERR_level, "HTTP [%s] is NOT supported\n", method);
        return EINVAL;
    }
    LOG_AT(DEBUG_level, "%s: %s request\n", "parse_http_header", method);

    while (p < end && isspace((unsigned char)*p))
        ++p;
    const char* target = p;
    while (p < end && *p != '\0' && !isspace((unsigned char)*p))
        ++p;
    const size_t tlen = (size_t)(p - target);
    // The target is terminated for a moment, in the caller's buffer, so
    // that its segments can point there.
    char* held = const_cast<char*>(p);
    const char saved = (p < end) ? *held : '\0';
    if (p < end)
        *held = '\0';
    if (urlbuf != nullptr && tlen < urlen) {
        memcpy(urlbuf, target, tlen);
        urlbuf[tlen] = '\0';
        LOG_AT(DEBUG_level, "%s: full URL=[%s]\n", "parse_http_header", urlbuf);
    }
    const int rc = uri_parse(target, &hdr->uri);
    LOG_AT(DEBUG_level, "%s: url=[%s], p_len=%u, q_len=%u, rc=%d\n", "parse_http_header", target,
           (unsigned)hdr->uri.p_len, (unsigned)hdr->uri.q_len, rc);
    if (p < end)
        *held = saved;
    if (rc != 0) {
        LOG_AT(ERR_level, "%s: failed to parse URL\n", "parse_http_header");
        return rc;
    }

    while (p < end && is_blank(*p))
        ++p;
    if (p < end && *p != '\0' && *p != '\r' && *p != '\n') {
        static constexpr char k_proto[] = "HTTP/1.";
        if ((size_t)(end - p) < sizeof(k_proto) - 1 || strncmp(p, k_proto, sizeof(k_proto) - 1) != 0) {
            LOG_AT(ERR_level, "%s: expected [%s] to follow the URI path, got [%s]\n", "parse_http_header", k_proto, p);
            return -1;
        }
        const char* ver = p + sizeof(k_proto) - 1;
        LOG_AT(DEBUG_level, "%s: request protocol: [%.*s]\n", "parse_http_header", (int)(ver - p + 1), p);
        if (ver < end && *ver == '0') {
            hdr->is_http10 = true;
            LOG_AT(DEBUG_level, "%s: HTTP/1.0 detected\n", "parse_http_header");
        }
    }
    const char* nl = static_cast<const char*>(memchr(p, '\n', (size_t)(end - p)));
    if (nl == nullptr || nl + 1 >= end || nl[1] == '\0') {
        LOG_AT(WARN_level, "%s: no header sections found\n", "parse_http_header");
        return 0;
    }
    LOG_AT(DEBUG_level, "%s: p=[%s]\n", "parse_http_header", nl + 1);
    read_headers(nl + 1, hdr);
    return 0;
}

ssize_t extract_num_hdr(const char* title, const char* buf, size_t len)
{
    (void)len;
    size_t vlen = 0;
    const char* v = find_http_header(title, buf, &vlen);
    if (v == nullptr || vlen == 0)
        return -1;
    char num[32];
    if (vlen >= sizeof(num)) {
        LOG_AT(WARN_level, "%s: header [%s] value length is too big: %lu bytes\n", "extract_num_hdr", title,
               (unsigned long)vlen);
        vlen = sizeof(num) - 1;
    }
    memcpy(num, v, vlen);
    num[vlen] = '\0';
    return (ssize_t)atol(num);
}

int mk_full_url(const http_header* hdr, char* buf, size_t buflen)
{
    if (hdr->host[0] == '\0' || hdr->uri.path == nullptr)
        return EINVAL;
    const int n = snprintf(buf, buflen, "%s/%.*s", hdr->host, (int)hdr->uri.p_len, hdr->uri.path);
    if (n < 0 || (size_t)n >= buflen)
        return EINVAL;
    LOG_AT(DEBUG_level, "%s: %s\n", "mk_full_url", buf);
    return 0;
}

int extract_http_request_path_query(const char* http_rq, size_t hlen, char* path, size_t plen, char* query,
                                    size_t qlen)
{
    http_header hdr;
    const int rc = parse_http_header(http_rq, hlen, &hdr, nullptr, 0);
    if (rc != 0)
        return rc;
    if (hdr.uri.path == nullptr) {
        LOG_AT(ERR_level, "%s: no URI path found in [%s]\n", "extract_http_request_path_query", http_rq);
        return -1;
    }
    if (hdr.uri.p_len >= plen) {
        LOG_AT(ERR_level, "%s: path is too long [%ld chars, allowed: %ld]: %80s...\n",
               "extract_http_request_path_query", (long)hdr.uri.p_len, (long)plen - 1, hdr.uri.path);
        return -1;
    }
    // Deliberately one more than the path: a query of exactly qlen
    // characters is taken, and its terminator makes qlen + 1 bytes.
    if (hdr.uri.q_len > qlen) {
        LOG_AT(ERR_level, "%s: query is too long [%ld chars, allowed: %ld]: %80s...\n",
               "extract_http_request_path_query", (long)hdr.uri.q_len, (long)qlen, hdr.uri.query);
        return -1;
    }
    memcpy(path, hdr.uri.path, hdr.uri.p_len);
    path[hdr.uri.p_len] = '\0';
    if (hdr.uri.query != nullptr)
        memcpy(query, hdr.uri.query, hdr.uri.q_len);
    query[hdr.uri.query != nullptr ? hdr.uri.q_len : 0] = '\0';
    return 0;
}

bool is_ping_request(const char* path)
{
    if (*path == '/')
        ++path;
    return strcasecmp(path, "ping") == 0 || strcasecmp(path, "ping/") == 0;
}

namespace {

// Splits a path into source and destination and decodes both; 0, or the
// failure with its line, named after the caller.
int split_and_decode(const char* caller, const char* what, const char* path, char* uri_src, char* uri_dst,
                     size_t ulen)
{
    const int rc = uri_extract_endpts_ext(path, uri_src, ulen, uri_dst, ulen, nullptr);
    if (rc != 0) {
        LOG_AT(ERR_level, "%s: error(%d) parsing %s [%s]\n", caller, rc, what, path);
        return rc;
    }
    if (uri_decode(uri_src, ulen) == nullptr || uri_decode(uri_dst, ulen) == nullptr) {
        LOG_AT(ERR_level, "%s: error URI-decoding\n", caller);
        return -1;
    }
    return 0;
}

}  // namespace

int web_parse_urq(char* http, size_t hlen, char* uri_src, char* uri_dst, size_t ulen, http_header* user_hdr)
{
    http_header hdr;
    int rc = parse_http_header(http, hlen, &hdr, nullptr, 0);
    if (rc != 0)
        return rc;
    if (user_hdr != nullptr)
        *user_hdr = hdr;
    if (hdr.uri.path == nullptr) {
        LOG_AT(WARN_level, "%s: no path in URL [%s]\n", "web_parse_urq", http);
        return WEB_NOPATH;
    }
    char* query = nullptr;
    if (hdr.uri.query != nullptr) {
        if (hdr.uri.q_len >= k_query_max) {
            LOG_AT(ERR_level, "%s: URI query length (%lu bytes) is beyond the limit: %lu\n", "web_parse_urq",
                   (unsigned long)hdr.uri.q_len, (unsigned long)k_query_max);
            return WEB_QUERYBIG;
        }
        query = static_cast<char*>(W_calloc("web_parse_urq", hdr.uri.q_len + 1, 1));
        if (query == nullptr)
            return -1;
        memcpy(query, hdr.uri.query, hdr.uri.q_len);
    }
    char* path = const_cast<char*>(hdr.uri.path);
    path[hdr.uri.p_len] = '\0';
    LOG_AT(DEBUG_level, "%s: URI path=[%s], query=[%s]\n", "web_parse_urq", path, query != nullptr ? query : "");
    if (strcasecmp(path, HTTP_FAVICON_RQ) == 0) {
        LOG_AT(DEBUG_level, "%s: favicon request received.\n", "web_parse_urq");
        free(query);
        return RC_FAVICON;
    }
    uri_src[0] = '\0';
    uri_dst[0] = '\0';
    if (is_ping_request(path)) {
        LOG_AT(INFO_level, "Handling user-side PING request\n");
        free(query);
        return RC_PING;
    }
    rc = split_and_decode("web_parse_urq", "request data", path, uri_src, uri_dst, ulen);
    if (rc != 0) {
        free(query);
        return -1;
    }
    if (query != nullptr) {
        const size_t qlen = strlen(query);
        const size_t used = strlen(uri_src);
        if (ulen - used <= qlen + 1) {
            LOG_AT(ERR_level, "%s: URI query is too long (%lu bytes), max allowed=%ld bytes, discarding request\n",
                   "web_parse_urq", (unsigned long)qlen, (long)(ulen - used) - 2);
            free(query);
            return WEB_URIBIG;
        }
        uri_src[used] = '?';
        memcpy(uri_src + used + 1, query, qlen + 1);
        LOG_AT(DEBUG_level, "%s: query [%s] appended to source\n", "web_parse_urq", query);
    }
    LOG_AT(DEBUG_level, "%s: URI=[%s] - src=[%s], dst=[%s]\n", "web_parse_urq", path, uri_src, uri_dst);
    free(query);
    return 0;
}

int web_parse_url(const char* url, char* uri_src, char* uri_dst, size_t ulen)
{
    uri_layout lay{};
    const int rc = uri_parse(url, &lay);
    if (rc != 0)
        return rc;
    if (lay.p_len == 0 || lay.p_len >= URI_PATH_MAX) {
        LOG_AT(ERR_level, "%s: invalid path size: %zu\n", "web_parse_url", lay.p_len);
        return WEB_BADPATH;
    }
    char path[URI_PATH_MAX];
    memcpy(path, lay.path, lay.p_len);
    path[lay.p_len] = '\0';
    return split_and_decode("web_parse_url", "path", path, uri_src, uri_dst, ulen);
}

ssize_t mk_http_xt_resp(const http_response* r, int version, char* buf, size_t buflen)
{
    LOG_ASSERT(r->code != 0 && r->reason != nullptr && r->server != nullptr);
    if (version != 10 && version != 11) {
        LOG_AT(ERR_level, "%s: HTTP/%d.%d not supported\n", "mk_http_xt_resp", version / 10, version % 10);
        return EINVAL;
    }
    const int n = snprintf(buf, buflen, "HTTP/%d.%d %d %s\r\nServer: %s\r\n", version / 10, version % 10, r->code,
                           r->reason, r->server);
    if (n <= 0 || (size_t)n >= buflen)
        return -1;
    size_t total = (size_t)n;
    if ((has_text(r->content_type) && add_line(buf, buflen, total, "Content-Type: %s\r\n", r->content_type) < 0) ||
        (has_text(r->content_encoding) &&
         add_line(buf, buflen, total, "Content-Encoding: %s\r\n", r->content_encoding) < 0) ||
        (r->content_length >= 0 &&
         add_line(buf, buflen, total, "Content-Length: %lu\r\n", (unsigned long)r->content_length) < 0) ||
        (has_text(r->connection) && add_line(buf, buflen, total, "Connection: %s\r\n", r->connection) < 0) ||
        (has_text(r->location) && add_line(buf, buflen, total, "Location: %s\r\n", r->location) < 0))
        return -1;
    if (r->code == 200 && has_text(r->ok_suffix)) {
        const size_t slen = strlen(r->ok_suffix);
        if (slen + 2 >= buflen - total)
            return -1;
        memcpy(buf + total, r->ok_suffix, slen);
        memcpy(buf + total + slen, "\r\n", 2);
        total += slen + 2;
    }
    if (buflen - total < 3)
        return -1;
    memcpy(buf + total, "\r\n", 2);
    total += 2;
    const size_t head = total;
    if (r->fpath != nullptr) {
        const ssize_t got = read_file_buf(r->fpath, buf + total, buflen - total - 1);
        if (got < 1)
            return -1;
        LOG_AT(DEBUG_level, "%s: file [%s] of %zd bytes included in HTTP response\n", "mk_http_xt_resp", r->fpath,
               got);
        total += (size_t)got;
    }
    buf[total] = '\0';
    LOG_AT(DEBUG_level, "%s: header:%d/total:%d bytes\n%.*s\n", "mk_http_xt_resp", (int)head, (int)total, (int)head,
           buf);
    return (ssize_t)total;
}

int send_http_response(int sockfd, const http_response* r)
{
    char buf[HTTP_RESP_BUFSZ];
    const ssize_t n = mk_http_xt_resp(r, 11, buf, sizeof(buf));
    bool ok = n > 0;
    ssize_t sent = 0;
    if (ok) {
        sent = nwrite(sockfd, buf, (size_t)n, FDIO_VERBOSE);
        if (sent < 1) {
            LOG_AT(ERR_level, "%s: error sending HTTP response to fd=%d\n", "send_http_response", sockfd);
            ok = false;
        } else if (sent < n) {
            LOG_AT(WARN_level, "%s: only %ld out of %ld bytes sent to fd=%d\n", "send_http_response", (long)sent,
                   (long)n, sockfd);
        }
    }
    if (!ok) {
        LOG_AT(ERR_level, "%s: error compiling HTTP response for fd=%d\n", "send_http_response", sockfd);
        return -1;
    }
    LOG_AT(DEBUG_level, "%s: sent HTTP response (%ld bytes) to fd=%d:\n%s\n", "send_http_response", (long)sent, sockfd,
           buf);
    return 0;
}

http_response* http_code_resp(int http_code)
{
    static http_response* const k_table[] = {&g_resp_ok,     &g_resp_ok204,  &g_resp_tmoved, &g_resp_bad,
                                             &g_resp_denied, &g_resp_nfound, &g_resp_unacc,  &g_resp_timeout,
                                             &g_resp_err,    &g_resp_bgw,    &g_resp_svcun,  &g_resp_gwtmo};
    for (http_response* r : k_table)
        if (r->code == http_code)
            return r;
    LOG_AT(WARN_level, "%s: no response for HTTP%d defined, please update the lib!\n", "http_code_resp", http_code);
    return http_code < 300 ? &g_resp_ok : &g_resp_err;
}

int web_escape(const char* src, char* dst, size_t dstlen)
{
    static constexpr char k_esc[] = "&><'\"";
    static constexpr const char* k_seq[] = {"&amp;", "&gt;", "&lt;", "&apos;", "&quot;"};
    if (src == nullptr || *src == '\0' || strpbrk(src, k_esc) == nullptr)
        return 0;
    int count = 0;
    size_t pos = 0;
    const char* seg = src;
    for (const char* sp; (sp = strpbrk(seg, k_esc)) != nullptr; seg = sp + 1) {
        ++count;
        if (dst == nullptr)
            continue;
        const size_t tlen = (size_t)(sp - seg);
        const char* rep = k_seq[strchr(k_esc, *sp) - k_esc];
        const size_t rlen = strlen(rep);
        if (pos + tlen + rlen >= dstlen)
            return -ERANGE;
        memcpy(dst + pos, seg, tlen);
        memcpy(dst + pos + tlen, rep, rlen);
        pos += tlen + rlen;
    }
    if (*seg != '\0') {
        ++count;
        if (dst != nullptr) {
            const size_t tlen = strlen(seg);
            if (pos + tlen >= dstlen)
                return -ERANGE;
            // No terminator of its own: dst is zeroed by the caller.
            memcpy(dst + pos, seg, tlen);
        }
    }
    return count;
}
