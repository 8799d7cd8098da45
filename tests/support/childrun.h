// Runs a test body in a forked child that first enters an environment of its
// own (namespaces, another user): the child's failures are printed there by
// the framework and come back as its exit status; a reason not to run comes
// back as a skip. The wait is bounded.
#pragma once

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <functional>
#include <string>

constexpr int CHILD_SKIP_STATUS = 77;

// enter() runs in the child and returns an empty text, or the reason to skip.
inline void run_in_child(const std::function<std::string()>& enter, const std::function<void()>& body,
                         const char* what = "the child")
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(p[0]);
        const std::string why = enter();
        if (!why.empty()) {
            (void)!write(p[1], why.data(), why.size());
            _exit(CHILD_SKIP_STATUS);
        }
        body();
        fflush(stdout);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    close(p[1]);
    int status = 0;
    bool done = false;
    for (int i = 0; i < 3000 && !done; ++i) {  // 30 s at most
        if (waitpid(pid, &status, WNOHANG) == pid)
            done = true;
        else
            usleep(10000);
    }
    if (!done) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    char why[512] = {};
    const ssize_t n = read(p[0], why, sizeof(why) - 1);
    close(p[0]);
    ASSERT_TRUE(done) << what << " did not finish in time";
    ASSERT_TRUE(WIFEXITED(status)) << what << " died of signal " << WTERMSIG(status);
    if (WEXITSTATUS(status) == CHILD_SKIP_STATUS)
        GTEST_SKIP() << std::string(why, n > 0 ? static_cast<size_t>(n) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 0) << what << " reported failures (above)";
}
