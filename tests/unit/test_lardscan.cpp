// Finding rings and telling what they are without trusting their names; and
// what a process runs, as the platform tells it.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "lard.h"
#include "lardscan.h"
#include "platform.h"

namespace {

std::string ring_name(const char* what)
{
    return "kst_test_lardscan." + std::to_string(getpid()) + "." + what;
}

void put_object(const std::string& oname, size_t size)
{
    const int fd = shm_open(("/" + oname).c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, (off_t)size), 0);
    close(fd);
}

void collect(const char* name, void* arg)
{
    static_cast<std::set<std::string>*>(arg)->insert(name);
}

TEST(LardScan, ALiveRingIsFoundListedAndActive)
{
    const std::string name = ring_name("live");
    lard_t lh = lard_create(name.c_str(), 2);
    ASSERT_NE(lh, nullptr);
    bool missing = true;
    char why[256] = "";
    EXPECT_EQ(lard_check_ring(name.c_str(), &missing, why, sizeof(why)), 0) << why;
    EXPECT_FALSE(missing);
    std::set<std::string> names;
    ASSERT_EQ(lard_ring_names(collect, &names), 0);
    EXPECT_EQ(names.count(name), 1u);
    EXPECT_EQ(std::string(lard_state_str(lh)), "active");
    EXPECT_LT(lard_age_seconds(lard_get_meta(lh)), 0);  // nothing written yet
    ASSERT_GT(lard_puts(lh, "a line\n"), 0);
    const double age = lard_age_seconds(lard_get_meta(lh));
    EXPECT_GE(age, 0);
    EXPECT_LT(age, 5);
    lard_destroy(lh);
    EXPECT_NE(lard_check_ring(name.c_str(), &missing, why, sizeof(why)), 0);
    EXPECT_TRUE(missing);
}

TEST(LardScan, ObjectsThatAreNoRingAreToldWhy)
{
    const std::string name = ring_name("bad");
    put_object(name + ".meta", 10);
    bool missing = true;
    char why[256] = "";
    EXPECT_NE(lard_check_ring(name.c_str(), &missing, why, sizeof(why)), 0);
    EXPECT_FALSE(missing);
    EXPECT_EQ(std::string(why), "/" + name + ".meta holds 10 bytes, not " + std::to_string(sizeof(lard_meta)));

    // A meta object of the right size with an absurd page count.
    const int fd = shm_open(("/" + name + ".meta").c_str(), O_RDWR, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, sizeof(lard_meta)), 0);
    lard_meta m{};
    m.seg_pages = SIZE_MAX / 2;
    ASSERT_EQ(pwrite(fd, &m, sizeof(m), 0), (ssize_t)sizeof(m));
    close(fd);
    put_object(name + ".dat", 4096);
    EXPECT_NE(lard_check_ring(name.c_str(), &missing, why, sizeof(why)), 0);
    EXPECT_NE(strstr(why, ".dat holds 4096 bytes"), nullptr) << why;
    shm_unlink(("/" + name + ".meta").c_str());
    shm_unlink(("/" + name + ".dat").c_str());

    EXPECT_NE(lard_check_ring("a/b", &missing, why, sizeof(why)), 0);
    EXPECT_NE(lard_check_ring("", &missing, why, sizeof(why)), 0);
}

TEST(LardScan, ARingOfADeadOwnerIsAbandoned)
{
    const std::string name = ring_name("dead");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        lard_t lh = lard_create(name.c_str(), 1);
        _exit(lh == nullptr ? 1 : 0);  // no close: a crash as a reader sees it
    }
    int st = 0;
    ASSERT_EQ(waitpid(child, &st, 0), child);
    ASSERT_EQ(WEXITSTATUS(st), 0);
    lard_t lh = lard_open(name.c_str());
    ASSERT_NE(lh, nullptr);
    EXPECT_EQ(std::string(lard_state_str(lh)), "abandoned");
    lard_close(lh);
    shm_unlink(("/" + name + ".meta").c_str());
    shm_unlink(("/" + name + ".dat").c_str());
}

TEST(PlatProcImage, TellsThisProcesssExecutableAndArguments)
{
    char exe[PATH_MAX];
    char args[4096];
    size_t n = 0;
    ASSERT_EQ(plat_proc_image(getpid(), exe, sizeof(exe), args, sizeof(args), &n), 0);
    const std::string path(exe);
    EXPECT_EQ(path[0], '/');
    EXPECT_EQ(path.substr(path.rfind('/') + 1), "test_lardscan");
    ASSERT_GT(n, 0u);
    EXPECT_NE(strstr(args, "test_lardscan"), nullptr) << args;
}

TEST(PlatProcImage, NoSuchProcess)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        _exit(0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    char exe[PATH_MAX];
    char args[64];
    size_t n = 0;
    errno = 0;
    EXPECT_EQ(plat_proc_image(child, exe, sizeof(exe), args, sizeof(args), &n), -1);
    EXPECT_EQ(errno, ESRCH);
}

}  // namespace
