// Build identity: the long line, the short tag, the library's tag and the
// system text, each made once and then cached for the process's life.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "meta.h"
#include "platform.h"
#include "strf.h"

namespace {
bool g_fail_uname = false;
}

// This binary's own uname, so a test can make it fail; otherwise the C library's.
extern "C" int uname(struct utsname* buf)
{
    if (g_fail_uname)
        return -1;
    using uname_fn = int (*)(struct utsname*);
    static const auto real = reinterpret_cast<uname_fn>(dlsym(RTLD_NEXT, "uname"));
    return real(buf);
}

namespace {

// The caches live as long as the process: every check runs in a child of its own.
void in_child(const std::function<void()>& body)
{
    fflush(nullptr);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "a check failed in the child";
}

std::string expected_sysinfo()
{
    utsname un{};
    EXPECT_EQ(uname(&un), 0);
    return strf("%s - %s/%s", plat_build_system(), un.release, un.machine);
}

std::string identity(const std::string& app, const std::string& descr, const std::string& sys,
                     const std::string& cksum)
{
    return app + " (" + descr + ") 0.1-9.2 (morvane) regular [" + sys + "] " + cksum + "; built on 2018-01-22";
}

TEST(Meta, TheIdentityLineOfTheTool)
{
    in_child([] {
        const std::string sys = expected_sysinfo();
        const std::string line = get_app_info("kst", "12345678");
        EXPECT_EQ(line, identity("kst", "Stream snapshot manager", sys, "12345678"));
    });
}

TEST(Meta, TheDefaultCheckValueIsEightDigits)
{
    in_child([] {
        const std::string line = get_app_info("kst", nullptr);
        const std::string tail = line.substr(line.rfind("] ") + 2);
        ASSERT_EQ(tail.size(), strlen("12345678; built on 2018-01-22"));
        for (size_t i = 0; i < 8; ++i)
            EXPECT_TRUE(tail[i] >= '0' && tail[i] <= '9') << tail;
        EXPECT_EQ(tail.substr(8), "; built on 2018-01-22");
    });
}

TEST(Meta, TheFirstLineAskedForIsCached)
{
    in_child([] {
        const std::string first = get_app_info("kst", "11111111");
        EXPECT_EQ(std::string(get_app_info("other", "22222222")), first);
        EXPECT_EQ(std::string(get_custom_app_info("x", "y", "z")), first);
    });
}

TEST(Meta, AnUnknownTagIsDescribedAsAnError)
{
    in_child([] {
        EXPECT_STREQ(app_description("nope"), "#error#");
        EXPECT_STREQ(app_description("KST"), "Stream snapshot manager");
        const std::string sys = expected_sysinfo();
        EXPECT_EQ(std::string(get_app_info("nope", "00000001")), identity("nope", "#error#", sys, "00000001"));
    });
}

TEST(Meta, AGivenDescriptionIsUsed)
{
    in_child([] {
        const std::string sys = expected_sysinfo();
        EXPECT_EQ(std::string(get_custom_app_info("kst", "Test run", "99999999")),
                  identity("kst", "Test run", sys, "99999999"));
    });
}

TEST(Meta, TheSystemNamesTheBuildPlatformAndTheRunningOne)
{
    in_child([] {
        const std::string sys = get_sysinfo();
        EXPECT_EQ(sys, expected_sysinfo());
        // Built here for the platform CMake targeted, not a fixed name.
        EXPECT_EQ(sys.rfind("Linux ", 0), 0u) << sys;
        EXPECT_EQ(std::string(get_sysinfo()), sys);
    });
}

TEST(Meta, AFailingUnameLeavesTheSystemFieldNull)
{
    in_child([] {
        g_fail_uname = true;
        EXPECT_EQ(get_sysinfo(), nullptr);
        EXPECT_EQ(std::string(get_app_info("kst", "12345678")),
                  identity("kst", "Stream snapshot manager", "(null)", "12345678"));
    });
}

TEST(Meta, TheShortTag)
{
    in_child([] {
        EXPECT_STREQ(get_app_tag("kst"), "kst/0.1-9.2 (morvane)");
        EXPECT_STREQ(get_app_tag("other"), "kst/0.1-9.2 (morvane)");
    });
}

TEST(Meta, TheLibraryTagAndTheBuildInfo)
{
    in_child([] {
        const std::string tag = lbvrx_info();
        EXPECT_EQ(tag.rfind("libvrx/1.5-5.20 (c28edb42) @", 0), 0u) << tag;
        const std::string stamp = tag.substr(strlen("libvrx/1.5-5.20 (c28edb42) @"));
        EXPECT_FALSE(stamp.empty());
        EXPECT_EQ(stamp.find_first_not_of("0123456789"), std::string::npos) << stamp;

        char* text = nullptr;
        size_t len = 0;
        FILE* fp = open_memstream(&text, &len);
        dump_build_info(fp);
        fclose(fp);
        EXPECT_EQ(std::string(text, len), "----\n" + tag + " [-ggdb3]\n----\n\n");
        free(text);
    });
}

}  // namespace
