// The snapshots of one file prefix as an HLS VOD playlist, oldest first, so
// that a player plays them in order:
//   /hls-m3u/PREFIX/index.m3u8   the playlist
//   /hls-fra/PREFIX/NAME.ts      an item: the snapshot NAME, of that prefix
// Items are absolute URLs, made from the address the client asked.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>

#include "dstream.h"
#include "kstweb.h"
#include "log.h"
#include "uri.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr size_t k_probe_pkts = 384;  // packets read at each end of a file

// The packet length of a buffer that starts on a packet, or 0.
size_t packet_length(const uint8_t* buf, size_t len)
{
    for (size_t plen : {188, 192, 204, 208}) {
        size_t got = 0;
        size_t count = 0;
        const size_t whole = len / plen * plen;
        if (whole >= plen && probe_segment(buf, whole, 0, &got, &count, nullptr) == STY_MPEGTS.num && got == plen)
            return plen;
    }
    return 0;
}

bool pcr_of(const uint8_t* pkt, size_t plen, uint64_t* pcr)
{
    size_t len = plen;
    size_t count = 0;
    sseg_ctx s{0, 1, 0, 0};
    (void)probe_segment(pkt, plen, STY_MPEGTS.num, &len, &count, &s);
    *pcr = s.pcr;
    return s.pcr_idx != 0;
}

// Seconds from the first PCR of a file to its last, read at both ends; 1
// when the file tells none.
double duration_of(int fd, off_t size)
{
    std::vector<uint8_t> buf(k_probe_pkts * 208);
    const ssize_t n = pread(fd, buf.data(), std::min(buf.size(), (size_t)size), 0);
    const size_t plen = n > 0 ? packet_length(buf.data(), (size_t)n) : 0;
    if (plen == 0)
        return 1.0;
    uint64_t first = 0;
    bool have_first = false;
    for (size_t off = 0; off + plen <= (size_t)n && !have_first; off += plen)
        have_first = pcr_of(buf.data() + off, plen, &first);
    const off_t whole = size / (off_t)plen * (off_t)plen;
    const off_t from = std::max<off_t>(0, whole - (off_t)(k_probe_pkts * plen));
    const ssize_t m = pread(fd, buf.data(), (size_t)(whole - from), from);
    uint64_t last = 0;
    bool have_last = false;
    for (ssize_t off = m - (ssize_t)plen; off >= 0 && !have_last; off -= (ssize_t)plen)
        have_last = pcr_of(buf.data() + off, plen, &last);
    if (!have_first || !have_last)
        return 1.0;
    const uint64_t ticks = (last - first) & ((1ULL << 33) - 1);
    const double secs = (double)ticks / 90000.0;
    return secs > 0 ? secs : 1.0;
}

bool host_ok(const char* host)
{
    if (host[0] == '\0')
        return false;
    for (const char* p = host; *p != '\0'; ++p)
        if (!isalnum((unsigned char)*p) && strchr(".-:[]", *p) == nullptr)
            return false;
    return true;
}

// The host and port the client reached: its Host header, or the address of
// the connection.
std::string authority(const kw_request* rq, const http_header* hdr)
{
    if (host_ok(hdr->host))
        return hdr->host;
    sockaddr_storage ss{};
    socklen_t len = sizeof(ss);
    char ip[INET6_ADDRSTRLEN] = "127.0.0.1";
    int port = 0;
    if (getsockname(rq->h.fd, (sockaddr*)&ss, &len) == 0) {
        if (ss.ss_family == AF_INET6) {
            const auto* a = (const sockaddr_in6*)&ss;
            inet_ntop(AF_INET6, &a->sin6_addr, ip, sizeof(ip));
            return "[" + std::string(ip) + "]:" + std::to_string(ntohs(a->sin6_port));
        }
        const auto* a = (const sockaddr_in*)&ss;
        inet_ntop(AF_INET, &a->sin_addr, ip, sizeof(ip));
        port = ntohs(a->sin_port);
    }
    return std::string(ip) + ":" + std::to_string(port);
}

// "PREFIX/LAST" of an hls path: false unless both are there and the prefix
// is one that kst can give.
bool split_prefix(const char* rest, char* pfx, const char** last)
{
    const char* slash = strchr(rest, '/');
    if (slash == nullptr || (size_t)(slash - rest) > KW_PREFIX_MAX || strchr(slash + 1, '/') != nullptr)
        return false;
    memcpy(pfx, rest, (size_t)(slash - rest));
    pfx[slash - rest] = '\0';
    *last = slash + 1;
    return kw_prefix_ok(pfx);
}

bool of_prefix(const std::string& name, const char* pfx)
{
    size_t len = 0;
    long pid = 0;
    return kw_snap_parse(name.c_str(), &len, &pid) && name.compare(0, len, pfx) == 0 && len == strlen(pfx);
}

}  // namespace

void kw_serve_playlist(kw_request* rq, const http_header* hdr, const char* path, bool head_only)
{
    const std::string url = std::string("/") + path;
    char src[KW_PATH_MAX] = "";
    char dst[KW_PATH_MAX] = "";
    char pfx[KW_PREFIX_MAX + 1];
    const char* last = nullptr;
    if (!is_m3u_url(url.c_str()) || uri_extract_endpts_ext(url.c_str(), src, sizeof(src), dst, sizeof(dst), nullptr) != 0 ||
        !split_prefix(src, pfx, &last) || strcmp(last, "index.m3u8") != 0) {
        LOG_AT(WARN_level, "%s: [%s] refused: not a playlist of a prefix\n", "kw_serve", path);
        kw_answer(rq, strstr(path, "..") != nullptr ? g_resp_denied : g_resp_nfound);
        return;
    }
    std::vector<kw_snap> snaps = kw_list_snapshots();
    std::reverse(snaps.begin(), snaps.end());  // oldest first
    const std::string base = "http://" + authority(rq, hdr) + "/hls-fra/" + pfx + "/index.m3u8";
    std::string items;
    double target = 1;
    size_t count = 0;
    for (const kw_snap& s : snaps) {
        if (!of_prefix(s.name, pfx))
            continue;
        const int fd = openat(g_kw.dirfd, s.name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0)
            continue;
        const double secs = duration_of(fd, s.size);
        close(fd);
        char item[512];
        if (mk_hls_item_url(base.c_str(), s.name.c_str(), item, sizeof(item)) != 0)
            continue;
        char inf[64];
        snprintf(inf, sizeof(inf), "#EXTINF:%.3f,\n", secs);
        // Each snapshot is a capture of its own: its clock starts anew.
        if (count++ > 0)
            items += "#EXT-X-DISCONTINUITY\n";
        items += std::string(inf) + item + "\n";
        target = std::max(target, std::ceil(secs));
    }
    if (count == 0) {
        kw_answer(rq, g_resp_nfound);
        return;
    }
    const std::string m3u = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-TARGETDURATION:" +
                            std::to_string((long)target) + "\n#EXT-X-MEDIA-SEQUENCE:0\n" + items + "#EXT-X-ENDLIST\n";
    kw_send_text(rq, HLS_M3U8_TYPE, m3u, head_only);
}

void kw_serve_fragment(kw_request* rq, const char* path, bool head_only)
{
    const std::string url = std::string("/") + path;
    char src[KW_PATH_MAX] = "";
    char dst[KW_PATH_MAX] = "";
    uri_parse_ctx ctx{"", ""};
    char pfx[KW_PREFIX_MAX + 1];
    const char* name = nullptr;
    constexpr size_t scheme = sizeof("file://") - 1;
    if (!is_fra_url(url.c_str()) || uri_extract_endpts_ext(url.c_str(), src, sizeof(src), dst, sizeof(dst), &ctx) != 0 ||
        strncmp(src, "file://", scheme) != 0 || !split_prefix(src + scheme, pfx, &name) || kw_check_name(name) != 0 ||
        !of_prefix(name, pfx)) {
        LOG_AT(WARN_level, "%s: [%s] refused: not a snapshot of the prefix\n", "kw_serve", path);
        kw_answer(rq, g_resp_denied);
        return;
    }
    kw_serve_snapshot(rq, name, head_only);
}
