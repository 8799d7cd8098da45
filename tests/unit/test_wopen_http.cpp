// Source handles for stream sockets, against real TCP peers on the loopback:
// the default HTTP port, a connection that runs no request, and a response
// head that fills the read buffer to its last byte.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "childrun.h"
#include "logcap.h"
#include "strf.h"
#include "uri.h"
#include "wopen.h"

namespace {

constexpr int WAIT_MS = 5000;  // every wait of these tests ends by then

// The least the capture start lends for the bytes behind a response head.
constexpr size_t LENT_MIN = 1024;

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// True when fd becomes readable (data or end of data) within ms.
bool readable_within(int fd, int ms)
{
    pollfd p{fd, POLLIN, 0};
    int rc;
    do {
        rc = poll(&p, 1, ms);
    } while (rc < 0 && errno == EINTR);
    return rc > 0;
}

// A TCP listener on 127.0.0.1; port 0 takes an ephemeral one.
class Listener {
public:
    explicit Listener(uint16_t port = 0)
    {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0) {
            error_ = strf("socket: %s", strerror(errno));
            return;
        }
        const int on = 1;
        (void)setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
            error_ = strf("bind to 127.0.0.1:%u: %s", port, strerror(errno));
            return;
        }
        if (listen(fd_, 4) != 0) {
            error_ = strf("listen: %s", strerror(errno));
            return;
        }
        socklen_t len = sizeof(a);
        if (getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
            error_ = strf("getsockname: %s", strerror(errno));
            return;
        }
        port_ = ntohs(a.sin_port);
    }
    ~Listener()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Empty when listening.
    const std::string& error() const { return error_; }
    int fd() const { return fd_; }
    uint16_t port() const { return port_; }

    // The next connection, or -1 when none comes within ms.
    int accept_within(int ms) const
    {
        if (!readable_within(fd_, ms))
            return -1;
        return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
    std::string error_;
};

// Reads from fd until the text holds stop (never, when stop is empty), the
// peer ends the connection, or nothing comes for ms. *eof tells whether the
// peer ended it.
std::string read_from(int fd, const std::string& stop, int ms, bool* eof = nullptr)
{
    std::string out;
    if (eof != nullptr)
        *eof = false;
    while (stop.empty() || !has(out, stop)) {
        if (!readable_within(fd, ms))
            break;
        char buf[4096];
        const ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) {
            if (eof != nullptr)
                *eof = (n == 0);
            break;
        }
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

// Exactly n bytes from fd, or fewer when they don't come within the waits.
std::string read_n(int fd, size_t n)
{
    std::string out;
    while (out.size() < n && readable_within(fd, WAIT_MS)) {
        char buf[4096];
        const ssize_t got = read(fd, buf, std::min(sizeof(buf), n - out.size()));
        if (got <= 0)
            break;
        out.append(buf, static_cast<size_t>(got));
    }
    return out;
}

void put(int fd, const std::string& s)
{
    ASSERT_EQ(write(fd, s.data(), s.size()), static_cast<ssize_t>(s.size()));
}

// One HTTP connection served by a thread: it takes the connection, reads the
// request head, writes the answer in one write, and then holds the
// connection until the other side closes it, so that everything sent after
// the request is recorded too. Each of its waits is bounded, and when it
// gives up it closes the connection, which ends a blocked reader.
class HttpPeer {
public:
    HttpPeer(const Listener& l, std::string answer) : thread_([this, &l, a = std::move(answer)] { run(l, a); }) {}
    ~HttpPeer() { join(); }
    HttpPeer(const HttpPeer&) = delete;
    HttpPeer& operator=(const HttpPeer&) = delete;

    void join()
    {
        if (thread_.joinable())
            thread_.join();
    }
    // What arrived on the connection, the request and anything after it.
    const std::string& received()
    {
        join();
        return received_;
    }
    bool accepted()
    {
        join();
        return accepted_;
    }
    bool closed_by_client()
    {
        join();
        return eof_;
    }

private:
    void run(const Listener& l, const std::string& answer)
    {
        const int c = l.accept_within(WAIT_MS);
        if (c < 0)
            return;
        accepted_ = true;
        received_ = read_from(c, "\r\n\r\n", WAIT_MS);
        if (has(received_, "\r\n\r\n")) {
            (void)!write(c, answer.data(), answer.size());
            received_ += read_from(c, "", WAIT_MS, &eof_);
        }
        close(c);
    }

    std::string received_;
    bool accepted_ = false;
    bool eof_ = false;
    std::thread thread_;  // last: it starts once the rest is made
};

// The response head of a source: status 200 and a header padded to size
// bytes in all.
std::string head_of(size_t size)
{
    const std::string start = "HTTP/1.1 200 OK\r\nX-Pad: ";
    const std::string end = "\r\n\r\n";
    return start + std::string(size - start.size() - end.size(), 'p') + end;
}

// The process-wide tag as the tool sets it, put back afterwards.
class WopenHttp : public ::testing::Test {
protected:
    void SetUp() override
    {
        memcpy(saved_tag_, g_apptag, sizeof(saved_tag_));
        usock_set_apptag("kst");
    }
    void TearDown() override { memcpy(g_apptag, saved_tag_, sizeof(saved_tag_)); }

private:
    char saved_tag_[sizeof(g_apptag)];
};

// ---- a network of the test's own ----


// Brings the loopback of the current network namespace up.
std::string loopback_up()
{
    const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0)
        return strf("socket for the interface flags: %s", strerror(errno));
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    std::string why;
    if (ioctl(s, SIOCGIFFLAGS, &ifr) != 0) {
        why = strf("SIOCGIFFLAGS on lo: %s", strerror(errno));
    } else {
        ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
        if (ioctl(s, SIOCSIFFLAGS, &ifr) != 0)
            why = strf("SIOCSIFFLAGS on lo: %s", strerror(errno));
    }
    close(s);
    return why;
}

// A network namespace of its own with its loopback up: as root directly, as
// another user inside a user namespace of its own where that is allowed.
std::string own_network()
{
    if (unshare(CLONE_NEWNET) != 0) {
        const int first = errno;
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
            return strf("no network namespace of its own: unshare: %s, with a user namespace: %s", strerror(first),
                        strerror(errno));
    }
    return loopback_up();
}

// Runs body in a forked child of a network namespace of its own, in which
// every port is free. setup runs there first and returns an empty text or
// the reason to skip.
void run_in_own_network(const std::function<std::string()>& setup, const std::function<void()>& body)
{
    run_in_child(
        [&]() -> std::string {
            const std::string why = own_network();
            return why.empty() ? setup() : why;
        },
        body, "the child in its own network");
}

uint16_t peer_port(int fd)
{
    sockaddr_in a{};
    socklen_t len = sizeof(a);
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return 0;
    return ntohs(a.sin_port);
}

}  // namespace

// ---- an HTTP URL without a port ----

TEST_F(WopenHttp, UrlWithoutPortConnectsToPort80)
{
    // Port 80 of the machine may be taken: the test gets a network of its own.
    std::unique_ptr<Listener> l;
    run_in_own_network(
        [&l]() -> std::string {
            l = std::make_unique<Listener>(80);
            return l->error().empty() ? "" : "cannot listen on port 80 in a network of its own: " + l->error();
        },
        [&l] {
            const std::string body = "0123456789";
            HttpPeer peer(*l, "HTTP/1.1 200 OK\r\n\r\n" + body);
            const char* url = "http://127.0.0.1/a.ts";
            usock_ctx uc{};
            uc.inbound = true;
            LogCapture cap;
            const int fd = usock_open(url, &uc);
            const std::string log = cap.text();
            EXPECT_TRUE(has(log, "(DBG)  usock_open: assuming HTTP port 80 for [http://127.0.0.1/a.ts]\n")) << log;
            ASSERT_GE(fd, 0) << log;
            EXPECT_EQ(uc.url_kind, URI_HTTP);
            EXPECT_EQ(peer_port(fd), 80);

            // The body: what came along with the head, then the descriptor.
            const std::string tail(uc.buf, uc.buflen);
            EXPECT_EQ(tail + read_n(fd, body.size() - tail.size()), body);

            usock_close(fd, &uc);
            EXPECT_TRUE(peer.accepted());
            const std::string& rq = peer.received();
            EXPECT_EQ(rq.substr(0, rq.find("\r\n") + 2), "GET /a.ts HTTP/1.1\r\n") << rq;
            // The connection went to 80, yet the Host line names no port.
            EXPECT_TRUE(has(rq, "\r\nHost: 127.0.0.1\r\n")) << rq;
            EXPECT_FALSE(has(rq, "Host: 127.0.0.1:")) << rq;
            EXPECT_TRUE(peer.closed_by_client());
        });
}

// ---- connect only ----

TEST_F(WopenHttp, SkipHttpOnlyConnects)
{
    Listener l;
    ASSERT_EQ(l.error(), "");
    const std::string url = strf("http://127.0.0.1:%u/a.ts", l.port());
    usock_ctx uc{};
    uc.inbound = true;
    uc.skip_http = true;
    LogCapture cap;
    // A blocking connect completes on the listener's backlog: nobody needs
    // to accept before the open returns.
    const int fd = usock_open(url.c_str(), &uc);
    ASSERT_GE(fd, 0) << cap.text();
    EXPECT_EQ(uc.url_kind, URI_HTTP);
    EXPECT_EQ(uc.buflen, 0u);
    const std::string log = cap.text();
    EXPECT_FALSE(has(log, "send_http_request")) << log;
    EXPECT_FALSE(has(log, "get_http_response")) << log;

    const int c = l.accept_within(WAIT_MS);
    ASSERT_GE(c, 0);
    EXPECT_EQ(peer_port(fd), l.port());
    // Nothing arrives while the connection stands...
    EXPECT_FALSE(readable_within(c, 200));
    // ...and the descriptor delivers the peer's bytes as they are.
    put(c, "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(read_n(fd, 19), "HTTP/1.1 200 OK\r\n\r\n");

    // Once it is closed the peer sees the end, with no byte ever sent.
    usock_close(fd, &uc);
    bool eof = false;
    EXPECT_EQ(read_from(c, "", WAIT_MS, &eof), "");
    EXPECT_TRUE(eof);
    close(c);
}

// ---- a response head that fills the read buffer ----

TEST_F(WopenHttp, HeadOf1023BytesLeavesNoTail)
{
    const std::string head = head_of(1023);
    ASSERT_EQ(head.size(), 1023u);
    const std::string body = "BODY-BYTES";
    // The least the tool lends, and the much larger free space of a ring.
    for (const size_t cap_size : {LENT_MIN, size_t{65536}}) {
        SCOPED_TRACE(strf("lent %zu bytes", cap_size));
        Listener l;
        ASSERT_EQ(l.error(), "");
        // Head and body go out in one write: the head fills the read buffer,
        // so the body stays on the socket.
        HttpPeer peer(l, head + body);
        const std::string url = strf("http://127.0.0.1:%u/a.ts", l.port());

        std::vector<char> lent(cap_size, '.');
        usock_ctx uc{};
        uc.inbound = true;
        uc.buf = lent.data();
        uc.bufcap = lent.size();
        LogCapture cap;
        const int fd = usock_open(url.c_str(), &uc);
        const std::string log = cap.text();
        ASSERT_GE(fd, 0) << log;
        EXPECT_EQ(uc.buflen, 0u);
        EXPECT_EQ(uc.buf, lent.data());
        EXPECT_EQ(uc.bufcap, lent.size());
        EXPECT_EQ(lent[0], '.');
        EXPECT_TRUE(has(log, "(DBG)  read_http: HTTP EOD marker found at pos=1023\n")) << log;
        EXPECT_TRUE(has(log, strf("(DBG)  recv_http_response: fd=%d received: HTTP/1.1 200 OK\n", fd))) << log;
        EXPECT_FALSE(has(log, "has a tail")) << log;
        EXPECT_FALSE(has(log, "(ERR)")) << log;

        // The stream starts with the first byte behind the head.
        EXPECT_EQ(read_n(fd, body.size()), body);

        // The memory was only lent for the opening, as the tool does it.
        uc.buf = nullptr;
        uc.bufcap = 0;
        usock_close(fd, &uc);
        EXPECT_TRUE(has(peer.received(), "GET /a.ts HTTP/1.1\r\n")) << peer.received();
        EXPECT_TRUE(peer.closed_by_client());
    }
}
