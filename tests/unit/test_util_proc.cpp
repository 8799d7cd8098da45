// Process runtime: pid files, becoming a daemon, identity and directory
// changes, limits, nice value, processor binding, output redirection,
// signal installation and the ready-made handlers.
//
// Whatever would change the test process for good (its identity, limits,
// nice value, affinity, standard descriptors, session) runs in a forked
// child that reports back through a pipe; every wait is bounded.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pwd.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "log.h"
#include "logcap.h"
#include "strf.h"
#include "testfs.h"
#include "testsig.h"
#include "util.h"

namespace {

constexpr int kWaitMs = 10000;
constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;

#define NEED_ROOT()                                            \
    do {                                                       \
        if (geteuid() != 0)                                    \
            GTEST_SKIP() << "changing identity needs root";    \
    } while (0)

long long now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Waits at most ms for the process; past that it is killed (and reaped),
// and the answer is false.
bool wait_within(pid_t pid, int* status, int ms)
{
    const long long end = now_ms() + ms;
    for (;;) {
        const pid_t r = waitpid(pid, status, WNOHANG);
        if (r == pid)
            return true;
        if (r < 0 && errno != EINTR)
            return false;
        if (now_ms() >= end) {
            kill(pid, SIGKILL);
            waitpid(pid, status, 0);
            return false;
        }
        usleep(2000);
    }
}

// Everything the descriptor gives until its end, or until ms have passed.
std::string read_within(int fd, int ms)
{
    std::string s;
    const long long end = now_ms() + ms;
    for (;;) {
        const long long left = end - now_ms();
        if (left <= 0)
            break;
        pollfd p{fd, POLLIN, 0};
        const int r = poll(&p, 1, (int)left);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        char buf[4096];
        const ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        s.append(buf, (size_t)n);
    }
    return s;
}

// One byte from the descriptor within ms; 0 when none came.
char byte_within(int fd, int ms)
{
    const long long end = now_ms() + ms;
    for (;;) {
        const long long left = end - now_ms();
        if (left <= 0)
            return 0;
        pollfd p{fd, POLLIN, 0};
        const int r = poll(&p, 1, (int)left);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return 0;
        char c = 0;
        const ssize_t n = read(fd, &c, 1);
        if (n < 0 && errno == EINTR)
            continue;
        return n == 1 ? c : 0;
    }
}

void put(int fd, const std::string& s)
{
    size_t off = 0;
    while (off < s.size()) {
        const ssize_t n = write(fd, s.data() + off, s.size() - off);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        off += (size_t)n;
    }
}

struct ChildResult {
    bool in_time = false;
    int status = 0;
    std::string out;

    bool ok() const { return in_time && WIFEXITED(status) && WEXITSTATUS(status) == 0; }
};

std::ostream& operator<<(std::ostream& os, const ChildResult& r)
{
    os << "in_time=" << r.in_time << " status=0x" << std::hex << r.status << std::dec << " out=[" << r.out << "]";
    return os;
}

// Runs body in a forked child. What body writes to the descriptor it is
// given comes back in out; what it returns is the child's exit code.
ChildResult in_child(const std::function<int(int)>& body, int ms = kWaitMs)
{
    ChildResult r;
    int p[2];
    if (pipe(p) != 0)
        return r;
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        close(p[0]);
        close(p[1]);
        return r;
    }
    if (pid == 0) {
        close(p[0]);
        const int rc = body(p[1]);
        _exit(rc);
    }
    close(p[1]);
    r.out = read_within(p[0], ms);
    close(p[0]);
    r.in_time = wait_within(pid, &r.status, ms);
    return r;
}

// Drops to nobody/nogroup with no supplementary groups; false if it failed.
bool become_nobody()
{
    return setgroups(0, nullptr) == 0 && run_as_user_id(kNobody, kNogroup) == 0;
}

std::string cwd()
{
    char buf[PATH_MAX];
    return getcwd(buf, sizeof(buf)) != nullptr ? buf : "?";
}

std::string real(const std::string& p)
{
    char buf[PATH_MAX];
    return realpath(p.c_str(), buf) != nullptr ? buf : p;
}

// The lowest descriptor number that is free now: the next open gets it.
int next_fd()
{
    const int fd = dup(0 <= fcntl(0, F_GETFD) ? 0 : 2);
    if (fd >= 0)
        close(fd);
    return fd;
}

bool fd_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

// Goes back to the directory it was made in.
class CwdGuard {
public:
    CwdGuard() : saved_(cwd()) {}
    ~CwdGuard() { (void)!chdir(saved_.c_str()); }
    CwdGuard(const CwdGuard&) = delete;
    CwdGuard& operator=(const CwdGuard&) = delete;

private:
    std::string saved_;
};

// ---- a system call made to fail ----

#if defined(__x86_64__)
constexpr uint32_t kAuditArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t kAuditArch = AUDIT_ARCH_AARCH64;
#else
constexpr uint32_t kAuditArch = 0;
#endif

// From now on the system call nr fails with err in this process and its
// children: every such call, or with argi >= 0 only those whose argument
// argi is value (all 64 bits with wide, else the low 32). False when the
// filter could not be installed. For forked children only.
bool fail_syscall(long nr, int err, int argi = -1, uint64_t value = 0, bool wide = false)
{
    if (kAuditArch == 0)
        return false;
    std::vector<sock_filter> f;
    std::vector<size_t> to_allow;
    auto ld = [&f](uint32_t off) { f.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, off)); };
    auto jeq = [&f, &to_allow](uint32_t k) {
        to_allow.push_back(f.size());
        f.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, k, 0, 0));
    };
    ld(offsetof(seccomp_data, arch));
    jeq(kAuditArch);
    ld(offsetof(seccomp_data, nr));
    jeq((uint32_t)nr);
    if (argi >= 0) {
        // Little-endian: the low word comes first.
        const uint32_t off = (uint32_t)(offsetof(seccomp_data, args) + 8 * (size_t)argi);
        ld(off);
        jeq((uint32_t)value);
        if (wide) {
            ld(off + 4);
            jeq((uint32_t)(value >> 32));
        }
    }
    f.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ((uint32_t)err & SECCOMP_RET_DATA)));
    f.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const size_t allow = f.size() - 1;
    for (size_t i : to_allow)
        f[i].jf = (uint8_t)(allow - i - 1);
    sock_fprog prog{(unsigned short)f.size(), f.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return false;
    return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) == 0;
}

// Whether a child can install such a filter here at all.
bool can_fail_syscalls()
{
    static const int can = [] {
        const ChildResult r = in_child([](int) { return fail_syscall(__NR_getppid, EPERM) && getppid() == -1 ? 0 : 1; });
        return r.ok() ? 1 : 0;
    }();
    return can == 1;
}

#define NEED_FILTERS()                                                          \
    do {                                                                        \
        if (!can_fail_syscalls())                                               \
            GTEST_SKIP() << "no system call filter can be installed here";      \
    } while (0)

// ---- pid file helpers ----

// The descriptors of this process that are open on the file.
std::vector<int> fds_on(const std::string& path)
{
    std::vector<int> out;
    const std::string want = real(path);
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr)
        return out;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.')
            continue;
        const int fd = atoi(e->d_name);
        if (fd == dirfd(d))
            continue;
        char link[PATH_MAX];
        const ssize_t n = readlink((std::string("/proc/self/fd/") + e->d_name).c_str(), link, sizeof(link) - 1);
        if (n <= 0)
            continue;
        link[n] = '\0';
        if (want == link)
            out.push_back(fd);
    }
    closedir(d);
    return out;
}

// A pid file taken in this process keeps its descriptor (and so its lock)
// open: the guard closes it when the test is done.
class PidfileGuard {
public:
    explicit PidfileGuard(std::string path) : path_(std::move(path)) {}
    ~PidfileGuard()
    {
        for (int fd : fds_on(path_))
            close(fd);
    }
    PidfileGuard(const PidfileGuard&) = delete;
    PidfileGuard& operator=(const PidfileGuard&) = delete;

private:
    std::string path_;
};

// The write lock on the file as another process sees it: "pid start len",
// "none" when there is none.
std::string lock_seen_from_outside(const std::string& path)
{
    const ChildResult r = in_child([&path](int out) {
        const int fd = open(path.c_str(), O_RDONLY);
        flock lk{};
        lk.l_type = F_WRLCK;
        lk.l_whence = SEEK_SET;
        if (fd < 0 || fcntl(fd, F_GETLK, &lk) != 0)
            return 1;
        put(out, lk.l_type == F_UNLCK ? std::string("none")
                                      : strf("%ld %ld %ld", (long)lk.l_pid, (long)lk.l_start, (long)lk.l_len));
        return 0;
    });
    return r.ok() ? r.out : "error";
}

std::string err_line(const char* head, int err)
{
    return strf("%sERROR(%d): %s\n", head, err, strerror(err));
}

// The line W_open writes for a failed open.
std::string open_line(const char* caller, const std::string& path, int flags, unsigned long mode, int err)
{
    return strf("(ERR)  %s: open('%s', %d, 0x%lx) ERROR(%d): %s\n", caller, path.c_str(), flags, mode, err,
                strerror(err));
}

constexpr int kPidfileFlags = O_WRONLY | O_CREAT | O_NOCTTY;

}  // namespace

// ---- create_pidfile_extra ----

TEST(ProcPidfile, WritesThePidAloneAndSaysSo)
{
    TempDir dir("proc");
    const std::string path = dir.at("kst.pid");
    PidfileGuard guard(path);
    LogCapture cap;
    EXPECT_EQ(create_pidfile_extra(path.c_str(), 4321, nullptr, 0), 0);
    EXPECT_EQ(slurp(path), "4321");
    EXPECT_EQ(cap.text(), strf("(INF)  Created pidfile [%s] with pid=4321.\n", path.c_str()));
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u & ~[] { const mode_t m = umask(0); umask(m); return m; }());
}

TEST(ProcPidfile, HushedSuccessSaysNothing)
{
    TempDir dir("proc");
    const std::string path = dir.at("kst.pid");
    PidfileGuard guard(path);
    LogCapture cap;
    EXPECT_EQ(create_pidfile_extra(path.c_str(), 77, nullptr, CPFX_HUSH), 0);
    EXPECT_EQ(slurp(path), "77");
    EXPECT_EQ(cap.text(), "");
}

TEST(ProcPidfile, KeepsTheDescriptorAndTheLockOnTheWholeFile)
{
    TempDir dir("proc");
    const std::string path = dir.at("kst.pid");
    PidfileGuard guard(path);
    LogCapture cap;
    ASSERT_EQ(create_pidfile_extra(path.c_str(), getpid(), nullptr, CPFX_HUSH), 0);
    EXPECT_EQ(fds_on(path).size(), 1u);
    EXPECT_EQ(lock_seen_from_outside(path), strf("%ld 0 0", (long)getpid()));
}

TEST(ProcPidfile, InodeOutParameter)
{
    TempDir dir("proc");
    const std::string path = dir.at("kst.pid");
    PidfileGuard guard(path);
    LogCapture cap;
    ino_t ino = 0;
    ASSERT_EQ(create_pidfile_extra(path.c_str(), 99, &ino, CPFX_HUSH), 0);
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(ino, st.st_ino);
    EXPECT_NE(ino, (ino_t)0);
}

TEST(ProcPidfile, LargestPidFitsItsText)
{
    TempDir dir("proc");
    const std::string path = dir.at("kst.pid");
    PidfileGuard guard(path);
    LogCapture cap;
    ASSERT_EQ(create_pidfile_extra(path.c_str(), INT_MAX, nullptr, 0), 0);
    EXPECT_EQ(slurp(path), "2147483647");
    EXPECT_EQ(cap.text(), strf("(INF)  Created pidfile [%s] with pid=2147483647.\n", path.c_str()));
}

TEST(ProcPidfile, EmptyPathLogsAndFailsHushedOrNot)
{
    for (unsigned flags : {0u, CPFX_HUSH}) {
        LogCapture cap;
        ino_t ino = 5;
        EXPECT_EQ(create_pidfile_extra("", 10, &ino, flags), -1) << flags;
        EXPECT_EQ(ino, (ino_t)5);
        EXPECT_EQ(cap.text(), "(ERR)  create_pidfile_extra: no path specified\n") << flags;
    }
}

TEST(ProcPidfile, FailedOpenGivesOnlyTheOpenLine)
{
    TempDir dir("proc");
    const std::string path = dir.at("no/such/dir/kst.pid");
    for (unsigned flags : {0u, CPFX_HUSH}) {
        LogCapture cap;
        errno = 0;
        EXPECT_EQ(create_pidfile_extra(path.c_str(), 10, nullptr, flags), -1);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(cap.text(), open_line("create_pidfile_extra", path, kPidfileFlags, 0644, ENOENT)) << flags;
    }
}

// A live holder: a child takes the pid file and waits on a pipe.
TEST(ProcPidfile, ASecondProcessGetsMinusOneAndTheFileKeepsTheHoldersNumber)
{
    TempDir dir("proc");
    const std::string path = dir.at("kst.pid");
    int ready[2], release[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(release), 0);
    fflush(nullptr);
    const pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        close(ready[0]);
        close(release[1]);
        LogCapture quiet;
        const char c = create_pidfile_extra(path.c_str(), getpid(), nullptr, CPFX_HUSH) == 0 ? 'R' : 'F';
        put(ready[1], std::string(1, c));
        (void)read_within(release[0], kWaitMs);
        _exit(0);
    }
    close(ready[1]);
    close(release[0]);
    // Lets the holder go however the test ends.
    struct Release {
        int fd;
        pid_t pid;
        ~Release()
        {
            close(fd);
            int st;
            wait_within(pid, &st, kWaitMs);
        }
    } rel{release[1], holder};

    ASSERT_EQ(byte_within(ready[0], kWaitMs), 'R');
    close(ready[0]);
    const std::string holder_pid = std::to_string(holder);
    ASSERT_EQ(slurp(path), holder_pid);

    {
        // The closing of the descriptor has a debug line of its own.
        LogCapture cap(INFO_level);
        ino_t ino = 12345;
        EXPECT_EQ(create_pidfile_extra(path.c_str(), getpid(), &ino, 0), -1);
        EXPECT_EQ(ino, (ino_t)12345);
        EXPECT_EQ(cap.text(),
                  strf("(ERR)  create_pidfile_extra: file [%s] is locked (another instance of daemon must be "
                       "running)\n"
                       "(ERR)  create_pidfile_extra: failed to create pidfile [%s] with pid=%ld.\n",
                       path.c_str(), path.c_str(), (long)getpid()));
    }
    EXPECT_EQ(slurp(path), holder_pid);
    {
        LogCapture cap(INFO_level);
        EXPECT_EQ(create_pidfile_extra(path.c_str(), getpid(), nullptr, CPFX_HUSH), -1);
        EXPECT_EQ(cap.text(), "(ERR)  Another instance is already running\n");
    }
    EXPECT_EQ(slurp(path), holder_pid);
    // Nothing of the failed tries stays open here, and the lock is the holder's.
    EXPECT_TRUE(fds_on(path).empty());
    EXPECT_EQ(lock_seen_from_outside(path), holder_pid + " 0 0");
}

TEST(ProcPidfile, AFileLeftByADeadProcessIsTakenOverWithoutAWord)
{
    TempDir dir("proc");
    const std::string path = dir.at("kst.pid");
    PidfileGuard guard(path);
    const ChildResult dead = in_child([&path](int) {
        LogCapture quiet;
        return create_pidfile_extra(path.c_str(), getpid(), nullptr, CPFX_HUSH) == 0 ? 0 : 1;
    });
    ASSERT_TRUE(dead.ok()) << dead;
    ASSERT_NE(slurp(path), "");
    ASSERT_NE(slurp(path), std::to_string(getpid()));

    LogCapture cap;
    ino_t ino = 0;
    EXPECT_EQ(create_pidfile_extra(path.c_str(), getpid(), &ino, CPFX_HUSH), 0);
    EXPECT_EQ(slurp(path), std::to_string(getpid()));
    EXPECT_EQ(cap.text(), "");
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(ino, st.st_ino);
}

TEST(ProcPidfile, AStaleLongerFileIsCutToTheNewPidWithNoErrorLine)
{
    TempDir dir("proc");
    const std::string path = dir.make("kst.pid", "4194304999\nold junk\n");
    PidfileGuard guard(path);
    LogCapture cap;
    EXPECT_EQ(create_pidfile_extra(path.c_str(), 42, nullptr, 0), 0);
    EXPECT_EQ(slurp(path), "42");
    EXPECT_EQ(cap.text(), strf("(INF)  Created pidfile [%s] with pid=42.\n", path.c_str()));
}

TEST(ProcPidfile, OtherLockErrorHasItsOwnLine)
{
    NEED_FILTERS();
    TempDir dir("proc");
    const std::string path = dir.at("kst.pid");
    for (unsigned flags : {0u, CPFX_HUSH}) {
        const ChildResult r = in_child([&path, flags](int out) {
            LogCapture cap(INFO_level);
            if (!fail_syscall(__NR_fcntl, ENOLCK, 1, F_SETLK))
                return 2;
            const int rc = create_pidfile_extra(path.c_str(), 31, nullptr, flags);
            put(out, strf("rc=%d open=%zu\n", rc, fds_on(path).size()) + cap.text());
            return 0;
        });
        ASSERT_TRUE(r.ok()) << r;
        std::string want = "rc=-1 open=0\n" + err_line("(ERR)  fcntl write-lock ", ENOLCK);
        if (flags == 0)
            want += strf("(ERR)  create_pidfile_extra: failed to create pidfile [%s] with pid=31.\n", path.c_str());
        EXPECT_EQ(r.out, want) << flags;
    }
}

TEST(ProcPidfile, FailedTruncationClosesSaysSoAndLeavesTheFile)
{
    NEED_FILTERS();
    TempDir dir("proc");
    const std::string path = dir.make("kst.pid", "1234567");
    for (unsigned flags : {0u, CPFX_HUSH}) {
        const ChildResult r = in_child([&path, flags](int out) {
            LogCapture cap(INFO_level);
            const int fd = next_fd();
            if (!fail_syscall(__NR_ftruncate, EIO))
                return 2;
            const int rc = create_pidfile_extra(path.c_str(), 31, nullptr, flags);
            put(out, strf("rc=%d fd=%d open=%d\n", rc, fd, fd_open(fd) ? 1 : 0) + cap.text());
            return 0;
        });
        ASSERT_TRUE(r.ok()) << r;
        const int fd = atoi(r.out.c_str() + r.out.find("fd=") + 3);
        std::string want = strf("rc=-1 fd=%d open=0\n", fd) +
                           strf("(ERR)  create_pidfile_extra: ftruncate(%d, 0) ", fd) + err_line("", EIO);
        if (flags == 0)
            want += strf("(ERR)  create_pidfile_extra: failed to create pidfile [%s] with pid=31.\n", path.c_str());
        EXPECT_EQ(r.out, want) << flags;
        EXPECT_EQ(slurp(path), "1234567");
    }
}

TEST(ProcPidfile, FailedFstatForTheInodeLogsAndFails)
{
    NEED_FILTERS();
    TempDir dir("proc");
    const std::string path = dir.at("kst.pid");
    const ChildResult r = in_child([&path](int out) {
        LogCapture cap(INFO_level);
        const int fd = next_fd();
        if (!fail_syscall(__NR_fstat, EIO, 0, (uint64_t)fd) || !fail_syscall(__NR_newfstatat, EIO, 0, (uint64_t)fd))
            return 2;
        ino_t ino = 3;
        const int rc = create_pidfile_extra(path.c_str(), 31, &ino, 0);
        put(out, strf("rc=%d ino=%ld fd=%d open=%d\n", rc, (long)ino, fd, fd_open(fd) ? 1 : 0) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    const int fd = atoi(r.out.c_str() + r.out.find("fd=") + 3);
    EXPECT_EQ(r.out, strf("rc=-1 ino=3 fd=%d open=0\n", fd) +
                         strf("(ERR)  create_pidfile_extra: fstat(fd%d,..) ", fd) + err_line("", EIO) +
                         strf("(ERR)  create_pidfile_extra: failed to create pidfile [%s] with pid=31.\n",
                              path.c_str()));
}

namespace {

void log_to_stderr()
{
    glog_init("test");
    g_log.fp = stderr;
    g_log.mirror_fp = nullptr;
    g_log.time_format = f_NO_TIME;
    g_log.pid = 0;
    g_log.group.num64 = 0;
}

const char* const kAssertLine =
    "\\(PNC\\)  ASSERT at:\n(.|\n)*==\nAssertion failed: \\(0\\), function create_pidfile_extra, file "
    "lib/util_pidfile\\.cpp, line [0-9]+\\.";

}  // namespace

TEST(ProcPidfileDeathTest, PidZeroIsAnAssertion)
{
    TempDir dir("proc");
    const std::string path = dir.at("kst.pid");
    EXPECT_DEATH(
        {
            log_to_stderr();
            create_pidfile_extra(path.c_str(), 0, nullptr, 0);
        },
        kAssertLine);
    EXPECT_FALSE(exists(path));
}

TEST(ProcPidfileDeathTest, NegativePidIsAnAssertion)
{
    TempDir dir("proc");
    const std::string path = dir.at("kst.pid");
    EXPECT_DEATH(
        {
            log_to_stderr();
            create_pidfile_extra(path.c_str(), -7, nullptr, CPFX_HUSH);
        },
        kAssertLine);
    EXPECT_FALSE(exists(path));
}

TEST(ProcPidfileDeathTest, NullPathIsAnAssertion)
{
    EXPECT_DEATH(
        {
            log_to_stderr();
            create_pidfile_extra(nullptr, 100, nullptr, 0);
        },
        kAssertLine);
}

// ---- mk_pidfile_name ----

TEST(ProcPidfileName, NoStridAndMinusOneGivesADoubleDash)
{
    TempDir dir("proc");
    LogCapture cap;
    char buf[256];
    EXPECT_EQ(mk_pidfile_name(dir.path().c_str(), "app", nullptr, -1, buf, sizeof(buf)), buf);
    EXPECT_EQ(std::string(buf), dir.path() + "/app--1.pid");
    EXPECT_EQ(cap.text(), "");
}

TEST(ProcPidfileName, NumidAlone)
{
    TempDir dir("proc");
    LogCapture cap;
    char buf[256];
    EXPECT_EQ(mk_pidfile_name(dir.path().c_str(), "kst", nullptr, 7, buf, sizeof(buf)), buf);
    EXPECT_EQ(std::string(buf), dir.path() + "/kst-7.pid");
    EXPECT_EQ(mk_pidfile_name(dir.path().c_str(), "kst", nullptr, 0, buf, sizeof(buf)), buf);
    EXPECT_EQ(std::string(buf), dir.path() + "/kst-0.pid");
    EXPECT_EQ(cap.text(), "");
}

TEST(ProcPidfileName, StridWithANegativeNumidStandsAlone)
{
    TempDir dir("proc");
    LogCapture cap;
    char buf[256];
    EXPECT_EQ(mk_pidfile_name(dir.path().c_str(), "kst", "eth", -1, buf, sizeof(buf)), buf);
    EXPECT_EQ(std::string(buf), dir.path() + "/kst-eth.pid");
    EXPECT_EQ(mk_pidfile_name(dir.path().c_str(), "kst", "eth", -30, buf, sizeof(buf)), buf);
    EXPECT_EQ(std::string(buf), dir.path() + "/kst-eth.pid");
    EXPECT_EQ(cap.text(), "");
}

TEST(ProcPidfileName, StridAndNumidRunTogether)
{
    TempDir dir("proc");
    LogCapture cap;
    char buf[256];
    EXPECT_EQ(mk_pidfile_name(dir.path().c_str(), "kst", "eth", 0, buf, sizeof(buf)), buf);
    EXPECT_EQ(std::string(buf), dir.path() + "/kst-eth0.pid");
    EXPECT_EQ(mk_pidfile_name(dir.path().c_str(), "kst", "eth", 12, buf, sizeof(buf)), buf);
    EXPECT_EQ(std::string(buf), dir.path() + "/kst-eth12.pid");
    EXPECT_EQ(cap.text(), "");
}

TEST(ProcPidfileName, ExactFitAndOneByteShort)
{
    TempDir dir("proc");
    const std::string want = dir.path() + "/kst-eth3.pid";
    const size_t len = want.size();
    std::vector<char> buf(len + 8, 'x');
    {
        LogCapture cap;
        EXPECT_EQ(mk_pidfile_name(dir.path().c_str(), "kst", "eth", 3, buf.data(), len + 1), buf.data());
        EXPECT_EQ(std::string(buf.data()), want);
        EXPECT_EQ(cap.text(), "");
    }
    {
        LogCapture cap;
        EXPECT_EQ(mk_pidfile_name(dir.path().c_str(), "kst", "eth", 3, buf.data(), len), nullptr);
        EXPECT_EQ(cap.text(), strf("(ERR)  mk_pidfile_name: %d bytes needed for filename, only %ld available.\n",
                                   (int)len, (long)len));
    }
    {
        LogCapture cap;
        EXPECT_EQ(mk_pidfile_name(dir.path().c_str(), "kst", nullptr, -1, buf.data(), 4), nullptr);
        EXPECT_EQ(cap.text(), strf("(ERR)  mk_pidfile_name: %d bytes needed for filename, only 4 available.\n",
                                   (int)(dir.path() + "/kst--1.pid").size()));
    }
}

// A zero-length buffer leaves no room at all: nothing may be written into it.
// Disabled until mk_pidfile_name stops reading buflen - 1 of a zero buflen as
// the largest size_t: today it returns the buffer, logs nothing and writes
// the ending zero past it.
TEST(ProcPidfileName, ZeroLengthBufferIsTooSmall)
{
    TempDir dir("proc");
    const int need = (int)(dir.path() + "/kst-1.pid").size();
    std::vector<char> buf(need + 8, 'x');
    LogCapture cap;
    EXPECT_EQ(mk_pidfile_name(dir.path().c_str(), "kst", nullptr, 1, buf.data(), 0), nullptr);
    EXPECT_EQ(cap.text(),
              strf("(ERR)  mk_pidfile_name: %d bytes needed for filename, only 0 available.\n", need));
    for (int i = 0; i < need + 8; ++i)
        EXPECT_EQ(buf[i], 'x') << i;
}

TEST(ProcPidfileName, MissingDirectory)
{
    TempDir dir("proc");
    const std::string missing = dir.at("none");
    LogCapture cap;
    char buf[256];
    errno = 0;
    EXPECT_EQ(mk_pidfile_name(missing.c_str(), "kst", nullptr, 1, buf, sizeof(buf)), nullptr);
    EXPECT_EQ(cap.text(), strf("(ERR)  mk_pidfile_name: directory [%s] is not writable: ", missing.c_str()) +
                              err_line("", ENOENT));
}

TEST(ProcPidfileName, DirectoryNotWritableForNobody)
{
    NEED_ROOT();
    TempDir dir("proc");
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    const ChildResult r = in_child([&dir](int out) {
        LogCapture cap;
        if (!become_nobody())
            return 2;
        char buf[256];
        char* p = mk_pidfile_name(dir.path().c_str(), "kst", "x", 1, buf, sizeof(buf));
        put(out, strf("null=%d\n", p == nullptr ? 1 : 0) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "null=1\n" +
                         strf("(ERR)  mk_pidfile_name: directory [%s] is not writable: ", dir.path().c_str()) +
                         err_line("", EACCES));
}

// ---- goto_runtime_dir ----

TEST(ProcRuntimeDir, EntersTheSavedDirectory)
{
    TempDir dir("proc");
    CwdGuard back;
    LogCapture cap;
    EXPECT_EQ(goto_runtime_dir(dir.path().c_str()), 0);
    EXPECT_EQ(cwd(), real(dir.path()));
    EXPECT_EQ(cap.text(), "");
}

TEST(ProcRuntimeDir, MissingDirectoryFailsWithItsLineAndStays)
{
    TempDir dir("proc");
    const std::string missing = dir.at("gone");
    CwdGuard back;
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    LogCapture cap;
    EXPECT_EQ(goto_runtime_dir(missing.c_str()), -1);
    EXPECT_EQ(cwd(), real(dir.path()));
    EXPECT_EQ(cap.text(), strf("(ERR)  chdir(%s) ", missing.c_str()) + err_line("", ENOENT));
}

TEST(ProcRuntimeDir, NoSavedDirectoryGoesHome)
{
    const passwd* pw = getpwuid(geteuid());
    ASSERT_NE(pw, nullptr);
    const std::string home = pw->pw_dir;
    if (!is_dir(home))
        GTEST_SKIP() << "no home directory " << home;
    CwdGuard back;
    LogCapture cap;
    EXPECT_EQ(goto_runtime_dir(nullptr), 0);
    EXPECT_EQ(cwd(), real(home));
    EXPECT_EQ(cap.text(), "");
}

// Linux denies a directory without search permission with EACCES: that is
// a failure, with no fallback.
TEST(ProcRuntimeDir, DirectoryNobodyMayNotEnterFailsWithItsLine)
{
    NEED_ROOT();
    TempDir dir("proc");
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    const std::string locked = dir.at("locked");
    ASSERT_EQ(mkdir(locked.c_str(), 0700), 0);
    const ChildResult r = in_child([&](int out) {
        if (chdir(dir.path().c_str()) != 0 || !become_nobody())
            return 2;
        LogCapture cap;
        const int rc = goto_runtime_dir(locked.c_str());
        put(out, strf("rc=%d cwd=%s\n", rc, cwd().c_str()) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=-1 cwd=%s\n", real(dir.path()).c_str()) +
                         strf("(ERR)  chdir(%s) ", locked.c_str()) + err_line("", EACCES));
}

// chdir has no EPERM of its own on Linux: a filter gives it one for the
// saved directory alone, so the home directory can still be entered.
TEST(ProcRuntimeDir, EpermFallsBackToTheHomeDirectory)
{
    NEED_FILTERS();
    const passwd* pw = getpwuid(geteuid());
    ASSERT_NE(pw, nullptr);
    const std::string home = pw->pw_dir;
    if (!is_dir(home))
        GTEST_SKIP() << "no home directory " << home;
    TempDir dir("proc");
    const ChildResult r = in_child([&](int out) {
        const std::string saved = dir.path();
        if (!fail_syscall(__NR_chdir, EPERM, 0, (uint64_t)(uintptr_t)saved.c_str(), true))
            return 2;
        LogCapture cap;
        const int rc = goto_runtime_dir(saved.c_str());
        put(out, strf("rc=%d cwd=%s\n", rc, cwd().c_str()) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=0 cwd=%s\n", real(home).c_str()));
}

TEST(ProcRuntimeDir, EpermAndAMissingHomeFailsWithTheHomeLine)
{
    NEED_ROOT();
    NEED_FILTERS();
    const passwd* pw = getpwuid(kNobody);
    if (pw == nullptr)
        GTEST_SKIP() << "no user " << kNobody;
    const std::string home = pw->pw_dir;
    if (exists(home))
        GTEST_SKIP() << "the home directory of nobody exists here: " << home;
    TempDir dir("proc");
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    const ChildResult r = in_child([&](int out) {
        const std::string saved = dir.path();
        if (chdir("/") != 0 || !become_nobody() ||
            !fail_syscall(__NR_chdir, EPERM, 0, (uint64_t)(uintptr_t)saved.c_str(), true))
            return 2;
        LogCapture cap;
        const int rc = goto_runtime_dir(saved.c_str());
        put(out, strf("rc=%d cwd=%s\n", rc, cwd().c_str()) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "rc=-1 cwd=/\n" + strf("(ERR)  chdir(%s) ", home.c_str()) + err_line("", ENOENT));
}

TEST(ProcRuntimeDir, UnknownUserIdHasTheGetpwuidLine)
{
    NEED_ROOT();
    constexpr uid_t kStranger = 54321;
    errno = 0;
    if (getpwuid(kStranger) != nullptr)
        GTEST_SKIP() << "uid " << kStranger << " exists here";
    const int want_err = errno;
    const ChildResult r = in_child([&](int out) {
        if (chdir("/") != 0 || setgroups(0, nullptr) != 0 || run_as_user_id(kStranger, kStranger) != 0)
            return 2;
        LogCapture cap;
        const int rc = goto_runtime_dir(nullptr);
        put(out, strf("rc=%d cwd=%s\n", rc, cwd().c_str()) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "rc=-1 cwd=/\n" + strf("(ERR)  getpwuid(%ld) ", (long)kStranger) + err_line("", want_err));
}

// ---- daemonize ----

namespace {

enum class DaemonCase { LogOnStdout, LogOnAFile, SetsidFails, ChdirFails };

// Runs in a forked child that is a subreaper, so that it can reap and tell
// every process of the daemon's making. Lines out:
//   c <pid> <status>        the process that called daemonize
//   r <pid> <status>        each other process reaped
//   g <what the daemon, or a failing process, found>
int daemon_harness(int out, DaemonCase what)
{
    if (prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0 || chdir("/tmp") != 0)
        return 2;
    umask(022);
    int gp[2];
    if (pipe(gp) != 0)
        return 2;
    fflush(nullptr);
    const pid_t c = fork();
    if (c < 0)
        return 2;
    if (c == 0) {
        close(gp[0]);
        close(out);
        const int w = gp[1];
        // Kept in a static: the process ends without freeing it.
        static LogCapture* cap = nullptr;
        cap = new LogCapture(DEBUG_level);
        FILE* const cap_fp = cap->fp();
        if (what == DaemonCase::LogOnStdout)
            g_log.fp = stdout;
        if (what == DaemonCase::SetsidFails && !fail_syscall(__NR_setsid, EPERM))
            _exit(3);
        if (what == DaemonCase::ChdirFails && !fail_syscall(__NR_chdir, EACCES))
            _exit(3);
        errno = 0;
        const int rc = daemonize();
        const int err = errno;
        // Looked at first, before anything here opens a descriptor.
        const bool fd0 = fd_open(0), fd1 = fd_open(1), fd2 = fd_open(2);
        const mode_t mask = umask(0);
        if (rc != 0) {
            put(w, strf("g rc=%d errno=%d pid=%ld sid=%ld umask=%03o fd=%d%d%d cwd=%s\n", rc, err, (long)getpid(),
                        (long)getsid(0), (unsigned)mask, fd0, fd1, fd2, cwd().c_str()) +
                       cap->text());
            _exit(0);
        }
        const int tty = open("/dev/tty", O_RDWR | O_NOCTTY);
        const int tty_err = errno;
        if (tty >= 0)
            close(tty);
        const char* log = log_fp(&g_log) == stderr ? "stderr" : log_fp(&g_log) == cap_fp ? "kept" : "other";
        put(w, strf("g rc=0 pid=%ld sid=%ld pgid=%ld umask=%03o fd=%d%d%d cwd=%s tty=%d log=%s\n", (long)getpid(),
                    (long)getsid(0), (long)getpgid(0), (unsigned)mask, fd0, fd1, fd2, cwd().c_str(),
                    tty >= 0 ? 0 : tty_err, log));
        _exit(0);
    }
    close(gp[1]);
    std::string report = read_within(gp[0], kWaitMs);
    close(gp[0]);
    // The caller, then whatever else comes to this subreaper.
    int st = 0;
    if (!wait_within(c, &st, kWaitMs))
        return 4;
    std::string lines = strf("c %ld %d\n", (long)c, st);
    const long long end = now_ms() + kWaitMs;
    for (;;) {
        const pid_t p = waitpid(-1, &st, WNOHANG);
        if (p > 0) {
            lines += strf("r %ld %d\n", (long)p, st);
            continue;
        }
        if (p < 0 && errno == ECHILD)
            break;
        if (now_ms() >= end)
            return 5;
        usleep(2000);
    }
    put(out, lines + report);
    return 0;
}

struct DaemonRun {
    long c_pid = 0;
    int c_status = -1;
    std::vector<std::pair<long, int>> reaped;
    std::string g;  // the g line without its tag, and what follows
};

DaemonRun parse_daemon_run(const std::string& out)
{
    DaemonRun d;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("c ", 0) == 0) {
            sscanf(line.c_str(), "c %ld %d", &d.c_pid, &d.c_status);
        } else if (line.rfind("r ", 0) == 0) {
            long p = 0;
            int s = 0;
            sscanf(line.c_str(), "r %ld %d", &p, &s);
            d.reaped.emplace_back(p, s);
        } else if (line.rfind("g ", 0) == 0) {
            d.g = line.substr(2) + "\n";
            std::string rest;
            while (std::getline(in, rest))
                d.g += rest + "\n";
        }
    }
    return d;
}

long field(const std::string& s, const char* name)
{
    const std::string key = std::string(" ") + name + "=";
    const size_t at = (" " + s).find(key);
    return at == std::string::npos ? -1 : atol(s.c_str() + at + key.size() - 1);
}

}  // namespace

TEST(ProcDaemonize, TheDaemonIsInANewSessionAtTheRootWithUmaskZeroAndNoStdinOrStdout)
{
    const ChildResult r = in_child([](int out) { return daemon_harness(out, DaemonCase::LogOnStdout); }, 30000);
    ASSERT_TRUE(r.ok()) << r;
    const DaemonRun d = parse_daemon_run(r.out);
    const long g_pid = field(d.g, "pid");
    const long sid = field(d.g, "sid");
    ASSERT_GT(g_pid, 0) << r.out;
    // The first parent exits with 0.
    EXPECT_EQ(d.c_status, 0) << r.out;
    // The session was made by the intermediate process, which exited with 0:
    // the daemon is in that new session but leads none.
    ASSERT_EQ(d.reaped.size(), 2u) << r.out;
    bool saw_leader = false, saw_daemon = false;
    for (const auto& [pid, status] : d.reaped) {
        EXPECT_EQ(status, 0) << pid << "\n" << r.out;
        saw_leader |= pid == sid;
        saw_daemon |= pid == g_pid;
    }
    EXPECT_TRUE(saw_leader) << r.out;
    EXPECT_TRUE(saw_daemon) << r.out;
    EXPECT_NE(sid, g_pid);
    EXPECT_NE(sid, (long)getsid(0));
    EXPECT_NE(d.c_pid, sid);
    EXPECT_EQ(field(d.g, "pgid"), sid) << r.out;
    EXPECT_EQ(d.g, strf("rc=0 pid=%ld sid=%ld pgid=%ld umask=000 fd=001 cwd=/ tty=%d log=stderr\n", g_pid, sid,
                        sid, ENXIO));
}

TEST(ProcDaemonize, ALogOnItsOwnFileStays)
{
    const ChildResult r = in_child([](int out) { return daemon_harness(out, DaemonCase::LogOnAFile); }, 30000);
    ASSERT_TRUE(r.ok()) << r;
    const DaemonRun d = parse_daemon_run(r.out);
    EXPECT_EQ(d.c_status, 0) << r.out;
    EXPECT_EQ(d.reaped.size(), 2u) << r.out;
    EXPECT_NE(d.g.find(" log=kept\n"), std::string::npos) << r.out;
    EXPECT_NE(d.g.find("rc=0 "), std::string::npos) << r.out;
}

TEST(ProcDaemonize, FailedSetsidLogsAndReturnsMinusOne)
{
    NEED_FILTERS();
    const ChildResult r = in_child([](int out) { return daemon_harness(out, DaemonCase::SetsidFails); }, 30000);
    ASSERT_TRUE(r.ok()) << r;
    const DaemonRun d = parse_daemon_run(r.out);
    EXPECT_EQ(d.c_status, 0) << r.out;
    // Only the process after the first fork, which failed and ended itself.
    ASSERT_EQ(d.reaped.size(), 1u) << r.out;
    const long pid = d.reaped[0].first;
    const long sid = field(d.g, "sid");
    EXPECT_EQ(d.g, strf("rc=-1 errno=%d pid=%ld sid=%ld umask=022 fd=111 cwd=/tmp\n", EPERM, pid, sid) +
                       "(ERR)  daemonize: failed at setsid, " + err_line("", EPERM));
    EXPECT_NE(sid, pid);
}

TEST(ProcDaemonize, FailedChdirLogsAndReturnsItsResult)
{
    NEED_FILTERS();
    const ChildResult r = in_child([](int out) { return daemon_harness(out, DaemonCase::ChdirFails); }, 30000);
    ASSERT_TRUE(r.ok()) << r;
    const DaemonRun d = parse_daemon_run(r.out);
    EXPECT_EQ(d.c_status, 0) << r.out;
    ASSERT_EQ(d.reaped.size(), 1u) << r.out;
    const long pid = d.reaped[0].first;
    // setsid went through: the failing process leads its own session.
    EXPECT_EQ(d.g, strf("rc=-1 errno=%d pid=%ld sid=%ld umask=022 fd=111 cwd=/tmp\n", EACCES, pid, pid) +
                       "(ERR)  daemonize: failed at chdir, " + err_line("", EACCES));
}

TEST(ProcDaemonize, AFailedFirstForkReturnsMinusOneWithoutALine)
{
    NEED_ROOT();
    const ChildResult r = in_child([](int out) {
        const pid_t me = getpid();
        if (!become_nobody())
            return 2;
        const rlimit none{0, 0};
        if (setrlimit(RLIMIT_NPROC, &none) != 0)
            return 2;
        LogCapture cap;
        errno = 0;
        const int rc = daemonize();
        const int err = errno;
        put(out, strf("rc=%d errno=%d same=%d fd=%d%d\n", rc, err, getpid() == me, fd_open(0), fd_open(1)) +
                     cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=-1 errno=%d same=1 fd=11\n", EAGAIN));
}

// ---- run_as_user, run_as_user_id ----

TEST(ProcRunAsUser, UnknownUserIsNotFound)
{
    LogCapture cap;
    const uid_t uid = getuid();
    EXPECT_EQ(run_as_user("kst-no-such-user"), -1);
    EXPECT_EQ(getuid(), uid);
    EXPECT_EQ(cap.text(), "(ERR)  run_as_user: getpwnam: user kst-no-such-user not found\n");
}

namespace {

// With no descriptor left the user database cannot be opened.
[[noreturn]] void look_up_without_descriptors(const char* user)
{
    log_to_stderr();
    const int fd = next_fd();
    const rlimit lim{(rlim_t)fd, (rlim_t)fd};
    if (fd < 0 || setrlimit(RLIMIT_NOFILE, &lim) != 0)
        _exit(2);
    _exit(run_as_user(user) == -1 ? 0 : 1);
}

}  // namespace

// Runs in a fresh process: a name service module loaded before (one that
// answers "not found" without any file) would hide the failure. "root" and
// "nobody" are left out, as some modules know them without any file.
TEST(ProcRunAsUserDeathTest, AFailingLookupHasItsErrnoLine)
{
    if (getpwnam("daemon") == nullptr)
        GTEST_SKIP() << "no user daemon";
    const std::string style = GTEST_FLAG_GET(death_test_style);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(look_up_without_descriptors("daemon"), testing::ExitedWithCode(0),
                std::string("^\\(ERR\\)  run_as_user: getpwnam\\(daemon\\): ") + strerror(EMFILE) + "\n$");
    GTEST_FLAG_SET(death_test_style, style);
}

TEST(ProcRunAsUser, RootBecomesNobody)
{
    NEED_ROOT();
    const passwd* pw = getpwnam("nobody");
    if (pw == nullptr)
        GTEST_SKIP() << "no user nobody";
    const uid_t uid = pw->pw_uid;
    const gid_t gid = pw->pw_gid;
    const ChildResult r = in_child([](int out) {
        LogCapture cap;
        const int rc = run_as_user("nobody");
        uid_t ru, eu, su;
        gid_t rg, eg, sg;
        getresuid(&ru, &eu, &su);
        getresgid(&rg, &eg, &sg);
        put(out, strf("rc=%d uid=%ld/%ld/%ld gid=%ld/%ld/%ld\n", rc, (long)ru, (long)eu, (long)su, (long)rg,
                      (long)eg, (long)sg) +
                     cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=0 uid=%ld/%ld/%ld gid=%ld/%ld/%ld\n", (long)uid, (long)uid, (long)uid, (long)gid,
                          (long)gid, (long)gid));
}

// The group changes first: the other way round the user could no longer
// change it.
TEST(ProcRunAsUser, IdsTakeTheGroupThenTheUser)
{
    NEED_ROOT();
    const ChildResult r = in_child([](int out) {
        LogCapture cap;
        const int rc = run_as_user_id(kNobody, 4242);
        put(out, strf("rc=%d uid=%ld/%ld gid=%ld/%ld\n", rc, (long)getuid(), (long)geteuid(), (long)getgid(),
                      (long)getegid()) +
                     cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=0 uid=%ld/%ld gid=4242/4242\n", (long)kNobody, (long)kNobody));
}

TEST(ProcRunAsUser, AnUnprivilegedChangeFailsWithoutALine)
{
    NEED_ROOT();
    const ChildResult r = in_child([](int out) {
        if (!become_nobody())
            return 2;
        LogCapture cap;
        const int by_name = run_as_user("root");
        const int by_gid = run_as_user_id(0, 0);
        // The group alone would be allowed: the user still fails.
        const int by_uid = run_as_user_id(0, kNogroup);
        put(out, strf("rc=%d/%d/%d uid=%ld gid=%ld\n", by_name, by_gid, by_uid, (long)geteuid(), (long)getegid()) +
                     cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=-1/-1/-1 uid=%ld gid=%ld\n", (long)kNobody, (long)kNogroup));
}

// ---- limits ----

namespace {

std::string limit_of(int lid)
{
    rlimit lim{};
    if (getrlimit(lid, &lim) != 0)
        return "error";
    auto one = [](rlim_t v) { return v == RLIM_INFINITY ? std::string("inf") : std::to_string((unsigned long)v); };
    return one(lim.rlim_cur) + "/" + one(lim.rlim_max);
}

// Large enough for any address space the test process has (sanitizers
// reserve a lot), yet below the infinite hard limit.
constexpr rlim_t kBigVmem = (rlim_t)1 << 62;

}  // namespace

TEST(ProcLimits, SetLimitChangesTheSoftLimitOnlyAndSaysSo)
{
    const ChildResult r = in_child([](int out) {
        const rlimit start{1000, 2000};
        if (setrlimit(RLIMIT_NOFILE, &start) != 0)
            return 2;
        LogCapture cap;
        const int rc = set_limit(RLIMIT_NOFILE, 500, "files");
        put(out, strf("rc=%d lim=%s\n", rc, limit_of(RLIMIT_NOFILE).c_str()) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=0 lim=500/2000\n(INF)  set_limit(files/%d): 500 bytes\n", (int)RLIMIT_NOFILE));
}

TEST(ProcLimits, InvalidResourceIdFailsAtGetrlimit)
{
    LogCapture cap;
    EXPECT_EQ(set_limit(9999, 4096, "bogus"), -1);
    EXPECT_EQ(cap.text(), "(ERR)  set_limit: getrlimit(9999) " + err_line("", EINVAL));
}

TEST(ProcLimits, SoftAboveHardFailsAtSetrlimit)
{
    const ChildResult r = in_child([](int out) {
        const rlimit start{kBigVmem, kBigVmem};
        if (setrlimit(RLIMIT_AS, &start) != 0)
            return 2;
        LogCapture cap;
        const int rc = set_vmem_limit(kBigVmem + 4096);
        put(out, strf("rc=%d lim=%s\n", rc, limit_of(RLIMIT_AS).c_str()) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=-1 lim=%lu/%lu\n", (unsigned long)kBigVmem, (unsigned long)kBigVmem) +
                         strf("(ERR)  set_limit: setrlimit(%d, %lu) ", (int)RLIMIT_AS,
                              (unsigned long)(kBigVmem + 4096)) +
                         err_line("", EINVAL));
}

TEST(ProcLimits, RssAndVmemUseTheirResourcesAndTags)
{
    const ChildResult r = in_child([](int out) {
        LogCapture cap;
        const int rss = set_rss_limit(1 << 20);
        const int vmem = set_vmem_limit(kBigVmem);
        put(out, strf("rc=%d/%d rss=%s vmem=%s\n", rss, vmem, limit_of(RLIMIT_RSS).c_str(),
                      limit_of(RLIMIT_AS).c_str()) +
                     cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=0/0 rss=1048576/inf vmem=%lu/inf\n", (unsigned long)kBigVmem) +
                         strf("(INF)  set_limit(rss/%d): 1048576 bytes\n", (int)RLIMIT_RSS) +
                         strf("(INF)  set_limit(vmem/%d): %lu bytes\n", (int)RLIMIT_AS, (unsigned long)kBigVmem));
}

TEST(ProcLimits, MemLimitsApplyRssFirstAndSkipZeros)
{
    const ChildResult r = in_child([](int out) {
        LogCapture cap;
        std::string s;
        s += strf("both=%d\n", set_mem_limits(2 << 20, kBigVmem));
        s += strf("rss=%d\n", set_mem_limits(3 << 20, 0));
        s += strf("vmem=%d\n", set_mem_limits(0, kBigVmem - 4096));
        s += strf("none=%d\n", set_mem_limits(0, 0));
        put(out, s + strf("rss=%s vmem=%s\n", limit_of(RLIMIT_RSS).c_str(), limit_of(RLIMIT_AS).c_str()) +
                     cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "both=0\nrss=0\nvmem=0\nnone=0\n" +
                         strf("rss=3145728/inf vmem=%lu/inf\n", (unsigned long)(kBigVmem - 4096)) +
                         strf("(INF)  set_limit(rss/%d): 2097152 bytes\n", (int)RLIMIT_RSS) +
                         strf("(INF)  set_limit(vmem/%d): %lu bytes\n", (int)RLIMIT_AS, (unsigned long)kBigVmem) +
                         strf("(INF)  set_limit(rss/%d): 3145728 bytes\n", (int)RLIMIT_RSS) +
                         strf("(INF)  set_limit(vmem/%d): %lu bytes\n", (int)RLIMIT_AS,
                              (unsigned long)(kBigVmem - 4096)));
}

TEST(ProcLimits, MemLimitsStopAtAFailedRss)
{
    const ChildResult r = in_child([](int out) {
        const rlimit rss_cap{1 << 20, 1 << 20};
        if (setrlimit(RLIMIT_RSS, &rss_cap) != 0)
            return 2;
        const std::string vmem_before = limit_of(RLIMIT_AS);
        LogCapture cap;
        const int rc = set_mem_limits(2 << 20, kBigVmem);
        put(out, strf("rc=%d vmem_same=%d\n", rc, limit_of(RLIMIT_AS) == vmem_before) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "rc=-1 vmem_same=1\n" + strf("(ERR)  set_limit: setrlimit(%d, 2097152) ", (int)RLIMIT_RSS) +
                         err_line("", EINVAL));
}

TEST(ProcLimits, MemLimitsReportAFailedVmemAfterTheRss)
{
    const ChildResult r = in_child([](int out) {
        const rlimit vm_cap{kBigVmem, kBigVmem};
        if (setrlimit(RLIMIT_AS, &vm_cap) != 0)
            return 2;
        LogCapture cap;
        const int rc = set_mem_limits(1 << 20, kBigVmem + 4096);
        put(out, strf("rc=%d rss=%s\n", rc, limit_of(RLIMIT_RSS).c_str()) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "rc=-1 rss=1048576/inf\n" + strf("(INF)  set_limit(rss/%d): 1048576 bytes\n", (int)RLIMIT_RSS) +
                         strf("(ERR)  set_limit: setrlimit(%d, %lu) ", (int)RLIMIT_AS,
                              (unsigned long)(kBigVmem + 4096)) +
                         err_line("", EINVAL));
}

// ---- set_unlimited_core ----

TEST(ProcCoreLimit, RaisesToInfinityThenIsAlreadySet)
{
    const ChildResult r = in_child([](int out) {
        const rlimit small{4096, RLIM_INFINITY};
        if (setrlimit(RLIMIT_CORE, &small) != 0)
            return 2;
        LogCapture cap;
        rlimit old{};
        const int first = set_unlimited_core(&old);
        const int again = set_unlimited_core(nullptr);
        put(out, strf("rc=%d/%d old=%lu now=%s\n", first, again, (unsigned long)old.rlim_cur,
                      limit_of(RLIMIT_CORE).c_str()) +
                     cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "rc=0/0 old=4096 now=inf/inf\n" +
                         strf("(DBG)  set_unlimited_core: current=4096/%ld\n", (long)RLIM_INFINITY) +
                         "(DBG)  set_unlimited_core: OK\n"
                         "(DBG)  set_unlimited_core: already set\n");
}

TEST(ProcCoreLimit, ABoundedHardLimitFails)
{
    const ChildResult r = in_child([](int out) {
        const rlimit small{0, 8192};
        if (setrlimit(RLIMIT_CORE, &small) != 0)
            return 2;
        // Even root may not raise a hard limit without CAP_SYS_RESOURCE;
        // nobody surely may not.
        if (geteuid() == 0 && !become_nobody())
            return 2;
        LogCapture cap;
        errno = 0;
        const int rc = set_unlimited_core(nullptr);
        const int err = errno;
        put(out, strf("rc=%d errno=%d now=%s\n", rc, err, limit_of(RLIMIT_CORE).c_str()) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=-1 errno=%d now=0/8192\n", EPERM) + "(DBG)  set_unlimited_core: current=0/8192\n" +
                         "(ERR)  set_unlimited_core: setrlimit " + err_line("", EPERM));
}

// ---- set_nice ----

TEST(ProcNice, ZeroIsReportedAtInfo)
{
    NEED_ROOT();
    const ChildResult r = in_child([](int out) {
        if (setpriority(PRIO_PROCESS, 0, 0) != 0)
            return 2;
        LogCapture cap;
        const int rc = set_nice(0);
        put(out, strf("rc=%d\n", rc) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "rc=0\n(INF)  nice value adjusted by 0.\n");
}

TEST(ProcNice, ANewValueOtherThanZeroReadsAsAFailure)
{
    NEED_ROOT();
    const ChildResult r = in_child([](int out) {
        if (setpriority(PRIO_PROCESS, 0, 0) != 0)
            return 2;
        LogCapture cap;
        errno = 0;
        const int rc = set_nice(1);
        const int err = errno;
        put(out, strf("rc=%d errno=%d prio=%d\n", rc, err, getpriority(PRIO_PROCESS, 0)) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "rc=1 errno=0 prio=1\n(ERR)  nice(1) " + err_line("", 0));
}

TEST(ProcNice, BackToZeroIsASuccess)
{
    NEED_ROOT();
    const ChildResult r = in_child([](int out) {
        if (setpriority(PRIO_PROCESS, 0, 5) != 0)
            return 2;
        LogCapture cap;
        const int rc = set_nice(-5);
        put(out, strf("rc=%d prio=%d\n", rc, getpriority(PRIO_PROCESS, 0)) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "rc=0 prio=0\n(INF)  nice value adjusted by -5.\n");
}

TEST(ProcNice, AnUnprivilegedRaiseKeepsErrno)
{
    NEED_ROOT();
    const ChildResult r = in_child([](int out) {
        if (setpriority(PRIO_PROCESS, 0, 0) != 0 || !become_nobody())
            return 2;
        LogCapture cap;
        errno = 0;
        const int rc = set_nice(-1);
        const int err = errno;
        put(out, strf("rc=%d errno=%d prio=%d\n", rc, err, getpriority(PRIO_PROCESS, 0)) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=-1 errno=%d prio=0\n(ERR)  nice(-1) ", EPERM) + err_line("", EPERM));
}

// ---- pin2cpu ----

namespace {

std::string affinity()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) != 0)
        return "error";
    std::string s;
    for (int i = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(i, &set))
            s += (s.empty() ? "" : ",") + std::to_string(i);
    }
    return "{" + s + "}";
}

bool may_run_on(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    return sched_getaffinity(0, sizeof(set), &set) == 0 && CPU_ISSET(cpu, &set);
}

}  // namespace

TEST(ProcPin, Cpu0LeavesAMaskOfCpu0Alone)
{
    if (!may_run_on(0))
        GTEST_SKIP() << "processor 0 is not ours";
    const ChildResult r = in_child([](int out) {
        LogCapture cap;
        const int rc = pin2cpu(0);
        put(out, strf("rc=%d mask=%s\n", rc, affinity().c_str()) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "rc=0 mask={0}\n");
}

TEST(ProcPin, AnotherOfOurProcessors)
{
    const long n = sysconf(_SC_NPROCESSORS_ONLN);
    if (n < 2 || !may_run_on((int)n - 1))
        GTEST_SKIP() << "one processor only";
    const ChildResult r = in_child([n](int out) {
        const int rc = pin2cpu((int)n - 1);
        put(out, strf("rc=%d mask=%s\n", rc, affinity().c_str()));
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=0 mask={%ld}\n", n - 1));
}

TEST(ProcPin, AnInvalidProcessorFailsAndKeepsTheMask)
{
    const std::string before = affinity();
    const ChildResult r = in_child([](int out) {
        LogCapture cap;
        std::string s;
        for (int cpu : {CPU_SETSIZE - 1, -1, CPU_SETSIZE + 5}) {
            errno = 0;
            const int rc = pin2cpu(cpu);
            s += strf("%d:%d/%d ", cpu, rc, errno);
        }
        put(out, s + affinity() + "\n" + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("%d:-1/%d -1:-1/%d %d:-1/%d ", CPU_SETSIZE - 1, EINVAL, EINVAL, CPU_SETSIZE + 5, EINVAL) +
                         before + "\n");
}

// ---- redirect_output ----

TEST(ProcRedirect, StdoutAndStderrLandInTheFile)
{
    TempDir dir("proc");
    const std::string path = dir.make("out.txt", "");
    const ChildResult r = in_child([&path](int out) {
        LogCapture cap;
        const int fd = next_fd();
        const int rc = redirect_output(path.c_str());
        const bool left_open = fd_open(fd);
        (void)!write(1, "to stdout\n", 10);
        (void)!write(2, "to stderr\n", 10);
        printf("printf\n");
        fflush(stdout);
        fprintf(stderr, "fprintf\n");
        put(out, strf("rc=%d left_open=%d\n", rc, left_open) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "rc=0 left_open=0\n");
    EXPECT_EQ(slurp(path), "to stdout\nto stderr\nprintf\nfprintf\n");
}

TEST(ProcRedirect, MissingDirectoryIsMinusOneWithTheOpenLine)
{
    TempDir dir("proc");
    const std::string path = dir.at("none/out.txt");
    const ChildResult r = in_child([&path](int out) {
        LogCapture cap;
        errno = 0;
        const int rc = redirect_output(path.c_str());
        const int err = errno;
        put(out, strf("rc=%d errno=%d\n", rc, err) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=-1 errno=%d\n", ENOENT) + open_line("redirect_output", path, O_WRONLY, 0, ENOENT));
}

TEST(ProcRedirect, TheFileIsNotCreated)
{
    TempDir dir("proc");
    const std::string path = dir.at("out.txt");
    const ChildResult r = in_child([&path](int out) {
        LogCapture cap;
        const int rc = redirect_output(path.c_str());
        put(out, strf("rc=%d\n", rc) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, "rc=-1\n" + open_line("redirect_output", path, O_WRONLY, 0, ENOENT));
    EXPECT_FALSE(exists(path));
}

// With fd 0 free the file opens there; a descriptor limit then refuses the
// copy onto 1 (limit 1) or onto 2 (limit 2).
TEST(ProcRedirect, FailedCopiesOntoOneAndTwo)
{
    TempDir dir("proc");
    const std::string path = dir.make("out.txt", "");
    for (int limit : {1, 2}) {
        const ChildResult r = in_child([&path, limit](int out) {
            LogCapture cap;
            close(0);
            const rlimit lim{(rlim_t)limit, (rlim_t)limit};
            if (setrlimit(RLIMIT_NOFILE, &lim) != 0)
                return 2;
            errno = 0;
            const int rc = redirect_output(path.c_str());
            const int err = errno;
            put(out, strf("rc=%d errno=%d fd0=%d\n", rc, err, fd_open(0)) + cap.text());
            return 0;
        });
        ASSERT_TRUE(r.ok()) << r;
        EXPECT_EQ(r.out, strf("rc=%d errno=%d fd0=0\n", limit == 1 ? REDIR_STDOUT : REDIR_STDERR, EBADF)) << limit;
    }
}

// ---- signal installation ----

namespace {

volatile sig_atomic_t g_seen = 0;
void note_signal(int signo)
{
    g_seen = signo;
}

// Flags as the kernel keeps them, less the restorer the C library adds on
// Linux (SA_RESTORER, not in the user-space headers).
int plain_flags(const struct sigaction& sa)
{
#ifdef __linux__
    return sa.sa_flags & ~0x04000000;
#else
    return sa.sa_flags;
#endif
}

struct sigaction query(int signo)
{
    struct sigaction sa {};
    sigaction(signo, nullptr, &sa);
    return sa;
}

// Saves and puts back the handlers' flags.
class FlagsGuard {
public:
    FlagsGuard() : q_(g_quit), h_(g_hup), u_(g_usr1), t_(g_tdbg), g_(g_goodbye), c_(g_sigctx) { clear(); }
    ~FlagsGuard()
    {
        g_quit = q_;
        g_hup = h_;
        g_usr1 = u_;
        g_tdbg = t_;
        g_goodbye = g_;
        g_sigctx = c_;
    }
    FlagsGuard(const FlagsGuard&) = delete;
    FlagsGuard& operator=(const FlagsGuard&) = delete;

    static void clear()
    {
        g_quit = 0;
        g_hup = 0;
        g_usr1 = 0;
        g_tdbg = 0;
        g_goodbye = 0;
        g_sigctx = 0;
    }
    static std::string flags()
    {
        return strf("quit=%d hup=%d usr1=%d tdbg=%d goodbye=%d sigctx=%d", (int)g_quit, (int)g_hup, (int)g_usr1,
                    (int)g_tdbg, (int)g_goodbye, (int)g_sigctx);
    }

private:
    sig_atomic_t q_, h_, u_, t_, g_, c_;
};

}  // namespace

TEST(ProcSignals, HandleQuitSignalsInstallsTermQuitIntWithoutRestart)
{
    SavedAction s0(SIGTERM), s1(SIGQUIT), s2(SIGINT);
    LogCapture cap;
    ASSERT_EQ(handle_quit_signals(note_signal), 0);
    for (int signo : {SIGTERM, SIGQUIT, SIGINT}) {
        const struct sigaction sa = query(signo);
        EXPECT_EQ(sa.sa_handler, note_signal) << signo;
        EXPECT_EQ(plain_flags(sa), 0) << signo;
        EXPECT_EQ(sa.sa_flags & SA_RESTART, 0) << signo;
        EXPECT_TRUE(sigisemptyset(&sa.sa_mask)) << signo;
        g_seen = 0;
        raise(signo);
        EXPECT_EQ(g_seen, signo);
    }
    EXPECT_EQ(cap.text(), "");
}

TEST(ProcSignals, HandleQuitSignalsStopsAtTheFirstFailure)
{
    NEED_FILTERS();
    const ChildResult r = in_child([](int out) {
        if (!fail_syscall(__NR_rt_sigaction, EINVAL, 0, SIGQUIT))
            return 2;
        LogCapture cap;
        errno = 0;
        const int rc = handle_quit_signals(note_signal);
        const int err = errno;
        const bool term = query(SIGTERM).sa_handler == note_signal;
        const bool intr = query(SIGINT).sa_handler == note_signal;
        put(out, strf("rc=%d errno=%d term=%d int=%d\n", rc, err, term, intr) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=-1 errno=%d term=1 int=0\n", EINVAL) + "(ERR)  handle_quit_signals: sigaction (quit) " +
                         err_line("", EINVAL));
}

TEST(ProcSignals, HandleSigInstallsOneWithoutRestart)
{
    SavedAction saved(SIGUSR2);
    LogCapture cap;
    ASSERT_EQ(handle_sig(SIGUSR2, note_signal), 0);
    const struct sigaction sa = query(SIGUSR2);
    EXPECT_EQ(sa.sa_handler, note_signal);
    EXPECT_EQ(plain_flags(sa), 0);
    EXPECT_TRUE(sigisemptyset(&sa.sa_mask));
    EXPECT_EQ(cap.text(), "");
}

TEST(ProcSignals, HandleSigFailureLine)
{
    for (int signo : {SIGKILL, SIGSTOP, 0, 65}) {
        LogCapture cap;
        errno = 0;
        EXPECT_EQ(handle_sig(signo, note_signal), -1) << signo;
        EXPECT_EQ(errno, EINVAL) << signo;
        EXPECT_EQ(cap.text(), strf("(ERR)  handle_sig: sigaction (signo=%d) ", signo) + err_line("", EINVAL));
    }
}

TEST(ProcSignals, IgnoreSigpipe)
{
    SavedAction saved(SIGPIPE);
    LogCapture cap;
    ASSERT_EQ(ignore_sigpipe(), 0);
    const struct sigaction sa = query(SIGPIPE);
    EXPECT_EQ(sa.sa_handler, SIG_IGN);
    EXPECT_EQ(plain_flags(sa), 0);
    EXPECT_TRUE(sigisemptyset(&sa.sa_mask));
    EXPECT_EQ(cap.text(), "");
}

TEST(ProcSignals, IgnoreSigpipeFailureLine)
{
    NEED_FILTERS();
    const ChildResult r = in_child([](int out) {
        if (!fail_syscall(__NR_rt_sigaction, EINVAL, 0, SIGPIPE))
            return 2;
        LogCapture cap;
        errno = 0;
        const int rc = ignore_sigpipe();
        const int err = errno;
        put(out, strf("rc=%d errno=%d\n", rc, err) + cap.text());
        return 0;
    });
    ASSERT_TRUE(r.ok()) << r;
    EXPECT_EQ(r.out, strf("rc=-1 errno=%d\n", EINVAL) + "(ERR)  ignore_sigpipe: sigaction (SIGPIPE) " +
                         err_line("", EINVAL));
}

// ---- the ready-made handlers ----

TEST(ProcHandlers, OnSighupByItsSignal)
{
    FlagsGuard keep;
    SavedAction saved(SIGHUP);
    LogCapture cap(NORM_level);
    ASSERT_EQ(handle_sig(SIGHUP, on_sighup), 0);
    raise(SIGHUP);
    EXPECT_EQ(FlagsGuard::flags(), "quit=0 hup=1 usr1=0 tdbg=0 goodbye=0 sigctx=0");
    EXPECT_EQ(cap.text(), strf("(NRM)  SIGHUP(%d)\n", SIGHUP));
}

TEST(ProcHandlers, OnSigusr1ByItsSignal)
{
    FlagsGuard keep;
    SavedAction saved(SIGUSR1);
    LogCapture cap(NORM_level);
    ASSERT_EQ(handle_sig(SIGUSR1, on_sigusr1), 0);
    raise(SIGUSR1);
    EXPECT_EQ(FlagsGuard::flags(), "quit=0 hup=0 usr1=1 tdbg=0 goodbye=0 sigctx=0");
    EXPECT_EQ(cap.text(), strf("(NRM)  SIGUSR1(%d)\n", SIGUSR1));
}

TEST(ProcHandlers, OnTdbgByItsSignal)
{
    FlagsGuard keep;
    SavedAction saved(SIGUSR2);
    LogCapture cap(NORM_level);
    ASSERT_EQ(handle_sig(SIGUSR2, on_tdbg), 0);
    raise(SIGUSR2);
    EXPECT_EQ(FlagsGuard::flags(), "quit=0 hup=0 usr1=0 tdbg=1 goodbye=0 sigctx=0");
    EXPECT_EQ(cap.text(), strf("(NRM)  T-DBG SIG(%d)\n", SIGUSR2));
}

TEST(ProcHandlers, LinesCarryTheNumberGiven)
{
    FlagsGuard keep;
    LogCapture cap;
    on_sighup(40);
    on_sigusr1(41);
    on_tdbg(42);
    EXPECT_EQ(FlagsGuard::flags(), "quit=0 hup=1 usr1=1 tdbg=1 goodbye=0 sigctx=0");
    EXPECT_EQ(cap.text(), "(NRM)  SIGHUP(40)\n(NRM)  SIGUSR1(41)\n(NRM)  T-DBG SIG(42)\n");
}

TEST(ProcHandlers, LinesAreNormLevel)
{
    FlagsGuard keep;
    SavedAction chld(SIGCHLD), hup(SIGHUP), usr1(SIGUSR1);
    LogCapture cap(WARN_level);
    on_sighup(SIGHUP);
    on_sigusr1(SIGUSR1);
    on_tdbg(SIGUSR2);
    on_sigquit(SIGQUIT);
    EXPECT_EQ(FlagsGuard::flags(), "quit=1 hup=1 usr1=1 tdbg=1 goodbye=0 sigctx=0");
    EXPECT_EQ(cap.text(), "");
}

TEST(ProcHandlers, OnSigquitForQuitSetsOnlyQuitThenIgnoresTheRest)
{
    FlagsGuard keep;
    SavedAction quit(SIGQUIT), chld(SIGCHLD), hup(SIGHUP), usr1(SIGUSR1);
    ASSERT_EQ(handle_sig(SIGHUP, note_signal), 0);
    ASSERT_EQ(handle_sig(SIGUSR1, note_signal), 0);
    ASSERT_EQ(handle_sig(SIGQUIT, on_sigquit), 0);
    LogCapture cap;
    raise(SIGQUIT);
    EXPECT_EQ(FlagsGuard::flags(), "quit=1 hup=0 usr1=0 tdbg=0 goodbye=0 sigctx=0");
    EXPECT_EQ(cap.text(), strf("(NRM)  QUIT-SIG(%d)\n", SIGQUIT));
    for (int signo : {SIGCHLD, SIGHUP, SIGUSR1}) {
        const struct sigaction sa = query(signo);
        EXPECT_EQ(sa.sa_handler, SIG_IGN) << signo;
        EXPECT_EQ(plain_flags(sa), 0) << signo;
    }
    // The quit handler itself stays.
    EXPECT_EQ(query(SIGQUIT).sa_handler, on_sigquit);
}

TEST(ProcHandlers, OnSigquitSaysGoodbyeForIntAndTermOnly)
{
    SavedAction chld(SIGCHLD), hup(SIGHUP), usr1(SIGUSR1), term(SIGTERM), intr(SIGINT);
    for (int signo : {SIGINT, SIGTERM}) {
        FlagsGuard keep;
        ASSERT_EQ(handle_sig(signo, on_sigquit), 0);
        LogCapture cap;
        raise(signo);
        EXPECT_EQ(FlagsGuard::flags(), "quit=1 hup=0 usr1=0 tdbg=0 goodbye=1 sigctx=0") << signo;
        EXPECT_EQ(cap.text(), strf("(NRM)  QUIT-SIG(%d)\n", signo));
        EXPECT_EQ(query(SIGCHLD).sa_handler, SIG_IGN);
        EXPECT_EQ(query(SIGHUP).sa_handler, SIG_IGN);
        EXPECT_EQ(query(SIGUSR1).sa_handler, SIG_IGN);
    }
    for (int signo : {SIGQUIT, SIGHUP, SIGALRM}) {
        FlagsGuard keep;
        LogCapture cap;
        on_sigquit(signo);
        EXPECT_EQ(FlagsGuard::flags(), "quit=1 hup=0 usr1=0 tdbg=0 goodbye=0 sigctx=0") << signo;
        EXPECT_EQ(cap.text(), strf("(NRM)  QUIT-SIG(%d)\n", signo));
    }
}

TEST(ProcHandlers, QuitHandlerThroughHandleQuitSignals)
{
    SavedAction s0(SIGTERM), s1(SIGQUIT), s2(SIGINT), chld(SIGCHLD), hup(SIGHUP), usr1(SIGUSR1);
    ASSERT_EQ(handle_quit_signals(on_sigquit), 0);
    for (int signo : qsigs) {
        FlagsGuard keep;
        LogCapture cap;
        raise(signo);
        EXPECT_EQ(g_quit, 1) << signo;
        EXPECT_EQ(g_goodbye, signo == SIGQUIT ? 0 : 1) << signo;
        EXPECT_EQ(cap.text(), strf("(NRM)  QUIT-SIG(%d)\n", signo));
    }
}
