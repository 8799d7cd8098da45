// Request listeners with real clients on loopback: accepting into a queue
// of at most 1000, flow control at three quarters, time-outs, removal at a
// safe point; and the listeners' group of a configuration file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "appcfg.h"
#include "config.h"
#include "logcap.h"
#include "rqs.h"
#include "rui.h"
#include "strf.h"

namespace {

struct test_rq {
    rui_rq_header h;
    int serial;
};

int g_made = 0;
int g_freed = 0;
bool g_all_time_out = false;

void* new_rq(int fd, rui_socket_ctx* srv, void*)
{
    auto* rq = static_cast<test_rq*>(calloc(1, sizeof(test_rq)));
    rq->h.srv = srv;
    rq->h.fd = fd;
    rq->serial = ++g_made;
    return rq;
}

void rm_rq(void* rq)
{
    ++g_freed;
    free(rq);
}

bool time_out(void*, size_t)
{
    return g_all_time_out;
}

int free_port()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, (sockaddr*)&at, sizeof(at));
    socklen_t len = sizeof(at);
    getsockname(fd, (sockaddr*)&at, &len);
    close(fd);
    return ntohs(at.sin_port);
}

int connect_to(int af, int port)
{
    const int fd = socket(af, SOCK_STREAM, 0);
    sockaddr_storage ss{};
    socklen_t len;
    if (af == AF_INET) {
        auto* sin = reinterpret_cast<sockaddr_in*>(&ss);
        sin->sin_family = AF_INET;
        sin->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sin->sin_port = htons((uint16_t)port);
        len = sizeof(*sin);
    } else {
        auto* sin6 = reinterpret_cast<sockaddr_in6*>(&ss);
        sin6->sin6_family = AF_INET6;
        sin6->sin6_addr = in6addr_loopback;
        sin6->sin6_port = htons((uint16_t)port);
        len = sizeof(*sin6);
    }
    if (connect(fd, (sockaddr*)&ss, len) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

class Rui : public testing::Test {
protected:
    void SetUp() override
    {
        rlimit rl{};
        getrlimit(RLIMIT_NOFILE, &rl);
        saved_ = rl;
        rl.rlim_cur = rl.rlim_max < 8192 ? rl.rlim_max : 8192;
        setrlimit(RLIMIT_NOFILE, &rl);
        const rqs_config rc{};
        ASSERT_EQ(rqs_init(&rc), 0);
        const rui_socket_cb cb{mk_n32_tag("usr"), new_rq, rm_rq, time_out};
        rui_set_cb(RUI_USER, &cb);
        g_made = g_freed = 0;
        g_all_time_out = false;
        port_ = free_port();
        cfg_ = rui_cfg{};
        rui_listener_cfg& lc = cfg_.user[0];
        lc.is_valid = true;
        strcpy(lc.alias, "test");
        snprintf(lc.port, sizeof(lc.port), "%d", port_);
        lc.pref_af = AF_INET6;
        lc.proto = IPPROTO_TCP;
        cfg_.max_accept = 128;
    }
    void TearDown() override
    {
        rui_ctx_destroy(&ctx_);
        rqs_destroy();
        for (int fd : clients_)
            close(fd);
        setrlimit(RLIMIT_NOFILE, &saved_);
    }
    void start()
    {
        ASSERT_EQ(rui_ctx_init(&cfg_, &ctx_), 0);
        ASSERT_EQ(rui_ctx_start(&ctx_), 0);
        ASSERT_GE(srv()->sockfd, 0);
    }
    rui_socket_ctx* srv() { return &ctx_.user[0]; }
    int client(int af = AF_INET)
    {
        const int fd = connect_to(af, port_);
        if (fd >= 0)
            clients_.push_back(fd);
        return fd;
    }
    rui_cfg cfg_{};
    rui_ctx ctx_{};
    int port_ = 0;
    std::vector<int> clients_;
    rlimit saved_{};
};

}  // namespace

TEST_F(Rui, AListenerStartsAndAcceptsIpv4AndIpv6Clients)
{
    LogCapture cap(INFO_level);
    start();
    EXPECT_THAT(cap.text(), testing::HasSubstr(strf("(INF)  STARTED listener fd%d for usr requests on all:%d; "
                                                    "0 requests pending\n",
                                                    srv()->sockfd, port_)));
    ASSERT_GE(client(AF_INET), 0);
    ASSERT_GE(client(AF_INET6), 0);
    cap.clear();
    EXPECT_EQ(rui_accept(srv(), 10, RUI_TCP_NODELAY, nullptr), 2);
    EXPECT_EQ(dlep_count(srv()->requests), 2u);
    EXPECT_EQ(g_made, 2);
    const std::string text = cap.text();
    EXPECT_THAT(text, testing::HasSubstr("Accepted test request [fd="));
    EXPECT_THAT(text, testing::HasSubstr("] from [::ffff:127.0.0.1]:"));
    EXPECT_THAT(text, testing::HasSubstr("] from [::1]:"));
    EXPECT_THAT(text, testing::HasSubstr("TCP_NODELAY turned ON for [fd="));
    EXPECT_THAT(text, testing::HasSubstr("rui_add_request: OK for fd="));
    // The queue of the socket is empty now.
    EXPECT_EQ(rui_accept(srv(), 10, 0, nullptr), 0);
}

TEST_F(Rui, AcceptingStopsAtMaxAccept)
{
    start();
    for (int i = 0; i < 3; ++i)
        ASSERT_GE(client(), 0);
    LogCapture cap(WARN_level);
    EXPECT_EQ(rui_accept(srv(), 2, 0, nullptr), 2);
    EXPECT_EQ(cap.text(), "(WRN)  rui_accept(usr): CANNOT ACCEPT ALL (accepted=2), max=2\n");
    EXPECT_EQ(rui_accept(srv(), 2, 0, nullptr), 1);
    EXPECT_EQ(rui_accept(srv(), 0, 0, nullptr), 0);
}

TEST_F(Rui, TheThousandAndFirstConnectionIsRefusedAndTheNextOneTaken)
{
    start();
    size_t queued = 0;
    // In bursts the listen backlog can hold.
    while (queued < MAX_RUI_QUEUED) {
        for (int i = 0; i < 100 && queued + (size_t)i < MAX_RUI_QUEUED; ++i)
            ASSERT_GE(client(), 0) << queued;
        queued += (size_t)rui_accept(srv(), 200, 0, nullptr);
    }
    ASSERT_EQ(dlep_count(srv()->requests), MAX_RUI_QUEUED);
    const int extra = client();
    ASSERT_GE(extra, 0);
    LogCapture cap(ERR_level);
    EXPECT_EQ(rui_accept(srv(), 10, 0, nullptr), 0);
    EXPECT_THAT(cap.text(), testing::MatchesRegex("\\(ERR\\)  rui_add_request: Too many user requests \\(1000\\) queued\n"
                                                  "\\(ERR\\)  Error rc=16 processing connection \\[test\\] fd=[0-9]+\n"));
    // The refused connection was closed.
    char b;
    EXPECT_EQ(read(extra, &b, 1), 0);
    rui_rm_request(dlep_tail(srv()->requests));
    ASSERT_GE(client(), 0);
    EXPECT_EQ(rui_accept(srv(), 10, 0, nullptr), 1);
    EXPECT_EQ(dlep_count(srv()->requests), MAX_RUI_QUEUED);
}

TEST_F(Rui, ListeningStopsAtThreeQuartersOfTheLimit)
{
    start();
    for (int i = 0; i < 75; ++i)
        ASSERT_GE(client(), 0);
    ASSERT_EQ(rui_accept(srv(), 100, 0, nullptr), 75);
    EXPECT_FALSE(rui_should_listen(srv(), 100));
    rui_rm_request(dlep_tail(srv()->requests));
    EXPECT_TRUE(rui_should_listen(srv(), 100));
    // A limit of 1 is a limit of 0.
    EXPECT_FALSE(rui_should_listen(srv(), 1));
    LogCapture cap(INFO_level);
    rui_stop_listener(srv());
    EXPECT_THAT(cap.text(), testing::MatchesRegex("\\(WRN\\)  usr listener fd[0-9]+ wll be closed \\(74 requsts queued\\)\n"));
    EXPECT_EQ(srv()->sockfd, -1);
    EXPECT_TRUE(srv()->deferred);
    cap.clear();
    EXPECT_TRUE(rui_should_listen(srv(), 200));
    EXPECT_EQ(cap.text(), "(INF)  rui_should_listen: usr (74 requsts queued)\n");
    ASSERT_EQ(rui_start_listener(srv()->lc, srv()), 0);
    EXPECT_FALSE(srv()->deferred);
    EXPECT_EQ(client() >= 0, true);
    EXPECT_EQ(rui_accept(srv(), 10, 0, nullptr), 1);
}

TEST_F(Rui, RequestsMarkedForRemovalGoAtTheSafePoint)
{
    start();
    ASSERT_GE(client(), 0);
    ASSERT_EQ(rui_accept(srv(), 10, 0, nullptr), 1);
    void* rq = dlep_tail(srv()->requests);
    ASSERT_EQ(rui_pprm_request(rq), 0);
    ASSERT_EQ(rui_pprm_request(rq), 0);
    EXPECT_EQ(srv()->pprm.len, 1u);
    const int fd = static_cast<rui_rq_header*>(rq)->fd;
    LogCapture cap;
    rui_pprm_all(&ctx_);
    EXPECT_EQ(cap.text(), strf("(DBG)  pprm_srv: [usr] listener[test], 1 pprm items\n"
                               "(DBG)  pprm_cleanup: removing [usr] (%p) j=0\n"
                               "(DBG)  apply_kev_change: fd%d filter=-1 action=2 fflags=0x0000 udata=(nil)\n"
                               "(INF)  rm_request: OK for fd=%d rq=%p\n"
                               "(DBG)  pprm_srv: done for for [usr]\n",
                               rq, fd, fd, rq));
    EXPECT_EQ(dlep_count(srv()->requests), 0u);
    EXPECT_EQ(g_freed, 1);
}

TEST_F(Rui, TimeOutsAreCountedAndTold)
{
    start();
    LogCapture cap(DEBUG_level);
    EXPECT_EQ(rui_tmout_all(&ctx_, 5000), 0u);
    EXPECT_EQ(cap.text(), "(DBG)  tmout_srv: no time-outs for [usr]\n");
    for (int i = 0; i < 3; ++i)
        ASSERT_GE(client(), 0);
    ASSERT_EQ(rui_accept(srv(), 10, 0, nullptr), 3);
    g_all_time_out = true;
    cap.clear();
    EXPECT_EQ(rui_tmout_all(&ctx_, 5000), 3u);
    EXPECT_EQ(cap.text(), "(WRN)  tmout_srv: 3 [usr] requests timed out\n");
}

TEST_F(Rui, TrackingNumbersRollOver)
{
    size_t count = 0;
    n64_tag tag{};
    rui_mk_trknum(&count, &tag, 'U', 3);
    EXPECT_STREQ(tag.sym8, "U0001");
    rui_mk_trknum(&count, &tag, 'U', 3);
    rui_mk_trknum(&count, &tag, 'U', 3);
    EXPECT_STREQ(tag.sym8, "U0003");
    LogCapture cap;
    rui_mk_trknum(&count, &tag, 'U', 3);
    EXPECT_STREQ(tag.sym8, "U0001");
    EXPECT_EQ(cap.text(), "(DBG)  rui_mk_trknum: rolling over U-requests\n");
}

TEST_F(Rui, ALocalListener)
{
    char path[] = "/tmp/kst-rui-XXXXXX";
    ASSERT_NE(mkdtemp(path), nullptr);
    const std::string sock = std::string(path) + "/svc.sock";
    rui_listener_cfg& lc = cfg_.user[0];
    strcpy(lc.domain_path, sock.c_str());
    start();
    const int c = open_domain_client(sock.c_str(), 1, 0);
    ASSERT_GE(c, 0);
    clients_.push_back(c);
    EXPECT_EQ(rui_accept(srv(), 10, RUI_TCP_NODELAY, nullptr), 1);
    rui_ctx_destroy(&ctx_);
    unlink(sock.c_str());
    rmdir(path);
}

TEST(RuiDeathTest, AFailingListenerIsFatal)
{
    rui_socket_ctx rsc{};
    rsc.sockfd = -1;
    EXPECT_DEATH(
        {
            glog_init("test");
            log_default(&g_log, stderr);
            rui_crash_on_error(&rsc, true);
        },
        "rui_crash_on_error: HUP listener\\[\\?\\] ERROR\\([0-9]+\\): [^\n]*\n(.|\n)*Aborting at:");
}

namespace {

struct Loaded {
    int rc;
    rui_cfg cfg;
    std::string err;
    std::string dump;
};

Loaded load(const std::string& text)
{
    Loaded out{};
    config_t c;
    config_init(&c);
    if (config_read_string(&c, text.c_str()) != CONFIG_TRUE) {
        out.rc = -99;
        out.err = config_error_text(&c);
        config_destroy(&c);
        return out;
    }
    testing::internal::CaptureStderr();
    out.rc = load_rui_config(config_lookup(&c, "listeners"), &out.cfg);
    out.err = testing::internal::GetCapturedStderr();
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    dump_rui_config(fp, &out.cfg);
    fclose(fp);
    out.dump.assign(buf, len);
    free(buf);
    config_destroy(&c);
    return out;
}

}  // namespace

TEST(RuiConfig, UserAdminAndCustomGroups)
{
    const Loaded l = load(R"(listeners = {
        user = ( { port = "8080"; }, { alias = "local"; ifc = "lo"; default_af = "inet"; port = "8081"; } );
        admin = { alias = "adm"; protocol = "UDP"; ifc = "lo"; port = "9090"; };
        custom = { alias = "sock"; domain_path = "/run/kst-web.sock"; };
        max_to_accept = 64;
        user_request_timeout = 3000;
        admin_request_timeout = 7000;
    };)");
    ASSERT_EQ(l.rc, 0) << l.err;
    EXPECT_STREQ(l.cfg.user[0].alias, "all:8080");
    EXPECT_EQ(l.cfg.user[0].index, 1u);
    EXPECT_EQ(l.cfg.user[1].index, 2u);
    ASSERT_NE(l.cfg.user[1].ifc, nullptr);
    EXPECT_STREQ(l.cfg.user[1].ifc->name, "lo");
    EXPECT_EQ(l.cfg.admin[0].proto, IPPROTO_UDP);
    EXPECT_EQ(l.dump, "Listeners:\n"
                      "\tuser listener[all:8080]: ifc=<anyaddr>, af=UNSPEC port=8080\n"
                      "\tuser listener[local]: ifc=lo, af=IPv4 port=8081\n"
                      "\tadmin listener[adm]: ifc=lo, af=UNSPEC port=9090\n"
                      "\tcustom listener[sock]: path=/run/kst-web.sock\n"
                      "\tmax-accepted=64\n"
                      "\tI/O timeouts: user-rq=3000, admin-rq=7000 custom-rq=5000\n");
    for (auto* lc : {&l.cfg.user[1], &l.cfg.admin[0]})
        free(lc->ifc);
}

TEST(RuiConfig, AFifthListenerIsNotRead)
{
    const Loaded l = load(R"(listeners = {
        user = ( { port = "1"; }, { port = "2"; }, { port = "3"; }, { port = "4"; }, { port = "x"; } );
        max_to_accept = 1;
    };)");
    EXPECT_EQ(l.rc, 0);
    EXPECT_STREQ(l.cfg.user[3].port, "4");
}

TEST(RuiConfig, RefusedValues)
{
    LogCapture cap(ERR_level);
    EXPECT_EQ(load(R"(listeners = { user = { port = "0"; }; max_to_accept = 1; };)").rc, -1);
    EXPECT_EQ(cap.text(), "(ERR)  load_listener_from: invalid port value: 0\n");
    cap.clear();
    EXPECT_EQ(load(R"(listeners = { user = { port = "70000"; }; max_to_accept = 1; };)").rc, -1);
    EXPECT_EQ(cap.text(), "(ERR)  load_listener_from: invalid port value: 70000\n");
    cap.clear();
    EXPECT_EQ(load(R"(listeners = { user = { alias = "a"; protocol = "sctp"; port = "1"; }; max_to_accept = 1; };)").rc,
              -1);
    EXPECT_EQ(cap.text(), "(ERR)  load_listener_from: invald protocol for [a]: sctp\n");
    cap.clear();
    EXPECT_EQ(load(R"(listeners = { user = { ifc = "nosuch0"; port = "1"; }; max_to_accept = 1; };)").rc, -1);
    EXPECT_THAT(cap.text(), testing::EndsWith("(ERR)  load_listener_from: [nosuch0] failed the check for IPv4/v6 "
                                              "interface name\n(ERR)  invalid network interface name/address: nosuch0\n"));
    const Loaded no_max = load(R"(listeners = { user = { port = "8080"; }; };)");
    EXPECT_EQ(no_max.rc, -1);
    EXPECT_EQ(no_max.err, "Invalid max_accept valie (0)\n");
    const Loaded bad_tmout = load(R"(listeners = { user = { port = "8080"; }; max_to_accept = 4;
        user_request_timeout = 0; };)");
    EXPECT_EQ(bad_tmout.rc, -1);
    EXPECT_EQ(bad_tmout.err, "Invalid user_request_tmout valie (0)\n");
    // A time-out of a class that has no listeners is not read.
    EXPECT_EQ(load(R"(listeners = { user = { port = "8080"; }; max_to_accept = 4; admin_request_timeout = -5; };)").rc,
              0);
}
