// kst-web's answers: the routing of a head to its answer, small answers,
// and bodies that go out from a descriptor. A snapshot name that would
// leave the directory is refused with 403 whatever its form: "..", a slash,
// an encoded one, an absolute path, or a link that points out.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kstweb.h"
#include "log.h"
#include "rqs.h"
#include "uri.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr const char* k_server = "kst-web";

// The head of a body that follows by write events; false when it could not
// be sent.
bool send_head(kw_request* rq, const char* type, off_t length)
{
    http_response r = g_resp_ok;
    r.server = k_server;
    r.content_type = type;
    r.content_length = (long)length;
    r.connection = "close";
    char buf[HTTP_RESP_BUFSZ];
    const ssize_t n = mk_http_xt_resp(&r, 11, buf, sizeof(buf));
    if (n <= 0 || write(rq->h.fd, buf, (size_t)n) != n)
        return false;
    kw_count(200);
    return true;
}

void start_body(kw_request* rq, int in_fd, off_t length, uint32_t flags)
{
    rq->file_fd = in_fd;
    rq->offset = 0;
    rq->fdio_flags = flags;
    rq->tsp = transfer_spec{};
    rq->tsp.in_fd = in_fd;
    rq->tsp.out_fd = rq->h.fd;
    rq->tsp.offset = &rq->offset;
    rq->tsp.flags = &rq->fdio_flags;
    rq->answered = true;
    if (length == 0) {
        (void)rui_pprm_request(rq);
        return;
    }
    rq->sending = true;
    (void)rqs_mod(rq->h.fd, rq, RQS_READ | RQS_WRITE);
}

// "instances/N/WHAT": N and WHAT, or false.
bool instance_path(const char* path, unsigned* nid, const char** what)
{
    const char* p = path + strlen("instances/");
    char* end = nullptr;
    if (!isdigit((unsigned char)*p) || strspn(p, "0123456789") > 9)
        return false;
    *nid = (unsigned)strtoul(p, &end, 10);
    if (*end != '/')
        return false;
    *what = end + 1;
    return true;
}

void serve_log(kw_request* rq, unsigned nid, bool head_only)
{
    kw_instance in;
    kw_instance_scan(nid, &in);
    if (in.found < 0) {
        LOG_AT(WARN_level, "%s: instance %u: %s is not a flight-recorder ring: %s\n", "kw_serve", nid, in.ring,
               in.why);
        kw_answer(rq, g_resp_bgw);
        return;
    }
    if (in.found == 0) {
        kw_answer(rq, g_resp_nfound);
        return;
    }
    char tmpl[] = "/tmp/kst-web-log-XXXXXX";
    const int fd = mkstemp(tmpl);
    if (fd < 0) {
        kw_answer(rq, g_resp_err);
        return;
    }
    unlink(tmpl);
    if (kw_instance_text(&in, fd) != 0) {
        close(fd);
        kw_answer(rq, g_resp_err);
        return;
    }
    kw_send_fd(rq, fd, "text/plain; charset=utf-8", lseek(fd, 0, SEEK_END), head_only);
}

void serve_instance(kw_request* rq, const char* path, bool head_only)
{
    unsigned nid = 0;
    const char* what = nullptr;
    if (!instance_path(path, &nid, &what) || (strcmp(what, "log") != 0 && strcmp(what, "snapshot") != 0)) {
        kw_answer(rq, g_resp_nfound);
        return;
    }
    if (strcmp(what, "snapshot") == 0) {
        // The toolkit answers GET and HEAD alone: this GET has an effect,
        // and only the admin listener, not exposed by default, takes it.
        if (!kw_is_admin(rq)) {
            LOG_AT(WARN_level, "%s: instance %u: trigger refused: not on an admin listener\n", "kw_serve", nid);
            ++g_kw.triggers[KW_TRG_REFUSED];
            kw_answer(rq, g_resp_denied);
            return;
        }
        if (head_only) {
            kw_answer_code(rq, 405, "Method Not Allowed");
            return;
        }
        kw_trigger(rq, nid);
        return;
    }
    if (!kw_instance_configured(nid)) {
        kw_answer(rq, g_resp_nfound);
        return;
    }
    serve_log(rq, nid, head_only);
}

}  // namespace

void kw_count(int code)
{
    const int cls = code / 100 - 2;
    ++g_kw.served[(cls >= 0 && cls < 4) ? cls : KW_COTHER];
}

void kw_answer(kw_request* rq, http_response r)
{
    r.server = k_server;
    if (r.content_length < 0)
        r.content_length = 0;
    (void)send_http_response(rq->h.fd, &r);
    kw_count(r.code);
    rq->answered = true;
    rq->waiting = false;
    if (!rq->draining)
        (void)rui_pprm_request(rq);
}

void kw_answer_code(kw_request* rq, int code, const char* reason)
{
    http_response r = g_resp_none;
    r.code = code;
    r.reason = reason;
    r.content_length = 0;
    r.connection = "close";
    kw_answer(rq, r);
}

void kw_send_fd(kw_request* rq, int fd, const char* type, off_t length, bool head_only)
{
    if (length < 0 || !send_head(rq, type, length)) {
        close(fd);
        rq->answered = true;
        (void)rui_pprm_request(rq);
        return;
    }
    uint32_t flags = 0;
    struct stat st, sock;
    int socktype = 0;
    socklen_t len = sizeof(socktype);
    if (fstat(fd, &st) == 0 && fstat(rq->h.fd, &sock) == 0 &&
        getsockopt(rq->h.fd, SOL_SOCKET, SO_TYPE, &socktype, &len) == 0)
        (void)check_can_sendfile(st.st_mode, sock.st_mode, socktype, &flags);
    (void)lseek(fd, 0, SEEK_SET);
    start_body(rq, fd, head_only ? 0 : length, flags);
}

// A page goes out from a file of its own, as a snapshot does: one path for
// every body, and the loop never holds a large buffer per client.
void kw_send_text(kw_request* rq, const char* type, const std::string& body, bool head_only)
{
    char tmpl[] = "/tmp/kst-web-page-XXXXXX";
    const int fd = mkstemp(tmpl);
    if (fd < 0) {
        kw_answer(rq, g_resp_err);
        return;
    }
    unlink(tmpl);
    if (write(fd, body.data(), body.size()) != (ssize_t)body.size()) {
        close(fd);
        kw_answer(rq, g_resp_err);
        return;
    }
    kw_send_fd(rq, fd, type, (off_t)body.size(), head_only);
}

void kw_serve_snapshot(kw_request* rq, const char* name, bool head_only)
{
    if (kw_check_name(name) != 0) {
        LOG_AT(WARN_level, "%s: [%s] refused: not a snapshot of the directory\n", "kw_serve", name);
        kw_answer(rq, g_resp_denied);
        return;
    }
    const int fd = openat(g_kw.dirfd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) {
            kw_answer(rq, g_resp_nfound);
        } else {
            // A link (ELOOP), or a file that may not be read.
            LOG_AT(WARN_level, "%s: [%s] refused: %s\n", "kw_serve", name, strerror(errno));
            kw_answer(rq, g_resp_denied);
        }
        return;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        LOG_AT(WARN_level, "%s: [%s] refused: not a regular file\n", "kw_serve", name);
        kw_answer(rq, g_resp_denied);
        return;
    }
    kw_send_fd(rq, fd, HLS_FRA_TYPE, st.st_size, head_only);
}

void kw_serve(kw_request* rq)
{
    http_header hdr;
    const int rc = parse_http_header(rq->head, rq->len, &hdr, nullptr, 0);
    if (rc == EINVAL) {
        LOG_AT(WARN_level, "%s: %.*s refused: only GET and HEAD are served\n", "kw_serve",
               (int)strcspn(rq->head, " \t\r\n"), rq->head);
        kw_answer_code(rq, 405, "Method Not Allowed");
        return;
    }
    if (rc != 0 || (hdr.uri.path != nullptr && hdr.uri.p_len >= KW_PATH_MAX)) {
        LOG_AT(WARN_level, "%s: a head that can't be read refused\n", "kw_serve");
        kw_answer(rq, g_resp_bad);
        return;
    }
    char path[KW_PATH_MAX] = "";
    if (hdr.uri.path != nullptr) {
        memcpy(path, hdr.uri.path, hdr.uri.p_len);
        path[hdr.uri.p_len] = '\0';
        if (uri_decode(path, sizeof(path)) == nullptr) {
            kw_answer(rq, g_resp_bad);
            return;
        }
    }
    const bool head_only = hdr.type == (int)RQTYPE_HEAD;
    LOG_AT(INFO_level, "%s: %s /%s\n", "kw_serve", head_only ? "HEAD" : "GET", path);
    if (path[0] == '\0')
        kw_send_text(rq, "text/html; charset=utf-8", kw_page(), head_only);
    else if (is_ping_request(path))
        kw_answer(rq, g_resp_ok);
    else if (strcasecmp(path, HTTP_FAVICON_RQ) == 0)
        kw_answer(rq, g_resp_ok204);
    else if (strcmp(path, "metrics") == 0)
        kw_send_text(rq, "text/plain; version=0.0.4; charset=utf-8", kw_metrics(), head_only);
    else if (strncmp(path, "snapshots/", 10) == 0)
        kw_serve_snapshot(rq, path + 10, head_only);
    else if (strncmp(path, "instances/", 10) == 0)
        serve_instance(rq, path, head_only);
    else if (strncmp(path, "hls-m3u/", 8) == 0)
        kw_serve_playlist(rq, &hdr, path, head_only);
    else if (strncmp(path, "hls-fra/", 8) == 0)
        kw_serve_fragment(rq, path, head_only);
    else if (path[0] == '/' || strstr(path, "..") != nullptr)
        kw_answer(rq, g_resp_denied);
    else
        kw_answer(rq, g_resp_nfound);
}
