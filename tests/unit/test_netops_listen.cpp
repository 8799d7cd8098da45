// The service side of the socket layer: listeners whose bad port or family
// is only told, local-domain listeners and clients, and the options of a
// connected socket.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <string>

#include "logcap.h"
#include "netops.h"
#include "strf.h"
#include "testfs.h"

namespace {

sockaddr_storage loopback4()
{
    sockaddr_storage ss{};
    auto* sin = reinterpret_cast<sockaddr_in*>(&ss);
    sin->sin_family = AF_INET;
    sin->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ss;
}

int local_port(int fd)
{
    sockaddr_storage ss{};
    socklen_t len = sizeof(ss);
    getsockname(fd, (sockaddr*)&ss, &len);
    return ss.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port)
                                    : ntohs(reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
}

// A port nobody listens on right now.
int free_port()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_storage ss = loopback4();
    bind(fd, (sockaddr*)&ss, sizeof(sockaddr_in));
    const int port = local_port(fd);
    close(fd);
    return port;
}

int connect4(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_storage ss = loopback4();
    reinterpret_cast<sockaddr_in*>(&ss)->sin_port = htons((uint16_t)port);
    if (connect(fd, (sockaddr*)&ss, sizeof(sockaddr_in)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

TEST(Listen, AListenerIsNonBlockingAndListens)
{
    const int port = free_port();
    sockaddr_storage ss = loopback4();
    const int fd = open_listener(&ss, std::to_string(port).c_str(), 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(local_port(fd), port);
    EXPECT_NE(is_non_blocking(fd), 0);
    errno = 0;
    EXPECT_EQ(accept(fd, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    const int c = connect4(port);
    EXPECT_GE(c, 0);
    close(c);
    close(fd);
}

TEST(Listen, ADeferredListenerIsBoundAndNotListening)
{
    const int port = free_port();
    sockaddr_storage ss = loopback4();
    const int fd = open_listener(&ss, std::to_string(port).c_str(), 1);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(connect4(port), -1);
    ASSERT_EQ(listen(fd, 1), 0);
    const int c = connect4(port);
    EXPECT_GE(c, 0);
    close(c);
    close(fd);
}

TEST(Listen, APortBeyond65535IsToldAndItsLowBitsAreUsed)
{
    const int port = free_port();
    const std::string big = std::to_string(65536 + port);
    sockaddr_storage ss = loopback4();
    LogCapture cap(ERR_level);
    const int fd = open_listener(&ss, big.c_str(), 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(cap.text(), "(ERR)  open_listener: invalid port number: " + big + "\n");
    EXPECT_EQ(local_port(fd), port);
    close(fd);
}

TEST(Listen, AFamilyOtherThanTheInternetOnesIsToldThenTheSocketFails)
{
    sockaddr_storage ss{};
    ss.ss_family = AF_UNSPEC;
    LogCapture cap(ERR_level);
    EXPECT_EQ(open_listener(&ss, "8080", 0), -1);
    EXPECT_THAT(cap.text(), testing::StartsWith("(ERR)  open_listener: invalid network family: 0\n"
                                                "(ERR)  open_listener: socket("));
}

TEST(Listen, AUdpListenerKeepsThePortItHasWithoutOne)
{
    const int port = free_port();
    sockaddr_storage ss = loopback4();
    reinterpret_cast<sockaddr_in*>(&ss)->sin_port = htons((uint16_t)port);
    const int fd = open_udp_listener(&ss, nullptr);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(local_port(fd), port);
    int type = 0;
    socklen_t len = sizeof(type);
    getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len);
    EXPECT_EQ(type, SOCK_DGRAM);
    close(fd);
}

TEST(Listen, AnAnyAddressListenerOfIpv6TakesIpv4Too)
{
    const int port = free_port();
    const int fd = open_anyaddr_listener(AF_INET6, std::to_string(port).c_str(), 0);
    ASSERT_GE(fd, 0);
    EXPECT_NE(is_non_blocking(fd), 0);
    const int c = connect4(port);
    EXPECT_GE(c, 0);
    close(c);
    close(fd);
}

TEST(Listen, ALocalListenerReplacesAnOlderSocketFile)
{
    TempDir dir("listen");
    const std::string path = dir.make("svc.sock", "stale");
    LogCapture cap;
    const int fd = open_domain_listener(path.c_str());
    ASSERT_GE(fd, 0);
    EXPECT_THAT(cap.text(), testing::HasSubstr(strf("(DBG)  open_domain_listener: fd=%d is listening on [%s]\n", fd,
                                                    path.c_str())));
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    cap.clear();
    const int c = open_domain_client(path.c_str(), 3, 10);
    ASSERT_GE(c, 0);
    EXPECT_EQ(cap.text(), strf("(DBG)  open_domain_client: attempt 1 out of 3 to connect to [%s]\n"
                               "(DBG)  open_domain_client opened socket fd=%d (1, 1, 0)\n"
                               "(INF)  open_domain_client: fd=%d connected to [%s]\n",
                               path.c_str(), c, c, path.c_str()));
    close(c);
    close(fd);
}

TEST(Listen, ALocalListenerThatCannotBeMadeSaysWhy)
{
    TempDir dir("listen");
    const std::string path = dir.at("busy");
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((path + "/inside").c_str(), 0755), 0);
    LogCapture cap(ERR_level);
    EXPECT_EQ(open_domain_listener(path.c_str()), -1);
    EXPECT_EQ(cap.text(), strf("(ERR)  open_domain_listener: unlink ERROR(%d): %s\n", EISDIR, strerror(EISDIR)) +
                              "(ERR)  open_domain_listener: failed for path=[" + path + "]\n");
    cap.clear();
    const std::string nowhere = dir.at("no/such/dir.sock");
    EXPECT_EQ(open_domain_listener(nowhere.c_str()), -1);
    EXPECT_THAT(cap.text(), testing::EndsWith("(ERR)  open_domain_listener: failed for path=[" + nowhere + "]\n"));
}

TEST(Listen, ALocalClientTriesAsOftenAsAskedThenGivesUp)
{
    TempDir dir("listen");
    const std::string path = dir.at("nobody.sock");
    LogCapture cap;
    EXPECT_EQ(open_domain_client(path.c_str(), 3, 5), -1);
    std::string want;
    for (int i = 1; i <= 3; ++i)
        want += strf("\\(DBG\\)  open_domain_client: attempt %d out of 3 to connect to \\[[^]]+\\]\n"
                     "\\(DBG\\)  open_domain_client opened socket fd=[0-9]+ \\(1, 1, 0\\)\n",
                     i);
    want += "\\(ERR\\)  open_domain_client: failed to connect to \\[[^]]+\\] after 3 attempt\\(s\\)\n";
    EXPECT_THAT(cap.text(), testing::MatchesRegex(want));
    EXPECT_THAT(cap.text(), testing::HasSubstr("[" + path + "] after 3 attempt(s)"));
}

TEST(ListenDeathTest, ALocalPathOf104CharactersStopsTheProcess)
{
    const std::string path = "/tmp/" + std::string(99, 'p');
    ASSERT_EQ(path.size(), 104u);
    EXPECT_DEATH(open_domain_client(path.c_str(), 1, 0), "Assertion failed: \\(0\\), function open_domain_client");
}

TEST(Listen, OptionsOfAConnectedSocket)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    LogCapture cap;
    EXPECT_EQ(set_tcp_nodelay(fd, 1), 0);
    EXPECT_EQ(set_tcp_nopush(fd, 1), 0);
    int v = 0;
    socklen_t len = sizeof(v);
    getsockopt(fd, IPPROTO_TCP, TCP_CORK, &v, &len);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(set_tcp_nopush(fd, 0), 0);
    EXPECT_EQ(set_keepalive(fd, 1), 0);
    EXPECT_EQ(cap.text(), strf("(INF)  TCP_NODELAY turned ON for [fd=%d]\n"
                               "(INF)  TCP_NOPUSH turned ON for [fd=%d]\n"
                               "(INF)  TCP_NOPUSH turned OFF for [fd=%d]\n"
                               "(DBG)  set_keepalive: [ON] for fd%d\n",
                               fd, fd, fd, fd));
    close(fd);
    cap.clear();
    EXPECT_EQ(set_keepalive(fd, 1), -1);
    EXPECT_EQ(cap.text(), strf("(ERR)  set_keepalive: setsockopt(fd%d, SOL_SOCKET, SO_KEEPALIVE, 1,..) ERROR(%d): %s\n",
                               fd, EBADF, strerror(EBADF)));
}

TEST(Listen, FamilyNames)
{
    for (const char* n : {"inet4", "INET", "ipv4", "af_inet", "PF_INET"})
        EXPECT_EQ(name2af(n), AF_INET) << n;
    for (const char* n : {"inet6", "IPv6", "af_inet6", "pf_inet6"})
        EXPECT_EQ(name2af(n), AF_INET6) << n;
    for (const char* n : {"", "any", "UNSPEC", "anyaddr", "all"})
        EXPECT_EQ(name2af(n), AF_UNSPEC) << n;
    LogCapture cap;
    EXPECT_EQ(name2af("appletalk"), -1);
    // The line has no end of its own, as it always had.
    EXPECT_EQ(cap.text(), "(ERR)  name2af: unsupported address family [appletalk] in configuration.");
}

TEST(Listen, ThePendingErrorAndThePeer)
{
    const int port = free_port();
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_storage ss = loopback4();
    reinterpret_cast<sockaddr_in*>(&ss)->sin_port = htons((uint16_t)port);
    (void)connect(fd, (sockaddr*)&ss, sizeof(sockaddr_in));
    pollfd p{fd, POLLOUT, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    LogCapture cap;
    EXPECT_EQ(socket_error(fd), ECONNREFUSED);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(cap.text(), strf("(ERR)  socket_error(fd%d) ERROR(%d): %s\n", fd, ECONNREFUSED, strerror(ECONNREFUSED)));
    char buf[64];
    cap.clear();
    EXPECT_EQ(get_peer_ipaddr(fd, buf, sizeof(buf)), nullptr);
    EXPECT_EQ(cap.text(), strf("(ERR)  get_peer_ipaddr: getpeername(fd%d,...) ERROR(%d): %s\n", fd, ENOTCONN,
                               strerror(ENOTCONN)));
    close(fd);

    sockaddr_storage at = loopback4();
    const int srv = open_listener(&at, std::to_string(port).c_str(), 0);
    const int c = connect4(port);
    ASSERT_GE(c, 0);
    EXPECT_EQ(socket_error(c), 0);
    EXPECT_STREQ(get_peer_ipaddr(c, buf, sizeof(buf)), ("127.0.0.1:" + std::to_string(port)).c_str());
    close(c);
    close(srv);
}
