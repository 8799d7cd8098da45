// kst-web's answers: /ping, the favicon, the page of snapshots, and each
// snapshot file. A name that would leave the snapshot directory is refused
// with 403 whatever its form: "..", a slash, an encoded one, an absolute
// path, or a link that points out.
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "kstweb.h"
#include "log.h"
#include "rqs.h"
#include "webops.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr const char* k_server = "kst-web";
constexpr const char* k_snap_prefix = "snapshots/";

void count(int code)
{
    const int cls = code / 100 - 2;
    ++g_kw.served[(cls >= 0 && cls < 4) ? cls : 4];
}

// A small answer in one write, and the connection goes.
void answer(kw_request* rq, http_response r)
{
    r.server = k_server;
    if (r.content_length < 0)
        r.content_length = 0;
    (void)send_http_response(rq->h.fd, &r);
    count(r.code);
    rq->answered = true;
    (void)rui_pprm_request(rq);
}

void answer_code(kw_request* rq, int code, const char* reason)
{
    http_response r = g_resp_none;
    r.code = code;
    r.reason = reason;
    r.content_length = 0;
    r.connection = "close";
    answer(rq, r);
}

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
    count(200);
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

struct snap_entry {
    std::string name;
    off_t size;
    time_t mtime;
};

std::vector<snap_entry> list_snapshots()
{
    std::vector<snap_entry> out;
    const int fd = dup(g_kw.dirfd);
    DIR* d = (fd >= 0) ? fdopendir(fd) : nullptr;
    if (d == nullptr) {
        if (fd >= 0)
            close(fd);
        return out;
    }
    rewinddir(d);
    for (dirent* e; (e = readdir(d)) != nullptr;) {
        struct stat st;
        if (kw_check_name(e->d_name) != 0 || fstatat(g_kw.dirfd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(st.st_mode))
            continue;
        out.push_back({e->d_name, st.st_size, st.st_mtime});
    }
    closedir(d);
    std::sort(out.begin(), out.end(), [](const snap_entry& a, const snap_entry& b) {
        return a.mtime != b.mtime ? a.mtime > b.mtime : a.name > b.name;
    });
    return out;
}

std::string escaped(const std::string& s)
{
    std::string buf(s.size() * 6 + 1, '\0');
    if (web_escape(s.c_str(), buf.data(), buf.size()) == 0)
        return s;
    return buf.c_str();
}

std::string page()
{
    std::string html = "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>kst snapshots</title></head>\n"
                       "<body>\n<h1>Snapshots in " +
                       escaped(g_kw.snap_dir) + "</h1>\n<table id=\"snapshots\">\n"
                       "<tr><th>name</th><th>bytes</th><th>written</th></tr>\n";
    for (const snap_entry& e : list_snapshots()) {
        char when[32];
        struct tm tmv;
        strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", gmtime_r(&e.mtime, &tmv));
        const std::string name = escaped(e.name);
        html += "<tr><td><a href=\"/snapshots/" + name + "\">" + name + "</a></td><td>" +
                std::to_string((long long)e.size) + "</td><td>" + when + " UTC</td></tr>\n";
    }
    html += "</table>\n</body></html>\n";
    return html;
}

void serve_page(kw_request* rq, bool head_only)
{
    const std::string html = page();
    // The page goes out from memory of its own, as a file would.
    char tmpl[] = "/tmp/kst-web-page-XXXXXX";
    const int fd = mkstemp(tmpl);
    if (fd < 0) {
        answer(rq, g_resp_err);
        return;
    }
    unlink(tmpl);
    if (write(fd, html.data(), html.size()) != (ssize_t)html.size() || !send_head(rq, "text/html; charset=utf-8",
                                                                                   (off_t)html.size())) {
        close(fd);
        rq->answered = true;
        (void)rui_pprm_request(rq);
        return;
    }
    start_body(rq, fd, head_only ? 0 : (off_t)html.size(), 0);
}

void serve_snapshot(kw_request* rq, const char* name, bool head_only)
{
    if (kw_check_name(name) != 0) {
        LOG_AT(WARN_level, "%s: [%s] refused: not a snapshot of the directory\n", "kw_serve", name);
        answer(rq, g_resp_denied);
        return;
    }
    const int fd = openat(g_kw.dirfd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) {
            answer(rq, g_resp_nfound);
        } else {
            // A link (ELOOP), or a file that may not be read.
            LOG_AT(WARN_level, "%s: [%s] refused: %s\n", "kw_serve", name, strerror(errno));
            answer(rq, g_resp_denied);
        }
        return;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        answer(rq, g_resp_denied);
        return;
    }
    if (!send_head(rq, HLS_FRA_TYPE, st.st_size)) {
        close(fd);
        rq->answered = true;
        (void)rui_pprm_request(rq);
        return;
    }
    uint32_t flags = 0;
    struct stat sock;
    int type = 0;
    socklen_t len = sizeof(type);
    if (fstat(rq->h.fd, &sock) == 0 && getsockopt(rq->h.fd, SOL_SOCKET, SO_TYPE, &type, &len) == 0)
        (void)check_can_sendfile(st.st_mode, sock.st_mode, type, &flags);
    start_body(rq, fd, head_only ? 0 : st.st_size, flags);
}

}  // namespace

int kw_check_name(const char* name)
{
    const size_t n = strlen(name);
    if (n < 4 || n >= KW_PATH_MAX || name[0] == '.' || strcmp(name + n - 3, ".ts") != 0)
        return 403;
    for (const char* p = name; *p != '\0'; ++p)
        if (!isalnum((unsigned char)*p) && *p != '.' && *p != '_' && *p != '-')
            return 403;
    return strstr(name, "..") != nullptr ? 403 : 0;
}

void kw_serve(kw_request* rq)
{
    http_header hdr;
    const int rc = parse_http_header(rq->head, rq->len, &hdr, nullptr, 0);
    if (rc == EINVAL) {
        answer_code(rq, 405, "Method Not Allowed");
        return;
    }
    if (rc != 0 || (hdr.uri.path != nullptr && hdr.uri.p_len >= KW_PATH_MAX)) {
        answer(rq, g_resp_bad);
        return;
    }
    char path[KW_PATH_MAX] = "";
    if (hdr.uri.path != nullptr) {
        memcpy(path, hdr.uri.path, hdr.uri.p_len);
        path[hdr.uri.p_len] = '\0';
        if (uri_decode(path, sizeof(path)) == nullptr) {
            answer(rq, g_resp_bad);
            return;
        }
    }
    const bool head_only = hdr.type == (int)RQTYPE_HEAD;
    LOG_AT(INFO_level, "%s: %s /%s\n", "kw_serve", head_only ? "HEAD" : "GET", path);
    if (path[0] == '\0')
        serve_page(rq, head_only);
    else if (is_ping_request(path))
        answer(rq, g_resp_ok);
    else if (strcasecmp(path, HTTP_FAVICON_RQ) == 0)
        answer(rq, g_resp_ok204);
    else if (strncmp(path, k_snap_prefix, strlen(k_snap_prefix)) == 0)
        serve_snapshot(rq, path + strlen(k_snap_prefix), head_only);
    else if (path[0] == '/' || strstr(path, "..") != nullptr)
        answer(rq, g_resp_denied);
    else
        answer(rq, g_resp_nfound);
}
